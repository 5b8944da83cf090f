// Client messages as they go over real connections: their bytes, their bounds, and what becomes of
// answers whose client is gone.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/process.h"
#include "tests/support/text.h"

namespace test {
namespace {

using ClientTimeout = AgentTest;

constexpr std::size_t kMarkInTrailer = 46, kSocketInTrailer = 4, kTrailerSize = 48;
constexpr char kSkipped[] = "The message were not send by the agent. Skip the message";
constexpr char kDead[] = "The message wasn't send to client. Client is dead";

std::string LengthWord(std::uint32_t length) { return Bytes(length); }

// What the node must receive: the packet's length, and the agent's own marks in the trailer, of
// which the link's descriptor is taken as it came.
std::string PacketOf(const lumo::Message& request, const std::string& received) {
  std::string packet = lumo::Encode(request, lumo::Lengths::Packet);
  const std::size_t trailer = packet.size() - kTrailerSize;
  packet[trailer + kMarkInTrailer] = 3;
  if (received.size() == packet.size())
    packet.replace(trailer + kSocketInTrailer, 4, received, trailer + kSocketInTrailer, 4);
  return packet;
}

// An agent with one connected node, and a client.
class ClientMessages : public AgentTest {
 protected:
  void SetUp() override {
    agent_.LogLevel("2");
    client_.emplace(StartWithClient(node_.Line("SRV")));
    ExpectFirstExchange(*client_, client_->Send("SRV", "first"), node_);
  }

  // The message reaches the node, byte for byte.
  void ExpectAtNode(const lumo::Message& request) {
    const std::optional<std::string> received = node_.ReadFrame();
    ASSERT_TRUE(received);
    EXPECT_EQ(*received, PacketOf(request, *received));
  }
  // Of the request the client sends its task and its node alone, and so much reaches the node.
  void ExpectShortened(const lumo::Message& request) {
    const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
    client_->SendBytes(LengthWord(32) + frame.substr(4, 28));
    lumo::Message expected;
    expected.TaskName = request.TaskName;
    expected.Node = request.Node;
    ExpectAtNode(expected);
  }
  void ExpectServed() {
    Client other(agent_);
    const lumo::Message request = other.Send("SRV", "other"), received = node_.ExpectRequest();
    EXPECT_EQ(received.Strings[0], "other");
    ExpectAnswered(other, request, node_, received, "row");
  }
  // The connection is closed with this line, and the others are served on.
  void ExpectRefused(const std::string& bytes, const std::string& line) {
    agent_.Barrier();
    const int before = Lines("Client message reading failed");
    Client bad(agent_);
    bad.SendBytes(bytes);
    bad.ExpectClosed();
    agent_.Barrier();
    EXPECT_EQ(Lines("Client message reading failed"), before + 1);
    EXPECT_TRUE(agent_.Logged(2, "clntxch", line)) << agent_.Log();
    ExpectServed();
  }
  int Lines(const std::string& text) { return agent_.CountLogged(2, "clntxch", text); }

