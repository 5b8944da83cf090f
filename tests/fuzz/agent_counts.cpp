// What the agent counts when it changes is counted here anew, from the records.
#include <array>
#include <map>

#include "client/connection.h"
#include "client/primitiv.h"
#include "core/stream.h"
#include "link/joint.h"
#include "link/link.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

// The bounds as they are promised; the agent has its own.
constexpr std::int32_t kGoneBounds[2] = {1024, 262144};
constexpr const char* kKinds[] = {"waiting", "in flight"};

struct Counts {
  std::int32_t Of[2] = {0, 0};
};

struct Recount {
  std::map<const Link*, Counts> Links, Gone;
  std::array<Counts, FD_SETSIZE> Connections = {};
};

void Count(Recount* recount, int kind, const Link* link, int socket) {
  ++recount->Links[link].Of[kind];
  if (IsConnectionNumber(socket))
    ++recount->Connections[static_cast<std::size_t>(socket)].Of[kind];
  else
    ++recount->Gone[link].Of[kind];
}

Recount CountRecords() {
  Recount recount;
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    if (InUse(saved)) Count(&recount, kWaiting, saved.Link, saved.Message.ClientSocket);
  }
  for (const MsgInfo& info : g_DbcI.MsgInfoArray) {
    if (InUse(info)) Count(&recount, kInFlight, info.Link, info.Socket);
  }
  return recount;
}

void CheckLink(const Link* link, const Counts& all, const Counts& gone) {
  const LinkBooks& books = link->Books;
  const std::int32_t counted[2] = {books.Waiting, books.InFlight};
  for (const int kind : {kWaiting, kInFlight}) {
    if (counted[kind] != all.Of[kind])
      world::Violated("link %.8s counts %d requests %s, %d are recorded", link->NodeName,
                      counted[kind], kKinds[kind], all.Of[kind]);
    if (books.Gone[kind].Count != gone.Of[kind])
      world::Violated("link %.8s counts %d %s of closed connections, %d are recorded",
                      link->NodeName, books.Gone[kind].Count, kKinds[kind], gone.Of[kind]);
    if (gone.Of[kind] > kGoneBounds[kind])
      world::Violated("link %.8s keeps %d requests %s of closed connections", link->NodeName,
                      gone.Of[kind], kKinds[kind]);
    if (books.ToldOfGone[kind] != 0 && gone.Of[kind] < kGoneBounds[kind])
      world::Violated("link %.8s does not notice that fewer are %s", link->NodeName, kKinds[kind]);
  }
}

void CheckConnection(int fd, const Counts& recorded) {
  const Connection& connection = g_Connections[fd];
  for (const int kind : {kWaiting, kInFlight}) {
    if (connection.Requests[kind].Count != recorded.Of[kind])
      world::Violated("connection %d counts %d requests %s, %d are recorded", fd,
                      connection.Requests[kind].Count, kKinds[kind], recorded.Of[kind]);
  }
  // What waits is let through to a connection that has nearly all it may have in flight.
  const std::int32_t waiting = recorded.Of[kWaiting], inFlight = recorded.Of[kInFlight];
  if (waiting > kWaitingBound || waiting + inFlight > kInFlightBound + kWaitingBound)
    world::Violated("of connection %d %d requests wait and %d are in flight", fd, waiting,
                    inFlight);
}

}  // namespace

void CheckCounts(const std::set<const Link*>& links) {
  Recount recount = CountRecords();
  for (const Link* link : links) CheckLink(link, recount.Links[link], recount.Gone[link]);
  for (int fd = 0; fd < EndOfDescriptors(); ++fd)
    CheckConnection(fd, recount.Connections[static_cast<std::size_t>(fd)]);
}

void CheckNothingIsJoined() {
  if (NextJoined() >= 0)
    world::Violated("requests for descriptor %d are still to be sent together", NextJoined());
  if (TakeLeftOvers()) world::Violated("requests are left over");
}
