// Frames in and bytes out, per descriptor. Nothing here waits for a peer: what has not come yet
// and what the peer does not take yet is kept with the descriptor.
#pragma once
#include <cstddef>
#include <cstdint>

// How a stream is cut into frames: each begins with a 32-bit length word.
struct FrameFormat {
  std::uint32_t LengthCounts;    // bytes of the length word that its value includes: 4 or 0
  std::uint32_t SmallestLength;  // values outside the bounds are refused
  std::uint32_t LargestLength;  // largest value + 4 - LengthCounts bytes must fit the caller's area
  void (*TraceReceive)(int result);  // after each recv; may be null
  void (*TraceLength)(int rest);     // with the bytes that follow the length word; may be null
  bool Ahead = false;  // take all that has come with one call; the reader must then not wait for
                       // events while FrameWaits
};

enum class FrameRead {
  Whole,      // the frame is in the area
  Later,      // not all of it has come; the next call goes on
  Closed,     // the peer closed the connection (a frame without a body counts as that too)
  Failed,     // errno says why
  NoMemory,   // errno is ENOMEM; what had come of the frame is lost, so the stream cannot go on
  BadLength,  // the length word, now in the area, is out of bounds
};

// Reads one frame into `area` (host byte order, at least the largest frame): first the length
// word, then the rest, without a copy in the ordinary case (Ahead: out of what was taken earlier,
// while a whole frame is there). Leaves errno alone unless Failed or NoMemory.
FrameRead ReadFrame(int fd, unsigned char* area, const FrameFormat& format);

// What comes in on the descriptor is taken as it comes, beyond the frame that is read: it belongs
// to a link, of which a frame has been read.
bool IsReadAhead(int fd);

// The last look at the descriptor took so much that more has probably come.
bool MoreHasCome(int fd);

// A whole frame of the descriptor has been taken ahead, or a length word that is out of bounds.
bool FrameWaits(int fd);

// Descriptors of which that is true.
int WaitingFrames();

// The bytes of the frame in `area`, length word included.
std::size_t FrameSize(const unsigned char* area, const FrameFormat& format);

// Sends the bytes in order, or keeps what the peer does not take now (the descriptor is then
// registered for write events under the caller's place). Returns 0, or -1 with errno when the
// connection failed or memory ran out. `traceSend` sees each call's result; it may be null.
int SendBytes(const char* file, int line, int fd, const void* bytes, std::size_t count,
              void (*traceSend)(int result) = nullptr);

// While on, the frames for one link are collected instead of sent, as far as there is room, so that
// several requests cost one call. The caller ends with HoldOutput(false) and SendHeld.
void HoldOutput(bool on);
int HeldFrames();

// Sends what was collected, as SendBytes does. Returns -1, or the descriptor for which that failed,
// with errno.
int SendHeld(const char* file, int line);

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
