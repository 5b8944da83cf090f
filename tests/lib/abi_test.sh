#!/usr/bin/env bash
# Compares the library's binary interface with the dump of the last release, which is kept in
# lib/abi: functions, arguments, and the types of the header. New functions are no change. After a
# release: abi_test.sh BUILD SOURCE --dump
#
# What is compared is made of the header, with functions that do nothing: that the library has
# exactly these is tested where it is installed, and what it has beneath them is nobody's business.
# $1: build directory, $2: source directory.
set -euo pipefail
build=$(realpath "$1") source=$(realpath "$2")
dump=$source/lib/abi/liblumo.so.1-$(uname -m).abi
work=$(mktemp -d "${TMPDIR:-/tmp}/lumo-abi.XXXXXX")
trap 'rm -rf "$work"' EXIT

PYTHONDONTWRITEBYTECODE=1 python3 - "$source" >"$work/functions.c" <<'PYTHON'
import pathlib
import sys
root = pathlib.Path(sys.argv[1])
sys.path.insert(0, str(root / "tests/man"))
import sources
print("#include <lumo.h>")
for name, (result, arguments) in sources.functions(root / "lib/include/lumo.h").items():
    if name != "lumo_request_make":  # in the header itself
        print(f"{result} {name}({', '.join(arguments)}) {{ __builtin_trap(); }}")
PYTHON

make_abi() { # MAP ABI
  (cd "$work" && cc -std=c11 -g -shared -fPIC -I"$source/lib/include" -I"$build/lib/include" \
    functions.c -o liblumo.so.1 -Wl,-soname,liblumo.so.1 -Wl,--version-script="$1")
  abidw --no-show-locs --no-corpus-path --no-comp-dir-path "$work/liblumo.so.1" --out-file "$2"
}

make_abi "$source/lib/liblumo.map" "$work/now.abi"
if [ "${3:-}" = --dump ]; then
  cp "$work/now.abi" "$dump"
  exit
fi
abidiff --no-added-syms "$dump" "$work/now.abi" || {
  echo 'abi: what was compiled for the last release does not run any more' >&2
  exit 1
}

# It would have seen a function that has gone, and an argument of another type.
sed '/lumo_abandon;/d' "$source/lib/liblumo.map" >"$work/less.map"
make_abi "$work/less.map" "$work/less.abi"
! abidiff --no-added-syms "$dump" "$work/less.abi" >/dev/null || { echo 'abi: blind' >&2; exit 1; }
sed -i -e 's/\(lumo_agent_pid(\)const lumo_connection \*connection/\1int connection/' \
  -e 's/^#include.*/#define lumo_agent_pid declared\n&\n#undef lumo_agent_pid/' "$work/functions.c"
make_abi "$source/lib/liblumo.map" "$work/other.abi"
! abidiff --no-added-syms "$dump" "$work/other.abi" >/dev/null || { echo 'abi: blind' >&2; exit 1; }
echo 'abi: as in the last release'
