#include "tests/endurance/stream_node.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "tests/support/peer.h"

namespace endurance {
namespace {

constexpr int kBacklog = 64;
constexpr std::uint32_t kClientDied = 2;  // type of a control packet

std::string Word(std::uint32_t word) {
  return std::string(reinterpret_cast<const char*>(&word), sizeof word);
}

}  // namespace

StreamNode::StreamNode(const NodeSetting& setting, lumo::Lengths lengths)
    : Node(setting), lengths_(lengths) {}

StreamNode::~StreamNode() {
  for (const int fd : {socket_, listener_}) {
    if (fd < 0) continue;
    setting().Events->Forget(fd);
    close(fd);
  }
  for (const int fd : lingering_) {
    setting().Events->Forget(fd);
    close(fd);
  }
}

bool StreamNode::Idle() const {
  return Node::Idle() && outAt_ == out_.size() && lingering_.empty();
}

void StreamNode::WatchListener() {
  setting().Events->Watch(listener_, EPOLLIN, [this](std::uint32_t) { AcceptNext(); });
}

// The agent has one connection at a time: the next is accepted when the present one has ended.
void StreamNode::AcceptNext() {
  if (Clock::now() < acceptAgain_ && !settling()) {
    setting().Events->Change(listener_, 0);
    return;
  }
  const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket < 0) return;
  if (socket_ >= 0) {
    ReadAll();  // its end may have come with the new connection
    if (socket_ >= 0)
      throw Failure("node " + Name() + " has a second connection, its first one is good");
  }
  Start(socket);
}

void StreamNode::Start(int socket) {
  socket_ = socket;
  in_.clear();
  out_.clear();
  outAt_ = cutAt_ = 0;
  reading_ = true;
  setting().Events->Watch(socket, EPOLLIN, [this](std::uint32_t events) { Serve(events); });
  Begin();
  Accepted(socket);
  if (!luck().Percent(20)) return;
  Fault("node that accepts nothing for a while");
  acceptAgain_ = Clock::now() + Milliseconds(luck().Between(1, 30));
}

void StreamNode::Serve(std::uint32_t events) {
  if ((events & EPOLLIN) != 0 || (events & (EPOLLHUP | EPOLLERR)) != 0) ReadAll();
  if (socket_ >= 0) Flush(Clock::now());
}

void StreamNode::AgentClosed() {
  throw Failure("the agent has closed its good connection to node " + Name());
}

void StreamNode::ReadAll() {
  std::array<char, 65536> piece;
  for (int i = 0; i < 4; ++i) {
    const ssize_t got = recv(socket_, piece.data(), piece.size(), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) break;
    if (got <= 0) AgentClosed();
    in_.append(piece.data(), static_cast<std::size_t>(got));
  }
  TakeFrames();
}

void StreamNode::TakeFrames() {
  std::size_t at = 0;
  const std::size_t self = lengths_ == lumo::Lengths::Client ? 0 : kLengthSize;
  while (in_.size() - at >= kLengthSize) {
    const std::uint32_t length = WordAt(in_, at);
    const std::size_t size = length + self;
    if (size > lumo::kMaxFrame || size < kLengthSize)
      throw Failure("node " + Name() + " got a frame of length " + std::to_string(length));
    if (in_.size() - at < size) break;
    const std::string_view frame = std::string_view(in_).substr(at, size);
    at += size;
    if (IsControl(length)) {
      TakeControl(frame);
      continue;
    }
    const auto message = lumo::Decode(frame);
    if (!message) throw Failure("node " + Name() + " got what is no message");
    Take(*message);
  }
  in_.erase(0, at);
}

void StreamNode::TakeControl(std::string_view packet) {
  Fault("control packet taken");
  if (WordAt(packet, kLengthSize) != kClientDied) return;
  lumo::Message death;
  death.Command = "CKIL";
  death.SetTrailerTaskName(static_cast<std::int32_t>(WordAt(packet, 2 * kLengthSize)));
  Take(death);
}

void StreamNode::Append(std::string_view bytes) {
  if (outAt_ == out_.size()) {
    out_.clear();
    outAt_ = 0;
  }
  out_.append(bytes);
}

// Now and then the frame is cut, and the rest comes after a pause.
void StreamNode::Transmit(const lumo::Message& message) {
  const std::string frame = lumo::Encode(message, lengths_);
  if (IsControl(8) && luck().PerMille(5)) Append(Word(8) + Word(1) + Word(0));
  Append(frame);
  if (cutAt_ == 0 && !settling() && luck().PerMille(10)) {
    Fault("answer in two pieces");
    cutAt_ = out_.size() - frame.size() + 1 + luck().Below(frame.size() - 1);
  }
}

std::size_t StreamNode::SendSome(std::size_t limit) {
  while (outAt_ < limit) {
    const ssize_t sent = send(socket_, out_.data() + outAt_, limit - outAt_, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) break;
    if (sent < 0) AgentClosed();
    outAt_ += static_cast<std::size_t>(sent);
    Touch();
  }
  return limit - outAt_;
}

void StreamNode::Flush(Time now) {
  if (socket_ < 0 || (now < writeAgain_ && !settling())) return;
  if (cutAt_ > 0 && SendSome(cutAt_) == 0) {
    cutAt_ = 0;
    writeAgain_ = now + Microseconds(luck().Between(500, 6000));
    if (!settling()) return;
  }
  const std::size_t left = cutAt_ > 0 ? 1 : SendSome(out_.size());
  const std::uint32_t reading = reading_ ? std::uint32_t{EPOLLIN} : 0;
  setting().Events->Change(socket_, reading | (left > 0 ? std::uint32_t{EPOLLOUT} : 0));
  if (out_.size() > 1 << 20 && outAt_ > out_.size() / 2 && cutAt_ == 0) {
    out_.erase(0, outAt_);
    outAt_ = 0;
  }
}

