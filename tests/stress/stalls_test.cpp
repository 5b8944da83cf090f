// Clients and nodes that hang in every way, all at once: what the others notice of them, and what
// they cost.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/stress/healthy_load.h"
#include "tests/stress/options.h"
#include "tests/stress/process_figures.h"
#include "tests/stress/real_time.h"
#include "tests/stress/stuck_peers.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace stress {
namespace {

using test::Agent;
using test::Client;
using test::EchoNode;
using test::Node;

constexpr int kHealthyClients = 8;
constexpr double kWarmUpSeconds = 0.1;
constexpr std::size_t kKilobyte = 1024, kMegabyte = 1024 * kKilobyte;

// An agent with healthy nodes and clients beside whatever else there is.
class Scene {
 public:
  Scene() {
    late_.Stall();
    agent_.Nodetab(one_.Line("ONE") + two_.Line("TWO") + stuck_.Nodetab() +
                   late_.Line("LATE", "0 0 20") + told_.Line("TOLD"));
    agent_.Start();
    load_.emplace(agent_, std::vector<std::string>{"ONE", "TWO"}, kHealthyClients);
  }
  LoadResult Measure(double seconds) {
    load_->Run(kWarmUpSeconds);
    return load_->Run(seconds);
  }
  LoadResult MeasureFirst(double seconds) {
    if (!options.RealTime) return Measure(seconds);
    const RealTime first({agent_.Pid()}, stuck_.Pids());
    EXPECT_TRUE(first.Granted()) << "only root may measure so";
    return Measure(seconds);
  }
  // Clients of nodes in trouble get their answers, a dead client is told of; while others are
  // served.
  void ExpectRulesHold();
  void ExpectStop() {
    const auto begin = test::Clock::now();
    EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_LT(test::Clock::now() - begin, test::Milliseconds(5000));
  }

  Agent agent_;
  EchoNode one_, two_;
  StuckPeers stuck_;

 private:
  void ExpectTimeouts();
  void ExpectDeathIsTold();

