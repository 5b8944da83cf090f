#include "tools/lumoctl/page.h"

#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/table_file.h"

namespace lumo::ctl {
namespace {

struct StatsCloser {
  void operator()(lumo_stats* stats) const { lumo_stats_close(stats); }
};
using Stats = std::unique_ptr<lumo_stats, StatsCloser>;

Stats OpenPage(const std::string& path) {
  lumo_stats* stats = nullptr;
  const lumo_status status = lumo_stats_open(path.c_str(), &stats);
  if (status == LUMO_OK) return Stats(stats);
  if (status == LUMO_BAD_GREETING)
    throw Failure(kNoAgent, path + " is no statistics page that this program can read");
  const int error = errno;
  if (error == EACCES)
    throw Failure(kNoAgent, "the statistics page " + path +
                                " cannot be read: Permission denied; root and the agent's own "
                                "account may");
  const char* const hint =
      error == ENOENT ? "; the agent keeps one when it is started with LUMO_STATS=1" : "";
  throw Failure(kNoAgent,
                "there is no statistics page " + path + ": " + std::strerror(error) + hint);
}

// A row that was never at rest is shown as it stands: better than none of a stopped agent.
void Require(lumo_status status, const std::string& path) {
  if (status != LUMO_OK && status != LUMO_TIMEOUT)
    throw Failure(kNoAgent, path + " cannot be read: " + lumo_status_text(status));
}

std::string Scaled(double value, const char* unit) {
  char text[32];
  std::snprintf(text, sizeof text, value < 10 ? "%.1f %s" : "%.0f %s", value, unit);
  return text;
}

double Seconds(std::int64_t microseconds) { return static_cast<double>(microseconds) / 1e6; }

Json Latency(const lumo_stats_link& link) {
  Json value{{"count", link.latency_count}, {"sum_us", link.latency_sum}};
  for (const auto& [name, share] :
       {std::pair{"p50_us", 0.5}, {"p90_us", 0.9}, {"p99_us", 0.99}, {"max_us", 1.0}})
    value[name] = lumo_stats_percentile(link.latency, share);
  Json buckets = Json::array();
  for (std::uint32_t i = 0; i < LUMO_STATS_BUCKETS; ++i)
    if (link.latency[i] != 0)
      buckets.push_back(Json{{"from_us", lumo_stats_bucket_floor(i)},
                             {"below_us", lumo_stats_bucket_floor(i + 1)},
                             {"count", link.latency[i]}});
  value["buckets"] = buckets;
  return value;
}

}  // namespace

std::string PagePath(const Options& options) { return AgentSocket(options) + ".stats"; }

Page ReadPage(const Options& options) {
  Page page;
  page.Path = PagePath(options);
  const Stats stats = OpenPage(page.Path);
  page.Alive = lumo_stats_alive(stats.get()) != 0;
  page.Taken = std::chrono::steady_clock::now();
  Require(lumo_stats_read_header(stats.get(), &page.Header, sizeof page.Header), page.Path);
  Require(lumo_stats_read_agent(stats.get(), &page.Agent, sizeof page.Agent), page.Path);
  for (std::uint32_t row = 0; row < page.Header.link_count; ++row) {
    lumo_stats_link link;
    Require(lumo_stats_read_link(stats.get(), row, &link, sizeof link), page.Path);
    if (link.used != 0) page.Links[row] = link;
  }
  for (std::uint32_t row = 0; row < page.Header.client_count; ++row) {
    ClientOfPage client;
    Require(lumo_stats_read_client(stats.get(), row, &client, sizeof(lumo_stats_client)),
            page.Path);
    client.Descriptor = row;
    if (client.used != 0) page.Clients.push_back(client);
  }
  return page;
}

double Page::SecondsSincePass() const {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 -
         Seconds(Agent.last_pass);
}

const lumo_stats_link* Page::Find(const std::string& name) const {
  for (const auto& [row, link] : Links)
    if (strcasecmp(link.name, name.c_str()) == 0) return &link;
  return nullptr;
}

std::vector<std::uint64_t> LatencySince(const lumo_stats_link& now, const lumo_stats_link* before) {
  std::vector<std::uint64_t> counts(now.latency, now.latency + LUMO_STATS_BUCKETS);
  if (before && before->serial == now.serial)
    for (std::size_t i = 0; i < counts.size(); ++i) counts[i] -= before->latency[i];
  return counts;
}

const char* StateText(std::uint32_t state) {
  if (state == LUMO_STATS_CONNECTED) return "up";
  if (state == LUMO_STATS_CONNECTING) return "connecting";
  return state == LUMO_STATS_DISCONNECTED ? "down" : "unknown";
}

std::string DurationText(double seconds) {
  if (seconds < 120) return Scaled(seconds, "s");
  if (seconds < 7200) return Scaled(seconds / 60, "min");
  if (seconds < 172800) return Scaled(seconds / 3600, "h");
  return Scaled(seconds / 86400, "d");
}

std::string CountText(double count) {
  char text[32];
  if (count < 10000)
    std::snprintf(text, sizeof text, "%.0f", count);
  else if (count < 999950)
    std::snprintf(text, sizeof text, "%.1fk", count / 1e3);
  else if (count < 999950e3)
    std::snprintf(text, sizeof text, "%.1fM", count / 1e6);
  else
    std::snprintf(text, sizeof text, "%.1fG", count / 1e9);
  return text;
}

std::string LatencyText(double microseconds) {
  if (microseconds <= 0) return "-";
  if (microseconds < 1000) return Scaled(microseconds, "us");
  return microseconds < 1e6 ? Scaled(microseconds / 1e3, "ms") : Scaled(microseconds / 1e6, "s");
}

double SecondsSince(std::int64_t timeOfDay) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 -
         Seconds(timeOfDay);
}

