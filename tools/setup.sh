# Shared by the scripts: packages, progress, times. To be sourced, from the root of the tree.

# What every build needs; its configuration looks for the test libraries too.
build_packages=(cmake ninja-build g++ libgtest-dev libcli11-dev libcpp-httplib-dev
  libncurses-dev libsqlite3-dev nlohmann-json3-dev pkgconf python3 tmux)
check_packages=(clang-format clang-tidy cppcheck)         # tests/check_code.sh
manual_packages=(groff-base mandoc python3)               # tests/man
dissector_packages=(python3 tshark)                       # tests/dissector
shell_packages=(zsh)                                       # tests/lumoctl
model_packages=(spin)                                      # tests/model
monitoring_packages=(prometheus tmux)                      # tools/rehearsal/monitoring.py
debian_packages=(abigail-tools apparmor build-essential debhelper dh-python dpkg-dev lintian pkg-config
  systemd) # tests/packaging
# All that test.sh runs with, installed at once: what is missing shows in the first minute.
test_packages=("${build_packages[@]}" "${check_packages[@]}" "${manual_packages[@]}"
  "${dissector_packages[@]}" "${shell_packages[@]}" "${model_packages[@]}" "${debian_packages[@]}")

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
  # Patient with a mirror that stumbles and with another installation that is going on.
  local apt=(apt-get -qq -o Acquire::Retries=3 -o DPkg::Lock::Timeout=300)
  as_root "${apt[@]}" update
  as_root env DEBIAN_FRONTEND=noninteractive "${apt[@]}" install -y --no-install-recommends \
    "${missing[@]}" >/dev/null
}

# The tests mostly wait for one another's processes: somewhat more of them than cores.
test_jobs() { echo $((2 * $(nproc))); }

# Timed NAME COMMAND... ; say_times says at the end what took how long.
times=()
timed() {
  local name=$1 from=$SECONDS
  shift
  step "${name^}"
  "$@"
  times+=("$name $(minutes $((SECONDS - from)))")
}
minutes() { printf '%d:%02d' $(($1 / 60)) $(($1 % 60)); }
say_times() {
  local IFS=,
  step "Minutes: ${times[*]/#/ }; in all $(minutes "$SECONDS")"
}
