#include "client/primitiv.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "core/trace.h"
#include "link/link.h"

static constexpr char Module[] = "primitiv";

namespace {

int Upper(char c) { return std::toupper(static_cast<unsigned char>(c)); }

// Beside the array of requests in flight stands an index, so that neither the free record to take
// nor the record of an answer is searched for among thousands: for each record whether it is in
// use, and chains of the records whose pair has the same hash, in array order: of requests with the
// same pair, however many a client sends, the first is found at once. It is as large as the array.
struct MsgInfoIndex {
  std::uint64_t* Used;     // a bit for each record
  std::int32_t* Heads;     // for each hash the first record of its chain, -1: none
  std::int32_t* Next;      // for each record the next of its chain, -1: none
  std::int32_t* Previous;  // the one before; for the first of a chain the last
  std::int32_t Capacity;   // a power of two
  std::int32_t InFlight;   // records in use
  std::int32_t FirstWord;  // in the words of Used before it no bit is clear
};
MsgInfoIndex msgInfoIndex;
std::int32_t inFlightOf[FD_SETSIZE];  // records in use of each connection

constexpr std::int32_t kWordBits = 64;

std::int32_t WordsFor(std::int32_t records) { return (records + kWordBits - 1) / kWordBits; }

// Nobody who does not know this number can make pairs that meet in one chain. It comes from where
// the system has put the program and its stack.
std::uint64_t HashFactor() {
  static std::uint64_t factor;
  if (factor == 0) {
    const auto program = reinterpret_cast<std::uintptr_t>(&factor);
    const auto stack = reinterpret_cast<std::uintptr_t>(&program);
    factor = ((stack << 17 ^ program) * 0x9E3779B97F4A7C15U) | 1;
  }
  return factor;
}

std::int32_t* ChainOf(std::int32_t taskName, std::uint16_t astInd) {
  const std::uint64_t pair = std::uint64_t{static_cast<std::uint32_t>(taskName)} << 16 | astInd;
  const int bits = std::countr_zero(static_cast<std::uint32_t>(msgInfoIndex.Capacity));
  return msgInfoIndex.Heads + (pair * HashFactor() >> (64 - bits));
}

// The record of the chain before which this one belongs; -1: at its end. That is where most belong:
// free records are taken from the front of the array on.
std::int32_t Successor(std::int32_t head, std::int32_t slot) {
  if (head < 0 || msgInfoIndex.Previous[head] < slot) return -1;
  while (head < slot) head = msgInfoIndex.Next[head];
  return head;
}

void Enter(std::int32_t slot, const MsgInfo& info) {
  MsgInfoIndex& index = msgInfoIndex;
  index.Used[slot / kWordBits] |= std::uint64_t{1} << (slot % kWordBits);
  std::int32_t& head = *ChainOf(info.TaskName, info.AstInd);
  const std::int32_t next = Successor(head, slot);
  const std::int32_t following = next >= 0 ? next : head;  // in the ring of Previous
  const std::int32_t previous = following >= 0 ? index.Previous[following] : slot;
  index.Next[slot] = next;
  index.Previous[slot] = previous;
  if (following >= 0) index.Previous[following] = slot;
  if (head < 0 || next == head)
    head = slot;
  else
    index.Next[previous] = slot;
  ++index.InFlight;
}

void Leave(std::int32_t slot, const MsgInfo& info) {
  MsgInfoIndex& index = msgInfoIndex;
  const std::int32_t word = slot / kWordBits;
  index.Used[word] &= ~(std::uint64_t{1} << (slot % kWordBits));
  index.FirstWord = std::min(index.FirstWord, word);
  std::int32_t& head = *ChainOf(info.TaskName, info.AstInd);
  const std::int32_t next = index.Next[slot], previous = index.Previous[slot];
  if (head == slot)
    head = next;
  else
    index.Next[previous] = next;
  if (next >= 0)
    index.Previous[next] = previous;
  else if (head >= 0)
    index.Previous[head] = previous;
  --index.InFlight;
}

void FreeIndex(MsgInfoIndex& index) {
  std::free(index.Used);
  std::free(index.Heads);
  std::free(index.Next);
  std::free(index.Previous);
  index = {};
}

// An empty index for an array of that size; false: memory ran out.
bool MakeIndex(MsgInfoIndex& index, std::int32_t capacity) {
  const std::size_t count = static_cast<std::size_t>(capacity);
  index = {};
  index.Used = static_cast<std::uint64_t*>(
      std::calloc(static_cast<std::size_t>(WordsFor(capacity)), sizeof *index.Used));
  index.Heads = static_cast<std::int32_t*>(std::malloc(count * sizeof *index.Heads));
  index.Next = static_cast<std::int32_t*>(std::malloc(count * sizeof *index.Next));
  index.Previous = static_cast<std::int32_t*>(std::malloc(count * sizeof *index.Previous));
  index.Capacity = capacity;
  if (index.Used && index.Heads && index.Next && index.Previous) {
    std::fill_n(index.Heads, capacity, -1);
    return true;
  }
  FreeIndex(index);
  return false;
}

// Doubles the array of requests in flight together with its index; false: both are as they were.
bool GrowMsgInfos() {
  MsgInfoIndex grown;
  const std::int32_t old = g_DbcI.MsgInfoArray.Capacity;
  if (!MakeIndex(grown, old ? 2 * old : 2)) return false;
  if (!Grow(g_DbcI.MsgInfoArray)) {
    FreeIndex(grown);
    return false;
  }
  FreeIndex(msgInfoIndex);
  msgInfoIndex = grown;
  for (std::int32_t slot = 0; slot < old; ++slot) {
    if (InUse(g_DbcI.MsgInfoArray.Items[slot])) Enter(slot, g_DbcI.MsgInfoArray.Items[slot]);
  }
  return true;
}

// The first record that is not in use, or -1.
std::int32_t FirstFreeSlot() {
  const std::int32_t words = WordsFor(g_DbcI.MsgInfoArray.Capacity);
  std::int32_t& word = msgInfoIndex.FirstWord;
  while (word < words && ~msgInfoIndex.Used[word] == 0) ++word;
  if (word == words) return -1;
  const std::int32_t slot = word * kWordBits + std::countr_one(msgInfoIndex.Used[word]);
  return slot < g_DbcI.MsgInfoArray.Capacity ? slot : -1;
}

bool IsConnection(int socket) { return socket >= 0 && socket < FD_SETSIZE; }

void CountInFlight(const MsgInfo& info, std::int32_t change) {
  if (IsConnection(info.Socket)) inFlightOf[info.Socket] += change;
}

std::int32_t SlotOf(const MsgInfo* info) {
  return static_cast<std::int32_t>(info - g_DbcI.MsgInfoArray.Items);
}

}  // namespace