Json AgentJson(const Page& page) {
  const lumo_stats_agent& agent = page.Agent;
  Json closed = Json::object(), codes = Json::object();
  for (int reason = 0; reason <= LUMO_STATS_STOPPING; ++reason)
    closed[lumo_stats_reason_text(reason)] = agent.closed[reason];
  for (const lumo_stats_code& code : agent.codes)
    if (code.used != 0) codes[std::to_string(code.code)] = code.count;
  if (const std::uint64_t rest = agent.codes[LUMO_STATS_CODES - 1].count) codes["other"] = rest;
  const auto usual = page.Links.find(static_cast<std::uint32_t>(agent.default_link));
  return Json{{"pid", page.Header.pid},
              {"exchange_id", page.Header.exchange_id},
              {"alive", page.Alive},
              {"stuck", page.Stuck()},
              {"version", agent.version},
              {"options", agent.options},
              {"start_time", Seconds(page.Header.start_time)},
              {"log_level", agent.log_level},
              {"default", usual == page.Links.end() ? Json() : Json(usual->second.name)},
              {"default_moves", agent.default_moves},
              {"links", agent.links},
              {"clients", agent.clients},
              {"clients_most", agent.clients_most},
              {"clients_ceiling", agent.clients_ceiling},
              {"parked", agent.parked},
              {"accepted", agent.accepted},
              {"refused", agent.refused},
              {"closed", closed},
              {"requests", agent.requests},
              {"management", agent.management},
              {"node_answers", agent.node_answers},
              {"agent_answers", agent.agent_answers},
              {"agent_answers_by_code", codes},
              {"in_flight", agent.in_flight},
              {"waiting", agent.waiting},
              {"bytes_in", agent.bytes_in},
              {"bytes_out", agent.bytes_out},
              {"passes", agent.passes},
              {"ticks", agent.ticks},
              {"seconds_since_pass", page.SecondsSincePass()},
              {"longest_pass_us", agent.longest_pass},
              {"log_lost", agent.log_lost}};
}

Json LinkJson(const Page& page, std::uint32_t row, const lumo_stats_link& link) {
  Json failure;
  if (link.failed_at != 0)
    failure = Json{{"time", Seconds(link.failed_at)},
                   {"code", link.failed_code},
                   {"errno", link.failed_errno}};
  return Json{{"node", link.name},
              {"protocol", link.protocol},
              {"address", link.address},
              {"default", page.IsDefault(row)},
              {"state", StateText(link.state)},
              {"since", Seconds(link.since)},
              {"connects_tried", link.connects_tried},
              {"connects_made", link.connects_made},
              {"connects_failed", link.connects_failed},
              {"last_failure", failure},
              {"requests", link.requests},
              {"answers", link.answers},
              {"unasked", link.unasked},
              {"failed_requests", link.failed_requests},
              {"bytes_out", link.bytes_out},
              {"bytes_in", link.bytes_in},
              {"in_flight", link.in_flight},
              {"waiting", link.waiting},
              {"unsent", link.unsent},
              {"watchdogs", link.watchdogs},
              {"latency", Latency(link)}};
}

Json ClientJson(const ClientOfPage& client) {
  return Json{{"descriptor", client.Descriptor}, {"named_pid", client.named_pid},
              {"system_pid", client.system_pid}, {"since", Seconds(client.since)},
              {"requests", client.requests},     {"answers", client.answers},
              {"in_flight", client.in_flight},   {"waiting", client.waiting},
              {"unsent", client.unsent},         {"parked", client.parked != 0},
              {"last_code", client.last_code}};
}

}  // namespace lumo::ctl
