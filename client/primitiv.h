// What the agent owes its clients: requests that wait for a link and requests sent to a node.
#pragma once
#include <cstdint>

#include "client/message.h"
#include "core/dbc.h"

// A request that waits for its link; free when Link is null.
struct SavedMessage {
  ClientMessage Message;
  struct Link* Link;
};

// A request that went to a node and is not answered yet; free when Link is null.
struct MsgInfo {
  struct Link* Link;
  std::int32_t TaskName;  // process id of the client
  std::int32_t Socket;    // its connection; -1 when that has been closed
  std::uint16_t AstInd;   // the client's tag of the request
};

inline bool InUse(const SavedMessage& saved) { return saved.Link != nullptr; }
inline bool InUse(const MsgInfo& info) { return info.Link != nullptr; }

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

// The first record, in array order, of a request with this pair, sent over `link` (null: over any);
// or null. The cost does not depend on how many requests are in flight.
MsgInfo* FindMsgInfo(const Link* link, std::int32_t taskName, std::uint16_t astInd);

// Where several records have this pair, the one of this connection becomes the first of them.
void PutConnectionFirst(const Link* link, std::int32_t taskName, std::uint16_t astInd, int socket);

// Frees the record; all but its Link stays readable until it is used again. Records in use are
// released by nothing else.
void ReleaseMsgInfo(MsgInfo* info);

// Frees the record and clears it.
void ClearMsgInfo(MsgInfo* info);

// Requests sent and not answered yet; those of one connection.
std::int32_t RequestsInFlight();
std::int32_t RequestsInFlight(int socket);

// Frees both arrays.
void ForgetRequests();

// Takes out the first record of a link, in array order from *index on (which moves): copied, then
// cleared, so that whatever the caller does next cannot meet it again. False: none left.
bool TakeMsgInfo(const Link* link, std::int32_t* index, MsgInfo* taken);

// The connection was closed: no answer may reach a later one with the same number.
void ForgetConnection(int socket);

// Requests of the connection that wait for a link.
int SavedRequests(int socket);
