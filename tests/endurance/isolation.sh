#!/usr/bin/env bash
# Puts the agent between clients that come and go and nodes that misbehave, over each transport, and
# checks that every request is answered exactly once, to the connection that asked, or dropped by a
# rule that the report names. Ends with 0 only when all three accounts are closed.
#   tests/endurance/isolation.sh              1,000,000 requests over each transport
#   tests/endurance/isolation.sh 50000        so many over each
#   tests/endurance/isolation.sh 50000 --seed 7    further options: lumo_endurance --help
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

requests=${1:-1000000}
shift || true
install_packages "${build_packages[@]}"
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_tcp lumo_endurance

failed=0
for transport in tcp locals locali; do
  step "$requests requests over $transport"
  build/release/tests/endurance/lumo_endurance --transport "$transport" --requests "$requests" \
    "$@" || failed=1
done
exit "$failed"
