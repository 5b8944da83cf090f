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

// A run that finds nothing to test ends with 0 as well.
TEST_F(Ping, StatusZeroWithoutTheWordIsNotAlive) {
  const std::string path = Write("table", "ONE TCPIP 127.0.0.1 1\n");
  const Json nodes = Ask({"ping", "--file", path, "--program", "/bin/true"}, 1).at("nodes");
  EXPECT_EQ(nodes.at(0).at("alive"), false);
  EXPECT_EQ(nodes.at(0).at("verdict"), "the test gave no verdict (status 0)");
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

TEST_F(Ping, LocalKernelBehindAQueueIsTestedByItsKey) {
  test::IpcKernel kernel;
  const std::string path = Write("table", kernel.Line("KERNEL"));
  test::Program ping(LUMOCTL_PATH, Full({"ping", "--file", path}), Environment());
  const auto request = kernel.ExpectRequest();
  EXPECT_EQ(request.Message.Command, "TS T");
  EXPECT_TRUE(kernel.Answer(request));
  EXPECT_EQ(ping.Wait(), 0) << ping.Stdout() << ping.Stderr();
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
  std::string Of(const std::string& name, const std::string& node = {}) const {
    return "lumo_" + name + "{exchange=\"" + std::to_string(agent_.ExchangeId()) + '"' +
           (node.empty() ? "" : ",node=\"" + node + '"') + '}';
  }
  // What an agent without a statistics page answers, beside its nodes.
  std::string Answered(int nodes) const {
    return Of("answer_seconds") + '\n' + Of("nodes") + ' ' + std::to_string(nodes) + '\n';
  }
};

TEST_F(Export, NodeThatCannotBeTestedIsNotSaidToBeDead) {
  Start("HERE LOCALS 7\n");
  test::WriteFile(agent_.NodetabPath(), "");  // nothing tells the address of a local node now
  const std::string text = Run({"export"}).Out;
  EXPECT_NE(text.find(Of("node_tested", "HERE") + " 0\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("lumo_node_alive"), std::string::npos) << text;
}

TEST_F(Export, WritesOneFileThatACollectorReads) {
  const NodeProgram node({"--listen", "0"});
  Start("DUMB REZ\n" + node.Line("ALIVE"));
  const std::string path = Write("metrics.prom", "old\n");
  ASSERT_EQ(Run({"export", "--output", path}).Status, 0);
  const std::string text = test::ReadFile(path);
  EXPECT_EQ(Samples(text),
            Answered(2) + Of("node_default", "DUMB") + " 1\n" + Of("node_default", "ALIVE") +
                " 0\n" + Of("node_tested", "DUMB") + " 1\n" + Of("node_tested", "ALIVE") + " 1\n" +
                Of("node_alive", "DUMB") + " 0\n" + Of("node_alive", "ALIVE") + " 1\n" +
                Of("node_ping_seconds", "DUMB") + '\n' + Of("node_ping_seconds", "ALIVE") + '\n' +
                Of("node_ping_code", "DUMB") + " 4066\n" + Of("node_ping_code", "ALIVE") + " 0\n" +
                Of("up") + " 1\n");
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
            Answered(1) + Of("node_default", "ONE") + " 1\n" + Of("up") + " 1\n");
  EXPECT_EQ(Ask({"export", "--no-ping"}).at("lumo_nodes").at(0).at("value"), 1.0);
}

TEST_F(Export, AgentThatIsDownIsAMetric) {
  const std::string path = agent_.Folder() / "metrics.prom";
  EXPECT_EQ(Run({"export", "-o", path}).Status, 0);
  EXPECT_EQ(Samples(test::ReadFile(path)), Of("up") + " 0\n");
}

TEST_F(Export, FileThatCannotBeWrittenIsStatusSeven) {
  Start("ONE REZ\n");
  EXPECT_EQ(Run({"export", "--no-ping", "-o", agent_.Folder() / "none" / "x"}).Status, 7);
}

}  // namespace
