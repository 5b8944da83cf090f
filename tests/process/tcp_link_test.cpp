// The connection of a TCP link, seen from its server and its clients: address text, connecting,
// control packets, time-outs counted in ticks, and the end.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <deque>

#include "tests/process/manager.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using TcpAddressText = AgentTest;
using TcpConnect = AgentTest;
using TcpDisconnect = AgentTest;

constexpr char kNotInTime[] = "TCPIP.Connect is broken on timeout";
constexpr char kNoPacket[] = "TCPIP.Link is broken on timeout send";

// A node with one link of the agent, which is up, and a client of it.
struct ConnectedLink {
  explicit ConnectedLink(const std::string& timeouts, const char* logLevel = "3") {
    Agent.Nodetab(Node.Line("SRV", timeouts)).LogLevel(logLevel);
    if (!Agent.Start()) return;
    Client.emplace(Agent);
    Pending = Client->Send("SRV", "first");
    EXPECT_TRUE(Node.Accept());
  }
  // Takes the first request, which came after the announcements.
  void TakeFirstRequest() {
    const std::optional<lumo::Message> request = Node.ReadRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->Strings[0], "first");
  }
  void AnswerFirstRequest() {
    TakeFirstRequest();
    Node.Answer(Pending);
    Client->ExpectAnswer(Pending);
  }
  bool NothingCame() {
    Agent.Barrier();
    return Node.Silent(Milliseconds(0));
  }

  test::Node Node;
  test::Agent Agent;
  std::optional<test::Client> Client;
  lumo::Message Pending;
};

// The agent's answer is there already: a tick of the real timer, 2 seconds later, has no part in
// it.
void ExpectErrorNow(Client& client, const lumo::Message& request, int codErr, int sysErr) {
  EXPECT_EQ(client.ReceiveFrame(Milliseconds(0)), ErrorFrame(request, codErr, sysErr));
}

// What a connect to this address says at once; 0 when it is under way.
int ConnectError(const char* address, std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = inet_addr(address);
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  const int error = result == 0 || errno == EINPROGRESS ? 0 : errno;
  close(fd);
  return error;
}

// Address text

TEST_F(TcpAddressText, MissingFieldsGetTheirDefaults) {
  agent_.Trace();
  StartAgent("SRV TCPIP 127.0.0.1\n");
  EXPECT_TRUE(agent_.Logged(15, "lumo_tcp", "Network address 100007f"));
  EXPECT_TRUE(agent_.Logged(15, "lumo_tcp", "Port 0x2404 in network order"));
  EXPECT_TRUE(agent_.Logged(15, "lumo_tcp", "Receive timeout(on dbs side) 20 sec"));
  EXPECT_TRUE(agent_.Logged(15, "lumo_tcp", "Send timeout(on dbs side) 0 sec"));
  EXPECT_TRUE(agent_.Logged(15, "lumo_tcp", "Connect timeout 0 sec"));
}

TEST_F(TcpAddressText, ALocalNameAndAHexadecimalPortAreUnderstood) {
  Node node;
  char line[80];
  std::snprintf(line, sizeof line, "SRV\tTCPIP\tlocalhost\t0x%x\t0\t0\t0\n",
                static_cast<unsigned>(node.Port()));
  Client client = StartWithClient(line);
  client.Send("SRV", "hello");
  node.ExpectFirstRequest();
}

TEST_F(TcpAddressText, AnOctalPortIsUnderstood) {
  Node node;
  char line[80];
  std::snprintf(line, sizeof line, "SRV TCPIP 127.0.0.1 0%o 00 0 0\n",
                static_cast<unsigned>(node.Port()));
  Client client = StartWithClient(line);
  client.Send("SRV", "hello");
  ASSERT_TRUE(node.Accept());
  EXPECT_TRUE(node.ReadRequest()) << "00 switches keep-alive off as 0 does";
}

TEST_F(TcpAddressText, ABadAddressIsReportedAndItsLineSkipped) {
  EchoNode node;
  StartAgent("BAD TCPIP 1.2.3.4.5.6 1060\nEMPTY TCPIP\n" + node.Line("SRV"));
  EXPECT_TRUE(agent_.Logged(0, "", "'1.2.3.4.' is not a valid tcp address"));
  EXPECT_TRUE(agent_.Logged(0, "", "Tcp address is empty"));
  EXPECT_EQ(Manager(agent_).Count(), 1);
  Client client(agent_);
  EXPECT_EQ(client.Ask("SRV", "x").Strings[0], "x");
  client.ExpectError(client.Send("BAD"), 4050, 0);
}

