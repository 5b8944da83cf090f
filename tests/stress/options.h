// How much the stress tests do. What stands here is the short form that belongs to every test run.
#pragma once

namespace stress {

struct Options {
  int Rounds = 3;            // without and with the stuck peers, in turn
  double Seconds = 0.3;      // measured of each round
  double MostRatio = 10;     // of the p99 with the stuck peers to that without
  bool RealTime = false;     // measure before all other work of the machine
  double MemorySeconds = 2;  // of flood and of clients that do not read
  double IdleSeconds = 2;    // over which an idle agent's processor time is taken
  int Cycles = 20;           // of start, serve, stop
};

extern Options options;

}  // namespace stress
