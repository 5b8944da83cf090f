// Nodes with protocols that the agent does not carry.
#include <gtest/gtest.h>

#include "tests/process/manager.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using UnsupportedProtocol = ManagerTest;

constexpr const char* kProtocols[] = {"ATCPIP", "ATCPIPS", "REZ",    "IPX/SPX", "NPIPE",
                                      "DECNET", "TSR",     "TCPIPS", "NETBIOS"};

TEST_F(UnsupportedProtocol, EachOfTheNineMakesANodeThatFailsOnlyWhenItIsConnected) {
  std::string table;
  for (const char* protocol : kProtocols)
    table += "N" + std::to_string(table.size()) + " " + protocol + " some address\n";
  Manager manager = StartWithManager(table);
  EXPECT_EQ(agent_.Results(), "");
  EXPECT_EQ(manager.Count(), 9);
  Client client(agent_);
  for (int index = 0; index < 9; ++index) {
    const std::string name = lumo::ItemText(manager.Ask(105, index).Item);
    client.ExpectError(client.Send(name), 4066, 0);
  }
}

TEST_F(UnsupportedProtocol, IsRecognisedInAnyCase) {
  Client client = StartWithClient("A npipe\nB NPipe x\nC ipx/Spx\nD tcpips 127.0.0.1\n");
  for (const char* name : {"A", "B", "C", "D"}) client.ExpectError(client.Send(name), 4066, 0);
}

TEST_F(UnsupportedProtocol, OtherNamesAreNotAcceptedAtAll) {
  agent_.LogLevel("2");
  StartAgent("A DUMMY\nB REZA\nC TS\nD IPX\nE REZ\n");
  for (const char* protocol : {"DUMMY", "REZA", "TS", "IPX"}) {
    EXPECT_TRUE(
        agent_.Logged(2, "protload", "Protocol '" + std::string(protocol) + "' don't support"));
  }
  EXPECT_EQ(Manager(agent_).Count(), 1);
  Client client(agent_);
  client.ExpectError(client.Send("A"), 4050, 0);
}

TEST_F(UnsupportedProtocol, EachNodeLoadsARecordOfItsOwn) {
  agent_.Trace();
  Manager manager = StartWithManager("A REZ\nB REZ\n");
  EXPECT_EQ(agent_.CountLogged(15, "dummy", "'DUMMYInitProtocol' Leave SUCCESS"), 2);
  EXPECT_FALSE(agent_.LogContains("already is in list of protocol"));
  EXPECT_EQ(manager.Describe("A").ProtocolCode, 0u);
}

TEST_F(UnsupportedProtocol, TheFailureIsTracedAndNothingElseOfTheDriver) {
  agent_.Trace();
  Client client = StartWithClient("A TSR\n");
  client.ExpectError(client.Send("A"), 4066, 0);
  agent_.Tick();
  EXPECT_EQ(agent_.Stop(), 0);
  int lines = 0;
  for (const LogLine& line : agent_.LogLines()) {
    if (line.Module != "dummy") continue;
    ++lines;
    EXPECT_TRUE(line.Text.starts_with("'DUMMYInitProtocol' ") ||
                line.Text.starts_with("'DummyConnectLink' "))
        << line.Text;
  }
  EXPECT_EQ(lines, 4);
  EXPECT_TRUE(agent_.Logged(15, "dummy", "'DummyConnectLink' Leave FAILED:unsupport"));
}

TEST_F(UnsupportedProtocol, RepeatedFailuresUseNoDescriptor) {
  Client client = StartWithClient("A NETBIOS\n");
  client.ExpectError(client.Send("A"), 4066, 0);
  const int before = OpenDescriptors(agent_.Pid());
  for (int i = 0; i < 20; ++i) client.ExpectError(client.Send("A"), 4066, 0);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
}

TEST_F(UnsupportedProtocol, ANodeCanBeDeletedAndRedefined) {
  Node node;
  Client client = StartWithClient("A REZ\nB TCPIPS\n");
  Manager manager(agent_);
  client.ExpectError(client.Send("B"), 4066, 0);
  EXPECT_EQ(manager.DeleteNode("B"), 0);
  client.ExpectError(client.Send("B"), 4050, 0);
  EXPECT_EQ(manager.SetNode("A", node.Line("A")), 0);
  ExpectFirstExchange(client, client.Send("A"), node, "now");
}

}  // namespace
}  // namespace test
