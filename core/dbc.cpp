#include "core/dbc.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/clntxch.h"
#include "client/primitiv.h"
#include "core/footprint.h"
#include "core/init.h"
#include "core/io.h"
#include "core/process.h"
#include "core/status.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "ping/ping.h"
#include "protocols/protload.h"

static constexpr char Module[] = "dbc";

AgentState g_DbcI;
std::uint16_t ClientTimeout = kClientTimeout;

namespace {

constexpr int kPacketsInARow = 256;  // of one link, before everybody else gets a turn
constexpr int kFloodInARow = 8;  // of those that answer nothing, while a link sends many of them
constexpr int kRequestsAtOnce = 64;  // so many requests at most are sent to a link in one piece
constexpr int kManyInFlight = 2;     // so many unanswered requests make a look at the link pay
constexpr int kLooksInVain = 8;      // for an answer, in a row: then most looks are omitted,
constexpr int kLooksOmitted = 64;    // all but one of so many

// What the last wait reported and what is not served yet.
fd_set readyForRead;
fd_set readyForWrite;

// What has been read of one link without a look at anything else.
struct LinkTurn {
  int Packets;
  int Unasked;  // those that answered no request
};
LinkTurn turn;
int unaskedAllowed = kPacketsInARow;  // in one turn
bool flooded;                         // in a turn since the last full pass

// The looks for an answer right after its request.
struct Looks {
  int InVain;   // in a row
  int Omitted;  // since the last
};
Looks looks;

int startPipe[2] = {-1, -1};  // releases the command that started the agent

bool InSets(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

void RegisterIn(fd_set* set, int fd) {
  FD_SET(fd, set);
  if (fd >= g_DbcI.SocketSets.MaxSocket) g_DbcI.SocketSets.MaxSocket = fd + 1;
}

void TraceRegistration(const char* file, int line, const char* operation, int fd) {
  if (Tracing()) log(file, line, kLogTrace, "%s %d", operation, fd);
}

}  // namespace

void REGISTER_SOCKET_FOR_READ_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (InSets(fd)) RegisterIn(&g_DbcI.SocketSets.ReadSet, fd);
}

void REGISTER_SOCKET_FOR_WRITE_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (InSets(fd)) RegisterIn(&g_DbcI.SocketSets.WriteSet, fd);
}

void REGISTER_SOCKET_FOR_THE_LINK(const char* file, int line, int fd, Link* link) {
  if (Tracing())
    log(file, line, kLogTrace, "REGISTER_SOCKET_FOR_THE_LINK %d, %.8s", fd, link->NodeName);
  if (fd >= 0 && fd < kMaxDescriptors) g_DbcI.SocketSets.SocketLinks[fd] = link;
}

void UNREGISTER_SOCKET_FOR_READ_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (!InSets(fd)) return;
  StopWaitingFor(fd);
  FD_CLR(fd, &g_DbcI.SocketSets.ReadSet);
  FD_CLR(fd, &readyForRead);
}

void UNREGISTER_SOCKET_FOR_WRITE_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (!InSets(fd)) return;
  FD_CLR(fd, &g_DbcI.SocketSets.WriteSet);
  FD_CLR(fd, &readyForWrite);
}

void UNREGISTER_SOCKET_FOR_THE_LINK(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (fd >= 0 && fd < kMaxDescriptors) g_DbcI.SocketSets.SocketLinks[fd] = nullptr;
}

int DbcInitGlobal(const char* file, int line) {
  ENTER();
  g_DbcI.SocketSets = {};
  g_DbcI.SocketSets.AgentPid = getpid();
  return 0;
}

int UseTheLinkAsDefault(int line, Link* link) {
  const char* const file = Module;
  ENTER();
  const Link* const old = g_DbcI.DefaultLink;
  if ((old && old->State == kLinkConnected) || link == old || link->State != kLinkConnected)
    return LEAVE(-1, "FAILED Link is not connected or Link is already default");
  MoveDefaultRequests(old, link);
  g_DbcI.DefaultLink = link;
  SendAllSavedMsgToTheLink(HERE, link);
  return 0;
}

namespace {

// Start-up

// A socket must never get the number of a standard stream.
void OpenStandardStreams() {
  for (int fd = 0; fd < kFirstDescriptor; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) return;
  }
}

