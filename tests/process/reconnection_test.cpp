// What happens when a link fails: who is told what, and how the default link moves.
#include "tests/process/reconnection.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

TEST(WithoutAMode, AFailureAtOnceIsAnsweredWithItsOwnCodeAndErrno) {
  Agent agent;
  LateKernel kernel(agent);
  agent.Nodetab("U REZ\n" + kernel.Line("K")).LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send("K"), 4006, ENOENT);
  client.ExpectError(client.Send("U"), 4066, 0);
  kernel.Bind();
  client.ExpectError(client.Send("K"), 4006, ECONNREFUSED);
  client.ExpectError(client.Send(), 4066, 0);
  kernel.Listen();
  const lumo::Message request = client.Send("K");
  ASSERT_TRUE(kernel.Accept());
  ExpectServedBy(kernel, "K", client, request);
  EXPECT_EQ(DefaultName(agent), "U");
  EXPECT_EQ(LogOf(agent), "");
}

TEST(WithoutAMode, ALateFailureIsAnsweredAndTheNextRequestTriesAgain) {
  Node node(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send(), 4006, ECONNREFUSED);
  client.ExpectError(client.Send("A"), 4006, ECONNREFUSED);
  EXPECT_EQ(LogOf(agent), "");
  node.Listen();
  const lumo::Message request = client.Send();
  ASSERT_TRUE(node.Accept());
  ExpectServedBy(node, "A", client, request);
  EXPECT_EQ(LogOf(agent), "lumo_tcp:Link A connected\n");
  EXPECT_EQ(DefaultName(agent), "A");
}

TEST(WithoutAMode, AllRequestsThatWaitForALinkAreAnsweredOnceWhenItFails) {
  Node node(Node::Start::Bound);
  node.Stall();
  Agent agent;
  agent.Nodetab(node.Line("A", "0 0 2")).LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client one(agent), other(agent);
  const lumo::Message first = one.Send(), second = other.Send("A"), third = one.Send("a");
  agent.Barrier();
  agent.Ticks(3);
  one.ExpectError(first, 4058, 0);
  one.ExpectError(third, 4058, 0);
  other.ExpectError(second, 4058, 0);
  one.ExpectNothing();
  other.ExpectNothing();
}

TEST(WithoutAMode, ABrokenLinkIsLoggedAndAnswersWhatWasSentOnIt) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client one(agent), other(agent);
  const lumo::Message first = one.Send(), second = other.Send("A");
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  ASSERT_TRUE(node.ReadRequest());
  node.Close();
  one.ExpectError(first, 4009, 0);
  other.ExpectError(second, 4009, 0);
  EXPECT_EQ(LogOf(agent), "lumo_tcp:Link A connected\nlumo_tcp:Disconnect link  A\n");
  EXPECT_EQ(DefaultName(agent), "A");
}

TEST(AutoChangeMode, AFailureMovesTheDefaultToTheNextNodeButAnswersTheRequest) {
  EchoNode node;
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B")).Option("-AUTOCHANGE").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(DefaultName(agent), "B");
  EXPECT_EQ(client.Ask("", "again").Strings[0], "again");
  EXPECT_EQ(LogOf(agent), "lumo_tcp:New default link is B\nlumo_tcp:Link B connected\n");
}

TEST(AutoChangeMode, EachFailureFlipsTheDefault) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Option("-A").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  for (int i = 0; i < 3; ++i) client.ExpectError(client.Send(), 4066, 0);
  EXPECT_EQ(LogOf(agent),
            "lumo_tcp:New default link is B\n"
            "lumo_tcp:New default link is A\n"
            "lumo_tcp:New default link is B\n");
}

TEST(AutoChangeMode, ALateFailureOfTheDefaultMovesItToo) {
  Node refusing(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(refusing.Line("A") + "B REZ\n").Option("-AUTOCHANGE").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent), "lumo_tcp:New default link is B\n");
}

TEST(AutoChangeMode, RequestsThatWaitAreNotMoved) {
  Node slow(Node::Start::Bound);
  slow.Stall();
  EchoNode next;
  Agent agent;
  agent.Nodetab(slow.Line("A", "0 0 2") + next.Line("B")).Option("-AUTOCHANGE");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send(), second = client.Send("A");
  agent.Barrier();
  agent.Ticks(3);
  client.ExpectError(first, 4058, 0);
  client.ExpectError(second, 4058, 0);
  EXPECT_EQ(next.Served(), 0);
  EXPECT_EQ(DefaultName(agent), "B");
}

TEST(AutoChangeMode, ARequestThatNamesTheDefaultMovesItAndOneThatNamesAnotherNodeDoesNot) {
  Node refusing(Node::Start::Bound);
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n" + refusing.Line("C")).Option("-AUTOCHANGE").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send("B"), 4066, 0);
  client.ExpectError(client.Send("C"), 4006, ECONNREFUSED);
  EXPECT_EQ(LogOf(agent), "");
  client.ExpectError(client.Send("A"), 4066, 0);
  EXPECT_EQ(LogOf(agent), "lumo_tcp:New default link is B\n");
}

