#!/usr/bin/env bash
# Fuzzes every target for a number of seconds of processor time, one after the other:
#
#   tests/fuzz/run.sh SECONDS [TARGET...]
#
# What a target learns is kept under build/fuzz/learned and used by the next run. An input that
# finds something goes to build/fuzz/findings/TARGET; once understood it belongs to
# regressions/TARGET in the tree. Ends with a table: processor time, executions, coverage of the
# lines that the target is about, findings. The status is 1 when there are findings. Needs clang 14
# with its runtime library and llvm-cov, and no network. LUMO_FUZZ_BUILD names another build
# directory.
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: $0 SECONDS [TARGET...]" >&2; exit 2; }
seconds=$1
shift
cd "$(dirname "$0")/../.."
source=tests/fuzz
build=${LUMO_FUZZ_BUILD:-build/fuzz}

# What each target is about: sources, for the coverage of their lines.
declare -A subject=(
  [client_frame]="core/stream.cpp client/message.cpp client/clntxch.cpp"
  [tcp_packet]="core/stream.cpp client/message.cpp protocols/lumo_tcp.cpp link/link.cpp"
  [local_frame]="core/stream.cpp client/message.cpp protocols/lsock.cpp link/link.cpp"
  [lipc_message]="protocols/lipc_reader.cpp protocols/lipc_board.cpp client/message.cpp"
  [pipe_record]="protocols/lipc.cpp protocols/lipc_board.cpp"
  [nodetab_line]="link/nodetab.cpp protocols/address_text.h protocols/protload.cpp"
  [options]="core/init.cpp"
  [management]="api/dbca.cpp link/link.cpp client/primitiv.cpp"
  [agent]="core client link protocols api ping"
)
# The functions that read what is hostile, for the coverage of theirs: of the sources above.
frames="ReadFramei|ReadNext|Look|MakeRoom|WholeFrame|HandOut|TellEnd|FrameSize|LengthOf|InBounds\
|LocateTrailer|ZeroUpTo"
declare -A parser=(
  [client_frame]="$frames|GetMsgFromClient"
  [tcp_packet]="$frames|TcpReadyForRead|ReceiveFailed|HandleNetworkMsg|UnitsOf|ReturnAnswer\
|MarkTheMsg"
  [local_frame]="$frames|LSockReadyForRead|BadFormat|Broken|ReceiveFailed|ReturnAnswer|MarkTheMsg"
  [lipc_message]="ReceiveAnswer|MakeAnswer|IsDirect|PutDirectly|Deliver|HandOver|WriteRecord\
|ReadMessageFromKernel|FirstAsked|BoardClaim|BoardBeginWrite|BoardEndWrite|LocateTrailer|ZeroUpTo"
  [pipe_record]="ReadRecords|TakeRecord|ServeRecord|RequestOf|FindByName|TakeHandedAnswer\
|PutHandedAnswers|LIpcReadyForRead|SettleEntry|SettleBoard|CloseUncertain|BoardRemove\
|BoardIsClaimed|BoardWithdraw|BoardClose"
  [nodetab_line]="NextWord|BlankOut|WordToNumber|UpperCase|ParseNodetabString|NodeOfNodetabLine\
|ReadNodetab|CreateLink|NameIsTaken|AppendLink|AddProtocol|TcpInitLink|ParseHost|ParseNumbers\
|ReceiveTimeoutOf|NextNumber|LSockInitLink|LIpcInitLink"
  [options]="GetArgument|AfterKey|SkipOptionMarks|FindOption|HasOption|Read.*Options|ReadNetMbx\
|SignalNumber|DbcInitGlobalInternal"
  [management]="MakeDbcApiAnswer|Api|ReadRequest|FindNode|Matches|CommandOf|AppendItem|Answer\
|MakeDefault|Node|Redefine|Unlink|LeaveDefault|LeaveCircleStart|Describe"
  [agent]="."
)
# The longest input: frames need room for the greatest message and some more.
declare -A longest=([client_frame]=20000 [tcp_packet]=20000 [local_frame]=20000
  [lipc_message]=20000 [nodetab_line]=6000 [options]=2000 [management]=3000 [pipe_record]=800
  [agent]=1500)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${!subject[@]}")
mapfile -t targets < <(printf '%s\n' "${targets[@]}" | sort)

tool() {  # a tool of clang's, with or without the version in its name
  command -v "$1" || command -v "$1-14" || true
}

step() { printf '\n== %s\n' "$*"; }

step "Building"
build_in() {  # a directory, with further settings; quiet unless it fails
  local folder=$1 log
  shift
  mkdir -p "$folder"
  log=$folder/build.log
  { cmake --preset fuzz -B "$folder" "$@" && cmake --build "$folder" --target fuzz_programs; } \
    >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
}

