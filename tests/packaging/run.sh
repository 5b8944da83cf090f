#!/usr/bin/env bash
# Builds the Debian package and looks at it: lintian, the units, an installation, upgrade, removal
# and purge in a scratch root, a start exactly as the unit says, the installed tools as users of the
# groups and as a stranger, reload, the node test of the timer, the README's five lines. The
# machine's own package database, accounts and services are not touched.
#
#   tests/packaging/run.sh [BUILD-DIRECTORY [--built]]
#
# The build directory is where lumo_node is (build/release).
set -euo pipefail
cd "$(dirname "$0")/../.."
source tools/setup.sh

build=$(realpath "${1:-build/release}")
unset NET_MBX DBC_LOG TAVRIN_TMP

copy=$PWD/build/package
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

# By whoever runs this, in a copy at a place that stays, so that only what has changed is compiled
# again. dh_clean takes away what a build in the tree itself has left. Nobody looks at the debugging
# information here, which would take a part of the compiling.
BuildPackage() {
  local log=$copy/build.log
  mkdir -p "$copy/tree"
  find "$copy/tree" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
  rm -f "$copy"/*.deb
  tar -c --exclude=./build --exclude=./.git --exclude='./obj-*' . | tar -xC "$copy/tree"
  (cd "$copy/tree" && dh_clean && DEB_CXXFLAGS_STRIP=-g \
    DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" dpkg-buildpackage -b -us -uc -nc) >"$log" 2>&1 || {
    tail -n 30 "$log" >&2
    Fail 'the package does not build'
  }
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
  [ "$(wc -l <"$work/names")" -eq 8 ] || Fail 'eight units were expected'
  # shellcheck disable=SC2046
  systemd-analyze verify --root="$work/units/root" --man=no $(cat "$work/names") \
    >"$work/verify" 2>&1 || Fail "$(cat "$work/verify")"
  ! grep -q lumo "$work/verify" || Fail "$(cat "$work/verify")"
  local limit
  for unit in lumo_tcp lumo_tcp-ping lumo_tcp-exporter lumo_tcp@20600 lumo_tcp-ping@20600; do
    # 0 is the safest, 100 the least safe. The agent has to see users and processes as they are.
    case $unit in *-ping* | *-exporter) limit=15 ;; *) limit=18 ;; esac
    systemd-analyze security --offline=true --root="$work/units/root" --threshold="$limit" \
      --no-pager "$unit.service" >"$work/security" || Fail "$(tail -n 1 "$work/security")"
    tail -n 1 "$work/security"
  done
  apparmor_parser -Q -K "$root/etc/apparmor.d/lumo_tcp" 2>"$work/apparmor" || Fail 'the profile'
  ! grep -hE '^[^#]*(-PKILL|-K[ =]|-U\b|PrivateTmp=yes|PrivateIPC=yes|PrivatePIDs)' \
    "$units"/* || Fail 'an option that must not be in a unit'
}

# --- A start as the unit says -----------------------------------------------------------------

# Runs a command line of the service (ExecStart, ExecReload) under the scratch root, with its
# environment and account. The accounts of the scratch root have numbers, no names here. Returns when
# the agent serves, or with the status when the command has ended.
RunUnitCommand() {
  local unit=$root/lib/systemd/system/lumo_tcp.service command settings
  command=$(sed ':a; /\\$/ {N; s/\\\n *//; ba}' "$unit" | sed -n "s/^$1=-\?//p" |
    sed 's/\$\$/$/g')
  settings=$(sed -n 's/^Environment=//p' "$unit" | sed "s/@lumo-admin/@$admins/")
  settings+=" $(grep -v '^#' "$root/etc/default/lumo_tcp" | xargs)"
  command=$(sed -E "s#(^|[ =])/(usr|etc|run)/#\1$root/\2/#g" <<<"$command")
  settings=$(sed -E "s#(^|[ =])/(usr|etc|run)/#\1$root/\2/#g" <<<"$settings")
  # Files of this run alone: a running agent goes on writing to those of its own.
  rm -f "$work"/start.{out,err}
  # What systemd makes before: the runtime directory.
  mkdir -p "$root/run/lumo_tcp" && chown "$user:$group" "$root/run/lumo_tcp"
  # shellcheck disable=SC2086
  env -i $settings setpriv --reuid="$user" --regid="$group" --groups="$group,$clients" sh -c \
    "umask 077; exec $command" >"$work/start.out" 2>"$work/start.err" &
  local agent=$!
  until Ended "$agent" || grep -q '^Default server' "$work/start.out"; do sleep 0.05; done
  ! Ended "$agent" || wait "$agent"
}
RunExecStart() { RunUnitCommand ExecStart; }

