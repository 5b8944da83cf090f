// What happens when a link fails: who is told what, and how the default link moves.
#include "tests/process/reconnection.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using WithoutAMode = AgentTest;
using AutoChangeMode = AgentTest;

TEST_F(WithoutAMode, AFailureAtOnceIsAnsweredWithItsOwnCodeAndErrno) {
  LateKernel kernel(agent_);
  agent_.LogLevel("1");
  Client client = StartWithClient("U REZ\n" + kernel.Line("K"));
  client.ExpectError(client.Send("K"), 4006, ENOENT);
  client.ExpectError(client.Send("U"), 4066, 0);
  kernel.Bind();
  client.ExpectError(client.Send("K"), 4006, ECONNREFUSED);
  client.ExpectError(client.Send(), 4066, 0);
  kernel.Listen();
  ExpectFirstServedBy(kernel, "K", client, client.Send("K"));
  EXPECT_EQ(DefaultName(agent_), "U");
  EXPECT_EQ(LogOf(agent_), "");
}

TEST_F(WithoutAMode, ALateFailureIsAnsweredAndTheNextRequestTriesAgain) {
  Node node(Node::Start::Bound);
  agent_.LogLevel("1");
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  client.ExpectError(client.Send(), 4006, ECONNREFUSED);
  client.ExpectError(client.Send("A"), 4006, ECONNREFUSED);
  EXPECT_EQ(LogOf(agent_), "");
  node.Listen();
  ExpectFirstServedBy(node, "A", client, client.Send());
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:Link A connected\n");
  EXPECT_EQ(DefaultName(agent_), "A");
}

TEST_F(WithoutAMode, AllRequestsThatWaitForALinkAreAnsweredOnceWhenItFails) {
  Node node(Node::Start::Stalled);
  agent_.LogLevel("1");
  StartAgent(node.Line("A", "0 0 2"));
  Client one(agent_), other(agent_);
  const lumo::Message first = one.Send(), second = other.Send("A"), third = one.Send("a");
  agent_.Barrier();
  agent_.Ticks(3);
  one.ExpectError(first, 4058, 0);
  one.ExpectError(third, 4058, 0);
  other.ExpectError(second, 4058, 0);
  one.ExpectNothing();
  other.ExpectNothing();
}

TEST_F(WithoutAMode, ABrokenLinkIsLoggedAndAnswersWhatWasSentOnIt) {
  Node node;
  agent_.LogLevel("1");
  StartAgent(node.Line("A") + "B REZ\n");
  Client one(agent_), other(agent_);
  const lumo::Message first = one.Send(), second = other.Send("A");
  node.ExpectFirstRequest();
  ASSERT_TRUE(node.ReadRequest());
  node.Close();
  one.ExpectError(first, 4009, 0);
  other.ExpectError(second, 4009, 0);
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:Link A connected\nlumo_tcp:Disconnect link  A\n");
  EXPECT_EQ(DefaultName(agent_), "A");
}

TEST_F(AutoChangeMode, AFailureMovesTheDefaultToTheNextNodeButAnswersTheRequest) {
  EchoNode node;
  agent_.Option("-AUTOCHANGE").LogLevel("1");
  Client client = StartWithClient("A REZ\n" + node.Line("B"));
  client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(DefaultName(agent_), "B");
  EXPECT_EQ(client.Ask("", "again").Strings[0], "again");
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:New default link is B\nlumo_tcp:Link B connected\n");
}

TEST_F(AutoChangeMode, EachFailureFlipsTheDefault) {
  agent_.Option("-A").LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\n");
  for (int i = 0; i < 3; ++i) client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(LogOf(agent_),
            "lumo_tcp:New default link is B\n"
            "lumo_tcp:New default link is A\n"
            "lumo_tcp:New default link is B\n");
}

TEST_F(AutoChangeMode, ALateFailureOfTheDefaultMovesItToo) {
  Node refusing(Node::Start::Bound);
  agent_.Option("-AUTOCHANGE").LogLevel("1");
  Client client = StartWithClient(refusing.Line("A") + "B REZ\n");
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:New default link is B\n");
}

TEST_F(AutoChangeMode, RequestsThatWaitAreNotMoved) {
  Node slow(Node::Start::Stalled);
  EchoNode next;
  agent_.Option("-AUTOCHANGE");
  Client client = StartWithClient(slow.Line("A", "0 0 2") + next.Line("B"));
  const lumo::Message first = client.Send(), second = client.Send("A");
  agent_.Barrier();
  agent_.Ticks(3);
  client.ExpectError(first, 4058, 0);
  client.ExpectError(second, 4058, 0);
  EXPECT_EQ(next.Served(), 0);
  EXPECT_EQ(DefaultName(agent_), "B");
}

