// The way to a local kernel: its queue, which is never waited for. A message that finds it full is
// kept with the link, in order, and tried again when an answer has come, on the tick, and after
// pauses that grow.
#pragma once
#include <cstddef>

#include "core/trace.h"
#include "link/link.h"

struct LIpcLinkData;

// A message of the queue: the type in front has the width of a long, the body begins with TaskName.
struct QueueMessage {
  long Type;
  unsigned char Body[8188];
};

pid_t KernelPid(const LIpcLinkData* data);

// Puts the message into the queue and wakes the kernel, or keeps it while a kernel is there to make
// room: 0; 4007 with errno, logged, and kNotQueued when it has not come as far as the queue.
inline constexpr char kNotQueued[] = "FAILED msgsnd";
Outcome SendToQueue(Link* link, const QueueMessage& msg, std::size_t size);

// What is kept is to be tried before the next wait.
void RetryNow(LIpcLinkData* data);

// Tries what is due on all connected links; see RetryOutput.
int RetryQueues();

// Drops what is kept.
void DropPending(Link* link);

// The link's reader has been told to end: nobody will take what the kernel still answers to it.
void RememberFormerReader(LIpcLinkData* data);

// Takes away what is addressed to former readers; true: there was something.
bool TakeFormerAnswers(LIpcLinkData* data);

// The records of all connected links, chained by Next.
extern LIpcLinkData* g_ConnectedQueues;
