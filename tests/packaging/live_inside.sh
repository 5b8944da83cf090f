# Run by live.sh under the system manager; prints "The package works" at the end, or what failed.
set -uo pipefail
cd /shared

Say() { printf -- '- %s\n' "$*"; }
Fail() {
  printf 'FAILED: %s\n' "$*"
  journalctl --no-pager -o cat -n 30
  exit 1
}
Expect() { # EXPECTED COMMAND...
  local expected=$1 output
  shift
  output=$("$@" 2>&1)
  [ "$output" = "$expected" ] || Fail "$*: '$output', not '$expected'"
}
Refused() { ! systemctl start "$1" 2>/dev/null || Fail "$1 started"; }
Start() { systemctl start "$1" || Fail "$1 does not start"; }
As() { exec setpriv --reuid="$1" --regid="$(id -g "$1")" --init-groups "${@:2}"; } # ends its shell
WaitFor() {
  local end=$((SECONDS + 20))
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$end" ] || Fail "waited in vain for: $*"
    sleep 0.1
  done
}
Node() { # USER LOG OPTION...
  TAVRIN_TMP=/run/lumo/agent As "$1" ./lumo_node --log "$2" "${@:3}" >"$2.out" &
  nodes+=($!)
  WaitFor grep -q '^listening' "$2.out"
}
Journal() { journalctl -u "$1" -o cat | grep -- "$2" >/dev/null; }
Status() { systemctl show -P StatusText lumo_tcp | grep -- "$1" >/dev/null; }
Scraped() {
  python3 -c 'from urllib.request import urlopen
print(urlopen("http://127.0.0.1:9560/metrics", timeout=5).read().decode())' | grep -- "^$1" >/dev/null
}
Pid() { systemctl show -P MainPID "$1"; }
Traces() {
  find /etc /lib/systemd /usr/lib/systemd /usr/sbin /usr/bin /usr/libexec /usr/share /run \
    /var/lib/systemd -path /run/systemd -prune -o -path /run/log -prune -o -print | grep -i lumo
  grep -h lumo /etc/passwd /etc/group
  systemctl list-units --all --plain --no-legend 'lumo*'
}

nodes=()
useradd member && useradd manager && useradd stranger
Expect '' Traces
Say installation
dpkg -i lumo-tcp_*.deb >/dev/null 2>&1 || Fail 'installation'
usermod -aG lumo member
usermod -aG lumo,lumo-admin manager
Expect inactive systemctl is-active lumo_tcp
Expect disabled systemctl is-enabled lumo_tcp

Say 'a start without nodes fails'
Refused lumo_tcp
Expect exit-code systemctl show -P Result lumo_tcp
systemctl stop lumo_tcp

Say 'it is ready when the command returns, for members of the group only'
Node root /tmp/tcp --listen 10600 --delay 4500
Node lumo-tcp /shared/ipc --ipc 0x5053
Node lumo-tcp /shared/local --local 20563
printf '%s\n' 'SRV1 TCPIP 127.0.0.1 10600 3 600 10' 'KERNEL LOCALI 0x5053' 'HERE LOCALS 20563' \
  >/etc/lumo_tcp/nodetab
Start lumo_tcp
Expect '/etc/lumo_tcp/nodetab' As member lumoctl path
(As stranger lumoctl path >/dev/null 2>&1) && Fail 'a stranger got through'
Expect /run/lumo/agent As member sh -lc 'echo $TAVRIN_TMP'
Expect 'drwx--x--- root lumo' stat -c '%A %U %G' /run/lumo
Expect 'drwxrwx--t root lumo-tcp' stat -c '%A %U %G' /run/lumo/agent

Say 'all transports, and the eyes for processes of others'
Expect 2 As member lumoctl query -n SRV1 'select 1+1' # two ticks pass: it sees that the client lives
Expect 3 As member lumoctl query -n KERNEL 'select 1+2'
Expect 4 As member lumoctl query -n HERE 'select 1+3'
(As member timeout 1 lumoctl query -n SRV1 'select 5' >/dev/null)
WaitFor grep -q CKIL /tmp/tcp

Say 'it tells the manager how it is'
Expect notify systemctl show -P Type lumo_tcp
Expect 30s systemctl show -P WatchdogUSec lumo_tcp
# A tick later; clients of before may still be there.
WaitFor Status '^[0-9]* clients, 3 nodes, default SRV1$'

Say 'its counters: for root and the account of the agent, and through the exporter'
Expect '-rw-r----- lumo-tcp lumo-tcp' stat -c '%A %U %G' /run/lumo/agent/tavrin.20562.stats
lumoctl stats SRV1 >/tmp/stats || Fail 'the counters'
(As member lumoctl stats >/dev/null 2>/tmp/refused) && Fail 'a member read the counters'
grep -q 'cannot be read: Permission denied; root' /tmp/refused || Fail "$(cat /tmp/refused)"
Start lumo_tcp-exporter
WaitFor Scraped 'lumo_up{exchange="20562"} 1'
Scraped 'lumo_node_requests_total{exchange="20562",node="KERNEL"} [1-9]' || Fail 'no requests of KERNEL'

