// Processes that stand for client applications and parents.
#pragma once
#include <signal.h>
#include <sys/types.h>

#include <string>

#include "tests/support/wait.h"

namespace test {

// A process that lives until it is killed or the object is destroyed.
class LivingProcess {
 public:
  LivingProcess();
  ~LivingProcess();
  LivingProcess(const LivingProcess&) = delete;
  LivingProcess& operator=(const LivingProcess&) = delete;
  pid_t Pid() const { return pid_; }
  void Kill();  // also reaps it: afterwards no such process exists

 private:
  pid_t pid_ = -1;
};

// The number of a process that has just ended and been reaped.
pid_t DeadPid();

// The process exists (a zombie counts).
bool ProcessExists(pid_t pid);
// The process exists and has not ended.
bool ProcessRuns(pid_t pid);

// Orphans among our descendants become our children, so that a daemon can be waited for.
void AdoptOrphans();

// A signal that a test waits for instead of being hit by it.
class AwaitedSignal {
 public:
  explicit AwaitedSignal(int signal);
  ~AwaitedSignal();
  AwaitedSignal(const AwaitedSignal&) = delete;
  AwaitedSignal& operator=(const AwaitedSignal&) = delete;
  // The process id of the sender, or -1 when the signal does not come in time.
  pid_t Sender(Milliseconds timeout = kPatience);

 private:
  sigset_t set_, before_;
};

// The process waits within a system call.
bool Sleeps(pid_t pid);
// It waits, and no signal of this number is still on its way to it: what one that came before has
// set off is done. Nothing is asked of the process, which would make it do more than that.
bool RestsAfter(pid_t pid, int signal);

// Stops a process and waits until it stands still; lets it go on.
void Freeze(pid_t pid);
// Stops a process while it waits for events, with none that it has been told of and not yet served.
void FreezeInWait(pid_t pid);
// The process sleeps in a wait for events.
bool WaitsForEvents(pid_t pid);
// The number of the system call that a process is blocked in; -1: none.
long BlockedInCall(pid_t pid);
void Thaw(pid_t pid);

// A field of /proc/PID/status, such as "PPid"; empty when there is none.
std::string ProcessStatus(pid_t pid, const std::string& field);
// The process has a handler for the signal.
bool Catches(pid_t pid, int signal);

// Where the descriptor of a process leads, such as "socket:[123]"; empty when it is not open.
std::string DescriptorTarget(pid_t pid, int descriptor);
// How many descriptors a process has open.
int OpenDescriptors(pid_t pid);

}  // namespace test
