#!/usr/bin/env bash
# Checks of the sources as they are there: the tree need not be a checkout, nor git be installed.
#
#   tests/check_code.sh format | cppcheck | tidy BUILD-DIRECTORY | names BUILD-DIRECTORY
set -euo pipefail
cd "$(dirname "$0")/.."

format() {
  find . \( -path ./build -o -path './obj-*' \) -prune -o -name '*.cpp' -print -o -name '*.h' -print |
    xargs clang-format --dry-run --Werror
}

# The agent's code, by the rules of .clang-tidy: all of a directory as one source, which takes a
# third of the time, since most of it goes into the headers, and shows what goes on between two. Each
# source names itself in the trace by a constant of its own.
tidy() {
  local build=$1 directory source
  mkdir -p "$build/tidy"
  for directory in client protocols core link api ping; do
    for source in "$directory"/*.cpp; do
      printf '// %s\n#define Module Module_%s  // NOLINT\n' "$source" "$(basename "$source" .cpp)"
      cat "$source"
      echo '#undef Module'
    done >"$build/tidy/$directory.cpp"
    echo "$build/tidy/$directory.cpp"
  done | xargs -P 2 -I {} clang-tidy --config-file=.clang-tidy --quiet {} -- \
    -std=c++20 -I. -I "$build/lib/include" -fno-exceptions -fno-rtti 2>/dev/null
}

# All code but the tests. cppcheck does not know __VA_OPT__ and so must not look into ENTER.
cppcheck() {
  find core client link protocols api ping tools bench lib -name '*.cpp' |
    xargs cppcheck --std=c++20 --language=c++ --library=posix,googletest -I . -UENTER \
      --enable=warning,style,performance,portability --suppressions-list=tools/cppcheck.txt \
      --inline-suppr --quiet --error-exitcode=1
}

# The names of the tests: what is given to one is shown, not where it lies, which always differs.
names() {
  ! ctest --test-dir "$1" -N | grep -E '0x[0-9a-f]{6}|-byte object'
}

"$@"
