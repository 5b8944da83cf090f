// Nodes that are deleted, also while they are in use, and the agent afterwards.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/process/manager.h"
#include "tests/process/node_link.h"
#include "tests/support/kernel.h"
#include "tests/support/process.h"

namespace test {
namespace {

TEST(NodeDeletion, ADisconnectedNodeDisappearsAtOnce) {
  Agent agent;
  agent.Nodetab(kThreeNodes);
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(123, 0, "b"), 0);
  EXPECT_EQ(manager.Names(), "A C");
  Client client(agent);
  client.ExpectError(client.Send("B"), 4050, 0);
  client.ExpectError(client.Send("C"), 4066, 0);
  EXPECT_EQ(manager.Result(124, 1), 0);
  EXPECT_EQ(manager.Names(), "A");
}

TEST(NodeDeletion, AConnectedNodeDisappearsWhenItsLinkDisconnects) {
  Node node;
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B") + "C REZ\n");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  UseNode(&client, &node, "B");
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  EXPECT_EQ(manager.Result(124, 1), kDeletionPending);
  EXPECT_EQ(manager.Names(), "A B C");
  const lumo::Message first = client.Send("B", "1"), second = client.Send("B", "2");
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  node.Answer(*received, "still served");
  EXPECT_EQ(client.ExpectAnswer(first).Strings[0], "still served");
  EXPECT_TRUE(node.ReadRequest());
  Break(&agent, &node);
  client.ExpectError(second, 4009, 0);
  EXPECT_EQ(manager.Names(), "A C");
  client.ExpectError(client.Send("B"), 4050, 0);
}

TEST(NodeDeletion, ANodeWhoseLinkIsConnectingCountsAsBusy) {
  Node node(Node::Start::Bound);
  node.Stall();
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B", "0 0 2"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send("B"), second = client.Send("B");
  agent.Barrier();
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  agent.Ticks(3);
  client.ExpectError(first, 4058, 0);
  client.ExpectError(second, 4058, 0);
  EXPECT_EQ(manager.Names(), "A");
}

TEST(NodeDeletion, ARequestThatWaitsForTheConnectionIsServedBeforeThePendingDeletion) {
  Node node(Node::Start::Bound);
  node.Stall();
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("B");
  agent.Barrier();
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  node.Unstall();
  ASSERT_TRUE(node.Accept());
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  node.Answer(*received, "served");
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "served");
  EXPECT_EQ(manager.Names(), "A B");
  Break(&agent, &node);
  EXPECT_EQ(manager.Names(), "A");
}

TEST(NodeDeletion, ARedefinitionCancelsAPendingDeletion) {
  Node node;
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  UseNode(&client, &node, "B");
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  EXPECT_EQ(manager.SetNode("B", node.Line("X")), 0);
  Break(&agent, &node);
  EXPECT_EQ(manager.Names(), "A X");
  UseNode(&client, &node, "X");
  Break(&agent, &node);
  EXPECT_EQ(manager.Names(), "A X");
}

TEST(NodeDeletion, ADeletionCancelsAPendingRedefinition) {
  Node node;
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  UseNode(&client, &node, "B");
  Manager manager(agent);
  EXPECT_EQ(manager.SetNode("B", "X REZ"), 0);
  EXPECT_EQ(manager.DeleteNode("B"), kDeletionPending);
  Break(&agent, &node);
  EXPECT_EQ(manager.Names(), "A");
}

TEST(NodeDeletion, WithTheDefaultNodeGoneTheNextOneThatCanBeConnectedIsTheDefault) {
  EchoNode node;
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n" + node.Line("C") + "D REZ\n").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(125), 0);
  EXPECT_EQ(manager.Names(), "B C D");
  EXPECT_EQ(manager.Default(), "C");
  EXPECT_TRUE(agent.WaitForLog("Link C connected\n"));
  EXPECT_EQ(agent.Log(),
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Try connect link as default C\n"
            "lumo_tcp:Link C connected\n");
  Client client(agent);
  EXPECT_EQ(client.Ask("", "text").Strings[0], "text");
}

