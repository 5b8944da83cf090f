// Which node a request goes to, what its client hears when that node is not there, and that an
// answer reaches the connection that asked and no other.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "tests/process/reconnection.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/management.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using Dispatch = AgentTest;

constexpr char kSendFailed9[] = "Send to client fail. Call:send. errno 9";

TEST_F(Dispatch, ARequestReachesTheNodeThatItNames) {
  EchoNode a, b;
  Client client = StartWithClient(a.Line("A") + b.Line("B"));
  EXPECT_EQ(client.Ask("B", "to b").Strings[0], "to b");
  EXPECT_EQ(client.Ask("A", "to a").Strings[0], "to a");
  EXPECT_EQ(client.Ask("B", "to b again").Strings[0], "to b again");
  EXPECT_EQ(a.Served(), 1);
  EXPECT_EQ(b.Served(), 2);
}

TEST_F(Dispatch, NamesArePaddedWithBlanksOrNulsAndKnowNoCase) {
  EchoNode a, b;
  Client client = StartWithClient(a.Line("AB") + b.Line("ABCDEFGH"));
  int served = 0;
  for (const std::string name : {"AB", "ab", "ab      ", "aB cd", "AB \xFFyz"}) {
    client.Ask(name, "text");
    EXPECT_EQ(a.Served(), ++served) << name;
  }
  client.Ask("abcdefgh", "text");
  EXPECT_EQ(b.Served(), 1);
  client.ExpectError(client.Send("ABC"), 4050, 0);
  client.ExpectError(client.Send("ABCDEFG"), 4050, 0);
}

TEST_F(Dispatch, ANodeThatBeginsWithABlankOrNulIsTheDefault) {
  EchoNode a, b;
  agent_.Options({"-DEFAULT", "B"});
  Client client = StartWithClient(a.Line("A") + b.Line("B"));
  int served = 0;
  for (const std::string& name :
       {std::string(), std::string(8, ' '), std::string(" A"), std::string("\0A", 2)}) {
    client.Ask(name, "text");
    EXPECT_EQ(b.Served(), ++served) << testing::PrintToString(name);
  }
  EXPECT_EQ(a.Served(), 0);
}

TEST_F(Dispatch, AnUnknownNodeIsAnsweredWith4050) {
  agent_.Trace();
  Client client = StartWithClient();
  client.ExpectError(client.Send("NOBODY"), 4050, 0);
  EXPECT_TRUE(agent_.Logged(
      15, "clntxch", "Node name NOBODY dasn't correspondence to the nodetab file information"));
}

TEST_F(Dispatch, ManagementRequestsAreAnsweredWhateverNodeTheyName) {
  EchoNode node;
  Client client = StartWithClient(node.Line("SRV"));
  for (const char* name : {"", "SRV", "NOBODY"}) {
    lumo::Message request = lumo::ManagementRequest(100);
    request.Node = name;
    client.SendMessage(request);
    const auto frame = client.ReceiveFrame();
    ASSERT_TRUE(frame);
    const auto answer = lumo::DecodeManagementAnswer(*frame);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->CodErr, 0) << name;
    EXPECT_EQ(answer->Result, 1) << name;
  }
  EXPECT_EQ(node.Served(), 0);
}

TEST_F(Dispatch, WithoutAnyLinkOnlyManagementIsServed) {
  Client client = StartWithClient();
  Manager manager(agent_);
  EXPECT_EQ(manager.Result(125), 0);
  client.ExpectError(client.Send(""), 4050, 0);
  client.ExpectError(client.Send("NOWHERE"), 4050, 0);
  EXPECT_EQ(manager.Count(), 0);
}

