#include "protocols/lipc_board.h"

#include <sys/mman.h>

#include <new>

namespace {

enum : std::uint8_t { kNobody = 0, kChild = 1, kAgent = 2 };  // writers

std::uint64_t WordOf(std::int32_t taskName, std::uint16_t astInd, BoardState state) {
  return std::uint64_t{static_cast<std::uint32_t>(taskName)} << 32 | std::uint64_t{astInd} << 16 |
         static_cast<std::uint64_t>(state);
}

BoardState StateOf(std::uint64_t word) { return static_cast<BoardState>(word & 0xFFFF); }

std::uint64_t WordOf(const BoardRequest& request, BoardState state) {
  return WordOf(request.TaskName, request.AstInd, state);
}

BoardRequest RequestAt(const ReaderBoard* board, std::int32_t slot, std::uint64_t word) {
  const BoardEntry& entry = board->Entries[slot];
  return {.Id = {slot, entry.Serial},
          .TaskName = static_cast<std::int32_t>(word >> 32),
          .AstInd = static_cast<std::uint16_t>(word >> 16),
          .Socket = entry.Socket,
          .Connection = entry.Connection};
}

// The entry is the agent's: free, or a request that the child has not claimed.
bool TakeEntry(std::atomic<std::uint64_t>& word) {
  std::uint64_t seen = word;
  if (StateOf(seen) == BoardState::Waiting) return word.compare_exchange_strong(seen, 0);
  return StateOf(seen) == BoardState::Free;
}

bool StandsHere(const ReaderBoard* board, RequestId id) {
  return id.Slot >= 0 && id.Slot < kBoardSlots && board->Entries[id.Slot].Serial == id.Serial;
}

// The waiting request with this name that was asked first; Slot -1: there is none.
RequestId FirstAsked(const ReaderBoard* board, std::uint64_t word) {
  const std::int32_t used = board->Used;
  RequestId first = {-1, 0};
  for (std::int32_t slot = 0; slot < used; ++slot) {
    if (board->Words[slot] != word) continue;
    const RequestId other = {slot, board->Entries[slot].Serial};
    if (first.Slot < 0 || IsEarlier(other, first)) first = other;
  }
  return first;
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
  const std::int32_t slot = request.Id.Slot;
  if (slot < 0 || slot >= kBoardSlots || !TakeEntry(board->Words[slot])) {
    board->AgentDecides = true;
    return;
  }
  BoardEntry& entry = board->Entries[slot];
  entry.Serial = request.Id.Serial;
  entry.Socket = request.Socket;
  entry.Connection = request.Connection;
  board->Words[slot] = WordOf(request, BoardState::Waiting);
  if (slot >= board->Used) board->Used = slot + 1;
}

RequestId BoardRemove(ReaderBoard* board, std::int32_t slot) {
  const RequestId id = {slot, board->Entries[slot].Serial};
  board->Words[slot] = 0;
  return id;
}

bool BoardIsClaimed(const ReaderBoard* board, RequestId id) {
  return StandsHere(board, id) && StateOf(board->Words[id.Slot]) > BoardState::Waiting;
}

bool BoardWithdraw(ReaderBoard* board, RequestId id) {
  return !StandsHere(board, id) || TakeEntry(board->Words[id.Slot]);
}

BoardState BoardClose(ReaderBoard* board, std::int32_t slot, BoardRequest* request) {
  std::atomic<std::uint64_t>& word = board->Words[slot];
  std::uint64_t seen = word;
  while (StateOf(seen) != BoardState::Free && StateOf(seen) != BoardState::Writing) {
    if (word.compare_exchange_strong(seen, 0)) break;
  }
  *request = RequestAt(board, slot, seen);
  return StateOf(seen);
}

bool BoardTakeConnection(ReaderBoard* board, int socket) {
  std::uint8_t nobody = kNobody;
  return board->Writer[socket].compare_exchange_strong(nobody, kAgent) || nobody == kAgent;
}

void BoardGiveConnection(ReaderBoard* board, int socket) {
  std::uint8_t agent = kAgent;
  board->Writer[socket].compare_exchange_strong(agent, kNobody);
}

bool BoardClaim(ReaderBoard* board, std::int32_t taskName, std::uint16_t astInd,
                BoardRequest* request) {
  const std::uint64_t waiting = WordOf(taskName, astInd, BoardState::Waiting);
  const std::uint64_t claimed = WordOf(taskName, astInd, BoardState::Claimed);
  for (;;) {
    const std::int32_t slot = FirstAsked(board, waiting).Slot;
    if (slot < 0 || board->AgentDecides) return false;
    std::uint64_t seen = waiting;
    if (!board->Words[slot].compare_exchange_strong(seen, claimed)) continue;
    *request = RequestAt(board, slot, claimed);
    return true;
  }
}

bool BoardBeginWrite(ReaderBoard* board, const BoardRequest& request) {
  std::uint8_t nobody = kNobody;
  if (!board->Writer[request.Socket].compare_exchange_strong(nobody, kChild)) return false;
  std::uint64_t claimed = WordOf(request, BoardState::Claimed);
  if (board->Words[request.Id.Slot].compare_exchange_strong(claimed,
                                                            WordOf(request, BoardState::Writing)))
    return true;
  board->Writer[request.Socket] = kNobody;
  return false;
}

void BoardEndWrite(ReaderBoard* board, const BoardRequest& request, bool written) {
  board->Words[request.Id.Slot] =
      WordOf(request, written ? BoardState::Written : BoardState::Claimed);
  board->Writer[request.Socket] = kNobody;
}
