// Nodes reached through the local kernel's shared memory, message queue and semaphore: addresses,
// connections, messages and clients. The reader and the kernel stand in local_ipc_reader_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/process/ipc_setting.h"
#include "tests/process/local_kernel.h"
#include "tests/process/manager.h"
#include "tests/process/node_link.h"
#include "tests/support/node.h"

namespace test {
namespace {

class LocalIpc : public IpcTest {
 protected:
  // Clients of one process, which count their tags each for itself, use them beside each other.
  static lumo::Message SendTagged(Client& client, std::uint16_t tag, const std::string& text = {}) {
    lumo::Message request = client.Request("K", text);
    request.SetAstInd(tag);
    client.SendMessage(request);
    return request;
  }
  void ExpectConnectFailure(int error, const std::string& line, const std::string& word) {
    agent_.Trace();
    Start();
    for (int attempt = 1; attempt <= 2; ++attempt) {
      client_->ExpectError(client_->Send("K"), 4006, error);
      EXPECT_EQ(agent_.CountLogged(3, "lipc", line + std::to_string(error)), attempt);
      EXPECT_EQ(agent_.CountLogged(15, "lipc", "'LIpcConnectLink' Leave " + word), attempt);
    }
  }
};

// Address

TEST_F(LocalIpc, AnAddressBelowOneIsRefused) {
  agent_.Trace();
  Manager manager = StartWithManager("OTHER REZ\n");
  int refused = 0;
  for (const char* address : {"0", "-1", "-0x5052", "nonsense", "", "0x0", "08"}) {
    EXPECT_EQ(manager.AddNode(std::string("K LOCALI ") + address), 1) << address;
    EXPECT_EQ(agent_.CountLogged(15, "lipc", "'LIpcInitLink' Leave FAILED  param out of range"),
              ++refused);
  }
  EXPECT_EQ(agent_.CountLogged(0, "", "Initialization of link 'K' for protocol 'LOCALI' failed"),
            refused);
}

TEST_F(LocalIpc, TheKeyIsReadInDecimalHexadecimalAndOctal) {
  for (const auto base : {std::dec, std::hex, std::oct}) {
    std::ostringstream key;
    key << std::showbase << base << kernel_.Key();
    Agent agent;
    agent.Nodetab("K locali  \t " + key.str() + "  further words\n");
    Client client = StartWithClient(agent);
    client.Send("K");
    EXPECT_TRUE(kernel_.ReadRequest()) << key.str();
  }
}

// Connecting

TEST_F(LocalIpc, AMissingSegmentFailsTheConnection) {
  kernel_.RemoveSegment();
  ExpectConnectFailure(ENOENT, "LIPC shmget failed. errno = ", "FAILED shmget");
}

TEST_F(LocalIpc, AKernelThatIsDeadFailsTheConnection) {
  kernel_.SetKernelPid(DeadPid());
  ExpectConnectFailure(ESRCH, "LIPC send 0 signal to kernel failed. errno ", "FAILED no kernel");
}

TEST_F(LocalIpc, AMissingQueueFailsTheConnection) {
  kernel_.RemoveQueue();
  ExpectConnectFailure(ENOENT, "LIPC msgget failed. errno ", "FAILED msgget");
}

TEST_F(LocalIpc, AMissingSemaphoreFailsTheConnectionInTheWordsOfTheQueue) {
  kernel_.RemoveSemaphore();
  ExpectConnectFailure(ENOENT, "LIPC msgget failed. errno ", "FAILED msgget");
}

TEST_F(LocalIpc, AFailedConnectionKeepsTheSegmentAttached) {
  kernel_.RemoveQueue();
  Start();
  EXPECT_EQ(Attached(), 0);
  for (int attempt = 0; attempt < 3; ++attempt) {
    client_->ExpectError(client_->Send("K"), 4006, ENOENT);
    EXPECT_EQ(Attached(), 1);
  }
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(Attached(), 0);
}

TEST_F(LocalIpc, APipeThatCannotBeMadeFailsTheConnection) {
  constexpr int kAllowed = 16;
  agent_.Limit(RLIMIT_NOFILE, kAllowed).LogLevel("3");
  Start();
  client_->ExpectNothing();
  Crowd crowd(&agent_, kAllowed);
  client_->ExpectError(client_->Send("K"), 4006, EMFILE);
  EXPECT_EQ(agent_.CountLogged(3, "lipc", "LIPC pipe failed. errno " + std::to_string(EMFILE)), 1);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), kAllowed);
}

