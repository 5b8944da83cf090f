// Signals that come in the middle of something.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string>

#include "tests/process/manager.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using Interruption = AgentTest;
using WaitTrace = AgentTest;

bool Pending(pid_t pid, int signal) {
  const std::string mask = ProcessStatus(pid, "ShdPnd");
  return !mask.empty() && (std::stoull(mask, nullptr, 16) >> (signal - 1) & 1) != 0;
}

TEST_F(Interruption, DoesNotCutTheNodeTableShort) {
  const AwaitedSignal ifTheAgentReadsNoMore(SIGPIPE);
  std::filesystem::remove(agent_.NodetabPath());
  ASSERT_EQ(mkfifo(agent_.NodetabPath().c_str(), 0600), 0);
  agent_.Option("-NODAEMON").Spawn();
  int table = -1;
  ASSERT_TRUE(WaitFor([&] {
    table = open(agent_.NodetabPath().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return table >= 0;
  }));
  for (const std::string line : {"A REZ\n", "B REZ\n", "C REZ\n"}) {
    ASSERT_EQ(write(table, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    // The line is taken, and the agent waits for more when the alarm comes.
    ASSERT_TRUE(WaitFor([&] { return BlockedInCall(agent_.Pid()) == SYS_read; })) << agent_.Log();
    agent_.Signal(SIGALRM);
    ASSERT_TRUE(WaitFor([&] { return !Pending(agent_.Pid(), SIGALRM); }));
  }
  close(table);
  ASSERT_TRUE(agent_.WaitUntilReady());
  EXPECT_EQ(Manager(agent_).Names(), "A B C");
}

// Sends a process a stop signal, and another before each system call that it still makes, its
// handler's excepted. Returns when it has ended.
class StoppedAgainAndAgain {
 public:
  explicit StoppedAgainAndAgain(pid_t pid) : pid_(pid) {
    if (ptrace(PTRACE_SEIZE, pid_, nullptr, PTRACE_O_TRACESYSGOOD) != 0)
      throw std::runtime_error("the agent cannot be traced");
    kill(pid_, SIGTERM);
    while (const int stop = NextStop()) {
      const bool call = stop == (SIGTRAP | 0x80);
      if (call) AtCall();
      if (stop == SIGTERM) inHandler_ = true;
      ptrace(PTRACE_SYSCALL, pid_, nullptr, call ? 0 : stop);
    }
  }
  int Signals() const { return signals_; }

 private:
  // 0: it has ended, and is left to be waited for.
  int NextStop() {
    siginfo_t event = {};
    const auto pid = static_cast<id_t>(pid_);
    if (waitid(P_PID, pid, &event, WEXITED | WSTOPPED | WNOWAIT) != 0) return 0;
    if (event.si_code != CLD_TRAPPED && event.si_code != CLD_STOPPED) return 0;
    int status = 0;
    waitpid(pid_, &status, 0);
    return WSTOPSIG(status);
  }
  void AtCall() {
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return;
    if (info.entry.nr == SYS_rt_sigreturn) inHandler_ = false;
    if (inHandler_ || info.entry.nr == SYS_rt_sigreturn) return;
    kill(pid_, SIGTERM);
    ++signals_;
  }

  const pid_t pid_;
  bool inHandler_ = false;
  int signals_ = 0;
};

TEST_F(Interruption, ByFurtherStopSignalsDoesNotChangeTheExitStatus) {
  agent_.Trace().Environment("ASAN_OPTIONS",
                             "detect_leaks=0");  // leaks are not looked for under trace
  StartAgent();
  EXPECT_GT(StoppedAgainAndAgain(agent_.Pid()).Signals(), 10);
  EXPECT_EQ(agent_.Wait(), 0);
}

// A wait is traced with the number of what is served after it, wherever it comes from.
TEST_F(WaitTrace, CountsPacketsThatCameTogether) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("A"));
  const lumo::Message request = client.Send("A");
  const auto received = node.ExpectFirstRequest();
  agent_.InOnePass([&] {
    for (int i = 0; i < 5; ++i) node.SendControl({1, 0});
    node.Answer(received);
    node.Arrived();
  });
  client.ExpectAnswer(request);
  agent_.Barrier();
  EXPECT_FALSE(agent_.LogContains("select return 0\n")) << agent_.Log();
}

TEST_F(WaitTrace, CountsRequestsThatCameTogether) {
  agent_.Trace();
  Client client = StartWithClient();
  agent_.Barrier();
  agent_.InOnePass([&] {
    for (int i = 0; i < 5; ++i) client.Send("X");
  });
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(client.Receive());
  agent_.Barrier();
  EXPECT_FALSE(agent_.LogContains("select return 0\n")) << agent_.Log();
}

}  // namespace
}  // namespace test
