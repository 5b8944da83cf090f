"""Requests and management commands through the network agent of this machine.

    import lumo

    with lumo.Connection() as agent:
        try:
            print(agent.ask("SRV1", "select a from t").rows)
        except lumo.Refused as refusal:  # the node said no: refusal.code, refusal.answer
            print(refusal)

and with asyncio

    async with lumo.AsyncConnection() as agent:
        answers = await asyncio.gather(*(agent.ask("SRV1", text) for text in texts))

The module is a thin layer over the C library, liblumo(3), and keeps to what that says:

- A request that was sent comes to exactly one end: an Answer, or the exception Refused (the node
  answered with a code of its own), AgentError (the agent could not deliver it) or Unsure (the node
  may have carried it out: look before it is sent again). With any other exception nothing was sent.
- A timeout is the longest time in seconds that a call takes: 0 does only what needs no waiting,
  None waits for ever.
- All methods of a Connection may be called from several threads at once, but for close().
- After os.fork() both processes may go on with the same Connection; requests that the parent has
  sent stay the parent's.
- A lost connection is made again by the next call that sends; nothing is sent twice.

The library is liblumo.so.1; the environment variable LUMO_LIBRARY names another file.
"""

from lumo._asyncio import AsyncConnection
from lumo._connection import Connection, Node, Request, socket_path
from lumo._ends import (Advice, AgentError, Answer, Code, Error, NoAgent, Reason, Refused, Result,
                        Status, Timeout, Unsure)
from lumo._library import VERSION as __version__

__all__ = ["Advice", "AgentError", "Answer", "AsyncConnection", "Code", "Connection", "Error",
           "NoAgent", "Node", "Reason", "Refused", "Request", "Result", "Status", "Timeout",
           "Unsure", "socket_path"]
