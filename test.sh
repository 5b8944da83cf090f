#!/usr/bin/env bash
# Installs what the tests need, builds with AddressSanitizer and UndefinedBehaviorSanitizer and runs
# all tests, the static checks among them; then the process tests with the agent of the release
# build, and those of the Debian package. Says at the end what took how long. Needs no terminal, and
# the tree need not be a checkout.
#
#   ./test.sh            everything
#   ./test.sh --quick    the release build with its unit and process tests
set -euo pipefail
cd "$(dirname "$0")"
exec </dev/null
source tools/setup.sh

Build() { # PRESET TARGET...
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" ${@:+--target "$@"}
}
Test() { # PRESET OPTION...
  local preset=$1
  shift
  ctest --test-dir "build/$preset" --output-on-failure --parallel "$(test_jobs)" "$@"
}

# The process tests of the sanitizer build, with another agent.
TestReleaseAgent() {
  LUMO_TCP=$PWD/build/release/lumo_tcp \
    LUMO_TCP_COUNTED=$PWD/build/release/tests/process/lumo_tcp_counted Test sanitize -L process
  Test release -R '^hardening$'
}

# Those tests wait more than they compute; the package is compiled meanwhile.
TestReleaseAgentAndPackage() {
  local log=build/package.log failed=0 agent package
  TestReleaseAgent &
  agent=$!
  tests/packaging/run.sh build/release >"$log" 2>&1 &
  package=$!
  wait "$agent" || failed=1
  wait "$package" || failed=1
  cat "$log"
  return "$failed"
}

if [ "${1:-}" = --quick ]; then
  timed 'packages' install_packages "${build_packages[@]}"
  timed 'release build' Build release lumo_tcp process_tests unit_tests
  timed 'tests' Test release -L 'unit|process' -E '^Endurance'
else
  timed 'packages' install_packages "${test_packages[@]}"
  timed 'sanitizer build' Build sanitize
  timed 'release build' Build release lumo_tcp lumo_tcp_counted lumo_node lumoctl
  timed 'all tests, sanitizer build' Test sanitize
  timed 'process tests, release agent; Debian package' TestReleaseAgentAndPackage
  timed 'dissector' tests/dissector/run.sh build/release
fi
say_times
