"""Connections of one thread or several."""

import ctypes
from dataclasses import dataclass
from typing import Any, List, Optional, Sequence, Tuple, Union

from lumo._ends import Answer, Refused, Result, Status, fail, take_answer, text_of
from lumo._library import NODE_NAME_SIZE, Bytes, NodeFields, RequestFields, library

USUAL = 5.0  # seconds
_LONGEST = 2**31 - 1
_PATH_SIZE = 260


def milliseconds(timeout: Optional[float]) -> int:
    if timeout is None:
        return -1
    return int(min(max(timeout, 0) * 1000, _LONGEST))


def _bytes(text: Union[str, bytes]) -> bytes:
    return text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)


@dataclass
class Request:
    """What a request carries beside its statement: the fields of lumo_request."""
    node: str = ""  # empty: the default node
    text: Union[str, bytes] = ""
    command: str = ""
    strings: Sequence[Union[str, bytes]] = ()  # the second to the fourth counted string
    row_id: int = 0
    row_count: int = 0
    prz_exe: int = 0
    prior: int = 0
    num_chan: int = 0
    ln_buf_row: int = 0
    dbc_api_code: int = 0
    spare: bytes = bytes(4)
    trailer: bytes = bytes(48)

    def raw(self) -> RequestFields:
        """The library's form, which keeps the texts alive."""
        strings = [_bytes(string) for string in (self.text, *self.strings)]
        if len(strings) > 4:
            raise ValueError("a request has four strings")
        strings += [b""] * (4 - len(strings))
        raw = RequestFields(ctypes.sizeof(RequestFields), _bytes(self.node), _bytes(self.command))
        for field, string in zip(raw.strings, strings):
            field.data, field.size = string, len(string)
        for name in ("row_id", "row_count", "prz_exe", "prior", "num_chan", "ln_buf_row",
                     "dbc_api_code"):
            setattr(raw, name, getattr(self, name))
        raw.spare[:], raw.trailer[:] = self.spare, self.trailer
        return raw


@dataclass(frozen=True)
class Node:
    """A node as the agent describes it. Address, port and time-outs are those of TCPIP only."""
    name: str
    protocol: str
    address: str
    port: int
    receive_timeout: int  # seconds
    send_timeout: int
    connect_timeout: int


def _node(fields: NodeFields) -> Node:
    return Node(fields.name.decode(), text_of(library.protocol_name(fields.protocol)),
                fields.address.decode(), fields.port if fields.address else 0,
                fields.receive_timeout, fields.send_timeout, fields.connect_timeout)


def socket_path(exchange_id: int = 0) -> str:
    """The path of an agent's socket; 0: the one of the environment."""
    path = ctypes.create_string_buffer(_PATH_SIZE)
    status = library.socket_path(exchange_id, path, _PATH_SIZE)
    if status != Status.OK:
        fail(status)
    return path.value.decode()


