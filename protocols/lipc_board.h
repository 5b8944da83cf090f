// What the agent and a LOCALI reader child share: the unanswered requests, so that the child knows
// the connection of an answer, and the marks by which the two never write to one connection at the
// same time. Lock-free: the agent adds and removes, the child looks up and marks as delivered.
#pragma once
#include <sys/select.h>

#include <atomic>
#include <cstdint>

constexpr std::uint32_t kBoardSlots = 2048;  // requests beyond are answered through the agent

struct BoardRequest {
  std::int32_t TaskName;
  std::uint16_t AstInd;
  std::int32_t Socket;   // the connection that asked
  std::uint32_t Serial;  // its serial number: the same descriptor may have become another one
};

// State counts the uses of the slot, with a status in the two low bits, so that a reader notices
// when the slot changes under its hands.
struct BoardSlot {
  std::atomic<std::uint32_t> State;
  std::atomic<std::int32_t> TaskName;
  std::atomic<std::int32_t> Socket;
  std::atomic<std::uint32_t> Serial;
  std::atomic<std::uint16_t> AstInd;
};

// All zero when new.
struct ReaderBoard {
  std::atomic<std::int32_t> SendingTo;         // connection that the child is writing to; 0: none
  std::atomic<std::uint8_t> Closed;            // the child may not write to connections any more
  std::atomic<std::uint32_t> SlotsUsed;        // slots from here on were never used
  std::atomic<std::uint8_t> Kept[FD_SETSIZE];  // the agent keeps bytes for this connection
  BoardSlot Slots[kBoardSlots];
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(std::atomic<std::uint16_t>::is_always_lock_free);
static_assert(std::atomic<std::uint8_t>::is_always_lock_free);

ReaderBoard* CreateBoard();  // null: errno says why
void RemoveBoard(ReaderBoard* board);

// The agent's side. Adds a request; when there is no room every trace of an older one with the
// same name is removed, so that the child cannot take one for the other.
void BoardAdd(ReaderBoard* board, const BoardRequest& request);

// A request has been answered, by the child itself or through the agent; which one it
// was goes to *removed. False: there was none.
bool BoardRemove(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd, bool delivered,
                 BoardRequest* removed = nullptr);

void BoardRemoveTask(ReaderBoard* board, std::int32_t taskName);

// Makes the child leave a connection to the agent; false while the child is writing to it.
bool BoardReserve(ReaderBoard* board, int socket);

// Takes a delivered request from the board; false: there is none.
bool BoardTakeDelivered(ReaderBoard* board, BoardRequest* request);

// The child's side. The only request with this name that has not been answered, or null when
// there is none or more than one; *state is for BoardMarkDelivered.
BoardSlot* BoardFind(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd,
                     BoardRequest* request, std::uint32_t* state);
void BoardMarkDelivered(BoardSlot* slot, std::uint32_t state);

// The agent is given the answer: a second one is not for the child to deliver.
void BoardMarkHandedOver(BoardSlot* slot, std::uint32_t state);

// Between the two the child may write to the connection; false: the agent has to.
bool BoardBeginSend(ReaderBoard* board, int socket);
void BoardEndSend(ReaderBoard* board);
