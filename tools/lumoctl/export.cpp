// export: metrics in the text form that Prometheus reads.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <vector>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/output.h"
#include "tools/lumoctl/ping.h"
#include "tools/lumoctl/write_file.h"

namespace lumo::ctl {
namespace {

struct Sample {
  std::vector<std::pair<std::string, std::string>> Labels;
  double Value;
};

// A metric of one name; written only when it has samples.
struct Metric {
  const char *Name, *Help;
  std::vector<Sample> Samples;
};

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '"') escaped += '\\';
    escaped += c == '\n' ? ' ' : c;
  }
  return escaped;
}

std::string NumberText(double value) {
  char text[48];
  std::snprintf(text, sizeof text, "%.15g", value);
  return text;
}

std::string TextOf(const Metric& metric) {
  if (metric.Samples.empty()) return "";
  const std::string name = metric.Name;
  std::string text = "# HELP " + name + ' ' + metric.Help + "\n# TYPE " + name + " gauge\n";
  for (const Sample& sample : metric.Samples) {
    std::string labels;
    for (const auto& [label, value] : sample.Labels)
      labels += (labels.empty() ? "" : ",") + label + "=\"" + Escaped(Printable(value)) + '"';
    text +=
        name + (labels.empty() ? "" : '{' + labels + '}') + ' ' + NumberText(sample.Value) + '\n';
  }
  return text;
}

Json JsonOf(const Metric& metric) {
  Json samples = Json::array();
  for (const Sample& sample : metric.Samples) {
    Json labels = Json::object();
    for (const auto& [label, value] : sample.Labels) labels[label] = value;
    samples.push_back(Json{{"labels", labels}, {"value", sample.Value}});
  }
  return samples;
}

struct Metrics {
  Metric Up{"lumo_up", "Whether the agent answers.", {}};
  Metric Answer{"lumo_answer_seconds", "Time that the agent took to answer.", {}};
  Metric Nodes{"lumo_nodes", "Number of nodes that the agent has.", {}};
  Metric Info{"lumo_node_info", "A node, its protocol and address.", {}};
  Metric Default{"lumo_node_default", "Whether the node is the default.", {}};
  Metric Alive{"lumo_node_alive", "Whether the node answered its test.", {}};
  Metric Ping{"lumo_node_ping_seconds", "Time that the test of the node took.", {}};
  Metric Code{"lumo_node_ping_code", "Code of the agent that the test ended with, 0: alive.", {}};
  Metric Verdict{"lumo_node_ping_verdict", "The verdict of the test in words.", {}};

  std::vector<const Metric*> All() const {
    return {&Up, &Answer, &Nodes, &Info, &Default, &Alive, &Ping, &Code, &Verdict};
  }
};

void AddVerdicts(const Options& options, Agent* agent, const std::vector<lumo_node>& nodes,
                 Metrics* metrics) {
  const auto verdicts =
      TestNodes(options, LinesToTest(options, agent, nodes), options.TimeoutMs(30));
  for (std::size_t i = 0; i < verdicts.size(); ++i) {
    const Verdict& verdict = verdicts[i];
    const std::string number = std::to_string(i), name = nodes[i].name;
    const Sample sample{{{"node", name}, {"index", number}}, 0};
    const auto add = [&sample](Metric* metric, double value) {
      metric->Samples.push_back(sample);
      metric->Samples.back().Value = value;
    };
    add(&metrics->Alive, verdict.Alive);
    add(&metrics->Ping, verdict.Seconds);
    if (verdict.Alive || verdict.Code) add(&metrics->Code, verdict.Code);
    metrics->Verdict.Samples.push_back(
        {{{"node", name}, {"index", number}, {"verdict", verdict.Words}}, 1});
  }
}

void AddAgent(const Options& options, Agent* agent, Metrics* metrics) {
  using namespace std::chrono;
  const auto start = steady_clock::now();
  agent->Probe();
  metrics->Answer.Samples.push_back({{}, duration<double>(steady_clock::now() - start).count()});
  const std::vector<lumo_node> nodes = agent->Nodes();
  metrics->Nodes.Samples.push_back({{}, static_cast<double>(nodes.size())});
  const auto usual = static_cast<std::size_t>(agent->DefaultIndex());
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const lumo_node& node = nodes[i];
    const std::string number = std::to_string(i), protocol = lumo_protocol_name(node.protocol);
    Sample info{{{"node", node.name}, {"index", number}, {"protocol", protocol}}, 1};
    if (protocol == "TCPIP")
      info.Labels.emplace_back("address",
                               std::string(node.address) + ':' + std::to_string(node.port));
    metrics->Info.Samples.push_back(info);
    metrics->Default.Samples.push_back(
        {{{"node", node.name}, {"index", number}}, i == usual ? 1.0 : 0.0});
  }
  if (!options.NoPing) AddVerdicts(options, agent, nodes, metrics);
}

// An agent that does not answer is a metric too, no failure.
Metrics Collect(const Options& options) {
  Metrics metrics;
  bool up = false;
  try {
    Agent agent(options);
    AddAgent(options, &agent, &metrics);
    up = true;
  } catch (const Failure& failure) {
    if (failure.Status != kNoAgent && failure.Status != kTimeOver) throw;
    metrics = Metrics();
    std::fprintf(stderr, "lumoctl: %s\n", failure.what());
  }
  metrics.Up.Samples.push_back({{}, up ? 1.0 : 0.0});
  return metrics;
}

}  // namespace

int RunExport(const Options& options) {
  const Metrics metrics = Collect(options);
  std::string text;
  Json value = Json::object();
  for (const Metric* metric : metrics.All()) {
    text += TextOf(*metric);
    if (!metric->Samples.empty()) value[metric->Name] = JsonOf(*metric);
  }
  if (options.Output.empty())
    Show(options, value, text);
  else
    ReplaceFile(options.Output, options.Json ? JsonText(value) : text);
  return kDone;
}

}  // namespace lumo::ctl
