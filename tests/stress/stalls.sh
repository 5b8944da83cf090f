#!/usr/bin/env bash
# What the clients of healthy nodes notice of peers that hang in every way, and the memory that
# those cost: about two minutes. Each round is measured before all other work of the machine, which
# only root may do; any option of the program may follow.
set -euo pipefail
source "$(dirname "$0")/common.sh"
exec "$program" --gtest_filter='Stalls.*' --real-time --rounds 12 --seconds 0.5 --most-ratio 2 \
  --memory-seconds 20 "$@"
