# To be sourced by the scripts beside this file: builds the release form, and names the program.
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
source tools/setup.sh

install_packages "${build_packages[@]}"
cmake --preset release >/dev/null
cmake --build --preset release --target stress_tests >/dev/null
program=build/release/tests/stress/stress_tests