// Announcements

TEST(TcpAnnouncement, BothTimeoutsAreToldInOrderBeforeTheFirstRequest) {
  ConnectedLink link("5 30 10");
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({0, 5}));
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({1, 0x001E5555}));
  link.AnswerFirstRequest();
  EXPECT_TRUE(link.NothingCame());
}

TEST(TcpAnnouncement, AnAbsentReceiveTimeoutIsToldAsOne) {
  ConnectedLink link("");
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({0, 1}));
  link.TakeFirstRequest();
}

TEST(TcpAnnouncement, ANegativeReceiveTimeoutIsToldAsOneAndANegativeSendTimeoutNotAtAll) {
  ConnectedLink link("-7 -7 -7");
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({0, 1}));
  link.TakeFirstRequest();
}

TEST(TcpAnnouncement, OnlyTheSendTimeoutIsToldWhenKeepAliveIsOff) {
  ConnectedLink link("0 0x10 0");
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({1, 0x00105555}));
  link.TakeFirstRequest();
}

TEST(TcpAnnouncement, WithoutTimeoutsNothingIsTold) {
  ConnectedLink link("0 0 0");
  link.AnswerFirstRequest();
  link.Agent.Ticks(25);
  EXPECT_TRUE(link.NothingCame());
}

TEST(TcpAnnouncement, ASendTimeoutBeyondSixteenBitsLosesItsHighPart) {
  ConnectedLink link("0 65537 0");
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({1, 0x00015555}));
  link.TakeFirstRequest();
}

TEST(TcpAnnouncement, EachConnectionIsToldAnew) {
  ConnectedLink link("5 30 10");
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({0, 5}));
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({1, 0x001E5555}));
  link.TakeFirstRequest();
  link.Node.Close();
  link.Client->ExpectError(link.Pending, 4009, 0);
  link.Client->Send("SRV", "second");
  ASSERT_TRUE(link.Node.Accept());
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({0, 5}));
  EXPECT_EQ(link.Node.ReadFrame(), ControlPacket({1, 0x001E5555}));
  EXPECT_EQ(link.Node.ReadRequest()->Strings[0], "second");
}

// Keep-alive

TEST(TcpKeepAlive, AnAlivePacketComesWhenTheCountHasRunOut) {
  ConnectedLink link("1 0 0");
  EXPECT_EQ(link.Node.ReadControl(), (Control{0, 1}));
  link.AnswerFirstRequest();
  for (int round = 0; round < 2; ++round) {
    link.Agent.Ticks(10);
    EXPECT_TRUE(link.NothingCame());
    link.Agent.Tick();
    EXPECT_EQ(link.Node.ReadFrame(Milliseconds(0)), ControlPacket({1, 0}));
  }
}

TEST(TcpKeepAlive, ARequestPostponesTheAlivePacketAndAnAnswerDoesNot) {
  ConnectedLink link("1 0 0");
  EXPECT_EQ(link.Node.ReadControl(), (Control{0, 1}));
  link.AnswerFirstRequest();
  link.Agent.Ticks(9);
  const lumo::Message request = link.Client->Send("SRV", "second");
  ASSERT_TRUE(link.Node.ReadRequest());
  link.Agent.Ticks(9);
  link.Node.Answer(request);
  link.Client->ExpectAnswer(request);
  link.Agent.Tick();
  EXPECT_TRUE(link.NothingCame());
  link.Agent.Tick();
  EXPECT_EQ(link.Node.ReadFrame(Milliseconds(0)), ControlPacket({1, 0}));
}

TEST(TcpKeepAlive, AConnectedLinkWithoutRequestsCountsFromItsConnection) {
  ConnectedLink link("2 0 0");
  EXPECT_EQ(link.Node.ReadControl(), (Control{0, 2}));
  link.TakeFirstRequest();
  link.Agent.Ticks(20);
  EXPECT_TRUE(link.NothingCame());
  link.Agent.Tick();
  EXPECT_EQ(link.Node.ReadFrame(Milliseconds(0)), ControlPacket({1, 0}));
}

