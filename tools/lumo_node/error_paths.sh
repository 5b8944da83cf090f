#!/bin/sh
# Tries how an application copes with a node that fails, as a job of a build server would:
#
#   error_paths.sh APPLICATION...    the application is given a node's name and a statement
#
# Each case gives the stand-in node its faults, runs the application and says what it made of them.
# Ends with 0 when every case came out as expected. The agent and the node are this script's own.
set -eu
[ $# -gt 0 ] || { echo "usage: error_paths.sh APPLICATION..." >&2; exit 2; }
export TAVRIN_TMP="${TMPDIR:-/tmp}/error_paths.$$"
mkdir "$TAVRIN_TMP"
control=$TAVRIN_TMP/control
CleanUp() {
  lumo_tcp -U >/dev/null 2>&1 || true
  [ ! -e "$control" ] || lumo_node --tell "$control" --stop
  rm -rf "$TAVRIN_TMP"
}
trap CleanUp EXIT

place=$(lumo_node --background --listen 0 --control "$control" \
  --sql 'create table t(a); insert into t values (42)')
# The last three numbers: a link without a word for a second is broken, within two seconds connected.
echo "SRV TCPIP 127.0.0.1 ${place##*:} 1 1 2" >"$TAVRIN_TMP/nodetab"
lumo_tcp -NODETAB="$TAVRIN_TMP/nodetab" >"$TAVRIN_TMP/out" 2>&1 </dev/null

failures=0
# NAME STATUS WORDS STATEMENT APPLICATION...: it ends so, and says something with these words.
Case() {
  name=$1 expected=$2 words=$3 statement=$4 status=0
  shift 4
  said=$("$@" SRV "$statement" 2>&1) || status=$?
  case $status:$said in
    "$expected:"*"$words"*) echo "ok      $name: $said" ;;
    *)
      echo "FAILED  $name: status $status, $said"
      failures=$((failures + 1))
      ;;
  esac
}
Faults() { lumo_node --tell "$control" "$@"; }

Case 'a good answer' 0 '42' 'select a from t' "$@"
Case 'a refusal' 1 'no such table' 'select a from nowhere' "$@"
Faults --delay 300
Case 'a slow answer' 0 '42' 'select a from t' "$@"
Faults --close-after 1
Case 'the node hangs up' 1 '4009' 'select a from t' "$@"
Faults --malformed strings
Case 'garbage' 1 '4008' 'select a from t' "$@"
Faults --silent
Case 'no answer' 1 '4065' 'select a from t' "$@"
Faults --deaf
Case 'the node reads nothing' 1 '4065' 'select a from t' "$@"
Faults
Case 'good again' 0 '42' 'select a from t' "$@"
lumo_node --tell "$control" --stop
Case 'the node has gone' 1 '4006' 'select a from t' "$@"
[ "$failures" -eq 0 ]
