#include "lib/tags.h"

#include <unistd.h>

#include <atomic>
#include <chrono>

namespace lumo::detail {

Tags& Tags::OfThisProcess() {
  // Without a lock: one that was held during a fork would be held for ever in the child. The
  // parent's tags are left alone for the same reason.
  static std::atomic<Tags*> current{nullptr};
  const pid_t pid = getpid();
  Tags* tags = current.load(std::memory_order_acquire);
  if (tags && tags->pid_ == pid) return *tags;
  Tags* const fresh = new Tags(pid);
  if (current.compare_exchange_strong(tags, fresh, std::memory_order_acq_rel)) return *fresh;
  delete fresh;
  return *tags;
}

// Starts anywhere: the agent may still have requests of an earlier process with the same id.
Tags::Tags(pid_t pid)
    : pid_(pid),
      last_(static_cast<std::uint16_t>(
          kFirst + static_cast<std::uint64_t>(
                       std::chrono::system_clock::now().time_since_epoch().count() / 1000) %
                       kCount)) {}

std::optional<std::uint16_t> Tags::Take() {
  const std::lock_guard lock(mutex_);
  if (free_ == 0 && retired_ == 0) return std::nullopt;
  const State state = free_ > 0 ? State::Free : State::Retired;
  --(free_ > 0 ? free_ : retired_);
  return TakeNext(state);
}

std::uint16_t Tags::TakeNext(State state) {
  do {
    last_ = last_ == kLast ? kFirst : static_cast<std::uint16_t>(last_ + 1);
  } while (states_[last_] != state);
  states_[last_] = State::Taken;
  return last_;
}

void Tags::Release(std::uint16_t tag) {
  const std::lock_guard lock(mutex_);
  states_[tag] = State::Free;
  ++free_;
}

void Tags::Retire(std::uint16_t tag) {
  const std::lock_guard lock(mutex_);
  states_[tag] = State::Retired;
  ++retired_;
}

}  // namespace lumo::detail