// Watchdog

TEST(TcpWatchdog, ASilentServerLosesTheLinkWith4065) {
  ConnectedLink link("0 10 0");
  EXPECT_EQ(link.Node.ReadControl(), (Control{1, 0x000A5555}));
  link.TakeFirstRequest();
  Client other(link.Agent);
  const lumo::Message second = other.Send("SRV", "second");
  ASSERT_TRUE(link.Node.ReadRequest());
  link.Agent.Ticks(6);
  link.Client->ExpectNothing();
  EXPECT_FALSE(link.Agent.Logged(3, "lumo_tcp", kNoPacket));
  link.Agent.Tick();
  ExpectErrorNow(*link.Client, link.Pending, 4065, 0);
  ExpectErrorNow(other, second, 4065, 0);
  EXPECT_TRUE(link.Node.ReadEnd());
  EXPECT_EQ(link.Agent.CountLogged(3, "lumo_tcp", kNoPacket), 1);
  EXPECT_EQ(link.Agent.CountLogged(1, "", "Disconnect link  SRV"), 1);
  link.Agent.Ticks(3);
  link.Client->ExpectNothing();
}

TEST(TcpWatchdog, AnyWholePacketStartsItAnew) {
  ConnectedLink link("0 10 0");
  EXPECT_EQ(link.Node.ReadControl(), (Control{1, 0x000A5555}));
  link.TakeFirstRequest();
  link.Agent.Ticks(6);
  link.Node.SendControl({99, 99});
  link.Agent.Barrier();
  link.Agent.Ticks(6);
  link.Node.Answer(AnswerTo(link.Pending, "to nobody"));
  link.Client->ExpectAnswer(link.Pending);
  link.Agent.Ticks(6);
  const lumo::Message request = link.Client->Send("SRV");
  ASSERT_TRUE(link.Node.ReadRequest());
  link.Agent.Tick();
  ExpectErrorNow(*link.Client, request, 4065, 0);
}

TEST(TcpWatchdog, ItRunsOnWhileAPacketIsIncomplete) {
  ConnectedLink link("0 10 0");
  EXPECT_EQ(link.Node.ReadControl(), (Control{1, 0x000A5555}));
  link.TakeFirstRequest();
  const std::string frame = lumo::Encode(AnswerTo(link.Pending, "late"), lumo::Lengths::Packet);
  for (std::size_t at = 0; at < 6; ++at) {
    link.Node.SendBytes(frame.substr(at, 1));
    link.Agent.Tick();
  }
  link.Client->ExpectNothing();
  link.Agent.Tick();
  ExpectErrorNow(*link.Client, link.Pending, 4065, 0);
}

// Connecting

TEST_F(TcpConnect, AServerThatDoesNotAnswerGives4058OnTheSeventhTick) {
  Node node(Node::Start::Stalled);
  agent_.LogLevel("3");
  Client client = StartWithClient(node.Line("SRV", "0 0 10"));
  const lumo::Message first = client.Send("SRV", "1"), second = client.Send("SRV", "2");
  agent_.Barrier();
  agent_.Ticks(6);
  client.ExpectNothing();
  EXPECT_FALSE(agent_.Logged(3, "lumo_tcp", kNotInTime));
  agent_.Tick();
  ExpectErrorNow(client, first, 4058, 0);
  ExpectErrorNow(client, second, 4058, 0);
  EXPECT_EQ(agent_.CountLogged(3, "lumo_tcp", kNotInTime), 1);
  EXPECT_EQ(agent_.CountLogged(1, "", "Disconnect link  SRV"), 0) << "it was never connected";
  agent_.Ticks(8);
  client.ExpectNothing();
}

TEST_F(TcpConnect, ANewRequestBeginsANewConnectWithANewCount) {
  Node node(Node::Start::Stalled);
  Client client = StartWithClient(node.Line("SRV", "0 0 1"));
  for (int round = 0; round < 2; ++round) {
    const lumo::Message request = client.Send("SRV");
    agent_.Barrier();
    agent_.Tick();
    client.ExpectNothing();
    agent_.Tick();
    ExpectErrorNow(client, request, 4058, 0);
  }
}

