// The stream of a client connection, whole or in pieces.
#include "client/clntxch.h"
#include "tests/fuzz/answer_checks.h"
#include "tests/fuzz/stream_target.h"

namespace {

bool IsClient(int socket) { return FD_ISSET(socket, &g_DbcI.ClientSockets); }

void CheckRequest(const ClientMessage& msg, int length, int socket) {
  CheckLocated(msg, kMessageMax);
  if (static_cast<std::uint32_t>(length) != msg.Length || msg.ClientSocket != socket)
    world::Violated("the request is not what was read");
}

// Reads until nothing more has come, or the connection is closed.
void ReadRequests(int socket) {
  while (IsClient(socket)) {
    ClientMessage msg;
    const int length = GetMsgFromClient(kFuzz, __LINE__, &msg, socket);
    if (length == 0) return;
    if (length > 0)
      CheckRequest(msg, length, socket);
    else if (IsClient(socket) && !world::AnyFaultUsed())
      world::Violated("a connection that failed is still open");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  StreamTarget target(data, size);
  const int socket = target.Ours();
  REGISTER_SOCKET_FOR_READ_EVENT(kFuzz, __LINE__, socket);
  FD_SET(socket, &g_DbcI.ClientSockets);
  while (IsClient(socket) && target.NextPiece()) ReadRequests(socket);
  ReadRequests(socket);
  if (IsClient(socket)) world::Violated("the end of the stream did not close the connection");
  return 0;
}
