#!/usr/bin/env bash
# Would the tests notice a slip? Changes one place of the agent or of the library at a time, chosen by
# a seed, in a copy below build/mutants, builds what that changes and runs unit, library, statistics,
# process and lumoctl tests until one fails, again when it is asked alone. What nobody notices is
# printed at the end. Goes on where it was stopped.
#
#   tests/mutants/run.sh [--count N] [--seed N] [--only PATH] [--seconds N] [--list | --report]
#
# Not part of test.sh: a mutant takes from seconds to minutes.
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}"
exec nice tests/mutants/mutants.py "$@"