void StreamNode::Step(Time now) {
  if (IsAway() && (now >= awayUntil() || settling())) {
    Listen();
    ComeBack();
  }
  if (listener_ >= 0 && !IsAway() && (now >= acceptAgain_ || settling()))
    setting().Events->Change(listener_, EPOLLIN);
  if (reading_ && Connected() && !settling() && luck().PerMille(1)) {
    Fault("node that reads nothing for a while");
    reading_ = false;
    readAgain_ = now + Milliseconds(luck().Between(5, 60));
  }
  if (!reading_ && (now >= readAgain_ || settling())) reading_ = true;
  Node::Step(now);
  Flush(now);
}

// Breaking

void StreamNode::Break(Time now) {
  const auto count = static_cast<std::uint64_t>(Ending::Count);
  EndConnection(static_cast<Ending>(luck().Below(count)));
  if (!luck().Percent(50)) return;
  StopListening();
  GoAway(now + Milliseconds(luck().Between(1, 25)));
}

// What is sent last, behind a random part of what was still to go.
void StreamNode::Spoil(Ending ending) {
  lumo::Message last;
  last.Strings[0] = std::string(300, 'x');
  std::string frame = lumo::Encode(last, lengths_);
  const std::uint16_t tooMany = 0xFFF0;
  const bool packet = lengths_ == lumo::Lengths::Packet;
  if (ending == Ending::MidPacket) frame.resize(1 + luck().Below(frame.size() - 1));
  if (ending == Ending::LongLength)
    frame = Word(8193 + static_cast<std::uint32_t>(luck().Below(1U << 30)));
  if (ending == Ending::ZeroLength) frame = Word(packet ? 0 : 4);
  if (ending == Ending::LongStrings)
    std::memcpy(frame.data() + kStringsAt, &tooMany, sizeof tooMany);
  out_.resize(outAt_);
  Append(frame);
  SendSome(out_.size());
}

void StreamNode::EndConnection(Ending ending) {
  static constexpr const char* kNames[] = {"connection closed", "connection closed within a packet",
                                           "connection reset",  "length out of bounds",
                                           "length of nothing", "strings too long"};
  if (cutAt_ == 0 && ending != Ending::Close && ending != Ending::Reset) {
    if (SendSome(out_.size()) == 0) Spoil(ending);
  }
  const bool agentCloses = ending >= Ending::LongLength && outAt_ == out_.size();
  MarkBroken(kNames[static_cast<std::size_t>(ending)]);
  setting().Events->Forget(socket_);
  if (agentCloses) {
    Linger(socket_);
  } else {
    const linger abort = {.l_onoff = 1, .l_linger = 0};
    if (ending == Ending::Reset) setsockopt(socket_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(socket_);
  }
  socket_ = -1;
  cutAt_ = 0;
  out_.clear();
  outAt_ = 0;
}

// What still comes is thrown away until the agent closes, as it must.
void StreamNode::Linger(int socket) {
  lingering_.push_back(socket);
  setting().Events->Watch(socket, EPOLLIN, [this, socket](std::uint32_t) {
    std::array<char, 16384> piece;
    const ssize_t got = recv(socket, piece.data(), piece.size(), 0);
    if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) return;
    Touch();
    setting().Events->Forget(socket);
    close(socket);
    lingering_.erase(std::find(lingering_.begin(), lingering_.end(), socket));
  });
}

// TCP

TcpNode::TcpNode(const NodeSetting& setting, const std::string& timeouts)
    : StreamNode(setting, lumo::Lengths::Packet), timeouts_(timeouts) {
  history().Codes = {4006, 4007, 4008, 4009};
  Bind();
  Listen();
}

std::string TcpNode::Line() const {
  return Name() + " TCPIP 127.0.0.1 " + std::to_string(port_) + " " + timeouts_ + "\n";
}

void TcpNode::Bind() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port_));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  sockaddr* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener_, generic, size) != 0 || getsockname(listener_, generic, &size) != 0)
    throw Failure("a port cannot be bound");
  port_ = ntohs(address.sin_port);
}

void TcpNode::Listen() {
  if (listen(listener_, kBacklog) != 0) throw Failure("listen fails");
  WatchListener();
}

// A socket that does not listen keeps the port; connections are refused.
void TcpNode::StopListening() {
  setting().Events->Forget(listener_);
  close(listener_);
  Bind();
}

void TcpNode::Accepted(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// The local kernel

KernelNode::KernelNode(const NodeSetting& setting, int number, const std::string& path)
    : StreamNode(setting, lumo::Lengths::Client), number_(number), path_(path) {
  history().Codes = {4006, 4007, 4008};
  Listen();
}

KernelNode::~KernelNode() { unlink(path_.c_str()); }

std::string KernelNode::Line() const {
  return Name() + " LOCALS " + std::to_string(number_) + "\n";
}

void KernelNode::Listen() {
  listener_ = test::BoundAt(path_);
  if (fcntl(listener_, F_SETFL, O_NONBLOCK) != 0 || listen(listener_, kBacklog) != 0)
    throw Failure("the local kernel's socket cannot be made");
  WatchListener();
}

// A connection that nobody greets would hold the agent: with the path gone no more can come, and
// one that came before is taken.
void KernelNode::StopListening() {
  unlink(path_.c_str());
  setting().Events->Forget(listener_);
  const int last = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  close(listener_);
  listener_ = -1;
  if (last >= 0) Start(last);
}

void KernelNode::Accepted(int) { Append(std::string(kGreetingSize, '\0')); }

}  // namespace endurance
