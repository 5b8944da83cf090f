// The stream of a descriptor, of a client and of a link alike: what has come and is not handed out
// yet, and what is to go and the peer has not taken yet. Nothing here waits for a peer.
#pragma once
#include <sys/select.h>

#include <cstddef>
#include <cstdint>

// How a stream is cut into frames: each begins with a 32-bit length word. Formats are constants;
// a stream keeps a pointer to the one that it was last read with.
struct FrameFormat {
  std::uint32_t LengthCounts;        // bytes of the length word that its value includes: 4 or 0
  std::uint32_t SmallestLength;      // values outside the bounds are refused
  std::uint32_t LargestLength;       // largest value + 4 - LengthCounts bytes must fit the area
  void (*TraceReceive)(int result);  // as of a reader that takes the length word, then the rest;
  void (*TraceLength)(int rest);     // the bytes that follow the length word; both may be null
};

enum class FrameRead : std::uint8_t {
  Whole,      // the frame is in the area
  Later,      // not all of it has come; the next call goes on
  Closed,     // the peer closed the connection (a frame without a body counts as that too)
  Failed,     // errno says why
  NoMemory,   // errno is ENOMEM; the stream cannot go on
  BadLength,  // the length word, now in the area, is out of bounds
};

// Reads one frame into `area` (host byte order, at least the largest frame): the one at the front
// of what has come, or, when that is not whole, after one look at what the system has. What has
// come behind it waits here as if it were still in the system. Leaves errno alone unless Failed or
// NoMemory.
FrameRead ReadFrame(int fd, unsigned char* area, const FrameFormat& format);

// The bytes of the frame in `area`, length word included.
std::size_t FrameSize(const unsigned char* area, const FrameFormat& format);

// Takes what the system has of a stream that has been read before; true: there is something for
// ReadFrame to tell of, a frame or the stream's end. Keeps errno.
bool LookAhead(int fd);

// ReadFrame has something to tell without asking the system: a whole frame, a length word out of
// bounds, or the end that LookAhead has met.
bool FrameWaits(int fd);

// The same of a link's descriptor that is no stream: its driver has taken more than it has served.
void MarkWaiting(int fd, bool waits);

// The descriptors of which FrameWaits is true, and how many they are.
extern fd_set g_WaitingFrames;
extern int g_WaitingCount;

// The last look took so much that more has probably come.
bool MoreHasCome(int fd);

// How an owner's output shows in the log: each call's result, and the error of one that failed.
// Either may be null.
struct OutputTrace {
  void (*Sent)(int result);
  void (*Failed)(int error);
};

// Sends the bytes in order, or keeps what the peer does not take now (the descriptor is then
// registered for write events under the caller's place). Returns 0, or -1 with errno when the
// connection failed or memory ran out. `trace`, a constant, may be null; it also serves what is
// kept.
int SendBytes(const char* file, int line, int fd, const void* bytes, std::size_t count,
              const OutputTrace* trace = nullptr);

// While on, bytes for the streams of links are kept instead of sent, so that several requests cost
// one call; streams that keep something anyway are not concerned. The caller ends with
// JoinOutput(false), and sends: for each NextJoined (-1: none) SendJoined, which returns 0, or -1
// with errno and how many of the bytes had been taken.
void JoinOutput(bool on);
int NextJoined();
int SendJoined(const char* file, int line, int fd, std::size_t* taken);
// The bytes that wait for SendJoined, in order; 0: the stream is not joined.
std::size_t JoinedBytes(int fd);
const unsigned char* JoinedAt(int fd);

// Sends of what is kept as much as the peer takes; unregisters the descriptor from write events
// when nothing is left. Returns 0, or -1 with errno.
int FlushBytes(const char* file, int line, int fd);

// Bytes kept for the peer.
std::size_t UnsentBytes(int fd);

// Descriptors for which something is kept for the peer.
int UnsentDescriptors();

// Drops all that is kept for a descriptor; to be called whenever one is closed.
void ForgetDescriptor(int fd);

// For a module that shares connections with another process: asked before kept bytes go out; false
// means not now, the flush is tried again when the loop comes by. Null: nobody asks.
extern bool (*MayFlush)(int fd);
