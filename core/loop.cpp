// The loop: one pass frees what was deleted, looks at the stop request and the timer, waits, and
// serves what the wait has found.
#include "core/loop.h"

#include <unistd.h>

#include <cerrno>

#include "client/clntxch.h"
#include "client/dispatch.h"
#include "client/parking.h"
#include "client/primitiv.h"
#include "core/blocks.h"
#include "core/fd_bits.h"
#include "core/notify.h"
#include "core/process.h"
#include "core/stats.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "core/turn.h"
#include "core/wait.h"
#include "link/joint.h"
#include "link/link.h"
#include "link/protocol.h"

static constexpr char Module[] = "dbc";

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
    const bool connecting = link->State == kLinkConnecting;
    const int status = link->Protocol->TimerEvent(HERE, link);
    if (status != 0 && connecting) StatsConnectFailed(link->Books.StatsRow, status, 0);
    if (status == kStatusReceiveTimeout) StatsWatchdog(link->Books.StatsRow);
    if (link->State != kLinkDisconnected) link->Broken = status;
    if (status != 0) LinkFailed(link, status, 0);
  }
}

void WatchParent() {
  if (g_DbcI.ParentCheck && !ProcessIsAlive(g_DbcI.ParentPid)) g_DbcI.ExitStatus = -1;
}

// What is told of the state: to whoever looks at the statistics page, and to the service manager.

void ShowUnsent(const Link* link) {
  StatsLinkUnsent(link->Books.StatsRow, link->Unsent + UnsentBytes(link->Descriptor));
}

// Before each wait.
void ShowState() {
  if (!KeepsStats()) return;
  StatsDefaultLink(g_DbcI.DefaultLink ? g_DbcI.DefaultLink->Books.StatsRow : kNoStatsRow);
  StatsLogLevel(g_DbcI.LogLevel);
  StatsEndPass({RequestsInFlight(), RequestsWaiting()});
}

int CountClients() {
  int count = 0;
  const fd_set& clients = g_DbcI.ClientSockets;
  for (int fd = NextInSet(clients, 0); fd >= 0; fd = NextInSet(clients, fd + 1)) ++count;
  return count;
}

void ShowTick() {
  if (!KeepsStats() && !HasManager()) return;
  int nodes = 0;
  for (const Link* link = g_DbcI.LinkList; link; link = link->Next) {
    ShowUnsent(link);
    ++nodes;
    if (link->Next == g_DbcI.LinkList) break;
  }
  StatsTick();
  StatsLogLost(LinesLost());
  if (HasManager())
    NotifyTick(CountClients(), nodes, g_DbcI.DefaultLink ? g_DbcI.DefaultLink->NodeName : nullptr);
}

void HandleTimerEvent(const char* file, int line) {
  ENTER();
  TickCircle();
  TickLinks();
  AnswerStrandedRequests();
  TestAliveClient(HERE, 0);
  CloseAbandonedParked();
  WakeListener();
  g_DbcI.AlarmFlag = 0;
  WatchParent();
  LookAtAllNext();
  FreeIdleBlocks();
  ShowTick();
}

// A descriptor has gone bad

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
  g_SetsChanged = true;
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

// Input of links

// A node has all requests before its answers are looked at. The link may have gone down with them:
// then there is nothing of it to be read, even if its number is in use again.
void ReadFromLink(int fd, Link* link) {
  SendTogether();
  if (!FD_ISSET(fd, &g_Ready.Read)) return;
  const int inFlight = RequestsInFlight();
  g_DbcI.ServedLink = link;
  link->Protocol->ReadyForRead(HERE, link);
  g_DbcI.ServedLink = nullptr;
  CountPacket(RequestsInFlight() < inFlight);
}

// Reads a packet of a link, those that have been taken together with it, and what is likely to
// have come meanwhile.
void DrainLink(int fd, Link* link) {
  do {
    ReadFromLink(fd, link);
  } while ((FrameWaits(fd) || MoreHasCome(fd)) && LinkOfSocket(fd) == link &&
           link->State == kLinkConnected && !TurnIsOver() && !g_DbcI.AlarmFlag && !Stopping());
}

// A link that keeps delivering is drained before anything else is looked at, but not for ever.
bool ServeLastLink() {
  const int fd = g_DbcI.LastLinkSocket;
  Link* const link = LinkOfSocket(fd);
  if (!link || TurnIsOver() || !FD_ISSET(fd, &g_Ready.Read)) {
    EndTurn();
    return false;
  }
  DrainLink(fd, link);
  return true;
}

// Each of the passes takes the count of events still to serve and returns what is left of it.

int ReadPass(int events) {
  const bool turns = AllHaveTurns();
  for (int fd = NextInSet(g_Ready.Read, kFirstDescriptor); events > 0 && fd >= 0;
       fd = NextInSet(g_Ready.Read, fd + 1)) {
    Link* const link = LinkOfSocket(fd);
    if (!link) continue;
    LOG(kLogTrace, "Socket %d ready for read", fd);
    --events;
    if (turns)
      DrainLink(fd, link);
    else
      ReadFromLink(fd, link);
    EndTurn();
    g_DbcI.LastLinkSocket = fd;
    FD_CLR(fd, &g_Ready.Read);
  }
  EndPassOfTurns();
  return events;
}

