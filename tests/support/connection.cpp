#include "tests/support/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "tests/support/text.h"

namespace lumo {
namespace {

constexpr std::size_t kGreetingSize = 60, kLengthSize = 4;
constexpr std::uint32_t kGreetingLength = 56;

std::int64_t Now() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int ConnectTo(const std::string& path, std::string* error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    *error = "the path " + path + " is too long for a socket";
    return -1;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int result = -1;
  do {
    result = fd < 0 ? -1 : connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  } while (fd >= 0 && result < 0 && errno == EINTR);
  if (result == 0) return fd;
  *error = "no agent answers on " + path + ": " + std::strerror(errno);
  if (fd >= 0) close(fd);
  return -1;
}

}  // namespace

std::optional<Connection> Connection::Open(const std::string& path, std::string* error,
                                           int timeoutMs) {
  std::string unwanted;
  if (!error) error = &unwanted;
  const int fd = ConnectTo(path, error);
  if (fd < 0) return std::nullopt;
  Connection connection(fd);
  if (!connection.ReadGreeting(timeoutMs, error)) return std::nullopt;
  return connection;
}

Connection::Connection(Connection&& other) noexcept { *this = std::move(other); }

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this == &other) return *this;
  Close();
  socket_ = std::exchange(other.socket_, -1);
  agentPid_ = other.agentPid_;
  lost_ = other.lost_;
  received_ = std::move(other.received_);
  return *this;
}

Connection::~Connection() { Close(); }

void Connection::Close() {
  if (socket_ >= 0) close(socket_);
  socket_ = -1;
}

bool Connection::ReadGreeting(int timeoutMs, std::string* error) {
  if (!ReceiveBytes(kGreetingSize, Now() + timeoutMs)) {
    *error = lost_ ? "the agent closed the connection" : "the agent sends no greeting";
    return false;
  }
  if (test::ValueAt<std::uint32_t>(received_, 0) != kGreetingLength) {
    *error = "the greeting is not an agent's";
    return false;
  }
  agentPid_ = test::ValueAt<std::int32_t>(received_, 4);
  received_.erase(0, kGreetingSize);
  return true;
}

bool Connection::SendFrame(std::string_view frame) {
  while (!frame.empty()) {
    const ssize_t sent = send(socket_, frame.data(), frame.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      frame.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno != EINTR) {
      lost_ = true;
      return false;
    }
  }
  return true;
}

bool Connection::ReceiveBytes(std::size_t size, std::int64_t deadline) {
  std::array<char, kMaxFrame> buffer;
  while (received_.size() < size) {
    pollfd ready{socket_, POLLIN, 0};
    const std::int64_t left = std::max<std::int64_t>(deadline - Now(), 0);
    const int count = poll(&ready, 1, static_cast<int>(left));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    const std::size_t wanted = std::min(size - received_.size(), buffer.size());
    const ssize_t got = recv(socket_, buffer.data(), wanted, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      lost_ = true;
      return false;
    }
    received_.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return true;
}

std::optional<std::string> Connection::ReceiveFrame(int timeoutMs) {
  const std::int64_t deadline = Now() + timeoutMs;
  if (lost_ || !ReceiveBytes(kLengthSize, deadline)) return std::nullopt;
  const std::size_t length = test::ValueAt<std::uint32_t>(received_, 0);
  if (length <= kLengthSize || length > kMaxFrame) {
    lost_ = true;
    return std::nullopt;
  }
  if (!ReceiveBytes(length, deadline)) return std::nullopt;
  return std::exchange(received_, std::string());
}

std::optional<Message> Connection::Ask(const Message& request, int timeoutMs, Layout layout) {
  const std::int64_t deadline = Now() + timeoutMs;
  if (!SendFrame(Encode(request, Lengths::Client))) return std::nullopt;
  for (;;) {
    const std::int64_t left = std::max<std::int64_t>(deadline - Now(), 0);
    const std::optional<std::string> frame = ReceiveFrame(static_cast<int>(left));
    if (!frame) return std::nullopt;
    std::optional<Message> answer = Decode(*frame, layout);
    if (!answer) {
      lost_ = true;
      return std::nullopt;
    }
    if (answer->AstInd() == request.AstInd()) return answer;
  }
}

}  // namespace lumo
