#!/usr/bin/env python3
"""Fires every alert of packaging/monitoring against Debian's Prometheus, on loopback.

    tools/rehearsal/monitoring.py [--build build/release] [--keep DIRECTORY]

A real agent with stand-in nodes is brought into each state that an alert is about; the real exporter
is scraped; the rules are those that are installed, with their times divided by ten. At the end every
query of the dashboard must return data. Exit status 0: all of that. With --keep the alerts as
Prometheus tells them, the dashboard's figures and a screen of `lumoctl top` stay in the directory as
texts; those of docs/screens were made so.
Needs the packages prometheus and tmux, and a release build with lumo_tcp, lumoctl and lumo_node.
"""

import argparse
import json
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FASTER = 10  # the rules' times are divided by it
PATIENCE = 120


def say(text):
    print(text, flush=True)


def wait_for(condition, what, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > end:
            raise SystemExit(f"FAILED: waited in vain for {what}")
        time.sleep(0.1)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def shortened(rules):
    """The rules with times a tenth as long; the agent's ticks are not, so "stuck" stays above 2 s."""
    def divide(match):
        seconds = int(match.group(1)) * {"s": 1, "m": 60}[match.group(2)] / FASTER
        return f"{max(int(seconds), 1)}s"
    rules = re.sub(r"\b(\d+)([sm])\b", divide, rules)
    return re.sub(r"(lumo_last_pass_age_seconds > )30", r"\g<1>6", rules)


class Stage:
    def __init__(self, options, folder):
        self.build = Path(options.build)
        self.folder = Path(folder)
        self.processes = []
        self.clients = []
        self.load = None
        self.environment = {"TAVRIN_TMP": str(self.folder / "sockets"), "LUMO_STATS": "1",
                            "PATH": os.environ["PATH"], "TERM": "xterm"}
        (self.folder / "sockets").mkdir()

    def start(self, name, *command):
        with open(self.folder / f"{name}.log", "ab") as log:
            process = subprocess.Popen(list(map(str, command)), env=self.environment, stdout=log,
                                       stderr=log, cwd=self.folder)
        self.processes.append(process)
        return process

    def log(self, name):
        path = self.folder / f"{name}.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def stop(self, process):
        process.send_signal(signal.SIGCONT)
        process.terminate()
        process.wait(20)
        self.processes.remove(process)

    def ctl(self, *arguments):
        return subprocess.run([self.build / "tools/lumoctl/lumoctl", "-M", "100", *arguments],
                              env=self.environment, capture_output=True, text=True, timeout=30,
                              check=False)

    def node(self, name, port, *options):
        process = self.start(name, self.build / "tools/lumo_node/lumo_node", "--listen", port,
                             *options)
        wait_for(lambda: "listening" in self.log(name), f"node {name}")
        return process

    def agent(self, *options):
        process = self.start("agent", self.build / "lumo_tcp", "-M", "100", "-NODETAB",
                             self.folder / "nodetab", "-NODAEMON", *options)
        wait_for(lambda: self.ctl("list").returncode == 0, "the agent")
        return process

    def ask(self, node):
        """A request whose answer nobody waits for here."""
        return self.start("client", self.build / "tools/lumoctl/lumoctl", "-M", "100", "query",
                          "-n", node, "select 1")

    def connect(self, count):
        for _ in range(count):
            client = socket.socket(socket.AF_UNIX)
            client.connect(str(self.folder / "sockets/tavrin.100"))
            self.clients.append(client)

    def disconnect(self):
        for client in self.clients:
            client.close()
        self.clients.clear()

    def end(self):
        self.disconnect()
        for process in reversed(self.processes):
            try:
                process.send_signal(signal.SIGCONT)
                process.kill()
                process.wait()
            except ProcessLookupError:
                pass


class Prometheus:
    def __init__(self, stage, rules, exporter_port):
        self.port = free_port()
        (stage.folder / "rules.yml").write_text(rules)
        (stage.folder / "prometheus.yml").write_text(
            "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
            "rule_files: [rules.yml]\n"
            "scrape_configs:\n"
            "  - job_name: lumo\n"
            f"    static_configs: [{{targets: ['127.0.0.1:{exporter_port}']}}]\n")
        stage.start("prometheus", "prometheus", "--config.file=prometheus.yml",
                    f"--storage.tsdb.path={stage.folder}/tsdb",
                    f"--web.listen-address=127.0.0.1:{self.port}")
        wait_for(self.ready, "Prometheus")

    def get(self, path, **parameters):
        query = urllib.parse.urlencode(parameters)
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}{path}?{query}", timeout=10) as got:
            return json.load(got)["data"]

    def ready(self):
        try:
            return self.query("lumo_up")
        except (OSError, ValueError, KeyError):
            return False

    def query(self, text):
        return self.get("/api/v1/query", query=text)["result"]

    def firing(self, name):
        return [alert for alert in self.get("/api/v1/alerts")["alerts"]
                if alert["labels"]["alertname"] == name and alert["state"] == "firing"]


