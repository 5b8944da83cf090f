"""Runs the measuring programs against each other and judges the figures. See run.sh."""

import argparse
import collections
import contextlib
import json
import os
import platform
import random
import resource
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import comparison
import goals
import growth
import places
import targets

LOAD_GRACE_SECONDS = 30
ALL_SIZES = [108, 300, 500, 1000, 4000]
MANY = [16, 64, 240]
DISTANCES_MS = [0.2, 1, 10]
Cpus = collections.namedtuple("Cpus", "first last")


class Bench:
    def __init__(self, options, folder):
        self.options = options
        self.run = targets.Run(os.path.abspath(options.build), folder)
        self.run.before = options.before
        self.verdicts = []
        self.rows = comparison.Rows()
        cpus = sorted(os.sched_getaffinity(0))
        self.cpus = Cpus(cpus[0], cpus[-1])

    def say(self, text=""):
        print(text, flush=True)

    def judge(self, what, value, limit, good, unit=""):
        word = "PASS" if good else "FAIL"
        self.verdicts.append((word, what, value, limit))
        self.say(f"  {word}  {what}: {value:.2f}{unit} (limit {limit}{unit})")

    def judge_least(self, what, value, limit, unit=""):
        self.judge(what, value, limit, value >= limit, unit)

    def judge_below(self, what, value, limit, unit=""):
        self.judge(what, value, limit, value < limit, unit)

    def judge_most(self, what, value, limit, unit=""):
        self.judge(what, value, limit, value <= limit, unit)

    def load(self, target, **wanted):
        """One run of the load generator; what it measured, or None when it broke off."""
        command = list(target.load)
        if target.pids:
            command += ["--agent-pid", ",".join(map(str, target.pids))]
        for name, value in wanted.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        try:
            done = subprocess.run(
                command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                timeout=wanted.get("seconds", 1) + LOAD_GRACE_SECONDS,
                preexec_fn=targets.on_cpu(self.cpus.first))
        except subprocess.TimeoutExpired:
            return None
        if done.returncode not in (0, 1, 2, 3):
            raise RuntimeError(f"{' '.join(command)}: {done.stderr.decode()}")
        if not done.stdout:  # it could not even connect and ask once
            return None
        return json.loads(done.stdout)

    def measure(self, kind, place=places.Loopback(), alone=False, singly=False, link_first=False,
                **wanted):
        """A fresh node and a fresh target for one run of the load. link_first: one client asks
        before the others come, since the agent makes no link when 248 are there already.
        alone: the relay has a processor without the load."""
        node = place.node(self.run, self.cpus, singly=singly)
        try:
            target = kind(self.run, node, self.cpus.last if alone else self.cpus.first)
            try:
                if link_first and target.pids:
                    self.load(target, clients=1, seconds=0.02, warmup=0)
                    target.settle()
                return self.load(target, other_pid=node.pid, **wanted)
            finally:
                target.stop()
        finally:
            node.stop()

    # Throughput and latency of many targets

    def compare(self, number, place, size, clients, kinds):
        """One round of a case: all targets in random order."""
        for kind in random.sample(kinds, len(kinds)):
            result = self.measure(kind, place, alone=self.options.alone, link_first=True,
                                  clients=clients, size=size, seconds=self.options.seconds,
                                  warmup=self.options.warmup, stall_ms=self.options.stall_ms)
            self.rows.add(number, kind.name, (place.name, size, clients), result)

    def cases(self, sizes, clients):
        """What of these was asked for."""
        return [(size, count) for size in self.options.sizes or sizes
                for count in self.options.clients or clients]

    def rounds(self, what, count=None):
        count = count or self.options.rounds
        for number in range(count):
            yield number
            self.say(f"{what}: round {number + 1} of {count} done")

    def loopback(self):
        kinds = [targets.Agent, targets.FreeHand, targets.Yardstick, *self.peers()]
        if not self.options.quick:
            kinds.append(targets.Direct)
        place = places.Loopback()
        for number in self.rounds("loopback"):
            for size, clients in self.cases([108, 1000, 4000, 8000], [1, *MANY]):
                self.compare(number, place, size, clients, kinds)
        self.show([place.name])
        goals.judge_loopback(self, self.rows)

    def distance(self):
        why = places.why_no_distance()
        if why:
            self.say(f"distance is not measured: {why}")
            return
        with contextlib.ExitStack() as stack:
            wires = [stack.enter_context(contextlib.closing(places.Distance(self.run, rtt,
                                                                            self.cpus)))
                     for rtt in DISTANCES_MS]
            kinds = [targets.Agent, targets.FreeHand, *self.peers()]
            for number in self.rounds("distance"):
                for wire in wires:
                    for size, clients in self.cases([108, 1000, 4000], MANY):
                        self.compare(number, wire, size, clients, kinds)
            self.show([wire.name for wire in wires])
            goals.judge_distance(self, self.rows, wires)
            self.never_late_far(wires)

    def local(self):
        """Kernels on the same machine, with the TCP link beside them."""
        tcp, queue = places.Loopback(), places.LocalQueue()
        kernels = [places.LocalSocket(), queue]
        for number in self.rounds("local"):
            for size, clients in self.cases([108, 1000, 4000, 8000], [1, *MANY]):
                for place in kernels:
                    self.compare(number, place, size, clients,
                                 [targets.Agent, targets.Yardstick, targets.Direct])
                over_tcp = self.measure(targets.Agent, tcp, link_first=True, clients=clients,
                                        size=size, seconds=self.options.seconds,
                                        warmup=self.options.warmup)
                for place in kernels:
                    self.rows.add(number, "agent over TCP", (place.name, size, clients), over_tcp)
        self.show([place.name for place in kernels])
        goals.judge_local(self, self.rows, kernels)
        self.crowded_queue(queue)

    def crowded_queue(self, queue):
        """8 clients whose requests do not fit the queue together, connected before the reader of
        the answers was made and after it."""
        self.say("\n8 clients with 7500 bytes on a queue of 16 KiB")
        found = {"before the reader": [], "after the reader": [], "direct": []}
        wanted = {"clients": 8, "size": 7500, "seconds": self.options.seconds}
        for _ in range(self.options.rounds):
            for name, kind, first in (("before the reader", targets.Agent, False),
                                      ("after the reader", targets.Agent, True),
                                      ("direct", targets.Direct, False)):
                result = self.measure(kind, queue, link_first=first, **wanted)
                found[name].append(result["per_second"] if result else 0)
        goals.judge_crowded_queue(self, found)
        self.beside_full_queue(queue)

    def beside_full_queue(self, queue):
        """A TCP node's clients while the kernel takes nothing from its queue, which is full."""
        tcp = places.Loopback().node(self.run, self.cpus)
        kernel = queue.node(self.run, self.cpus)
        try:
            agent = targets.Agent(self.run, tcp, self.cpus.first, more_nodes=kernel.table)
            try:
                ratios = [self.p99_beside_full_queue(agent, kernel)
                          for _ in range(self.options.rounds)]
            finally:
                agent.stop()
        finally:
            os.kill(kernel.pid, signal.SIGCONT)
            kernel.stop()
            tcp.stop()
        self.judge_most("16 clients of a TCP node beside a full queue: p99 over that without",
                        statistics.median(ratios), 1.2)

    def p99_beside_full_queue(self, agent, kernel):
        wanted = {"clients": 16, "seconds": self.options.seconds}
        self.load(agent, node="QUEUE", clients=1, count=1, warmup=0)  # its link is up
        without = self.load(agent, **wanted)["p99_us"]
        os.kill(kernel.pid, signal.SIGSTOP)
        command = [*agent.load, "--node", "QUEUE", "--clients", "8", "--size", "7500",
                   "--warmup", "0", "--stall-ms", "60000"]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL) as crowd:
            time.sleep(0.1)  # all have asked
            beside = self.load(agent, **wanted)
            os.kill(kernel.pid, signal.SIGCONT)
            crowd.kill()
        answered = beside and not beside["stood_still"]
        return beside["p99_us"] / without if answered else float("inf")

    def against(self):
        if not self.run.before:
            return
        place = places.Loopback()
        place.name = "loopback beside the one before"
        for number in self.rounds("against", self.options.against_rounds):
            for size, clients in self.cases([108, 1000], [1, *MANY]):
                self.compare(number, place, size, clients, [targets.Agent, targets.Before])
        self.show([place.name])
        goals.judge_against(self, self.rows, place)

    def peers(self):
        kinds = [kind for kind in targets.PEERS if kind.installed()]
        missing = [kind.name for kind in targets.PEERS if not kind.installed()]
        if missing:
            self.say(f"not installed: {', '.join(missing)}")
        # It has a process for each connection, and is never the best.
        return [kind for kind in kinds if not (self.options.quick and kind is targets.Socat)]

    def show(self, names):
        self.say("\nIn brackets: the agent's over this one, median of the ratios within a round. "
                 "!n: stood still in n of the rounds; measured until then.")
        for place in names:
            for field, title in comparison.TABLES:
                self.say(f"\n{title}, {place}, medians of the rounds")
                for line in self.rows.table(place, field):
                    self.say(line)

    # Special scenes

    def never_still(self):
        self.say(f"\nNo round trip may take longer than {goals.LONGEST_MS} ms")
        for alone in (True, False):
            for singly in (True, False):
                for clients in self.options.still_clients:
                    for size in self.options.still_sizes:
                        self.never_late(places.Loopback(), alone, singly, clients, size)

    def never_late_far(self, wires):
        """In the rounds relay and load shared a processor; here each has its own."""
        for wire in wires:
            for clients in self.options.still_clients:
                for size in (108, 1000, 4000):
                    self.never_late(wire, True, False, clients, size)

    def never_late(self, place, alone, singly, clients, size):
        result = self.measure(targets.Agent, place, alone, singly, clients=clients, size=size,
                              seconds=self.options.scene_seconds, warmup=self.options.warmup)
        good = result and not result["stood_still"] and not result["errors"]
        self.judge_most(place.name
                        + (", agent without the load" if alone else ", all on one CPU")
                        + (", answers sent singly" if singly else ", answers sent together")
                        + f", {clients} clients, {size} bytes: longest beyond the distance",
                        result["longest_us"] / 1000 - place.rtt_ms if good else float("inf"),
                        goals.LONGEST_MS, " ms")

    def cpu_ratio(self, what, cases, limit):
        """Processor time of a round trip in each case over that in the first."""
        self.say(f"\n{what}: processor time of the agent per round trip of one client")
        found = {name: [] for name in cases}
        for _ in range(self.options.rounds):
            for name, wanted in cases.items():
                result = self.measure(targets.Agent, clients=1, **wanted,
                                      seconds=self.options.scene_seconds)
                if result and result["cpu_us"]:
                    found[name].append(result["cpu_us"])
        medians = {name: statistics.median(values) for name, values in found.items() if values}
        self.say("  " + ", ".join(f"{name}: {value:.2f} us" for name, value in medians.items()))
        base = next(iter(cases))
        for name in list(cases)[1:]:
            both = base in medians and name in medians
            ratio = medians[name] / medians[base] if both else float("inf")
            self.judge_most(f"{name} over {base}", ratio, limit)

    def idle_clients(self):
        self.cpu_ratio("Idle clients", {f"{idle} idle": {"idle": idle} for idle in (0, 240, 900)},
                       1.3)

    def held_requests(self):
        self.cpu_ratio("Requests in flight",
                       {f"{held} in flight": {"held": held} for held in (0, 1000, 16000)}, 1.5)

    def with_agent(self, use, **env):
        node = places.Loopback().node(self.run, self.cpus)
        agent = targets.Agent(self.run, node, self.cpus.first, **env)
        try:
            return use(agent)
        finally:
            agent.stop()
            node.stop()

    def memory(self):
        self.say("\nResident memory with 240 clients that are all at work")
        for size in (108, 4000):
            warm = self.with_agent(lambda agent, size=size: self.memory_of(agent, size, warm=True))
            self.judge_below(f"resident memory, {size} bytes, the link up before", warm / 1024,
                             2.0, " MB")
        cold = self.with_agent(lambda agent: self.memory_of(agent, 108, warm=False))
        self.say(f"  for comparison, all requests waiting for the link at first: "
                 f"{cold / 1024:.2f} MB")

    def memory_of(self, agent, size, warm):
        if warm:
            self.load(agent, clients=1, seconds=0.1)
        command = [*agent.load, "--clients", "240", "--size", str(size),
                   "--seconds", str(self.options.scene_seconds)]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as load:
            time.sleep(self.options.scene_seconds * 0.7)
            status = proc_status(agent.pids[0])
            load.communicate()
        self.say(f"  {status['VmRSS']} kB, of that from files, libraries included, "
                 f"{status['RssFile']} kB")
        return status["VmRSS"]

    def start(self):
        self.say("\nStart: from the call to its return, which is when the agent is ready")
        node = places.Loopback().node(self.run, self.cpus)
        try:
            times = [self.start_once(node) for _ in range(self.options.starts)]
        finally:
            node.stop()
        self.say(f"  least {min(times):.2f} ms, most {max(times):.2f} ms of {len(times)}")
        self.judge_below("start to ready, median", statistics.median(times), 10, " ms")

    def start_once(self, node):
        pid_file = self.run.path("pid")
        command = targets.agent_command(self.run, node, targets.agent_program(self.run)) + [
            "-PIDFILE", pid_file]
        begin = time.monotonic()
        subprocess.run(command, env=targets.agent_env(self.run), stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, check=True)
        taken = time.monotonic() - begin
        with open(pid_file) as file:
            end_process(int(file.read()))
        return taken * 1000

    def wake_ups(self):
        seconds = self.options.idle_seconds
        self.say(f"\nAn idle agent, watched for {seconds} seconds")
        count = self.with_agent(lambda agent: self.count_wake_ups(agent, seconds))
        self.judge_most("wake-ups beyond one each 2 seconds", count - seconds / 2, 1)

    def count_wake_ups(self, agent, seconds):
        self.load(agent, clients=16, seconds=0.2)
        before = proc_status(agent.pids[0])["voluntary_ctxt_switches"]
        time.sleep(seconds)
        return proc_status(agent.pids[0])["voluntary_ctxt_switches"] - before

    def allocations(self):
        self.say("\nCalls for memory in the steady state")
        counter = self.run.path("allocations")
        with open(counter, "wb") as file:
            file.write(bytes(8))
        library = self.run.program("bench_alloc_count.so")
        at_start, calls, trips = self.with_agent(
            lambda agent: self.count_allocations(agent, counter),
            LD_PRELOAD=library, BENCH_ALLOC_COUNT=counter)
        self.say(f"  {at_start} calls before, {calls} calls in {trips} round trips of 16 clients")
        self.judge_most("calls for memory, when some were counted before",
                        calls if at_start else float("inf"), 0)

    def count_allocations(self, agent, counter):
        """All connections stay; the same load runs while the count is read twice."""
        command = [*agent.load, "--clients", "16",
                   "--warmup", "1", "--seconds", str(self.options.scene_seconds + 2)]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as load:
            time.sleep(1)
            before = read_count(counter)
            time.sleep(self.options.scene_seconds)
            after = read_count(counter)
            result = json.loads(load.communicate()[0])
        return before, after - before, result["round_trips"]

    # All

    def summary(self):
        failed = [verdict for verdict in self.verdicts if verdict[0] == "FAIL"]
        self.say(f"\n{len(self.verdicts) - len(failed)} of {len(self.verdicts)} figures reached")
        for word, what, value, limit in failed:
            self.say(f"  {word}  {what}: {value:.2f} (limit {limit})")
        return 1 if failed else 0


