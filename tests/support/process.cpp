#include "tests/support/process.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace test {
namespace {

void Reap(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::filesystem::path ProcessFolder(pid_t pid) {
  return std::filesystem::path("/proc") / std::to_string(pid);
}

bool InState(pid_t pid, char state) { return ProcessStatus(pid, "State").find(state) == 0; }

bool StandsInWait(pid_t pid) {
  constexpr long kWaits[] = {
#ifdef SYS_poll  // the older calls, which newer machines do without
      SYS_select,   SYS_epoll_wait,  SYS_poll,
#endif
      SYS_pselect6, SYS_epoll_pwait, SYS_ppoll, SYS_epoll_pwait2};
  return std::find(std::begin(kWaits), std::end(kWaits), BlockedInCall(pid)) != std::end(kWaits);
}

}  // namespace

LivingProcess::LivingProcess() : pid_(fork()) {
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  close_range(3, ~0U, 0);  // no connection of the test is held open by it
  for (;;) pause();
}

LivingProcess::~LivingProcess() { Kill(); }

void LivingProcess::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  Reap(pid_);
  pid_ = -1;
}

pid_t DeadPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  Reap(pid);
  return pid;
}

bool ProcessExists(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

bool ProcessRuns(pid_t pid) {
  return ProcessExists(pid) && ProcessStatus(pid, "State").rfind('Z', 0) != 0;
}

void AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

AwaitedSignal::AwaitedSignal(int signal) {
  sigemptyset(&set_);
  sigaddset(&set_, signal);
  sigprocmask(SIG_BLOCK, &set_, &before_);
}

AwaitedSignal::~AwaitedSignal() {
  while (Sender(Milliseconds(0)) >= 0) {
  }
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

pid_t AwaitedSignal::Sender(Milliseconds timeout) {
  const timespec wait{static_cast<time_t>(timeout.count() / 1000),
                      static_cast<long>(timeout.count() % 1000 * 1000000)};
  siginfo_t info{};
  return sigtimedwait(&set_, &info, &wait) > 0 ? info.si_pid : -1;
}

bool Sleeps(pid_t pid) { return ProcessStatus(pid, "State").starts_with('S'); }

// A signal wakes a process that sleeps before kill() returns, so that it is seen to sleep again
// only when it has done its work.
bool RestsAfter(pid_t pid, int signal) {
  if (!Sleeps(pid)) return false;
  const std::string pending = ProcessStatus(pid, "ShdPnd");
  return !pending.empty() && (std::stoull(pending, nullptr, 16) >> (signal - 1) & 1) == 0;
}

void Freeze(pid_t pid) {
  kill(pid, SIGSTOP);
  WaitFor([&] { return InState(pid, 'T'); });
}

// A process that is seen asleep in its wait may be woken before the signal reaches it: so it is
// looked at again when it stands still.
void FreezeInWait(pid_t pid) {
  WaitFor([&] {
    if (!WaitsForEvents(pid)) return false;
    Freeze(pid);
    if (StandsInWait(pid)) return true;
    Thaw(pid);
    return false;
  });
}

bool WaitsForEvents(pid_t pid) { return InState(pid, 'S') && StandsInWait(pid); }

long BlockedInCall(pid_t pid) {
  std::ifstream file(ProcessFolder(pid) / "syscall");
  long number = -1;
  file >> number;  // "running" is no number
  return file ? number : -1;
}

void Thaw(pid_t pid) { kill(pid, SIGCONT); }

std::string ProcessStatus(pid_t pid, const std::string& field) {
  std::ifstream file(ProcessFolder(pid) / "status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(field + ":", 0) != 0) continue;
    return line.substr(line.find_first_not_of(" \t", field.size() + 1));
  }
  return {};
}

bool Catches(pid_t pid, int signal) {
  const std::string mask = ProcessStatus(pid, "SigCgt");
  return !mask.empty() && (std::stoull(mask, nullptr, 16) >> (signal - 1) & 1) != 0;
}

std::string DescriptorTarget(pid_t pid, int descriptor) {
  std::error_code error;
  return std::filesystem::read_symlink(ProcessFolder(pid) / "fd" / std::to_string(descriptor),
                                       error);
}

int OpenDescriptors(pid_t pid) {
  int count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator at(ProcessFolder(pid) / "fd", error), end; at != end;
       at.increment(error))
    ++count;
  return count;
}

}  // namespace test
