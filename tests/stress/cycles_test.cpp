// Starts and stops without end: in the background and in the foreground, stopped and killed, so
// that every kind of start follows every kind of end.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>

#include "tests/stress/options.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/wait.h"

namespace stress {
namespace {

using test::Agent;
using test::Client;

// What outlives an agent: its directory, its number, the nodes.
class Cycles : public testing::Test {
 protected:
  void Configure(Agent* agent) const {
    agent->ExchangeId(kExchangeId)
        .Environment("TAVRIN_TMP", folder_.Path())
        .Nodetab(node_.Line("SRV") + kernel_.Line("KERNEL"))
        .Options({"-PIDFILE", pidFile_});
  }
  // The one attempt to connect, made as soon as the command has returned, is answered.
  static void StartInBackground(Agent* agent) {
    agent->Spawn();
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(agent->Pid()), &ended, WEXITED | WNOWAIT) != 0) continue;
    const int connection = test::ConnectRaw(agent->SocketPath());
    ASSERT_GE(connection, 0) << "the command returned too early";
    EXPECT_EQ(test::ReadRaw(connection, 60).size(), 60u);
    close(connection);
    ASSERT_EQ(agent->Wait(), 0);
    ASSERT_TRUE(agent->WaitUntilReady());
  }
  // One request to each node.
  void ExpectServes(const Agent& agent) {
    Client client(agent);
    EXPECT_EQ(client.Ask("SRV", "tcp").Strings[0], "tcp");
    test::ExpectExchange(client, client.Send("KERNEL", "queue"), kernel_, "answer");
  }
  // Neither the agent nor its reader: whoever lost its parent has become ours.
  static void ExpectNoChild() {
    EXPECT_TRUE(test::WaitFor([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
  }
  void ExpectFiles(const Agent& agent, bool left) const {
    EXPECT_EQ(access(agent.SocketPath().c_str(), F_OK) == 0, left);
    EXPECT_EQ(access(pidFile_.c_str(), F_OK) == 0, left);
  }
  void Cycle(bool background, bool killed) {
    Agent agent;
    Configure(&agent);
    if (background)
      StartInBackground(&agent);
    else
      agent.Start();
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(test::ReadFile(pidFile_), std::to_string(agent.Pid()) + "\n");
    ExpectServes(agent);
    if (killed)
      agent.Kill();
    else
      EXPECT_EQ(agent.Stop(), 0);
    ExpectNoChild();
    ExpectFiles(agent, killed);
    EXPECT_EQ(agent.Log(), "");
  }

  static constexpr int kExchangeId = 4711;
  test::TemporaryDirectory folder_;
  const std::string pidFile_ = folder_.Path() / "agent.pid";
  test::EchoNode node_;
  test::IpcKernel kernel_;
};

TEST_F(Cycles, EveryStartServesWhateverWasLeftAndEveryStopLeavesNoChild) {
  const auto begin = test::Clock::now();
  int done = 0;
  for (; done < options.Cycles && !HasFailure(); ++done) {
    const bool background = done % 4 < 2, killed = done % 2 == 0;
    SCOPED_TRACE("cycle " + std::to_string(done));
    Cycle(background, killed);
  }
  const auto time = std::chrono::duration<double>(test::Clock::now() - begin).count();
  std::printf("%d cycles in %.1f seconds\n", done, time);
}

}  // namespace
}  // namespace stress
