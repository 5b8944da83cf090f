#!/usr/bin/env bash
# Tests of the dissector: a capture of a real exchange on the loopback interface, and captures made
# of chosen bytes.
#
#   tests/dissector/run.sh [BUILD-DIRECTORY]     where the agent and its tools are (build/release)
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

build=$(realpath "${1:-build/release}")
install_packages "${dissector_packages[@]}"
# Capturing is root's; but whoever has the right may run the Python program himself.
as_root python3 -B tests/dissector/dissector_test.py "$build"
