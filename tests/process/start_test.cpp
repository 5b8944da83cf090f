// Start-up, the order of service in the loop, and the shutdown, seen from outside.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace test {
namespace {

std::string PidFileOf(const Agent& agent) { return agent.Folder() / "agent.pid"; }

TEST(Start, TheCommandReturnsWhenTheDaemonServes) {
  Agent agent;
  agent.Spawn();
  ASSERT_EQ(agent.Wait(), 0);
  const int connection = ConnectRaw(agent.SocketPath());
  EXPECT_GE(connection, 0);
  EXPECT_NE(agent.Stdout().find("Default server: NOWHERE\n"), std::string::npos);
  EXPECT_EQ(ReadRaw(connection, 60).size(), 60u);
  close(connection);
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Start, TheCommandReturnsZeroWhenTheDaemonDies) {
  Agent agent;
  agent.Nodetab("# no node\n");
  EXPECT_EQ(agent.Run(), 0);
  EXPECT_TRUE(WaitFor([&] {
    return agent.Results() ==
           "lumo_tcp:Supported protocols are not found in the nodetab file. Exit\n";
  })) << agent.Log();
  EXPECT_LT(ConnectRaw(agent.SocketPath()), 0);
}

TEST(Start, TheCommandReturnsOnlyAfterConnectOnLoad) {
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab(kernel.Line("K")).Option("-CONNECTONLOAD");
  agent.Spawn();
  EXPECT_FALSE(agent.Wait(kShortly)) << "the link cannot be connected before the kernel greets";
  ASSERT_TRUE(kernel.Accept());
  EXPECT_EQ(agent.Wait(), 0);
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Start, TheDaemonLeadsASessionOfItsOwn) {
  Agent agent;
  ASSERT_TRUE(agent.StartDaemon());
  EXPECT_EQ(getsid(agent.Pid()), agent.Pid());
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Start, WithNodaemonTheStartedProcessIsTheAgent) {
  Agent agent;
  agent.Option("-NODAEMON");
  agent.Spawn();
  const pid_t started = agent.Pid();
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(agent.Pid(), started);
  EXPECT_EQ(getsid(agent.Pid()), getsid(0));
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Start, TheDaemonKeepsStandardError) {
  Agent agent;
  agent.LogLevel("2");
  ASSERT_TRUE(agent.StartDaemon());
  const std::size_t before = Count(agent.Log(), "|Client message reading failed");
  Client(agent).Close();
  EXPECT_TRUE(
      WaitFor([&] { return Count(agent.Log(), "|Client message reading failed") == before + 1; }));
}

TEST(Start, InheritedDescriptorsAreClosed) {
  int pipes[2];
  ASSERT_EQ(pipe(pipes), 0);
  constexpr int kLast = 255;
  ASSERT_EQ(dup2(pipes[1], kLast), kLast);
  Agent agent;
  ASSERT_TRUE(agent.Start());
  close(kLast);
  close(pipes[1]);
  pollfd end{pipes[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, static_cast<int>(kPatience.count())), 1)
      << "the agent still holds the write end";
  EXPECT_TRUE(end.revents & POLLHUP);
  close(pipes[0]);
}

TEST(Start, ClosedStandardStreamsAreOpenedOnTheNullDevice) {
  Agent agent;
  agent.ClosedDescriptor(0).ClosedDescriptor(1).ClosedDescriptor(2);
  ASSERT_TRUE(agent.Start());
  for (int descriptor = 0; descriptor <= 2; ++descriptor)
    EXPECT_EQ(DescriptorTarget(agent.Pid(), descriptor), "/dev/null") << descriptor;
  Client client(agent);
  client.ExpectNothing();
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Start, TheTextsComeInTheOrderOfTheStart) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  const std::string text = agent.Stdout();
  const std::size_t socket = text.find("The agent has used communication identifier");
  const std::size_t found = text.find("Nodetab found: \"" + agent.NodetabPath().string() + "\"\n");
  const std::size_t server = text.find("Default server: NOWHERE\n");
  ASSERT_NE(server, std::string::npos) << text;
  EXPECT_LT(socket, found);
  EXPECT_LT(found, server);
}

TEST(Start, AnUnusableNodeTableEndsWith254) {
  Agent agent;
  agent.Nodetab("").Option("-NODAEMON");
  EXPECT_EQ(agent.Run(), 254);
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0) << "the socket file is left";
}

