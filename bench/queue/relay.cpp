// The yardstick of a local kernel's queue: a relay that makes the plain system calls and nothing
// else. For a request: select, recv 4, recv the rest, msgsnd, semop. For its answer, in a thread in
// place of the agent's reader child, so that it knows every connection: msgrcv, kill, send, and a
// record through a pipe; the first thread reads that record. Every call waits.
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "bench/queue/queue.h"
#include "bench/sockets.h"

namespace {

using namespace bench;

constexpr int kFirstDescriptor = 3;
constexpr int kBufferSize = 8188;

struct Record {  // of an answered request
  std::int32_t TaskName;
  std::uint16_t AstInd, Unused;
};

struct Relay {
  MessageQueue Queue;
  long Reader;  // type of the answers
  int Listener, Pipe[2];
  fd_set Registered;
  int MaxSocket;
  std::array<std::atomic<int>, 0x10000> Clients;  // by the tag of the request in flight
};
Relay relay;

void Register(int fd) {
  FD_SET(fd, &relay.Registered);
  relay.MaxSocket = std::max(relay.MaxSocket, fd + 1);
}

void CloseClient(int client) {
  close(client);
  FD_CLR(client, &relay.Registered);
}

void ServeClient(int client) {
  QueueMessage message;
  std::uint32_t length;
  if (!ReceiveAll(client, reinterpret_cast<char*>(&length), sizeof length))
    return CloseClient(client);
  const std::size_t size = length - kLengthWord;
  if (!ReceiveAll(client, message.Body, size)) return CloseClient(client);
  char* const trailer = message.Body + size - kTrailerSize;
  relay.Clients[Load<std::uint16_t>(trailer + kAstIndAt)] = client;
  std::memcpy(trailer, message.Body + InBody(kTaskNameAt), sizeof(std::int32_t));
  Store(message.Body + InBody(kTaskNameAt), static_cast<std::int32_t>(relay.Reader));
  message.Type = kRequestType;
  Send(relay.Queue, message, size);
  ChangeSemaphore(relay.Queue, 1);
}

[[noreturn]] void ReadAnswers() {
  QueueMessage message;
  while (true) {
    const std::size_t size = Receive(relay.Queue, &message, relay.Reader);
    const char* const trailer = message.Body + size - kTrailerSize;
    const Record record = {.TaskName = Load<std::int32_t>(trailer),
                           .AstInd = Load<std::uint16_t>(trailer + kAstIndAt),
                           .Unused = 0};
    Store(message.Body + InBody(kTaskNameAt), record.TaskName);
    // The last half of the type's word is the length word: the frame lies in one piece.
    char* const frame = reinterpret_cast<char*>(&message) + sizeof message.Type - kLengthWord;
    Store(frame, static_cast<std::uint32_t>(size + kLengthWord));
    if (kill(record.TaskName, 0) == 0)
      SendAll(relay.Clients[record.AstInd], {frame, size + kLengthWord});
    if (write(relay.Pipe[1], &record, sizeof record) != sizeof record) Fail("write");
  }
}

void Accept() {
  const int client = accept(relay.Listener, nullptr, nullptr);
  if (client < 0 || client >= FD_SETSIZE) Fail("accept");
  SendAll(client, Greeting());
  Register(client);
}

void Serve(int events, const fd_set& ready) {
  if (FD_ISSET(relay.Pipe[0], &ready)) {
    // Its client may have asked again with the same tag: there is nothing to be cleared.
    Record record;
    if (read(relay.Pipe[0], &record, sizeof record) != sizeof record) Fail("read");
    return;
  }
  for (int fd = kFirstDescriptor; events > 0 && fd < relay.MaxSocket; ++fd) {
    if (!FD_ISSET(fd, &ready)) continue;
    --events;
    if (fd == relay.Listener)
      Accept();
    else
      ServeClient(fd);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The plain system calls of a relay to a local kernel's queue");
  std::string path;
  int key = 0;
  app.add_option("--listen", path, "Path of the clients' socket")->required();
  app.add_option("--key", key, "Of the kernel's queue")->required();
  CLI11_PARSE(app, argc, argv);
  RaiseDescriptorLimit();
  signal(SIGPIPE, SIG_IGN);
  relay.Queue = OpenQueue(key);
  relay.Reader = getpid();
  relay.Listener = ListenUnix(path);
  setsockopt(relay.Listener, SOL_SOCKET, SO_SNDBUF, &kBufferSize, sizeof kBufferSize);
  setsockopt(relay.Listener, SOL_SOCKET, SO_RCVBUF, &kBufferSize, sizeof kBufferSize);
  if (pipe(relay.Pipe) != 0) Fail("pipe");
  Register(relay.Listener);
  Register(relay.Pipe[0]);
  std::thread(ReadAnswers).detach();
  std::printf("ready\n");
  std::fflush(stdout);
  while (true) {
    fd_set ready = relay.Registered;
    const int events = select(relay.MaxSocket, &ready, nullptr, nullptr, nullptr);
    if (events < 0 && errno != EINTR) Fail("select");
    if (events > 0) Serve(events, ready);
  }
}
