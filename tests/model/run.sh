#!/usr/bin/env bash
# Searches all that can happen on the board of a LOCALI link (board.pml), and that the search finds
# what is broken on purpose. Needs spin and a C compiler; takes two minutes and 600 MB.
#   tests/model/run.sh [directory for the search programs]
set -euo pipefail
model=$(cd "$(dirname "$0")" && pwd)/board.pml
work=${1:-$(mktemp -d)}
mkdir -p "$work"
cd "$work"

# search NAME DEFINITION...: prints the outcome of the search; 0 when it was complete and found no
# fault, 1 when it found one, otherwise it did not come to its end.
search() {
  local name=$1
  shift
  mkdir -p "$name"
  (
    cd "$name"
    spin -a "$@" "$model" >spin.txt
    cc -O2 -DSAFETY -DCOLLAPSE -DMEMLIM=2000 -o pan pan.c
    ./pan -E -m100000 >outcome.txt 2>&1
    grep -E 'assertion violated|states, stored' outcome.txt | sed "s/^/$name: /"
    ! grep -qE 'max search depth|Search not completed|out of memory' outcome.txt ||
      grep -q 'assertion violated' outcome.txt || return 2
    grep -q 'errors: 0$' outcome.txt
  )
}

failed=0
sound() {
  search "$@" || { echo "FAILED: $1 should be sound"; failed=1; }
}
broken() {
  local status=0
  search "$@" || status=$?
  [ "$status" -eq 1 ] || { echo "FAILED: $1 should be found broken"; failed=1; }
}

sound deaths
sound flush -DFLUSH -DREQUESTS=2
sound quiet -DQUIET -DREQUESTS=4 -DRECORDS=4
broken by-name -DBY_NAME
broken by-name-quiet -DBY_NAME -DQUIET
broken no-writing -DNO_WRITING
broken no-writer -DNO_WRITER -DFLUSH -DREQUESTS=2
broken no-word -DNO_WORD
exit "$failed"
