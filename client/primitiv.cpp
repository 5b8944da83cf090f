#include "client/primitiv.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>

#include "client/parking.h"
#include "client/slots.h"
#include "core/stats.h"
#include "core/trace.h"

static constexpr char Module[] = "primitiv";

namespace {

// Of the requests of closed connections a link keeps so many: that wait, that are in flight.
constexpr std::int32_t kGoneMax[2] = {1024, 262144};

Slots savedSlots, msgInfoSlots;

int Upper(char c) { return std::toupper(static_cast<unsigned char>(c)); }

// Beside the array of requests in flight stands an index, so that the record of an answer is not
// searched for among thousands: chains of the records whose pair has the same hash, in array order:
// of requests with the same pair, however many a client sends, the first is found at once.
struct NameIndex {
  std::int32_t* Heads;     // for each hash the first record of its chain, -1: none
  std::int32_t* Next;      // for each record the next of its chain, -1: none
  std::int32_t* Previous;  // the one before; for the first of a chain the last
  std::int32_t Capacity;   // of the array: a power of two
};
NameIndex names;
RequestId lastSaved;

// Nobody who does not know this number can make pairs that meet in one chain. It comes from where
// the system has put the program and its stack.
std::uint64_t HashFactor() {
  static std::uint64_t factor;
  if (factor == 0) {
    const std::uint64_t program = reinterpret_cast<std::uintptr_t>(&factor);
    const std::uint64_t stack = reinterpret_cast<std::uintptr_t>(&program);
    factor = ((stack << 17 ^ program) * 0x9E3779B97F4A7C15U) | 1;
  }
  return factor;
}

std::int32_t* ChainOf(std::int32_t taskName, std::uint16_t astInd) {
  const std::uint64_t pair = std::uint64_t{static_cast<std::uint32_t>(taskName)} << 16 | astInd;
  const int bits = std::countr_zero(static_cast<std::uint32_t>(names.Capacity));
  return names.Heads + (pair * HashFactor() >> (64 - bits));
}

// The record of the chain before which this one belongs; -1: at its end. That is where most belong:
// free records are taken from the front of the array on.
std::int32_t Successor(std::int32_t head, std::int32_t slot) {
  if (head < 0 || names.Previous[head] < slot) return -1;
  while (head < slot) head = names.Next[head];
  return head;
}

void EnterName(std::int32_t slot, const MsgInfo& info) {
  std::int32_t& head = *ChainOf(info.TaskName, info.AstInd);
  const std::int32_t next = Successor(head, slot);
  const std::int32_t following = next >= 0 ? next : head;  // in the ring of Previous
  const std::int32_t previous = following >= 0 ? names.Previous[following] : slot;
  names.Next[slot] = next;
  names.Previous[slot] = previous;
  if (following >= 0) names.Previous[following] = slot;
  if (head < 0 || next == head)
    head = slot;
  else
    names.Next[previous] = slot;
}

void LeaveName(std::int32_t slot, const MsgInfo& info) {
  std::int32_t& head = *ChainOf(info.TaskName, info.AstInd);
  const std::int32_t next = names.Next[slot], previous = names.Previous[slot];
  if (head == slot)
    head = next;
  else
    names.Next[previous] = next;
  if (next >= 0)
    names.Previous[next] = previous;
  else if (head >= 0)
    names.Previous[head] = previous;
}

void FreeNames(NameIndex& index) {
  std::free(index.Heads);
  std::free(index.Next);
  std::free(index.Previous);
  index = {};
}

// An empty index for an array of that size; false: memory ran out.
bool MakeNames(NameIndex& index, std::int32_t capacity) {
  const std::size_t size = static_cast<std::size_t>(capacity) * sizeof(std::int32_t);
  index = {.Heads = static_cast<std::int32_t*>(std::malloc(size)),
           .Next = static_cast<std::int32_t*>(std::malloc(size)),
           .Previous = static_cast<std::int32_t*>(std::malloc(size)),
           .Capacity = capacity};
  if (index.Heads && index.Next && index.Previous) {
    std::fill_n(index.Heads, capacity, -1);
    return true;
  }
  FreeNames(index);
  return false;
}

// Doubles the array of requests in flight with all that stands beside it; false: nothing changed.
bool GrowMsgInfos() {
  GrowArray<MsgInfo>& array = g_DbcI.MsgInfoArray;
  const std::int32_t old = array.Capacity;
  NameIndex grown;
  if (!MakeNames(grown, old ? 2 * old : 2)) return false;
  if (!ReserveSlots(msgInfoSlots, grown.Capacity) || !Grow(array)) {
    FreeNames(grown);
    return false;
  }
  msgInfoSlots.Capacity = array.Capacity;
  FreeNames(names);
  names = grown;
  for (std::int32_t slot = 0; slot < old; ++slot) {
    if (InUse(array.Items[slot])) EnterName(slot, array.Items[slot]);
  }
  return true;
}

bool GrowSaved() {
  GrowArray<SavedMessage>& array = g_DbcI.SavedArray;
  if (!ReserveSlots(savedSlots, array.Capacity ? 2 * array.Capacity : 2) || !Grow(array))
    return false;
  savedSlots.Capacity = array.Capacity;
  return true;
}

std::int32_t SlotOf(const MsgInfo* info) {
  return static_cast<std::int32_t>(info - g_DbcI.MsgInfoArray.Items);
}

std::int32_t SlotOf(const SavedMessage* saved) {
  return static_cast<std::int32_t>(saved - g_DbcI.SavedArray.Items);
}

// A request belongs to its connection, after that has been closed to its link.
SlotList& OwnerOf(int socket, Link* link, int kind) {
  return IsConnectionNumber(socket) ? g_Connections[socket].Requests[kind] : link->Books.Gone[kind];
}

// Shows what is counted.
void TellCounts(int socket, const Link* link) {
  StatsTellCounts(link->Books.StatsRow, CountsOf(link), socket, CountsOf(socket));
}

void TellCounts(const Link* link) { StatsTellCounts(link->Books.StatsRow, CountsOf(link), -1, {}); }

void FewerOf(int socket, Link* link, int kind) {
  if (IsConnectionNumber(socket)) return ReleaseIfRoom(socket);
  if (link->Books.Gone[kind].Count < kGoneMax[kind]) link->Books.ToldOfGone[kind] = 0;
}

void TellOfGone(Link* link, int kind) {
  if (link->Books.ToldOfGone[kind] != 0) return;
  link->Books.ToldOfGone[kind] = 1;
  LOG(kLogError,
      "Link %.8s: more than %d requests of closed connections %s. The oldest are dropped",
      link->NodeName, static_cast<int>(kGoneMax[kind]),
      kind == kWaiting ? "wait" : "are not answered");
}

// The oldest of what closed connections have left with the link is let go of.
void LimitGone(Link* link, int kind) {
  const SlotList& gone = link->Books.Gone[kind];
  while (gone.Count > kGoneMax[kind]) {
    TellOfGone(link, kind);
    if (kind == kWaiting)
      ReleaseSaved(&g_DbcI.SavedArray.Items[gone.First - 1]);
    else
      ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[gone.First - 1]);
  }
}