  Node late_;  // takes no connection
  Node told_;  // hears of a dead client
  std::optional<HealthyLoad> load_;
};

// Agent::Tick() waits for an agent at rest; this one is busy.
void BusyTick(Agent& agent) {
  agent.Signal(SIGALRM);
  agent.Barrier();
}

// The code of the agent's own answer to a request, within so many ticks.
int CodeWithin(Agent& agent, Client& client, const lumo::Message& request, int ticks) {
  for (int tick = 0; tick <= ticks; ++tick) {
    if (tick > 0) BusyTick(agent);
    const auto answer = client.Receive(test::Milliseconds(0));
    if (!answer) continue;
    EXPECT_EQ(answer->AstInd(), request.AstInd());
    return answer->CodErr;
  }
  return 0;
}

void Scene::ExpectTimeouts() {
  constexpr int kTicks = 13;  // 20 seconds, as both nodes have it, and what is added to them
  Client watching(agent_), connecting(agent_);
  const lumo::Message watched = watching.Send("STOPPED"), awaited = connecting.Send("LATE");
  EXPECT_EQ(CodeWithin(agent_, watching, watched, kTicks), 4065);
  EXPECT_EQ(CodeWithin(agent_, connecting, awaited, kTicks), 4058);
}

void Scene::ExpectDeathIsTold() {
  test::LivingProcess application;
  Client client(agent_, application.Pid());
  client.Send("TOLD");
  told_.ExpectFirstRequest();
  const pid_t pid = application.Pid();
  application.Kill();
  BusyTick(agent_);
  EXPECT_EQ(told_.ReadControl(), (test::Control{2, static_cast<std::uint32_t>(pid)}));
}

void Scene::ExpectRulesHold() {
  std::atomic<bool> over{false};
  LoadResult result;
  std::thread others([&] { result = load_->Run([&] { return over.load(); }); });
  ExpectTimeouts();
  ExpectDeathIsTold();
  over = true;
  others.join();
  EXPECT_FALSE(result.Stalled);
  EXPECT_EQ(result.Wrong, 0);
  EXPECT_GE(result.Latencies.size(), static_cast<std::size_t>(kHealthyClients));
}

struct Round {
  double Median = 0, P99 = 0, PerSecond = 0;  // microseconds
};

Round Figures(const LoadResult& result) {
  EXPECT_FALSE(result.Stalled);
  EXPECT_EQ(result.Wrong, 0);
  EXPECT_GT(result.Latencies.size(), 100u);
  return {.Median = static_cast<double>(result.Quantile(0.5)) / 1e3,
          .P99 = static_cast<double>(result.Quantile(0.99)) / 1e3,
          .PerSecond = static_cast<double>(result.Latencies.size()) / options.Seconds};
}

Round Undisturbed() {
  Scene scene;
  const Round round = Figures(scene.MeasureFirst(options.Seconds));
  scene.ExpectStop();
  return round;
}

Round Disturbed() {
  Scene scene;
  scene.stuck_.Attach(scene.agent_, StuckPeers::Pace::Steady);
  const Round round = Figures(scene.MeasureFirst(options.Seconds));
  scene.ExpectRulesHold();
  scene.ExpectStop();
  return round;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double MedianOf(const std::vector<Round>& rounds, double Round::*figure) {
  std::vector<double> values;
  for (const Round& round : rounds) values.push_back(round.*figure);
  return Median(values);
}

void Print(const char* name, const std::vector<Round>& rounds) {
  std::printf("%s, medians of %zu rounds: p50 %.0f us, p99 %.0f us, %.0f a second; p99 of each:",
              name, rounds.size(), MedianOf(rounds, &Round::Median), MedianOf(rounds, &Round::P99),
              MedianOf(rounds, &Round::PerSecond));
  for (const Round& round : rounds) std::printf(" %.0f", round.P99);
  std::printf("\n");
}

// Microseconds that may go by for want of a processor: the stuck peers too need one, and whatever
// else goes on.
double Unavoidable() { return options.RealTime ? 0 : 20000; }

TEST(Stalls, HoldNobodyElseUp) {
  std::vector<Round> without, with;
  for (int i = 0; i < options.Rounds && !testing::Test::HasFailure(); ++i) {
    without.push_back(Undisturbed());
    with.push_back(Disturbed());
  }
  Print("without stuck peers", without);
  Print("with stuck peers", with);
  const double undisturbed = MedianOf(without, &Round::P99),
               disturbed = MedianOf(with, &Round::P99);
  std::printf("ratio of the p99: %.2f\n", disturbed / undisturbed);
  EXPECT_LE(disturbed, std::max(options.MostRatio * undisturbed, Unavoidable()));
}

// What the agent may keep for its peers, from its own limits.
//
// Answers: a client with more than 1 MiB unsent is closed, and that is looked at after each answer.
// Requests: clients are parked as soon as their link has 64 KiB unsent, so that each of those that
// ask it adds one at most; the room for both doubles as it grows. Of every client a frame that has
// not come whole is kept, of every link twice as much. Requests that wait for a connection are
// few here: those of one client that asks once.
constexpr std::size_t kFrame = 8192;
constexpr std::size_t kAnswers = StuckPeers::kDeafClients * (kMegabyte + kFrame);
constexpr std::size_t kRequests =
    StuckPeers::kDeafNodes * 2 * (64 * kKilobyte + StuckPeers::kAskersOfDeafNode * kFrame);
constexpr std::size_t kClients = kHealthyClients + 14, kLinks = 9;
constexpr std::size_t kBeginnings = kClients * kFrame + kLinks * 2 * kFrame;
constexpr std::size_t kKept = kAnswers + kRequests + kBeginnings;

// What a client that was thrown out had may stay with the process's allocator, and while a buffer
// grows there are two. A sanitizer's allocator keeps more; how much it is told.
#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kAllocator = kKept + 16 * kMegabyte;
#else
constexpr std::size_t kAllocator = kKept;
#endif

void LimitSanitizer() {
  const char* const set = std::getenv("ASAN_OPTIONS");
  const std::string options = (set ? std::string(set) + ":" : "") + "quarantine_size_mb=1";
  setenv("ASAN_OPTIONS", options.c_str(), 1);
}

std::size_t AskedInVain(const Scene& scene) {
  return static_cast<std::size_t>(scene.stuck_.UnreadRequests()) * lumo::kMaxMessage;
}

// For half of the time, and on a busy machine for as long as it takes until there was so much.
void LoadUntil(Scene& scene, std::size_t bytes) {
  constexpr int kMostRounds = 20;
  for (int round = 0; round < kMostRounds; ++round) {
    Figures(scene.Measure(options.MemorySeconds / 2));
    if (AskedInVain(scene) > bytes && scene.stuck_.FloodBytes() > bytes) return;
  }
}

TEST(Stalls, MemoryStaysBounded) {
  LimitSanitizer();
  Scene scene;
  scene.Measure(kWarmUpSeconds);
  const std::size_t before = MemoryOf(scene.agent_.Pid(), "VmRSS");
  scene.stuck_.Attach(scene.agent_, StuckPeers::Pace::Fastest);
  LoadUntil(scene, kMegabyte);
  const std::size_t halfWay = MemoryOf(scene.agent_.Pid(), "VmHWM");
  LoadUntil(scene, 2 * kMegabyte);
  const std::size_t after = MemoryOf(scene.agent_.Pid(), "VmHWM");
  const std::size_t asked = AskedInVain(scene);
  std::printf(
      "resident %zu kB before, at most %zu kB half-way, %zu kB in the end; kept by rule at "
      "most %zu kB; answers not read %zu kB, flood %zu kB\n",
      before / kKilobyte, halfWay / kKilobyte, after / kKilobyte, kKept / kKilobyte,
      asked / kKilobyte, static_cast<std::size_t>(scene.stuck_.FloodBytes()) / kKilobyte);
  EXPECT_LE(after - before, kKept + kAllocator);
  EXPECT_GT(asked, 2 * kMegabyte) << "the client was never thrown out";
  EXPECT_GT(scene.stuck_.FloodBytes(), 2 * kMegabyte);
  scene.ExpectStop();
}

}  // namespace
}  // namespace stress
