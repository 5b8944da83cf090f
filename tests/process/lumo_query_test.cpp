#include <gtest/gtest.h>

#include "tests/process/program.h"
#include "tests/support/agent.h"

namespace {

using test::NodeProgram;
using test::Program;

struct Outcome {
  std::optional<int> Status;
  std::string Out, Err;
};

class LumoQuery : public ::testing::Test {
 protected:
  Outcome Query(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-M", std::to_string(agent_.ExchangeId())});
    return Run(arguments);
  }
  Outcome Run(const std::vector<std::string>& arguments,
              std::map<std::string, std::string> environment = {}) {
    environment["TAVRIN_TMP"] = agent_.SocketFolder();
    Program program(LUMO_QUERY_PATH, arguments, environment);
    const auto status = program.Wait();
    return {status, program.Stdout(), program.Stderr()};
  }
  void Start(const std::string& nodetab) {
    agent_.Nodetab(nodetab);
    ASSERT_TRUE(agent_.Start());
  }
  void Expect(const std::vector<std::string>& arguments, int status, const std::string& out,
              const std::string& err) {
    const Outcome outcome = Query(arguments);
    EXPECT_EQ(outcome.Status, status);
    EXPECT_EQ(outcome.Out, out);
    EXPECT_EQ(outcome.Err, err);
  }

  test::Agent agent_;
};

TEST_F(LumoQuery, RowsAreOnStandardOutputAndTheStatusIsZero) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV"));
  Expect({"-n", "srv", "create table t(a); insert into t values (1), (2)", "select a from t"}, 0,
         "1\n2\n", "");
}

TEST_F(LumoQuery, VerboseAddsCountSizeAndCode) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV"));
  Expect({"-v", "select 1 union select 23"}, 0, "1\n23\n-- rows 2, bytes 4, code 0\n", "");
}

TEST_F(LumoQuery, ErrorOfTheDatabaseIsStatusOneAndEndsTheRun) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV"));
  Expect({"select 1", "nonsense", "select 2"}, 1, "1\n",
         "lumo_query: the node refused: near \"nonsense\": syntax error (code 1)\n");
}

TEST_F(LumoQuery, CodeOfTheAgentIsStatusTwoInWords) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV"));
  Expect({"-n", "NOBODY", "select 1"}, 2, "",
         "lumo_query: the node table has no such node (code 4050)\n");
}

TEST_F(LumoQuery, WithoutAnAgentTheStatusIsThree) {
  const Outcome outcome = Query({"select 1"});
  EXPECT_EQ(outcome.Status, 3);
  EXPECT_NE(outcome.Err.find("no agent answers"), std::string::npos);
}

TEST_F(LumoQuery, WithoutAnAnswerTheStatusIsThree) {
  NodeProgram node({"--listen", "0", "--silent"});
  Start(node.Line("SRV"));
  Expect({"--timeout", "0.1", "select 1"}, 3, "", "lumo_query: no answer came in time\n");
}

TEST_F(LumoQuery, LostAgentIsStatusThree) {
  NodeProgram node({"--listen", "0", "--silent"});
  Start(node.Line("SRV"));
  Program query(LUMO_QUERY_PATH, {"-M", std::to_string(agent_.ExchangeId()), "select 1"},
                {{"TAVRIN_TMP", agent_.SocketFolder()}});
  ASSERT_TRUE(node.WaitForStderr("select 1"));
  agent_.Kill();
  EXPECT_EQ(query.Wait(), 3);
  EXPECT_EQ(query.Stderr(), "lumo_query: the connection to the agent was lost\n");
}

TEST_F(LumoQuery, BadCommandLinesAreStatusFour) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV"));
  const std::vector<std::vector<std::string>> lines{
      {},
      {"--no-such-option"},
      {"-n", "NINECHARS", "select 1"},
      {"--list", "select 1"},
      {"--list", "--path"},
      {"--timeout", "-1", "select 1"},
      {"--set", "SRV"},
      {std::string(8081, 'x')},
  };
  for (const auto& line : lines) EXPECT_EQ(Query(line).Status, 4) << testing::PrintToString(line);
}

TEST_F(LumoQuery, ExchangeIdComesFromTheEnvironmentToo) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV"));
  const Outcome outcome = Run({"select 1"}, {{"NET_MBX", std::to_string(agent_.ExchangeId())}});
  EXPECT_EQ(outcome.Status, 0);
  EXPECT_EQ(outcome.Out, "1\n");
}

