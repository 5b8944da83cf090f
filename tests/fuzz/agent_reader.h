// The reader child of a LOCALI link, played in a scripted run.
#pragma once
#include <string>

#include "protocols/lipc.h"
#include "protocols/lipc_board.h"
#include "tests/fuzz/agent_peers.h"

namespace reader {

// What becomes of a child that has begun to write to a client itself.
enum class End { DiesUnsaid, DiesHavingSaid, Tells, TellsToo };

// The living reader of a connected link; null: there is none.
LIpcLinkData* Of(const Link* link);

void Die(const LIpcLinkData& data);

// The request of that name which the reader claims; Slot -1: none.
BoardRequest Claim(const LIpcLinkData& data, const Tag& tag);

// The record of an answer: it has been written, or handed over.
void Tell(const LIpcLinkData& data, const Tag& tag, RequestId request, bool handedOver);

// The agent is handed an answer with this text.
void HandOver(const LIpcLinkData& data, const Tag& tag, const std::string& text);

// The child writes the answer to the client itself; then the record follows, or the child ends
// before: having said that it has written, or not. What it may not write it hands over.
void Deliver(LIpcLinkData* data, const Tag& tag, const std::string& text, End end);

}  // namespace reader
