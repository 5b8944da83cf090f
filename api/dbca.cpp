#include "api/dbca.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "client/clntxch.h"
#include "client/primitiv.h"
#include "core/stats.h"
#include "core/status.h"
#include "core/trace.h"
#include "link/link.h"
#include "protocols/lumo_tcp.h"
#include "protocols/protload.h"

static constexpr char Module[] = "dbca";

namespace {

// Integer results of the commands.
enum : int {
  kDone = 0,
  kAddFailed = 1,
  kNoMemory = 3,
  kLockedByCaller = 4,
  kLockedByOther = 5,
  kNoSuchNode = 17,
  kNodeBusy = 33,
  kNoNodetab = 129,
};

constexpr std::time_t kLockSeconds = 59;  // an older lock may be released by anybody
constexpr std::uint16_t kFirstCommand = 100;

// A request as far as it is needed once the answer has been built over it.
struct Request {
  std::int32_t RowId;
  char Text[sizeof ClientMessage::Strings];  // the argument and, behind its NUL, the rest of it
  std::size_t TextSize;                      // bytes that came
  std::size_t NameLength;                    // of the argument up to its first blank
  Link* Node;                                // found by the search; or null
  std::int32_t Index;                        // of that node; not found: the number of nodes
  char Name[kNodeNameMax];                   // blank-padded, without a NUL
};

// A node's definition as clients receive it.
//     0   8 bytes    zero
//     8   u32        protocol code
//    12   char[12]   node name
//    24   char[112]  TCPIP: address, dotted
//   136   u32        TCPIP: port; others: the protocol record's identity
//   140   3 u16      TCPIP: receive, send and connect time-out
//   146   86 bytes   zero
struct NodeDescription {
  std::uint8_t Unused[8];
  std::uint32_t ProtocolCode;
  char Name[12];
  char Address[112];
  std::uint32_t Port;
  std::uint16_t ReceiveTimeout, SendTimeout, ConnectTimeout;
  std::uint8_t Rest[86];
};
static_assert(offsetof(NodeDescription, ProtocolCode) == 8 &&
              offsetof(NodeDescription, Name) == 12);
static_assert(offsetof(NodeDescription, Address) == 24 && offsetof(NodeDescription, Port) == 136);
static_assert(offsetof(NodeDescription, ReceiveTimeout) == 140);
static_assert(offsetof(NodeDescription, Rest) == 146 && sizeof(NodeDescription) == 232);

enum : std::uint32_t { kCodeOther = 0, kCodeTcp = 4 };

struct ProtocolCode {
  const char* Name;
  std::uint32_t Code;
};
constexpr ProtocolCode kProtocolCodes[] = {
    {"LOCAL", 1}, {"LOCALS", 2}, {"LOCALI", 3}, {"TCPIP", kCodeTcp}, {"TCPIPS", 5}};

std::uint32_t CodeOfProtocol(const char* name) {
  for (const ProtocolCode& protocol : kProtocolCodes) {
    if (strcasecmp(name, protocol.Name) == 0) return protocol.Code;
  }
  return kCodeOther;
}

void DescribeTcp(const TcpLinkData* data, NodeDescription* description) {
  if (!data) return;
  inet_ntop(AF_INET, &data->Address, description->Address, sizeof description->Address);
  description->Port = ntohs(static_cast<std::uint16_t>(data->Port));
  description->ReceiveTimeout = static_cast<std::uint16_t>(data->ReceiveTimeout / 20);
  description->SendTimeout = static_cast<std::uint16_t>(data->SendTimeout);
  description->ConnectTimeout = static_cast<std::uint16_t>(data->ConnectTimeout);
}

// Puts an item into the answer's fourth counted string.
// kept: an item of odd size gets no pad byte; the trailer follows it at once.
void AppendItem(ClientMessage* answer, const void* item, std::size_t size) {
  unsigned char* const at = Trailer(answer);
  std::memmove(at + size, at, kTrailerSize);
  std::memcpy(at, item, size);
  const auto count = static_cast<std::uint16_t>(size);
  std::memcpy(at - sizeof count, &count, sizeof count);
  answer->CBL.LnBufRow = count;
  answer->TrailerOffset = static_cast<std::uint16_t>(answer->TrailerOffset + size);
  answer->Length = answer->TrailerOffset + 52U;
}

// Makes the link what the text says, in place: the pointers to it stay good. The link is
// disconnected, so the old driver record is only freed. False: the text makes no node.
bool Redefine(Link* link, char* text) {
  Link* const fresh = ParseNodetabString(HERE, text, 0);
  if (!fresh) return false;
  link->Protocol->UninitLink(HERE, link);
  fresh->Next = link->Next;
  fresh->WasEntry = link->WasEntry;
  fresh->Books = link->Books;
  *link = *fresh;
  std::free(fresh);
  RenewLinkStats(link->Books.StatsRow, link->Protocol->Name, link->Place);
  return true;
}

// Deletion

// The requests that wait for the default go on to the next one; those that named this link are
// told that there is no such node.
void LeaveDefault(Link* link) {
  const std::uint8_t autoConnect = g_DbcI.AutoConnect;
  g_DbcI.AutoConnect = 1;
  TryConnectDefaultLinkToNextServer(HERE, link, kStatusUnknownNode);
  g_DbcI.AutoConnect = autoConnect;
}

// kept: a link that is only connecting does not become the start of the circle.
void LeaveCircleStart(const Link* link) {
  Link* candidate = link->Next;
  while (candidate != link && candidate->State == kLinkDisconnected) {
    if (ConnectTheLink(HERE, candidate) == 0) break;
    candidate = candidate->Next;
  }
  g_DbcI.CircleStartLink = candidate->State == kLinkConnected ? candidate : nullptr;
}

Link* PredecessorOf(const Link* link) {
  Link* const first = g_DbcI.LinkList;
  Link* before = first;
  while (before && before->Next != link) {
    before = before->Next;
    if (before == first) return nullptr;
  }
  return before;
}

void Unlink(Link* link) {
  Link* const before = PredecessorOf(link);
  Link* const successor = link->Next == link ? nullptr : link->Next;
  if (before) before->Next = successor;
  link->Next = successor;
  link->WasEntry = g_DbcI.LinkList == link;
  if (g_DbcI.LinkList == link) g_DbcI.LinkList = successor;
  if (g_DbcI.FirstLink == link) g_DbcI.FirstLink = successor;
  if (g_DbcI.DefaultLink == link) g_DbcI.DefaultLink = successor;
  if (g_DbcI.CircleStartLink == link) g_DbcI.CircleStartLink = nullptr;
}

}  // namespace

