// Runs random scenarios at several log levels and compares what clients and nodes get: the level
// must change nothing but the log.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "tests/differential/scenario.h"
#include "tests/differential/world.h"

namespace {

using differential::Course;
using differential::Scenario;

struct Options {
  std::uint32_t Seed = std::random_device{}();
  double Seconds = 60;
  int Scenarios = 1 << 30;
  std::vector<std::string> Levels = {"0", "3", "15"};
  bool Verbose = false;
};

std::string LineOr(const Course& course, std::size_t at) {
  return at < course.size() ? course[at] : "nothing more";
}

// The first line in which the two differ; empty: none.
std::string Difference(const Course& one, const Course& other) {
  for (std::size_t i = 0; i < one.size() || i < other.size(); ++i) {
    if (LineOr(one, i) != LineOr(other, i))
      return "  " + LineOr(one, i) + "\n  " + LineOr(other, i) + "\n";
  }
  return {};
}

void PrintScenario(const Scenario& scenario) {
  std::string given;
  for (const std::string& option : scenario.Options) given += " " + option;
  std::printf("options:%s; stalled %u, LOCALS %d, LOCALI %d\n", given.c_str(), scenario.Stalled,
              scenario.Socket, scenario.Queue);
  for (std::size_t i = 0; i < scenario.Steps.size(); ++i) {
    std::printf("step %zu:", i + 1);
    for (const differential::Event& event : scenario.Steps[i])
      std::printf(" [%s]", differential::Describe(event).c_str());
    std::printf("\n");
  }
}

struct Count {
  int Same = 0, Different = 0, Once = 0;
};

// A difference counts when it shows again: two runs of one level may differ, too, where the system
// itself has been late with something.
void Compare(std::uint32_t seed, const Options& options, Count* count) {
  const Scenario scenario = differential::MakeScenario(seed);
  if (options.Verbose) PrintScenario(scenario);
  const std::string& base = options.Levels.front();
  const Course first = differential::Run(scenario, base);
  if (options.Verbose) {
    for (const std::string& line : first) std::printf("%s\n", line.c_str());
  }
  for (std::size_t i = 1; i < options.Levels.size(); ++i) {
    const std::string& level = options.Levels[i];
    const Course other = differential::Run(scenario, level);
    const std::string difference = Difference(first, other);
    if (difference.empty()) {
      ++count->Same;
      continue;
    }
    differential::settings.Careful = true;
    const bool again =
        !Difference(differential::Run(scenario, base), differential::Run(scenario, level)).empty();
    differential::settings.Careful = false;
    ++(again ? count->Different : count->Once);
    std::printf("seed %u: levels %s and %s differ%s:\n%s", seed, base.c_str(), level.c_str(),
                again ? "" : ", but not when repeated", difference.c_str());
    std::fflush(stdout);
  }
}

void AddOptions(CLI::App& app, Options* options) {
  app.add_option("--seed", options->Seed, "Of the first scenario; the next has the next number");
  app.add_option("--seconds", options->Seconds, "Time after which no further scenario is begun");
  app.add_option("--scenarios", options->Scenarios, "How many at most");
  app.add_option("--levels", options->Levels, "The first is compared with each of the others");
  app.add_option("--program", differential::settings.Program, "The agent, without its own alarm");
  app.add_flag("--ignore-link-numbers", differential::settings.IgnoreLinkNumbers,
               "Leave out the descriptor that a request carries to its node");
  app.add_flag("--verbose", options->Verbose, "Print each scenario, and its course at the first");
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  CLI::App app("Compares the agent at several log levels");
  Options options;
  AddOptions(app, &options);
  CLI11_PARSE(app, argc, argv);
  std::printf("seed %u\n", options.Seed);
  std::fflush(stdout);
  Count count;
  int run = 0;
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(options.Seconds);
  for (; run < options.Scenarios && std::chrono::steady_clock::now() < end; ++run)
    Compare(options.Seed + static_cast<std::uint32_t>(run), options, &count);
  std::printf("%d scenarios: %d comparisons the same, %d different, %d different once\n", run,
              count.Same, count.Different, count.Once);
  return run > 0 && count.Same > 0 && count.Different == 0 ? 0 : 1;
}
