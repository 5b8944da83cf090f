#include "client/clntxch.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "client/connection.h"
#include "client/parking.h"
#include "client/primitiv.h"
#include "core/fd_bits.h"
#include "core/process.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "link/protocol.h"

static constexpr char Module[] = "clntxch";

namespace {

constexpr std::size_t kClientUnsentMax =
    std::size_t{1024} * 1024;  // more unsent answers: the client is closed
constexpr std::uint16_t kTimeoutStandsStill = 0x8000;

// Reading

void TraceReceive(int result) { LOG(kLogTrace, "recv return %d", result); }
void TraceLength(int rest) { LOG(kLogTrace, "Message len is %d byte", rest); }

constexpr FrameFormat kClientFrame = {.LengthCounts = 4,
                                      .SmallestLength = 5,
                                      .LargestLength = kMessageMax,
                                      .TraceReceive = TraceReceive,
                                      .TraceLength = TraceLength};

void TraceFields(const char* title, const ClientMessage* msg) {
  if (!Tracing()) return;
  LOG(kLogTrace, "%s", title);
  LOG(kLogTrace, "    Length=%d", static_cast<int>(msg->Length));
  LOG(kLogTrace, "    TaskName=%d", msg->TaskName);
  LOG(kLogTrace, "    CBL.CodErr=%d", msg->CBL.CodErr);
  LOG(kLogTrace, "    CBL.SysErr=%d", msg->CBL.SysErr);
  LOG(kLogTrace, "    CBL.Prior=%d", msg->CBL.Prior);
  LOG(kLogTrace, "    CBL.NumChan=%d", msg->CBL.NumChan);
  LOG(kLogTrace, "    CBL.Command=%.4s", msg->CBL.Command);
  LOG(kLogTrace, "    CBL.Node=%.8s", msg->CBL.Node);
  LOG(kLogTrace, "    CBL.RowId=%d", msg->CBL.RowId);
  LOG(kLogTrace, "    CBL.RowCount=%d", msg->CBL.RowCount);
  LOG(kLogTrace, "    CBL.LnBufRow=%d", msg->CBL.LnBufRow);
  LOG(kLogTrace, "    CBL.PrzExe=0x%x", msg->CBL.PrzExe);
}

// Answering

// The requests of a dead client are forgotten with its answer.
// kept: the tag compared is the first half-word of the trailer, not its AstInd.
void PurgeMsgInfo(std::int32_t taskName, std::uint16_t firstHalfWord) {
  while (MsgInfo* const info = FindMsgInfo(nullptr, taskName, firstHalfWord)) ClearMsgInfo(info);
}

void SendFailed(int error) { LOG(kLogError, "Send to client fail. Call:send. errno %d", error); }

}  // namespace

void CloseClient(int socket, lumo_stats_reason reason) {
  StatsClientClosed(socket, reason);
  StopWaitingFor(socket);
  shutdown(socket, SHUT_RDWR);  // a reader child may hold a copy: the peer must see the end
  close(socket);
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
  if (UnsentBytes(socket) > 0) UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, socket);
  FD_CLR(socket, &g_DbcI.ClientSockets);
  ForgetDescriptor(socket);
  ForgetConnection(socket);
  ForgetParked(socket);
  g_Connections[socket].Serial = 0;
}

int GetMsgFromClient(const char* file, int line, ClientMessage* msg, int socket) {
  ENTER();
  switch (ReadFrame(socket, Wire(msg), kClientFrame)) {
    case FrameRead::Whole:
      break;
    case FrameRead::Later:
      return 0;
    case FrameRead::Closed:
      CloseClient(socket, LUMO_STATS_HUNG_UP);
      return LEAVE(-1, "Client socket is down. Call:recv");
    case FrameRead::Failed:
      LOG(kLogError, "Receive message from client fail. Call:recv. Errno %d", errno);
      return LEAVE(-1, "FAILED receive");
    case FrameRead::NoMemory:
      LOG(kLogError, "Receive message from client fail. Call:recv. Errno %d", errno);
      CloseClient(socket);
      return LEAVE(-1, "FAILED allocation memory");
    case FrameRead::BadLength:
      LOG(kLogError, "Message length %u from client is out of range. The connection is closed",
          msg->Length);
      CloseClient(socket, LUMO_STATS_BAD_MESSAGE);
      return LEAVE(-1, "FAILED length");
  }
  if (LocateTrailer(msg, FrameSize(Wire(msg), kClientFrame), kMessageMax) != 0) {
    LOG(kLogError, "Message strings from client are too long. The connection is closed");
    CloseClient(socket, LUMO_STATS_BAD_MESSAGE);
    return LEAVE(-1, "FAILED format");
  }
  msg->ClientSocket = socket;
  TraceFields(" Receive message from client", msg);
  return static_cast<int>(msg->Length);
}

