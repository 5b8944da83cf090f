// What became of every request: the ledger of a story. It is told what the clients ask, what
// reaches the nodes, what the system's calls have come to and what is answered, and knows from that
// which answers there may be.
#pragma once
#include <cstdint>
#include <deque>
#include <string>

#include "client/message.h"
#include "tests/fuzz/agent_peers.h"
#include "tests/simulate/story.h"

namespace ledger {

void Begin(const story::Story& story);
void End();

// The text of a new request, which tells it from all others; its tag. Management has tags of its
// own.
std::string NextText(std::size_t size);
std::uint16_t NextTag();
std::uint16_t NextManagementTag();

// What a node has received and not answered, in order; of the queue with descriptor -1.
struct Owed {
  int Number;
  ::Tag Tag;
};
std::deque<Owed>& OwedBy(int node);

// A node gives an answer to the request: from then on its client may get it. The answer's text.
std::string Give(int number, int node);
// The number in a text, or -1.
int NumberIn(const std::string& frame, std::size_t stringsAt);

void Ticked();
// The reader child of a LOCALI link ends.
void ReaderDies();
// The agent has taken a request in and serves it now.
void RequestIsRead(const ClientMessage& msg);
// It is not known whether the answer to a request has come whole: its connection may be closed.
void Doubt(int number);
// The node on this connection misbehaves.
void MayFailAt(int node);

// Before the agent goes on.
void BeforePass();
// At each wait: the clock of the ledger goes on, the connections closed since had a reason.
void AtWait();

// The story is over and everything has settled: what is still open is owed by a node, or was
// dropped by a rule that has a name.
void Settle();

struct Totals {
  unsigned long Requests, ByNodes, ByAgent, Dropped, Open;
  std::uint64_t Digest;  // of all that clients and nodes have seen, in order
};
const Totals& Result();
std::string Drops();  // how many by which rule

}  // namespace ledger
