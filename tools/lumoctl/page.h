// The agent's statistics page, read whole.
#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lib/include/lumo_stats.h"
#include "tools/lumoctl/options.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {

constexpr double kStuckSeconds = 30;  // the loop makes a pass every 2 seconds at least

struct ClientOfPage : lumo_stats_client {
  std::uint32_t Descriptor = 0;
};

// One reading. Links and clients that are in use, in the order of their rows.
struct Page {
  std::string Path;
  bool Alive = false;  // the process lives; else this is what it left behind
  lumo_stats_header Header{};
  lumo_stats_agent Agent{};
  std::map<std::uint32_t, lumo_stats_link> Links;  // by row
  std::vector<ClientOfPage> Clients;
  std::chrono::steady_clock::time_point Taken;

  double SecondsSincePass() const;  // by the monotonic clock, which reader and agent share
  bool Stuck() const { return Alive && SecondsSincePass() > kStuckSeconds; }
  bool IsDefault(std::uint32_t row) const {
    return Agent.default_link >= 0 && row == static_cast<std::uint32_t>(Agent.default_link);
  }
  const lumo_stats_link* Find(const std::string& name) const;  // case does not matter; the first
};

// Fails with kNoAgent when there is no page.
Page ReadPage(const Options& options);
std::string PagePath(const Options& options);

// The counts of a histogram since an earlier reading; all of them when the earlier one was of
// another link.
std::vector<std::uint64_t> LatencySince(const lumo_stats_link& now, const lumo_stats_link* before);

const char* StateText(std::uint32_t state);
std::string DurationText(double seconds);      // "12 s", "3 min", "5 h", "7 d"
std::string CountText(double count);           // "1234", "12.3k", "1.2M"
std::string LatencyText(double microseconds);  // "85 us", "1.2 ms", "3.4 s"; "-" for 0
double SecondsSince(std::int64_t timeOfDay);

Json AgentJson(const Page& page);
Json LinkJson(const Page& page, std::uint32_t row, const lumo_stats_link& link);
Json ClientJson(const ClientOfPage& client);

}  // namespace lumo::ctl
