// A node that sends every message back, as fast as it can: what is measured with it is the way to
// it. One thread over any number of connections; it stops reading from a connection while answers
// for it cannot go out, as every server with bounded memory does. It sends what it has answers for
// at once, or each of them with a call of its own, as a server does that works them out in turn.
// It stands behind TCP, or as a local kernel, with its greeting and frames, behind a UNIX socket.
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

constexpr std::size_t kReadAtOnce = 65536;
constexpr int kEventsAtOnce = 256;

struct Connection {
  int Socket;
  std::string Input = {};    // the beginning of a packet
  std::string Answers = {};  // not sent yet
  std::uint32_t Watched = EPOLLIN;
  std::size_t PacketSize = 0;  // of the answer that goes out, when they go one by one
  std::size_t SentOfPacket = 0;
};

struct Options {
  std::string Host = "127.0.0.1", Kernel;
  int Port = 0;
  bool Hold = false, Singly = false;
  // What a frame has beyond the value of its length word.
  std::size_t Beyond() const { return Kernel.empty() ? kLengthWord : 0; }
};

class EchoNode {
 public:
  EchoNode(int listener, const Options& options) : listener_(listener), options_(options) {
    if (epoll_ < 0) Fail("epoll_create1");
    Watch(EPOLL_CTL_ADD, listener_, EPOLLIN);
  }

  [[noreturn]] void Run() {
    while (true) {
      std::array<epoll_event, kEventsAtOnce> events;
      const int count = epoll_wait(epoll_, events.data(), kEventsAtOnce, -1);
      if (count < 0 && errno != EINTR) Fail("epoll_wait");
      for (int i = 0; i < count; ++i) Serve(events[static_cast<std::size_t>(i)]);
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
    if (event.data.fd == listener_) {
      Accept();
      return;
    }
    Connection& connection = *connections_[static_cast<std::size_t>(event.data.fd)];
    const bool alive = (event.events & EPOLLOUT) != 0 ? Send(connection) : Read(connection);
    if (!alive) Close(connection);
  }

  void Accept() {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) Fail("accept");
    if (options_.Kernel.empty())
      SetNoDelay(socket);
    else
      SendAll(socket, Greeting());
    const std::size_t index = static_cast<std::size_t>(socket);
    if (connections_.size() <= index) connections_.resize(index + 1);
    connections_[index] = std::make_unique<Connection>(Connection{.Socket = socket});
    Watch(EPOLL_CTL_ADD, socket, EPOLLIN);
  }

  bool Read(Connection& connection) {
    const ssize_t got = recv(connection.Socket, buffer_.data(), buffer_.size(), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (got <= 0) return false;
    connection.Input.append(buffer_.data(), static_cast<std::size_t>(got));
    return Answer(connection) && Send(connection);
  }

  // Moves every whole packet that is to be answered from the input to the answers.
  bool Answer(Connection& connection) {
    const std::string& input = connection.Input;
    std::size_t at = 0;
    while (input.size() - at >= kLengthWord) {
      const std::size_t size = options_.Beyond() + Load<std::uint32_t>(input.data() + at);
      if (size < kLengthWord || size > kLargestFrame) return false;
      if (input.size() - at < size) break;
      if (IsAnswered(input.data() + at)) connection.Answers.append(input, at, size);
      at += size;
    }
    connection.Input.erase(0, at);
    return true;
  }

  bool IsAnswered(const char* packet) const {
    if (Load<std::uint32_t>(packet) == kControlLength) return false;
    return !options_.Hold || std::memcmp(packet + kCommandAt, kHoldCommand, 4) != 0;
  }

  // Bytes of the first packet not sent whole; `at`: where the unsent answers begin.
  std::size_t RestOfPacket(Connection& connection, std::size_t at) const {
    if (connection.SentOfPacket == 0)
      connection.PacketSize =
          options_.Beyond() + Load<std::uint32_t>(connection.Answers.data() + at);
    return connection.PacketSize - connection.SentOfPacket;
  }

  bool Send(Connection& connection) {
    std::string& answers = connection.Answers;
    std::size_t at = 0;
    while (at < answers.size()) {
      const std::size_t size = options_.Singly ? RestOfPacket(connection, at) : answers.size() - at;
      const ssize_t sent = send(connection.Socket, answers.data() + at, size, MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && errno != EAGAIN) return false;
      if (sent < 0) break;
      at += static_cast<std::size_t>(sent);
      connection.SentOfPacket = options_.Singly && static_cast<std::size_t>(sent) < size
                                    ? connection.SentOfPacket + static_cast<std::size_t>(sent)
                                    : 0;
    }
    answers.erase(0, at);
    const std::uint32_t wanted = answers.empty() ? EPOLLIN : EPOLLOUT;
    if (wanted != connection.Watched) Watch(EPOLL_CTL_MOD, connection.Socket, wanted);
    connection.Watched = wanted;
    return true;
  }

  void Close(const Connection& connection) {
    close(connection.Socket);
    connections_[static_cast<std::size_t>(connection.Socket)].reset();
  }

  const int listener_;
  const Options& options_;
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  std::array<char, kReadAtOnce> buffer_;
  std::vector<std::unique_ptr<Connection>> connections_;  // by descriptor
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Sends every message back");
  Options options;
  app.add_option("--host", options.Host, "Address to listen on");
  app.add_option("--port", options.Port, "Port; 0: any");
  app.add_option("--kernel", options.Kernel, "Path of a local kernel's socket, in place of a port");
  app.add_flag("--hold", options.Hold, "Never answer requests with the command HOLD");
  app.add_flag("--singly", options.Singly, "Send each answer with a call of its own");
  CLI11_PARSE(app, argc, argv);
  RaiseDescriptorLimit();
  const bool tcp = options.Kernel.empty();
  const int listener = tcp ? ListenTcp(options.Host, &options.Port) : ListenUnix(options.Kernel);
  std::printf("listening on %d\n", options.Port);
  std::fflush(stdout);
  static EchoNode node(listener, options);
  node.Run();
}
