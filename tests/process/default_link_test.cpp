// The default link while nodes come up late: the timer of the circle, answers while a link is
// connecting, and nodes that are connected from the start.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <string>

#include "tests/process/manager.h"
#include "tests/process/reconnection.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"

namespace test {
namespace {

using CircleTimer = AgentTest;
using ConnErrorMode = AgentTest;
using ConnectingOnLoad = AgentTest;

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

TEST_F(CircleTimer, RequestsWaitUntilTheCountRunsOut) {
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "21"}).Trace();
  Client client = StartWithClient("A REZ\nB REZ\n");
  const lumo::Message request = client.Send();
  client.ExpectNothing();
  agent_.Tick();
  client.ExpectNothing();
  agent_.Ticks(9);
  client.ExpectError(request, 4006, 0);
  EXPECT_EQ(CountsOf(agent_), "9 8 7 6 5 4 3 2 1 0 ");
  EXPECT_EQ(agent_.CountLogged(15, "link", "Full connect cicle failed. Wait timer event"), 10);
  EXPECT_EQ(agent_.CountLogged(1, "", "Full connect circle failed or timeout expired"), 1);
  EXPECT_EQ(agent_.CountLogged(1, "", "Try connect link as default B"), 11)
      << "each tick tries the whole circle";
}

TEST_F(CircleTimer, TheLateFailureMayBeReportedAs1001) {
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT=4", "-ERR1001"});
  Client client = StartWithClient("A REZ\nB REZ\n");
  const lumo::Message request = client.Send();
  agent_.Barrier();
  agent_.Ticks(2);
  client.ExpectError(request, 1001, 0);
}

TEST_F(CircleTimer, LaterRequestsWaitWithTheFirstAndDoNotStartTheCountAnew) {
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "20"}).Trace();
  Client client = StartWithClient("A REZ\nB REZ\n");
  const lumo::Message first = client.Send();
  agent_.Barrier();
  agent_.Tick();
  const lumo::Message second = client.Send("A"), other = client.Send("B");
  client.ExpectError(other, 4066, 0);
  agent_.Ticks(9);
  client.ExpectError(first, 4006, 0);
  client.ExpectError(second, 4006, 0);
  EXPECT_EQ(CountsOf(agent_), "9 8 7 6 5 4 3 2 1 0 ");
  const lumo::Message third = client.Send();
  agent_.Barrier();
  agent_.Tick();
  client.ExpectNothing();
  EXPECT_TRUE(CountsOf(agent_).starts_with("9 8 7 6 5 4 3 2 1 0 9 "));
  agent_.Ticks(9);
  client.ExpectError(third, 4006, 0);
}

TEST_F(CircleTimer, ATimeOutBelowTwoSecondsIsNone) {
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "1"});
  Client client = StartWithClient("A REZ\nB REZ\n");
  client.ExpectError(client.Send(), 4006, 0);
}

TEST_F(CircleTimer, ANodeThatComesUpMeanwhileGetsTheRequestsOnATick) {
  Node node(Node::Start::Bound);
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  agent_.LogLevel("1");
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  const lumo::Message request = client.Send();
  ASSERT_TRUE(agent_.WaitForLog("Set link  A as default\n"));
  client.ExpectNothing();
  node.Listen();
  agent_.Tick();
  ExpectFirstServedBy(node, "A", client, request);
  EXPECT_TRUE(
      LogOf(agent_).ends_with("lumo_tcp:Set link  A as default\nlumo_tcp:Link A connected\n"))
      << agent_.Log();
}

TEST_F(CircleTimer, RequestsThatComeBackToAStartThatIsUpAreSentAtOnce) {
  EchoNode node;
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  client.Ask("", "up");
  ASSERT_EQ(Manager(agent_).Result(106, 1), 1);
  const lumo::Message request = client.Send("", "again");
  const std::optional<lumo::Message> answer = client.Receive(kShortly * 10);
  ASSERT_TRUE(answer) << "the request waits on a link that is up";
  EXPECT_EQ(answer->Strings[0], "again");
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(DefaultName(agent_), "A");
}

