// The yardstick: a relay between client connections and one node that makes the plain system calls
// and nothing else. One select over all descriptors; a request is received (4 bytes, then the
// rest) and written, an answer is received the same way, its client looked up in the list of
// requests in flight, tested with a null signal and sent to. Every call waits, so with many
// clients it can stand still for ever together with the node, each waiting for the other to read.
// The node is one behind TCP, or a local kernel behind a UNIX socket.
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/frame.h"
#include "bench/sockets.h"

namespace {

using namespace bench;

constexpr int kFirstDescriptor = 3;
constexpr int kBufferSize = 8188;
struct InFlight {
  std::int32_t TaskName;
  int Client;  // -1: free
  std::uint16_t AstInd;
};

struct Relay {
  int Node, Listener;
  std::uint32_t NodeCounts = 0;  // bytes of the length word that it includes, at the node
  fd_set Registered, Clients;
  int MaxSocket;
  int LastClient = -1;
  bool NodeServed = false;  // from then on it comes first
  std::vector<InFlight> Requests;
};

char message[kLargestFrame];

void SetBuffers(int socket) {
  if (setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kBufferSize, sizeof kBufferSize) != 0 ||
      setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kBufferSize, sizeof kBufferSize) != 0)
    Fail("setsockopt");
}

int ConnectNode(int port) {
  const int node = NewSocket(AF_INET);
  SetBuffers(node);
  SetNoDelay(node);
  ConnectTcp(node, "127.0.0.1", port);
  return node;
}

int ConnectKernel(const std::string& path) {
  const int kernel = ConnectUnix(path);
  char greeting[kGreetingSize];
  if (!ReceiveAll(kernel, greeting, sizeof greeting)) Fail("the kernel's greeting");
  SetBuffers(kernel);
  return kernel;
}

void Register(Relay& relay, int fd) {
  FD_SET(fd, &relay.Registered);
  relay.MaxSocket = std::max(relay.MaxSocket, fd + 1);
}

// The whole message; its size, or 0 when the peer has closed.
std::size_t Receive(int socket, std::uint32_t lengthCounts) {
  if (!ReceiveAll(socket, message, kLengthWord)) return 0;
  const std::size_t size = Load<std::uint32_t>(message) + kLengthWord - lengthCounts;
  return ReceiveAll(socket, message + kLengthWord, size - kLengthWord) ? size : 0;
}

std::size_t TrailerAt() {
  std::size_t at = kStringsAt;
  for (int i = 0; i < 4; ++i) {
    const unsigned count = Load<std::uint16_t>(message + at);
    at += 2 + ((count + 1U) & ~1U);
  }
  return at;
}

void Note(Relay& relay, const InFlight& request) {
  for (InFlight& entry : relay.Requests) {
    if (entry.Client >= 0) continue;
    entry = request;
    return;
  }
  relay.Requests.push_back(request);
  relay.Requests.resize(2 * relay.Requests.size(), InFlight{0, -1, 0});
}

void Write(int socket, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(socket, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) Fail("write");
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
}

void ServeClient(Relay& relay, int client) {
  const std::size_t size = Receive(client, kLengthWord);
  if (size == 0) {
    close(client);
    FD_CLR(client, &relay.Registered);
    FD_CLR(client, &relay.Clients);
    return;
  }
  const char* const trailer = message + TrailerAt();
  Note(relay, {.TaskName = Load<std::int32_t>(message + kTaskNameAt),
               .Client = client,
               .AstInd = Load<std::uint16_t>(trailer + kAstIndAt)});
  Store(message, static_cast<std::uint32_t>(size - kLengthWord + relay.NodeCounts));
  Write(relay.Node, message, size);
}

// The client that waits for this answer, or -1.
int Find(Relay& relay, std::int32_t taskName, std::uint16_t astInd) {
  for (InFlight& entry : relay.Requests) {
    if (entry.Client < 0 || entry.TaskName != taskName || entry.AstInd != astInd) continue;
    const int client = entry.Client;
    entry.Client = -1;
    return client;
  }
  return -1;
}

void ServeNode(Relay& relay) {
  const std::size_t size = Receive(relay.Node, relay.NodeCounts);
  if (size == 0) std::exit(0);
  if (size == kLengthWord + kControlLength) return;
  const char* const trailer = message + TrailerAt();
  const std::int32_t taskName = Load<std::int32_t>(trailer);
  const int client = Find(relay, taskName, Load<std::uint16_t>(trailer + kAstIndAt));
  if (client < 0 || kill(taskName, 0) != 0) return;
  Store(message, static_cast<std::uint32_t>(size));
  SendAll(client, {message, size});
}

void Accept(Relay& relay) {
  const int client = accept(relay.Listener, nullptr, nullptr);
  if (client < 0 || client >= FD_SETSIZE) Fail("accept");
  SendAll(client, Greeting());
  Register(relay, client);
  FD_SET(client, &relay.Clients);
}

bool HasRequest(const Relay& relay, int fd, const fd_set& ready) {
  return FD_ISSET(fd, &relay.Clients) && FD_ISSET(fd, &ready);
}

// The node first and alone, then the client served last, the other clients, new ones.
void Serve(Relay& relay, int events, fd_set& ready) {
  if (FD_ISSET(relay.Node, &ready)) {
    ServeNode(relay);
    if (relay.NodeServed) return;
    relay.NodeServed = true;
    --events;
  }
  if (relay.LastClient >= 0 && HasRequest(relay, relay.LastClient, ready)) {
    ServeClient(relay, relay.LastClient);
    FD_CLR(relay.LastClient, &ready);
    --events;
  }
  for (int fd = kFirstDescriptor; events > 0 && fd < relay.MaxSocket; ++fd) {
    if (!HasRequest(relay, fd, ready)) continue;
    ServeClient(relay, fd);
    relay.LastClient = fd;
    --events;
  }
  if (FD_ISSET(relay.Listener, &ready)) Accept(relay);
}

[[noreturn]] void Run(Relay& relay) {
  fd_set ready;
  FD_ZERO(&ready);
  while (true) {
    const std::size_t used = static_cast<std::size_t>(relay.MaxSocket + 7) / 8;
    std::memcpy(&ready, &relay.Registered, (used + 7) & ~std::size_t{7});
    const int events = select(relay.MaxSocket, &ready, nullptr, nullptr, nullptr);
    if (events < 0 && errno != EINTR) Fail("select");
    if (events > 0) Serve(relay, events, ready);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The plain system calls of a relay");
  std::string path, kernel;
  int port = 0;
  app.add_option("--listen", path, "Path of the clients' socket")->required();
  auto* const node = app.add_option_group("node", "What it connects to");
  node->add_option("--node", port, "Port of a node on the loopback interface");
  node->add_option("--kernel", kernel, "Path of a local kernel's socket");
  node->require_option(1);
  CLI11_PARSE(app, argc, argv);
  RaiseDescriptorLimit();
  std::signal(SIGPIPE, SIG_IGN);
  static Relay relay;
  relay.NodeCounts = kernel.empty() ? 0 : kLengthWord;
  relay.Node = kernel.empty() ? ConnectNode(port) : ConnectKernel(kernel);
  relay.Listener = ListenUnix(path);
  SetBuffers(relay.Listener);  // a connection inherits what stands here when it is accepted
  Register(relay, relay.Node);
  Register(relay, relay.Listener);
  std::printf("ready\n");
  std::fflush(stdout);
  Run(relay);
}