void CloseInheritedDescriptors() {
  for (int fd = kFirstDescriptor; fd <= kMaxDescriptors; ++fd) close(fd);
}

// Waits until the agent is ready or dead; a failed fork looks like a dead agent.
[[noreturn]] void WaitForAgent() {
  char byte;
  close(startPipe[1]);
  while (read(startPipe[0], &byte, 1) < 0 && errno == EINTR) continue;
  close(startPipe[0]);
  _exit(0);
}

void Detach() {
  std::fflush(stdout);
  if (pipe(startPipe) != 0) startPipe[0] = startPipe[1] = -1;
  if (fork() != 0) WaitForAgent();
  close(startPipe[0]);
  setsid();
  g_DbcI.SocketSets.AgentPid = getpid();
}

void ReleaseStarter() {
  if (g_DbcI.NoDaemon) return;
  const char ready = 1;
  while (write(startPipe[1], &ready, 1) < 0 && errno == EINTR) continue;
  close(startPipe[1]);
}

void WritePidFile() {
  if (!g_DbcI.PidFile) return;
  std::FILE* const stream = std::fopen(g_DbcI.PidFile, "we");
  if (!stream) {
    LOG(kLogResult, "File open failed: %s. Status: %d.", g_DbcI.PidFile, errno);
    return;
  }
  std::fprintf(stream, "%d\n", g_DbcI.SocketSets.AgentPid);
  std::fclose(stream);
}

void SignalParent() {
  if (g_DbcI.SignalToParentProcess == 0) return;
  LOG(kLogTrace, "Send signal %d to parent process %d", g_DbcI.SignalToParentProcess,
      g_DbcI.ParentPid);
  kill(g_DbcI.ParentPid, g_DbcI.SignalToParentProcess);
}

void ConnectOnLoad() {
  if (!g_DbcI.ConnectOnLoad) return;
  LOG(kLogTrace, "Try connect all links after initialisation");
  Link* link = g_DbcI.LinkList;
  do {
    const int status = ConnectTheLink(HERE, link);
    if (status == 0 && link->State == kLinkConnected && g_DbcI.ConnectOnLoad) {
      LOG(kLogDefault, "Link %.8s connected", link->NodeName);
      UseTheLinkAsDefault(__LINE__, link);
      g_DbcI.ConnectOnLoad = 0;
    }
    link = link->Next;
  } while (link != g_DbcI.LinkList);
}

// The timer

void LinkFailed(Link* link, int status, int sysErr) {
  if (ReconnectionFollows(link))
    TryConnectDefaultLinkToNextServer(HERE, link, status);
  else
    DisconnectLink(HERE, link, status, sysErr);
}

// While the connection circle waits for the timer, its start is tried again on each tick.
void TickCircle() {
  if (!g_DbcI.AutoConnect || g_DbcI.AutoConnectTimeout == 0 || g_DbcI.CircleTimeCount == 0) return;
  --g_DbcI.CircleTimeCount;
  LOG(kLogTrace, "CircleTimeCount = %d", g_DbcI.CircleTimeCount);
  Link* const start = CircleEntry();
  if (!start || !g_DbcI.DefaultLink || g_DbcI.DefaultLink->State != kLinkDisconnected) return;
  if (start->State != kLinkDisconnected) return;
  const int status = ConnectTheLink(HERE, start);
  if (status != 0) TryConnectDefaultLinkToNextServer(HERE, start, status);
}

void TickLinks() {
  Link* link = nullptr;
  while ((link = GetNextActiveLink(HERE, link)) != nullptr) {
    const int status = link->Protocol->TimerEvent(HERE, link);
    if (link->State != kLinkDisconnected) link->Broken = status;
    if (status != 0) LinkFailed(link, status, 0);
  }
}

void WatchParent() {
  if (g_DbcI.ParentCheck && !ProcessIsAlive(g_DbcI.ParentPid)) g_DbcI.ExitStatus = -1;
}

void HandleTimerEvent(const char* file, int line) {
  ENTER();
  TickCircle();
  TickLinks();
  AnswerStrandedRequests();
  TestAliveClient(HERE, 0);
  g_DbcI.AlarmFlag = 0;
  WatchParent();
  LookAtAllNext();
}

// Waiting

