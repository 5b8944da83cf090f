#include "bench/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

constexpr int kBacklog = 1024;

sockaddr_in Loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

void Fail(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(2);
}

int NewSocket(int family) {
  const int created = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (created < 0) Fail("socket");
  return created;
}

int ConnectUnix(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    Fail(path);
  }
  path.copy(address.sun_path, path.size());
  const int socket = NewSocket(AF_UNIX);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail(path);
  return socket;
}

void ConnectTcp(int socket, int port) {
  const sockaddr_in address = Loopback(port);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    Fail("connect to port " + std::to_string(port));
}

int ConnectTcp(int port) {
  const int socket = NewSocket(AF_INET);
  ConnectTcp(socket, port);
  SetNoDelay(socket);
  return socket;
}

int ListenTcp(int* port) {
  sockaddr_in address = Loopback(*port);
  socklen_t size = sizeof address;
  sockaddr* const generic = reinterpret_cast<sockaddr*>(&address);
  const int on = 1, listener = NewSocket(AF_INET);
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener, generic, size) != 0 || listen(listener, kBacklog) != 0 ||
      getsockname(listener, generic, &size) != 0)
    Fail("listen");
  *port = ntohs(address.sin_port);
  return listener;
}

void SetNoDelay(int socket) {
  const int on = 1;
  if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) Fail("TCP_NODELAY");
}

void SetNonBlocking(int socket) {
  const int flags = fcntl(socket, F_GETFL);
  if (flags < 0 || fcntl(socket, F_SETFL, flags | O_NONBLOCK) != 0) Fail("O_NONBLOCK");
}

void RaiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

bool SendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool ReceiveAll(int socket, char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t got = recv(socket, bytes, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace bench
