#!/usr/bin/env bash
# The instructions that the agent spends on a round trip, alone and beside some 800 connections,
# 16,000 requests in flight and 200 links, as callgrind counts them. About a minute.
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}" valgrind
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_work >/dev/null
exec build/release/tests/stress/lumo_work "$@"
