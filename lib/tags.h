// The tags (AstInd) of this process. With the process id a tag names a request at the agent, so no
// two requests of a process may have the same while an answer to either may come, over whatever
// connections they went.
#pragma once
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace lumo::detail {

class Tags {
 public:
  // A child process has a process id, and so tags, of its own.
  static Tags& OfThisProcess();

  // The next one in turn that is free; without a free one the next retired one; else nothing.
  std::optional<std::uint16_t> Take();
  // Its answer has come, or it was never sent.
  void Release(std::uint16_t tag);
  // Its connection has gone. The agent may still have the request: used again as late as possible.
  void Retire(std::uint16_t tag);

 private:
  enum class State : std::uint8_t { Free, Taken, Retired };
  static constexpr std::uint16_t kFirst = 1, kLast = 0xFFFE;  // 0xFFFF goes with no answer
  static constexpr std::size_t kCount = kLast - kFirst + 1;

  explicit Tags(pid_t pid);
  std::uint16_t TakeNext(State state);

  const pid_t pid_;
  std::mutex mutex_;
  std::uint16_t last_;
  std::size_t free_ = kCount, retired_ = 0;
  std::array<State, kLast + 1> states_{};
};

}  // namespace lumo::detail
