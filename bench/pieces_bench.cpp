// What single pieces of a round trip cost inside the agent.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "client/message.h"
#include "client/primitiv.h"
#include "core/stats.h"
#include "core/trace.h"
#include "link/link.h"

static constexpr char Module[] = "pieces_bench";

namespace {

constexpr std::int32_t kTaskName = 4711;

void FindTrailer(benchmark::State& state) {
  static ClientMessage msg;
  std::memset(static_cast<void*>(&msg), 0, sizeof msg);
  const std::uint16_t count = static_cast<std::uint16_t>(state.range(0) - 108);
  Put(msg.Strings, WireField<std::uint16_t>{0}, count);
  const std::size_t size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(LocateTrailer(&msg, size, kMessageMax));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(FindTrailer)->Arg(108)->Arg(4000)->Arg(8188);

MsgInfo InfoOf(Link* link, std::uint16_t astInd) {
  return {.Link = link, .TaskName = kTaskName, .Socket = 7, .AstInd = astInd};
}

// One more request beside those in flight is noted, found again and released.
void MatchAnswer(benchmark::State& state) {
  static Link link;
  ForgetRequests();
  const std::uint16_t inFlight = static_cast<std::uint16_t>(state.range(0));
  for (std::uint16_t i = 0; i < inFlight; ++i) {
    const MsgInfo info = InfoOf(&link, i);
    SaveMsgInfo(HERE, &info);
  }
  const MsgInfo mine = InfoOf(&link, inFlight);
  for (auto _ : state) {
    SaveMsgInfo(HERE, &mine);
    MsgInfo* const found = FindMsgInfo(&link, kTaskName, inFlight);
    benchmark::DoNotOptimize(found);
    ReleaseMsgInfo(found);
  }
  ForgetRequests();
}
BENCHMARK(MatchAnswer)->Arg(0)->Arg(1000)->Arg(16000);

void CompareNames(benchmark::State& state) {
  char table[kNodeNameMax + 1] = "NODE0001";
  char wanted[kNodeNameMax + 1] = "node0002";
  wanted[kNodeNameMax - 1] = static_cast<char>('0' + state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(table);
    benchmark::DoNotOptimize(wanted);
    benchmark::DoNotOptimize(CompareNodeName(table, wanted));
  }
}
BENCHMARK(CompareNames)->ArgName("last")->Arg(1)->Arg(2);

[[gnu::noinline]] int Untraced(int value) {
  benchmark::ClobberMemory();
  return value;
}

[[gnu::noinline]] int Traced(const char* file, int line, int value) {
  ENTER();
  benchmark::ClobberMemory();
  if (value < 0) return LEAVE(-1, "FAILED");
  return value;
}

void CallUntraced(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Untraced(1));
}
BENCHMARK(CallUntraced);

void CallTracedTraceOff(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Traced(HERE, 1));
}
BENCHMARK(CallTracedTraceOff);

// The page as the environment asks for: LUMO_STATS=1, or none.
class Statistics : public benchmark::Fixture {
 public:
  void SetUp(benchmark::State&) override {
    InitialiseStats();
    socketpair(AF_UNIX, SOCK_STREAM, 0, Pair);
    StatsClientOpened(Pair[0], 1);
    Row = NewLinkStats("SRV1", "TCPIP", "");
  }
  void TearDown(benchmark::State&) override {
    UninitStats();
    close(Pair[0]);
    close(Pair[1]);
  }
  int Pair[2] = {-1, -1}, Row = kNoStatsRow;
};

// The calls that a request and its answer make.
BENCHMARK_F(Statistics, RoundTrip)(benchmark::State& state) {
  for (auto _ : state) {
    StatsRequest(Pair[0], kTaskName, 108, false);
    StatsSent(Row, 108, {1, 0}, Pair[0], {1, 0});
    StatsNodeAnswer(Row, 108, StatsClock() - 100, {0, 0});
    StatsAnswer(Pair[0], {0, 108, 0}, {0, 0});
  }
}

BENCHMARK_F(Statistics, Pass)(benchmark::State& state) {
  for (auto _ : state) {
    StatsDefaultLink(Row);
    StatsLogLevel(0);
    StatsEndPass({0, 0});
    StatsPass();
  }
}

}  // namespace
