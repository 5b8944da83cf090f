// apply and refresh.
#include "tests/lumoctl/control.h"
#include "tests/support/node.h"

namespace {

using test::NodeProgram;

class Change : public test::ControlTest {
 protected:
  // "node action outcome" of every step, in the order in which they are carried out.
  static std::string Steps(const Json& value) {
    std::string text;
    for (const Json& step : value.at("steps"))
      text += step.at("node").get<std::string>() + ' ' + step.at("action").get<std::string>() +
              (step.contains("outcome") ? ' ' + step.at("outcome").get<std::string>() : "") + '\n';
    return text;
  }
};

constexpr char kTable[] = "ONE TCPIP 127.0.0.1 1\nTWO TCPIP 127.0.0.1 2\nTHREE TCPIP 127.0.0.1 3\n";

TEST_F(Change, ApplyOfTheAgentsOwnTableFindsNothing) {
  Start(kTable);
  const std::string path = agent_.NodetabPath();
  Expect({"apply", "--dry-run", path}, 0, "0 different, 3 equal\n");
  Expect({"apply", path}, 0, "0 different, 3 equal\n");
}

TEST_F(Change, ApplyShowsDifferencesThenSendsThem) {
  Start(kTable);
  const std::string path = Write(
      "new", "# new\nfour TCPIP 127.0.0.1 4\nTHREE TCPIP 127.0.0.1 3\nONE TCPIP 127.0.0.1 11 5\n");
  Expect({"apply", "-n", path}, 1,
         "+ FOUR: four TCPIP 127.0.0.1 4\n"
         "~ ONE: ONE TCPIP 127.0.0.1 1 1 0 0 -> ONE TCPIP 127.0.0.1 11 5\n"
         "- TWO: TWO TCPIP 127.0.0.1 2 1 0 0\n3 different, 1 equal\nnote: the nodes follow each "
         "other as in the file, but are counted from ONE; only a restart makes FOUR the first\n");
  EXPECT_EQ(Names(), "ONE\nTWO\nTHREE\n");
  const Json value = Ask({"apply", path});
  EXPECT_EQ(Steps(value),
            "FOUR add in force\nONE change in force\nTHREE nothing\nTWO delete in force\n");
  EXPECT_EQ(value.at("differences"), 3);
  EXPECT_EQ(value.at("deferred"), 0);
  EXPECT_EQ(Names(), "ONE\nFOUR\nTHREE\n");
  EXPECT_EQ(Ask({"show", "ONE"}).at("receive_timeout"), 5);
  Expect({"apply", "-n", path}, 0,
         "0 different, 3 equal\nnote: the nodes follow each other as in the file, but are counted "
         "from ONE; only a restart makes FOUR the first\n");
}

TEST_F(Change, ApplyPutsAddedNodesWhereTheFileHasThem) {
  Start(kTable);
  const std::string path =
      Write("new",
            "ONE TCPIP 127.0.0.1 1\nNEW TCPIP 127.0.0.1 4\nNEXT TCPIP 127.0.0.1 5\n"
            "TWO TCPIP 127.0.0.1 2\nTHREE TCPIP 127.0.0.1 3\nLAST TCPIP 127.0.0.1 6\n");
  EXPECT_EQ(Ask({"apply", path}).at("notes"), Json::array());
  EXPECT_EQ(Names(), "ONE\nNEW\nNEXT\nTWO\nTHREE\nLAST\n");
  Expect({"apply", "-n", path}, 0, "0 different, 6 equal\n");
}

TEST_F(Change, ApplySaysWhichOrderOnlyARestartGives) {
  Start(kTable);
  const std::string path =
      Write("new", "TWO TCPIP 127.0.0.1 2\nONE TCPIP 127.0.0.1 1\nTHREE TCPIP 127.0.0.1 3\n");
  const std::string text =
      "0 different, 3 equal\nnote: the agent goes through its nodes in the order ONE, TWO, THREE, "
      "the file has TWO, ONE, THREE: only a restart changes it\n";
  Expect({"apply", "-n", path}, 1, text);
  Expect({"apply", path}, 0, text);
}

TEST_F(Change, ApplyTellsThatFailoverMayStayOff) {
  agent_.Option("-AUTOCONNECT");
  Start("ONE TCPIP 127.0.0.1 1\n");
  const std::string path = Write("new", kTable);
  EXPECT_EQ(Ask({"apply", path}).at("notes"),
            (Json{"failover (-AUTOCONNECT) stays off until a restart when the agent was started "
                  "with one node"}));
  EXPECT_EQ(Ask({"apply", path}).at("notes"), Json::array());
}

TEST_F(Change, LinesWithWarningsAreTakenAndTold) {
  Start("ONE TCPIP 127.0.0.1 1\n");
  const std::string told = "port '99999' is outside 1 to 65535: 34463 is used [port-range]\n";
  const std::string path = Write("new", "ONE TCPIP 127.0.0.1 99999\n");
  const std::string place = path + ":1: ";
  Expect({"add", "TWO TCPIP 127.0.0.1 99999"}, 0, "added\n", "lumoctl: warning: " + told);
  Expect({"set", "TWO", "TWO", "TCPIP", "127.0.0.1", "99999"}, 0, "redefined\n",
         "lumoctl: warning: " + told);
  EXPECT_EQ(Run({"apply", "--keep", path}).Err, "lumoctl: warning: " + place + told);
  EXPECT_EQ(Run({"refresh", "ONE", "--file", path}).Err, "lumoctl: warning: " + place + told);
  EXPECT_EQ(Ask({"show", "ONE"}).at("port"), 34463);
}

TEST_F(Change, StrictRefusesLinesWithWarnings) {
  Start("ONE TCPIP 127.0.0.1 1\n");
  const std::string path = Write("new", "ONE TCPIP 127.0.0.1 99999\n");
  const std::vector<std::vector<std::string>> commands{{"add", "TWO TCPIP 127.0.0.1 99999"},
                                                       {"set", "ONE", "ONE TCPIP 127.0.0.1 99999"},
                                                       {"apply", path},
                                                       {"refresh", "ONE", "--file", path}};
  for (std::vector<std::string> command : commands) {
    command.push_back("--strict");
    ExpectError(command, 1, "34463 is used [port-range]\n");
  }
  EXPECT_EQ(Names(), "ONE\n");
  EXPECT_EQ(Ask({"show", "ONE"}).at("port"), 1);
}

TEST_F(Change, ApplyKeepsOtherNodesOnRequest) {
  Start(kTable);
  const std::string path = Write("new", "FOUR REZ\n");
  EXPECT_EQ(Steps(Ask({"apply", "--keep", path})), "FOUR add in force\n");
  EXPECT_EQ(Names(), "ONE\nTWO\nTHREE\nFOUR\n");
}

TEST_F(Change, ApplySaysWhatIsDeferred) {
  NodeProgram one({"--listen", "0"}), two({"--listen", "0"});
  Start(one.Line("ONE") + two.Line("TWO") + "THREE REZ\n");
  Use("ONE");
  Use("TWO");
  const std::string path = Write("new", "ONE TCPIP 127.0.0.1 11\nTHREE REZ\n");
  const Json value = Ask({"apply", path}, 5);
  EXPECT_EQ(Steps(value),
            "ONE change deferred: the node is in use\nTHREE nothing\n"
            "TWO delete deferred: the node is in use\n");
  EXPECT_EQ(value.at("deferred"), 2);
  EXPECT_EQ(Names(), "ONE\nTWO\nTHREE\n");
  one.Stop();
  two.Stop();
  EXPECT_TRUE(test::WaitFor([&] { return Run({"apply", "-n", path}).Status == 0; }));
  EXPECT_EQ(Names(), "ONE\nTHREE\n");
}

TEST_F(Change, ApplySendsLocalNodesWhoseAddressTheAgentDoesNotTell) {
  Start("ONE LOCALS 5\nTWO LOCALI 6\n");
  const std::string path = Write("new", "ONE LOCALS 7\nTWO LOCALS 8\n");
  EXPECT_EQ(Steps(Ask({"apply", path})),
            "ONE resend sent; in force at once unless the node is in use\nTWO change in force\n");
  Expect({"apply", "-n", path}, 0,
         "? ONE: ONE LOCALS 7\n? TWO: TWO LOCALS 8\n0 different, 0 equal\n");
}

TEST_F(Change, ApplySendsEqualLinesTooOnRequest) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("ONE") + "TWO REZ\n");
  Use("ONE");
  ASSERT_EQ(Run({"del", "ONE"}).Status, 5);
  EXPECT_EQ(Steps(Ask({"apply", "--all", agent_.NodetabPath()})),
            "ONE resend in force\nTWO resend in force\n");
  node.Stop();
  // The deletion that waited has been cancelled: the failed link leaves its node.
  EXPECT_NE(Run({"query", "-n", "ONE", "select 1"}).Status, 0);
  EXPECT_EQ(Names(), "ONE\nTWO\n");
}

