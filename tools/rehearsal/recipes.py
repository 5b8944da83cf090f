"""The recipes of the operations guide, carried out: recipes.py BUILD [NAME...]

Those for containers and the journal make namespaces of their own and need root."""

import os
import resource
import socket
import subprocess
import sys
import time
from pathlib import Path

from stage import Stage, wait_for

HERE = Path(__file__).parent


def say(*words):
    print("   ", *words, flush=True)


def several(stage):
    """Several agents on one host, told apart by their exchange ids."""
    stage.node("A")
    first, second = stage.agent(exchange=7), stage.agent(exchange=8)
    say("id 7:", stage.application(7).ask(), " id 8:", stage.application(8).ask())
    say("another with id 7:", stage.run_agent("-NODAEMON", "-M", "7"))
    say("-U -M 7:", stage.run_agent("-U", "-M", "7", "-NODAEMON"))
    first.wait()
    say("exit status of 7:", first.returncode, " 8 still runs:", second.poll() is None,
        stage.application(8).ask())


def ping(stage):
    """The test of a node beside a running agent."""
    stage.node("A")
    table = str(stage.folder / "nodetab")
    stage.agent()
    test = ("-NODETAB", table, "-PING")
    say("with an id of its own:", stage.run_agent(*test, "-M", "1"))
    say("the agent can be found:", stage.is_served())
    say("with the agent's id:", stage.run_agent(*test, "-M", "7"))
    say("the agent can be found:", stage.is_served())


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listens(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
    except OSError:
        return False
    return True


def stunnel(stage, name, text):
    """A TLS tunnel end in the foreground."""
    config = stage.folder / f"{name}.conf"
    port = free_port()
    config.write_text(f"foreground = yes\npid =\n[{name}]\naccept = 127.0.0.1:{port}\n{text}\n")
    stage.program("stunnel4", str(config))
    wait_for(lambda: listens(port), f"start of {name}")
    return port


def tunnel(stage):
    """A TLS tunnel in front of a node; the node hears nothing but the tunnel."""
    node = stage.node("A")
    key, certificate = str(stage.folder / "key.pem"), str(stage.folder / "certificate.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=node", "-keyout", key, "-out", certificate],
                   check=True, capture_output=True)
    far = stunnel(stage, "far", f"cert = {certificate}\nkey = {key}\n"
                                f"connect = 127.0.0.1:{stage.ports['A']}")
    stage.ports["A"] = stunnel(stage, "near", f"client = yes\nconnect = 127.0.0.1:{far}\n"
                                              f"CAfile = {certificate}\nverifyChain = yes")
    stage.node("B")
    stage.agent(["-AUTOCONNECT"])
    table = str(stage.folder / "nodetab")
    application = stage.application()
    say("through the tunnel:", application.ask())
    node.kill()
    node.wait()
    wait_for(lambda: "Disconnect link  A" in (stage.folder / "agent.log").read_text(), "the end")
    say("node dead behind the tunnel, -AUTOCONNECT, three requests:",
        *[f"{application.ask()};" for _ in range(3)], "default", stage.default())
    say("-PING:", stage.run_agent("-NODETAB", table, "-PING", "-DEFAULT", "A", "-M", "1"))


def containers(stage):
    """An application in a process id namespace of its own, and one that shares the agent's."""
    stage.node("A")
    stage.agent()
    inside = ("import sys; sys.path.insert(0, sys.argv[1]); import stage; stage.PATIENCE = 3.0; "
              "import os; a = stage.Application(sys.argv[2]); a.send(); "
              "print('process', os.getpid(), end=': ')\n"
              "try: print(a.receive())\nexcept TimeoutError: print('no answer')")
    path = str(stage.folder / "tavrin.7")
    python = [sys.executable, "-B", "-c", inside, str(HERE), path]
    # The next process of the namespace gets a number that nobody has outside.
    unused = next(pid for pid in range(3, 30000) if not os.path.exists(f"/proc/{pid}"))
    later = f'echo {unused - 1} >/proc/sys/kernel/ns_last_pid; "$@"; exit $?'
    alone = ["unshare", "--pid", "--fork", "--mount-proc"]
    for what, command in (
            ("shared process ids", python),
            ("process ids of its own, first process", [*alone, *python]),
            ("process ids of its own, a later process",
             [*alone, "bash", "-c", later, "bash", *python])):
        run = subprocess.run(command, capture_output=True, text=True, timeout=30, check=False)
        say(f"{what}:", run.stdout.strip(), run.stderr.strip()[-200:])
    say("the node carried out", stage.requests_of("A"), "requests")
    log = (stage.folder / "agent.log").read_text()
    say("logged:", [line.split("|")[1] for line in log.splitlines() if "dead" in line])


