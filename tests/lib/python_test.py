#!/usr/bin/env python3
"""The Python module against the real agent: python_test.py ROOT AGENT NODE [TEST...]"""

import asyncio
import ctypes
import os
import pydoc
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

ROOT, AGENT, NODE = Path(sys.argv[1]), sys.argv[2], sys.argv[3]
sys.path[:0] = [str(ROOT / "lib/python"), str(ROOT / "tests/man")]

import lumo  # noqa: E402
import sources  # noqa: E402
from lumo import _library  # noqa: E402

HEADER = ROOT / "lib/include/lumo.h"
PATIENCE = 60.0


def wait_for(condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("waited in vain")
        time.sleep(0.005)


def lives(pid):
    try:
        state = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):  # it may end while it is read
        return False
    return state not in "ZX"


class Node:
    """A stand-in node."""

    def __init__(self, folder, *options):
        self.output = Path(folder) / f"node{time.monotonic_ns()}"
        with open(self.output, "w") as out:
            self.process = subprocess.Popen(
                [NODE, "--listen", "0", "--log", f"{self.output}.log", *options], stdout=out,
                env=environment(TAVRIN_TMP=str(folder)))
        wait_for(lambda: "listening" in self.output.read_text())
        self.port = re.search(r":(\d+)", self.output.read_text()).group(1)

    def line(self, name):
        return f"{name} TCPIP 127.0.0.1 {self.port} 0 0 0\n"

    def log(self):
        return Path(f"{self.output}.log").read_text()

    def stop(self):
        self.process.terminate()
        self.process.wait()


def environment(**more):
    """Of a program that has the sanitizers in itself, if it has them."""
    kept = {name: value for name, value in os.environ.items()
            if name not in ("LD_PRELOAD", "NET_MBX", "TAVRIN_TMP")}
    return kept | more


class Agent:
    """An agent with one node; it can be ended and started again."""

    def __init__(self, folder, table):
        self.folder, self.pid = folder, 0
        self.table = Path(folder) / "nodetab"
        self.table.write_text(table)
        self.path = f"{folder}/tavrin.20562"
        self.start()

    def start(self):
        with open(f"{self.folder}/agent.err", "a") as err:
            subprocess.run([AGENT, f"-NODETAB={self.table}"], check=False, timeout=PATIENCE,
                           stdout=subprocess.DEVNULL, stderr=err,
                           env=environment(TAVRIN_TMP=str(self.folder)))

        with lumo.Connection(self.path, PATIENCE) as connection:
            self.pid = connection.agent_pid

    def stop(self, number=signal.SIGTERM):
        if lives(self.pid):
            os.kill(self.pid, number)
            wait_for(lambda: not lives(self.pid))


class Interface(unittest.TestCase):
    """What the module repeats of the header is what the header says; it documents itself."""

    def test_documentation(self):
        text = pydoc.render_doc(lumo, renderer=pydoc.plaintext)
        for name in lumo.__all__:
            self.assertIn(name, text)
            item = getattr(lumo, name)
            self.assertTrue(item.__doc__, name)
            if isinstance(item, type):
                for part, member in vars(item).items():
                    if callable(member) and not part.startswith("_"):
                        self.assertTrue(member.__doc__, f"{name}.{part}")
        self.assertEqual(lumo.__version__, sources.version(ROOT))

    def test_numbers(self):
        header = sources.constants(HEADER)
        for prefix, enum in (("LUMO_REASON_", lumo.Reason), ("LUMO_ADVICE_", lumo.Advice),
                             ("LUMO_CODE_", lumo.Code), ("LUMO_RESULT_", lumo.Result)):
            named = {name.removeprefix(prefix): number for name, number in header.items()
                     if name.startswith(prefix)}
            self.assertEqual({item.name: int(item) for item in enum}, named)
        for status in lumo.Status:
            self.assertEqual(header[f"LUMO_{status.name}"], status)
        self.assertNotIn("unknown", _library.library.status_text(max(lumo.Status)).decode())
        self.assertIn("unknown", _library.library.status_text(max(lumo.Status) + 1).decode())

    def test_functions(self):
        header = sources.functions(HEADER)
        for name, (_, arguments) in _library._FUNCTIONS.items():
            declared = [argument for argument in header["lumo_" + name][1] if argument != "void"]
            self.assertEqual(len(arguments), len(declared), name)

    def test_layouts(self):
        structures = {"lumo_bytes": _library.Bytes, "lumo_request": _library.RequestFields,
                      "lumo_node": _library.NodeFields}
        program = "#include <lumo.h>\n#include <stdio.h>\n" + "int main(void) {\n"
        expected = []
        for name, layout in structures.items():
            program += f'printf("%zu\\n", sizeof({name}));\n'
            expected.append(ctypes.sizeof(layout))
            for field, *_ in layout._fields_:
                program += f'printf("%zu\\n", offsetof({name}, {field}));\n'
                expected.append(getattr(layout, field).offset)
        with tempfile.TemporaryDirectory() as folder:
            version = Path(folder) / "lumo_version.h"
            version.touch()
            subprocess.run(["cc", f"-I{HEADER.parent}", f"-I{folder}", "-xc", "-", "-o", f"{folder}/layout"],
                           input=program + "}\n", text=True, check=True, env=environment())
            run = subprocess.run([f"{folder}/layout"], capture_output=True, check=True, text=True)
        self.assertEqual([int(number) for number in run.stdout.split()], expected)


