// Numbers of options that are beyond what their field can hold, and a parent that has no number.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/process.h"

namespace test {
namespace {

class SignalBeyondAnInt : public testing::TestWithParam<std::string> {};

TEST_P(SignalBeyondAnInt, CountsAsNoNumber) {
  AwaitedSignal usual(SIGTERM), lowerBits(SIGUSR1);
  Agent agent;
  agent.Options({"-K", GetParam()});
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(usual.Sender(), agent.Pid());
  EXPECT_EQ(lowerBits.Sender(Milliseconds(0)), -1);
  EXPECT_EQ(agent.Stop(), 0);
}

// 2^32, 2^32 + SIGUSR1, 2^63
INSTANTIATE_TEST_SUITE_P(Values, SignalBeyondAnInt,
                         testing::Values("4294967296", "4294967306", "9223372036854775808"));

TEST(SignalBeyondAnInt, IsTracedAsTheUsualOne) {
  Agent agent;
  agent.Options({"-K", "4294967305"}).UnderOwnParent().Trace();
  ASSERT_TRUE(agent.Start());
  EXPECT_TRUE(agent.LogContains("Need to send signal 15 "));
  EXPECT_TRUE(agent.LogContains("Send signal 15 to parent process "));
  EXPECT_FALSE(agent.LogContains("signal 9 "));
}

class ExchangeIdBeyondAnInt : public testing::TestWithParam<std::string> {};

TEST_P(ExchangeIdBeyondAnInt, CountsAsNoNumber) {
  Agent agent;
  agent.WithoutExchangeOption().ExchangeId(20562).Options({"-M", GetParam()});
  ASSERT_TRUE(agent.Start());
  EXPECT_TRUE(std::filesystem::exists(agent.SocketPath(20562)));
  EXPECT_NE(agent.Stdout().find("(NET_MBX) 20562\n"), std::string::npos) << agent.Stdout();
  EXPECT_EQ(agent.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Values, ExchangeIdBeyondAnInt,
                         testing::Values("4294967297", "2147483648", "-4294967297",
                                         "9223372036854775808"));

// In a process id namespace of its own the agent's parent has the number 0, which would name the
// agent's whole group.
TEST(ParentOutsideTheNamespace, GetsNoSignal) {
  Agent agent;
  const std::string start = agent.Folder() / "start", user = geteuid() ? "-Ur" : "";
  WriteFile(start, "#!/bin/sh\nexec /usr/bin/unshare " + user + " --pid --fork --kill-child '" +
                       AgentProgram() + "' \"$@\"\n");
  std::filesystem::permissions(start, std::filesystem::perms::owner_all);
  agent.Program(start).Options({"-NODAEMON", "-PKILL"}).Trace();
  agent.Spawn();
  int connection = -1;
  ASSERT_TRUE(WaitFor([&] {
    connection = ConnectRaw(agent.SocketPath());
    return connection >= 0;
  })) << agent.Log();
  EXPECT_EQ(ReadRaw(connection, 60).size(), 60u) << "the agent has stopped\n" << agent.Log();
  EXPECT_FALSE(agent.LogContains("Send signal 15 to parent process 0\n")) << agent.Log();
  close(connection);
  agent.Kill();
}

}  // namespace
}  // namespace test
