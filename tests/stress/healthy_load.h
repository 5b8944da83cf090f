// Clients that ask one request after the other, and check and time every answer.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/agent.h"
#include "tests/support/client.h"

namespace stress {

struct LoadResult {
  std::vector<std::int64_t> Latencies;  // nanoseconds, sorted
  int Wrong = 0;                        // answers that do not belong to the request
  bool Stalled = false;                 // somebody got no answer for long

  std::int64_t Quantile(double part) const;  // 0 when there is none
};

class HealthyLoad {
 public:
  // So many clients, spread over the nodes; each has asked once.
  HealthyLoad(const test::Agent& agent, const std::vector<std::string>& nodes, int clients);
  // Until `over` says so; the requests under way are then answered too.
  LoadResult Run(const std::function<bool()>& over);
  LoadResult Run(double seconds);

 private:
  struct Asker {
    test::Client Client;
    std::string Node;
    test::Clock::time_point Sent = {};
    std::uint16_t Tag = 0;
    bool Waiting = false;
  };
  void Ask(Asker& asker);
  void Take(Asker& asker, LoadResult* result);

  std::vector<Asker> askers_;
  std::uint16_t lastTag_ = 0;  // all askers are one process
};

}  // namespace stress
