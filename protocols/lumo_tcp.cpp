#include "protocols/lumo_tcp.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "client/message.h"
#include "core/socket_options.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "link/link.h"
#include "protocols/address_text.h"

static constexpr char Module[] = "lumo_tcp";

namespace {

constexpr int kDefaultPort = 1060;
constexpr int kReceiveTimeoutUnit = 20;
constexpr int kTickSeconds = 2;
constexpr std::uint8_t kRequestMark = 3;
constexpr std::uint32_t kControlLength = 8;  // a packet of this length is a control packet
constexpr std::uint32_t kSendTimeoutMark = 0x5555;

enum : std::uint32_t { kReceiveTimeoutPacket = 0, kSendTimeoutPacket = 1, kClientDeadPacket = 2 };
constexpr std::uint32_t kAlivePacket = kSendTimeoutPacket;  // with parameter 0

struct ControlPacket {
  std::uint32_t Length;  // of what follows
  std::uint32_t btPktType;
  std::uint32_t dwParam;
};
static_assert(sizeof(ControlPacket) == 12);

constexpr FrameFormat kPacket = {.LengthCounts = 0,
                                 .SmallestLength = 0,
                                 .LargestLength = kMessageMax,
                                 .TraceReceive = nullptr,
                                 .TraceLength = nullptr};

constexpr int kLargestSegment = 65536;  // of any wire

TcpLinkData* Data(const Link* link) { return static_cast<TcpLinkData*>(link->DriverData); }

// Address text

long NextNumber(char** rest) { return std::strtol(NextWord(rest), nullptr, 0); }

// Resolves the host; false when it is no address.
bool ParseHost(const char* host, std::int32_t* address) {
  const hostent* const entry = gethostbyname(host);
  if (entry && entry->h_addrtype == AF_INET && entry->h_addr_list[0]) {
    std::memcpy(address, entry->h_addr_list[0], sizeof *address);
    LOG(kLogTrace, "Network address %x", static_cast<unsigned>(*address));
    return true;
  }
  const in_addr_t dotted = inet_addr(host);
  if (dotted == INADDR_NONE) {
    LOG(kLogResult, "'%.8s' is not a valid tcp address", host);
    return false;
  }
  *address = static_cast<std::int32_t>(dotted);
  LOG(kLogTrace, "Network address 0x%x", static_cast<unsigned>(*address));
  return true;
}

// kept: an absent or negative value gives one unit; only a written 0 turns alive packets off.
std::int32_t ReceiveTimeoutOf(const char* word) {
  constexpr long kLargest = 0x7FFFFFFF / kReceiveTimeoutUnit;
  const long number = std::strtol(word, nullptr, 0);
  if (number >= 1)
    return kReceiveTimeoutUnit * static_cast<std::int32_t>(std::min(number, kLargest));
  return word[0] == '0' ? 0 : kReceiveTimeoutUnit;
}

std::int32_t NotNegative(long number) {
  return static_cast<std::int32_t>(std::clamp(number, 0L, 0x7FFFFFFFL));
}

void ParseNumbers(TcpLinkData* data, char* rest) {
  const std::uint16_t port = static_cast<std::uint16_t>(NextNumber(&rest));
  data->Port = htons(port != 0 ? port : kDefaultPort);
  LOG(kLogTrace, "Port 0x%x in network order", static_cast<unsigned>(data->Port));
  data->ReceiveTimeout = ReceiveTimeoutOf(NextWord(&rest));
  LOG(kLogTrace, "Receive timeout(on dbs side) %d sec", data->ReceiveTimeout);
  data->SendTimeout = NotNegative(NextNumber(&rest));
  LOG(kLogTrace, "Send timeout(on dbs side) %d sec", data->SendTimeout);
  data->ConnectTimeout = NotNegative(NextNumber(&rest));
  LOG(kLogTrace, "Connect timeout %d sec", data->ConnectTimeout);
}

// Descriptor modes and options

int SetNoDelay(int socket) {
  LOG(kLogTrace, "SET_NO_DELAY_MODE %d", socket);
  const int on = 1;
  if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0) return 0;
  LOG(kLogTrace, "setsockopt(...TCP_NODELAY...) failed. Errno %d", errno);
  return kStatusOption;
}

