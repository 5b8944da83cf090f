// No peer can stall the agent: clients and nodes that stop in the middle, more connections than
// there are descriptors, and a stop while somebody does not read.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <deque>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/agent_test.h"
#include "tests/support/management.h"
#include "tests/support/node.h"
#include "tests/support/process.h"
#include "tests/support/text.h"

namespace test {
namespace {

constexpr std::size_t kLargest = 8188;
const std::string kLongText(8080, 't');  // makes a request of the largest size
constexpr char kNotRead[] = "Send to client fail. Call:send. errno 105";
constexpr char kAcceptFailed[] = "Call accept has failed. Errno 24";

// Sends as much as the peer takes now; the bytes that went.
std::size_t SendNow(int socket, std::string_view bytes) {
  const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

// The test itself may need more descriptors than it was started with.
bool AllowDescriptors(rlim_t count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur >= count) return true;
  limit.rlim_cur = count;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

class Stalls : public AgentTest {
 protected:
  // The agent serves somebody else, whose tag nobody uses.
  void ExpectServed() {
    Client other(agent_);
    lumo::Message request = other.Request("SRV", "still there");
    request.SetAstInd(0xE000);
    other.SendMessage(request);
    EXPECT_EQ(other.ExpectAnswer(request).Strings[0], "still there");
  }
  std::size_t Traced(const std::string& text) const { return Count(agent_.Log(), text); }
  // Large requests: the agent has their answers, and the client has not read one.
  std::vector<lumo::Message> LeaveUnread(Client& client, int count) {
    const int all = echo_.Served() + count;
    std::vector<lumo::Message> requests;
    for (int i = 0; i < count; ++i)
      requests.push_back(client.Send("SRV", std::to_string(i) + kLongText.substr(10)));
    EXPECT_TRUE(WaitFor([&] { return echo_.Served() == all; }));
    agent_.Barrier();
    return requests;
  }

  EchoNode echo_;  // SRV
};

// Half frames

TEST_F(Stalls, ARequestThatComesByteByByteHoldsNobodyUp) {
  Client slow = StartWithClient(echo_.Line("SRV"));
  const lumo::Message request = slow.Request("SRV", "slow");
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  for (std::size_t i = 0; i < frame.size(); ++i) {
    slow.SendBytes(frame.substr(i, 1));
    if (i % 20 == 3) ExpectServed();
  }
  EXPECT_EQ(slow.ExpectAnswer(request).Strings[0], "slow");
}

TEST_F(Stalls, HalvesOfManyClientsArePutTogetherEachForItself) {
  StartAgent(echo_.Line("SRV"));
  std::deque<Client> clients;
  std::vector<lumo::Message> requests;
  for (std::size_t i = 0; i < 12; ++i) {
    Client& client = clients.emplace_back(agent_);
    requests.push_back(client.Request("SRV", std::string(100 * i, static_cast<char>('a' + i))));
    const std::string frame = lumo::Encode(requests[i], lumo::Lengths::Client);
    client.SendBytes(frame.substr(0, 2 + frame.size() * i / 12));
  }
  agent_.Barrier();
  for (std::size_t i = 0; i < 12; ++i) {
    const std::string frame = lumo::Encode(requests[i], lumo::Lengths::Client);
    clients[i].SendBytes(frame.substr(2 + frame.size() * i / 12));
    EXPECT_EQ(clients[i].ExpectAnswer(requests[i]).Strings[0], requests[i].Strings[0]);
  }
}

TEST_F(Stalls, AnAnswerThatStopsInTheMiddleHoldsNobodyUp) {
  Node slow;
  Client client = StartWithClient(slow.Line("SLOW") + echo_.Line("SRV"));
  const lumo::Message request = client.Send("SLOW");
  const auto received = slow.ExpectFirstRequest();
  const std::string packet = lumo::Encode(AnswerTo(received, "row"), lumo::Lengths::Packet);
  for (const std::size_t part : {std::size_t{2}, std::size_t{60}}) {
    slow.SendBytes(packet.substr(part == 2 ? 0 : 2, part == 2 ? 2 : part - 2));
    ExpectServed();
    client.ExpectNothing();
  }
  slow.SendBytes(packet.substr(60));
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "row");
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Stalls, TheWatchdogRunsWhileAPacketIsIncomplete) {
  Node node;
  Client client = StartWithClient(node.Line("SRV", "0 4 0"));
  const lumo::Message request = client.Send("SRV");
  ASSERT_TRUE(node.Accept());
  EXPECT_EQ(node.ReadControl(), (Control{1, 0x00045555}));
  const auto received = node.ExpectRequest();
  const std::string packet = lumo::Encode(AnswerTo(received, "row"), lumo::Lengths::Packet);
  agent_.Ticks(2);
  node.SendBytes(packet.substr(0, packet.size() - 1));
  agent_.Barrier();
  agent_.Ticks(1);
  client.ExpectNothing();
  agent_.Tick();  // the fourth: a part of a packet does not wind the watchdog up
  client.ExpectError(request, 4065, 0);
}

// A node that never stops sending

class FloodedNode : public Stalls {
 protected:
  void SetUp() override {
    Client client = StartWithClient(node_.Line("SRV"));
    client.Send("SRV");
    node_.ExpectFirstRequest();
    thread_ = std::thread([this] {
      std::string packets;
      for (int i = 0; i < 5000; ++i) packets += ControlPacket({1, 0});
      while (!over_ && node_.SendBytes(packets)) continue;
    });
  }
  void TearDown() override {
    over_ = true;
    if (agent_.Running()) agent_.Kill();  // ends a send that is under way
    if (thread_.joinable()) thread_.join();
  }

