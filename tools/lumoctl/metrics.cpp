#include "tools/lumoctl/metrics.h"

#include <algorithm>
#include <cstdio>

namespace lumo::ctl {
namespace {

// Label values are UTF-8; a node's name may hold any byte.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : Printable(text)) {
    if (c == '\\' || c == '"') escaped += '\\';
    escaped += static_cast<unsigned char>(c) < 0x80 ? c : '?';
  }
  return escaped;
}

std::string NumberText(double value) {
  char text[48];
  std::snprintf(text, sizeof text, "%.15g", value);
  return text;
}

const char* TypeText(MetricType type) {
  switch (type) {
    case MetricType::Counter:
      return "counter";
    case MetricType::Histogram:
      return "histogram";
    case MetricType::Gauge:
      break;
  }
  return "gauge";
}

std::string TextOf(const Metric& metric) {
  std::string text = "# HELP " + metric.Name + ' ' + metric.Help + "\n# TYPE " + metric.Name + ' ' +
                     TypeText(metric.Type) + '\n';
  for (const Sample& sample : metric.Samples) {
    std::string labels;
    for (const auto& [label, value] : sample.Labels)
      labels += (labels.empty() ? "" : ",") + label + "=\"" + Escaped(value) + '"';
    text += metric.Name + sample.Suffix + '{' + labels + "} " + NumberText(sample.Value) + '\n';
  }
  return text;
}

// Two limits for each power of two: each is one of the histogram's own, so that no count is
// divided.
std::vector<std::uint32_t> Limits() {
  std::vector<std::uint32_t> limits;
  for (std::uint32_t bucket = 16; bucket < LUMO_STATS_BUCKETS; bucket += 8)
    limits.push_back(bucket);
  return limits;
}

double SecondsText(std::uint64_t microseconds) { return static_cast<double>(microseconds) / 1e6; }

}  // namespace

Metric& Metrics::Find(const std::string& name, const std::string& help, MetricType type) {
  for (Metric& metric : metrics_)
    if (metric.Name == name) return metric;
  metrics_.push_back({name, help, type, {}});
  return metrics_.back();
}

void Metrics::Add(const std::string& name, const std::string& help, MetricType type, double value) {
  Find(name, help, type).Samples.push_back({"", {{"exchange", exchange_}}, value});
}

void Metrics::AddNode(const std::string& name, const std::string& help, MetricType type,
                      const std::string& node, double value) {
  Metric& metric = Find(name, help, type);
  const Sample sample{"", {{"exchange", exchange_}, {"node", node}}, value};
  const bool known = std::any_of(metric.Samples.begin(), metric.Samples.end(),
                                 [&](const Sample& one) { return one.Labels == sample.Labels; });
  if (!known) metric.Samples.push_back(sample);
}

void Metrics::AddLatency(const std::string& name, const std::string& help, const std::string& node,
                         const lumo_stats_link& link) {
  Metric& metric = Find(name, help, MetricType::Histogram);
  Sample sample{"_bucket", {{"exchange", exchange_}, {"node", node}}, 0};
  for (const Sample& one : metric.Samples)
    if (one.Labels[1].second == node) return;
  std::uint64_t seen = 0;
  std::uint32_t bucket = 0;
  const auto labels = sample.Labels;
  for (const std::uint32_t limit : Limits()) {
    for (; bucket < limit; ++bucket) seen += link.latency[bucket];
    sample.Labels = labels;
    sample.Labels.emplace_back("le", NumberText(SecondsText(lumo_stats_bucket_floor(limit))));
    sample.Value = static_cast<double>(seen);
    metric.Samples.push_back(sample);
  }
  for (; bucket < LUMO_STATS_BUCKETS; ++bucket) seen += link.latency[bucket];
  sample.Labels = labels;
  sample.Labels.emplace_back("le", "+Inf");
  sample.Value = static_cast<double>(seen);
  metric.Samples.push_back(sample);
  metric.Samples.push_back({"_sum", labels, SecondsText(link.latency_sum)});
  metric.Samples.push_back({"_count", labels, static_cast<double>(seen)});
}

std::string Metrics::Text() const {
  std::string text;
  for (const Metric& metric : metrics_) text += TextOf(metric);
  return text;
}