TEST(Start, AMissingNodeTableEndsWith254) {
  Agent agent;
  agent.WithoutNodetab().Options({"-NODETAB", agent.NodetabPath(), "-NODAEMON"});
  EXPECT_EQ(agent.Run(), 254);
  EXPECT_EQ(agent.Results(), "lumo_tcp:File nodetab is not found. Exit.\n");
}

TEST(Start, AFailedNodeTableUninitialisesNoLinkButStopsInOrder) {
  Agent agent;
  agent.Nodetab("A NOSUCH\n").Option("-NODAEMON").Trace();
  EXPECT_EQ(agent.Run(), 254);
  const std::string log = agent.Log();
  const std::size_t timer = log.find("'UninitTimer' Call from dbc:");
  const std::size_t queue = log.find("'UninitClientQueue' Call from dbc:");
  const std::size_t exit = log.find("|Exit SUCCESS\n");
  ASSERT_NE(exit, std::string::npos) << log;
  EXPECT_LT(timer, queue);
  EXPECT_LT(queue, exit);
}

TEST(PidFile, HoldsTheNumberOfTheForegroundAgent) {
  Agent agent;
  agent.Options({"-PIDFILE", PidFileOf(agent)});
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(ReadFile(PidFileOf(agent)), std::to_string(agent.Pid()) + "\n");
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_NE(access(PidFileOf(agent).c_str(), F_OK), 0) << "not removed by a normal stop";
}

TEST(PidFile, HoldsTheNumberOfTheDaemonNotOfItsStarter) {
  Agent agent;
  WriteFile(PidFileOf(agent), "a longer text that was here before\n");
  agent.Options({"-PIDFILE", PidFileOf(agent)});
  ASSERT_TRUE(agent.StartDaemon());
  EXPECT_EQ(ReadFile(PidFileOf(agent)), std::to_string(agent.Pid()) + "\n");
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_NE(access(PidFileOf(agent).c_str(), F_OK), 0);
}

TEST(PidFile, OneThatCannotBeWrittenIsReportedAndTheStartGoesOn) {
  Agent agent;
  const std::string path = agent.Folder() / "nowhere" / "agent.pid";
  agent.Options({"-PIDFILE", path});
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Results(),
            "lumo_tcp:File open failed: " + path + ". Status: " + std::to_string(ENOENT) + ".\n");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(PidFile, IsRemovedAfterAFailedNodeTable) {
  Agent agent;
  agent.Nodetab("").Options({"-NODAEMON", "-PIDFILE", PidFileOf(agent)});
  EXPECT_EQ(agent.Run(), 254);
  EXPECT_NE(access(PidFileOf(agent).c_str(), F_OK), 0);
}

TEST(PidFile, IsLeftWhenTheClientSocketFails) {
  Agent first, second;
  ASSERT_TRUE(first.Start());
  second.ExchangeId(first.ExchangeId()).Environment("TAVRIN_TMP", first.SocketFolder());
  second.Options({"-NODAEMON", "-PIDFILE", PidFileOf(second)});
  EXPECT_EQ(second.Run(), 255);
  EXPECT_EQ(access(PidFileOf(second).c_str(), F_OK), 0);
  EXPECT_EQ(first.Stop(), 0);
}

TEST(PidFile, IsLeftWhenThePingSetUpFails) {
  Agent agent;
  agent.Nodetab("").Options({"-PING", "-PIDFILE", PidFileOf(agent)});
  EXPECT_EQ(agent.Run(), 0);
  EXPECT_EQ(agent.Results(), "lumo_tcp:Node(s) is not found\n");
  EXPECT_EQ(access(PidFileOf(agent).c_str(), F_OK), 0);
}

TEST(PingRun, StaysInTheForegroundWithoutAClientSocketAndEndsWithTheVerdict) {
  Node node;
  Agent agent;
  const AwaitedSignal signal(SIGUSR1);
  agent.Nodetab(node.Line("SRV")).Options({"-PING", "-PKILL", std::to_string(SIGUSR1)});
  agent.Spawn();
  ASSERT_TRUE(node.Accept());
  EXPECT_TRUE(agent.Running());
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0) << "a client socket was opened";
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  node.Answer(*request);
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_EQ(agent.Results(), "lumo_tcp:Node \"SRV\" is alive\n");
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGUSR1));
}