  Node node_;
  std::thread thread_;
  std::atomic<bool> over_{false};
};

TEST_F(FloodedNode, DoesNotKeepTheClientsFromBeingServed) {
  Client client(agent_);
  for (int i = 0; i < 5; ++i) {
    const lumo::Answer one = lumo::AnswerOne(client.Connection());
    ASSERT_TRUE(one) << "the agent serves nobody else";
    EXPECT_EQ(one->Result, 1);
  }
  over_ = true;
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(FloodedNode, DoesNotHoldUpTheStop) { EXPECT_EQ(agent_.Stop(), 0); }

TEST_F(Stalls, ALinkThatHasMuchToDeliverIsLeftForAPass) {
  Node node;
  agent_.Trace();
  Client client = StartWithClient(node.Line("SRV"));
  ExpectFirstExchange(client, client.Send("SRV"), node);

  Freeze(agent_.Pid());
  const std::size_t before = Traced("'TcpReadyForRead' Call from");
  for (int i = 0; i < 1200; ++i) node.SendControl({1, 0});
  const lumo::Message other = client.Send("NOBODY");
  Thaw(agent_.Pid());
  client.ExpectError(other, 4050, 0);
  const std::string log = agent_.Log();
  const std::string first = log.substr(0, log.find("|    CBL.Node=NOBODY"));
  const std::size_t inARow = Count(first, "'TcpReadyForRead' Call from") - before;
  EXPECT_LE(inARow, 512u) << "256 in a row, and as many again at its turn in the pass";
  EXPECT_TRUE(WaitFor([&] { return Traced("'TcpReadyForRead' Call from") >= before + 1200; }));
}

// Two nodes; the second one, whose descriptor is the higher, floods.
class FloodBesideAnswers : public Stalls {
 protected:
  // What the agent did with each wait, from the flood on: how often a word stands in the trace.
  std::vector<std::size_t> InEachPass(const std::string& word) const {
    std::vector<std::size_t> counts;
    std::string rest = agent_.Log().substr(begin_);
    while (!rest.empty()) {
      const std::size_t end = rest.find("|select return ", 1);
      counts.push_back(Count(rest.substr(0, end), word));
      rest.erase(0, end);
    }
    return counts;
  }
  void SetUp() override {
    agent_.Trace();
    client_.emplace(StartWithClient(node_.Line("SRV") + flood_.Line("FLOOD")));
    ExpectFirstExchange(*client_, client_->Send("SRV"), node_);
    ExpectFirstExchange(*client_, client_->Send("FLOOD"), flood_);
    for (int i = 0; i < 5; ++i) requests_.push_back(client_->Send("SRV"));
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(node_.ReadRequest());
    agent_.Barrier();
    Freeze(agent_.Pid());
    begin_ = agent_.Log().size();
    for (int i = 0; i < 600; ++i) flood_.SendControl({1, 0});
    for (const lumo::Message& request : requests_) node_.Answer(request);
    Thaw(agent_.Pid());
    for (const lumo::Message& request : requests_) client_->ExpectAnswer(request);
    EXPECT_TRUE(WaitFor([&] { return Traced("'TcpReadyForRead' Call from") >= 607; }));
  }

  Node node_, flood_;
  std::optional<Client> client_;
  std::vector<lumo::Message> requests_;
  std::size_t begin_ = 0;
};

TEST_F(FloodBesideAnswers, ItsTurnsBecomeShort) {
  std::size_t read = 0;
  for (const std::size_t count : InEachPass("'TcpReadyForRead' Call from")) {
    if (read >= 256) {
      EXPECT_LE(count, 8u + requests_.size());
    }
    read += count;
  }
  EXPECT_GE(read, 600 + requests_.size());
}

TEST_F(FloodBesideAnswers, TheAnswersOfOthersAreNotHandedOutOneByOne) {
  const std::vector<std::size_t> answers = InEachPass("Need put the message to client");
  EXPECT_GE(*std::max_element(answers.begin(), answers.end()), 4u);
}

// Clients that do not read

TEST_F(Stalls, AClientThatNeverReadsIsClosedAtOneMebibyte) {
  agent_.LogLevel("2");
  Client deaf = StartWithClient(echo_.Line("SRV"));
  const lumo::Message request = deaf.Request("SRV", kLongText);
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  ASSERT_EQ(frame.size(), kLargest);
  int sent = 0;
  while (sent < 2000 && deaf.SendBytes(frame)) ++sent;
  EXPECT_LT(sent, 2000) << "the connection is still open";
  EXPECT_GT(static_cast<std::size_t>(sent) * kLargest, 1024u * 1024);
  EXPECT_TRUE(agent_.WaitForLog(kNotRead));
  ExpectServed();
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kNotRead), 1);
}

TEST_F(Stalls, AClientThatReadsLateGetsAllItsAnswersInOrder) {
  Client late = StartWithClient(echo_.Line("SRV"));
  // Less than a mebibyte, more than the system keeps.
  const std::vector<lumo::Message> requests = LeaveUnread(late, 100);
  ExpectServed();
  for (const lumo::Message& request : requests)
    ASSERT_EQ(late.ExpectAnswer(request).Strings[0], request.Strings[0]);
  EXPECT_EQ(late.Ask("SRV", "on").Strings[0], "on");
}

TEST_F(Stalls, AClientThatHangsUpWithAnswersUnsentIsFreed) {
  agent_.LogLevel("2");
  StartAgent(echo_.Line("SRV"));
  std::optional<Client> deaf(std::in_place, agent_);
  ExpectServed();
  agent_.Barrier();
  const int before = OpenDescriptors(agent_.Pid());
  LeaveUnread(*deaf, 80);
  deaf.reset();
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors(agent_.Pid()) == before - 1; }));
  ExpectServed();
}

