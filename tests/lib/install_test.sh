#!/usr/bin/env bash
# Installs the library, then builds against it as others would: with pkg-config, and with CMake.
# $1: build directory, $2: source directory, $3: flags that the library was built with.
set -euo pipefail
build=$1 source=$2 flags=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/lumo-install.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() { echo "library_install: $*" >&2; exit 1; }

for component in liblumo liblumo-dev; do
  cmake --install "$build" --prefix "$work/tree" --component "$component" >/dev/null
done
library=$(find "$work/tree" -name 'liblumo.so.1')
[ -n "$library" ] || fail "no liblumo.so.1"
libdir=$(dirname "$library")

# Exactly what the header declares is visible, under the version of the interface.
grep -ohE '^LUMO_API [^(]*\blumo_[a-z_]+\(' "$source"/lib/include/lumo{,_stats}.h |
  grep -oE 'lumo_[a-z_]+\($' | sed 's/($/@@LUMO_1.0/' | sort >"$work/declared"
nm -D --defined-only "$library" | awk '$2 != "A" { print $3 }' | sort >"$work/exported"
[ "$(wc -l <"$work/declared")" -gt 50 ] || fail "the header cannot be read"
diff "$work/declared" "$work/exported" || fail "the header and the library do not agree"

# Every function has its manual page.
for function in $(sed 's/@.*//' "$work/declared"); do
  grep -qE '^\.so man3/(liblumo|lumo_stats)\.3$' "$work/tree/share/man/man3/$function.3" ||
    fail "man $function finds nothing"
done
[ -s "$work/tree/share/man/man3/liblumo.3" ] || fail "no liblumo.3"

cat >"$work/main.c" <<'C'
#include <lumo.h>
#include <stdio.h>
int main(void) {
  lumo_request request = lumo_request_make();
  puts(lumo_version());
  return request.row_id;
}
C
version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' "$source/CMakeLists.txt")
[ "$(sed -n '1s/^lumo-tcp (\(.*\)) .*/\1/p' "$source/debian/changelog")" = "$version" ] ||
  fail "the package has another version than the project"
expect() {
  local said
  said=$(LD_LIBRARY_PATH=$libdir "$1") || fail "$1 does not run"
  [ "$said" = "$version" ] || fail "$1 says $said"
}

export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion lumo)" = "$version" ] || fail "pkg-config has another version"
# shellcheck disable=SC2046,SC2086
cc -std=c11 -Wall -Wextra -Wpedantic -Werror $flags "$work/main.c" -o "$work/with_pkg_config" \
  $(pkg-config --cflags --libs lumo)
expect "$work/with_pkg_config"

# The page's own words: its second literal display is a command, its third is for CMake.
display() {
  awk -v wanted="$1" '/^\.Sh/ { on = $2 == "EXAMPLES" } on && /^\.Ed/ { inside = 0 }
    inside == wanted { print } on && /^\.Bd/ { inside = ++count }' \
    "$work/tree/share/man/man3/liblumo.3"
}
says_usage() {
  ! LD_LIBRARY_PATH=$libdir "$1" 2>"$work/usage" || fail "$1 does not want arguments"
  [ "$(cat "$work/usage")" = 'usage: example NODE TEXT...' ] || fail "$1: $(cat "$work/usage")"
}
mkdir "$work/page"
cp "$work/tree/share/doc/liblumo-dev/examples/example.c" "$work/page"
(cd "$work/page" && cc() { command cc $flags "$@"; } && eval "$(display 2)")
says_usage "$work/page/example"
(echo 'cmake_minimum_required(VERSION 3.25)'; echo 'project(page LANGUAGES C)'; display 3) \
  >"$work/page/CMakeLists.txt"
cmake -S "$work/page" -B "$work/page/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" \
  -DCMAKE_C_FLAGS="$flags" >"$work/log" || fail "$(cat "$work/log")"
cmake --build "$work/page/build" >"$work/log" || fail "$(cat "$work/log")"
says_usage "$work/page/build/example"

cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES C)
find_package(lumo 1.0 REQUIRED)
add_executable(with_cmake main.c)
target_link_libraries(with_cmake PRIVATE lumo::lumo)
add_executable(with_static main.c)
target_link_libraries(with_static PRIVATE lumo::lumo_static)
CMAKE
cmake -S "$work" -B "$work/user" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" \
  -DCMAKE_C_FLAGS="$flags" >"$work/log" || fail "$(cat "$work/log")"
cmake --build "$work/user" >"$work/log" || fail "$(cat "$work/log")"
expect "$work/user/with_cmake"
expect "$work/user/with_static"
echo "library_install: found by pkg-config and by CMake"