// Sends without asking whether the named process lives.
static Outcome SendAnswer(ClientMessage* msg) {
  msg->Length += 4;
  LOG(kLogTrace, "Neeed Send %d byte to client", static_cast<int>(msg->Length));
  if (SendBytes(HERE, msg->ClientSocket, Wire(msg), msg->Length) != 0) {
    SendFailed(errno);
    return {-1, "FAILED send"};
  }
  const std::size_t unsent = UnsentBytes(msg->ClientSocket);
  StatsAnswer(msg->ClientSocket, {msg->CBL.CodErr, msg->Length, unsent},
              CountsOf(msg->ClientSocket));
  if (unsent > kClientUnsentMax) {
    SendFailed(ENOBUFS);
    CloseClient(msg->ClientSocket, LUMO_STATS_NOT_READING);
    return {-1, "FAILED send"};
  }
  return {};
}

int RefuseRequest(ClientMessage* msg) {
  const MsgInfo info = InfoOfRequest(msg);
  MakeAnswerFromMsgInfo(HERE, msg, &info, kStatusNotPermitted, EPERM);
  SendAnswer(msg);
  return -1;
}

int PutMsgToClient(const char* file, int line, ClientMessage* msg) {
  ENTER();
  TraceFields(" Need put the message to client", msg);
  if (TestAliveClient(HERE, msg->TaskName) != 0) {
    LOG(kLogError, "The message wasn't send to client. Client is dead");
    PurgeMsgInfo(msg->TaskName, Get(Trailer(msg), kTrailerFirstHalfWord));
    TellCountsOf(msg->ClientSocket);
    return LEAVE(-1, "FAILED client is not alive");
  }
  const Outcome sent = SendAnswer(msg);
  return LEAVE(sent.Status, sent.Word);
}

int MakeAnswerFromMsgInfo(const char* file, int line, ClientMessage* answer, const MsgInfo* info,
                          int codErr, int sysErr) {
  ENTER();
  LOG(kLogTrace, "MakeAnswerFromMsgInfo(TavrinError=%d, SysError=%d)", codErr, sysErr);
  std::memset(static_cast<void*>(answer), 0, sizeof *answer);
  answer->Length = kEmptyLength;
  answer->TaskName = info->TaskName;
  answer->CBL.CodErr = codErr;
  answer->CBL.SysErr = sysErr;
  answer->ClientSocket = info->Socket;
  answer->TrailerOffset = kEmptyTrailerOffset;
  Put(Trailer(answer), kTrailerAstInd, info->AstInd);
  errno = 0;
  return 0;
}

MsgInfo InfoOfRequest(const ClientMessage* msg) {
  return {.Link = nullptr,
          .TaskName = msg->TaskName,
          .Socket = msg->ClientSocket,
          .AstInd = Get(Trailer(msg), kTrailerAstInd),
          .SentAt = StatsClock()};
}

namespace {

void ClearEntry(ClientPid* entry) {
  *entry = {};
  const auto at = static_cast<std::int32_t>(entry - g_DbcI.ClientPidList.Items);
  g_DbcI.FirstFreeClient = std::min(g_DbcI.FirstFreeClient, at);
}

// Tells the link's peer that the client has died. The entry is cleared first: what follows may
// come back here.
void DropClient(ClientPid* entry) {
  const ClientPid client = *entry;
  LOG(kLogTrace, "Test Client \"%d\" is dead", client.Pid);
  ClearEntry(entry);
  if (client.Link && client.Link->State == kLinkConnected)
    client.Link->Protocol->ClientDeadEvent(HERE, client.Link, client.Pid);
}

void CountDownWithoutClients() {
  if (g_DbcI.ConnectOnLoad || (ClientTimeout & kTimeoutStandsStill) != 0) return;
  if (--ClientTimeout != 0) return;
  LOG(kLogTrace, "Client timeout is expire. Disconnect all link.");
  Link* link = nullptr;
  while ((link = GetNextActiveLink(HERE, link)) != nullptr) DisconnectLink(HERE, link, 0, 0);
}

}  // namespace