TEST_F(AutoChangeMode, ARequestThatNamesTheDefaultMovesItAndOneThatNamesAnotherNodeDoesNot) {
  Node refusing(Node::Start::Bound);
  agent_.Option("-AUTOCHANGE").LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\n" + refusing.Line("C"));
  client.ExpectError(client.Send("B"), 4066, 0);
  client.ExpectError(client.Send("C"), 4006, ECONNREFUSED);
  EXPECT_EQ(LogOf(agent_), "");
  client.ExpectError(client.Send("A"), 4066, 0);
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:New default link is B\n");
}

TEST_F(AutoChangeMode, ADefaultThatFallsSilentIsLeftOnATick) {
  Node node;
  agent_.Option("-AUTOCHANGE").LogLevel("1");
  Client client = StartWithClient(node.Line("A", "0 2 0") + "B REZ\n");
  const lumo::Message request = client.Send();
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadControl());
  ASSERT_TRUE(node.ReadRequest());
  agent_.Ticks(3);
  client.ExpectError(request, 4065, 0);
  EXPECT_EQ(LogOf(agent_),
            "lumo_tcp:Link A connected\n"
            "lumo_tcp:New default link is B\n"
            "lumo_tcp:Disconnect link  A\n");
}

TEST_F(AutoChangeMode, AConnectionThatTheNodeClosesDoesNotMoveTheDefault) {
  Node node;
  agent_.Option("-AUTOCHANGE").LogLevel("1");
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  const lumo::Message request = client.Send();
  node.ExpectFirstRequest();
  node.Close();
  client.ExpectError(request, 4009, 0);
  EXPECT_EQ(DefaultName(agent_), "A");
  ExpectFirstServedBy(node, "A", client, client.Send());
}

class AutoConnectMode : public AgentTest {
 protected:
  // The node becomes the default, and goes: what the log tells of the next circle.
  template <class Server>
  void ExpectNextCircleToEndAt(Server& node, const std::string& name, const std::string& nodetab,
                               const std::string& circle) {
    agent_.Option("-AUTOCONNECT").LogLevel("1");
    Client client = StartWithClient(nodetab);
    ExpectFirstServedBy(node, name, client, client.Send());
    node.StopListening();
    node.Close();
    ASSERT_TRUE(agent_.WaitForLog("Disconnect link  " + name + "\n"));
    const std::size_t before = LogOf(agent_).size();
    client.ExpectError(client.Send(), 4006, 0);
    EXPECT_EQ(LogOf(agent_).substr(before), circle);
  }
};

const std::string kCircleOfThree = TriedAsDefault({"B", "C"});

TEST_F(AutoConnectMode, TheRequestGoesToTheFirstNodeThatConnects) {
  LocalKernel kernel(agent_);
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\n" + kernel.Line("C"));
  ExpectFirstServedBy(kernel, "C", client, client.Send());
  EXPECT_EQ(LogOf(agent_), kCircleOfThree);
  EXPECT_EQ(DefaultName(agent_), "C");
}

TEST_F(AutoConnectMode, ANodeThatConnectedAtOnceIsWhereTheNextCircleEnds) {
  LocalKernel kernel(agent_);
  ExpectNextCircleToEndAt(kernel, "C", "A REZ\nB REZ\n" + kernel.Line("C"),
                          FailedCircle({"A", "B"}, "C"));
}

TEST_F(AutoConnectMode, ARequestThatNamesTheFailedDefaultIsAnsweredWhenAnotherNodeTakesOver) {
  LocalKernel kernel(agent_);
  agent_.Option("-AUTOCONNECT");
  Client client = StartWithClient("A REZ\n" + kernel.Line("B"));
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(kernel.Accept());
  client.ExpectError(request, 4066, 0);
  EXPECT_EQ(DefaultName(agent_), "B");
  EXPECT_TRUE(kernel.Silent(Milliseconds(0)));
}

TEST_F(AutoConnectMode, RequestsFollowTheDefaultToANodeThatConnectsLater) {
  Node slow(Node::Start::Stalled), last;
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  StartAgent(slow.Line("A", "0 0 2") + "B REZ\n" + last.Line("C"));
  Client one(agent_), other(agent_);
  const lumo::Message first = one.Send(), named = one.Send("A"), second = other.Send(" ");
  agent_.Barrier();
  agent_.Ticks(3);
  one.ExpectError(named, 4058, 0);
  ASSERT_TRUE(last.Accept());
  const auto a = last.ReadRequest(), b = last.ReadRequest();
  ASSERT_TRUE(a && b);
  last.Answer(*a);
  last.Answer(*b);
  one.ExpectAnswer(first);
  other.ExpectAnswer(second);
  EXPECT_EQ(LogOf(agent_), kCircleOfThree + "lumo_tcp:Link C connected\n");
}

TEST_F(AutoConnectMode, ADefaultThatConnectedLaterIsWhereTheNextCircleEnds) {
  Node node;
  ExpectNextCircleToEndAt(node, "B", "A REZ\n" + node.Line("B") + "C REZ\n",
                          FailedCircle({"C", "A"}, "B"));
}

