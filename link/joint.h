// Requests that one pass of the loop sends to a link travel together, as one call of the system.
// Each ends as it would have ended by itself.
#pragma once
#include <cstdint>

#include "client/message.h"
#include "client/primitiv.h"

// A request behind one that could not be sent: it meets the link as it is now.
struct LeftOver {
  ClientMessage Message;      // as its client sent it
  const struct Link* Listed;  // the link under which its client has been listed
  std::uint32_t Connection;   // serial number of its connection
  LeftOver* Next;
};

// From here on requests are kept, or no longer. What is kept has to be sent before a link is read,
// before anything that can take long, and before the pass ends.
void JoinRequests(bool on);

// No more can be kept.
bool JointIsFull();

// The latest request that was recorded has been handed to its driver, which may have kept it;
// `trailer` is what its client sent.
void NoteJoined(Link* link, const ClientMessage* msg, const unsigned char* trailer);

// Sends all. Where the system refuses, the link is taken down with 4007 and the requests behind the
// first that it did not take whole are left over.
void SendJoinedRequests();

// Those that are left over, in order; the caller frees them. Null: there are none.
LeftOver* TakeLeftOvers();

// The link goes down: its requests are answered otherwise.
void ForgetJoined(const Link* link);
