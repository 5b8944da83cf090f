// A wire of some length between two network namespaces: a tun device at each end, and every packet
// that enters at one leaves at the other after the delay, in the order in which it came. The kernel
// needs no queue discipline for it, and nothing leaves the namespaces. As with a network card, TCP
// may hand over many segments in one piece and leave their checksums undone; so this program is not
// what is measured. The devices appear under the name given; addresses are the caller's business.
// Prints "ready" when both ends are there.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/sockets.h"

namespace {

using bench::Fail;
using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

constexpr std::size_t kLargestPiece = 65536 + 64;
constexpr std::size_t kMostUnderWay = 16384;  // pieces; beyond them the wire loses, as wires do
constexpr int kPiecesAtOnce = 64;

struct Piece {
  Clock::time_point Due;
  std::vector<char> Bytes;  // as the device gave them, with its description of the segments
};

// What is under way to one end: a ring whose places keep their memory.
class Direction {
 public:
  Direction(int from, int to, Nanoseconds delay) : from_(from), to_(to), delay_(delay) {}

  // Some of what has entered.
  void Take() {
    static std::array<char, kLargestPiece> bytes;
    for (int i = 0; i < kPiecesAtOnce; ++i) {
      const ssize_t got = read(from_, bytes.data(), bytes.size());
      if (got <= 0) return;
      if (last_ - first_ == kMostUnderWay) continue;
      Piece& piece = ring_[last_++ % kMostUnderWay];
      piece.Bytes.assign(bytes.data(), bytes.data() + got);
      piece.Due = Clock::now() + delay_;
    }
  }

  // All that has been under way long enough. What the far end refuses is lost.
  void Deliver() {
    for (; !Empty() && Next() <= Clock::now(); ++first_) {
      const Piece& piece = ring_[first_ % kMostUnderWay];
      if (write(to_, piece.Bytes.data(), piece.Bytes.size()) < 0) std::perror("wire");
    }
  }

  bool Empty() const { return first_ == last_; }
  Clock::time_point Next() const { return ring_[first_ % kMostUnderWay].Due; }

 private:
  const int from_, to_;
  const Nanoseconds delay_;
  std::vector<Piece> ring_ = std::vector<Piece>(kMostUnderWay);
  std::size_t first_ = 0, last_ = 0;
};

int OpenEnd(const std::string& space, const std::string& name) {
  const std::string path = "/run/netns/" + space;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) Fail(path);
  close(fd);
  const int tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (tun < 0) Fail("/dev/net/tun");
  ifreq request = {};
  request.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  if (ioctl(tun, TUNSETIFF, &request) != 0) Fail(name);
  if (ioctl(tun, TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4) != 0) Fail("TUNSETOFFLOAD");
  return tun;
}

[[noreturn]] void Run(const std::array<int, 2>& ends, Nanoseconds delay) {
  std::array<Direction, 2> wire = {Direction(ends[0], ends[1], delay),
                                   Direction(ends[1], ends[0], delay)};
  while (true) {
    Nanoseconds wait = std::chrono::seconds(1);
    const Clock::time_point now = Clock::now();
    for (const Direction& direction : wire)
      if (!direction.Empty()) wait = std::min(wait, Nanoseconds(direction.Next() - now));
    wait = std::max(wait, Nanoseconds(0));
    const timespec time = {.tv_sec = static_cast<time_t>(wait.count() / 1000000000),
                           .tv_nsec = static_cast<long>(wait.count() % 1000000000)};
    std::array<pollfd, 2> polled = {{{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}}};
    ppoll(polled.data(), polled.size(), &time, nullptr);
    for (Direction& direction : wire) {
      direction.Take();
      direction.Deliver();
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("A wire with a delay between two network namespaces");
  std::string near, far, device = "wire";
  double delay = 0;
  app.add_option("--near", near, "Namespace at one end")->required();
  app.add_option("--far", far, "Namespace at the other")->required();
  app.add_option("--device", device, "Name of the device in both");
  app.add_option("--delay-us", delay, "Microseconds from end to end")->required();
  CLI11_PARSE(app, argc, argv);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_SET_TIMERSLACK, 1UL);
  const std::array<int, 2> ends = {OpenEnd(near, device), OpenEnd(far, device)};
  std::printf("ready\n");
  std::fflush(stdout);
  Run(ends, Nanoseconds(static_cast<std::int64_t>(delay * 1000)));
}
