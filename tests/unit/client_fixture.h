// Client connections for the unit tests of the client exchange: pairs of sockets, one end served
// by the agent's modules, the other held by the test.
#pragma once

#include <map>

#include "tests/support/client.h"
#include "tests/support/process.h"
#include "tests/unit/agent_test.h"

class ClientTest : public AgentTest {
 protected:
  void TearDown() override {
    g_DbcI.LogLevel = 0;
    for (const auto& [ours, far] : far_) {
      if (IsClient(ours)) CloseClient(ours);
      close(far);
    }
    AgentTest::TearDown();
  }

  // A connection as it is after it was accepted: the agent's end.
  int Connect() {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const auto stale = far_.find(pair[0]);  // the agent closed a connection with this number
    if (stale != far_.end()) close(stale->second);
    far_[pair[0]] = pair[1];
    REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, pair[0]);
    FD_SET(pair[0], &g_DbcI.ClientSockets);
    return pair[0];
  }
  int Far(int socket) const { return far_.at(socket); }
  void HangUp(int socket) { shutdown(Far(socket), SHUT_RDWR); }

  void Come(int socket, const std::string& bytes) const { SendAll(Far(socket), bytes); }
  // What came to the client, without waiting.
  std::string Take(int socket) const { return ReceiveAll(Far(socket)); }

  static bool IsClient(int socket) { return FD_ISSET(socket, &g_DbcI.ClientSockets); }

  // A request as it comes over the connection, from a living process.
  static lumo::Message Request(const std::string& node, std::uint16_t astInd,
                               const std::string& text = {}) {
    lumo::Message request;
    request.TaskName = getpid();
    request.Node = node;
    request.Strings[0] = text;
    request.SetTrailerTaskName(getpid());
    request.SetAstInd(astInd);
    return request;
  }
  static lumo::Message Management(std::uint16_t command, const std::string& node = {}) {
    lumo::Message request = Request(node, 3);
    request.Command = "DBCA";
    request.DbcApiCode = command;
    return request;
  }
  static std::string FrameOf(const lumo::Message& message) {
    return lumo::Encode(message, lumo::Lengths::Client);
  }

 private:
  std::map<int, int> far_;
};
