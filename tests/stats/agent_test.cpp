// The real agent: what its page tells, what a service manager hears, its log level by signal.
#include "tests/support/agent_test.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "tests/stats/notify_socket.h"
#include "tests/stats/page.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"

namespace {

using test::WaitFor;

class AgentStats : public test::AgentTest, protected test::StatsReader {
 protected:
  AgentStats() { agent_.Environment("LUMO_STATS", "1"); }

  std::string Path() const { return agent_.SocketPath() + ".stats"; }
  void Start(const std::string& nodetab) {
    StartAgent(nodetab);
    ASSERT_EQ(lumo_stats_open(Path().c_str(), &stats_), LUMO_OK);
  }
  test::Client StartWithClient(const std::string& nodetab) {
    Start(nodetab);
    return test::Client(agent_);
  }
  lumo_stats_link Link(const std::string& name) const {
    for (int row = 0; row < 16; ++row) {
      const lumo_stats_link link = StatsReader::Link(row);
      if (link.used != 0 && name == link.name) return link;
    }
    return {};
  }
  // Rows of connections, that of the control connection left out.
  std::vector<lumo_stats_client> Clients() const {
    std::vector<lumo_stats_client> clients;
    for (std::uint32_t row = 0; row < 64; ++row) {
      const lumo_stats_client client = Client(row);
      if (client.used != 0 && client.serial != 1) clients.push_back(client);
    }
    return clients;
  }
  std::uint64_t AnswersOf(int code) const {
    for (const lumo_stats_code& one : Agent().codes)
      if (one.used != 0 && one.code == code) return one.count;
    return 0;
  }
};

TEST_F(AgentStats, PageLivesAsLongAsTheAgent) {
  Start("NOWHERE REZ\n");
  EXPECT_EQ(lumo_stats_alive(stats_), 1);
  EXPECT_EQ(Header().pid, agent_.Pid());
  EXPECT_EQ(Header().exchange_id, agent_.ExchangeId());
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(Path()));
  EXPECT_EQ(lumo_stats_alive(stats_), 0);
}

TEST_F(AgentStats, KilledAgentLeavesAPageThatIsKnownForIt) {
  Start("NOWHERE REZ\n");
  agent_.Kill();
  EXPECT_TRUE(std::filesystem::exists(Path()));
  EXPECT_EQ(lumo_stats_alive(stats_), 0);
}