TEST_F(CircleTimer, AnyNodeOfTheCircleMayComeUpMeanwhile) {
  for (const bool first : {true, false}) {
    Node a(Node::Start::Bound), b(Node::Start::Bound);
    Agent agent;
    agent.Nodetab(a.Line("A") + b.Line("B"));
    agent.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"}).LogLevel("1");
    Client client = StartWithClient(agent);
    const lumo::Message request = client.Send();
    ASSERT_TRUE(agent.WaitForLog("Set link  A as default\n"));
    client.ExpectNothing();
    Node& node = first ? a : b;
    node.Listen();
    agent.Tick();
    ExpectFirstServedBy(node, first ? "A" : "B", client, request);
    EXPECT_EQ(DefaultName(agent), first ? "A" : "B");
  }
}

TEST_F(CircleTimer, ALocalNodeThatComesUpMeanwhileGetsTheRequestsAtOnce) {
  LateKernel kernel(agent_);
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"});
  Client client = StartWithClient(kernel.Line("A") + "B REZ\n");
  const lumo::Message plain = client.Send(), named = client.Send("A");
  client.ExpectNothing();
  kernel.Listen();
  agent_.Signal(SIGALRM);
  ExpectFirstServedBy(kernel, "A", client, plain);
  ExpectServedBy(kernel, "A", client, named);
}

TEST_F(CircleTimer, TheCountRunsOnWhenTheDefaultIsUpAndNothingMoreIsConnected) {
  Node node(Node::Start::Bound);
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "8"});
  agent_.Trace();
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  const lumo::Message request = client.Send();
  ASSERT_TRUE(agent_.WaitForLog("Wait timer event\n"));
  node.Listen();
  agent_.Tick();
  ExpectFirstServedBy(node, "A", client, request);
  const int connects = agent_.CountLogged(15, "lumo_tcp", "'TcpConnectLink' Leave SUCCESS");
  agent_.Ticks(5);
  EXPECT_EQ(CountsOf(agent_), "3 2 1 0 ");
  EXPECT_EQ(agent_.CountLogged(15, "lumo_tcp", "'TcpConnectLink' Leave SUCCESS"), connects);
}

TEST_F(ConnErrorMode, RequestsForALinkThatIsConnectingAreAnsweredAtOnce) {
  for (const bool err1001 : {false, true}) {
    Node slow(Node::Start::Stalled);
    Agent agent;
    agent.Nodetab(slow.Line("A")).Option("-CONNERROR");
    if (err1001) agent.Option("-ERR1001");
    Client client = StartWithClient(agent);
    const int code = err1001 ? 1001 : 4006;
    client.ExpectError(client.Send(), code, EINPROGRESS);
    client.ExpectError(client.Send("A"), code, EINPROGRESS);
    slow.Unstall();
    ASSERT_TRUE(slow.Accept());
    EXPECT_TRUE(slow.Silent()) << "nothing was kept for it";
    ExpectServedBy(slow, "A", client, client.Send());
  }
}

TEST_F(ConnErrorMode, IsOffByDefaultAndTheRequestsAreKeptInTheirOrder) {
  Node slow(Node::Start::Stalled);
  Client client = StartWithClient(slow.Line("A"));
  const lumo::Message first = client.Send(), second = client.Send("A"), third = client.Send();
  client.ExpectNothing();
  slow.Unstall();
  ExpectFirstServedBy(slow, "A", client, first);
  ExpectServedBy(slow, "A", client, second);
  ExpectServedBy(slow, "A", client, third);
}

TEST_F(ConnErrorMode, ARequestThatTheCircleMovesIsKeptAllTheSame) {
  Node slow(Node::Start::Stalled);
  agent_.Options({"-AUTOCONNECT", "-CONNERROR"});
  Client client = StartWithClient("A REZ\n" + slow.Line("B"));
  const lumo::Message first = client.Send();
  client.ExpectNothing();
  client.ExpectError(client.Send(), 4006, EINPROGRESS);
  slow.Unstall();
  ExpectFirstServedBy(slow, "B", client, first);
}

