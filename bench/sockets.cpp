#include "bench/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/frame.h"

namespace bench {
namespace {

constexpr int kBacklog = 1024;

sockaddr_in AddressOf(const std::string& host, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  errno = EINVAL;
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) Fail(host);
  return address;
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  errno = ENAMETOOLONG;
  if (path.size() >= sizeof address.sun_path) Fail(path);
  path.copy(address.sun_path, path.size());
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
  const sockaddr_un address = AddressOf(path);
  const int socket = NewSocket(AF_UNIX);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail(path);
  return socket;
}

void ConnectTcp(int socket, const std::string& host, int port) {
  const sockaddr_in address = AddressOf(host, port);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    Fail("connect to " + host + ", port " + std::to_string(port));
}

int ListenTcp(const std::string& host, int* port) {
  sockaddr_in address = AddressOf(host, *port);
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

int ListenUnix(const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  const int listener = NewSocket(AF_UNIX);
  unlink(path.c_str());
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, kBacklog) != 0)
    Fail(path);
  return listener;
}

std::string Greeting() {
  std::string greeting(kGreetingSize, '\0');
  Store(greeting.data(), kGreetingWord);
  Store(greeting.data() + kTaskNameAt, static_cast<std::int32_t>(getpid()));
  return greeting;
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
