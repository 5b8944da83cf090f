#include "tests/support/peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "tests/support/text.h"

namespace test {
namespace {

constexpr std::size_t kLengthSize = 4, kControlSize = 12, kLargestFrame = 1 << 20;

bool WaitReadable(int socket, Clock::time_point deadline) {
  pollfd ready{socket, POLLIN, 0};
  int count = 0;
  do {
    count = poll(&ready, 1, MillisecondsLeft(deadline));
  } while (count < 0 && errno == EINTR);
  return count > 0;
}

bool IsTcp(int socket) {
  int domain = 0;
  socklen_t size = sizeof domain;
  return getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_INET;
}

template <class Name>
std::uint16_t PortBy(Name name, int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  name(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// The system knows a TCP socket with these two ports.
bool TcpSocketExists(unsigned local, unsigned remote) {
  std::ifstream table("/proc/net/tcp");
  for (std::string line; std::getline(table, line);) {
    unsigned here = 0, there = 0;
    if (std::sscanf(line.c_str(), " %*d: %*x:%x %*x:%x", &here, &there) == 2 && here == local &&
        there == remote)
      return true;
  }
  return false;
}

}  // namespace

std::string ControlPacket(Control control) {
  return Bytes(std::uint32_t{8}) + Bytes(control.Type) + Bytes(control.Parameter);
}

std::uint16_t LocalPort(int socket) { return PortBy(getsockname, socket); }
std::uint16_t RemotePort(int socket) { return PortBy(getpeername, socket); }

Peer::Peer(Peer&& other) noexcept : lengths_(other.lengths_), socket_(-1) {
  *this = std::move(other);
}

Peer& Peer::operator=(Peer&& other) noexcept {
  if (this == &other) return *this;
  Close();
  lengths_ = other.lengths_;
  socket_ = std::exchange(other.socket_, -1);
  ended_ = other.ended_;
  received_ = std::move(other.received_);
  return *this;
}

bool Peer::ReceiveBytes(std::size_t size, Clock::time_point deadline) {
  std::array<char, 16384> buffer;
  while (received_.size() < size) {
    if (socket_ < 0 || ended_ || !WaitReadable(socket_, deadline)) return false;
    const std::size_t wanted = std::min(size - received_.size(), buffer.size());
    const ssize_t got = recv(socket_, buffer.data(), wanted, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      ended_ = true;
      return false;
    }
    received_.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return true;
}

std::optional<std::string> Peer::ReadFrame(Milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  if (!ReceiveBytes(kLengthSize, deadline)) return std::nullopt;
  const std::size_t length = ValueAt<std::uint32_t>(received_, 0);
  const std::size_t size = lengths_ == lumo::Lengths::Client ? length : length + kLengthSize;
  if (size < kLengthSize || size > kLargestFrame) {
    ADD_FAILURE() << "the agent sent a frame with the length word " << length;
    return std::nullopt;
  }
  if (!ReceiveBytes(size, deadline)) return std::nullopt;
  return std::exchange(received_, std::string());
}

std::optional<lumo::Message> Peer::ReadRequest(Milliseconds timeout) {
  const std::optional<std::string> frame = ReadFrame(timeout);
  if (!frame) {
    ADD_FAILURE() << (ended_ ? "the agent closed the connection" : "no request comes");
    return std::nullopt;
  }
  std::optional<lumo::Message> message = lumo::Decode(*frame);
  if (!message) ADD_FAILURE() << "not a message: " << testing::PrintToString(*frame);
  return message;
}

lumo::Message Peer::ExpectRequest(const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  std::optional<lumo::Message> request = ReadRequest();
  if (!request) throw std::runtime_error("the test cannot go on without the request");
  return *request;
}

std::optional<Control> Peer::ReadControl(Milliseconds timeout) {
  const std::optional<std::string> frame = ReadFrame(timeout);
  if (!frame || frame->size() != kControlSize) {
    ADD_FAILURE() << "no control packet comes, but "
                  << (frame ? testing::PrintToString(*frame) : "nothing");
    return std::nullopt;
  }
  return Control{ValueAt<std::uint32_t>(*frame, 4), ValueAt<std::uint32_t>(*frame, 8)};
}

bool Peer::ReadEnd(Milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  do {
    received_.clear();
  } while (ReceiveBytes(1, deadline));
  return ended_;
}

bool Peer::Silent(Milliseconds timeout) {
  return received_.empty() && !ended_ && !WaitReadable(socket_, Clock::now() + timeout);
}

lumo::Message AnswerTo(const lumo::Message& request, const std::string& text, int codErr) {
  lumo::Message answer;
  answer.TaskName = request.TaskName;
  answer.CodErr = codErr;
  answer.Command = request.Command;
  answer.Node = request.Node;
  answer.Trailer = request.Trailer;
  answer.Strings[0] = text;
  return answer;
}

bool Peer::Answer(const lumo::Message& request, const std::string& text, int codErr) {
  return SendMessage(AnswerTo(request, text, codErr));
}

bool Peer::SendMessage(const lumo::Message& message) {
  return SendBytes(lumo::Encode(message, lengths_));
}

bool Peer::SendControl(Control control) { return SendBytes(ControlPacket(control)); }

bool Peer::SendBytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void Peer::Close() {
  if (socket_ >= 0) close(socket_);
  socket_ = -1;
  ended_ = false;
  received_.clear();
}

void Peer::Reset() {
  const bool tcp = IsTcp(socket_);
  const unsigned ours = LocalPort(socket_), theirs = RemotePort(socket_);
  const linger now{1, 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  Close();
  WaitFor([&] { return !tcp || !TcpSocketExists(theirs, ours); });
}

void Peer::StopSending() {
  shutdown(socket_, SHUT_WR);
  if (IsTcp(socket_)) Arrived();
}

// What the other side's system has not confirmed, its end included, is counted.
bool Peer::Arrived() const {
  return WaitFor([&] {
    int unconfirmed = 0;
    return ioctl(socket_, SIOCOUTQ, &unconfirmed) == 0 && unconfirmed == 0;
  });
}

int BoundAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw std::runtime_error("the path " + path + " is too long for a socket");
  path.copy(address.sun_path, path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("no socket can be made at " + path);
  return fd;
}

int AcceptWithin(int listener, Milliseconds timeout) {
  if (!WaitReadable(listener, Clock::now() + timeout)) return -1;
  return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

}  // namespace test