TEST(NodeDeletion, WithTheDefaultNodeGoneAndNoOtherConnectedTheNextInTheTableIsTheDefault) {
  for (const char* mode : {"-NODAEMON", "-AUTOCHANGE", "-AUTOCONNECT"}) {
    Agent agent;
    agent.Nodetab(kThreeNodes).LogLevel("1").Option(mode);
    ASSERT_TRUE(agent.Start());
    Manager manager(agent);
    EXPECT_EQ(manager.Result(125), 0);
    EXPECT_EQ(manager.Names(), "B C");
    EXPECT_EQ(manager.Default(), "B");
    EXPECT_EQ(agent.Log(),
              "lumo_tcp:Set link  B as default\n"
              "lumo_tcp:Try connect link as default B\n"
              "lumo_tcp:Set link  C as default\n"
              "lumo_tcp:Try connect link as default C\n"
              "lumo_tcp:Set link  A as default\n"
              "lumo_tcp:Full connect circle failed or timeout expired\n")
        << mode;
  }
}

TEST(NodeDeletion, TheCircleIsOnlySwitchedOnForTheDeletion) {
  Agent agent;
  agent.Nodetab(kThreeNodes);
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(125), 0);
  Client client(agent);
  client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(manager.Default(), "B");
}

TEST(NodeDeletion, AConnectedNeighbourTakesOverTheDefaultAndTheStartOfTheCircle) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab("A REZ\nB REZ\n" + kernel.Line("K") + "D REZ\n")
      .LogLevel("1")
      .Option("-AUTOCONNECT");
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  const lumo::Message deletion = manager.Send(125);
  ASSERT_TRUE(kernel.Accept());
  EXPECT_EQ(manager.Receive(deletion), Outcome{0});
  EXPECT_EQ(manager.Default(), "K");
  kernel.Close();
  agent.Barrier();
  kernel.StopListening();
  Client client(agent);
  const lumo::Message request = client.Send();
  client.ExpectError(request, 4006, 0);
  EXPECT_EQ(agent.Log(),
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Set link  K as default\n"
            "lumo_tcp:Try connect link as default K\n"
            "lumo_tcp:Disconnect link  K\n"
            "lumo_tcp:Set link  D as default\n"
            "lumo_tcp:Try connect link as default D\n"
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Set link  K as default\n"
            "lumo_tcp:Full connect circle failed or timeout expired\n");
}

// With the start of the circle gone, which is not the default here, a neighbour is connected.

TEST(NodeDeletion, ANeighbourThatConnectsAtOnceBecomesTheStartOfTheCircle) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab("A REZ\nB REZ\n" + kernel.Line("K")).LogLevel("1").Option("-AUTOCONNECT");
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(106, 1), 1);
  const lumo::Message deletion = manager.Send(124, 0);
  ASSERT_TRUE(kernel.Accept());
  EXPECT_EQ(manager.Receive(deletion), Outcome{0});
  EXPECT_EQ(manager.Default(), "B");
  // The circle ends at its start, connected or not.
  Client client(agent);
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(agent.Log(),
            "lumo_tcp:Set link  K as default\n"
            "lumo_tcp:Full connect circle failed or timeout expired\n"
            "lumo_tcp:Disconnect link  K\n");
}

TEST(NodeDeletion, ANeighbourThatIsOnlyConnectingDoesNotBecomeTheStartOfTheCircle) {
  EchoNode node;
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n" + node.Line("C")).LogLevel("1").Option("-AUTOCONNECT");
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(106, 1), 1);
  EXPECT_EQ(manager.Result(124, 0), 0);
  EXPECT_TRUE(agent.WaitForLog("Link C connected\n"));
  Client client(agent);
  EXPECT_EQ(client.Ask("", "text").Strings[0], "text");
  EXPECT_EQ(agent.Log(),
            "lumo_tcp:Link C connected\n"
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Try connect link as default C\n");
}

TEST(NodeDeletion, WithoutAStartTheCircleEndsWhereItBegan) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\nC REZ\nD REZ\n").LogLevel("1").Option("-AUTOCONNECT");
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(106, 1), 1);
  EXPECT_EQ(manager.Result(124, 0), 0);
  EXPECT_EQ(agent.Log(), "");
  Client client(agent);
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(agent.Log(),
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Try connect link as default C\n"
            "lumo_tcp:Set link  D as default\n"
            "lumo_tcp:Try connect link as default D\n"
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Full connect circle failed or timeout expired\n");
}

TEST(NodeDeletion, WithASingleNodeLeftTheReconnectionModesDoNotApply) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").LogLevel("1").Options({"-AUTOCONNECT", "-AUTOCHANGE"});
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("B"), 0);
  Client client(agent);
  client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(agent.Log(), "");
}

