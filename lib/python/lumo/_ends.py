"""How calls end: numbers, answers, exceptions."""

import ctypes
from dataclasses import dataclass
from enum import IntEnum
from typing import NoReturn, Optional, Tuple, Type

from lumo._library import library


class Status(IntEnum):
    """What a call of the library ended with: lumo_status."""
    OK = 0
    ERROR = 1
    UNSURE = 2
    REFUSED = 3
    TIMEOUT = 4
    NO_AGENT = 5
    BAD_GREETING = 6
    BAD_ARGUMENT = 7
    TOO_LONG = 8
    NO_TAG = 9
    NO_TICKET = 10
    NOTHING_SENT = 11
    FORKED = 12
    NO_MEMORY = 13
    SYSTEM = 14
    BAD_ANSWER = 15


class Reason(IntEnum):
    """Why a request ended as Unsure: lumo_reason."""
    NONE = 0
    CONNECTION_LOST = 1
    AGENT_STOPPED = 2
    DEADLINE = 3
    BAD_ANSWER = 4
    NO_MEMORY = 5


class Advice(IntEnum):
    """What to do about an error of the agent: lumo_advice."""
    NONE = 0
    RETRY = 1
    FIX_TABLE = 2
    UNSURE = 3
    ASK_PERMISSION = 4


class Code(IntEnum):
    """The agent's own codes, of AgentError: lumo_code."""
    LOCAL_SOCKET = -1
    SUCCESS = 0
    CIRCLE_FAILED = 1001
    SOCKET = 4001
    OPTION = 4002
    BAD_DESCRIPTOR = 4005
    CONNECT = 4006
    SEND = 4007
    RECEIVE = 4008
    PEER_CLOSED = 4009
    UNKNOWN_NODE = 4050
    DESCRIPTOR = 4052
    READER_GONE = 4053
    CONNECT_TIMEOUT = 4058
    RECEIVE_TIMEOUT = 4065
    UNSUPPORTED = 4066
    SECURE_REFUSED = 4156
    NOT_RECORDED = 4200
    NOT_PERMITTED = 4201


class Result(IntEnum):
    """What the agent answers to a management command: lumo_result."""
    DONE = 0
    NOT_ADDED = 1
    PATH_TOO_LONG = 3
    HELD_BY_CALLER = 4
    HELD_BY_OTHER = 5
    NO_SUCH_NODE = 17
    PENDING = 33
    NO_NODETAB = 129


TEXT, ROWS = 0, 3  # lumo_string


@dataclass(frozen=True)
class Answer:
    """The end of a request."""
    status: Status
    code: int  # 0, a code of the agent (Code), or one of the node's own
    system_error: int  # the system's error number that goes with it, or 0
    words: str  # how it ended
    reason: Reason
    advice: Advice
    from_agent: bool  # else from the node
    strings: Tuple[bytes, bytes, bytes, bytes]
    row_id: int
    row_count: int

    @property
    def rows(self) -> str:
        """The rows as text (UTF-8; bytes that are none as surrogate escapes)."""
        return self.strings[ROWS].decode("utf-8", "surrogateescape")


class Error(Exception):
    """A call did not do what it should. `status` says what happened; `answer` is there when the
    request was sent and has ended."""

    def __init__(self, status: Status, words: str, answer: Optional[Answer] = None,
                 system_error: int = 0):
        super().__init__(words)
        self.status = status
        self.answer = answer
        self.system_error = answer.system_error if answer else system_error  # as errno, or 0

    @property
    def code(self) -> int:
        """The code of the answer; 0 without one."""
        return self.answer.code if self.answer else 0


class Refused(Error):
    """The node answered with a code that is not 0, or the agent said no to a command."""

    result: Optional[int] = None  # of a management command: Result, or another number


class AgentError(Error):
    """The agent answered with an error: `code` is one of Code, `answer.advice` what to do."""


class Unsure(Error):
    """The node may have carried the request out, or not: `reason` tells why it is not known."""

    @property
    def reason(self) -> Reason:
        return self.answer.reason if self.answer else Reason.NONE


class NoAgent(Error, ConnectionError):
    """No agent answers at the socket, or what answers is none. Nothing was sent."""


class Timeout(Error, TimeoutError):
    """The time is over and nothing was sent; of receive(): the request is still in flight."""


_ERRORS: "dict[Status, Type[Error]]" = {
    Status.ERROR: AgentError, Status.UNSURE: Unsure, Status.REFUSED: Refused,
    Status.NO_AGENT: NoAgent, Status.BAD_GREETING: NoAgent, Status.TIMEOUT: Timeout}


def text_of(words: Optional[bytes]) -> str:
    return (words or b"").decode("utf-8", "replace")


def take_answer(raw: ctypes.c_void_p) -> Optional[Answer]:
    """The answer in Python's own memory; the library's is freed."""
    if not raw:
        return None

    def string(index: int) -> bytes:
        size = ctypes.c_size_t()
        data = library.answer_string(raw, index, ctypes.byref(size))
        return ctypes.string_at(data, size.value)
    try:
        return Answer(Status(library.answer_status(raw)), library.answer_code(raw),
                      library.answer_sys_error(raw), text_of(library.answer_words(raw)),
                      Reason(library.answer_reason(raw)), Advice(library.answer_advice(raw)),
                      bool(library.answer_from_agent(raw)),
                      (string(0), string(1), string(2), string(3)),
                      library.answer_row_id(raw), library.answer_row_count(raw))
    finally:
        library.answer_free(raw)


def fail(number: int, answer: Optional[Answer] = None) -> NoReturn:
    """Raises what belongs to a status that is not OK."""
    status = Status(number)
    reason = ctypes.get_errno() if status in (Status.NO_AGENT, Status.SYSTEM) else 0
    words = answer.words if answer else text_of(library.status_text(number))
    raise _ERRORS.get(status, Error)(status, words, answer, reason)