TEST_F(AgentStats, UnsetThereIsNoPage) {
  agent_.Without("LUMO_STATS");
  StartAgent();
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(AgentStats, BadValueIsToldAndCountsAsUnset) {
  agent_.Environment("LUMO_STATS", "2");
  StartAgent();
  EXPECT_TRUE(agent_.LogContains("LUMO_STATS cannot be used"));
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(AgentStats, PageThatCannotBeMadeIsOneLineAndTheAgentGoesOn) {
  agent_.LogLevel("2");
  std::filesystem::create_directories(std::filesystem::path(Path()) / "in-the-way");
  StartAgent();
  agent_.Barrier();
  EXPECT_EQ(agent_.CountLogged(
                2, "stats",
                "Statistics page " + Path() + " cannot be made. Errno " + std::to_string(EISDIR)),
            1);
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(AgentStats, RequestsAndAnswersAreCounted) {
  test::EchoNode node;
  test::Client client = StartWithClient(node.Line("ONE") + "BAD REZ\n");
  for (int i = 0; i < 5; ++i) client.Ask("ONE", "a text");
  client.ExpectError(client.Send("BAD"), 4066, 0);
  client.ExpectError(client.Send("NONE"), 4050, 0);
  agent_.Barrier();
  const lumo_stats_agent agent = Agent();
  EXPECT_EQ(agent.requests, 7U);
  EXPECT_EQ(agent.node_answers, 5U);
  EXPECT_EQ(agent.agent_answers, 2U);
  EXPECT_EQ(AnswersOf(4066), 1U);
  EXPECT_EQ(AnswersOf(4050), 1U);
  EXPECT_GE(agent.management, 1U);  // the barrier
  EXPECT_EQ(agent.in_flight, 0U);
  EXPECT_EQ(agent.links, 2U);
  EXPECT_GT(agent.passes, 7U);
  EXPECT_GT(agent.bytes_in, 7 * 100U);
  EXPECT_GT(agent.bytes_out, 7 * 100U);
  const lumo_stats_link link = Link("ONE");
  EXPECT_STREQ(link.protocol, "TCPIP");
  EXPECT_EQ(std::string(link.address), "127.0.0.1 " + std::to_string(node.Port()));
  EXPECT_EQ(link.state, static_cast<std::uint32_t>(LUMO_STATS_CONNECTED));
  EXPECT_EQ(link.connects_tried, 1U);
  EXPECT_EQ(link.connects_made, 1U);
  EXPECT_EQ(link.requests, 5U);
  EXPECT_EQ(link.answers, 5U);
  EXPECT_EQ(link.latency_count, 5U);
  EXPECT_GT(link.bytes_out, 5 * 100U);
  EXPECT_GT(link.bytes_in, 5 * 100U);
  EXPECT_EQ(Link("BAD").connects_failed, 1U);
  EXPECT_EQ(Link("BAD").failed_code, 4066);
  ASSERT_EQ(Clients().size(), 1U);
  const lumo_stats_client row = Clients()[0];
  EXPECT_EQ(row.named_pid, client.TaskName());
  EXPECT_EQ(row.system_pid, getpid());
  EXPECT_EQ(row.requests, 7U);
  EXPECT_EQ(row.answers, 7U);
  EXPECT_EQ(row.last_code, 4050);
}

TEST_F(AgentStats, ARequestCountsWithAllItsBytes) {
  test::Client client = StartWithClient("BAD REZ\n");
  client.ExpectError(client.Send("BAD"), 4066, 0);
  ASSERT_TRUE(WaitFor([&] { return Agent().requests == 1; }));
  const std::uint64_t before = Agent().bytes_in;
  const lumo::Message request = client.Send("BAD", "a text");
  client.ExpectError(request, 4066, 0);
  ASSERT_TRUE(WaitFor([&] { return Agent().requests == 2; }));
  EXPECT_EQ(Agent().bytes_in - before, lumo::Encode(request, lumo::Lengths::Client).size());
}

TEST_F(AgentStats, WhatANodeHasNotTakenGoesWithItsLink) {
  test::Node node;
  test::Client client = StartWithClient(node.Line("ONE"));
  client.Send("ONE");
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(WaitFor([&] {
    client.Send("ONE", std::string(8000, 'x'));
    agent_.Tick();
    return Link("ONE").unsent > 0;
  }));
  node.StopListening();
  node.Close();
  ASSERT_TRUE(WaitFor([&] { return Link("ONE").state == LUMO_STATS_DISCONNECTED; }));
  agent_.Barrier();
  EXPECT_EQ(Link("ONE").unsent, 0U) << "with the link, not with the next tick";
}

// The reader's process has written the answer; the agent only hears of it.
TEST_F(AgentStats, WhatAReaderHasAnsweredIsNotInFlight) {
  test::IpcKernel kernel;
  Start(kernel.Line("IPC"));
  test::Client client(agent_);
  const lumo::Message request = client.Send("IPC");
  const test::IpcKernel::Request received = kernel.ExpectRequest();
  EXPECT_TRUE(WaitFor([&] { return Clients()[0].in_flight == 1; }));
  kernel.Answer(received);
  client.ExpectAnswer(request);
  EXPECT_TRUE(WaitFor([&] { return Link("IPC").answers == 1; }));
  agent_.Barrier();
  EXPECT_EQ(Clients()[0].answers, 0U);
  EXPECT_EQ(Clients()[0].in_flight, 0U);
  EXPECT_EQ(Link("IPC").in_flight, 0U);
}

TEST_F(AgentStats, LinesThatNobodyReadsAreCounted) {
  int log[2];
  ASSERT_EQ(pipe2(log, O_CLOEXEC | O_NONBLOCK), 0);
  for (const char lines[4096] = {}; write(log[1], lines, sizeof lines) > 0;) continue;
  fcntl(log[1], F_SETFL, 0);
  agent_.LogLevel("15").LogInto(log[1]);
  Start("NOWHERE REZ\n");
  agent_.Tick();
  EXPECT_TRUE(WaitFor([&] { return Agent().log_lost > 0; }));
  close(log[0]);
  close(log[1]);
}

TEST_F(AgentStats, LatencyIsTheTimeUntilTheAnswer) {
  test::Node node;
  test::Client client = StartWithClient(node.Line("ONE"));
  const lumo::Message request = client.Send("ONE");
  const auto got = node.ExpectFirstRequest();
  EXPECT_TRUE(WaitFor([&] { return Link("ONE").in_flight == 1; }));
  const std::int64_t from = Agent().last_pass;
  // The agent's own clock tells how long the node has kept it.
  EXPECT_TRUE(WaitFor([&] {
    agent_.Barrier();
    return Agent().last_pass - from > 50000;
  }));
  node.Answer(got);
  client.ExpectAnswer(request);
  agent_.Barrier();
  const lumo_stats_link link = Link("ONE");
  EXPECT_EQ(link.in_flight, 0U);
  EXPECT_EQ(link.latency_count, 1U);
  EXPECT_GE(link.latency_sum, 50000U);
  EXPECT_NEAR(lumo_stats_percentile(link.latency, 0.5), static_cast<double>(link.latency_sum),
              0.032 * static_cast<double>(link.latency_sum));
}

TEST_F(AgentStats, WhatWaitsAndWhatIsInFlightIsShownWhileItDoes) {
  test::Node node;
  Start(node.Line("ONE"));
  node.Stall();
  test::Client client(agent_);
  for (int i = 0; i < 3; ++i) client.Send("ONE");
  EXPECT_TRUE(WaitFor([&] { return Agent().waiting == 3; }));
  EXPECT_EQ(Link("ONE").waiting, 3U);
  EXPECT_EQ(Link("ONE").state, static_cast<std::uint32_t>(LUMO_STATS_CONNECTING));
  ASSERT_EQ(Clients().size(), 1U);
  EXPECT_EQ(Clients()[0].waiting, 3U);
  node.Unstall();
  ASSERT_TRUE(node.Accept());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(node.ReadRequest());
  EXPECT_TRUE(WaitFor([&] { return Agent().in_flight == 3 && Agent().waiting == 0; }));
  EXPECT_EQ(Link("ONE").in_flight, 3U);
  EXPECT_EQ(Clients()[0].in_flight, 3U);
  client.Close();  // what it has asked for goes on
  EXPECT_TRUE(WaitFor([&] { return Clients().empty(); }));
  EXPECT_EQ(Agent().in_flight, 3U);
  EXPECT_EQ(Agent().closed[LUMO_STATS_HUNG_UP], 1U);
  node.Close();
  EXPECT_TRUE(WaitFor([&] { return Agent().in_flight == 0; }));
  EXPECT_EQ(Link("ONE").failed_requests, 3U);
  EXPECT_EQ(Link("ONE").state, static_cast<std::uint32_t>(LUMO_STATS_DISCONNECTED));
}

TEST_F(AgentStats, ParkedConnectionIsShown) {
  test::Node node;
  Start(node.Line("ONE"));
  node.Stall();
  test::Client client(agent_);
  for (int i = 0; i < 33; ++i) client.Send("ONE");
  EXPECT_TRUE(WaitFor([&] { return Agent().parked == 1; }));
  ASSERT_EQ(Clients().size(), 1U);
  EXPECT_EQ(Clients()[0].parked, 1U);
  node.Unstall();
  ASSERT_TRUE(node.Accept());
  EXPECT_TRUE(WaitFor([&] { return Agent().parked == 0; }));
  EXPECT_EQ(Clients()[0].parked, 0U);
}

TEST_F(AgentStats, FailuresOfConnectsAreToldWithTheirReason) {
  test::Node node(test::Node::Start::Bound);
  test::Client client = StartWithClient(node.Line("ONE"));
  client.ExpectError(client.Send("ONE"), 4006, ECONNREFUSED);
  agent_.Barrier();
  const lumo_stats_link link = Link("ONE");
  EXPECT_EQ(link.connects_tried, 1U);
  EXPECT_EQ(link.connects_made, 0U);
  EXPECT_EQ(link.connects_failed, 1U);
  EXPECT_EQ(link.failed_code, 4006);
  EXPECT_EQ(link.failed_errno, ECONNREFUSED);
  EXPECT_NE(link.failed_at, 0);
}

TEST_F(AgentStats, WatchdogsAndUnaskedAnswersAreCounted) {
  test::Node node;
  test::Client client = StartWithClient(node.Line("ONE", "0 2 0"));
  const lumo::Message request = client.Send("ONE");
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadControl());  // the time-out
  const auto got = node.ExpectRequest();
  node.Answer(got);
  client.ExpectAnswer(request);
  node.Answer(got);  // once more: nobody has asked
  EXPECT_TRUE(WaitFor([&] { return Link("ONE").unasked == 1; }));
  const lumo::Message silent = client.Send("ONE");
  for (int i = 0; i < 20 && Link("ONE").watchdogs == 0; ++i) agent_.Tick();
  EXPECT_EQ(Link("ONE").watchdogs, 1U);
  client.ExpectError(silent, 4065, 0);
  EXPECT_GT(Agent().ticks, 0U);
}

TEST_F(AgentStats, DefaultThatMovesIsShown) {
  test::Node down(test::Node::Start::Bound);
  test::EchoNode up;
  agent_.Option("-AUTOCONNECT");
  Start(down.Line("ONE") + up.Line("TWO"));
  agent_.Barrier();
  EXPECT_EQ(Agent().default_moves, 0U);
  test::Client client(agent_);
  client.Ask("", "a");
  agent_.Barrier();
  EXPECT_EQ(Agent().default_moves, 1U);
  EXPECT_STREQ(StatsReader::Link(Agent().default_link).name, "TWO");
}

TEST_F(AgentStats, StoppedAgentCanBeLookedAt) {
  Start("NOWHERE REZ\n");
  agent_.Barrier();
  test::Freeze(agent_.Pid());
  EXPECT_EQ(lumo_stats_alive(stats_), 1);
  EXPECT_GT(Agent().passes, 0U);
  test::Thaw(agent_.Pid());
}

TEST_F(AgentStats, ClientThatDoesNotReadIsClosedForThatReason) {
  test::EchoNode node;
  test::Client client = StartWithClient(node.Line("ONE"));
  const std::string text(8000, 'x');
  for (int i = 0; i < 2000 && Agent().closed[LUMO_STATS_NOT_READING] == 0; ++i) {
    const lumo::Message request = client.Request("ONE", text);
    if (!client.SendMessage(request)) break;
  }
  EXPECT_TRUE(WaitFor([&] { return Agent().closed[LUMO_STATS_NOT_READING] == 1; }));
}

class AgentLogLevel : public AgentStats {};

TEST_F(AgentLogLevel, FollowsTheSignalWithoutARestart) {
  Start("NOWHERE REZ\n");
  agent_.Barrier();
  EXPECT_FALSE(agent_.LogContains("Call from"));
  agent_.Signal(SIGRTMIN + 15);
  EXPECT_TRUE(WaitFor([&] { return Agent().log_level == 15; }));
  agent_.Barrier();
  EXPECT_TRUE(agent_.LogContains("'HandleMessageFromClientQueue' Call from"));
  agent_.Signal(SIGRTMIN + 2);
  EXPECT_TRUE(WaitFor([&] { return Agent().log_level == 2; }));
  agent_.Barrier();
  const std::string log = agent_.Log();
  agent_.Barrier();
  EXPECT_EQ(agent_.Log(), log);
  EXPECT_EQ(agent_.Stop(), 0);
}

// A manager's socket, and what came there.
class AgentNotify : public test::AgentTest {
 protected:
  AgentNotify() {
    EXPECT_TRUE(manager_.Listen(manager_.Path()));
    agent_.Environment("NOTIFY_SOCKET", manager_.Path()).Environment("WATCHDOG_USEC", "30000000");
  }
  std::string Heard() {
    for (const std::string& text : manager_.Heard()) heard_ += text + '\n';
    return heard_;
  }

  test::NotifySocket manager_;
  std::string heard_;
};

TEST_F(AgentNotify, ManagerHearsOfAWholeLife) {
  test::EchoNode node;
  StartAgent(node.Line("SRV1") + "BAD REZ\n");
  EXPECT_TRUE(WaitFor([&] { return Heard() == "READY=1\n"; })) << heard_;
  test::Client client(agent_);
  agent_.Tick();
  EXPECT_EQ(Heard(), "READY=1\nWATCHDOG=1\nSTATUS=2 clients, 2 nodes, default SRV1\n");
  agent_.Tick();
  EXPECT_EQ(agent_.Stop(), 0);
  const std::string end = "WATCHDOG=1\nSTOPPING=1\n";
  EXPECT_EQ(Heard().substr(heard_.size() - end.size()), end);
}

TEST_F(AgentNotify, StoppedAgentGivesNoSignOfLife) {
  StartAgent();
  agent_.Tick();
  Heard();
  test::Freeze(agent_.Pid());
  agent_.Signal(SIGALRM);
  const std::string before = Heard();
  EXPECT_EQ(Heard(), before);
  test::Thaw(agent_.Pid());
  EXPECT_TRUE(WaitFor([&] { return Heard() != before; }));
}

}  // namespace