class Connection:
    """A connection to the agent. It is made at once and, as a context manager, closed at the end;
    requests in flight are given up then."""

    def __init__(self, path: Optional[str] = None, timeout: Optional[float] = USUAL):
        """`path`: of the agent's socket; None: socket_path(). Raises NoAgent, Timeout, Error."""
        self._raw: Optional[ctypes.c_void_p] = None
        raw = ctypes.c_void_p()
        status = library.open(_bytes(path) if path else None, milliseconds(timeout),
                              ctypes.byref(raw))
        if status != Status.OK:
            fail(status)
        self._raw = raw

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        """Nobody else may be using the connection. A second time it does nothing."""
        raw, self._raw = self._raw, None
        if raw is not None:
            library.close(raw)

    @property
    def raw(self) -> ctypes.c_void_p:
        """The library's lumo_connection, for calls that are not here."""
        if self._raw is None:
            raise ValueError("the connection is closed")
        return self._raw

    @property
    def agent_pid(self) -> int:
        """Process id of the agent, from the latest greeting."""
        return int(library.agent_pid(self.raw))

    @property
    def path(self) -> str:
        """Path of the agent's socket."""
        return text_of(library.connection_path(self.raw))

    @property
    def in_flight(self) -> int:
        """Number of requests that were sent and have not been received or abandoned."""
        return int(library.in_flight(self.raw))

    def fileno(self) -> int:
        """The descriptor to wait for in an event loop, as lumo_descriptor; -1 without one."""
        return int(library.descriptor(self.raw))

    def reconnect(self, timeout: Optional[float] = USUAL) -> None:
        """Makes a connection again that is known to be lost, as every call that sends does."""
        status = library.reconnect(self.raw, milliseconds(timeout))
        if status != Status.OK:
            fail(status)

    # Requests. `node`: a name, or a Request that says everything; "" is the default node.

    def ask(self, node: Union[str, Request], text: Union[str, bytes] = "",
            timeout: Optional[float] = USUAL) -> Answer:
        """Sends a statement and waits for its answer. Raises Refused, AgentError, Unsure (also when
        the time is over after it was sent); when nothing was sent NoAgent, Timeout, Error."""
        request = _request(node, text).raw()
        raw = ctypes.c_void_p()
        status = library.ask(self.raw, request, milliseconds(timeout), ctypes.byref(raw))
        return _end(status, raw)

    def send(self, node: Union[str, Request], text: Union[str, bytes] = "",
             timeout: Optional[float] = USUAL) -> int:
        """Sends without waiting for the answer and returns the ticket of the request, which has to
        be brought to its end with receive(), receive_any() or abandon()."""
        request = _request(node, text).raw()
        ticket = ctypes.c_uint64()
        status = library.send(self.raw, request, milliseconds(timeout), ctypes.byref(ticket))
        if status != Status.OK:
            fail(status)
        return ticket.value

    def receive(self, ticket: int, timeout: Optional[float] = USUAL) -> Answer:
        """Waits for the end of a request. After Timeout it is still in flight."""
        raw = ctypes.c_void_p()
        status = library.receive(self.raw, ticket, milliseconds(timeout), ctypes.byref(raw))
        return _end(status, raw)

    def receive_any(self, timeout: Optional[float] = USUAL) -> Optional[Tuple[int, Answer]]:
        """Waits for the end of any request that nobody else waits for; None when none is in flight.
        The answer's status says how it ended: nothing is raised for it."""
        status, ticket, answer = self._any(timeout)
        if answer is not None:
            return ticket, answer
        if status == Status.NOTHING_SENT:
            return None
        fail(status)

    def take_ended(self) -> Optional[Tuple[int, Answer]]:
        """As receive_any(0), but None also when none has ended: for event loops."""
        status, ticket, answer = self._any(0)
        if answer is not None:
            return ticket, answer
        if status in (Status.NOTHING_SENT, Status.TIMEOUT):
            return None
        fail(status)

    def _any(self, timeout: Optional[float]) -> Tuple[int, int, Optional[Answer]]:
        ticket, raw = ctypes.c_uint64(), ctypes.c_void_p()
        status = library.receive_any(self.raw, milliseconds(timeout), ctypes.byref(ticket),
                                     ctypes.byref(raw))
        return status, ticket.value, take_answer(raw)

    def abandon(self, ticket: int) -> None:
        """Gives a request up: its answer will be dropped. The node is not told."""
        status = library.abandon(self.raw, ticket)
        if status != Status.OK:
            fail(status)

    # Management commands, see lumo-protocol(7). They change the agent's memory, never its file.
    # A negative result is Refused with the number in `result`.

    def manage(self, command: int, argument: int = 0, text: Union[str, bytes] = b"",
               timeout: Optional[float] = USUAL) -> Tuple[int, Answer]:
        """Any command by its number: what the agent answered, and the answer. The text goes out as
        it is, its closing NUL to be given."""
        data, result, raw = _bytes(text), ctypes.c_int32(), ctypes.c_void_p()
        status = library.manage(self.raw, command, argument, Bytes(data, len(data)),
                                milliseconds(timeout), ctypes.byref(result), ctypes.byref(raw))
        return result.value, _end(status, raw)

    def nodes(self, timeout: Optional[float] = USUAL) -> List[Node]:
        """All nodes in their order."""
        found, fields = [], NodeFields()
        for index in range(self._call(library.count_nodes, timeout)):
            self._call(library.get_node_at, timeout, [index], [ctypes.byref(fields)])
            found.append(_node(fields))
        return found

    def node(self, name: str, timeout: Optional[float] = USUAL) -> Node:
        """The node of that name."""
        fields = NodeFields()
        self._call(library.get_node, timeout, [_bytes(name)], [ctypes.byref(fields)])
        return _node(fields)

    def default_name(self, timeout: Optional[float] = USUAL) -> str:
        """The name of the default node."""
        name = ctypes.create_string_buffer(NODE_NAME_SIZE)
        self._call(library.default_name, timeout, [], [name])
        return name.value.decode()

    def set_default(self, index: int, timeout: Optional[float] = USUAL) -> None:
        """Makes the node with this number the default."""
        self._call(library.set_default, timeout, [index])

    def nodetab_path(self, timeout: Optional[float] = USUAL) -> str:
        """The path of the node table file."""
        path = ctypes.create_string_buffer(_PATH_SIZE)
        self._call(library.nodetab_path, timeout, [], [path, _PATH_SIZE])
        return path.value.decode()

    def lock_nodetab(self, owner: int, timeout: Optional[float] = USUAL) -> None:
        """Takes the lock on the node table for this owner, a number."""
        self._call(library.lock_nodetab, timeout, [owner])

    def unlock_nodetab(self, owner: int, timeout: Optional[float] = USUAL) -> None:
        """Gives the lock back."""
        self._call(library.unlock_nodetab, timeout, [owner])

    def add_node(self, line: str, timeout: Optional[float] = USUAL) -> None:
        """Adds the node of a node table line."""
        self._call(library.add_node, timeout, [_bytes(line)])

    def set_node(self, name: str, line: str, timeout: Optional[float] = USUAL) -> None:
        """Gives a node a new definition; while its link is up, it waits until the link goes."""
        self._call(library.set_node, timeout, [_bytes(name), _bytes(line)])

    def delete_node(self, name: str, timeout: Optional[float] = USUAL) -> bool:
        """Deletes a node: True when it has gone, False when it goes with its link."""
        return self._call(library.delete_node, timeout, [_bytes(name)]) != Result.PENDING

    def _call(self, function: Any, timeout: Optional[float], arguments: Sequence[Any] = (),
              outputs: Sequence[Any] = ()) -> int:
        result = ctypes.c_int32()
        status = function(self.raw, *arguments, milliseconds(timeout), *outputs,
                          ctypes.byref(result))
        if status == Status.REFUSED:
            refusal = Refused(Status.REFUSED, text_of(library.result_text(result.value)))
            refusal.result = result.value
            raise refusal
        if status != Status.OK:
            fail(status)
        return result.value


def _request(node: Union[str, Request], text: Union[str, bytes]) -> Request:
    return node if isinstance(node, Request) else Request(node, text)


def _end(status: int, raw: ctypes.c_void_p) -> Answer:
    answer = take_answer(raw)
    if status != Status.OK or answer is None:
        fail(status, answer)
    return answer
