// Nodes that are deleted, also while they are in use, and the agent afterwards.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/process/manager.h"
#include "tests/process/node_link.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/process.h"

namespace test {
namespace {

class NodeDeletion : public NodeInUseTest {
 protected:
  static void ExpectServingWithoutNodes(const std::vector<std::pair<int, int>>& deletions,
                                        const std::vector<std::string>& options);
};

TEST_F(NodeDeletion, ADisconnectedNodeDisappearsAtOnce) {
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.Result(123, 0, "b"), 0);
  EXPECT_EQ(manager.Names(), "A C");
  Client client(agent_);
  client.ExpectError(client.Send("B"), 4050, 0);
  client.ExpectError(client.Send("C"), 4066, 0);
  EXPECT_EQ(manager.Result(124, 1), 0);
  EXPECT_EQ(manager.Names(), "A");
}

TEST_F(NodeDeletion, AConnectedNodeDisappearsWhenItsLinkDisconnects) {
  Manager manager = StartInUse("B", "A REZ\n", "C REZ\n");
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  EXPECT_EQ(manager.Result(124, 1), kDeletionPending);
  EXPECT_EQ(manager.Names(), "A B C");
  const lumo::Message first = client_->Send("B", "1"), second = client_->Send("B", "2");
  ExpectExchange(*client_, first, node_, "still served");
  EXPECT_TRUE(node_.ReadRequest());
  Break();
  client_->ExpectError(second, 4009, 0);
  EXPECT_EQ(manager.Names(), "A C");
  client_->ExpectError(client_->Send("B"), 4050, 0);
}

TEST_F(NodeDeletion, ANodeWhoseLinkIsConnectingCountsAsBusy) {
  Node node(Node::Start::Stalled);
  Client client = StartWithClient("A REZ\n" + node.Line("B", "0 0 2"));
  const lumo::Message first = client.Send("B"), second = client.Send("B");
  agent_.Barrier();
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  agent_.Ticks(3);
  client.ExpectError(first, 4058, 0);
  client.ExpectError(second, 4058, 0);
  EXPECT_EQ(manager.Names(), "A");
}

TEST_F(NodeDeletion, ARequestThatWaitsForTheConnectionIsServedBeforeThePendingDeletion) {
  Node node(Node::Start::Stalled);
  Client client = StartWithClient("A REZ\n" + node.Line("B"));
  const lumo::Message request = client.Send("B");
  agent_.Barrier();
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  node.Unstall();
  ExpectFirstExchange(client, request, node, "served");
  EXPECT_EQ(manager.Names(), "A B");
  node.Close();
  agent_.Barrier();
  EXPECT_EQ(manager.Names(), "A");
}

TEST_F(NodeDeletion, ARedefinitionCancelsAPendingDeletion) {
  Manager manager = StartInUse("B", "A REZ\n");
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  EXPECT_EQ(manager.SetNode("B", node_.Line("X")), 0);
  Break();
  EXPECT_EQ(manager.Names(), "A X");
  UseNode(&*client_, &node_, "X");
  Break();
  EXPECT_EQ(manager.Names(), "A X");
}

TEST_F(NodeDeletion, ADeletionCancelsAPendingRedefinition) {
  Manager manager = StartInUse("B", "A REZ\n");
  EXPECT_EQ(manager.SetNode("B", "X REZ"), 0);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  Break();
  EXPECT_EQ(manager.Names(), "A");
}

TEST_F(NodeDeletion, WithTheDefaultNodeGoneTheNextOneThatCanBeConnectedIsTheDefault) {
  EchoNode node;
  agent_.LogLevel("1");
  Manager manager = StartWithManager("A REZ\nB REZ\n" + node.Line("C") + "D REZ\n");
  EXPECT_EQ(manager.Result(125), 0);
  EXPECT_EQ(manager.Names(), "B C D");
  EXPECT_EQ(manager.Default(), "C");
  EXPECT_TRUE(agent_.WaitForLog("Link C connected\n"));
  EXPECT_EQ(agent_.Log(), TriedAsDefault({"B", "C"}) + "lumo_tcp:Link C connected\n");
  EXPECT_EQ(Client(agent_).Ask("", "text").Strings[0], "text");
}

TEST_F(NodeDeletion, WithTheDefaultNodeGoneAndNoOtherConnectedTheNextInTheTableIsTheDefault) {
  for (const char* mode : {"-NODAEMON", "-AUTOCHANGE", "-AUTOCONNECT"}) {
    Agent agent;
    agent.Nodetab(kThreeNodes).LogLevel("1").Option(mode);
    Manager manager = StartWithManager(agent);
    EXPECT_EQ(manager.Result(125), 0);
    EXPECT_EQ(manager.Names(), "B C");
    EXPECT_EQ(manager.Default(), "B");
    EXPECT_EQ(agent.Log(), FailedCircle({"B", "C"}, "A")) << mode;
  }
}

TEST_F(NodeDeletion, TheCircleIsOnlySwitchedOnForTheDeletion) {
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.Result(125), 0);
  Client client(agent_);
  client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(manager.Default(), "B");
}