int DelNode(const char* file, int line, Link* link) {
  ENTER();
  if (!link) return 0;
  link->PendingNodetabLine[0] = '\0';
  if (link->State != kLinkDisconnected) {
    link->DeletePending = 1;
    return LEAVE(static_cast<int>(kNodeBusy), "FAIL");
  }
  link->DeletePending = 0;
  link->Protocol->UninitLink(HERE, link);
  link->Deleted = 1;  // it stays in the circle while another default is looked for
  if (link == g_DbcI.DefaultLink) LeaveDefault(link);
  if (link == g_DbcI.CircleStartLink) LeaveCircleStart(link);
  Unlink(link);
  RetireLink(link);
  return 0;
}

void SyncNode(const char* file, int line, Link* link) {
  ENTER();
  if (Stopping()) return;
  const int savedErrno = errno;  // the caller still gives it to clients
  int result = kDone;
  if (link->PendingNodetabLine[0] != '\0') {
    char text[kPendingLineSize];
    std::memcpy(text, link->PendingNodetabLine, sizeof text);
    Redefine(link, text);
  } else if (link->DeletePending) {
    result = DelNode(HERE, link);
  }
  errno = savedErrno;
  if (result != kDone) LEAVE(result, "FAIL");
}

namespace {

// The named commands

// The stream of the latest call stays open: the one before is closed.
int ApiGetNodetabPath(const char* file, int line, char* path) {
  ENTER();
  static std::FILE* nodetab;
  if (nodetab) std::fclose(nodetab);
  nodetab = SearchForNodetab(HERE, path);
  if (!nodetab) return LEAVE(static_cast<int>(kNoNodetab), "FAIL");
  if (path[0] == '\0') return LEAVE(static_cast<int>(kNoMemory), "FAIL");  // it did not fit
  return kDone;
}

int ApiLockNodetab(const char* file, int line, std::int32_t owner) {
  ENTER();
  const std::time_t now = std::time(nullptr);
  // kept: the lock's age is compared with its time, so a lock of another owner is not taken over.
  if (g_DbcI.NodetabLocked && owner != g_DbcI.NodetabLockOwner &&
      g_DbcI.NodetabLockTime > now - g_DbcI.NodetabLockTime)
    return LEAVE(static_cast<int>(kLockedByOther), "FAIL");
  g_DbcI.NodetabLockOwner = owner;
  g_DbcI.NodetabLockTime = now;
  g_DbcI.NodetabLocked = 1;
  return kDone;
}

int ApiUnlockNodetab(const char* file, int line, std::int32_t owner) {
  ENTER();
  if (g_DbcI.NodetabLocked && owner != g_DbcI.NodetabLockOwner &&
      std::time(nullptr) - g_DbcI.NodetabLockTime <= kLockSeconds)
    return LEAVE(static_cast<int>(kLockedByOther), "FAIL");
  g_DbcI.NodetabLocked = 0;
  return kDone;
}

int ApiGetNodetabStatus(const char* file, int line, std::int32_t owner) {
  ENTER();
  const std::time_t now = std::time(nullptr);
  if (now - g_DbcI.NodetabLockTime > kLockSeconds) {
    g_DbcI.NodetabLockTime = now;
    g_DbcI.NodetabLocked = 0;
    return kDone;
  }
  if (!g_DbcI.NodetabLocked) return kDone;
  const int result = owner == g_DbcI.NodetabLockOwner ? kLockedByCaller : kLockedByOther;
  return LEAVE(result, "FAIL");
}

int ApiAddNode(const char* file, int line, char* text) {
  ENTER();
  const bool wasEmpty = g_DbcI.LinkList == nullptr;
  Link* const link = ParseNodetabString(HERE, text, 1);
  if (!link) return LEAVE(static_cast<int>(kAddFailed), "FAIL");
  if (wasEmpty) g_DbcI.FirstLink = g_DbcI.DefaultLink = g_DbcI.CircleStartLink = link;
  return kDone;
}

int ApiGetNode(const char* file, int line, const Link* link, NodeDescription* description) {
  ENTER();
  if (!link) return LEAVE(static_cast<int>(kNoSuchNode), "FAIL");
  *description = {};
  description->ProtocolCode = CodeOfProtocol(link->Protocol->Name);
  std::memcpy(description->Name, link->NodeName, sizeof link->NodeName);
  if (description->ProtocolCode == kCodeTcp)
    DescribeTcp(static_cast<const TcpLinkData*>(link->DriverData), description);
  else
    description->Port =
        static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(link->Protocol));
  return kDone;
}

