// What the agent and a LOCALI reader child share: which requests are unanswered, and who is
// writing to which connection.
//
// The queue tells of an answer only the task name and the tag. On the board stands, for each record
// of a request in flight, that name beside the request's identity and its connection. The entry of
// a request has the number of its record. Its state says to whom it belongs:
//
//              BoardAdd                 BoardClaim                BoardBeginWrite
//     Free ─────────────▶ Waiting ─────────────────▶ Claimed ──────────────────────▶ Writing
//      ▲    (agent)          │         (child)        │ ▲  │         (child)            │
//      ├─────────────────────┘                        │ └──┼──── the client takes ◀─────┤
//      │ BoardWithdraw, BoardClose (agent)            │    │      nothing now           │
//      ├──────────────────────────────────────────────┘    │                            ▼
//      │ BoardRemove (agent): the child's record has come; BoardClose              Written
//      └────────────────────────────────────────────────────────────────────────────────┘
//
// 1. Name and state are one word and change in one step. So a request is taken by one side alone:
//    the child claims it for an answer, or the agent withdraws it.
// 2. From Claimed on the entry is the child's: the agent fills it for another request only when the
//    record has come that the child writes of each answer. What the child reads of an entry that it
//    has claimed is therefore the request's, however often the record was used before.
// 3. Of several requests with one name the one asked first is claimed: serial numbers tell. While
//    some request in flight does not stand here that may be another one: AgentDecides, and the
//    child claims none. The agent says so before it adds a later request, and the child asks after
//    it has looked: whoever has seen a later one is told.
// 4. The client gets an answer between Writing and Written. A child that is found dead there may
//    have written it or not, nobody can tell: the agent closes that connection, for its client
//    would get two answers, or none. In every other state it is known: Written is answered,
//    anything else is not, and what the child has handed over lies, with the identity, in the
//    agent's hands.
// 5. A connection has one writer: the child takes it before it writes and gives it back, the agent
//    takes it before it sends of what it keeps for a slow client, which may end within a message,
//    and gives it back when nothing is kept. (A message that is sent by itself goes into a stream
//    in one piece, so those of both sides need no order.)
// 6. To part, the agent says AgentDecides, or the child would take a later request of the name for
//    the first that is already closed; then it closes every entry. What was Waiting or Claimed is
//    the agent's from then on and the child can no longer write it; Writing is waited for while the
//    child lives.
//
// tests/model searches this, with the child dying anywhere.
#pragma once
#include <sys/select.h>

#include <atomic>
#include <cstdint>

#include "client/primitiv.h"

constexpr std::int32_t kBoardSlots = 4096;  // requests of records beyond are the agent's alone

struct BoardRequest {
  RequestId Id;
  std::int32_t TaskName;
  std::uint16_t AstInd;
  std::int32_t Socket;       // the connection that asked
  std::uint32_t Connection;  // its serial number: the same descriptor may have become another one
};

enum class BoardState : std::uint8_t { Free, Waiting, Claimed, Writing, Written };

struct BoardEntry {
  std::atomic<std::uint32_t> Serial;  // of the request
  std::int32_t Socket;
  std::uint32_t Connection;
};

// All zero when new.
struct ReaderBoard {
  std::atomic<std::int32_t> Used;                 // words from here on were never used
  std::atomic<bool> AgentDecides;                 // whose an answer is; the child claims none
  std::atomic<std::uint8_t> Writer[FD_SETSIZE];   // of each connection
  std::atomic<std::uint64_t> Words[kBoardSlots];  // task name, tag, state
  BoardEntry Entries[kBoardSlots];
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(std::atomic<std::uint8_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

ReaderBoard* CreateBoard();  // null: errno says why
void RemoveBoard(ReaderBoard* board);

// Serial numbers go round.
inline bool IsEarlier(RequestId one, RequestId other) {
  return static_cast<std::int32_t>(one.Serial - other.Serial) < 0;
}

// The agent's side

// A request is about to be sent.
void BoardAdd(ReaderBoard* board, const BoardRequest& request);

// The child has told of the request of this entry, which is free again.
RequestId BoardRemove(ReaderBoard* board, std::int32_t slot);

// The child has an answer to the request.
bool BoardIsClaimed(const ReaderBoard* board, RequestId id);

// The agent has found the request of an answer by its name. False: the child has an answer to it.
bool BoardWithdraw(ReaderBoard* board, RequestId id);

// For a link that is taken down: AgentDecides, then, for each record below Used,
// Closes the entry of one record and returns the state that it was in, with the request unless that
// is Free. Writing stays: the call is to be repeated while the child may come to its end.
BoardState BoardClose(ReaderBoard* board, std::int32_t slot, BoardRequest* request);

// Takes a connection, so that the child leaves it alone; false while the child is writing to it.
bool BoardTakeConnection(ReaderBoard* board, int socket);
void BoardGiveConnection(ReaderBoard* board, int socket);

// The child's side

// Takes the request that an answer with this name belongs to; false: there is none, or the agent
// has to decide.
bool BoardClaim(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd,
                BoardRequest* request);

// Between the two the child may write the answer; false: the agent has to.
bool BoardBeginWrite(ReaderBoard* board, const BoardRequest& request);
void BoardEndWrite(ReaderBoard* board, const BoardRequest& request, bool written);
