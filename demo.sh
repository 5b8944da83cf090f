#!/usr/bin/env bash
# Shows the agent at work: builds it, starts stand-in database nodes (a real embedded database
# behind each), sends SQL through the agent and checks every answer. Ends by itself, removes what
# it made, and exits with 0 only when everything was as expected. Needs no terminal.
set -euo pipefail
cd "$(dirname "$0")"
exec </dev/null
source tools/setup.sh
unset NET_MBX DBC_LOG

Build() {
  cmake --preset release >/dev/null
  cmake --build --preset release --target lumo_tcp lumo_node lumoctl
}

# --- What the scenes are told with -----------------------------------------------------------

folder='' agentPid=''
declare -A nodePid=() nodePort=()

Scene() { printf '\n=== %s\n' "$*"; }
Say() { printf '    %s\n' "$*"; }
Fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}

# Waits for a condition, 15 seconds at most.
WaitFor() {
  local end=$((SECONDS + 15))
  until "$@"; do
    [ "$SECONDS" -lt "$end" ] || Fail "waited in vain for: $*"
    sleep 0.05
  done
}

# A process that nobody has waited for yet has ended, too.
Ended() { ! grep -q '^State:.[^Z]' "/proc/$1/status" 2>/dev/null; }

CleanUp() {
  local status=$? name
  trap - EXIT
  [ -z "$agentPid" ] || kill "$agentPid" 2>/dev/null || true
  for name in "${!nodePid[@]}"; do kill "${nodePid[$name]}" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ "$status" -ne 0 ] && [ -s "$folder/agent.err" ]; then
    echo 'The last lines of the agent:' >&2
    tail -n 20 "$folder/agent.err" >&2
  fi
  [ -z "$folder" ] || rm -rf "$folder"
  exit "$status"
}

# StartNode NAME OPTION... ; a TCP node's port is then in nodePort[NAME].
StartNode() {
  local name=$1
  shift
  lumo_node "$@" --log "$folder/$name.log" >"$folder/$name.out" 2>"$folder/$name.err" &
  nodePid[$name]=$!
  WaitFor grep -qs '^listening on' "$folder/$name.out"
  nodePort[$name]=$(sed -n 's/^listening on tcp .*://p' "$folder/$name.out")
  Say "node $name: $(head -n 1 "$folder/$name.out")"
}

StopNode() {
  kill "${nodePid[$1]}"
  wait "${nodePid[$1]}"
  unset "nodePid[$1]"
}