TEST_F(Dispatch, AnUnsupportedProtocolIsAnsweredWith4066AndNoSystemError) {
  for (const char* level : {"0", "15"}) {
    Agent agent;
    agent.LogLevel(level);
    Client client = StartWithClient(agent);
    client.ExpectError(client.Send("NOWHERE"), 4066, 0);
    client.ExpectError(client.Send(""), 4066, 0);
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(Dispatch, AFailedConnectIsAnsweredWithItsOwnErrorAtEveryTraceLevel) {
  for (const char* level : {"0", "2", "15"}) {
    Agent agent;
    LocalKernel kernel(agent);
    kernel.StopListening();
    agent.Nodetab(kernel.Line("K") + "REZ REZ\n").LogLevel(level);
    Client client = StartWithClient(agent);
    client.ExpectError(client.Send("K"), 4006, ENOENT);
    client.ExpectError(client.Send("REZ"), 4066, 0);
    client.ExpectError(client.Send("K"), 4006, ENOENT);
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(Dispatch, RequestsWaitWhileTheirLinkConnects) {
  Node node;
  agent_.Trace();
  StartAgent(node.Line("SRV"));
  node.Stall();
  Client client(agent_);
  std::vector<lumo::Message> requests;
  for (const char* name : {"", "SRV", ""}) requests.push_back(client.Send(name, "text"));
  client.ExpectNothing();
  EXPECT_TRUE(agent_.LogContains("Leave SUCCESS connect in progress. Message saved"));
  node.Unstall();
  agent_.Tick();
  ASSERT_TRUE(node.Accept());
  for (const lumo::Message& request : requests) ExpectExchange(client, request, node, "row");
}

TEST_F(Dispatch, WithConnErrorAConnectingLinkAnswersAtOnce) {
  for (const bool err1001 : {false, true}) {
    Node node;
    Agent agent;
    agent.Nodetab(node.Line("SRV")).Option("-CONNERROR").Trace();
    if (err1001) agent.Option("-ERR1001");
    ASSERT_TRUE(agent.Start());
    node.Stall();
    Client client(agent);
    client.ExpectError(client.Send("SRV"), err1001 ? 1001 : 4006, EINPROGRESS);
    client.ExpectError(client.Send(""), err1001 ? 1001 : 4006, EINPROGRESS);
    EXPECT_TRUE(
        agent.Logged(15, "clntxch", "Connection is in progress state. return error to client"));
    node.Unstall();
    agent.Tick();
    ASSERT_TRUE(node.Accept());
    agent.Barrier();
    const lumo::Message request = client.Send("SRV", "now");
    const auto received = node.ExpectRequest();
    EXPECT_EQ(received.Strings[0], "now") << "the requests answered before are not sent";
    ExpectAnswered(client, request, node, received);
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(Dispatch, ARequestForAFailedDefaultFollowsItToTheNextNode) {
  EchoNode node;
  agent_.Option("-AUTOCONNECT").Trace();
  Client client = StartWithClient("A REZ\n" + node.Line("B"));
  EXPECT_EQ(client.Ask("", "text").Strings[0], "text");
  EXPECT_TRUE(agent_.Logged(15, "clntxch", "It's default link. Try set new default link"));
  EXPECT_TRUE(agent_.Logged(1, "", "Set link  B as default"));
  client.ExpectError(client.Send("A"), 4066, 0);
}

TEST_F(Dispatch, TheStepsOfARequestAreTraced) {
  EchoNode node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("SRV"));
  client.Ask("SRV", "one");
  client.Ask("SRV", "two");
  for (const char* text :
       {"Link SRV is disconnect state. Try up the link",
        "Link SRV is already connect state. Try send message", "Link SRV SUCESS send message"})
    EXPECT_EQ(agent_.CountLogged(15, "clntxch", text), 1) << text;
}

TEST_F(Dispatch, AClientIsReportedDeadToEveryNodeThatItUsed) {
  Node a, b;
  StartAgent(a.Line("A") + b.Line("B"));
  LivingProcess process;
  const auto pid = static_cast<std::uint32_t>(process.Pid());
  Client client(agent_, process.Pid());
  client.Send("A");
  client.Send("B");
  ASSERT_TRUE(a.Accept() && b.Accept());
  ASSERT_TRUE(a.ReadRequest() && b.ReadRequest());
  process.Kill();
  agent_.Tick();
  EXPECT_EQ(a.ReadControl(), (Control{2, pid}));
  EXPECT_EQ(b.ReadControl(), (Control{2, pid}));
}

// A client hangs up with a request under way, and another gets the number of its connection.
class ReusedConnection : public AgentTest {
 protected:
  void SetUp() override {
    agent_.Trace();
    StartAgent(node_.Line("SRV"));
  }

  // The agent's descriptor of the connection that was served last, other than the control one.
  std::string LastSocket() {
    const std::string log = agent_.Log(), mark = "'HandleMessageFromClientQueue' Call from ";
    const std::size_t request = log.rfind("    CBL.Node=SRV");
    const std::size_t at = log.find("(Socket = ", log.rfind(mark, request));
    return log.substr(at, log.find(')', at) - at);
  }
  void ExpectSameSocket(Client& second) {
    const std::string first = LastSocket();
    second.Send("SRV", "second");
    agent_.Barrier();
    EXPECT_EQ(LastSocket(), first);
  }

  Node node_;
};

TEST_F(ReusedConnection, ALateAnswerReachesNobody) {
  std::optional<Client> first(std::in_place, agent_);
  first->Send("SRV", "first");
  const auto late = node_.ExpectFirstRequest();
  first.reset();
  agent_.Barrier();
  Client second(agent_);
  ExpectSameSocket(second);
  const auto received = node_.ExpectRequest();
  // The same tag is no matter: only the oldest request with it is answered.
  node_.Answer(late, "for nobody");
  ASSERT_TRUE(WaitFor([&] { return agent_.Logged(2, "clntxch", kSendFailed9); }));
  second.ExpectNothing();
  ExpectAnswered(second, received, node_, received, "for the second");
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kSendFailed9), 1);
}

TEST_F(ReusedConnection, ABrokenLinkTellsNobodyOfTheFirstOnesRequest) {
  std::optional<Client> first(std::in_place, agent_);
  first->Send("SRV", "first");
  node_.ExpectFirstRequest();
  const std::string socket = LastSocket();
  first.reset();
  agent_.Barrier();
  Client second(agent_);
  lumo::Message request = second.Request("SRV");
  request.SetAstInd(77);
  second.SendMessage(request);
  ASSERT_TRUE(node_.ReadRequest());
  EXPECT_EQ(LastSocket(), socket);
  node_.Close();
  second.ExpectError(request, 4009, 0);
  second.ExpectNothing();
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kSendFailed9), 1);
}

TEST_F(ReusedConnection, AnAnswerToASavedRequestReachesNobody) {
  node_.Stall();
  std::optional<Client> first(std::in_place, agent_);
  first->Send("SRV", "first");
  agent_.Barrier();
  first.reset();
  agent_.Barrier();
  Client second(agent_);
  ExpectSameSocket(second);
  node_.Unstall();
  agent_.Tick();
  ASSERT_TRUE(node_.Accept());
  for (const char* text : {"first", "second"}) {
    const auto received = node_.ExpectRequest();
    EXPECT_EQ(received.Strings[0], text);
    node_.Answer(received, text);
  }
  const std::optional<lumo::Message> answer = second.Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Strings[0], "second");
  second.ExpectNothing();
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kSendFailed9), 1);
}