  Node node_;
  std::optional<Client> client_;
};

TEST_F(ClientMessages, EveryFieldReachesTheNodeUnchanged) {
  const lumo::Message request = FullMessage(*client_, "SRV");
  client_->SendMessage(request);
  ExpectAtNode(request);
}

TEST_F(ClientMessages, EveryFieldOfAnAnswerReachesTheClientUnchanged) {
  const lumo::Message request = client_->Send("SRV");
  ASSERT_TRUE(node_.ReadRequest());
  lumo::Message answer = FullMessage(*client_, "SRV");
  answer.SetTrailerTaskName(request.TaskName);
  answer.SetAstInd(request.AstInd());
  node_.SendMessage(answer);
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(ClientMessages, TheTaskNameOfAnAnswerIsTheTrailers) {
  const lumo::Message request = client_->Send("SRV");
  lumo::Message answer = AnswerTo(node_.ExpectRequest(), "row");
  answer.TaskName = 4711;
  node_.SendMessage(answer);
  client_->ExpectAnswer(request);
}

TEST_F(ClientMessages, FourEmptyStringsMake108BytesBothWays) {
  const lumo::Message request = client_->Request("SRV");
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  ASSERT_EQ(frame.size(), 108u);
  client_->SendBytes(frame);
  const std::optional<std::string> received = node_.ReadFrame();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->size(), 108u);
  EXPECT_EQ(received->substr(0, 4), LengthWord(104));
  lumo::Message answer = AnswerTo(request, "");
  node_.SendMessage(answer);
  const std::optional<std::string> came = client_->ReceiveFrame();
  ASSERT_TRUE(came);
  EXPECT_EQ(came->size(), 108u);
  EXPECT_EQ(came->substr(0, 4), LengthWord(108));
}

TEST_F(ClientMessages, StringsOfAnySizeArePaddedToAnEvenSize) {
  for (std::size_t size = 0; size < 6; ++size) {
    lumo::Message request = client_->Request("SRV");
    request.Strings = {std::string(size, 'a'), std::string(5 - size, 'b'), "c",
                       std::string(2 * size, 'd')};
    client_->SendMessage(request);
    ExpectAtNode(request);
    ExpectAnswered(*client_, request, node_, request, std::string(size, 'z'));
  }
}

TEST_F(ClientMessages, BytesBehindTheTrailerAreDropped) {
  const lumo::Message request = client_->Request("SRV", "text");
  std::string frame = lumo::Encode(request, lumo::Lengths::Client) + std::string(33, '!');
  frame.replace(0, 4, LengthWord(static_cast<std::uint32_t>(frame.size())));
  client_->SendBytes(frame);
  ExpectAtNode(request);
}

TEST_F(ClientMessages, BytesThatTheLengthLeavesOutCountAsZero) {
  const lumo::Message whole = client_->Request("SRV");
  ExpectShortened(whole);
  node_.Answer(AnswerTo(whole, ""));  // its tag is unknown: the request had none
  agent_.Barrier();
  EXPECT_TRUE(agent_.Logged(2, "link", kSkipped));
}

TEST_F(ClientMessages, NothingOfAnEarlierMessageShowsInAShorterOne) {
  lumo::Message longer = client_->Request("SRV", std::string(600, 'S'));
  longer.Trailer.fill(0xEE);
  longer.SetTrailerTaskName(client_->TaskName());
  client_->SendMessage(longer);
  ExpectAtNode(longer);
  ExpectShortened(client_->Request("SRV"));
}

TEST_F(ClientMessages, TheLargestMessagePassesBothWays) {
  const lumo::Message request = client_->Request("SRV", std::string(8080, 'q'));
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  ASSERT_EQ(frame.size(), 8188u);
  client_->SendBytes(frame);
  ExpectAtNode(request);
  ExpectAnswered(*client_, request, node_, request, std::string(8080, 'r'));
}

TEST_F(ClientMessages, LengthsOutOfBoundsCloseTheirConnectionAlone) {
  for (const std::uint32_t length : {0u, 3u, 4u, 8189u, 0x80000000u, 0xFFFFFFFFu})
    ExpectRefused(LengthWord(length), "Message length " + std::to_string(length) +
                                          " from client is out of range. The connection is closed");
}

TEST_F(ClientMessages, StringsThatLeaveTheMessageCloseTheirConnectionAlone) {
  for (const std::uint16_t count :
       {std::uint16_t{8082}, std::uint16_t{8150}, std::uint16_t{0xFFFF}})
    ExpectRefused(LengthWord(54) + std::string(48, '\0') + Bytes(count),
                  "Message strings from client are too long. The connection is closed");
}

TEST_F(ClientMessages, TheSumOfTheStringsIsBoundedToo) {
  const std::string string = Bytes(std::uint16_t{2100}) + std::string(2100, 's');
  const std::string body = std::string(48, '\0') + string + string + string +
                           Bytes(std::uint16_t{2100}) + std::string(1000, 's');
  ExpectRefused(LengthWord(static_cast<std::uint32_t>(4 + body.size())) + body,
                "Message strings from client are too long. The connection is closed");
}

TEST_F(ClientMessages, AnAnswerOfTheAgentIsExactToTheByte) {
  lumo::Message request = FullMessage(*client_, "SRV");
  request.Node = "NOBODY";
  client_->SendMessage(request);
  std::string expected =
      LengthWord(108) + Bytes(request.TaskName) + Bytes(std::int32_t{4050}) + std::string(96, '\0');
  expected.replace(60 + 12, 2, Bytes(std::uint16_t{0x5152}));
  EXPECT_EQ(client_->ReceiveFrame(), expected);
}

TEST_F(ClientMessages, AHangUpFreesTheConnection) {
  agent_.Barrier();
  const int before = OpenDescriptors(agent_.Pid());
  client_->Close();
  agent_.Barrier();
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before - 1);
  EXPECT_EQ(Lines("Client message reading failed"), 1);
  ExpectServed();
}

TEST_F(ClientMessages, AHangUpInTheMiddleOfAMessageFreesTheConnection) {
  const std::string frame = lumo::Encode(client_->Request("SRV"), lumo::Lengths::Client);
  int hangUps = 0;
  for (const std::size_t part : {1U, 4U, 60U, 107U}) {
    const int before = OpenDescriptors(agent_.Pid());
    Client other(agent_);
    other.SendBytes(std::string_view(frame).substr(0, part));
    agent_.Barrier();
    EXPECT_EQ(OpenDescriptors(agent_.Pid()), before + 1);
    other.Close();
    agent_.Barrier();
    EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
    EXPECT_EQ(Lines("Client message reading failed"), ++hangUps);
  }
  EXPECT_TRUE(node_.Silent(Milliseconds(0))) << "no half request is sent";
}

TEST_F(ClientMessages, AFailedReceiveIsReportedAndTheConnectionIsFreedAtTheNextRead) {
  const int before = OpenDescriptors(agent_.Pid());
  client_->Send("NOBODY");
  agent_.Barrier();
  client_->Close();  // with the answer unread
  agent_.Barrier();
  EXPECT_EQ(Lines("Receive message from client fail. Call:recv. Errno 104"), 1);
  EXPECT_EQ(Lines("Client message reading failed"), 2) << "the failure, then the hang-up";
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before - 1);
}

