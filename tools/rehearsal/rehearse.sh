#!/usr/bin/env bash
# Carries out for real what docs/operations.md tells, with stand-in nodes.
#   rehearse.sh                    what an application sees when nodes and agents fail (a minute)
#   rehearse.sh --compare FILE     the same, compared with the table in FILE
#   rehearse.sh --recipes [NAME..] the other recipes; needs root for namespaces and a journal
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

program=rehearse.py packages=(python3)
if [ "${1:-}" = --recipes ]; then
  shift
  program=recipes.py packages+=(stunnel4 openssl systemd util-linux)
fi
install_packages "${build_packages[@]}" "${packages[@]}"
cmake --preset release >/dev/null
cmake --build --preset release --target lumo_tcp lumo_node >/dev/null
exec python3 -B "tools/rehearsal/$program" build/release "$@"
