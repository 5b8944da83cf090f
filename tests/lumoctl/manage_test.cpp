// The commands that look at the agent and change one thing.
#include "lib/include/lumo.h"
#include "tests/lumoctl/control.h"
#include "tests/support/text.h"

namespace {

using test::NodeProgram;
using test::Program;

class Manage : public test::ControlTest {
 protected:
  std::string NobodyAnswers(const std::string& reason = "No such file or directory") const {
    return "lumoctl: no agent answers: " + agent_.SocketPath() + " (" + reason +
           "); start it (systemctl start lumo_tcp), or say where it is with TAVRIN_TMP, -M or "
           "--socket\n";
  }
};

constexpr char kTwo[] = "ONE TCPIP 127.0.0.1 1 2 3 4\nTWO LOCALS 5\n";

TEST_F(Manage, ListIsATableOrJsonOrNames) {
  Start(kTwo);
  Expect({"list"}, 0,
         "#     NODE  PROTOCOL  ADDRESS    PORT  RECEIVE  SEND  CONNECT\n"
         "0  *  ONE   TCPIP     127.0.0.1  1     2        3     4\n"
         "1     TWO   LOCALS\n");
  const Json nodes = Ask({"list"}).at("nodes");
  ASSERT_EQ(nodes.size(), 2U);
  EXPECT_EQ(nodes[0], R"({"index": 0, "default": true, "name": "ONE", "protocol": "TCPIP",
                          "address": "127.0.0.1", "port": 1, "receive_timeout": 2,
                          "send_timeout": 3, "connect_timeout": 4})"_json);
  EXPECT_EQ(nodes[1],
            (Json{{"index", 1}, {"default", false}, {"name", "TWO"}, {"protocol", "LOCALS"}}));
  Expect({"list", "--names"}, 0, "ONE\nTWO\n");
}

TEST_F(Manage, ColoursAreForTerminalsOrOnRequest) {
  Start(kTwo);
  EXPECT_EQ(Run({"list"}).Out.find('\033'), std::string::npos);
  EXPECT_NE(Run({"list", "--color", "always"}).Out.find("\033[1mONE\033[0m"), std::string::npos);
  EXPECT_EQ(Run({"list", "--color", "always", "--json"}).Out.find('\033'), std::string::npos);
  EXPECT_EQ(Run({"list", "--color", "sometimes"}).Status, 2);
}

TEST_F(Manage, NodeIsShownByNameByNumberAndAsDefault) {
  Start(kTwo);
  const std::string one =
      "name              ONE\nprotocol          TCPIP\naddress           127.0.0.1\n"
      "port              1\nreceive time-out  2\nsend time-out     3\nconnect time-out  4\n";
  Expect({"show", "one"}, 0, one);
  Expect({"show", "#0"}, 0, one);
  Expect({"show", "default"}, 0, one);
  Expect({"show", "#1"}, 0, "name              TWO\nprotocol          LOCALS\n");
  Expect({"show", "#2"}, 1, "", "lumoctl: there is no node #2\n");
  EXPECT_EQ(Ask({"show", "ONE"}).at("port"), 1);
  const Json error = Ask({"show", "NONE"}, 1).at("error");
  EXPECT_EQ(error, (Json{{"status", 1}, {"message", "there is no node NONE"}}));
}

TEST_F(Manage, DefaultIsPrintedAndChanged) {
  Start(kTwo);
  Expect({"default"}, 0, "ONE\n");
  Expect({"default", "two"}, 0, "TWO\n");
  EXPECT_EQ(Ask({"default", "#0"}), (Json{{"default", "ONE"}}));
  Expect({"default", "#2"}, 1, "", "lumoctl: there is no node #2\n");
  Expect({"default", "NONE"}, 1, "", "lumoctl: there is no node NONE\n");
}

