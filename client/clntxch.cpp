#include "client/clntxch.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "api/dbca.h"
#include "client/primitiv.h"
#include "core/io.h"
#include "core/process.h"
#include "core/status.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "protocols/protload.h"

static constexpr char Module[] = "clntxch";

namespace {

constexpr std::size_t kClientUnsentMax =
    std::size_t{1024} * 1024;  // more unsent answers: the client is closed
constexpr std::size_t kLinkUnsentMax =
    std::size_t{64} * 1024;            // more unsent requests: clients must wait
constexpr int kSavedRequestsMax = 32;  // of one connection, waiting for a link
constexpr int kInFlightMax = 0x10000;  // of one connection, sent: more than it has tags for
constexpr std::uint16_t kTimeoutStandsStill = 0x8000;

// Connections whose requests are not read for a while, so that what is kept for slow, silent or
// missing nodes stays bounded by the number of connections.
struct Parking {
  fd_set Parked;
  int Count;
  const Link* LastLink[FD_SETSIZE];  // to which the connection's last request went
};
Parking parking;

// Reading

void TraceReceive(int result) { LOG(kLogTrace, "recv return %d", result); }
void TraceLength(int rest) { LOG(kLogTrace, "Message len is %d byte", rest); }

constexpr FrameFormat kClientFrame = {.LengthCounts = 4,
                                      .SmallestLength = 5,
                                      .LargestLength = kMessageMax,
                                      .TraceReceive = TraceReceive,
                                      .TraceLength = TraceLength,
                                      .Ahead = false};

// The trace shows the reads one by one; without it a request is taken with one call.
FrameRead ReadRequest(int socket, ClientMessage* msg) {
  FrameFormat format = kClientFrame;
  format.Ahead = !Tracing();
  return ReadFrame(socket, Wire(msg), format);
}

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
  for (MsgInfo* info = GetNextMsgInfo(HERE, nullptr); info; info = GetNextMsgInfo(HERE, info)) {
    if (info->TaskName == taskName && info->AstInd == firstHalfWord) ClearMsgInfo(info);
  }
}

void SendFailed(int error) { LOG(kLogError, "Send to client fail. Call:send. errno %d", error); }

// Answers a request that was not sent to a node.
void AnswerRequest(ClientMessage* msg, int codErr, int sysErr) {
  const MsgInfo info = InfoOfRequest(msg);
  MakeAnswerFromMsgInfo(HERE, msg, &info, codErr, sysErr);
  g_DbcI.PutMsg(HERE, msg);
}

// Parking

std::size_t UnsentOfLink(const Link* link) {
  if (!link || UnsentDescriptors() == 0) return 0;
  std::size_t unsent = 0;
  for (int fd = kFirstDescriptor; fd < kMaxDescriptors; ++fd) {
    if (LinkOfSocket(fd) == link) unsent += UnsentBytes(fd);
  }
  return unsent;
}

void Park(int socket, const Link* link) {
  if (!FD_ISSET(socket, &g_DbcI.ClientSockets) || FD_ISSET(socket, &parking.Parked)) return;
  parking.LastLink[socket] = link;
  FD_SET(socket, &parking.Parked);
  ++parking.Count;
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
}

bool IsFull(int socket, const Link* link) {
  return UnsentOfLink(link) > kLinkUnsentMax || RequestsInFlight(socket) >= kInFlightMax;
}

void ParkBehindLink(int socket, const Link* link) {
  if (IsFull(socket, link)) Park(socket, link);
}

void ParkBehindQueue(int socket) {
  if (SavedRequests(socket) >= kSavedRequestsMax) Park(socket, nullptr);
}

// Dispatch

Link* FindLink(const char* node) {
  Link* link = g_DbcI.LinkList;
  if (!link) return nullptr;
  do {
    if (CompareNodeName(link->NodeName, node) == 0) return link;
    link = link->Next;
  } while (link && link != g_DbcI.LinkList);
  return nullptr;
}

// A link found by name becomes the entry of the circle: the next search starts with it.
Link* ChooseLink(const ClientMessage* msg) {
  if (NamesDefault(msg->CBL.Node)) return g_DbcI.DefaultLink;
  Link* const link = FindLink(msg->CBL.Node);
  if (link) g_DbcI.LinkList = link;
  return link;
}

void SaveRequest(ClientMessage* msg, Link* link) {
  if (SaveUnsendMsg(HERE, msg, link) != 0)
    AnswerRequest(msg, kStatusNotRecorded, 0);
  else
    ParkBehindQueue(msg->ClientSocket);
}

