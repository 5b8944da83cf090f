#!/usr/bin/env python3
"""Writes the seed corpora: one ordinary exchange and the odd ones of each kind, for every target.

The files are in the tree, so that nobody needs to run this; run it again after a change of an
input format: tests/fuzz/make_corpus.py
"""
import pathlib
import struct

CORPUS = pathlib.Path(__file__).parent / "corpus"

GREATEST = 8188  # the longest message


def seed(target, name, data):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data.encode() if isinstance(data, str) else data)


def counted(text):
    return struct.pack("<H", len(text)) + text + b"\0" * (len(text) % 2)


def body(task=7, tag=1, node=b"", command=b"", api=0, strings=(), cod_err=0):
    """A message from its task name on."""
    cbl = struct.pack("<iHH4s4s8siiIiHH", cod_err, 0, 0, b"", command, node, 0, 0, 0, 0, 0, api)
    texts = list(strings) + [b""] * (4 - len(strings))
    trailer = struct.pack("<iIIHHH", task, 0, 0, tag, 0, 0).ljust(46, b"\0") + b"\x03\0"
    return struct.pack("<i", task) + cbl + b"".join(counted(t) for t in texts) + trailer


def client(**fields):
    message = body(**fields)
    return struct.pack("<I", len(message) + 4) + message


def packet(**fields):
    message = body(**fields)
    return struct.pack("<I", len(message)) + message


def control(kind, value):
    return struct.pack("<III", 8, kind, value)


WHOLE, TRACED = b"\0", b"\1"


def pieces(size, traced=False):
    return bytes([size << 1 | traced])


def long_text(size):
    return b"t" * size


def client_frames():
    ask = client(node=b"SRV1    ", strings=[b"select 1"])
    seed("client_frame", "request", WHOLE + ask)
    seed("client_frame", "traced", TRACED + ask)
    seed("client_frame", "pieces", pieces(7) + ask * 3)
    seed("client_frame", "bytes", pieces(1) + ask)
    seed("client_frame", "several", WHOLE + ask * 5)
    seed("client_frame", "management", WHOLE + client(command=b"DBCA", api=103))
    seed("client_frame", "odd_strings", WHOLE + client(strings=[b"a", b"bcd", b"", b"e"]))
    seed("client_frame", "greatest", WHOLE + client(strings=[long_text(GREATEST - 108)]))
    seed("client_frame", "too_great", WHOLE + struct.pack("<I", GREATEST + 1) + ask[4:])
    seed("client_frame", "largest_number", WHOLE + b"\xff\xff\xff\xff" + ask[4:])
    for length in (0, 3, 4, 5, 8, 51, 52, 53, 54, 60, 107):
        seed("client_frame", f"length_{length}", WHOLE + struct.pack("<I", length) + ask[4:])
    seed("client_frame", "string_too_long", WHOLE + ask[:52] + b"\xff\xff" + ask[54:])
    for head in range(0xE0, 0x100, 2):
        seed("client_frame", f"failing_{head:x}", bytes([head + (head >> 4 & 1)]) + ask * 2)
        seed("tcp_packet", f"failing_{head:x}", bytes([head]) + packet(strings=[b"row"]) * 2)
        seed("local_frame", f"failing_{head:x}", bytes([head]) + client(strings=[b"row"]) * 2)
    seed("client_frame", "half", WHOLE + ask[:70])


def tcp_packets():
    answer = packet(strings=[b"row"])
    seed("tcp_packet", "answer", WHOLE + answer)
    seed("tcp_packet", "traced", TRACED + answer)
    seed("tcp_packet", "pieces", pieces(11, True) + answer * 2)
    seed("tcp_packet", "stranger", WHOLE + packet(task=99, tag=77))
    seed("tcp_packet", "twice", WHOLE + answer + answer)
    seed("tcp_packet", "all", WHOLE + b"".join(packet(tag=tag) for tag in range(4)))
    seed("tcp_packet", "control", WHOLE + control(0, 3) + control(1, 0) + control(2, 4711) + answer)
    seed("tcp_packet", "control_in_pieces", pieces(5) + control(1, 0x003C5555) + answer)
    seed("tcp_packet", "greatest", WHOLE + packet(strings=[long_text(GREATEST - 104)]))
    seed("tcp_packet", "too_great", WHOLE + struct.pack("<I", GREATEST + 1) + answer[4:])
    for length in (0, 1, 7, 8, 9, 48, 50, 104):
        seed("tcp_packet", f"length_{length}", WHOLE + struct.pack("<I", length) + answer[4:])
    seed("tcp_packet", "string_too_long", WHOLE + answer[:52] + b"\xff\x1f" + answer[54:])
    seed("tcp_packet", "strings_together_too_long", WHOLE + packet(
        strings=[long_text(4000), long_text(4000)])[:52] + b"\xa0\x0f" + b"x" * 4000 + b"\xf0\x1f")