class Rehearsal:
    def __init__(self, options, folder):
        self.stage = Stage(options, folder)
        self.fired = {}
        self.ports = {name: free_port() for name in ("A", "B")}
        (self.stage.folder / "nodetab").write_text(
            f"A TCPIP 127.0.0.1 {self.ports['A']} 0 0 0\n"
            f"B TCPIP 127.0.0.1 {self.ports['B']} 0 0 0\n")
        self.nodes = {name: self.stage.node(name, port) for name, port in self.ports.items()}
        self.agent = self.stage.agent("-AUTOCONNECT")
        port = free_port()
        self.stage.start("exporter", self.stage.build / "tools/lumoctl/lumoctl", "-M", "100",
                         "export", "--listen", f"127.0.0.1:{port}")
        wait_for(lambda: "listening" in self.stage.log("exporter"), "the exporter")
        rules = (ROOT / "packaging/monitoring/lumo-alerts.yml").read_text()
        self.names = re.findall(r"alert: (\w+)", rules)
        self.prometheus = Prometheus(self.stage, shortened(rules), port)

    def expect(self, name, during=lambda: None):
        """The alert fires while `during` is done again and again."""
        def look():
            during()
            return self.prometheus.firing(name)
        begun = time.monotonic()
        self.fired[name] = wait_for(look, f"{name} to fire")
        say(f"{name}: fired after {time.monotonic() - begun:.0f} s: "
            f"{self.fired[name][0]['annotations']['summary']}")

    def silent(self, name):
        wait_for(lambda: not self.prometheus.firing(name), f"{name} to end")

    def query(self, node):
        return self.stage.ctl("query", "-n", node, "select 1")

    def all_silent(self):
        for _ in range(20):
            self.query("A")
            self.query("B")
        for name in self.names:
            self.silent(name)
        say("nothing fires while all is well")

    def node_down_and_default_moved(self):
        self.stage.stop(self.nodes.pop("A"))
        self.stage.ctl("query", "select 1")  # names no node: the default moves
        self.expect("LumoDefaultMoved")
        self.expect("LumoNodeDown", lambda: self.query("A"))
        self.nodes["A"] = self.stage.node("A", self.ports["A"])
        self.query("A")
        self.silent("LumoNodeDown")

    def answers_of_the_agent(self):
        self.expect("LumoAgentAnswers", lambda: self.query("NONE"))
        self.silent("LumoAgentAnswers")

    def clients_near_the_ceiling(self):
        page = json.loads(self.stage.ctl("stats", "--json").stdout)["agent"]
        self.stage.connect(int(page["clients_ceiling"] * 0.82))
        self.expect("LumoClientsNearCeiling")
        self.stage.disconnect()
        self.silent("LumoClientsNearCeiling")

    def requests_wait(self):
        """The queue of a listening socket is full: connections stay in progress."""
        self.stage.stop(self.nodes.pop("B"))
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", self.ports["B"]))
        listener.listen(0)
        fillers = []
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", self.ports["B"]))
            fillers.append(filler)
        asked = self.stage.ask("B")
        self.expect("LumoRequestsWaiting")
        for one in fillers:
            one.close()
        listener.close()
        self.nodes["B"] = self.stage.node("B", self.ports["B"])
        asked.wait(30)
        self.silent("LumoRequestsWaiting")

    def slow_node(self):
        self.stage.stop(self.nodes.pop("B"))
        self.nodes["B"] = self.stage.node("B", self.ports["B"], "--delay", "1500")
        workers = [threading.Thread(target=lambda: [self.query("B") for _ in range(5)])
                   for _ in range(3)]
        for worker in workers:
            worker.start()
        self.expect("LumoSlowNode")
        for worker in workers:
            worker.join()
        self.stage.stop(self.nodes.pop("B"))
        self.nodes["B"] = self.stage.node("B", self.ports["B"])

    def stuck(self):
        self.agent.send_signal(signal.SIGSTOP)
        self.expect("LumoAgentStuck")
        shown = self.stage.ctl("stats")
        if shown.returncode != 0 or "* " not in shown.stdout:
            raise SystemExit(f"FAILED: stats of a stopped agent: {shown}")
        self.agent.send_signal(signal.SIGCONT)
        self.silent("LumoAgentStuck")

    def down(self):
        self.agent.kill()
        self.agent.wait()
        self.expect("LumoAgentDown")
        self.stage.processes.remove(self.agent)
        self.agent = self.stage.agent("-AUTOCONNECT")
        self.silent("LumoAgentDown")

    def figures(self):
        """What each query of the dashboard returns."""
        dashboard = json.loads((ROOT / "packaging/monitoring/lumo-dashboard.json").read_text())
        found, missing = {}, []
        for _ in range(30):  # some time of ordinary traffic
            self.query("A")
            self.query("B")
        for panel in dashboard["panels"]:
            for target in panel["targets"]:
                text = target["expr"].replace("$exchange", ".*")
                result = self.prometheus.query(text)
                good = any(one["value"][1] != "NaN" for one in result)
                found[f"{panel['title']}: {target['legendFormat']}"] = result
                if not good:
                    missing.append(text)
        if missing:
            raise SystemExit("FAILED: no data for " + "; ".join(missing))
        say(f"the dashboard: {len(found)} queries return data")
        return found

    def screen(self):
        """What `lumoctl top` shows in a terminal."""
        tmux = ["tmux", "-S", str(self.stage.folder / "terminal")]
        command = f"{self.stage.build}/tools/lumoctl/lumoctl -M 100 top --delay 0.5"
        subprocess.run([*tmux, "-f", "/dev/null", "new-session", "-d", "-x", "100", "-y", "24",
                        command], env=self.stage.environment, check=True)
        try:
            def look():
                for node in ("A", "B", "A"):
                    self.query(node)
                out = subprocess.run([*tmux, "capture-pane", "-p"], capture_output=True, text=True,
                                     check=True).stdout
                return out if re.search("a second: requests [1-9]", out) else ""
            return wait_for(look, "the screen of top")
        finally:
            subprocess.run([*tmux, "kill-server"], check=False)

    @staticmethod
    def told(sample):
        labels = sample["metric"].get("node", "agent " + sample["metric"].get("exchange", ""))
        return f"{labels} {float(sample['value'][1]):.6g}"

    def run(self, keep):
        self.all_silent()
        self.node_down_and_default_moved()
        self.answers_of_the_agent()
        self.clients_near_the_ceiling()
        self.requests_wait()
        self.slow_node()
        self.stuck()
        self.down()
        left = set(self.names) - set(self.fired)
        if left:
            raise SystemExit(f"FAILED: never fired: {left}")
        figures = self.figures()
        screen = self.screen()
        if keep:
            keep = Path(keep)
            keep.mkdir(parents=True, exist_ok=True)
            (keep / "alerts.txt").write_text("".join(
                f"{name}: {found[0]['annotations']['summary']}\n"
                for name, found in self.fired.items()))
            (keep / "dashboard.txt").write_text("".join(
                f"{title}: " + ", ".join(self.told(one) for one in result) + "\n"
                for title, result in figures.items()))
            (keep / "top.txt").write_text(screen.rstrip() + "\n")
        say(f"{len(self.fired)} of {len(self.names)} alerts fired; passed")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", default=str(ROOT / "build/release"), type=os.path.abspath)
    parser.add_argument("--keep")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="lumo-") as folder:
        rehearsal = None
        try:
            rehearsal = Rehearsal(options, folder)
            rehearsal.run(options.keep)
        finally:
            if rehearsal:
                rehearsal.stage.end()
    return 0


if __name__ == "__main__":
    sys.exit(main())