TEST_F(TcpConnect, EachTickRepeatsTheConnect) {
  Node node(Node::Start::Stalled);
  agent_.Trace();
  Client client = StartWithClient(node.Line("SRV"));
  client.Send("SRV");
  agent_.Barrier();
  EXPECT_EQ(agent_.CountLogged(15, "lumo_tcp", "before connect()"), 1);
  EXPECT_EQ(agent_.CountLogged(15, "lumo_tcp", "before repeate connect()"), 0);
  agent_.Ticks(3);
  EXPECT_EQ(agent_.CountLogged(15, "lumo_tcp", "Connection \"SRV\" is in progress state."), 3);
  EXPECT_EQ(agent_.CountLogged(15, "lumo_tcp", "before repeate connect()"), 3);
  EXPECT_EQ(
      agent_.CountLogged(15, "lumo_tcp", "Connection \"SRV\" is already in progress. Call:connect"),
      3);
}

TEST_F(TcpConnect, WithoutATimeoutRequestsWaitUntilTheServerAnswersAndGoOutInOrder) {
  Node node(Node::Start::Stalled);
  agent_.LogLevel("1");
  Client client = StartWithClient(node.Line("SRV", "3 0 0"));
  std::vector<lumo::Message> requests;
  for (int i = 0; i < 6; ++i) requests.push_back(client.Send("SRV", std::to_string(i)));
  agent_.Barrier();
  agent_.Ticks(20);
  client.ExpectNothing();
  EXPECT_FALSE(agent_.Logged(1, "", "Link SRV connected"));
  node.Unstall();
  ASSERT_TRUE(node.Accept());
  EXPECT_EQ(node.ReadFrame(), ControlPacket({0, 3}));
  for (int i = 0; i < 6; ++i) EXPECT_EQ(node.ReadRequest()->Strings[0], std::to_string(i));
  for (const lumo::Message& request : requests) node.Answer(request);
  for (const lumo::Message& request : requests) client.ExpectAnswer(request);
  EXPECT_EQ(agent_.CountLogged(1, "", "Link SRV connected"), 1);
}

TEST_F(TcpConnect, ASlowServerDoesNotHoldUpTheOthers) {
  Node slow(Node::Start::Stalled);
  EchoNode quick;
  StartAgent(slow.Line("SLOW") + quick.Line("QUICK"));
  Client waiting(agent_), client(agent_);
  waiting.Send("SLOW");
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(client.Ask("QUICK", std::to_string(i)).Strings[0], std::to_string(i));
  }
  waiting.ExpectNothing();
}

TEST_F(TcpConnect, ARefusedConnectionGives4006WithItsError) {
  Node node(Node::Start::Bound);
  agent_.LogLevel("3");
  Client client = StartWithClient(node.Line("SRV"));
  client.ExpectError(client.Send("SRV"), 4006, ECONNREFUSED);
  EXPECT_TRUE(agent_.LogContains(
      "TCPIP.Asyncrounus connection failed. Call:getsockopt(SO_ERROR).Status 111. errno "));
  EXPECT_EQ(agent_.CountLogged(1, "", "Disconnect link  SRV"), 0);
  node.Listen();
  ExpectFirstExchange(client, client.Send("SRV"), node);
}

TEST_F(TcpConnect, AnAddressThatCannotBeReachedGives4006AtOnce) {
  const char kMulticast[] = "224.0.0.1";
  const int error = ConnectError(kMulticast, 1060);
  ASSERT_NE(error, 0);
  agent_.LogLevel("3");
  StartAgent("SRV TCPIP 224.0.0.1 1060 0 0 0\n");
  const int before = OpenDescriptors(agent_.Pid());
  Client client(agent_);
  client.ExpectError(client.Send("SRV"), 4006, error);
  EXPECT_EQ(
      agent_.CountLogged(3, "lumo_tcp",
                         "tcpip. connect(...) return bad status. errno = " + std::to_string(error)),
      1);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before + 1) << "the client's connection";
}

