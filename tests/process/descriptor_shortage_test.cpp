// Descriptors run out, and come back: the agent refuses connections meanwhile, and never spins.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/agent_test.h"
#include "tests/support/process.h"

namespace test {
namespace {

constexpr rlim_t kLimit = 64;

class DescriptorShortage : public AgentTest {
 protected:
  void SetUp() override {
    agent_.Limit(RLIMIT_NOFILE, kLimit);
    StartAgent();
    agent_.Barrier();
  }
  void TearDown() override {
    for (const int fd : connections_) close(fd);
    AgentTest::TearDown();
  }
  void LimitTo(rlim_t count) const {
    const rlimit limit{count, kLimit};
    ASSERT_EQ(prlimit(agent_.Pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  }
  rlim_t LowestFree() const {
    rlim_t fd = 0;
    while (std::filesystem::is_symlink("/proc/" + std::to_string(agent_.Pid()) + "/fd/" +
                                       std::to_string(fd)))
      ++fd;
    return fd;
  }
  int Connect() {
    connections_.push_back(ConnectRaw(agent_.SocketPath()));
    return connections_.back();
  }
  // The agent closes the connection without a word.
  static bool IsRefused(int connection) {
    pollfd ready{connection, POLLIN, 0};
    char byte;
    return poll(&ready, 1, static_cast<int>(kPatience.count())) == 1 &&
           recv(connection, &byte, 1, 0) <= 0;
  }
  static bool IsGreeted(int connection) { return ReadRaw(connection, 60).size() == 60; }

  std::vector<int> connections_;
};

TEST_F(DescriptorShortage, ConnectionsAreRefusedOnceMoreAfterNoDescriptorCouldBeKeptForThat) {
  const int open = OpenDescriptors(agent_.Pid());
  LimitTo(3);  // not even the descriptor that is kept for refusals can be had again
  const int waiting = Connect();
  ASSERT_TRUE(WaitFor([&] { return OpenDescriptors(agent_.Pid()) == open - 1; }));
  agent_.InOnePass([&] { LimitTo(kLimit); });  // not while it still tries to refuse the connection
  ASSERT_TRUE(IsGreeted(waiting));
  Client(agent_).ExpectNothing();
  agent_.Barrier();
  while (OpenDescriptors(agent_.Pid()) < static_cast<int>(kLimit))
    ASSERT_TRUE(IsGreeted(Connect()));
  EXPECT_TRUE(IsRefused(Connect()));
  EXPECT_TRUE(IsRefused(Connect()));
}

// Otherwise the last descriptor would go to a client, and nothing be left to refuse the next with.
TEST_F(DescriptorShortage, TheFirstDescriptorThatIsFreeAgainIsKeptForRefusals) {
  const int open = OpenDescriptors(agent_.Pid());
  LimitTo(3);
  const int waiting = Connect();
  ASSERT_TRUE(WaitFor([&] { return OpenDescriptors(agent_.Pid()) == open - 1; }));
  agent_.Tick();  // from here on the listener rests until the next one
  LimitTo(LowestFree() + 1);
  EXPECT_TRUE(IsRefused(waiting));
  LimitTo(kLimit);
  EXPECT_TRUE(IsGreeted(Connect()));
}

}  // namespace
}  // namespace test