# Run COMMAND... ; shows it with its output, which is then in $output, its exit status in $status.
Run() {
  local word line='$'
  for word in "$@"; do
    [[ $word =~ ^[[:alnum:]_./:=#-]+$ ]] || word="'$word'"
    line+=" $word"
  done
  Say "${line//"$folder/"/}"
  status=0
  output=$(timeout 20 "$@" 2>&1) || status=$?
  [ -z "$output" ] || printf "      %s\n" "${output//$'\n'/$'\n      '}"
}

Expect() {
  [ "$status" -eq "$1" ] || Fail "exit status $status, not $1"
  [ $# -lt 2 ] || [ "$output" = "$2" ] || Fail "not the expected answer: $2"
}

ExpectLine() { grep -qxF -- "$1" <<<"$output" || Fail "the line '$1' is missing"; }

# --- The scenes ------------------------------------------------------------------------------

StartNodes() {
  Scene 'Four nodes: two on TCP, one on a local socket, one on System V IPC'
  local table='create table stock(item text, amount int);'
  StartNode alpha --listen 0 --sql "$table insert into stock values('bolts',10),('nuts',20);"
  StartNode beta --listen 0 --sql "$table insert into stock values('gears',7);"
  StartNode kernel --local 4711 --sql "$table insert into stock values('springs',3);"
  StartNode queue --ipc "$ipcKey" --sql "$table insert into stock values('belts',5);"
}

StartAgent() {
  Scene 'The agent: its node table, and its start in the background'
  cat >"$folder/nodetab" <<END
# name, protocol, address, port, time-outs (receive, send, connect)
ALPHA TCPIP 127.0.0.1 ${nodePort[alpha]} 5 30 10
BETA TCPIP 127.0.0.1 ${nodePort[beta]} 5 30 10
KERNEL LOCALS 4711
QUEUE LOCALI $ipcKey
END
  sed 's/^/      /' "$folder/nodetab"
  Run lumoctl lint "$folder/nodetab"
  Expect 0
  Say "\$ DBC_LOG=15 lumo_tcp -N nodetab -AUTOCONNECT -PIDFILE pid"
  DBC_LOG=15 timeout 20 lumo_tcp -N "$folder/nodetab" -AUTOCONNECT -PIDFILE "$folder/pid" \
    >"$folder/agent.out" 2>"$folder/agent.err" || Fail 'the agent does not start'
  agentPid=$(tr -dc 0-9 <"$folder/pid")
  sed 's/^/      /' "$folder/agent.out"
}

ShowRouting() {
  Scene 'A request goes to the node that it names, or to the default node'
  Run lumoctl query -n ALPHA 'select * from stock order by item'
  Expect 0 $'bolts\t10\nnuts\t20'
  Run lumoctl query -n beta 'select * from stock'
  Expect 0 $'gears\t7'
  Run lumoctl query 'select sum(amount) from stock'
  Expect 0 30
  Run lumoctl query -n BETA 'select * from nowhere'
  Expect 1 'lumoctl: the node refused: no such table: nowhere (code 1)'
  Run lumoctl query -n NOBODY 'select 1'
  Expect 1
  [[ $output == 'lumoctl: the node table has no such node (code 4050)'* ]] || Fail 'not code 4050'
}

ShowTransports() {
  Scene 'The same SQL over all three transports'
  Run lumoctl query -n BETA 'select item, amount * 2 from stock'
  Expect 0 $'gears\t14'
  Run lumoctl query -n KERNEL 'select item, amount * 2 from stock'
  Expect 0 $'springs\t6'
  Run lumoctl query -n QUEUE 'select item, amount * 2 from stock'
  Expect 0 $'belts\t10'
}

ShowTrace() {
  Scene 'One request from client to node and back, in the agent'"'"'s own trace'
  local start word words='AcceptNewClientConnection HandleMessageFromClientQueue GetMsgFromClient
    TcpSendToNetwork TcpReadyForRead ReturnAnswerFromNetworkToClient PutMsgToClient'
  start=$(wc -c <"$folder/agent.err")
  Run lumoctl query -n BETA 'select count(*) from stock'
  Expect 0 1
  tail -c "+$((start + 1))" "$folder/agent.err" >"$folder/trace"
  # The first call of each of these operations, in the order in which they were called.
  awk -v words="$words" -F "'" 'BEGIN { n = split(words, list, /[ \n]+/); while (n) wanted[list[n--]] }
    $2 in wanted && $3 ~ /^ Call from/ { print "      " $0; delete wanted[$2] }' "$folder/trace"
  for word in $words; do
    grep -q "'$word' Call from" "$folder/trace" || Fail "the trace does not show $word"
  done
  Say 'and at the node:'
  tail -n 2 "$folder/beta.log" | sed 's/^/      /'
  grep -q 'select count' "$folder/beta.log" || Fail 'the node has not logged the request'
}

ShowFailover() {
  Scene 'The default node dies; the next one takes over (-AUTOCONNECT)'
  Run lumoctl default
  Expect 0 ALPHA
  Run lumoctl query 'select item from stock limit 1'
  Expect 0 bolts
  Say 'now the process of ALPHA is ended'
  StopNode alpha
  Run lumoctl query 'select item from stock limit 1'
  Expect 0 gears
  Run lumoctl default
  Expect 0 BETA
  grep -h -E 'Disconnect link|as default' "$folder/agent.err" | tail -n 3 | sed 's/^/      /'
  Run lumoctl query -n ALPHA 'select 1'
  Expect 1
  # The system's word comes with it or not, depending on which attempt to connect has failed.
  [[ $output == 'lumoctl: the connection to the node failed (code 4006'* ]] ||
    Fail 'not the failed connection'
}

ShowPing() {
  Scene "A link test of the node $1: exit code $2"
  Run lumo_tcp -PING -M "$pingId" -N "$folder/nodetab" -DEFAULT "$1"
  Expect "$2"
  ExpectLine "lumo_tcp:$3"
}

ShowManagement() {
  Scene 'The node table, read and changed through the agent'
  Run lumoctl list
  Expect 0
  ExpectLine "1  *  BETA    TCPIP     127.0.0.1  ${nodePort[beta]}  5        30    10"
  ExpectLine '2     KERNEL  LOCALS'
  Run lumoctl add "GAMMA TCPIP 127.0.0.1 ${nodePort[beta]} 0 0 7"
  Expect 0 added
  Run lumoctl show GAMMA
  Expect 0
  ExpectLine "port              ${nodePort[beta]}"
  ExpectLine 'connect time-out  7'
  Run lumoctl default GAMMA
  Expect 0 GAMMA
  Run lumoctl query 'select item from stock'
  Expect 0 gears
  Run lumoctl default BETA
  Expect 0 BETA
  Run lumoctl add "DELTA TCPIP 127.0.0.1"
  Expect 0 added
  Run lumoctl del DELTA
  Expect 0 deleted
  Run lumoctl show DELTA
  Expect 1 'lumoctl: there is no node DELTA'
  Run lumoctl del GAMMA
  Expect 5 'in use: it will be deleted when its link is disconnected'
}

StopAgent() {
  Scene 'The agent is unloaded by a second one (-U)'
  Run lumo_tcp -U
  Expect 0
  ExpectLine "lumo_tcp:SIGTERM has been send to the agent pid $agentPid"
  WaitFor Ended "$agentPid"
  agentPid=''
  [ ! -e "$folder/pid" ] || Fail 'the pid file is still there'
  Run lumoctl query 'select 1'
  Expect 3
}

trap CleanUp EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
install_packages "${build_packages[@]}"
Build
PATH="$PWD/build/release:$PWD/build/release/tools/lumo_node:$PWD/build/release/tools/lumoctl:$PATH"
folder=$(mktemp -d)
export TAVRIN_TMP=$folder/sockets
mkdir "$TAVRIN_TMP"
# All sockets lie in a directory of this run, so that any number is free there.
export NET_MBX=$((20000 + RANDOM % 10000))
pingId=$((NET_MBX + 1))
ipcKey=$((0x10000000 + RANDOM * 32768 + RANDOM))

StartNodes
StartAgent
ShowRouting
ShowTransports
ShowTrace
ShowFailover
ShowPing BETA 0 'Node "BETA" is alive'
ShowPing ALPHA 6 'Connection refused'
ShowManagement
StopAgent
Scene 'Every answer was right'
