// Metrics in the text form that Prometheus reads. Labels are the agent's exchange id and the node's
// name, nothing else: no reading makes new series but by a new node.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "tools/lumoctl/output.h"
#include "tools/lumoctl/page.h"

namespace lumo::ctl {

enum class MetricType { Gauge, Counter, Histogram };

struct Sample {
  std::string Suffix;  // of the name, as histograms have it
  std::vector<std::pair<std::string, std::string>> Labels;
  double Value = 0;
};

struct Metric {
  std::string Name, Help;
  MetricType Type = MetricType::Gauge;
  std::vector<Sample> Samples;  // none: the metric is not written
};

// In the order in which names come first.
class Metrics {
 public:
  explicit Metrics(int exchangeId) : exchange_(std::to_string(exchangeId)) {}

  void Add(const std::string& name, const std::string& help, MetricType type, double value);
  // Of a node; of nodes with the same name the first counts.
  void AddNode(const std::string& name, const std::string& help, MetricType type,
               const std::string& node, double value);
  void AddLatency(const std::string& name, const std::string& help, const std::string& node,
                  const lumo_stats_link& link);
  std::string Text() const;
  Json Value() const;

 private:
  Metric& Find(const std::string& name, const std::string& help, MetricType type);
  std::string exchange_;
  std::vector<Metric> metrics_;
};

// All that a page holds.
void AddPage(const Page& page, Metrics* metrics);

// Answers GET /metrics on "ADDRESS:PORT" with the text of `collect`, until the process is told to
// end. Prints "listening on ADDRESS:PORT" when it is ready; port 0 is any free one. Fails with
// kUsage or kFailed.
int ServeMetrics(const std::string& place, std::string (*collect)(const Options&),
                 const Options& options);

}  // namespace lumo::ctl