int ApiDelNode(const char* file, int line, Link* link) {
  ENTER();
  if (!link) return LEAVE(static_cast<int>(kNoSuchNode), "FAIL");
  const int result = DelNode(HERE, link);
  return result == kDone ? kDone : LEAVE(result, "FAIL");
}

// A busy link keeps its definition until it disconnects.
// kept: the result does not tell whether the text makes a node.
int ApiSetNode(const char* file, int line, Link* link, char* text) {
  ENTER();
  if (!text) return kDone;
  if (link->State != kLinkDisconnected) {
    std::snprintf(link->PendingNodetabLine, sizeof link->PendingNodetabLine, "%s", text);
    link->DeletePending = 0;
    return LEAVE(static_cast<int>(kDone), "FAIL");
  }
  return Redefine(link, text) ? kDone : LEAVE(static_cast<int>(kDone), "FAIL");
}

// One handler for each number: returns the integer result, may append an item.

int AnswerOne(Request*, ClientMessage*) { return 1; }

int AnswerIndex(Request* request, ClientMessage*) { return request->Index; }

int AnswerName(Request* request, ClientMessage* answer) {
  if (!request->Node) return 0;
  std::memcpy(request->Name, request->Node->NodeName, std::strlen(request->Node->NodeName));
  AppendItem(answer, request->Name, sizeof request->Name);
  return 1;
}