TEST_F(LocalIpc, ADescriptorOf255OrMoreIsRefused) {
  Start();
  client_->ExpectNothing();
  Crowd crowd(&agent_, 256);
  const int before = OpenDescriptors(agent_.Pid());
  client_->ExpectError(client_->Send("K"), 4052, 0);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
  crowd.Leave();
  agent_.Barrier();
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpc, AProcessOfAnotherUserCountsAsALivingKernel) {
  kernel_.SetKernelPid(1);  // of which only the superuser may ask
  EXPECT_GT(Connect(), 0);
}

TEST_F(LocalIpc, WithConnectOnLoadTheKernelIsConnectedAtTheStartAndBecomesTheDefault) {
  agent_.Nodetab("A REZ\n" + kernel_.Line("K")).Option("-CONNECTONLOAD").LogLevel("1");
  Start();
  EXPECT_EQ(agent_.Log(), "lumo_tcp:Link K connected\n");
  ExpectExchange(*client_, client_->Send(), kernel_, "from the kernel");
}

TEST_F(LocalIpc, TheReaderIsAChildOfTheAgentAndServesAllRequests) {
  const pid_t reader = Connect();
  ASSERT_GT(reader, 0);
  EXPECT_EQ(ProcessStatus(reader, "PPid"), std::to_string(agent_.Pid()));
  Client later(agent_);
  for (int time = 0; time < 3; ++time) {
    EXPECT_EQ(Use(), reader);
    EXPECT_EQ(Use(&later), reader);
  }
  EXPECT_EQ(Attached(), 2) << "by the agent and its reader";
}

// Messages

TEST_F(LocalIpc, ARequestCarriesTheReaderAndInItsTrailerTheClient) {
  const pid_t reader = Connect();
  agent_.Barrier();  // by now the agent has woken the kernel for the first request
  const int before = kernel_.SemaphoreValue();
  lumo::Message request = FullMessage(*client_, "k");
  client_->SendMessage(request);
  const auto received = kernel_.ExpectRequest();
  request.TaskName = reader;
  request.SetTrailerTaskName(client_->TaskName());
  request.Node = std::string("k\0\0\0\0\0\0\0", 8);
  EXPECT_EQ(lumo::Encode(received.Message, lumo::Lengths::Packet),
            lumo::Encode(request, lumo::Lengths::Packet));
  EXPECT_TRUE(WaitFor([&] { return kernel_.SemaphoreValue() == before + 1; }))
      << "the kernel is woken once";
}

