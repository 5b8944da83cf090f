// The agent's state and the registration of descriptors.
#pragma once
#include <sys/select.h>
#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <ctime>

#include "core/grow_array.h"

struct ClientMessage;
struct ClientPid;
struct Link;
struct MsgInfo;
struct Protocol;
struct SavedMessage;

constexpr int kMaxDescriptors = 255;   // links keep below this; clients below FD_SETSIZE
constexpr int kFirstDescriptor = 3;    // 0 to 2 are the standard streams, never registered
constexpr int kNoDescriptorYet = 254;  // LastLinkSocket and LastClientSocket before any was served

// The descriptors that the loop waits for and the links that own them. Its address is the services
// block that each protocol's init function receives.
struct SocketSets {
  pid_t AgentPid;
  fd_set ReadSet;
  fd_set WriteSet;
  std::int32_t MaxSocket;              // highest registered descriptor + 1; only grows
  Link* SocketLinks[kMaxDescriptors];  // read through LinkOfSocket
};

// Everything the agent knows; one record, zero at program start.
struct AgentState {
  // Advisory node table lock
  std::uint16_t NodetabLocked;
  std::int32_t NodetabLockOwner;  // RowId of the client that locked
  std::time_t NodetabLockTime;    // seconds

  std::uint8_t LogLevel;  // lines of at most this level are written

  // Links and protocols
  Link* LinkList;          // where the circle of links is entered; null: no link
  Link* DefaultLink;       // serves requests that name no node; may be null
  Link* FirstLink;         // first in node table order
  Protocol* ProtocolList;  // in order of first use

  char** Argv;

  // Requests
  GrowArray<SavedMessage> SavedArray;  // waiting for a link
  GrowArray<MsgInfo> MsgInfoArray;     // sent, not yet answered

  // Clients
  std::int32_t LastLinkSocket;      // link descriptor served last for reading
  std::int32_t ClientListenSocket;  // -1: none
  fd_set ClientSockets;             // accepted connections
  std::int32_t LastClientSocket;    // connection served last
  GrowArray<ClientPid> ClientPidList;

  // Options
  char* NodetabPath;                 // -NODETAB, or null
  const char* DefaultNode;           // -DEFAULT, or empty
  std::uint8_t AutoConnect;          // -AUTOCONNECT
  std::uint8_t Err1001;              // -ERR1001
  std::uint16_t AutoConnectTimeout;  // seconds
  std::uint16_t CircleTimeCount;     // ticks left for the connection circle
  Link* CircleStartLink;             // where the connection circle stands; may be null
  std::uint8_t AutoChange;           // -AUTOCHANGE
  std::uint8_t ConnectOnLoad;  // -CONNECTONLOAD, until a connection has chosen the default link
  std::uint8_t ConnError;      // -CONNERROR
  pid_t ParentPid;             // of the process that started the agent
  std::int32_t SignalToParentProcess;  // -PKILL; 0: none
  std::uint8_t NoDaemon;               // -NODAEMON, also by -PING
  std::uint8_t ParentCheck;            // -PCHECK
  std::uint8_t PingMode;               // 1 during a ping run, 2 once the node has answered
  char* PidFile;                       // -PIDFILE, or null

  // How client messages are read and answered; ping mode puts its own operations here. GetMsg:
  // > 0 a whole message, 0 nothing yet, -1 no message. PutMsg: 0 sent, -1 not.
  int (*GetMsg)(const char* file, int line, ClientMessage* msg, int socket);
  int (*PutMsg)(const char* file, int line, ClientMessage* msg);

  std::int32_t NetMbx;  // exchange id; names the client socket

  // Written by signal handlers
  volatile std::sig_atomic_t AlarmFlag;
  volatile std::sig_atomic_t SigIoFlag;

  std::int32_t PingPipe[2];  // read end, write end

  volatile std::sig_atomic_t ExitStatus;  // non-zero stops the agent; 16 bits are kept of a verdict

  struct SocketSets SocketSets;

  // Our own additions
  std::uint8_t Unload;  // -U; decides alone whether this run unloads a running agent
  Link* ServedLink;     // whose input is being read: only its answers count meanwhile; or null
  std::int32_t FirstFreeClient;  // before it no entry of ClientPidList is free
  std::int32_t LinkBuffer;       // LUMO_LINK_BUFFER: bytes, 0: as the system has it from the start
};

extern AgentState g_DbcI;
extern std::uint16_t ClientTimeout;  // checks left without a client; the top bit: standing still
constexpr std::uint16_t kClientTimeout = 151;

// Registration: few statements over the sets, and a trace line with the caller's place. fd is
// below FD_SETSIZE (FOR_THE_LINK: below kMaxDescriptors; others are ignored). Unregistering takes
// the descriptor out of the results being served too.
void REGISTER_SOCKET_FOR_READ_EVENT(const char* file, int line, int fd);
void REGISTER_SOCKET_FOR_WRITE_EVENT(const char* file, int line, int fd);
void REGISTER_SOCKET_FOR_THE_LINK(const char* file, int line, int fd, Link* link);
void UNREGISTER_SOCKET_FOR_READ_EVENT(const char* file, int line, int fd);
void UNREGISTER_SOCKET_FOR_WRITE_EVENT(const char* file, int line, int fd);
void UNREGISTER_SOCKET_FOR_THE_LINK(const char* file, int line, int fd);

// The link that owns the descriptor, or null; any number may be asked for.
inline Link* LinkOfSocket(int fd) {
  return fd >= 0 && fd < kMaxDescriptors ? g_DbcI.SocketSets.SocketLinks[fd] : nullptr;
}

// A stop was requested: waits and repeating loops end.
inline bool Stopping() { return g_DbcI.ExitStatus != 0; }

// Fills SocketSets for a new process. Returns 0.
int DbcInitGlobal(const char* file, int line);
