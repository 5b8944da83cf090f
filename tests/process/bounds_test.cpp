// What clients leave behind is bounded: requests whose connection has gone, and connections that
// are not read at the moment.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

constexpr int kMostWaiting = 1024;  // for a link, of connections that have gone

// Clients that ask a node which is still connecting, and hang up.
class HangUps : public AgentTest {
 protected:
  void SetUp() override {
    node_.Stall();
    StartAgent(node_.Line("SLOW") + echo_.Line("SRV"));
    AskAndHangUp(1);  // so that the link has its socket
    agent_.Barrier();
    idle_ = OpenDescriptors(agent_.Pid());
  }
  // One client's requests, all taken by the agent; numbered on.
  void AskAndHangUp(int requests) {
    Client client(agent_);
    for (int i = 0; i < requests; ++i) client.Send("SLOW", std::to_string(asked_++));
    client.ExpectNothing();
  }
  // Under a tag that none of the others has used, so that its answer is nobody else's.
  static lumo::Message Ask(Client& client, std::uint16_t tag, const std::string& text) {
    lumo::Message request = client.Request("SLOW", text);
    request.SetAstInd(tag);
    client.SendMessage(request);
    return request;
  }
  bool AllClosed() const {
    return WaitFor([&] { return OpenDescriptors(agent_.Pid()) == idle_; });
  }

  Node node_{Node::Start::Bound};
  EchoNode echo_;
  int asked_ = 0, idle_ = 0;
};

TEST_F(HangUps, LeaveNoMoreThanTheNewestOfTheirRequests) {
  Client live(agent_);
  const lumo::Message oldest = Ask(live, 0xE000, "oldest");
  live.ExpectNothing();
  ++idle_;
  while (asked_ < 2 * kMostWaiting) AskAndHangUp(31);
  ASSERT_TRUE(AllClosed());
  node_.Unstall();
  ASSERT_TRUE(node_.Accept());
  std::set<int> got;
  bool gotOldest = false;
  for (int i = 0; i <= kMostWaiting; ++i) {
    const auto received = node_.ReadRequest();
    ASSERT_TRUE(received) << "after " << i;
    if (received->Strings[0] != "oldest") {
      got.insert(std::stoi(received->Strings[0]));
      continue;
    }
    gotOldest = true;
    node_.Answer(*received, "late");
  }
  EXPECT_TRUE(gotOldest) << "a request of a living connection is never let go of";
  EXPECT_EQ(live.ExpectAnswer(oldest).Strings[0], "late");
  EXPECT_EQ(*got.begin(), asked_ - kMostWaiting);
  EXPECT_EQ(static_cast<int>(got.size()), kMostWaiting);
  const lumo::Message last = Ask(live, 0xE001, "last");
  const lumo::Message received = node_.ExpectRequest();
  EXPECT_EQ(received.Strings[0], "last") << "no other request follows";
  ExpectAnswered(live, last, node_, received);
}

TEST_F(HangUps, ThatGoBeyondTheBoundAreReportedOnce) {
  agent_.Stop();
  Agent agent;
  agent.Nodetab(node_.Line("SLOW")).LogLevel("2");
  ASSERT_TRUE(agent.Start());
  for (int round = 0; round < 45; ++round) {
    Client client(agent);
    for (int i = 0; i < 31; ++i) client.Send("SLOW");
    client.ExpectNothing();
  }
  agent.Barrier();
  std::vector<std::string> lines;
  for (const LogLine& line : agent.LogLines()) {
    if (line.Level == 2 && line.Text != "Client message reading failed") lines.push_back(line.Text);
  }
  ASSERT_EQ(lines.size(), 1u) << agent.Log();
  EXPECT_NE(lines[0].find("SLOW"), std::string::npos) << lines[0];
  EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(HangUps, OfConnectionsThatAreNotReadGiveTheirDescriptorsBack) {
  for (int round = 0; round < 20; ++round) {
    Client client(agent_);
    for (int i = 0; i < 40; ++i) client.Send("SLOW", std::to_string(i));
  }
  EXPECT_TRUE(WaitFor([&] {
    agent_.Tick();
    return OpenDescriptors(agent_.Pid()) == idle_;
  })) << OpenDescriptors(agent_.Pid())
      << " instead of " << idle_;
  EXPECT_EQ(Client(agent_).Ask("SRV", "still there").Strings[0], "still there");
}

TEST_F(HangUps, OfConnectionsThatAreNotReadDoNotShutClientsOut) {
  agent_.Stop();
  Agent agent;
  agent.Nodetab(node_.Line("SLOW") + echo_.Line("SRV")).Limit(RLIMIT_NOFILE, 48);
  ASSERT_TRUE(agent.Start());
  for (int round = 0; round < 60; ++round) {
    Client client(agent);
    ASSERT_TRUE(client.Connected()) << "round " << round;
    for (int i = 0; i < 40; ++i) client.Send("SLOW");
    client.Close();
    if (round % 10 == 9) agent.Ticks(2);
  }
  EXPECT_EQ(Client(agent).Ask("SRV", "still there").Strings[0], "still there");
  EXPECT_EQ(agent.Stop(), 0);
}

}  // namespace
}  // namespace test