TEST_F(TcpConnect, WithoutADescriptorLeftTheCodeIs4001) {
  Node node;
  agent_.LogLevel("3").Limit(RLIMIT_NOFILE, 20);
  StartAgent(node.Line("SRV"));
  std::deque<Client> clients;
  while (OpenDescriptors(agent_.Pid()) < 20 && clients.size() < 20) clients.emplace_back(agent_);
  ASSERT_EQ(OpenDescriptors(agent_.Pid()), 20);
  Client& client = clients.back();
  client.ExpectError(client.Send("SRV"), 4001, EMFILE);
  EXPECT_EQ(agent_.CountLogged(3, "lumo_tcp",
                               "tcpip. Connect. socket(PF_INET..) return bad status. errno = 24"),
            1);
  clients.pop_front();
  agent_.Barrier();
  ExpectFirstExchange(client, client.Send("SRV"), node);
}

TEST_F(TcpConnect, ADescriptorAbove254IsRefusedWith4052AndClosed) {
  Node node;
  agent_.LogLevel("3").Limit(RLIMIT_NOFILE, 400);
  StartAgent(node.Line("SRV"));
  std::deque<Client> clients;
  while (DescriptorTarget(agent_.Pid(), 254).empty() && clients.size() < 260)
    clients.emplace_back(agent_);
  ASSERT_TRUE(DescriptorTarget(agent_.Pid(), 255).empty());
  const int before = OpenDescriptors(agent_.Pid());
  Client& client = clients.back();
  client.ExpectError(client.Send("SRV"), 4052, 0);
  EXPECT_EQ(agent_.CountLogged(3, "lumo_tcp",
                               "tcpip. Connect. socket(PF_INET..) return too big value = 255"),
            1);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
  EXPECT_FALSE(node.Connecting(Milliseconds(0)));
  clients.pop_front();  // a lower number is free again
  agent_.Barrier();
  ExpectFirstExchange(client, client.Send("SRV"), node);
}

TEST_F(TcpConnect, WithConnerrorARequestDoesNotWaitForTheConnection) {
  Node node(Node::Start::Stalled);
  agent_.Option("-CONNERROR");
  Client client = StartWithClient(node.Line("SRV"));
  client.ExpectError(client.Send("SRV"), 4006, EINPROGRESS);
  client.ExpectError(client.Send("SRV"), 4006, EINPROGRESS);
}

// The end

TEST_F(TcpDisconnect, AStopClosesTheConnectionAndAnswersWithoutACode) {
  ConnectedLink link("0 0 0");
  link.TakeFirstRequest();
  EXPECT_EQ(link.Agent.Stop(), 0);
  EXPECT_TRUE(link.Node.ReadEnd());
  link.Client->ExpectError(link.Pending, 0, 0);
}

TEST_F(TcpDisconnect, AStopWhileConnectingIsNotHeldUp) {
  Node node(Node::Start::Stalled);
  Client client = StartWithClient(node.Line("SRV"));
  const lumo::Message request = client.Send("SRV");
  agent_.Barrier();
  EXPECT_EQ(agent_.Stop(), 0);
  client.ExpectError(request, 0, 0);
}

TEST_F(TcpDisconnect, AResetConnectionGives4008WithItsError) {
  ConnectedLink link("0 0 0");
  link.TakeFirstRequest();
  link.Node.Reset();
  link.Client->ExpectError(link.Pending, 4008, ECONNRESET);
  EXPECT_EQ(
      link.Agent.CountLogged(
          3, "lumo_tcp", "TCPIP.Receive network message fail. Link \"SRV\". Call:recv. Errno 104"),
      1);
}

TEST_F(TcpDisconnect, NoDescriptorIsLostOverManyConnections) {
  ConnectedLink link("0 0 0");
  link.TakeFirstRequest();
  link.Node.Close();
  link.Client->ExpectError(link.Pending, 4009, 0);
  const int before = OpenDescriptors(link.Agent.Pid());
  for (int round = 0; round < 30; ++round) {
    const lumo::Message request = link.Client->Send("SRV");
    ASSERT_TRUE(link.Node.Accept());
    round % 2 ? link.Node.Reset() : link.Node.Close();
    const lumo::Message answer = link.Client->ExpectAnswer(request);
    EXPECT_TRUE(answer.CodErr == 4009 || answer.CodErr == 4008 || answer.CodErr == 4007 ||
                answer.CodErr == 4006)
        << answer.CodErr;
  }
  EXPECT_EQ(OpenDescriptors(link.Agent.Pid()), before);
}

}  // namespace
}  // namespace test