TEST(AutoChangeMode, ADefaultThatFallsSilentIsLeftOnATick) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A", "0 2 0") + "B REZ\n").Option("-AUTOCHANGE").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadControl());
  ASSERT_TRUE(node.ReadRequest());
  agent.Ticks(3);
  client.ExpectError(request, 4065, 0);
  EXPECT_EQ(LogOf(agent),
            "lumo_tcp:Link A connected\n"
            "lumo_tcp:New default link is B\n"
            "lumo_tcp:Disconnect link  A\n");
}

TEST(AutoChangeMode, AConnectionThatTheNodeClosesDoesNotMoveTheDefault) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").Option("-AUTOCHANGE").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  node.Close();
  client.ExpectError(request, 4009, 0);
  EXPECT_EQ(DefaultName(agent), "A");
  const lumo::Message next = client.Send();
  ASSERT_TRUE(node.Accept());
  ExpectServedBy(node, "A", client, next);
}

constexpr const char* kCircleOfThree =
    "lumo_tcp:Set link  B as default\n"
    "lumo_tcp:Try connect link as default B\n"
    "lumo_tcp:Set link  C as default\n"
    "lumo_tcp:Try connect link as default C\n";

TEST(AutoConnectMode, TheRequestGoesToTheFirstNodeThatConnects) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab("A REZ\nB REZ\n" + kernel.Line("C")).Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(kernel.Accept());
  ExpectServedBy(kernel, "C", client, request);
  EXPECT_EQ(LogOf(agent), kCircleOfThree);
  EXPECT_EQ(DefaultName(agent), "C");
}

TEST(AutoConnectMode, ANodeThatConnectedAtOnceIsWhereTheNextCircleEnds) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab("A REZ\nB REZ\n" + kernel.Line("C")).Option("-G").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(kernel.Accept());
  ExpectServedBy(kernel, "C", client, request);
  kernel.StopListening();
  kernel.Close();
  ASSERT_TRUE(agent.WaitForLog("Disconnect link  C\n"));
  const std::size_t before = LogOf(agent).size();
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent).substr(before),
            "lumo_tcp:Set link  A as default\n"
            "lumo_tcp:Try connect link as default A\n"
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Full connect circle failed or timeout expired\n");
}

TEST(AutoConnectMode, ARequestThatNamesTheFailedDefaultIsAnsweredWhenAnotherNodeTakesOver) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab("A REZ\n" + kernel.Line("B")).Option("-AUTOCONNECT");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(kernel.Accept());
  client.ExpectError(request, 4066, 0);
  EXPECT_EQ(DefaultName(agent), "B");
  EXPECT_TRUE(kernel.Silent(Milliseconds(0)));
}

TEST(AutoConnectMode, RequestsFollowTheDefaultToANodeThatConnectsLater) {
  Node slow(Node::Start::Bound), last;
  slow.Stall();
  Agent agent;
  agent.Nodetab(slow.Line("A", "0 0 2") + "B REZ\n" + last.Line("C"));
  agent.Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client one(agent), other(agent);
  const lumo::Message first = one.Send(), named = one.Send("A"), second = other.Send(" ");
  agent.Barrier();
  agent.Ticks(3);
  one.ExpectError(named, 4058, 0);
  ASSERT_TRUE(last.Accept());
  const auto a = last.ReadRequest(), b = last.ReadRequest();
  ASSERT_TRUE(a && b);
  last.Answer(*a);
  last.Answer(*b);
  one.ExpectAnswer(first);
  other.ExpectAnswer(second);
  EXPECT_EQ(LogOf(agent), std::string(kCircleOfThree) + "lumo_tcp:Link C connected\n");
}

TEST(AutoConnectMode, ADefaultThatConnectedLaterIsWhereTheNextCircleEnds) {
  Node node;
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B") + "C REZ\n").Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(node.Accept());
  ExpectServedBy(node, "B", client, request);
  node.StopListening();
  node.Close();
  ASSERT_TRUE(agent.WaitForLog("Disconnect link  B\n"));
  const std::size_t before = LogOf(agent).size();
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent).substr(before),
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Try connect link as default C\n"
            "lumo_tcp:Set link  A as default\n"
            "lumo_tcp:Try connect link as default A\n"
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Full connect circle failed or timeout expired\n");
}

TEST(AutoConnectMode, WhileANodeIsConnectingTheCirclesEndStaysWhereItWas) {
  Node slow(Node::Start::Bound);
  slow.Stall();
  Agent agent;
  agent.Nodetab("A REZ\n" + slow.Line("B", "0 0 2") + "C REZ\n");
  agent.Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  client.ExpectNothing();
  EXPECT_EQ(DefaultName(agent), "B");
  agent.Ticks(3);
  client.ExpectError(request, 4006, 0);
  EXPECT_EQ(LogOf(agent), std::string(kCircleOfThree) +
                              "lumo_tcp:Set link  A as default\n"
                              "lumo_tcp:Full connect circle failed or timeout expired\n");
}