TEST_F(NodeDeletion, AConnectedNeighbourTakesOverTheDefaultAndTheStartOfTheCircle) {
  LocalKernel kernel(agent_);
  agent_.LogLevel("1").Option("-AUTOCONNECT");
  Manager manager = StartWithManager("A REZ\nB REZ\n" + kernel.Line("K") + "D REZ\n");
  const lumo::Message deletion = manager.Send(125);
  ASSERT_TRUE(kernel.Accept());
  EXPECT_EQ(manager.Receive(deletion), Outcome{0});
  EXPECT_EQ(manager.Default(), "K");
  kernel.Close();
  agent_.Barrier();
  kernel.StopListening();
  Client client(agent_);
  const lumo::Message request = client.Send();
  client.ExpectError(request, 4006, 0);
  EXPECT_EQ(agent_.Log(), TriedAsDefault({"B", "K"}) + "lumo_tcp:Disconnect link  K\n" +
                              FailedCircle({"D", "B"}, "K"));
}

// With the start of the circle gone, which is not the default here, a neighbour is connected.

TEST_F(NodeDeletion, ANeighbourThatConnectsAtOnceBecomesTheStartOfTheCircle) {
  LocalKernel kernel(agent_);
  agent_.LogLevel("1").Option("-AUTOCONNECT");
  Manager manager = StartWithManager("A REZ\nB REZ\n" + kernel.Line("K"));
  EXPECT_EQ(manager.Result(106, 1), 1);
  const lumo::Message deletion = manager.Send(124, 0);
  ASSERT_TRUE(kernel.Accept());
  EXPECT_EQ(manager.Receive(deletion), Outcome{0});
  EXPECT_EQ(manager.Default(), "B");
  // The circle ends at its start, connected or not.
  Client client(agent_);
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(agent_.Log(), FailedCircle({}, "K") + "lumo_tcp:Disconnect link  K\n");
}

TEST_F(NodeDeletion, ANeighbourThatIsOnlyConnectingDoesNotBecomeTheStartOfTheCircle) {
  EchoNode node;
  agent_.LogLevel("1").Option("-AUTOCONNECT");
  Manager manager = StartWithManager("A REZ\nB REZ\n" + node.Line("C"));
  EXPECT_EQ(manager.Result(106, 1), 1);
  EXPECT_EQ(manager.Result(124, 0), 0);
  EXPECT_TRUE(agent_.WaitForLog("Link C connected\n"));
  EXPECT_EQ(Client(agent_).Ask("", "text").Strings[0], "text");
  EXPECT_EQ(agent_.Log(), "lumo_tcp:Link C connected\n" + TriedAsDefault({"C"}));
}

TEST_F(NodeDeletion, WithoutAStartTheCircleEndsWhereItBegan) {
  agent_.LogLevel("1").Option("-AUTOCONNECT");
  Manager manager = StartWithManager("A REZ\nB REZ\nC REZ\nD REZ\n");
  EXPECT_EQ(manager.Result(106, 1), 1);
  EXPECT_EQ(manager.Result(124, 0), 0);
  EXPECT_EQ(agent_.Log(), "");
  Client client(agent_);
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(agent_.Log(), FailedCircle({"C", "D"}, "B"));
}