TEST_F(LocalIpc, TheLargestRequestAndTheLargestAnswerPass) {
  const pid_t reader = Connect();
  const std::string text(8188 - 108, 'x');
  const lumo::Message request = client_->Send("K", text);
  const auto received = kernel_.ExpectRequest();
  EXPECT_EQ(received.Message.Strings[0], text);
  const lumo::Message answer = AnswerTo(request, std::string(8192 - 108, 'y'));
  ASSERT_EQ(lumo::EncodedSize(answer), 4 + 8188u);  // a queue message has no length word
  kernel_.SendMessage(reader, answer);
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(LocalIpc, AnAnswerComesBackWithTheTaskOfItsTrailerAndTheLengthOfItsStrings) {
  const pid_t reader = Connect();
  Client later(agent_);
  for (Client* client : {&*client_, &later}) {
    lumo::Message answer = FullMessage(*client, "k");
    answer.SetAstInd(client == &later ? 78 : 77);  // the tags of one process differ
    client->SendMessage(answer);
    ASSERT_TRUE(kernel_.ReadRequest());
    answer.SetTrailerTaskName(client->TaskName());
    const std::string expected = lumo::Encode(answer, lumo::Lengths::Client);
    answer.TaskName = reader;
    kernel_.SendBytes(reader,
                      lumo::Encode(answer, lumo::Lengths::Packet).substr(4) + "behind the trailer");
    EXPECT_EQ(client->ReceiveFrame(), expected);
  }
}

TEST_F(LocalIpc, AnswersReachTheVeryConnectionsThatAsked) {
  Start();
  Client before(agent_);
  before.ExpectNothing();
  Use();
  Client after(agent_);
  Client* const clients[] = {&*client_, &before, &after};
  std::vector<std::pair<Client*, lumo::Message>> requests;
  std::vector<IpcKernel::Request> received;
  for (int round = 0; round < 4; ++round) {
    for (std::size_t i = 0; i < 3; ++i) {
      const auto tag = static_cast<std::uint16_t>(1000 * round + 100 * static_cast<int>(i));
      requests.emplace_back(clients[i], SendTagged(*clients[i], tag, std::to_string(tag)));
      received.push_back(kernel_.ExpectRequest());
    }
  }
  for (std::size_t i = requests.size(); i-- > 0;) {
    const auto& [client, request] = requests[i];
    EXPECT_EQ(received[i].Message.Strings[0], request.Strings[0]);
    ExpectAnswered(*client, request, kernel_, received[i], request.Strings[0]);
  }
  for (Client* client : clients) client->ExpectNothing();
}

TEST_F(LocalIpc, ClientsOfDifferentProcessesMayUseTheSameTag) {
  LivingProcess first, second;
  Start();
  Client one(agent_, first.Pid()), two(agent_, second.Pid());
  const lumo::Message ofOne = one.Send("K");
  const auto receivedOfOne = kernel_.ExpectRequest();
  const lumo::Message ofTwo = two.Send("K");
  const auto receivedOfTwo = kernel_.ExpectRequest();
  ASSERT_EQ(ofOne.AstInd(), ofTwo.AstInd());
  kernel_.Answer(receivedOfTwo, "two");
  kernel_.Answer(receivedOfOne, "one");
  EXPECT_EQ(two.ExpectAnswer(ofTwo).Strings[0], "two");
  EXPECT_EQ(one.ExpectAnswer(ofOne).Strings[0], "one");
}

// The reader has answered, the agent has not heard of it yet and reads the later request first.
// That one's record stands before the older one's.
TEST_F(LocalIpc, ATagMayBeUsedOverAnotherConnectionAsSoonAsItIsAnswered) {
  EchoNode other;
  agent_.Nodetab(kernel_.Line("K") + other.Line("T"));
  Start();
  Client before(agent_);
  before.ExpectNothing();
  const pid_t reader = Use();
  Settle(reader);
  const lumo::Message first = client_->Send("K");
  const auto receivedFirst = kernel_.ExpectRequest();
  const lumo::Message request = SendTagged(before, 1001);
  const auto received = kernel_.ExpectRequest();
  ExpectAnswered(*client_, first, kernel_, receivedFirst);
  Settle(reader);

  Client later(agent_);
  later.Ask("T", "the link and the client that are served first");
  Freeze(agent_.Pid());
  ExpectAnswered(before, request, kernel_, received, "to the first");
  later.SendMessage(request);
  Thaw(agent_.Pid());
  ExpectExchange(later, request, kernel_, "to the second");
  before.ExpectNothing();
}

// The record of an earlier request to another node is free again: the later one of the two has it,
// and stands before the one that was asked first.
TEST_F(LocalIpc, TwoConnectionsWithOneTagGetOneAnswerEach) {
  Node other;
  agent_.Nodetab(kernel_.Line("K") + other.Line("T"));
  Start();
  Client early(agent_);
  early.ExpectNothing();
  Use();
  Client late(agent_);
  Client& asker = *client_;
  UseNode(&asker, &other, "T");
  for (const bool lateFirst : {false, true}) {
    Client& one = lateFirst ? late : early;
    Client& two = lateFirst ? early : late;
    const lumo::Message before = asker.Send("T");
    const auto atOther = NextRequest(&other);
    ASSERT_TRUE(atOther);
    const lumo::Message first = SendTagged(one, 4711);
    const auto receivedFirst = kernel_.ExpectRequest();
    ExpectAnswered(asker, before, other, *atOther);
    const lumo::Message second = SendTagged(two, 4711);
    const auto receivedSecond = kernel_.ExpectRequest();
    ExpectAnswered(one, first, kernel_, receivedFirst, "to the first");
    ExpectAnswered(two, second, kernel_, receivedSecond, "to the second");
  }
  const pid_t reader = Use();
  Settle(reader);  // its answer is recorded: else the agent would have to answer once more
  kill(reader, SIGKILL);
  agent_.Barrier();
  for (Client* client : {&early, &late, &asker}) client->ExpectNothing();
}

TEST_F(LocalIpc, HundredsOfRequestsMayBeUnanswered) {
  Start();
  Client early(agent_);
  early.ExpectNothing();
  Use();
  Client late(agent_);
  Client* const clients[] = {&early, &late, &*client_};
  constexpr std::size_t kRequests = 600;
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (std::size_t i = 0; i < kRequests; ++i) {
    const auto tag = static_cast<std::uint16_t>(i);
    requests.push_back(SendTagged(*clients[i % 3], tag, std::to_string(i)));
    received.push_back(kernel_.ExpectRequest());
    ASSERT_EQ(received.back().Message.Strings[0], std::to_string(i));
  }
  for (std::size_t i = 0; i < kRequests; ++i)
    ExpectAnswered(*clients[i % 3], requests[i], kernel_, received[i],
                   std::string(100, 'x') + std::to_string(i));
  for (Client* client : clients) client->ExpectNothing();
}

TEST_F(LocalIpc, TheAgentsOwnAnswersAndTheReadersDoNotCutIntoEachOther) {
  Connect();
  Client& client = *client_;
  constexpr int kRounds = 100;
  std::set<std::uint16_t> expected;
  for (int round = 0; round < kRounds; ++round) {
    const lumo::Message request = client.Send("K");
    lumo::Message command = lumo::ManagementRequest(122);
    command.SetAstInd(static_cast<std::uint16_t>(0x8000 + round));
    client.SendMessage(command);
    kernel_.Answer(kernel_.ExpectRequest(), std::string(3001, 'x'));
    expected.insert(request.AstInd());
    expected.insert(command.AstInd());
  }
  std::set<std::uint16_t> come;
  for (int answer = 0; answer < 2 * kRounds; ++answer) {
    const auto frame = client.ReceiveFrame();
    ASSERT_TRUE(frame);
    const auto message = lumo::Decode(
        *frame, frame->size() > 3000 ? lumo::Layout::Ordinary : lumo::Layout::Management);
    ASSERT_TRUE(message) << "a frame of " << frame->size() << " bytes makes no message";
    come.insert(message->AstInd());
  }
  EXPECT_EQ(come, expected);
}

TEST_F(LocalIpc, AnAnswerThatNobodyAskedForIsPassedOver) {
  agent_.LogLevel("3");
  const pid_t reader = Connect();
  lumo::Message stray = AnswerTo(client_->Request("K"), "stray");
  stray.SetAstInd(999);
  kernel_.SendMessage(reader, stray);
  EXPECT_TRUE(agent_.WaitForLog("The message were not send by the agent. Skip the message"));
  EXPECT_EQ(Use(), reader);
  client_->ExpectNothing();
}

TEST_F(LocalIpc, AnAnswerWhoseStringsLeaveTheMessageIsLoggedAndSkipped) {
  agent_.LogLevel("3");
  const pid_t reader = Connect();
  std::string body(104, '\0');
  body[48] = body[49] = '\xFF';  // the count of the first string
  kernel_.SendBytes(reader, body);
  EXPECT_EQ(Use(), reader);
  EXPECT_TRUE(WaitFor([&] {
    const std::vector<LogLine> lines = agent_.LogLines();
    return std::any_of(lines.begin(), lines.end(), [](const LogLine& line) {
      return line.Level == 3 && line.Module == "lipc";
    });
  }));
  kernel_.SendBytes(reader, "");  // bytes that did not come count as zero
  kernel_.SendBytes(reader, "short");
  EXPECT_EQ(Use(), reader);
  client_->ExpectNothing();
}

// Clients that misbehave

TEST_F(LocalIpc, AClientThatHangsUpDisturbsNobody) {
  Start();
  client_->ExpectNothing();
  for (const bool beforeTheLink : {true, false}) {
    Client leaving(agent_);
    SendTagged(leaving, 1000);  // the other clients' requests are of the same process
    const auto received = kernel_.ExpectRequest();
    leaving.Close();
    agent_.Barrier();
    Client next(agent_);  // whose connection has the same number
    next.ExpectNothing();
    kernel_.Answer(received, "for nobody");
    EXPECT_GT(Use(), 0) << beforeTheLink;
    EXPECT_GT(Use(&next), 0);
    next.ExpectNothing();
  }
}

TEST_F(LocalIpc, AClientThatHangsUpWithTheAnswerOnItsWayDisturbsNobody) {
  Connect();
  for (int time = 0; time < 20; ++time) {
    Client leaving(agent_);
    leaving.Send("K");
    kernel_.Answer(kernel_.ExpectRequest(), std::string(5000, 'x'));
    leaving.Close();
  }
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpc, AClientSeesItsConnectionClosedThoughTheReaderHoldsACopy) {
  Connect();
  client_->SendBytes(std::string("\x04\0\0\0\0\0\0\0", 8));  // no such length
  client_->ExpectClosed();
}

TEST_F(LocalIpc, AnAnswerForADeadClientIsReportedByTheReader) {
  agent_.LogLevel("3");
  LivingProcess application;
  Start();
  Client client(agent_, application.Pid());
  client.ExpectNothing();
  Use();
  client.Send("K");
  const auto received = kernel_.ExpectRequest();
  application.Kill();
  kernel_.Answer(received, "too late");
  EXPECT_TRUE(agent_.WaitForLog("The message wasn't send to client. Client is dead"));
  EXPECT_TRUE(agent_.WaitForLog("LIPC PutMsgToClient failed."));
  EXPECT_TRUE(agent_.Logged(3, "lipc", "LIPC PutMsgToClient failed."));
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpc, AClientThatDoesNotReadKeepsNobodyWaitingAndMissesNothing) {
  Connect();
  for (const bool beforeTheLink : {true, false}) {
    Client own(agent_), other(agent_);
    Client& slow = beforeTheLink ? *client_ : own;
    constexpr int kAnswers = 60;
    std::vector<lumo::Message> requests;
    for (int i = 0; i < kAnswers; ++i) {
      requests.push_back(slow.Send("K"));
      kernel_.Answer(kernel_.ExpectRequest(), std::string(8000, 'x') + std::to_string(i));
    }
    EXPECT_GT(Use(&other), 0);
    agent_.Tick();
    for (int i = 0; i < kAnswers; ++i) {
      EXPECT_EQ(slow.ReceiveFrame(),
                lumo::Encode(AnswerTo(requests[static_cast<std::size_t>(i)],
                                      std::string(8000, 'x') + std::to_string(i)),
                             lumo::Lengths::Client))
          << i;
    }
    EXPECT_GT(Use(&slow), 0);
  }
}

TEST_F(LocalIpc, AClientThatDoesNotReadAMebibyteIsClosed) {
  agent_.LogLevel("3");
  Connect();
  Client other(agent_);
  const std::string line = "Send to client fail. Call:send. errno " + std::to_string(ENOBUFS);
  for (int i = 0; i < 400 && !agent_.LogContains(line); ++i) {
    if (!client_->SendMessage(client_->Request("K"))) break;
    // The agent may have closed the connection before it read this request.
    if (!WaitFor([&] { return kernel_.QueuedMessages() > 0 || agent_.LogContains(line); })) break;
    if (kernel_.QueuedMessages() == 0) break;
    kernel_.Answer(kernel_.ExpectRequest(), std::string(8000, 'x'));
    Use(&other);
  }
  EXPECT_TRUE(agent_.WaitForLog(line));
  EXPECT_GT(Use(&other), 0);
}

}  // namespace
}  // namespace test
