// Waiting for descriptors: one loop for the clients and the nodes of a run.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <unordered_map>

namespace endurance {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;
using Microseconds = std::chrono::microseconds;

class Loop {
 public:
  using Handler = std::function<void(std::uint32_t events)>;

  Loop();
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void Watch(int fd, std::uint32_t events, Handler handler);
  void Change(int fd, std::uint32_t events);
  void Forget(int fd);  // before it is closed
  void RunOnce(int timeoutMs);

 private:
  struct Entry {
    int Fd;
    std::uint32_t Events;
    Handler Handle;
  };

  int epoll_;
  std::uint64_t lastId_ = 0;
  std::unordered_map<int, std::uint64_t> ids_;
  std::unordered_map<std::uint64_t, Entry> entries_;
};

}  // namespace endurance
