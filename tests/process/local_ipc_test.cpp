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

using Setting = IpcSetting;

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

TEST(LocalIpc, AnAddressBelowOneIsRefused) {
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

TEST(LocalIpc, TheKeyIsReadInDecimalHexadecimalAndOctal) {
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

void ExpectConnectFailure(Setting* setting, int error, const std::string& line,
                          const std::string& word) {
  setting->Subject.Trace();
  ASSERT_TRUE(setting->Start());
  for (int attempt = 1; attempt <= 2; ++attempt) {
    setting->Application->ExpectError(setting->Application->Send("K"), 4006, error);
    EXPECT_EQ(setting->Subject.CountLogged(3, "lipc", line + std::to_string(error)), attempt);
    EXPECT_EQ(setting->Subject.CountLogged(15, "lipc", "'LIpcConnectLink' Leave " + word), attempt);
  }
  EXPECT_EQ(setting->Subject.Stop(), 0);
}

TEST(LocalIpc, AMissingSegmentFailsTheConnection) {
  Setting setting;
  setting.Kernel.RemoveSegment();
  ExpectConnectFailure(&setting, ENOENT, "LIPC shmget failed. errno = ", "FAILED shmget");
}

TEST(LocalIpc, AKernelThatIsDeadFailsTheConnection) {
  Setting setting;
  setting.Kernel.SetKernelPid(DeadPid());
  ExpectConnectFailure(&setting, ESRCH, "LIPC send 0 signal to kernel failed. errno ",
                       "FAILED no kernel");
}

TEST(LocalIpc, AMissingQueueFailsTheConnection) {
  Setting setting;
  setting.Kernel.RemoveQueue();
  ExpectConnectFailure(&setting, ENOENT, "LIPC msgget failed. errno ", "FAILED msgget");
}

TEST(LocalIpc, AMissingSemaphoreFailsTheConnectionInTheWordsOfTheQueue) {
  Setting setting;
  setting.Kernel.RemoveSemaphore();
  ExpectConnectFailure(&setting, ENOENT, "LIPC msgget failed. errno ", "FAILED msgget");
}

TEST(LocalIpc, AFailedConnectionKeepsTheSegmentAttached) {
  Setting setting;
  setting.Kernel.RemoveQueue();
  ASSERT_TRUE(setting.Start());
  EXPECT_EQ(setting.Attached(), 0);
  for (int attempt = 0; attempt < 3; ++attempt) {
    setting.Application->ExpectError(setting.Application->Send("K"), 4006, ENOENT);
    EXPECT_EQ(setting.Attached(), 1);
  }
  EXPECT_EQ(setting.Subject.Stop(), 0);
  EXPECT_EQ(setting.Attached(), 0);
}

TEST(LocalIpc, APipeThatCannotBeMadeFailsTheConnection) {
  constexpr int kAllowed = 16;
  Setting setting;
  setting.Subject.Limit(RLIMIT_NOFILE, kAllowed).LogLevel("3");
  ASSERT_TRUE(setting.Start());
  setting.Application->ExpectNothing();
  std::vector<int> connections;
  while (OpenDescriptors(setting.Subject.Pid()) < kAllowed && connections.size() < kAllowed) {
    connections.push_back(ConnectRaw(setting.Subject.SocketPath()));
    setting.Subject.Barrier();
  }
  setting.Application->ExpectError(setting.Application->Send("K"), 4006, EMFILE);
  EXPECT_EQ(
      setting.Subject.CountLogged(3, "lipc", "LIPC pipe failed. errno " + std::to_string(EMFILE)),
      1);
  EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), kAllowed);
  for (const int connection : connections) close(connection);
}

TEST(LocalIpc, ADescriptorOf255OrMoreIsRefused) {
  Setting setting;
  ASSERT_TRUE(setting.Start());
  setting.Application->ExpectNothing();
  std::vector<int> connections;
  while (OpenDescriptors(setting.Subject.Pid()) < 256 && connections.size() < 256) {
    connections.push_back(ConnectRaw(setting.Subject.SocketPath()));
    if (connections.size() % 8 == 0 || connections.size() > 240) setting.Subject.Barrier();
  }
  const int before = OpenDescriptors(setting.Subject.Pid());
  setting.Application->ExpectError(setting.Application->Send("K"), 4052, 0);
  EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), before);
  for (const int connection : connections) close(connection);
  setting.Subject.Barrier();
  EXPECT_GT(setting.Use(), 0);
}