def proc_status(pid):
    """The numbers of the system's description of a process."""
    found = {}
    with open(f"/proc/{pid}/status") as file:
        for line in file:
            name, _, text = line.partition(":")
            words = text.split()
            if words and words[0].isdigit():
                found[name] = int(words[0])
    return found


def read_count(path):
    with open(path, "rb") as file:
        return int.from_bytes(file.read(8), "little")


def end_process(pid):
    """Ends a process that is no child of this one and waits until it is gone."""
    os.kill(pid, 15)
    deadline = time.monotonic() + targets.READY_SECONDS
    while time.monotonic() < deadline:
        try:
            with open(f"/proc/{pid}/stat") as file:
                if file.read().rpartition(")")[2].split()[0] == "Z":
                    return
        except (FileNotFoundError, ProcessLookupError):
            return
        time.sleep(0.002)
    raise RuntimeError(f"process {pid} does not end")


SECTIONS = {"loopback": Bench.loopback, "distance": Bench.distance, "local": Bench.local,
            "against": Bench.against, "still": Bench.never_still, "idle": Bench.idle_clients,
            "held": Bench.held_requests, "memory": Bench.memory, "start": Bench.start,
            "wake": Bench.wake_ups, "alloc": Bench.allocations,
            "growth": growth.agent_with_many, "storm": growth.storm}


