#!/usr/bin/env bash
# Compares the agent with relays of the plain calls and with a free hand, with direct connections
# and with other relays that are installed: on one machine, over distances (as root, with network
# namespaces of its own) and before local kernels; and judges what the agent must reach. Prints
# tables, writes them, comparison.csv and plots into build/bench/results (--out), and ends with 0 only
# when every figure was reached.
#   bench/run.sh              the whole, an hour
#   bench/run.sh --quick      ten minutes
#   bench/run.sh --install    installs the other relays and what the build needs first
#   bench/run.sh --only loopback,distance     parts of it
#   bench/run.sh --only against --against HEAD~3     beside an earlier commit, or another program
# Further options: --help. BENCH_BUILD names a build directory to be used as it is.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/tools/setup.sh"

if [ "${1:-}" = --install ]; then
  shift
  install_packages cmake ninja-build g++ libcli11-dev libsqlite3-dev libbenchmark-dev python3 \
    haproxy nginx-light libnginx-mod-stream socat iproute2
fi

build=${BENCH_BUILD:-}
if [ -z "$build" ]; then
  build=$root/build/bench
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS=-O2 \
    -DLUMO_HARDEN=ON -DLUMO_TESTS=OFF -DLUMO_BENCH=ON >/dev/null
  cmake --build "$build" --target lumo_tcp lumo_load bench/all
fi
export PYTHONDONTWRITEBYTECODE=1
exec python3 "$root/bench/harness.py" --build "$build" "$@"
