#include "tests/support/agent_test.h"

#include <stdexcept>

namespace test {

void AgentTest::StartAgent(Agent& agent, const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  if (!agent.Start()) throw std::runtime_error("the agent does not start");
}

void AgentTest::StartAgent(const Place& place) { StartAgent(agent_, place); }

void AgentTest::StartAgent(const std::string& nodetab, const Place& place) {
  agent_.Nodetab(nodetab);
  StartAgent(place);
}

Client AgentTest::StartWithClient(const Place& place) { return StartWithClient(agent_, place); }

Client AgentTest::StartWithClient(const std::string& nodetab, const Place& place) {
  StartAgent(nodetab, place);
  return Client(agent_);
}

Client AgentTest::StartWithClient(Agent& agent, const Place& place) {
  StartAgent(agent, place);
  return Client(agent);
}

void AgentTest::TearDown() {
  if (agent_.Pid() > 0 && !HasFailure()) {
    EXPECT_EQ(agent_.StopGently(), 0);
  }
}

}  // namespace test
