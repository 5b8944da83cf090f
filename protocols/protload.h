// The registry of protocols.
#pragma once
#include "link/protocol.h"

// An init function: 0 when the name is its own and the record is filled, else -1.
using InitProtocol = int(const char* file, int line, Protocol* protocol, const char* name,
                         SocketSets* services);

// Finds or loads the protocol; upper-cases `name` in place. Null: not supported, or no memory.
Protocol* AddProtocol(const char* file, int line, char* name);

// Releases the links of a protocol, then the protocol. Returns 0.
int UninitProtocol(const char* file, int line, Protocol* protocol);