build_in "$build"
coverage=$build/coverage
profdata=$(tool llvm-profdata)
cov=$(tool llvm-cov)
if [ -n "$profdata" ] && [ -n "$cov" ]; then
  build_in "$coverage" -DLUMO_SANITIZE=OFF \
    "-DCMAKE_CXX_FLAGS=-O1 -g -fprofile-instr-generate -fcoverage-mapping"
fi

options() {
  printf '%s\n' -timeout=20 -rss_limit_mb=2048 "-max_len=${longest[$1]}" \
    "-artifact_prefix=$build/findings/$1/"
}

corpora() {
  for folder in "$build/learned/$1" "$source/corpus/$1" "$source/regressions/$1"; do
    [ ! -d "$folder" ] || echo "$folder"
  done
}

count() { find "$1" -type f | wc -l; }

executions() {  # of one round, by its log
  awk '/^stat::number_of_executed_units:/ { n = $2 } END { print n + 0 }' "$1"
}

# One round: until a finding, or the seconds are over on the clock. Tells the processor time used.
round() {  # target, seconds, log
  local target=$1 TIMEFORMAT='%U %S'
  local -a arguments folders
  mapfile -t arguments < <(options "$target")
  mapfile -t folders < <(corpora "$target")
  { time "$build/tests/fuzz/${target}_fuzz" "${arguments[@]}" -max_total_time="$2" \
    -print_final_stats=1 "${folders[@]}" >"$3" 2>&1 || true; } 2>&1
}

add() { awk '{ sum += $1 + $2 } END { printf "%.0f", sum }' "$@"; }

# Goes on after a finding and after a round that had less of a processor than the clock says, until
# the processor time is used; the executions of all rounds are added up.
fuzz() {
  local target=$1 left=$seconds executed=0 log=$build/logs/$1
  mkdir -p "$build/learned/$target" "$build/findings/$target" "$build/logs"
  : >"$log.log"
  : >"$log.time"
  while [ "$left" -gt 0 ] && [ "$(count "$build/findings/$target")" -lt 20 ]; do
    round "$target" "$left" "$log.round" >>"$log.time"
    cat "$log.round" >>"$log.log"
    executed=$((executed + $(executions "$log.round")))
    rm -f "$log.round"
    left=$((seconds - $(add "$log.time")))
  done
  echo "$executed" >"$log.executed"
}

# Sums up lines of functions whose names match: with letters before, a name has its length there.
sum_functions() {
  awk -v names="(^|[0-9])($1)" '
    $1 != "TOTAL" && NF >= 7 && $1 ~ names && $5 ~ /^[0-9]+$/ { lines += $5; missed += $6 }
    END { if (lines) printf "%d of %d, %.1f%%", lines - missed, lines,
                            100 * (lines - missed) / lines }'
}

# Lines reached, of those of the sources the target is about, over all that it has kept.
lines() {
  local target=$1 program=$coverage/tests/fuzz/${1}_fuzz profile=$coverage/$1
  if [ ! -x "$program" ]; then  # without llvm-cov: the edges and features of the fuzzer itself
    grep -ao 'cov: [0-9]* ft: [0-9]*' "$build/logs/$target.log" | tail -1
    return
  fi
  local -a folders files
  mapfile -t folders < <(corpora "$target")
  LLVM_PROFILE_FILE=$profile.raw "$program" -runs=0 "${folders[@]}" >/dev/null 2>&1 || true
  "$profdata" merge -sparse "$profile.raw" -o "$profile.data"
  for file in ${subject[$target]}; do files+=("$PWD/$file"); done
  "$cov" report "$program" -instr-profile="$profile.data" "${files[@]}" 2>/dev/null \
    >"$build/logs/$target.coverage" || true
  local parsed sources
  parsed=$("$cov" report -show-functions "$program" -instr-profile="$profile.data" "${files[@]}" \
    2>/dev/null | sum_functions "${parser[$target]}")
  sources=$(awk '$1 == "TOTAL" { printf "%d of %d, %s", $8 - $9, $8, $10 }' \
    "$build/logs/$target.coverage")
  printf '%-22s %s' "$parsed" "$sources"
}

for target in "${targets[@]}"; do
  step "$target, $seconds seconds of processor time"
  fuzz "$target"
  tail -n 1 "$build/logs/$target.log"
done

step "Result"
printf '%-14s %8s %12s  %-22s %-24s %s\n' \
  target seconds executions "parser's lines" "its sources' lines" findings
found=0
for target in "${targets[@]}"; do
  findings=$(count "$build/findings/$target")
  found=$((found + findings))
  printf '%-14s %8s %12s  %-47s %s\n' "$target" "$(add "$build/logs/$target.time")" \
    "$(cat "$build/logs/$target.executed")" "$(lines "$target")" "$findings"
done
if [ "$found" -gt 0 ]; then
  printf '\nFindings:\n'
  find "$build/findings" -type f
  exit 1
fi
