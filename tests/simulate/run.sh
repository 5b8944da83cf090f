#!/usr/bin/env bash
# Stories of the whole agent in a simulated system, faster than the clock:
#
#   tests/simulate/run.sh --seeds A..B [--for SECONDS] [--traced-every N] [--times N]
#   tests/simulate/run.sh --seed N                plays one
#   tests/simulate/run.sh --seed N --log LEVEL    the same with the agent's log
#
# Each story is played at log level 0, and one in N (1 unless said) also at 15, which takes longest.
# With --times, which goes with --seed as well, each is so many times as long: 700 requests become
# thousands.
# A seed that finds something is told with the shortest story that finds it. The status is 1 when
# there are findings. Needs no network. LUMO_SIMULATE_BUILD names another build directory.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${LUMO_SIMULATE_BUILD:-build/simulate}
mkdir -p "$build"
{ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O2 -g1" &&
  cmake --build "$build" --target simulate; } >"$build/build.log" 2>&1 ||
  { cat "$build/build.log" >&2; exit 1; }
exec "$build/tests/simulate/simulate" "$@"