TEST_F(AutoConnectMode, WhileANodeIsConnectingTheCirclesEndStaysWhereItWas) {
  Node slow(Node::Start::Stalled);
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient("A REZ\n" + slow.Line("B", "0 0 2") + "C REZ\n");
  const lumo::Message request = client.Send();
  client.ExpectNothing();
  EXPECT_EQ(DefaultName(agent_), "B");
  agent_.Ticks(3);
  client.ExpectError(request, 4006, 0);
  EXPECT_EQ(LogOf(agent_), FailedCircle({"B", "C"}, "A"));
}

TEST_F(AutoConnectMode, ANodeThatIsUpAlreadyTakesOverWithoutAnotherConnection) {
  EchoNode node;
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient("A REZ\n" + node.Line("B"));
  EXPECT_EQ(client.Ask("B", "by name").Strings[0], "by name");
  EXPECT_EQ(client.Ask("", "by default").Strings[0], "by default");
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:Link B connected\n" + TriedAsDefault({"B"}));
}

TEST_F(AutoConnectMode, ANodeThatIsConnectingAlreadyIsAwaited) {
  Node slow(Node::Start::Stalled);
  agent_.Option("-AUTOCONNECT").Trace();
  Client client = StartWithClient("A REZ\n" + slow.Line("B"));
  const lumo::Message named = client.Send("B"), plain = client.Send();
  client.ExpectNothing();
  slow.Unstall();
  ExpectFirstServedBy(slow, "B", client, named);
  ExpectServedBy(slow, "B", client, plain);
  EXPECT_EQ(agent_.CountLogged(15, "lumo_tcp", "'TcpConnectLink' Leave SUCCESS"), 1);
}

TEST_F(AutoConnectMode, AFailedLinkIsLeftAsItIsWhenAConnectedOneTakesOver) {
  Node silent;
  EchoNode next;
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient(silent.Line("A", "0 2 0") + next.Line("B"));
  client.Ask("B", "up");
  const lumo::Message request = client.Send();
  ASSERT_TRUE(silent.Accept());
  ASSERT_TRUE(silent.ReadControl());
  ASSERT_TRUE(silent.ReadRequest());
  agent_.Ticks(3);
  EXPECT_EQ(DefaultName(agent_), "B");
  EXPECT_TRUE(WaitFor([&] {  // on the tick after, when it is no longer the default
    agent_.Tick();
    return agent_.LogContains("Disconnect link  A\n");
  }));
  client.ExpectError(request, 4065, 0);
}

TEST_F(AutoConnectMode, RequestsMovedToAConnectedNodeGoOutAtOnceAndNamedOnesAreAnsweredLater) {
  Node refusing(Node::Start::Bound);
  EchoNode next;
  agent_.Option("-AUTOCONNECT");
  Client client = StartWithClient(refusing.Line("A") + next.Line("B"));
  client.Ask("B", "up");
  Freeze(agent_.Pid());
  const lumo::Message plain = client.Send("", "plain"), named = client.Send("A", "named");
  Thaw(agent_.Pid());
  EXPECT_EQ(client.ExpectAnswer(plain).Strings[0], "plain");
  EXPECT_EQ(DefaultName(agent_), "B");
  agent_.Ticks(2);
  EXPECT_EQ(client.ExpectAnswer(named).CodErr, 4006);
}

TEST_F(AutoConnectMode, WhenAllFailTheRequestIsAnsweredAndTheNextOneTriesThemAgain) {
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\nC REZ\n");
  const std::string circle = FailedCircle({"B", "C"}, "A");
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent_), circle);
  client.ExpectError(client.Send("A"), 4006, 0);
  EXPECT_EQ(LogOf(agent_), circle + circle);
  EXPECT_EQ(DefaultName(agent_), "A");
}

TEST_F(AutoConnectMode, TheFailureOfAllMayBeReportedAs1001) {
  agent_.Options({"-AUTOCONNECT", "-ERR1001"});
  Client client = StartWithClient("A REZ\nB REZ\n");
  client.ExpectError(client.Send(), 1001, 0);
  client.ExpectError(client.Send("B"), 4066, 0);
}

TEST_F(AutoConnectMode, NodesThatRefuseLaterAreTriedOneAfterTheOther) {
  Node a(Node::Start::Bound), b(Node::Start::Bound), c(Node::Start::Bound);
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient(a.Line("A") + b.Line("B") + c.Line("C"));
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent_), FailedCircle({"B", "C"}, "A"));
}

TEST_F(AutoConnectMode, AFailureOfAnotherNodeDoesNotMoveTheDefault) {
  Node refusing(Node::Start::Bound);
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\n" + refusing.Line("C"));
  client.ExpectError(client.Send("B"), 4066, 0);
  client.ExpectError(client.Send("C"), 4006, ECONNREFUSED);
  EXPECT_EQ(LogOf(agent_), "");
}

}  // namespace
}  // namespace test