// The requests that wait for the default have nothing to wait for when the new one is up.
int MakeDefault(Request* request, ClientMessage*) {
  Link* const link = request->Node;
  if (!link) return 0;
  const Link* const old = g_DbcI.DefaultLink;
  g_DbcI.DefaultLink = link;
  if (link == old || link->State != kLinkConnected) return 1;
  MoveDefaultRequests(old, link);
  SendAllSavedMsgToTheLink(HERE, link);
  return 1;
}

int GetNodetabPath(Request*, ClientMessage* answer) {
  char path[kNodetabPathSize] = "";
  const int result = ApiGetNodetabPath(HERE, path);
  if (result == kDone) AppendItem(answer, path, std::strlen(path) + 1);
  return result;
}

int LockNodetab(Request* request, ClientMessage*) { return ApiLockNodetab(HERE, request->RowId); }

int UnlockNodetab(Request* request, ClientMessage*) {
  return ApiUnlockNodetab(HERE, request->RowId);
}

int GetNodetabStatus(Request* request, ClientMessage*) {
  return ApiGetNodetabStatus(HERE, request->RowId);
}

int AddNode(Request* request, ClientMessage*) { return ApiAddNode(HERE, request->Text); }

int GetNode(Request* request, ClientMessage* answer) {
  NodeDescription description;
  const int result = ApiGetNode(HERE, request->Node, &description);
  if (result == kDone) AppendItem(answer, &description, sizeof description);
  return result;
}

int DeleteNode(Request* request, ClientMessage*) { return ApiDelNode(HERE, request->Node); }

int SetNode(Request* request) {
  if (!request->Node) return kNoSuchNode;
  return ApiSetNode(HERE, request->Node, request->TextSize > 0 ? request->Text : nullptr);
}

// The definition stands two bytes behind the end of the name that selects the node, which may be
// padded with blanks.
int SetNamedNode(Request* request) {
  if (!request->Node) return kNoSuchNode;
  const std::size_t at = std::strlen(request->Text) + 2;
  char* const text = at < request->TextSize ? request->Text + at : nullptr;
  return ApiSetNode(HERE, request->Node, text);
}

// What the search for a node compares.
enum class Key : std::uint8_t { Nothing, First, Default, Index, Name };

struct Command {
  Key Node;
  int (*Before)(Request* request);  // carried out before the answer is built
  int (*After)(Request* request, ClientMessage* answer);
};