TEST(PingRun, EndsWithTheNumberOfTheFailure) {
  Node node(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(node.Line("SRV")).Option("-PING");
  EXPECT_EQ(agent.Run(), 6);
  EXPECT_EQ(agent.Results(), "lumo_tcp:Node \"SRV\" is not alive\nlumo_tcp:Connection refused\n");
}

TEST(ConnectOnLoad, AsksEveryLinkOnceAndTheFirstToConnectAtOnceIsTheDefault) {
  Node node(Node::Start::Bound);
  Agent agent;
  LocalKernel first(agent), second(agent);
  agent.Nodetab(node.Line("A") + first.Line("K") + second.Line("L"))
      .Options({"-NODAEMON", "-CONNECTONLOAD"})
      .Trace();
  agent.Spawn();
  ASSERT_TRUE(first.Accept());
  ASSERT_TRUE(second.Accept());
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_TRUE(agent.Logged(15, "dbc", "Try connect all links after initialisation"));
  EXPECT_EQ(agent.CountLogged(1, "", "Link K connected"), 1);
  EXPECT_EQ(agent.CountLogged(1, "", "Link L connected"), 0);
  EXPECT_EQ(Count(agent.Log(), "'TcpConnectLink' Call from"), 1u);
  EXPECT_EQ(Count(agent.Log(), "'LSockConnectLink' Call from"), 2u);
  Client client(agent);
  client.Send("", "to the default");
  const auto request = first.ReadRequest();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->Strings[0], "to the default");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(ConnectOnLoad, AConnectionThatCompletesLaterChoosesTheDefault) {
  Node refusing(Node::Start::Bound), node;
  Agent agent;
  agent.Nodetab(refusing.Line("A") + node.Line("B")).Option("-CONNECTONLOAD").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(agent.WaitForLog("lumo_tcp:Link B connected\n"));
  Client client(agent);
  const lumo::Message request = client.Send("", "to the default");
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  node.Answer(*received, "from B");
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "from B");
  EXPECT_EQ(agent.CountLogged(1, "", "Link B connected"), 1);
}

TEST(ConnectOnLoad, OnlyTheFirstConnectionChoosesTheDefault) {
  Node slow(Node::Start::Bound), fast;
  slow.Stall();
  Agent agent;
  agent.Nodetab(slow.Line("A") + fast.Line("B")).Option("-CONNECTONLOAD").LogLevel("1");
  ASSERT_TRUE(agent.Start());
  ASSERT_TRUE(agent.WaitForLog("lumo_tcp:Link B connected\n"));
  ASSERT_TRUE(fast.Accept());
  slow.Unstall();
  ASSERT_TRUE(slow.Accept());
  ASSERT_TRUE(agent.WaitForLog("lumo_tcp:Link A connected\n"));
  Client client(agent);
  client.Send("", "to the default");
  const auto received = fast.ReadRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->Strings[0], "to the default");
}

TEST(ConnectOnLoad, WithoutTheOptionNothingIsConnected) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A"));
  ASSERT_TRUE(agent.Start());
  agent.Tick();
  EXPECT_FALSE(node.Connecting(Milliseconds(0)));
}

TEST(Loop, ALinkThatDeliversIsDrainedBeforeClientsAreServed) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A")).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send("A", "1");
  ASSERT_TRUE(node.Accept());
  node.Answer(*node.ReadRequest());
  client.ExpectAnswer(first);
  const lumo::Message second = client.Send("A", "2"), third = client.Send("A", "3");
  ASSERT_TRUE(node.ReadRequest());
  ASSERT_TRUE(node.ReadRequest());

  Freeze(agent.Pid());
  node.Answer(second);
  node.Answer(third);
  client.Send("A", "4");
  Thaw(agent.Pid());
  const auto last = node.ReadRequest();
  ASSERT_TRUE(last);
  EXPECT_EQ(last->Strings[0], "4");
  const std::string log = agent.Log();
  const std::size_t received = log.rfind(" Receive message from client");
  ASSERT_NE(received, std::string::npos);
  EXPECT_EQ(Count(log.substr(0, received), " Need put the message to client"), 3u);
}

// The packets are of the kind that is only counted, so that nothing else happens meanwhile.
TEST(Loop, ALinkThatNeverStopsDeliveringIsLeftAfter256Packets) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A")).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message first = client.Send("A");
  ASSERT_TRUE(node.Accept());
  node.Answer(*node.ReadRequest());
  client.ExpectAnswer(first);

  const std::size_t before = agent.Log().size();
  Freeze(agent.Pid());
  for (int i = 0; i < 600; ++i) node.SendControl({1, 0});
  client.Send("A");
  Thaw(agent.Pid());
  ASSERT_TRUE(node.ReadRequest());
  const std::string log = agent.Log().substr(before);
  const std::size_t served =
      Count(log.substr(0, log.find(" Receive message from client")), "'TcpReadyForRead' Call from");
  EXPECT_GE(served, 256u);
  EXPECT_LE(served, 258u);
}

