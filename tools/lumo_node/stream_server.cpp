#include "tools/lumo_node/stream_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "lib/socket_path.h"

namespace lumo::node {
namespace {

constexpr int kBacklog = 16;
constexpr std::size_t kLengthSize = 4;
constexpr std::uint32_t kLongestLength = 1 << 16;  // the agent sends 8192 at most

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

int NewSocket(int family) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) Fail("socket");
  return fd;
}

template <class Address>
void Listen(int fd, const Address& address, const std::string& place) {
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      listen(fd, kBacklog) == 0)
    return;
  const int error = errno;
  close(fd);
  errno = error;
  Fail("listening on " + place);
}

std::string TcpPlace(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) < 0) Fail("getsockname");
  std::array<char, INET_ADDRSTRLEN> host{};
  inet_ntop(AF_INET, &address.sin_addr, host.data(), host.size());
  return "tcp " + std::string(host.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

Listener ListenTcp(const std::string& host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
    throw std::runtime_error("'" + host + "' is not an IPv4 address");
  const int fd = NewSocket(AF_INET);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  Listen(fd, address, host + ":" + std::to_string(port));
  return {fd, TcpPlace(fd)};
}

Listener ListenLocal(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw std::runtime_error("the path " + path + " is too long for a socket");
  std::memcpy(address.sun_path, path.data(), path.size());
  mkdir(SocketDirectory().c_str(), 01777);
  const int probe = NewSocket(AF_UNIX);
  const bool served =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(probe);
  if (served) throw std::runtime_error("somebody serves " + path + " already");
  unlink(path.c_str());
  const int fd = NewSocket(AF_UNIX);
  Listen(fd, address, path);
  return {fd, "local " + path};
}

}  // namespace

StreamServer::StreamServer(EventLog* log, Listener listener)
    : log_(log), listener_(std::move(listener)) {}

StreamServer::~StreamServer() {
  for (auto it = connections_.begin(); it != connections_.end();) it = Drop(it);
  close(listener_.Socket);
}

int StreamServer::Collect(std::vector<pollfd>* wanted) {
  wanted->push_back({listener_.Socket, POLLIN, 0});
  for (const auto& [peer, connection] : connections_) {
    const int events = (Deaf() ? 0 : POLLIN) | (connection.Out.empty() ? 0 : POLLOUT);
    // With nothing to wait for, a broken connection would end every wait at once.
    const int socket = events ? connection.Socket : -1;
    wanted->push_back({socket, static_cast<short>(events), 0});
    if (connection.Closing && connection.Out.empty()) return 0;
  }
  return -1;
}

void StreamServer::Serve(const Handler& handler) {
  AcceptAll();
  for (auto it = connections_.begin(); it != connections_.end();)
    it = ServeConnection(it->first, handler) ? std::next(it) : Drop(it);
}

std::string StreamServer::Name(PeerId peer) const {
  return "connection " + std::to_string(peer) + " (" + Place().substr(0, Place().find(' ')) + ")";
}

void StreamServer::AcceptAll() {
  for (;;) {
    const int fd = accept4(listener_.Socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const PeerId peer = ++lastPeer_;
    connections_[peer] = {.Socket = fd, .In = {}, .Out = Greeting()};
    log_->Write(Name(peer) + " opened");
  }
}

bool StreamServer::ServeConnection(PeerId peer, const Handler& handler) {
  Connection& connection = connections_.at(peer);
  const bool open = Deaf() || Receive(&connection);
  std::string frame;
  while (!connection.Closing && TakeFrame(&connection, &frame)) handler(peer, frame);
  return open && Flush(&connection) && !(connection.Closing && connection.Out.empty());
}

bool StreamServer::Receive(Connection* connection) {
  std::array<char, kMaxFrame> buffer;
  for (;;) {
    const ssize_t got = recv(connection->Socket, buffer.data(), buffer.size(), 0);
    if (got > 0) {
      connection->In.append(buffer.data(), static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      return got < 0 && errno == EAGAIN;
    }
  }
}

bool StreamServer::TakeFrame(Connection* connection, std::string* frame) {
  std::uint32_t length = 0;
  if (connection->In.size() < kLengthSize) return false;
  std::memcpy(&length, connection->In.data(), kLengthSize);
  const std::size_t size = FrameLengths() == Lengths::Packet ? length + kLengthSize : length;
  if (size < kLengthSize || length > kLongestLength) {
    log_->Write("bad length word " + std::to_string(length));
    connection->Closing = true;
    return false;
  }
  if (connection->In.size() < size) return false;
  *frame = connection->In.substr(0, size);
  connection->In.erase(0, size);
  return true;
}

bool StreamServer::Flush(Connection* connection) {
  std::string& out = connection->Out;
  while (!out.empty()) {
    const ssize_t sent = send(connection->Socket, out.data(), out.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      out.erase(0, static_cast<std::size_t>(sent));
    } else if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
  return true;
}

void StreamServer::Send(PeerId peer, const std::string& frame) {
  const auto it = connections_.find(peer);
  if (it == connections_.end() || it->second.Closing) return;
  it->second.Out += frame;
  // A connection that cannot take it is dropped when it is served next.
  Flush(&it->second);
}

void StreamServer::CloseAfterSending(PeerId peer) {
  const auto it = connections_.find(peer);
  if (it != connections_.end()) it->second.Closing = true;
}

StreamServer::Connections::iterator StreamServer::Drop(Connections::iterator connection) {
  close(connection->second.Socket);
  log_->Write(Name(connection->first) + " closed");
  return connections_.erase(connection);
}

TcpServer::TcpServer(EventLog* log, const std::string& address, std::uint16_t port)
    : StreamServer(log, ListenTcp(address, port)) {}

LocalServer::LocalServer(EventLog* log, int exchangeId)
    : StreamServer(log, ListenLocal(SocketPath(exchangeId))), path_(SocketPath(exchangeId)) {}

LocalServer::~LocalServer() { unlink(path_.c_str()); }

std::string LocalServer::Greeting() const {
  std::array<std::int32_t, 15> greeting{56, getpid()};
  return {reinterpret_cast<const char*>(greeting.data()), sizeof greeting};
}

}  // namespace lumo::node
