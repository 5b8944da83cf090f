#!/usr/bin/env bash
# Checks that each source of the agent includes only what tools/layers.txt allows it.
set -euo pipefail
cd "$1"

awk '
  FNR == 1 { source = FILENAME; sub(/.*\//, "", source); sub(/\.cpp$/, "", source) }
  FILENAME ~ /layers\.txt$/ {
    if ($0 ~ /^#/ || NF == 0) next
    name = $1; sub(/:$/, "", name); known[name] = 1
    for (i = 2; i <= NF; ++i) allowed[name, $i] = 1
    next
  }
  FNR == 1 && !(source in known) { print FILENAME ": not listed in tools/layers.txt"; bad = 1 }
  /^#include "/ {
    header = $2; gsub(/"/, "", header)
    module = header; sub(/.*\//, "", module); sub(/\.h$/, "", module)
    if (module == source || module ~ /^(grow_array|wire|status|dbc|trace)$/) next
    if (!((source, module) in allowed)) {
      print FILENAME ":" FNR ": may not include " header; bad = 1
    }
  }
  END { exit bad }
' tools/layers.txt core/*.cpp client/*.cpp link/*.cpp protocols/*.cpp api/*.cpp ping/*.cpp
echo "layers: every source includes only what it may"