// Only wishes, to be made before the connection is, as that settles how large the window can
// become: a refusal changes nothing.
void SetOption(int socket, int level, int option, int value) {
  const int savedErrno = errno;
  setsockopt(socket, level, option, &value, sizeof value);
  errno = savedErrno;
}

// With the described buffers a link carries one small window in each round-trip time, for all
// clients together.
void EnlargeBuffers(int socket) {
  if (g_DbcI.LinkBuffer <= kSocketBufferSize) return;
  SetOption(socket, SOL_SOCKET, SO_SNDBUF, g_DbcI.LinkBuffer);
  SetOption(socket, SOL_SOCKET, SO_RCVBUF, g_DbcI.LinkBuffer);
}

// A segment larger than the window of a small buffer, as loopback has them, would be sent in
// pieces, one each time the peer's persist timer fires.
void LimitSegments(int socket) {
  const int segment = std::max(kSocketBufferSize, static_cast<int>(g_DbcI.LinkBuffer)) / 2;
  if (segment < kLargestSegment) SetOption(socket, IPPROTO_TCP, TCP_MAXSEG, segment);
}

// Connecting

// A connect, repeated when a signal interrupts it; 0 or errno.
int ConnectSocket(int socket, const TcpLinkData* data) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = static_cast<in_port_t>(data->Port);
  address.sin_addr.s_addr = static_cast<in_addr_t>(data->Address);
  int result;
  do result = connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  while (result != 0 && errno == EINTR);
  return result == 0 ? 0 : errno;
}

void UnregisterSocket(int socket) {
  UNREGISTER_SOCKET_FOR_THE_LINK(HERE, socket);
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, socket);
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, socket);
  ForgetDescriptor(socket);
}

// The link loses its connection but not its state: the caller's failure code decides on that.
void DropSocket(TcpLinkData* data) {
  UnregisterSocket(data->Socket);
  CloseKeepingErrno(data->Socket);
  data->Socket = -1;
}

// A socket ready to connect: 0 with *socket, or a code.
// kept: a socket whose options are refused is not closed.
int CreateSocket(int* created) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (socket < 0) {
    LOG(kLogDriver, "tcpip. Connect. socket(PF_INET..) return bad status. errno = %d", errno);
    return kStatusSocket;
  }
  if (socket >= kMaxDescriptors) {
    LOG(kLogDriver, "tcpip. Connect. socket(PF_INET..) return too big value = %d", socket);
    CloseKeepingErrno(socket);
    return kStatusDescriptor;
  }
  if (SetNoBlockMode(HERE, socket) != 0) {
    CloseKeepingErrno(socket);
    return kStatusOption;
  }
  *created = socket;
  if (SetSendBuffer(HERE, socket) != 0 || SetReceiveBuffer(HERE, socket) != 0) return kStatusOption;
  EnlargeBuffers(socket);
  LimitSegments(socket);
  return SetNoDelay(socket);
}

// Control packets

int SendControl(int socket, std::uint32_t type, std::uint32_t param) {
  const ControlPacket packet = {.Length = kControlLength, .btPktType = type, .dwParam = param};
  return SendBytes(HERE, socket, &packet, sizeof packet);
}

int SendConnectionInfo(int socket, std::uint32_t type, std::uint32_t param) {
  const std::uint32_t params[2] = {type, param};
  return TcpSendConnectionInfo(__LINE__, socket, params);
}

int AnnounceReceiveTimeout(TcpLinkData* data) {
  if (data->ReceiveTimeout == 0) return 0;
  LOG(kLogTrace, "Prepare send ReceiveTimeout");
  data->AliveCount = data->ReceiveTimeout / kTickSeconds;
  return SendConnectionInfo(data->Socket, kReceiveTimeoutPacket,
                            static_cast<std::uint32_t>(data->ReceiveTimeout / kReceiveTimeoutUnit));
}

void RearmWatchdog(TcpLinkData* data) { data->ReceiveCount = data->SendTimeout / kTickSeconds + 1; }

int AnnounceSendTimeout(TcpLinkData* data) {
  if (data->SendTimeout == 0) return 0;
  LOG(kLogTrace, "Prepare send SendTimeout");
  RearmWatchdog(data);
  return SendConnectionInfo(
      data->Socket, kSendTimeoutPacket,
      (static_cast<std::uint32_t>(data->SendTimeout) << 16) | kSendTimeoutMark);
}

