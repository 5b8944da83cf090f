#include "bench/load/engine.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "bench/frame.h"
#include "bench/load/request.h"
#include "bench/load/setup.h"
#include "bench/sockets.h"

namespace bench {
namespace {

constexpr int kEventsAtOnce = 256;
constexpr int kLookAgainMs = 50;
constexpr std::size_t kInputRoom = 2 * kLargestFrame;
constexpr double kNanoseconds = 1e9;

std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The processor time that all threads of the processes have used, in seconds.
double CpuTime(const std::vector<int>& pids) {
  double sum = 0;
  for (const int pid : pids) {
    std::error_code gone;
    const std::string threads = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads, gone)) {
      double nanoseconds = 0;
      std::ifstream(thread.path() / "schedstat") >> nanoseconds;
      sum += nanoseconds / kNanoseconds;
    }
  }
  return sum;
}

// A place for one request under way; its number is the request's AstInd.
struct Slot {
  std::uint64_t Sequence = 0;
  std::int64_t Start = 0;
  bool UnderWay = false;
};

struct Client {
  int Socket = -1;
  std::size_t Have = 0;
  std::array<char, kInputRoom> Input;
  std::string Unsent;
};

class Engine {
 public:
  explicit Engine(const Options& options)
      : options_(options),
        request_(options, "ECHO"),
        slots_(static_cast<std::size_t>(options.Clients * options.Depth)),
        clients_(static_cast<std::size_t>(options.Clients)) {
    if (epoll_ < 0) Fail("epoll_create1");
    for (std::size_t i = 0; i < clients_.size(); ++i) OpenClient(i);
  }

  Measurement Run() {
    const std::int64_t begin = Now();
    lastAnswer_ = begin;
    for (std::size_t slot = 0; slot < slots_.size(); ++slot) SendNext(slot, begin);
    const std::int64_t warm = begin + static_cast<std::int64_t>(options_.Warmup * kNanoseconds);
    RunUntil([&] { return now_ >= warm; });
    Measure();
    stopping_ = true;
    RunUntil([&] { return underWay_ == 0; });
    NoteUnanswered();
    return result_;
  }

 private:
  void OpenClient(std::size_t index) {
    clients_[index].Socket = Open(options_);
    SetNonBlocking(clients_[index].Socket);
    Watch(EPOLL_CTL_ADD, index, EPOLLIN);
  }

  void Watch(int operation, std::size_t index, std::uint32_t wanted) {
    epoll_event event = {};
    event.events = wanted;
    event.data.u64 = index;
    if (epoll_ctl(epoll_, operation, clients_[index].Socket, &event) != 0) Fail("epoll_ctl");
  }

  void Measure() {
    result_.Latency.Clear();
    measuring_ = true;
    const std::int64_t begin = Now();
    const double cpuBegin = CpuTime(options_.Pids), othersBegin = OthersCpuTime();
    const std::int64_t end = begin + static_cast<std::int64_t>(options_.Seconds * kNanoseconds);
    RunUntil(
        [&] { return options_.Count ? result_.Latency.Count() >= options_.Count : now_ >= end; });
    result_.CpuSeconds = CpuTime(options_.Pids) - cpuBegin;
    result_.AllCpuSeconds = result_.CpuSeconds + OthersCpuTime() - othersBegin;
    // A target that has stood still is measured until then.
    const std::int64_t stop = result_.StoodStill ? std::max(lastAnswer_, begin) : Now();
    result_.Seconds = static_cast<double>(stop - begin) / kNanoseconds;
    measuring_ = false;
  }

  double OthersCpuTime() const { return CpuTime(options_.OtherPids) + CpuTime({getpid()}); }

  template <class Condition>
  void RunUntil(Condition done) {
    now_ = Now();
    while (!done() && !result_.StoodStill && !lost_) {
      std::array<epoll_event, kEventsAtOnce> events;
      const int count = epoll_wait(epoll_, events.data(), kEventsAtOnce, kLookAgainMs);
      if (count < 0 && errno != EINTR) Fail("epoll_wait");
      for (int i = 0; i < count; ++i) Serve(events[static_cast<std::size_t>(i)]);
      now_ = Now();
      const std::int64_t quiet = now_ - lastAnswer_;
      result_.StoodStill = underWay_ > 0 && quiet > std::int64_t{options_.StallMs} * 1000000;
    }
  }