void HandToLink(int socket, int kind) {
  Slots& slots = kind == kWaiting ? savedSlots : msgInfoSlots;
  SlotList& own = g_Connections[socket].Requests[kind];
  while (own.First != 0) {
    const std::int32_t slot = own.First - 1;
    Link* link;
    if (kind == kWaiting) {
      g_DbcI.SavedArray.Items[slot].Message.ClientSocket = -1;
      link = g_DbcI.SavedArray.Items[slot].Link;
    } else {
      g_DbcI.MsgInfoArray.Items[slot].Socket = -1;
      link = g_DbcI.MsgInfoArray.Items[slot].Link;
    }
    MoveSlot(slots, own, link->Books.Gone[kind], slot);
    LimitGone(link, kind);
  }
}

// The first record of a chain, from `slot` on, with this pair and link (null: any).
MsgInfo* FirstOfName(std::int32_t slot, const Link* link, std::int32_t taskName,
                     std::uint16_t astInd) {
  for (; slot >= 0; slot = names.Next[slot]) {
    MsgInfo& info = g_DbcI.MsgInfoArray.Items[slot];
    if (info.TaskName == taskName && info.AstInd == astInd && (!link || info.Link == link))
      return &info;
  }
  return nullptr;
}

}  // namespace

int SaveUnsendMsg(const char* file, int line, const ClientMessage* msg, Link* link) {
  ENTER();
  std::int32_t slot = FirstFreeSlot(savedSlots);
  const bool existed = slot >= 0;
  if (!existed) {
    slot = g_DbcI.SavedArray.Capacity;
    if (!GrowSaved()) return LEAVE(-1, "FAILED allocation memory");
  }
  SavedMessage& saved = g_DbcI.SavedArray.Items[slot];
  CopyMessage(&saved.Message, msg);
  saved.Link = link;
  EnterSlot(savedSlots, OwnerOf(msg->ClientSocket, link, kWaiting), slot);
  ++link->Books.Waiting;
  TellCounts(msg->ClientSocket, link);
  if (!IsConnectionNumber(msg->ClientSocket)) LimitGone(link, kWaiting);
  if (existed) return LEAVE(0, "SUCCESS save in exist element of SavedArray");
  return 0;
}