// A pending connect is over, one way or the other.
Outcome CompleteConnect(Link* link) {
  TcpLinkData* const data = Data(link);
  int error = 0;
  socklen_t size = sizeof error;
  const int result = getsockopt(data->Socket, SOL_SOCKET, SO_ERROR, &error, &size);
  if (result != 0 || error != 0) {
    LOG(kLogDriver,
        "TCPIP.Asyncrounus connection failed. Call:getsockopt(SO_ERROR).Status %d. errno %d", error,
        errno);
    UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, data->Socket);
    errno = error;
    return {kStatusConnect, "FAILED connect"};
  }
  link->State = kLinkConnected;
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, data->Socket);
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, data->Socket);
  if (SetBlockMode(HERE, data->Socket) != 0) {
    DropSocket(data);
    return {kStatusOption, "FAILED fcntl(...F_SETFL, ~O_NONBLOCK)"};
  }
  if (AnnounceReceiveTimeout(data) != 0) return {kStatusSend, "FAILED send connectioninfo"};
  if (AnnounceSendTimeout(data) != 0) return {kStatusSend, "FAILED send connection info"};
  return {};
}

// The timer

Outcome TickConnected(Link* link) {
  TcpLinkData* const data = Data(link);
  if (data->ReceiveTimeout != 0 && data->AliveCount-- <= 0) {
    LOG(kLogTrace, "Send Alive packet");
    if (SendConnectionInfo(data->Socket, kAlivePacket, 0) != 0) {
      DisconnectLink(HERE, link, kStatusSend, errno);
      return {};
    }
    data->AliveCount = data->ReceiveTimeout / kTickSeconds;
  }
  if (data->SendTimeout == 0) return {};
  if (data->ReceiveCount > 0) {
    --data->ReceiveCount;
    return {};
  }
  LOG(kLogDriver, "TCPIP.Link is broken on timeout send");
  return {kStatusReceiveTimeout, "FAILED on timeout send"};
}

// 0 when the connection may still come about, or errno.
int RepeatConnect(const Link* link) {
  LOG(kLogTrace, "before repeate connect()");
  const int error = ConnectSocket(Data(link)->Socket, Data(link));
  if (error == EISCONN || error == EALREADY)
    LOG(kLogTrace, "Connection \"%s\" is already in progress. Call:connect", link->NodeName);
  return error == EISCONN || error == EALREADY || error == EINPROGRESS ? 0 : error;
}

Outcome TickConnecting(Link* link) {
  TcpLinkData* const data = Data(link);
  LOG(kLogTrace, "Connection \"%s\" is in progress state.", link->NodeName);
  if (data->ConnectTimeout != 0) {
    if (data->ConnectCount <= 0) {
      LOG(kLogDriver, "TCPIP.Connect is broken on timeout");
      return {kStatusConnectTimeout, "FAILED timeount"};
    }
    --data->ConnectCount;
  }
  if (SetNoBlockMode(HERE, data->Socket) != 0) {
    DropSocket(data);
    return {kStatusOption, "FAILED fcntl(...F_SETFL, O_NONBLOCK)"};
  }
  if (SetNoDelay(data->Socket) != 0) return {kStatusOption, "FAILED setsockopt(...TCP_NODELAY...)"};
  const int error = RepeatConnect(link);
  if (error != 0) {
    DropSocket(data);
    LOG(kLogDriver, "tcpip. repeate connect(...) return bad status. errno = %d", error);
    errno = error;
    return {kStatusConnect, "FAILED repeate connect"};
  }
  REGISTER_SOCKET_FOR_WRITE_EVENT(HERE, data->Socket);
  return {};
}

// Packets

void TraceWrite(int result) { LOG(kLogTrace, "write return %d", result); }
void WriteFailed(int error) {
  LOG(kLogDriver, "TCPIP.Write into socket failed. Call:write. errno = %d", error);
}
constexpr OutputTrace kPackets = {.Sent = TraceWrite, .Failed = WriteFailed};

int ReceiveFailed(Link* link, int status, int sysErr) {
  DisconnectLink(HERE, link, status, sysErr);
  return status;
}

}  // namespace