  void Serve(const epoll_event& event) {
    const std::size_t index = static_cast<std::size_t>(event.data.u64);
    if ((event.events & EPOLLOUT) != 0) SendUnsent(index);
    if ((event.events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) Receive(index);
  }

  void Receive(std::size_t index) {
    Client& client = clients_[index];
    const ssize_t got = recv(client.Socket, client.Input.data() + client.Have,
                             client.Input.size() - client.Have, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) {
      lost_ = true;
      ++result_.Errors;
      return;
    }
    client.Have += static_cast<std::size_t>(got);
    TakeAnswers(index, client);
  }

  void TakeAnswers(std::size_t index, Client& client) {
    const char* const input = client.Input.data();
    std::size_t at = 0;
    while (client.Have - at >= kLengthWord) {
      const std::size_t size = FrameSize(options_, input + at);
      if (size < kSmallestMessage || size > kLargestFrame) {
        lost_ = true;
        ++result_.Errors;
        return;
      }
      if (client.Have - at < size) break;
      TakeAnswer(index, {input + at, size});
      at += size;
    }
    client.Have -= at;
    if (at > 0 && client.Have > 0) std::memmove(client.Input.data(), input + at, client.Have);
  }

  void TakeAnswer(std::size_t index, std::string_view frame) {
    const Tag tag = TagOf(frame);
    const std::size_t at = tag.AstInd;
    const bool mine = at < slots_.size() && slots_[at].UnderWay && tag.Connection == index &&
                      slots_[at].Sequence == tag.Sequence && ClientOf(at) == index;
    if (!mine || !request_.IsAnsweredBy(frame)) {
      ++result_.Errors;
      return;
    }
    const std::int64_t now = Now();
    slots_[at].UnderWay = false;
    --underWay_;
    lastAnswer_ = now;
    result_.LongestWait = std::max(result_.LongestWait, now - slots_[at].Start);
    if (measuring_) result_.Latency.Add(now - slots_[at].Start);
    if (!stopping_) SendNext(at, now);
  }

  std::size_t ClientOf(std::size_t slot) const {
    return slot / static_cast<std::size_t>(options_.Depth);
  }

  void SendNext(std::size_t at, std::int64_t now) {
    const std::size_t index = ClientOf(at);
    slots_[at] = {.Sequence = ++lastSequence_, .Start = now, .UnderWay = true};
    ++underWay_;
    Send(index, request_.WithTag({.AstInd = static_cast<std::uint16_t>(at),
                                  .Sequence = lastSequence_,
                                  .Connection = static_cast<std::uint32_t>(index)}));
  }

  // What the socket does not take waits until it does.
  void Send(std::size_t index, std::string_view frame) {
    Client& client = clients_[index];
    if (!client.Unsent.empty()) {
      client.Unsent.append(frame);
      return;
    }
    frame.remove_prefix(SendSome(client, frame));
    if (frame.empty()) return;
    client.Unsent.assign(frame);
    Watch(EPOLL_CTL_MOD, index, EPOLLIN | EPOLLOUT);
  }

  void SendUnsent(std::size_t index) {
    Client& client = clients_[index];
    client.Unsent.erase(0, SendSome(client, client.Unsent));
    if (client.Unsent.empty()) Watch(EPOLL_CTL_MOD, index, EPOLLIN);
  }

  std::size_t SendSome(const Client& client, std::string_view bytes) {
    const ssize_t sent = send(client.Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<std::size_t>(sent);
    if (errno != EAGAIN && errno != EINTR) {
      lost_ = true;
      ++result_.Errors;
    }
    return 0;
  }

  void NoteUnanswered() {
    for (const Slot& slot : slots_) {
      if (slot.UnderWay) result_.LongestWait = std::max(result_.LongestWait, now_ - slot.Start);
    }
  }

  const Options& options_;
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  Request request_;
  std::vector<Slot> slots_;
  std::vector<Client> clients_;
  Measurement result_;
  std::int64_t now_ = 0, lastAnswer_ = 0;
  std::uint64_t lastSequence_ = 0;
  int underWay_ = 0;
  bool measuring_ = false, stopping_ = false, lost_ = false;
};

}  // namespace

Measurement MeasureLoad(const Options& options) {
  const std::vector<int> idle = OpenIdle(options);
  const std::vector<int> held = SendHeld(options, options.Clients * options.Depth);
  Engine engine(options);
  return engine.Run();
}

}  // namespace bench
