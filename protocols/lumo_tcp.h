// TCPIP: a database server over TCP/IPv4.
#pragma once
#include <cstdint>

#include "protocols/protload.h"

// Counts are in ticks of 2 seconds.
struct TcpLinkData {
  std::int32_t Address;         // IPv4, network byte order
  std::int32_t Port;            // network byte order, in the low 16 bits
  std::int32_t ReceiveTimeout;  // 20 times the configured value; 0: no alive packets
  std::int32_t SendTimeout;     // 0: no watchdog on incoming packets
  std::int32_t ConnectTimeout;  // seconds; 0: wait for ever
  std::int32_t AliveCount;      // ticks left before the next alive packet
  std::int32_t ReceiveCount;    // ticks left before the link counts as broken
  std::int32_t ConnectCount;    // ticks left for a connection in progress
  std::int32_t Socket;          // -1: none
};

InitProtocol TCPIPInitProtocol;
int TcpInitLink(const char* file, int line, Link* link, char* address);  // 0; 1 address; 3 memory
LinkOperation TcpUninitLink, TcpConnectLink, TcpReadyForWrite, TcpReadyForRead, TcpDisconnectLink,
    TcpTimerEvent;
int TcpSendToNetwork(const char* file, int line, Link* link, ClientMessage* msg);  // 0 or 4007
int TcpClientDeadEvent(const char* file, int line, Link* link, int pid);           // 0 or 4007
int TcpSendConnectionInfo(int line, int socket, const std::uint32_t params[2]);    // 0 or -1