int TCPIPInitProtocol(const char* file, int line, Protocol* protocol, const char* name,
                      SocketSets*) {
  ENTER("Protocol name = '%s'", name);
  if (std::strcmp(name, "TCPIP") != 0) return LEAVE(-1, "Protocol name is not my");
  *protocol = {.Name = "TCPIP",
               .InitLink = TcpInitLink,
               .UninitLink = TcpUninitLink,
               .ConnectLink = TcpConnectLink,
               .ReadyForWrite = TcpReadyForWrite,
               .ReadyForRead = TcpReadyForRead,
               .DisconnectLink = TcpDisconnectLink,
               .TimerEvent = TcpTimerEvent,
               .SendToNetwork = TcpSendToNetwork,
               .ClientDeadEvent = TcpClientDeadEvent,
               .Next = nullptr,
               .Joins = true};
  return 0;
}

int TcpInitLink(const char* file, int line, Link* link, char* address) {
  ENTER();
  if (!address) {
    LOG(kLogDetail, "NULL nodetab string");
    return LEAVE(1, "FAILED nodetab string");
  }
  TcpLinkData* const data = static_cast<TcpLinkData*>(std::calloc(1, sizeof(TcpLinkData)));
  if (!data) {
    LOG(kLogResult, "Memory for TCP link allocation error");
    return LEAVE(3, "FAILED allocation memory");
  }
  const char* const host = NextWord(&address);
  if (*host == '\0') LOG(kLogResult, "Tcp address is empty");
  if (*host == '\0' || !ParseHost(host, &data->Address)) {
    std::free(data);
    return LEAVE(1, "FAILED address");
  }
  ParseNumbers(data, address);
  data->Socket = -1;
  link->DriverData = data;
  return 0;
}

int TcpConnectLink(const char* file, int line, Link* link) {
  ENTER();
  LOG(kLogTrace, "Connect link \"%.8s\"", link->NodeName);
  TcpLinkData* const data = Data(link);
  int socket;
  const int status = CreateSocket(&socket);
  if (status == kStatusDescriptor) return LEAVE(status, "FAILED too many connections");
  if (status != 0) return LEAVE(status, "FAILED create socket");
  LOG(kLogTrace, "before connect()");
  const int error = ConnectSocket(socket, data);
  if (error != 0 && error != EINPROGRESS) {
    CloseKeepingErrno(socket);
    LOG(kLogDriver, "tcpip. connect(...) return bad status. errno = %d", error);
    errno = error;
    return LEAVE(static_cast<int>(kStatusConnect), "FAILED connect");
  }
  link->State = kLinkConnecting;
  data->Socket = socket;
  data->ConnectCount = data->ConnectTimeout / kTickSeconds + 1;
  REGISTER_SOCKET_FOR_THE_LINK(HERE, socket, link);
  REGISTER_SOCKET_FOR_WRITE_EVENT(HERE, socket);
  return 0;
}

int TcpReadyForWrite(const char* file, int line, Link* link) {
  ENTER();
  const TcpLinkData* const data = Data(link);
  if (!data || data->Socket < 0 || data->Socket >= kMaxDescriptors ||
      link->State == kLinkDisconnected) {
    LOG(kLogTrace, "Argument of ReadyTcpForWrite is bad");
    return LEAVE(static_cast<int>(kStatusDescriptor), "FAILED inv arg");
  }
  const Outcome connect = link->State == kLinkConnecting ? CompleteConnect(link) : Outcome{};
  if (connect.Status != 0) return LEAVE(connect.Status, connect.Word);
  if (link->State == kLinkConnected) SendAllSavedMsgToTheLink(HERE, link);
  return 0;
}

int TcpTimerEvent(const char* file, int line, Link* link) {
  ENTER();
  Outcome tick;
  if (link->State == kLinkConnected)
    tick = TickConnected(link);
  else if (link->State == kLinkConnecting)
    tick = TickConnecting(link);
  return LEAVE(tick.Status, tick.Word);
}

int TcpDisconnectLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State == kLinkDisconnected) return LEAVE(0, "SUCCESS already disconnected");
  TcpLinkData* const data = Data(link);
  if (data && data->Socket >= 0) {
    const int savedErrno = errno;
    UnregisterSocket(data->Socket);
    shutdown(data->Socket, SHUT_RDWR);
    close(data->Socket);
    data->Socket = -1;
    errno = savedErrno;
  }
  link->State = kLinkDisconnected;
  return 0;
}

int TcpUninitLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State != kLinkDisconnected) DisconnectLink(HERE, link, 0, 0);
  std::free(link->DriverData);
  link->DriverData = nullptr;
  return 0;
}

int TcpSendToNetwork(const char* file, int line, Link* link, ClientMessage* msg) {
  ENTER();
  TcpLinkData* const data = Data(link);
  Put(Trailer(msg), kTrailerMark, kRequestMark);
  Put(Trailer(msg), kTrailerLinkSocket, static_cast<std::uint32_t>(data->Socket));
  const std::uint32_t size = msg->Length + 4;
  LOG(kLogTrace, "Need write %d bytes for link \"%.8s\"", static_cast<int>(size), link->NodeName);
  if (SendBytes(HERE, data->Socket, Wire(msg), size, &kPackets) != 0)
    return LEAVE(static_cast<int>(kStatusSend), "FAILED write");
  data->AliveCount = data->ReceiveTimeout / kTickSeconds;
  return 0;
}

int TcpReadyForRead(const char* file, int line, Link* link) {
  ENTER();
  TcpLinkData* const data = Data(link);
  ClientMessage msg;
  errno = 0;
  switch (ReadFrame(data->Socket, Wire(&msg), kPacket)) {
    case FrameRead::Whole:
      break;
    case FrameRead::Later:
      return 0;
    case FrameRead::BadLength:
      LOG(kLogDriver, "TCPIP.Receive network is too long. Link \"%s\". Call:recv. Len = %d",
          link->NodeName, static_cast<int>(msg.Length));
      return LEAVE(ReceiveFailed(link, kStatusReceive, 0), "FAILED format (length)");
    case FrameRead::Closed:
      LOG(kLogTrace, "Connection \"%s\" is broken. Call:recv", link->NodeName);
      return LEAVE(ReceiveFailed(link, kStatusPeerClosed, errno), "FAILED receive");
    case FrameRead::Failed:
    case FrameRead::NoMemory:
      LOG(kLogDriver, "TCPIP.Receive network message fail. Link \"%s\". Call:recv. Errno %d",
          link->NodeName, errno);
      return LEAVE(ReceiveFailed(link, kStatusReceive, errno), "FAILED receive");
  }
  RearmWatchdog(data);
  if (msg.Length == kControlLength) return LEAVE(0, "SUCCESS after receive  CONNECTIONINFO");
  LocateTrailer(&msg, FrameSize(Wire(&msg), kPacket), kMessageArea);
  if (HandleNetworkMsg(HERE, &msg) != 0)
    return LEAVE(ReceiveFailed(link, kStatusReceive, 0), "FAILED:HanldeNetworkMsg");
  return ReturnAnswerFromNetworkToClient(HERE, &msg);
}

int TcpClientDeadEvent(const char* file, int line, Link* link, int pid) {
  ENTER();
  LOG(kLogTrace, "Send CKIL packet to server \"%.8s\". Pid = %d", link->NodeName, pid);
  if (SendControl(Data(link)->Socket, kClientDeadPacket, static_cast<std::uint32_t>(pid)) == 0)
    return 0;
  DisconnectLink(HERE, link, kStatusSend, errno);
  return LEAVE(static_cast<int>(kStatusSend), "FAILED send");
}

int TcpSendConnectionInfo(int line, int socket, const std::uint32_t params[2]) {
  const char* const file = Module;
  ENTER();
  LOG(kLogTrace, "Send CONNECTIONINFO btPktType = %d, dwParam = %d", static_cast<int>(params[0]),
      static_cast<int>(params[1]));
  LOG(kLogTrace, "Neeed Send %d byte of the CONNECTIONINFO",
      static_cast<int>(sizeof(ControlPacket)));
  if (SendControl(socket, params[0], params[1]) == 0) return 0;
  LOG(kLogDriver, "TCP.Send the CONNECTIONINFO fail. Call:send. errno %d", errno);
  return LEAVE(-1, "FAILED send");
}
