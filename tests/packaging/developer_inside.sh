# Sourced by live_inside.sh while the service runs: what a developer does with the other packages.
Say 'the packages of a developer'
dpkg -i liblumo1_*.deb liblumo-dev_*.deb lumo-devtools_*.deb python3-lumo_*.deb >/dev/null 2>&1 ||
  Fail 'installation of the developer packages'
for page in lumo_open lumo_ask_text lumo_node lumo_load; do
  (As member man -w "$page" >/dev/null 2>&1) || Fail "man $page finds nothing"
done
(As member pydoc3 lumo.Connection) >/tmp/pydoc.out 2>&1 || Fail "$(cat /tmp/pydoc.out)"
grep -q 'A connection to the agent' /tmp/pydoc.out || Fail 'pydoc3'

Say 'from a node to the first row'
install -d -o member -g "$(id -g member)" /tmp/way
sed -n 's/^    //p' /usr/share/doc/liblumo-dev/examples/README.md >/tmp/way/lines
(cd /tmp/way && As member bash lines) >/tmp/way.out 2>&1 || Fail "the way: $(cat /tmp/way.out)"
grep -qx 42 /tmp/way.out || Fail "no row: $(cat /tmp/way.out)"
grep -qx 'example: the node refused: no such column: b (code 1)' /tmp/way.out ||
  Fail "no refusal: $(cat /tmp/way.out)"

Say 'the example in Python, over the service; the error paths of the one in C'
Expect 2 As member python3 /usr/share/doc/python3-lumo/examples/example.py SRV1 'select 1+1'
(cd /tmp/way && PATH=$PATH:/usr/sbin \
  As member /usr/share/doc/lumo-devtools/examples/error_paths.sh ./example) >/tmp/way.out 2>&1 ||
  Fail "$(cat /tmp/way.out)"
dpkg -P python3-lumo lumo-devtools liblumo-dev liblumo1 >/dev/null 2>&1 || Fail 'the purge'