def local_frames():
    answer = client(strings=[b"row"])
    seed("local_frame", "answer", WHOLE + answer)
    seed("local_frame", "traced", TRACED + answer)
    seed("local_frame", "pieces", pieces(13) + answer * 2)
    seed("local_frame", "stranger", WHOLE + client(task=99, tag=77))
    seed("local_frame", "greatest", WHOLE + client(strings=[long_text(8192 - 108)]))
    for length in (0, 3, 4, 5, 52, 8192, 8193):
        seed("local_frame", f"length_{length}", WHOLE + struct.pack("<I", length) + answer[4:])
    seed("local_frame", "string_too_long", WHOLE + answer[:52] + b"\xff\xff" + answer[54:])


def nodetab_lines():
    seed("nodetab_line", "all_protocols", """SRV2
# a comment
; another
SRV1 TCPIP 127.0.0.1 1060 3 60 10
SRV2 LOCAL 17
SRV3 LOCALS -5
SRV4 LOCALI 0x1F
SRV5 TCPIPS 10.0.0.1
SRV6 IPX/SPX x y z
  SRV7\ttcpip\t10.0.0.1 0x424 0 -1 99999999999
SRV8 LOCALI 0
SRV9 LOCALS abc
LONGNAME9 TCPIP 127.0.0.1
SRV8 UNKNOWN 1
SRV10 TCPIP
SRV11 TCPIP no.such.host
SRV12
""")
    seed("nodetab_line", "twice", "\nA TCPIP 1.2.3.4\nB TCPIP 1.2.3.4\nA TCPIP 1.2.3.4\na LOCAL 1\n")
    seed("nodetab_line", "no_end_of_line", "SRV1\nSRV1 TCPIP 1.2.3.4")
    seed("nodetab_line", "no_nodes", "\n#\n;\n\n   \n")
    seed("nodetab_line", "long", "\nA TCPIP " + "1" * 2100 + "\nB LOCALS 7\n")
    seed("nodetab_line", "numbers", "\nA TCPIP 1.2.3.4 0x 08 -0 +7\nB TCPIP 1 65536 0 0 0\n"
         "C LOCALI 2147483648\nD LOCALS -9223372036854775809\nE LOCALI 017\n")
    seed("nodetab_line", "nul", b"A\nA TCPIP\0 1.2.3.4\nB \0LOCALS 1\n\0C LOCALS 2\n")


def options():
    seed("options", "all", "77\n-NODETAB\n/etc/nodetab\n-DEFAULT=SRV1\n-M\n5\n-PKILL 12\n-PCHECK\n"
         "-AUTOCONNECT\n-AUTOCONNECTTIMEOUT=20\n-ERR1001\n-CONNECTONLOAD\n-CONNERROR\n-NODAEMON\n"
         "-PIDFILE\n/run/pid\n")
    seed("options", "short", "\n/N=x\n-S\nSRV\n-K\n-C\n-A\n-G\n-P=\n-U\n")
    seed("options", "marks", "\n--H-E/L-P\n-/-VERSION-\n")
    seed("options", "help", "\n-?\n")
    seed("options", "version", "\n-VERSION\n")
    seed("options", "ping", "-1\n-PING\n-S=SRV1\n")
    seed("options", "last", "99999999999999999999\n-N\n-M\n0\n-PIDFILE")


def reader(*bodies, stalled=3):
    """The queue's messages; the client with the number `stalled` does not read the first one."""
    numbers = [stalled] + [3] * len(bodies)
    return b"".join(struct.pack("<BH", n, len(b)) + b for n, b in zip(numbers, bodies))


def lipc_messages():
    seed("lipc_message", "answers", reader(*(body(tag=tag, strings=[b"row"]) for tag in range(3))))
    seed("lipc_message", "stranger", reader(body(tag=9), body(task=99)))
    seed("lipc_message", "twice", reader(body(tag=0), body(tag=0)))
    seed("lipc_message", "slow_client", reader(body(tag=1), body(tag=2), stalled=1))
    seed("lipc_message", "short", reader(b"", b"\0", body()[:30], body()[:60]))
    seed("lipc_message", "greatest", reader(body(strings=[long_text(8188 - 104)]), body()))
    seed("lipc_message", "string_too_long", reader(body()[:48] + b"\xff\xff" + body()[50:]))