Say 'a drop-in counts, and an agent that is stuck is replaced; meanwhile the exporter tells of it'
mkdir /etc/systemd/system/lumo_tcp.service.d
printf '[Service]\nWatchdogSec=8\n' >/etc/systemd/system/lumo_tcp.service.d/watchdog.conf
systemctl daemon-reload
systemctl restart lumo_tcp || Fail 'a restart with a drop-in'
Expect 8s systemctl show -P WatchdogUSec lumo_tcp
old=$(Pid lumo_tcp)
kill -STOP "$old"
WaitFor Scraped 'lumo_last_pass_age_seconds{exchange="20562"} [4-9]'
WaitFor Journal lumo_tcp 'Watchdog timeout'
WaitFor lumoctl wait --timeout 1
[ "$(Pid lumo_tcp)" != "$old" ] || Fail 'the stuck agent goes on'
rm -r /etc/systemd/system/lumo_tcp.service.d
systemctl daemon-reload
systemctl restart lumo_tcp || Fail 'a restart without the drop-in'
systemctl stop lumo_tcp-exporter

Say 'what developers get'
. ./developer_inside.sh

Say 'managers change nodes, other members do not'
(As member lumoctl add 'NEW TCPIP 127.0.0.1' >/dev/null 2>/tmp/refused) && Fail 'a member added a node'
grep -q 'does not permit this' /tmp/refused || Fail "$(cat /tmp/refused)"
WaitFor Journal lumo_tcp "user $(id -u member) is not permitted"
Expect added As manager lumoctl add 'NEW TCPIP 127.0.0.1 1060 3 600 10'
Expect deleted As manager lumoctl del NEW

Say 'reload applies the table; what a node in use defers is no failure'
echo 'NEW TCPIP 127.0.0.1 1061 3 600 10' >>/etc/lumo_tcp/nodetab
sed -i 's/^SRV1 .*/SRV1 TCPIP 127.0.0.1 10600 3 601 10/' /etc/lumo_tcp/nodetab
systemctl reload lumo_tcp || Fail 'reload'
Expect $'SRV1\nKERNEL\nHERE\nNEW' As member lumoctl list --names
WaitFor Journal lumo_tcp 'SRV1.*deferred: the node is in use'
echo 'BAD UDP' >>/etc/lumo_tcp/nodetab
! systemctl reload lumo_tcp 2>/dev/null || Fail 'a faulty table was applied'
Expect active systemctl is-active lumo_tcp
systemctl restart lumo_tcp || Fail 'a faulty line prevents the start'
WaitFor Journal lumo_tcp "error: the protocol 'UDP' is unknown"
sed -i '/^NEW\|^BAD/d' /etc/lumo_tcp/nodetab
systemctl reload lumo_tcp || Fail 'reload'
Expect $'SRV1\nKERNEL\nHERE' As member lumoctl list --names

Say 'the test of the nodes leaves the sockets alone'
Start lumo_tcp-ping
Expect $'tavrin.20562\ntavrin.20562.stats\ntavrin.20563' ls /run/lumo/agent
for node in SRV1 KERNEL HERE; do
  WaitFor Journal lumo_tcp-ping "^$node  *alive"
done

Say 'an agent that was killed comes back'
old=$(Pid lumo_tcp)
kill -9 "$old"
WaitFor lumoctl wait --timeout 1
[ "$(Pid lumo_tcp)" != "$old" ] || Fail 'the same process'

Say instances
for id in 20562 20600 name; do cp /etc/lumo_tcp/nodetab "/etc/lumo_tcp/nodetab.$id"; done
Start lumo_tcp@20600
Expect '/etc/lumo_tcp/nodetab.20600' lumoctl -M 20600 path
Refused lumo_tcp@20562 # the id of the first agent
Refused lumo_tcp@name
Refused lumo_tcp@77 # without a table
systemctl stop lumo_tcp@20562 lumo_tcp@name
Expect '/etc/lumo_tcp/nodetab' lumoctl path
systemctl enable -q lumo_tcp lumo_tcp@20600 lumo_tcp-ping.timer lumo_tcp-ping@20600.timer
Start lumo_tcp-ping.timer
Start lumo_tcp-ping@20600.timer

Say 'an upgrade restarts what runs'
old="$(Pid lumo_tcp) $(Pid lumo_tcp@20600)"
dpkg -i lumo-tcp_*.deb >/dev/null 2>&1 || Fail 'the upgrade'
for unit in lumo_tcp lumo_tcp@20600; do
  Expect active systemctl is-active "$unit"
  ! grep -qw "$(Pid "$unit")" <<<"$old" || Fail "$unit was not restarted"
done
Expect enabled systemctl is-enabled lumo_tcp

Say 'removal and purge leave nothing'
systemctl stop lumo_tcp
[ ! -e /run/lumo/agent/tavrin.20562 ] || Fail 'a socket was left'
Start lumo_tcp
kill "${nodes[@]}"
WaitFor test ! -e /run/lumo/agent/tavrin.20563
dpkg -r lumo-tcp >/dev/null 2>&1 || Fail 'the removal'
Expect '' pgrep -x lumo_tcp
dpkg -P lumo-tcp >/dev/null 2>&1 || Fail 'the purge'
systemctl daemon-reload
Expect '' Traces
echo 'The package works'
