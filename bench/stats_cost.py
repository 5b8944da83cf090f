#!/usr/bin/env python3
"""What the statistics page costs: one agent with it and one without, under the same load at once.

    bench/stats_cost.py --build build/bench [--agent PROGRAM] [--clients 1,16,64,240]
                        [--lives 100] [--rounds 2] [--seconds 0.5]

Prints for each number of clients the ratio (with / without) of throughput and of the agent's
processor time for a round trip, and how much more memory is resident. Ratios are geometric means
over pairs of runs, with their standard errors. The two runs of a pair take place at the same time,
so that what else the machine does strikes both; the agents are started anew all the time, because
where a process happens to lie costs several per cent for as long as it lives. Exit status 1:
throughput below 0.99 or more than 300 KiB.
"""

import argparse
import json
import math
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import time

LEAST_RATIO = 0.99
MOST_KIB = 300


def wait_for(condition, what, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise SystemExit(f"{what} in vain")
        time.sleep(0.01)


def resident_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


class Side:
    """An agent of its own exchange id."""

    def __init__(self, folder, program, number, port, stats):
        self.socket = f"{folder}/tavrin.{number}"
        table = f"{folder}/nodetab"
        with open(table, "w", encoding="ascii") as file:
            file.write(f"ONE TCPIP 127.0.0.1 {port} 0 0 0\n")
        environment = {"TAVRIN_TMP": folder, "PATH": os.environ["PATH"]}
        if stats:
            environment["LUMO_STATS"] = "1"
        with open(f"{folder}/log.{number}", "wb") as log:
            self.process = subprocess.Popen(
                [program, "-M", str(number), "-NODETAB", table, "-NODAEMON"],
                env=environment, stdout=subprocess.DEVNULL, stderr=log)
        wait_for(self.answers, "waiting for the agent")
        if stats:
            wait_for(lambda: os.path.exists(self.socket + ".stats"), "waiting for the page")

    def answers(self):
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(self.socket) == 0

    def load(self, bench, clients, seconds):
        command = [f"{bench}/lumo_load", "--agent", self.socket, "--node", "ONE",
                   "--clients", str(clients), "--size", "108", "--seconds", str(seconds),
                   "--warmup", "0.05", "--agent-pid", str(self.process.pid)]
        return subprocess.Popen(command, stdout=subprocess.PIPE, text=True)


def pair(sides, order, bench, clients, seconds):
    loads = {name: sides[name].load(bench, clients, seconds) for name in order}
    found = {}
    for name, load in loads.items():
        out = load.communicate(timeout=60)[0]
        found[name] = json.loads(out)
        if found[name]["errors"] or found[name]["stood_still"]:
            raise SystemExit(f"the load met errors: {out}")
    return {what: math.log(found["with"][what] / found["without"][what])
            for what in ("per_second", "cpu_us")}


def mean(found, what):
    """The geometric mean of a ratio and its standard error."""
    logs = [ratios[what] for ratios in found]
    return (math.exp(statistics.mean(logs)),
            statistics.stdev(logs) / math.sqrt(len(logs)) if len(logs) > 1 else math.inf)


def life(options, bench, program, port, turn, ratios):
    """A pair of agents from start to end; adds to the ratios, returns the difference of memory."""
    sides = {}
    names = ("with", "without") if turn % 2 else ("without", "with")
    with tempfile.TemporaryDirectory(prefix="lumo-") as folder:
        try:
            for number, name in enumerate(names, 1):
                sides[name] = Side(folder, program, number, port, name == "with")
            for clients, found in ratios.items():
                for i in range(options.rounds):
                    found.append(pair(sides, names if i % 2 else names[::-1], bench, clients,
                                      options.seconds))
            # The pages of memory that the most clients have touched stay.
            return resident_kib(sides["with"].process.pid) - resident_kib(
                sides["without"].process.pid)
        finally:
            for side in sides.values():
                side.process.terminate()
                side.process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--agent")
    parser.add_argument("--clients", default="1,16,64,240")
    parser.add_argument("--lives", type=int, default=100)
    parser.add_argument("--rounds", type=int, default=2)
    parser.add_argument("--seconds", type=float, default=0.5)
    options = parser.parse_args()
    bench = os.path.join(options.build, "bench")
    program = options.agent or os.path.join(options.build, "lumo_tcp")
    ratios = {int(clients): [] for clients in options.clients.split(",")}
    with subprocess.Popen([f"{bench}/bench_echo_node", "--port", "0"], stdout=subprocess.PIPE,
                          text=True) as node:
        try:
            port = int(node.stdout.readline().split()[-1])
            more = statistics.median(life(options, bench, program, port, turn, ratios)
                                     for turn in range(options.lives))
        finally:
            node.terminate()
    good = more <= MOST_KIB
    for clients, found in ratios.items():
        (speed, speed_error), (used, used_error) = mean(found, "per_second"), mean(found, "cpu_us")
        good = good and speed >= LEAST_RATIO
        print(f"{clients:4} clients: throughput {speed:.3f} (error {speed_error:.3f}), "
              f"processor time {used:.3f} ({used_error:.3f}), "
              f"{len(found)} pairs of {options.lives} lives", flush=True)
    print(f"resident memory: {more:.0f} KiB more")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
