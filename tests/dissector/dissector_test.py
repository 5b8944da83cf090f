"""Usage: dissector_test.py BUILD-DIRECTORY. Needs tshark, and the right to capture on loopback."""
import os
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

from capture import Conversation, Loopback

TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = ""
PATIENCE = 20
LUA_ERROR = "_ws.lua.error"


def dissect(path, fields, *options, show="lumo"):
    """For each packet shown, the lists of values of the fields."""
    command = ["tshark", "-n", "-r", path, "-X", f"lua_script:{TREE}/dissector/lumo.lua",
               "-Y", show, "-T", "fields", "-E", "aggregator=\x01", *options]
    for field in [*fields, LUA_ERROR]:
        command += ["-e", field]
    run = subprocess.run(command, capture_output=True, text=True, timeout=60)
    noise = [line for line in run.stderr.splitlines() if "Running as user" not in line]
    if run.returncode or noise:
        raise AssertionError(f"{command}: {run.returncode}\n{run.stderr}{run.stdout}")
    rows = [line.split("\t") for line in run.stdout.splitlines()]
    for row in rows:
        if row.pop():
            raise AssertionError(f"the dissector failed: {row}")
    return [[value.split("\x01") if value else [] for value in row] for row in rows]


def message(task=77, tag=5, node=b"SRV1", strings=(b"SELECT 10",), trailer_task=None, mark=3,
            order="<", cod_err=0):
    body = struct.pack(order + "iiHH4s4s8siiIiHH", task, cod_err, 1, 2, b"\1\2\3\4", b"EXEC",
                       node.ljust(8), -3, 4, 0xABCD, 0, 6, 7)
    for text in (list(strings) + [b""] * 4)[:4]:
        body += struct.pack(order + "H", len(text)) + text + b"\0" * (len(text) % 2)
    body += struct.pack(order + "iI4sH32sBB", task if trailer_task is None else trailer_task, 9,
                        b"wxyz", tag, bytes(range(32)), mark, 200)
    return struct.pack(order + "I", len(body)) + body


def control(kind, parameter):
    return struct.pack("<III", 8, kind, parameter)