TEST(LocalIpc, AProcessOfAnotherUserCountsAsALivingKernel) {
  Setting setting;
  setting.Kernel.SetKernelPid(1);  // of which only the superuser may ask
  EXPECT_GT(setting.Connect(), 0);
}

TEST(LocalIpc, WithConnectOnLoadTheKernelIsConnectedAtTheStartAndBecomesTheDefault) {
  Setting setting;
  setting.Subject.Nodetab("A REZ\n" + setting.Kernel.Line("K"))
      .Option("-CONNECTONLOAD")
      .LogLevel("1");
  ASSERT_TRUE(setting.Start());
  EXPECT_EQ(setting.Subject.Log(), "lumo_tcp:Link K connected\n");
  const lumo::Message request = setting.Application->Send();
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  setting.Kernel.Answer(*received, "from the kernel");
  EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "from the kernel");
}

TEST(LocalIpc, TheReaderIsAChildOfTheAgentAndServesAllRequests) {
  Setting setting;
  const pid_t reader = setting.Connect();
  ASSERT_GT(reader, 0);
  EXPECT_EQ(ProcessStatus(reader, "PPid"), std::to_string(setting.Subject.Pid()));
  Client later(setting.Subject);
  for (int time = 0; time < 3; ++time) {
    EXPECT_EQ(setting.Use(), reader);
    EXPECT_EQ(setting.Use(&later), reader);
  }
  EXPECT_EQ(setting.Attached(), 2) << "by the agent and its reader";
}

// Messages

TEST(LocalIpc, ARequestCarriesTheReaderAndInItsTrailerTheClient) {
  Setting setting;
  const pid_t reader = setting.Connect();
  setting.Subject.Barrier();  // by now the agent has woken the kernel for the first request
  const int before = setting.Kernel.SemaphoreValue();
  lumo::Message request = FullMessage(*setting.Application, "k");
  setting.Application->SendMessage(request);
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  request.TaskName = reader;
  request.SetTrailerTaskName(setting.Application->TaskName());
  request.Node = std::string("k\0\0\0\0\0\0\0", 8);
  EXPECT_EQ(lumo::Encode(received->Message, lumo::Lengths::Packet),
            lumo::Encode(request, lumo::Lengths::Packet));
  EXPECT_TRUE(WaitFor([&] { return setting.Kernel.SemaphoreValue() == before + 1; }))
      << "the kernel is woken once";
}

