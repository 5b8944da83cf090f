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
// use, and chains of the records whose pair has the same hash. It is as large as the array.
struct MsgInfoIndex {
  std::uint64_t* Used;     // a bit for each record
  std::int32_t* Heads;     // for each hash the first record of its chain, -1: none
  std::int32_t* Next;      // for each record the next of its chain, -1: none
  std::int32_t Capacity;   // a power of two
  std::int32_t InFlight;   // records in use
  std::int32_t FirstWord;  // in the words of Used before it no bit is clear
};
MsgInfoIndex msgInfoIndex;
std::int32_t inFlightOf[FD_SETSIZE];  // records in use of each connection

constexpr std::int32_t kWordBits = 64;

std::int32_t WordsFor(std::int32_t records) { return (records + kWordBits - 1) / kWordBits; }

std::int32_t* ChainOf(std::int32_t taskName, std::uint16_t astInd) {
  const std::uint32_t pair = static_cast<std::uint32_t>(taskName) * 0x9E3779B1U + astInd;
  const std::uint32_t hash = pair ^ (pair >> 15);
  return msgInfoIndex.Heads + (hash & static_cast<std::uint32_t>(msgInfoIndex.Capacity - 1));
}

void Enter(std::int32_t slot, const MsgInfo& info) {
  msgInfoIndex.Used[slot / kWordBits] |= std::uint64_t{1} << (slot % kWordBits);
  std::int32_t* const head = ChainOf(info.TaskName, info.AstInd);
  msgInfoIndex.Next[slot] = *head;
  *head = slot;
  ++msgInfoIndex.InFlight;
}

void Leave(std::int32_t slot, const MsgInfo& info) {
  const std::int32_t word = slot / kWordBits;
  msgInfoIndex.Used[word] &= ~(std::uint64_t{1} << (slot % kWordBits));
  msgInfoIndex.FirstWord = std::min(msgInfoIndex.FirstWord, word);
  std::int32_t* at = ChainOf(info.TaskName, info.AstInd);
  while (*at != slot) at = &msgInfoIndex.Next[*at];
  *at = msgInfoIndex.Next[slot];
  --msgInfoIndex.InFlight;
}

void FreeIndex(MsgInfoIndex& index) {
  std::free(index.Used);
  std::free(index.Heads);
  std::free(index.Next);
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
  index.Capacity = capacity;
  if (index.Used && index.Heads && index.Next) {
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
    if (endOfA || endOfB || Upper(a[i]) != Upper(b[i])) return 1;
  }
  return 0;
}

MsgInfo* FindMsgInfo(const Link* link, std::int32_t taskName, std::uint16_t astInd) {
  if (msgInfoIndex.InFlight == 0) return nullptr;
  std::int32_t first = -1;
  for (std::int32_t slot = *ChainOf(taskName, astInd); slot >= 0; slot = msgInfoIndex.Next[slot]) {
    const MsgInfo& info = g_DbcI.MsgInfoArray.Items[slot];
    const bool matches =
        info.TaskName == taskName && info.AstInd == astInd && (!link || info.Link == link);
    if (matches && (first < 0 || slot < first)) first = slot;
  }
  return first < 0 ? nullptr : &g_DbcI.MsgInfoArray.Items[first];
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