def numbers(text):
    return [int(word) for word in text.split(",")]


def parse_options():
    parser = argparse.ArgumentParser(prog="run.sh", description="Compares and judges.")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="short runs, few rounds")
    parser.add_argument("--only", default=",".join(SECTIONS), help="of: " + ", ".join(SECTIONS))
    parser.add_argument("--against", metavar="COMMIT_OR_BINARY",
                        help="another agent to be measured beside this one")
    parser.add_argument("--clients", type=numbers, help="numbers of clients to compare with")
    parser.add_argument("--sizes", type=numbers, help="bytes of a message to compare with")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--seconds", type=float, help="of one run")
    parser.add_argument("--alone", action="store_true",
                        help="compare with the relay on a processor of its own")
    parser.add_argument("--out", help="folder of the table and the plots")
    options = parser.parse_args()
    unknown = set(options.only.split(",")) - set(SECTIONS)
    if unknown:
        parser.error(f"--only: there is no {', '.join(sorted(unknown))}")
    options.out = options.out or os.path.join(options.build, "results")
    set_lengths(options)
    return options


def set_lengths(options):
    quick = options.quick
    options.against_rounds = options.rounds or (5 if quick else 15)
    options.rounds = options.rounds or (2 if quick else 5)
    options.seconds = options.seconds or (0.3 if quick else 1)
    options.warmup = 0.1 if quick else 0.2
    options.stall_ms = 1000 if quick else 3000
    options.scene_seconds = 0.7 if quick else 3
    options.still_clients = [240] if quick else MANY
    options.still_sizes = [108, 4000] if quick else ALL_SIZES
    options.idle_seconds = 10 if quick else 20
    options.starts = 10 if quick else 30


