// The order in which the loop serves what is ready, seen in the trace. The agent is stopped while
// the events come, so that it finds them all at once. Requests for an unknown node are answered by
// the agent itself, and the packets of the nodes are of the kind that is only counted: nothing else
// happens meanwhile.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <utility>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using TimerStep = AgentTest;

using Steps = std::vector<std::string>;

// The number that stands between the two texts when the line is made of these three.
std::optional<int> NumberIn(const std::string& text, const std::string& before,
                            const std::string& after = {}) {
  if (!text.starts_with(before) || !text.ends_with(after)) return std::nullopt;
  const std::string digits =
      text.substr(before.size(), text.size() - std::min(text.size(), before.size() + after.size()));
  if (digits.empty() || digits.find_first_not_of("-0123456789") != std::string::npos)
    return std::nullopt;
  return std::stoi(digits);
}

// What one line of the trace says about the loop; empty: nothing.
std::string StepOf(const LogLine& line) {
  const std::string& text = line.Text;
  if (const auto n = NumberIn(text, "select return ")) return "select " + std::to_string(*n);
  if (const auto n = NumberIn(text, "Socket ", " ready for read"))
    return "read " + std::to_string(*n);
  if (const auto n = NumberIn(text, "Socket ", " ready for write"))
    return "write " + std::to_string(*n);
  if (text.starts_with("'HandleMessageFromClientQueue' Call from dbc:")) {
    const std::string detail = text.substr(std::min(text.size(), text.find('(')));
    if (const auto n = NumberIn(detail, "(Socket = ", " )")) return "request " + std::to_string(*n);
  }
  if (text.starts_with("'TcpReadyForRead' Call from dbc:")) return "input";
  if (text.starts_with("'AcceptNewClientConnection' Call from dbc:")) return "accept";
  return {};
}

class LoopOrder : public AgentTest {
 protected:
  LoopOrder() { agent_.Trace(); }
  // Everything from here on comes while the agent stands still.
  void Stop() {
    WaitFor([&] { return ProcessStatus(agent_.Pid(), "State").starts_with('S'); });
    Freeze(agent_.Pid());
    seen_ = agent_.LogLines().size();
  }
  // What the loop did since then. Waits that a tick interrupted are left out.
  Steps Since() const {
    Steps steps;
    const std::vector<LogLine> lines = agent_.LogLines();
    for (std::size_t i = seen_; i < lines.size(); ++i) {
      const std::string step = StepOf(lines[i]);
      if (!step.empty() && step != "select -1") steps.push_back(step);
    }
    return steps;
  }
  // A client whose connection the agent waits for; its descriptor there.
  std::pair<std::unique_ptr<Client>, int> NewClient() {
    auto client = std::make_unique<Client>(agent_);
    client->ExpectNothing();
    return {std::move(client), LastNumber("REGISTER_SOCKET_FOR_READ_EVENT ", "")};
  }
  int DescriptorOf(const std::string& node) const {
    return LastNumber("REGISTER_SOCKET_FOR_THE_LINK ", ", " + node);
  }
  // These are the first steps since then.
  void ExpectSteps(const Steps& expected, const Place& place = Place::Here()) const {
    const testing::ScopedTrace trace(place.File, place.Line, "");
    Steps steps = Since();
    ASSERT_GE(steps.size(), expected.size());
    steps.resize(expected.size());
    EXPECT_EQ(steps, expected);
  }
  static std::string Request(int descriptor) { return "request " + std::to_string(descriptor); }

 private:
  int LastNumber(const std::string& before, const std::string& after) const {
    int last = -1;
    for (const LogLine& line : agent_.LogLines())
      last = NumberIn(line.Text, before, after).value_or(last);
    return last;
  }
  std::size_t seen_ = 0;
};

TEST_F(LoopOrder, LastLinkThenLastClientThenLinksThenClientsThenNewConnections) {
  Node a, b;
  StartAgent(a.Line("A") + b.Line("B"));
  auto [c0, fd0] = NewClient();
  auto [c1, fd1] = NewClient();
  auto [c2, fd2] = NewClient();
  ExpectFirstExchange(*c0, c0->Send("B"), b);
  ExpectFirstExchange(*c1, c1->Send("A"), a);
  ExpectExchange(*c0, c0->Send("B"), b);
  ExpectExchange(*c1, c1->Send("A"), a);
  Stop();
  for (Client* client : {c2.get(), c0.get(), c1.get()}) client->Send("X");
  const int connection = ConnectRaw(agent_.SocketPath());
  b.SendControl({1, 0});
  a.SendControl({1, 0});
  Thaw(agent_.Pid());
  ASSERT_EQ(ReadRaw(connection, 60).size(), 60u);
  close(connection);
  ExpectSteps({"select 6", "input", "select 5", Request(fd1),
               "read " + std::to_string(DescriptorOf("B")), "input", Request(fd0), Request(fd2),
               "accept"});
}

