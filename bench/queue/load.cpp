// One process that talks to a local kernel's queue itself, with so many requests under way as a
// relay would have clients: what the queue and the kernel can do. Prints what lumo_load prints, as
// far as it applies.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/load/histogram.h"
#include "bench/queue/queue.h"
#include "bench/sockets.h"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

std::int64_t Since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
}

class Talk {
 public:
  Talk(int key, int clients, std::size_t size)
      : queue_(OpenQueue(key)),
        size_(size - kLengthWord),
        started_(static_cast<std::size_t>(clients)) {
    for (int i = 0; i < clients; ++i) free_.push_back(static_cast<std::uint16_t>(i));
  }

  // What finds no room waits until an answer has been taken.
  void RunFor(double seconds) {
    const Clock::time_point begin = Clock::now();
    while (static_cast<double>(Since(begin)) < seconds * 1e9) {
      while (!free_.empty() && Ask(free_.back())) free_.pop_back();
      TakeAnswer();
    }
    seconds_ = static_cast<double>(Since(begin)) / 1e9;
  }

  void Forget() { latency_.Clear(); }
  void Finish() {
    const std::uint64_t trips = latency_.Count();
    const double p50 = Microseconds(0.5), p99 = Microseconds(0.99);
    while (free_.size() < started_.size()) TakeAnswer();
    std::printf(
        "{\"round_trips\": %llu, \"seconds\": %.6f, \"per_second\": %.1f, \"p50_us\": %.1f, "
        "\"p99_us\": %.1f, \"longest_us\": %.1f, \"cpu_us\": 0, \"all_cpu_us\": 0, \"errors\": "
        "%llu, \"stood_still\": false}\n",
        static_cast<unsigned long long>(trips), seconds_, static_cast<double>(trips) / seconds_,
        p50, p99, static_cast<double>(latency_.Largest()) / 1e3, errors_);
  }

 private:
  double Microseconds(double part) const {
    return static_cast<double>(latency_.Quantile(part)) / 1e3;
  }

  bool Ask(std::uint16_t tag) {
    std::memset(message_.Body, 'x', size_);
    message_.Type = kRequestType;
    Store(message_.Body + InBody(kTaskNameAt), static_cast<std::int32_t>(getpid()));
    Store(message_.Body + size_ - kTrailerSize + kAstIndAt, tag);
    if (!SendIfRoom(queue_, message_, size_)) return false;
    started_[tag] = Clock::now();
    ChangeSemaphore(queue_, 1);
    return true;
  }

  void TakeAnswer() {
    const std::size_t size = Receive(queue_, &message_, getpid());
    const auto tag = Load<std::uint16_t>(message_.Body + size - kTrailerSize + kAstIndAt);
    if (size != size_ || tag >= started_.size()) {
      ++errors_;
      return;
    }
    latency_.Add(Since(started_[tag]));
    free_.push_back(tag);
  }

  const MessageQueue queue_;
  const std::size_t size_;  // of a body
  std::vector<Clock::time_point> started_;
  std::vector<std::uint16_t> free_;
  QueueMessage message_ = {};
  Histogram latency_;
  double seconds_ = 0;
  unsigned long long errors_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Closed-loop load for a local kernel's queue");
  int key = 0, clients = 1;
  std::size_t size = kSmallestMessage;
  double seconds = 1, warmup = 0.2;
  app.add_option("--key", key, "Of the queue")->required();
  app.add_option("--clients", clients, "Requests under way at a time");
  app.add_option("--size", size, "Bytes of a request");
  app.add_option("--seconds", seconds, "Time to measure");
  app.add_option("--warmup", warmup, "Seconds before the measuring");
  app.allow_extras();  // what lumo_load knows beyond this is not looked at
  CLI11_PARSE(app, argc, argv);
  Talk talk(key, clients, size);
  talk.RunFor(warmup);
  talk.Forget();
  talk.RunFor(seconds);
  talk.Finish();
}
