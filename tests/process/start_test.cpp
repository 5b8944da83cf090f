// Start-up, the order of service in the loop, and the shutdown, seen from outside.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace test {
namespace {

using Start = AgentTest;
using PidFile = AgentTest;
using PingRun = AgentTest;
using ConnectOnLoad = AgentTest;
using Loop = AgentTest;
using Stop = AgentTest;

// Each of these stands in the text, the first time behind the one before.
void ExpectInOrder(const std::string& text, const std::vector<std::string>& parts,
                   const Place& place = Place::Here()) {
  const testing::ScopedTrace trace(place.File, place.Line, text);
  std::size_t before = 0;
  for (const std::string& part : parts) {
    const std::size_t at = text.find(part);
    ASSERT_NE(at, std::string::npos) << part;
    EXPECT_LE(before, at) << part;
    before = at;
  }
}

std::string PidFileOf(const Agent& agent) { return agent.Folder() / "agent.pid"; }

TEST_F(Start, TheCommandReturnsWhenTheDaemonServes) {
  agent_.Spawn();
  ASSERT_EQ(agent_.Wait(), 0);
  const int connection = ConnectRaw(agent_.SocketPath());
  EXPECT_GE(connection, 0);
  EXPECT_NE(agent_.Stdout().find("Default server: NOWHERE\n"), std::string::npos);
  EXPECT_EQ(ReadRaw(connection, 60).size(), 60u);
  close(connection);
  ASSERT_TRUE(agent_.WaitUntilReady());
}

TEST_F(Start, TheCommandReturnsZeroWhenTheDaemonDies) {
  agent_.Nodetab("# no node\n");
  EXPECT_EQ(agent_.Run(), 0);
  EXPECT_TRUE(WaitFor([&] {
    return agent_.Results() ==
           "lumo_tcp:Supported protocols are not found in the nodetab file. Exit\n";
  })) << agent_.Log();
  EXPECT_LT(ConnectRaw(agent_.SocketPath()), 0);
}

TEST_F(Start, TheCommandReturnsOnlyAfterConnectOnLoad) {
  LocalKernel kernel(agent_);
  agent_.Nodetab(kernel.Line("K")).Option("-CONNECTONLOAD");
  agent_.Spawn();
  EXPECT_FALSE(agent_.Wait(kShortly)) << "the link cannot be connected before the kernel greets";
  ASSERT_TRUE(kernel.Accept());
  EXPECT_EQ(agent_.Wait(), 0);
  ASSERT_TRUE(agent_.WaitUntilReady());
}

TEST_F(Start, TheDaemonLeadsASessionOfItsOwn) {
  ASSERT_TRUE(agent_.StartDaemon());
  EXPECT_EQ(getsid(agent_.Pid()), agent_.Pid());
}

TEST_F(Start, WithNodaemonTheStartedProcessIsTheAgent) {
  agent_.Option("-NODAEMON");
  agent_.Spawn();
  const pid_t started = agent_.Pid();
  ASSERT_TRUE(agent_.WaitUntilReady());
  EXPECT_EQ(agent_.Pid(), started);
  EXPECT_EQ(getsid(agent_.Pid()), getsid(0));
}

TEST_F(Start, TheDaemonKeepsStandardError) {
  agent_.LogLevel("2");
  ASSERT_TRUE(agent_.StartDaemon());
  const std::size_t before = Count(agent_.Log(), "|Client message reading failed");
  Client(agent_).Close();
  EXPECT_TRUE(
      WaitFor([&] { return Count(agent_.Log(), "|Client message reading failed") == before + 1; }));
}

TEST_F(Start, InheritedDescriptorsAreClosed) {
  int pipes[2];
  ASSERT_EQ(pipe(pipes), 0);
  constexpr int kLast = 255;
  ASSERT_EQ(dup2(pipes[1], kLast), kLast);
  StartAgent();
  close(kLast);
  close(pipes[1]);
  pollfd end{pipes[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, static_cast<int>(kPatience.count())), 1)
      << "the agent still holds the write end";
  EXPECT_TRUE(end.revents & POLLHUP);
  close(pipes[0]);
}

TEST_F(Start, ClosedStandardStreamsAreOpenedOnTheNullDevice) {
  agent_.ClosedDescriptor(0).ClosedDescriptor(1).ClosedDescriptor(2);
  StartAgent();
  for (int descriptor = 0; descriptor <= 2; ++descriptor)
    EXPECT_EQ(DescriptorTarget(agent_.Pid(), descriptor), "/dev/null") << descriptor;
  Client client(agent_);
  client.ExpectNothing();
}

TEST_F(Start, TheTextsComeInTheOrderOfTheStart) {
  StartAgent();
  ExpectInOrder(agent_.Stdout(), {"The agent has used communication identifier",
                                  "Nodetab found: \"" + agent_.NodetabPath().string() + "\"\n",
                                  "Default server: NOWHERE\n"});
}

TEST_F(Start, AnUnusableNodeTableEndsWith254) {
  agent_.Nodetab("").Option("-NODAEMON");
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0) << "the socket file is left";
}

