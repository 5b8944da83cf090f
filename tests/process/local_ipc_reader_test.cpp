// The reader process of a local kernel's queue, and what becomes of the link when the reader, the
// kernel, a client or the node goes.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/process/ipc_setting.h"
#include "tests/process/local_kernel.h"
#include "tests/process/manager.h"
#include "tests/support/node.h"

namespace test {
namespace {

using LocalIpcReader = IpcTest;

// Where the descriptors of a process lead.
std::set<std::string> Targets(pid_t pid) {
  std::set<std::string> targets;
  const std::filesystem::path folder = "/proc/" + std::to_string(pid) + "/fd";
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder, error), end; at != end; at.increment(error)) {
    const int descriptor = std::stoi(at->path().filename());
    if (descriptor > 2) targets.insert(DescriptorTarget(pid, descriptor));
  }
  return targets;
}

std::set<std::string> Without(std::set<std::string> all, const std::set<std::string>& some) {
  for (const std::string& target : some) all.erase(target);
  return all;
}

// The listening socket at a path, as descriptors show it.
std::string ListenerAt(const std::string& path) {
  std::ifstream table("/proc/net/unix");
  for (std::string line; std::getline(table, line);) {
    if (line.size() < path.size() || line.substr(line.size() - path.size()) != path) continue;
    std::istringstream fields(line);
    std::string word, inode;
    for (int field = 0; field < 7; ++field) fields >> (field == 6 ? inode : word);
    if (line.find(" 00010000 ") != std::string::npos) return "socket:[" + inode + "]";
  }
  return {};
}

// The reader

TEST_F(LocalIpcReader, TheReaderHoldsClientConnectionsButNeitherTheListenerNorOtherLinks) {
  EchoNode node;
  LocalKernel neighbour(agent_);
  agent_.Nodetab(kernel_.Line("K") + node.Line("N") + neighbour.Line("L"));
  Start();
  const pid_t agent = agent_.Pid();
  client_->ExpectNothing();
  const std::set<std::string> atFirst = Targets(agent);
  EXPECT_EQ(client_->Ask("N", "text").Strings[0], "text");
  client_->Send("L");
  neighbour.ExpectFirstRequest();
  const std::set<std::string> links = Without(Targets(agent), atFirst);
  EXPECT_EQ(links.size(), 2u);
  const std::string listener = ListenerAt(agent_.SocketPath());
  ASSERT_TRUE(atFirst.count(listener));
  const pid_t reader = Use();
  const std::set<std::string> held = Targets(reader);
  EXPECT_FALSE(held.count(listener));
  for (const std::string& link : links) EXPECT_FALSE(held.count(link)) << link;
  // The control connection and the application's are shared; two ends are the reader's own.
  const std::set<std::string> own = Without(held, Targets(agent));
  EXPECT_LE(own.size(), 2u);
  EXPECT_EQ(Without(held, own).size(), 2u + (2u - own.size()));
}

TEST_F(LocalIpcReader, TheReaderTakesSignalsAsItShould) {
  const pid_t reader = Connect();
  for (const int signal : {SIGUSR1, SIGIO, SIGALRM}) kill(reader, signal);
  EXPECT_EQ(Use(), reader);
  const auto ignored = std::stoull(ProcessStatus(reader, "SigIgn"), nullptr, 16);
  for (const int signal : {SIGUSR1, SIGIO, SIGALRM})
    EXPECT_TRUE(ignored >> (signal - 1) & 1) << signal;
  for (const int signal : {SIGTERM, SIGPIPE}) EXPECT_FALSE(ignored >> (signal - 1) & 1) << signal;
  const auto caught = std::stoull(ProcessStatus(reader, "SigCgt"), nullptr, 16);
  for (const int signal : {SIGTERM, SIGPIPE}) EXPECT_FALSE(caught >> (signal - 1) & 1) << signal;
  EXPECT_EQ(std::stoull(ProcessStatus(reader, "SigBlk"), nullptr, 16), 0u);
}

TEST_F(LocalIpcReader, TheReaderEndsWithTheAgent) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    const pid_t reader = ConnectAndSettle();  // it writes nothing more, which would end it, too
    ASSERT_TRUE(ProcessRuns(reader));
    if (signal == SIGKILL)
      agent_.Kill();
    else
      EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); })) << signal;
    EXPECT_TRUE(WaitFor([&] { return Attached() == 0; }));
  }
}

