// Signals that come in the middle of something.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>

#include "tests/process/manager.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

bool Pending(pid_t pid, int signal) {
  const std::string mask = ProcessStatus(pid, "ShdPnd");
  return !mask.empty() && (std::stoull(mask, nullptr, 16) >> (signal - 1) & 1) != 0;
}

TEST(Interruption, DoesNotCutTheNodeTableShort) {
  const AwaitedSignal ifTheAgentReadsNoMore(SIGPIPE);
  Agent agent;
  std::filesystem::remove(agent.NodetabPath());
  ASSERT_EQ(mkfifo(agent.NodetabPath().c_str(), 0600), 0);
  agent.Option("-NODAEMON").Spawn();
  int table = -1;
  ASSERT_TRUE(WaitFor([&] {
    table = open(agent.NodetabPath().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return table >= 0;
  }));
  for (const std::string line : {"A REZ\n", "B REZ\n", "C REZ\n"}) {
    ASSERT_EQ(write(table, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    // The line is taken, and the agent waits for more when the alarm comes.
    ASSERT_TRUE(WaitFor([&] { return BlockedInCall(agent.Pid()) == SYS_read; })) << agent.Log();
    agent.Signal(SIGALRM);
    ASSERT_TRUE(WaitFor([&] { return !Pending(agent.Pid(), SIGALRM); }));
  }
  close(table);
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(Manager(agent).Names(), "A B C");
  EXPECT_EQ(agent.Stop(), 0);
}

// The trace makes the end long enough for further signals to come into it.
TEST(Interruption, ByFurtherStopSignalsDoesNotChangeTheExitStatus) {
  for (int round = 0; round < 20; ++round) {
    Agent agent;
    agent.Trace();
    ASSERT_TRUE(agent.Start());
    std::optional<int> status;
    while (!status) {
      agent.Signal(SIGTERM);
      status = agent.Wait(Milliseconds(0));
    }
    ASSERT_EQ(status, 0) << "round " << round;
  }
}

// A wait is traced with the number of what is served after it, wherever it comes from.
TEST(WaitTrace, CountsPacketsThatCameTogether) {
  Node node;
  Agent agent;
  agent.Nodetab(node.Line("A")).Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  const lumo::Message request = client.Send("A");
  ASSERT_TRUE(node.Accept());
  const auto received = node.ReadRequest();
  ASSERT_TRUE(received);
  agent.InOnePass([&] {
    for (int i = 0; i < 5; ++i) node.SendControl({1, 0});
    node.Answer(*received);
    node.Arrived();
  });
  client.ExpectAnswer(request);
  agent.Barrier();
  EXPECT_FALSE(agent.LogContains("select return 0\n")) << agent.Log();
}

TEST(WaitTrace, CountsRequestsThatCameTogether) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  agent.Barrier();
  agent.InOnePass([&] {
    for (int i = 0; i < 5; ++i) client.Send("X");
  });
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(client.Receive());
  agent.Barrier();
  EXPECT_FALSE(agent.LogContains("select return 0\n")) << agent.Log();
}

}  // namespace
}  // namespace test
