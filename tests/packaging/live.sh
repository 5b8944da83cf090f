#!/usr/bin/env bash
# Installs the package under a real system manager, systemd as process 1 of namespaces of its own
# over a copy-on-write view of this machine, and tries the units as an administrator would. Nothing
# of the machine is changed. Needs root and a kernel that permits mounts, so it is no part of
# test.sh; run it when the units or the package's scripts have changed, after run.sh (which builds).
#
#   tests/packaging/live.sh [BUILD-DIRECTORY]    where lumo_node is (build/release)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=$(realpath "${1:-build/release}")
packages=$PWD/build/package
inside=$PWD/tests/packaging/live_inside.sh
work=$(mktemp -d)
group=lumo-live-$$
trap 'rm -rf "$work"' EXIT

mkdir "$work"/{shared,root,layer,cgroup}
cp "$packages"/*.deb "$inside" "${inside%/*}/developer_inside.sh" "$build"/tools/lumo_node/lumo_node \
  "$work/shared"
chmod -R a+rwX "$work/shared"

# In a mount namespace of its own, so that nothing stays mounted whatever happens.
export work group
timeout --kill-after=5 440 unshare --mount bash -euc '
  mount -t tmpfs tmpfs "$work/layer"
  mkdir "$work"/layer/{up,work}
  mount -t overlay overlay "$work/root" \
    -o "lowerdir=/,upperdir=$work/layer/up,workdir=$work/layer/work"
  mount -t cgroup2 none "$work/cgroup"
  mkdir "$work/cgroup/$group"
  # The manager gets a part of the tree of groups, and takes it for the whole.
  (
    echo $BASHPID >"$work/cgroup/$group/cgroup.procs"
    exec unshare --mount --cgroup --pid --fork --kill-child --ipc --net --uts bash -euc '\''
      cd "$work/root"
      mount -t proc proc proc
      mount -t sysfs -o ro sysfs sys
      mount -t cgroup2 none sys/fs/cgroup
      mount -t tmpfs -o mode=755 tmpfs run
      mount -t tmpfs -o mode=1777 tmpfs tmp
      mount -t tmpfs -o mode=755 tmpfs dev
      mkdir -p dev/shm dev/pts shared old etc/systemd/system
      for device in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0 ptmx:5:2; do
        IFS=: read -r name major minor <<<"$device"
        mknod -m 666 "dev/$name" c "$major" "$minor"
      done
      mount -t devpts devpts dev/pts
      ln -s /proc/self/fd dev/fd
      mount --bind "$work/shared" shared
      rm -f usr/sbin/policy-rc.d
      {
        printf "[Unit]\nAfter=basic.target\nRequires=basic.target\nAllowIsolate=yes\n"
        printf "SuccessAction=exit-force\nFailureAction=exit-force\n[Service]\nType=oneshot\n"
        printf "ExecStart=/bin/bash /shared/live_inside.sh\nTimeoutStartSec=400\n"
        printf "StandardOutput=append:/shared/out\nStandardError=append:/shared/out\n"
      } >etc/systemd/system/live.service
      pivot_root . old
      umount -l /old
      exec env -i container=lumo PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        /lib/systemd/systemd --system --unit=live.service --show-status=no
    '\''
  ) || true
  # The last processes may still be on their way out.
  for _ in {1..50}; do
    find "$work/cgroup/$group" -depth -type d -exec rmdir {} + 2>/dev/null || true
    [ -e "$work/cgroup/$group" ] || break
    sleep 0.1
  done
' >"$work/log" 2>&1 || true
cat "$work/shared/out" || cat "$work/log"
grep -q '^The package works' "$work/shared/out"