TEST_F(Manage, NodesAreAddedRedefinedAndDeleted) {
  Start("ONE TCPIP 127.0.0.1 1\n");
  Expect({"add", "TWO TCPIP 127.0.0.1 2"}, 0, "added\n");
  Expect({"add", "THREE", "TCPIP", "127.0.0.1", "3"}, 0, "added\n");
  Expect({"set", "TWO", "TWO TCPIP 127.0.0.1 22"}, 0, "redefined\n");
  EXPECT_EQ(Ask({"show", "TWO"}).at("port"), 22);
  EXPECT_EQ(Ask({"set", "#1", "FOUR", "LOCALS", "7"}),
            (Json{{"node", "FOUR"}, {"outcome", "redefined"}}));
  Expect({"set", "FOUR", "FOUR LOCALS 8"}, 0,
         "sent: in force at once, unless the node is in use\n");
  Expect({"set", "default", "ONE TCPIP 127.0.0.1 11"}, 0, "redefined\n");
  EXPECT_EQ(Ask({"show", "ONE"}).at("port"), 11);
  Expect({"del", "three"}, 0, "deleted\n");
  EXPECT_EQ(Ask({"del", "#1"}), (Json{{"node", "FOUR"}, {"outcome", "deleted"}}));
  Expect({"del", "FOUR"}, 1, "", "lumoctl: there is no node FOUR\n");
  EXPECT_EQ(Names(), "ONE\n");
}

TEST_F(Manage, LinesThatMakeNoNodeAreRefusedWithTheReason) {
  Start(kTwo);
  Expect({"add", "NINECHARS TCPIP 127.0.0.1"}, 1, "",
         "lumoctl: the name 'NINECHARS' has 9 characters; the most is 8\n");
  Expect({"add", "ONE TCPIP 127.0.0.1"}, 1, "", "lumoctl: there is a node ONE\n");
  Expect({"add", "two LOCALS 5"}, 1, "", "lumoctl: there is a node TWO\n");
  Expect({"set", "ONE", "ONE UDP"}, 1, "", "lumoctl: the protocol 'UDP' is unknown\n");
  Expect({"set", "ONE", "TWO TCPIP 127.0.0.1"}, 1, "", "lumoctl: there is a node TWO\n");
  Expect({"set", "NONE", "NONE TCPIP 127.0.0.1"}, 1, "", "lumoctl: there is no node NONE\n");
  EXPECT_EQ(Names(), "ONE\nTWO\n");
}

TEST_F(Manage, NodeInUseChangesWhenItsLinkGoes) {
  NodeProgram node({"--listen", "0"});
  Start("ONE TCPIP 127.0.0.1 1\n" + node.Line("TWO"));
  Use("TWO");
  Expect({"set", "TWO", "TWO TCPIP 127.0.0.1 22"}, 5,
         "in use: in force when its link is disconnected\n");
  EXPECT_EQ(Ask({"set", "#1", "TRE TCPIP 127.0.0.1 23"}, 5),
            (Json{{"node", "TRE"}, {"outcome", "deferred"}}));
  Expect({"del", "TWO"}, 5, "in use: it will be deleted when its link is disconnected\n");
  EXPECT_EQ(Names(), "ONE\nTWO\n");
  node.Stop();
  EXPECT_TRUE(test::WaitFor([&] { return Names() == "ONE\n"; }));
}

TEST_F(Manage, PathOfTheNodeTableIsPrinted) {
  Start(kTwo);
  Expect({"path"}, 0, agent_.NodetabPath().string() + "\n");
  EXPECT_EQ(Ask({"path"}), (Json{{"path", agent_.NodetabPath().string()}}));
  std::filesystem::remove(agent_.NodetabPath());
  Expect({"path"}, 1, "", "lumoctl: the agent finds no node table file\n");
}

TEST_F(Manage, LockIsHeldByItsOwner) {
  Start(kTwo);
  Expect({"lock", "--owner", "7"}, 0, "locked\n");
  EXPECT_EQ(Ask({"status", "--owner", "7"}).at("lock"), "held by this owner");
  EXPECT_EQ(Ask({"status", "--owner", "8"}).at("lock"), "held by another");
  const std::string held = "lumoctl: the node table's lock is held by another\n";
  Expect({"lock", "--owner", "8"}, 1, "", held);
  Expect({"unlock", "--owner", "8"}, 1, "", held);
  EXPECT_EQ(Ask({"unlock", "--owner", "7"}), (Json{{"lock", "free"}, {"owner", 7}}));
  EXPECT_EQ(Ask({"status"}).at("lock"), "free");
  // Without a number the owner is who started lumoctl.
  Expect({"lock"}, 0, "locked\n");
  EXPECT_EQ(Ask({"status", "--owner", std::to_string(getpid())}).at("lock"), "held by this owner");
  Expect({"del", "TWO"}, 0, "deleted\n");
}

