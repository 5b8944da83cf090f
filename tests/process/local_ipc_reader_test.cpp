// The reader process of a local kernel's queue, and what becomes of the link when the reader, the
// kernel, a client or the node goes.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

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
  LocalKernel neighbour(Subject);
  Subject.Nodetab(Kernel.Line("K") + node.Line("N") + neighbour.Line("L"));
  ASSERT_TRUE(Start());
  const pid_t agent = Subject.Pid();
  Application->ExpectNothing();
  const std::set<std::string> atFirst = Targets(agent);
  EXPECT_EQ(Application->Ask("N", "text").Strings[0], "text");
  Application->Send("L");
  neighbour.ExpectFirstRequest();
  const std::set<std::string> links = Without(Targets(agent), atFirst);
  EXPECT_EQ(links.size(), 2u);
  const std::string listener = ListenerAt(Subject.SocketPath());
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
    IpcSetting setting;
    const pid_t reader = setting.Connect();
    setting.Settle(reader);  // it writes nothing more, which would end it, too
    ASSERT_TRUE(ProcessRuns(reader));
    if (signal == SIGKILL)
      setting.Subject.Kill();
    else
      EXPECT_EQ(setting.Subject.Stop(), 0);
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); })) << signal;
    EXPECT_TRUE(WaitFor([&] { return setting.Attached() == 0; }));
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
  ASSERT_TRUE(Start());
  ASSERT_EQ(ptrace(PTRACE_SEIZE, Subject.Pid(), nullptr, PTRACE_O_TRACEFORK), 0);
  Application->Send("K");
  const pid_t reader = CatchNewProcess(Subject.Pid());
  ASSERT_GT(reader, 0);
  Subject.Kill();
  ASSERT_TRUE(ProcessRuns(reader));
  ASSERT_EQ(ptrace(PTRACE_DETACH, reader, nullptr, nullptr), 0);
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
}

TEST_F(LocalIpcReader, AnAgentWithTwoKernelsStops) {
  IpcKernel another;
  Subject.Nodetab(Kernel.Line("K") + another.Line("L"));
  const pid_t reader = Connect();
  Application->Send("L");
  const auto received = another.ExpectRequest();
  EXPECT_NE(received.Reader, reader);
  EXPECT_EQ(Subject.Stop(), 0);
  for (const pid_t pid : {reader, received.Reader})
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(pid); }));
}

TEST_F(LocalIpcReader, AReaderThatEndsBreaksTheLink) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    IpcSetting setting;
    setting.Subject.Trace();
    const pid_t reader = setting.Connect();
    setting.Settle(reader);
    const lumo::Message first = setting.Application->Send("K"),
                        second = setting.Application->Send("K");
    ASSERT_TRUE(setting.Kernel.ReadRequest() && setting.Kernel.ReadRequest());
    kill(reader, signal);
    setting.Application->ExpectError(first, 4009, 0);
    setting.Application->ExpectError(second, 4009, 0);
    setting.Application->ExpectNothing();
    EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "LIPC Connection \"K\" is broken. Call:read"));
    EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "'LIpcReadyForRead' Leave FAILED receive"));
    EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); })) << "it is reaped";
    EXPECT_EQ(setting.Attached(), 0);
    EXPECT_NE(setting.Use(), reader) << "the next request starts another";
    EXPECT_EQ(setting.Subject.Stop(), 0);
  }
}

