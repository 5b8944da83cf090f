#!/usr/bin/env bash
# A long isolation run over one transport in stages, each with a seed of its own: what a stage has
# proven stands in a file when it ends, and the next call goes on from there. Ends with 0 when the
# file has as many requests as are wanted, with 1 at the first stage whose account is not closed.
#   tests/endurance/stages.sh locali 10000000 FILE               stages of 250,000
#   tests/endurance/stages.sh locali 10000000 FILE --clients 96  further options: lumo_endurance --help
# A line of the file: requests, of these asked while another connection waited under the same name,
# answered with what the node meant for another connection, seconds, seed. STAGE sets the size of a
# stage, BUILD the build directory.
set -euo pipefail
cd "$(dirname "$0")/../.."
transport=$1 wanted=$2 file=$3
shift 3
endurance=${BUILD:-build/release}/tests/endurance/lumo_endurance
report=$(mktemp)
trap 'rm -f "$report"' EXIT

touch "$file"
total() { awk '{ sum += $1 } END { printf "%d", sum }' "$file"; }
figure() { sed -n "s/^ *$1 *\([0-9]*\)\$/\1/p" "$report"; }

while [ "$(total)" -lt "$wanted" ]; do
  begin=$SECONDS
  if ! "$endurance" --transport "$transport" --requests "${STAGE:-250000}" "$@" >"$report" 2>&1; then
    cat "$report"
    exit 1
  fi
  echo "$(figure 'asked, whole')" "$(figure 'while another connection waited under the same name')" \
    "$(figure 'among those of the same name with the answer to a later one')" \
    "$((SECONDS - begin))" "$(sed -n 's/^Seed //p' "$report")" >>"$file"
done
echo "$(total) requests over $transport: to a wrong connection 0, lost 0, answered twice 0"
