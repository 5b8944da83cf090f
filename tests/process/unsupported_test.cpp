// Nodes with protocols that the agent does not carry.
#include <gtest/gtest.h>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/management.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

constexpr const char* kProtocols[] = {"ATCPIP", "ATCPIPS", "REZ",    "IPX/SPX", "NPIPE",
                                      "DECNET", "TSR",     "TCPIPS", "NETBIOS"};

TEST(UnsupportedProtocol, EachOfTheNineMakesANodeThatFailsOnlyWhenItIsConnected) {
  Agent agent;
  std::string table;
  for (const char* protocol : kProtocols)
    table += "N" + std::to_string(table.size()) + " " + protocol + " some address\n";
  agent.Nodetab(table);
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Results(), "");
  EXPECT_EQ(lumo::CountNodes(agent.Control())->Result, 9);
  Client client(agent);
  for (int index = 0; index < 9; ++index) {
    const std::string name = lumo::ItemText(lumo::GetNameByIndex(agent.Control(), index)->Item);
    client.ExpectError(client.Send(name), 4066, 0);
  }
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(UnsupportedProtocol, IsRecognisedInAnyCase) {
  Agent agent;
  agent.Nodetab("A npipe\nB NPipe x\nC ipx/Spx\nD tcpips 127.0.0.1\n");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  for (const char* name : {"A", "B", "C", "D"}) client.ExpectError(client.Send(name), 4066, 0);
}

TEST(UnsupportedProtocol, OtherNamesAreNotAcceptedAtAll) {
  Agent agent;
  agent.Nodetab("A DUMMY\nB REZA\nC TS\nD IPX\nE REZ\n").LogLevel("2");
  ASSERT_TRUE(agent.Start());
  for (const char* protocol : {"DUMMY", "REZA", "TS", "IPX"}) {
    EXPECT_TRUE(
        agent.Logged(2, "protload", "Protocol '" + std::string(protocol) + "' don't support"));
  }
  EXPECT_EQ(lumo::CountNodes(agent.Control())->Result, 1);
  Client client(agent);
  client.ExpectError(client.Send("A"), 4050, 0);
}

TEST(UnsupportedProtocol, EachNodeLoadsARecordOfItsOwn) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Trace();
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.CountLogged(15, "dummy", "'DUMMYInitProtocol' Leave SUCCESS"), 2);
  EXPECT_FALSE(agent.LogContains("already is in list of protocol"));
  const auto a = lumo::DecodeNodeDescription(lumo::GetNodeByName(agent.Control(), "A")->Item);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->ProtocolCode, 0u);
}

TEST(UnsupportedProtocol, TheFailureIsTracedAndNothingElseOfTheDriver) {
  Agent agent;
  agent.Nodetab("A TSR\n").Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send("A"), 4066, 0);
  agent.Tick();
  EXPECT_EQ(agent.Stop(), 0);
  int lines = 0;
  for (const LogLine& line : agent.LogLines()) {
    if (line.Module != "dummy") continue;
    ++lines;
    EXPECT_TRUE(line.Text.starts_with("'DUMMYInitProtocol' ") ||
                line.Text.starts_with("'DummyConnectLink' "))
        << line.Text;
  }
  EXPECT_EQ(lines, 4);
  EXPECT_TRUE(agent.Logged(15, "dummy", "'DummyConnectLink' Leave FAILED:unsupport"));
}

TEST(UnsupportedProtocol, RepeatedFailuresUseNoDescriptor) {
  Agent agent;
  agent.Nodetab("A NETBIOS\n");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send("A"), 4066, 0);
  const int before = OpenDescriptors(agent.Pid());
  for (int i = 0; i < 20; ++i) client.ExpectError(client.Send("A"), 4066, 0);
  EXPECT_EQ(OpenDescriptors(agent.Pid()), before);
}

TEST(UnsupportedProtocol, ANodeCanBeDeletedAndRedefined) {
  Node node;
  Agent agent;
  agent.Nodetab("A REZ\nB TCPIPS\n");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send("B"), 4066, 0);
  EXPECT_EQ(lumo::DeleteNodeByName(agent.Control(), "B")->Result, lumo::kDone);
  client.ExpectError(client.Send("B"), 4050, 0);
  EXPECT_EQ(lumo::SetNodeByName(agent.Control(), "A", node.Line("A"))->Result, lumo::kDone);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  node.Answer(*node.ReadRequest(), "now");
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "now");
}

}  // namespace
}  // namespace test
