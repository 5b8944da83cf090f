// The closed loop: every client keeps its requests under way and sends the next one when an answer
// has come. One thread over one epoll instance.
#pragma once
#include <cstdint>

#include "bench/load/histogram.h"
#include "bench/load/options.h"

namespace bench {

struct Measurement {
  Histogram Latency;  // of the round trips that ended in the measured time
  double Seconds = 0;
  double CpuSeconds = 0;     // of the watched processes, in that time
  double AllCpuSeconds = 0;  // of the watched, the other processes and this one
  std::uint64_t Errors = 0;  // answers that do not belong to the request, or are none
  bool StoodStill = false;
  std::int64_t LongestWait = 0;  // nanoseconds; from the first request on, unanswered ones too
};

Measurement MeasureLoad(const Options& options);

}  // namespace bench
