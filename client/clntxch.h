// The client exchange: the listening socket, client connections, dispatch of requests.
#pragma once
#include <cstdint>

#include "client/message.h"
#include "core/dbc.h"

struct MsgInfo;

// A client process and the connection and link that it used; free when Pid is 0.
struct ClientPid {
  struct Link* Link;  // null: its link was deleted
  std::int32_t Pid;
  std::int32_t Socket;
};
inline bool InUse(const ClientPid& client) { return client.Pid != 0; }

// Listener. 0; -1 failed; 4002 a buffer size could not be set. Ends the process in a run that
// unloads a running agent.
int InitialiseClientQueue(const char* file, int line);
int AcceptNewClientConnection(const char* file, int line);  // 0 or -1
void UninitClientQueue(const char* file, int line);         // removes the socket file

// Reads a request: its in-memory Length; 0 when it has not come whole yet; -1 when it failed or
// the client hung up (its connection is then closed).
int GetMsgFromClient(const char* file, int line, ClientMessage* msg, int socket);

// Sends an answer to the message's ClientSocket; 0 sent or queued, -1 client dead or send failed.
// Adds 4 to Length.
int PutMsgToClient(const char* file, int line, ClientMessage* msg);

// Turns `answer` (it may be the request's own record) into an agent-built answer. Sets errno to 0;
// returns 0.
int MakeAnswerFromMsgInfo(const char* file, int line, ClientMessage* answer, const MsgInfo* info,
                          int codErr, int sysErr);

// 0 when the process is alive, or nothing was found dead (pid 0: all listed clients); 1 dead.
int TestAliveClient(const char* file, int line, int pid);

// Lists the client as one that used the link, and starts the client time-out anew; 0, or -1 when
// memory ran out.
int AddClientPidIntoList(const char* file, int line, Link* link, int pid, int socket);

// Serves one request of a readable connection; 0, or -1 when it could not be handled.
int HandleMessageFromClientQueue(const char* file, int line, int socket);

// The temporary record from which a request is answered without having been sent.
MsgInfo InfoOfRequest(const ClientMessage* msg);

// Closes a connection; what it still waits for will reach nobody.
void CloseClient(int socket);

// Sends what is kept for a connection; a failure closes it.
void FlushClient(int socket);

// Connections whose requests are not read while their link or their queue is full are read again
// once the cause is gone. Called at the top of each pass; cheap while none is parked.
void ReleaseParkedClients();

// A link has been deleted: no connection and no client record keeps a pointer to it.
void ForgetLinkOfClients(const Link* link);

// Counts connections as they are accepted: tells one from a later one with the same number.
std::uint32_t ConnectionSerial(int socket);

// Gives clients the answers that are still kept for them, for one second at most.
void FlushClientsAtExit();
