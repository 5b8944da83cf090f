// Nodes that are redefined, also while they are in use.
#include <gtest/gtest.h>

#include <string>

#include "tests/process/manager.h"
#include "tests/process/node_link.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"

namespace test {
namespace {

using NodeRedefinition = NodeInUseTest;

TEST_F(NodeRedefinition, ADisconnectedNodeTakesItsNewDefinitionAtOnce) {
  EchoNode node;
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.SetNode("b", node.Line("new")), 0);
  EXPECT_EQ(manager.Names(), "A NEW C");
  EXPECT_EQ(manager.Describe("NEW").Port, node.Port());
  Client client(agent_);
  EXPECT_EQ(client.Ask("NEW", "text").Strings[0], "text");
  client.ExpectError(client.Send("B"), 4050, 0);
}

TEST_F(NodeRedefinition, ANodeIsRedefinedByNumberAndAsTheDefault) {
  EchoNode node;
  agent_.Options({"-DEFAULT", "C"});
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.Result(127, 1, "X REZ"), 0);
  EXPECT_EQ(manager.Names(), "A X C");
  EXPECT_EQ(manager.Result(128, 0, node.Line("Y")), 0);
  EXPECT_EQ(manager.Names(), "A X Y");
  EXPECT_EQ(manager.Default(), "Y");
  EXPECT_EQ(Client(agent_).Ask("", "text").Strings[0], "text");
}

TEST_F(NodeRedefinition, TheDefinitionStandsTwoBytesBehindTheNameHoweverThatIsPadded) {
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.SetNode("A       ", "X REZ"), 0);  // as commands 103 and 105 return it
  EXPECT_EQ(manager.Result(126, 0, std::string("B \0\0Y REZ", 9)), 0);
  EXPECT_EQ(manager.Result(126, 0, std::string("C\0?Z REZ", 8)), 0);
  EXPECT_EQ(manager.Names(), "X Y Z");
  EXPECT_EQ(manager.Result(126, 0, "X  W REZ"), 0) << "all of it is the name";
  EXPECT_EQ(manager.Names(), "X Y Z");
}

TEST_F(NodeRedefinition, WithoutATextNothingChanges) {
  Manager manager = StartInUse("A", "", "B REZ\n");
  for (const std::string name : {"A", "B"}) {
    EXPECT_EQ(manager.Result(126, 0, name), 0);
    EXPECT_EQ(manager.Result(126, 0, name + '\0'), 0);
    EXPECT_EQ(manager.Result(126, 0, name + '\0' + '\0'), 0);
  }
  for (const int index : {0, 1}) EXPECT_EQ(manager.Result(127, index), 0);
  EXPECT_EQ(manager.Result(128), 0);
  Break();
  EXPECT_EQ(manager.Names(), "A B");
}

TEST_F(NodeRedefinition, ATextThatMakesNoNodeLeavesTheNodeAsItIs) {
  EchoNode node;
  Manager manager = StartWithManager(node.Line("A"));
  EXPECT_EQ(manager.SetNode("A", "B LOCALS nonsense"), 0);
  EXPECT_EQ(agent_.Results(),
            "lumo_tcp:Initialization of link 'B' for protocol 'LOCALS' failed\n"
            "lumo_tcp:Node name 'B' skipped\n");
  EXPECT_EQ(manager.Names(), "A");
  EXPECT_EQ(Client(agent_).Ask("A", "text").Strings[0], "text");
}

TEST_F(NodeRedefinition, ANameThatExistsAlreadyIsTaken) {
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.SetNode("C", "A REZ"), 0);
  EXPECT_EQ(manager.Names(), "A B A");
  EXPECT_EQ(agent_.Results(), "");
}