TEST_F(LocalIpcReader, AReaderThatATickFindsGoneBreaksTheLink) {
  Subject.LogLevel("3");
  const pid_t reader = Connect(), agent = Subject.Pid();
  Settle(reader);
  const lumo::Message request = InFlight();
  Subject.Barrier();
  Subject.Signal(SIGSTOP);  // so that the tick comes before the end of the pipe is seen
  ASSERT_TRUE(WaitFor([&] { return ProcessStatus(agent, "State").rfind('T', 0) == 0; }));
  kill(reader, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
  Subject.Signal(SIGALRM);
  Subject.Signal(SIGCONT);
  Application->ExpectError(request, 4053, 0);
  EXPECT_EQ(Subject.CountLogged(3, "lipc", "LIPC child proccess deaded"), 1);
  EXPECT_GT(Use(), 0);
}

TEST_F(LocalIpcReader, AnswersGivenBeforeTheReaderEndsAreGivenOnce) {
  const pid_t reader = Connect();
  Client late(Subject);
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (Client* client : {&*Application, &late}) {
    requests.push_back(client->Send("K"));
    received.push_back(Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  Settle(reader);
  Subject.Signal(SIGSTOP);  // it learns of the answers and of the end together
  for (const IpcKernel::Request& request : received) Kernel.Answer(request, "answer");
  EXPECT_TRUE(WaitFor([&] {
    return Kernel.QueuedMessages() == 0 && ProcessStatus(reader, "State").rfind('S', 0) == 0;
  }));
  kill(reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
  Subject.Signal(SIGCONT);
  EXPECT_EQ(Application->ExpectAnswer(requests[0]).Strings[0], "answer");
  EXPECT_EQ(late.ExpectAnswer(requests[1]).Strings[0], "answer");
  Application->ExpectNothing();
  late.ExpectNothing();
  EXPECT_GT(Use(), 0);
}

// The second client's request is read in one pass with the reader's word of the first answer, and
// before it: the client served last comes before links, the link served last is another one.
TEST_F(LocalIpcReader, ANameUsedAgainOnAnotherConnectionIsNotTakenForTheAnsweredOne) {
  EchoNode other;
  Subject.Nodetab(Kernel.Line("K") + other.Line("T"));
  ASSERT_TRUE(Start());
  Client first(Subject), second(Subject);
  first.ExpectNothing();
  second.ExpectNothing();
  const pid_t reader = Use();
  const lumo::Message before = first.Send("K"), request = first.Send("K");
  const auto received = Kernel.ReadRequest(), answered = Kernel.ReadRequest();
  ASSERT_TRUE(received && answered);
  EXPECT_TRUE(Kernel.Answer(*received));
  first.ExpectAnswer(before);  // its record becomes free, ahead of the other
  Settle(reader);
  second.Ask("T", "served last");
  Freeze(Subject.Pid());
  EXPECT_TRUE(Kernel.Answer(*answered));
  first.ExpectAnswer(request);
  lumo::Message again = second.Request("K");
  again.SetAstInd(request.AstInd());
  EXPECT_TRUE(second.SendMessage(again));
  Thaw(Subject.Pid());
  ASSERT_TRUE(Kernel.ReadRequest());
  Settle(reader);
  kill(reader, SIGKILL);
  second.ExpectError(again, 4009, 0);
  first.ExpectNothing();
}

TEST_F(LocalIpcReader, NothingIsLeftOverWhenReadersComeAndGo) {
  pid_t reader = Connect();
  const int descriptors = OpenDescriptors(Subject.Pid());
  for (int time = 0; time < 5; ++time) {
    Settle(reader);
    kill(reader, SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
    Subject.Barrier();
    reader = Use();
    EXPECT_EQ(OpenDescriptors(Subject.Pid()), descriptors);
    EXPECT_EQ(Attached(), 2);
  }
}

TEST_F(LocalIpcReader, WhatTheReaderDoesIsTraced) {
  Subject.Trace();
  Settle(Connect());
  const std::string task = std::to_string(Application->TaskName());
  EXPECT_TRUE(Subject.Logged(15, "lipc", "LIPC CHLD. TaskName = " + task));
  EXPECT_TRUE(Subject.Logged(15, "lipc", "LIPC read TaskName = " + task));
  EXPECT_TRUE(Subject.LogContains("'ReadMessageFromKernelAndSendToDbc' Call from lipc:"));
  EXPECT_TRUE(Subject.Logged(15, "lipc", "'LIpcConnectLink' Leave SUCCESS"));
  EXPECT_TRUE(Subject.Logged(15, "lipc", "'LIpcSendToNetwork' Leave SUCCESS"));
  EXPECT_TRUE(Subject.Logged(15, "lipc", "'LIpcReadyForRead' Leave SUCCESS"));
  Kernel.RemoveQueue();
  EXPECT_TRUE(Subject.WaitForLog("'ReadMessageFromKernelAndSendToDbc' Leave FAILED msgrcv"));
}

// The kernel

TEST_F(LocalIpcReader, AQueueThatGoesBreaksTheLink) {
  const pid_t reader = Connect();
  Settle(reader);
  const lumo::Message request = InFlight();
  Subject.Barrier();
  Kernel.RemoveQueue();
  Application->ExpectError(request, 4009, 0);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
  Application->ExpectError(Application->Send("K"), 4006, ENOENT);
}

TEST_F(LocalIpcReader, ASemaphoreThatGoesFailsTheSending) {
  Subject.Trace();
  Settle(Connect());
  Kernel.RemoveSemaphore();
  const lumo::Message request = Application->Send("K");
  Application->ExpectError(request, 4007, EINVAL);
  EXPECT_EQ(Subject.CountLogged(3, "lipc", "LIPC semop failed. errno " + std::to_string(EINVAL)),
            1);
  EXPECT_TRUE(Subject.Logged(15, "lipc", "'LIpcSendToNetwork' Leave FAILED semop"));
  Application->ExpectNothing();
}

TEST_F(LocalIpcReader, ASemaphoreAtItsLimitFailsTheSending) {
  constexpr int kLargest = 32767;
  Connect();
  ASSERT_EQ(semctl(semget(Kernel.Key(), 1, 0), 0, SETVAL, kLargest), 0);
  const lumo::Message request = Application->Send("K");
  Application->ExpectError(request, 4007, ERANGE);
}

TEST_F(LocalIpcReader, AReaderThatIsStillEndingDoesNotHoldUpTheNext) {
  constexpr int kLargest = 32767;
  Connect();
  const int semaphore = semget(Kernel.Key(), 1, 0);
  for (int time = 0; time < 50 && !testing::Test::HasFailure(); ++time) {
    ASSERT_EQ(semctl(semaphore, 0, SETVAL, kLargest), 0);
    Application->ExpectError(Application->Send("K"), 4007, ERANGE);
    ASSERT_EQ(semctl(semaphore, 0, SETVAL, 0), 0);
    ASSERT_TRUE(Kernel.ReadRequest());  // it had come as far as the queue
    EXPECT_GT(Use(), 0) << time;
  }
}

TEST_F(LocalIpcReader, AFullQueueIsWaitedForWhileTheKernelLives) {
  Connect();
  Kernel.FillQueue();
  const lumo::Message request = Application->Send("K", "at last");
  EXPECT_FALSE(Application->ReceiveFrame(kShortly));
  Kernel.DrainQueue();
  const auto received = Kernel.ExpectRequest();
  EXPECT_EQ(received.Message.Strings[0], "at last");
  Kernel.Answer(received, "answer");
  EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "answer");
}

// Answers that the reader cannot give itself lie between it and the agent until there is no room
// for more, and then in the queue until that is full, too. The agent, which has slept meanwhile,
// first reads a request, because its client and another link were served last.
TEST_F(LocalIpcReader, AQueueFullOfAnswersThatWaitForTheAgentDoesNotBlockIt) {
  constexpr std::size_t kRequests = 300, kText = 7900;
  EchoNode other;
  Subject.Nodetab(Kernel.Line("K") + other.Line("T"));
  const pid_t reader = Connect();
  Client later(Subject);
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (std::size_t i = 0; i < kRequests; ++i) {
    requests.push_back(later.Send("K"));
    received.push_back(Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  later.Ask("T", "the link and the client that are served first");
  ASSERT_TRUE(WaitFor([&] { return Sleeps(Subject.Pid()); }));
  Freeze(Subject.Pid());
  std::size_t answered = 0;
  for (; answered < kRequests && Kernel.HasRoomFor(kText); ++answered) {
    ASSERT_TRUE(Kernel.Answer(received[answered], std::string(kText, 'x')));
    // Taken, or asleep with an answer left: it waits for the agent.
    ASSERT_TRUE(WaitFor([&] {
      return Kernel.QueuedMessages() == 0 || (Sleeps(reader) && Kernel.QueuedMessages() > 0);
    }));
  }
  ASSERT_FALSE(Kernel.HasRoomFor(kText)) << "there was room for all answers";
  later.Send("K", std::string(kText, 'q'));
  Thaw(Subject.Pid());
  const auto last = Kernel.ExpectRequest();
  EXPECT_EQ(last.Message.Strings[0], std::string(kText, 'q'));
  for (std::size_t i = 0; i < answered; ++i)
    EXPECT_EQ(later.ExpectAnswer(requests[i]).Strings[0], std::string(kText, 'x')) << i;
  EXPECT_EQ(Use(), reader);
}

TEST_F(LocalIpcReader, AFullQueueHoldsUpNobodyElse) {
  EchoNode node;
  Subject.Nodetab(Kernel.Line("K") + node.Line("N"));
  Connect();
  Client other(Subject);
  Kernel.FillQueue();
  std::vector<lumo::Message> requests;
  for (int i = 0; i < 5; ++i) requests.push_back(Application->Send("K", std::to_string(i)));
  Subject.Barrier();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(other.Ask("N", std::to_string(i)).Strings[0], std::to_string(i));
    Subject.Tick();
  }
  Kernel.DrainQueue();
  for (int i = 0; i < 5; ++i) {
    const auto received = Kernel.ExpectRequest();
    EXPECT_EQ(received.Message.Strings[0], std::to_string(i)) << "in their order";
    Kernel.Answer(received, "answer");
    Application->ExpectAnswer(requests[static_cast<std::size_t>(i)]);
  }
}

TEST_F(LocalIpcReader, AReaderThatEndsBesideAFullQueueIsNoticedAtOnce) {
  const pid_t reader = Connect();
  Settle(reader);
  Kernel.FillQueue();
  const lumo::Message request = Application->Send("K");
  Subject.Barrier();
  kill(reader, SIGKILL);
  Application->ExpectError(request, 4009, 0);
  Kernel.DrainQueue();
  EXPECT_NE(Use(), reader);
}

// Two of 7 KB are more than half of the queue.
TEST_F(LocalIpcReader, AnswersToAFormerReaderDoNotFillTheQueue) {
  constexpr unsigned long kSmallQueue = 16384;
  Kernel.LimitQueue(kSmallQueue);
  const pid_t former = Connect();
  Settle(former);
  std::vector<IpcKernel::Request> received;
  for (int i = 0; i < 2; ++i) {
    Application->Send("K");
    received.push_back(Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  kill(former, SIGKILL);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(Application->Receive());
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(former); }));
  EXPECT_NE(Use(), former);
  const std::string text(7000, 'x');
  for (const IpcKernel::Request& request : received) EXPECT_TRUE(Kernel.Answer(request, text));
  const lumo::Message large = Application->Send("K", text);
  const auto request = Kernel.ExpectRequest();
  EXPECT_TRUE(Kernel.Answer(request, text));
  EXPECT_EQ(Application->ExpectAnswer(large).Strings[0], text);
}

// Each request has come as far as the queue when its semaphore fails, and is answered to a reader
// that is no more.
TEST_F(LocalIpcReader, ABurstOfFailingSemaphoresLeavesNothingInTheQueue) {
  constexpr int kLargest = 32767;
  constexpr unsigned long kSmallQueue = 16384;
  Kernel.LimitQueue(kSmallQueue);
  Connect();
  const int semaphore = semget(Kernel.Key(), 1, 0);
  const std::string text(7000, 'x');
  std::vector<IpcKernel::Request> received;
  ASSERT_EQ(semctl(semaphore, 0, SETVAL, kLargest), 0);
  for (int i = 0; i < 5; ++i) {
    Application->ExpectError(Application->Send("K"), 4007, ERANGE);
    received.push_back(Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  ASSERT_EQ(semctl(semaphore, 0, SETVAL, 0), 0);
  for (const IpcKernel::Request& request : received) {
    EXPECT_TRUE(Kernel.Answer(request, text)) << "there is room";
    EXPECT_GT(Use(), 0);
    Subject.Tick();
  }
  EXPECT_EQ(Kernel.QueuedMessages(), 0);
}

TEST_F(LocalIpcReader, AFullQueueOfADeadKernelFailsTheSending) {
  Subject.LogLevel("3");
  Connect();
  Kernel.FillQueue();
  const lumo::Message request = Application->Send("K");
  EXPECT_FALSE(Application->ReceiveFrame(kShortly));
  Kernel.SetKernelPid(DeadPid());
  const auto answer = Application->Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(answer->CodErr, 4007);
  EXPECT_TRUE(Subject.LogContains("|LIPC msgsnd failed. errno "));
  Application->ExpectNothing();
}

TEST_F(LocalIpcReader, AFullQueueDoesNotHoldUpAStop) {
  Connect();
  Kernel.FillQueue();
  Application->Send("K");
  EXPECT_FALSE(Application->ReceiveFrame(kShortly));
  EXPECT_EQ(Subject.Stop(), 0);
}

// The death of a client

TEST_F(LocalIpcReader, TheKernelIsToldOfAClientsDeath) {
  LivingProcess application;
  const pid_t reader = Connect();
  Client client(Subject, application.Pid());
  Use(&client);
  Subject.Ticks(2);
  EXPECT_EQ(Kernel.QueuedMessages(), 0);
  const int before = Kernel.SemaphoreValue();
  const std::int32_t pid = application.Pid();
  application.Kill();
  Subject.Ticks(2);
  const auto received = Kernel.ExpectRequest();
  EXPECT_EQ(lumo::Encode(received.Message, lumo::Lengths::Packet),
            lumo::Encode(DeathMessage(reader, pid), lumo::Lengths::Packet));
  EXPECT_EQ(Kernel.SemaphoreValue(), before + 1);
  EXPECT_EQ(Kernel.QueuedMessages(), 0) << "only the agent tells, and once";
}

// Management

TEST_F(LocalIpcReader, ADeletedKernelGoesWithItsReader) {
  const pid_t reader = Connect();
  Settle(reader);
  Manager manager(Subject);
  EXPECT_EQ(manager.DeleteNode("K"), 33);
  const lumo::Message request = InFlight();
  kill(reader, SIGKILL);
  Application->ExpectError(request, 4009, 0);
  EXPECT_EQ(manager.Names(), "OTHER");
  Application->ExpectError(Application->Send("K"), 4050, 0);
  Subject.Tick();
  EXPECT_EQ(Subject.Stop(), 0);
}

TEST_F(LocalIpcReader, ARedefinedKernelIsFoundUnderItsNewKey) {
  IpcKernel another;
  const pid_t reader = Connect();
  Settle(reader);
  Manager manager(Subject);
  EXPECT_EQ(manager.SetNode("K", another.Line("L")), 0);
  kill(reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
  Subject.Barrier();
  EXPECT_EQ(manager.Names(), "L OTHER");
  ExpectExchange(*Application, Application->Send("L"), another, "from the new one");
}

}  // namespace
}  // namespace test
