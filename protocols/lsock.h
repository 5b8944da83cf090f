// LOCALS: the local kernel over a UNIX-domain stream socket.
#pragma once
#include <cstdint>

#include "protocols/protload.h"

struct LSockLinkData {
  std::int32_t Mbx;     // the kernel's exchange number; names its socket file
  std::int32_t Socket;  // valid while the link is connected; -1 until the first connection
};

InitProtocol LOCALSInitProtocol;
int LSockInitLink(const char* file, int line, Link* link, char* address);  // 0 or -1
LinkOperation LSockUninitLink, LSockConnectLink, LSockReadyForWrite, LSockReadyForRead,
    LSockDisconnectLink, LSockTimerEvent;
int LSockSendToNetwork(const char* file, int line, Link* link, ClientMessage* msg);  // 0 or 4007
int LSockClientDeadEvent(const char* file, int line, Link* link, int pid);
