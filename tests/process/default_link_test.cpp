// The default link while nodes come up late: the timer of the circle, answers while a link is
// connecting, and nodes that are connected from the start.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <string>

#include "tests/process/reconnection.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/management.h"
#include "tests/support/node.h"

namespace test {
namespace {

// The values of the circle's count, in their order.
std::string CountsOf(Agent& agent) {
  agent.Barrier();
  std::string counts;
  for (const LogLine& line : agent.LogLines()) {
    static const std::string kStart = "CircleTimeCount = ";
    if (line.Text.starts_with(kStart)) counts += line.Text.substr(kStart.size()) + " ";
  }
  return counts;
}

TEST(CircleTimer, RequestsWaitUntilTheCountRunsOut) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "21"}).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  client.ExpectNothing();
  agent.Tick();
  client.ExpectNothing();
  agent.Ticks(9);
  client.ExpectError(request, 4006, 0);
  EXPECT_EQ(CountsOf(agent), "9 8 7 6 5 4 3 2 1 0 ");
  EXPECT_EQ(agent.CountLogged(15, "link", "Full connect cicle failed. Wait timer event"), 10);
  EXPECT_EQ(agent.CountLogged(1, "", "Full connect circle failed or timeout expired"), 1);
  EXPECT_EQ(agent.CountLogged(1, "", "Try connect link as default B"), 11)
      << "each tick tries the whole circle";
}

TEST(CircleTimer, TheLateFailureMayBeReportedAs1001) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n");
  agent.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT=4", "-ERR1001"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  agent.Barrier();
  agent.Ticks(2);
  client.ExpectError(request, 1001, 0);
}

TEST(CircleTimer, LaterRequestsWaitWithTheFirstAndDoNotStartTheCountAnew) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "20"}).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send();
  agent.Barrier();
  agent.Tick();
  const lumo::Message second = client.Send("A"), other = client.Send("B");
  client.ExpectError(other, 4066, 0);
  agent.Ticks(9);
  client.ExpectError(first, 4006, 0);
  client.ExpectError(second, 4006, 0);
  EXPECT_EQ(CountsOf(agent), "9 8 7 6 5 4 3 2 1 0 ");
  const lumo::Message third = client.Send();
  agent.Barrier();
  agent.Tick();
  client.ExpectNothing();
  EXPECT_TRUE(CountsOf(agent).starts_with("9 8 7 6 5 4 3 2 1 0 9 "));
  agent.Ticks(9);
  client.ExpectError(third, 4006, 0);
}

TEST(CircleTimer, ATimeOutBelowTwoSecondsIsNone) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "1"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectError(client.Send(), 4006, 0);
}

