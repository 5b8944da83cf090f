// Waiting for a condition, with a deadline: no test sleeps for a fixed time.
#pragma once
#include <algorithm>
#include <chrono>
#include <thread>

namespace test {

using Milliseconds = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How long a test waits for what must come; ample, for loaded machines and sanitizers.
constexpr Milliseconds kPatience{15000};
// How long a test waits before it takes it that something does not come. Only where no barrier can
// prove the same.
constexpr Milliseconds kShortly{150};

// Looks again and again until the condition holds; false when the time is over.
template <class Condition>
bool WaitFor(Condition condition, Milliseconds timeout = kPatience) {
  const Clock::time_point deadline = Clock::now() + timeout;
  Milliseconds interval{1};
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(interval);
    interval = std::min(interval * 2, Milliseconds(20));
  }
  return true;
}

// The time left until the deadline, in a form for poll().
inline int MillisecondsLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace test
