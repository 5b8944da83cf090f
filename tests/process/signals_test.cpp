// Signals, the 2-second timer, and the watch over parent and children.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"

namespace test {
namespace {

int TimerEvents(const Agent& agent) {
  int count = 0;
  for (const LogLine& line : agent.LogLines())
    count += line.Text.rfind("'HandleTimerEvent' Call from dbc:", 0) == 0;
  return count;
}

TEST(Signals, WriteNothingWithTheTraceOff) {
  Agent agent;
  agent.LogLevel("14");
  ASSERT_TRUE(agent.Start());
  for (const int signal : {SIGALRM, SIGIO, SIGCHLD, SIGPIPE}) {
    agent.Signal(signal);
    agent.Barrier();
  }
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_EQ(agent.Log(), "");
}

TEST(Signals, AreTracedByTheirHandlers) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  for (const int signal : {SIGALRM, SIGIO, SIGCHLD}) {
    agent.Signal(signal);
    agent.Barrier();
  }
  EXPECT_TRUE(agent.Logged(15, "init", "AlarmHandler!"));
  EXPECT_TRUE(agent.Logged(15, "init", "Receive SIGIO"));
  EXPECT_TRUE(agent.Logged(15, "init", "Receive SIGCHLD " + std::to_string(SIGCHLD)));
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_TRUE(agent.Logged(15, "init", "Receive SIGTERM " + std::to_string(SIGTERM)));
}

TEST(Signals, InterruptIsTracedAsTermToo) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Stop(SIGINT), 0);
  EXPECT_TRUE(agent.Logged(15, "init", "Receive SIGTERM " + std::to_string(SIGINT)));
}

class StopSignal : public testing::TestWithParam<int> {};

TEST_P(StopSignal, EndsWithZeroAndRemovesPidFileAndSocket) {
  Agent agent;
  const std::string pidFile = agent.Folder() / "agent.pid";
  agent.Options({"-PIDFILE", pidFile});
  ASSERT_TRUE(agent.Start());
  ASSERT_EQ(access(pidFile.c_str(), F_OK), 0);
  EXPECT_EQ(agent.Stop(GetParam()), 0);
  EXPECT_NE(access(pidFile.c_str(), F_OK), 0);
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0);
}

TEST_P(StopSignal, WorksWhenTheCallerHadBlockedIt) {
  Agent agent;
  agent.Blocking(GetParam());
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Stop(GetParam()), 0);
}

INSTANTIATE_TEST_SUITE_P(Both, StopSignal, testing::Values(SIGTERM, SIGINT));

TEST(BlockedSignals, AreUnblockedAtTheStart) {
  Agent agent;
  agent.Blocking(SIGALRM).Blocking(SIGIO).Blocking(SIGCHLD).Trace();
  ASSERT_TRUE(agent.Start());
  for (const int signal : {SIGALRM, SIGIO, SIGCHLD}) {
    agent.Signal(signal);
    agent.Barrier();
  }
  EXPECT_TRUE(agent.Logged(15, "init", "AlarmHandler!"));
  EXPECT_TRUE(agent.Logged(15, "init", "Receive SIGIO"));
  EXPECT_TRUE(agent.Logged(15, "init", "Receive SIGCHLD " + std::to_string(SIGCHLD)));
}

TEST(BrokenPipe, OfAClientThatWentAwayDoesNotStopTheAgent) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A"));
  ASSERT_TRUE(agent.Start());
  Client leaving(agent), staying(agent);
  leaving.Send("A", "leaving");
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  Freeze(agent.Pid());
  node.Answer(*request);
  leaving.Close();
  Thaw(agent.Pid());
  const lumo::Message next = staying.Send("A", "staying");
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  node.Answer(*received, "still here");
  EXPECT_EQ(staying.ExpectAnswer(next).Strings[0], "still here");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(BrokenPipe, SignalIsIgnored) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  agent.Signal(SIGPIPE);
  agent.Barrier();
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(InputSignal, ChangesNothing) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  for (int i = 0; i < 20; ++i) agent.Signal(SIGIO);
  agent.Barrier();
  client.ExpectNothing();
  node.Answer(*received, "answer");
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "answer");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Timer, EachTickIsOneTimerEvent) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  const int before = TimerEvents(agent);
  agent.Ticks(3);
  EXPECT_EQ(TimerEvents(agent), before + 3);
}

TEST(Timer, SeveralAlarmsBetweenTwoLooksAreOneTimerEvent) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  const int before = TimerEvents(agent);
  Freeze(agent.Pid());
  for (int i = 0; i < 3; ++i) agent.Signal(SIGALRM);
  Thaw(agent.Pid());
  agent.Barrier();
  EXPECT_EQ(TimerEvents(agent), before + 1);
}

TEST(Timer, ComesByItselfEveryTwoSeconds) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  agent.Tick();  // the next one comes in two seconds
  const int before = TimerEvents(agent);
  const Clock::time_point start = Clock::now();
  ASSERT_TRUE(WaitFor([&] { return TimerEvents(agent) >= before + 2; }));
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

TEST(ParentWatch, StopsTheAgentOnTheTickAfterTheParentsDeath) {
  Agent agent;
  const std::string pidFile = agent.Folder() / "agent.pid";
  agent.UnderOwnParent().Options({"-PCHECK", "-PIDFILE", pidFile}).Trace();
  ASSERT_TRUE(agent.Start());
  agent.Ticks(2);
  const int alarms = agent.CountLogged(15, "init", "AlarmHandler!");
  agent.KillParent();
  agent.Signal(SIGALRM);
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_EQ(agent.CountLogged(15, "init", "AlarmHandler!"), alarms + 1) << "not a tick later";
  EXPECT_NE(access(pidFile.c_str(), F_OK), 0);
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0);
}

TEST(ParentWatch, WorksWithTheShortKeyAndWithoutATestsHelp) {
  Agent agent;
  agent.UnderOwnParent().Option("-C");
  ASSERT_TRUE(agent.Start());
  agent.KillParent();
  EXPECT_EQ(agent.Wait(), 0);
}

TEST(ParentWatch, OfADaemonWatchesTheStarterOfTheCommand) {
  Agent agent;
  agent.Option("-PCHECK");
  ASSERT_TRUE(agent.StartDaemon());
  agent.Ticks(2);
  EXPECT_TRUE(agent.Running()) << "the foreground copy is gone, but not this test";
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(ParentWatch, IsOffWithoutTheOption) {
  Agent agent;
  agent.UnderOwnParent();
  ASSERT_TRUE(agent.Start());
  agent.KillParent();
  agent.Ticks(2);
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Children, AreReaped) {
  IpcKernel kernel;
  Agent agent;
  agent.Nodetab(kernel.Line("K"));
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("K");
  const auto received = kernel.ReadRequest();
  ASSERT_TRUE(received);
  ASSERT_TRUE(ProcessRuns(received->Reader));
  EXPECT_EQ(ProcessStatus(received->Reader, "PPid"), std::to_string(agent.Pid()));
  kill(received->Reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(received->Reader); }));
  EXPECT_EQ(client.ExpectAnswer(request).CodErr, 4009);
  EXPECT_EQ(agent.Stop(), 0);
}

}  // namespace
}  // namespace test
