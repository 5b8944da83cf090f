#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include "tests/stress/options.h"

stress::Options stress::options;

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  CLI::App app("Stress tests of the agent");
  stress::Options& options = stress::options;
  app.add_option("--rounds", options.Rounds, "Rounds without and with stuck peers")
      ->check(CLI::PositiveNumber);
  app.add_option("--seconds", options.Seconds, "Measured time of a round");
  app.add_option("--most-ratio", options.MostRatio, "The p99 with stuck peers over that without");
  app.add_flag("--real-time", options.RealTime, "Measure before all other work of the machine");
  app.add_option("--memory-seconds", options.MemorySeconds, "Time that memory is watched");
  app.add_option("--idle-seconds", options.IdleSeconds, "Time over which the agent is idle");
  app.add_option("--cycles", options.Cycles, "Starts and stops")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  return RUN_ALL_TESTS();
}