TEST(AutoConnectMode, ANodeThatIsUpAlreadyTakesOverWithoutAnotherConnection) {
  EchoNode node;
  Agent agent;
  agent.Nodetab("A REZ\n" + node.Line("B")).Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  EXPECT_EQ(client.Ask("B", "by name").Strings[0], "by name");
  EXPECT_EQ(client.Ask("", "by default").Strings[0], "by default");
  EXPECT_EQ(LogOf(agent),
            "lumo_tcp:Link B connected\n"
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n");
}

TEST(AutoConnectMode, ANodeThatIsConnectingAlreadyIsAwaited) {
  Node slow(Node::Start::Bound);
  slow.Stall();
  Agent agent;
  agent.Nodetab("A REZ\n" + slow.Line("B")).Option("-AUTOCONNECT").Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message named = client.Send("B"), plain = client.Send();
  client.ExpectNothing();
  slow.Unstall();
  ASSERT_TRUE(slow.Accept());
  ExpectServedBy(slow, "B", client, named);
  ExpectServedBy(slow, "B", client, plain);
  EXPECT_EQ(agent.CountLogged(15, "lumo_tcp", "'TcpConnectLink' Leave SUCCESS"), 1);
}

TEST(AutoConnectMode, AFailedLinkIsLeftAsItIsWhenAConnectedOneTakesOver) {
  Node silent;
  EchoNode next;
  Agent agent;
  agent.Nodetab(silent.Line("A", "0 2 0") + next.Line("B")).Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.Ask("B", "up");
  const lumo::Message request = client.Send();
  ASSERT_TRUE(silent.Accept());
  ASSERT_TRUE(silent.ReadControl());
  ASSERT_TRUE(silent.ReadRequest());
  agent.Ticks(3);
  EXPECT_EQ(DefaultName(agent), "B");
  EXPECT_TRUE(WaitFor([&] {  // on the tick after, when it is no longer the default
    agent.Tick();
    return agent.LogContains("Disconnect link  A\n");
  }));
  client.ExpectError(request, 4065, 0);
}

TEST(AutoConnectMode, RequestsMovedToAConnectedNodeGoOutAtOnceAndNamedOnesAreAnsweredLater) {
  Node refusing(Node::Start::Bound);
  EchoNode next;
  Agent agent;
  agent.Nodetab(refusing.Line("A") + next.Line("B")).Option("-AUTOCONNECT");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.Ask("B", "up");
  Freeze(agent.Pid());
  const lumo::Message plain = client.Send("", "plain"), named = client.Send("A", "named");
  Thaw(agent.Pid());
  EXPECT_EQ(client.ExpectAnswer(plain).Strings[0], "plain");
  EXPECT_EQ(DefaultName(agent), "B");
  agent.Ticks(2);
  EXPECT_EQ(client.ExpectAnswer(named).CodErr, 4006);
}

TEST(AutoConnectMode, WhenAllFailTheRequestIsAnsweredAndTheNextOneTriesThemAgain) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\nC REZ\n").Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const std::string circle = std::string(kCircleOfThree) +
                             "lumo_tcp:Set link  A as default\n"
                             "lumo_tcp:Full connect circle failed or timeout expired\n";
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent), circle);
  client.ExpectError(client.Send("A"), 4006, 0);
  EXPECT_EQ(LogOf(agent), circle + circle);
  EXPECT_EQ(DefaultName(agent), "A");
}

TEST(AutoConnectMode, TheFailureOfAllMayBeReportedAs1001) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Options({"-AUTOCONNECT", "-ERR1001"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send(), 1001, 0);
  client.ExpectError(client.Send("B"), 4066, 0);
}

TEST(AutoConnectMode, NodesThatRefuseLaterAreTriedOneAfterTheOther) {
  Node a(Node::Start::Bound), b(Node::Start::Bound), c(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(a.Line("A") + b.Line("B") + c.Line("C")).Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send(), 4006, 0);
  EXPECT_EQ(LogOf(agent), std::string(kCircleOfThree) +
                              "lumo_tcp:Set link  A as default\n"
                              "lumo_tcp:Full connect circle failed or timeout expired\n");
}

TEST(AutoConnectMode, AFailureOfAnotherNodeDoesNotMoveTheDefault) {
  Node refusing(Node::Start::Bound);
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n" + refusing.Line("C")).Option("-AUTOCONNECT").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send("B"), 4066, 0);
  client.ExpectError(client.Send("C"), 4006, ECONNREFUSED);
  EXPECT_EQ(LogOf(agent), "");
}

}  // namespace
}  // namespace test