Json Metrics::Value() const {
  Json all = Json::object();
  for (const Metric& metric : metrics_)
    for (const Sample& sample : metric.Samples) {
      Json labels = Json::object();
      for (const auto& [label, value] : sample.Labels) labels[label] = value;
      all[metric.Name + sample.Suffix].push_back(Json{{"labels", labels}, {"value", sample.Value}});
    }
  return all;
}

namespace {

template <class Record>
struct Field {
  const char *Name, *Help;
  MetricType Type;
  double (*Value)(const Record&);
};

constexpr MetricType kGauge = MetricType::Gauge, kCounter = MetricType::Counter;

double Value(std::uint64_t number) { return static_cast<double>(number); }
double Time(std::int64_t microseconds) { return static_cast<double>(microseconds) / 1e6; }

#define LUMO_AGENT(name, help, type, field)                                            \
  {                                                                                    \
    "lumo_" name, help, type, [](const Page& page) { return Value(page.Agent.field); } \
  }
#define LUMO_NODE(name, help, type, field)                                                       \
  {                                                                                              \
    "lumo_node_" name, help, type, [](const lumo_stats_link& link) { return Value(link.field); } \
  }

const Field<Page> kAgentFields[] = {
    {"lumo_start_time_seconds", "Time of day when the agent started.", kGauge,
     [](const Page& page) { return Time(page.Header.start_time); }},
    {"lumo_last_pass_age_seconds", "Time since the loop's latest pass began.", kGauge,
     [](const Page& page) { return page.SecondsSincePass(); }},
    {"lumo_longest_pass_seconds", "Longest time between two waits of the loop.", kGauge,
     [](const Page& page) { return Value(page.Agent.longest_pass) / 1e6; }},
    LUMO_AGENT("log_level", "Log level in force.", kGauge, log_level),
    LUMO_AGENT("nodes", "Number of nodes that the agent has.", kGauge, links),
    LUMO_AGENT("default_moves_total", "Times that another node became the default.", kCounter,
               default_moves),
    LUMO_AGENT("clients", "Connections of clients.", kGauge, clients),
    LUMO_AGENT("clients_most", "Most connections of clients at one time.", kGauge, clients_most),
    LUMO_AGENT("clients_ceiling", "Connections of clients for which there is room.", kGauge,
               clients_ceiling),
    LUMO_AGENT("clients_parked", "Connections that are not read until there is room.", kGauge,
               parked),
    LUMO_AGENT("clients_accepted_total", "Connections taken.", kCounter, accepted),
    LUMO_AGENT("clients_refused_total", "Connections that could not be taken.", kCounter, refused),
    LUMO_AGENT("clients_hung_up_total", "Connections closed by the client.", kCounter,
               closed[LUMO_STATS_HUNG_UP]),
    LUMO_AGENT("clients_receive_failed_total", "Connections closed: receiving failed.", kCounter,
               closed[LUMO_STATS_RECEIVE]),
    LUMO_AGENT("clients_bad_message_total", "Connections closed: what came is no message.",
               kCounter, closed[LUMO_STATS_BAD_MESSAGE]),
    LUMO_AGENT("clients_send_failed_total", "Connections closed: sending failed.", kCounter,
               closed[LUMO_STATS_SEND]),
    LUMO_AGENT("clients_not_reading_total", "Connections closed: answers were left unread.",
               kCounter, closed[LUMO_STATS_NOT_READING]),
    LUMO_AGENT("clients_closed_otherwise_total", "Connections closed for other reasons.", kCounter,
               closed[LUMO_STATS_OTHER]),
    LUMO_AGENT("requests_total", "Requests for nodes.", kCounter, requests),
    LUMO_AGENT("management_total", "Management commands.", kCounter, management),
    LUMO_AGENT("node_answers_total", "Answers of nodes.", kCounter, node_answers),
    LUMO_AGENT("agent_answers_total", "Answers to requests that the agent made itself.", kCounter,
               agent_answers),
    LUMO_AGENT("requests_in_flight", "Requests sent and not answered.", kGauge, in_flight),
    LUMO_AGENT("requests_waiting", "Requests that wait for a link.", kGauge, waiting),
    LUMO_AGENT("bytes_in_total", "Bytes of requests.", kCounter, bytes_in),
    LUMO_AGENT("bytes_out_total", "Bytes of answers.", kCounter, bytes_out),
    LUMO_AGENT("passes_total", "Passes of the loop.", kCounter, passes),
    LUMO_AGENT("ticks_total", "Ticks of the timer.", kCounter, ticks),
    LUMO_AGENT("log_lost_total", "Lines of the log that nobody took.", kCounter, log_lost),
    {"lumo_clients_unsent_bytes", "Answers that clients have not taken.", kGauge,
     [](const Page& page) {
       double sum = 0;
       for (const ClientOfPage& client : page.Clients) sum += client.unsent;
       return sum;
     }},
    {"lumo_clients_unsent_bytes_most", "The same of the client that has left most.", kGauge,
     [](const Page& page) {
       std::uint32_t most = 0;
       for (const ClientOfPage& client : page.Clients) most = std::max(most, client.unsent);
       return static_cast<double>(most);
     }},
};

const Field<lumo_stats_link> kNodeFields[] = {
    {"lumo_node_connected", "Whether the link is up.", kGauge,
     [](const lumo_stats_link& link) { return link.state == LUMO_STATS_CONNECTED ? 1.0 : 0.0; }},
    {"lumo_node_connecting", "Whether the link is being connected.", kGauge,
     [](const lumo_stats_link& link) { return link.state == LUMO_STATS_CONNECTING ? 1.0 : 0.0; }},
    {"lumo_node_state_since_seconds", "Time of day of the link's latest change of state.", kGauge,
     [](const lumo_stats_link& link) { return Time(link.since); }},
    LUMO_NODE("connects_tried_total", "Connects begun.", kCounter, connects_tried),
    LUMO_NODE("connects_made_total", "Connects made.", kCounter, connects_made),
    LUMO_NODE("connects_failed_total", "Connects failed.", kCounter, connects_failed),
    {"lumo_node_connect_failed_time_seconds", "Time of day of the latest failed connect; 0: none.",
     kGauge, [](const lumo_stats_link& link) { return Time(link.failed_at); }},
    {"lumo_node_connect_failed_code", "The agent's code of the latest failed connect.", kGauge,
     [](const lumo_stats_link& link) { return static_cast<double>(link.failed_code); }},
    {"lumo_node_connect_failed_errno", "The system's error of the latest failed connect.", kGauge,
     [](const lumo_stats_link& link) { return static_cast<double>(link.failed_errno); }},
    LUMO_NODE("requests_total", "Requests sent to the node.", kCounter, requests),
    LUMO_NODE("answers_total", "Answers of the node to requests.", kCounter, answers),
    LUMO_NODE("unasked_total", "Answers to nothing that the agent had sent.", kCounter, unasked),
    LUMO_NODE("failed_requests_total", "Requests answered by the agent: the link failed.", kCounter,
              failed_requests),
    LUMO_NODE("bytes_out_total", "Bytes of requests.", kCounter, bytes_out),
    LUMO_NODE("bytes_in_total", "Bytes of answers.", kCounter, bytes_in),
    LUMO_NODE("watchdogs_total", "Times that the link was taken down because nothing had come.",
              kCounter, watchdogs),
    LUMO_NODE("requests_in_flight", "Requests sent and not answered.", kGauge, in_flight),
    LUMO_NODE("requests_waiting", "Requests that wait for the link.", kGauge, waiting),
    LUMO_NODE("unsent_bytes", "Bytes that the node has not taken.", kGauge, unsent),
};

#undef LUMO_AGENT
#undef LUMO_NODE

}  // namespace

void AddPage(const Page& page, Metrics* metrics) {
  for (const Field<Page>& field : kAgentFields)
    metrics->Add(field.Name, field.Help, field.Type, field.Value(page));
  for (const lumo_stats_code& code : page.Agent.codes)
    if (code.used != 0)
      metrics->Add("lumo_agent_answers_code_" +
                       (code.code < 0 ? "minus_" + std::to_string(-std::int64_t{code.code})
                                      : std::to_string(code.code)) +
                       "_total",
                   "Answers of the agent with this code.", kCounter, Value(code.count));
  for (const auto& [row, link] : page.Links) {
    metrics->AddNode("lumo_node_default", "Whether the node is the default.", kGauge, link.name,
                     page.IsDefault(row));
    for (const Field<lumo_stats_link>& field : kNodeFields)
      metrics->AddNode(field.Name, field.Help, field.Type, link.name, field.Value(link));
    metrics->AddLatency("lumo_node_latency_seconds", "Time from a request leaving to its answer.",
                        link.name, link);
  }
}

}  // namespace lumo::ctl
