// Signals, the 2-second timer, and the watch over parent and children.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"

namespace test {
namespace {

using BrokenPipe = AgentTest;
using InputSignal = AgentTest;
using Timer = AgentTest;
using ParentWatch = AgentTest;
using Children = AgentTest;

int TimerEvents(const Agent& agent) {
  int count = 0;
  for (const LogLine& line : agent.LogLines())
    count += line.Text.rfind("'HandleTimerEvent' Call from dbc:", 0) == 0;
  return count;
}

class Signals : public AgentTest {
 protected:
  void Send(std::initializer_list<int> signals) {
    for (const int signal : signals) {
      agent_.Signal(signal);
      agent_.Barrier();
    }
  }
  void ExpectHandled() {
    Send({SIGALRM, SIGIO, SIGCHLD});
    EXPECT_TRUE(agent_.Logged(15, "init", "AlarmHandler!"));
    EXPECT_TRUE(agent_.Logged(15, "init", "Receive SIGIO"));
    EXPECT_TRUE(agent_.Logged(15, "init", "Receive SIGCHLD " + std::to_string(SIGCHLD)));
  }
};

using BlockedSignals = Signals;

TEST_F(Signals, WriteNothingWithTheTraceOff) {
  agent_.LogLevel("14");
  StartAgent();
  Send({SIGALRM, SIGIO, SIGCHLD, SIGPIPE});
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.Log(), "");
}

TEST_F(Signals, AreTracedByTheirHandlers) {
  agent_.Trace();
  StartAgent();
  ExpectHandled();
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_TRUE(agent_.Logged(15, "init", "Receive SIGTERM " + std::to_string(SIGTERM)));
}

TEST_F(Signals, InterruptIsTracedAsTermToo) {
  agent_.Trace();
  StartAgent();
  EXPECT_EQ(agent_.Stop(SIGINT), 0);
  EXPECT_TRUE(agent_.Logged(15, "init", "Receive SIGTERM " + std::to_string(SIGINT)));
}

class StopSignal : public AgentTest, public testing::WithParamInterface<int> {};

TEST_P(StopSignal, EndsWithZeroAndRemovesPidFileAndSocket) {
  const std::string pidFile = agent_.Folder() / "agent.pid";
  agent_.Options({"-PIDFILE", pidFile});
  StartAgent();
  ASSERT_EQ(access(pidFile.c_str(), F_OK), 0);
  EXPECT_EQ(agent_.Stop(GetParam()), 0);
  EXPECT_NE(access(pidFile.c_str(), F_OK), 0);
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0);
}

TEST_P(StopSignal, WorksWhenTheCallerHadBlockedIt) {
  agent_.Blocking(GetParam());
  StartAgent();
  EXPECT_EQ(agent_.Stop(GetParam()), 0);
}

INSTANTIATE_TEST_SUITE_P(Both, StopSignal, testing::Values(SIGTERM, SIGINT));

TEST_F(BlockedSignals, AreUnblockedAtTheStart) {
  agent_.Blocking(SIGALRM).Blocking(SIGIO).Blocking(SIGCHLD).Trace();
  StartAgent();
  ExpectHandled();
}

TEST_F(BrokenPipe, OfAClientThatWentAwayDoesNotStopTheAgent) {
  Node node;
  StartAgent(node.Line("A"));
  Client leaving(agent_), staying(agent_);
  leaving.Send("A", "leaving");
  const auto request = node.ExpectFirstRequest();
  Freeze(agent_.Pid());
  node.Answer(request);
  leaving.Close();
  Thaw(agent_.Pid());
  ExpectExchange(staying, staying.Send("A", "staying"), node, "still here");
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(BrokenPipe, SignalIsIgnored) {
  StartAgent();
  agent_.Signal(SIGPIPE);
  agent_.Barrier();
}

TEST_F(InputSignal, ChangesNothing) {
  Node node;
  Client client = StartWithClient(node.Line("A"));
  const lumo::Message request = client.Send("A");
  const auto received = node.ExpectFirstRequest();
  for (int i = 0; i < 20; ++i) agent_.Signal(SIGIO);
  agent_.Barrier();
  client.ExpectNothing();
  node.Answer(received, "answer");
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "answer");
}

TEST_F(Timer, EachTickIsOneTimerEvent) {
  agent_.Trace();
  StartAgent();
  const int before = TimerEvents(agent_);
  agent_.Ticks(3);
  EXPECT_EQ(TimerEvents(agent_), before + 3);
}

