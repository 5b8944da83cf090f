#!/usr/bin/env bash
# Tests of the dissector: a capture of a real exchange on the loopback interface, and captures made
# of chosen bytes.
#
#   tests/dissector/run.sh [BUILD-DIRECTORY]     where the agent and its tools are (build/release)
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

build=$(realpath "${1:-build/release}")
install_packages python3 tshark
# Capturing is root's; but whoever has the right may run the Python program himself.
PYTHONDONTWRITEBYTECODE=1 as_root python3 tests/dissector/dissector_test.py "$build"
