"""The functions of liblumo that the module uses, with their types."""

import ctypes
import os
from ctypes import POINTER, c_char_p, c_int, c_int32, c_size_t, c_uint16, c_uint64, c_void_p
from typing import Any

MAJOR = b"1"
NODE_NAME_SIZE = 9


class Bytes(ctypes.Structure):
    _fields_ = [("data", c_char_p), ("size", c_size_t)]


class RequestFields(ctypes.Structure):
    _fields_ = [("struct_size", c_size_t), ("node", c_char_p), ("command", c_char_p),
                ("strings", Bytes * 4), ("row_id", c_int32), ("row_count", c_int32),
                ("prz_exe", ctypes.c_uint32), ("prior", c_uint16), ("num_chan", c_uint16),
                ("ln_buf_row", c_uint16), ("dbc_api_code", c_uint16),
                ("spare", ctypes.c_uint8 * 4), ("trailer", ctypes.c_uint8 * 48)]


class NodeFields(ctypes.Structure):
    _fields_ = [("protocol", ctypes.c_uint32), ("port", ctypes.c_uint32),
                ("name", ctypes.c_char * 16), ("address", ctypes.c_char * 120),
                ("receive_timeout", c_uint16), ("send_timeout", c_uint16),
                ("connect_timeout", c_uint16), ("reserved", c_uint16 * 13)]


_ANSWER, _TICKET, _RESULT = POINTER(c_void_p), POINTER(c_uint64), POINTER(c_int32)
_FUNCTIONS = {
    "version": (c_char_p, []),
    "status_text": (c_char_p, [c_int]),
    "reason_text": (c_char_p, [c_int]),
    "result_text": (c_char_p, [c_int32]),
    "protocol_name": (c_char_p, [ctypes.c_uint32]),
    "socket_path": (c_int, [c_int, c_char_p, c_size_t]),
    "open": (c_int, [c_char_p, c_int, POINTER(c_void_p)]),
    "close": (None, [c_void_p]),
    "reconnect": (c_int, [c_void_p, c_int]),
    "agent_pid": (c_int32, [c_void_p]),
    "connection_path": (c_char_p, [c_void_p]),
    "in_flight": (c_size_t, [c_void_p]),
    "descriptor": (c_int, [c_void_p]),
    "send": (c_int, [c_void_p, POINTER(RequestFields), c_int, _TICKET]),
    "receive": (c_int, [c_void_p, c_uint64, c_int, _ANSWER]),
    "receive_any": (c_int, [c_void_p, c_int, _TICKET, _ANSWER]),
    "abandon": (c_int, [c_void_p, c_uint64]),
    "ask": (c_int, [c_void_p, POINTER(RequestFields), c_int, _ANSWER]),
    "manage": (c_int, [c_void_p, c_uint16, c_int32, Bytes, c_int, _RESULT, _ANSWER]),
    "count_nodes": (c_int, [c_void_p, c_int, _RESULT]),
    "default_name": (c_int, [c_void_p, c_int, c_char_p, _RESULT]),
    "set_default": (c_int, [c_void_p, c_int32, c_int, _RESULT]),
    "nodetab_path": (c_int, [c_void_p, c_int, c_char_p, c_size_t, _RESULT]),
    "lock_nodetab": (c_int, [c_void_p, c_int32, c_int, _RESULT]),
    "unlock_nodetab": (c_int, [c_void_p, c_int32, c_int, _RESULT]),
    "add_node": (c_int, [c_void_p, c_char_p, c_int, _RESULT]),
    "set_node": (c_int, [c_void_p, c_char_p, c_char_p, c_int, _RESULT]),
    "delete_node": (c_int, [c_void_p, c_char_p, c_int, _RESULT]),
    "get_node": (c_int, [c_void_p, c_char_p, c_int, POINTER(NodeFields), _RESULT]),
    "get_node_at": (c_int, [c_void_p, c_int32, c_int, POINTER(NodeFields), _RESULT]),
    "answer_free": (None, [c_void_p]),
    "answer_status": (c_int, [c_void_p]),
    "answer_reason": (c_int, [c_void_p]),
    "answer_from_agent": (c_int, [c_void_p]),
    "answer_code": (c_int32, [c_void_p]),
    "answer_sys_error": (c_int32, [c_void_p]),
    "answer_words": (c_char_p, [c_void_p]),
    "answer_advice": (c_int, [c_void_p]),
    "answer_string": (c_void_p, [c_void_p, c_int, POINTER(c_size_t)]),
    "answer_row_id": (c_int32, [c_void_p]),
    "answer_row_count": (c_int32, [c_void_p]),
}


class _Library:
    """liblumo: `library.open` is lumo_open, and so on. Calls let other threads run."""

    def __init__(self) -> None:
        shared = ctypes.CDLL(os.environ.get("LUMO_LIBRARY") or "liblumo.so.1", use_errno=True)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(shared, "lumo_" + name)
            function.restype, function.argtypes = result, arguments
            setattr(self, name, function)


library: Any = _Library()
VERSION: str = library.version().decode()
if library.version().split(b".")[0] != MAJOR:
    raise ImportError(f"liblumo {VERSION} is not the one that this module is for")
