"""Connections of an event loop: nothing here waits outside of it."""

import asyncio
import ctypes
from typing import Dict, Optional, Tuple, Union

from lumo._connection import USUAL, Connection, Request, _request
from lumo._ends import Advice, Answer, Reason, Status, Unsure, fail
from lumo._library import library


class AsyncConnection:
    """A connection to the agent for the tasks of one event loop, any number of which may ask at the
    same time. An asynchronous context manager, or open() and close()."""

    def __init__(self, path: Optional[str] = None, timeout: Optional[float] = USUAL):
        """As Connection, but it connects when it is opened."""
        self._path, self._timeout = path, timeout
        self._connection: Optional[Connection] = None
        self._waiting: Dict[int, "asyncio.Future[Answer]"] = {}
        self._watched = -1  # the descriptor that the loop waits for
        self._room: "Optional[asyncio.Future[None]]" = None  # until the agent takes more
        self._connecting = asyncio.Lock()

    async def open(self) -> None:
        """Connects. Raises NoAgent, Timeout, Error."""
        loop = asyncio.get_running_loop()
        self._connection = await loop.run_in_executor(None, Connection, self._path, self._timeout)

    def close(self) -> None:
        """Closes the connection. Requests in flight end as Unsure."""
        self._unwatch()
        connection, self._connection = self._connection, None
        if connection is not None:
            connection.close()
        for future in self._waiting.values():
            if not future.done():
                future.set_exception(_unsure(Reason.CONNECTION_LOST))
        self._waiting.clear()
        self._has_room()

    async def __aenter__(self) -> "AsyncConnection":
        await self.open()
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()

    @property
    def connection(self) -> Connection:
        """What lies beneath, for management commands; its calls wait, but for the agent alone."""
        if self._connection is None:
            raise ValueError("the connection is not open")
        return self._connection

    async def ask(self, node: Union[str, Request], text: Union[str, bytes] = "",
                  timeout: Optional[float] = USUAL) -> Answer:
        """As Connection.ask(). A task that is cancelled gives its request up."""
        end = None if timeout is None else asyncio.get_running_loop().time() + timeout
        ticket, future = await self._send(_request(node, text), end)
        try:
            answer = await asyncio.wait_for(future, _left(end))
        except asyncio.TimeoutError:
            raise _unsure(Reason.DEADLINE) from None
        finally:
            # When its answer is there, it is in flight no longer.
            if self._waiting.pop(ticket, None) is not None and self._connection is not None:
                library.abandon(self._connection.raw, ticket)
        if answer.status != Status.OK:
            fail(answer.status, answer)
        return answer

    async def _send(self, request: Request,
                    end: Optional[float]) -> "Tuple[int, asyncio.Future[Answer]]":
        loop = asyncio.get_running_loop()
        raw, ticket, future = request.raw(), ctypes.c_uint64(), loop.create_future()
        while True:
            await self._connect(end)
            # The library may close the descriptor, and get its number again for a new connection.
            self._unwatch()
            status = library.send(self.connection.raw, raw, 0, ctypes.byref(ticket))
            if status == Status.OK:
                self._waiting[ticket.value] = future
            full = status == Status.TIMEOUT and self.connection.fileno() >= 0
            if full and self._room is None:
                self._room = loop.create_future()
            self._deliver()
            if status == Status.OK:
                return ticket.value, future
            if status != Status.TIMEOUT or _left(end) == 0:
                fail(status)
            if full and self._room is not None:
                await asyncio.wait([self._room], timeout=_left(end))

    async def _connect(self, end: Optional[float]) -> None:
        """In another thread, because it waits for the agent's greeting."""
        async with self._connecting:
            if self.connection.fileno() < 0:
                self._unwatch()
                loop = asyncio.get_running_loop()
                await loop.run_in_executor(None, self.connection.reconnect, _left(end))

    def _deliver(self) -> None:
        """Hands out what has ended, then waits for more if there is any to come."""
        if self._connection is None:
            return
        while (ended := self._connection.take_ended()) is not None:
            future = self._waiting.pop(ended[0], None)
            if future is not None and not future.done():
                future.set_result(ended[1])
        self._unwatch()
        self._watch(self._connection.fileno())

    def _watch(self, descriptor: int) -> None:
        if descriptor < 0:
            self._has_room()  # whoever waits for it has to connect first
            return
        loop = asyncio.get_running_loop()
        self._watched = descriptor
        if self._waiting:
            loop.add_reader(descriptor, self._deliver)
        if self._room is not None:
            loop.add_writer(descriptor, self._has_room)

    def _unwatch(self) -> None:
        if self._watched >= 0:
            loop = asyncio.get_running_loop()
            loop.remove_reader(self._watched)
            loop.remove_writer(self._watched)
        self._watched = -1

    def _has_room(self) -> None:
        room, self._room = self._room, None
        if room is not None and not room.done():
            room.set_result(None)
        if room is not None and self._watched >= 0:
            asyncio.get_running_loop().remove_writer(self._watched)


def _left(end: Optional[float]) -> Optional[float]:
    if end is None:
        return None
    return max(end - asyncio.get_running_loop().time(), 0)


def _unsure(reason: Reason) -> Unsure:
    words = library.reason_text(reason).decode()
    return Unsure(Status.UNSURE, words, Answer(
        Status.UNSURE, 0, 0, words, reason, Advice.UNSURE, False, (b"", b"", b"", b""), 0, 0))
