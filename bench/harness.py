"""Runs the measuring programs against each other and judges the figures. See run.sh."""

import argparse
import csv
import json
import os
import platform
import random
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import plot
import targets

LOAD_GRACE_SECONDS = 30
ALL_SIZES = [108, 300, 500, 1000, 4000]
FIELDS = ["per_second", "p50_us", "p99_us", "longest_us", "cpu_us", "all_cpu_us", "errors"]
LONGEST_US = 500_000  # no round trip may take longer

# The least throughput of the agent over the yardstick's at 108 bytes, by clients.
OVER_YARDSTICK = {1: 1.0, 16: 1.05, 64: 1.4, 240: 2.5}


class Bench:
    def __init__(self, options, folder):
        self.options = options
        self.run = targets.Run(os.path.abspath(options.build), folder)
        self.verdicts = []
        self.rows = []
        cpus = sorted(os.sched_getaffinity(0))
        self.first, self.last = cpus[0], cpus[-1]

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
        command = [self.run.program("bench_load"), *target.load]
        if target.pids:
            command += ["--agent-pid", ",".join(map(str, target.pids))]
        for name, value in wanted.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        try:
            done = subprocess.run(
                command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                timeout=wanted.get("seconds", 1) + LOAD_GRACE_SECONDS,
                preexec_fn=targets.on_cpu(self.first))
        except subprocess.TimeoutExpired:
            return None
        if done.returncode not in (0, 1, 2, 3):
            raise RuntimeError(f"{' '.join(command)}: {done.stderr.decode()}")
        if not done.stdout:  # it could not even connect and ask once
            return None
        return json.loads(done.stdout)

    def measure(self, kind, alone=False, singly=False, link_first=False, **wanted):
        """A fresh node and a fresh target for one run of the load. link_first: one client asks
        before the others come, since the agent makes no link when 248 are there already."""
        node = targets.EchoNode(self.run, self.first, singly)
        try:
            target = kind(self.run, node, self.last if alone else self.first)
            try:
                if link_first:
                    self.load(target, clients=1, seconds=0.1)
                return self.load(target, other_pid=node.pid, **wanted)
            finally:
                target.stop()
        finally:
            node.stop()

    # Throughput and latency against clients

    def compare(self):
        kinds = [kind for kind in targets.ALL if kind.installed()]
        missing = [kind.name for kind in targets.ALL if not kind.installed()]
        if missing:
            self.say(f"not installed: {', '.join(missing)}")
        for number in range(self.options.rounds):
            for size in self.options.sizes:
                for clients in self.options.clients:
                    random.shuffle(kinds)
                    for kind in kinds:
                        self.compare_one(number, kind, clients, size)
            self.say(f"round {number + 1} of {self.options.rounds} done")

    def compare_one(self, number, kind, clients, size):
        result = self.measure(kind, alone=self.options.alone, link_first=True, clients=clients,
                              size=size, seconds=self.options.seconds)
        row = {"round": number, "target": kind.name, "clients": clients, "size": size}
        for name in FIELDS:
            row[name] = result[name] if result else 0
        if kind is targets.Socat:
            row["cpu_us"] = row["all_cpu_us"] = 0  # not measured
        row["stood_still"] = not result or result["stood_still"]
        self.rows.append(row)

    def values(self, target, clients, size, field):
        """The figures of all rounds, by round; runs that measured nothing are left out."""
        return {row["round"]: row[field] for row in self.rows
                if row["target"] == target and row["clients"] == clients
                and row["size"] == size and row["per_second"] > 0}

    def median(self, target, clients, size, field):
        values = self.values(target, clients, size, field)
        return statistics.median(values.values()) if values else None

    def ratio(self, target, other, clients, size, field="per_second"):
        """The median over the rounds of the ratio within a round."""
        mine = self.values(target, clients, size, field)
        theirs = self.values(other, clients, size, field)
        ratios = [mine.get(number, 0) / value for number, value in theirs.items()]
        return statistics.median(ratios) if ratios else None

    def still(self, target, clients, size):
        return sum(row["stood_still"] for row in self.rows if row["target"] == target
                   and row["clients"] == clients and row["size"] == size)

    def measured_targets(self):
        seen = {row["target"] for row in self.rows}
        return [kind.name for kind in targets.ALL if kind.name in seen]

    def best_peer(self, clients, size, field, best):
        found = [(self.median(peer, clients, size, field), peer)
                 for peer in targets.PEERS if self.median(peer, clients, size, field)]
        return best(found)[1] if found else None

    def show_comparison(self):
        for size in self.options.sizes:
            self.show_table(size, "round trips per second", "per_second", ratios=True)
            self.show_table(size, "latency, median, in microseconds", "p50_us")
            self.show_table(size, "latency, 99 %, in microseconds", "p99_us")
            self.show_table(size, "processor time of the relay per round trip, in microseconds",
                            "cpu_us")
            self.show_table(size, "processor time of load, relay and node per round trip, in "
                            "microseconds", "all_cpu_us")

    def show_table(self, size, title, field, ratios=False):
        names = self.measured_targets()
        self.say(f"\n{title}, {size}-byte messages (medians of {self.options.rounds} rounds"
                 + ("; in brackets: over the yardstick)" if ratios else ")"))
        self.say("  clients" + "".join(f"{name:>18}" for name in names))
        for clients in self.options.clients:
            cells = (self.cell(name, clients, size, field, ratios) for name in names)
            self.say(f"  {clients:7}" + "".join(f"{cell:>18}" for cell in cells))

    def cell(self, name, clients, size, field, ratios):
        value = self.median(name, clients, size, field)
        text = "-" if not value else f"{value:.1f}" if value < 100 else f"{value:.0f}"
        if ratios and value is not None:
            over = self.ratio(name, "yardstick", clients, size)
            text += f" ({over:.2f})" if over else ""
        still = self.still(name, clients, size)
        return text + (f" !{still}" if still else "")

    def judge_comparison(self):
        self.say("\nA '!n' in the tables: stood still in n of the rounds; measured until then.")
        for clients in self.options.clients:
            for size in self.options.sizes:
                self.judge_throughput(clients, size)
        if 108 in self.options.sizes:
            for clients in {64, 240}.intersection(self.options.clients):
                self.judge_latency(clients)
        errors = sum(row["errors"] for row in self.rows if row["target"] == "agent")
        self.judge_most("agent: answers that were wrong or did not come", errors, 0)

    def judge_throughput(self, clients, size):
        what = f"{clients} clients, {size} bytes: throughput over "
        least = OVER_YARDSTICK.get(clients) if size == 108 else 1.0
        over = self.ratio("agent", "yardstick", clients, size)
        if least and over is not None:
            self.judge_least(what + "the yardstick", over, least)
        peer = self.best_peer(clients, size, "per_second", max)
        if peer and clients >= 16:
            self.judge_least(what + f"the best peer ({peer})",
                             self.ratio("agent", peer, clients, size),
                             1.0 if size == 108 else 0.5)

    def judge_latency(self, clients):
        peer = self.best_peer(clients, 108, "p99_us", min)
        if peer:
            if not self.values("agent", clients, 108, "p99_us"):
                raise RuntimeError("the agent was not measured")
            self.judge_most(f"{clients} clients, 108 bytes: p99 over the best peer's ({peer})",
                            self.ratio("agent", peer, clients, 108, "p99_us"), 1.0)

    # Special scenes

    def never_still(self):
        self.say("\nNo round trip may take longer than 500 ms")
        for alone in (True, False):
            for singly in (True, False):
                for clients in (16, 64, 240):
                    for size in ALL_SIZES:
                        self.never_still_case(alone, singly, clients, size)

    def never_still_case(self, alone, singly, clients, size):
        result = self.measure(targets.Agent, alone, singly, clients=clients, size=size,
                              seconds=self.options.scene_seconds)
        good = result and not result["stood_still"] and not result["errors"]
        self.judge_most(("agent alone on one CPU" if alone else "all on one CPU")
                        + (", answers sent singly" if singly else ", answers sent together")
                        + f", {clients} clients, {size} bytes: longest",
                        result["longest_us"] / 1000 if good else float("inf"),
                        LONGEST_US / 1000, " ms")

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
        node = targets.EchoNode(self.run, self.first)
        agent = targets.Agent(self.run, node, self.first, **env)
        try:
            return use(agent)
        finally:
            agent.stop()
            node.stop()

    def memory(self):
        self.say("\nResident memory with 240 clients that are all at work")
        warm = self.with_agent(lambda agent: self.memory_of(agent, warm=True))
        self.judge_below("resident memory, the link up before", warm / 1024, 2.0, " MB")
        cold = self.with_agent(lambda agent: self.memory_of(agent, warm=False))
        self.say(f"  for comparison, all requests waiting for the link at first: "
                 f"{cold / 1024:.2f} MB")

    def memory_of(self, agent, warm):
        if warm:
            self.load(agent, clients=1, seconds=0.1)
        command = [self.run.program("bench_load"), *agent.load, "--clients", "240",
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
        node = targets.EchoNode(self.run, self.first)
        try:
            times = [self.start_once(node) for _ in range(self.options.starts)]
        finally:
            node.stop()
        self.say(f"  least {min(times):.2f} ms, most {max(times):.2f} ms of {len(times)}")
        self.judge_below("start to ready, median", statistics.median(times), 10, " ms")

    def start_once(self, node):
        pid_file = self.run.path("pid")
        command = targets.agent_command(self.run, node.port) + ["-PIDFILE", pid_file]
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
        command = [self.run.program("bench_load"), *agent.load, "--clients", "16",
                   "--warmup", "1", "--seconds", str(self.options.scene_seconds + 2)]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as load:
            time.sleep(1)
            before = read_count(counter)
            time.sleep(self.options.scene_seconds)
            after = read_count(counter)
            result = json.loads(load.communicate()[0])
        return before, after - before, result["round_trips"]

    # All

    def write_files(self):
        os.makedirs(self.options.out, exist_ok=True)
        path = os.path.join(self.options.out, "comparison.csv")
        with open(path, "w", newline="") as file:
            writer = csv.DictWriter(file, fieldnames=list(self.rows[0]))
            writer.writeheader()
            writer.writerows(self.rows)
        for size in self.options.sizes:
            for field, title in (("per_second", "Round trips per second"),
                                 ("p99_us", "Latency, 99 %, microseconds")):
                curves = {name: [(clients, self.median(name, clients, size, field))
                                 for clients in self.options.clients
                                 if self.median(name, clients, size, field)]
                          for name in self.measured_targets()}
                name = "throughput" if field == "per_second" else "latency"
                plot.write(os.path.join(self.options.out, f"{name}-{size}.svg"),
                           f"{title}, {size}-byte messages", "clients", curves)

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
        except FileNotFoundError:
            return
        time.sleep(0.002)
    raise RuntimeError(f"process {pid} does not end")


SCENES = {"still": Bench.never_still, "idle": Bench.idle_clients, "held": Bench.held_requests,
          "memory": Bench.memory, "start": Bench.start, "wake": Bench.wake_ups,
          "alloc": Bench.allocations}


def numbers(text):
    return [int(word) for word in text.split(",")]


def parse_options():
    parser = argparse.ArgumentParser(prog="run.sh", description="Compares and judges.")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="short runs, few rounds")
    parser.add_argument("--only", default="compare," + ",".join(SCENES),
                        help="of: compare, " + ", ".join(SCENES))
    parser.add_argument("--clients", type=numbers, help="numbers of clients to compare with")
    parser.add_argument("--sizes", type=numbers, default=[108, 4000], help="bytes of a message")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--seconds", type=float, help="of one run")
    parser.add_argument("--alone", action="store_true",
                        help="compare with the relay alone on one CPU, all else on another")
    parser.add_argument("--out", help="folder of the table and the plots")
    options = parser.parse_args()
    options.out = options.out or os.path.join(options.build, "results")
    quick = options.quick
    options.clients = options.clients or ([1, 16, 64, 240] if quick else [1, 4, 16, 64, 240, 500])
    options.rounds = options.rounds or (3 if quick else 7)
    options.seconds = options.seconds or (0.7 if quick else 2)
    options.scene_seconds = 1 if quick else 3
    options.idle_seconds = 10 if quick else 20
    options.starts = 10 if quick else 30
    return options


def describe_machine():
    model = "unknown processor"
    with open("/proc/cpuinfo") as file:
        for line in file:
            if line.startswith("model name"):
                model = line.partition(":")[2].strip()
                break
    return f"{model}, {os.cpu_count()} CPUs, {platform.system()} {platform.release()}"


def main():
    options = parse_options()
    wanted = options.only.split(",")
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 8192), most))
    folder = tempfile.mkdtemp(prefix="bench")
    try:
        bench = Bench(options, folder)
        bench.say(f"machine: {describe_machine()}\ncommand: run.sh {' '.join(sys.argv[3:])}")
        if "compare" in wanted:
            bench.compare()
            bench.show_comparison()
            bench.judge_comparison()
            bench.write_files()
        for name, scene in SCENES.items():
            if name in wanted:
                scene(bench)
        return bench.summary()
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