TEST_F(Timer, SeveralAlarmsBetweenTwoLooksAreOneTimerEvent) {
  agent_.Trace();
  StartAgent();
  const int before = TimerEvents(agent_);
  Freeze(agent_.Pid());
  for (int i = 0; i < 3; ++i) agent_.Signal(SIGALRM);
  Thaw(agent_.Pid());
  agent_.Barrier();
  EXPECT_EQ(TimerEvents(agent_), before + 1);
}

TEST_F(Timer, ComesByItselfEveryTwoSeconds) {
  agent_.Trace();
  StartAgent();
  agent_.Tick();  // the next one comes in two seconds
  const int before = TimerEvents(agent_);
  const Clock::time_point start = Clock::now();
  ASSERT_TRUE(WaitFor([&] { return TimerEvents(agent_) >= before + 2; }));
  const auto passed = std::chrono::duration_cast<Milliseconds>(Clock::now() - start).count();
  EXPECT_GE(passed, 3500);
  EXPECT_LE(passed, 8000);
}

TEST(ParentSignal, ComesAfterTheNodeTableAndBeforeConnectOnLoad) {
  AwaitedSignal signal(SIGUSR2);
  Agent agent;
  LocalKernel kernel(agent);
  agent.Nodetab(kernel.Line("K"))
      .Options({"-NODAEMON", "-CONNECTONLOAD", "-PKILL", std::to_string(SIGUSR2)});
  agent.Spawn();
  EXPECT_EQ(signal.Sender(), agent.Pid()) << "before the kernel lets the connect return";
  EXPECT_NE(agent.Stdout().find("Default server: K\n"), std::string::npos);
  ASSERT_TRUE(kernel.Accept());
  ASSERT_TRUE(agent.WaitUntilReady());
}

TEST(ParentSignal, OfADaemonGoesToTheStarterNotToTheForegroundCopy) {
  AwaitedSignal signal(SIGUSR2);
  Agent agent;
  agent.Options({"-PKILL", std::to_string(SIGUSR2)});
  ASSERT_TRUE(agent.StartDaemon());
  EXPECT_EQ(signal.Sender(), agent.Pid());
}

TEST(ParentSignal, IsNotSentWhenTheNodeTableFails) {
  AwaitedSignal signal(SIGUSR2);
  Agent agent;
  agent.Nodetab("").Options({"-NODAEMON", "-PKILL", std::to_string(SIGUSR2)});
  EXPECT_EQ(agent.Run(), 254);
  EXPECT_EQ(signal.Sender(Milliseconds(0)), -1);
}

TEST_F(ParentWatch, StopsTheAgentOnTheTickAfterTheParentsDeath) {
  const std::string pidFile = agent_.Folder() / "agent.pid";
  agent_.UnderOwnParent().Options({"-PCHECK", "-PIDFILE", pidFile}).Trace();
  StartAgent();
  agent_.Ticks(2);
  const int alarms = agent_.CountLogged(15, "init", "AlarmHandler!");
  agent_.KillParent();
  agent_.Signal(SIGALRM);
  EXPECT_EQ(agent_.Wait(), 0);
  EXPECT_EQ(agent_.CountLogged(15, "init", "AlarmHandler!"), alarms + 1) << "not a tick later";
  EXPECT_NE(access(pidFile.c_str(), F_OK), 0);
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0);
}

TEST_F(ParentWatch, WorksWithTheShortKeyAndWithoutATestsHelp) {
  agent_.UnderOwnParent().Option("-C");
  StartAgent();
  agent_.KillParent();
  EXPECT_EQ(agent_.Wait(), 0);
}

TEST_F(ParentWatch, OfADaemonWatchesTheStarterOfTheCommand) {
  agent_.Option("-PCHECK");
  ASSERT_TRUE(agent_.StartDaemon());
  agent_.Ticks(2);
  EXPECT_TRUE(agent_.Running()) << "the foreground copy is gone, but not this test";
}

TEST_F(ParentWatch, IsOffWithoutTheOption) {
  agent_.UnderOwnParent();
  StartAgent();
  agent_.KillParent();
  agent_.Ticks(2);
}

TEST_F(Children, AreReaped) {
  IpcKernel kernel;
  Client client = StartWithClient(kernel.Line("K"));
  const lumo::Message request = client.Send("K");
  const auto received = kernel.ExpectRequest();
  ASSERT_TRUE(ProcessRuns(received.Reader));
  EXPECT_EQ(ProcessStatus(received.Reader, "PPid"), std::to_string(agent_.Pid()));
  kill(received.Reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(received.Reader); }));
  EXPECT_EQ(client.ExpectAnswer(request).CodErr, 4009);
}

}  // namespace
}  // namespace test
