// drain and log: what is done with the process of a real agent.

#include "tests/lumoctl/control.h"
#include "tests/support/client.h"
#include "tests/support/node.h"

namespace {

class Process : public test::ControlTest {
 protected:
  Process() { agent_.Environment("LUMO_STATS", "1"); }
};

TEST_F(Process, DrainTellsWhoIsLeftWhenTheTimeIsOver) {
  test::Node node;
  Start(node.Line("ONE"));
  agent_.CloseControl();
  test::Client client(agent_);
  client.Send("ONE");
  node.ExpectFirstRequest();
  const Json left = Ask({"--timeout", "0.1", "drain", "--stop"}, 4);
  EXPECT_EQ(left.at("drained"), false);
  EXPECT_EQ(left.at("stopped"), false);
  EXPECT_EQ(left.at("in_flight"), 1);
  ASSERT_EQ(left.at("clients").size(), 1U);
  EXPECT_EQ(left.at("clients")[0].at("system_pid"), getpid());
  const test::CtlOutcome text = Run({"--timeout", "0.1", "drain"});
  EXPECT_EQ(text.Status, 4);
  EXPECT_EQ(text.Out.rfind("1 clients, 1 requests in flight, 0 waiting\nprocess " +
                               std::to_string(getpid()) + ", connected for ",
                           0),
            0U)
      << text.Out;
  EXPECT_TRUE(agent_.Running());
}

TEST_F(Process, DrainWaitsForTheLastAndStopsWhenAsked) {
  test::Node node;
  Start(node.Line("ONE"));
  agent_.CloseControl();
  test::Client client(agent_);
  const lumo::Message request = client.Send("ONE");
  const auto got = node.ExpectFirstRequest();
  test::Program drain(LUMOCTL_PATH, Full({"drain", "--stop"}), Environment());
  node.Answer(got);
  client.ExpectAnswer(request);
  client.Close();
  EXPECT_EQ(drain.Wait(), 0) << drain.Stderr();
  EXPECT_EQ(drain.Stdout(), "nothing is left; the agent has ended\n");
  EXPECT_EQ(agent_.Wait(), 0);
}

TEST_F(Process, DrainWithoutStopLeavesTheAgentAlone) {
  Start("ONE REZ\n");
  agent_.CloseControl();
  Expect({"drain"}, 0, "nothing is left\n");
  EXPECT_TRUE(agent_.Running());
}

TEST_F(Process, LogLevelIsShownAndSet) {
  Start("ONE REZ\n");
  Expect({"log"}, 0, "0\n");
  Expect({"log", "15"}, 0, "15\n");
  agent_.Barrier();
  EXPECT_TRUE(agent_.LogContains("'HandleMessageFromClientQueue' Call from"));
  EXPECT_EQ(Ask({"log", "2"}).at("level"), 2);
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(Run({"log"}).Status, 3);
}

TEST_F(Process, StoppedAgentIsLookedAtAndNotAsked) {
  test::EchoNode node;
  Start(node.Line("ONE"));
  test::Client client(agent_);
  client.Ask("ONE", "a");
  agent_.Barrier();
  test::Freeze(agent_.Pid());
  const Json stats = Ask({"stats"});
  const Json clients = Ask({"clients"}).at("clients");
  const test::CtlOutcome metrics = Run({"export", "--no-ping"});
  test::Thaw(agent_.Pid());
  EXPECT_EQ(stats.at("agent").at("alive"), true);
  EXPECT_EQ(stats.at("nodes").at(0).at("answers"), 1);
  EXPECT_EQ(clients.size(), 2U);
  EXPECT_NE(metrics.Out.find("lumo_node_answers_total"), std::string::npos);
}

}  // namespace
