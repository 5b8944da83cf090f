// The record of a link, and what it takes part in.
#pragma once
#include <cstddef>
#include <cstdint>

#include "core/dbc.h"
#include "core/stats.h"

struct Protocol;

enum : std::uint8_t { kLinkDisconnected = 0, kLinkConnected = 1, kLinkConnecting = 2 };

constexpr std::size_t kPendingLineSize = 300;
constexpr std::size_t kNodeNameMax = 8;
constexpr std::size_t kPlaceSize = 64;

// Elements of an array in the order in which they came, chained through notes beside it; all zero:
// empty.
struct SlotList {
  std::int32_t First, Last;  // element + 1
  std::int32_t Count;
};

// What a link has to do with requests and connections: changed with what is counted, so that nobody
// has to search. It stays when the link is redefined.
struct LinkBooks {
  std::int32_t Waiting;        // requests saved for it
  std::int32_t InFlight;       // requests sent over it and not answered
  SlotList Gone[2];            // of those (kWaiting, kInFlight) the ones of closed connections
  std::uint8_t ToldOfGone[2];  // that the oldest are let go of; until their number has fallen
  std::int32_t FirstParked;    // connection that waits for room in its output; 0: none
  std::int32_t StatsRow;       // of the statistics page
};
enum : int { kWaiting = 0, kInFlight = 1 };

// One node of the table. Allocated zero-filled, with calloc, by ParseNodetabString; deleted links
// are handed to RetireLink.
struct Link {
  struct Protocol* Protocol;
  std::uint8_t State;
  char NodeName[kNodeNameMax + 1];            // upper case
  void* DriverData;                           // the driver's own record
  Link* Next;                                 // the list is a circle
  char PendingNodetabLine[kPendingLineSize];  // to be applied at the next disconnect; or empty
  std::uint8_t DeletePending;                 // to be deleted at the next disconnect
  int Broken;             // the code with which the last tick found it broken, 0: it did not
  std::uint8_t Deleted;   // its driver has let go of it: it is not connected any more
  std::uint8_t WasEntry;  // of a deleted link: it was LinkList; walks start anew from there

  std::int32_t Descriptor;  // the one registered for it; 0: none
  std::size_t Unsent;       // bytes that a driver without a stream keeps for its peer
  char Place[kPlaceSize];   // the first two words of its address, to be shown

  LinkBooks Books;
};

inline StatsCounts CountsOf(const Link* link) {
  return {link->Books.InFlight, link->Books.Waiting};
}
