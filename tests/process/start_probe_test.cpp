// Whether an agent lives is asked over its socket. One that is too busy to accept lives, too.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/process.h"

namespace test {
namespace {

// An agent that stands still and whose queue of connections is full, and a second run with its
// exchange id.
class BusyAgent : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(first_.Start());
    second_.ExchangeId(first_.ExchangeId())
        .Environment("TAVRIN_TMP", first_.SocketFolder())
        .Option("-NODAEMON");
    FreezeInWait(first_.Pid());
    while (FillQueue()) continue;
  }
  void TearDown() override {
    Release();
    for (const int fd : queued_) close(fd);
  }

  // The second run is held up by the full queue.
  bool IsHeldUp() const {
    return BlockedInCall(second_.Pid()) >= 0 && Catches(second_.Pid(), SIGALRM);
  }
  // Ticks, as they come every 2 seconds, until the second run ends: its exit status.
  std::optional<int> TickUntilItEnds() {
    WaitFor([&] {
      if (IsHeldUp()) second_.Signal(SIGALRM);
      return !second_.Running();
    });
    return second_.Wait();
  }
  void Release() {
    if (first_.Pid() > 0) Thaw(first_.Pid());
  }
  void ExpectFirstServes() {
    Release();
    EXPECT_TRUE(std::filesystem::exists(first_.SocketPath()));
    for (int& fd : queued_) close(std::exchange(fd, -1));
    Client(first_).ExpectNothing();
    EXPECT_EQ(first_.Stop(), 0);
  }

  Agent first_, second_;

 private:
  bool FillQueue() {
    queued_.push_back(ConnectRaw(first_.SocketPath(), SOCK_NONBLOCK));
    return queued_.back() >= 0;
  }

  std::vector<int> queued_;
};

TEST_F(BusyAgent, KeepsItsSocketFromASecondStart) {
  second_.Spawn();
  EXPECT_EQ(TickUntilItEnds(), 255);
  EXPECT_TRUE(
      second_.LogContains("lumo_tcp:Socket \"" + first_.SocketPath() + "\" is already used\n"))
      << second_.Log();
  EXPECT_TRUE(
      second_.LogContains("lumo_tcp:Network agent or kernel of Tavrin-SQL is already running\n"));
  ExpectFirstServes();
}

TEST_F(BusyAgent, KeepsItsSocketFromAnUnload) {
  second_.Option("-U").Spawn();
  EXPECT_EQ(TickUntilItEnds(), 0);
  EXPECT_TRUE(second_.LogContains("lumo_tcp:SIGTERM has not been send to the agent. Status 3\n"))
      << second_.Log();
  ExpectFirstServes();
}

TEST_F(BusyAgent, IsUnloadedWhenItAcceptsMeanwhile) {
  second_.Option("-U").Spawn();
  for (int tick = 0; tick < 2; ++tick) {
    ASSERT_TRUE(WaitFor([&] { return IsHeldUp(); })) << second_.Log();
    second_.Signal(SIGALRM);
  }
  Release();
  EXPECT_EQ(second_.Wait(), 0);
  EXPECT_TRUE(second_.LogContains("lumo_tcp:SIGTERM has been send to the agent pid " +
                                  std::to_string(first_.Pid())))
      << second_.Log();
  EXPECT_EQ(first_.Wait(), 0);
}

TEST_F(BusyAgent, IsNoticedByASecondStartWhenItAcceptsMeanwhile) {
  second_.Spawn();
  ASSERT_TRUE(WaitFor([&] { return IsHeldUp(); })) << second_.Log();
  second_.Signal(SIGALRM);
  Release();
  EXPECT_EQ(second_.Wait(), 255);
  ExpectFirstServes();
}

}  // namespace
}  // namespace test
