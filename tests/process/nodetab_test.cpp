// Where the node table is looked for, and what becomes of its lines.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/process/manager.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"

namespace test {
namespace {

using NodetabLines = AgentTest;
using NodetabDefault = AgentTest;
using UnusableNodetab = AgentTest;

namespace fs = std::filesystem;

// The names of all nodes, in the order of the file.
std::string Nodes(const Agent& agent) { return Manager(agent).Names(); }

bool Printed(const Agent& agent, const std::string& text) {
  return agent.Stdout().find(text) != std::string::npos;
}

std::string FoundLine(const std::string& path) { return "Nodetab found: \"" + path + "\"\n"; }

// An agent that is not told its table, started by a link to the program in a folder of its own.
class NodetabSearch : public AgentTest {
 protected:
  void SetUp() override {
    for (const char* name : {"bin", "path1", "path2"}) fs::create_directory(agent_.Folder() / name);
    fs::create_symlink(fs::absolute(AgentProgram()), Program());
    agent_.WithoutNodetab().Program(Program()).Trace();
    agent_.Environment("PATH", Place("path1") + ":" + Place("path2"));
  }
  std::string Place(const std::string& name) const { return agent_.Folder() / name; }
  std::string Program() const { return Place("bin") + "/lumo_tcp"; }
  void Put(const std::string& folder, const std::string& node) const {
    WriteFile(Place(folder) + "/nodetab", node + " REZ\n");
  }
  bool Opened(const std::string& path) const {
    return agent_.Logged(15, "link", "File \"" + path + "\" opened");
  }
  bool Missed(const std::string& path) const {
    return agent_.Logged(15, "link", "Open nodetab file \"" + path + "\" failed");
  }
};

TEST_F(NodetabSearch, TheCurrentDirectoryComesFirst) {
  for (const char* folder : {"work", "bin", "home", "path1", "path2"}) Put(folder, folder);
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "WORK");
  const std::string path = fs::canonical(Place("work")) / "nodetab";
  EXPECT_TRUE(Printed(agent_, FoundLine(path))) << agent_.Stdout();
  EXPECT_TRUE(Opened(path));
  EXPECT_FALSE(agent_.LogContains("g_DbcI.Argv[0]"));
}

TEST_F(NodetabSearch, TheProgramsDirectoryComesNextWithASecondSlash) {
  for (const char* folder : {"bin", "home", "path1", "path2"}) Put(folder, folder);
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "BIN");
  EXPECT_TRUE(Printed(agent_, FoundLine(Place("bin") + "//nodetab"))) << agent_.Stdout();
  EXPECT_TRUE(Missed("./nodetab"));
  EXPECT_TRUE(agent_.Logged(15, "link", "g_DbcI.Argv[0] " + Program()));
}

TEST_F(NodetabSearch, TheHomeDirectoryComesNext) {
  for (const char* folder : {"home", "path1", "path2"}) Put(folder, folder);
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "HOME");
  EXPECT_TRUE(Printed(agent_, FoundLine(Place("home") + "/nodetab"))) << agent_.Stdout();
  EXPECT_TRUE(Missed(Place("bin") + "//nodetab"));
}

TEST_F(NodetabSearch, TheDirectoriesOfTheSearchPathComeLastInTheirOrder) {
  for (const char* folder : {"path1", "path2"}) Put(folder, folder);
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "PATH1");
  EXPECT_TRUE(Printed(agent_, FoundLine(Place("path1") + "/nodetab"))) << agent_.Stdout();
  EXPECT_TRUE(Missed(Place("home") + "/nodetab"));
}

TEST_F(NodetabSearch, ALaterDirectoryOfTheSearchPathServesWhenTheEarlierHaveNone) {
  agent_.Environment("PATH", ":" + Place("path1") + "::" + Place("path2") + ":" + Place("home"));
  Put("path2", "path2");
  agent_.Without("HOME");
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "PATH2");
  EXPECT_EQ(agent_.CountLogged(15, "link", "Open nodetab file \"/nodetab\" failed"), 2);
  EXPECT_TRUE(Missed(Place("path1") + "/nodetab"));
  EXPECT_FALSE(agent_.LogContains(Place("home")));
}

TEST_F(NodetabSearch, WithoutHomeThatPlaceIsLeftOut) {
  Put("home", "home");
  agent_.Without("HOME");
  agent_.Option("-NODAEMON");
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_FALSE(Printed(agent_, "Nodetab found"));
  EXPECT_TRUE(agent_.Logged(0, "", "File nodetab is not found. Exit."));
}

TEST_F(NodetabSearch, ABareProgramNameStandsForTheRootDirectory) {
  fs::create_symlink(fs::absolute(AgentProgram()), Place("work") + "/lumo_tcp");
  Put("home", "home");
  agent_.Program("lumo_tcp");
  StartAgent();
  EXPECT_TRUE(agent_.Logged(15, "link", "g_DbcI.Argv[0] lumo_tcp"));
  EXPECT_TRUE(Missed("/nodetab"));
  EXPECT_EQ(Nodes(agent_), "HOME");
}

