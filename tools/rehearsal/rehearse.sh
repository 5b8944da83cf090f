#!/usr/bin/env bash
# Measures for real what an application sees when nodes and agents fail, with stand-in nodes: about
# a minute and a half. Prints a table; with --compare FILE also compares it with the one in FILE.
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}" python3
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_tcp lumo_node >/dev/null
exec python3 -B tools/rehearsal/rehearse.py build/release "$@"
