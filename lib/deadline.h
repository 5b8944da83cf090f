// The end of a call's time.
#pragma once
#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>

namespace lumo::detail {

class Deadline {
 public:
  // Negative: never.
  explicit Deadline(int milliseconds)
      : never_(milliseconds < 0),
        at_(Clock::now() + std::chrono::milliseconds(std::max(milliseconds, 0))) {}

  bool Passed() const { return !never_ && Clock::now() >= at_; }

  // Milliseconds left in the form for poll(), rounded up so that a wait does not end too early.
  int Left() const {
    if (never_) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(at_ - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
  }

  void Wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock) const {
    if (never_) {
      changed.wait(lock);
    } else {
      changed.wait_until(lock, at_);
    }
  }

 private:
  using Clock = std::chrono::steady_clock;
  bool never_;
  Clock::time_point at_;
};

}  // namespace lumo::detail
