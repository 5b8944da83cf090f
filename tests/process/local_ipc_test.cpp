// Nodes reached through the local kernel's shared memory, message queue and semaphore: addresses,
// connections, messages and clients. The reader and the kernel stand in local_ipc_reader_test.cpp.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/process/ipc_setting.h"
#include "tests/process/manager.h"
#include "tests/process/node_link.h"
#include "tests/support/node.h"

namespace test {
namespace {

class LocalIpc : public IpcTest {
 protected:
  void ExpectConnectFailure(int error, const std::string& line, const std::string& word) {
    Subject.Trace();
    ASSERT_TRUE(Start());
    for (int attempt = 1; attempt <= 2; ++attempt) {
      Application->ExpectError(Application->Send("K"), 4006, error);
      EXPECT_EQ(Subject.CountLogged(3, "lipc", line + std::to_string(error)), attempt);
      EXPECT_EQ(Subject.CountLogged(15, "lipc", "'LIpcConnectLink' Leave " + word), attempt);
    }
    EXPECT_EQ(Subject.Stop(), 0);
  }
};

std::string Hexadecimal(int number) {
  std::ostringstream text;
  text << "0x" << std::hex << number;
  return text.str();
}

std::string Octal(int number) {
  std::ostringstream text;
  text << "0" << std::oct << number;
  return text.str();
}

// Address

TEST_F(LocalIpc, AnAddressBelowOneIsRefused) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  int refused = 0;
  for (const char* address : {"0", "-1", "-0x5052", "nonsense", "", "0x0", "08"}) {
    EXPECT_EQ(manager.AddNode(std::string("K LOCALI ") + address), 1) << address;
    EXPECT_EQ(agent.CountLogged(15, "lipc", "'LIpcInitLink' Leave FAILED  param out of range"),
              ++refused);
  }
  EXPECT_EQ(agent.CountLogged(0, "", "Initialization of link 'K' for protocol 'LOCALI' failed"),
            refused);
}

TEST_F(LocalIpc, TheKeyIsReadInDecimalHexadecimalAndOctal) {
  for (int base = 0; base < 3; ++base) {
    IpcKernel kernel;
    const std::string key = base == 0   ? std::to_string(kernel.Key())
                            : base == 1 ? Hexadecimal(kernel.Key())
                                        : Octal(kernel.Key());
    Agent agent;
    agent.Nodetab("K locali  \t " + key + "  further words\n");
    ASSERT_TRUE(agent.Start());
    Client client(agent);
    client.Send("K");
    EXPECT_TRUE(kernel.ReadRequest()) << key;
  }
}

// Connecting

TEST_F(LocalIpc, AMissingSegmentFailsTheConnection) {
  Kernel.RemoveSegment();
  ExpectConnectFailure(ENOENT, "LIPC shmget failed. errno = ", "FAILED shmget");
}

TEST_F(LocalIpc, AKernelThatIsDeadFailsTheConnection) {
  Kernel.SetKernelPid(DeadPid());
  ExpectConnectFailure(ESRCH, "LIPC send 0 signal to kernel failed. errno ", "FAILED no kernel");
}

TEST_F(LocalIpc, AMissingQueueFailsTheConnection) {
  Kernel.RemoveQueue();
  ExpectConnectFailure(ENOENT, "LIPC msgget failed. errno ", "FAILED msgget");
}

TEST_F(LocalIpc, AMissingSemaphoreFailsTheConnectionInTheWordsOfTheQueue) {
  Kernel.RemoveSemaphore();
  ExpectConnectFailure(ENOENT, "LIPC msgget failed. errno ", "FAILED msgget");
}

TEST_F(LocalIpc, AFailedConnectionKeepsTheSegmentAttached) {
  Kernel.RemoveQueue();
  ASSERT_TRUE(Start());
  EXPECT_EQ(Attached(), 0);
  for (int attempt = 0; attempt < 3; ++attempt) {
    Application->ExpectError(Application->Send("K"), 4006, ENOENT);
    EXPECT_EQ(Attached(), 1);
  }
  EXPECT_EQ(Subject.Stop(), 0);
  EXPECT_EQ(Attached(), 0);
}

TEST_F(LocalIpc, APipeThatCannotBeMadeFailsTheConnection) {
  constexpr int kAllowed = 16;
  Subject.Limit(RLIMIT_NOFILE, kAllowed).LogLevel("3");
  ASSERT_TRUE(Start());
  Application->ExpectNothing();
  Crowd crowd(&Subject, kAllowed);
  Application->ExpectError(Application->Send("K"), 4006, EMFILE);
  EXPECT_EQ(Subject.CountLogged(3, "lipc", "LIPC pipe failed. errno " + std::to_string(EMFILE)), 1);
  EXPECT_EQ(OpenDescriptors(Subject.Pid()), kAllowed);
}

TEST_F(LocalIpc, ADescriptorOf255OrMoreIsRefused) {
  ASSERT_TRUE(Start());
  Application->ExpectNothing();
  Crowd crowd(&Subject, 256);
  const int before = OpenDescriptors(Subject.Pid());
  Application->ExpectError(Application->Send("K"), 4052, 0);
  EXPECT_EQ(OpenDescriptors(Subject.Pid()), before);
  crowd.Leave();
  Subject.Barrier();
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpc, AProcessOfAnotherUserCountsAsALivingKernel) {
  Kernel.SetKernelPid(1);  // of which only the superuser may ask
  EXPECT_GT(Connect(), 0);
}

TEST_F(LocalIpc, WithConnectOnLoadTheKernelIsConnectedAtTheStartAndBecomesTheDefault) {
  Subject.Nodetab("A REZ\n" + Kernel.Line("K")).Option("-CONNECTONLOAD").LogLevel("1");
  ASSERT_TRUE(Start());
  EXPECT_EQ(Subject.Log(), "lumo_tcp:Link K connected\n");
  ExpectExchange(*Application, Application->Send(), Kernel, "from the kernel");
}

TEST_F(LocalIpc, TheReaderIsAChildOfTheAgentAndServesAllRequests) {
  const pid_t reader = Connect();
  ASSERT_GT(reader, 0);
  EXPECT_EQ(ProcessStatus(reader, "PPid"), std::to_string(Subject.Pid()));
  Client later(Subject);
  for (int time = 0; time < 3; ++time) {
    EXPECT_EQ(Use(), reader);
    EXPECT_EQ(Use(&later), reader);
  }
  EXPECT_EQ(Attached(), 2) << "by the agent and its reader";
}

// Messages

TEST_F(LocalIpc, ARequestCarriesTheReaderAndInItsTrailerTheClient) {
  const pid_t reader = Connect();
  Subject.Barrier();  // by now the agent has woken the kernel for the first request
  const int before = Kernel.SemaphoreValue();
  lumo::Message request = FullMessage(*Application, "k");
  Application->SendMessage(request);
  const auto received = Kernel.ExpectRequest();
  request.TaskName = reader;
  request.SetTrailerTaskName(Application->TaskName());
  request.Node = std::string("k\0\0\0\0\0\0\0", 8);
  EXPECT_EQ(lumo::Encode(received.Message, lumo::Lengths::Packet),
            lumo::Encode(request, lumo::Lengths::Packet));
  EXPECT_TRUE(WaitFor([&] { return Kernel.SemaphoreValue() == before + 1; }))
      << "the kernel is woken once";
}

TEST_F(LocalIpc, TheLargestRequestAndTheLargestAnswerPass) {
  const pid_t reader = Connect();
  const std::string text(8188 - 108, 'x');
  const lumo::Message request = Application->Send("K", text);
  const auto received = Kernel.ExpectRequest();
  EXPECT_EQ(received.Message.Strings[0], text);
  const lumo::Message answer = AnswerTo(request, std::string(8192 - 108, 'y'));
  ASSERT_EQ(lumo::EncodedSize(answer), 4 + 8188u);  // a queue message has no length word
  Kernel.SendMessage(reader, answer);
  EXPECT_EQ(Application->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(LocalIpc, AnAnswerComesBackWithTheTaskOfItsTrailerAndTheLengthOfItsStrings) {
  const pid_t reader = Connect();
  Client later(Subject);
  for (Client* client : {&*Application, &later}) {
    lumo::Message answer = FullMessage(*client, "k");
    answer.SetAstInd(client == &later ? 78 : 77);  // the tags of one process differ
    client->SendMessage(answer);
    ASSERT_TRUE(Kernel.ReadRequest());
    answer.SetTrailerTaskName(client->TaskName());
    const std::string expected = lumo::Encode(answer, lumo::Lengths::Client);
    answer.TaskName = reader;
    Kernel.SendBytes(reader,
                     lumo::Encode(answer, lumo::Lengths::Packet).substr(4) + "behind the trailer");
    EXPECT_EQ(client->ReceiveFrame(), expected);
  }
}

TEST_F(LocalIpc, AnswersReachTheVeryConnectionsThatAsked) {
  ASSERT_TRUE(Start());
  Client before(Subject);
  before.ExpectNothing();
  Use();
  Client after(Subject);
  Client* const clients[] = {&*Application, &before, &after};
  std::vector<std::pair<Client*, lumo::Message>> requests;
  std::vector<IpcKernel::Request> received;
  for (int round = 0; round < 4; ++round) {
    for (std::size_t i = 0; i < 3; ++i) {
      lumo::Message request = clients[i]->Request("K", std::to_string(round) + std::to_string(i));
      request.SetAstInd(static_cast<std::uint16_t>(1000 * round + 100 * static_cast<int>(i)));
      clients[i]->SendMessage(request);
      requests.emplace_back(clients[i], request);
      received.push_back(Kernel.ReadRequest().value_or(IpcKernel::Request{}));
    }
  }
  for (std::size_t i = requests.size(); i-- > 0;) {
    Kernel.Answer(received[i], received[i].Message.Strings[0]);
    const auto& [client, request] = requests[i];
    EXPECT_EQ(client->ExpectAnswer(request).Strings[0], request.Strings[0]);
  }
  for (Client* client : clients) client->ExpectNothing();
}

TEST_F(LocalIpc, ClientsOfDifferentProcessesMayUseTheSameTag) {
  LivingProcess first, second;
  ASSERT_TRUE(Start());
  Client one(Subject, first.Pid()), two(Subject, second.Pid());
  const lumo::Message ofOne = one.Send("K");
  const auto receivedOfOne = Kernel.ReadRequest();
  const lumo::Message ofTwo = two.Send("K");
  const auto receivedOfTwo = Kernel.ReadRequest();
  ASSERT_TRUE(receivedOfOne && receivedOfTwo);
  ASSERT_EQ(ofOne.AstInd(), ofTwo.AstInd());
  Kernel.Answer(*receivedOfTwo, "two");
  Kernel.Answer(*receivedOfOne, "one");
  EXPECT_EQ(two.ExpectAnswer(ofTwo).Strings[0], "two");
  EXPECT_EQ(one.ExpectAnswer(ofOne).Strings[0], "one");
}

// The reader has answered, the agent has not heard of it yet and reads the later request first.
// That one's record stands before the older one's.
TEST_F(LocalIpc, ATagMayBeUsedOverAnotherConnectionAsSoonAsItIsAnswered) {
  EchoNode other;
  Subject.Nodetab(Kernel.Line("K") + other.Line("T"));
  ASSERT_TRUE(Start());
  Client before(Subject);
  before.ExpectNothing();
  const pid_t reader = Use();
  Settle(reader);
  const lumo::Message first = Application->Send("K");
  const auto receivedFirst = Kernel.ReadRequest();
  lumo::Message request = before.Request("K");
  request.SetAstInd(1001);
  before.SendMessage(request);
  const auto received = Kernel.ReadRequest();
  ASSERT_TRUE(receivedFirst && received);
  Kernel.Answer(*receivedFirst);
  Application->ExpectAnswer(first);
  Settle(reader);

  Client later(Subject);
  later.Ask("T", "the link and the client that are served first");
  Freeze(Subject.Pid());
  Kernel.Answer(*received, "to the first");
  EXPECT_EQ(before.ExpectAnswer(request).Strings[0], "to the first");
  later.SendMessage(request);
  Thaw(Subject.Pid());
  const auto again = Kernel.ExpectRequest();
  Kernel.Answer(again, "to the second");
  EXPECT_EQ(later.ExpectAnswer(request).Strings[0], "to the second");
  before.ExpectNothing();
}

// The record of an earlier request to another node is free again: the later one of the two has it,
// and stands before the one that was asked first.
TEST_F(LocalIpc, TwoConnectionsWithOneTagGetOneAnswerEach) {
  Node other;
  Subject.Nodetab(Kernel.Line("K") + other.Line("T"));
  ASSERT_TRUE(Start());
  Client early(Subject);
  early.ExpectNothing();
  Use();
  Client late(Subject);
  Client& asker = *Application;
  UseNode(&asker, &other, "T");
  for (const bool lateFirst : {false, true}) {
    Client& one = lateFirst ? late : early;
    Client& two = lateFirst ? early : late;
    const lumo::Message before = asker.Send("T");
    const auto atOther = NextRequest(&other);
    ASSERT_TRUE(atOther);
    lumo::Message first = one.Request("K"), second = two.Request("K");
    first.SetAstInd(4711);
    second.SetAstInd(4711);
    one.SendMessage(first);
    const auto receivedFirst = Kernel.ReadRequest();
    other.Answer(*atOther);
    asker.ExpectAnswer(before);
    two.SendMessage(second);
    const auto receivedSecond = Kernel.ReadRequest();
    ASSERT_TRUE(receivedFirst && receivedSecond);
    Kernel.Answer(*receivedFirst, "to the first");
    EXPECT_EQ(one.ExpectAnswer(first).Strings[0], "to the first");
    Kernel.Answer(*receivedSecond, "to the second");
    EXPECT_EQ(two.ExpectAnswer(second).Strings[0], "to the second");
  }
  const pid_t reader = Use();
  Settle(reader);  // its answer is recorded: else the agent would have to answer once more
  kill(reader, SIGKILL);
  Subject.Barrier();
  for (Client* client : {&early, &late, &asker}) client->ExpectNothing();
}

TEST_F(LocalIpc, HundredsOfRequestsMayBeUnanswered) {
  ASSERT_TRUE(Start());
  Client early(Subject);
  early.ExpectNothing();
  Use();
  Client late(Subject);
  Client* const clients[] = {&early, &late, &*Application};
  constexpr std::size_t kRequests = 600;
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (std::size_t i = 0; i < kRequests; ++i) {
    lumo::Message request = clients[i % 3]->Request("K", std::to_string(i));
    request.SetAstInd(static_cast<std::uint16_t>(i));
    clients[i % 3]->SendMessage(request);
    requests.push_back(request);
    received.push_back(Kernel.ReadRequest().value_or(IpcKernel::Request{}));
    ASSERT_EQ(received.back().Message.Strings[0], std::to_string(i));
  }
  for (std::size_t i = 0; i < kRequests; ++i) {
    Kernel.Answer(received[i], std::string(100, 'x') + std::to_string(i));
    EXPECT_EQ(clients[i % 3]->ExpectAnswer(requests[i]).Strings[0],
              std::string(100, 'x') + std::to_string(i));
  }
  for (Client* client : clients) client->ExpectNothing();
}

TEST_F(LocalIpc, TheAgentsOwnAnswersAndTheReadersDoNotCutIntoEachOther) {
  Connect();
  Client& client = *Application;
  constexpr int kRounds = 100;
  std::set<std::uint16_t> expected;
  for (int round = 0; round < kRounds; ++round) {
    const lumo::Message request = client.Send("K");
    lumo::Message command = lumo::ManagementRequest(122);
    command.SetAstInd(static_cast<std::uint16_t>(0x8000 + round));
    client.SendMessage(command);
    const auto received = Kernel.ExpectRequest();
    Kernel.Answer(received, std::string(3001, 'x'));
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
  Subject.LogLevel("3");
  const pid_t reader = Connect();
  lumo::Message stray = AnswerTo(Application->Request("K"), "stray");
  stray.SetAstInd(999);
  Kernel.SendMessage(reader, stray);
  EXPECT_TRUE(Subject.WaitForLog("The message were not send by the agent. Skip the message"));
  EXPECT_EQ(Use(), reader);
  Application->ExpectNothing();
}

TEST_F(LocalIpc, AnAnswerWhoseStringsLeaveTheMessageIsLoggedAndSkipped) {
  Subject.LogLevel("3");
  const pid_t reader = Connect();
  std::string body(104, '\0');
  body[48] = body[49] = '\xFF';  // the count of the first string
  Kernel.SendBytes(reader, body);
  EXPECT_EQ(Use(), reader);
  EXPECT_TRUE(WaitFor([&] {
    const std::vector<LogLine> lines = Subject.LogLines();
    return std::any_of(lines.begin(), lines.end(), [](const LogLine& line) {
      return line.Level == 3 && line.Module == "lipc";
    });
  }));
  Kernel.SendBytes(reader, "");  // bytes that did not come count as zero
  Kernel.SendBytes(reader, "short");
  EXPECT_EQ(Use(), reader);
  Application->ExpectNothing();
}

// Clients that misbehave

TEST_F(LocalIpc, AClientThatHangsUpDisturbsNobody) {
  ASSERT_TRUE(Start());
  Application->ExpectNothing();
  for (const bool beforeTheLink : {true, false}) {
    Client leaving(Subject);
    lumo::Message request = leaving.Request("K");
    request.SetAstInd(1000);  // the other clients' requests are of the same process
    leaving.SendMessage(request);
    const auto received = Kernel.ExpectRequest();
    leaving.Close();
    Subject.Barrier();
    Client next(Subject);  // whose connection has the same number
    next.ExpectNothing();
    Kernel.Answer(received, "for nobody");
    EXPECT_GT(Use(), 0) << beforeTheLink;
    EXPECT_GT(Use(&next), 0);
    next.ExpectNothing();
  }
}

TEST_F(LocalIpc, AClientThatHangsUpWithTheAnswerOnItsWayDisturbsNobody) {
  Connect();
  for (int time = 0; time < 20; ++time) {
    Client leaving(Subject);
    leaving.Send("K");
    const auto received = Kernel.ExpectRequest();
    Kernel.Answer(received, std::string(5000, 'x'));
    leaving.Close();
  }
  EXPECT_GT(Use(), 0);
  EXPECT_EQ(Subject.Stop(), 0);
}

TEST_F(LocalIpc, AClientSeesItsConnectionClosedThoughTheReaderHoldsACopy) {
  Connect();
  Application->SendBytes(std::string("\x04\0\0\0\0\0\0\0", 8));  // no such length
  Application->ExpectClosed();
}

TEST_F(LocalIpc, AnAnswerForADeadClientIsReportedByTheReader) {
  Subject.LogLevel("3");
  LivingProcess application;
  ASSERT_TRUE(Start());
  Client client(Subject, application.Pid());
  client.ExpectNothing();
  Use();
  client.Send("K");
  const auto received = Kernel.ExpectRequest();
  application.Kill();
  Kernel.Answer(received, "too late");
  EXPECT_TRUE(Subject.WaitForLog("The message wasn't send to client. Client is dead"));
  EXPECT_TRUE(Subject.WaitForLog("LIPC PutMsgToClient failed."));
  EXPECT_TRUE(Subject.Logged(3, "lipc", "LIPC PutMsgToClient failed."));
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpc, AClientThatDoesNotReadKeepsNobodyWaitingAndMissesNothing) {
  Connect();
  for (const bool beforeTheLink : {true, false}) {
    Client own(Subject), other(Subject);
    Client& slow = beforeTheLink ? *Application : own;
    constexpr int kAnswers = 60;
    std::vector<lumo::Message> requests;
    for (int i = 0; i < kAnswers; ++i) {
      requests.push_back(slow.Send("K"));
      const auto received = Kernel.ExpectRequest();
      Kernel.Answer(received, std::string(8000, 'x') + std::to_string(i));
    }
    EXPECT_GT(Use(&other), 0);
    Subject.Tick();
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
  Subject.LogLevel("3");
  Connect();
  Client other(Subject);
  const std::string line = "Send to client fail. Call:send. errno " + std::to_string(ENOBUFS);
  for (int i = 0; i < 400 && !Subject.LogContains(line); ++i) {
    if (!Application->SendMessage(Application->Request("K"))) break;
    // The agent may have closed the connection before it read this request.
    std::optional<IpcKernel::Request> received;
    if (!WaitFor([&] { return Kernel.QueuedMessages() > 0 || Subject.LogContains(line); })) break;
    if (Kernel.QueuedMessages() == 0) break;
    received = Kernel.ReadRequest();
    ASSERT_TRUE(received);
    Kernel.Answer(*received, std::string(8000, 'x'));
    Use(&other);
  }
  EXPECT_TRUE(Subject.WaitForLog(line));
  EXPECT_GT(Use(&other), 0);
}

}  // namespace
}  // namespace test