bool StopsForUs(pid_t pid) {
  int status = 0;
  return WaitFor([&] { return waitpid(pid, &status, __WALL | WNOHANG) == pid; }) &&
         WIFSTOPPED(status);
}

// The next process that the agent makes, stopped before its first instruction; 0: none.
pid_t CatchNewProcess(pid_t agent) {
  unsigned long made = 0;
  if (!StopsForUs(agent) || ptrace(PTRACE_GETEVENTMSG, agent, nullptr, &made) != 0) return 0;
  const auto pid = static_cast<pid_t>(made);
  return StopsForUs(pid) ? pid : 0;
}

TEST_F(LocalIpcReader, AReaderWhoseAgentIsGoneBeforeItBeginsEnds) {
  Start();
  ASSERT_EQ(ptrace(PTRACE_SEIZE, agent_.Pid(), nullptr, PTRACE_O_TRACEFORK), 0);
  client_->Send("K");
  const pid_t reader = CatchNewProcess(agent_.Pid());
  ASSERT_GT(reader, 0);
  agent_.Kill();
  ASSERT_TRUE(ProcessRuns(reader));
  ASSERT_EQ(ptrace(PTRACE_DETACH, reader, nullptr, nullptr), 0);
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
}

TEST_F(LocalIpcReader, AnAgentWithTwoKernelsStops) {
  IpcKernel another;
  agent_.Nodetab(kernel_.Line("K") + another.Line("L"));
  const pid_t reader = Connect();
  client_->Send("L");
  const auto received = another.ExpectRequest();
  EXPECT_NE(received.Reader, reader);
  EXPECT_EQ(agent_.Stop(), 0);
  for (const pid_t pid : {reader, received.Reader})
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(pid); }));
}

TEST_F(LocalIpcReader, AReaderThatEndsBreaksTheLink) {
  agent_.Trace();
  pid_t reader = Connect();
  int broken = 0;
  for (const int signal : {SIGKILL, SIGTERM}) {
    Settle(reader);
    const lumo::Message first = InFlight(), second = InFlight();
    kill(reader, signal);
    client_->ExpectError(first, 4009, 0);
    client_->ExpectError(second, 4009, 0);
    client_->ExpectNothing();
    ++broken;
    EXPECT_EQ(agent_.CountLogged(15, "lipc", "LIPC Connection \"K\" is broken. Call:read"), broken);
    EXPECT_EQ(agent_.CountLogged(15, "lipc", "'LIpcReadyForRead' Leave FAILED receive"), broken);
    EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); })) << "it is reaped";
    EXPECT_EQ(Attached(), 0);
    const pid_t next = Use();
    EXPECT_NE(next, reader) << "the next request starts another";
    reader = next;
  }
}