// Nodes that do not read

// A node that reads nothing, and clients that send as much as they can.
class DeafNode : public Stalls {
 protected:
  void SetUp() override {
    agent_.Trace();
    agent_.Environment("LUMO_LINK_BUFFER", "0");  // a link that is soon full
    client_.emplace(StartWithClient(node_.Line("DEAF") + echo_.Line("SRV")));
    client_->Send("DEAF");
    node_.ExpectFirstRequest();
  }
  // Sends the same request until nobody takes any more; how many were sent whole.
  int SendMany(Client& client, int most) {
    const std::string frame =
        lumo::Encode(client.Request("DEAF", kLongText), lumo::Lengths::Client);
    int sent = 0;
    for (int idle = 0; sent < most && idle < 3;) {
      const std::size_t taken = SendNow(client.Connection().Socket(), frame);
      if (taken == frame.size()) {
        ++sent;
        idle = 0;
        continue;
      }
      agent_.Barrier();
      ++idle;
      if (taken > 0) client.SendBytes(std::string_view(frame).substr(taken));
      if (taken > 0) ++sent;
    }
    return sent;
  }
  std::size_t ForwardedRequests() const {
    return Traced("|Need write 8188 bytes for link \"DEAF\"\n");
  }

  Node node_;
  std::optional<Client> client_;
};

