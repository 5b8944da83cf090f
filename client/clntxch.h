// The client exchange: the listening socket, client connections, reading and answering.
#pragma once
#include <cstdint>

#include "client/message.h"
#include "core/dbc.h"
#include "core/stats.h"

struct MsgInfo;

// A client process and the connection and link that it used; free when Pid is 0.
struct ClientPid {
  struct Link* Link;  // null: its link was deleted
  std::int32_t Pid;
  std::int32_t Socket;
};
inline bool InUse(const ClientPid& client) { return client.Pid != 0; }
inline bool operator==(const ClientPid& a, const ClientPid& b) {
  return a.Link == b.Link && a.Pid == b.Pid && a.Socket == b.Socket;
}

// Listener. 0; -1 failed; 4002 a buffer size could not be set. Ends the process in a run that
// unloads a running agent.
int InitialiseClientQueue(const char* file, int line);
int AcceptNewClientConnection(const char* file, int line);  // 0 or -1
void UninitClientQueue(const char* file, int line);         // removes the socket file
void WakeListener();  // at each tick: one that rests for want of descriptors listens again

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

// Answers a request that its connection may not make; -1. The process that the request names is not
// the client's, and may not even live.
int RefuseRequest(ClientMessage* msg);

// 0 when the process is alive, or nothing was found dead (pid 0: all listed clients); 1 dead.
int TestAliveClient(const char* file, int line, int pid);

// Lists the client as one that used the link, and starts the client time-out anew; 0, or -1 when
// memory ran out.
int AddClientPidIntoList(const char* file, int line, Link* link, int pid, int socket);

// The temporary record from which a request is answered without having been sent.
MsgInfo InfoOfRequest(const ClientMessage* msg);

// Closes a connection; what it still waits for will reach nobody.
void CloseClient(int socket, lumo_stats_reason reason = LUMO_STATS_OTHER);

// Sends what is kept for a connection; a failure closes it.
void FlushClient(int socket);

// A link has been deleted: no client record keeps a pointer to it.
void ForgetLinkOfClients(const Link* link);

// Gives clients the answers that are still kept for them, for one second at most.
void FlushClientsAtExit();