def other_agent(wanted, build):
    """The program of another agent: a file, or a commit that is built beside ours."""
    if not wanted or os.path.isfile(wanted):
        return wanted
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    commit = output(["git", "-C", root, "rev-parse", "--verify", wanted + "^{commit}"])
    folder = os.path.join(os.path.abspath(build), "against", commit)
    program = os.path.join(folder, "build", "lumo_tcp")
    if not os.path.exists(program):
        source = os.path.join(folder, "source")
        os.makedirs(source, exist_ok=True)
        with subprocess.Popen(["git", "-C", root, "archive", commit],
                              stdout=subprocess.PIPE) as archive:
            subprocess.run(["tar", "-x", "-C", source], stdin=archive.stdout, check=True)
        # As run.sh builds ours.
        output(["cmake", "-S", source, "-B", os.path.dirname(program), "-G", "Ninja",
                "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O2", "-DLUMO_HARDEN=ON",
                "-DLUMO_TESTS=OFF", "-DLUMO_TOOLS=OFF"])
        output(["cmake", "--build", os.path.dirname(program), "--target", "lumo_tcp"])
    return program


def output(command):
    return subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout.decode().strip()


def describe_machine():
    model = "unknown processor"
    with open("/proc/cpuinfo") as file:
        for line in file:
            if line.startswith("model name"):
                model = line.partition(":")[2].strip()
                break
    return f"{model}, {os.cpu_count()} CPUs, {platform.system()} {platform.release()}"


def end(_number, _frame):
    sys.exit("ended by a signal")  # on the way out all is removed


def main():
    options = parse_options()
    signal.signal(signal.SIGTERM, end)
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 8192), most))
    options.before = other_agent(options.against, options.build)
    folder = tempfile.mkdtemp(prefix="bench")
    try:
        bench = Bench(options, folder)
        bench.say(f"machine: {describe_machine()}\ncommand: run.sh {' '.join(sys.argv[3:])}")
        for name, section in SECTIONS.items():
            if name in options.only.split(","):
                section(bench)
        if bench.rows.rows:
            bench.rows.write(options.out)
        return bench.summary()
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