constexpr Command kCommands[] = {
    /* 100 */ {Key::Nothing, nullptr, AnswerOne},
    /* 101 */ {Key::Nothing, nullptr, nullptr},
    /* 102 */ {Key::Nothing, nullptr, AnswerIndex},
    /* 103 */ {Key::Default, nullptr, AnswerName},
    /* 104 */ {Key::Default, nullptr, AnswerIndex},
    /* 105 */ {Key::Index, nullptr, AnswerName},
    /* 106 */ {Key::Index, nullptr, MakeDefault},
    /* 107 */ {Key::Nothing, nullptr, nullptr},
    /* 108 */ {Key::Nothing, nullptr, nullptr},
    /* 109 */ {Key::Nothing, nullptr, nullptr},
    /* 110 */ {Key::Nothing, nullptr, nullptr},
    /* 111 */ {Key::Nothing, nullptr, nullptr},
    /* 112 */ {Key::Nothing, nullptr, nullptr},
    /* 113 */ {Key::Nothing, nullptr, nullptr},
    /* 114 */ {Key::Nothing, nullptr, nullptr},
    /* 115 */ {Key::Nothing, nullptr, nullptr},
    /* 116 */ {Key::First, nullptr, GetNodetabPath},
    /* 117 */ {Key::First, nullptr, LockNodetab},
    /* 118 */ {Key::First, nullptr, UnlockNodetab},
    /* 119 */ {Key::First, nullptr, AddNode},
    /* 120 */ {Key::Name, nullptr, GetNode},
    /* 121 */ {Key::Index, nullptr, GetNode},
    /* 122 */ {Key::Default, nullptr, GetNode},
    /* 123 */ {Key::Name, nullptr, DeleteNode},
    /* 124 */ {Key::Index, nullptr, DeleteNode},
    /* 125 */ {Key::Default, nullptr, DeleteNode},
    /* 126 */ {Key::Name, SetNamedNode, nullptr},
    /* 127 */ {Key::Index, SetNode, nullptr},
    /* 128 */ {Key::Default, SetNode, nullptr},
    /* 129 */ {Key::First, nullptr, GetNodetabStatus},
};
constexpr Command kNoCommand = {Key::Nothing, nullptr, nullptr};

const Command& CommandOf(std::uint16_t code) {
  const std::size_t index = static_cast<std::size_t>(code) - kFirstCommand;  // wraps below 100
  return index < std::size(kCommands) ? kCommands[index] : kNoCommand;
}

void ReadRequest(const ClientMessage* msg, Request* request) {
  const std::size_t count = Get(msg->Strings, WireField<std::uint16_t>{0});
  request->RowId = msg->CBL.RowId;
  request->TextSize = std::min(count, sizeof msg->Strings - 2);
  std::memcpy(request->Text, msg->Strings + 2, request->TextSize);
  request->Text[request->TextSize] = '\0';
  request->NameLength = std::strcspn(request->Text, " ");
  request->Node = nullptr;
  request->Index = 0;
  std::memset(request->Name, ' ', sizeof request->Name);
}

bool Matches(Key key, const Request& request, const Link* link) {
  switch (key) {
    case Key::Nothing:
      return false;
    case Key::First:
      return true;
    case Key::Default:
      return link == g_DbcI.DefaultLink;
    case Key::Index:
      return request.Index == request.RowId;
    case Key::Name:
      return std::strcspn(link->NodeName, " ") == request.NameLength &&
             CompareNodeName(link->NodeName, request.Text) == 0;
  }
  return false;
}

void FindNode(Key key, Request* request) {
  Link* link = g_DbcI.FirstLink;
  while (link) {
    if (Matches(key, *request, link)) {
      request->Node = link;
      return;
    }
    ++request->Index;
    link = link->Next;
    if (link == g_DbcI.FirstLink) return;
  }
}

}  // namespace

int MakeDbcApiAnswer(const char* file, int line, ClientMessage* msg) {
  ENTER();
  LOG(kLogTrace, "Command dbcapi %d", msg->CBL.RowId);
  const Command& command = CommandOf(msg->CBL.DbcApiCode);
  Request request;
  ReadRequest(msg, &request);
  FindNode(command.Node, &request);
  const int result = command.Before ? command.Before(&request) : kDone;
  const MsgInfo info = InfoOfRequest(msg);
  MakeAnswerFromMsgInfo(HERE, msg, &info, 0, 0);
  msg->CBL.RowId = result;
  if (command.After) msg->CBL.RowId = command.After(&request, msg);
  LOG(kLogTrace, "Return char value \"%.8s\" return int value %d", request.Name, msg->CBL.RowId);
  return 0;
}
