// A node comes back, and all its agents connect: at once, or spread over some time. Each announces
// itself when it is connected, as the agent does, and is answered when the node has taken it. How
// long that takes for all, how many packets were dropped for want of room in the node's accept
// queue, and how many agents had to repeat one: a connection request is repeated after a second, an
// announcement that meets no room after 0.2 seconds, then each time after twice as long. Runs in a
// network namespace of its own where that is allowed.
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bench/load/histogram.h"
#include "bench/sockets.h"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

struct Options {
  int Agents = 10000;
  int Backlog = 1024;
  int WorkUs = 0;        // of the node for each connection, before it takes the next
  double Spread = 0;     // seconds over which the agents begin
  double Patience = 30;  // seconds; then what is missing is counted
};

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool EnterOwnNetwork() {
  if (unshare(CLONE_NEWNET) != 0) return false;
  const int any = NewSocket(AF_INET);
  ifreq loopback = {};
  std::string("lo").copy(loopback.ifr_name, IFNAMSIZ - 1);
  loopback.ifr_flags = IFF_UP;
  if (ioctl(any, SIOCSIFFLAGS, &loopback) != 0) Fail("the loopback device");
  close(any);
  return true;
}

// A counter of the system's TCP: drops for want of room, for example.
long Counter(const std::string& name) {
  std::ifstream file("/proc/net/netstat");
  for (std::string names, values; std::getline(file, names) && std::getline(file, values);) {
    std::istringstream allNames(names), allValues(values);
    std::string key, value;
    while (allNames >> key && allValues >> value)
      if (key == name) return std::stol(value);
  }
  return 0;
}

// The node

void Work(int microseconds) {
  const auto end = Clock::now() + std::chrono::microseconds(microseconds);
  while (Clock::now() < end) continue;
}

constexpr char kAnnouncement[] = {8, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0};  // a control packet

// Takes one after the other and answers; the connections stay.
[[noreturn]] void RunNode(int listener, const Options& options) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  while (true) {
    const int agent = accept(listener, nullptr, nullptr);
    if (agent < 0) Fail("accept");
    Work(options.WorkUs);
    SendAll(agent, {kAnnouncement, sizeof kAnnouncement});
  }
}

int Listen(int backlog, int* port) {
  *port = 0;
  const int listener = ListenTcp("127.0.0.1", port);
  if (listen(listener, backlog) != 0) Fail("listen");
  return listener;
}

// The agents

class Storm {
 public:
  Storm(const Options& options, int port) : options_(options), port_(port) {
    std::mt19937 luck(1);
    std::uniform_real_distribution<double> when(0, options.Spread);
    for (int i = 0; i < options.Agents; ++i) begins_.push_back(when(luck));
    std::sort(begins_.begin(), begins_.end());
    sockets_.assign(begins_.size(), -1);
  }

  void Run() {
    while (taken_ < begins_.size() && SecondsSince(start_) < options_.Patience) {
      BeginDue();
      Wait();
    }
  }

  void Print(long drops, bool alone) {
    long repeated = 0, most = 0;
    for (const int socket : sockets_) {
      tcp_info info = {};
      socklen_t size = sizeof info;
      if (socket < 0 || getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) continue;
      repeated += info.tcpi_total_retrans > 0;
      most = std::max<long>(most, info.tcpi_total_retrans);
    }
    std::printf(
        "{\"agents\": %d, \"backlog\": %d, \"work_us\": %d, \"spread\": %.2f, \"taken\": %zu, "
        "\"all_taken_s\": %.3f, \"p50_ms\": %.1f, \"p99_ms\": %.1f, \"longest_ms\": %.1f, "
        "\"drops\": %ld, \"agents_that_repeated\": %ld, \"most_repeats\": %ld, \"refused\": %d, "
        "\"own_network\": %s}\n",
        options_.Agents, options_.Backlog, options_.WorkUs, options_.Spread, taken_, last_,
        Milliseconds(0.5), Milliseconds(0.99), static_cast<double>(times_.Largest()) / 1e6, drops,
        repeated, most, refused_, alone ? "true" : "false");
  }

 private:
  double Milliseconds(double part) const {
    return static_cast<double>(times_.Quantile(part)) / 1e6;
  }

  void BeginDue() {
    // Some at a time: answers are looked at in between.
    for (int i = 0; i < 256 && begun_ < begins_.size(); ++i, ++begun_) {
      if (begins_[begun_] > SecondsSince(start_)) return;
      begins_[begun_] = SecondsSince(start_);
      const int socket = sockets_[begun_] = NewSocket(AF_INET);
      SetNonBlocking(socket);
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<std::uint16_t>(port_));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
          errno != EINPROGRESS)
        Fail("connect");
      epoll_event event = {};
      event.events = EPOLLOUT;
      event.data.u64 = begun_;
      if (epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) != 0) Fail("epoll_ctl");
    }
  }

  int UntilNext() const {
    constexpr int kLookAgainMs = 100;
    if (begun_ == begins_.size()) return kLookAgainMs;
    const double wait = (begins_[begun_] - SecondsSince(start_)) * 1e3;
    return std::clamp(static_cast<int>(wait), 0, kLookAgainMs);
  }

  void Wait() {
    std::array<epoll_event, 256> events;
    const int count =
        epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), UntilNext());
    for (int i = 0; i < count; ++i) {
      epoll_event event = events[static_cast<std::size_t>(i)];
      if ((event.events & EPOLLOUT) != 0)
        Announce(event);
      else
        TakeAnswer(static_cast<std::size_t>(event.data.u64));
    }
  }

  void Announce(epoll_event event) {
    const int socket = sockets_[static_cast<std::size_t>(event.data.u64)];
    event.events = EPOLLIN;
    if (!SendAll(socket, {kAnnouncement, sizeof kAnnouncement}) ||
        epoll_ctl(epoll_, EPOLL_CTL_MOD, socket, &event) != 0)
      ++refused_;
  }

  void TakeAnswer(std::size_t index) {
    char answer[sizeof kAnnouncement];
    if (recv(sockets_[index], answer, sizeof answer, 0) != sizeof answer) {
      ++refused_;
    } else {
      ++taken_;
      last_ = SecondsSince(start_);
      times_.Add(static_cast<std::int64_t>((last_ - begins_[index]) * 1e9));
    }
    epoll_ctl(epoll_, EPOLL_CTL_DEL, sockets_[index], nullptr);
  }

  const Options& options_;
  const int port_;
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  const Clock::time_point start_ = Clock::now();
  std::vector<double> begins_;
  std::vector<int> sockets_;
  Histogram times_;
  std::size_t begun_ = 0, taken_ = 0;
  double last_ = 0;
  int refused_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("All agents of a node connect to it");
  Options options;
  app.add_option("--agents", options.Agents, "Connections")->check(CLI::Range(1, 28000));
  app.add_option("--backlog", options.Backlog, "Room in the node's accept queue");
  app.add_option("--work-us", options.WorkUs, "The node's work for a connection, microseconds");
  app.add_option("--spread", options.Spread, "Seconds over which the agents begin");
  app.add_option("--patience", options.Patience, "Seconds after which it is over");
  CLI11_PARSE(app, argc, argv);
  RaiseDescriptorLimit();
  const bool alone = EnterOwnNetwork();
  int port;
  const int listener = Listen(options.Backlog, &port);
  const pid_t node = fork();
  if (node < 0) Fail("fork");
  if (node == 0) RunNode(listener, options);
  const long before = Counter("ListenOverflows");
  Storm storm(options, port);
  storm.Run();
  storm.Print(Counter("ListenOverflows") - before, alone);
  kill(node, SIGKILL);
}
