#!/usr/bin/env bash
# Compares the agent at log levels 0, 3 and 15 over random scenarios for N seconds (3600):
# tests/differential/run.sh [N] [options of the program, such as --seed 7 --verbose]
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}"
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_differential >/dev/null
seconds="${1:-3600}"
shift || true
exec build/release/tests/differential/lumo_differential --seconds "$seconds" "$@"
