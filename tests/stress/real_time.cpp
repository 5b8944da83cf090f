#include "tests/stress/real_time.h"

#include <sched.h>

#include <filesystem>
#include <string>
#include <utility>

namespace stress {
namespace {

bool Schedule(const std::vector<pid_t>& pids, int policy, int priority) {
  sched_param parameter{};
  parameter.sched_priority = priority;
  bool done = true;
  for (const pid_t pid : pids) done = sched_setscheduler(pid, policy, &parameter) == 0 && done;
  return done;
}

void AddOwnThreads(std::vector<pid_t>* pids) {
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
    pids->push_back(std::stoi(thread.path().filename()));
}

}  // namespace

RealTime::RealTime(std::vector<pid_t> first, std::vector<pid_t> next)
    : first_(std::move(first)), next_(std::move(next)) {
  AddOwnThreads(&first_);
  granted_ = Schedule(next_, SCHED_RR, 1);
  granted_ = Schedule(first_, SCHED_RR, 2) && granted_;
}

RealTime::~RealTime() {
  Schedule(first_, SCHED_OTHER, 0);
  Schedule(next_, SCHED_OTHER, 0);
}

}  // namespace stress
