// The byte stream between the agent and a database server: requests to the byte, answers and the
// requests that they belong to, packets of all lengths, and servers that stop in the middle.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <set>
#include <thread>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"
#include "tests/support/text.h"

namespace test {
namespace {

constexpr char kNotSent[] = "The message were not send by the agent. Skip the message";
constexpr char kBadFormat[] = "Network packet format is fail.";
constexpr std::size_t kLargestText = 8084;  // fills a packet of the largest length

// A packet with this length word and a body of that many zero bytes.
std::string PacketOf(std::uint32_t length) { return Bytes(length) + std::string(length, '\0'); }

const decltype(lumo::Message::Strings) kAnyStrings = {"odd", std::string("\0\xFF", 2), "",
                                                      "the fourth one"};

class TcpPackets : public AgentTest {
 protected:
  // An agent with the node SRV, connected, no request in flight.
  void StartConnected(const std::string& timeouts = "0 0 0", const std::string& moreNodes = {},
                      const char* logLevel = "3") {
    agent_.LogLevel(logLevel);
    client_.emplace(StartWithClient(node_.Line("SRV", timeouts) + moreNodes));
    const lumo::Message first = client_->Send("SRV", "first");
    ASSERT_TRUE(node_.Accept());
    if (timeouts != "0 0 0") {
      EXPECT_TRUE(node_.ReadControl());
    }
    ExpectExchange(*client_, first, node_);
  }
  lumo::Message Request(const std::string& text = "select") { return client_->Send("SRV", text); }
  void TakeRequest() { ASSERT_TRUE(node_.ReadRequest()); }
  // A request in flight, which the server has read.
  lumo::Message InFlight(const std::string& text = "select") {
    const lumo::Message request = Request(text);
    TakeRequest();
    return request;
  }
  void ExpectAnswered(const lumo::Message& request, const std::string& text = {},
                      const Place& place = Place::Here()) {
    test::ExpectAnswered(*client_, request, node_, request, text, place);
  }
  void ExpectUp(const Place& place = Place::Here()) {
    ExpectExchange(*client_, Request("still up?"), node_, "yes", place);
  }
  // With these bytes from the server the link goes down, and so it is told with this code.
  void ExpectDown(const std::string& bytes, int codErr, const Place& place = Place::Here()) {
    const lumo::Message request = InFlight();
    node_.SendBytes(bytes);
    client_->ExpectError(request, codErr, 0, place);
    EXPECT_TRUE(node_.ReadEnd());
    client_->ExpectNothing(place);
  }
  int NotSentLines() const { return agent_.CountLogged(2, "link", kNotSent); }