TEST_F(LocalIpcReader, AReaderThatATickFindsGoneBreaksTheLink) {
  agent_.LogLevel("3");
  const pid_t reader = ConnectAndSettle();
  const lumo::Message request = InFlight();
  agent_.Barrier();
  Freeze(agent_.Pid());  // so that the tick comes before the end of the pipe is seen
  kill(reader, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
  agent_.Signal(SIGALRM);
  Thaw(agent_.Pid());
  client_->ExpectError(request, 4053, 0);
  EXPECT_EQ(agent_.CountLogged(3, "lipc", "LIPC child proccess deaded"), 1);
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpcReader, AnswersGivenBeforeTheReaderEndsAreGivenOnce) {
  const pid_t reader = Connect();
  Client late(agent_);
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (Client* client : {&*client_, &late}) {
    requests.push_back(client->Send("K"));
    received.push_back(kernel_.ExpectRequest());
  }
  Settle(reader);
  Freeze(agent_.Pid());  // it learns of the answers and of the end together
  for (const IpcKernel::Request& request : received) kernel_.Answer(request, "answer");
  EXPECT_TRUE(WaitFor([&] { return kernel_.QueuedMessages() == 0 && Sleeps(reader); }));
  kill(reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
  Thaw(agent_.Pid());
  EXPECT_EQ(client_->ExpectAnswer(requests[0]).Strings[0], "answer");
  EXPECT_EQ(late.ExpectAnswer(requests[1]).Strings[0], "answer");
  client_->ExpectNothing();
  late.ExpectNothing();
  EXPECT_GT(Use(), 0);
}

// The second client's request is read in one pass with the reader's word of the first answer, and
// before it: the client served last comes before links, the link served last is another one.
TEST_F(LocalIpcReader, ANameUsedAgainOnAnotherConnectionIsNotTakenForTheAnsweredOne) {
  EchoNode other;
  agent_.Nodetab(kernel_.Line("K") + other.Line("T"));
  Start();
  Client first(agent_), second(agent_);
  first.ExpectNothing();
  second.ExpectNothing();
  const pid_t reader = Use();
  const lumo::Message before = first.Send("K"), request = first.Send("K");
  const auto received = kernel_.ExpectRequest(), answered = kernel_.ExpectRequest();
  ExpectAnswered(first, before, kernel_, received);  // its record becomes free, ahead of the other
  Settle(reader);
  second.Ask("T", "served last");
  Freeze(agent_.Pid());
  ExpectAnswered(first, request, kernel_, answered);
  lumo::Message again = second.Request("K");
  again.SetAstInd(request.AstInd());
  EXPECT_TRUE(second.SendMessage(again));
  Thaw(agent_.Pid());
  ASSERT_TRUE(kernel_.ReadRequest());
  Settle(reader);
  kill(reader, SIGKILL);
  second.ExpectError(again, 4009, 0);
  first.ExpectNothing();
}

TEST_F(LocalIpcReader, NothingIsLeftOverWhenReadersComeAndGo) {
  pid_t reader = Connect();
  const int descriptors = OpenDescriptors(agent_.Pid());
  for (int time = 0; time < 5; ++time) {
    Settle(reader);
    kill(reader, SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
    agent_.Barrier();
    reader = Use();
    EXPECT_EQ(OpenDescriptors(agent_.Pid()), descriptors);
    EXPECT_EQ(Attached(), 2);
  }
}

TEST_F(LocalIpcReader, WhatTheReaderDoesIsTraced) {
  agent_.Trace();
  ConnectAndSettle();
  const std::string task = std::to_string(client_->TaskName());
  EXPECT_TRUE(agent_.Logged(15, "lipc", "LIPC CHLD. TaskName = " + task));
  EXPECT_TRUE(agent_.Logged(15, "lipc", "LIPC read TaskName = " + task));
  EXPECT_TRUE(agent_.LogContains("'ReadMessageFromKernelAndSendToDbc' Call from lipc:"));
  EXPECT_TRUE(agent_.Logged(15, "lipc", "'LIpcConnectLink' Leave SUCCESS"));
  EXPECT_TRUE(agent_.Logged(15, "lipc", "'LIpcSendToNetwork' Leave SUCCESS"));
  EXPECT_TRUE(agent_.Logged(15, "lipc", "'LIpcReadyForRead' Leave SUCCESS"));
  kernel_.RemoveQueue();
  EXPECT_TRUE(agent_.WaitForLog("'ReadMessageFromKernelAndSendToDbc' Leave FAILED msgrcv"));
}

// The kernel

TEST_F(LocalIpcReader, AQueueThatGoesBreaksTheLink) {
  const pid_t reader = ConnectAndSettle();
  const lumo::Message request = InFlight();
  agent_.Barrier();
  kernel_.RemoveQueue();
  client_->ExpectError(request, 4009, 0);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
  client_->ExpectError(client_->Send("K"), 4006, ENOENT);
}

TEST_F(LocalIpcReader, ASemaphoreThatGoesFailsTheSending) {
  agent_.Trace();
  ConnectAndSettle();
  kernel_.RemoveSemaphore();
  client_->ExpectError(client_->Send("K"), 4007, EINVAL);
  EXPECT_EQ(agent_.CountLogged(3, "lipc", "LIPC semop failed. errno " + std::to_string(EINVAL)), 1);
  EXPECT_TRUE(agent_.Logged(15, "lipc", "'LIpcSendToNetwork' Leave FAILED semop"));
  client_->ExpectNothing();
}

TEST_F(LocalIpcReader, ASemaphoreAtItsLimitFailsTheSending) {
  Connect();
  kernel_.SetSemaphore(IpcKernel::kLargestSemaphore);
  client_->ExpectError(client_->Send("K"), 4007, ERANGE);
}

TEST_F(LocalIpcReader, AReaderThatIsStillEndingDoesNotHoldUpTheNext) {
  Connect();
  for (int time = 0; time < 50 && !testing::Test::HasFailure(); ++time) {
    kernel_.SetSemaphore(IpcKernel::kLargestSemaphore);
    client_->ExpectError(client_->Send("K"), 4007, ERANGE);
    kernel_.SetSemaphore(0);
    ASSERT_TRUE(kernel_.ReadRequest());  // it had come as far as the queue
    EXPECT_GT(Use(), 0) << time;
  }
}

TEST_F(LocalIpcReader, AFullQueueIsWaitedForWhileTheKernelLives) {
  Connect();
  kernel_.FillQueue();
  const lumo::Message request = client_->Send("K", "at last");
  EXPECT_FALSE(client_->ReceiveFrame(kShortly));
  kernel_.DrainQueue();
  const auto received = kernel_.ExpectRequest();
  EXPECT_EQ(received.Message.Strings[0], "at last");
  ExpectAnswered(*client_, request, kernel_, received, "answer");
}

// Answers that the reader cannot give itself lie between it and the agent until there is no room
// for more, and then in the queue until that is full, too. The agent, which has slept meanwhile,
// first reads a request, because its client and another link were served last.
TEST_F(LocalIpcReader, AQueueFullOfAnswersThatWaitForTheAgentDoesNotBlockIt) {
  constexpr std::size_t kRequests = 300, kText = 7900;
  EchoNode other;
  agent_.Nodetab(kernel_.Line("K") + other.Line("T"));
  const pid_t reader = Connect();
  Client later(agent_);
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (std::size_t i = 0; i < kRequests; ++i) {
    requests.push_back(later.Send("K"));
    received.push_back(kernel_.ExpectRequest());
  }
  later.Ask("T", "the link and the client that are served first");
  ASSERT_TRUE(WaitFor([&] { return Sleeps(agent_.Pid()); }));
  Freeze(agent_.Pid());
  std::size_t answered = 0;
  for (; answered < kRequests && kernel_.HasRoomFor(kText); ++answered) {
    ASSERT_TRUE(kernel_.Answer(received[answered], std::string(kText, 'x')));
    // Taken, or asleep with an answer left: it waits for the agent.
    ASSERT_TRUE(WaitFor([&] {
      return kernel_.QueuedMessages() == 0 || (Sleeps(reader) && kernel_.QueuedMessages() > 0);
    }));
  }
  ASSERT_FALSE(kernel_.HasRoomFor(kText)) << "there was room for all answers";
  later.Send("K", std::string(kText, 'q'));
  Thaw(agent_.Pid());
  const auto last = kernel_.ExpectRequest();
  EXPECT_EQ(last.Message.Strings[0], std::string(kText, 'q'));
  for (std::size_t i = 0; i < answered; ++i)
    EXPECT_EQ(later.ExpectAnswer(requests[i]).Strings[0], std::string(kText, 'x')) << i;
  EXPECT_EQ(Use(), reader);
}

TEST_F(LocalIpcReader, AFullQueueHoldsUpNobodyElse) {
  EchoNode node;
  agent_.Nodetab(kernel_.Line("K") + node.Line("N"));
  Connect();
  Client other(agent_);
  kernel_.FillQueue();
  std::vector<lumo::Message> requests;
  for (int i = 0; i < 5; ++i) requests.push_back(client_->Send("K", std::to_string(i)));
  agent_.Barrier();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(other.Ask("N", std::to_string(i)).Strings[0], std::to_string(i));
    agent_.Tick();
  }
  kernel_.DrainQueue();
  for (int i = 0; i < 5; ++i) {
    const auto received = kernel_.ExpectRequest();
    EXPECT_EQ(received.Message.Strings[0], std::to_string(i)) << "in their order";
    ExpectAnswered(*client_, requests[static_cast<std::size_t>(i)], kernel_, received, "answer");
  }
}

TEST_F(LocalIpcReader, AReaderThatEndsBesideAFullQueueIsNoticedAtOnce) {
  const pid_t reader = ConnectAndSettle();
  kernel_.FillQueue();
  const lumo::Message request = client_->Send("K");
  agent_.Barrier();
  kill(reader, SIGKILL);
  client_->ExpectError(request, 4009, 0);
  kernel_.DrainQueue();
  EXPECT_NE(Use(), reader);
}

// Two of 7 KB are more than half of the queue.
TEST_F(LocalIpcReader, AnswersToAFormerReaderDoNotFillTheQueue) {
  constexpr unsigned long kSmallQueue = 16384;
  kernel_.LimitQueue(kSmallQueue);
  const pid_t former = ConnectAndSettle();
  std::vector<IpcKernel::Request> received;
  for (int i = 0; i < 2; ++i) {
    client_->Send("K");
    received.push_back(kernel_.ExpectRequest());
  }
  kill(former, SIGKILL);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client_->Receive());
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(former); }));
  EXPECT_NE(Use(), former);
  const std::string text(7000, 'x');
  for (const IpcKernel::Request& request : received) EXPECT_TRUE(kernel_.Answer(request, text));
  ExpectExchange(*client_, client_->Send("K", text), kernel_, text);
}