# Runs a command as a member of these groups (numbers, or none), with the scratch root's /run for
# the machine's: no variable says where the agent is.
As() { # GROUPS COMMAND...
  local groups=--clear-groups
  [ -z "$1" ] || groups=--groups=$1
  shift
  # shellcheck disable=SC2016
  env -u TAVRIN_TMP unshare --mount sh -c 'mount -t tmpfs tmpfs /run && mkdir /run/lumo &&
      mount --bind "$1/run/lumo" /run/lumo && shift && exec "$@"' sh "$root" \
    setpriv --reuid=64321 --regid=64321 "$groups" "$@"
}
Ctl() { "$root/usr/bin/lumoctl" "$@"; }

CheckStart() {
  user=$(awk -F: '$1 == "lumo-tcp" {print $3}' "$root/etc/passwd")
  group=$(awk -F: '$1 == "lumo-tcp" {print $3}' "$root/etc/group")
  clients=$(awk -F: '$1 == "lumo" {print $3}' "$root/etc/group")
  admins=$(awk -F: '$1 == "lumo-admin" {print $3}' "$root/etc/group")
  member=$clients admin=$clients,$admins ctl=$root/usr/bin/lumoctl

  # Without nodes it fails, and leaves no pid file.
  ! RunExecStart || Fail 'a start without nodes'
  grep -q 'Supported protocols are not found' "$work/start.err" || Fail 'an empty table'
  [ ! -e "$root/run/lumo_tcp/agent.pid" ] || Fail 'a pid file without an agent'

  # The lines of the example, with a name that resolves.
  sed -i -E 's/^#(SRV|HERE|KERNEL)/\1/; s/db1.example.org/127.0.0.1/' "$root/etc/lumo_tcp/nodetab"
  RunExecStart || Fail 'the starting command'
  local pid
  pid=$(cat "$root/run/lumo_tcp/agent.pid")
  # No waiting: it answers when it has said that it serves.
  Expect $'SRV1\nSRV2\nHERE\nKERNEL' As "$member" "$ctl" list --names
  Expect SRV1 As "$member" "$ctl" default
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
  ! RunExecStart || Fail 'a second agent starts'
  grep -q 'is already used' "$work/start.err" || Fail "a second agent: $(cat "$work/start.err")"
  Ended "$(cat "$root/run/lumo_tcp/agent.pid")" || Fail 'the second agent lives'
  CheckTools
  CheckReload
  CheckPing
  kill "$pid"
  WaitFor Ended "$pid"
  [ ! -e "$root/run/lumo/agent/tavrin.20562" ] || Fail 'a socket was left'
  rm -f "$root/run/lumo_tcp/agent.pid"
}

# --- The installed tools, as their users --------------------------------------------------------

CheckTools() {
  Expect "$(printf '%s\n' "agent    process $(cat "$work/first.pid") on /run/lumo/agent/tavrin.20562" \
    'nodes    4' 'default  SRV1' "table    $root/etc/lumo_tcp/nodetab" 'lock     free')" \
    As "$member" "$ctl" status
  As '' "$ctl" list >/dev/null 2>"$work/stranger" && Fail 'a stranger got through'
  grep -q '/run/lumo/agent/tavrin.20562 (Permission denied).*group lumo' "$work/stranger" ||
    Fail "$(cat "$work/stranger")"
  # shellcheck disable=SC2016
  local login='. "$1" && echo "${TAVRIN_TMP-none}"' profile=$root/etc/profile.d/lumo_tcp.sh
  Expect /run/lumo/agent As "$member" sh -euc "$login" sh "$profile"
  Expect none As '' sh -euc "$login" sh "$profile"
  Expect none sh -euc "$login" sh "$profile"

  # Who may change nodes, and in whose name.
  As "$member" "$ctl" add 'NEW TCPIP 127.0.0.1' 2>"$work/refused" && Fail 'a member changed nodes'
  grep -q 'does not permit this.*LUMO_MANAGERS' "$work/refused" || Fail "$(cat "$work/refused")"
  Expect added As "$admin" "$ctl" add 'NEW TCPIP 127.0.0.1 1060 3 60 10'
  Expect deleted As "$admin" "$ctl" del NEW
  "$ctl" --socket "$root/run/lumo/agent/tavrin.20562" stats >/dev/null || Fail 'no counters for root'
  As "$member" "$ctl" stats >/dev/null 2>"$work/refused" && Fail 'a member read the counters'
  grep -q 'cannot be read: Permission denied; root' "$work/refused" || Fail "$(cat "$work/refused")"
  # A client in another process id namespace names a process that is none of its user's.
  unshare --pid --fork env TAVRIN_TMP="$root/run/lumo/agent" setpriv --reuid=64321 --regid=64321 \
    --groups="$member" sh -c '"$1" list; exit $?' sh "$ctl" 2>"$work/refused" &&
    Fail 'a name from another namespace was taken'
  grep -q 'does not permit this.*another process id namespace' "$work/refused" ||
    Fail "$(cat "$work/refused")"
}

