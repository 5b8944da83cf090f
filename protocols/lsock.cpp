#include "protocols/lsock.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "client/message.h"
#include "core/mailbox.h"
#include "core/socket_options.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "protocols/address_text.h"

static constexpr char Module[] = "lsock";

namespace {

constexpr mode_t kDirectoryMode = 0777;
constexpr std::size_t kGreetingPiece = 76;

LSockLinkData* DataOf(const Link* link) { return static_cast<LSockLinkData*>(link->DriverData); }

Outcome ConnectToKernel(int mbx, int* socket) {
  mkdir(MailboxDirectory(), 0);
  chmod(MailboxDirectory(), kDirectoryMode);
  MailboxAddress address;
  MakeMailboxAddress(&address, mbx);
  *socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (*socket < 0) {
    LOG(kLogError, "Call socket(PF_UNIX...) failed. errno = %d", errno);
    return {-1, "FAILED create socket"};
  }
  if (*socket >= kMaxDescriptors) {
    LOG(kLogDriver, "Call socket(PF_UNIX...) return too big value = %d", *socket);
    close(*socket);
    errno = 0;
    return {kStatusDescriptor, "FAILED too many connections"};
  }
  if (connect(*socket, reinterpret_cast<const sockaddr*>(address.Bytes), address.Length) != 0) {
    CloseKeepingErrno(*socket);
    // kept: the word is printed as it stands, its placeholders are not filled in.
    return {kStatusConnect, "FAILED connect to tavrin MBX=%d. Errno = %d"};
  }
  return {};
}

Outcome SetNonBlocking(int socket) {
  if (SetNoBlockMode(HERE, socket) == 0) return {};
  CloseKeepingErrno(socket);
  return {kStatusOption, "FAILED fcntl(...F_SETFL, O_NONBLOCK)"};
}

Outcome SetBlocking(int socket) {
  if (SetBlockMode(HERE, socket) == 0) return {};
  CloseKeepingErrno(socket);
  return {kStatusOption, "FAILED fcntl(...F_SETFL, ~O_NONBLOCK)"};
}

// kept: a socket whose greeting could not be read stays open.
Outcome GreetingFailed() {
  LOG(kLogTrace, "Receive first packet failed. errno %d", errno);
  return {kStatusConnect, "FAILED receive first packet"};
}

// Waits for the kernel's greeting and discards all that has come of it.
// kept: a kernel that closes at once is read again and again, until an error or a stop request.
Outcome DrainGreeting(int socket) {
  unsigned char piece[kGreetingPiece];
  for (;;) {
    const ssize_t got = recv(socket, piece, sizeof piece, 0);
    if (got < 0 && errno == EAGAIN) return {};
    if (got < 0 && errno != EINTR) return GreetingFailed();
    if (Stopping()) {
      errno = EINTR;
      return GreetingFailed();
    }
    if (got < 0) continue;
    const Outcome step = SetNonBlocking(socket);
    if (step.Status != 0) return step;
  }
}

// kept: the socket stays open when a size is refused.
Outcome SetBuffers(int socket) {
  if (SetSendBuffer(HERE, socket) != 0) return {kStatusOption, "FAILED setsockopt(SO_SNDBUF)"};
  if (SetReceiveBuffer(HERE, socket) != 0) return {kStatusOption, "FAILED setsockopt(SO_RCVBUF)"};
  return {};
}

Outcome OpenConnection(int mbx, int* socket) {
  Outcome step = ConnectToKernel(mbx, socket);
  if (step.Status == 0) step = DrainGreeting(*socket);
  if (step.Status == 0) step = SetBlocking(*socket);
  if (step.Status == 0) step = SetBuffers(*socket);
  return step;
}

void TraceReceive(int result) { LOG(kLogTrace, "recv form local tavrin return %d", result); }
void TraceLength(int rest) { LOG(kLogTrace, "Local tavrin message len is %d byte", rest); }

constexpr FrameFormat kKernelFrame = {.LengthCounts = 4,
                                      .SmallestLength = 4,
                                      .LargestLength = kMessageArea,
                                      .TraceReceive = TraceReceive,
                                      .TraceLength = TraceLength};

void SendFailed(int error) { LOG(kLogTrace, "Send to local tavrin. Call:send. errno %d", error); }
constexpr OutputTrace kRequests = {.Sent = nullptr, .Failed = SendFailed};

int Broken(Link* link, int error) {
  DisconnectLink(HERE, link, kStatusReceive, error);
  return kStatusReceive;
}

int BadFormat(Link* link) {
  LOG(kLogDriver, "SOCK.Receive message from local tavrin. The message format is fail.");
  return Broken(link, 0);
}

int ReceiveFailed(Link* link, int error) {
  LOG(kLogDriver, "SOCK.Receive message from local tavrin. Call:recv. Errno %d", error);
  return Broken(link, error);
}

}  // namespace

