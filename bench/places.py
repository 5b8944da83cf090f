"""Where the load, the relay and the node stand: on one machine, or with a wire between them."""

import itertools
import os
import shutil
import subprocess

import targets

NEAR_HOST, FAR_HOST = "192.0.2.1", "192.0.2.2"
DEVICE = "wire"
QUEUE_PACKETS = "20000"  # more than ever wait for the wire: it delays, and loses nothing
PREFIX = "lumo-bench"
COUNTER = itertools.count()


class Loopback:
    """All on one machine; the node is reached over TCP."""
    name = "loopback"
    rtt_ms = 0
    host = "127.0.0.1"
    near, far = [], []  # what commands at either end begin with

    def node(self, run, cpus, **options):
        return targets.EchoNode(run, self, cpus.first, **options)


class LocalSocket(Loopback):
    name = "LOCALS"

    def node(self, run, cpus, **_options):
        return targets.SocketKernel(run, cpus.first)


class LocalQueue(Loopback):
    name = "LOCALI"

    def node(self, run, cpus, **_options):
        return targets.QueueKernel(run, cpus.first)


class NotAllowed(Exception):
    """The wire cannot be made here; says why."""


class Distance:
    """The node stands at the far end of a wire, in a network namespace of its own, and so do the
    load and the relay at the near one. Both are removed by close()."""
    host = FAR_HOST

    def __init__(self, run, rtt_ms, cpus):
        self.name = f"{rtt_ms:g} ms"
        self.rtt_ms = rtt_ms
        number = next(COUNTER)
        self.spaces = [f"{PREFIX}-{os.getpid()}-{number}-{end}" for end in ("near", "far")]
        self.near, self.far = (["ip", "netns", "exec", space] for space in self.spaces)
        self.wire = None
        try:
            self.open(run, cpus)
        except BaseException:
            self.close()
            raise

    def open(self, run, cpus):
        for space in self.spaces:
            ip("netns", "add", space)
        self.wire = targets.Process(
            [run.program("bench_wire"), "--near", self.spaces[0], "--far", self.spaces[1],
             "--device", DEVICE, "--delay-us", str(self.rtt_ms * 500)], cpus.last)
        self.wire.line()
        for space, host in zip(self.spaces, (NEAR_HOST, FAR_HOST)):
            ip("-n", space, "address", "add", host + "/30", "dev", DEVICE)
            ip("-n", space, "link", "set", DEVICE, "txqueuelen", QUEUE_PACKETS, "up")
            ip("-n", space, "link", "set", "lo", "up")

    def node(self, run, cpus, **options):
        return targets.EchoNode(run, self, cpus.last, **options)

    def close(self):
        if self.wire:
            self.wire.stop()
        for space in self.spaces:
            remove(space)


def ip(*words):
    done = subprocess.run(["ip", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    if done.returncode != 0:
        raise NotAllowed(f"ip {' '.join(words)}: {done.stdout.decode().strip()}")
    return done.stdout.decode()


def remove(space):
    subprocess.run(["ip", "netns", "delete", space], stderr=subprocess.DEVNULL, check=False)


def remove_forgotten():
    """Namespaces of runs that were killed."""
    for line in ip("netns", "list").splitlines():
        space = line.split()[0]
        if space.startswith(PREFIX) and not os.path.exists("/proc/" + space.split("-")[2]):
            remove(space)


def why_no_distance():
    """A word on why there can be no wire here, or None."""
    if os.geteuid() != 0:
        return "only root may make network namespaces"
    if not shutil.which("ip"):
        return "the program ip (iproute2) is not installed"
    if not os.path.exists("/dev/net/tun"):
        return "there is no /dev/net/tun"
    try:
        remove_forgotten()
    except NotAllowed as error:
        return str(error)
    return None
