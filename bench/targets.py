"""What the load goes through: the agent, the yardstick, other relays, nothing."""

import os
import select
import shutil
import signal
import socket
import subprocess
import time

READY_SECONDS = 10
EXCHANGE_ID = 20562


def on_cpu(cpu):
    """For a child process: it runs on this processor only (None: on any)."""
    if cpu is None:
        return None
    return lambda: os.sched_setaffinity(0, {cpu})


class Run:
    """Where the programs are and where this run keeps its files."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder

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


class EchoNode(Process):
    def __init__(self, run, cpu, singly=False):
        command = [run.program("bench_echo_node"), "--hold"] + ["--singly"] * singly
        super().__init__(command, cpu)
        self.port = int(self.line().split()[-1])


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


def agent_command(run, port):
    with open(run.path("nodetab"), "w") as table:
        table.write(f"ECHO TCPIP 127.0.0.1 {port} 0 0 0\n")
    program = os.environ.get("BENCH_AGENT") or os.path.join(run.build, "lumo_tcp")
    return [program, "-N", run.path("nodetab")]


def agent_env(run, **more):
    return {**os.environ, "TAVRIN_TMP": run.folder, "NET_MBX": str(EXCHANGE_ID), **more}


def agent_socket(run):
    return run.path(f"tavrin.{EXCHANGE_ID}")


class Agent:
    name = "agent"

    def __init__(self, run, node, cpu, **env):
        self.process = Process(agent_command(run, node.port) + ["-NODAEMON"], cpu,
                               agent_env(run, **env))
        wait_for_socket(agent_socket(run))
        self.pids = [self.process.pid]
        self.load = ["--agent", agent_socket(run)]

    @staticmethod
    def installed():
        return True

    def stop(self):
        self.process.stop()


class Yardstick:
    name = "yardstick"

    def __init__(self, run, node, cpu):
        path = run.path("yardstick")
        self.process = Process(
            [run.program("bench_relay"), "--listen", path, "--node", str(node.port)], cpu)
        self.process.line()
        self.pids = [self.process.pid]
        self.load = ["--agent", path]

    @staticmethod
    def installed():
        return True

    def stop(self):
        self.process.stop(signal.SIGKILL)  # it may stand still in a system call


class Direct:
    """The clients are connected to the node itself."""
    name = "direct"

    def __init__(self, _run, node, _cpu):
        self.pids = []
        self.load = ["--tcp", str(node.port)]

    @staticmethod
    def installed():
        return True

    def stop(self):
        pass


class Relay:
    """A relay of bytes that others have made: a UNIX socket in front, TCP to the node behind."""

    def __init__(self, run, node, cpu):
        self.socket = run.path(self.name)
        if os.path.exists(self.socket):
            os.unlink(self.socket)
        self.process = Process(self.command(run, node.port), cpu)
        wait_for_socket(self.socket)
        self.pids = self.working_pids()
        self.load = ["--unix", self.socket]

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

    def stop(self):
        self.process.stop()


class Haproxy(Relay):
    name = "haproxy"

    def command(self, run, port):
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
  server node 127.0.0.1:{port}
""")]


class Nginx(Relay):
    name = "nginx"
    MODULES = "/usr/lib/nginx/modules/ngx_stream_module.so"

    @classmethod
    def installed(cls):
        return cls.program() is not None and os.path.exists(cls.MODULES)

    def command(self, run, port):
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
    proxy_pass 127.0.0.1:{port};
    proxy_timeout 1h;
  }}
}}
""")]

    def working_pids(self):
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children") as file:
            return [int(pid) for pid in file.read().split()]


class Socat(Relay):
    """A process for each connection: its processor time is not measured."""
    name = "socat"

    def command(self, _run, port):
        return [self.program(), f"UNIX-LISTEN:{self.socket},fork,backlog=1024",
                f"TCP:127.0.0.1:{port},nodelay"]

    def working_pids(self):
        return []


ALL = [Agent, Yardstick, Direct, Haproxy, Nginx, Socat]
PEERS = ["haproxy", "nginx", "socat"]
