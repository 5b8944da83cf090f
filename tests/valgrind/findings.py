#!/usr/bin/env python3
"""What valgrind has found, from the logs of a run: findings.py agent|library DIRECTORY

The status is 1 when there is anything that should not be. Descriptors that are open at the end are
told by the function that opened them; those that an agent leaves to the system are in LEFT, with how
many of them a process may leave.
"""
import collections
import pathlib
import re
import sys

# What is told of every process, or only sums up what is looked at block by block.
IDLE = re.compile(r"Memcheck, |HEAP SUMMARY:|LEAK SUMMARY:|All heap blocks were freed|ERROR SUMMARY:"
                  r"|For (lists of|counts of)|Reachable blocks|Use --track-origins"
                  # An agent closes whatever it may have inherited, beyond its limit, too.
                  r"|Warning: invalid file descriptor"
                  r"|Process terminating with default action of signal (2|15) ")
LOST = re.compile(r".* are (definitely|indirectly|possibly) lost")

LEFT = {
    "CreateSocket": 1,                # the listener
    "OpenReserve": 1,                 # for a connection too many
    "AcceptNewClientConnection": 1019,  # the clients of the test
    "OpenRepeatedly": 1,              # the node table of the latest command for its path
    "OpenChannels": 2,                # a reader's own ends
    "Detach": 1,                      # the word to the starting process, in a start that fails
    "OpenPipe": 1,                    # of -PING, which ends in the middle of things
    "ConnectToKernel": 1,             # likewise
}


def blocks(text):
    """The paragraphs of a log; an agent without standard error may write into it, too."""
    lines = [line for line in re.findall(r"(?m)^==\d+== ?(.*)", text)
             if not line.startswith("FILE DESCRIPTORS:")]
    return [block for block in map(str.strip, re.split(r"\n\n+", "\n".join(lines))) if block]


def opened_by(block):
    """The first function of our own in the stack of an open descriptor."""
    found = re.search(r"by 0x[0-9A-F]+: (.*) \(\w+\.cpp:\d+\)", block)
    return re.sub(r"\(anonymous namespace\)::|lumo::detail::|\(.*", "", found[1]) if found else block


def is_fork(text, logs):
    """A test's child that has not become another program."""
    head = re.search(r"Command: (.*)\n.*Parent PID: (\d+)", text)
    return bool(head) and f"Command: {head[1]}\n" in logs.get(head[2], "")


def look(part, text, logs, left):
    """What is wrong with one process; counts what it has left open."""
    found, opened = [], collections.Counter()
    # A child of a test has of its parent's threads only what they have left behind.
    bystander = part == "library" and is_fork(text, logs)
    for block in blocks(text):
        if block.startswith("Open "):
            if "<inherited from parent>" not in block and not bystander:
                opened[opened_by(block)] += 1
        elif not IDLE.match(block) and not (bystander and LOST.match(block)):
            found.append(block)
    for place, count in opened.items():
        left[place].append(count)
        if part != "agent" or count > LEFT.get(place, 0):
            found.append(f"{count} descriptors of {place} are open at the end")
    return found


def main(part, directory):
    left = collections.defaultdict(list)
    logs = {path.name: path.read_text(errors="replace") for path in pathlib.Path(directory).iterdir()}
    wrong = [(name, found) for name, text in sorted(logs.items())
             for found in look(part, text, logs, left)]
    for name, found in wrong:
        print(f"{directory}/{name}:\n{found}\n")
    for place, counts in sorted(left.items()):
        print(f"{place}: open at the end of {len(counts)} processes, {max(counts)} at most")
    ended = sum("ERROR SUMMARY:" in text for text in logs.values())
    print(f"{part}: {len(logs)} processes, {len(logs) - ended} of them killed or another program; "
          f"{len(wrong)} findings")
    return 1 if wrong or not ended else 0


sys.exit(main(*sys.argv[1:]))
