// Free hand: a relay between the same two ends as the agent's that may do as it likes. What it does
// marks how far one thread with the calls of the system can get; how far the agent, which owes its
// users more, stays below it is what its rules cost. epoll over everything, buffers of its own
// choice, all requests of a pass in one write; requests are read to where they are sent from and
// answers sent from where they were read to; the request itself carries to the node and back where
// its answer belongs.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/frame.h"
#include "bench/sockets.h"

namespace {

using namespace bench;

constexpr int kNodeBuffer = 1 << 20;
constexpr std::size_t kAnswersAtOnce = 1 << 18;
constexpr std::size_t kRequestsAtOnce = 1 << 16;  // of one client
constexpr std::size_t kMostUnsent = 1 << 20;      // beyond it no client is read
constexpr int kEventsAtOnce = 512;

struct Client {
  int Socket;
  std::string Begun = {};   // the beginning of a request
  std::string Unsent = {};  // answers that it did not take
};

// Bytes with room behind them, to be read to and sent from.
class Buffer {
 public:
  char* Room(std::size_t count) {
    if (bytes_.size() - end_ < count) Compact(count);
    return bytes_.data() + end_;
  }
  void Fill(std::size_t count) { end_ += count; }
  void Take(std::size_t count) {
    begin_ += count;
    if (begin_ == end_) begin_ = end_ = 0;
  }
  char* Begin() { return bytes_.data() + begin_; }
  std::size_t Size() const { return end_ - begin_; }

 private:
  void Compact(std::size_t count) {
    std::memmove(bytes_.data(), bytes_.data() + begin_, Size());
    end_ = Size();
    begin_ = 0;
    if (bytes_.size() - end_ < count) bytes_.resize(2 * (end_ + count));
  }

  std::vector<char> bytes_;
  std::size_t begin_ = 0, end_ = 0;
};

class FreeHand {
 public:
  FreeHand(int listener, int node) : listener_(listener), node_(node) {
    if (epoll_ < 0) Fail("epoll_create1");
    Watch(EPOLL_CTL_ADD, listener_, EPOLLIN);
    Watch(EPOLL_CTL_ADD, node_, EPOLLIN);
  }

  [[noreturn]] void Run() {
    while (true) {
      std::array<epoll_event, kEventsAtOnce> events;
      const int count = epoll_wait(epoll_, events.data(), kEventsAtOnce, -1);
      if (count < 0 && errno != EINTR) Fail("epoll_wait");
      for (int i = 0; i < count; ++i) Serve(events[static_cast<std::size_t>(i)]);
      SendRequests();
    }
  }

 private:
  void Watch(int operation, int fd, std::uint32_t wanted) {
    epoll_event event = {};
    event.events = wanted;
    event.data.fd = fd;
    if (epoll_ctl(epoll_, operation, fd, &event) != 0) Fail("epoll_ctl");
  }

  void Serve(const epoll_event& event) {
    const bool readable = (event.events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0;
    if (event.data.fd == listener_) {
      Accept();
    } else if (event.data.fd == node_) {
      if (readable) ReadAnswers();
    } else {
      ServeClient(*clients_[static_cast<std::size_t>(event.data.fd)], event.events, readable);
    }
  }

  void Accept() {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) Fail("accept");
    const std::size_t index = static_cast<std::size_t>(socket);
    if (clients_.size() <= index) clients_.resize(index + 1);
    clients_[index] = std::make_unique<Client>(Client{.Socket = socket});
    SendAll(socket, Greeting());
    Watch(EPOLL_CTL_ADD, socket, EPOLLIN);
  }

  void ServeClient(Client& client, std::uint32_t events, bool readable) {
    if ((events & EPOLLOUT) != 0) SendUnsent(client);
    if (readable && requests_.Size() < kMostUnsent && !ReadRequests(client)) Close(client);
  }

  void Close(const Client& client) {
    close(client.Socket);
    clients_[static_cast<std::size_t>(client.Socket)].reset();
  }

