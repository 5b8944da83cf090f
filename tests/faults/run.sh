#!/usr/bin/env bash
# Builds with sanitizers, lets every call of the system that the agent makes fail with each of its
# errors, one run for each, and writes the table of call sites, failures and outcomes to
# build/sanitize/fault_table.txt. Arguments go to the program (--only TEXT, --scenario NAME,
# --workers N, --sites). The status is 1 when a row did not come out as it must.
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}"
step "Building"
cmake --preset sanitize >/dev/null
cmake --build --preset sanitize --target fault_table
step "Failing calls"
build/sanitize/tests/faults/fault_table --output build/sanitize/fault_table.txt "$@"