int SaveUnsendMsg(const char* file, int line, const ClientMessage* msg, Link* link) {
  ENTER();
  SavedMessage* const free = FirstFree(g_DbcI.SavedArray);
  SavedMessage* const saved = free ? free : Grow(g_DbcI.SavedArray);
  if (!saved) return LEAVE(-1, "FAILED allocation memory");
  CopyMessage(&saved->Message, msg);
  saved->Link = link;
  if (free) return LEAVE(0, "SUCCESS save in exist element of SavedArray");
  return 0;
}

SavedMessage* GetNextUnsendMsg(SavedMessage* prev) { return NextInUse(g_DbcI.SavedArray, prev); }

int SaveMsgInfo(const char* file, int line, const MsgInfo* info) {
  ENTER();
  std::int32_t slot = FirstFreeSlot();
  const bool existed = slot >= 0;
  if (!existed) {
    slot = g_DbcI.MsgInfoArray.Capacity;
    if (!GrowMsgInfos()) return LEAVE(-1, "FAILED allocat memory");
  }
  g_DbcI.MsgInfoArray.Items[slot] = *info;
  Enter(slot, *info);
  CountInFlight(*info, 1);
  if (existed) return LEAVE(0, "SUCCESS save in exist array element");
  return 0;
}

MsgInfo* GetNextMsgInfo(const char* file, int line, MsgInfo* prev) {
  ENTER();
  MsgInfo* const next = NextInUse(g_DbcI.MsgInfoArray, prev);
  if (!next) return LEAVE(next, "FAILED not found");
  return next;
}

