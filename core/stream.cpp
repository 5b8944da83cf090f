#include "core/stream.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/blocks.h"
#include "core/dbc.h"
#include "core/trace.h"
#include "core/wire.h"

namespace {

constexpr std::size_t kLengthWord = 4;
constexpr std::size_t kLargestFrame = 8192;
constexpr std::uint32_t kMuchTaken = 4096;  // by one call: the peer is in the middle of sending

// What a look at the system has found besides bytes.
enum class End : std::uint8_t { None, Closed, Failed, NoMemory };

struct Input {
  unsigned char* Block;      // holds what has come, from Begin to End; null: nothing has
  std::uint32_t Begin, End;  // in the block
  std::uint32_t Frame;       // size of the frame at Begin; 0 while it is not whole
  std::uint32_t Traced;      // bytes of that frame that the trace has shown
  std::uint32_t LastTaken;   // by the last look
  enum End Ended;            // to be told when all frames are handed out
  int Error;                 // of a failed look
  const FrameFormat* Format;
};

struct Output {
  unsigned char* Bytes;  // a block, or memory of its own when it is larger; null: nothing is kept
  std::size_t Begin, End, Capacity;  // the bytes from Begin to End are still to go
  bool Joined;                       // they wait for SendJoined, not for the peer
  const OutputTrace* Trace;
};

struct Stream {
  Input In;
  Output Out;
};

Stream streams[FD_SETSIZE];
int unsentDescriptors;
bool joining;
int joined[kMaxDescriptors];  // the descriptors with joined output
int joinedCount;

bool Keeps(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

std::uint32_t LengthOf(const unsigned char* area) { return Get(area, WireField<std::uint32_t>{0}); }

bool InBounds(const unsigned char* area, const FrameFormat& format) {
  return LengthOf(area) >= format.SmallestLength && LengthOf(area) <= format.LargestLength;
}

// Input

std::uint32_t Held(const Input& in) { return in.End - in.Begin; }

bool HasNews(const Input& in) { return in.Frame > 0 || in.Ended != End::None; }

// The size of the frame at the front, or 0 when it is not whole. One whose length is out of bounds
// counts as whole with its length word: nothing more has to come to refuse it.
std::uint32_t WholeFrame(const Input& in) {
  if (Held(in) < kLengthWord) return 0;
  const unsigned char* const front = in.Block + in.Begin;
  const std::size_t size = InBounds(front, *in.Format) ? FrameSize(front, *in.Format) : kLengthWord;
  return Held(in) < size ? 0 : static_cast<std::uint32_t>(size);
}

void TraceBytes(Input& in, std::uint32_t upTo) {
  const std::uint32_t shown = upTo < Held(in) ? upTo : Held(in);
  if (shown <= in.Traced) return;
  in.Format->TraceReceive(static_cast<int>(shown - in.Traced));
  in.Traced = shown;
}

// Shows what has come of the frame at the front, as a reader would see it that takes the length
// word, then the rest.
void TraceFront(Input& in) {
  if (!Tracing() || !in.Format->TraceReceive) return;
  const bool hadWord = in.Traced >= kLengthWord;
  TraceBytes(in, kLengthWord);
  if (in.Traced < kLengthWord) return;
  const unsigned char* const front = in.Block + in.Begin;
  if (!hadWord) in.Format->TraceLength(static_cast<int>(LengthOf(front) - in.Format->LengthCounts));
  if (InBounds(front, *in.Format))
    TraceBytes(in, static_cast<std::uint32_t>(FrameSize(front, *in.Format)));
}

void TraceEnd(const Input& in, int result) {
  if (Tracing() && in.Format->TraceReceive) in.Format->TraceReceive(result);
}

// Room for at least one whole frame behind what is held; false: there is no memory.
bool MakeRoom(Input& in) {
  if (!in.Block) {
    in.Block = TakeBlock();
    in.Begin = in.End = 0;
    return in.Block != nullptr;
  }
  if (in.Begin > 0 && kBlockSize - in.End < kLargestFrame) {
    std::memmove(in.Block, in.Block + in.Begin, Held(in));
    in.End -= in.Begin;
    in.Begin = 0;
  }
  return true;
}

void GiveBackIfEmpty(Input& in) {
  if (!in.Block || Held(in) > 0) return;
  GiveBlock(in.Block);
  in.Block = nullptr;
  in.Frame = 0;
}

// Asks the system once for all that has come.
void Look(int fd, Input& in) {
  in.LastTaken = 0;
  if (!MakeRoom(in)) {
    in.Ended = End::NoMemory;
    return;
  }
  ssize_t got;
  do {
    got = recv(fd, in.Block + in.End, kBlockSize - in.End, MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  if (got > 0) {
    in.LastTaken = static_cast<std::uint32_t>(got);
    in.End += in.LastTaken;
    if (in.Frame == 0) in.Frame = WholeFrame(in);
  } else if (got == 0) {
    in.Ended = End::Closed;
  } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
    in.Ended = End::Failed;
    in.Error = errno;
  }
  GiveBackIfEmpty(in);
}

FrameRead HandOut(int fd, Input& in, unsigned char* area) {
  const std::uint32_t size = in.Frame;
  std::memcpy(area, in.Block + in.Begin, size);
  TraceFront(in);
  in.Traced = 0;
  in.Begin += size;
  GiveBackIfEmpty(in);
  if (in.Block) in.Frame = WholeFrame(in);
  MarkWaiting(fd, HasNews(in));
  if (!InBounds(area, *in.Format)) return FrameRead::BadLength;
  if (size != kLengthWord) return FrameRead::Whole;
  TraceEnd(in, 0);  // that reader asks for no bytes and gets none
  return FrameRead::Closed;
}

FrameRead TellEnd(int fd, Input& in) {
  const End end = in.Ended;
  in.Ended = End::None;
  MarkWaiting(fd, HasNews(in));
  if (in.Block) TraceFront(in);
  if (end == End::NoMemory) {
    errno = ENOMEM;
    return FrameRead::NoMemory;
  }
  TraceEnd(in, end == End::Closed ? 0 : -1);
  if (end == End::Closed) return FrameRead::Closed;
  errno = in.Error;
  return FrameRead::Failed;
}

// Without a place for what has come, a stream cannot be read at all.
FrameRead ReadNext(int fd, Input& in, unsigned char* area) {
  if (!HasNews(in)) Look(fd, in);
  if (in.Frame > 0) return HandOut(fd, in, area);
  if (in.Ended != End::None) return TellEnd(fd, in);
  if (in.Block) TraceFront(in);
  return FrameRead::Later;
}

void DropInput(int fd) {
  Input& in = streams[fd].In;
  if (in.Block) GiveBlock(in.Block);
  in = {};
  MarkWaiting(fd, false);
}

// Output

void DropOutput(Output& out) {
  if (!out.Bytes) return;
  if (out.Capacity == kBlockSize)
    GiveBlock(out.Bytes);
  else
    std::free(out.Bytes);
  out = {};
  --unsentDescriptors;
}

void LeaveJoined(int fd) {
  Output& out = streams[fd].Out;
  if (!out.Joined) return;
  out.Joined = false;
  for (int i = 0; i < joinedCount; ++i) {
    if (joined[i] == fd) joined[i] = joined[--joinedCount];
  }
}

bool MoveTo(Output& out, unsigned char* bytes, std::size_t capacity) {
  if (!bytes) return false;
  const std::size_t unsent = out.End - out.Begin;
  const bool joinedBefore = out.Joined;
  const OutputTrace* const trace = out.Trace;
  if (out.Bytes) std::memcpy(bytes, out.Bytes + out.Begin, unsent);
  DropOutput(out);
  out = {bytes, 0, unsent, capacity, joinedBefore, trace};
  ++unsentDescriptors;
  return true;
}

// Makes room for `count` more bytes behind those kept.
bool ReserveOutput(Output& out, std::size_t count) {
  if (out.Capacity - out.End >= count) return true;
  const std::size_t unsent = out.End - out.Begin;
  if (out.Bytes && out.Capacity - unsent >= count) {
    std::memmove(out.Bytes, out.Bytes + out.Begin, unsent);
    out.Begin = 0;
    out.End = unsent;
    return true;
  }
  if (unsent + count <= kBlockSize) return MoveTo(out, TakeBlock(), kBlockSize);
  std::size_t capacity = 2 * kBlockSize;
  while (capacity < unsent + count) capacity *= 2;
  return MoveTo(out, static_cast<unsigned char*>(std::malloc(capacity)), capacity);
}

bool KeepOutput(int fd, const unsigned char* bytes, std::size_t count) {
  Output& out = streams[fd].Out;
  if (!ReserveOutput(out, count)) {
    errno = ENOMEM;
    return false;
  }
  std::memcpy(out.Bytes + out.End, bytes, count);
  out.End += count;
  return true;
}

void AwaitRoom(const char* file, int line, int fd) {
  if (!FD_ISSET(fd, &g_DbcI.SocketSets.WriteSet)) REGISTER_SOCKET_FOR_WRITE_EVENT(file, line, fd);
}

// The rest of a frame cannot follow the part that went out: what came after it would be taken for
// that rest. The peer sees the end of the stream, and so does the next read.
int BreakOff(int fd, std::size_t sent) {
  const int error = errno;
  if (sent > 0) shutdown(fd, SHUT_RDWR);
  errno = error;
  return -1;
}

void TellFailed(const OutputTrace* trace) {
  const int error = errno;
  if (trace && trace->Failed) trace->Failed(error);
  errno = error;
}

// Sends until all is out or the peer takes no more; *sent tells the bytes that went out, also when
// that failed: -1.
int SendNow(int fd, const unsigned char* bytes, std::size_t count, const OutputTrace* trace,
            std::size_t* sent) {
  for (*sent = 0; *sent < count;) {
    const ssize_t took = send(fd, bytes + *sent, count - *sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (took < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (trace && trace->Sent) trace->Sent(static_cast<int>(took));
    if (took < 0 && errno == EINTR) continue;
    if (took < 0) {
      TellFailed(trace);
      return BreakOff(fd, *sent);
    }
    *sent += static_cast<std::size_t>(took);
  }
  return 0;
}

int SendOrKeep(const char* file, int line, int fd, const unsigned char* bytes, std::size_t count,
               const OutputTrace* trace) {
  const int savedErrno = errno;
  std::size_t sent = 0;
  if (UnsentBytes(fd) == 0 && SendNow(fd, bytes, count, trace, &sent) != 0) return -1;
  if (sent < count) {
    if (!KeepOutput(fd, bytes + sent, count - sent)) {
      TellFailed(trace);
      return BreakOff(fd, sent);
    }
    if (trace) streams[fd].Out.Trace = trace;
    if (!streams[fd].Out.Joined) AwaitRoom(file, line, fd);
  }
  errno = savedErrno;
  return 0;
}

// Keeps bytes to be sent with others; false: they have to go by themselves.
bool Join(int fd, const unsigned char* bytes, std::size_t count, const OutputTrace* trace) {
  Output& out = streams[fd].Out;
  if (UnsentBytes(fd) > 0 && !out.Joined) return false;
  const int savedErrno = errno;
  const bool kept = KeepOutput(fd, bytes, count);
  errno = savedErrno;
  if (!kept) return false;
  if (!out.Joined) joined[joinedCount++] = fd;
  out.Joined = true;
  if (trace) out.Trace = trace;
  return true;
}

// Sends of what is kept as much as the peer takes.
int SendKept(int fd, std::size_t* taken) {
  Output& out = streams[fd].Out;
  const int savedErrno = errno;
  const int result = SendNow(fd, out.Bytes + out.Begin, out.End - out.Begin, out.Trace, taken);
  if (result != 0) return result;
  out.Begin += *taken;
  if (out.Begin == out.End) DropOutput(out);
  errno = savedErrno;
  return 0;
}

}  // namespace

fd_set g_WaitingFrames;
int g_WaitingCount;
bool (*MayFlush)(int fd);

std::size_t FrameSize(const unsigned char* area, const FrameFormat& format) {
  return LengthOf(area) + kLengthWord - format.LengthCounts;
}

FrameRead ReadFrame(int fd, unsigned char* area, const FrameFormat& format) {
  if (!Keeps(fd)) {
    errno = EBADF;
    return FrameRead::Failed;
  }
  const int savedErrno = errno;
  Input& in = streams[fd].In;
  in.Format = &format;
  const FrameRead result = ReadNext(fd, in, area);
  if (result != FrameRead::Failed && result != FrameRead::NoMemory) errno = savedErrno;
  return result;
}

bool LookAhead(int fd) {
  if (!Keeps(fd) || !streams[fd].In.Format) return false;
  Input& in = streams[fd].In;
  if (HasNews(in)) return true;
  const int savedErrno = errno;
  Look(fd, in);
  errno = savedErrno;
  MarkWaiting(fd, HasNews(in));
  return HasNews(in);
}

void MarkWaiting(int fd, bool waits) {
  if (waits == (FD_ISSET(fd, &g_WaitingFrames) != 0)) return;
  g_WaitingCount += waits ? 1 : -1;
  if (waits)
    FD_SET(fd, &g_WaitingFrames);
  else
    FD_CLR(fd, &g_WaitingFrames);
}

bool FrameWaits(int fd) { return Keeps(fd) && FD_ISSET(fd, &g_WaitingFrames); }

bool MoreHasCome(int fd) { return Keeps(fd) && streams[fd].In.LastTaken >= kMuchTaken; }

int SendBytes(const char* file, int line, int fd, const void* bytes, std::size_t count,
              const OutputTrace* trace) {
  if (!Keeps(fd)) {
    errno = EBADF;
    TellFailed(trace);
    return -1;
  }
  const unsigned char* const from = static_cast<const unsigned char*>(bytes);
  if (joining && LinkOfSocket(fd) && Join(fd, from, count, trace)) return 0;
  return SendOrKeep(file, line, fd, from, count, trace);
}

void JoinOutput(bool on) { joining = on; }

int NextJoined() { return joinedCount > 0 ? joined[0] : -1; }

std::size_t JoinedBytes(int fd) {
  return Keeps(fd) && streams[fd].Out.Joined ? UnsentBytes(fd) : 0;
}

const unsigned char* JoinedAt(int fd) { return streams[fd].Out.Bytes + streams[fd].Out.Begin; }

int SendJoined(const char* file, int line, int fd, std::size_t* taken) {
  LeaveJoined(fd);
  if (SendKept(fd, taken) != 0) return -1;
  if (UnsentBytes(fd) > 0) AwaitRoom(file, line, fd);
  return 0;
}

int FlushBytes(const char* file, int line, int fd) {
  if (!Keeps(fd)) return 0;
  if (MayFlush && !MayFlush(fd)) return 0;
  std::size_t taken;
  if (UnsentBytes(fd) > 0 && SendKept(fd, &taken) != 0) return -1;
  if (UnsentBytes(fd) == 0) UNREGISTER_SOCKET_FOR_WRITE_EVENT(file, line, fd);
  return 0;
}

std::size_t UnsentBytes(int fd) {
  return Keeps(fd) ? streams[fd].Out.End - streams[fd].Out.Begin : 0;
}

int UnsentDescriptors() { return unsentDescriptors; }

void ForgetDescriptor(int fd) {
  if (!Keeps(fd)) return;
  DropInput(fd);
  LeaveJoined(fd);
  DropOutput(streams[fd].Out);
}