TEST_F(Change, ApplyRemovesTheSecondOfTwoNodesOfOneName) {
  Start("ONE TCPIP 127.0.0.1 1\nTWO REZ\nTWO LOCALS 2\n");
  ASSERT_EQ(Names(), "ONE\nTWO\nTWO\n");
  const std::string path = Write("new", "TWO REZ\nONE TCPIP 127.0.0.1 1\n");
  EXPECT_EQ(Steps(Ask({"apply", path})), "ONE nothing\nTWO nothing\nTWO delete in force\n");
  EXPECT_EQ(Names(), "ONE\nTWO\n");
}

TEST_F(Change, ApplyOfAFaultyTableChangesNothing) {
  Start(kTable);
  const std::string faulty = Write("faulty", "FOUR REZ\nFIVE UDP\n");
  Expect({"apply", faulty}, 1, "", "lumoctl: " + faulty + ":2: the protocol 'UDP' is unknown\n");
  const std::string twice = Write("twice", "FOUR REZ\nfour REZ\n");
  Expect({"apply", twice}, 1, "", "lumoctl: " + twice + ":2: the name FOUR is there twice\n");
  const std::string empty = Write("empty", "# nothing\n");
  Expect({"apply", empty}, 1, "", "lumoctl: " + empty + ": no line makes a node\n");
  EXPECT_EQ(Names(), "ONE\nTWO\nTHREE\n");
}

