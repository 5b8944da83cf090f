#include "core/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kStatusMax = 96;

struct Manager {
  sockaddr_un Address;
  socklen_t Length;  // 0: there is none
  bool Watches;
  char Status[kStatusMax];  // told last
};
Manager manager;

// A path, or an abstract name with '@' for its first byte.
void ReadSocket() {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  const std::size_t length = name ? std::strlen(name) : 0;
  if (length < 2 || length > sizeof manager.Address.sun_path) return;
  if (name[0] != '/' && name[0] != '@') return;
  manager.Address.sun_family = AF_UNIX;
  std::memcpy(manager.Address.sun_path, name, length);
  if (name[0] == '@') manager.Address.sun_path[0] = '\0';
  manager.Length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

// The manager may watch another process, which handed its environment down.
bool WatchesThis() {
  const char* const period = std::getenv("WATCHDOG_USEC");
  const char* const pid = std::getenv("WATCHDOG_PID");
  if (!period || std::strtoull(period, nullptr, 10) == 0) return false;
  return !pid || std::strtol(pid, nullptr, 10) == getpid();
}

// No descriptor is kept for what is seldom said.
void Tell(const char* text) {
  if (manager.Length == 0) return;
  const int savedErrno = errno;
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket >= 0) {
    sendto(socket, text, std::strlen(text), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&manager.Address), manager.Length);
    close(socket);
  }
  errno = savedErrno;
}

}  // namespace

void InitialiseNotify() {
  manager = {};
  ReadSocket();
  manager.Watches = WatchesThis();
}

bool HasManager() { return manager.Length != 0; }

void NotifyReady() { Tell("READY=1"); }
void NotifyStopping() { Tell("STOPPING=1"); }

void NotifyTick(int clients, int nodes, const char* defaultNode) {
  if (manager.Length == 0) return;
  if (manager.Watches) Tell("WATCHDOG=1");
  char status[kStatusMax];
  std::snprintf(status, sizeof status, "STATUS=%d clients, %d nodes, %s%.8s", clients, nodes,
                defaultNode ? "default " : "no default", defaultNode ? defaultNode : "");
  if (std::strcmp(status, manager.Status) == 0) return;
  std::memcpy(manager.Status, status, sizeof status);
  Tell(status);
}
