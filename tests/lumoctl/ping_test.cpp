// ping and export: the agent's test mode, run for nodes.
#include "tests/lumoctl/control.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace {

using test::NodeProgram;

class Ping : public test::ControlTest {};

TEST_F(Ping, NodesAreAliveOrNotWithTheReason) {
  const NodeProgram node({"--listen", "0"});
  const test::Node closed(test::Node::Start::Bound);
  Start(node.Line("ALIVE") + closed.Line("CLOSED") + "DUMB REZ\n");
  const test::CtlOutcome outcome = Run({"ping"});
  EXPECT_EQ(outcome.Status, 1);
  const auto lines = test::Lines(outcome.Out);
  ASSERT_EQ(lines.size(), 4U) << outcome.Out << outcome.Err;
  EXPECT_EQ(lines[0], "NODE    VERDICT             CODE  SECONDS");
  EXPECT_TRUE(test::Matches(lines[1], "ALIVE   alive                     [0-9]+\\.[0-9]{3}"));
  EXPECT_TRUE(test::Matches(lines[2], "CLOSED  Connection refused  4006  [0-9]+\\.[0-9]{3}"));
  EXPECT_TRUE(test::Matches(lines[3], "DUMB    Protocol disabled   4066  [0-9]+\\.[0-9]{3}"));
}

TEST_F(Ping, OneNodeIsTestedByItsNameAsTheAgentHasIt) {
  const NodeProgram node({"--listen", "0"});
  Start("ONE REZ\n");
  // Not in the table's file, and its name spells the option that unloads an agent.
  ASSERT_EQ(Run({"add", "U TCPIP 127.0.0.1 " + std::to_string(node.Port())}).Status, 0);
  const Json value = Ask({"ping", "u"}).at("nodes");
  ASSERT_EQ(value.size(), 1U);
  EXPECT_EQ(value[0].at("node"), "U");
  EXPECT_EQ(value[0].at("alive"), true);
  EXPECT_EQ(value[0].at("code"), 0);
  EXPECT_GT(value[0].at("seconds"), 0.0);
  EXPECT_EQ(Ask({"ping", "#0"}, 1).at("nodes").at(0).at("code"), 4066);
  EXPECT_EQ(Run({"ping", "NONE"}).Status, 1);
}

TEST_F(Ping, RunningAgentKeepsItsSocket) {
  const NodeProgram node({"--listen", "0"});
  Start(node.Line("ONE"));
  EXPECT_EQ(Run({"ping"}).Status, 0);
  EXPECT_TRUE(std::filesystem::is_socket(agent_.SocketPath()));
  EXPECT_EQ(Names(), "ONE\n");
  // Nothing is left of the private directory.
  for (const auto& entry : std::filesystem::directory_iterator(agent_.Folder()))
    EXPECT_EQ(entry.path().filename().string().find("lumoctl-"), std::string::npos);
}

TEST_F(Ping, FileIsTestedWithoutAnAgent) {
  const NodeProgram node({"--listen", "0"});
  const std::string path = Write("table", node.Line("ONE") + "TWO REZ\n");
  EXPECT_EQ(Ask({"ping", "--file", path}, 1).at("nodes").size(), 2U);
  EXPECT_EQ(Run({"ping", "--file", path, "one"}).Status, 0);
  EXPECT_EQ(Run({"ping", "--file", path, "NONE"}).Status, 1);
  EXPECT_EQ(Run({"ping"}).Status, 3);
}

TEST_F(Ping, LocalKernelIsFoundBesideTheAgentsSocket) {
  const NodeProgram kernel({"--local", "4711"}, {{"TAVRIN_TMP", agent_.SocketFolder()}});
  Start("HERE LOCALS 4711\nGONE LOCALS 4712\n");
  const Json nodes = Ask({"ping"}, 1).at("nodes");
  EXPECT_EQ(nodes.at(0).at("alive"), true) << nodes;
  EXPECT_EQ(nodes.at(1).at("code"), 4006) << nodes;
  ASSERT_EQ(Run({"add", "NEW LOCALS 4711"}).Status, 0);
  EXPECT_EQ(Ask({"ping", "NEW"}, 1).at("nodes").at(0).at("verdict"),
            "cannot be tested: there is no exchange number behind the protocol");
}

