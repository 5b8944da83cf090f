// What the tests of the library share: agents, real and stand-in, and short words for requests.
#pragma once
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <lumo.hpp>
#include <optional>
#include <string>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/peer.h"
#include "tests/support/process.h"

namespace test {

inline constexpr liblumo::Time kAmple = std::chrono::duration_cast<liblumo::Time>(kPatience);
inline constexpr liblumo::Time kSoon{20};
inline constexpr liblumo::Time kAtOnce{0};

// The greeting of an agent with this process id.
inline std::string Greeting(std::int32_t pid, std::uint32_t length = 56) {
  std::string greeting(60, '\0');
  std::memcpy(greeting.data(), &length, sizeof length);
  std::memcpy(greeting.data() + 4, &pid, sizeof pid);
  return greeting;
}

// A stand-in agent whose every byte is the test's. Connections wait until they are accepted.
class FakeAgent {
 public:
  FakeAgent() : path_(folder_.Path() / "socket"), listener_(BoundAt(path_)) {
    EXPECT_EQ(listen(listener_, 16), 0);
  }
  ~FakeAgent() { close(listener_); }
  FakeAgent(const FakeAgent&) = delete;
  FakeAgent& operator=(const FakeAgent&) = delete;

  const std::string& Path() const { return path_; }
  Peer Accept(const std::string& greeting = Greeting(4711)) {
    Peer peer(lumo::Lengths::Client, accept(listener_, nullptr, nullptr));
    EXPECT_TRUE(greeting.empty() || peer.SendBytes(greeting));
    return peer;
  }
  // A connection of the library, with its other end.
  struct Pair {
    liblumo::Connection Library;
    Peer Agent;
  };
  Pair Connect() {
    std::optional<Peer> peer;
    std::thread server([&] { peer.emplace(Accept()); });
    liblumo::Connection connection(path_, kAmple);
    server.join();
    EXPECT_TRUE(connection) << connection.Opened().Text();
    return {std::move(connection), std::move(*peer)};
  }

 private:
  TemporaryDirectory folder_;
  std::string path_;
  int listener_;
};

// An agent with the node SRV, which answers each request with its text.
class EchoTest : public AgentTest {
 protected:
  void SetUp() override { StartAgent(echo_.Line("SRV")); }

  EchoNode echo_;
};

// A thread of ours, by the number that it wrote there, waits for something.
inline bool Sleeps(const std::atomic<pid_t>& thread) {
  return WaitFor([&] { return thread > 0 && ProcessStatus(thread, "State").rfind('S', 0) == 0; });
}

inline liblumo::Connection Open(const Agent& agent) {
  liblumo::Connection connection(agent.SocketPath(), kAmple);
  EXPECT_TRUE(connection) << connection.Opened().Text();
  return connection;
}

inline lumo_ticket Send(liblumo::Connection& connection, const std::string& node,
                        const std::string& text) {
  lumo_ticket ticket = 0;
  const liblumo::Status sent = connection.Send(liblumo::Request(node, text), &ticket, kAmple);
  EXPECT_TRUE(sent) << sent.Text();
  return ticket;
}

}  // namespace test
