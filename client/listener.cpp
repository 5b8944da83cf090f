// The listening side of the client exchange.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "client/clntxch.h"
#include "client/connection.h"
#include "client/permission.h"
#include "core/mailbox.h"
#include "core/socket_options.h"
#include "core/stats.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"

static constexpr char Module[] = "clntxch";

namespace {

constexpr int kBacklog = 16;
constexpr int kUnloadTicks = 5;  // an agent that does not greet within these cannot be unloaded
constexpr mode_t kDirectoryMode = 01777;
constexpr mode_t kSocketMode = 0777;

// What a connection is greeted with. The first word follows the in-memory convention of a
// message's Length: the size minus 4.
struct Greeting {
  std::uint32_t Length;
  std::int32_t AgentPid;
  std::uint8_t Zero[52];
};
static_assert(sizeof(Greeting) == 60);
constexpr std::uint32_t kGreetingLength = 56;

constexpr int kProbeTicks = 3;  // an agent that does not accept within these is a busy one

int reserveDescriptor = -1;  // given up for a moment when descriptors run out
bool listenerRests;          // until the next tick

int ConnectOrBind(int (*call)(int, const sockaddr*, socklen_t), int socket,
                  const MailboxAddress& address) {
  return call(socket, reinterpret_cast<const sockaddr*>(address.Bytes), address.Length);
}

int CreateSocket() {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (socket < 0) LOG(kLogError, "Call socket(PF_UNIX...) failed. errno = %d", errno);
  return socket;
}

// The greeting of the agent that serves the path; false when it is not one, or does not come
// within a few ticks.
bool ReadGreeting(int socket, Greeting* greeting) {
  unsigned char* const bytes = reinterpret_cast<unsigned char*>(greeting);
  std::size_t have = 0;
  int ticks = 0;
  while (have < sizeof *greeting) {
    const ssize_t got = read(socket, bytes + have, sizeof *greeting - have);
    if (got < 0 && errno == EINTR && ++ticks < kUnloadTicks) continue;
    if (got <= 0) return false;
    have += static_cast<std::size_t>(got);
  }
  return greeting->Length == kGreetingLength && greeting->AgentPid > 0;
}

[[noreturn]] void UnloadRunningAgent(int socket) {
  Greeting greeting;
  if (!ReadGreeting(socket, &greeting))
    LOG(kLogResult, "SIGTERM has not been send to the agent. Status %d\n", ESRCH);
  else if (kill(greeting.AgentPid, SIGTERM) != 0)
    LOG(kLogResult, "SIGTERM has not been send to the agent. Status %d\n", errno);
  else
    LOG(kLogResult, "SIGTERM has been send to the agent pid %d\n", greeting.AgentPid);
  close(socket);
  std::exit(0);
}

// Connects to the path; 0, or errno. An agent that is busy lets the call wait: each tick ends it.
int Probe(int socket, const MailboxAddress& address) {
  for (int ticks = 0;; ++ticks) {
    if (ConnectOrBind(connect, socket, address) == 0) return 0;
    if (errno != EINTR || ticks == kProbeTicks - 1) return errno;
  }
}

bool NobodyListens(int error) { return error == ECONNREFUSED || error == ENOENT; }

// Whether somebody serves the path: 1 yes, 0 no, -1 no socket could be made. A socket file that
// nobody listens on is removed.
int PathIsServed(const MailboxAddress& address) {
  const int probe = CreateSocket();
  if (probe < 0) return -1;
  const int error = Probe(probe, address);
  if (error != 0 && error != EINTR) {
    close(probe);
    if (NobodyListens(error)) unlink(address.Path);
    return 0;
  }
  if (g_DbcI.Unload) UnloadRunningAgent(probe);
  LOG(kLogResult, "Socket \"%s\" is already used", address.Path);
  LOG(kLogResult, "Network agent or kernel of Tavrin-SQL is already running\n");
  close(probe);
  return 1;
}

int CloseFailed(int socket) {
  close(socket);
  return -1;
}

// A socket that listens on the path: 0 with *listener, -1, or 4002.
int Listen(const MailboxAddress& address, int* listener) {
  *listener = CreateSocket();
  if (*listener < 0) return -1;
  if (ConnectOrBind(bind, *listener, address) != 0) {
    LOG(kLogError, "Call bind socket to %s failed. Errno %d", address.Path, errno);
    return CloseFailed(*listener);
  }
  chmod(address.Path, kSocketMode);
  // kept: the socket stays open when a size is refused.
  if (SetSendBuffer(HERE, *listener) != 0 || SetReceiveBuffer(HERE, *listener) != 0)
    return kStatusOption;
  if (listen(*listener, kBacklog) != 0) {
    LOG(kLogError, "Listen state set for client socket fails. Call: listen. Errno %d", errno);
    return CloseFailed(*listener);
  }
  return 0;
}

void OpenReserve() {
  if (reserveDescriptor < 0) reserveDescriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
}

// Descriptors have run out: without this the connection would stay in the queue and wake the loop
// for ever. Where not even the reserve is left, the listener rests until the next tick.
void RefuseConnection() {
  if (reserveDescriptor < 0) {
    listenerRests = true;
    UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, g_DbcI.ClientListenSocket);
    return;
  }
  close(reserveDescriptor);
  reserveDescriptor = -1;
  const int refused = accept(g_DbcI.ClientListenSocket, nullptr, nullptr);
  if (refused >= 0) {
    close(refused);
    StatsClientRefused();
  }
  OpenReserve();
}

