// What is known of each client connection beside its stream.
#pragma once
#include <sys/select.h>

#include <cstdint>

#include "link/record.h"

struct Connection {
  std::uint32_t Serial;   // tells it from a later one with the same number; 0: there is none
  std::int32_t ListedAt;  // its latest entry in the client PID list
  SlotList Requests[2];   // kWaiting, kInFlight

  // Parked connections are not read; those behind a link are chained.
  bool Parked;
  struct Link* ParkedBehind;
  std::int32_t NextParked, PreviousParked;  // 0: none
};
extern Connection g_Connections[FD_SETSIZE];

inline bool IsConnectionNumber(int socket) { return socket >= 0 && socket < FD_SETSIZE; }

// 0 when there is no such connection.
inline std::uint32_t ConnectionSerial(int socket) {
  return IsConnectionNumber(socket) ? g_Connections[socket].Serial : 0;
}

// Its requests; none when there is no such number.
inline StatsCounts CountsOf(int socket) {
  if (!IsConnectionNumber(socket)) return {};
  const SlotList(&own)[2] = g_Connections[socket].Requests;
  return {own[kInFlight].Count, own[kWaiting].Count};
}

// Gives a new connection its serial number.
void NumberConnection(int socket);