class WithAgent(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.node = Node(self.folder, "--sql", "create table t(a); insert into t values (42)")
        self.addCleanup(self.node.stop)
        self.agent = Agent(self.folder, self.node.line("SRV"))
        self.addCleanup(self.agent.stop)


class Requests(WithAgent):
    def setUp(self):
        super().setUp()
        self.lumo = lumo.Connection(self.agent.path, PATIENCE)
        self.addCleanup(self.lumo.close)

    def test_rows(self):
        answer = self.lumo.ask("SRV", "select a from t")
        self.assertEqual((answer.rows, answer.status, answer.code, answer.row_count),
                         ("42", lumo.Status.OK, 0, 1))
        self.assertEqual(self.lumo.ask("", "select 'ä'").strings[3], "ä".encode())
        self.assertEqual(self.lumo.agent_pid, self.agent.pid)
        self.assertEqual(self.lumo.path, self.agent.path)

    def test_a_request_with_all_its_fields(self):
        request = lumo.Request("SRV", b"select 1", "SQL", [b"a\0b"], row_id=-3, prior=7,
                               spare=b"abcd")
        self.assertEqual(self.lumo.ask(request).row_id, -3)
        with self.assertRaises(ValueError):
            self.lumo.ask(lumo.Request(strings=[b""] * 4))

    def test_a_refused_statement(self):
        with self.assertRaises(lumo.Refused) as raised:
            self.lumo.ask("SRV", "nonsense")
        self.assertEqual(str(raised.exception),
                         'the node refused: near "nonsense": syntax error (code 1)')
        self.assertEqual((raised.exception.code, raised.exception.answer.from_agent), (1, False))

    def test_an_error_of_the_agent(self):
        with self.assertRaises(lumo.AgentError) as raised:
            self.lumo.ask("NOBODY", "select 1")
        self.assertEqual(raised.exception.code, lumo.Code.UNKNOWN_NODE)
        self.assertEqual(raised.exception.answer.advice, lumo.Advice.FIX_TABLE)

    def test_no_agent(self):
        self.agent.stop()
        with self.assertRaises(lumo.NoAgent) as raised:
            lumo.Connection(self.agent.path)
        self.assertIsInstance(raised.exception, ConnectionError)
        self.assertGreater(raised.exception.system_error, 0)
        with self.assertRaises(lumo.NoAgent):
            self.lumo.ask("SRV", "select 1")

    def test_tickets(self):
        tickets = [self.lumo.send("SRV", f"select {n}") for n in range(10)]
        self.assertEqual(self.lumo.in_flight, 10)
        for n, ticket in reversed(list(enumerate(tickets))):
            self.assertEqual(self.lumo.receive(ticket).rows, str(n))
        self.assertIsNone(self.lumo.receive_any())
        with self.assertRaises(lumo.Error) as raised:
            self.lumo.receive(tickets[0])
        self.assertEqual(raised.exception.status, lumo.Status.NO_TICKET)

    def test_a_time_that_is_over(self):
        os.kill(self.agent.pid, signal.SIGSTOP)
        ticket = self.lumo.send("SRV", "select 1")
        with self.assertRaises(lumo.Timeout) as raised:
            self.lumo.receive(ticket, 0)
        self.assertIsInstance(raised.exception, TimeoutError)
        with self.assertRaises(lumo.Unsure) as raised:
            self.lumo.ask("SRV", "select 2", 0.01)
        self.assertEqual(raised.exception.reason, lumo.Reason.DEADLINE)
        os.kill(self.agent.pid, signal.SIGCONT)
        self.assertEqual(self.lumo.receive_any(PATIENCE)[1].rows, "1")
        self.lumo.abandon(self.lumo.send("SRV", "select 3"))
        self.assertEqual(self.lumo.in_flight, 0)

    def test_an_agent_that_dies(self):
        os.kill(self.agent.pid, signal.SIGSTOP)
        ticket = self.lumo.send("SRV", "select 1")
        self.agent.stop(signal.SIGKILL)
        with self.assertRaises(lumo.Unsure) as raised:
            self.lumo.receive(ticket)
        self.assertEqual(raised.exception.reason, lumo.Reason.CONNECTION_LOST)
        self.agent.start()
        self.assertEqual(self.lumo.ask("SRV", "select 2", PATIENCE).rows, "2")

    def test_a_closed_connection(self):
        with lumo.Connection(self.agent.path) as connection:
            self.assertGreaterEqual(connection.fileno(), 0)
        connection.close()
        with self.assertRaises(ValueError):
            connection.ask("SRV", "select 1")

    def test_management(self):
        self.assertEqual([node.name for node in self.lumo.nodes()], ["SRV"])
        self.lumo.add_node("SECOND LOCALS 20563")
        self.assertEqual(self.lumo.node("second").protocol, "LOCALS")
        self.lumo.set_default(1)
        self.assertEqual(self.lumo.default_name(), "SECOND")
        self.lumo.set_node("SECOND", "SECOND TCPIP 127.0.0.1 1070 1 2 3")
        self.assertEqual(self.lumo.nodes()[1],
                         lumo.Node("SECOND", "TCPIP", "127.0.0.1", 1070, 1, 2, 3))
        self.assertTrue(self.lumo.delete_node("SECOND"))
        with self.assertRaises(lumo.Refused) as raised:
            self.lumo.delete_node("SECOND")
        self.assertEqual(raised.exception.result, lumo.Result.NO_SUCH_NODE)
        self.assertEqual(self.lumo.nodetab_path(), str(self.agent.table))
        self.lumo.lock_nodetab(7)
        with self.assertRaises(lumo.Refused):
            self.lumo.lock_nodetab(8)
        self.lumo.unlock_nodetab(7)
        self.assertEqual(self.lumo.manage(102)[0], 1)


class Threads(WithAgent):
    """Eight threads on one connection, while the agent is started again and processes fork."""

    THREADS, EACH, FORK_EVERY = 8, 1000, 250

    def test_each_gets_its_own_answers(self):
        connection = lumo.Connection(self.agent.path, PATIENCE)
        self.addCleanup(connection.close)
        done, faults, again, children = [0] * self.THREADS, [], [0], []

        def ask(number):
            while True:
                try:
                    return connection.ask("SRV", f"select {number}", PATIENCE).rows
                except (lumo.Unsure, lumo.NoAgent, lumo.AgentError):
                    again[0] += 1  # between two agents; a question may be repeated

        def fork(number):
            pid = os.fork()
            if pid == 0:
                good = False
                try:
                    good = ask(number) == str(number)
                finally:
                    os._exit(0 if good else 1)
            children.append(pid)

        def work(thread):
            try:
                for i in range(self.EACH):
                    number = thread * self.EACH + i
                    answer = ask(number)
                    if answer != str(number):
                        faults.append((number, answer))
                    if i % self.FORK_EVERY == 0:
                        fork(number)
                    done[thread] = i + 1
            except BaseException as error:  # the test tells
                faults.append((thread, error))

        threads = [threading.Thread(target=work, args=(thread,)) for thread in range(self.THREADS)]
        for thread in threads:
            thread.start()
        for quarter in (1, 2, 3):
            wait_for(lambda: faults or
                     sum(done) >= self.THREADS * self.EACH * quarter // 4)
            self.agent.stop()
            self.agent.start()
        for thread in threads:
            thread.join()
        statuses = [os.waitpid(pid, 0)[1] for pid in children]
        self.assertEqual(faults, [])
        self.assertEqual(done, [self.EACH] * self.THREADS)
        self.assertEqual(statuses, [0] * (self.THREADS * self.EACH // self.FORK_EVERY))
        self.assertEqual(connection.in_flight, 0)


def with_connection(body):
    """A test whose body gets a connection."""
    def test(self):
        async def main():
            async with lumo.AsyncConnection(self.agent.path, PATIENCE) as agent:
                await asyncio.wait_for(body(self, agent), PATIENCE)
        asyncio.run(main())
    return test


class Asyncio(WithAgent):
    @with_connection
    async def test_many_at_once(self, agent):
        answers = await asyncio.gather(*(agent.ask("SRV", f"select {n}", None)
                                         for n in range(500)))
        self.assertEqual([answer.rows for answer in answers], [str(n) for n in range(500)])
        self.assertEqual(agent.connection.in_flight, 0)

    @with_connection
    async def test_a_refused_statement(self, agent):
        with self.assertRaises(lumo.Refused):
            await agent.ask("SRV", "nonsense")
        with self.assertRaises(lumo.AgentError):
            await agent.ask("NOBODY", "select 1")

    @with_connection
    async def test_more_than_the_agent_takes(self, agent):
        os.kill(self.agent.pid, signal.SIGSTOP)
        pad = " " * 7000
        tasks = [asyncio.create_task(agent.ask("SRV", f"select {n}{pad}", None))
                 for n in range(200)]
        while agent._room is None:  # until it takes no more
            await asyncio.sleep(0)
        with self.assertRaises(lumo.Timeout):
            await agent.ask("SRV", "select 1", 0.01)
        os.kill(self.agent.pid, signal.SIGCONT)
        answers = await asyncio.gather(*tasks)
        self.assertEqual([answer.rows for answer in answers], [str(n) for n in range(200)])

    @with_connection
    async def test_time_and_cancellation(self, agent):
        os.kill(self.agent.pid, signal.SIGSTOP)
        with self.assertRaises(lumo.Unsure) as raised:
            await agent.ask("SRV", "select 1", 0.01)
        self.assertEqual(raised.exception.reason, lumo.Reason.DEADLINE)
        task = asyncio.create_task(agent.ask("SRV", "select 2", None))
        while not agent.connection.in_flight:
            await asyncio.sleep(0)
        task.cancel()
        with self.assertRaises(asyncio.CancelledError):
            await task
        self.assertEqual(agent.connection.in_flight, 0)
        os.kill(self.agent.pid, signal.SIGCONT)
        self.assertEqual((await agent.ask("SRV", "select 3", PATIENCE)).rows, "3")

    @with_connection
    async def test_an_agent_that_is_started_again(self, agent):
        os.kill(self.agent.pid, signal.SIGSTOP)
        tasks = [asyncio.create_task(agent.ask("SRV", f"select {n}", None)) for n in range(20)]
        while agent.connection.in_flight < 20:
            await asyncio.sleep(0)
        self.agent.stop(signal.SIGKILL)
        ends = await asyncio.gather(*tasks, return_exceptions=True)
        self.assertEqual({type(end) for end in ends}, {lumo.Unsure})
        with self.assertRaises(lumo.NoAgent):
            await agent.ask("SRV", "select 1")
        self.agent.start()
        answers = await asyncio.gather(*(agent.ask("SRV", f"select {n}", PATIENCE)
                                         for n in range(20)))
        self.assertEqual([answer.rows for answer in answers], [str(n) for n in range(20)])

    @with_connection
    async def test_closing_ends_what_is_in_flight(self, agent):
        os.kill(self.agent.pid, signal.SIGSTOP)
        task = asyncio.create_task(agent.ask("SRV", "select 1", None))
        while not agent.connection.in_flight:
            await asyncio.sleep(0)
        agent.close()
        with self.assertRaises(lumo.Unsure):
            await task
        os.kill(self.agent.pid, signal.SIGCONT)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