TEST_F(LoopOrder, ReadyLinksAreServedInTheOrderOfTheirDescriptors) {
  Node a, b, c;
  Client client = StartWithClient(a.Line("A") + b.Line("B") + c.Line("C"));
  ExpectFirstExchange(client, client.Send("C"), c);
  ExpectFirstExchange(client, client.Send("A"), a);
  ExpectFirstExchange(client, client.Send("B"), b);
  // The link served last is gone, so that none has priority.
  b.Close();
  ASSERT_TRUE(agent_.WaitForLog("Disconnect link  B\n"));
  agent_.Barrier();
  Stop();
  a.SendControl({1, 0});
  c.SendControl({1, 0});
  Thaw(agent_.Pid());
  ASSERT_TRUE(WaitFor([&] { return Since().size() >= 5; }));
  ExpectSteps({"select 2", "read " + std::to_string(DescriptorOf("C")), "input",
               "read " + std::to_string(DescriptorOf("A")), "input"});
}

TEST_F(LoopOrder, WritableLinksAndClientsAreServedInTheOrderOfTheirDescriptors) {
  Node node;
  Client first = StartWithClient(node.Line("A"));
  ExpectFirstExchange(first, first.Send("A"), node);
  auto [c0, fd0] = NewClient();
  auto [c1, fd1] = NewClient();
  node.Close();  // the next connection gets the same descriptor, below those of the clients
  ASSERT_TRUE(agent_.WaitForLog("Disconnect link  A\n"));
  agent_.Barrier();
  const int link = DescriptorOf("A");
  Stop();
  c0->Send("A");
  c0->Send("X");
  c1->Send("X");
  c1->Send("X");
  Thaw(agent_.Pid());
  node.ExpectFirstRequest();
  agent_.Barrier();
  ASSERT_EQ(DescriptorOf("A"), link);
  ASSERT_LT(link, fd0);
  ExpectSteps({"select 2", Request(fd0), Request(fd1), "select 3", Request(fd1),
               "write " + std::to_string(link), Request(fd0)});
}

TEST_F(LoopOrder, AClientThatKeepsAskingDoesNotKeepOthersWaiting) {
  StartAgent();
  auto [quiet, quietFd] = NewClient();
  auto [busy, busyFd] = NewClient();
  Stop();
  for (int i = 0; i < 3; ++i) busy->Send("X");
  quiet->Send("X");
  Thaw(agent_.Pid());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(busy->Receive());
  ASSERT_TRUE(quiet->Receive());
  ASSERT_GE(Since().size(), 6u);
  ExpectSteps({"select 2", Request(busyFd), Request(quietFd), "select 1", Request(busyFd)});
}

TEST_F(LoopOrder, ManyClientsAreServedInTheOrderOfTheirDescriptors) {
  StartAgent();
  std::vector<std::unique_ptr<Client>> clients;
  Steps expected = {"select 20"};
  for (int i = 0; i < 20; ++i) {
    auto [client, descriptor] = NewClient();
    clients.push_back(std::move(client));
    expected.push_back(Request(descriptor));
  }
  agent_.Barrier();  // the client served last is another
  Stop();
  for (auto client = clients.rbegin(); client != clients.rend(); ++client) (*client)->Send("X");
  Thaw(agent_.Pid());
  for (const auto& client : clients) ASSERT_TRUE(client->Receive());
  ExpectSteps(expected);
}

TEST_F(LoopOrder, AWaitIsTracedWithTheNumberOfEventsAndWithMinusOneWhenInterrupted) {
  StartAgent();
  EXPECT_TRUE(WaitFor([&] {
    agent_.Tick();
    return agent_.Logged(15, "dbc", "select return -1");
  }));
  EXPECT_TRUE(agent_.Logged(15, "dbc", "select return 1"));
  EXPECT_FALSE(agent_.LogContains("Select bad status"));
}

