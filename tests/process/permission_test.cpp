// LUMO_STRICT_TASKS and LUMO_MANAGERS, in the agent itself.
#include <gtest/gtest.h>

#include <cerrno>

#include "core/status.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using Permission = AgentTest;

TEST_F(Permission, StrictTasksLetOwnProcessesThroughAndRefuseOthersWithACode) {
  EchoNode node;
  agent_.Environment("LUMO_STRICT_TASKS", "1").LogLevel("2");
  Client client = StartWithClient(node.Line("SRV"));
  EXPECT_EQ(client.Ask("SRV", "own").Strings[0], "own");
  const LivingProcess other;
  client.SetTaskName(other.Pid());
  EXPECT_EQ(client.Ask("SRV", "of the same user").Strings[0], "of the same user");
  client.SetTaskName(DeadPid());
  client.ExpectError(client.Send("SRV", "of nobody"), kStatusNotPermitted, EPERM);
  EXPECT_EQ(node.Served(), 2);
  EXPECT_TRUE(agent_.LogContains("Request in the name of process"));
}

TEST_F(Permission, WithoutTheVariableAForeignNameIsServedAsItSays) {
  EchoNode node;
  StartAgent(node.Line("SRV"));
  Client client(agent_, 1);
  EXPECT_EQ(client.Ask("SRV", "in the name of process 1").Strings[0], "in the name of process 1");
}

TEST_F(Permission, PingIsNotLimited) {
  EchoNode node;
  agent_.Nodetab(node.Line("SRV")).Options({"-PING"});
  agent_.Environment("LUMO_STRICT_TASKS", "1").Environment("LUMO_MANAGERS", "1");
  EXPECT_EQ(agent_.Run(), 0);
  EXPECT_TRUE(agent_.LogContains("\" is alive"));
}

TEST_F(Permission, ValuesThatCannotBeUsedAreToldAtTheStart) {
  agent_.Environment("LUMO_STRICT_TASKS", "on").Environment("LUMO_MANAGERS", "@no-such-group");
  StartAgent();
  EXPECT_TRUE(agent_.LogContains("LUMO_STRICT_TASKS: 'on' is neither 0 nor 1\n"));
  EXPECT_TRUE(agent_.LogContains("LUMO_MANAGERS: '@no-such-group' is no user, group or number\n"));
}

}  // namespace
}  // namespace test