TEST_F(Start, AMissingNodeTableEndsWith254) {
  agent_.WithoutNodetab().Options({"-NODETAB", agent_.NodetabPath(), "-NODAEMON"});
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_EQ(agent_.Results(), "lumo_tcp:File nodetab is not found. Exit.\n");
}

TEST_F(Start, AFailedNodeTableUninitialisesNoLinkButStopsInOrder) {
  agent_.Nodetab("A NOSUCH\n").Option("-NODAEMON").Trace();
  EXPECT_EQ(agent_.Run(), 254);
  ExpectInOrder(
      agent_.Log(),
      {"'UninitTimer' Call from dbc:", "'UninitClientQueue' Call from dbc:", "|Exit SUCCESS\n"});
}

TEST_F(PidFile, HoldsTheNumberOfTheForegroundAgent) {
  agent_.Options({"-PIDFILE", PidFileOf(agent_)});
  StartAgent();
  EXPECT_EQ(ReadFile(PidFileOf(agent_)), std::to_string(agent_.Pid()) + "\n");
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_NE(access(PidFileOf(agent_).c_str(), F_OK), 0) << "not removed by a normal stop";
}

TEST_F(PidFile, HoldsTheNumberOfTheDaemonNotOfItsStarter) {
  WriteFile(PidFileOf(agent_), "a longer text that was here before\n");
  agent_.Options({"-PIDFILE", PidFileOf(agent_)});
  ASSERT_TRUE(agent_.StartDaemon());
  EXPECT_EQ(ReadFile(PidFileOf(agent_)), std::to_string(agent_.Pid()) + "\n");
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_NE(access(PidFileOf(agent_).c_str(), F_OK), 0);
}

TEST_F(PidFile, OneThatCannotBeWrittenIsReportedAndTheStartGoesOn) {
  const std::string path = agent_.Folder() / "nowhere" / "agent.pid";
  agent_.Options({"-PIDFILE", path});
  StartAgent();
  EXPECT_EQ(agent_.Results(),
            "lumo_tcp:File open failed: " + path + ". Status: " + std::to_string(ENOENT) + ".\n");
}

TEST_F(PidFile, IsRemovedAfterAFailedNodeTable) {
  agent_.Nodetab("").Options({"-NODAEMON", "-PIDFILE", PidFileOf(agent_)});
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_NE(access(PidFileOf(agent_).c_str(), F_OK), 0);
}

TEST_F(PidFile, IsLeftWhenTheClientSocketFails) {
  Agent first, second;
  ASSERT_TRUE(first.Start());
  second.ExchangeId(first.ExchangeId()).Environment("TAVRIN_TMP", first.SocketFolder());
  second.Options({"-NODAEMON", "-PIDFILE", PidFileOf(second)});
  EXPECT_EQ(second.Run(), 255);
  EXPECT_EQ(access(PidFileOf(second).c_str(), F_OK), 0);
  EXPECT_EQ(first.Stop(), 0);
}

TEST_F(PidFile, IsLeftWhenThePingSetUpFails) {
  agent_.Nodetab("").Options({"-PING", "-PIDFILE", PidFileOf(agent_)});
  EXPECT_EQ(agent_.Run(), 0);
  EXPECT_EQ(agent_.Results(), "lumo_tcp:Node(s) is not found\n");
  EXPECT_EQ(access(PidFileOf(agent_).c_str(), F_OK), 0);
}

TEST_F(PingRun, StaysInTheForegroundWithoutAClientSocketAndEndsWithTheVerdict) {
  Node node;
  const AwaitedSignal signal(SIGUSR1);
  agent_.Nodetab(node.Line("SRV")).Options({"-PING", "-PKILL", std::to_string(SIGUSR1)});
  agent_.Spawn();
  ASSERT_TRUE(node.Accept());
  EXPECT_TRUE(agent_.Running());
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0) << "a client socket was opened";
  node.Answer(node.ExpectRequest());
  EXPECT_EQ(agent_.Wait(), 0);
  EXPECT_EQ(agent_.Results(), "lumo_tcp:Node \"SRV\" is alive\n");
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGUSR1));
}