TEST_F(Manage, ChangesKeepToTheLock) {
  Start(kTwo);
  ASSERT_EQ(Run({"lock", "--owner", "7"}).Status, 0);
  const std::string held =
      "lumoctl: the node table's lock is held by another; --no-lock goes on without it\n";
  Expect({"add", "NEW TCPIP 127.0.0.1", "--owner", "8"}, 1, "", held);
  Expect({"set", "TWO", "TWO TCPIP 127.0.0.1", "--owner", "8"}, 1, "", held);
  Expect({"del", "TWO", "--owner", "8"}, 1, "", held);
  Expect({"default", "TWO", "--owner", "8"}, 1, "", held);
  EXPECT_EQ(Names(), "ONE\nTWO\n");
  Expect({"add", "NEW TCPIP 127.0.0.1", "--owner", "8", "--no-lock"}, 0, "added\n");
  Expect({"del", "NEW", "--owner", "7"}, 0, "deleted\n");
  EXPECT_EQ(Ask({"status", "--owner", "7"}).at("lock"), "held by this owner");
  ASSERT_EQ(Run({"unlock", "--owner", "7"}).Status, 0);
  Expect({"del", "TWO", "--owner", "8"}, 0, "deleted\n");
  EXPECT_EQ(Ask({"status", "--owner", "9"}).at("lock"), "free");
}

TEST_F(Manage, StatusDescribesTheAgent) {
  Start(kTwo);
  const std::string pid = std::to_string(agent_.Pid());
  Expect({"status"}, 0,
         "agent    process " + pid + " on " + agent_.SocketPath() +
             "\nnodes    2\ndefault  ONE\ntable    " + agent_.NodetabPath().string() +
             "\nlock     free\n");
  EXPECT_EQ(Ask({"status"}).at("pid"), agent_.Pid());
}

TEST_F(Manage, QueryPrintsRowsAndWhoRefused) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("SRV") + "DEAD REZ\n");
  Expect({"query", "create table t(a); insert into t values (1), (2)", "select a from t"}, 0,
         "1\n2\n");
  Expect({"query", "-n", "srv", "select 1", "nonsense", "select 2"}, 1, "1\n",
         "lumoctl: the node refused: near \"nonsense\": syntax error (code 1)\n");
  const test::CtlOutcome dead = Run({"query", "-n", "DEAD", "select 1"});
  EXPECT_EQ(dead.Status, 1);
  EXPECT_EQ(dead.Err, std::string("lumoctl: ") + lumo_code_text(4066) + " (code 4066); " +
                          lumo_advice_text(LUMO_ADVICE_FIX_TABLE) + "\n");
  const Json answer = Ask({"query", "select 5"}).at("answers").at(0);
  EXPECT_EQ(answer.at("rows"), "5");
  EXPECT_EQ(answer.at("code"), 0);
  EXPECT_EQ(answer.at("from"), "node");
  EXPECT_EQ(Ask({"query", "-n", "NONE", "select 5"}, 1).at("answers").at(0).at("code"), 4050);
  EXPECT_EQ(Run({"query", "-n", "NINECHARS", "select 1"}).Status, 2);
}

TEST_F(Manage, QueryWithoutAnAnswerTellsTimeFromLoss) {
  NodeProgram node({"--listen", "0", "--silent"});
  Start(node.Line("SRV"));
  EXPECT_EQ(Run({"query", "--timeout", "0.1", "select 1"}).Status, 6);
  Program query(LUMOCTL_PATH, Full({"query", "select 22"}), Environment());
  ASSERT_TRUE(node.WaitForStderr("select 22"));
  agent_.Kill();
  EXPECT_EQ(query.Wait(), 6);
}

TEST_F(Manage, WithoutAnAgentTheStatusIsThree) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"list"},
                                                    {"show", "A"},
                                                    {"add", "SRV TCPIP 127.0.0.1"},
                                                    {"query", "select 1"}}) {
    const test::CtlOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.Status, 3);
    EXPECT_EQ(outcome.Err, NobodyAnswers());
  }
}

TEST_F(Manage, QueryTellsTooLongNamesFromTooLongTexts) {
  Start(kTwo);
  Expect({"query", "-n", "NINECHARS", "x"}, 2, "",
         "lumoctl: the node's name is too long: the most is 8 characters\n");
  Expect({"query", std::string(9000, 'x')}, 2, "",
         "lumoctl: the SQL is too long for one message\n");
}