TEST_F(NodeDeletion, WithASingleNodeLeftTheReconnectionModesDoNotApply) {
  agent_.LogLevel("1").Options({"-AUTOCONNECT", "-AUTOCHANGE"});
  Manager manager = StartWithManager("A REZ\nB REZ\n");
  EXPECT_EQ(manager.DeleteNode("B"), 0);
  Client client(agent_);
  client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(agent_.Log(), "");
}

// The deletions, in this order, leave nothing; the agent serves on and takes new nodes.
void NodeDeletion::ExpectServingWithoutNodes(const std::vector<std::pair<int, int>>& deletions,
                                             const std::vector<std::string>& options) {
  EchoNode node;
  Agent agent;
  agent.Nodetab(kThreeNodes).Options(options);
  Manager manager = StartWithManager(agent);
  Client client(agent);
  for (const auto& [command, index] : deletions) {
    EXPECT_EQ(manager.Result(command, index), 0);
    agent.Tick();
  }
  EXPECT_EQ(manager.Ask(102), Outcome{0});
  for (const int command : {103, 104, 105, 106}) EXPECT_EQ(manager.Ask(command), Outcome{0});
  for (const int command : {121, 122, 124, 125, 127, 128})
    EXPECT_EQ(manager.Ask(command), Outcome{kNoSuchNode});
  for (const int command : {117, 129, 118}) EXPECT_GE(manager.Result(command), 0);
  client.ExpectError(client.Send(), 4050, 0);
  client.ExpectError(client.Send("A"), 4050, 0);
  agent.Tick();
  EXPECT_EQ(manager.AddNode(node.Line("NEW")), 0);
  EXPECT_EQ(manager.Names(), "NEW");
  EXPECT_EQ(manager.Default(), "NEW");
  EXPECT_EQ(client.Ask("", "text").Strings[0], "text");
  EXPECT_EQ(manager.AddNode("NEXT REZ"), 0);
  EXPECT_EQ(manager.Names(), "NEW NEXT");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(NodeDeletion, TheAgentServesOnWithEveryNodeDeleted) {
  const std::vector<std::vector<std::string>> kModes = {
      {},
      {"-AUTOCHANGE"},
      {"-AUTOCONNECT"},
      {"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "10"},
      {"-CONNECTONLOAD", "-AUTOCONNECT", "-ERR1001"}};
  for (const auto& options : kModes) {
    ExpectServingWithoutNodes({{125, 0}, {125, 0}, {125, 0}}, options);
    ExpectServingWithoutNodes({{124, 0}, {124, 0}, {124, 0}}, options);
    ExpectServingWithoutNodes({{124, 2}, {124, 1}, {124, 0}}, options);
    ExpectServingWithoutNodes({{124, 1}, {125, 0}, {124, 0}}, options);
  }
}

TEST_F(NodeDeletion, TheAgentStopsWithoutNodes) {
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Result(125), 0);
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.Results(), "");
}

TEST_F(NodeDeletion, TheNodeWhereTheCircleIsEnteredCanBeDeleted) {
  EchoNode node;
  Manager manager = StartWithManager("A REZ\nB REZ\n" + node.Line("C"));
  Client client(agent_);
  client.ExpectError(client.Send("B"), 4066, 0);
  EXPECT_EQ(manager.DeleteNode("B"), 0);
  EXPECT_EQ(client.Ask("C", "text").Strings[0], "text");
  client.ExpectError(client.Send("A"), 4066, 0);
  agent_.Tick();
  EXPECT_EQ(manager.Names(), "A C");
}

TEST_F(NodeDeletion, RequestsThatWaitForTheTimerLoseTheirNode) {
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  Client client = StartWithClient(kThreeNodes);
  const lumo::Message named = client.Send("A"), unnamed = client.Send();
  client.ExpectNothing();
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("A"), 0);
  client.ExpectError(named, 4050, 0);
  client.ExpectError(unnamed, 4050, 0);
  EXPECT_EQ(manager.Names(), "B C");
  agent_.Tick();
}