Outcome AnswerWhileConnecting(ClientMessage* msg) {
  LOG(kLogTrace, "Connection is in progress state. return error to client");
  AnswerRequest(msg, g_DbcI.Err1001 ? kStatusCircleFailed : kStatusConnect, EINPROGRESS);
  return {};
}

Outcome SendRequest(ClientMessage* msg, Link* link) {
  LOG(kLogTrace, "Link %.8s is already connect state. Try send message", link->NodeName);
  const int socket = msg->ClientSocket;
  const int result = SendMsgToLink(HERE, link, msg);
  if (result == 0) {
    LOG(kLogTrace, "Link %.8s SUCESS send message", link->NodeName);
    ParkBehindLink(socket, link);
    return {};
  }
  if (result < 0) LOG(kLogTrace, "SendMsgToLink return < 0. Save the message. Send this later.");
  LOG(kLogTrace, "Link %.8s send message failed", link->NodeName);
  DisconnectLink(HERE, link, kStatusSend, errno);
  return {-1, "FAILED send message"};
}

Outcome ServeByState(ClientMessage* msg, Link* link) {
  if (link->State == kLinkConnected) return SendRequest(msg, link);
  if (link->State == kLinkDisconnected) return {};
  if (g_DbcI.ConnError) return AnswerWhileConnecting(msg);
  SaveRequest(msg, link);
  return {0, "SUCCESS connect in progress. Message saved"};
}

// kept: the halved time-out is in ticks of 2 seconds.
void StartCircleTimer(const Link* link) {
  if (g_DbcI.AutoConnect && ReconnectionFollows(link) && g_DbcI.AutoConnectTimeout != 0 &&
      g_DbcI.CircleTimeCount == 0)
    g_DbcI.CircleTimeCount = g_DbcI.AutoConnectTimeout / 2;
}

// The default link failed: the request waits for whatever becomes the default, or is answered.
Outcome FallBack(ClientMessage* msg, Link* link, int status) {
  SaveRequest(msg, link);
  LOG(kLogTrace, "It's default link. Try set new default link");
  if (TryConnectDefaultLinkToNextServer(HERE, link, status) == 0) return {};
  return {0, "FAILED TryConnectDefultLinkToNextServer"};
}

Outcome BringUpAndServe(ClientMessage* msg, Link* link) {
  StartCircleTimer(link);
  LOG(kLogTrace, "Link %.8s is disconnect state. Try up the link", link->NodeName);
  const int status = ConnectTheLink(HERE, link);
  if (status == 0) return ServeByState(msg, link);
  LOG(kLogTrace, "Connect link %.8s was failed", link->NodeName);
  if (ReconnectionFollows(link)) return FallBack(msg, link, status);
  if (DisconnectLink(HERE, link, status, errno) == 0) AnswerRequest(msg, status, errno);
  return {-1, "FAILED connect"};
}

}  // namespace

void CloseClient(int socket) {
  StopWaitingFor(socket);
  shutdown(socket, SHUT_RDWR);  // a reader child may hold a copy: the peer must see the end
  close(socket);
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
  if (UnsentBytes(socket) > 0) UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, socket);
  FD_CLR(socket, &g_DbcI.ClientSockets);
  ForgetDescriptor(socket);
  ForgetConnection(socket);
  if (FD_ISSET(socket, &parking.Parked)) --parking.Count;
  FD_CLR(socket, &parking.Parked);
  parking.LastLink[socket] = nullptr;
}

int GetMsgFromClient(const char* file, int line, ClientMessage* msg, int socket) {
  ENTER();
  switch (ReadRequest(socket, msg)) {
    case FrameRead::Whole:
      break;
    case FrameRead::Later:
      return 0;
    case FrameRead::Closed:
      CloseClient(socket);
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
      CloseClient(socket);
      return LEAVE(-1, "FAILED length");
  }
  if (LocateTrailer(msg, FrameSize(Wire(msg), kClientFrame), kMessageMax) != 0) {
    LOG(kLogError, "Message strings from client are too long. The connection is closed");
    CloseClient(socket);
    return LEAVE(-1, "FAILED format");
  }
  msg->ClientSocket = socket;
  TraceFields(" Receive message from client", msg);
  return static_cast<int>(msg->Length);
}

