#!/usr/bin/env bash
# Installs what the build needs, builds with AddressSanitizer and UndefinedBehaviorSanitizer, runs
# all tests, then runs the process tests against the release build as well.
set -euo pipefail
cd "$(dirname "$0")"
source tools/setup.sh

install_packages "${build_packages[@]}"
install_packages groff-base mandoc python3 # the check of the manual pages

step "Sanitizer build"
cmake --preset sanitize >/dev/null
cmake --build --preset sanitize

step "All tests, sanitizer build"
ctest --test-dir build/sanitize --output-on-failure --parallel "$(test_jobs)"

step "Release build"
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_tcp process_tests lumo_endurance

step "Process tests, release build"
ctest --test-dir build/release --output-on-failure --parallel "$(test_jobs)" -L process

tests/packaging/run.sh build/release
tests/dissector/run.sh build/release

install_packages "${check_packages[@]}"
check_format
check_tidy build/release
check_cppcheck
step "All tests passed"