def journal(stage):
    """The log in the journal: a journal of our own, in a namespace of our own."""
    stage.dead_node("A")
    (stage.folder / "nodetab").write_text(f"A TCPIP 127.0.0.1 {stage.ports['A']}\n")
    script = f"""
set -e
mount -t tmpfs none /run
mkdir -p /run/systemd /run/log/journal
/lib/systemd/systemd-journald & daemon=$!
while [ ! -S /run/systemd/journal/stdout ]; do sleep 0.05; done
timeout 20 systemd-cat -t lumo_tcp {stage.build.resolve()}/lumo_tcp \\
  -NODETAB {stage.folder}/nodetab -PING -M 1 || echo "exit status $?"
journalctl --sync --quiet 2>/dev/null || sleep 1
journalctl --no-pager -q -o cat -t lumo_tcp | tail -n 4
kill $daemon
"""
    run = subprocess.run(["unshare", "--mount", "bash", "-c", script], env=stage.environment(),
                         capture_output=True, text=True, timeout=40, check=False)
    for line in (run.stdout + run.stderr).splitlines():
        say(line)


def upgrade(stage):
    """A new program: how long nobody serves, and what happens without waiting for the old one."""
    stage.node("A", "--delay", "300")
    agent = stage.agent()
    application = stage.application()
    application.send()
    wait_for(lambda: stage.requests_of("A") > 0, "the request at the node")
    start = time.monotonic()
    stage.run_agent("-U", "-M", "7", "-NODAEMON")
    agent.wait()
    ended = time.monotonic()
    stage.agent()
    served = time.monotonic()
    say(f"request under way: {application.receive().text}; ended after "
        f"{1000 * (ended - start):.0f} ms, the next one served after "
        f"{1000 * (served - start):.0f} ms")
    failures = 0
    for _ in range(20):
        stage.run_agent("-U", "-M", "7", "-NODAEMON")
        process = subprocess.Popen(
            [stage.build / "lumo_tcp", "-NODAEMON", "-M", "7", "-NODETAB",
             stage.folder / "nodetab"], env=stage.environment(), stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        stage.processes.append(process)
        wait_for(lambda: process.poll() is not None or stage.is_served(), "the start")
        if process.poll() is not None:
            failures += 1
            stage.agent()
    say(f"started at once after -U: {failures} of 20 starts refused")


def slow_client(stage):
    """What a client that does not read costs at the stop."""
    stage.node("A")
    agent = stage.agent()
    application = stage.application()
    for _ in range(2000):
        application.send()
    wait_for(lambda: stage.requests_of("A") >= 2000, "the requests at the node")
    start = time.monotonic()
    stage.run_agent("-U", "-M", "7", "-NODAEMON")
    second = stage.run_agent("-NODAEMON", "-M", "7", "-NODETAB", str(stage.folder / "nodetab"))
    say("with a client that does not read, started at once:", second)
    agent.wait()
    say(f"the stop took {1000 * (time.monotonic() - start):.0f} ms")


def descriptors(stage):
    """How many idle clients leave no descriptor for a link, and how many fit at all."""
    stage.dead_node("A")
    stage.agent()
    idle = [stage.application()]
    while idle[0].ask().text != "4052":
        idle.append(stage.application())
    say(f"the link gets 4052 with {len(idle)} clients connected before it")
    try:
        while len(idle) < 1100:
            idle.append(stage.application())
    except (OSError, ConnectionError) as error:
        say(f"after {len(idle)} clients no other is accepted: {error!r}")
    log = (stage.folder / "agent.log").read_text()
    say([line.split("|")[1] for line in log.splitlines() if "accept" in line][:1])


def trace(stage):
    """How much the call trace writes."""
    stage.node("A")
    stage.levels = "15"
    stage.agent()
    application = stage.application()
    application.ask()
    before = (stage.folder / "agent.log").read_text().count("\n")
    for _ in range(100):
        application.ask()
    after = (stage.folder / "agent.log").read_text().count("\n")
    say(f"{(after - before) / 100:.0f} lines a request")


RECIPES = {function.__name__: function for function in
           (several, ping, tunnel, containers, journal, upgrade, slow_client, descriptors,
            trace)}


def main():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 4096), most))
    for name in sys.argv[2:] or RECIPES:
        print(f"{name}: {RECIPES[name].__doc__.splitlines()[0]}", flush=True)
        with Stage(sys.argv[1]) as stage:
            RECIPES[name](stage)


if __name__ == "__main__":
    main()