bool OutOfDescriptors(int error) { return error == EMFILE || error == ENFILE; }

}  // namespace

int InitialiseClientQueue(const char* file, int line) {
  ENTER();
  const char* const directory = MailboxDirectory();
  mkdir(directory, 0);
  chmod(directory, kDirectoryMode);
  MailboxAddress address;
  MakeMailboxAddress(&address, g_DbcI.NetMbx);
  const int served = PathIsServed(address);
  if (served < 0) return LEAVE(-1, "FAILED create socket");
  if (served > 0) return LEAVE(-1, "FAILED client already running");
  if (g_DbcI.Unload) return LEAVE(-1, "INFO unload the driver");
  int listener;
  const int status = Listen(address, &listener);
  if (status != 0) return LEAVE(status, "FAILED listen");
  g_DbcI.ClientListenSocket = listener;
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, listener);
  OpenReserve();
  PrintText("The agent has used communication identifier (NET_MBX) %d\n", g_DbcI.NetMbx);
  FD_ZERO(&g_DbcI.ClientSockets);
  return 0;
}

int AcceptNewClientConnection(const char* file, int line) {
  ENTER();
  const int socket = accept(g_DbcI.ClientListenSocket, nullptr, nullptr);
  const int error = errno;
  OpenReserve();
  if (socket < 0) {
    LOG(kLogError, "Call accept has failed. Errno %d", error);
    if (OutOfDescriptors(error)) RefuseConnection();
    return LEAVE(-1, "FAILED accept");
  }
  if (socket >= FD_SETSIZE) {
    LOG(kLogError, "Call accept has failed. Errno %d", EMFILE);
    close(socket);
    StatsClientRefused();
    return LEAVE(-1, "FAILED accept");
  }
  const Greeting greeting = {
      .Length = kGreetingLength, .AgentPid = g_DbcI.SocketSets.AgentPid, .Zero = {}};
  LOG(kLogTrace, "Neeed Send %d init bytes to client", static_cast<int>(sizeof greeting));
  if (SendBytes(HERE, socket, &greeting, sizeof greeting) != 0) {
    LOG(kLogError, "Send to client fail. Call:send. errno %d", errno);
    ForgetDescriptor(socket);
    close(socket);
    StatsClientRefused();
    return LEAVE(-1, "FAILED send");
  }
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
  FD_SET(socket, &g_DbcI.ClientSockets);
  NumberConnection(socket);
  ForgetPermissions(socket);
  StatsClientOpened(socket, ConnectionSerial(socket));
  return 0;
}

void UninitClientQueue(const char* file, int line) {
  ENTER();
  MailboxAddress address;
  MakeMailboxAddress(&address, g_DbcI.NetMbx);
  unlink(address.Path);
}

void WakeListener() {
  if (!listenerRests) return;
  listenerRests = false;
  OpenReserve();
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, g_DbcI.ClientListenSocket);
}
