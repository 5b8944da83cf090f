#!/usr/bin/env bash
# Checks that each source of the agent includes only headers of its own floor and of those below it,
# as tools/layers.txt lists them.
set -euo pipefail
cd "$1"

awk '
  FILENAME ~ /layers\.txt$/ {
    if ($1 == "floor") for (i = 3; i <= NF; ++i) floor[$i] = $2 + 0
    if ($1 == "up:") up[$2, $3] = 1
    next
  }
  FNR == 1 {
    source = FILENAME; sub(/.*\//, "", source); sub(/\.(cpp|h)$/, "", source)
    if (!(source in floor)) { print FILENAME ": stands on no floor of tools/layers.txt"; bad = 1 }
  }
  /^#include "/ {
    module = $2; gsub(/"/, "", module); sub(/.*\//, "", module); sub(/\.h$/, "", module)
    if ((source, module) in up) { used[source, module] = 1; next }
    if (floor[module] > floor[source]) {
      print FILENAME ":" FNR ": may not include " $2 ", which stands above it"; bad = 1
    }
  }
  END {
    for (call in up) if (!(call in used)) {
      split(call, part, SUBSEP); print "no source needs the upward call from " part[1] " to " part[2]; bad = 1
    }
    exit bad
  }
' tools/layers.txt core/*.{h,cpp} client/*.{h,cpp} link/*.{h,cpp} protocols/*.{h,cpp} api/*.{h,cpp} ping/*.{h,cpp}
echo "layers: no source includes what stands above it"