# The steps of pipe_record_fuzz.cpp, by name.
(R_ASK, R_TELL, R_HAND_OVER, R_BYTES, R_PACKET, R_WRITTEN, R_WRITE, R_PIECE, R_GONE, R_FAIL,
 R_SERVE) = range(11)


def pipe_records():
    def steps(name, *parts):
        seed("pipe_record", name, bytes(byte for part in parts for byte in part))

    ask, serve, gone = [R_ASK, 1], [R_SERVE], [R_GONE]
    written, handed, first = [R_WRITTEN, 1], [R_HAND_OVER, 1], [R_TELL, 1, 1, 1]
    steps("direct", ask, written, serve)
    steps("handed", ask, handed, serve)
    steps("several", ask, [R_ASK, 2], [R_ASK, 3], [R_HAND_OVER, 3], [R_WRITTEN, 2], handed, serve * 4)
    steps("delivered_and_gone", ask, [R_WRITE, 1, 0], gone, serve)
    steps("begun_and_gone", ask, [R_WRITE, 1, 1], gone, serve)
    steps("handed_and_gone", ask, [R_ASK, 2], handed, [R_HAND_OVER, 2], gone, serve)
    steps("stranger", ask, [R_HAND_OVER, 9], serve, ask, handed, serve)
    steps("no_such_request", ask, [R_TELL, 1, 200, 1], serve)
    steps("former_request", ask, handed, serve, [R_ASK, 2], first, serve)
    steps("answer_missing", ask, first, serve)
    steps("half", ask, [R_BYTES, 4, 7, 0, 0, 0], serve, [R_BYTES, 4, 1, 0, 0, 0], serve)
    steps("pieces", [R_PIECE, 2], ask, written, serve * 6)
    steps("failing", ask, written, [R_FAIL, 0, 0, 0], serve)
    steps("interrupted", ask, written, [R_FAIL, 0, 1, 0], serve)
    steps("failing_answer", ask, handed, [R_FAIL, 1, 0, 0], serve)
    steps("short_answer", ask, [R_PACKET, 3, 1, 2, 3], first, serve)


def management():
    seed("management", "reading", "\n".join(f"{code} 1 SRV1" for code in range(99, 131)) + "\n")
    seed("management", "editing", "119 0 NEW TCPIP 127.0.0.9 1 2 3\n123 0 NEW\n126 0 SRV1||SRV1 LOCALS"
         " 5\n127 1 SRV2 TCPIP 1.2.3.4\n128 0 SRV1 LOCALI 3\n124 0\n125 0\n102 0\n")
    seed("management", "busy", "c 0\ni 0\n126 0 SRV1||SRV1 LOCALS 5\n123 0 SRV1\nd 0\np\n102 0\nc 2\n"
         "i 2\n123 0 SRV3\nd 1\np\nd 0\n")
    seed("management", "deleting_all", "s 1\nw\n" + "125 0\np\n" * 7 + "119 0 A DECNET x\n103 0\n")
    seed("management", "waiting", "s 0\ns 1\ns 2\nw\n123 0 SRV1\n123 0 SRV2\np\nc 0\nd 0\n125 0\np\n")
    seed("management", "locking", "117 7\n129 8\n117 8\nt 60\n118 8\n129 7\n117 8\nt 59\n129 7\n")
    seed("management", "no_memory", "m\n119 0 A TCPIP 1.2.3.4\nm\n126 0 SRV1||SRV1 TCPIP 1.2.3.4\n")
    seed("management", "redefining_busy", "c 0\n127 0 SRV1 LOCALS 5\n127 0 " + "x" * 320 + "\n"
         "d 0\nc 0\n127 0 SRV1 TCPIP 9.9.9.9\nd 0\n122 0\n121 0\n120 0 srv1\n")


# The steps of agent_fuzz.cpp, by name.
(PASS, TICK, CLIENTS, ASK, ASK_IN_PIECES, SEND_REST, ANY_BYTES, MANAGE, HANG_UP, ROOM, PIECE,
 ANSWER, NODE_BYTES, CONNECTED, PLAN, NODE_GONE, DEATH, FAIL, READER, MORE) = (
     0, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21)
