#!/usr/bin/env python3
"""Changes one place of the agent or the library at a time and looks whether a test notices.

See run.sh. Everything happens in a copy of the tree below build/mutants. Nearly all changes are written
there as choices and compiled in at once (mutant.h); the others are built one by one. results.tsv has a
line for each change that was tried, and what stands there is not tried again.
"""
import argparse
import concurrent.futures
import dataclasses
import hashlib
import itertools
import json
import os
import pathlib
import queue
import random
import re
import shlex
import shutil
import signal
import struct
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

LEVEL = "TEST_LOG_LEVEL"
LEAK_CHECKER = subprocess.run(["c++", "-print-file-name=liblsan.so"], text=True, check=True,
                              stdout=subprocess.PIPE).stdout.strip()
STAGES = {
    "unit": ("tests/unit/unit_tests", {"LD_PRELOAD": LEAK_CHECKER}),
    "lib": ("tests/lib/lib_tests", {}),
    "stats": ("tests/stats/stats_tests", {}),
    "process at level 0": ("tests/process/process_tests", {LEVEL: "0"}),
    "process at level 15": ("tests/process/process_tests", {LEVEL: "15"}),
    "lumoctl": ("tests/lumoctl/lumoctl_tests", {}),
}
PROGRAMS = {program for program, _ in STAGES.values()}
TARGETS = ["lumo_tcp", *sorted(pathlib.Path(program).name for program in PROGRAMS)]
AT_ONCE = 6         # tests: they mostly wait
MAP_SIZE = 1 << 16  # as in mutant.h
NONE = -1


def kept(name, parts, find):
    """What was found before, as long as what it depends on is the same."""
    path, key = PLACE / f"{name}.json", hashlib.sha256(b"".join(parts)).hexdigest()
    if path.exists() and (found := json.loads(path.read_text()))["key"] == key:
        return found["value"]
    value = find()
    path.write_text(json.dumps({"key": key, "value": value}))
    return value


# What is changed.

@dataclasses.dataclass
class Change:
    mutant: rules.Mutant
    number: int
    choice: bool = True   # compiled in; otherwise it is built by itself
    probes: tuple = ()    # places that tell who comes to it, when it is built by itself

    def insertions(self):
        """(from, to, text before, text behind)"""
        number = str(self.number)
        if self.choice:
            before, behind = (text.replace("%", number) for text in self.mutant.around)
            return [(self.mutant.at, self.mutant.end, before, behind)]
        return [(at, at, f" (void)LumoMutant({number});", "") for at in self.probes]

    def lower(self, text):
        """To the next way of trying it; without probes everybody is asked."""
        self.probes = rules.probes(text, self.mutant) if self.choice else ()
        self.choice = False


def with_choices(text, changes):
    pieces = []
    for change in changes:
        for begin, end, before, behind in change.insertions():
            pieces.append((begin, 1, -end, change.number, before))
            pieces.append((end, 0, -begin, -change.number, behind))
    out, at = ['#include "tests/mutants/mutant.h"\n#line 1\n'], 0
    for place, _, _, _, piece in sorted(pieces):
        out += [text[at:place], piece]
        at = place
    return "".join(out) + text[at:]


def by_itself(text, mutant):
    return text[:mutant.at] + mutant.new + text[mutant.end:]


def compilers():
    """How each file is compiled, without its output and its warnings."""
    found = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        kept = [word for word in words[:words.index("-o")]
                if not word.startswith("-W") and not word.endswith("ccache")]
        found.setdefault(os.path.relpath(entry["file"], COPY),
                         [*kept, "-Werror=vla", "-fmax-errors=1", "-fsyntax-only", "-x", "c++", "-"])
    return found


def objection(compiler, path, text):
    """The line that the compiler objects to first, None when it does not: what follows may follow from it."""
    run = subprocess.run(compiler, input=f'#line 1 "{path}"\n{text}', text=True, cwd=BUILD,
                         stderr=subprocess.PIPE, check=False)
    if run.returncode == 0:
        return None
    place = re.search(rf"^{re.escape(path)}:(\d+):", run.stderr, re.M)
    return int(place[1]) if place else -1


def settle(path, changes, compiler):
    """Finds the way in which each change of a file builds; those that do not build at all are left out."""
    text = (TREE / path).read_text()
    while line := objection(compiler, path, with_choices(text, changes)):
        def distance(change):
            return min((max(text.count("\n", 0, begin) + 1 - line, line - text.count("\n", 0, end) - 1, 0)
                        for begin, end, _, _ in change.insertions()), default=10**9)
        nearest = min(map(distance, changes))
        for change in [change for change in changes if distance(change) == nearest]:
            change.lower(text)
    return [change for change in changes if change.choice or
            not objection(compiler, path, by_itself(text, change.mutant))]


