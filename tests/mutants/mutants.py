#!/usr/bin/env python3
"""Changes one place of the agent or the library at a time and looks whether a test notices.

See run.sh. Everything happens in a copy of the tree below build/mutants; results.tsv there has a line
for each mutant that was tried, and what stands there is not tried again.
"""
import argparse
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time

import rules

TREE = pathlib.Path(__file__).resolve().parents[2]
PLACE = TREE / "build/mutants"
COPY, RESULTS = PLACE / "tree", PLACE / "results.tsv"
BUILD = COPY / "build/all"
EQUIVALENT = TREE / "tests/mutants/equivalent.txt"
FOLDERS = ("core", "client", "link", "protocols", "api", "ping", "lib")

# Programs of tests in the order in which they are tried: the cheapest first.
LEVEL = "TEST_LOG_LEVEL"
STAGES = [
    ("unit", "tests/unit/unit_tests", {}),
    ("lib", "tests/lib/lib_tests", {}),
    ("stats", "tests/stats/stats_tests", {}),
    ("process at level 0", "tests/process/process_tests", {LEVEL: "0"}),
    ("process at level 15", "tests/process/process_tests", {LEVEL: "15"}),
    ("lumoctl", "tests/lumoctl/lumoctl_tests", {}),
]
TARGETS = ("lumo_tcp", "unit_tests", "lib_tests", "stats_tests", "process_tests", "lumoctl_tests")
AT_ONCE = 4      # shards of a program: they mostly wait
ALONE = 90       # seconds for one test by itself
UNIT_LIMIT = 120  # seconds for a program without processes


class Tests:
    """Runs programs of tests; a test that fails is asked twice."""

    def __init__(self, flaky=()):
        self.flaky = set(flaky)  # those that fail without any change

    def command(self, program, *options):
        return [str(BUILD / program), "--gtest_brief=0", *options]

    def start(self, program, environment, options, shard=None):
        environment = {**os.environ, **environment}
        if shard is not None:
            environment |= {"GTEST_TOTAL_SHARDS": str(AT_ONCE), "GTEST_SHARD_INDEX": str(shard)}
        output = open(PLACE / f"output.{shard}", "w+", errors="replace")
        return subprocess.Popen(self.command(program, *options), env=environment, stdout=output,
                                stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                start_new_session=True, cwd=PLACE), output

    def finish(self, run, output, limit):
        """The tests that failed; the one that was under way when it crashed or took too long."""
        try:
            run.wait(limit)
        except subprocess.TimeoutExpired:
            pass
        end_session(run)
        output.seek(0)
        text = output.read()
        output.close()
        begun = re.findall(r"^\[ RUN      \] (\S+)", text, re.M)
        failed = re.findall(r"^\[  FAILED  \] ([^\s,]+)(?:, where .*)? \(\d+ ms\)$", text, re.M)
        ended = len(re.findall(r"^\[       OK \]|^\[  SKIPPED \]", text, re.M)) + len(failed)
        if len(begun) > ended:
            failed.append(begun[-1])
        if run.returncode and not failed:
            failed.append("(all)")
        return [name for name in failed if name not in self.flaky]

    def fails_again(self, program, environment, name):
        run, output = self.start(program, environment, [f"--gtest_filter={name}"])
        return bool(self.finish(run, output, ALONE))

    def stage(self, program, environment, limit, chance=(), first_only=True):
        skip = ":".join(sorted(self.flaky.union(chance))) or "-"
        options = [f"--gtest_filter=-{skip}"] + (["--gtest_fail_fast"] if first_only else [])
        runs = [self.start(program, environment, options, shard) for shard in range(AT_ONCE)]
        try:
            return self.failures(runs, time.monotonic() + limit, first_only)
        finally:
            for run, output in runs:
                end_session(run)
                output.close()

    def failures(self, runs, end, first_only):
        """The tests that failed; with `first_only` all that goes on beside the first is ended."""
        failed = []
        for run, output in runs:
            while first_only and run.poll() is None and time.monotonic() < end and \
                    not any(other.poll() for other, _ in runs):
                time.sleep(0.05)
            if first_only and run.poll() is None and any(other.poll() for other, _ in runs):
                continue
            failed += self.finish(run, output, max(1, end - time.monotonic()))
        return failed

    def killer(self, limits):
        """(stage, test) that notices, or None."""
        for stage, program, environment in STAGES:
            chance = set()  # tests that failed once and then did not
            for _ in range(5):
                failed = self.stage(program, environment, limits[stage], chance)
                for name in failed:
                    if self.fails_again(program, environment, name):
                        return stage, name
                if not failed:
                    break
                chance |= set(failed)
        return None