// Each request has come as far as the queue when its semaphore fails, and is answered to a reader
// that is no more.
TEST_F(LocalIpcReader, ABurstOfFailingSemaphoresLeavesNothingInTheQueue) {
  constexpr unsigned long kSmallQueue = 16384;
  kernel_.LimitQueue(kSmallQueue);
  Connect();
  const std::string text(7000, 'x');
  std::vector<IpcKernel::Request> received;
  kernel_.SetSemaphore(IpcKernel::kLargestSemaphore);
  for (int i = 0; i < 5; ++i) {
    client_->ExpectError(client_->Send("K"), 4007, ERANGE);
    received.push_back(kernel_.ExpectRequest());
  }
  kernel_.SetSemaphore(0);
  for (const IpcKernel::Request& request : received) {
    EXPECT_TRUE(kernel_.Answer(request, text)) << "there is room";
    EXPECT_GT(Use(), 0);
    agent_.Tick();
  }
  EXPECT_EQ(kernel_.QueuedMessages(), 0);
}

TEST_F(LocalIpcReader, AFullQueueOfADeadKernelFailsTheSending) {
  agent_.LogLevel("3");
  Connect();
  kernel_.FillQueue();
  const lumo::Message request = client_->Send("K");
  EXPECT_FALSE(client_->ReceiveFrame(kShortly));
  kernel_.SetKernelPid(DeadPid());
  const auto answer = client_->Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(answer->CodErr, 4007);
  EXPECT_TRUE(agent_.LogContains("|LIPC msgsnd failed. errno "));
  client_->ExpectNothing();
}