int PutMsgToClient(const char* file, int line, ClientMessage* msg) {
  ENTER();
  TraceFields(" Need put the message to client", msg);
  if (TestAliveClient(HERE, msg->TaskName) != 0) {
    LOG(kLogError, "The message wasn't send to client. Client is dead");
    PurgeMsgInfo(msg->TaskName, Get(Trailer(msg), kTrailerFirstHalfWord));
    return LEAVE(-1, "FAILED client is not alive");
  }
  msg->Length += 4;
  LOG(kLogTrace, "Neeed Send %d byte to client", static_cast<int>(msg->Length));
  if (SendBytes(HERE, msg->ClientSocket, Wire(msg), msg->Length) != 0) {
    SendFailed(errno);
    return LEAVE(-1, "FAILED send");
  }
  if (UnsentBytes(msg->ClientSocket) > kClientUnsentMax) {
    SendFailed(ENOBUFS);
    CloseClient(msg->ClientSocket);
    return LEAVE(-1, "FAILED send");
  }
  return 0;
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
          .AstInd = Get(Trailer(msg), kTrailerAstInd)};
}

namespace {

// Tells the link's peer that the client has died. The entry is cleared first: what follows may
// come back here.
void DropClient(ClientPid* entry) {
  const ClientPid client = *entry;
  LOG(kLogTrace, "Test Client \"%d\" is dead", client.Pid);
  *entry = {};
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

int AddClientPidIntoList(const char* file, int line, Link* link, int pid, int socket) {
  ENTER();
  ClientTimeout = kClientTimeout;
  GrowArray<ClientPid>& list = g_DbcI.ClientPidList;
  const ClientPid client = {.Link = link, .Pid = pid, .Socket = socket};
  for (ClientPid& entry : list) {
    if (entry.Link == link && entry.Pid == pid && entry.Socket == socket)
      return LEAVE(0, "SUCCESS element already exist");
    if (InUse(entry)) continue;
    entry = client;
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
  return 0;
}

int HandleMessageFromClientQueue(const char* file, int line, int socket) {
  ENTER("(Socket = %d )", socket);
  ClientMessage msg;
  const int length = g_DbcI.GetMsg(HERE, &msg, socket);
  if (length < 0) {
    LOG(kLogError, "Client message reading failed");
    return LEAVE(-1, "FAILED read message");
  }
  if (length == 0) return 0;
  Link* const link = ChooseLink(&msg);
  if (std::memcmp(msg.CBL.Command, "DBCA", sizeof msg.CBL.Command) == 0) {
    MakeDbcApiAnswer(HERE, &msg);
    g_DbcI.PutMsg(HERE, &msg);
    return LEAVE(0, "SUCCESS DbcApi");
  }
  if (!link) {
    LOG(kLogTrace, "Node name %.8s dasn't correspondence to the nodetab file information",
        msg.CBL.Node);
    AnswerRequest(&msg, kStatusUnknownNode, 0);
    return LEAVE(-1, "FAILED node name not found");
  }
  if (AddClientPidIntoList(HERE, link, msg.TaskName, msg.ClientSocket) != 0)
    return LEAVE(-1, "FAILED AddClientPidIntoList");
  const Outcome outcome =
      link->State == kLinkDisconnected ? BringUpAndServe(&msg, link) : ServeByState(&msg, link);
  return LEAVE(outcome.Status, outcome.Word);
}

void FlushClient(int socket) {
  if (FlushBytes(HERE, socket) == 0) return;
  SendFailed(errno);
  CloseClient(socket);
}

void ReleaseParkedClients() {
  for (int fd = kFirstDescriptor; parking.Count > 0 && fd < g_DbcI.SocketSets.MaxSocket; ++fd) {
    if (!FD_ISSET(fd, &parking.Parked)) continue;
    if (IsFull(fd, parking.LastLink[fd])) continue;
    if (SavedRequests(fd) >= kSavedRequestsMax) continue;
    FD_CLR(fd, &parking.Parked);
    --parking.Count;
    REGISTER_SOCKET_FOR_READ_EVENT(HERE, fd);
  }
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
    if (IsListedTwice(client.Pid)) client = {};
  }
  for (const Link*& last : parking.LastLink) {
    if (last == link) last = nullptr;
  }
}

void FlushClientsAtExit() {
  timeval rest = {1, 0};  // the system takes off what each wait has used
  while (UnsentDescriptors() > 0) {
    fd_set write;
    FD_ZERO(&write);
    int last = -1;
    for (int fd = kFirstDescriptor; fd < g_DbcI.SocketSets.MaxSocket; ++fd) {
      if (!FD_ISSET(fd, &g_DbcI.ClientSockets) || UnsentBytes(fd) == 0) continue;
      FD_SET(fd, &write);
      last = fd;
    }
    const int ready = last < 0 ? 0 : select(last + 1, nullptr, &write, nullptr, &rest);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    for (int fd = kFirstDescriptor; fd <= last; ++fd) {
      if (FD_ISSET(fd, &write)) FlushClient(fd);
    }
  }
}