SavedMessage* GetNextUnsendMsg(SavedMessage* prev) {
  const std::int32_t slot = NextUsedSlot(savedSlots, prev ? SlotOf(prev) + 1 : 0);
  return slot < 0 ? nullptr : &g_DbcI.SavedArray.Items[slot];
}

int SaveMsgInfo(const char* file, int line, const MsgInfo* info) {
  ENTER();
  std::int32_t slot = FirstFreeSlot(msgInfoSlots);
  const bool existed = slot >= 0;
  if (!existed) {
    slot = g_DbcI.MsgInfoArray.Capacity;
    if (!GrowMsgInfos()) return LEAVE(-1, "FAILED allocat memory");
  }
  g_DbcI.MsgInfoArray.Items[slot] = *info;
  EnterName(slot, *info);
  EnterSlot(msgInfoSlots, OwnerOf(info->Socket, info->Link, kInFlight), slot);
  ++info->Link->Books.InFlight;
  lastSaved = {slot, msgInfoSlots.Notes[slot].Serial};
  if (!IsConnectionNumber(info->Socket)) LimitGone(info->Link, kInFlight);
  if (existed) return LEAVE(0, "SUCCESS save in exist array element");
  return 0;
}

MsgInfo* GetNextMsgInfo(const char* file, int line, MsgInfo* prev) {
  ENTER();
  const std::int32_t slot = NextUsedSlot(msgInfoSlots, prev ? SlotOf(prev) + 1 : 0);
  if (slot < 0) return LEAVE(static_cast<MsgInfo*>(nullptr), "FAILED not found");
  return &g_DbcI.MsgInfoArray.Items[slot];
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

RequestId IdOf(const MsgInfo* info) {
  const std::int32_t slot = SlotOf(info);
  return {slot, msgInfoSlots.Notes[slot].Serial};
}

RequestId LastSavedRequest() { return lastSaved; }

MsgInfo* FindRequest(RequestId id) {
  if (id.Slot < 0 || id.Slot >= msgInfoSlots.Capacity) return nullptr;
  MsgInfo* const info = &g_DbcI.MsgInfoArray.Items[id.Slot];
  return InUse(*info) && msgInfoSlots.Notes[id.Slot].Serial == id.Serial ? info : nullptr;
}

MsgInfo* FindMsgInfo(const Link* link, std::int32_t taskName, std::uint16_t astInd) {
  if (msgInfoSlots.InUse == 0) return nullptr;
  return FirstOfName(*ChainOf(taskName, astInd), link, taskName, astInd);
}

MsgInfo* NextOfName(const MsgInfo* info) {
  return FirstOfName(names.Next[SlotOf(info)], info->Link, info->TaskName, info->AstInd);
}

void ReleaseAnswered(MsgInfo* info) {
  const std::int32_t slot = SlotOf(info);
  Link* const link = info->Link;
  LeaveName(slot, *info);
  LeaveSlot(msgInfoSlots, OwnerOf(info->Socket, link, kInFlight), slot);
  --link->Books.InFlight;
  info->Link = nullptr;
  FewerOf(info->Socket, link, kInFlight);
}

void ReleaseMsgInfo(MsgInfo* info) {
  const Link* const link = info->Link;
  ReleaseAnswered(info);
  TellCounts(info->Socket, link);
}

void ClearMsgInfo(MsgInfo* info) {
  ReleaseMsgInfo(info);
  *info = {};
}

std::int32_t RequestsInFlight() { return msgInfoSlots.InUse; }

std::int32_t RequestsWaiting() { return savedSlots.InUse; }

bool TakeMsgInfo(const Link* link, std::int32_t* index, MsgInfo* taken) {
  if (link->Books.InFlight == 0) return false;
  for (; (*index = NextUsedSlot(msgInfoSlots, *index)) >= 0; ++*index) {
    MsgInfo& info = g_DbcI.MsgInfoArray.Items[*index];
    if (info.Link != link) continue;
    *taken = info;
    ClearMsgInfo(&info);
    return true;
  }
  return false;
}

SavedMessage* NextSavedOf(const Link* link, std::int32_t* index) {
  if (link->Books.Waiting == 0) return nullptr;
  for (; (*index = NextUsedSlot(savedSlots, *index)) >= 0; ++*index) {
    SavedMessage& saved = g_DbcI.SavedArray.Items[*index];
    if (saved.Link != link) continue;
    ++*index;
    return &saved;
  }
  return nullptr;
}

void ReleaseSaved(SavedMessage* saved) {
  Link* const link = saved->Link;
  const int socket = saved->Message.ClientSocket;
  LeaveSlot(savedSlots, OwnerOf(socket, link, kWaiting), SlotOf(saved));
  --link->Books.Waiting;
  saved->Link = nullptr;
  TellCounts(socket, link);
  FewerOf(socket, link, kWaiting);
}

void MoveSaved(SavedMessage* saved, Link* to) {
  Link* const from = saved->Link;
  --from->Books.Waiting;
  ++to->Books.Waiting;
  saved->Link = to;
  TellCounts(from);
  TellCounts(to);
  if (IsConnectionNumber(saved->Message.ClientSocket)) return;
  MoveSlot(savedSlots, from->Books.Gone[kWaiting], to->Books.Gone[kWaiting], SlotOf(saved));
  FewerOf(-1, from, kWaiting);
  LimitGone(to, kWaiting);
}

void TellCountsOf(int socket) { StatsTellCounts(kNoStatsRow, {}, socket, CountsOf(socket)); }

void ForgetConnection(int socket) {
  if (!IsConnectionNumber(socket)) return;
  HandToLink(socket, kWaiting);
  HandToLink(socket, kInFlight);
}

void ForgetRequests() {
  Free(g_DbcI.SavedArray);
  Free(g_DbcI.MsgInfoArray);
  FreeNames(names);
  FreeSlots(savedSlots);
  FreeSlots(msgInfoSlots);
  for (Connection& connection : g_Connections) {
    connection.Requests[kWaiting] = {};
    connection.Requests[kInFlight] = {};
  }
}