TEST_F(NodetabSearch, AFileThatCannotBeReadIsPassedOver) {
  Put("bin", "bin");
  fs::create_symlink(Place("nowhere"), Place("work") + "/nodetab");
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "BIN");
}

TEST_F(NodetabSearch, ThePathGivenIsTheOnlyPlace) {
  for (const char* folder : {"work", "bin", "home", "path1"}) Put(folder, folder);
  agent_.Options({"-NODETAB", Place("nowhere"), "-NODAEMON"});
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_FALSE(Printed(agent_, "Nodetab found"));
  EXPECT_TRUE(Missed(Place("nowhere")));
  EXPECT_FALSE(Missed("./nodetab"));
  EXPECT_TRUE(agent_.Logged(0, "", "File nodetab is not found. Exit."));
}

TEST_F(NodetabSearch, ARelativePathGivenIsReportedAsItIs) {
  Put("path2", "path2");
  agent_.Options({"-NODETAB", "../path2/nodetab"});
  StartAgent();
  EXPECT_TRUE(Printed(agent_, FoundLine("../path2/nodetab"))) << agent_.Stdout();
}

TEST_F(NodetabSearch, ACurrentDirectoryTooDeepToNameStillServes) {
  fs::path deep = Place("work");
  for (int i = 0; i < 10; ++i) deep /= std::string(30, 'd');
  fs::create_directories(deep);
  WriteFile(deep / "nodetab", "DEEP REZ\n");
  agent_.WorkingDirectory(deep);
  StartAgent();
  EXPECT_EQ(Nodes(agent_), "DEEP");
  EXPECT_TRUE(Printed(agent_, "Nodetab found: \"")) << agent_.Stdout();
}

TEST_F(NodetabLines, EachFaultIsReportedAndTheOtherLinesCount) {
  const std::string noHost(70, 'x');  // too long for any name, so that nobody is asked for it
  StartAgent(
      "# a comment\n"
      "; another\n"
      "  \t\n"
      "\r\n"
      "good1 tcpip 127.0.0.1 1060\n"
      "ninechars TCPIP 127.0.0.1\n"
      "badproto dummy x\n"
      "noproto\n"
      "noaddr TCPIP\n"
      "badaddr TCPIP " +
      noHost +
      "\n"
      "nombx LOCALS zero\n"
      "GOOD2 local 77\n"
      "GOOD2 LOCALS 78\n"
      "GOOD2 LOCALS 79\n"
      "good1 NPipe\n"
      "GOOD3 NPipe");
  EXPECT_EQ(Nodes(agent_), "GOOD1 GOOD2 GOOD2 GOOD1 GOOD3");
  EXPECT_EQ(agent_.Results(),
            "lumo_tcp:Node name 'ninechars' is too long. Maximum length is 8 chars\n"
            "lumo_tcp:Node name 'ninechars' skipped\n"
            "lumo_tcp:The network agent doesn't support protocol  'DUMMY' for node 'badproto'.\n"
            "lumo_tcp:Node name 'badproto' skipped\n"
            "lumo_tcp:The network agent doesn't support protocol  '' for node 'noproto'.\n"
            "lumo_tcp:Node name 'noproto' skipped\n"
            "lumo_tcp:Tcp address is empty\n"
            "lumo_tcp:Initialization of link 'NOADDR' for protocol 'TCPIP' failed\n"
            "lumo_tcp:Node name 'noaddr' skipped\n"
            "lumo_tcp:'xxxxxxxx' is not a valid tcp address\n"
            "lumo_tcp:Initialization of link 'BADADDR' for protocol 'TCPIP' failed\n"
            "lumo_tcp:Node name 'badaddr' skipped\n"
            "lumo_tcp:Initialization of link 'NOMBX' for protocol 'LOCALS' failed\n"
            "lumo_tcp:Node name 'nombx' skipped\n"
            "lumo_tcp:Dublicate node name found in nodetab file\n"
            "lumo_tcp:Node name 'GOOD2' skip\n");
}