TEST_F(DeafNode, ItsClientsAreParkedAndTheOthersServed) {
  constexpr int kTooMany = 2000;
  // Else the system looks now and then whether the node's buffer has room, and finds some for more.
  constexpr int kLeast = 1;
  ASSERT_EQ(setsockopt(node_.Socket(), SOL_SOCKET, SO_RCVBUF, &kLeast, sizeof kLeast), 0);
  const int sent = SendMany(*client_, kTooMany);
  EXPECT_LT(sent, kTooMany) << "the agent takes whatever comes";
  // What it had read ahead is served one request a pass.
  std::size_t forwarded = 0;
  while (forwarded != ForwardedRequests()) {
    forwarded = ForwardedRequests();
    for (int pass = 0; pass < 20; ++pass) agent_.Barrier();
  }
  EXPECT_GT(forwarded * kLargest, 64u * 1024);
  EXPECT_LT(forwarded, static_cast<std::size_t>(sent));
  ExpectServed();
  agent_.Tick();
  EXPECT_EQ(ForwardedRequests(), forwarded) << "nothing more is read of that client";
}

TEST_F(DeafNode, GetsEverythingInOrderOnceItReads) {
  const int sent = SendMany(*client_, 2000);
  std::uint16_t tag = 0;
  for (int i = 0; i < sent; ++i) {
    const auto request = node_.ReadRequest();
    ASSERT_TRUE(request) << "request " << i << " of " << sent;
    ASSERT_EQ(request->Strings[0].size(), kLongText.size());
    tag = request->AstInd();
  }
  agent_.Barrier();
  EXPECT_TRUE(node_.Silent(Milliseconds(0)));
  const lumo::Message last = client_->Send("DEAF", "after");
  EXPECT_EQ(last.AstInd(), tag + 1);
  ExpectExchange(*client_, last, node_, "row");
}

TEST_F(DeafNode, WritingOnIsNoConnecting) {
  const int sent = SendMany(*client_, 2000);
  ASSERT_GT(sent, 0);
  const std::size_t before = Traced("'TcpReadyForWrite' Call from");
  for (int i = 0; i < sent; ++i) ASSERT_TRUE(node_.ReadRequest());
  agent_.Barrier();
  EXPECT_EQ(Traced("'TcpReadyForWrite' Call from"), before);
  EXPECT_EQ(agent_.CountLogged(1, "", "Link DEAF connected"), 1);
}

TEST_F(DeafNode, ThatGoesAwayReleasesItsClients) {
  SendMany(*client_, 2000);
  const std::size_t forwarded = ForwardedRequests();
  node_.StopListening();
  node_.Reset();
  // All that was sent is answered with an error, the parked requests included.
  ASSERT_TRUE(agent_.WaitForLog("Disconnect link  DEAF"));
  std::optional<lumo::Message> answer;
  std::size_t answers = 0;
  while (answers <= forwarded && (answer = client_->Receive())) {
    ++answers;
    EXPECT_NE(answer->CodErr, 0);
  }
  EXPECT_GT(answers, forwarded);
  ExpectServed();
}

TEST_F(DeafNode, DoesNotHoldUpTheStop) {
  SendMany(*client_, 2000);
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_LT(Clock::now() - begin, Milliseconds(5000));
}

// A node that reads everything and answers nothing: what the agent notes of each request in flight
// is bounded, too.
TEST_F(Stalls, AConnectionMayHaveAsManyRequestsInFlightAsThereAreTags) {
  constexpr int kTags = 65536, kTogether = 64;
  Node node;
  agent_.LogLevel("0");  // the trace of so many takes minutes on a busy machine
  Client client = StartWithClient(node.Line("MUTE") + echo_.Line("SRV"));
  lumo::Message request = client.Request("MUTE");
  std::string frames;
  for (int i = 0; i < kTogether; ++i) frames += lumo::Encode(request, lumo::Lengths::Client);
  client.SendBytes(frames);
  ASSERT_TRUE(node.Accept());
  for (int sent = kTogether; sent < kTags; sent += kTogether) {
    ASSERT_TRUE(client.SendBytes(frames));
    for (int i = 0; i < kTogether; ++i) ASSERT_TRUE(node.ReadFrame());
  }
  for (int i = 0; i < kTogether; ++i) ASSERT_TRUE(node.ReadFrame());
  request.SetAstInd(2);
  client.SendMessage(request);
  ExpectServed();
  agent_.Tick();
  EXPECT_TRUE(node.Silent(Milliseconds(0)));
  // One answer makes room for one request.
  request.SetAstInd(1);
  ExpectAnswered(client, request, node, request);
  EXPECT_EQ(node.ExpectRequest().AstInd(), 2);
}