CheckReload() {
  local table=$root/etc/lumo_tcp/nodetab
  cp "$table" "$work/table.before"
  Reload() { # EXPECTED-NODES
    RunUnitCommand ExecReload || Fail "reload: $(cat "$work/start.err")"
    Expect "$1" As "$member" "$ctl" list --names
  }
  sed -i 's/^SRV2 .*/SRV2 TCPIP 192.0.2.8 1060 3 600 10\nSRV3 TCPIP 192.0.2.9 1060 3 600 10/' "$table"
  Reload $'SRV1\nSRV2\nSRV3\nHERE\nKERNEL'
  # A faulty table is told and changes nothing.
  echo 'BAD UDP' >>"$table"
  RunUnitCommand ExecReload && Fail 'reload of a faulty table'
  grep -q "the protocol 'UDP' is unknown" "$work/start.err" || Fail "$(cat "$work/start.err")"
  RunUnitCommand ExecStartPre && Fail 'the check before the start'
  grep -q "the protocol 'UDP' is unknown" "$work/start.out" || Fail "$(cat "$work/start.out")"
  cp "$work/table.before" "$table"
  Reload $'SRV1\nSRV2\nHERE\nKERNEL'
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
  TAVRIN_TMP=$root/run/lumo/agent Ctl --timeout 1 ping --file "$work/table" \
    --program "$root/usr/sbin/lumo_tcp"
}
Verdicts() { PingNodes | sed -E 's/ +[0-9]+\.[0-9]+$//; s/ +/ /g' | tail -n +2; }

CheckPing() {
  Node good
  printf '# GOOD in a comment\n\n  Good TCPIP 127.0.0.1 %s 0 0 5\nH TCPIP localhost %s 0 0 5\n' \
    "$port" "$port" >"$work/table"
  Expect $'GOOD alive\nH alive' Verdicts
  PingNodes >/dev/null || Fail 'the status for living nodes'
  Node silent --silent
  printf 'MUTE TCPIP 127.0.0.1 %s\nGONE REZ x\n' "$port" >>"$work/table"
  Expect "$(printf '%s\n' 'GOOD alive' 'H alive' 'MUTE no answer within 1.000 s' \
    'GONE Protocol disabled 4066')" Verdicts
  ! PingNodes >/dev/null || Fail 'the status with dead nodes'
  [ -S "$root/run/lumo/agent/tavrin.20562" ] || Fail 'a test run has removed the socket'
}

# --- The other ways in ----------------------------------------------------------------------------

# Everything of the agent, with its table at the same place whatever the prefix.
CheckCmakeInstall() {
  local path
  DESTDIR=$work/plain cmake --install "$build" --component lumo-tcp >"$work/install.log" ||
    Fail "$(cat "$work/install.log")"
  for path in etc/lumo_tcp/nodetab etc/default/lumo_tcp usr/local/lib/sysusers.d/lumo-tcp.conf \
    usr/local/lib/tmpfiles.d/lumo-tcp.conf usr/local/sbin/lumo_tcp usr/local/bin/lumoctl \
    usr/local/lib/systemd/system/lumo_tcp.service usr/local/share/doc/lumo_tcp/operations.md; do
    [ -e "$work/plain/$path" ] || Fail "cmake --install: no $path"
  done
  grep -q -- '-NODETAB=/etc/lumo_tcp/nodetab ' "$work/plain/usr/local/lib/systemd/system/lumo_tcp.service" ||
    Fail 'the table of the unit'
}