TEST_F(NodetabLines, NamesThatRepeatAreTakenOrRefusedByThePlaceAndTheCase) {
  const struct {
    const char *Table, *Nodes;
  } cases[] = {{"A REZ\nB REZ\nA REZ\n", "A B"},
               {"A REZ\nB REZ\nB REZ\n", "A B B"},
               {"A REZ\nB REZ\na REZ\n", "A B A"},
               {"A REZ\nA REZ\n", "A A"}};
  for (const auto& each : cases) {
    Agent agent;
    agent.Nodetab(each.Table);
    ASSERT_TRUE(agent.Start());
    EXPECT_EQ(Nodes(agent), each.Nodes) << each.Table;
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(NodetabLines, OfTwoNodesWithOneNameTheFirstOfTheCircleIsAsked) {
  Node first, second;
  Client client = StartWithClient(first.Line("A") + second.Line("A"));
  ExpectFirstExchange(client, client.Send("A"), first, "first");
  EXPECT_FALSE(second.Connecting(Milliseconds(0)));
}

TEST_F(NodetabLines, ALongLineIsReadAsSeveral) {
  const std::string start = "A REZ ";
  StartAgent(start + std::string(1023 - start.size(), 'x') + "B REZ\nC REZ\n");
  EXPECT_EQ(Nodes(agent_), "A B C");
}

TEST_F(NodetabDefault, IsTheFirstNodeOrTheOneNamedInAnyCase) {
  const struct {
    std::vector<std::string> Options;
    const char* Default;
  } cases[] = {{{}, "SRV1"},
               {{"-DEFAULT", "srv2"}, "SRV2"},
               {{"-S", "SRV3"}, "SRV3"},
               {{"-DEFAULT", "nobody"}, "SRV1"},
               {{"-DEFAULT", "srv2 or other"}, "SRV2"}};
  for (const auto& each : cases) {
    Agent agent;
    agent.Nodetab("SRV1 REZ\nSrv2 REZ\nSRV3 REZ\n").Options(each.Options);
    ASSERT_TRUE(agent.Start());
    EXPECT_EQ(DefaultName(agent), each.Default);
    EXPECT_TRUE(
        Printed(agent, FoundLine(agent.NodetabPath()) + "Default server: " + each.Default + "\n"))
        << agent.Stdout();
    EXPECT_EQ(Nodes(agent), "SRV1 SRV2 SRV3") << "nodes are numbered as in the file";
    EXPECT_EQ(agent.Results(), "");
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(NodetabDefault, DecidesTheOrderOfTheCircle) {
  agent_.Options({"-AUTOCONNECT", "-DEFAULT", "B"}).LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\nC REZ\n");
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(agent_.Log(), FailedCircle({"C", "A"}, "B"));
}

TEST(NodetabModes, ASingleNodeSwitchesThemOff) {
  for (const char* option : {"-AUTOCONNECT", "-AUTOCHANGE"}) {
    Agent agent;
    agent.Nodetab("# one\nNINECHARS REZ\nA REZ\n").Option(option).LogLevel("1");
    ASSERT_TRUE(agent.Start());
    EXPECT_TRUE(
        agent.Stdout().ends_with("Default server: A\n"
                                 "Only one server is in the nodetab file. \n"
                                 "The autoconnect and autochange modes have disabled"))
        << agent.Stdout();
    Client client(agent);
    client.ExpectError(client.Send(), 4066, 0);
    EXPECT_FALSE(agent.LogContains("default A"));
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST(NodetabModes, AreSilentlyKeptWithMoreNodesAndWithoutAnOptionNothingIsSaid) {
  Agent two, none;
  two.Nodetab("A REZ\nA REZ\n").Option("-AUTOCONNECT");
  ASSERT_TRUE(two.Start());
  EXPECT_FALSE(Printed(two, "Only one server"));
  ASSERT_TRUE(none.Start());
  EXPECT_FALSE(Printed(none, "Only one server"));
}

TEST_F(UnusableNodetab, EndsTheStartWithItsReason) {
  const struct {
    const char *Table, *Reason;
  } cases[] = {
      {"", "Supported protocols are not found in the nodetab file. Exit"},
      {"# A REZ\n\n ;B REZ\n", "Supported protocols are not found in the nodetab file. Exit"},
      {"A NOTHING\n", "Supported protocols are not found in the nodetab file. Exit"},
      {"A TCPIP\n", "There are no nodes in the nodetab file. Exit"},
  };
  for (const auto& each : cases) {
    Agent agent;
    agent.Nodetab(each.Table).Option("-NODAEMON");
    EXPECT_EQ(agent.Run(), 254) << each.Table;
    EXPECT_TRUE(agent.Results().ends_with("lumo_tcp:" + std::string(each.Reason) + "\n"))
        << agent.Log();
    EXPECT_EQ(agent.CountLogged(0, "", each.Reason), 1);
    EXPECT_FALSE(Printed(agent, "Default server"));
    EXPECT_TRUE(Printed(agent, FoundLine(agent.NodetabPath())));
  }
}

TEST_F(UnusableNodetab, ADirectoryHoldsNoLine) {
  agent_.WithoutNodetab().Options({"-NODETAB", agent_.Folder(), "-NODAEMON"});
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_TRUE(agent_.Logged(0, "", "Supported protocols are not found in the nodetab file. Exit"));
}

}  // namespace
}  // namespace test
