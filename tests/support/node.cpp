#include "tests/support/node.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

std::string NodetabLine(const std::string& name, std::uint16_t port, const std::string& timeouts) {
  return name + " TCPIP 127.0.0.1 " + std::to_string(port) + " " + timeouts + "\n";
}

void SendAtOnce(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int BoundSocket(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = Loopback(port);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("a port cannot be bound");
  return fd;
}

Node::Node(Start start) : Peer(lumo::Lengths::Packet) {
  Bind(0);
  if (start == Start::Listening) Listen();
  if (start == Start::Stalled) Stall();
}

Node::~Node() {
  for (const int fd : fillers_) close(fd);
  if (listener_ >= 0) close(listener_);
}

void Node::Bind(std::uint16_t port) {
  listener_ = BoundSocket(port);
  port_ = LocalPort(listener_);
}

void Node::Listen(int backlog) {
  if (listen(listener_, backlog) != 0) throw std::runtime_error("listen fails");
}

void Node::StopListening() {
  close(listener_);
  Bind(port_);
}

bool Node::Accept(Milliseconds timeout) {
  Peer next = AcceptAnother(timeout);
  if (!next.Open()) return false;
  static_cast<Peer&>(*this) = std::move(next);
  return true;
}

lumo::Message Node::ExpectFirstRequest(const Place& place) {
  if (!Accept()) ADD_FAILURE_AT(place.File, place.Line) << "the agent does not connect";
  return ExpectRequest(place);
}

Peer Node::AcceptAnother(Milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  for (;;) {
    const int fd = AcceptWithin(listener_, Milliseconds(MillisecondsLeft(deadline)));
    if (fd >= 0 && fillerPorts_.count(RemotePort(fd)) != 0) {
      close(fd);
      continue;
    }
    if (fd >= 0) SendAtOnce(fd);
    return Peer(lumo::Lengths::Packet, fd);
  }
}

bool Node::Connecting(Milliseconds timeout) {
  pollfd ready{listener_, POLLIN, 0};
  return poll(&ready, 1, static_cast<int>(timeout.count())) > 0;
}

// With a backlog of 0 one connection is queued; further ones get no answer to their first segment.
void Node::Stall() {
  Listen(0);
  const sockaddr_in address = Loopback(port_);
  for (int i = 0; i < 8; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    fillers_.push_back(fd);
    connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    fillerPorts_.insert(LocalPort(fd));
    pollfd ready{fd, POLLOUT, 0};
    if (poll(&ready, 1, 20) == 0) return;
  }
  throw std::runtime_error("the queue of connections does not fill");
}

void Node::Unstall() {
  for (const int fd : fillers_) close(fd);
  fillers_.clear();
  Listen();
}

std::string Node::Line(const std::string& name, const std::string& timeouts) const {
  return NodetabLine(name, port_, timeouts);
}

EchoNode::EchoNode() : listener_(BoundSocket(0)), port_(LocalPort(listener_)) {
  if (listen(listener_, 64) != 0 || pipe2(stopPipe_, O_CLOEXEC) != 0)
    throw std::runtime_error("the echo node does not start");
  thread_ = std::thread([this] { Serve(); });
}

EchoNode::~EchoNode() {
  close(stopPipe_[1]);
  thread_.join();
  close(stopPipe_[0]);
  close(listener_);
}

void EchoNode::Serve() {
  std::vector<Peer> peers;
  for (;;) {
    std::vector<pollfd> ready{{stopPipe_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const Peer& peer : peers) ready.push_back({peer.Socket(), POLLIN, 0});
    if (poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) return;
    if (ready[0].revents) return;
    for (std::size_t i = peers.size(); i-- > 0;) {
      if (!ready[i + 2].revents) continue;
      ServeConnection(peers[i]);
      if (!peers[i].Open()) peers.erase(peers.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (ready[1].revents) {
      Peer peer(lumo::Lengths::Packet, AcceptWithin(listener_, Milliseconds(0)));
      if (peer.Open()) SendAtOnce(peer.Socket());
      if (peer.Open()) peers.push_back(std::move(peer));
    }
  }
}

void EchoNode::ServeConnection(Peer& peer) {
  const std::optional<std::string> frame = peer.ReadFrame();
  if (!frame) return peer.Close();
  const std::optional<lumo::Message> request = lumo::Decode(*frame);
  if (!request) return;  // a control packet
  ++served_;
  if (!peer.Answer(*request, request->Strings[0])) peer.Close();
}

std::string EchoNode::Line(const std::string& name, const std::string& timeouts) const {
  return NodetabLine(name, port_, timeouts);
}

}  // namespace test
