#include "client/parking.h"

#include <poll.h>

#include "client/clntxch.h"
#include "client/connection.h"
#include "core/fd_bits.h"
#include "core/stats.h"
#include "core/stream.h"
#include "core/trace.h"

static constexpr char Module[] = "clntxch";

namespace {

constexpr std::size_t kLinkUnsentMax = std::size_t{64} * 1024;
constexpr std::int32_t kWaitingMax = 32;
constexpr std::int32_t kInFlightMax = 0x10000;

fd_set parked;
int parkedCount;

bool IsFull(const Link* link) {
  return link && link->Unsent + UnsentBytes(link->Descriptor) > kLinkUnsentMax;
}

bool MustWait(const Connection& connection, const Link* link) {
  return connection.Requests[kWaiting].Count >= kWaitingMax ||
         connection.Requests[kInFlight].Count >= kInFlightMax || IsFull(link);
}

void ChainBehind(int socket, Link* link) {
  Connection& connection = g_Connections[socket];
  connection.ParkedBehind = link;
  connection.PreviousParked = 0;
  connection.NextParked = link->Books.FirstParked;
  if (link->Books.FirstParked != 0) g_Connections[link->Books.FirstParked].PreviousParked = socket;
  link->Books.FirstParked = socket;
}

void Unchain(Connection& connection) {
  Link* const link = connection.ParkedBehind;
  if (!link) return;
  const std::int32_t next = connection.NextParked, previous = connection.PreviousParked;
  (previous != 0 ? g_Connections[previous].NextParked : link->Books.FirstParked) = next;
  if (next != 0) g_Connections[next].PreviousParked = previous;
  connection.ParkedBehind = nullptr;
}

void Release(int socket) {
  ForgetParked(socket);
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
}

}  // namespace

void ParkIfFull(int socket, Link* link) {
  // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): it is no negative number
  if (!IsConnectionNumber(socket) || !FD_ISSET(socket, &g_DbcI.ClientSockets)) return;
  Connection& connection = g_Connections[socket];
  if (connection.Parked || !MustWait(connection, link)) return;
  connection.Parked = true;
  if (IsFull(link)) ChainBehind(socket, link);
  FD_SET(socket, &parked);
  ++parkedCount;
  StatsClientParked(socket, true, static_cast<std::uint32_t>(parkedCount));
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
}

void ReleaseParkedBehind(Link* link) {
  if (link->Books.FirstParked != 0 && !IsFull(link)) ForgetParkedBehind(link);
}

void ForgetParkedBehind(Link* link) {
  while (const int socket = link->Books.FirstParked) {
    Unchain(g_Connections[socket]);
    ReleaseIfRoom(socket);
  }
}

void ReleaseIfRoom(int socket) {
  if (!IsConnectionNumber(socket)) return;
  const Connection& connection = g_Connections[socket];
  if (connection.Parked && !MustWait(connection, connection.ParkedBehind)) Release(socket);
}

void ForgetParked(int socket) {
  if (!g_Connections[socket].Parked) return;
  Unchain(g_Connections[socket]);
  g_Connections[socket].Parked = false;
  FD_CLR(socket, &parked);
  --parkedCount;
  StatsClientParked(socket, false, static_cast<std::uint32_t>(parkedCount));
}

// A client that has only shut its sending direction down still waits for answers.
void CloseAbandonedParked() {
  if (parkedCount == 0) return;
  pollfd looks[FD_SETSIZE];
  nfds_t count = 0;
  for (int fd = NextInSet(parked, 0); fd >= 0; fd = NextInSet(parked, fd + 1))
    looks[count++] = {.fd = fd, .events = 0, .revents = 0};
  if (poll(looks, count, 0) <= 0) return;
  for (nfds_t i = 0; i < count; ++i) {
    const int fd = looks[i].fd;
    if ((looks[i].revents & (POLLHUP | POLLERR)) == 0 || !FD_ISSET(fd, &parked)) continue;
    LOG(kLogTrace, "Client of the parked connection %d has hung up", fd);
    CloseClient(fd, LUMO_STATS_HUNG_UP);
  }
}