TEST_F(ClientMessages, RequestsOfOneConnectionMayComeTogether) {
  std::string all;
  std::vector<lumo::Message> requests;
  for (int i = 0; i < 20; ++i) {
    requests.push_back(client_->Request("SRV", std::string(static_cast<std::size_t>(i), 'n')));
    all += lumo::Encode(requests.back(), lumo::Lengths::Client);
  }
  client_->SendBytes(all);
  for (const lumo::Message& request : requests) ExpectAtNode(request);
}

class DeadClients : public ClientMessages {
 protected:
  // A request of this process with this tag reaches the node.
  lumo::Message Pending(Client& client, std::uint16_t astInd) {
    lumo::Message request = client.Request("SRV");
    request.SetAstInd(astInd);
    client.SendMessage(request);
    EXPECT_TRUE(node_.ReadRequest());
    return request;
  }
  LivingProcess process_;
};

TEST_F(DeadClients, TheirAnswersAreDroppedAndTheNodeIsTold) {
  Client client(agent_, process_.Pid());
  const lumo::Message request = Pending(client, 5);
  const pid_t pid = process_.Pid();
  process_.Kill();
  node_.Answer(request, "late");
  EXPECT_EQ(node_.ReadControl(), (Control{2, static_cast<std::uint32_t>(pid)}));
  agent_.Barrier();
  EXPECT_EQ(Lines(kDead), 1);
  client.ExpectNothing();
}

TEST_F(DeadClients, TheirRequestsArePurgedByTheFirstHalfWordOfTheTrailer) {
  Client client(agent_, process_.Pid());
  const auto half = static_cast<std::uint16_t>(process_.Pid() & 0xFFFF);
  const auto tag = static_cast<std::uint16_t>(half + 1),
             kept = static_cast<std::uint16_t>(half + 2);
  const lumo::Message first = Pending(client, tag);
  const lumo::Message purged = Pending(client, half);
  const lumo::Message other = Pending(client, kept);
  process_.Kill();
  node_.Answer(first);
  node_.Answer(purged);
  agent_.WaitForLog("Skip the message");
  EXPECT_EQ(agent_.CountLogged(2, "link", kSkipped), 1);
  node_.Answer(other);
  ASSERT_TRUE(WaitFor([&] { return Lines(kDead) == 2; })) << agent_.Log();
  EXPECT_EQ(agent_.CountLogged(2, "link", kSkipped), 1);
}

TEST_F(DeadClients, ATickTellsTheNodes) {
  Client client(agent_, process_.Pid());
  Pending(client, 5);
  const pid_t pid = process_.Pid();
  agent_.Tick();
  EXPECT_TRUE(node_.Silent(Milliseconds(0)));
  process_.Kill();
  agent_.Tick();
  EXPECT_EQ(node_.ReadControl(), (Control{2, static_cast<std::uint32_t>(pid)}));
  agent_.Tick();
  EXPECT_TRUE(node_.Silent(Milliseconds(0))) << "told once";
}

TEST_F(DeadClients, AnAnswerToTaskZeroFailsWhileADeadClientIsListed) {
  Client listed(agent_, process_.Pid());
  Pending(listed, 5);
  Client client(agent_, 0);
  client.ExpectError(client.Send("NOBODY"), 4050, 0);
  process_.Kill();
  client.Send("NOBODY");
  agent_.Barrier();
  EXPECT_EQ(Lines(kDead), 1);
  client.ExpectError(client.Send("NOBODY"), 4050, 0);
}

TEST_F(ClientTimeout, WithoutClientsTheLinksAreDisconnectedAtThe151stTick) {
  Node node;
  agent_.LogLevel("1");
  StartAgent(node.Line("SRV"));
  LivingProcess process;
  Client client(agent_, process.Pid());
  client.Send("SRV");
  node.ExpectFirstRequest();
  agent_.Ticks(3);  // with a client listed they do not count
  process.Kill();
  agent_.Tick();
  EXPECT_TRUE(node.ReadControl()) << "the client is found dead";
  agent_.Ticks(150);
  EXPECT_TRUE(node.Silent(Milliseconds(0)));
  EXPECT_FALSE(agent_.Logged(1, "", "Disconnect link  SRV"));
  agent_.Tick();
  EXPECT_TRUE(node.ReadEnd(Milliseconds(0)));
  EXPECT_EQ(agent_.CountLogged(1, "", "Disconnect link  SRV"), 1);
}

TEST_F(ClientTimeout, ARequestStartsTheCountAnew) {
  Node node;
  StartAgent(node.Line("SRV"));
  agent_.Ticks(100);
  LivingProcess process;
  Client client(agent_, process.Pid());
  client.Send("SRV");
  node.ExpectFirstRequest();
  process.Kill();
  agent_.Tick();
  EXPECT_TRUE(node.ReadControl());
  agent_.Ticks(60);
  EXPECT_TRUE(node.Silent(Milliseconds(0)));
}

}  // namespace
}  // namespace test
