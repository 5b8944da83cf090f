// The reader child of a connected LOCALI link.
#pragma once
#include <csignal>

#include "protocols/lipc.h"

// What connects the two processes. Pipe: read end, write end. Pair: the agent's end, the child's.
struct ReaderChannels {
  int Pipe[2];
  int Pair[2];
};

// A message of the queue: the type in front has the width of a long, the body begins with TaskName.
struct QueueMessage {
  long Type;
  unsigned char Body[8188];
};

// The child's whole life. It is entered with all signals blocked; `ordinary` is the mask to return
// to, `agent` the process that it belongs to.
[[noreturn]] void RunReader(LIpcLinkData* data, const ReaderChannels& channels,
                            const sigset_t& ordinary, pid_t agent);