TEST(Loop, TheClientServedLastIsServedFirst) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A"));
  ASSERT_TRUE(agent.Start());
  Client earlier(agent), later(agent);
  const lumo::Message first = later.Send("A", "from the later one");
  ASSERT_TRUE(node.Accept());
  node.Answer(*node.ReadRequest());
  later.ExpectAnswer(first);

  Freeze(agent.Pid());
  earlier.Send("A", "earlier");
  later.Send("A", "later");
  Thaw(agent.Pid());
  EXPECT_EQ(node.ReadRequest()->Strings[0], "later");
  EXPECT_EQ(node.ReadRequest()->Strings[0], "earlier");
}

TEST(Loop, LinksAreServedBeforeClientsAndNewConnectionsLast) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A")).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());

  agent.Barrier();  // so that another client than this one was served last
  const std::size_t before = agent.Log().size();
  Freeze(agent.Pid());
  const int connection = ConnectRaw(agent.SocketPath());
  client.Send("A");
  node.Answer(request);
  Thaw(agent.Pid());
  ASSERT_EQ(ReadRaw(connection, 60).size(), 60u);
  const std::string log = agent.Log().substr(before);
  const std::size_t link = log.find("'TcpReadyForRead' Call from dbc:");
  const std::size_t served = log.find("'HandleMessageFromClientQueue' Call from dbc:");
  const std::size_t accepted = log.find("'AcceptNewClientConnection' Call from dbc:");
  ASSERT_NE(accepted, std::string::npos) << log;
  EXPECT_LT(link, served);
  EXPECT_LT(served, accepted);
  close(connection);
}

TEST(Loop, EachReadyDescriptorOfALinkIsTraced) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A")).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  node.Answer(*received);
  client.ExpectAnswer(request);
  const std::string log = agent.Log();
  EXPECT_NE(log.find("|select return 1\n"), std::string::npos);
  EXPECT_NE(log.find(" ready for write\n"), std::string::npos);
  EXPECT_NE(log.find(" ready for read\n"), std::string::npos);
  EXPECT_EQ(agent.CountLogged(1, "", "Link A connected"), 1);
}

TEST(Loop, EveryRegistrationIsTracedWithItsDescriptor) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A")).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  node.Close();
  client.ExpectError(request, 4009, 0);
  int descriptor = -1;
  for (const LogLine& line : agent.LogLines())
    std::sscanf(line.Text.c_str(), "REGISTER_SOCKET_FOR_THE_LINK %d, A", &descriptor);
  ASSERT_GT(descriptor, 2);
  const std::string number = std::to_string(descriptor);
  for (const std::string& line :
       {"REGISTER_SOCKET_FOR_THE_LINK " + number + ", A",
        "REGISTER_SOCKET_FOR_WRITE_EVENT " + number, "UNREGISTER_SOCKET_FOR_WRITE_EVENT " + number,
        "REGISTER_SOCKET_FOR_READ_EVENT " + number, "UNREGISTER_SOCKET_FOR_THE_LINK " + number,
        "UNREGISTER_SOCKET_FOR_READ_EVENT " + number})
    EXPECT_TRUE(agent.Logged(15, "", line)) << line;
}

TEST(Stop, TakesEveryLinkDownAndAnswersWhatWaits) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_TRUE(node.ReadEnd());
  client.ExpectError(request, 0, 0);
  client.ExpectClosed();
}

TEST(Stop, RemovesTheSocketFileAndTracesTheEnd) {
  Node node, other;
  Agent agent;
  agent.Nodetab(node.Line("A") + other.Line("B")).Trace();
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0);
  const std::string log = agent.Log();
  EXPECT_EQ(Count(log, "'TcpUninitLink' Call from dbc:"), 2u);
  const std::size_t link = log.rfind("'TcpUninitLink' Leave SUCCESS\n");
  const std::size_t timer = log.find("'UninitTimer' Call from dbc:");
  const std::size_t queue = log.find("'UninitClientQueue' Call from dbc:");
  const std::size_t exit = log.find("|Exit SUCCESS\n");
  ASSERT_NE(exit, std::string::npos);
  EXPECT_LT(link, timer);
  EXPECT_LT(timer, queue);
  EXPECT_LT(queue, exit);
}

TEST(Stop, OfADaemonIsOrderlyToo) {
  Agent agent;
  ASSERT_TRUE(agent.StartDaemon());
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0);
  EXPECT_EQ(agent.Results(), "");
}

}  // namespace
}  // namespace test
