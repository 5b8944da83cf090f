#!/usr/bin/env python3
"""A stuck agent is restarted: a stand-in for the service manager, where none runs.

    tools/rehearsal/watchdog.py [--build build/release] [--seconds 6]

Does what the manager does with the packaged unit: waits for READY, wants a sign of life within the
watchdog's time, kills an agent that gives none and starts the next one. The agent is stopped with
SIGSTOP, as one that is stuck. Exit status 0: it was replaced, and the next one serves.
"""

import argparse
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


class Manager:
    def __init__(self, build, folder, seconds):
        self.build, self.folder, self.seconds = Path(build), Path(folder), seconds
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(self.folder / "notify"))
        (self.folder / "nodetab").write_text("SRV1 REZ\n")
        self.environment = {"TAVRIN_TMP": str(self.folder), "PATH": os.environ["PATH"],
                            "NOTIFY_SOCKET": str(self.folder / "notify"),
                            "WATCHDOG_USEC": str(int(seconds * 1e6))}
        self.agent = None

    def start(self):
        self.agent = subprocess.Popen(
            [self.build / "lumo_tcp", "-M", "100", "-NODETAB", self.folder / "nodetab",
             "-NODAEMON"], env=self.environment, stdout=subprocess.DEVNULL)
        if self.hear(20) != "READY=1":
            raise SystemExit("FAILED: the agent does not say that it is ready")
        print(f"process {self.agent.pid} is ready", flush=True)

    def hear(self, seconds):
        """The next message; empty: none came in time."""
        self.socket.settimeout(seconds)
        try:
            return self.socket.recv(256).decode()
        except TimeoutError:
            return ""

    def watch(self, seconds):
        """True while signs of life come, for so long; False: none came within the time."""
        end = time.monotonic() + seconds
        last = time.monotonic()
        while time.monotonic() < end:
            message = self.hear(max(last + self.seconds - time.monotonic(), 0.01))
            if message == "WATCHDOG=1":
                last = time.monotonic()
            elif message:
                print(f"  it says: {message}", flush=True)
            elif time.monotonic() >= last + self.seconds:
                return False
        return True

    def replace(self):
        self.agent.send_signal(signal.SIGKILL)  # as WatchdogSignal=SIGKILL
        self.agent.wait()
        self.start()

    def end(self):
        if self.agent and self.agent.poll() is None:
            self.agent.send_signal(signal.SIGCONT)
            self.agent.terminate()
            self.agent.wait(20)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--seconds", type=float, default=6)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="lumo-") as folder:
        manager = Manager(options.build, folder, options.seconds)
        try:
            manager.start()
            if not manager.watch(2 * options.seconds):
                raise SystemExit("FAILED: a healthy agent gave no sign of life")
            manager.agent.send_signal(signal.SIGSTOP)
            begun = time.monotonic()
            if manager.watch(4 * options.seconds):
                raise SystemExit("FAILED: a stopped agent gives signs of life")
            print(f"no sign of life for {options.seconds:g} s: replaced after "
                  f"{time.monotonic() - begun:.1f} s", flush=True)
            manager.replace()
            if not manager.watch(options.seconds):
                raise SystemExit("FAILED: the next agent gave no sign of life")
            manager.agent.terminate()
            while (word := manager.hear(10)) and word != "STOPPING=1":
                pass
            if word != "STOPPING=1" or manager.agent.wait(20) != 0:
                raise SystemExit("FAILED: the end")
            print("passed")
        finally:
            manager.end()
    return 0


if __name__ == "__main__":
    sys.exit(main())
