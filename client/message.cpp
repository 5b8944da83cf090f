#include "client/message.h"

#include <cstring>

namespace {

// Bytes of the wire form from `*have` up to `want` did not come: they count as zero.
void ZeroUpTo(unsigned char* wire, std::size_t* have, std::size_t want) {
  if (want <= *have) return;
  std::memset(wire + *have, 0, want - *have);
  *have = want;
}

}  // namespace

int LocateTrailer(ClientMessage* msg, std::size_t received, std::size_t room) {
  unsigned char* const wire = Wire(msg);
  std::size_t at = kStringsAt;
  for (int i = 0; i < 4; ++i) {
    if (at + 2 + kTrailerSize > room) return -1;
    ZeroUpTo(wire, &received, at + 2);
    at += CountedSize(Get(wire + at, WireField<std::uint16_t>{0}));
  }
  if (at + kTrailerSize > room) return -1;
  ZeroUpTo(wire, &received, at + kTrailerSize);
  msg->TrailerOffset = static_cast<std::uint16_t>(at - kCblAt);
  msg->Length = msg->TrailerOffset + 52U;
  return 0;
}

void CopyMessage(ClientMessage* to, const ClientMessage* from) {
  const std::size_t size = offsetof(ClientMessage, Length) + kCblAt + from->TrailerOffset;
  std::memcpy(static_cast<void*>(to), from, size + kTrailerSize);
  to->TrailerOffset = from->TrailerOffset;
  to->ClientSocket = from->ClientSocket;
}

void MakeClientDeathMessage(ClientMessage* msg, std::int32_t pid) {
  constexpr std::uint16_t kTextSize = 28;
  std::memset(static_cast<void*>(msg), 0, sizeof *msg);
  msg->Length = 132;
  msg->TaskName = pid;
  std::memcpy(msg->CBL.Command, "CKIL", sizeof msg->CBL.Command);
  Put(msg->Strings, WireField<std::uint16_t>{0}, kTextSize);
  Put(msg->Strings, WireField<std::int32_t>{2}, pid);
  msg->TrailerOffset = 80;
  Put(Trailer(msg), kTrailerTaskName, pid);
  Put(Trailer(msg), kTrailerAstInd, std::uint16_t{0xFFFF});
}
