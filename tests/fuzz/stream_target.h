// For targets that read a stream over real sockets: the input's first byte says in what pieces the
// rest arrives, whether the agent traces, and whether a call fails.
#pragma once
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

class StreamTarget {
 public:
  StreamTarget(const std::uint8_t* data, std::size_t size)
      : head_(size > 0 ? data[0] : 0), at_(data + (size > 0)), end_(data + size) {
    world::BeginQuiet();
    StartAgent((head_ & 1) != 0 ? 15 : 0);
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0)
      world::Violated("no socket pair");
  }
  ~StreamTarget() {
    EndAgent();
    close(ends_[0]);  // the far end; the agent has closed its own
    world::End();
  }
  StreamTarget(const StreamTarget&) = delete;
  StreamTarget& operator=(const StreamTarget&) = delete;

  int Ours() const { return ends_[1]; }

  // Lets the next piece arrive; false: all has come, and the peer has hung up.
  bool NextPiece() {
    if (head_ >= kFailing && sizes_ == 0) LetCallFail();
    const std::size_t left = static_cast<std::size_t>(end_ - at_);
    const std::size_t step = head_ < 2 ? left : (head_ >> 1) + sizes_++ % 3;
    const std::size_t count = std::min(left, std::max<std::size_t>(step, 1));
    if (count == 0) {
      shutdown(ends_[0], SHUT_WR);
      return false;
    }
    const ssize_t sent = send(ends_[0], at_, count, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent <= 0) return false;
    at_ += sent;
    return true;
  }

 private:
  static constexpr unsigned kFailing = 0xE0;  // heads from here on

  void LetCallFail() const {
    const int successes = head_ >> 3 & 3;
    if ((head_ & 4) != 0)
      world::LetFail(world::Call::Allocate, ENOMEM, successes & 1);
    else
      world::LetFail(world::Call::Recv, (head_ & 2) != 0 ? ECONNRESET : EINTR, successes);
  }

  const std::uint8_t head_;
  const std::uint8_t *at_, *const end_;
  std::size_t sizes_ = 0;
  int ends_[2];
};