// Tests one descriptor in one of select's three sets: its result, with no wait. A signal tells
// nothing about the descriptor.
int SelectOne(int fd, int which) {
  int result;
  do {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    fd_set* sets[3] = {};
    sets[which] = &set;
    timeval none = {0, 0};
    result = select(fd + 1, sets[0], sets[1], sets[2], &none);
  } while (result < 0 && errno == EINTR);
  return result;
}

bool IsGoodDescriptor(int fd) {
  return SelectOne(fd, 0) >= 0 && SelectOne(fd, 1) >= 0 && SelectOne(fd, 2) == 0;
}

// What is done for the link or the clients may open a connection that gets the number: that one
// is not closed. Otherwise closing twice does no harm.
void DropBadDescriptor(int fd) {
  Link* const link = LinkOfSocket(fd);
  if (link) DisconnectLink(HERE, link, kStatusBadDescriptor, errno);
  const bool isClient = FD_ISSET(fd, &g_DbcI.ClientSockets);
  if (isClient) TestAliveClient(HERE, 0);
  if (LinkOfSocket(fd)) return;
  if (isClient) {
    CloseClient(fd);
    return;
  }
  StopWaitingFor(fd);
  close(fd);
  FD_CLR(fd, &g_DbcI.SocketSets.ReadSet);
  FD_CLR(fd, &g_DbcI.SocketSets.WriteSet);
  ForgetDescriptor(fd);
}

// A failed wait does not tell which descriptor is bad.
// kept: the line is written for those found good.
void ProbeDescriptors(int selectErrno) {
  for (int fd = kFirstDescriptor; fd < g_DbcI.SocketSets.MaxSocket; ++fd) {
    errno = selectErrno;
    if (IsGoodDescriptor(fd))
      LOG(kLogTrace, "Select bad status socket=%d errno=%d", fd, selectErrno);
    else
      DropBadDescriptor(fd);
  }
}

// Serving

void ReadFromLink(Link* link) {
  g_DbcI.ServedLink = link;
  link->Protocol->ReadyForRead(HERE, link);
  g_DbcI.ServedLink = nullptr;
}

bool TurnIsOver() { return turn.Packets >= kPacketsInARow || turn.Unasked >= unaskedAllowed; }

void EndTurn() {
  flooded = flooded || turn.Unasked >= std::min(unaskedAllowed, kPacketsInARow / 2);
  turn = {};
}

// Reads a packet of a link, those that have been taken together with it, and what is likely to
// have come meanwhile.
void DrainLink(int fd, Link* link) {
  do {
    const int inFlight = RequestsInFlight();
    ReadFromLink(link);
    ++turn.Packets;
    turn.Unasked += RequestsInFlight() >= inFlight;
  } while ((FrameWaits(fd) || MoreHasCome(fd)) && LinkOfSocket(fd) == link &&
           link->State == kLinkConnected && !TurnIsOver() && !Stopping());
}

// A link that keeps delivering is drained before anything else is looked at, but not for ever.
bool LastLinkGoesFirst() { return LinkOfSocket(g_DbcI.LastLinkSocket) && !TurnIsOver(); }

bool ServeLastLink() {
  const int fd = g_DbcI.LastLinkSocket;
  Link* const link = LinkOfSocket(fd);
  if (!LastLinkGoesFirst() || !FD_ISSET(fd, &readyForRead)) {
    EndTurn();
    return false;
  }
  DrainLink(fd, link);
  return true;
}

void SendingFailed(Link* link, int error) {
  LOG(kLogDriver, "Write into the socket of link \"%.8s\" failed. errno = %d", link->NodeName,
      error);
  DisconnectLink(HERE, link, kStatusSend, error);
}

void SendHeldRequests() {
  Link* const failed = LinkOfSocket(SendHeld(HERE));
  if (failed) SendingFailed(failed, errno);
}

// Several requests of a pass travel to a link together. After some of them the link that answered
// last is looked at: a node whose answers nobody takes stops reading, and its receive buffer here
// holds few of them.
void BetweenRequests() {
  if (HeldFrames() > 0 && HeldFrames() < kRequestsAtOnce) return;
  SendHeldRequests();
  const int fd = g_DbcI.LastLinkSocket;
  Link* const link = LinkOfSocket(fd);
  if (!link || link->State != kLinkConnected || RequestsInFlight() < kManyInFlight) return;
  EndTurn();
  DrainLink(fd, link);
  EndTurn();
}

