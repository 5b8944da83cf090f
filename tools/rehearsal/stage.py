"""What a rehearsal needs: stand-in nodes, an agent, an application. Everything is ended and removed
when the stage is left."""

import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
from pathlib import Path

PATIENCE = 40.0  # seconds for whatever has to come
STRINGS_AT = 52
TRAILER_SIZE = 48


def wait_for(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(0.01)


class Answer:
    """What came back: from a node its rows, from the agent a code; no frame: the end."""

    def __init__(self, frame, seconds):
        self.seconds = seconds
        if frame is None:
            self.text = "connection lost"
            return
        code = struct.unpack_from("=i", frame, 8)[0]
        at = STRINGS_AT
        for _ in range(4):
            size = struct.unpack_from("=H", frame, at)[0]
            text = frame[at + 2:at + 2 + size]
            at += 2 + size + size % 2
        from_agent = struct.unpack_from("=i", frame, at)[0] == 0
        self.text = f"{code}" if from_agent else f"answer of {text.decode()}"
        if not from_agent and code != 0:
            self.text = f"code {code} of the node"

    def __str__(self):
        return f"{self.text}, {self.seconds:.1f} s"


class Application:
    """A connection to the agent with requests in flight; TaskName is this process's id."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(path)
        self.sent = {}
        self.tag = 0
        self.since = time.monotonic()
        if len(self.read(60)) != 60:
            raise ConnectionError("no greeting")

    def read(self, size):
        data = b""
        while len(data) < size:
            try:
                part = self.socket.recv(size - len(data))
            except ConnectionResetError:
                part = b""
            if not part:
                return data
            data += part
        return data

    def send(self, node="", text="select name from me"):
        self.tag += 1
        raw = text.encode()
        strings = struct.pack("=H", len(raw)) + raw + b"\0" * (len(raw) % 2) + bytes(6)
        head = struct.pack("=i8s4s8s20s", os.getpid(), b"", b"SQL", b"", b"")
        head = head[:4] + bytes(12) + b"SQL\0" + node.encode().ljust(8) + bytes(20)
        trailer = bytearray(TRAILER_SIZE)
        struct.pack_into("=i", trailer, 0, os.getpid())
        struct.pack_into("=H", trailer, 12, self.tag)
        body = head + strings + trailer
        self.since = time.monotonic()
        try:
            self.socket.sendall(struct.pack("=I", len(body) + 4) + body)
        except (BrokenPipeError, ConnectionResetError):
            pass  # the answer will tell

    def receive(self):
        """The next answer, with the seconds since the latest send or mark."""
        head = self.read(4)
        if len(head) < 4:
            return Answer(None, time.monotonic() - self.since)
        frame = head + self.read(struct.unpack("=I", head)[0] - 4)
        return Answer(frame, time.monotonic() - self.since)

    def mark(self):
        self.since = time.monotonic()

    def ask(self, node=""):
        self.send(node)
        return self.receive()

    def close(self):
        self.socket.close()


class BlockedPort:
    """Somebody listens, but connections to it stay in progress: the queue is full."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=0)
        self.port = self.listener.getsockname()[1]
        self.fillers = []
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", self.port))
            self.fillers.append(filler)

    def end(self):
        for each in [*self.fillers, self.listener]:
            each.close()


class ClosedPort:
    """Nobody listens; the number stays ours."""

    def __init__(self):
        self.socket = socket.socket()
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]

    def end(self):
        self.socket.close()


class Stage:
    def __init__(self, build):
        self.build = Path(build)
        self.folder = Path(tempfile.mkdtemp(prefix="rehearsal."))
        self.processes = []
        self.others = []
        self.ports = {}
        self.levels = "3"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
            process.wait()
        for other in self.others:
            other.end()
        shutil.rmtree(self.folder)

    def node(self, name, *options, port=0):
        """A stand-in node that tells its name."""
        out = self.folder / f"{name}.out"
        sql = f"create table me(name text); insert into me values('{name}')"
        with open(out, "w", encoding="ascii") as stream:
            process = subprocess.Popen(
                [self.build / "tools/lumo_node/lumo_node", "--listen", str(port), "--sql", sql,
                 "--log", self.folder / f"{name}.log", *options], stdout=stream, stderr=stream)
        self.processes.append(process)
        wait_for(lambda: "listening on" in out.read_text(), f"start of node {name}")
        self.ports[name] = int(re.search(r"listening on tcp .*:(\d+)", out.read_text()).group(1))
        return process

    def dead_node(self, name, kind=ClosedPort):
        port = kind()
        self.others.append(port)
        self.ports[name] = port.port
        return port

    def program(self, *command, **options):
        """Some other program, ended with the stage."""
        with open(self.folder / "programs.log", "a", encoding="utf-8") as log:
            process = subprocess.Popen(command, stdout=log, stderr=log, **options)
        self.processes.append(process)
        return process

    def requests_of(self, name):
        log = self.folder / f"{name}.log"
        return log.read_text().count("request") if log.exists() else 0

    def agent(self, options=(), timeouts="0 0 0", exchange=7, before=()):
        """An agent with all nodes of the stage in its table, in alphabetic order."""
        table = self.folder / "nodetab"
        table.write_text("".join(f"{name} TCPIP 127.0.0.1 {port} {timeouts}\n"
                                 for name, port in sorted(self.ports.items())))
        with open(self.folder / "agent.log", "a", encoding="ascii") as log:
            process = subprocess.Popen(
                [*before, self.build / "lumo_tcp", "-NODAEMON", "-M", str(exchange), "-NODETAB",
                 table, *options], env=self.environment(), stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=log)
        self.processes.append(process)
        wait_for(lambda: self.is_served(exchange), "start of the agent")
        return process

    def run_agent(self, *options):
        """A run that ends by itself: its exit status and what it logged."""
        run = subprocess.run([self.build / "lumo_tcp", *options], env=self.environment(),
                             stdin=subprocess.DEVNULL, capture_output=True, text=True,
                             timeout=PATIENCE, check=False)
        return run.returncode, run.stderr.replace("lumo_tcp:", "").strip()

    def environment(self):
        return {"TAVRIN_TMP": str(self.folder), "DBC_LOG": self.levels,
                "PATH": os.environ["PATH"]}

    def is_served(self, exchange=7):
        try:
            self.application(exchange).close()
        except (OSError, ConnectionError):
            return False
        return True

    def application(self, exchange=7):
        return Application(str(self.folder / f"tavrin.{exchange}"))

    def default(self):
        """The default node's name, from the agent."""
        command = struct.pack("=4s8s18sH", b"DBCA", b"", b"", 103)
        body = struct.pack("=i", os.getpid()) + bytes(12) + command + bytes(8)
        trailer = struct.pack("=i8sH34s", os.getpid(), b"", 1, b"")
        application = self.application()
        application.socket.sendall(struct.pack("=I", 108) + body + trailer)
        answer = application.read(116)
        application.close()
        return answer[60:68].decode().strip()