TEST(CircleTimer, ANodeThatComesUpMeanwhileGetsTheRequestsOnATick) {
  Node node(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  agent.LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(agent.WaitForLog("Set link  A as default\n"));
  client.ExpectNothing();
  node.Listen();
  agent.Tick();
  ASSERT_TRUE(node.Accept());
  ExpectServedBy(node, "A", client, request);
  EXPECT_TRUE(
      LogOf(agent).ends_with("lumo_tcp:Set link  A as default\nlumo_tcp:Link A connected\n"))
      << agent.Log();
}

TEST(CircleTimer, RequestsThatComeBackToAStartThatIsUpAreSentAtOnce) {
  EchoNode node;
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.Ask("", "up");
  ASSERT_EQ(lumo::SetDefaultByIndex(agent.Control(), 1)->Result, 1);
  const lumo::Message request = client.Send("", "again");
  const std::optional<lumo::Message> answer = client.Receive(kShortly * 10);
  ASSERT_TRUE(answer) << "the request waits on a link that is up";
  EXPECT_EQ(answer->Strings[0], "again");
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(DefaultName(agent), "A");
}

TEST(CircleTimer, AnyNodeOfTheCircleMayComeUpMeanwhile) {
  for (const bool first : {true, false}) {
    Node a(Node::Start::Bound), b(Node::Start::Bound);
    Agent agent;
    agent.Nodetab(a.Line("A") + b.Line("B"));
    agent.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"}).LogLevel("1");
    ASSERT_TRUE(agent.Start());
    Client client(agent);
    const lumo::Message request = client.Send();
    ASSERT_TRUE(agent.WaitForLog("Set link  A as default\n"));
    client.ExpectNothing();
    Node& node = first ? a : b;
    node.Listen();
    agent.Tick();
    ASSERT_TRUE(node.Accept());
    ExpectServedBy(node, first ? "A" : "B", client, request);
    EXPECT_EQ(DefaultName(agent), first ? "A" : "B");
  }
}

TEST(CircleTimer, ALocalNodeThatComesUpMeanwhileGetsTheRequestsAtOnce) {
  Agent agent;
  LateKernel kernel(agent);
  agent.Nodetab(kernel.Line("A") + "B REZ\n");
  agent.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message plain = client.Send(), named = client.Send("A");
  client.ExpectNothing();
  kernel.Listen();
  agent.Signal(SIGALRM);
  ASSERT_TRUE(kernel.Accept());
  ExpectServedBy(kernel, "A", client, plain);
  ExpectServedBy(kernel, "A", client, named);
}

TEST(CircleTimer, TheCountRunsOnWhenTheDefaultIsUpAndNothingMoreIsConnected) {
  Node node(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(node.Line("A") + "B REZ\n").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "8"});
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send();
  ASSERT_TRUE(agent.WaitForLog("Wait timer event\n"));
  node.Listen();
  agent.Tick();
  ASSERT_TRUE(node.Accept());
  ExpectServedBy(node, "A", client, request);
  const int connects = agent.CountLogged(15, "lumo_tcp", "'TcpConnectLink' Leave SUCCESS");
  agent.Ticks(5);
  EXPECT_EQ(CountsOf(agent), "3 2 1 0 ");
  EXPECT_EQ(agent.CountLogged(15, "lumo_tcp", "'TcpConnectLink' Leave SUCCESS"), connects);
}

TEST(ConnErrorMode, RequestsForALinkThatIsConnectingAreAnsweredAtOnce) {
  for (const bool err1001 : {false, true}) {
    Node slow(Node::Start::Bound);
    slow.Stall();
    Agent agent;
    agent.Nodetab(slow.Line("A")).Option("-CONNERROR");
    if (err1001) agent.Option("-ERR1001");
    ASSERT_TRUE(agent.Start());
    Client client(agent);
    const int code = err1001 ? 1001 : 4006;
    client.ExpectError(client.Send(), code, EINPROGRESS);
    client.ExpectError(client.Send("A"), code, EINPROGRESS);
    slow.Unstall();
    ASSERT_TRUE(slow.Accept());
    EXPECT_TRUE(slow.Silent()) << "nothing was kept for it";
    const lumo::Message request = client.Send();
    ExpectServedBy(slow, "A", client, request);
  }
}