// The only request of a pass has been sent. A node on the same processor has often answered by now,
// and a wait is saved; elsewhere it hardly ever has, and looking is soon left to one time in many.
void LookForAnswer() {
  const int fd = g_DbcI.LastLinkSocket;
  Link* const link = LinkOfSocket(fd);
  if (!link || !IsReadAhead(fd) || RequestsInFlight() == 0 || Tracing()) return;
  if (looks.InVain >= kLooksInVain && ++looks.Omitted < kLooksOmitted) return;
  const int inFlight = RequestsInFlight();
  EndTurn();
  DrainLink(fd, link);
  EndTurn();
  looks.InVain = RequestsInFlight() < inFlight ? 0 : looks.InVain + 1;
  looks.Omitted = 0;
}

bool HasRequest(int fd) {
  return FD_ISSET(fd, &g_DbcI.ClientSockets) && FD_ISSET(fd, &readyForRead);
}

// Each of the passes takes the count of events still to serve and returns what is left of it.

int ServeLastClient(int events) {
  const int fd = g_DbcI.LastClientSocket;
  if (!HasRequest(fd)) return events;
  HandleMessageFromClientQueue(HERE, fd);
  FD_CLR(fd, &readyForRead);
  return events - 1;
}

// Beside a link that floods a single packet in a pass would be too little for the others: all have
// turns, and those of the flood are short.
void ReadInPass(int fd, Link* link) {
  if (unaskedAllowed == kPacketsInARow) {
    ReadFromLink(link);
    return;
  }
  DrainLink(fd, link);
  EndTurn();
}

int ReadPass(int events) {
  for (int fd = kFirstDescriptor; events > 0 && fd < g_DbcI.SocketSets.MaxSocket; ++fd) {
    Link* const link = LinkOfSocket(fd);
    if (!link || !FD_ISSET(fd, &readyForRead)) continue;
    LOG(kLogTrace, "Socket %d ready for read", fd);
    --events;
    ReadInPass(fd, link);
    g_DbcI.LastLinkSocket = fd;
    FD_CLR(fd, &readyForRead);
  }
  return events;
}

void LinkConnected(Link* link) {
  if (g_DbcI.ConnectOnLoad) {
    UseTheLinkAsDefault(__LINE__, link);
    g_DbcI.ConnectOnLoad = 0;
  }
  if (link == g_DbcI.DefaultLink) g_DbcI.CircleStartLink = link;
  LOG(kLogDefault, "Link %.8s connected", link->NodeName);
}

// What is kept for the peer goes out first; the descriptor is then not one that waits to connect.
void ServeWritableLink(int fd, Link* link) {
  LOG(kLogTrace, "Socket %d ready for write", fd);
  if (UnsentBytes(fd) > 0) {
    if (FlushBytes(HERE, fd) != 0) SendingFailed(link, errno);
    return;
  }
  const int status = link->Protocol->ReadyForWrite(HERE, link);
  if (status != 0)
    LinkFailed(link, status, errno);
  else if (link->State == kLinkConnected)
    LinkConnected(link);
}

void WritePass(int events) {
  for (int fd = kFirstDescriptor; events > 0 && fd < g_DbcI.SocketSets.MaxSocket; ++fd) {
    Link* const link = LinkOfSocket(fd);
    if (FD_ISSET(fd, &readyForWrite)) {
      if (link)
        ServeWritableLink(fd, link);
      else
        FlushClient(fd);
      --events;
    }
    if (link || events == 0 || !HasRequest(fd)) continue;
    HandleMessageFromClientQueue(HERE, fd);
    g_DbcI.LastClientSocket = fd;
    --events;
    BetweenRequests();
  }
}

bool HasNewClient() {
  const int fd = g_DbcI.ClientListenSocket;
  return fd >= 0 && FD_ISSET(fd, &readyForRead);
}

// Links before clients, input before output, new connections last. The trace shows each request
// as it is written, so with the trace on none is held back.
void ServeEvents(int events) {
  if (ServeLastLink()) return;
  HoldOutput(events > 1 && !Tracing());
  events = ServeLastClient(events);
  if (events == 0) return LookForAnswer();
  events = ReadPass(events);
  unaskedAllowed = flooded ? kFloodInARow : kPacketsInARow;
  flooded = false;
  WritePass(events);
  HoldOutput(false);
  SendHeldRequests();
  if (HasNewClient()) AcceptNewClientConnection(HERE);
}