Link* GetNextActiveLink(const char* file, int line, Link* prev) {
  ENTER();
  Link* link = prev && !prev->WasEntry ? prev->Next : g_DbcI.LinkList;
  bool atStart = !prev || prev->WasEntry;
  while (link && (atStart || link != g_DbcI.LinkList)) {
    if (link->State != kLinkDisconnected) return LEAVE(link, "SUSSESS");
    atStart = false;
    link = link->Next;
  }
  return LEAVE(static_cast<Link*>(nullptr), "FAILED link not found");
}

int CompareNodeName(const char* a, const char* b) {
  for (std::size_t i = 0; i < kNodeNameMax; ++i) {
    const bool endOfA = a[i] == '\0' || a[i] == ' ';
    const bool endOfB = b[i] == '\0' || b[i] == ' ';
    if (endOfA && endOfB) return 0;
    if (endOfA || endOfB || (a[i] != b[i] && Upper(a[i]) != Upper(b[i]))) return 1;
  }
  return 0;
}

MsgInfo* FindMsgInfo(const Link* link, std::int32_t taskName, std::uint16_t astInd) {
  if (msgInfoIndex.InFlight == 0) return nullptr;
  for (std::int32_t slot = *ChainOf(taskName, astInd); slot >= 0; slot = msgInfoIndex.Next[slot]) {
    MsgInfo& info = g_DbcI.MsgInfoArray.Items[slot];
    if (info.TaskName == taskName && info.AstInd == astInd && (!link || info.Link == link))
      return &info;
  }
  return nullptr;
}

// The records differ in nothing else: their connections are exchanged.
void PutConnectionFirst(const Link* link, std::int32_t taskName, std::uint16_t astInd, int socket) {
  MsgInfo* const first = FindMsgInfo(link, taskName, astInd);
  if (!first || first->Socket == socket) return;
  for (std::int32_t slot = *ChainOf(taskName, astInd); slot >= 0; slot = msgInfoIndex.Next[slot]) {
    MsgInfo& info = g_DbcI.MsgInfoArray.Items[slot];
    if (info.TaskName != taskName || info.AstInd != astInd || info.Link != link) continue;
    if (info.Socket == socket) return std::swap(info.Socket, first->Socket);
  }
}

void ReleaseMsgInfo(MsgInfo* info) {
  Leave(SlotOf(info), *info);
  CountInFlight(*info, -1);
  info->Link = nullptr;
}

void ClearMsgInfo(MsgInfo* info) {
  ReleaseMsgInfo(info);
  *info = {};
}

std::int32_t RequestsInFlight() { return msgInfoIndex.InFlight; }

std::int32_t RequestsInFlight(int socket) { return IsConnection(socket) ? inFlightOf[socket] : 0; }

void ForgetRequests() {
  Free(g_DbcI.SavedArray);
  Free(g_DbcI.MsgInfoArray);
  FreeIndex(msgInfoIndex);
  std::fill(std::begin(inFlightOf), std::end(inFlightOf), 0);
}

bool TakeMsgInfo(const Link* link, std::int32_t* index, MsgInfo* taken) {
  for (; *index < g_DbcI.MsgInfoArray.Capacity; ++*index) {
    MsgInfo& info = g_DbcI.MsgInfoArray.Items[*index];
    if (info.Link != link) continue;
    *taken = info;
    ClearMsgInfo(&info);
    return true;
  }
  return false;
}

void ForgetConnection(int socket) {
  for (MsgInfo& info : g_DbcI.MsgInfoArray) {
    if (!InUse(info) || info.Socket != socket) continue;
    CountInFlight(info, -1);
    info.Socket = -1;
  }
  for (SavedMessage& saved : g_DbcI.SavedArray) {
    if (InUse(saved) && saved.Message.ClientSocket == socket) saved.Message.ClientSocket = -1;
  }
}

int SavedRequests(int socket) {
  int count = 0;
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    count += InUse(saved) && saved.Message.ClientSocket == socket;
  }
  return count;
}
