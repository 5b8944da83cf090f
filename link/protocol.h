// The nine operations of a driver.
#pragma once
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
  bool Joins =
      false;  // requests of one pass may go to a link together: SendToNetwork uses SendBytes
};
