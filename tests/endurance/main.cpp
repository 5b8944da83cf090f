#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <random>

#include "tests/endurance/world.h"

namespace {

constexpr char kDescription[] =
    "Puts an agent between clients that come and go and nodes that misbehave, and keeps account "
    "of\n"
    "every request: each is answered exactly once, to the connection that asked, or dropped by a\n"
    "rule that is named. Ends with 0 only when the account is closed.";

std::uint64_t AnySeed() {
  std::random_device random;
  return random();
}

void AddOptions(CLI::App* app, endurance::Options* options) {
  app->add_option("--transport", options->Transports, "tcp, locals or locali; may be repeated")
      ->required()
      ->check(CLI::IsMember({"tcp", "locals", "locali"}));
  app->add_option("--requests", options->Requests, "ends after so many");
  app->add_option("--seconds", options->Seconds, "ends after so long");
  app->add_option("--warm-up", options->WarmUp, "seconds; afterwards memory may not grow");
  app->add_option("--memory", options->MemoryPercent, "per cent by which it may grow; 0: any");
  app->add_option("--rate", options->Rate, "requests a second; 0: as many as possible");
  app->add_option("--seed", options->Seed, "of all that is left to chance");
  app->add_option("--clients", options->Clients, "connections at a time")->capture_default_str();
  app->add_option("--tasks", options->Tasks, "client processes")->capture_default_str();
  app->add_option("--break-after", options->BreakAfter,
                  "requests of a node's connection, on average")
      ->capture_default_str();
  app->add_option("--round", options->Round, "requests between two times of rest")
      ->capture_default_str();
  app->add_option("--round-seconds", options->RoundSeconds, "or so long")->capture_default_str();
  app->add_option("--tick", options->TickMs, "milliseconds between two ticks; 0: the agent's own")
      ->capture_default_str();
  app->add_option("--shared", options->SharedPercent,
                  "of 100 requests to a queue so many use a tag that other connections use too")
      ->capture_default_str();
  app->add_flag("--table", options->Table, "samples the agent's use of the system");
  app->add_option("--lie-at", options->LieAt,
                  "from this request on a node answers under others' names: the run must fail");
  app->add_option("--swap-at", options->SwapAt,
                  "from this request on answers of a shared name change places: the run must fail");
}

int Run(const endurance::Options& options) {
  std::printf("Seed %llu\n", static_cast<unsigned long long>(options.Seed));
  std::fflush(stdout);
  endurance::World world(options);
  try {
    world.Run();
  } catch (const endurance::Failure& failure) {
    world.Report();
    std::printf("FAILED, seed %llu: %s\n", static_cast<unsigned long long>(options.Seed),
                failure.what());
    return 1;
  }
  world.Report();
  if (testing::Test::HasFailure()) return 1;
  std::printf("To a wrong connection 0, lost 0, answered twice 0\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(kDescription);
  endurance::Options options;
  options.Seed = AnySeed();
  AddOptions(&app, &options);
  CLI11_PARSE(app, argc, argv);
  if (options.Requests == 0 && options.Seconds <= 0) {
    std::fprintf(stderr, "--requests or --seconds is needed\n");
    return 2;
  }
  try {
    return Run(options);
  } catch (const std::exception& error) {
    std::printf("FAILED: %s\n", error.what());
    return 1;
  }
}