class Directory(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.pcap = os.path.join(self.folder, "capture.pcap")


class MadeCaptures(Directory):
    def conversation(self, **options):
        made = Conversation(self.pcap, **options)
        self.addCleanup(made.close)
        return made

    def expert(self, packets):
        """The expert notes on each of these packets, all on connections of their own."""
        made = self.conversation()
        for i, packet in enumerate(packets):
            made.connect(1060, 50000 + i)
            made.request(packet)
        rows = dissect(self.pcap, ["_ws.expert.message"])
        self.assertEqual(len(rows), len(packets))
        return [row[0] for row in rows]

    def test_every_field_of_a_message(self):
        made = self.conversation()
        made.request(message(strings=[b"SELECT 10", b"two", b"", b"four"]))
        expected = {
            "lumo.length": "122", "lumo.task_name": "77", "lumo.cod_err": "0", "lumo.prior": "1",
            "lumo.num_chan": "2", "lumo.cbl.uninterpreted": "01020304", "lumo.command": "EXEC",
            "lumo.node": "SRV1", "lumo.row_id": "-3", "lumo.row_count": "4",
            "lumo.prz_exe": "0x0000abcd", "lumo.sys_err": "0", "lumo.ln_buf_row": "6",
            "lumo.dbc_api_code": "7", "lumo.string1.count": "9", "lumo.string1": "SELECT 10",
            "lumo.string1.pad": "00", "lumo.string2.count": "3", "lumo.string2": "two",
            "lumo.string3.count": "0", "lumo.string4.count": "4", "lumo.string4": "four",
            "lumo.trailer.task_name": "77", "lumo.trailer.link_socket": "9",
            "lumo.trailer.uninterpreted8": b"wxyz".hex(), "lumo.trailer.ast_ind": "5",
            "lumo.trailer.uninterpreted14": bytes(range(32)).hex(), "lumo.trailer.mark": "3",
            "lumo.trailer.uninterpreted47": "c8", "lumo.request": "1",
        }
        row = dissect(self.pcap, list(expected))[0]
        self.assertEqual({name: values[0] for name, values in zip(expected, row)}, expected)

    def test_control_packets(self):
        made = self.conversation()
        made.request(control(0, 3) + control(1, 60 << 16 | 0x5555), control(1, 0), control(2, 4711))
        made.answer(control(1, 99))
        rows = dissect(self.pcap, ["lumo.control.type", "lumo.control.receive_timeout",
                                   "lumo.control.send_timeout", "lumo.control.alive",
                                   "lumo.control.dead_pid", "_ws.expert.message"])
        self.assertEqual(rows, [[["0", "1"], ["3"], ["60"], [], [], []],
                                [["1"], [], [], ["1"], [], []],
                                [["2"], [], [], [], ["4711"], []],
                                [["1"], [], [], [], [], []]])

    def test_packets_in_pieces_and_several_in_a_segment(self):
        first, second = message(tag=1), message(tag=2, strings=[b"x" * 3000])
        stream = first + control(1, 0) + second
        made = self.conversation()
        made.request(*(bytes([byte]) for byte in first), stream[:150], stream[150:1000],
                     stream[1000:])
        rows = dissect(self.pcap,
                       ["lumo.trailer.ast_ind", "lumo.control.type", "lumo.string1.count"])
        tags = [tag for row in rows for tag in row[0]]
        self.assertEqual(tags, ["1", "1", "2"])
        self.assertEqual([value for row in rows for value in row[1]], ["1"])
        self.assertEqual([value for row in rows for value in row[2]], ["9", "9", "3000"])

    def test_answers_find_their_requests(self):
        made = self.conversation()
        made.request(message(tag=1) + message(tag=2))  # packet 4
        made.request(message(task=78, tag=1))
        made.answer(message(task=78, tag=1, mark=0))  # packet 6, 0.25 s later
        made.answer(message(tag=2), message(tag=1, cod_err=17))
        made.answer(message(tag=1), message(tag=9))
        made.request(message(tag=3))
        made.answer(message(tag=3) * 2)  # both in packet 12
        made.request(message(tag=2))  # the tag again, after its answer
        made.request(message(tag=2))  # and once more, without
        names = ["frame.number", "lumo.response_in", "lumo.request_in", "lumo.response_time",
                 "_ws.expert.message"]
        rows = dissect(self.pcap, names, "-2")
        self.assertEqual([[row[0][0], row[1], row[2], row[3]] for row in rows], [
            ["4", ["8", "7"], [], []], ["5", ["6"], [], []],
            ["6", [], ["5"], ["0.250000000"]], ["7", [], ["4"], ["0.750000000"]],
            ["8", [], ["4"], ["1.000000000"]], ["9", [], [], []], ["10", [], [], []],
            ["11", ["12"], [], []], ["12", [], ["11", "11"], ["0.250000000"] * 2],
            ["13", [], [], []], ["14", [], [], []]])
        notes = [row[4] for row in rows]
        self.assertEqual(notes[:5], [[]] * 5)
        self.assertIn("had its answer already", notes[5][0])
        self.assertIn("No request for this answer", notes[6][0])
        self.assertIn("had its answer already", notes[8][0])
        self.assertIn("No answer in this capture", notes[9][0])
        self.assertIn("not answered yet", " ".join(notes[10]))

    def test_connections_are_kept_apart(self):
        made = self.conversation()
        made.request(message())
        made.connect(1060, 40001)
        made.answer(message())
        rows = dissect(self.pcap, ["lumo.request_in", "_ws.expert.message"])
        self.assertEqual(rows[1][0], [])
        self.assertIn("No request for this answer", rows[1][1][0])

    def test_a_good_request_has_no_notes(self):
        largest = message(strings=[b"z" * 8084])
        self.assertEqual(len(largest), 8192)
        self.assertEqual(self.expert([message(), largest]), [[], []])

    def test_malformed_packets(self):
        good = message()
        longer = struct.pack("<I", len(good)) + good[4:] + b"more"
        cases = [
            (struct.pack("<I", 8189) + b"x" * 20, "Length above 8188"),
            (struct.pack("<I", 0xFFFFFFFF), "Length above 8188"),
            (struct.pack("<I", 0), "Length 0"),
            (struct.pack("<I", 60) + good[4:64], "ends before its trailer"),
            (struct.pack("<I", 3) + b"abc", "ends before its trailer"),
            (struct.pack("<I", 56) + good[4:52] + b"\xff\xff" + good[54:60], "more than 8192"),
            (longer, "behind the trailer"),
            (message(trailer_task=78), "TaskName and the trailer's TaskName differ"),
            (message(mark=0), "3 as its mark"),
            (control(7, 0), "unknown type"),
            (control(1, 60), "neither 0"),
        ]
        found = self.expert([packet for packet, _ in cases])
        for (packet, words), notes in zip(cases, found):
            with self.subTest(words=words, size=len(packet)):
                self.assertEqual(len(notes), 1, notes)
                self.assertIn(words, notes[0])

    def test_any_bytes_are_survived(self):
        made = self.conversation()
        seed = 12345
        for size in list(range(1, 130)) * 2:
            data = bytearray()
            for _ in range(size):
                seed = (seed * 1103515245 + 12345) % (1 << 31)
                data.append(seed >> 16 & 255)
            made.request(struct.pack("<I", size) + bytes(data))
            made.answer(struct.pack("<I", size) + bytes(data))
        self.assertEqual(len(dissect(self.pcap, ["lumo.length"])), 4 * 129)

    def test_other_ports_and_byte_order(self):
        made = self.conversation(port=5999)
        made.request(message(order=">"))
        self.assertEqual(dissect(self.pcap, ["lumo.length"]), [])
        big = ["-o", "lumo.big_endian:TRUE"]
        for port in (["-o", "lumo.ports:1060,5999"], ["-d", "tcp.port==5999,lumo"]):
            rows = dissect(self.pcap, ["lumo.task_name", "lumo.trailer.ast_ind", "lumo.request",
                                       "_ws.expert.message"], *big, *port)
            self.assertEqual(rows, [[["77"], ["5"], ["1"], []]])


class RealExchange(Directory):
    """An application, the agent and a stand-in node, as captured on loopback."""

    def setUp(self):
        super().setUp()
        self.exchange_id = str(100000000 + os.getpid())
        self.environment = dict(os.environ, TAVRIN_TMP=self.folder)
        self.environment.pop("DBC_LOG", None)

    def start(self, *command, **options):
        process = subprocess.Popen(command, env=self.environment, **options)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.terminate()
        process.communicate(timeout=PATIENCE)

    def control(self, *arguments):
        process = self.start(f"{BUILD}/tools/lumoctl/lumoctl", "-M", self.exchange_id,
                             "--timeout", str(PATIENCE), *arguments,
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        rows, _ = process.communicate(timeout=PATIENCE + 10)
        return process.pid, rows, process.returncode

    def wait_for(self, condition, what):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end, what)
            time.sleep(0.02)

    def start_node(self):
        node = self.start(f"{BUILD}/tools/lumo_node/lumo_node", "--listen", "0", "--delay", "150",
                          "--log", f"{self.folder}/node.log", stdout=subprocess.PIPE, text=True)
        return int(node.stdout.readline().rsplit(":", 1)[1])

    def start_agent(self, port):
        with open(f"{self.folder}/nodetab", "w", encoding="ascii") as table:
            table.write(f"SRV1 TCPIP 127.0.0.1 {port} 3 60 10\n")
        agent = self.start(f"{BUILD}/lumo_tcp", f"-NODETAB={self.folder}/nodetab",
                           f"-M={self.exchange_id}", "-NODAEMON", stdout=subprocess.DEVNULL)
        self.wait_for(lambda: self.control("path")[2] == 0, "the agent answers")
        return agent

    def node_log(self):
        with open(f"{self.folder}/node.log", encoding="utf-8") as log:
            return log.read()

    def test_real_exchange(self):
        port = self.start_node()
        agent = self.start_agent(port)
        capture = Loopback(self.pcap, port)
        try:
            sql = ["select 10", "select 'two' union select 3"]
            task, rows, status = self.control("query", "-n", "srv1", *sql)
            self.assertEqual((rows, status), ("10\n3\ntwo\n", 0))

            def told():  # a tick of the agent, which then looks for clients that have died
                agent.send_signal(signal.SIGALRM)
                return f"CKIL pid {task}" in self.node_log()

            self.wait_for(told, "the client's death is told to the node")
        finally:
            capture.stop()

        names = ["lumo.request", "lumo.control.receive_timeout", "lumo.control.send_timeout",
                 "lumo.control.dead_pid", "lumo.node", "lumo.task_name", "lumo.trailer.ast_ind",
                 "lumo.string1", "lumo.string4", "lumo.response_time", "_ws.expert.message"]
        packets = dissect(self.pcap, names, "-2", "-o", f"lumo.ports:{port}")
        got = {name: [value for packet in packets for value in packet[i]]
               for i, name in enumerate(names)}
        self.assertEqual(got["lumo.control.receive_timeout"], ["3"])
        self.assertEqual(got["lumo.control.send_timeout"], ["60"])
        self.assertEqual(got["lumo.control.dead_pid"], [str(task)])
        self.assertEqual(got["lumo.string1"], sql)
        self.assertEqual(got["lumo.string4"], ["10", "3\\ntwo"])
        self.assertEqual(set(got["lumo.node"]), {"srv1"})
        self.assertEqual(set(got["lumo.task_name"]), {str(task)})
        first, second = got["lumo.trailer.ast_ind"][0], got["lumo.trailer.ast_ind"][-1]
        self.assertNotEqual(first, second)
        self.assertEqual(got["lumo.trailer.ast_ind"], [first, first, second, second])
        self.assertEqual(len(got["lumo.response_time"]), 2)
        for seconds in got["lumo.response_time"]:
            self.assertGreaterEqual(float(seconds), 0.145)
            self.assertLess(float(seconds), PATIENCE)
        self.assertEqual(got["_ws.expert.message"], [])


if __name__ == "__main__":
    BUILD = os.path.abspath(sys.argv.pop(1))
    unittest.main()
