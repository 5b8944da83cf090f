"""Nodes, and what the load goes through to them: the agent, yardsticks, other relays, nothing."""

import ctypes
import os
import select
import shutil
import signal
import socket
import subprocess
import time

LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1
READY_SECONDS = 10
EXCHANGE_ID = 20562
KERNEL_ID = 20563


def on_cpu(cpu):
    """For a child process: it runs on this processor only, and does not outlive us."""
    def prepare():
        os.sched_setaffinity(0, {cpu})
        LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    return prepare


class Run:
    """Where the programs are and where this run keeps its files."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        self.before = None  # another agent's program, to be measured beside ours

    def program(self, name):
        return os.path.join(self.build, "bench", name)

    def path(self, name):
        return os.path.join(self.folder, name)


class Process:
    """A program that was started here; ended by its process id."""

    def __init__(self, command, cpu, env=None):
        self.popen = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, env=env, preexec_fn=on_cpu(cpu))
        self.pid = self.popen.pid

    def line(self):
        """The next line that it prints."""
        ready, _, _ = select.select([self.popen.stdout], [], [], READY_SECONDS)
        text = self.popen.stdout.readline().decode() if ready else ""
        if not text:
            self.stop()
            raise RuntimeError(f"not ready: {self.popen.args}")
        return text

    def stop(self, number=signal.SIGTERM):
        if self.popen.poll() is None:
            self.popen.send_signal(number)
            try:
                self.popen.wait(READY_SECONDS)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        self.popen.stdout.close()


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(child) for child in file.read().split()]


class EchoNode(Process):
    """A node behind TCP that sends every message back."""

    def __init__(self, run, place, cpu, singly=False):
        command = [*place.far, run.program("bench_echo_node"), "--hold", "--host", place.host]
        super().__init__(command + ["--singly"] * singly, cpu)
        self.near = place.near
        self.host = place.host
        self.port = int(self.line().split()[-1])
        self.table = f"ECHO TCPIP {self.host} {self.port} 0 0 0\n"
        self.yardstick = [run.program("bench_relay"), "--node", str(self.port)]
        self.direct = [run.program("lumo_load"), "--host", self.host, "--tcp", str(self.port)]


class SocketKernel(Process):
    """A local kernel behind a UNIX socket."""
    near = []

    def __init__(self, run, cpu):
        path = run.path(f"tavrin.{KERNEL_ID}")
        super().__init__([run.program("bench_echo_node"), "--kernel", path], cpu)
        self.line()
        self.table = f"ECHO LOCALS {KERNEL_ID}\n"
        self.yardstick = [run.program("bench_relay"), "--kernel", path]
        self.direct = [run.program("lumo_load"), "--agent", path]


class QueueKernel(Process):
    """A local kernel behind a System V message queue."""
    near = []

    def __init__(self, run, cpu):
        super().__init__([run.program("bench_queue_node")], cpu)
        key = self.line().split()[-1]
        self.table = f"QUEUE LOCALI {key}\n"
        self.yardstick = [run.program("bench_queue_relay"), "--key", key]
        self.direct = [run.program("bench_queue_load"), "--key", key]


def wait_for_socket(path):
    deadline = time.monotonic() + READY_SECONDS
    while True:
        try:
            with socket.socket(socket.AF_UNIX) as probe:
                probe.connect(path)
                return
        except OSError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.005)


def agent_program(run):
    return os.environ.get("BENCH_AGENT") or os.path.join(run.build, "lumo_tcp")


def agent_command(run, node, program, more_nodes=""):
    with open(run.path("nodetab"), "w") as table:
        table.write(node.table + more_nodes)
    return [*node.near, program, "-N", run.path("nodetab")]


def agent_env(run, **more):
    return {**os.environ, "TAVRIN_TMP": run.folder, "NET_MBX": str(EXCHANGE_ID), **more}


def agent_socket(run):
    return run.path(f"tavrin.{EXCHANGE_ID}")


class Target:
    """Stands between the load and a node. `load` is the command of the load without its size."""

    @staticmethod
    def installed():
        return True

    def settle(self):
        """Called when a first request has been answered."""

    def stop(self):
        self.process.stop()


class Agent(Target):
    name = "agent"

    def __init__(self, run, node, cpu, more_nodes="", **env):
        command = agent_command(run, node, self.program(run), more_nodes)
        self.process = Process(command + ["-NODAEMON"], cpu, agent_env(run, **env))
        wait_for_socket(agent_socket(run))
        self.pids = [self.process.pid]
        self.load = [run.program("lumo_load"), "--agent", agent_socket(run)]

    @staticmethod
    def program(run):
        return agent_program(run)

    def settle(self):
        """A reader child of a local queue takes part in the work."""
        self.pids = [self.process.pid, *children(self.process.pid)]


class Before(Agent):
    """Another agent, measured beside ours."""
    name = "before"

    @staticmethod
    def program(run):
        return run.before


class Prepared(Target):
    """A relay of ours that speaks the agent's client format."""

    def __init__(self, run, node, cpu):
        path = run.path(self.name)
        self.process = Process([*node.near, *self.command(run, node), "--listen", path], cpu)
        self.process.line()
        self.pids = [self.process.pid]
        self.load = [run.program("lumo_load"), "--agent", path]

    def stop(self):
        self.process.stop(signal.SIGKILL)  # it may stand still in a system call


