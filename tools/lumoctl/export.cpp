// export: metrics for Prometheus, from the statistics page and from what the agent answers.
#include <chrono>
#include <cstdio>
#include <optional>
#include <vector>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/metrics.h"
#include "tools/lumoctl/ping.h"
#include "tools/lumoctl/table_file.h"
#include "tools/lumoctl/write_file.h"

namespace lumo::ctl {
namespace {

void AddVerdicts(const Options& options, Agent* agent, const std::vector<lumo_node>& nodes,
                 Metrics* metrics) {
  const auto verdicts =
      TestNodes(options, LinesToTest(options, agent, nodes), options.TimeoutMs(30));
  for (std::size_t i = 0; i < verdicts.size(); ++i) {
    const Verdict& verdict = verdicts[i];
    const auto add = [&](const char* name, const char* help, double value) {
      metrics->AddNode(name, help, MetricType::Gauge, nodes[i].name, value);
    };
    add("lumo_node_tested", "Whether the node could be tested.", !verdict.Untestable);
    if (verdict.Untestable) continue;
    add("lumo_node_alive", "Whether the node answered its test.", verdict.Alive);
    add("lumo_node_ping_seconds", "Time that the test of the node took.", verdict.Seconds);
    if (verdict.Alive || verdict.Code)
      add("lumo_node_ping_code", "Code of the agent that the test ended with, 0: alive.",
          verdict.Code);
  }
}

// What only an agent that answers tells: without a page its nodes, and the tests of them.
void AddAnswers(const Options& options, bool hasPage, Metrics* metrics) {
  using namespace std::chrono;
  Agent agent(options);
  const auto start = steady_clock::now();
  agent.Probe();
  metrics->Add("lumo_answer_seconds", "Time that the agent took to answer.", MetricType::Gauge,
               duration<double>(steady_clock::now() - start).count());
  const std::vector<lumo_node> nodes = agent.Nodes();
  if (!hasPage) {
    metrics->Add("lumo_nodes", "Number of nodes that the agent has.", MetricType::Gauge,
                 static_cast<double>(nodes.size()));
    const auto usual = static_cast<std::size_t>(agent.DefaultIndex());
    for (std::size_t i = 0; i < nodes.size(); ++i)
      metrics->AddNode("lumo_node_default", "Whether the node is the default.", MetricType::Gauge,
                       nodes[i].name, i == usual);
  }
  if (!options.NoPing) AddVerdicts(options, &agent, nodes, metrics);
}

bool Answers(const Options& options, bool hasPage, Metrics* metrics) {
  try {
    Metrics all = *metrics;  // nothing of an agent that stops answering in between
    AddAnswers(options, hasPage, &all);
    *metrics = all;
    return true;
  } catch (const Failure& failure) {
    if (failure.Status != kNoAgent && failure.Status != kTimeOver) throw;
    std::fprintf(stderr, "lumoctl: %s\n", failure.what());
    return false;
  }
}

std::optional<Page> PageIfAny(const Options& options) {
  try {
    return ReadPage(options);
  } catch (const Failure&) {
    return std::nullopt;
  }
}

// With a page the agent is asked only for what is to be tested: it may be stuck. An agent that is
// not there is a metric too, no failure.
Metrics Collect(const Options& options) {
  const std::optional<Page> page = PageIfAny(options);
  Metrics parts(AgentExchangeId(options));
  if (page && page->Alive) AddPage(*page, &parts);
  bool up = page && page->Alive;
  if (!page || !page->Alive || !options.NoPing) {
    const bool answers = Answers(options, up, &parts);
    up = up || answers;
  }
  parts.Add("lumo_up", "Whether the agent is there: its process lives, or it answers.",
            MetricType::Gauge, up);
  return parts;
}

std::string CollectText(const Options& options) {
  Options quick = options;
  quick.NoPing = true;
  return Collect(quick).Text();
}

}  // namespace

int RunExport(const Options& options) {
  if (!options.Listen.empty()) return ServeMetrics(options.Listen, CollectText, options);
  const Metrics metrics = Collect(options);
  if (options.Output.empty())
    Show(options, metrics.Value(), metrics.Text());
  else
    ReplaceFile(options.Output, options.Json ? JsonText(metrics.Value()) : metrics.Text());
  return kDone;
}

}  // namespace lumo::ctl
