// LUMO_STRICT_TASKS and LUMO_MANAGERS, in the agent itself.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "core/status.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

TEST(Permission, StrictTasksLetOwnProcessesThroughAndRefuseOthersWithACode) {
  EchoNode node;
  Agent agent;
  agent.Nodetab(node.Line("SRV")).Environment("LUMO_STRICT_TASKS", "1").LogLevel("2");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  EXPECT_EQ(client.Ask("SRV", "own").Strings[0], "own");
  const LivingProcess other;
  client.SetTaskName(other.Pid());
  EXPECT_EQ(client.Ask("SRV", "of the same user").Strings[0], "of the same user");
  client.SetTaskName(DeadPid());
  client.ExpectError(client.Send("SRV", "of nobody"), kStatusNotPermitted, EPERM);
  EXPECT_EQ(node.Served(), 2);
  EXPECT_TRUE(agent.LogContains("Request in the name of process"));
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Permission, WithoutTheVariableAForeignNameIsServedAsItSays) {
  EchoNode node;
  Agent agent;
  agent.Nodetab(node.Line("SRV"));
  ASSERT_TRUE(agent.Start());
  Client client(agent, 1);
  EXPECT_EQ(client.Ask("SRV", "in the name of process 1").Strings[0], "in the name of process 1");
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Permission, PingIsNotLimited) {
  EchoNode node;
  Agent agent;
  agent.Nodetab(node.Line("SRV")).Options({"-PING"});
  agent.Environment("LUMO_STRICT_TASKS", "1").Environment("LUMO_MANAGERS", "1");
  EXPECT_EQ(agent.Run(), 0);
  EXPECT_TRUE(agent.LogContains("\" is alive"));
}

TEST(Permission, ValuesThatCannotBeUsedAreToldAtTheStart) {
  Agent agent;
  agent.Environment("LUMO_STRICT_TASKS", "on").Environment("LUMO_MANAGERS", "@no-such-group");
  ASSERT_TRUE(agent.Start());
  EXPECT_TRUE(agent.LogContains("LUMO_STRICT_TASKS: 'on' is neither 0 nor 1\n"));
  EXPECT_TRUE(agent.LogContains("LUMO_MANAGERS: '@no-such-group' is no user, group or number\n"));
  EXPECT_EQ(agent.Stop(), 0);
}

}  // namespace
}  // namespace test
