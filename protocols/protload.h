// The registry of protocols and the nine operations of a driver.
#pragma once
#include <cstdint>

#include "core/dbc.h"

// Every operation takes the caller's module and line first and returns 0 or a status.
using LinkOperation = int(const char* file, int line, Link* link);

struct Protocol {
  const char* Name;  // canonical, upper case
  // Parses the address (changed in place) into link->DriverData; an odd result: refused.
  int (*InitLink)(const char* file, int line, Link* link, char* address);
  LinkOperation* UninitLink;      // disconnects, frees the driver's record
  LinkOperation* ConnectLink;     // 0: State tells whether connected or connecting
  LinkOperation* ReadyForWrite;   // finishes a pending connect, sends what was saved
  LinkOperation* ReadyForRead;    // one packet in; disconnects the link on failure
  LinkOperation* DisconnectLink;  // closes the transport; called by link/link only
  LinkOperation* TimerEvent;      // each tick unless disconnected; not 0: broken with that code
  int (*SendToNetwork)(const char* file, int line, Link* link, ClientMessage* msg);
  int (*ClientDeadEvent)(const char* file, int line, Link* link, int pid);
  Protocol* Next;
};

// An init function: 0 when the name is its own and the record is filled, else -1.
using InitProtocol = int(const char* file, int line, Protocol* protocol, const char* name,
                         SocketSets* services);

// Finds or loads the protocol; upper-cases `name` in place. Null: not supported, or no memory.
Protocol* AddProtocol(const char* file, int line, char* name);

// Releases the links of a protocol, then the protocol. Returns 0.
int UninitProtocol(const char* file, int line, Protocol* protocol);
