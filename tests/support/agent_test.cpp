#include "tests/support/agent_test.h"

#include <stdexcept>

namespace test {

void AgentTest::StartAgent(const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  if (!agent_.Start()) throw std::runtime_error("the agent does not start");
}

void AgentTest::StartAgent(const std::string& nodetab, const Place& place) {
  agent_.Nodetab(nodetab);
  StartAgent(place);
}

Client AgentTest::StartWithClient(const Place& place) {
  StartAgent(place);
  return Client(agent_);
}

Client AgentTest::StartWithClient(const std::string& nodetab, const Place& place) {
  StartAgent(nodetab, place);
  return Client(agent_);
}

}  // namespace test