TEST(LocalIpc, TheLargestRequestAndTheLargestAnswerPass) {
  Setting setting;
  const pid_t reader = setting.Connect();
  const std::string text(8188 - 108, 'x');
  const lumo::Message request = setting.Application->Send("K", text);
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->Message.Strings[0], text);
  const lumo::Message answer = AnswerTo(request, std::string(8192 - 108, 'y'));
  ASSERT_EQ(lumo::EncodedSize(answer), 4 + 8188u);  // a queue message has no length word
  setting.Kernel.SendMessage(reader, answer);
  EXPECT_EQ(setting.Application->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST(LocalIpc, AnAnswerComesBackWithTheTaskOfItsTrailerAndTheLengthOfItsStrings) {
  Setting setting;
  const pid_t reader = setting.Connect();
  Client later(setting.Subject);
  for (Client* client : {&*setting.Application, &later}) {
    lumo::Message answer = FullMessage(*client, "k");
    answer.SetAstInd(client == &later ? 78 : 77);  // the tags of one process differ
    client->SendMessage(answer);
    ASSERT_TRUE(setting.Kernel.ReadRequest());
    answer.SetTrailerTaskName(client->TaskName());
    const std::string expected = lumo::Encode(answer, lumo::Lengths::Client);
    answer.TaskName = reader;
    setting.Kernel.SendBytes(
        reader, lumo::Encode(answer, lumo::Lengths::Packet).substr(4) + "behind the trailer");
    EXPECT_EQ(client->ReceiveFrame(), expected);
  }
}

TEST(LocalIpc, AnswersReachTheVeryConnectionsThatAsked) {
  Setting setting;
  ASSERT_TRUE(setting.Start());
  Client before(setting.Subject);
  before.ExpectNothing();
  setting.Use();
  Client after(setting.Subject);
  Client* const clients[] = {&*setting.Application, &before, &after};
  std::vector<std::pair<Client*, lumo::Message>> requests;
  std::vector<IpcKernel::Request> received;
  for (int round = 0; round < 4; ++round) {
    for (std::size_t i = 0; i < 3; ++i) {
      lumo::Message request = clients[i]->Request("K", std::to_string(round) + std::to_string(i));
      request.SetAstInd(static_cast<std::uint16_t>(1000 * round + 100 * static_cast<int>(i)));
      clients[i]->SendMessage(request);
      requests.emplace_back(clients[i], request);
      received.push_back(setting.Kernel.ReadRequest().value_or(IpcKernel::Request{}));
    }
  }
  for (std::size_t i = requests.size(); i-- > 0;) {
    setting.Kernel.Answer(received[i], received[i].Message.Strings[0]);
    const auto& [client, request] = requests[i];
    EXPECT_EQ(client->ExpectAnswer(request).Strings[0], request.Strings[0]);
  }
  for (Client* client : clients) client->ExpectNothing();
}

TEST(LocalIpc, ClientsOfDifferentProcessesMayUseTheSameTag) {
  Setting setting;
  LivingProcess first, second;
  ASSERT_TRUE(setting.Start());
  Client one(setting.Subject, first.Pid()), two(setting.Subject, second.Pid());
  const lumo::Message ofOne = one.Send("K");
  const auto receivedOfOne = setting.Kernel.ReadRequest();
  const lumo::Message ofTwo = two.Send("K");
  const auto receivedOfTwo = setting.Kernel.ReadRequest();
  ASSERT_TRUE(receivedOfOne && receivedOfTwo);
  ASSERT_EQ(ofOne.AstInd(), ofTwo.AstInd());
  setting.Kernel.Answer(*receivedOfTwo, "two");
  setting.Kernel.Answer(*receivedOfOne, "one");
  EXPECT_EQ(two.ExpectAnswer(ofTwo).Strings[0], "two");
  EXPECT_EQ(one.ExpectAnswer(ofOne).Strings[0], "one");
}

// The reader has answered, the agent has not heard of it yet and reads the later request first.
// That one's record stands before the older one's.
TEST(LocalIpc, ATagMayBeUsedOverAnotherConnectionAsSoonAsItIsAnswered) {
  EchoNode other;
  Setting setting;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + other.Line("T"));
  ASSERT_TRUE(setting.Start());
  Client before(setting.Subject);
  before.ExpectNothing();
  const pid_t reader = setting.Use();
  setting.Settle(reader);
  const lumo::Message first = setting.Application->Send("K");
  const auto receivedFirst = setting.Kernel.ReadRequest();
  lumo::Message request = before.Request("K");
  request.SetAstInd(1001);
  before.SendMessage(request);
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(receivedFirst && received);
  setting.Kernel.Answer(*receivedFirst);
  setting.Application->ExpectAnswer(first);
  setting.Settle(reader);

  Client later(setting.Subject);
  later.Ask("T", "the link and the client that are served first");
  Freeze(setting.Subject.Pid());
  setting.Kernel.Answer(*received, "to the first");
  EXPECT_EQ(before.ExpectAnswer(request).Strings[0], "to the first");
  later.SendMessage(request);
  Thaw(setting.Subject.Pid());
  const auto again = setting.Kernel.ReadRequest();
  ASSERT_TRUE(again);
  setting.Kernel.Answer(*again, "to the second");
  EXPECT_EQ(later.ExpectAnswer(request).Strings[0], "to the second");
  before.ExpectNothing();
}

// The record of an earlier request to another node is free again: the later one of the two has it,
// and stands before the one that was asked first.
TEST(LocalIpc, TwoConnectionsWithOneTagGetOneAnswerEach) {
  Node other;
  Setting setting;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + other.Line("T"));
  ASSERT_TRUE(setting.Start());
  Client early(setting.Subject);
  early.ExpectNothing();
  setting.Use();
  Client late(setting.Subject);
  Client& asker = *setting.Application;
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
    const auto receivedFirst = setting.Kernel.ReadRequest();
    other.Answer(*atOther);
    asker.ExpectAnswer(before);
    two.SendMessage(second);
    const auto receivedSecond = setting.Kernel.ReadRequest();
    ASSERT_TRUE(receivedFirst && receivedSecond);
    setting.Kernel.Answer(*receivedFirst, "to the first");
    EXPECT_EQ(one.ExpectAnswer(first).Strings[0], "to the first");
    setting.Kernel.Answer(*receivedSecond, "to the second");
    EXPECT_EQ(two.ExpectAnswer(second).Strings[0], "to the second");
  }
  const pid_t reader = setting.Use();
  setting.Settle(reader);  // its answer is recorded: else the agent would have to answer once more
  kill(reader, SIGKILL);
  setting.Subject.Barrier();
  for (Client* client : {&early, &late, &asker}) client->ExpectNothing();
}

