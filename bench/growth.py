"""The next order: what many clients, nodes and agents cost. Figures for plans; nothing is judged."""

import json
import resource
import subprocess

import places
import targets

NODES = 200
CLIENTS = 780  # beside 200 links: below 1,024 descriptors
AGENTS = 10000


def agent_with_many(bench):
    """One agent with many links that are up and many clients that have asked once."""
    bench.say(f"\nAn agent with {NODES} nodes and {CLIENTS} clients, resident memory in kB")
    node = places.Loopback().node(bench.run, bench.cpus)
    names = [f"N{number:03}" for number in range(NODES)]
    node.table = "".join(f"{name} TCPIP {node.host} {node.port} 0 0 0\n" for name in names)
    try:
        agent = targets.Agent(bench.run, node, bench.cpus.first)
        try:
            grow(bench, agent, names)
        finally:
            agent.stop()
    finally:
        node.stop()


def grow(bench, agent, names):
    def tell(what):
        bench.say(f"  {what}: {resident(agent.pids[0])}")

    tell("after the start")
    for size in (108, 8000):
        for name in names:
            if not bench.load(agent, node=name, clients=1, size=size, count=1, warmup=0):
                raise RuntimeError(f"node {name} does not answer")
        tell(f"{NODES} nodes up, one request of {size} bytes to each")
    for size in (108, 4000):
        command = [*agent.load, "--idle", str(CLIENTS - 1), "--clients", "1", "--size", str(size),
                   "--seconds", "1"]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as load:
            result = json.loads(load.communicate()[0])
        tell(f"{CLIENTS} clients had asked for {size} bytes each, one of them "
             f"{result['round_trips']:.0f} times")


def resident(pid):
    with open(f"/proc/{pid}/status") as file:
        for line in file:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return None


def storm(bench):
    """A node comes back and all its agents connect."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    agents = min(AGENTS, most - 100)
    bench.say(f"\n{agents} agents connect to one node that has come back; spread: seconds over "
              "which they begin; work: of the node for each connection, before it takes the next")
    bench.say("  backlog  work us  spread s   taken  all taken s  p50 ms  p99 ms  dropped  "
              "agents that repeated  at most")
    quick = bench.options.quick
    for backlog in (1024,) if quick else (128, 1024, 4096):
        for work in (0, 100):
            for spread in (0, 2) if quick else (0, 0.5, 1, 2, 4):
                bench.say(storm_line(bench, agents, backlog, work, spread))


def storm_line(bench, agents, backlog, work, spread):
    done = subprocess.run(
        [bench.run.program("bench_storm"), "--agents", str(agents), "--backlog", str(backlog),
         "--work-us", str(work), "--spread", str(spread), "--patience", "20"],
        stdout=subprocess.PIPE, check=True, timeout=60,
        preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, 2 * (resource.getrlimit(resource.RLIMIT_NOFILE)[1],)))
    found = json.loads(done.stdout)
    return ("  {backlog:7} {work_us:8} {spread:9.1f} {taken:7} {all_taken_s:12.2f} {p50_ms:7.0f} "
            "{p99_ms:7.0f} {drops:8} {agents_that_repeated:21} {most_repeats:8}").format(**found)
