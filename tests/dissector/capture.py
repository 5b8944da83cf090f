"""Capture files: of the loopback interface, and of bytes that a test has chosen."""
import math
import socket
import struct
import threading
import time

ETHERNET, RAW_IP = 1, 101
SECONDS_TO_READ_UP = 2  # after the stop


class PcapFile:
    def __init__(self, path, link_type):
        self.file = open(path, "wb", buffering=0)  # may be read at any time
        self.file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, link_type))

    def write(self, seconds, data):
        micros = int(seconds * 1e6)
        header = struct.pack("<II", *divmod(micros, 1000000)) + struct.pack("<I", len(data)) * 2
        self.file.write(header + data)

    def close(self):
        self.file.close()


class Loopback:
    """Everything on a TCP port of the loopback interface, until stop()."""

    def __init__(self, path, port):
        self.port = struct.pack("!H", port)
        self.pcap = PcapFile(path, ETHERNET)
        # A socket for one kind of packet sees those that come in, so none twice.
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.socket.bind(("lo", 0))
        self.socket.settimeout(0.2)
        self.end = math.inf
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        # What has come before the stop is still read: a time-out means that nothing is left. Others'
        # packets may come without a pause.
        while time.monotonic() < self.end + SECONDS_TO_READ_UP:
            try:
                data = self.socket.recv(65535)
            except socket.timeout:
                if self.end < math.inf:
                    return
                continue
            ports = 14 + 4 * (data[14] & 15) if len(data) > 34 else 0
            if ports and data[23] == socket.IPPROTO_TCP:
                if self.port in (data[ports : ports + 2], data[ports + 2 : ports + 4]):
                    self.pcap.write(time.time(), data)

    def stop(self):
        self.end = time.monotonic()
        self.thread.join()
        self.socket.close()
        self.pcap.close()


class Conversation:
    """A TCP connection of an agent to a node, made of segments with chosen content."""

    def __init__(self, path, port=1060, agent_port=40000):
        self.pcap = PcapFile(path, RAW_IP)
        self.clock = 1700000000.0
        self.connect(port, agent_port)

    def connect(self, port, agent_port):
        """What follows belongs to this connection, which must be a new one."""
        self.ports = {True: (agent_port, port), False: (port, agent_port)}
        self.next = {True: 1000, False: 5000}
        self.segment(True, b"", flags=2)
        self.segment(False, b"", flags=0x12)
        for side in (True, False):
            self.next[side] += 1
        self.segment(True, b"", flags=0x10)

    def segment(self, from_agent, data, flags=0x18):
        source, target = self.ports[from_agent]
        tcp = struct.pack("!HHIIBBHHH", source, target, self.next[from_agent],
                          self.next[not from_agent], 0x50, flags, 65535, 0, 0)
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0,
                         b"\x7f\0\0\1", b"\x7f\0\0\1")
        self.next[from_agent] += len(data)
        self.clock += 0.25
        self.pcap.write(self.clock, ip + tcp + data)

    def request(self, *parts):
        for part in parts:
            self.segment(True, part)

    def answer(self, *parts):
        for part in parts:
            self.segment(False, part)

    def close(self):
        self.pcap.close()