def end_session(run):
    """Ends a program and what it has started."""
    try:
        os.killpg(run.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    run.wait()


def all_mutants():
    for folder in FOLDERS:
        for path in sorted((TREE / folder).glob("*.cpp")):
            name = str(path.relative_to(TREE))
            yield from rules.mutants(name, path.read_text())


def equivalents():
    """What changes nothing that can be seen, with the reason."""
    known, reason = {}, ""
    for line in EQUIVALENT.read_text().splitlines():
        if line.startswith("#") or not line.strip():
            continue
        if line.startswith(" "):
            known[line.strip()] = reason
        else:
            reason = line.strip()
    return known


def make_copy():
    """What is as it was keeps its time, so that it is not built again."""
    wanted = {path.relative_to(TREE) for path in TREE.rglob("*")
              if path.is_file() and path.relative_to(TREE).parts[0] not in (".git", "build")}
    for path in wanted:
        target = COPY / path
        if not target.exists() or target.read_bytes() != (TREE / path).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(TREE / path, target)
    for path in COPY.rglob("*"):
        name = path.relative_to(COPY)
        if path.is_file() and name not in wanted and name.parts[0] != "build":
            path.unlink()
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    subprocess.run(["cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                    "-DCMAKE_CXX_FLAGS=-O0", *launcher], check=True, stdout=subprocess.DEVNULL)


def build(*targets):
    return subprocess.run(["ninja", "-C", BUILD, "-j2", *targets], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0


def measure():
    """Seconds that each stage takes without a change, and the tests that fail then."""
    tests, limits = Tests(), {}
    for stage, program, environment in STAGES:
        begin = time.monotonic()
        failed = tests.stage(program, environment, 1800, first_only=False)
        taken = time.monotonic() - begin
        limits[stage] = 3 * taken + 60
        tests.flaky |= set(failed)
        print(f"{stage}: {taken:.0f} s" + (", fail without a change: " + " ".join(failed)
                                           if failed else ""), flush=True)
    return tests, limits


def tried():
    if not RESULTS.exists():
        return {}
    return dict(line.split("\t")[:2] for line in RESULTS.read_text().splitlines())


def try_one(mutant, tests, limits):
    """(verdict, by what)."""
    target = COPY / mutant.path
    whole = target.read_text()
    changed = whole[:mutant.at] + mutant.new + whole[mutant.at + len(mutant.old):]
    try:
        target.write_text(changed)
        if not build(*TARGETS):
            return "no build", ""
        noticed = tests.killer(limits)
        return ("killed", ": ".join(noticed)) if noticed else ("survived", "")
    finally:
        target.write_text(whole)


def report(results, known):
    count = {verdict: sum(1 for found in results.values() if found == verdict)
             for verdict in ("killed", "survived")}
    left = [name for name, verdict in results.items() if verdict == "survived"]
    equivalent = [name for name in left if name in known]
    total = count["killed"] + len(left) - len(equivalent)
    print("\nsurvivors:")
    for name in left:
        if name not in equivalent:
            print("  " + name)
    print(f"{len(results)} tried, {count['killed']} noticed, {len(left)} survived, of these "
          f"{len(equivalent)} equivalent, {len(results) - count['killed'] - len(left)} do not build")
    if total:
        print(f"score {100 * count['killed'] / total:.1f} %")


def main():
    parser = argparse.ArgumentParser(prog="tests/mutants/run.sh")
    parser.add_argument("--count", type=int, default=300, help="mutants to try in all (300)")
    parser.add_argument("--seed", type=int, default=1, help="which ones (1)")
    parser.add_argument("--only", default="", help="in paths that begin so")
    parser.add_argument("--seconds", type=int, default=10**9, help="begin none after so long")
    parser.add_argument("--list", action="store_true", help="show them and try none")
    parser.add_argument("--report", action="store_true", help="show the results so far")
    options = parser.parse_args()
    known, results = equivalents(), tried()
    if options.report:
        return report(results, known)
    every = [mutant for mutant in all_mutants() if mutant.path.startswith(options.only)]
    chosen = random.Random(options.seed).sample(every, min(options.count, len(every)))
    print(f"{len(every)} places, {len(chosen)} of them chosen by seed {options.seed}", flush=True)
    if options.list:
        print("\n".join(f"{mutant.line} {mutant.key}" for mutant in chosen))
        return None
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what was begun is put right
    signal.signal(signal.SIGINT, lambda *_: sys.exit(1))
    begin = time.monotonic()
    make_copy()
    if not build(*TARGETS):
        sys.exit("the tree does not build")
    tests, limits = measure()
    for number, mutant in enumerate(chosen, 1):
        if mutant.key in results:
            continue
        if time.monotonic() - begin > options.seconds:
            break
        verdict, by = try_one(mutant, tests, limits)
        results[mutant.key] = verdict
        with RESULTS.open("a") as file:
            file.write(f"{mutant.key}\t{verdict}\t{by}\n")
        print(f"{number}/{len(chosen)} {verdict}: {mutant.key} {by}", flush=True)
    return report(results, known)


if __name__ == "__main__":
    main()
