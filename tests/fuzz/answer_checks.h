// What every message that the agent passes on must be like.
#pragma once
#include "client/message.h"
#include "tests/fuzz/world.h"

inline void CheckLocated(const ClientMessage& msg, std::size_t room) {
  const std::size_t end = kCblAt + msg.TrailerOffset + kTrailerSize;
  if (msg.TrailerOffset < kEmptyTrailerOffset || end > room)
    world::Violated("the trailer at %u is outside of the message", msg.TrailerOffset);
  if (msg.Length != msg.TrailerOffset + 52U)
    world::Violated("Length %u does not fit the trailer at %u", msg.Length, msg.TrailerOffset);
}

// In place of the writer to clients.
inline int CheckedPut(const char*, int, ClientMessage* msg) {
  CheckLocated(*msg, kMessageArea);
  return 0;
}