# The block as pasted into a shell, line by line, with a port that is free here.
CheckReadme() {
  local package
  for package in "${build_packages[@]}"; do
    grep -qw -- "$package" <(sed -n '/^## In five lines/,/^    /p' README.md) ||
      Fail "the README does not name $package"
  done
  sed -n '/^## In five lines/,/^What an/p' README.md | sed -n 's/^    //p' >"$work/lines"
  [ "$(wc -l <"$work/lines")" -eq 5 ] || Fail 'not five lines'
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  sed -i "s/10600/$port/g; s/^lumo_node .*/&\nuntil (: <\/dev\/tcp\/127.0.0.1\/$port) 2>\/dev\/null; do sleep 0.05; done/" \
    "$work/lines"
  TMPDIR=$work timeout 1200 bash <"$work/lines" >"$work/readme.out" 2>"$work/readme.err" ||
    Fail "$(cat "$work/readme.err")"
  grep -q '^0  \*  SRV1  TCPIP  ' <(tr -s ' ' <"$work/readme.out" | sed 's/ /  /g') ||
    Fail "$(cat "$work/readme.out")"
  grep -qE '^SRV1 +alive' "$work/readme.out" || Fail "$(cat "$work/readme.out")"
  grep -qx 1 "$work/readme.out" || Fail "$(cat "$work/readme.out")"
}

if [ "${2:-}" != --built ]; then
  install_packages "${build_packages[@]}" "${debian_packages[@]}"
  step "Debian package"
  BuildPackage
  lintian --fail-on error,warning --allow-root "$copy"/*.deb
  # By whoever runs this: what they leave in the build directory is his.
  step "Installation without packages"
  CheckCmakeInstall
  step "The README's five lines"
  CheckReadme
fi
# dpkg unpacks with owners, and the agent is started under the package's account.
if [ "$(id -u)" -ne 0 ]; then
  sudo tests/packaging/run.sh "$build" --built
  exit
fi
# Without the Python module, whose script compiles for the interpreter of the machine itself: that it
# has what it is for is looked at, the rest needs a whole system (live.sh).
mapfile -t packages < <(find "$copy" -maxdepth 1 -name '*.deb' ! -name 'python3-lumo_*' | sort)
dpkg-deb -c "$copy"/python3-lumo_*.deb >"$work/python"
grep -q /usr/lib/python3/dist-packages/lumo/__init__.py "$work/python" || Fail 'no Python module'
version=$(dpkg-parsechangelog -l debian/changelog -S Version)
NextVersion

step "Installation"
MakeRoot
Dpkg -i "${packages[@]}"
Expect 'lumo lumo-admin lumo-tcp lumo-tcp' Accounts
Expect "lumoctl $version" sh -c "'$root/usr/bin/lumoctl' --version | head -n 1"
Expect 'Vanx Embedded v. 6.0.42.18 for LINUX (Socket)' sh -c \
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

step "Without systemd"
# The package's script, where there is no systemd-tmpfiles, makes the same directories.
mkdir "$work/without"
ln -s /usr/bin/* /usr/sbin/* "$work/without" 2>/dev/null || true
rm "$work/without/systemd-tmpfiles"
rm -r "$root/run/lumo"
PATH=$work/without DPKG_ROOT=$root DPKG_MAINTSCRIPT_PACKAGE=lumo-tcp \
  sh "$root/var/lib/dpkg/info/lumo-tcp.postinst" configure >"$work/postinst.log" 2>&1 ||
  Fail "$(cat "$work/postinst.log")"
Expect "710 0 $clients" stat -c '%a %u %g' "$root/run/lumo"
Expect "1771 0 $group" stat -c '%a %u %g' "$root/run/lumo/agent"

step "Removal and purge"
Dpkg -r $(dpkg-query --admindir="$root/var/lib/dpkg" -Wf '${Package} ')
cmp "$work/nodetab" "$root/etc/lumo_tcp/nodetab"
[ ! -e "$root/usr/sbin/lumo_tcp" ] || Fail 'the agent was left'
Dpkg -P $(dpkg-query --admindir="$root/var/lib/dpkg" -Wf '${Package} ')
Expect '' Accounts
Everything | diff "$work/before" - || Fail 'something was left behind'
step "Package tests passed"
