// LOCALI: the local kernel over System V message queue, semaphore and shared memory.
//
// Each connected link has a reader child. It waits on the queue, writes an answer straight to the
// client where it knows the connection, hands it to the agent where it does not, and tells the
// agent through a pipe which request has been answered.
#pragma once
#include <sys/types.h>

#include <cstdint>

#include "client/primitiv.h"
#include "link/link.h"
#include "protocols/protload.h"

struct PendingMessage;
struct ReaderBoard;

// Tells the agent which request was answered; 8 bytes.
struct PipeRecord {
  std::int32_t TaskName;
  std::uint16_t AstInd;
  std::uint16_t Entry;  // of the request on the board, or kNoEntry: the agent has to find it by its
                        // name; with kHandedOver its answer is the next one in the pair
};
static_assert(sizeof(PipeRecord) == 8);
constexpr std::uint16_t kNoEntry = 0x7FFF, kHandedOver = 0x8000;

constexpr std::size_t kRecordsAtOnce = 64;

constexpr std::uint32_t kFormerReaders = 256;  // whose answers are taken away

struct LIpcLinkData {
  std::int32_t Key;         // names segment, queue and semaphore set; at least 1
  std::int32_t ShmId;       // -1: none
  std::int32_t SemId;       // -1: none
  std::int32_t MsgQueueId;  // -1: none
  const void* Shm;          // attached read-only, or null; begins with the kernel's process id
  std::int32_t PipeRead;    // of the records; valid while the link is connected
  pid_t ChildPid;           // of the reader; valid while the link is connected; 0 in the child

  std::int32_t Pair;   // socket for answers handed over: the agent's end, in the child its own
  ReaderBoard* Board;  // shared with the child; null: none
  struct Link* Owner;  // of a connected link
  LIpcLinkData* Next;  // in the list of connected links, or of refused records

  // Records that have been taken from the pipe together, from Begin to End; the last one as far as
  // it has come.
  unsigned char Records[kRecordsAtOnce * sizeof(PipeRecord)];
  std::uint32_t RecordsBegin, RecordsEnd;

  // Messages for which the queue has had no room, in order; see lipc_queue.h
  PendingMessage* FirstPending;
  PendingMessage* LastPending;
  std::int64_t RetryAt;  // milliseconds of the monotonic clock
  std::int32_t Pause;    // milliseconds between the last two tries

  pid_t Former[kFormerReaders];  // readers that have been on this queue, in a ring
  std::uint32_t FormerCount;     // that there have ever been
  std::int32_t FormerQueue;      // identifier of the queue
};

inline LIpcLinkData* LIpcDataOf(const Link* link) {
  return static_cast<LIpcLinkData*>(link->DriverData);
}

InitProtocol LOCALIInitProtocol;
int LIpcInitLink(const char* file, int line, Link* link, char* address);  // 0; 1 range; 3 memory
LinkOperation LIpcUninitLink, LIpcConnectLink, LIpcReadyForWrite, LIpcReadyForRead,
    LIpcDisconnectLink, LIpcTimerEvent;
int LIpcSendToNetwork(const char* file, int line, Link* link, ClientMessage* msg);  // 0 or 4007
int LIpcClientDeadEvent(const char* file, int line, Link* link, int pid);

// The reader child's work; returns -1 when the queue or the way to the agent fails.
int ReadMessageFromKernelAndSendToDbc(const char* file, int line, LIpcLinkData* data,
                                      int pipeWrite);
