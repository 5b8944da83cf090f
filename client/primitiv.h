// What the agent owes its clients: requests that wait for a link and requests sent to a node.
#pragma once
#include <cstdint>

#include "client/connection.h"
#include "client/message.h"
#include "core/dbc.h"
#include "core/stats.h"

// A request that waits for its link; free when Link is null.
struct SavedMessage {
  ClientMessage Message;
  struct Link* Link;
};

// A request that went to a node and is not answered yet; free when Link is null.
struct MsgInfo {
  struct Link* Link;
  std::int32_t TaskName;    // process id of the client
  std::int32_t Socket;      // its connection; -1 when that has been closed
  std::uint16_t AstInd;     // the client's tag of the request
  std::int64_t SentAt = 0;  // StatsClock of the pass
};

inline bool InUse(const SavedMessage& saved) { return saved.Link != nullptr; }
inline bool InUse(const MsgInfo& info) { return info.Link != nullptr; }

// What a request in flight is known by as long as it is not answered: its record, and the serial
// number of this use of the record.
struct RequestId {
  std::int32_t Slot;
  std::uint32_t Serial;
};

// Both store a copy in the first free element, growing the array when there is none; 0, or -1 when
// memory ran out (the array is then as it was). Growing moves the elements.
int SaveUnsendMsg(const char* file, int line, const ClientMessage* msg, Link* link);
int SaveMsgInfo(const char* file, int line, const MsgInfo* info);

// The next element in use after `prev` (from the start when null), or null.
SavedMessage* GetNextUnsendMsg(SavedMessage* prev);
MsgInfo* GetNextMsgInfo(const char* file, int line, MsgInfo* prev);

// The next link of the circle that is not disconnected, or null. `prev` may be a link that was
// deleted since it was returned, in the same pass of the loop.
Link* GetNextActiveLink(const char* file, int line, Link* prev);

// 0 when the names are equal: at most 8 characters, ended by a blank or NUL, without regard to
// case; else 1.
int CompareNodeName(const char* a, const char* b);

// Requests in flight

// The id of the record that the latest SaveMsgInfo has made.
RequestId LastSavedRequest();

// The id of a record in use.
RequestId IdOf(const MsgInfo* info);

// The record of the request, or null when it has been released since.
MsgInfo* FindRequest(RequestId id);

// The first record, in array order, of a request with this pair, sent over `link` (null: over any);
// or null. The cost does not depend on how many requests are in flight.
MsgInfo* FindMsgInfo(const Link* link, std::int32_t taskName, std::uint16_t astInd);

// The next record with the pair and the link of this one, or null.
MsgInfo* NextOfName(const MsgInfo* info);

// Frees the record; all but its Link stays readable until it is used again. Records in use are
// released by nothing else. ReleaseAnswered leaves it to the answer to show what is counted now.
void ReleaseMsgInfo(MsgInfo* info);
void ReleaseAnswered(MsgInfo* info);

// Frees the record and clears it.
void ClearMsgInfo(MsgInfo* info);

// Requests sent and not answered yet; requests that wait for a link.
std::int32_t RequestsInFlight();
std::int32_t RequestsWaiting();

// Takes out the first record of a link, in array order from *index on (which moves): copied, then
// cleared, so that whatever the caller does next cannot meet it again. False: none left.
bool TakeMsgInfo(const Link* link, std::int32_t* index, MsgInfo* taken);

// Requests that wait

// The next one of the link, in array order from *index on (which moves), or null.
SavedMessage* NextSavedOf(const Link* link, std::int32_t* index);

// Frees the element; the message stays readable until it is used again.
void ReleaseSaved(SavedMessage* saved);

// Makes it wait for another link.
void MoveSaved(SavedMessage* saved, Link* to);

// Connections

// Shows what the connection has, where no answer does.
void TellCountsOf(int socket);

// The connection was closed: no answer may reach a later one with the same number. What it has
// asked for goes on, but of such requests each link keeps a limited number.
void ForgetConnection(int socket);

// Frees both arrays.
void ForgetRequests();
