#include "tests/endurance/loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

namespace endurance {
namespace {

constexpr int kEventsAtOnce = 128;

void Control(int epoll, int operation, int fd, std::uint32_t events, std::uint64_t id) {
  epoll_event event = {};
  event.events = events;
  event.data.u64 = id;
  if (epoll_ctl(epoll, operation, fd, &event) != 0) throw std::runtime_error("epoll_ctl fails");
}

}  // namespace

Loop::Loop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) throw std::runtime_error("epoll_create1 fails");
}

Loop::~Loop() { close(epoll_); }

// An id of its own for each watch: an event that was fetched before its descriptor was closed and
// its number used again is recognised.
void Loop::Watch(int fd, std::uint32_t events, Handler handler) {
  const std::uint64_t id = ++lastId_;
  Control(epoll_, EPOLL_CTL_ADD, fd, events, id);
  ids_[fd] = id;
  entries_[id] = {fd, events, std::move(handler)};
}

void Loop::Change(int fd, std::uint32_t events) {
  const std::uint64_t id = ids_.at(fd);
  Entry& entry = entries_.at(id);
  if (entry.Events == events) return;
  entry.Events = events;
  Control(epoll_, EPOLL_CTL_MOD, fd, events, id);
}

void Loop::Forget(int fd) {
  const auto found = ids_.find(fd);
  if (found == ids_.end()) return;
  Control(epoll_, EPOLL_CTL_DEL, fd, 0, 0);
  entries_.erase(found->second);
  ids_.erase(found);
}

void Loop::RunOnce(int timeoutMs) {
  std::array<epoll_event, kEventsAtOnce> events;
  const int count = epoll_wait(epoll_, events.data(), kEventsAtOnce, timeoutMs);
  if (count < 0 && errno != EINTR) throw std::runtime_error("epoll_wait fails");
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    const auto found = entries_.find(event.data.u64);
    if (found == entries_.end()) continue;
    const Handler handler = found->second.Handle;  // it may forget itself
    handler(event.events);
  }
}

}  // namespace endurance
