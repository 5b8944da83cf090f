#include "client/primitiv.h"

#include <cctype>
#include <cstring>

#include "core/trace.h"
#include "link/link.h"

static constexpr char Module[] = "primitiv";

namespace {

// The element to fill: a free one, else the first of a doubled array; null: memory ran out.
template <class T>
T* FreeElement(GrowArray<T>& array, bool* existed) {
  T* const free = FirstFree(array);
  *existed = free != nullptr;
  return free ? free : Grow(array);
}

int Upper(char c) { return std::toupper(static_cast<unsigned char>(c)); }

}  // namespace

int SaveUnsendMsg(const char* file, int line, const ClientMessage* msg, Link* link) {
  ENTER();
  bool existed;
  SavedMessage* const saved = FreeElement(g_DbcI.SavedArray, &existed);
  if (!saved) return LEAVE(-1, "FAILED allocation memory");
  saved->Message = *msg;
  saved->Link = link;
  if (existed) return LEAVE(0, "SUCCESS save in exist element of SavedArray");
  return 0;
}

SavedMessage* GetNextUnsendMsg(SavedMessage* prev) { return NextInUse(g_DbcI.SavedArray, prev); }

int SaveMsgInfo(const char* file, int line, const MsgInfo* info) {
  ENTER();
  bool existed;
  MsgInfo* const element = FreeElement(g_DbcI.MsgInfoArray, &existed);
  if (!element) return LEAVE(-1, "FAILED allocat memory");
  *element = *info;
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

bool TakeMsgInfo(const Link* link, std::int32_t* index, MsgInfo* taken) {
  for (; *index < g_DbcI.MsgInfoArray.Capacity; ++*index) {
    MsgInfo& info = g_DbcI.MsgInfoArray.Items[*index];
    if (info.Link != link) continue;
    *taken = info;
    info = {};
    return true;
  }
  return false;
}

void ForgetConnection(int socket) {
  for (MsgInfo& info : g_DbcI.MsgInfoArray) {
    if (InUse(info) && info.Socket == socket) info.Socket = -1;
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
