#!/usr/bin/env bash
# 300, 1000 and 1100 clients at once, and few descriptors: what an idle agent costs then, and who is
# served. Half a minute.
set -euo pipefail
source "$(dirname "$0")/common.sh"
exec "$program" --gtest_filter='*Descriptors*' --idle-seconds 6 "$@"
