#!/usr/bin/env bash
# Builds everything for another machine with Debian's cross compiler, and runs the unit tests and
# those of the library there, under qemu.
#
#   tests/cross/run.sh [arm64|i386] [TARGET...]     TARGETs are built in place of everything
#
# Needs g++-aarch64-linux-gnu or g++-i686-linux-gnu, qemu-user and ninja-build. What is linked beside
# the C and C++ libraries is fetched as Debian packages and unpacked below build/cross; this machine's
# own packages are not touched.
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh
tree=$PWD
architecture=${1:-arm64}
shift || true
case $architecture in
  arm64) triplet=aarch64-linux-gnu processor=aarch64 emulator=qemu-aarch64 ;;
  i386) triplet=i686-linux-gnu processor=i686 emulator=qemu-i386 ;;
  *) echo "no such machine: $architecture" >&2 && exit 2 ;;
esac
multiarch=${triplet/i686/i386}
install_packages "g++-$triplet" qemu-user ninja-build googletest pkgconf
place=$tree/build/cross/$architecture
system=$place/system
mkdir -p "$system" "$place/apt/lists/partial" "$place/apt/cache/archives/partial"

# apt for the other machine, with a state of its own. The lists of some sources may be missing.
Apt() {
  : >"$place/apt/status"
  apt-get -qq -o "APT::Architecture=$architecture" -o "APT::Architectures::=$architecture" \
    -o "Dir::State::Lists=$place/apt/lists" -o "Dir::State::status=$place/apt/status" \
    -o "Dir::Cache=$place/apt/cache" "$@"
}

packages=(libbenchmark1debian libbenchmark-dev libbrotli1 libbrotli-dev libcli11-dev
  libcpp-httplib0.11 libcpp-httplib-dev libncurses6 libncursesw6 libncurses-dev libsqlite3-0
  libsqlite3-dev libssl3 libssl-dev libtinfo6 nlohmann-json3-dev zlib1g zlib1g-dev)
# What an earlier run fetched may be less than is needed now.
if [ "$(cat "$system/complete" 2>/dev/null)" != "${packages[*]}" ]; then
  step "Libraries for $architecture"
  Apt update 2>/dev/null || true
  (cd "$place/apt" && Apt download "${packages[@]}")
  for package in "$place"/apt/*.deb; do dpkg-deb -x "$package" "$system"; done
  # Links of the packages name places of the other machine.
  find "$system" -type l -lname '/*' -not -lname "$system/*" | while read -r link; do
    ln -sfn "$system$(readlink "$link")" "$link"
  done
  echo "${packages[*]}" >"$system/complete"
fi

# The loader of the cross compiler's C library looks for the others where it is told.
libraries=$system/lib/$multiarch:$system/usr/lib/$multiarch
run="$(command -v "$emulator") -L /usr/$triplet -E LD_LIBRARY_PATH=/usr/$triplet/lib:$libraries"
cat >"$place/toolchain.cmake" <<CMAKE
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR $processor)
set(CMAKE_C_COMPILER $triplet-gcc)
set(CMAKE_CXX_COMPILER $triplet-g++)
set(CMAKE_LIBRARY_ARCHITECTURE $multiarch)
set(CMAKE_FIND_ROOT_PATH $system $system/usr $place/googletest /usr/$triplet)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The linker script of ncurses names a library of the other directory.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-L$system/lib/$multiarch -Wl,-rpath-link,$libraries")
set(ENV{PKG_CONFIG_SYSROOT_DIR} $system)
set(ENV{PKG_CONFIG_LIBDIR} $system/usr/lib/$multiarch/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR "${run// /;}")
CMAKE

if [ ! -e "$place/googletest/complete" ]; then
  step "Test framework for $architecture"
  cmake -S /usr/src/googletest -B "$place/googletest-build" -G Ninja -DBUILD_GMOCK=OFF \
    -DCMAKE_TOOLCHAIN_FILE="$place/toolchain.cmake" -DCMAKE_INSTALL_PREFIX="$place/googletest" \
    >"$place/log" || { cat "$place/log" >&2 && exit 1; }
  cmake --build "$place/googletest-build" --target install >"$place/log" ||
    { cat "$place/log" >&2 && exit 1; }
  touch "$place/googletest/complete"
fi

step "Build for $architecture"
cmake -S . -B "$place/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$place/toolchain.cmake" \
  -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O2 -isystem $system/usr/include/$multiarch" \
  -DLUMO_WERROR=ON -DLUMO_BENCH=ON >"$place/log" ||
  { cat "$place/log" >&2 && exit 1; }
if [ $# -gt 0 ]; then
  exec cmake --build "$place/build" -- -k 0 "$@"
fi
cmake --build "$place/build" -- -k 0

# Tests run the agent and its tools by their names: there a wrapper runs them in the emulator.
Wrap() {
  [ ! -e "$1" ] || head -c 2 "$1" | grep -q '#!' || mv "$1" "$1.$architecture"
  printf '#!/bin/sh\nexec %s %s "$@"\n' "$run" "$1.$architecture" >"$1"
  chmod +x "$1"
}
for program in lumo_tcp tools/lumo_node/lumo_node tools/lumoctl/lumoctl \
  lib/examples/lumo_example_c lib/examples/lumo_example_cpp; do
  Wrap "$place/build/$program"
done
step "Unit tests for $architecture"
failed=0
# qemu-i386 (7.2) gives all threads one table of segments: once there has been a second thread, the
# first has the other's errno after each signal. So the tests whose agent, a fork of the test, waits
# for signals run where there has been none.
for tests in '-FailingDescriptors.*' 'FailingDescriptors.*'; do
  $run "$place/build/tests/unit/unit_tests" --gtest_brief=1 --gtest_filter="$tests" || failed=1
done
step "Library tests for $architecture"
# This machine's Python cannot load the other's library.
$run "$place/build/tests/lib/lib_tests" --gtest_brief=1 --gtest_filter='-*Python*' || failed=1
exit $failed