TEST_F(NodeRedefinition, ABusyNodeKeepsItsDefinitionUntilItsLinkDisconnects) {
  EchoNode after;
  Manager manager = StartInUse("A", "", "B REZ\n");
  EXPECT_EQ(manager.SetNode("A", after.Line("new")), 0);
  EXPECT_EQ(manager.Names(), "A B");
  EXPECT_EQ(manager.Describe("A").Port, node_.Port());
  const lumo::Message request = client_->Send("A", "still over the old link");
  EXPECT_TRUE(node_.ReadRequest());
  Break();
  client_->ExpectError(request, 4009, 0);
  EXPECT_EQ(manager.Names(), "NEW B");
  EXPECT_EQ(manager.Default(), "NEW");
  EXPECT_EQ(manager.Describe("NEW").Port, after.Port());
  EXPECT_EQ(client_->Ask("NEW", "text").Strings[0], "text");
  client_->ExpectError(client_->Send("A"), 4050, 0);
}

TEST_F(NodeRedefinition, ANodeWhoseLinkIsConnectingCountsAsBusy) {
  Node node(Node::Start::Stalled);
  Client client = StartWithClient(node.Line("A", "0 0 2") + "B REZ\n");
  const lumo::Message request = client.Send("A");
  agent_.Barrier();
  Manager manager(agent_);
  EXPECT_EQ(manager.SetNode("A", "X REZ"), 0);
  EXPECT_EQ(manager.Names(), "A B");
  agent_.Ticks(3);
  client.ExpectError(request, 4058, 0);
  EXPECT_EQ(manager.Names(), "X B");
}

TEST_F(NodeRedefinition, TheLatestPendingDefinitionCounts) {
  Manager manager = StartInUse("A");
  EXPECT_EQ(manager.SetNode("A", "FIRST LOCALS 77     and a rather long text behind it"), 0);
  EXPECT_EQ(manager.SetNode("A", "LAST REZ"), 0);
  Break();
  EXPECT_EQ(manager.Names(), "LAST");
}

TEST_F(NodeRedefinition, APendingDefinitionIsTakenOnce) {
  Manager manager = StartInUse("A");
  EXPECT_EQ(manager.SetNode("A", node_.Line("X")), 0);
  Break();
  EXPECT_EQ(manager.Names(), "X");
  EXPECT_EQ(manager.SetNode("X", node_.Line("Y")), 0);
  UseNode(&*client_, &node_, "Y");
  Break();
  EXPECT_EQ(manager.Names(), "Y");
}

TEST_F(NodeRedefinition, APendingDefinitionThatMakesNoNodeIsTriedAtEachDisconnect) {
  Manager manager = StartInUse("A");
  EXPECT_EQ(manager.SetNode("A", "B LOCALS nonsense"), 0);
  for (int time = 1; time <= 2; ++time) {
    if (!node_.Open()) UseNode(&*client_, &node_, "A");
    Break();
    EXPECT_EQ(manager.Names(), "A");
    EXPECT_EQ(agent_.CountLogged(0, "", "Initialization of link 'B' for protocol 'LOCALS' failed"),
              time);
  }
}

TEST_F(NodeRedefinition, APendingDefinitionIsCutAt299Characters) {
  LocalKernel kernel(agent_);
  Manager manager = StartInUse("A");
  const std::string number = std::to_string(kernel.Number());
  std::string line = "B LOCALS ";
  line += std::string(299 - line.size() - number.size(), ' ') + number;
  EXPECT_EQ(manager.SetNode("A", line + "9" + std::string(2000, '9')), 0);
  Break();
  EXPECT_EQ(manager.Names(), "B");
  // The number was cut where it should be.
  ExpectFirstExchange(*client_, client_->Send("B"), kernel, "from the kernel");
}

TEST_F(NodeRedefinition, TheAgentStopsWithARedefinitionPending) {
  Manager manager = StartInUse("A");
  EXPECT_EQ(manager.SetNode("A", "B NONSENSE"), 0);
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.Results(), "") << "nothing is redefined any more";
}

}  // namespace
}  // namespace test
