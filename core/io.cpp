#include "core/io.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/dbc.h"
#include "core/wire.h"

namespace {

constexpr std::size_t kLengthWord = 4;
constexpr std::size_t kInputRoom = 8192;  // the largest frame
constexpr std::size_t kFirstOutput = 16384;
constexpr std::size_t kMuchTaken = 4096;  // by one call: the peer is in the middle of sending

struct KeptInput {
  std::size_t Count;
  bool HasFrame;  // the bytes begin with a whole frame, or with a length word out of bounds
  unsigned char Bytes[kInputRoom];
};

struct KeptOutput {
  unsigned char* Bytes;
  std::size_t Begin, End, Capacity;  // the bytes from Begin to End are still to go
};

// What has been taken of a link's stream and not been handed out as frames.
struct AheadInput {
  std::size_t Begin, End;  // the bytes from Begin to End are still to be handed out
  std::size_t FirstFrame;  // size of the frame at Begin; 0 while that cannot be told
  std::size_t LastTaken;   // bytes that the last call gave
  unsigned char Bytes[2 * kInputRoom];
};

// Frames for one link that are to go out together.
struct HeldOutput {
  int Fd;
  int Frames;
  std::size_t Count;
  unsigned char Bytes[2 * kInputRoom];
};

KeptInput* keptInput[FD_SETSIZE];
KeptOutput keptOutput[FD_SETSIZE];
AheadInput* aheadInput[kMaxDescriptors];  // links only
int unsentDescriptors;
int waitingFrames;
HeldOutput held;
bool holding;

bool Keeps(int fd) { return fd >= 0 && fd < FD_SETSIZE; }
bool IsLink(int fd) { return fd >= 0 && fd < kMaxDescriptors; }

// Receives until the area holds `want` bytes. 0 wanted bytes are never asked for: on a UNIX stream
// socket that would wait; it counts as a closed connection, as a read of 0 bytes does elsewhere.
FrameRead Fill(int fd, unsigned char* area, std::size_t* have, std::size_t want,
               void (*traceReceive)(int)) {
  if (*have == want) {
    if (traceReceive) traceReceive(0);
    return FrameRead::Closed;
  }
  while (*have < want) {
    const ssize_t got = recv(fd, area + *have, want - *have, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return FrameRead::Later;
    if (traceReceive) traceReceive(static_cast<int>(got));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return FrameRead::Failed;
    if (got == 0) return FrameRead::Closed;
    *have += static_cast<std::size_t>(got);
  }
  return FrameRead::Whole;
}

std::uint32_t LengthOf(const unsigned char* area) { return Get(area, WireField<std::uint32_t>{0}); }

bool InBounds(const unsigned char* area, const FrameFormat& format) {
  return LengthOf(area) >= format.SmallestLength && LengthOf(area) <= format.LargestLength;
}

FrameRead FillFrame(int fd, unsigned char* area, std::size_t* have, const FrameFormat& format) {
  if (*have < kLengthWord) {
    const FrameRead word = Fill(fd, area, have, kLengthWord, format.TraceReceive);
    if (word != FrameRead::Whole) return word;
    if (format.TraceLength)
      format.TraceLength(static_cast<int>(LengthOf(area) - format.LengthCounts));
  }
  if (!InBounds(area, format)) return FrameRead::BadLength;
  return Fill(fd, area, have, FrameSize(area, format), format.TraceReceive);
}

// Takes what an earlier call left unfinished, or had beyond its frame.
std::size_t TakeInput(int fd, unsigned char* area) {
  KeptInput* const kept = Keeps(fd) ? keptInput[fd] : nullptr;
  if (!kept) return 0;
  const std::size_t count = kept->Count;
  waitingFrames -= kept->HasFrame;
  kept->HasFrame = false;
  std::memcpy(area, kept->Bytes, count);
  kept->Count = 0;
  return count;
}

bool KeepInput(int fd, const unsigned char* area, std::size_t count) {
  if (count == 0) return true;
  if (!Keeps(fd)) return false;
  if (!keptInput[fd]) keptInput[fd] = static_cast<KeptInput*>(std::malloc(sizeof(KeptInput)));
  if (!keptInput[fd]) return false;
  keptInput[fd]->Count = count;
  keptInput[fd]->HasFrame = false;
  std::memcpy(keptInput[fd]->Bytes, area, count);
  return true;
}

// The size of the frame at the front of the bytes, or 0 when it is not whole. One whose length is
// out of bounds counts as whole with its length word: nothing more has to come to refuse it.
std::size_t WholeFrame(const unsigned char* bytes, std::size_t have, const FrameFormat& format) {
  if (have < kLengthWord) return 0;
  const std::size_t size = InBounds(bytes, format) ? FrameSize(bytes, format) : kLengthWord;
  return have < size ? 0 : size;
}

FrameRead Judge(const unsigned char* area, std::size_t size, const FrameFormat& format) {
  if (!InBounds(area, format)) return FrameRead::BadLength;
  return size == kLengthWord ? FrameRead::Closed : FrameRead::Whole;
}

ssize_t ReceiveOnce(int fd, unsigned char* bytes, std::size_t room) {
  ssize_t got;
  do {
    got = recv(fd, bytes, room, MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  return got;
}

void MarkFrame(KeptInput* kept, const FrameFormat& format) {
  kept->HasFrame = WholeFrame(kept->Bytes, kept->Count, format) > 0;
  waitingFrames += kept->HasFrame;
}

// Reads what has come with one call, straight into the area; what is behind the frame is kept.
FrameRead ReadFrameAtOnce(int fd, unsigned char* area, const FrameFormat& format) {
  std::size_t have = TakeInput(fd, area);
  std::size_t size = WholeFrame(area, have, format);
  if (size == 0) {
    const ssize_t got = ReceiveOnce(fd, area + have, kInputRoom - have);
    if (got == 0) return FrameRead::Closed;
    if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return FrameRead::Failed;
    have += got > 0 ? static_cast<std::size_t>(got) : 0;
    size = WholeFrame(area, have, format);
  }
  if (!KeepInput(fd, area + size, have - size)) {
    errno = ENOMEM;
    return FrameRead::NoMemory;
  }
  if (size == 0) return FrameRead::Later;
  if (have > size) MarkFrame(keptInput[fd], format);
  return Judge(area, size, format);
}

FrameRead ReadFrameNow(int fd, unsigned char* area, const FrameFormat& format) {
  std::size_t have = TakeInput(fd, area);
  const FrameRead result = FillFrame(fd, area, &have, format);
  if (result != FrameRead::Later || KeepInput(fd, area, have)) return result;
  errno = ENOMEM;
  return FrameRead::NoMemory;
}

void DropInput(int fd) {
  if (keptInput[fd]) waitingFrames -= keptInput[fd]->HasFrame;
  std::free(keptInput[fd]);
  keptInput[fd] = nullptr;
  if (!IsReadAhead(fd)) return;
  waitingFrames -= aheadInput[fd]->FirstFrame > 0;
  std::free(aheadInput[fd]);
  aheadInput[fd] = nullptr;
}

// Reading ahead

void LookAtFirst(AheadInput& input, const FrameFormat& format) {
  waitingFrames -= input.FirstFrame > 0;
  input.FirstFrame = WholeFrame(input.Bytes + input.Begin, input.End - input.Begin, format);
  waitingFrames += input.FirstFrame > 0;
}

// Takes what has come with one call; at least a whole frame finds room.
FrameRead TakeAhead(int fd, AheadInput& input) {
  std::memmove(input.Bytes, input.Bytes + input.Begin, input.End - input.Begin);
  input.End -= input.Begin;
  input.Begin = 0;
  ssize_t got;
  do {
    got = recv(fd, input.Bytes + input.End, sizeof input.Bytes - input.End, MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  input.LastTaken = got < 0 ? 0 : static_cast<std::size_t>(got);
  if (got < 0)
    return errno == EAGAIN || errno == EWOULDBLOCK ? FrameRead::Later : FrameRead::Failed;
  if (got == 0) return FrameRead::Closed;
  input.End += input.LastTaken;
  return FrameRead::Whole;
}

// Hands out the frame at the front.
FrameRead HandOut(AheadInput& input, unsigned char* area, const FrameFormat& format) {
  const std::size_t size = input.FirstFrame;
  if (size == 0) return FrameRead::Later;
  std::memcpy(area, input.Bytes + input.Begin, size);
  input.Begin += size;
  LookAtFirst(input, format);
  return Judge(area, size, format);
}

FrameRead ReadFrameAhead(int fd, unsigned char* area, const FrameFormat& format) {
  AheadInput*& input = aheadInput[fd];
  if (!input) input = static_cast<AheadInput*>(std::calloc(1, sizeof *input));
  if (!input) {
    errno = ENOMEM;
    return FrameRead::NoMemory;
  }
  if (input->FirstFrame == 0) {
    const FrameRead taken = TakeAhead(fd, *input);
    if (taken != FrameRead::Whole) return taken;
    LookAtFirst(*input, format);
  }
  return HandOut(*input, area, format);
}

void DropOutput(int fd) {
  if (!keptOutput[fd].Bytes) return;
  std::free(keptOutput[fd].Bytes);
  keptOutput[fd] = {};
  --unsentDescriptors;
}

// Makes room for `count` more bytes behind those kept.
bool ReserveOutput(KeptOutput& kept, std::size_t count) {
  if (kept.Capacity - kept.End >= count) return true;
  const std::size_t unsent = kept.End - kept.Begin;
  if (kept.Begin > 0) {
    std::memmove(kept.Bytes, kept.Bytes + kept.Begin, unsent);
    kept.Begin = 0;
    kept.End = unsent;
  }
  std::size_t capacity = kept.Capacity ? kept.Capacity : kFirstOutput;
  while (capacity - unsent < count) capacity *= 2;
  if (capacity == kept.Capacity) return true;
  void* const bytes = std::realloc(kept.Bytes, capacity);
  if (!bytes) return false;
  if (!kept.Bytes) ++unsentDescriptors;
  kept.Bytes = static_cast<unsigned char*>(bytes);
  kept.Capacity = capacity;
  return true;
}

int KeepOutput(const char* file, int line, int fd, const unsigned char* bytes, std::size_t count) {
  KeptOutput& kept = keptOutput[fd];
  if (!ReserveOutput(kept, count)) {
    errno = ENOMEM;
    return -1;
  }
  std::memcpy(kept.Bytes + kept.End, bytes, count);
  kept.End += count;
  if (!FD_ISSET(fd, &g_DbcI.SocketSets.WriteSet)) REGISTER_SOCKET_FOR_WRITE_EVENT(file, line, fd);
  return 0;
}

// The rest of a frame cannot follow the part that went out: what came after it would be taken for
// that rest. The peer sees the end of the stream, and so does the next read.
int BreakOff(int fd, std::size_t sent) {
  const int error = errno;
  if (sent > 0) shutdown(fd, SHUT_RDWR);
  errno = error;
  return -1;
}

// Sends until all is out or the peer takes no more; the bytes that went out, or -1.
ssize_t SendNow(int fd, const unsigned char* bytes, std::size_t count, void (*traceSend)(int)) {
  std::size_t sent = 0;
  while (sent < count) {
    const ssize_t took = send(fd, bytes + sent, count - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (took < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (traceSend) traceSend(static_cast<int>(took));
    if (took < 0 && errno == EINTR) continue;
    if (took < 0) return BreakOff(fd, sent);
    sent += static_cast<std::size_t>(took);
  }
  return static_cast<ssize_t>(sent);
}

int SendOrKeep(const char* file, int line, int fd, const unsigned char* bytes, std::size_t count,
               void (*traceSend)(int)) {
  const int savedErrno = errno;
  std::size_t sent = 0;
  if (UnsentBytes(fd) == 0) {
    const ssize_t took = SendNow(fd, bytes, count, traceSend);
    if (took < 0) return -1;
    sent = static_cast<std::size_t>(took);
  }
  if (sent < count && KeepOutput(file, line, fd, bytes + sent, count - sent) != 0)
    return BreakOff(fd, sent);
  errno = savedErrno;
  return 0;
}

// Collects a frame; false: another link's are collected, or there is no room.
bool Hold(int fd, const unsigned char* bytes, std::size_t count) {
  if (held.Frames > 0 && held.Fd != fd) return false;
  if (count > sizeof held.Bytes - held.Count) return false;
  held.Fd = fd;
  std::memcpy(held.Bytes + held.Count, bytes, count);
  held.Count += count;
  ++held.Frames;
  return true;
}

}  // namespace

std::size_t FrameSize(const unsigned char* area, const FrameFormat& format) {
  return LengthOf(area) + kLengthWord - format.LengthCounts;
}

FrameRead ReadFrame(int fd, unsigned char* area, const FrameFormat& format) {
  const int savedErrno = errno;
  FrameRead result;
  if (!format.Ahead || !Keeps(fd))
    result = ReadFrameNow(fd, area, format);
  else if (LinkOfSocket(fd))
    result = ReadFrameAhead(fd, area, format);
  else
    result = ReadFrameAtOnce(fd, area, format);
  if (result != FrameRead::Failed && result != FrameRead::NoMemory) errno = savedErrno;
  return result;
}

bool FrameWaits(int fd) {
  if (!Keeps(fd)) return false;
  if (keptInput[fd] && keptInput[fd]->HasFrame) return true;
  return IsReadAhead(fd) && aheadInput[fd]->FirstFrame > 0;
}

bool IsReadAhead(int fd) { return IsLink(fd) && aheadInput[fd]; }

bool MoreHasCome(int fd) { return IsReadAhead(fd) && aheadInput[fd]->LastTaken >= kMuchTaken; }

int WaitingFrames() { return waitingFrames; }

int SendBytes(const char* file, int line, int fd, const void* bytes, std::size_t count,
              void (*traceSend)(int)) {
  if (!Keeps(fd)) {
    errno = EBADF;
    return -1;
  }
  const unsigned char* const from = static_cast<const unsigned char*>(bytes);
  if (!holding || !LinkOfSocket(fd)) return SendOrKeep(file, line, fd, from, count, traceSend);
  if (Hold(fd, from, count)) return 0;
  if (held.Fd == fd && SendHeld(file, line) >= 0) return -1;
  return Hold(fd, from, count) ? 0 : SendOrKeep(file, line, fd, from, count, traceSend);
}

void HoldOutput(bool on) { holding = on; }

int HeldFrames() { return held.Frames; }

int SendHeld(const char* file, int line) {
  if (held.Frames == 0) return -1;
  const std::size_t count = held.Count;
  held.Count = 0;
  held.Frames = 0;
  return SendOrKeep(file, line, held.Fd, held.Bytes, count, nullptr) == 0 ? -1 : held.Fd;
}

int FlushBytes(const char* file, int line, int fd) {
  if (!Keeps(fd)) return 0;
  if (MayFlush && !MayFlush(fd)) return 0;
  const int savedErrno = errno;
  KeptOutput& kept = keptOutput[fd];
  const ssize_t took = SendNow(fd, kept.Bytes + kept.Begin, kept.End - kept.Begin, nullptr);
  if (took < 0) return -1;
  kept.Begin += static_cast<std::size_t>(took);
  if (kept.Begin == kept.End) {
    DropOutput(fd);
    UNREGISTER_SOCKET_FOR_WRITE_EVENT(file, line, fd);
  }
  errno = savedErrno;
  return 0;
}

std::size_t UnsentBytes(int fd) {
  return Keeps(fd) ? keptOutput[fd].End - keptOutput[fd].Begin : 0;
}

int UnsentDescriptors() { return unsentDescriptors; }

void ForgetDescriptor(int fd) {
  if (!Keeps(fd)) return;
  DropInput(fd);
  DropOutput(fd);
  if (held.Fd != fd) return;
  held.Count = 0;
  held.Frames = 0;
}

bool (*MayFlush)(int fd);
