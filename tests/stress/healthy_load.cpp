#include "tests/stress/healthy_load.h"

#include <poll.h>

#include <algorithm>
#include <chrono>

namespace stress {
namespace {

constexpr std::uint16_t kLastTag = 0xDFFF;  // those above are taken by others
const std::string kText = "healthy";

}  // namespace

std::int64_t LoadResult::Quantile(double part) const {
  if (Latencies.empty()) return 0;
  const std::size_t last = Latencies.size() - 1;
  return Latencies[static_cast<std::size_t>(part * static_cast<double>(last))];
}

HealthyLoad::HealthyLoad(const test::Agent& agent, const std::vector<std::string>& nodes,
                         int clients) {
  for (std::size_t i = 0; i < static_cast<std::size_t>(clients); ++i)
    askers_.push_back({.Client = test::Client(agent), .Node = nodes[i % nodes.size()]});
  for (Asker& asker : askers_) {
    lumo::Message request = asker.Client.Request(asker.Node, kText);
    request.SetAstInd(++lastTag_);
    asker.Client.SendMessage(request);
    asker.Client.ExpectAnswer(request);
  }
}

void HealthyLoad::Ask(Asker& asker) {
  lastTag_ = lastTag_ < kLastTag ? static_cast<std::uint16_t>(lastTag_ + 1) : std::uint16_t{1};
  asker.Tag = lastTag_;
  lumo::Message request = asker.Client.Request(asker.Node, kText);
  request.SetAstInd(asker.Tag);
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  asker.Waiting = true;
  asker.Sent = test::Clock::now();
  asker.Client.SendBytes(frame);
}

void HealthyLoad::Take(Asker& asker, LoadResult* result) {
  const auto frame = asker.Client.ReceiveFrame(test::Milliseconds(0));
  if (!frame && asker.Client.Connected()) return;  // not all of it has come
  const auto time = std::chrono::nanoseconds(test::Clock::now() - asker.Sent);
  asker.Waiting = false;
  const auto answer = frame ? lumo::Decode(*frame) : std::nullopt;
  if (!answer || answer->AstInd() != asker.Tag || answer->CodErr != 0 ||
      answer->Strings[0] != kText) {
    ++result->Wrong;
  } else {
    result->Latencies.push_back(time.count());
  }
}

LoadResult HealthyLoad::Run(const std::function<bool()>& over) {
  LoadResult result;
  std::vector<pollfd> ready;
  for (Asker& asker : askers_) {
    ready.push_back({asker.Client.Connection().Socket(), POLLIN, 0});
    Ask(asker);
  }
  for (std::size_t waiting = askers_.size(); waiting > 0;) {
    if (poll(ready.data(), ready.size(), static_cast<int>(test::kPatience.count())) == 0) {
      result.Stalled = true;
      break;
    }
    const bool goOn = !over();
    for (std::size_t i = 0; i < askers_.size(); ++i) {
      if (!ready[i].revents || !askers_[i].Waiting) continue;
      Take(askers_[i], &result);
      if (askers_[i].Waiting) continue;
      if (goOn && askers_[i].Client.Connected())
        Ask(askers_[i]);
      else
        --waiting;
      if (!askers_[i].Waiting) ready[i].fd = -1;
    }
  }
  std::sort(result.Latencies.begin(), result.Latencies.end());
  return result;
}

LoadResult HealthyLoad::Run(double seconds) {
  const auto end = test::Clock::now() + std::chrono::duration<double>(seconds);
  return Run([end] { return test::Clock::now() >= end; });
}

}  // namespace stress