NAMES = ["SRV1", "SRV2", "SRV3", "SRV4", "SRV5", "SRV6", "SRV7", "SRV8", "", "NEW", "NOWHERE",
         "srv1"]
PENDING, AT_ONCE, REFUSED, UNREACHABLE = 0, 1, 2, 3
AUTO_CONNECT, AUTO_CHANGE, ERR_1001, CONN_ERROR, ON_LOAD, RETRY, DEFAULT_2, PING = (
    1, 2, 4, 8, 16, 32, 64, 128)


def ask(client_number, node, pid=0, tag=1):
    return [ASK, client_number, NAMES.index(node) << 2, pid, tag]


def manage(code, number):
    return [MANAGE, 0, code - 100, number]


def connect(node_number=0, good=True):
    return [CONNECTED, node_number, 0 if good else 133]


def run(options, lines, *steps, trace=False, epoll=True):
    head = [options, (0 if trace else 1) | (0 if epoll else 8), len(lines) - 1, *lines]
    return bytes(head + [byte for step in steps for byte in step])


def answer(node=0, request=0, times=0):
    return [ANSWER, node, request, times]


def agent():
    two, go = [3, 1], [PASS]
    start = [*two, PASS]
    up = [start, ask(0, "SRV1"), go, connect(), go]

    def case(name, *arguments, **how):
        seed("agent", name, run(*arguments, **how))

    case("request", 0, [0], *up, go, answer(), go)
    case("traced", 0, [0], *up, go, answer(), go, trace=True)
    case("select", 0, [0], *up, [TICK], answer(), go, epoll=False)
    case("default", 0, [0, 1], start, ask(0, ""), go, connect(), go, answer(), go)
    case("refused", 0, [0], [PLAN, REFUSED], start, ask(0, "SRV1"), go, go)
    case("fails_later", 0, [0], start, ask(0, "SRV1"), go, connect(0, False), go, go)
    case("times_out", 0, [1], start, ask(0, "SRV2"), go, *[[TICK]] * 6)
    case("watchdog", 0, [1], start, ask(0, "SRV2"), go, connect(), go, *[[TICK]] * 9)
    case("circle", AUTO_CONNECT, [0, 1, 2], [PLAN, REFUSED], [PLAN, REFUSED], start, ask(0, ""), go,
         connect(), go, answer(), go)
    case("circle_fails", AUTO_CONNECT | ERR_1001, [0, 1], [PLAN, REFUSED] * 3, start, ask(0, ""),
         go, go)
    case("circle_again", AUTO_CONNECT | RETRY, [0, 1, 6], [PLAN, REFUSED] * 9, start, ask(0, ""),
         ask(1, "SRV1"), go, *[[TICK]] * 5)
    case("change", AUTO_CHANGE, [0, 2], [PLAN, REFUSED], start, ask(0, ""), go, ask(0, ""), go,
         connect(), go)
    case("on_load", ON_LOAD, [0, 1, 2], connect(0), go, connect(1), go, start, ask(0, ""), go,
         answer(), go)
    case("ping", PING, [0], go, connect(), go, answer(), go)
    case("conn_error", CONN_ERROR, [0], start, ask(0, ""), go, ask(1, ""), go)
    case("late_answer", 0, [0], *up, [HANG_UP, 0, 1], go, start, ask(1, "SRV1", 1, 2), go,
         answer(0, 1), go, answer(0, 0, 3), go)
    case("wrong_link", 0, [0, 1], start, ask(0, "SRV1"), ask(1, "SRV2", 1), go, connect(0),
         connect(1), go, answer(1, 1), go, answer(0, 0), go)
    case("node_gone", 0, [0], *up, ask(1, "SRV1"), go, [NODE_GONE, 0, 1], go)
    case("dead_client", 0, [0], *up, [DEATH, 0], answer(), go, [TICK], go)
    case("slow_node", 0, [0], *up, [ROOM, 1, 0, 9], [ASK, 0, 3, *range(50)], go,
         [ASK, 1, 0x33, *range(50)], go, go, [ROOM, 1, 0, 255], go, go)
    case("slow_client", 0, [0], start, [ROOM, 0, 0, 12], ask(0, "SRV1"), go, connect(), go,
         answer(), answer(), go, [ROOM, 0, 0, 255], go)
    case("many_wait", 0, [0], start, [ASK, 0, 3, *range(50)], go, [ASK, 0, 3, *range(50)], go,
         connect(), go, go)
    case("pieces", 0, [0], start, [ASK_IN_PIECES, 0, 1, 2, 0, 3], go, [SEND_REST, 0, 60], go,
         [SEND_REST, 0, 255], go, connect(), go, [PIECE, 1, 0, 9], answer(), go, go)
    case("any_bytes", 0, [0], start, [ANY_BYTES, 0, 8, 8, 0, 0, 0, 1, 2, 3, 4], go, ask(1, "SRV1"),
         go, connect(), go, [NODE_BYTES, 0, 6, 255, 255, 255, 255, 0, 0], go)
    case("editing", 0, [0, 1], start, manage(119, 5), manage(123, 0), manage(102, 0), go,
         ask(1, "SRV2"), go, connect(), go, manage(123, 1), go, [NODE_GONE, 0, 1], go,
         manage(125, 0), go, manage(125, 0), go, ask(0, ""), go)
    case("redefined", AUTO_CONNECT, [0, 1, 2], *up, manage(126, 12), go, ask(0, "SRV1"), go,
         [NODE_GONE, 0, 1], go, ask(1, "SRV1"), go)
    # What closed connections leave waiting: more than a link keeps.
    crowd = [[CLIENTS, 0, PASS, ASK, 0, 3, *[1, 1] * 25, PASS, HANG_UP, 0, 1, PASS]
             for _ in range(42)]
    case("many_gone", 0, [0], *crowd, connect(), go, go)
    # One more asks in the pass in which much goes out that has waited.
    long = 0x33
    case("much_waits", 0, [0], start, [ASK, 0, long, *[1, 1] * 25], go, start, go, connect(),
         ask(2, "SRV1", 2, 2), go, go)
    case("parked_hangs_up", 0, [0], start, [ASK, 0, 3, *[1, 1] * 25], go, [ASK, 0, 3, *[1, 1] * 25],
         go, [HANG_UP, 0, 1], go, [TICK], start, ask(1, "SRV1"), go, connect(), go, go)
    stuck = [*[CLIENTS, 2, PASS], *ask(0, "SRV1"), PASS, *connect(), PASS, PASS, ROOM, 1, 0, 0]
    case("parked_in_a_row", 0, [0], stuck,
         *[[ASK, number, long, *[1, 1] * 25, PASS] for number in range(3)], [HANG_UP, 1, 1], [TICK],
         go, [ROOM, 1, 0, 255], go, go)
    case("just_not_parked", 0, [0], stuck, [ASK, 0, 0x31, *[1, 1] * 9], [ASK, 0, 0x30, 1, 1],
         [ASK, 0, 3, *[1, 1] * 25], [ASK, 0, 1, *[1, 1] * 9], *[[ASK, 0, 0, 1, 1]] * 7, go,
         ask(0, "SRV1"), go, [ROOM, 1, 0, 255], go, go)
    local = [PLAN, AT_ONCE]
    case("local_socket", 0, [3], local, start, ask(0, "SRV4"), go, answer(), go, [NODE_GONE, 0, 1],
         go)
    case("local_queue", 0, [4], start, ask(0, "SRV5"), ask(1, "SRV5", 1), go, [READER, 0, 0, 0], go,
         [READER, 1, 0, 1, 0], go)
    case("reader_delivers_and_dies", 0, [4], start, ask(0, "SRV5"), ask(1, "SRV5", 1), go,
         [READER, 1, 0, 1, 1], [MORE, 0, 0, 0, 2], go, ask(0, "SRV5"), go)
    case("reader_dead", 0, [4], start, ask(0, "SRV5"), go, [MORE, 0, 0, 0, 3], [TICK], go)
    case("failing", 0, [0, 4],
         *[[FAIL, call, call, 0, *start, *ask(0, "SRV1"), PASS, *ask(1, "SRV5"), PASS, *connect(), PASS]
           for call in range(27)])
    case("many_clients", 0, [0], [CLIENTS, 3, PASS] * 5, ask(9, "SRV1"), ask(15, "SRV1", 2), go,
         connect(), go, answer(), answer(0, 1), go, [HANG_UP, 9, 1], [HANG_UP, 3, 0], go)
    case("few_descriptors", 0, [0], [MORE, 1, 7], [CLIENTS, 3, PASS] * 5, ask(0, "SRV1"), go, go)


def main():
    for write in (client_frames, tcp_packets, local_frames, nodetab_lines, options, lipc_messages,
                  pipe_records, management, agent):
        write()


if __name__ == "__main__":
    main()
