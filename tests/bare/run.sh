#!/usr/bin/env bash
# Runs the two commands of the README where nothing is installed: each in a fresh Debian 12 of
# debootstrap's smallest kind, in namespaces of its own, with no terminal and no standard input.
# Says what took how long; the logs are in build/bare. Needs root, debootstrap and the right to
# mount; packages come from where this machine's apt gets them.
#
#   tests/bare/run.sh [--user USER]... [--tree TREE]... [COMMAND]...
#
# USER is root, or user: one with sudo. TREE is plain: a copy without .git, and no git installed; or
# checkout: a copy with both. COMMAND is demo.sh or test.sh, "test.sh --quick" for example. Without
# them all of each.
#
# The smallest system is made once and kept in CACHE (/var/cache/lumo_bare); removing that is safe.
set -euo pipefail
cd "$(dirname "$0")/../.."
exec </dev/null

suite=bookworm
cache=${CACHE:-/var/cache/lumo_bare}
logs=$PWD/build/bare
users=() trees=() commands=() results=() failed=0
while [ $# -gt 0 ]; do
  case $1 in
    --user) users+=("$2") && shift ;;
    --tree) trees+=("$2") && shift ;;
    *) commands+=("$1") ;;
  esac
  shift
done
[ "${#users[@]}" -gt 0 ] || users=(root user)
[ "${#trees[@]}" -gt 0 ] || trees=(plain checkout)
[ "${#commands[@]}" -gt 0 ] || commands=(./demo.sh ./test.sh)

work=$(mktemp -d)
inside=''
CleanUp() {
  if [ -n "$inside" ]; then
    kill -KILL "$inside" # and with it all that runs there
    wait "$inside" || true
  fi
  rm -rf --one-file-system "$work"
}
trap CleanUp EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
mkdir -p "$cache" "$logs"

# The mirror of the distribution proper, as apt knows it.
Mirror() {
  apt-get indextargets --format '$(REPO_URI)' "Codename: $suite" 'Component: main' \
    'Created-By: Packages' | head -n 1
}

# Of apt's settings only those that concern fetching: the rest calls what is not installed there.
CopyAptSettings() { # ROOT
  rm -rf "$1"/etc/apt/sources.list*
  (cd /etc/apt && find . -path ./apt.conf.d -prune -o -name '*.disabled*' -o -type f -print) |
    tar -C /etc/apt -cT - | tar -C "$1/etc/apt" -x
  apt-config dump | grep -E '^Acquire::' >"$1/etc/apt/apt.conf.d/50machine"
  mkdir -p "$1/usr/share/keyrings"
  cp -n /usr/share/keyrings/* "$1/usr/share/keyrings/"
}

SmallestSystem() {
  [ ! -e "$cache/$suite.tar" ] || return 0
  debootstrap --variant=minbase "$suite" "$work/first" "$(Mirror)" >"$logs/debootstrap.log" || {
    tail -n 20 "$logs/debootstrap.log" >&2
    exit 1
  }
  CopyAptSettings "$work/first"
  tar -C "$work/first" -cf "$cache/$suite.tar.new" .
  mv "$cache/$suite.tar.new" "$cache/$suite.tar"
  rm -rf "$work/first"
}

# Runs a piece of shell there, as root; in the background, so that signals are heard meanwhile. Not
# by chroot, in which a user may make no namespaces: programs there find themselves on a machine.
InRoot() { # ROOT SHELL ARGUMENT...
  local root=$1
  shift
  cp /etc/resolv.conf /etc/hosts "$root/etc/"
  root=$root setsid --wait unshare --mount --pid --ipc --uts --fork --kill-child bash -euc '
    mount --bind "$root" "$root"
    cd "$root"
    mount -t proc proc proc
    mount -t sysfs -o ro sysfs sys
    mount -t tmpfs -o mode=755 tmpfs dev
    mount -t tmpfs -o mode=1777 tmpfs tmp
    mkdir dev/shm dev/pts
    mount -t tmpfs -o mode=1777 tmpfs dev/shm
    mount -t devpts -o newinstance,ptmxmode=666,mode=620 devpts dev/pts
    ln -s pts/ptmx dev/ptmx
    ln -s /proc/self/fd dev/fd
    for device in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0; do
      IFS=: read -r name major minor <<<"$device"
      mknod -m 666 "dev/$name" c "$major" "$minor"
    done
    mapfile -t proxies < <(env | grep -iE "^(https?|ftp|no)_proxy=")
    mkdir machine
    pivot_root . machine
    umount -l machine
    rmdir machine
    exec env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
      "${proxies[@]}" /bin/bash -euc "$@"' inside "$@" &
  inside=$!
  local status=0
  wait "$inside" || status=$?
  inside=''
  return "$status"
}

# Without what has been built in it.
CopyTree() { # ROOT TREE
  local without=(--exclude=./build --exclude='./obj-*')
  [ "$2" = checkout ] || without+=(--exclude=./.git)
  mkdir "$1/tree"
  tar -c "${without[@]}" . | tar -C "$1/tree" -x
}

Prepare='
  user=$1 tree=$2
  export DEBIAN_FRONTEND=noninteractive
  needed=()
  [ "$tree" = plain ] || needed+=(git)
  if [ "$user" = user ]; then needed+=(sudo); fi
  if [ "${#needed[@]}" -gt 0 ]; then
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${needed[@]}" >/dev/null
    rm -rf /var/lib/apt/lists/*
  fi
  if [ "$user" = user ]; then
    useradd --create-home --shell /bin/bash user
    echo "user ALL=(ALL) NOPASSWD: ALL" >/etc/sudoers.d/user
    chown -R user: /tree
  else
    chown -R root: /tree
  fi'

Run='
  user=$1 command=$2
  cd /tree
  if [ "$user" = root ]; then bash -c "$command"; else
    setpriv --reuid=user --regid=user --init-groups env HOME=/home/user USER=user bash -c "$command"
  fi'

# Nothing of the tree may be left that its owner cannot remove.
Strangers='find /tree ! -user "$1" | head -n 5'

RunOne() { # USER TREE COMMAND
  local root=$work/root log from=$SECONDS status=0
  log=$logs/$1-$2-$(tr -dc '[:alnum:].' <<<"$3").log
  mkdir "$root"
  tar -C "$root" -xf "$cache/$suite.tar"
  CopyTree "$root" "$2"
  InRoot "$root" "$Prepare" prepare "$1" "$2" >"$log" 2>&1 || status=$?
  from=$SECONDS
  [ "$status" -ne 0 ] || InRoot "$root" "$Run" run "$1" "$3" >>"$log" 2>&1 || status=$?
  local time=$((SECONDS - from)) strangers
  strangers=$(InRoot "$root" "$Strangers" strangers "$1")
  [ -z "$strangers" ] || { status=99 && echo "not $1's own: $strangers" >>"$log"; }
  results+=("$(printf '%-5s %-9s %-18s %2d:%02d  exit status %d' \
    "$1" "$2" "$3" $((time / 60)) $((time % 60)) "$status")")
  echo "${results[-1]}"
  if [ "$status" -ne 0 ]; then
    failed=1
    tail -n 40 "$log"
  fi
  rm -rf --one-file-system "$root"
}

SmallestSystem
for command in "${commands[@]}"; do
  for user in "${users[@]}"; do
    for tree in "${trees[@]}"; do RunOne "$user" "$tree" "$command"; done
  done
done
printf '\n%s\n' 'All runs:' "${results[@]}"
exit "$failed"
