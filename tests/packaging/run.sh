#!/usr/bin/env bash
# Builds the Debian package and looks at it: lintian, the units, an installation, upgrade, removal
# and purge in a scratch root, a start exactly as the unit says, the node test of the timer. The
# machine's own package database, accounts and services are not touched.
#
#   tests/packaging/run.sh [BUILD-DIRECTORY]     where lumo_node and lumo_query are (build/release)
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

tree=$PWD
build=$(realpath "${1:-build/release}")
install_packages "${build_packages[@]}" debhelper dpkg-dev nlohmann-json3-dev \
  pkg-config lintian systemd
# dpkg unpacks with owners, and the agent is started under the package's account.
if [ "$(id -u)" -ne 0 ]; then exec sudo "$0" "$build"; fi
unset NET_MBX DBC_LOG TAVRIN_TMP

work=$(mktemp -d) && chmod 711 "$work"
root=$work/root
declare -a started=()
CleanUp() {
  local pid
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null || true; done
  [ ! -s "$root/run/lumo_tcp/agent.pid" ] || kill "$(cat "$root/run/lumo_tcp/agent.pid")" || true
  rm -rf "$work"
}
trap CleanUp EXIT

Fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}
Expect() { # EXPECTED COMMAND... ; compares what the command prints
  local expected=$1 output
  shift
  output=$("$@" 2>&1) || true
  [ "$output" = "$expected" ] || Fail "$*: '$output', not '$expected'"
}
WaitFor() {
  local end=$((SECONDS + 15))
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$end" ] || Fail "waited in vain for: $*"
    sleep 0.05
  done
}
Ended() { ! grep -q '^State:.[^Z]' "/proc/$1/status" 2>/dev/null; }

