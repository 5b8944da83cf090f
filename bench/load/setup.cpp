#include "bench/load/setup.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/frame.h"
#include "bench/load/request.h"
#include "bench/sockets.h"

namespace bench {
namespace {

constexpr int kPatienceSeconds = 10;
constexpr std::uint32_t kNoConnection = 0xFFFFFFFF;

[[noreturn]] void GiveUp(const char* what) {
  std::fprintf(stderr, "lumo_load: %s\n", what);
  std::exit(2);
}

void ReadGreeting(int socket) {
  char greeting[kGreetingSize];
  if (!ReceiveAll(socket, greeting, sizeof greeting) ||
      Load<std::uint32_t>(greeting) != kGreetingWord)
    GiveUp("no greeting");
}

// One request and its answer.
void AskOnce(const Options& options, int socket, Request* request, std::uint16_t astInd) {
  const Tag tag = {.AstInd = astInd, .Sequence = 0, .Connection = kNoConnection};
  std::string answer(request->Size(), '\0');
  if (!SendAll(socket, request->WithTag(tag)) || !ReceiveAll(socket, answer.data(), answer.size()))
    GiveUp("no answer before the measuring");
  if (FrameSize(options, answer.data()) != answer.size() || !request->IsAnsweredBy(answer) ||
      TagOf(answer).AstInd != astInd)
    GiveUp("wrong answer before the measuring");
}

}  // namespace

int Open(const Options& options) {
  const std::string& path = Greets(options) ? options.Agent : options.Unix;
  const int socket = path.empty() ? NewSocket(AF_INET) : ConnectUnix(path);
  if (path.empty()) {
    ConnectTcp(socket, options.Host, options.Tcp);
    SetNoDelay(socket);
  }
  const timeval patience = {kPatienceSeconds, 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  if (Greets(options)) ReadGreeting(socket);
  return socket;
}

std::vector<int> OpenIdle(const Options& options) {
  Request request(options, "IDLE");
  std::vector<int> sockets;
  for (int i = 0; i < options.Idle; ++i) {
    sockets.push_back(Open(options));
    AskOnce(options, sockets.back(), &request, 0);
  }
  return sockets;
}

std::vector<int> SendHeld(const Options& options, int firstTag) {
  Request held(options, kHoldCommand), last(options, "LAST");
  std::vector<int> sockets;
  if (options.Held == 0) return sockets;
  for (int i = 0; i < options.HeldConnections; ++i) sockets.push_back(Open(options));
  for (int i = 0; i < options.Held; ++i) {
    const Tag tag = {.AstInd = static_cast<std::uint16_t>(firstTag + i),
                     .Sequence = 0,
                     .Connection = kNoConnection};
    const std::size_t at = static_cast<std::size_t>(i) % sockets.size();
    if (!SendAll(sockets[at], held.WithTag(tag))) GiveUp("a request to be held is not taken");
  }
  // Each answer tells that what was sent before on its connection has reached the node.
  for (const int socket : sockets) AskOnce(options, socket, &last, 0);
  return sockets;
}

}  // namespace bench