class Yardstick(Prepared):
    name = "yardstick"

    @staticmethod
    def command(_run, node):
        return node.yardstick


class FreeHand(Prepared):
    name = "free hand"

    @staticmethod
    def command(run, node):
        return [run.program("bench_free_hand"), "--host", node.host, "--node", str(node.port)]


class Direct(Target):
    """The clients are connected to the node itself."""
    name = "direct"

    def __init__(self, _run, node, _cpu):
        self.pids = []
        self.load = [*node.near, *node.direct]

    def stop(self):
        pass


class Relay(Target):
    """A relay of bytes that others have made: a UNIX socket in front, TCP to the node behind."""

    def __init__(self, run, node, cpu):
        self.socket = run.path(self.name)
        if os.path.exists(self.socket):
            os.unlink(self.socket)
        self.process = Process([*node.near, *self.command(run, node)], cpu)
        wait_for_socket(self.socket)
        self.pids = self.working_pids()
        self.load = [run.program("lumo_load"), "--unix", self.socket]

    @classmethod
    def installed(cls):
        return cls.program() is not None

    @classmethod
    def program(cls):
        return shutil.which(cls.name, path=os.environ.get("PATH", "") + ":/usr/sbin")

    def config(self, run, text):
        path = run.path(self.name + ".conf")
        with open(path, "w") as file:
            file.write(text)
        return path

    def working_pids(self):
        return [self.process.pid]


class Haproxy(Relay):
    name = "haproxy"

    def command(self, run, node):
        return [self.program(), "-db", "-f", self.config(run, f"""
global
  nbthread 1
  maxconn 4000
defaults
  mode tcp
  timeout connect 10s
  timeout client 1h
  timeout server 1h
listen relay
  bind unix@{self.socket} mode 777 backlog 1024
  server node {node.host}:{node.port}
""")]


class Nginx(Relay):
    name = "nginx"
    MODULES = "/usr/lib/nginx/modules/ngx_stream_module.so"

    @classmethod
    def installed(cls):
        return cls.program() is not None and os.path.exists(cls.MODULES)

    def command(self, run, node):
        return [self.program(), "-p", run.folder, "-c", self.config(run, f"""
load_module {self.MODULES};
daemon off;
worker_processes 1;
pid {run.path("nginx.pid")};
error_log {run.path("nginx.log")} crit;
worker_rlimit_nofile 8192;
events {{ worker_connections 4000; }}
stream {{
  server {{
    listen unix:{self.socket} backlog=1024;
    proxy_pass {node.host}:{node.port};
    proxy_timeout 1h;
  }}
}}
""")]

    def working_pids(self):
        return children(self.process.pid)


class Socat(Relay):
    """A process for each connection: its processor time is not measured."""
    name = "socat"

    def command(self, _run, node):
        return [self.program(), f"UNIX-LISTEN:{self.socket},fork,backlog=1024",
                f"TCP:{node.host}:{node.port},nodelay"]

    def working_pids(self):
        return []


PEERS = [Haproxy, Nginx, Socat]