def settled(changes):
    """(number, choice, probes) of those that build."""
    known, paths = compilers(), sorted({change.mutant.path for change in changes})
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        files = pool.map(lambda path: settle(path, [c for c in changes if c.mutant.path == path],
                                             known[path]), paths)
        return [(change.number, change.choice, change.probes) for some in files for change in some]


def chosen(count, seed, only, named):
    every = [mutant for folder in FOLDERS for path in sorted((TREE / folder).glob("*.cpp"))
             for mutant in rules.mutants(str(path.relative_to(TREE)), path.read_text())
             if mutant.path.startswith(only) and (not named or mutant.key in named)]
    random.Random(seed).shuffle(every)
    candidates = every[:count + count // 4 + 20]
    sources = [(TREE / path).read_bytes() for path in sorted({mutant.path for mutant in every})]
    own = [(TREE / "tests/mutants" / name).read_bytes() for name in ("rules.py", "mutant.h")]
    found = kept("chosen", [repr((count, seed, only, named)).encode(), *own, *sources], lambda: settled(
        [Change(mutant, number) for number, mutant in enumerate(candidates)]))
    changes = [Change(candidates[number], number, *how) for number, *how in sorted(found)][:count]
    print(f"{len(every)} places; {len(changes)} chosen by seed {seed}, "
          f"{sum(not change.choice for change in changes)} of them built by themselves", flush=True)
    return changes


# The copy.

def put(path, content):
    """What is as it was keeps its time, so that it is not built again."""
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def make_copy():
    """All but what is changed."""
    wanted = {path.relative_to(TREE) for path in TREE.rglob("*")
              if path.is_file() and path.relative_to(TREE).parts[0] not in (".git", "build")}
    for path in wanted:
        if path.suffix != ".cpp" or path.parts[0] not in FOLDERS or not (COPY / path).exists():
            put(COPY / path, (TREE / path).read_bytes())
            shutil.copymode(TREE / path, COPY / path)
    for path in COPY.rglob("*"):
        name = path.relative_to(COPY)
        if path.is_file() and name not in wanted and name.parts[0] != "build":
            path.unlink()
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    subprocess.run(["cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                    "-DCMAKE_CXX_FLAGS=-O0", *launcher], check=True, stdout=subprocess.DEVNULL)


def write_changes(changes):
    for folder in FOLDERS:
        for path in (TREE / folder).rglob("*.cpp"):
            name, text = str(path.relative_to(TREE)), path.read_text()
            here = [change for change in changes if change.mutant.path == name]
            put(COPY / name, (with_choices(text, here) if here else text).encode())


def build():
    return subprocess.run(["ninja", "-C", BUILD, "-j2", *TARGETS], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, check=False).returncode == 0


# The tests.

running, maps = set(), queue.Queue()


def end_session(run):
    """Ends a program and what it has started."""
    try:
        os.killpg(run.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    run.wait()
    running.discard(run)


@dataclasses.dataclass
class Test:
    stage: str
    name: str
    seconds: float = 0
    reached: list = ()  # numbers of the changes whose places it comes to

    def passes(self, number, limit):
        program, environment = STAGES[self.stage]
        place = maps.get()
        place.write_bytes(struct.pack("=i", number) + bytes(MAP_SIZE - 4))
        begin = time.monotonic()
        run = subprocess.Popen(
            [BUILD / program, "--gtest_filter=" + self.name], start_new_session=True, cwd=PLACE,
            env={**os.environ, **environment, "LUMO_MUTANTS": str(place)},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        running.add(run)
        try:
            run.wait(limit)
        except subprocess.TimeoutExpired:
            pass
        end_session(run)
        if number == NONE:
            self.seconds = time.monotonic() - begin
            self.reached = [at for at, byte in enumerate(place.read_bytes()[4:]) if byte]
        maps.put(place)
        return run.returncode == 0

    def notices(self, number):
        return not self.passes(number, 10 + 5 * self.seconds)


def at_once(call, tests):
    """(test, result) as they come; what is under way when nobody asks further is ended."""
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        under_way, left = {}, iter(tests)
        try:
            while True:
                for test in itertools.islice(left, AT_ONCE - len(under_way)):
                    under_way[pool.submit(call, test)] = test
                if not under_way:
                    return
                done, _ = concurrent.futures.wait(under_way, return_when="FIRST_COMPLETED")
                for future in done:
                    yield under_way.pop(future), future.result()
        finally:
            for run in list(running):
                end_session(run)


def names(program):
    suite = ""
    for line in subprocess.run([BUILD / program, "--gtest_list_tests"], text=True, check=True,
                               stdout=subprocess.PIPE).stdout.splitlines():
        word = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = word
        elif not word.startswith("DISABLED_"):
            yield suite + word


def measure(stage):
    """Each test's time and what it comes to; one that fails without a change is not asked."""
    tests = [Test(stage, name) for name in names(STAGES[stage][0])]
    begin = time.monotonic()
    bad = [test for test, passed in at_once(lambda test: test.passes(NONE, 300), tests) if not passed]
    bad = [test for test in bad if not test.passes(NONE, 300)]
    print(f"{stage}: {len(tests)} tests, {time.monotonic() - begin:.0f} s" +
          "".join(f"\n  fails without a change: {test.name}" for test in bad), flush=True)
    return [dataclasses.asdict(test) for test in tests if test not in bad]


def measured():
    found = []
    for stage, (program, _) in STAGES.items():
        parts = [file.read_bytes() for file in (BUILD / program, BUILD / "lumo_tcp",
                                                PLACE / "chosen.json")]
        name = "tests of " + stage
        found += [Test(**test) for test in kept(name, parts, lambda: measure(stage))]
    return sorted(found, key=lambda test: test.seconds)


def killer(change, tests):
    """The test that notices, or None; the shortest are asked first, and each twice."""
    everybody = not change.choice and not change.probes
    asked = [test for test in tests if everybody or change.number in test.reached]
    active = change.number if change.choice else NONE
    while asked:
        noticed = next((test for test, seen in at_once(lambda test: test.notices(active), asked)
                        if seen), None)
        if not noticed or noticed.notices(active):
            return noticed
        asked.remove(noticed)
    return None


def try_one(change, tests, changes):
    """(verdict, by what)"""
    if not change.choice:
        path = COPY / change.mutant.path
        put(path, by_itself((TREE / change.mutant.path).read_text(), change.mutant).encode())
        if not build():
            return "no build", ""
    noticed = killer(change, tests)
    if not change.choice:
        write_changes(changes)
    return ("killed", f"{noticed.stage}: {noticed.name}") if noticed else ("survived", "")


# The results.

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


def tried():
    if not RESULTS.exists():
        return {}
    return dict(line.split("\t")[:2] for line in RESULTS.read_text().splitlines())


def report(results):
    known = equivalents()
    count = {verdict: sum(1 for found in results.values() if found == verdict)
             for verdict in ("killed", "survived", "no build")}
    left = [name for name, verdict in results.items() if verdict == "survived" and name not in known]
    print("\nsurvivors:\n" + "\n".join("  " + name for name in left))
    print(f"{len(results)} tried, {count['killed']} noticed, {count['survived']} survived, of these "
          f"{count['survived'] - len(left)} equivalent, {count['no build']} do not build")
    if count["killed"] or left:
        print(f"score {100 * count['killed'] / (count['killed'] + len(left)):.1f} %")


def main():
    parser = argparse.ArgumentParser(prog="tests/mutants/run.sh")
    parser.add_argument("--count", type=int, default=300, help="mutants to try in all (300)")
    parser.add_argument("--seed", type=int, default=1, help="which ones (1)")
    parser.add_argument("--only", default="", help="in paths that begin so")
    parser.add_argument("--named", type=pathlib.Path, help="those that a file names, as results.tsv")
    parser.add_argument("--seconds", type=int, default=10**9, help="begin none after so long")
    parser.add_argument("--again", action="store_true", help="try those again that survived")
    parser.add_argument("--list", action="store_true", help="show them and try none")
    parser.add_argument("--report", action="store_true", help="show the results so far")
    options = parser.parse_args()
    results = tried()
    if options.report:
        return report(results)
    if not os.path.isabs(LEAK_CHECKER):
        sys.exit("the compiler has no leak checker")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what was begun is put right
    signal.signal(signal.SIGINT, lambda *_: sys.exit(1))
    begin = time.monotonic()
    make_copy()
    lines = options.named.read_text().splitlines() if options.named else []
    named = sorted({line.split("\t")[0] for line in lines})
    changes = chosen(options.count, options.seed, options.only, named)
    if options.list:
        print("\n".join(f"{change.mutant.line} {change.mutant.key}" for change in changes))
        return None
    write_changes(changes)
    if not build():
        sys.exit("the tree does not build")
    for number in range(AT_ONCE + 1):
        maps.put(PLACE / f"map.{number}")
    tests = measured()
    known = equivalents()
    for at, change in enumerate(sorted(changes, key=lambda change: not change.choice), 1):
        found = results.get(change.mutant.key)
        if found and not (options.again and found == "survived" and change.mutant.key not in known):
            continue
        if time.monotonic() - begin > options.seconds:
            break
        verdict, by = try_one(change, tests, changes)
        results[change.mutant.key] = verdict
        with RESULTS.open("a") as file:
            file.write(f"{change.mutant.key}\t{verdict}\t{by}\n")
        print(f"{at}/{len(changes)} {verdict}: {change.mutant.key} {by}", flush=True)
    return report(results)


if __name__ == "__main__":
    main()