TEST_F(Manage, AgentIsNotAskedForWhatTheSystemTells) {
  Start(kTwo);
  for (const char* const command : {"status", "path", "ping", "export", "report"})
    EXPECT_NE(Run({command, "--timeout", "5"}).Out, "") << command;
  EXPECT_EQ(Run({"path"}).Out, agent_.NodetabPath().string() + "\n");
  // Once, when it read its table.
  EXPECT_EQ(test::Count(agent_.Stdout(), "Nodetab found"), 1U);
}

TEST_F(Manage, TableOfAnAgentWithoutTheOptionIsTheOneInItsDirectory) {
  agent_.WithoutNodetab().WorkingDirectory(agent_.Folder());
  const std::string path = Write("nodetab", kTwo);
  StartAgent();
  EXPECT_EQ(Run({"path"}).Out, path + "\n");
  EXPECT_EQ(test::Count(agent_.Stdout(), "Nodetab found"), 1U);
}

TEST_F(Manage, ClientThatHangsUpCostsOneLine) {
  agent_.LogLevel("2");
  Start(kTwo);
  for (int i = 1; i <= 3; ++i) {
    ASSERT_EQ(Run({"list"}).Status, 0);
    agent_.Barrier();
    EXPECT_EQ(test::Count(agent_.Log(), "\n"), static_cast<std::size_t>(i)) << agent_.Log();
  }
}

TEST_F(Manage, AgentWithoutFreeDescriptorsIsFull) {
  agent_.Limit(RLIMIT_NOFILE, 16);
  Start(kTwo);
  std::vector<lumo::Connection> connections;
  while (auto connection = lumo::Connection::Open(agent_.SocketPath())) {
    connections.push_back(std::move(*connection));
    ASSERT_LT(connections.size(), 16U);
  }
  Expect({"list"}, 3, "",
         "lumoctl: the agent on " + agent_.SocketPath() +
             " is full, or stopping: it closes new connections\n");
}

TEST_F(Manage, AgentThatDoesNotAnswerIsStatusFour) {
  Start(kTwo);
  test::Freeze(agent_.Pid());
  EXPECT_EQ(Run({"list", "--timeout", "0.1"}).Status, 4);
  test::Thaw(agent_.Pid());
}

TEST_F(Manage, WaitEndsWhenTheAgentAnswers) {
  agent_.Nodetab(kTwo);
  Expect({"wait", "--timeout", "0.05"}, 4, "", NobodyAnswers());
  Program wait(LUMOCTL_PATH, Full({"wait"}), Environment());
  StartAgent();
  EXPECT_EQ(wait.Wait(), 0);
  EXPECT_EQ(wait.Stdout(), "the agent answers: process " + std::to_string(agent_.Pid()) + "\n");
  EXPECT_EQ(Ask({"wait"}).at("pid"), agent_.Pid());
}

TEST_F(Manage, SocketMayBeGivenByItsPath) {
  Start(kTwo);
  Program program(LUMOCTL_PATH, {"--socket", agent_.SocketPath(), "default"});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(program.Stdout(), "ONE\n");
}

TEST_F(Manage, HelpIsInWordsWithAllOptionsOfACommand) {
  const std::string help = Run({"set", "--help"}).Out;
  test::ExpectHolds(
      help, {"Usage: lumoctl set [OPTIONS] NODE LINE ...\n", "--owner NUMBER", "--strict",
             "--no-lock", "General options:", "-M,--exchange ID", "--timeout SECONDS", "--json"});
  EXPECT_EQ(help.find("x)"), std::string::npos) << help;
}

TEST_F(Manage, BadCommandLinesAreStatusTwo) {
  const std::vector<std::vector<std::string>> lines{{},
                                                    {"nonsense"},
                                                    {"show"},
                                                    {"list", "--no-such-option"},
                                                    {"add"},
                                                    {"set", "A"},
                                                    {"list", "--timeout", "-1"},
                                                    {"list", "--timeout", "nan"},
                                                    {"list", "--timeout", "5s"},
                                                    {"lock", "--owner", "x"},
                                                    {"refresh"}};
  for (const auto& line : lines) {
    const test::CtlOutcome outcome = Run(line);
    EXPECT_EQ(outcome.Status, 2) << testing::PrintToString(line);
    EXPECT_EQ(outcome.Err.rfind("lumoctl: ", 0), 0U) << outcome.Err;
  }
  EXPECT_EQ(Run({"add", "A REZ\nB REZ"}).Status, 2);
}

}  // namespace
