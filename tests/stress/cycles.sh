#!/usr/bin/env bash
# Starts, serves and ends an agent N times (1000), in the background and in the foreground, by
# SIGTERM and by SIGKILL: tests/stress/cycles.sh [N]
set -euo pipefail
source "$(dirname "$0")/common.sh"
exec "$program" --gtest_filter='Cycles.*' --cycles "${1:-1000}"