TEST_F(Ping, TestThatTakesTooLongIsEnded) {
  test::Node silent;
  Start(silent.Line("SILENT") + "DUMB REZ\n");
  EXPECT_EQ(Run({"ping", "SILENT", "--timeout", "0.3"}).Status, 4);
  const Json nodes = Ask({"ping", "--timeout", "0.3"}, 1).at("nodes");
  EXPECT_EQ(nodes.at(0).at("alive"), false);
  EXPECT_TRUE(nodes.at(0).at("code").is_null());
  EXPECT_EQ(nodes.at(0).at("verdict"), "no answer within 0.300 s");
}

TEST_F(Ping, ProgramThatCannotBeRunIsStatusSeven) {
  Start("ONE REZ\n");
  EXPECT_EQ(Run({"ping", "--program", agent_.Folder() / "none"}).Status, 7);
}

class Export : public test::ControlTest {
 protected:
  // The samples, with the numbers of those that measure a time cut off.
  static std::string Samples(const std::string& text) {
    std::string samples;
    for (const std::string& line : test::Lines(text)) {
      if (line[0] == '#') continue;
      const bool measures = line.find("_seconds") != std::string::npos;
      samples += (measures ? line.substr(0, line.rfind(' ')) : line) + '\n';
    }
    return samples;
  }
};

TEST_F(Export, WritesOneFileThatACollectorReads) {
  const NodeProgram node({"--listen", "0"});
  Start("DUMB REZ\n" + node.Line("ALIVE"));
  const std::string path = Write("metrics.prom", "old\n");
  ASSERT_EQ(Run({"export", "--output", path}).Status, 0);
  const std::string text = test::ReadFile(path);
  EXPECT_EQ(
      text.rfind("# HELP lumo_up Whether the agent answers.\n# TYPE lumo_up gauge\nlumo_up 1\n", 0),
      0U)
      << text;
  EXPECT_EQ(
      Samples(text),
      "lumo_up 1\nlumo_answer_seconds\nlumo_nodes 2\n"
      "lumo_node_info{node=\"DUMB\",index=\"0\",protocol=\"other\"} 1\n"
      "lumo_node_info{node=\"ALIVE\",index=\"1\",protocol=\"TCPIP\",address=\"127.0.0.1:" +
          std::to_string(node.Port()) +
          "\"} 1\n"
          "lumo_node_default{node=\"DUMB\",index=\"0\"} 1\n"
          "lumo_node_default{node=\"ALIVE\",index=\"1\"} 0\n"
          "lumo_node_alive{node=\"DUMB\",index=\"0\"} 0\n"
          "lumo_node_alive{node=\"ALIVE\",index=\"1\"} 1\n"
          "lumo_node_ping_seconds{node=\"DUMB\",index=\"0\"}\n"
          "lumo_node_ping_seconds{node=\"ALIVE\",index=\"1\"}\n"
          "lumo_node_ping_code{node=\"DUMB\",index=\"0\"} 4066\n"
          "lumo_node_ping_code{node=\"ALIVE\",index=\"1\"} 0\n"
          "lumo_node_ping_verdict{node=\"DUMB\",index=\"0\",verdict=\"Protocol disabled\"} 1\n"
          "lumo_node_ping_verdict{node=\"ALIVE\",index=\"1\",verdict=\"alive\"} 1\n");
  // Renamed into its place, with nothing left beside it.
  for (const auto& entry : std::filesystem::directory_iterator(agent_.Folder()))
    EXPECT_EQ(entry.path().string().rfind(path + ".", 0), std::string::npos) << entry.path();
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));
}

TEST_F(Export, PrintsAndLeavesTheTestsOut) {
  Start("ONE REZ\n");
  const test::CtlOutcome outcome = Run({"export", "--no-ping"});
  EXPECT_EQ(outcome.Status, 0);
  EXPECT_EQ(Samples(outcome.Out),
            "lumo_up 1\nlumo_answer_seconds\nlumo_nodes 1\n"
            "lumo_node_info{node=\"ONE\",index=\"0\",protocol=\"other\"} 1\n"
            "lumo_node_default{node=\"ONE\",index=\"0\"} 1\n");
  EXPECT_EQ(Ask({"export", "--no-ping"}).at("lumo_nodes").at(0).at("value"), 1.0);
}

TEST_F(Export, AgentThatIsDownIsAMetric) {
  const std::string path = agent_.Folder() / "metrics.prom";
  EXPECT_EQ(Run({"export", "-o", path}).Status, 0);
  EXPECT_EQ(Samples(test::ReadFile(path)), "lumo_up 0\n");
}

TEST_F(Export, FileThatCannotBeWrittenIsStatusSeven) {
  Start("ONE REZ\n");
  EXPECT_EQ(Run({"export", "--no-ping", "-o", agent_.Folder() / "none" / "x"}).Status, 7);
}

}  // namespace