  Node node_;
  std::optional<Client> client_;
};

// Requests

TEST_F(TcpPackets, ARequestArrivesAsItIsWithItsMarkAndTheLinksDescriptor) {
  StartConnected("0 0 0", "", "15");
  const std::string log = agent_.Log(), mark = "REGISTER_SOCKET_FOR_THE_LINK ";
  const std::size_t at = log.find("|" + mark);
  ASSERT_NE(at, std::string::npos);
  const std::int32_t descriptor = std::atoi(log.c_str() + at + 1 + mark.size());
  EXPECT_EQ(DescriptorTarget(agent_.Pid(), descriptor).rfind("socket:", 0), 0u);

  lumo::Message request = FullMessage(*client_, "srv");
  request.Strings = kAnyStrings;
  client_->SendMessage(request);
  std::string expected = lumo::Encode(request, lumo::Lengths::Packet);
  const std::size_t trailer = expected.size() - 48;
  Overwrite(&expected, trailer + 4, descriptor);
  Overwrite(&expected, trailer + 46, std::uint8_t{3});
  EXPECT_EQ(node_.ReadFrame(), expected);
  EXPECT_EQ(expected.size(), 128u);
  EXPECT_EQ(expected.substr(0, 4), Bytes(std::uint32_t{124}));
}

TEST_F(TcpPackets, WhatFollowsTheTrailerOfARequestIsNotSentOn) {
  StartConnected();
  const lumo::Message request = client_->Request("SRV", "text");
  std::string frame = lumo::Encode(request, lumo::Lengths::Client) + "left over";
  Overwrite(&frame, 0, static_cast<std::uint32_t>(frame.size()));
  client_->SendBytes(frame);
  const std::optional<std::string> received = node_.ReadFrame();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->size(), lumo::EncodedSize(request));
}

TEST_F(TcpPackets, TheLargestRequestArrivesWhole) {
  StartConnected();
  const std::string text(lumo::kMaxMessage - lumo::kEmptyMessage, 'x');
  Request(text);
  EXPECT_EQ(node_.ExpectRequest().Strings[0], text);
}

// Answers

TEST_F(TcpPackets, AnAnswerArrivesAsItIsWithTheTaskNameOfItsTrailer) {
  StartConnected();
  const lumo::Message request = InFlight();
  lumo::Message answer = FullMessage(*client_, "srv");
  answer.Strings = kAnyStrings;
  answer.SetTrailerTaskName(request.TaskName);
  answer.SetAstInd(request.AstInd());
  answer.TaskName = 0x01020304;
  node_.SendMessage(answer);
  answer.TaskName = request.TaskName;
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(TcpPackets, WhatFollowsTheTrailerOfAnAnswerIsDropped) {
  StartConnected();
  const lumo::Message request = InFlight(), answer = AnswerTo(request, "text");
  std::string frame = lumo::Encode(answer, lumo::Lengths::Packet) + "left over";
  Overwrite(&frame, 0, static_cast<std::uint32_t>(frame.size() - 4));
  node_.SendBytes(frame);
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
  ExpectUp();
}

TEST_F(TcpPackets, BytesThatAnAnswerLacksCountAsZero) {
  StartConnected();
  const lumo::Message request = InFlight();
  lumo::Message answer = AnswerTo(request, "text");
  answer.Trailer.fill(0xEE);
  answer.SetTrailerTaskName(request.TaskName);
  answer.SetAstInd(request.AstInd());
  std::string frame = lumo::Encode(answer, lumo::Lengths::Packet);
  frame.resize(frame.size() - 30);
  Overwrite(&frame, 0, static_cast<std::uint32_t>(frame.size() - 4));
  node_.SendBytes(frame);
  std::fill(answer.Trailer.begin() + 18, answer.Trailer.end(), std::uint8_t{0});
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(TcpPackets, AnswersFindTheirRequestsInWhateverOrderTheyCome) {
  StartConnected();
  const lumo::Message a = InFlight("a"), b = InFlight("b"), c = InFlight("c");
  node_.Answer(b, "B");
  node_.Answer(c, "C");
  node_.Answer(a, "A");
  EXPECT_EQ(client_->ExpectAnswer(b).Strings[0], "B");
  EXPECT_EQ(client_->ExpectAnswer(c).Strings[0], "C");
  EXPECT_EQ(client_->ExpectAnswer(a).Strings[0], "A");
}

TEST_F(TcpPackets, TheSameTagOfTwoProcessesIsTwoRequests) {
  StartConnected();
  LivingProcess other;
  Client second(agent_, other.Pid());
  lumo::Message mine = client_->Request("SRV", "mine"), theirs = second.Request("SRV", "theirs");
  mine.SetAstInd(500);
  theirs.SetAstInd(500);
  client_->SendMessage(mine);
  TakeRequest();
  second.SendMessage(theirs);
  TakeRequest();
  test::ExpectAnswered(second, theirs, node_, theirs, "for them");
  client_->ExpectNothing();
  ExpectAnswered(mine, "for me");
}

TEST_F(TcpPackets, ASecondAnswerIsDropped) {
  StartConnected();
  const lumo::Message request = InFlight();
  node_.Answer(request, "one");
  node_.Answer(request, "two");
  EXPECT_EQ(client_->ExpectAnswer(request).Strings[0], "one");
  client_->ExpectNothing();
  EXPECT_EQ(NotSentLines(), 1);
  ExpectUp();
}

TEST_F(TcpPackets, AnAnswerThatNobodyAskedForIsDropped) {
  StartConnected();
  const lumo::Message request = InFlight();
  lumo::Message wrongTag = AnswerTo(request, ""), wrongTask = wrongTag;
  wrongTag.SetAstInd(static_cast<std::uint16_t>(request.AstInd() + 1));
  wrongTask.SetTrailerTaskName(request.TaskName + 1);
  node_.SendMessage(wrongTag);
  node_.SendMessage(wrongTask);
  client_->ExpectNothing();
  EXPECT_EQ(NotSentLines(), 2);
  ExpectAnswered(request, "right");
}

TEST_F(TcpPackets, AnAnswerAfterTheRequestWasAnsweredWithAnErrorIsDropped) {
  StartConnected();
  const lumo::Message late = InFlight();
  node_.Close();
  client_->ExpectError(late, 4009, 0);
  const lumo::Message next = Request("next");
  ASSERT_TRUE(node_.Accept());
  TakeRequest();
  node_.Answer(late, "too late");
  client_->ExpectNothing();
  EXPECT_EQ(NotSentLines(), 1);
  ExpectAnswered(next, "in time");
}

TEST_F(TcpPackets, AnAnswerOnAnotherLinkDoesNotCount) {
  Node other;
  StartConnected("0 0 0", other.Line("OTHER"));
  Client second(agent_);
  const lumo::Message theirs = second.Send("OTHER", "theirs");
  other.ExpectFirstRequest();
  const lumo::Message request = InFlight();
  ASSERT_EQ(theirs.TaskName, request.TaskName);
  ASSERT_NE(theirs.AstInd(), request.AstInd());
  other.Answer(request, "forged");
  client_->ExpectNothing();
  EXPECT_EQ(NotSentLines(), 1);
  ExpectAnswered(request, "true");
  test::ExpectAnswered(second, theirs, other, theirs, "true too");
}

// Lengths

TEST_F(TcpPackets, TheLargestPacketIsAccepted) {
  StartConnected();
  const lumo::Message request = InFlight(),
                      answer = AnswerTo(request, std::string(kLargestText, 'x'));
  const std::string frame = lumo::Encode(answer, lumo::Lengths::Packet);
  ASSERT_EQ(frame.substr(0, 4), Bytes(std::uint32_t{8188}));
  node_.SendBytes(frame);
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
  ExpectUp();
}

TEST_F(TcpPackets, OneByteMoreThanTheLargestPacketTakesTheLinkDown) {
  StartConnected();
  ExpectDown(Bytes(std::uint32_t{8189}), 4008);
  EXPECT_TRUE(agent_.Logged(
      3, "lumo_tcp", "TCPIP.Receive network is too long. Link \"SRV\". Call:recv. Len = 8189"));
}

TEST_F(TcpPackets, ALengthWithItsTopBitSetIsTooLong) {
  StartConnected();
  ExpectDown(Bytes(std::uint32_t{0xFFFFFFFF}), 4008);
  EXPECT_TRUE(agent_.Logged(
      3, "lumo_tcp", "TCPIP.Receive network is too long. Link \"SRV\". Call:recv. Len = -1"));
}

TEST_F(TcpPackets, ALengthOfZeroCountsAsAClosedConnection) {
  StartConnected();
  ExpectDown(Bytes(std::uint32_t{0}), 4009);
}

TEST_F(TcpPackets, PacketsOfEightBytesAreSwallowed) {
  StartConnected();
  const lumo::Message request = InFlight();
  node_.SendControl({0, 0});
  node_.SendControl({2, static_cast<std::uint32_t>(request.TaskName)});
  node_.SendControl({0xFFFFFFFF, 0xFFFFFFFF});
  client_->ExpectNothing();
  EXPECT_EQ(NotSentLines(), 0);
  ExpectAnswered(request, "x");
}

TEST_F(TcpPackets, PacketsTooShortForAMessageAreAnswersToNobody) {
  StartConnected();
  const lumo::Message request = InFlight();
  const std::uint32_t lengths[] = {1, 4, 7, 9, 47, 48, 49, 60};
  for (const std::uint32_t length : lengths) node_.SendBytes(PacketOf(length));
  client_->ExpectNothing();
  EXPECT_EQ(NotSentLines(), static_cast<int>(std::size(lengths)));
  ExpectAnswered(request, "x");
}

TEST_F(TcpPackets, AStringBeyondTheMessageTakesTheLinkDown) {
  for (const unsigned count : {8085U, 8187U, 65535U}) {
    Node node;
    Agent agent;
    agent.Nodetab(node.Line("SRV")).LogLevel("2");
    Client client = StartWithClient(agent);
    const lumo::Message request = client.Send("SRV");
    node.ExpectFirstRequest();
    std::string frame = lumo::Encode(AnswerTo(request, ""), lumo::Lengths::Packet);
    Overwrite(&frame, 52, static_cast<std::uint16_t>(count));
    node.SendBytes(frame);
    client.ExpectError(request, 4008, 0);
    EXPECT_TRUE(node.ReadEnd());
    EXPECT_EQ(agent.CountLogged(2, "link", kBadFormat), 1);
  }
}

TEST_F(TcpPackets, StringsThatTogetherLeaveTheMessageTakeTheLinkDown) {
  StartConnected();
  lumo::Message answer = AnswerTo(client_->Request("SRV"), std::string(4000, 'a'));
  answer.Strings[1] = std::string(4086, 'b');
  std::string frame = lumo::Encode(answer, lumo::Lengths::Packet);
  frame.resize(8192);
  Overwrite(&frame, 0, std::uint32_t{8188});
  ExpectDown(frame, 4008);
  EXPECT_EQ(agent_.CountLogged(2, "link", kBadFormat), 1);
}

// Pieces

TEST_F(TcpPackets, APacketMayComeByteByByte) {
  StartConnected();
  Client other(agent_);
  const lumo::Message request = InFlight();
  const lumo::Message answer = AnswerTo(request, "in pieces");
  const std::string frame = lumo::Encode(answer, lumo::Lengths::Packet);
  for (const char byte : frame.substr(0, frame.size() - 1)) {
    node_.SendBytes({&byte, 1});
    agent_.Barrier();
  }
  client_->ExpectNothing();
  node_.SendBytes({&frame.back(), 1});
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(TcpPackets, OthersAreServedWhileAPacketIsIncomplete) {
  EchoNode echo;
  StartConnected("0 0 0", echo.Line("ECHO"));
  const lumo::Message request = InFlight();
  const std::string frame = lumo::Encode(AnswerTo(request, "late"), lumo::Lengths::Packet);
  Client other(agent_);
  for (const std::size_t at : {2U, 50U}) {
    node_.SendBytes(frame.substr(at == 2 ? 0 : 2, at == 2 ? 2 : 48));
    EXPECT_EQ(other.Ask("ECHO", "x").Strings[0], "x");
  }
  // Requests on the very link go out meanwhile, too.
  const lumo::Message second = InFlight("second");
  node_.SendBytes(frame.substr(50));
  EXPECT_EQ(client_->ExpectAnswer(request).Strings[0], "late");
  ExpectAnswered(second);
}

TEST_F(TcpPackets, SeveralPacketsMayComeAtOnce) {
  StartConnected();
  std::vector<lumo::Message> requests;
  std::string all;
  for (int i = 0; i < 5; ++i) {
    requests.push_back(InFlight());
    all += lumo::Encode(AnswerTo(requests.back(), std::to_string(i)), lumo::Lengths::Packet);
    all += PacketOf(8);
  }
  node_.SendBytes(all);
  for (std::size_t i = 0; i < requests.size(); ++i)
    EXPECT_EQ(client_->ExpectAnswer(requests[i]).Strings[0], std::to_string(i));
}

TEST_F(TcpPackets, AServerThatClosesMidPacketGives4009ToAllWhoWait) {
  for (const std::size_t sent : {0U, 3U, 4U, 40U, 109U}) {
    Node node;
    Agent agent;
    agent.Nodetab(node.Line("SRV")).LogLevel("15");
    Client one = StartWithClient(agent), two(agent);
    const lumo::Message first = one.Send("SRV", "1");
    node.ExpectFirstRequest();
    const lumo::Message second = two.Send("SRV", "2");
    ASSERT_TRUE(node.ReadRequest());
    const std::string frame = lumo::Encode(AnswerTo(first, "x"), lumo::Lengths::Packet);
    ASSERT_GT(frame.size(), sent);
    node.SendBytes(frame.substr(0, sent));
    node.Close();
    one.ExpectError(first, 4009, 0);
    two.ExpectError(second, 4009, 0);
    EXPECT_EQ(agent.CountLogged(15, "lumo_tcp", "Connection \"SRV\" is broken. Call:recv"), 1);
    one.ExpectNothing();
    two.ExpectNothing();
  }
}

TEST_F(TcpPackets, ANewConnectionBeginsWithANewPacket) {
  StartConnected();
  const lumo::Message request = InFlight();
  node_.SendBytes(Bytes(std::uint32_t{200}) + "half a packet");
  agent_.Barrier();
  node_.Close();
  client_->ExpectError(request, 4009, 0);
  ExpectFirstExchange(*client_, Request(), node_, "whole");
}

// Clients that die

TEST_F(TcpPackets, TheDeathOfAClientIsToldToTheServersItUsed) {
  Node other, unused;
  StartConnected("0 0 0", other.Line("OTHER") + unused.Line("UNUSED"));
  client_->Send("UNUSED");
  unused.ExpectFirstRequest();
  LivingProcess process;
  const pid_t pid = process.Pid();
  Client dying(agent_, pid);
  dying.Send("SRV");
  TakeRequest();
  dying.Send("OTHER");
  other.ExpectFirstRequest();
  process.Kill();
  agent_.Tick();
  const std::string told = ControlPacket({2, static_cast<std::uint32_t>(pid)});
  EXPECT_EQ(other.ReadFrame(), told);
  EXPECT_EQ(node_.ReadFrame(), told);
  EXPECT_TRUE(unused.Silent(Milliseconds(0)));
  agent_.Ticks(2);
  EXPECT_TRUE(node_.Silent(Milliseconds(0))) << "told once";
  ExpectUp();
}

TEST_F(TcpPackets, AnAnswerToADeadClientIsDroppedAndItsDeathTold) {
  StartConnected();
  LivingProcess process;
  const pid_t pid = process.Pid();
  Client dying(agent_, pid);
  const lumo::Message request = dying.Send("SRV");
  TakeRequest();
  process.Kill();
  node_.Answer(request);
  EXPECT_EQ(node_.ReadControl(), (Control{2, static_cast<std::uint32_t>(pid)}));
  agent_.Barrier();
  EXPECT_TRUE(agent_.Logged(2, "clntxch", "The message wasn't send to client. Client is dead"));
  dying.ExpectNothing();
  ExpectUp();
}

TEST_F(TcpPackets, TheDeathOfAClientDoesNotConnectALinkThatIsDown) {
  LivingProcess process;  // first, so that it holds no copy of the connection
  StartConnected();
  Client dying(agent_, process.Pid());
  const lumo::Message request = dying.Send("SRV");
  TakeRequest();
  node_.Close();
  dying.ExpectError(request, 4009, 0);
  process.Kill();
  agent_.Tick();
  EXPECT_FALSE(node_.Connecting(Milliseconds(0)));
}

// Servers that do not read

// Sends large requests to SRV from a thread of its own; text number i begins with "i:".
class Flood {
 public:
  Flood(const Agent& agent, int count) : client_(agent) {
    const int small = 4096;
    setsockopt(client_.Connection().Socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    thread_ = std::thread([this, count] {
      for (; sent_ < count; ++sent_) {
        const lumo::Message request =
            client_.Request("SRV", std::to_string(sent_) + ":" + std::string(7000, 'f'));
        if (!client_.SendMessage(request)) return;
      }
    });
  }
  ~Flood() {
    shutdown(client_.Connection().Socket(), SHUT_RDWR);  // ends a send that nobody takes
    Finish();
  }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;
  int Sent() const { return sent_; }
  void Finish() {
    if (thread_.joinable()) thread_.join();
  }
  // All has been handed over: the answers may be read.
  Client& AfterFinish() {
    Finish();
    return client_;
  }
  // No request could be handed over for a while.
  bool Stands() const {
    int last = -1;
    return WaitFor([&] {
      const int before = std::exchange(last, sent_);
      std::this_thread::sleep_for(Milliseconds(30));
      return before == sent_;
    });
  }

 private:
  Client client_;
  std::atomic<int> sent_{0};
  std::thread thread_;
};

class TcpStall : public TcpPackets {
 protected:
  static constexpr int kFlood = 70;  // of 7 kB: more than all buffers between take
  void StartWithSlowServer(const std::string& timeouts = "0 0 0",
                           const std::string& moreNodes = {}) {
    agent_.Environment("LUMO_LINK_BUFFER", "0");  // a link that is soon full
    StartConnected(timeouts, moreNodes);
    const int small = 32768;
    setsockopt(node_.Socket(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  }
  // Reads the whole flood in its order; control packets between are collected, a request "short"
  // is passed over.
  std::vector<Control> ReadFlood() {
    std::vector<Control> controls;
    for (int i = 0; i < kFlood;) {
      const int on = 1;
      setsockopt(node_.Socket(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
      const std::optional<std::string> frame = node_.ReadFrame();
      if (!frame) {
        ADD_FAILURE() << "the stream ends at request " << i;
        break;
      }
      if (frame->size() == 12) {
        controls.push_back(ValueAt<Control>(*frame, 4));
        continue;
      }
      const std::optional<lumo::Message> request = lumo::Decode(*frame);
      if (request && request->Strings[0] == "short") continue;
      if (!request || request->Strings[0].rfind(std::to_string(i) + ":", 0) != 0) {
        ADD_FAILURE() << "not request " << i;
        break;
      }
      EXPECT_EQ(request->Strings[0].size(), 7001 + std::to_string(i).size());
      ++i;
    }
    return controls;
  }
};

TEST_F(TcpStall, OthersAreServedWhileAServerDoesNotRead) {
  EchoNode echo;
  StartWithSlowServer("0 0 0", echo.Line("ECHO"));
  Flood flood(agent_, kFlood);
  EXPECT_TRUE(flood.Stands());
  EXPECT_LT(flood.Sent(), kFlood);
  Client other(agent_);
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(other.Ask("ECHO", std::to_string(i)).Strings[0], std::to_string(i));
  EXPECT_TRUE(ReadFlood().empty());
}

TEST_F(TcpStall, ItsAnswersAreStillTaken) {
  StartWithSlowServer();
  const lumo::Message request = InFlight("early");
  Flood flood(agent_, kFlood);
  EXPECT_TRUE(flood.Stands());
  ExpectAnswered(request, "answered");
  ReadFlood();
}

TEST_F(TcpStall, AControlPacketNeverCutsARequestInTwo) {
  LivingProcess process;
  const pid_t pid = process.Pid();
  StartWithSlowServer("1 0 0");
  Flood flood(agent_, kFlood);
  EXPECT_TRUE(flood.Stands());
  Client dying(agent_, pid);
  dying.Send("SRV", "short");
  agent_.Barrier();
  process.Kill();
  agent_.Ticks(12);
  const std::vector<Control> controls = ReadFlood();
  ASSERT_EQ(controls.size(), 2u);
  EXPECT_EQ(controls[0], (Control{2, static_cast<std::uint32_t>(pid)}));
  EXPECT_EQ(controls[1], (Control{1, 0}));
}

TEST_F(TcpStall, WhenTheServerGivesUpEachRequestIsAnsweredOnce) {
  StartWithSlowServer();
  Flood flood(agent_, kFlood);
  EXPECT_TRUE(flood.Stands());
  node_.StopListening();  // what follows is refused
  node_.Reset();
  std::set<std::uint16_t> answered;
  for (int i = 0; i < kFlood; ++i) {
    const std::optional<lumo::Message> answer = flood.AfterFinish().Receive();
    ASSERT_TRUE(answer) << "after " << i << " answers";
    EXPECT_TRUE(answered.insert(answer->AstInd()).second) << "twice: " << answer->AstInd();
    EXPECT_TRUE(answer->CodErr == 4006 || answer->CodErr == 4007 || answer->CodErr == 4008)
        << answer->CodErr;
  }
  flood.AfterFinish().ExpectNothing();
}

TEST_F(TcpStall, AServerThatNeverStopsSendingDoesNotStopTheOthers) {
  EchoNode echo;
  // With its trace on the agent is slower than the server: there is always more to read.
  StartConnected("0 0 0", echo.Line("ECHO"), "15");
  Client other(agent_);
  other.Ask("ECHO", "connect");
  std::atomic<bool> enough = false;
  std::atomic<int> rounds = 0;
  // What is on its way when it stops is to be served in time, also by a busy machine.
  const int little = 32768;
  setsockopt(node_.Socket(), SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
  std::string packets;
  for (int i = 0; i < 5000; ++i) packets += PacketOf(8);
  std::thread sender([&] {
    while (!enough && node_.SendBytes(packets)) ++rounds;
  });
  EXPECT_TRUE(WaitFor([&] { return rounds > 0; }));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(other.Ask("ECHO", "x").Strings[0], "x");
  agent_.Signal(SIGALRM);  // not Tick(): the agent never rests
  agent_.Barrier();
  enough = true;
  sender.join();
  ExpectUp();
}

}  // namespace
}  // namespace test