// The default node K is a local kernel, T another node; neither is there yet. The client has left
// so many answers unread that the next ones but for a few close its connection.
class ClosedInHand : public AgentTest {
 protected:
  static constexpr int kWaiting = 30;  // requests: their answers are more than what is left
  static constexpr long kBound = 1 << 20, kLeft = 2000;

  void SetUp() override {
    agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60000"});
    client_.emplace(StartWithClient(k_.Line("K") + t_.Line("T")));
    manager_.emplace(agent_);
    LeaveUnread();
    for (int i = 0; i < kWaiting; ++i) client_->Send({}, "waits");
    AwaitServed();
    agent_.Tick();  // the next one, which tries K by itself, is two seconds away
    ASSERT_TRUE(WaitFor([&] { return manager_->Default() == "K"; })) << "T is still being tried";
  }
  // The client's last request is served: one that shows elsewhere.
  void AwaitServed() {
    const std::int32_t owner = ++lastOwner_;
    client_->SendMessage(lumo::ManagementRequest(117, owner));
    ASSERT_TRUE(WaitFor([&] {
      const bool served = manager_->Result(129, owner) == kHeldByCaller;
      if (served) manager_->Result(118, owner);
      return served;
    }));
  }
  // The agent answers by itself that there is no such node.
  void LeaveUnread() {
    const lumo::Message unknown = client_->Request("NONE");
    const auto size = static_cast<long>(ErrorFrame(unknown, 4050, 0).size());
    int held = 0;  // by the system, which takes no more by then
    for (long sent = 0; (sent + 1) * size - held < kBound - kLeft; ++sent) {
      ASSERT_TRUE(client_->SendMessage(unknown));
      if (sent * size < kBound / 2 || held > 0) continue;
      AwaitServed();
      ASSERT_EQ(ioctl(client_->Connection().Socket(), FIONREAD, &held), 0);
    }
  }
  // The kernel is there now, and takes a connection but no request.
  void Refuse() {
    ASSERT_TRUE(k_.AcceptConnection());
    shutdown(k_.Socket(), SHUT_RD);
    ASSERT_TRUE(k_.Greet());
  }

  LateKernel k_{agent_};
  Node t_{Node::Start::Bound};
  std::optional<Client> client_;
  std::optional<Manager> manager_;
  std::int32_t lastOwner_ = 0;
};

// The kernel's failure answers the requests that wait for it, and so closes the connection of the
// one in hand. That goes on to T, whose connection gets the number.
TEST_F(ClosedInHand, ARequestIsNotSavedForANumberThatIsInUseAgain) {
  k_.Listen();
  t_.Listen();
  client_->Send({}, "in hand");
  Refuse();
  const auto received = t_.ExpectFirstRequest();
  EXPECT_EQ(received.Strings[0], "in hand");
  t_.Answer(received, "too late");
  Client other(agent_);
  ExpectServedBy(t_, "T", other, other.Send({}, "afterwards"));
  EXPECT_TRUE(t_.Silent(Milliseconds(0))) << "the node gets an answer";
}

}  // namespace
}  // namespace test