TEST_F(LocalIpcReader, AFullQueueDoesNotHoldUpAStop) {
  Connect();
  kernel_.FillQueue();
  client_->Send("K");
  EXPECT_FALSE(client_->ReceiveFrame(kShortly));
  EXPECT_EQ(agent_.Stop(), 0);
}

// The death of a client

TEST_F(LocalIpcReader, TheKernelIsToldOfAClientsDeath) {
  LivingProcess application;
  const pid_t reader = Connect();
  Client client(agent_, application.Pid());
  Use(&client);
  agent_.Ticks(2);
  EXPECT_EQ(kernel_.QueuedMessages(), 0);
  const int before = kernel_.SemaphoreValue();
  const std::int32_t pid = application.Pid();
  application.Kill();
  agent_.Ticks(2);
  const auto received = kernel_.ExpectRequest();
  EXPECT_EQ(lumo::Encode(received.Message, lumo::Lengths::Packet),
            lumo::Encode(DeathMessage(reader, pid), lumo::Lengths::Packet));
  EXPECT_EQ(kernel_.SemaphoreValue(), before + 1);
  EXPECT_EQ(kernel_.QueuedMessages(), 0) << "only the agent tells, and once";
}

// Management

TEST_F(LocalIpcReader, ADeletedKernelGoesWithItsReader) {
  const pid_t reader = ConnectAndSettle();
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("K"), 33);
  const lumo::Message request = InFlight();
  kill(reader, SIGKILL);
  client_->ExpectError(request, 4009, 0);
  EXPECT_EQ(manager.Names(), "OTHER");
  client_->ExpectError(client_->Send("K"), 4050, 0);
  agent_.Tick();
}

TEST_F(LocalIpcReader, ARedefinedKernelIsFoundUnderItsNewKey) {
  IpcKernel another;
  const pid_t reader = ConnectAndSettle();
  Manager manager(agent_);
  EXPECT_EQ(manager.SetNode("K", another.Line("L")), 0);
  kill(reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
  agent_.Barrier();
  EXPECT_EQ(manager.Names(), "L OTHER");
  ExpectExchange(*client_, client_->Send("L"), another, "from the new one");
}

}  // namespace
}  // namespace test