TEST_F(NodeDeletion, ADefaultThatBreaksWithItsDeletionPendingHandsOver) {
  for (const char* mode : {"-NODAEMON", "-AUTOCHANGE", "-AUTOCONNECT"}) {
    Node node;
    EchoNode next;
    Agent agent;
    agent.Nodetab(node.Line("A", "0 2 0") + next.Line("B") + "C REZ\n").Option(mode);
    Client client = StartWithClient(agent);
    UseNode(&client, &node, "A");
    Manager manager(agent);
    EXPECT_EQ(manager.Result(125), kDeletionPending);
    agent.Ticks(3);  // the watchdog breaks the link
    EXPECT_EQ(manager.Names(), "B C") << mode;
    EXPECT_EQ(manager.Default(), "B") << mode;
    EXPECT_EQ(client.Ask("", "text").Strings[0], "text");
    EXPECT_EQ(agent.Stop(), 0);
  }
}

// The link is up, with a request that gets no answer.
void UseNodeInVain(Client* client, Node* node, const std::string& name) {
  client->Send(name, "never answered");
  ASSERT_TRUE(node->Accept());
  ASSERT_TRUE(NextRequest(node));
}

TEST_F(NodeDeletion, EveryNodeMayBreakAndDisappearInTheSameTick) {
  for (const char* mode : {"-NODAEMON", "-AUTOCHANGE"}) {
    Node nodes[3];
    Agent agent;
    agent
        .Nodetab(nodes[0].Line("A", "0 2 0") + nodes[1].Line("B", "0 2 0") +
                 nodes[2].Line("C", "0 2 0"))
        .Option(mode);
    Client client = StartWithClient(agent);
    UseNodeInVain(&client, &nodes[0], "A");
    UseNodeInVain(&client, &nodes[1], "B");
    UseNodeInVain(&client, &nodes[2], "C");
    Manager manager(agent);
    for (int index = 0; index < 3; ++index) EXPECT_EQ(manager.Result(124, index), kDeletionPending);
    for (Node& node : nodes) node.StopListening();
    agent.Ticks(3);
    EXPECT_EQ(manager.Count(), 0) << mode;
    for (int answer = 0; answer < 3; ++answer) {
      const auto message = client.Receive();
      ASSERT_TRUE(message);
      EXPECT_EQ(message->CodErr, 4065) << mode;
    }
    client.ExpectError(client.Send(), 4050, 0);
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(NodeDeletion, AClientMayDieAfterItsNodeHasGone) {
  LivingProcess application;
  Node node;
  EchoNode other;
  StartAgent(node.Line("A") + other.Line("B"));
  Client client(agent_, application.Pid());
  UseNode(&client, &node, "A");
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  node.Close();
  agent_.Barrier();
  EXPECT_EQ(manager.Names(), "B");
  application.Kill();
  agent_.Ticks(2);
  client.Close();
  EXPECT_EQ(Client(agent_).Ask("B", "text").Strings[0], "text");
}

TEST_F(NodeDeletion, AClientMayDieBeforeItsNodeGoes) {
  LivingProcess application;
  Node node;
  StartAgent(node.Line("A") + "B REZ\n");
  Client client(agent_, application.Pid());
  UseNode(&client, &node, "A");
  client.Send("A", "never answered");
  EXPECT_TRUE(node.ReadRequest());
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  application.Kill();
  node.Close();
  agent_.Barrier();
  agent_.Tick();
  EXPECT_EQ(manager.Names(), "B");
}

TEST_F(NodeDeletion, TheAgentStopsWithADeletionPending) {
  agent_.LogLevel("1");
  Manager manager = StartInUse("A", "", "B REZ\n");
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.Log(), "lumo_tcp:Link A connected\nlumo_tcp:Disconnect link  A\n");
}

}  // namespace
}  // namespace test
