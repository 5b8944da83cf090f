// The reader child of a LOCALI link, played in a scripted run.
#pragma once
#include <string>

#include "protocols/lipc.h"
#include "tests/fuzz/agent_peers.h"

namespace reader {

// What becomes of a child that has begun to write to a client itself.
enum class End { DiesUnsaid, DiesHavingSaid, Tells, TellsToo };

// The living reader of a connected link; null: there is none.
LIpcLinkData* Of(const Link* link);

void Die(const LIpcLinkData& data);

// The agent is handed the answer.
void HandOver(const LIpcLinkData& data, const Tag& tag, const std::string& answer);

// The child writes the answer to the client itself; then the record follows, or the child ends
// before: having said that it has written, or not. What it may not write it hands over.
void Deliver(LIpcLinkData* data, const Tag& tag, const std::string& answer, End end);

}  // namespace reader