TEST(ConnErrorMode, IsOffByDefaultAndTheRequestsAreKeptInTheirOrder) {
  Node slow(Node::Start::Bound);
  slow.Stall();
  Agent agent;
  agent.Nodetab(slow.Line("A"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send(), second = client.Send("A"), third = client.Send();
  client.ExpectNothing();
  slow.Unstall();
  ASSERT_TRUE(slow.Accept());
  ExpectServedBy(slow, "A", client, first);
  ExpectServedBy(slow, "A", client, second);
  ExpectServedBy(slow, "A", client, third);
}

TEST(ConnErrorMode, ARequestThatTheCircleMovesIsKeptAllTheSame) {
  Node slow(Node::Start::Bound);
  slow.Stall();
  Agent agent;
  agent.Nodetab("A REZ\n" + slow.Line("B")).Options({"-AUTOCONNECT", "-CONNERROR"});
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send();
  client.ExpectNothing();
  client.ExpectError(client.Send(), 4006, EINPROGRESS);
  slow.Unstall();
  ASSERT_TRUE(slow.Accept());
  ExpectServedBy(slow, "B", client, first);
}

TEST(ConnectingOnLoad, BeginsAtTheDefaultNode) {
  Agent agent;
  LocalKernel first(agent), second(agent);
  agent.Nodetab(first.Line("K") + second.Line("L") + "M REZ\n");
  agent.Options({"-NODAEMON", "-CONNECTONLOAD", "-DEFAULT", "L"}).Trace();
  agent.Spawn();
  ASSERT_TRUE(second.Accept());
  ASSERT_TRUE(first.Accept());
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(agent.CountLogged(1, "", "Link L connected"), 1);
  EXPECT_EQ(agent.CountLogged(1, "", "Link K connected"), 0);
  EXPECT_EQ(DefaultName(agent), "L");
  std::string order;
  for (const LogLine& line : agent.LogLines()) {
    if (line.Text.find("ConnectLink' Leave") != std::string::npos) order += line.Module + " ";
  }
  EXPECT_EQ(order, "lsock dummy lsock ");
}

TEST(ConnectingOnLoad, FailuresAreSilentAndAnotherNodeBecomesTheDefault) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab("A REZ\n" + kernel.Line("K")).Options({"-NODAEMON", "-CONNECTONLOAD"}).Trace();
  agent.Spawn();
  ASSERT_TRUE(kernel.Accept());
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(DefaultName(agent), "K");
  EXPECT_FALSE(agent.LogContains("'DisconnectLink' Call"));
  EXPECT_TRUE(agent.Logged(15, "dbc", "'UseTheLinkAsDefault' Leave SUCCESS"));
  Client client(agent);
  const lumo::Message request = client.Send();
  ExpectServedBy(kernel, "K", client, request);
}

TEST(ConnectingOnLoad, RequestsThatWaitForTheDefaultMoveToTheNodeThatConnectsFirst) {
  Node slow(Node::Start::Bound), quicker(Node::Start::Bound);
  slow.Stall();
  quicker.Stall();
  Agent agent;
  agent.Nodetab(slow.Line("A") + quicker.Line("B")).Option("-CONNECTONLOAD").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message plain = client.Send(), named = client.Send("A");
  client.ExpectNothing();
  quicker.Unstall();
  ASSERT_TRUE(quicker.Accept());
  ExpectServedBy(quicker, "B", client, plain);
  EXPECT_EQ(DefaultName(agent), "B");
  slow.Unstall();
  ASSERT_TRUE(slow.Accept());
  ExpectServedBy(slow, "A", client, named);
  EXPECT_EQ(DefaultName(agent), "B");
  EXPECT_EQ(LogOf(agent), "lumo_tcp:Link B connected\nlumo_tcp:Link A connected\n");
}

TEST(ConnectingOnLoad, TheChoiceStaysOpenUntilSomeNodeConnects) {
  Node refusing(Node::Start::Bound);
  EchoNode another;
  Agent agent;
  agent.Nodetab("A REZ\n" + refusing.Line("B")).Option("-CONNECTONLOAD").LogLevel("3");
  ASSERT_TRUE(agent.Start());
  ASSERT_TRUE(agent.WaitForLog("TCPIP.Asyncrounus connection failed."));
  EXPECT_EQ(DefaultName(agent), "A");
  ASSERT_EQ(lumo::AddNode(agent.Control(), another.Line("C"))->Result, 0);
  Client client(agent);
  refusing.Listen();
  const lumo::Message request = client.Send("B");
  ASSERT_TRUE(refusing.Accept());
  ExpectServedBy(refusing, "B", client, request);
  EXPECT_EQ(DefaultName(agent), "B");
  refusing.Close();
  ASSERT_TRUE(agent.WaitForLog("Disconnect link  B\n"));
  client.Ask("C", "later");
  EXPECT_EQ(DefaultName(agent), "B") << "the choice was made once";
}

TEST(ConnectingOnLoad, AFailingDefaultEntersTheCircle) {
  Node refusing(Node::Start::Bound), slow(Node::Start::Bound);
  slow.Stall();
  Agent agent;
  agent.Nodetab(refusing.Line("A") + slow.Line("B"));
  agent.Options({"-CONNECTONLOAD", "-AUTOCONNECT"}).LogLevel("1");
  ASSERT_TRUE(agent.Start());
  ASSERT_TRUE(agent.WaitForLog("Try connect link as default B\n"));
  slow.Unstall();
  ASSERT_TRUE(agent.WaitForLog("Link B connected\n"));
  EXPECT_EQ(LogOf(agent),
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Link B connected\n");
  EXPECT_EQ(DefaultName(agent), "B");
}

}  // namespace
}  // namespace test