// Requests that wait for a link

class SlowConnection : public Stalls {
 protected:
  void SetUp() override {
    agent_.Trace();
    StartAgent(node_.Line("SRV"));
    node_.Stall();
  }
  std::size_t Saved() const { return Traced("|'SaveUnsendMsg' Call from"); }
  // So many are saved, and no more follow.
  void ExpectSaved(std::size_t count) {
    EXPECT_TRUE(WaitFor([&] { return Saved() >= count; }));
    for (int i = 0; i < 3; ++i) agent_.Barrier();
    EXPECT_EQ(Saved(), count);
  }

  Node node_;
};

TEST_F(SlowConnection, AConnectionMayHave32RequestsWaiting) {
  Client eager(agent_), other(agent_);
  for (int i = 0; i < 40; ++i) eager.Send("SRV", std::to_string(i));
  ExpectSaved(32);
  other.Send("SRV", "other");
  ExpectSaved(33);
  agent_.Tick();
  ExpectSaved(33);

  node_.Unstall();
  agent_.Tick();
  ASSERT_TRUE(node_.Accept());
  std::vector<std::string> texts, expected;
  for (int i = 0; i < 41; ++i) {
    const auto request = node_.ExpectRequest();
    texts.push_back(request.Strings[0]);
    expected.push_back(std::to_string(i < 32 ? i : i - 1));
  }
  expected[32] = "other";
  EXPECT_EQ(texts, expected);
}

TEST_F(SlowConnection, AParkedClientThatHangsUpIsNoticedWithinATick) {
  std::optional<Client> eager(std::in_place, agent_);
  for (int i = 0; i < 33; ++i) eager->Send("SRV");
  ExpectSaved(32);
  const int before = OpenDescriptors(agent_.Pid());
  eager.reset();
  agent_.Tick();
  EXPECT_TRUE(WaitFor([&] { return OpenDescriptors(agent_.Pid()) == before - 1; }));
  node_.Unstall();
  agent_.Tick();
  ASSERT_TRUE(node_.Accept());
  for (int i = 0; i < 32; ++i) ASSERT_TRUE(node_.ReadRequest()) << "what was read goes on";
}

TEST_F(SlowConnection, ParkedClientsDoNotHoldUpTheStop) {
  Client eager(agent_);
  for (int i = 0; i < 40; ++i) eager.Send("SRV");
  ExpectSaved(32);
  EXPECT_EQ(agent_.Stop(), 0);
}

// Stopping

TEST_F(Stalls, AClientThatNeverReadsHoldsTheStopUpForASecondAtMost) {
  Client deaf = StartWithClient(echo_.Line("SRV"));
  LeaveUnread(deaf, 100);
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_LT(Clock::now() - begin, Milliseconds(3000));
}

TEST_F(Stalls, AnswersThatAClientHasNotTakenYetAreGivenToItAtTheStop) {
  Client late = StartWithClient(echo_.Line("SRV"));
  const std::vector<lumo::Message> requests = LeaveUnread(late, 100);
  agent_.Signal(SIGTERM);
  for (const lumo::Message& request : requests) late.ExpectAnswer(request);
  late.ExpectClosed();
  EXPECT_EQ(agent_.Wait(), 0);
}

TEST_F(Stalls, RequestsUnderWayAreAnsweredAtTheStop) {
  Node node;
  Client client = StartWithClient(node.Line("SRV"));
  const lumo::Message request = client.Send("SRV");
  node.ExpectFirstRequest();
  agent_.Signal(SIGTERM);
  client.ExpectError(request, 0, 0);
  EXPECT_EQ(agent_.Wait(), 0);
}

// Descriptors

// More connections than one wants to name.
class ManyConnections : public Stalls {
 protected:
  ~ManyConnections() override {
    for (const int fd : connections_) close(fd);
  }
  // Connects; false when the agent closes the connection instead of greeting.
  bool Greeted() {
    const int fd = ConnectRaw(agent_.SocketPath());
    if (fd < 0) return false;
    connections_.push_back(fd);
    return ReadRaw(fd, 60).size() == 60;
  }
  void CloseLast() {
    close(connections_.back());
    connections_.pop_back();
  }
  bool Open(int count) {
    for (int i = 0; i < count; ++i)
      if (!Greeted()) return false;
    return true;
  }
  std::vector<int> connections_;
};