TEST_F(PingRun, EndsWithTheNumberOfTheFailure) {
  Node node(Node::Start::Bound);
  agent_.Nodetab(node.Line("SRV")).Option("-PING");
  EXPECT_EQ(agent_.Run(), 6);
  EXPECT_EQ(agent_.Results(), "lumo_tcp:Node \"SRV\" is not alive\nlumo_tcp:Connection refused\n");
}

TEST_F(ConnectOnLoad, AsksEveryLinkOnceAndTheFirstToConnectAtOnceIsTheDefault) {
  Node node(Node::Start::Bound);
  LocalKernel first(agent_), second(agent_);
  agent_.Nodetab(node.Line("A") + first.Line("K") + second.Line("L"))
      .Options({"-NODAEMON", "-CONNECTONLOAD"})
      .Trace();
  agent_.Spawn();
  ASSERT_TRUE(first.Accept());
  ASSERT_TRUE(second.Accept());
  ASSERT_TRUE(agent_.WaitUntilReady());
  EXPECT_TRUE(agent_.Logged(15, "dbc", "Try connect all links after initialisation"));
  EXPECT_EQ(agent_.CountLogged(1, "", "Link K connected"), 1);
  EXPECT_EQ(agent_.CountLogged(1, "", "Link L connected"), 0);
  EXPECT_EQ(Count(agent_.Log(), "'TcpConnectLink' Call from"), 1u);
  EXPECT_EQ(Count(agent_.Log(), "'LSockConnectLink' Call from"), 2u);
  Client client(agent_);
  client.Send("", "to the default");
  EXPECT_EQ(first.ExpectRequest().Strings[0], "to the default");
}

TEST_F(ConnectOnLoad, AConnectionThatCompletesLaterChoosesTheDefault) {
  Node refusing(Node::Start::Bound), node;
  agent_.Option("-CONNECTONLOAD").LogLevel("1");
  StartAgent(refusing.Line("A") + node.Line("B"));
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(agent_.WaitForLog("lumo_tcp:Link B connected\n"));
  Client client(agent_);
  ExpectExchange(client, client.Send("", "to the default"), node, "from B");
  EXPECT_EQ(agent_.CountLogged(1, "", "Link B connected"), 1);
}

TEST_F(ConnectOnLoad, OnlyTheFirstConnectionChoosesTheDefault) {
  Node slow(Node::Start::Stalled), fast;
  agent_.Option("-CONNECTONLOAD").LogLevel("1");
  StartAgent(slow.Line("A") + fast.Line("B"));
  ASSERT_TRUE(agent_.WaitForLog("lumo_tcp:Link B connected\n"));
  ASSERT_TRUE(fast.Accept());
  slow.Unstall();
  ASSERT_TRUE(slow.Accept());
  ASSERT_TRUE(agent_.WaitForLog("lumo_tcp:Link A connected\n"));
  Client client(agent_);
  client.Send("", "to the default");
  EXPECT_EQ(fast.ExpectRequest().Strings[0], "to the default");
}

TEST_F(ConnectOnLoad, WithoutTheOptionNothingIsConnected) {
  Node node;
  StartAgent(node.Line("A"));
  agent_.Tick();
  EXPECT_FALSE(node.Connecting(Milliseconds(0)));
}

TEST_F(Loop, ALinkThatDeliversIsDrainedBeforeClientsAreServed) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("A"));
  ExpectFirstExchange(client, client.Send("A", "1"), node);
  const lumo::Message second = client.Send("A", "2"), third = client.Send("A", "3");
  ASSERT_TRUE(node.ReadRequest());
  ASSERT_TRUE(node.ReadRequest());

  Freeze(agent_.Pid());
  node.Answer(second);
  node.Answer(third);
  client.Send("A", "4");
  Thaw(agent_.Pid());
  EXPECT_EQ(node.ExpectRequest().Strings[0], "4");
  const std::string log = agent_.Log();
  const std::size_t received = log.rfind(" Receive message from client");
  ASSERT_NE(received, std::string::npos);
  EXPECT_EQ(Count(log.substr(0, received), " Need put the message to client"), 3u);
}

// The packets are of the kind that is only counted, so that nothing else happens meanwhile.
TEST_F(Loop, ALinkThatNeverStopsDeliveringIsLeftAfter256Packets) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("A"));
  ExpectFirstExchange(client, client.Send("A"), node);

  const std::size_t before = agent_.Log().size();
  Freeze(agent_.Pid());
  for (int i = 0; i < 600; ++i) node.SendControl({1, 0});
  client.Send("A");
  Thaw(agent_.Pid());
  ASSERT_TRUE(node.ReadRequest());
  const std::string log = agent_.Log().substr(before);
  const std::size_t served =
      Count(log.substr(0, log.find(" Receive message from client")), "'TcpReadyForRead' Call from");
  EXPECT_GE(served, 256u);
  EXPECT_LE(served, 258u);
}