TEST_F(LoopOrder, AStopComesBeforeWhatIsReady) {
  Client client = StartWithClient();
  client.ExpectNothing();
  Stop();
  client.Send("X");
  agent_.Signal(SIGTERM);
  Thaw(agent_.Pid());
  EXPECT_EQ(agent_.Wait(), 0);
  EXPECT_EQ(Since(), Steps{});
  client.ExpectClosed();
}

// The lines of the last timer step, those of named operations only.
Steps LastTimerStep(const Agent& agent) {
  Steps steps;
  for (const LogLine& line : agent.LogLines()) {
    if (line.Text.starts_with("'HandleTimerEvent' Call")) steps.clear();
    if (line.Text.starts_with("CircleTimeCount")) steps.push_back("count");
    for (const char* word : {"DummyConnectLink", "TcpTimerEvent", "LSockTimerEvent",
                             "TestAliveClient", "TryConnectDefaultLinkToNextServer"}) {
      if (line.Text.starts_with("'" + std::string(word) + "' Call from dbc:"))
        steps.push_back(word);
    }
    if (line.Text.starts_with("Connection \"")) steps.push_back(line.Text);
    if (line.Text == "'HandleTimerEvent' Leave SUCCESS") steps.push_back("end");
  }
  const auto end = std::find(steps.begin(), steps.end(), "end");
  return Steps(steps.begin(), end);
}

TEST_F(TimerStep, TriesTheCircleThenAsksTheActiveLinksThenTestsTheClients) {
  Node slow(Node::Start::Stalled), slower(Node::Start::Stalled);
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"}).Trace();
  Client client = StartWithClient("A REZ\n" + slow.Line("B") + "C REZ\n" + slower.Line("D"));
  client.Send("D");
  client.Send("B");
  client.Send();  // B becomes the default, so that the tick does not try the circle
  client.ExpectNothing();
  agent_.Tick();
  EXPECT_EQ(LastTimerStep(agent_),
            (Steps{"count", "TcpTimerEvent", "Connection \"B\" is in progress state.",
                   "Connection \"B\" is already in progress. Call:connect", "TcpTimerEvent",
                   "Connection \"D\" is in progress state.",
                   "Connection \"D\" is already in progress. Call:connect", "TestAliveClient"}));
}

TEST_F(TimerStep, TriesTheStartOfTheCircleWhileTheDefaultIsDown) {
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60"}).Trace();
  Client client = StartWithClient("A REZ\nB REZ\n");
  client.Send();
  client.ExpectNothing();
  agent_.Tick();
  EXPECT_EQ(LastTimerStep(agent_), (Steps{"count", "DummyConnectLink",
                                          "TryConnectDefaultLinkToNextServer", "TestAliveClient"}));
}

TEST_F(TimerStep, DoesNothingForLinksThatAreDownAndCountsNothingWithoutACircle) {
  agent_.Option("-AUTOCONNECT").Trace();
  Client client = StartWithClient("A REZ\nB REZ\n");
  client.ExpectError(client.Send(), 4006, 0);
  agent_.Tick();
  EXPECT_EQ(LastTimerStep(agent_), Steps{"TestAliveClient"});
}

TEST_F(TimerStep, ABrokenLinkThatIsNotTheDefaultIsTakenDownWithItsCodeAndNoErrno) {
  EchoNode good;
  Node silent;
  agent_.Option("-AUTOCONNECT").LogLevel("1");
  Client client = StartWithClient(good.Line("A") + silent.Line("B", "0 2 0"));
  const lumo::Message request = client.Send("B");
  ASSERT_TRUE(silent.Accept());
  ASSERT_TRUE(silent.ReadControl());
  ASSERT_TRUE(silent.ReadRequest());
  agent_.Ticks(3);
  client.ExpectError(request, 4065, 0);
  agent_.Barrier();
  EXPECT_EQ(agent_.Log(), "lumo_tcp:Link B connected\nlumo_tcp:Disconnect link  B\n");
}

TEST_F(TimerStep, FrequentTicksDoNotKeepClientsWaiting) {
  EchoNode node;
  Client client = StartWithClient(node.Line("A", "1 0 0"));
  for (int i = 0; i < 50; ++i) {
    agent_.Signal(SIGALRM);
    client.Ask("A", std::to_string(i));
  }
}

}  // namespace
}  // namespace test
