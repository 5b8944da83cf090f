// What holds at a wait: who is parked, and that nothing is held back.
#include <map>

#include "client/clntxch.h"
#include "client/connection.h"
#include "core/stream.h"
#include "link/link.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

// The bounds as they are promised; the agent has its own.
constexpr std::size_t kLinkBound = std::size_t{64} * 1024;
constexpr std::size_t kClientBound = std::size_t{1024} * 1024;

// Parking

std::size_t UnsentOf(const Link* link) { return link->Unsent + UnsentBytes(link->Descriptor); }

bool HasReasonToPark(const Connection& connection) {
  const Link* const link = connection.ParkedBehind;
  return connection.Requests[kWaiting].Count >= kWaitingBound ||
         connection.Requests[kInFlight].Count >= kInFlightBound ||
         (link && UnsentOf(link) > kLinkBound);
}

void CheckParked(int fd, bool isClient) {
  const Connection& connection = g_Connections[fd];
  if ((connection.Serial != 0) != isClient && g_DbcI.PingMode == 0)  // which reads a pipe
    world::Violated("connection %d has the serial number %u", fd, connection.Serial);
  if (connection.Parked && !isClient) world::Violated("the closed connection %d is parked", fd);
  if (!connection.Parked && connection.ParkedBehind)
    world::Violated("connection %d is not parked, but behind %.8s", fd,
                    connection.ParkedBehind->NodeName);
  if (!isClient) return;
  if (connection.Parked == (FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet) != 0))
    world::Violated("connection %d is %s", fd, connection.Parked ? "parked and read" : "not read");
  if (connection.Parked && !HasReasonToPark(connection))
    world::Violated("connection %d is parked for nothing", fd);
  if (!connection.Parked && connection.Requests[kWaiting].Count >= kWaitingBound)
    world::Violated("connection %d is not parked", fd);
}

// The chain of a link's parked connections; returns their number.
int CheckChain(const Link* link) {
  int count = 0;
  std::int32_t previous = 0;
  for (std::int32_t fd = link->Books.FirstParked; fd != 0; fd = g_Connections[fd].NextParked) {
    if (!IsConnectionNumber(fd) || ++count > FD_SETSIZE)
      world::Violated("the parked connections of %.8s are no chain", link->NodeName);
    const Connection& connection = g_Connections[fd];
    if (!connection.Parked || connection.ParkedBehind != link ||
        connection.PreviousParked != previous)
      world::Violated("connection %d does not belong into the chain of %.8s", fd, link->NodeName);
    previous = fd;
  }
  return count;
}

// Streams

// At a wait nothing is kept back: what is unsent, the system has refused to take, or a reader child
// is writing to the connection.
void CheckOutput(int fd, bool isClient) {
  const std::size_t unsent = UnsentBytes(fd);
  const bool isShared = isClient && MayFlush;
  if (unsent > 0 && world::IsOpen(fd) && !world::At(fd).Refused && !isShared)
    world::Violated("%zu bytes for descriptor %d are held back", unsent, fd);
  if (isClient && unsent > kClientBound)
    world::Violated("%zu bytes are kept for connection %d", unsent, fd);
  if (FrameWaits(fd) && FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet))
    world::Violated("a frame of descriptor %d lies in the agent", fd);
}

void CheckStreamCounts() {
  int unsent = 0, waiting = 0;
  for (int fd = 0; fd < EndOfDescriptors(); ++fd) {
    unsent += UnsentBytes(fd) > 0;
    waiting += FrameWaits(fd);
  }
  if (unsent != UnsentDescriptors())
    world::Violated("%d descriptors with output are counted, %d have some", UnsentDescriptors(),
                    unsent);
  if (waiting != g_WaitingCount)
    world::Violated("%d descriptors with frames are counted, %d have some", g_WaitingCount,
                    waiting);
}

}  // namespace

void CheckNoneIsOverlooked() {
  for (int fd = kFirstDescriptor; fd < EndOfDescriptors(); ++fd) {
    const bool isShared = FD_ISSET(fd, &g_DbcI.ClientSockets) && MayFlush;
    if (FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet) && world::IsReadable(fd))
      world::Violated("the input of descriptor %d is overlooked", fd);
    if (FD_ISSET(fd, &g_DbcI.SocketSets.WriteSet) && world::IsWritable(fd) && !isShared)
      world::Violated("descriptor %d has room for output and is overlooked", fd);
  }
}

// The connections that are parked at a tick although their clients have hung up. One of which a
// request is read afterwards has been released, and may be parked anew until the next tick.
static std::map<int, std::uint32_t> abandoned;  // serial number by descriptor

static void (*requestWatch)(const ClientMessage& msg);

static int GetMsgWatched(const char* file, int line, ClientMessage* msg, int socket) {
  abandoned.erase(socket);
  const int length = GetMsgFromClient(file, line, msg, socket);
  if (length > 0 && requestWatch) requestWatch(*msg);
  return length;
}

void WatchRequests(void (*watch)(const ClientMessage& msg)) {
  requestWatch = watch;
  g_DbcI.GetMsg = GetMsgWatched;
}

void NoteTick() {
  g_DbcI.GetMsg = GetMsgWatched;
  abandoned.clear();
  for (int fd = 0; fd < EndOfDescriptors(); ++fd) {
    if (g_Connections[fd].Parked && world::At(fd).PeerGone)
      abandoned[fd] = g_Connections[fd].Serial;
  }
}

void CheckNoneParkedIsGone() {
  for (const auto& [fd, serial] : abandoned) {
    if (g_Connections[fd].Parked && g_Connections[fd].Serial == serial)
      world::Violated("connection %d is parked, its client has hung up", fd);
  }
}

void CheckBooks(const std::set<const Link*>& links) {
  int chained = 0;
  for (const Link* link : links) chained += CheckChain(link);
  for (int fd = 0; fd < EndOfDescriptors(); ++fd) {
    const bool isClient = FD_ISSET(fd, &g_DbcI.ClientSockets);
    chained -= g_Connections[fd].ParkedBehind != nullptr;
    CheckParked(fd, isClient);
    CheckOutput(fd, isClient);
  }
  if (chained != 0) world::Violated("a parked connection is in no chain");
  CheckStreamCounts();
  CheckNothingIsJoined();
}