TEST_F(ManyConnections, ClientsAbove254AreServed) {
  ASSERT_TRUE(AllowDescriptors(1000));
  agent_.Limit(RLIMIT_NOFILE, 1024);
  StartAgent(echo_.Line("SRV"));
  ExpectServed();
  ASSERT_TRUE(Open(300));
  Client last(agent_);
  ASSERT_GE(OpenDescriptors(agent_.Pid()), 300);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(last.Ask("SRV", "above").Strings[0], "above");
  const lumo::Answer one = lumo::AnswerOne(last.Connection());
  ASSERT_TRUE(one);
  EXPECT_EQ(one->Result, 1);
}

TEST_F(ManyConnections, AHangUpAbove254IsNoticed) {
  ASSERT_TRUE(AllowDescriptors(1000));
  agent_.Limit(RLIMIT_NOFILE, 1024);
  StartAgent("NOWHERE REZ\n");
  ASSERT_TRUE(Open(300));
  agent_.Barrier();
  const int before = OpenDescriptors(agent_.Pid());
  CloseLast();
  agent_.Barrier();
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before - 1);
}

TEST_F(ManyConnections, DescriptorsThatNoSetHoldsAreClosedAtOnce) {
  ASSERT_TRUE(AllowDescriptors(1300)) << "the test needs as many descriptors";
  agent_.LogLevel("2").Limit(RLIMIT_NOFILE, 1200);
  StartAgent("NOWHERE REZ\n");
  int greeted = 0;
  while (greeted < 1100 && Greeted()) ++greeted;
  EXPECT_LT(greeted, 1024);
  EXPECT_GT(greeted, 1000);
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kAcceptFailed), 1);
  EXPECT_FALSE(Greeted());
  agent_.Barrier();
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kAcceptFailed), 2);
  EXPECT_LE(OpenDescriptors(agent_.Pid()), 1024);
  CloseLast();
  CloseLast();
  CloseLast();  // the last one that was greeted
  agent_.Barrier();
  EXPECT_TRUE(Greeted()) << "there is room again";
}

class FewDescriptors : public ManyConnections {
 protected:
  void SetUp() override {
    agent_.LogLevel("2").Limit(RLIMIT_NOFILE, 16);
    StartAgent("NOWHERE REZ\n");
    while (connections_.size() < 20 && Greeted()) continue;
    ASSERT_LT(connections_.size(), 16u);
    agent_.Barrier();
  }
  // A sanitizer's last look at the process needs descriptors too.
  void StopWithRoom() {
    while (!connections_.empty()) CloseLast();
    agent_.Barrier();
    EXPECT_EQ(agent_.Stop(), 0);
  }
  int Failures() const { return agent_.CountLogged(2, "clntxch", kAcceptFailed); }
};

TEST_F(FewDescriptors, AConnectionTooManyIsClosedAndReported) {
  EXPECT_EQ(Failures(), 1);
  for (int more = 2; more < 6; ++more) {
    EXPECT_FALSE(Greeted());
    agent_.Barrier();
    EXPECT_EQ(Failures(), more);
  }
  StopWithRoom();
}

TEST_F(FewDescriptors, TheLoopDoesNotSpin) {
  for (int i = 0; i < 5; ++i) agent_.Barrier();
  EXPECT_EQ(Failures(), 1) << "a connection left in the queue would fail in each pass";
  StopWithRoom();
}

TEST_F(FewDescriptors, ConnectionsAreTakenAgainOnceThereIsRoom) {
  CloseLast();  // the one that was refused
  CloseLast();
  agent_.Barrier();
  EXPECT_TRUE(Greeted());
  EXPECT_FALSE(Greeted());
  agent_.Barrier();
  EXPECT_EQ(Failures(), 2);
  StopWithRoom();
}

TEST_F(FewDescriptors, TheClientsThatAreConnectedAreServed) {
  const std::string frame = lumo::Encode(lumo::ManagementRequest(102), lumo::Lengths::Client);
  ASSERT_EQ(send(connections_[0], frame.data(), frame.size(), 0),
            static_cast<ssize_t>(frame.size()));
  EXPECT_EQ(ReadRaw(connections_[0], 108).size(), 108u);
  StopWithRoom();
}

}  // namespace
}  // namespace test