// Frames that have been taken already are events that the system does not know of. Puts their
// descriptors, as far as they are to be read, in the set; returns how many it did not have.
int AddWaitingFrames(fd_set* set) {
  int added = 0;
  for (int fd = kFirstDescriptor; WaitingFrames() > 0 && fd < g_DbcI.SocketSets.MaxSocket; ++fd) {
    if (!FrameWaits(fd) || !FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet)) continue;
    added += !FD_ISSET(fd, set);
    FD_SET(fd, set);
  }
  return added;
}

int Wait() {
  fd_set waiting;
  bool atOnce = false;
  if (WaitingFrames() > 0) {
    FD_ZERO(&waiting);
    atOnce = AddWaitingFrames(&waiting) > 0;
  }
  const int alone = LastLinkGoesFirst() ? g_DbcI.LastLinkSocket : -1;
  const int events = WaitForEvents(atOnce, &readyForRead, &readyForWrite, alone);
  LOG(kLogTrace, "select return %d", events);
  return events < 0 ? events : events + AddWaitingFrames(&readyForRead);
}

void RunLoop() {
  FD_ZERO(&readyForRead);
  FD_ZERO(&readyForWrite);
  while (true) {
    ForgetWakeUp();
    FreeRetiredLinks();
    if (Stopping()) return;
    if (g_DbcI.AlarmFlag) HandleTimerEvent(HERE);
    if (Stopping()) return;
    ReleaseParkedClients();
    const int events = Wait();
    if (events > 0)
      ServeEvents(events);
    else if (events == 0)
      g_DbcI.SigIoFlag = 0;
    else if (errno != EINTR)
      ProbeDescriptors(errno);
  }
}

// Shutdown

// Reader children that are told to end must not be waited for in between.
void BlockChildSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  sigprocmask(SIG_BLOCK, &set, nullptr);
}

void UninitLinks() {
  BlockChildSignal();
  Link* link = g_DbcI.LinkList;
  if (!link) return;
  do {
    link->Protocol->UninitLink(HERE, link);
    if (!g_DbcI.PingMode) AnswerSavedRequests(link, 0, 0);
    link = link->Next;
  } while (link != g_DbcI.LinkList);
}

int Exit() {
  FlushClientsAtExit();
  FreeRetiredLinks();
  UninitTimer(HERE);
  UninitClientQueue(HERE);
  Free(g_DbcI.ClientPidList);
  if (g_DbcI.PidFile) unlink(g_DbcI.PidFile);
  if (g_DbcI.ExitStatus == -1) g_DbcI.ExitStatus = 0;
  if (g_DbcI.PingMode) DeinitPing(HERE);
  LOG(kLogTrace, "Exit SUCCESS");
  return static_cast<std::int16_t>(g_DbcI.ExitStatus);
}

// Opens the exchange to the clients and builds the links. Returns false when the agent cannot
// start, with the status of the process.
bool OpenForClients(int* status) {
  if (InitialiseClientQueue(HERE) != 0) {
    if (!g_DbcI.Unload) LOG(kLogResult, "Initialization of interprocess communication failed");
    *status = -1;
    return false;
  }
  if (InitLinkQueueFromNodetab(HERE) != 0) {
    g_DbcI.ExitStatus = -2;
    *status = Exit();
    return false;
  }
  SignalParent();
  ConnectOnLoad();
  return true;
}

}  // namespace

int AgentMain(int, char** argv) {
  OpenStandardStreams();
  CloseInheritedDescriptors();
  ReadDbcLogLevel();
  if (DbcInitGlobalInternal(HERE, argv) != 0) return -1;
  if (DbcInitGlobal(HERE) != 0) return -1;
  if (!g_DbcI.NoDaemon) Detach();
  WritePidFile();
  InitialiseSignalHandlers(HERE);
  if (InitialiseTimer(HERE) != 0) return -1;
  int status = 0;
  if (g_DbcI.PingMode) {
    if (InitialisePing(HERE) != 0) return static_cast<std::int16_t>(g_DbcI.ExitStatus);
  } else if (!OpenForClients(&status)) {
    return status;
  }
  PrepareWait(!Tracing());  // the trace shows select as it is
  ReleaseStarter();
  ReleaseStartPages();
  RunLoop();
  EndWait();
  UninitLinks();
  return Exit();
}
