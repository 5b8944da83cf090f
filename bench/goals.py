"""What the agent must reach, and whether it does."""

import statistics

LONGEST_MS = 500  # beyond the distance
MANY = (16, 64, 240)

# The least throughput over the yardstick's at 108 bytes, by clients; with larger messages 1.0.
OVER_YARDSTICK = {1: 1.0, 16: 1.05, 64: 1.4, 240: 2.5}
# Over the best relay's, by bytes; from 16 clients on.
OVER_PEERS = {108: 2.2, 1000: 2.2, 4000: 1.6, 8000: 1.6}
OVER_FREE_HAND = 0.80
FAR_OVER_PEERS, FAR_OVER_PEERS_MEAN = 1.00, 1.3
BESIDE_BEFORE, BESIDE_BEFORE_MEAN = 0.96, 1.00
CROWDED_PER_SECOND, CROWDED_OVER_DIRECT = 15000, 0.7


def text(case):
    place, size, clients = case
    return f"{place}, {size} bytes, {clients} client{'s' if clients > 1 else ''}"


def cases_of(rows, place, clients=None):
    return [(place, size, count) for size in rows.numbers(place, "size")
            for count in rows.numbers(place, "clients") if clients is None or count in clients]


def judge_loopback(bench, rows):
    bench.say("\nOn one machine")
    for case in cases_of(rows, "loopback"):
        _, size, clients = case
        judge_over(bench, rows, case, "yardstick", OVER_YARDSTICK.get(clients) if size == 108 else 1)
        if clients in MANY:
            judge_over(bench, rows, case, "free hand", OVER_FREE_HAND)
        judge_over_peers(bench, rows, case, 1.0 if clients == 1 else OVER_PEERS.get(size))
        judge_latency(bench, rows, case)
    judge_answers(bench, rows, "loopback", 0)


def judge_distance(bench, rows, wires):
    bench.say("\nOver a distance")
    ratios = []
    for wire in wires:
        for case in cases_of(rows, wire.name):
            ratio = judge_over_peers(bench, rows, case, FAR_OVER_PEERS)
            if ratio:
                ratios.append(ratio)
            judge_latency(bench, rows, case)
        judge_answers(bench, rows, wire.name, wire.rtt_ms)
    if ratios:
        bench.judge_least("all distances: throughput over the best relay, geometric mean",
                          statistics.geometric_mean(ratios), FAR_OVER_PEERS_MEAN)


def judge_over(bench, rows, case, other, least):
    ratio = rows.ratio("agent", other, case)
    if least and ratio is not None:
        bench.judge_least(f"{text(case)}: throughput over {other}", ratio, least)


def judge_over_peers(bench, rows, case, least):
    peer = rows.best_peer(case, "per_second", max)
    if not peer or not least:
        return None
    ratio = rows.ratio("agent", peer, case)
    bench.judge_least(f"{text(case)}: throughput over the best relay ({peer})", ratio, least)
    return ratio


def judge_latency(bench, rows, case):
    peer = rows.best_peer(case, "p99_us", min)
    if not peer:
        return
    measured = rows.values("agent", case, "p99_us")
    ratio = rows.ratio("agent", peer, case, "p99_us") if measured else float("inf")
    bench.judge_most(f"{text(case)}: p99 over the best relay's ({peer})", ratio, 1.0)


def judge_answers(bench, rows, place, rtt_ms):
    mine = [row for row in rows.rows if row["place"] == place and row["target"] == "agent"]
    bench.judge_most(f"{place}: answers of the agent that were wrong or did not come",
                     sum(row["errors"] + row["stood_still"] for row in mine), 0)
    longest = max(row["longest_us"] for row in mine) / 1000 - rtt_ms
    bench.judge_most(f"{place}: the longest of all round trips beyond the distance", longest,
                     LONGEST_MS, " ms")


def judge_local(bench, rows, kernels):
    bench.say("\nKernels on the same machine")
    for kernel in kernels:
        for case in cases_of(rows, kernel.name, MANY):
            judge_over(bench, rows, case, "agent over TCP", 1.0)
        judge_answers(bench, rows, kernel.name, 0)


def judge_crowded_queue(bench, found):
    direct = statistics.median(found.pop("direct"))
    for name, values in found.items():
        value = statistics.median(values)
        what = f"crowded queue, clients that came {name}: "
        bench.judge_least(what + "round trips per second", value, CROWDED_PER_SECOND)
        bench.judge_least(what + "over one process that talks to the queue itself",
                          value / direct if direct else 0, CROWDED_OVER_DIRECT)


def judge_against(bench, rows, place):
    bench.say("\nBeside the one before")
    ratios = []
    for case in cases_of(rows, place.name):
        ratio = rows.ratio("agent", "before", case)
        if ratio is None:
            raise RuntimeError(f"{text(case)}: the one before was not measured")
        ratios.append(ratio)
        bench.judge_least(f"{text(case)}: throughput over the one before", ratio, BESIDE_BEFORE)
    bench.judge_least("throughput over the one before, geometric mean",
                      statistics.geometric_mean(ratios) if min(ratios) > 0 else 0,
                      BESIDE_BEFORE_MEAN)
    # On a machine that is not quiet this tells more.
    work = [rows.ratio("before", "agent", case, "all_cpu_us")
            for case in cases_of(rows, place.name)]
    bench.say(f"  for comparison, by processor time of load, agent and node: "
              f"{min(work):.2f} to {max(work):.2f}, geometric mean "
              f"{statistics.geometric_mean(work):.2f}")
