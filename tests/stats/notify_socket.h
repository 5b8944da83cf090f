// A service manager's socket, and what came there.
#pragma once
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/agent.h"

namespace test {

class NotifySocket {
 public:
  NotifySocket() = default;
  ~NotifySocket() { Close(); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  std::string Path() const { return folder_.Path() / "notify"; }
  // '@' stands for the first byte of an abstract name.
  bool Listen(const std::string& name) {
    Close();
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return bind(socket_, reinterpret_cast<sockaddr*>(&address), length) == 0;
  }
  std::vector<std::string> Heard() const {
    std::vector<std::string> texts;
    char text[256];
    for (ssize_t got; (got = recv(socket_, text, sizeof text, 0)) > 0;)
      texts.emplace_back(text, static_cast<std::size_t>(got));
    return texts;
  }
  void Close() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
  }

 private:
  TemporaryDirectory folder_;
  int socket_ = -1;
};

}  // namespace test
