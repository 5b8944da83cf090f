"""The rehearsal: rehearse.py BUILD [--compare FILE]"""

import re
import signal
import sys
from concurrent.futures import ThreadPoolExecutor

from stage import BlockedPort, Stage, wait_for

HEADINGS = ("event", "options", "request under way", "next requests", "default in the end")
TOLERANCE = 2.5  # seconds: one tick, and the machine
SLOW = ("--delay", "30000")


def next_requests(stage, application):
    """Those that follow, until a node answers one: what becomes of them, and the default node."""
    ends = []
    while len(ends) < 3 and "answer" not in "".join(ends):
        ends.append(str(application.ask()))
    if len(ends) > 1 and len({end.split(",")[0] for end in ends}) == 1:
        ends = [ends[0] + ", and so on"]
    return "; ".join(ends), stage.default()


def under_way(stage, options, timeouts, event):
    """A request is under way on A when something happens to A."""
    node = stage.node("A", *SLOW)
    stage.node("B")
    stage.agent(options, timeouts)
    application = stage.application()
    application.send()
    wait_for(lambda: stage.requests_of("A") > 0, "the request at the node")
    event(node)
    application.mark()
    first = application.receive()
    return first, *next_requests(stage, application)


def end(node):
    node.kill()
    node.wait()


def node_ends(stage, options):
    return under_way(stage, options, "0 0 0", end)


def node_hangs(stage, options):
    return under_way(stage, options, "0 6 0", lambda node: node.send_signal(signal.SIGSTOP))


def first_request(stage, options, timeouts="0 0 0", node=""):
    stage.agent(options, timeouts)
    application = stage.application()
    first = application.ask(node)
    return first, *next_requests(stage, application)


def node_is_down(stage, options):
    stage.dead_node("A")
    stage.node("B")
    return first_request(stage, options)


def named_node_is_down(stage, options):
    stage.dead_node("A")
    stage.node("B")
    return first_request(stage, options, node="A")


def node_cannot_be_reached(stage, options):
    stage.dead_node("A", BlockedPort)
    stage.node("B")
    return first_request(stage, options, "0 0 4")


def all_are_down(stage, options):
    stage.dead_node("A")
    stage.dead_node("B")
    return first_request(stage, options)


def one_comes_back(stage, options):
    """No node is up; A comes while a request waits."""
    closed = stage.dead_node("A")
    stage.dead_node("B")
    stage.agent(options)
    application = stage.application()
    application.send()
    wait_for(lambda: "Set link  A as default" in (stage.folder / "agent.log").read_text(),
             "the end of the circle")
    closed.end()
    stage.node("A", port=closed.port)
    application.mark()
    first = application.receive()
    return first, *next_requests(stage, application)


def former_default_returns(stage, options):
    """A has ended and is there again: where do requests go?"""
    node = stage.node("A")
    stage.node("B")
    stage.agent(options)
    application = stage.application()
    application.ask()
    end(node)
    while "answer" not in str(application.ask()) and options:
        pass
    stage.node("A", port=stage.ports["A"])
    first = application.ask()
    return first, *next_requests(stage, application)


def node_restarts(stage, options):
    """A ends and is there again before the next request."""
    def restart(node):
        end(node)
        stage.node("A", port=stage.ports["A"])
    return under_way(stage, options, "0 0 0", restart)


def agent_is_told_to_stop(stage, options):
    return agent_ends(stage, options, signal.SIGTERM)


def agent_is_killed(stage, options):
    return agent_ends(stage, options, signal.SIGKILL)


def agent_ends(stage, options, how):
    """The next request goes over a new connection to the next agent."""
    node = stage.node("A", *SLOW)
    agent = stage.agent(options)
    application = stage.application()
    application.send()
    wait_for(lambda: stage.requests_of("A") > 0, "the request at the node")
    agent.send_signal(how)
    application.mark()
    first = application.receive()
    agent.wait()
    end(node)
    stage.node("A", port=stage.ports["A"])
    stage.agent(options)
    return first, *next_requests(stage, stage.application())


CHANGE, CONNECT = "-AUTOCHANGE", "-AUTOCONNECT"
SCENES = [
    ("the default node's process ends", node_ends, ("", CHANGE, CONNECT)),
    ("the default node's process is replaced", node_restarts, ("", CHANGE, CONNECT)),
    ("the default node hangs (send time-out 6)", node_hangs, ("", CHANGE, CONNECT)),
    ("the default node does not listen", node_is_down, ("", CHANGE, CONNECT)),
    ("as before, the request names it", named_node_is_down, ("", CHANGE, CONNECT)),
    ("the default node's host is silent (connect time-out 4)", node_cannot_be_reached,
     ("", CHANGE, CONNECT, "-CONNERROR")),
    ("no node listens", all_are_down,
     ("", CHANGE, CONNECT, CONNECT + " -ERR1001", CONNECT + " -AUTOCONNECTTIMEOUT 8")),
    ("no node listens, then the first one does", one_comes_back,
     (CONNECT + " -AUTOCONNECTTIMEOUT 20",)),
    ("the node that was the default is there again", former_default_returns,
     ("", CHANGE, CONNECT)),
    ("the agent is told to stop", agent_is_told_to_stop, ("",)),
    ("the agent is killed", agent_is_killed, ("",)),
]


def play(build, event, scene, options):
    with Stage(build) as stage:
        try:
            first, following, default = scene(stage, options.split())
        except Exception as error:  # one scene that fails must not hide the others
            return (event, options or "none", f"FAILED: {error!r}", "", "")
        return (event, options or "none", str(first), following, default)


def rows_of(text):
    """The rows of the table in a document, by event and options."""
    rows = [tuple(cell.strip() for cell in line.strip("| \n").split("|"))
            for line in text.splitlines() if line.startswith("| ")]
    return {row[:2]: row for row in rows if len(row) == len(HEADINGS)}


def alike(measured, written):
    """Equal, but for seconds that differ by less than the tolerance."""
    number = r"(\d+\.\d) s"
    if re.sub(number, "", measured) != re.sub(number, "", written):
        return False
    pairs = zip(re.findall(number, measured), re.findall(number, written))
    return all(abs(float(one) - float(other)) <= TOLERANCE for one, other in pairs)


def main():
    build = sys.argv[1]
    plays = [(event, scene, options) for event, scene, modes in SCENES for options in modes]
    with ThreadPoolExecutor(max_workers=6) as pool:
        rows = list(pool.map(lambda play_of: play(build, *play_of), plays))
    print("| " + " | ".join(HEADINGS) + " |\n" + "|---" * len(HEADINGS) + "|")
    for row in rows:
        print("| " + " | ".join(row) + " |")
    bad = [row for row in rows if row[2].startswith("FAILED")]
    if "--compare" in sys.argv:
        with open(sys.argv[sys.argv.index("--compare") + 1], encoding="utf-8") as document:
            written = rows_of(document.read())
        for row in rows:
            other = written.get(row[:2], ("",) * len(HEADINGS))
            if not all(alike(*pair) for pair in zip(row, other)):
                bad.append(row)
                print(f"differs from the document: {row} {other}", file=sys.stderr)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