// The deletions, in this order, leave nothing; the agent serves on and takes new nodes.
void ExpectServingWithoutNodes(const std::vector<std::pair<int, int>>& deletions,
                               const std::vector<std::string>& options) {
  EchoNode node;
  Agent agent;
  agent.Nodetab(kThreeNodes).Options(options);
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  Client client(agent);
  for (const auto& [command, index] : deletions) {
    EXPECT_EQ(manager.Result(command, index), 0);
    agent.Tick();
  }
  EXPECT_EQ(manager.Ask(102), Outcome{0});
  for (const int command : {103, 104, 105, 106}) EXPECT_EQ(manager.Ask(command), Outcome{0});
  for (const int command : {121, 122, 124, 125, 127, 128})
    EXPECT_EQ(manager.Ask(command), Outcome{17});
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

TEST(NodeDeletion, TheAgentServesOnWithEveryNodeDeleted) {
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

TEST(NodeDeletion, TheAgentStopsWithoutNodes) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  EXPECT_EQ(manager.Result(125), 0);
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_EQ(agent.Results(), "");
}

TEST(NodeDeletion, TheNodeWhereTheCircleIsEnteredCanBeDeleted) {
  EchoNode node;
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n" + node.Line("C"));
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  Client client(agent);
  client.ExpectError(client.Send("B"), 4066, 0);
  EXPECT_EQ(manager.DeleteNode("B"), 0);
  EXPECT_EQ(client.Ask("C", "text").Strings[0], "text");
  client.ExpectError(client.Send("A"), 4066, 0);
  agent.Tick();
  EXPECT_EQ(manager.Names(), "A C");
}

TEST(NodeDeletion, RequestsThatWaitForTheTimerLoseTheirNode) {
  Agent agent;
  agent.Nodetab(kThreeNodes).Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message named = client.Send("A"), unnamed = client.Send();
  client.ExpectNothing();
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("A"), 0);
  client.ExpectError(named, 4050, 0);
  client.ExpectError(unnamed, 4050, 0);
  EXPECT_EQ(manager.Names(), "B C");
  agent.Tick();
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(NodeDeletion, ADefaultThatBreaksWithItsDeletionPendingHandsOver) {
  for (const char* mode : {"-NODAEMON", "-AUTOCHANGE", "-AUTOCONNECT"}) {
    Node node;
    EchoNode next;
    Agent agent;
    agent.Nodetab(node.Line("A", "0 2 0") + next.Line("B") + "C REZ\n").Option(mode);
    ASSERT_TRUE(agent.Start());
    Client client(agent);
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

TEST(NodeDeletion, EveryNodeMayBreakAndDisappearInTheSameTick) {
  for (const char* mode : {"-NODAEMON", "-AUTOCHANGE"}) {
    Node nodes[3];
    Agent agent;
    agent
        .Nodetab(nodes[0].Line("A", "0 2 0") + nodes[1].Line("B", "0 2 0") +
                 nodes[2].Line("C", "0 2 0"))
        .Option(mode);
    ASSERT_TRUE(agent.Start());
    Client client(agent);
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

TEST(NodeDeletion, AClientMayDieAfterItsNodeHasGone) {
  LivingProcess application;
  Node node;
  EchoNode other;
  Agent agent;
  agent.Nodetab(node.Line("A") + other.Line("B"));
  ASSERT_TRUE(agent.Start());
  Client client(agent, application.Pid());
  UseNode(&client, &node, "A");
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  Break(&agent, &node);
  EXPECT_EQ(manager.Names(), "B");
  application.Kill();
  agent.Ticks(2);
  client.Close();
  Client survivor(agent);
  EXPECT_EQ(survivor.Ask("B", "text").Strings[0], "text");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(NodeDeletion, AClientMayDieBeforeItsNodeGoes) {
  LivingProcess application;
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n");
  ASSERT_TRUE(agent.Start());
  Client client(agent, application.Pid());
  UseNode(&client, &node, "A");
  client.Send("A", "never answered");
  EXPECT_TRUE(node.ReadRequest());
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  application.Kill();
  Break(&agent, &node);
  agent.Tick();
  EXPECT_EQ(manager.Names(), "B");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(NodeDeletion, TheAgentStopsWithADeletionPending) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  UseNode(&client, &node, "A");
  Manager manager(agent);
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_EQ(agent.Log(), "lumo_tcp:Link A connected\nlumo_tcp:Disconnect link  A\n");
}

}  // namespace
}  // namespace test