BuildPackage() {
  # A copy at a place that stays, so that only what has changed is compiled again.
  local copy=$tree/build/package
  mkdir -p "$copy/tree"
  find "$copy/tree" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
  rm -f "$copy"/*.deb
  (git ls-files && git ls-files -o --exclude-standard) | tar -cT - | tar -xC "$copy/tree"
  (cd "$copy/tree" && DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" \
    dpkg-buildpackage -b -us -uc -nc) >"$work/build.log" 2>&1 || {
    tail -n 30 "$work/build.log" >&2
    Fail 'the package does not build'
  }
  packages=("$copy"/*.deb)
  version=$(dpkg-parsechangelog -l debian/changelog -S Version)
}

# The same packages with a higher version.
NextVersion() {
  local package
  mkdir "$work/next"
  for package in "${packages[@]}"; do
    rm -rf "$work/unpacked"
    dpkg-deb -R "$package" "$work/unpacked"
    sed -i "s/$version/$version+1/" "$work/unpacked/DEBIAN/control"
    dpkg-deb -b "$work/unpacked" "$work/next" >/dev/null
  done
}

# The scripts of the package run on this machine, told by DPKG_ROOT where to act.
Dpkg() {
  dpkg --root="$root" --force-depends --force-script-chrootless --force-confold --log=/dev/null \
    "$@" >"$work/dpkg.log" 2>&1 </dev/null || {
    cat "$work/dpkg.log" >&2
    Fail "dpkg $*"
  }
}
Everything() { (cd "$root" && find . -path ./var/lib/dpkg -prune -o -print | sort); }
Accounts() { cut -d: -f1 "$root/etc/passwd" "$root/etc/group" | grep lumo | sort | xargs; }

MakeRoot() {
  mkdir -p "$root"/{etc,run,tmp,usr,var/lib/systemd,var/lib/dpkg/{info,updates,triggers}}
  touch "$root"/var/lib/dpkg/{available,status} "$root"/usr/others "$root"/etc/.pwd.lock
  grep '^root:' /etc/passwd >"$root/etc/passwd"
  grep '^root:' /etc/group >"$root/etc/group"
  echo 'root:*:::::::' >"$root/etc/shadow"
  echo 'root:*::' >"$root/etc/gshadow"
  touch "$root"/etc/{shadow,gshadow,passwd,group}-
  Everything >"$work/before"
}

# --- The units --------------------------------------------------------------------------------

CheckUnits() {
  local units="$root/lib/systemd/system" unit
  # The units that ours refer to.
  mkdir "$work/units"
  cp -r "$root" "$work/units/root"
  cp -rn /lib/systemd/system "$work/units/root/lib/systemd/"
  mkdir -p "$work/units/root/bin" && touch "$work/units/root/bin/sh"
  chmod +x "$work/units/root/bin/sh"
  (cd "$units" && ls) | sed 's/@/@20600/' >"$work/names"
  [ "$(wc -l <"$work/names")" -eq 6 ] || Fail 'six units were expected'
  # shellcheck disable=SC2046
  systemd-analyze verify --root="$work/units/root" --man=no $(cat "$work/names") \
    >"$work/verify" 2>&1 || Fail "$(cat "$work/verify")"
  ! grep -q lumo "$work/verify" || Fail "$(cat "$work/verify")"
  for unit in lumo_tcp lumo_tcp-ping lumo_tcp@20600 lumo_tcp-ping@20600; do
    # 0 is the safest, 100 the least safe.
    systemd-analyze security --offline=true --root="$work/units/root" --threshold=15 \
      --no-pager "$unit.service" >"$work/security" || Fail "$(tail -n 1 "$work/security")"
    tail -n 1 "$work/security"
  done
  ! grep -hE '^[^#]*(-PKILL|-K[ =]|-U\b|-NODAEMON|PrivateTmp=yes|PrivateIPC=yes|PrivatePIDs)' \
    "$units"/* || Fail 'an option that must not be in a unit'
}

# --- A start as the unit says -----------------------------------------------------------------

# Runs the ExecStart line of the service under the scratch root, with its environment and account.
RunExecStart() {
  local unit=$root/lib/systemd/system/lumo_tcp.service command settings
  command=$(sed -n '/^ExecStart=/,/[^\\]$/p' "$unit" | sed 's/^ExecStart=//; s/\\$//' | tr -d '\n')
  settings=$(sed -n 's/^Environment=//p' "$unit")
  settings+=" $(grep -v '^#' "$root/etc/default/lumo_tcp" | xargs)"
  command=$(sed -E "s#(^|[ =])/(usr|etc|run)/#\1$root/\2/#g" <<<"$command")
  settings=$(sed -E "s#(^|[ =])/(usr|etc|run)/#\1$root/\2/#g" <<<"$settings")
  # What systemd makes before: the runtime directory.
  mkdir -p "$root/run/lumo_tcp" && chown "$user:$group" "$root/run/lumo_tcp"
  # shellcheck disable=SC2086
  env -i $settings setpriv --reuid="$user" --regid="$group" --groups="$group,$clients" sh -c \
    "umask 077; exec $command" >"$work/start.out" 2>"$work/start.err"
}
Query() { TAVRIN_TMP=$root/run/lumo/agent "$build/tools/lumo_query/lumo_query" "$@"; }

CheckStart() {
  user=$(awk -F: '$1 == "lumo-tcp" {print $3}' "$root/etc/passwd")
  group=$(awk -F: '$1 == "lumo-tcp" {print $3}' "$root/etc/group")
  clients=$(awk -F: '$1 == "lumo" {print $3}' "$root/etc/group")

  # Without nodes the command says 0 as well; there is no pid file then.
  RunExecStart || Fail 'the starting command'
  grep -q 'Supported protocols are not found' "$work/start.err" || Fail 'an empty table'
  [ ! -e "$root/run/lumo_tcp/agent.pid" ] || Fail 'a pid file without an agent'

  # The lines of the example, with a name that resolves.
  sed -i -E 's/^#(SRV|HERE|KERNEL)/\1/; s/db1.example.org/127.0.0.1/' "$root/etc/lumo_tcp/nodetab"
  RunExecStart || Fail 'the starting command'
  local pid
  pid=$(cat "$root/run/lumo_tcp/agent.pid")
  # No waiting: it answers when the command has returned.
  Expect "$(printf '%s\n' $'#0 * SRV1\tTCPIP\t127.0.0.1:1060' $'#1   SRV2\tTCPIP\t192.0.2.7:1060' \
    $'#2   HERE\tLOCALS' $'#3   KERNEL\tLOCALI')" Query --list
  Query --show SRV1 >"$work/show"
  # The directory is as it was made, the socket open to whom the directory lets in.
  Expect "710 root $clients" stat -c '%a %U %g' "$root/run/lumo"
  Expect "1771 root $group" stat -c '%a %U %g' "$root/run/lumo/agent"
  Expect "777 $user" stat -c '%a %u' "$root/run/lumo/agent/tavrin.20562"
  Expect 'no' setpriv --reuid=64321 --regid=64321 --clear-groups sh -c \
    "cd '$root/run/lumo' 2>/dev/null && echo yes || echo no"
  Expect 'yes' setpriv --reuid=64321 --regid=64321 --groups="$clients" sh -c \
    "test -w '$root/run/lumo/agent/tavrin.20562' && ! test -w '$root/run/lumo/agent' && echo yes"

  # A second start is refused, and its pid file names nobody.
  mv "$root/run/lumo_tcp/agent.pid" "$work/first.pid"
  RunExecStart || Fail 'the starting command'
  grep -q 'is already used' "$work/start.err" || Fail 'a second agent'
  Ended "$(cat "$root/run/lumo_tcp/agent.pid")" || Fail 'the second agent lives'
  CheckPing
  kill "$pid"
  WaitFor Ended "$pid"
  [ ! -e "$root/run/lumo/agent/tavrin.20562" ] || Fail 'a socket was left'
  rm -f "$root/run/lumo_tcp/agent.pid"
}

# --- The node test ----------------------------------------------------------------------------

Node() { # NAME OPTION...: starts a stand-in; its port is then in $port
  local name=$1
  shift
  "$build/tools/lumo_node/lumo_node" --listen 0 --log "$work/$name.log" "$@" >"$work/$name.out" &
  started+=($!)
  WaitFor grep -q '^listening' "$work/$name.out"
  port=$(sed -n 's/^listening on tcp .*://p' "$work/$name.out")
}
PingNodes() {
  TAVRIN_TMP=$root/run/lumo/agent "$root/usr/libexec/lumo_tcp/ping-nodes" \
    "$root/usr/sbin/lumo_tcp" "$work/table" 1
}

CheckPing() {
  Node good
  printf '# GOOD in a comment\n\n  Good TCPIP 127.0.0.1 %s 0 0 5\nH TCPIP localhost %s 0 0 5\n' \
    "$port" "$port" >"$work/table"
  Expect $'Good: alive\nH: alive' PingNodes
  PingNodes >/dev/null || Fail 'the status for living nodes'
  Node silent --silent
  printf 'MUTE TCPIP 127.0.0.1 %s\nBAD TCPIP\nGONE REZ x\n' "$port" >>"$work/table"
  Expect "$(printf '%s\n' 'Good: alive' 'H: alive' 'MUTE: no answer in 1 seconds' \
    'BAD: not alive: Node string has errors' 'GONE: not alive: Protocol disabled')" PingNodes
  ! PingNodes >/dev/null || Fail 'the status with dead nodes'
  : >"$work/table"
  Expect "$work/table has no nodes" PingNodes
  [ -S "$root/run/lumo/agent/tavrin.20562" ] || Fail 'a test run has removed the socket'
}

step "Debian package"
BuildPackage
lintian --fail-on error,warning --allow-root "${packages[@]}"
NextVersion

step "Installation"
MakeRoot
Dpkg -i "${packages[@]}"
Expect 'lumo lumo-tcp lumo-tcp' Accounts
Expect "Vanx Embedded v. $version for LINUX (Socket)" sh -c \
  "'$root/usr/sbin/lumo_tcp' -VERSION | tail -n 1"
! awk '/^#(SRV|HERE|KERNEL)/ && $2 == "TCPIP" && !($6 > 0 && $7 > 0) {found = 1}
  END {exit !found}' "$root/etc/lumo_tcp/nodetab" || Fail 'a node without time-outs'
CheckUnits
CheckStart

step "Upgrade"
cp "$root/etc/lumo_tcp/nodetab" "$work/nodetab"
cp "$work/nodetab" "$root/etc/lumo_tcp/nodetab.20600"
Dpkg -i "$work"/next/*.deb
Expect "$version+1" dpkg-query --admindir="$root/var/lib/dpkg" -Wf '${Version}' lumo-tcp
cmp "$work/nodetab" "$root/etc/lumo_tcp/nodetab"

step "Removal and purge"
Dpkg -r $(dpkg-query --admindir="$root/var/lib/dpkg" -Wf '${Package} ')
cmp "$work/nodetab" "$root/etc/lumo_tcp/nodetab"
[ ! -e "$root/usr/sbin/lumo_tcp" ] || Fail 'the agent was left'
Dpkg -P $(dpkg-query --admindir="$root/var/lib/dpkg" -Wf '${Package} ')
Expect '' Accounts
Everything | diff "$work/before" - || Fail 'something was left behind'
step "Package tests passed"
