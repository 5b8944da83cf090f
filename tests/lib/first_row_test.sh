#!/usr/bin/env bash
# Goes the way that lib/examples/README.md tells, with what is installed, and then the failing ways.
# $1: build directory, $2: source directory, $3: flags that the library was built with.
set -euo pipefail
build=$1 source=$2 flags=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/lumo-row.XXXXXX")
unset NET_MBX TAVRIN_TMP DBC_LOG

fail() { echo "first_row: $*" >&2; exit 1; }
clean_up() {
  [ ! -e "$work/here/node" ] || "$work/usr/bin/lumo_node" --tell "$work/here/node" --stop || true
  TAVRIN_TMP=$work/here "$work/usr/sbin/lumo_tcp" -U >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap clean_up EXIT

for component in liblumo liblumo-dev lumo-devtools; do
  cmake --install "$build" --prefix "$work/usr" --component "$component" >/dev/null
done
mkdir "$work/usr/sbin" "$work/here"
cp "$build/lumo_tcp" "$work/usr/sbin"
libdir=$(dirname "$(find "$work/usr" -name liblumo.so.1)")
export PATH=$work/usr/bin:$work/usr/sbin:$PATH PKG_CONFIG_PATH=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir
# shellcheck disable=SC2086
cc() { command cc $flags "$@"; }

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
sed -n "s/^    //p" "$source/lib/examples/README.md" |
  sed "s#/usr/#$work/usr/#g; s/1060/$port/" >"$work/way"
[ "$(wc -l <"$work/way")" -eq 10 ] || fail 'ten lines were expected'
cd "$work/here"
# shellcheck disable=SC1091
(source "$work/way") >"$work/out" 2>"$work/err" </dev/null || fail "$(cat "$work/err")"
grep -qx 42 "$work/out" || fail "no row: $(cat "$work/out" "$work/err")"
grep -qx 'example: the node refused: no such column: b (code 1)' "$work/err" ||
  fail "no refusal: $(cat "$work/err")"
[ ! -e tavrin.20562 ] || fail 'the agent was left'

"$work/usr/share/doc/lumo-devtools/examples/error_paths.sh" ./example >"$work/out" 2>&1 ||
  fail "$(cat "$work/out")"
[ "$(grep -c '^ok ' "$work/out")" -eq 9 ] || fail "$(cat "$work/out")"
# It says so when the application is wrong: this one takes every refusal for a row.
! "$work/usr/share/doc/lumo-devtools/examples/error_paths.sh" echo 42 >"$work/out" 2>&1 ||
  fail 'error_paths.sh finds no fault'
grep -q '^FAILED  a refusal: status 0' "$work/out" || fail "$(cat "$work/out")"
echo 'first_row: found, and every failure as told'
