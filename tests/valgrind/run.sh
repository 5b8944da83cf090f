#!/usr/bin/env bash
# The agent, in the process tests, and the library, in its own, under valgrind's memcheck: errors,
# lost memory, and descriptors that are open at the end. Says what it ran and what was found
# (tests/valgrind/findings.py); the status is 1 when there is anything, or when a test fails.
#
#   tests/valgrind/run.sh                       both, the process tests at two levels: an hour
#   tests/valgrind/run.sh library [FILTER]      GoogleTest's filter
#   tests/valgrind/run.sh agent [OPTION...]     for ctest, which tests and how many at once
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh
build=$PWD/build/valgrind
part=${1:-both}
shift || true
memcheck=(valgrind --vgdb=no --track-fds=yes --leak-check=full --num-callers=20)
status=0

# What cannot come out the same under valgrind.
left_out=(
  # An agent with few descriptors: valgrind opens some of its own, and so does the program loader.
  FewDescriptors WithoutADescriptorLeft AFailureToMakeThePipe AFailedSetUpSaysWhatFailed
  AStatusWithoutAWord APipeThatCannotBeMade ASocketThatCannotBeMade BeyondTheSystemsLimit
  AfterNoDescriptorCouldBeKept
  # The numbers or the count of its descriptors, the signals that it catches.
  DescriptorsThatNoSetHolds ADescriptorOf255OrMore ClosedStandardStreams TheReaderHoldsClientConnections
  TheReaderTakesSignals
  # The directory of its program.
  NodetabSearch.TheProgramsDirectory NodetabSearch.TheHomeDirectory NodetabSearch.ABareProgramName
  NodetabSearch.AFileThatCannotBeRead
  # Its time.
  AConnectionThatIsNotMadeInTime AServerThatNeverStopsSending ByFurtherStopSignals
  # An agent of another program.
  Allocation
)

Logs() { # NAME
  logs=$build/logs/$1
  rm -rf "$logs"
  mkdir -p "$logs"
}
Findings() { python3 tests/valgrind/findings.py "$1" "$logs" || status=1; }

Agent() {
  Logs agent
  # What runs in the agent's place; its environment is the tests' choice.
  printf '#!/bin/sh\nexec %s --log-file=%s/%%p %s "$@"\n' "$(command -v valgrind) ${memcheck[*]:1}" \
    "$logs" "$build/lumo_tcp" >"$build/agent"
  chmod +x "$build/agent"
  # Beside other work an agent may take longer to start than its test waits.
  LUMO_TCP=$build/agent LUMO_STOP_AGENTS=1 ctest --test-dir "$build" --output-on-failure \
    --parallel "$(test_jobs)" --repeat until-pass:3 -L process \
    -E "$(IFS='|'; echo "${left_out[*]}")" "$@" || status=1
  Findings agent
}

# The examples are programs of their own; agents and nodes run as always.
Library() {
  Logs library
  "${memcheck[@]}" --log-file="$logs/%p" --soname-synonyms=somalloc=nouserintercepts \
    --trace-children=yes --trace-children-skip='*/lumo_tcp,*/lumo_node,*python*,/bin/*,/usr/bin/*' \
    "$build/tests/lib/lib_tests" --gtest_brief=1 --gtest_filter="${1:-*}:-*Python*" || status=1
  Findings library
}

install_packages "${build_packages[@]}" valgrind
step "Build"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_C_FLAGS=-g \
  -DCMAKE_CXX_FLAGS='-O1 -g' >/dev/null
cmake --build "$build" --target lumo_tcp lib_tests process_tests
case $part in
  library) timed 'library' Library "$@" ;;
  agent) timed 'agent' Agent "$@" ;;
  both) timed 'library' Library && timed 'agent' Agent ;;
  *) echo "no such part: $part" >&2 && exit 2 ;;
esac
say_times
exit $status
