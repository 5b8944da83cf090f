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

struct KeptInput {
  std::size_t Count;
  unsigned char Bytes[kInputRoom];
};

struct KeptOutput {
  unsigned char* Bytes;
  std::size_t Begin, End, Capacity;  // the bytes from Begin to End are still to go
};

KeptInput* keptInput[FD_SETSIZE];
KeptOutput keptOutput[FD_SETSIZE];
int unsentDescriptors;
std::uint32_t framesRead;

bool Keeps(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

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

FrameRead FillFrame(int fd, unsigned char* area, std::size_t* have, const FrameFormat& format) {
  if (*have < kLengthWord) {
    const FrameRead word = Fill(fd, area, have, kLengthWord, format.TraceReceive);
    if (word != FrameRead::Whole) return word;
    if (format.TraceLength)
      format.TraceLength(static_cast<int>(LengthOf(area) - format.LengthCounts));
  }
  const std::uint32_t length = LengthOf(area);
  if (length < format.SmallestLength || length > format.LargestLength) return FrameRead::BadLength;
  return Fill(fd, area, have, FrameSize(area, format), format.TraceReceive);
}

// Takes what an earlier call left unfinished.
std::size_t TakeInput(int fd, unsigned char* area) {
  KeptInput* const kept = Keeps(fd) ? keptInput[fd] : nullptr;
  if (!kept) return 0;
  const std::size_t count = kept->Count;
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
  std::memcpy(keptInput[fd]->Bytes, area, count);
  return true;
}

void DropInput(int fd) {
  std::free(keptInput[fd]);
  keptInput[fd] = nullptr;
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

// Sends until all is out or the peer takes no more; the bytes that went out, or -1.
ssize_t SendNow(int fd, const unsigned char* bytes, std::size_t count, void (*traceSend)(int)) {
  std::size_t sent = 0;
  while (sent < count) {
    const ssize_t took = send(fd, bytes + sent, count - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (took < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (traceSend) traceSend(static_cast<int>(took));
    if (took < 0 && errno == EINTR) continue;
    if (took < 0) return -1;
    sent += static_cast<std::size_t>(took);
  }
  return static_cast<ssize_t>(sent);
}

}  // namespace

std::size_t FrameSize(const unsigned char* area, const FrameFormat& format) {
  return LengthOf(area) + kLengthWord - format.LengthCounts;
}

FrameRead ReadFrame(int fd, unsigned char* area, const FrameFormat& format) {
  const int savedErrno = errno;
  std::size_t have = TakeInput(fd, area);
  FrameRead result = FillFrame(fd, area, &have, format);
  if (result == FrameRead::Failed) return result;
  if (result == FrameRead::Later && !KeepInput(fd, area, have)) {
    errno = ENOMEM;
    return FrameRead::Failed;
  }
  errno = savedErrno;
  framesRead += result == FrameRead::Whole;
  return result;
}

std::uint32_t FramesRead() { return framesRead; }

int SendBytes(const char* file, int line, int fd, const void* bytes, std::size_t count,
              void (*traceSend)(int)) {
  if (!Keeps(fd)) {
    errno = EBADF;
    return -1;
  }
  const int savedErrno = errno;
  const unsigned char* const from = static_cast<const unsigned char*>(bytes);
  std::size_t sent = 0;
  if (UnsentBytes(fd) == 0) {
    const ssize_t took = SendNow(fd, from, count, traceSend);
    if (took < 0) return -1;
    sent = static_cast<std::size_t>(took);
  }
  if (sent < count && KeepOutput(file, line, fd, from + sent, count - sent) != 0) return -1;
  errno = savedErrno;
  return 0;
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
}

bool (*MayFlush)(int fd);
