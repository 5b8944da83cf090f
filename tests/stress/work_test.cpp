// The agent's work for one round trip, in instructions as callgrind counts them: idle and parked
// connections, requests in flight and links cost the others next to nothing.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace stress {
namespace {

constexpr int kLinks = 200, kInFlight = 16000, kParked = 400, kIdle = 380;
constexpr int kSavedUntilParked = 32;
constexpr int kRoundTrips = 1000;
constexpr double kMostRatio = 1.3;
constexpr test::Milliseconds kUnderValgrind{120000};

std::string LinkName(int number) { return "L" + std::to_string(number); }

// An agent under callgrind, without ticks of its own.
class CountedAgent {
 public:
  explicit CountedAgent(bool crowded) : crowded_(crowded) {
    const std::string start = agent_.Folder() / "start";
    test::WriteFile(start,
                    "#!/bin/sh\nexec /usr/bin/valgrind -q --tool=callgrind "
                    "--callgrind-out-file='" +
                        Counts() + "' '" LUMO_TCP_UNTIMED_PATH "' \"$@\"\n");
    std::filesystem::permissions(start, std::filesystem::perms::owner_all);
    slow_.Stall();
    silent_.Listen(2 * kLinks);  // connections wait there, connected, with what they bring
    std::string table = echo_.Line("E") + slow_.Line("SLOW");
    for (int i = 0; i < kLinks; ++i) table += silent_.Line(LinkName(i));
    agent_.Nodetab(table).LogLevel("0").Program(start).Option("-NODAEMON");
    agent_.Spawn();
    if (!agent_.WaitUntilReady(kUnderValgrind))
      throw std::runtime_error("no agent starts under valgrind");
    test::Client(agent_).Ask("E", "the link is up, with a number that links can have");
    if (crowded_) Crowd();
  }

  // All the instructions of a run in which a client makes so many round trips.
  long Run(int roundTrips) {
    test::Client client(agent_);
    for (int i = 0; i < roundTrips; ++i) {
      if (client.Ask("E", "a request").Strings[0] != "a request")
        throw std::runtime_error("a request is not answered by its node");
    }
    client.Close();
    Settle();
    agent_.Signal(SIGTERM);
    EXPECT_EQ(agent_.Wait(kUnderValgrind), 0);
    std::ifstream file(Counts());
    long total = 0;
    for (std::string line; std::getline(file, line);) {
      if (std::sscanf(line.c_str(), "summary: %ld", &total) == 1) return total;
      if (std::sscanf(line.c_str(), "totals: %ld", &total) == 1) return total;
    }
    throw std::runtime_error("callgrind has counted nothing");
  }

 private:
  std::string Counts() const { return agent_.Folder() / "counts"; }
  void Settle() {
    EXPECT_TRUE(test::WaitFor([&] { return test::WaitsForEvents(agent_.Pid()); }, kUnderValgrind));
  }
  test::Client& NewClient() {
    clients_.push_back(std::make_unique<test::Client>(agent_));
    return *clients_.back();
  }
  void Crowd() {
    test::Client& busy = NewClient();
    for (int i = 0; i < kInFlight; ++i) busy.Send(LinkName(i % kLinks));
    for (int i = 0; i < kIdle; ++i) NewClient();
    for (int i = 0; i < kParked; ++i) {
      test::Client& client = NewClient();
      for (int request = 0; request <= kSavedUntilParked; ++request) client.Send("SLOW");
    }
    Settle();
  }

  const bool crowded_;
  test::EchoNode echo_;
  test::Node silent_, slow_{test::Node::Start::Bound};
  test::Agent agent_;
  std::vector<std::unique_ptr<test::Client>> clients_;
};

double InstructionsOfARoundTrip(bool crowded) {
  const long once = CountedAgent(crowded).Run(kRoundTrips);
  const long twice = CountedAgent(crowded).Run(2 * kRoundTrips);
  return static_cast<double>(twice - once) / kRoundTrips;
}

TEST(Work, OfARoundTripDoesNotGrowWithWhatElseThereIs) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const double alone = InstructionsOfARoundTrip(false), crowded = InstructionsOfARoundTrip(true);
  std::printf(
      "instructions of a round trip: %.0f alone, %.0f beside %d idle and %d parked "
      "connections, %d requests in flight, %d links: %.2f times\n",
      alone, crowded, kIdle, kParked, kInFlight, kLinks, crowded / alone);
  EXPECT_LE(crowded, kMostRatio * alone);
}

}  // namespace
}  // namespace stress