TEST_F(ConnectingOnLoad, BeginsAtTheDefaultNode) {
  LocalKernel first(agent_), second(agent_);
  agent_.Nodetab(first.Line("K") + second.Line("L") + "M REZ\n");
  agent_.Options({"-NODAEMON", "-CONNECTONLOAD", "-DEFAULT", "L"}).Trace();
  agent_.Spawn();
  ASSERT_TRUE(second.Accept());
  ASSERT_TRUE(first.Accept());
  ASSERT_TRUE(agent_.WaitUntilReady());
  EXPECT_EQ(agent_.CountLogged(1, "", "Link L connected"), 1);
  EXPECT_EQ(agent_.CountLogged(1, "", "Link K connected"), 0);
  EXPECT_EQ(DefaultName(agent_), "L");
  std::string order;
  for (const LogLine& line : agent_.LogLines()) {
    if (line.Text.find("ConnectLink' Leave") != std::string::npos) order += line.Module + " ";
  }
  EXPECT_EQ(order, "lsock dummy lsock ");
}

TEST_F(ConnectingOnLoad, FailuresAreSilentAndAnotherNodeBecomesTheDefault) {
  LocalKernel kernel(agent_);
  agent_.Nodetab("A REZ\n" + kernel.Line("K")).Options({"-NODAEMON", "-CONNECTONLOAD"}).Trace();
  agent_.Spawn();
  ASSERT_TRUE(kernel.Accept());
  ASSERT_TRUE(agent_.WaitUntilReady());
  EXPECT_EQ(DefaultName(agent_), "K");
  EXPECT_FALSE(agent_.LogContains("'DisconnectLink' Call"));
  EXPECT_TRUE(agent_.Logged(15, "dbc", "'UseTheLinkAsDefault' Leave SUCCESS"));
  Client client(agent_);
  ExpectServedBy(kernel, "K", client, client.Send());
}

TEST_F(ConnectingOnLoad, RequestsThatWaitForTheDefaultMoveToTheNodeThatConnectsFirst) {
  Node slow(Node::Start::Stalled), quicker(Node::Start::Stalled);
  agent_.Option("-CONNECTONLOAD").LogLevel("1");
  Client client = StartWithClient(slow.Line("A") + quicker.Line("B"));
  const lumo::Message plain = client.Send(), named = client.Send("A");
  client.ExpectNothing();
  quicker.Unstall();
  ExpectFirstServedBy(quicker, "B", client, plain);
  EXPECT_EQ(DefaultName(agent_), "B");
  slow.Unstall();
  ExpectFirstServedBy(slow, "A", client, named);
  EXPECT_EQ(DefaultName(agent_), "B");
  EXPECT_EQ(LogOf(agent_), "lumo_tcp:Link B connected\nlumo_tcp:Link A connected\n");
}

TEST_F(ConnectingOnLoad, TheChoiceStaysOpenUntilSomeNodeConnects) {
  Node refusing(Node::Start::Bound);
  EchoNode another;
  agent_.Option("-CONNECTONLOAD").LogLevel("3");
  StartAgent("A REZ\n" + refusing.Line("B"));
  ASSERT_TRUE(agent_.WaitForLog("TCPIP.Asyncrounus connection failed."));
  EXPECT_EQ(DefaultName(agent_), "A");
  ASSERT_EQ(Manager(agent_).AddNode(another.Line("C")), 0);
  Client client(agent_);
  refusing.Listen();
  ExpectFirstServedBy(refusing, "B", client, client.Send("B"));
  EXPECT_EQ(DefaultName(agent_), "B");
  refusing.Close();
  ASSERT_TRUE(agent_.WaitForLog("Disconnect link  B\n"));
  client.Ask("C", "later");
  EXPECT_EQ(DefaultName(agent_), "B") << "the choice was made once";
}

TEST_F(ConnectingOnLoad, AFailingDefaultEntersTheCircle) {
  Node refusing(Node::Start::Bound), slow(Node::Start::Stalled);
  agent_.Options({"-CONNECTONLOAD", "-AUTOCONNECT"}).LogLevel("1");
  StartAgent(refusing.Line("A") + slow.Line("B"));
  ASSERT_TRUE(agent_.WaitForLog("Try connect link as default B\n"));
  slow.Unstall();
  ASSERT_TRUE(agent_.WaitForLog("Link B connected\n"));
  EXPECT_EQ(LogOf(agent_), TriedAsDefault({"B"}) + "lumo_tcp:Link B connected\n");
  EXPECT_EQ(DefaultName(agent_), "B");
}

}  // namespace
}  // namespace test
