#include "protocols/lipc_board.h"

#include <sys/mman.h>

#include <new>

namespace {

enum : std::uint32_t {
  kFree = 0,
  kWaiting = 1,
  kDelivered = 2,   // by the child
  kHandedOver = 3,  // to the agent, which has not put it yet
  kStatusMask = 3,
  kNextUse = 4
};

std::uint32_t StatusOf(std::uint32_t state) { return state & kStatusMask; }

bool HasName(const BoardSlot& slot, std::int32_t taskName, std::uint16_t astInd) {
  return slot.TaskName == taskName && slot.AstInd == astInd;
}

BoardRequest RequestOf(const BoardSlot& slot) {
  return {.TaskName = slot.TaskName,
          .AstInd = slot.AstInd,
          .Socket = slot.Socket,
          .Serial = slot.Serial};
}

// The next use of the slot has another count: a reader that looked before sees the difference.
void Release(BoardSlot& slot) { slot.State = (slot.State & ~kStatusMask) + kNextUse; }

BoardSlot* FreeSlot(ReaderBoard* board) {
  const std::uint32_t used = board->SlotsUsed;
  for (std::uint32_t i = 0; i < used; ++i) {
    if (StatusOf(board->Slots[i].State) == kFree) return &board->Slots[i];
  }
  return used < kBoardSlots ? &board->Slots[used] : nullptr;
}

// A delivered one stays: the child looks at it no more, and its record has not come yet.
void RemoveAllOf(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd) {
  for (std::uint32_t i = 0; i < board->SlotsUsed; ++i) {
    BoardSlot& slot = board->Slots[i];
    const std::uint32_t status = StatusOf(slot.State);
    if ((status == kWaiting || status == kHandedOver) && HasName(slot, taskName, astInd))
      Release(slot);
  }
}

}  // namespace

ReaderBoard* CreateBoard() {
  void* const memory =
      mmap(nullptr, sizeof(ReaderBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : new (memory) ReaderBoard();
}

void RemoveBoard(ReaderBoard* board) {
  if (board) munmap(board, sizeof *board);
}

void BoardAdd(ReaderBoard* board, const BoardRequest& request) {
  BoardSlot* const slot = FreeSlot(board);
  if (!slot) {
    RemoveAllOf(board, request.TaskName, request.AstInd);
    return;
  }
  slot->TaskName = request.TaskName;
  slot->AstInd = request.AstInd;
  slot->Socket = request.Socket;
  slot->Serial = request.Serial;
  slot->State = slot->State + kWaiting;
  const std::uint32_t index = static_cast<std::uint32_t>(slot - board->Slots);
  if (index >= board->SlotsUsed) board->SlotsUsed = index + 1;
}

bool BoardRemove(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd, bool delivered,
                 BoardRequest* removed) {
  for (std::uint32_t i = 0; i < board->SlotsUsed; ++i) {
    BoardSlot& slot = board->Slots[i];
    const std::uint32_t status = StatusOf(slot.State);
    if (status == kFree || (status == kDelivered) != delivered) continue;
    if (!HasName(slot, taskName, astInd)) continue;
    if (removed) *removed = RequestOf(slot);
    Release(slot);
    return true;
  }
  return false;
}

void BoardRemoveTask(ReaderBoard* board, std::int32_t taskName) {
  for (std::uint32_t i = 0; i < board->SlotsUsed; ++i) {
    BoardSlot& slot = board->Slots[i];
    const std::uint32_t status = StatusOf(slot.State);
    if ((status == kWaiting || status == kHandedOver) && slot.TaskName == taskName) Release(slot);
  }
}

// The child first says where it writes and then looks at Kept and Closed; the agent first sets
// them and then looks where the child writes. So at least one of the two sees the other.
bool BoardReserve(ReaderBoard* board, int socket) {
  board->Kept[socket] = 1;
  return board->SendingTo != socket;
}

bool BoardTakeDelivered(ReaderBoard* board, BoardRequest* request) {
  for (std::uint32_t i = 0; i < board->SlotsUsed; ++i) {
    BoardSlot& slot = board->Slots[i];
    if (StatusOf(slot.State) != kDelivered) continue;
    *request = RequestOf(slot);
    Release(slot);
    return true;
  }
  return false;
}

BoardSlot* BoardFind(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd,
                     BoardRequest* request, std::uint32_t* state) {
  BoardSlot* found = nullptr;
  for (std::uint32_t i = 0; i < board->SlotsUsed; ++i) {
    BoardSlot& slot = board->Slots[i];
    const std::uint32_t before = slot.State;
    if (StatusOf(before) != kWaiting || !HasName(slot, taskName, astInd)) continue;
    const BoardRequest seen = RequestOf(slot);
    if (slot.State != before) continue;
    if (found) return nullptr;
    found = &slot;
    *request = seen;
    *state = before;
  }
  return found;
}

void BoardMarkDelivered(BoardSlot* slot, std::uint32_t state) {
  slot->State.compare_exchange_strong(state, (state & ~kStatusMask) + kDelivered);
}

void BoardMarkHandedOver(BoardSlot* slot, std::uint32_t state) {
  slot->State.compare_exchange_strong(state, (state & ~kStatusMask) + kHandedOver);
}

bool BoardBeginSend(ReaderBoard* board, int socket) {
  board->SendingTo = socket;
  if (board->Kept[socket] == 0 && board->Closed == 0) return true;
  board->SendingTo = 0;
  return false;
}

void BoardEndSend(ReaderBoard* board) { board->SendingTo = 0; }