int TestAliveClient(const char* file, int line, int pid) {
  ENTER();
  if (pid != 0 && ProcessIsAlive(pid)) return LEAVE(0, "SUCCESS short test");
  int result = pid != 0;
  int inUse = 0;
  for (std::int32_t i = 0; i < g_DbcI.ClientPidList.Capacity; ++i) {
    ClientPid& entry = g_DbcI.ClientPidList.Items[i];
    if (!InUse(entry)) continue;
    ++inUse;
    if ((pid != 0 && pid != entry.Pid) || ProcessIsAlive(entry.Pid)) continue;
    DropClient(&entry);
    result = 1;
  }
  if (inUse == 0) CountDownWithoutClients();
  LOG(kLogTrace, "Return %d", result);
  return result;
}

namespace {

// The entry that ends the scan from the front of the list: the client's own, or the first that is
// free; null: there is neither.
ClientPid* FindEntry(const ClientPid& client) {
  GrowArray<ClientPid>& list = g_DbcI.ClientPidList;
  std::int32_t& cached =
      g_Connections[IsConnectionNumber(client.Socket) ? client.Socket : 0].ListedAt;
  std::int32_t at = cached;
  if (at > g_DbcI.FirstFreeClient || at >= list.Capacity || !(list.Items[at] == client)) {
    at = 0;
    while (at < list.Capacity && InUse(list.Items[at]) && !(list.Items[at] == client)) ++at;
    g_DbcI.FirstFreeClient = std::max(g_DbcI.FirstFreeClient, at);
  }
  cached = at;
  return at < list.Capacity ? &list.Items[at] : nullptr;
}

}  // namespace

int AddClientPidIntoList(const char* file, int line, Link* link, int pid, int socket) {
  ENTER();
  ClientTimeout = kClientTimeout;
  GrowArray<ClientPid>& list = g_DbcI.ClientPidList;
  const ClientPid client = {.Link = link, .Pid = pid, .Socket = socket};
  if (ClientPid* const entry = FindEntry(client)) {
    if (InUse(*entry)) return LEAVE(0, "SUCCESS element already exist");
    *entry = client;
    return LEAVE(0, "SUCCESS save to exist blank element");
  }
  // kept: only as many bytes are carried over as there were entries, so that older ones arrive
  // cleared and count as free.
  ClientPid* const added = Grow(list, static_cast<std::size_t>(list.Capacity));
  if (!added) {
    LOG(kLogError, "AddClientPidIntoList failed");
    return LEAVE(-1, "FAILED allocation memory");
  }
  *added = client;
  g_DbcI.FirstFreeClient = 0;
  return 0;
}

void FlushClient(int socket) {
  const int result = FlushBytes(HERE, socket);
  StatsClientUnsent(socket, UnsentBytes(socket));
  if (result == 0) return;
  SendFailed(errno);
  CloseClient(socket, LUMO_STATS_SEND);
}

static bool IsListedTwice(int pid) {
  int count = 0;
  for (const ClientPid& client : g_DbcI.ClientPidList) count += client.Pid == pid;
  return count > 1;
}

void ForgetLinkOfClients(const Link* link) {
  for (ClientPid& client : g_DbcI.ClientPidList) {
    if (!InUse(client) || client.Link != link) continue;
    client.Link = nullptr;
    // One entry tells that the process is a client. Others would stay as long as it lives.
    if (IsListedTwice(client.Pid)) ClearEntry(&client);
  }
}

// The clients that have answers to take; returns the highest descriptor, -1: there are none.
static int ClientsWithAnswers(fd_set* set) {
  int last = -1;
  FD_ZERO(set);
  const fd_set& clients = g_DbcI.ClientSockets;
  for (int fd = NextInSet(clients, kFirstDescriptor); fd >= 0; fd = NextInSet(clients, fd + 1)) {
    if (UnsentBytes(fd) == 0) continue;
    FD_SET(fd, set);
    last = fd;
  }
  return last;
}

void FlushClientsAtExit() {
  timeval rest = {1, 0};  // the system takes off what each wait has used
  fd_set write;
  for (int last; UnsentDescriptors() > 0 && (last = ClientsWithAnswers(&write)) >= 0;) {
    const int ready = select(last + 1, nullptr, &write, nullptr, &rest);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    for (int fd = NextInSet(write, 0); fd >= 0; fd = NextInSet(write, fd + 1)) FlushClient(fd);
  }
}