TEST_F(Loop, TheClientServedLastIsServedFirst) {
  Node node;
  StartAgent(node.Line("A"));
  Client earlier(agent_), later(agent_);
  ExpectFirstExchange(later, later.Send("A", "from the later one"), node);

  Freeze(agent_.Pid());
  earlier.Send("A", "earlier");
  later.Send("A", "later");
  Thaw(agent_.Pid());
  EXPECT_EQ(node.ReadRequest()->Strings[0], "later");
  EXPECT_EQ(node.ReadRequest()->Strings[0], "earlier");
}

TEST_F(Loop, LinksAreServedBeforeClientsAndNewConnectionsLast) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("A"));
  const lumo::Message request = client.Send("A");
  node.ExpectFirstRequest();

  agent_.Barrier();  // so that another client than this one was served last
  const std::size_t before = agent_.Log().size();
  Freeze(agent_.Pid());
  const int connection = ConnectRaw(agent_.SocketPath());
  client.Send("A");
  node.Answer(request);
  Thaw(agent_.Pid());
  ASSERT_EQ(ReadRaw(connection, 60).size(), 60u);
  ExpectInOrder(agent_.Log().substr(before), {"'TcpReadyForRead' Call from dbc:",
                                              "'HandleMessageFromClientQueue' Call from dbc:",
                                              "'AcceptNewClientConnection' Call from dbc:"});
  close(connection);
}

TEST_F(Loop, EachReadyDescriptorOfALinkIsTraced) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("A"));
  ExpectFirstExchange(client, client.Send("A"), node);
  const std::string log = agent_.Log();
  EXPECT_NE(log.find("|select return 1\n"), std::string::npos);
  EXPECT_NE(log.find(" ready for write\n"), std::string::npos);
  EXPECT_NE(log.find(" ready for read\n"), std::string::npos);
  EXPECT_EQ(agent_.CountLogged(1, "", "Link A connected"), 1);
}

TEST_F(Loop, EveryRegistrationIsTracedWithItsDescriptor) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("A"));
  const lumo::Message request = client.Send("A");
  node.ExpectFirstRequest();
  node.Close();
  client.ExpectError(request, 4009, 0);
  int descriptor = -1;
  for (const LogLine& line : agent_.LogLines())
    std::sscanf(line.Text.c_str(), "REGISTER_SOCKET_FOR_THE_LINK %d, A", &descriptor);
  ASSERT_GT(descriptor, 2);
  const std::string number = std::to_string(descriptor);
  for (const std::string& line :
       {"REGISTER_SOCKET_FOR_THE_LINK " + number + ", A",
        "REGISTER_SOCKET_FOR_WRITE_EVENT " + number, "UNREGISTER_SOCKET_FOR_WRITE_EVENT " + number,
        "REGISTER_SOCKET_FOR_READ_EVENT " + number, "UNREGISTER_SOCKET_FOR_THE_LINK " + number,
        "UNREGISTER_SOCKET_FOR_READ_EVENT " + number})
    EXPECT_TRUE(agent_.Logged(15, "", line)) << line;
}

TEST_F(Stop, TakesEveryLinkDownAndAnswersWhatWaits) {
  Node node;
  Client client = StartWithClient(node.Line("A"));
  const lumo::Message request = client.Send("A");
  node.ExpectFirstRequest();
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_TRUE(node.ReadEnd());
  client.ExpectError(request, 0, 0);
  client.ExpectClosed();
}

TEST_F(Stop, RemovesTheSocketFileAndTracesTheEnd) {
  Node node, other;
  agent_.Trace();
  StartAgent(node.Line("A") + other.Line("B"));
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0);
  const std::string log = agent_.Log();
  EXPECT_EQ(Count(log, "'TcpUninitLink' Call from dbc:"), 2u);
  const std::size_t lastLink = log.rfind("'TcpUninitLink' Leave SUCCESS\n");
  ASSERT_NE(lastLink, std::string::npos);
  ExpectInOrder(
      log.substr(lastLink),
      {"'UninitTimer' Call from dbc:", "'UninitClientQueue' Call from dbc:", "|Exit SUCCESS\n"});
}

TEST_F(Stop, OfADaemonIsOrderlyToo) {
  ASSERT_TRUE(agent_.StartDaemon());
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0);
  EXPECT_EQ(agent_.Results(), "");
}

}  // namespace
}  // namespace test