// Output of links and requests of clients

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
  SendTogether();
  if (!FD_ISSET(fd, &g_Ready.Write)) return;  // it has gone down with what was sent
  if (UnsentBytes(fd) > 0) {
    if (FlushBytes(HERE, fd) != 0) DisconnectLink(HERE, link, kStatusSend, errno);
    ShowUnsent(link);
    ReleaseParkedBehind(link);
    return;
  }
  const int status = link->Protocol->ReadyForWrite(HERE, link);
  if (status != 0) StatsConnectFailed(link->Books.StatsRow, status, errno);
  StatsLinkState(link->Books.StatsRow, link->State);
  if (status != 0)
    LinkFailed(link, status, errno);
  else if (link->State == kLinkConnected)
    LinkConnected(link);
}

bool HasRequest(int fd) {
  return FD_ISSET(fd, &g_DbcI.ClientSockets) && FD_ISSET(fd, &g_Ready.Read);
}

bool requestsWereServed;  // since the last wait

void ServeClient(int fd) {
  FD_CLR(fd, &g_Ready.Read);
  HandleMessageFromClientQueue(HERE, fd);
  requestsWereServed = true;
}

int ServeLastClient(int events) {
  const int fd = g_DbcI.LastClientSocket;
  if (!HasRequest(fd)) return events;
  ServeClient(fd);
  return events - 1;
}

// The next descriptor with room for output or a client's request, or -1.
int NextToServe(int from) {
  return NextInWords(
      [](int i) {
        return WordOf(g_Ready.Write, i) |
               (WordOf(g_Ready.Read, i) & WordOf(g_DbcI.ClientSockets, i));
      },
      from);
}

void WritePass(int events) {
  for (int fd = NextToServe(kFirstDescriptor); events > 0 && fd >= 0; fd = NextToServe(fd + 1)) {
    Link* const link = LinkOfSocket(fd);
    if (FD_ISSET(fd, &g_Ready.Write)) {
      if (link)
        ServeWritableLink(fd, link);
      else
        FlushClient(fd);
      --events;
    }
    if (link || events == 0 || !HasRequest(fd)) continue;
    ServeClient(fd);
    g_DbcI.LastClientSocket = fd;
    --events;
  }
}

bool HasNewClient() {
  const int fd = g_DbcI.ClientListenSocket;
  return fd >= 0 && FD_ISSET(fd, &g_Ready.Read);
}

// Links before clients, input before output, new connections last. The requests of the pass go to a
// link together.
void ServeEvents(int events) {
  if (ServeLastLink()) return;
  JoinRequests(events > 1);
  events = ServeLastClient(events);
  if (events > 0) {
    events = ReadPass(events);
    WritePass(events);
  }
  JoinRequests(false);
  SendTogether();
  if (HasNewClient()) AcceptNewClientConnection(HERE);
}

// The wait

constexpr int kLooksInVain = 8;    // in a row: then most looks are omitted,
constexpr int kLooksOmitted = 64;  // all but one of so many

struct Looks {
  int InVain;   // in a row
  int Omitted;  // since the last
};
Looks looks;

// Requests have just gone out. A node on the same processor has often answered by now, and the link
// served last would be served alone: then no wait is needed to find that. Elsewhere it hardly ever
// has, and looking is soon left to one time in many.
bool HasAnsweredAtOnce() {
  const Link* const link = LinkOfSocket(g_DbcI.LastLinkSocket);
  if (!requestsWereServed || !link || link->Books.InFlight == 0 || TurnIsOver()) return false;
  if (looks.InVain >= kLooksInVain && ++looks.Omitted < kLooksOmitted) return false;
  const bool found = LookAhead(g_DbcI.LastLinkSocket);
  looks = {.InVain = found ? 0 : looks.InVain + 1, .Omitted = 0};
  return found;
}

int Wait() {
  const bool found = HasAnsweredAtOnce();
  requestsWereServed = false;
  const int events = found ? ServeAlone(g_DbcI.LastLinkSocket) : WaitForEvents();
  LOG(kLogTrace, "select return %d", events);
  return events;
}

}  // namespace

int RunLoop() {
  g_Ready = {};
  while (true) {
    ForgetWakeUp();
    FreeRetiredLinks();
    if (const int status = g_DbcI.ExitStatus) return status;
    if (g_DbcI.AlarmFlag) HandleTimerEvent(HERE);
    if (const int status = g_DbcI.ExitStatus) return status;
    ShowState();
    const int events = Wait();
    StatsPass();
    if (events > 0)
      ServeEvents(events);
    else if (events == 0)
      g_DbcI.SigIoFlag = 0;
    else if (errno != EINTR)
      ProbeDescriptors(errno);
  }
}