  // Whole requests stay where they were read to, behind those of other clients.
  bool ReadRequests(Client& client) {
    const std::size_t begun = client.Begun.size();
    char* const bytes = requests_.Room(begun + kRequestsAtOnce);
    const ssize_t got = recv(client.Socket, bytes + begun, kRequestsAtOnce, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (got <= 0) return false;
    client.Begun.copy(bytes, begun);
    const std::size_t have = begun + static_cast<std::size_t>(got);
    std::size_t at = 0;
    while (have - at >= kLengthWord) {
      const std::size_t size = Load<std::uint32_t>(bytes + at);
      if (size < kSmallestMessage || size > kLargestMessage) return false;
      if (have - at < size) break;
      Store(bytes + at, static_cast<std::uint32_t>(size - kLengthWord));
      Store(bytes + at + size - kTrailerSize + kReturnedAt, client.Socket);
      at += size;
    }
    client.Begun.assign(bytes + at, have - at);
    requests_.Fill(at);
    return true;
  }

  void SendRequests() {
    if (requests_.Size() == 0) return;
    const ssize_t sent = send(node_, requests_.Begin(), requests_.Size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) Fail("send to the node");
    if (sent > 0) requests_.Take(static_cast<std::size_t>(sent));
    const bool full = requests_.Size() > 0;
    if (full != nodeFull_) Watch(EPOLL_CTL_MOD, node_, full ? EPOLLIN | EPOLLOUT : EPOLLIN);
    nodeFull_ = full;
  }

  void ReadAnswers() {
    const ssize_t got = recv(node_, answers_.Room(kAnswersAtOnce), kAnswersAtOnce, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) std::exit(0);
    answers_.Fill(static_cast<std::size_t>(got));
    while (answers_.Size() >= kLengthWord) {
      const std::size_t size = Load<std::uint32_t>(answers_.Begin()) + kLengthWord;
      if (size > kLargestFrame) Fail("the node's packet is too long");
      if (answers_.Size() < size) return;
      if (size >= kSmallestMessage) Answer(answers_.Begin(), size);
      answers_.Take(size);
    }
  }

  void Answer(char* packet, std::size_t size) {
    const auto index = Load<std::uint32_t>(packet + size - kTrailerSize + kReturnedAt);
    if (index >= clients_.size() || !clients_[index]) return;
    Store(packet, static_cast<std::uint32_t>(size));
    Client& client = *clients_[index];
    std::size_t sent = 0;
    if (client.Unsent.empty()) sent = SendSome(client, {packet, size});
    if (sent == size) return;
    if (client.Unsent.empty()) Watch(EPOLL_CTL_MOD, client.Socket, EPOLLIN | EPOLLOUT);
    client.Unsent.append(packet + sent, size - sent);
  }

  // A client that has gone takes nothing; its end is read in its turn.
  static std::size_t SendSome(const Client& client, std::string_view bytes) {
    const ssize_t sent = send(client.Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent > 0 ? static_cast<std::size_t>(sent) : 0;
  }

  void SendUnsent(Client& client) {
    client.Unsent.erase(0, SendSome(client, client.Unsent));
    if (client.Unsent.empty()) Watch(EPOLL_CTL_MOD, client.Socket, EPOLLIN);
  }

  const int listener_, node_;
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  std::vector<std::unique_ptr<Client>> clients_;  // by descriptor
  Buffer requests_, answers_;
  bool nodeFull_ = false;
};

int ConnectNode(const std::string& host, int port) {
  const int node = NewSocket(AF_INET);
  if (setsockopt(node, SOL_SOCKET, SO_SNDBUF, &kNodeBuffer, sizeof kNodeBuffer) != 0 ||
      setsockopt(node, SOL_SOCKET, SO_RCVBUF, &kNodeBuffer, sizeof kNodeBuffer) != 0)
    Fail("setsockopt");
  ConnectTcp(node, host, port);
  SetNoDelay(node);
  SetNonBlocking(node);
  return node;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("A relay with a free hand");
  std::string path, host = "127.0.0.1";
  int port = 0;
  app.add_option("--listen", path, "Path of the clients' socket")->required();
  app.add_option("--host", host, "Address of the node");
  app.add_option("--node", port, "Port of the node")->required();
  CLI11_PARSE(app, argc, argv);
  RaiseDescriptorLimit();
  const int node = ConnectNode(host, port);
  const int listener = ListenUnix(path);
  std::printf("ready\n");
  std::fflush(stdout);
  static FreeHand relay(listener, node);
  relay.Run();
}
