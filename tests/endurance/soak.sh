#!/usr/bin/env bash
# Keeps an agent busy for some minutes with all transports, faults and management commands, and
# checks its memory, descriptors, children and answers. The memory resident when no client is
# connected (every 5 seconds; the median of 15 such times) may grow by 2 per cent after the warm-up
# (a sixth of the time, at least 20 seconds).
#   tests/endurance/soak.sh MINUTES    further options: lumo_endurance --help
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

minutes=${1:?usage: tests/endurance/soak.sh MINUTES}
shift
install_packages "${build_packages[@]}"
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_tcp lumo_endurance

seconds=$((minutes * 60))
warm_up=$((seconds / 6 > 20 ? seconds / 6 : 20))
step "Soak for $minutes minutes, of which $warm_up seconds are the warm-up"
exec build/release/tests/endurance/lumo_endurance --transport tcp --transport locals \
  --transport locali --seconds "$seconds" --warm-up "$warm_up" --memory 2 --rate 2000 --tick 0 \
  --round-seconds 5 --table "$@"