int LOCALSInitProtocol(const char* file, int line, Protocol* protocol, const char* name,
                       SocketSets*) {
  ENTER();
  if (std::strcmp(name, "LOCALS") != 0 && std::strcmp(name, "LOCAL") != 0)
    return LEAVE(-1, "Protocol name is not my");
  *protocol = {.Name = "LOCALS",
               .InitLink = LSockInitLink,
               .UninitLink = LSockUninitLink,
               .ConnectLink = LSockConnectLink,
               .ReadyForWrite = LSockReadyForWrite,
               .ReadyForRead = LSockReadyForRead,
               .DisconnectLink = LSockDisconnectLink,
               .TimerEvent = LSockTimerEvent,
               .SendToNetwork = LSockSendToNetwork,
               .ClientDeadEvent = LSockClientDeadEvent,
               .Next = nullptr,
               .Joins = true};
  return 0;
}

int LSockInitLink(const char* file, int line, Link* link, char* address) {
  ENTER();
  LSockLinkData* const data = static_cast<LSockLinkData*>(std::calloc(1, sizeof(LSockLinkData)));
  if (!data) return LEAVE(-1, "FAILED allocation memory");
  data->Mbx = WordToNumber(NextWord(&address), 10);
  if (data->Mbx == 0) {
    std::free(data);
    return LEAVE(-1, "FAILED incorrect address");
  }
  data->Socket = -1;
  link->DriverData = data;
  return 0;
}

int LSockUninitLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State != kLinkDisconnected) DisconnectLink(HERE, link, 0, 0);
  std::free(link->DriverData);
  link->DriverData = nullptr;
  return 0;
}

int LSockConnectLink(const char* file, int line, Link* link) {
  ENTER();
  int socket;
  const Outcome step = OpenConnection(DataOf(link)->Mbx, &socket);
  if (step.Status != 0) return LEAVE(step.Status, step.Word);
  DataOf(link)->Socket = socket;
  link->State = kLinkConnected;
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
  REGISTER_SOCKET_FOR_THE_LINK(HERE, socket, link);
  return 0;
}

int LSockReadyForWrite(const char* file, int line, Link*) {
  ENTER();
  return 0;
}

int LSockTimerEvent(const char* file, int line, Link*) {
  ENTER();
  return 0;
}

int LSockSendToNetwork(const char* file, int line, Link* link, ClientMessage* msg) {
  ENTER();
  msg->Length += 4;  // kept: the caller's copy is changed
  LOG(kLogTrace, "Before Send %d byte to local tavrin", static_cast<int>(msg->Length));
  if (SendBytes(HERE, DataOf(link)->Socket, Wire(msg), msg->Length, &kRequests) != 0)
    return LEAVE(kStatusSend, "FAILED send");
  return 0;
}

int LSockReadyForRead(const char* file, int line, Link* link) {
  ENTER();
  ClientMessage msg;
  errno = 0;
  switch (ReadFrame(DataOf(link)->Socket, Wire(&msg), kKernelFrame)) {
    case FrameRead::Whole:
      break;
    case FrameRead::Later:
      return 0;
    case FrameRead::Closed:
      return LEAVE(Broken(link, 0), "Tavrin socket is down. Call:recv");
    case FrameRead::Failed:
    case FrameRead::NoMemory:
      return LEAVE(ReceiveFailed(link, errno), "FAILED receive");
    case FrameRead::BadLength:
      return LEAVE(BadFormat(link), "FAILED format");
  }
  if (LocateTrailer(&msg, FrameSize(Wire(&msg), kKernelFrame), kMessageArea) != 0)
    return LEAVE(BadFormat(link), "FAILED format");
  const int result = ReturnAnswerFromNetworkToClient(HERE, &msg);
  return LEAVE(result, TEXT("Return %d", result));
}

int LSockClientDeadEvent(const char* file, int line, Link* link, int pid) {
  ENTER();
  ClientMessage msg;
  MakeClientDeathMessage(&msg, pid);
  const int result = LSockSendToNetwork(HERE, link, &msg);
  return LEAVE(result, TEXT("Return %d", result));
}

int LSockDisconnectLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State == kLinkDisconnected) return LEAVE(0, "SUCCESS already disconnected");
  // kept: Socket keeps its number; whether that is valid is told by State alone.
  const int socket = DataOf(link)->Socket;
  ForgetDescriptor(socket);
  StopWaitingFor(socket);
  close(socket);
  UNREGISTER_SOCKET_FOR_THE_LINK(HERE, socket);
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, socket);
  link->State = kLinkDisconnected;
  return 0;
}
