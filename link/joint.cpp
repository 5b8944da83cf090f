#include "link/joint.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "client/parking.h"
#include "core/blocks.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "link/link.h"

static constexpr char Module[] = "link";

namespace {

constexpr int kMostJoined = 64;
constexpr std::size_t kMostBytes = kBlockSize - 2 * kMessageArea;  // of one link: the rest is room

struct Joined {
  struct Link* Link;  // null: its link has gone down
  RequestId Id;
  std::size_t End;  // of its bytes, in what is kept for the link
  std::size_t Size;
  unsigned char Trailer[kTrailerSize];
};

Joined joined[kMostJoined];
int joinedCount;
bool muchIsJoined;  // for one link
LeftOver* leftOvers;

void AppendLeftOver(LeftOver* rest) {
  LeftOver** place = &leftOvers;
  while (*place) place = &(*place)->Next;
  *place = rest;
}

// The request is no longer in flight. Without memory it stays so, and ends with its link.
void LeaveOver(const Joined& entry, const unsigned char* bytes) {
  MsgInfo* const info = FindRequest(entry.Id);
  LeftOver* const rest = info ? static_cast<LeftOver*>(std::calloc(1, sizeof(LeftOver))) : nullptr;
  if (!rest) return;
  std::memcpy(Wire(&rest->Message), bytes + entry.End - entry.Size, entry.Size);
  LocateTrailer(&rest->Message, entry.Size, kMessageArea);
  std::memcpy(Trailer(&rest->Message), entry.Trailer, kTrailerSize);
  rest->Message.ClientSocket = info->Socket;
  rest->Connection = ConnectionSerial(info->Socket);
  rest->Listed = entry.Link;
  ReleaseMsgInfo(info);
  AppendLeftOver(rest);
}

// What the system took counts as sent; the first request behind it is the one that failed.
void LeaveOverBehind(const Link* link, std::size_t taken) {
  const unsigned char* const bytes = JoinedAt(link->Descriptor);
  bool failed = false;
  for (int i = 0; i < joinedCount; ++i) {
    const Joined& entry = joined[i];
    if (entry.Link != link || entry.End <= taken) continue;
    if (failed) LeaveOver(entry, bytes);
    failed = true;
  }
}

void SendJoinedOf(int fd) {
  Link* const link = LinkOfSocket(fd);
  std::size_t taken;
  if (SendJoined(HERE, fd, &taken) == 0) return ReleaseParkedBehind(link);
  const int error = errno;
  LOG(kLogTrace, "Send to network failed");
  LeaveOverBehind(link, taken);
  DisconnectLink(HERE, link, kStatusSend, error);
}

}  // namespace

void JoinRequests(bool on) { JoinOutput(on); }

bool JointIsFull() { return joinedCount == kMostJoined || muchIsJoined; }

void NoteJoined(Link* link, const ClientMessage* msg, const unsigned char* trailer) {
  const std::size_t end = JoinedBytes(link->Descriptor);
  if (end == 0 || joinedCount == kMostJoined) return;
  Joined& entry = joined[joinedCount++];
  entry = {.Link = link,
           .Id = LastSavedRequest(),
           .End = end,
           .Size = kCblAt + msg->TrailerOffset + kTrailerSize,
           .Trailer = {}};
  std::memcpy(entry.Trailer, trailer, kTrailerSize);
  muchIsJoined = muchIsJoined || end > kMostBytes;
}

void SendJoinedRequests() {
  for (int fd; (fd = NextJoined()) >= 0;) SendJoinedOf(fd);
  joinedCount = 0;
  muchIsJoined = false;
}

LeftOver* TakeLeftOvers() {
  LeftOver* const all = leftOvers;
  leftOvers = nullptr;
  return all;
}

void ForgetJoined(const Link* link) {
  for (int i = 0; i < joinedCount; ++i) {
    if (joined[i].Link == link) joined[i].Link = nullptr;
  }
}
