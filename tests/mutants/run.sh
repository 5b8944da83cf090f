#!/usr/bin/env bash
# Would the tests notice a slip? Changes one place of the agent or of the library at a time, chosen by
# a seed, in a copy below build/mutants, and runs those unit, library, statistics, process and lumoctl
# tests that come to the place until one fails, and fails again by itself. What nobody notices is
# printed at the end. Goes on where it was stopped.
#
#   tests/mutants/run.sh [--count N] [--seed N] [--only PATH] [--named FILE] [--seconds N] [--again]
#                        [--list | --report]
#
# The unit tests also fail when a change leaves memory behind. Whatever changes in the sources, --named
# with an earlier results.tsv tries the same ones, as far as their lines are the same.
#
# Not part of test.sh: 300 take an hour or two.
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}"
exec nice tests/mutants/mutants.py "$@"