TEST(LocalIpc, HundredsOfRequestsMayBeUnanswered) {
  Setting setting;
  ASSERT_TRUE(setting.Start());
  Client early(setting.Subject);
  early.ExpectNothing();
  setting.Use();
  Client late(setting.Subject);
  Client* const clients[] = {&early, &late, &*setting.Application};
  constexpr std::size_t kRequests = 600;
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (std::size_t i = 0; i < kRequests; ++i) {
    lumo::Message request = clients[i % 3]->Request("K", std::to_string(i));
    request.SetAstInd(static_cast<std::uint16_t>(i));
    clients[i % 3]->SendMessage(request);
    requests.push_back(request);
    received.push_back(setting.Kernel.ReadRequest().value_or(IpcKernel::Request{}));
    ASSERT_EQ(received.back().Message.Strings[0], std::to_string(i));
  }
  for (std::size_t i = 0; i < kRequests; ++i) {
    setting.Kernel.Answer(received[i], std::string(100, 'x') + std::to_string(i));
    EXPECT_EQ(clients[i % 3]->ExpectAnswer(requests[i]).Strings[0],
              std::string(100, 'x') + std::to_string(i));
  }
  for (Client* client : clients) client->ExpectNothing();
}

TEST(LocalIpc, TheAgentsOwnAnswersAndTheReadersDoNotCutIntoEachOther) {
  Setting setting;
  setting.Connect();
  Client& client = *setting.Application;
  constexpr int kRounds = 100;
  std::set<std::uint16_t> expected;
  for (int round = 0; round < kRounds; ++round) {
    const lumo::Message request = client.Send("K");
    lumo::Message command = lumo::ManagementRequest(122);
    command.SetAstInd(static_cast<std::uint16_t>(0x8000 + round));
    client.SendMessage(command);
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    setting.Kernel.Answer(*received, std::string(3001, 'x'));
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

TEST(LocalIpc, AnAnswerThatNobodyAskedForIsPassedOver) {
  Setting setting;
  setting.Subject.LogLevel("3");
  const pid_t reader = setting.Connect();
  lumo::Message stray = AnswerTo(setting.Application->Request("K"), "stray");
  stray.SetAstInd(999);
  setting.Kernel.SendMessage(reader, stray);
  EXPECT_TRUE(
      setting.Subject.WaitForLog("The message were not send by the agent. Skip the message"));
  EXPECT_EQ(setting.Use(), reader);
  setting.Application->ExpectNothing();
}

TEST(LocalIpc, AnAnswerWhoseStringsLeaveTheMessageIsLoggedAndSkipped) {
  Setting setting;
  setting.Subject.LogLevel("3");
  const pid_t reader = setting.Connect();
  std::string body(104, '\0');
  body[48] = body[49] = '\xFF';  // the count of the first string
  setting.Kernel.SendBytes(reader, body);
  EXPECT_EQ(setting.Use(), reader);
  EXPECT_TRUE(WaitFor([&] {
    const std::vector<LogLine> lines = setting.Subject.LogLines();
    return std::any_of(lines.begin(), lines.end(), [](const LogLine& line) {
      return line.Level == 3 && line.Module == "lipc";
    });
  }));
  setting.Kernel.SendBytes(reader, "");  // bytes that did not come count as zero
  setting.Kernel.SendBytes(reader, "short");
  EXPECT_EQ(setting.Use(), reader);
  setting.Application->ExpectNothing();
}

// Clients that misbehave

TEST(LocalIpc, AClientThatHangsUpDisturbsNobody) {
  Setting setting;
  ASSERT_TRUE(setting.Start());
  setting.Application->ExpectNothing();
  for (const bool beforeTheLink : {true, false}) {
    Client leaving(setting.Subject);
    lumo::Message request = leaving.Request("K");
    request.SetAstInd(1000);  // the other clients' requests are of the same process
    leaving.SendMessage(request);
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    leaving.Close();
    setting.Subject.Barrier();
    Client next(setting.Subject);  // whose connection has the same number
    next.ExpectNothing();
    setting.Kernel.Answer(*received, "for nobody");
    EXPECT_GT(setting.Use(), 0) << beforeTheLink;
    EXPECT_GT(setting.Use(&next), 0);
    next.ExpectNothing();
  }
}

TEST(LocalIpc, AClientThatHangsUpWithTheAnswerOnItsWayDisturbsNobody) {
  Setting setting;
  setting.Connect();
  for (int time = 0; time < 20; ++time) {
    Client leaving(setting.Subject);
    leaving.Send("K");
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    setting.Kernel.Answer(*received, std::string(5000, 'x'));
    leaving.Close();
  }
  EXPECT_GT(setting.Use(), 0);
  EXPECT_EQ(setting.Subject.Stop(), 0);
}

TEST(LocalIpc, AClientSeesItsConnectionClosedThoughTheReaderHoldsACopy) {
  Setting setting;
  setting.Connect();
  setting.Application->SendBytes(std::string("\x04\0\0\0\0\0\0\0", 8));  // no such length
  setting.Application->ExpectClosed();
}

TEST(LocalIpc, AnAnswerForADeadClientIsReportedByTheReader) {
  Setting setting;
  setting.Subject.LogLevel("3");
  LivingProcess application;
  ASSERT_TRUE(setting.Start());
  Client client(setting.Subject, application.Pid());
  client.ExpectNothing();
  setting.Use();
  client.Send("K");
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  application.Kill();
  setting.Kernel.Answer(*received, "too late");
  EXPECT_TRUE(setting.Subject.WaitForLog("The message wasn't send to client. Client is dead"));
  EXPECT_TRUE(setting.Subject.WaitForLog("LIPC PutMsgToClient failed."));
  EXPECT_TRUE(setting.Subject.Logged(3, "lipc", "LIPC PutMsgToClient failed."));
  EXPECT_GT(setting.Use(), 0);
}

TEST(LocalIpc, AClientThatDoesNotReadKeepsNobodyWaitingAndMissesNothing) {
  Setting setting;
  setting.Connect();
  for (const bool beforeTheLink : {true, false}) {
    Client own(setting.Subject), other(setting.Subject);
    Client& slow = beforeTheLink ? *setting.Application : own;
    constexpr int kAnswers = 60;
    std::vector<lumo::Message> requests;
    for (int i = 0; i < kAnswers; ++i) {
      requests.push_back(slow.Send("K"));
      const auto received = setting.Kernel.ReadRequest();
      ASSERT_TRUE(received);
      setting.Kernel.Answer(*received, std::string(8000, 'x') + std::to_string(i));
    }
    EXPECT_GT(setting.Use(&other), 0);
    setting.Subject.Tick();
    for (int i = 0; i < kAnswers; ++i) {
      EXPECT_EQ(slow.ReceiveFrame(),
                lumo::Encode(AnswerTo(requests[static_cast<std::size_t>(i)],
                                      std::string(8000, 'x') + std::to_string(i)),
                             lumo::Lengths::Client))
          << i;
    }
    EXPECT_GT(setting.Use(&slow), 0);
  }
}

TEST(LocalIpc, AClientThatDoesNotReadAMebibyteIsClosed) {
  Setting setting;
  setting.Subject.LogLevel("3");
  setting.Connect();
  Client other(setting.Subject);
  const std::string line = "Send to client fail. Call:send. errno " + std::to_string(ENOBUFS);
  for (int i = 0; i < 400 && !setting.Subject.LogContains(line); ++i) {
    if (!setting.Application->SendMessage(setting.Application->Request("K"))) break;
    // The agent may have closed the connection before it read this request.
    std::optional<IpcKernel::Request> received;
    if (!WaitFor([&] {
          return setting.Kernel.QueuedMessages() > 0 || setting.Subject.LogContains(line);
        }))
      break;
    if (setting.Kernel.QueuedMessages() == 0) break;
    received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    setting.Kernel.Answer(*received, std::string(8000, 'x'));
    setting.Use(&other);
  }
  EXPECT_TRUE(setting.Subject.WaitForLog(line));
  EXPECT_GT(setting.Use(&other), 0);
}

}  // namespace
}  // namespace test
