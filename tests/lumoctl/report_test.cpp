// report: what it holds, and what it does not tell when asked to mask.
#include "lib/include/lumo.h"
#include "tests/lumoctl/control.h"
#include "tools/lumoctl/mask.h"

namespace {

using test::NodeProgram;

class Report : public test::ControlTest {};

TEST_F(Report, DescribesTheAgentAndWhatItHas) {
  NodeProgram node({"--listen", "0"});
  agent_.LogLevel("3");
  Start("# hello\n" + node.Line("ONE") + "TWO REZ\n");
  Use("ONE");
  EXPECT_NE(Run({"query", "-n", "TWO", "x"}).Status, 0);
  const Json report = Ask({"report"});
  EXPECT_NE(report.at("program").get<std::string>().find("LINUX"), std::string::npos);
  const Json& agent = report.at("agent");
  EXPECT_EQ(agent.at("pid"), agent_.Pid());
  EXPECT_EQ(agent.at("socket"), agent_.SocketPath());
  EXPECT_EQ(agent.at("environment").at("DBC_LOG"), "3");
  EXPECT_EQ(agent.at("command").at(0), test::AgentProgram());
  EXPECT_EQ(report.at("default"), "ONE");
  EXPECT_EQ(report.at("nodes").size(), 2U);
  EXPECT_EQ(report.at("limits").at("open files").size(), 2U);
  const Json& sockets = report.at("sockets");
  EXPECT_EQ(sockets.at("clients"), 2);  // the test's own and the report's
  ASSERT_EQ(sockets.at("tcp").size(), 1U);
  EXPECT_EQ(sockets.at("tcp")[0].at("remote"), "127.0.0.1:" + std::to_string(node.Port()));
  EXPECT_EQ(sockets.at("tcp")[0].at("state"), "established");
  const Json& table = report.at("table");
  EXPECT_EQ(table.at("path"), agent_.NodetabPath().string());
  EXPECT_EQ(table.at("lines").size(), 2U);
  EXPECT_EQ(table.at("lines")[1].at("text"), "TWO REZ");
  EXPECT_EQ(table.at("lines")[1].at("line"), 3);
  EXPECT_EQ(report.at("log").at("path"), agent_.LogPath().string());
}

TEST_F(Report, VersionsOfAllThatIsThere) {
  const std::string version = LUMO_VERSION;
  Expect({"--version"}, 0,
         "lumoctl " + version + "\nliblumo " + version +
             "\nagent Vanx Embedded v. 6.0.42.18 for LINUX (Socket)\n");
}

TEST_F(Report, LogIsItsLastLines) {
  Start("ONE REZ\n");
  const std::string log = Write("other.log", "one\ntwo\nthree\n");
  EXPECT_EQ(Ask({"report", "--log", log, "--lines", "2"}).at("log").at("lines"),
            (Json{"two", "three"}));
}

TEST_F(Report, IsTextInSectionsOrAFile) {
  Start("ONE REZ\n");
  const std::string text = Run({"report"}).Out;
  for (const char* section :
       {"time", "program", "agent", "nodes", "limits", "sockets", "table", "log"})
    EXPECT_NE(text.find(std::string("== ") + section + '\n'), std::string::npos) << section;
  const std::string path = agent_.Folder() / "bundle";
  Expect({"report", "--output", path, "--color", "always"}, 0, "");
  EXPECT_EQ(test::ReadFile(path).find('\033'), std::string::npos);
  EXPECT_NE(test::ReadFile(path).find("\n== table\n"), std::string::npos);
}

TEST_F(Report, IsMadeWithoutAnAgentToo) {
  const std::string path = Write("table", "ONE REZ\n");
  const Json report = Ask({"report", "--file", path});
  EXPECT_TRUE(report.at("agent").contains("unknown"));
  EXPECT_EQ(report.at("table").at("lines").size(), 1U);
  EXPECT_FALSE(report.contains("nodes"));
}

TEST_F(Report, AgentThatDoesNotGreetIsFoundByTheSystem) {
  Start("ONE REZ\n");
  test::Freeze(agent_.Pid());
  const Json report = Ask({"--timeout", "0.2", "report"});
  test::Thaw(agent_.Pid());
  EXPECT_TRUE(report.at("agent").contains("unknown"));
  EXPECT_EQ(report.at("agent").at("pid"), agent_.Pid());
  EXPECT_EQ(report.at("agent").at("command").at(0), test::AgentProgram());
  EXPECT_EQ(report.at("log").at("path"), agent_.LogPath().string());
  EXPECT_TRUE(report.contains("limits"));
}

TEST_F(Report, HoldsTheStatisticsPage) {
  agent_.Environment("LUMO_STATS", "1");
  Start("ONE REZ\n");
  EXPECT_NE(Run({"query", "-n", "ONE", "x"}).Status, 0);
  const Json report = Ask({"report"});
  const Json& stats = report.at("stats");
  EXPECT_EQ(stats.at("agent").at("agent_answers_by_code").at("4066"), 1);
  EXPECT_EQ(stats.at("nodes").at(0).at("node"), "ONE");
}

TEST_F(Report, LogIsThatOfTheJournalWhenStandardErrorIsNoFile) {
  const std::string stub = Write("journalctl", "#!/bin/sh\necho \"$@\"\necho last\n");
  std::filesystem::permissions(stub, std::filesystem::perms::owner_all);
  agent_.ClosedDescriptor(2);
  Start("ONE REZ\n");
  auto environment = Environment();
  environment["PATH"] = agent_.Folder().string() + ":/usr/bin:/bin";
  test::Program program(LUMOCTL_PATH, Full({"report", "--json", "--lines", "7"}), environment);
  ASSERT_EQ(program.Wait(), 0) << program.Stderr();
  const Json log = Json::parse(program.Stdout()).at("log");
  EXPECT_EQ(log.at("path"), "journal");
  EXPECT_EQ(log.at("lines"),
            (Json{"--no-pager -q -o cat -n 7 _PID=" + std::to_string(agent_.Pid()), "last"}));
}

TEST_F(Report, RelativeTableIsTheAgentsAndNotOursInAnotherDirectory) {
  agent_.WithoutNodetab();
  test::WriteFile(agent_.Folder() / "work" / "nodetab", "MINE REZ\nHERE LOCALS 7\n");
  StartAgent();
  const std::string elsewhere = agent_.Folder() / "elsewhere";
  std::filesystem::create_directory(elsewhere);
  test::WriteFile(elsewhere + "/nodetab", "MINE TCPIP 127.0.0.9 9\nHERE LOCALS 9\n");
  const auto run = [&](const std::string& words) {
    std::string command = "cd '" + elsewhere + "' && exec " LUMOCTL_PATH " -M " +
                          std::to_string(agent_.ExchangeId()) + ' ' + words;
    test::Program program("/bin/sh", {"-c", command}, Environment());
    program.Wait();
    return program.Stdout() + program.Stderr();
  };
  EXPECT_NE(run("report --json").find((agent_.Folder() / "work/nodetab").string()),
            std::string::npos);
  run("refresh MINE");
  EXPECT_EQ(Ask({"show", "MINE"}).at("protocol"), "other");  // not the TCPIP of the other file
}

TEST_F(Report, MaskedItTellsNoNamesAndAddresses) {
  NodeProgram node({"--listen", "0"});
  agent_.Trace().Option("-DEFAULT").Option("secret1");
  Start("SECRET1 TCPIP 127.0.0.1 " + std::to_string(node.Port()) +
        " 0 0 0 # topword\nsecret2 TCPIP 127.0.77.2 7\n# topword\n");
  Use("SECRET1");
  ASSERT_TRUE(agent_.LogContains("127.0.77.2"));
  const std::string masked = Run({"report", "--mask", "--lines", "10000"}).Out;
  for (const char* secret : {"SECRET1", "secret1", "SECRET2", "secret2", "127.0.0.1", "127.0.77.2",
                             "topword", "100007f", "24d007f"})
    EXPECT_EQ(masked.find(secret), std::string::npos) << secret;
  test::ExpectHolds(masked, {"NODE1 TCPIP HOST1", "NODE2 TCPIP HOST2 7", "LINUX"});
}

TEST(Masking, SameWordHasTheSamePseudonymEverywhere) {
  lumo::ctl::Masker masker(true);
  masker.AddNode("SRV1");
  masker.AddNode("SRV2");
  masker.AddNode("srv1");
  masker.AddHost("db.example.org");
  EXPECT_EQ(masker.Text("'SRV2' and srv1, SRV12; -DEFAULT=SRV1 db.example.org:1060 SRV1"),
            "'NODE2' and NODE1, SRV12; -DEFAULT=NODE1 HOST1:1060 NODE1");
  EXPECT_EQ(masker.Text("to 192.0.2.7:5 and 192.0.2.7, 192.0.2.8"), "to HOST2:5 and HOST2, HOST3");
  EXPECT_EQ(masker.Text("Network address 7020000c"), "Network address HOST4");
  EXPECT_EQ(lumo::ctl::Masker(false).Text("192.0.2.7"), "192.0.2.7");
}

}  // namespace