TEST_F(Change, ApplyKeepsToTheLockAndGivesItBack) {
  Start(kTable);
  const std::string path = Write("new", "FOUR REZ\n");
  ASSERT_EQ(Run({"lock", "--owner", "7"}).Status, 0);
  EXPECT_EQ(Run({"apply", path, "--owner", "8"}).Status, 1);
  EXPECT_EQ(Names(), "ONE\nTWO\nTHREE\n");
  ASSERT_EQ(Run({"unlock", "--owner", "7"}).Status, 0);
  EXPECT_EQ(Run({"apply", path, "--owner", "8"}).Status, 0);
  EXPECT_EQ(Ask({"status", "--owner", "9"}).at("lock"), "free");
}

TEST_F(Change, RefreshSendsTheLineOfTheAgentsTable) {
  Start("ONE TCPIP 127.0.0.1 1\nTWO TCPIP 127.0.0.1 2\n");
  Expect({"refresh", "one"}, 0, "ONE: ONE TCPIP 127.0.0.1 1 1 0 0  [in force]\n");
  agent_.Nodetab("TWO TCPIP 127.0.0.22 22\n");
  Expect({"refresh", "#1"}, 0,
         "TWO: TWO TCPIP 127.0.0.1 2 1 0 0 -> TWO TCPIP 127.0.0.22 22 1 0 0  [in force]\n");
  EXPECT_EQ(Ask({"show", "TWO"}).at("address"), "127.0.0.22");
  Expect({"refresh", "ONE"}, 1, "", "lumoctl: the node table has no line for the node ONE\n");
  Expect({"refresh", "NONE"}, 1, "", "lumoctl: there is no node NONE\n");
}

TEST_F(Change, RefreshTakesAllNodesAndAnotherFile) {
  Start("ONE TCPIP 127.0.0.1 1\nTWO TCPIP 127.0.0.1 2\n");
  const std::string path =
      Write("other", "TWO TCPIP 127.0.0.2 2\nONE TCPIP 127.0.0.1 1\nNEW REZ\n");
  const Json nodes = Ask({"refresh", "--all", "--file", path}, 1).at("nodes");
  ASSERT_EQ(nodes.size(), 3U);
  EXPECT_EQ(nodes[0], R"({"node": "TWO", "from": "TWO TCPIP 127.0.0.1 2 1 0 0",
                          "to": "TWO TCPIP 127.0.0.2 2 1 0 0", "outcome": "in force"})"_json);
  EXPECT_EQ(nodes[1].at("outcome"), "in force");
  EXPECT_EQ(nodes[2], (Json{{"node", "NEW"}, {"outcome", "refused"}}));
  EXPECT_EQ(Names(), "ONE\nTWO\n");
}

TEST_F(Change, RefreshOfANodeInUseIsDeferred) {
  NodeProgram node({"--listen", "0"});
  Start(node.Line("ONE"));
  Use("ONE");
  const std::string path = Write("other", "ONE TCPIP 127.0.0.2 2\n");
  EXPECT_EQ(Ask({"refresh", "ONE", "--file", path}, 5).at("nodes").at(0).at("outcome"),
            "deferred: the node is in use");
}

}  // namespace
