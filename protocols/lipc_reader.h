// The reader child of a connected LOCALI link.
#pragma once
#include <csignal>

#include "protocols/lipc.h"
#include "protocols/lipc_queue.h"

// What connects the two processes. Pipe: read end, write end. Pair: the agent's end, the child's.
struct ReaderChannels {
  int Pipe[2];
  int Pair[2];
};

// A message in the pair: the identity of its request, then its wire form.
inline unsigned char* Packet(ClientMessage* msg) { return reinterpret_cast<unsigned char*>(msg); }
static_assert(sizeof(RequestId) == offsetof(ClientMessage, Length));

// The child's whole life. It is entered with all signals blocked; `ordinary` is the mask to return
// to, `agent` the process that it belongs to.
[[noreturn]] void RunReader(LIpcLinkData* data, const ReaderChannels& channels,
                            const sigset_t& ordinary, pid_t agent);
