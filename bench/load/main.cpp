// Keeps requests under way over many connections, checks every answer and prints what it took, as
// one JSON object. Exit status: 0 all answered, 1 wrong or lost answers, 3 it stood still.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "bench/frame.h"
#include "bench/load/engine.h"
#include "bench/sockets.h"
#include "lib/include/lumo.h"

namespace {

using bench::Measurement;
using bench::Options;

void AddOptions(CLI::App* app, Options* options) {
  auto* const target = app->add_option_group("target", "What the clients connect to");
  target->add_option("--agent", options->Agent, "Client socket of the agent")
      ->default_str("that of the environment");
  target->add_option("--unix", options->Unix, "UNIX socket of a byte relay to the node");
  target->add_option("--tcp", options->Tcp, "Port of the node or of a byte relay to it");
  target->require_option(0, 1);
  app->add_option("--host", options->Host, "Address that the port is at");
  app->add_option("--node", options->Node, "Node to name in the requests");
  app->add_option("--clients", options->Clients, "Connections")->check(CLI::Range(1, 1000));
  app->add_option("--depth", options->Depth, "Requests of a connection under way at a time")
      ->check(CLI::Range(1, 1000));
  app->add_option("--size", options->Size, "Bytes of a request")
      ->check(CLI::Range(bench::kSmallestMessage, bench::kLargestMessage));
  app->add_option("--idle", options->Idle, "Connections that ask once and keep quiet")
      ->check(CLI::Range(0, 1000));
  app->add_option("--held", options->Held, "Requests with the command HOLD, never answered")
      ->check(CLI::Range(0, 60000));
  app->add_option("--held-connections", options->HeldConnections, "Connections that send them")
      ->check(CLI::Range(1, 1000));
  app->add_option("--seconds", options->Seconds, "Time to measure");
  app->add_option("--warmup", options->Warmup, "Seconds before the measuring");
  app->add_option("--count", options->Count, "Round trips to measure, in place of a time");
  app->add_option("--stall-ms", options->StallMs, "So long without an answer: it stands still");
  app->add_option("--agent-pid", options->Pids, "Processes whose processor time is measured")
      ->delimiter(',');
  app->add_option("--other-pid", options->OtherPids, "More processes that share in the work")
      ->delimiter(',');
}

std::string UsualAgent() {
  char path[256] = "";
  lumo_socket_path(0, path, sizeof path);
  return path;
}

double Microseconds(std::int64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e3; }

void Print(const Options& options, const Measurement& result) {
  const double trips = static_cast<double>(result.Latency.Count());
  std::printf(
      "{\"clients\": %d, \"depth\": %d, \"size\": %zu, \"idle\": %d, \"held\": %d, "
      "\"round_trips\": %.0f, \"seconds\": %.6f, \"per_second\": %.1f, \"p50_us\": %.1f, "
      "\"p99_us\": %.1f, \"max_us\": %.1f, \"longest_us\": %.1f, \"cpu_us\": %.3f, \"all_cpu_us\": "
      "%.3f, "
      "\"errors\": %llu, \"stood_still\": %s}\n",
      options.Clients, options.Depth, options.Size, options.Idle, options.Held, trips,
      result.Seconds, result.Seconds > 0 ? trips / result.Seconds : 0,
      Microseconds(result.Latency.Quantile(0.5)), Microseconds(result.Latency.Quantile(0.99)),
      Microseconds(result.Latency.Largest()), Microseconds(result.LongestWait),
      trips > 0 ? result.CpuSeconds * 1e6 / trips : 0,
      trips > 0 ? result.AllCpuSeconds * 1e6 / trips : 0,
      static_cast<unsigned long long>(result.Errors), result.StoodStill ? "true" : "false");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Closed-loop load for the agent, a relay or a node that answers with what it is asked",
      "lumo_load");
  Options options;
  AddOptions(&app, &options);
  CLI11_PARSE(app, argc, argv);
  if (options.Agent.empty() && options.Unix.empty() && options.Tcp == 0)
    options.Agent = UsualAgent();
  if (options.Clients * options.Depth + options.Held > 0xFFFF) {
    std::fprintf(stderr, "lumo_load: more requests under way than tags (65535)\n");
    return 2;
  }
  bench::RaiseDescriptorLimit();
  const Measurement result = bench::MeasureLoad(options);
  Print(options, result);
  if (result.StoodStill) return 3;
  return result.Errors == 0 ? 0 : 1;
}