TEST_F(LumoQuery, NodesAreListedWithTheDefaultMarked) {
  Start("ONE TCPIP 127.0.0.1 1\nTWO LOCALS 5\nTHREE REZ x\n");
  Expect({"--list"}, 0, "#0 * ONE\tTCPIP\t127.0.0.1:1\n#1   TWO\tLOCALS\n#2   THREE\tother\n", "");
}

TEST_F(LumoQuery, NodeIsShownByNameByNumberAndAsDefault) {
  Start("ONE TCPIP 127.0.0.1 1 2 3 4\nTWO TCPIP 127.0.0.2 5\n");
  const std::string one =
      "name\tONE\nprotocol\tTCPIP\naddress\t127.0.0.1\nport\t1\nreceive time-out\t2\n"
      "send time-out\t3\nconnect time-out\t4\n";
  Expect({"--show", "one"}, 0, one, "");
  Expect({"--show", "#0"}, 0, one, "");
  Expect({"--show", "default"}, 0, one, "");
  Expect({"--show", "#2"}, 2, "", "lumo_query: there is no such node\n");
  Expect({"--show", "#x"}, 2, "", "lumo_query: there is no such node\n");
}

TEST_F(LumoQuery, DefaultIsPrintedAndChanged) {
  Start("ONE TCPIP 127.0.0.1 1\nTWO TCPIP 127.0.0.1 2\n");
  Expect({"--default"}, 0, "ONE\n", "");
  Expect({"--default", "#1"}, 0, "TWO\n", "");
  Expect({"--default"}, 0, "TWO\n", "");
  Expect({"--default", "one"}, 0, "ONE\n", "");
  Expect({"--default", "#2"}, 2, "", "lumo_query: there is no such node\n");
  Expect({"--default", "THREE"}, 2, "", "lumo_query: there is no such node\n");
}

TEST_F(LumoQuery, NodesAreAddedRedefinedAndDeleted) {
  Start("ONE TCPIP 127.0.0.1 1\n");
  Expect({"--add", "TWO TCPIP 127.0.0.1 2"}, 0, "added\n", "");
  Expect({"--add", "TOOLONGNAME TCPIP 127.0.0.1 2"}, 2, "",
         "lumo_query: the agent refused (result 1)\n");
  Expect({"--set", "TWO", "TWO TCPIP 127.0.0.1 22"}, 0, "redefined\n", "");
  Expect({"--list"}, 0, "#0 * ONE\tTCPIP\t127.0.0.1:1\n#1   TWO\tTCPIP\t127.0.0.1:22\n", "");
  Expect({"--delete", "TWO"}, 0, "deleted\n", "");
  Expect({"--delete", "TWO"}, 2, "", "lumo_query: there is no such node\n");
}

TEST_F(LumoQuery, NodeInUseIsDeletedLater) {
  NodeProgram node({"--listen", "0"});
  Start("ONE TCPIP 127.0.0.1 1\n" + node.Line("TWO"));
  Expect({"-n", "TWO", "select 1"}, 0, "1\n", "");
  Expect({"--delete", "TWO"}, 0, "in use: it will be deleted when its link is disconnected\n", "");
}

TEST_F(LumoQuery, PathOfTheNodeTableIsPrinted) {
  Start("ONE TCPIP 127.0.0.1 1\n");
  Expect({"--path"}, 0, agent_.NodetabPath().string() + "\n", "");
}

TEST_F(LumoQuery, LockIsHeldByItsOwner) {
  Start("ONE TCPIP 127.0.0.1 1\n");
  Expect({"--status"}, 0, "free\n", "");
  Expect({"--lock", "--owner", "7"}, 0, "locked\n", "");
  Expect({"--status", "--owner", "7"}, 0, "held by this owner\n", "");
  Expect({"--status", "--owner", "8"}, 0, "held by another\n", "");
  Expect({"--lock", "--owner", "8"}, 2, "",
         "lumo_query: the node table's lock is held by another\n");
  Expect({"--unlock", "--owner", "8"}, 2, "",
         "lumo_query: the node table's lock is held by another\n");
  Expect({"--unlock", "--owner", "7"}, 0, "unlocked\n", "");
  Expect({"--status", "--owner", "8"}, 0, "free\n", "");
}

}  // namespace
