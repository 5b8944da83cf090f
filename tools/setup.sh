# Shared by the scripts: packages and progress. To be sourced, from the root of the tree.

# What every build needs; its configuration looks for the test libraries too.
build_packages=(cmake ninja-build g++ libgtest-dev libcli11-dev libsqlite3-dev
  nlohmann-json3-dev pkgconf python3)

step() { printf '\n== %s\n' "$*"; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the Debian packages that are missing; says nothing when none is.
install_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return 0
  step "Installing ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}

# The tests mostly wait for one another's processes: somewhat more of them than cores.
test_jobs() { echo $((2 * $(nproc))); }

# What the checks below are made with; about a minute to install.
check_packages=(clang-format clang-tidy cppcheck)

check_format() {
  step "Format"
  git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
}

# The agent's code, by the rules of .clang-tidy; $1: a configured build directory.
check_tidy() {
  step "clang-tidy"
  git ls-files {core,client,link,protocols,api,ping}/'*.cpp' |
    xargs -P "$(nproc)" -n 4 clang-tidy -p "$1" --quiet 2>/dev/null
}

# All code but the tests. cppcheck does not know __VA_OPT__ and so must not look into ENTER.
check_cppcheck() {
  step "cppcheck"
  git ls-files {core,client,link,protocols,api,ping,tools,bench,lib}/'*.cpp' |
    xargs cppcheck --std=c++20 --language=c++ --library=posix,googletest -I . -UENTER \
      --enable=warning,style,performance,portability --suppressions-list=tools/cppcheck.txt \
      --inline-suppr --quiet --error-exitcode=1 -j "$(nproc)"
}
