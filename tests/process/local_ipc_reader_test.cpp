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

using Setting = IpcSetting;

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

TEST(LocalIpcReader, TheReaderHoldsClientConnectionsButNeitherTheListenerNorOtherLinks) {
  EchoNode node;
  Setting setting;
  LocalKernel neighbour(setting.Subject);
  setting.Subject.Nodetab(setting.Kernel.Line("K") + node.Line("N") + neighbour.Line("L"));
  ASSERT_TRUE(setting.Start());
  const pid_t agent = setting.Subject.Pid();
  setting.Application->ExpectNothing();
  const std::set<std::string> atFirst = Targets(agent);
  EXPECT_EQ(setting.Application->Ask("N", "text").Strings[0], "text");
  setting.Application->Send("L");
  ASSERT_TRUE(neighbour.Accept());
  ASSERT_TRUE(neighbour.ReadRequest());
  const std::set<std::string> links = Without(Targets(agent), atFirst);
  EXPECT_EQ(links.size(), 2u);
  const std::string listener = ListenerAt(setting.Subject.SocketPath());
  ASSERT_TRUE(atFirst.count(listener));
  const pid_t reader = setting.Use();
  const std::set<std::string> held = Targets(reader);
  EXPECT_FALSE(held.count(listener));
  for (const std::string& link : links) EXPECT_FALSE(held.count(link)) << link;
  // The control connection and the application's are shared; two ends are the reader's own.
  const std::set<std::string> own = Without(held, Targets(agent));
  EXPECT_LE(own.size(), 2u);
  EXPECT_EQ(Without(held, own).size(), 2u + (2u - own.size()));
}

TEST(LocalIpcReader, TheReaderTakesSignalsAsItShould) {
  Setting setting;
  const pid_t reader = setting.Connect();
  for (const int signal : {SIGUSR1, SIGIO, SIGALRM}) kill(reader, signal);
  EXPECT_EQ(setting.Use(), reader);
  const auto ignored = std::stoull(ProcessStatus(reader, "SigIgn"), nullptr, 16);
  for (const int signal : {SIGUSR1, SIGIO, SIGALRM})
    EXPECT_TRUE(ignored >> (signal - 1) & 1) << signal;
  for (const int signal : {SIGTERM, SIGPIPE}) EXPECT_FALSE(ignored >> (signal - 1) & 1) << signal;
  const auto caught = std::stoull(ProcessStatus(reader, "SigCgt"), nullptr, 16);
  for (const int signal : {SIGTERM, SIGPIPE}) EXPECT_FALSE(caught >> (signal - 1) & 1) << signal;
  EXPECT_EQ(std::stoull(ProcessStatus(reader, "SigBlk"), nullptr, 16), 0u);
}

TEST(LocalIpcReader, TheReaderEndsWithTheAgent) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    Setting setting;
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

TEST(LocalIpcReader, AReaderWhoseAgentIsGoneBeforeItBeginsEnds) {
  Setting setting;
  ASSERT_TRUE(setting.Start());
  ASSERT_EQ(ptrace(PTRACE_SEIZE, setting.Subject.Pid(), nullptr, PTRACE_O_TRACEFORK), 0);
  setting.Application->Send("K");
  const pid_t reader = CatchNewProcess(setting.Subject.Pid());
  ASSERT_GT(reader, 0);
  setting.Subject.Kill();
  ASSERT_TRUE(ProcessRuns(reader));
  ASSERT_EQ(ptrace(PTRACE_DETACH, reader, nullptr, nullptr), 0);
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
}

TEST(LocalIpcReader, AnAgentWithTwoKernelsStops) {
  Setting setting;
  IpcKernel another;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + another.Line("L"));
  const pid_t reader = setting.Connect();
  setting.Application->Send("L");
  const auto received = another.ReadRequest();
  ASSERT_TRUE(received);
  EXPECT_NE(received->Reader, reader);
  EXPECT_EQ(setting.Subject.Stop(), 0);
  for (const pid_t pid : {reader, received->Reader})
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(pid); }));
}

TEST(LocalIpcReader, AReaderThatEndsBreaksTheLink) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    Setting setting;
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

TEST(LocalIpcReader, AReaderThatATickFindsGoneBreaksTheLink) {
  Setting setting;
  setting.Subject.LogLevel("3");
  const pid_t reader = setting.Connect(), agent = setting.Subject.Pid();
  setting.Settle(reader);
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Subject.Barrier();
  setting.Subject.Signal(SIGSTOP);  // so that the tick comes before the end of the pipe is seen
  ASSERT_TRUE(WaitFor([&] { return ProcessStatus(agent, "State").rfind('T', 0) == 0; }));
  kill(reader, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
  setting.Subject.Signal(SIGALRM);
  setting.Subject.Signal(SIGCONT);
  setting.Application->ExpectError(request, 4053, 0);
  EXPECT_EQ(setting.Subject.CountLogged(3, "lipc", "LIPC child proccess deaded"), 1);
  EXPECT_GT(setting.Use(), 0);
}

TEST(LocalIpcReader, AnswersGivenBeforeTheReaderEndsAreGivenOnce) {
  Setting setting;
  const pid_t reader = setting.Connect();
  Client late(setting.Subject);
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (Client* client : {&*setting.Application, &late}) {
    requests.push_back(client->Send("K"));
    received.push_back(setting.Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  setting.Settle(reader);
  setting.Subject.Signal(SIGSTOP);  // it learns of the answers and of the end together
  for (const IpcKernel::Request& request : received) setting.Kernel.Answer(request, "answer");
  EXPECT_TRUE(WaitFor([&] {
    return setting.Kernel.QueuedMessages() == 0 &&
           ProcessStatus(reader, "State").rfind('S', 0) == 0;
  }));
  kill(reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(reader); }));
  setting.Subject.Signal(SIGCONT);
  EXPECT_EQ(setting.Application->ExpectAnswer(requests[0]).Strings[0], "answer");
  EXPECT_EQ(late.ExpectAnswer(requests[1]).Strings[0], "answer");
  setting.Application->ExpectNothing();
  late.ExpectNothing();
  EXPECT_GT(setting.Use(), 0);
}

// The second client's request is read in one pass with the reader's word of the first answer, and
// before it: the client served last comes before links, the link served last is another one.
TEST(LocalIpcReader, ANameUsedAgainOnAnotherConnectionIsNotTakenForTheAnsweredOne) {
  EchoNode other;
  Setting setting;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + other.Line("T"));
  ASSERT_TRUE(setting.Start());
  Client first(setting.Subject), second(setting.Subject);
  first.ExpectNothing();
  second.ExpectNothing();
  const pid_t reader = setting.Use();
  const lumo::Message before = first.Send("K"), request = first.Send("K");
  const auto received = setting.Kernel.ReadRequest(), answered = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received && answered);
  EXPECT_TRUE(setting.Kernel.Answer(*received));
  first.ExpectAnswer(before);  // its record becomes free, ahead of the other
  setting.Settle(reader);
  second.Ask("T", "served last");
  Freeze(setting.Subject.Pid());
  EXPECT_TRUE(setting.Kernel.Answer(*answered));
  first.ExpectAnswer(request);
  lumo::Message again = second.Request("K");
  again.SetAstInd(request.AstInd());
  EXPECT_TRUE(second.SendMessage(again));
  Thaw(setting.Subject.Pid());
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Settle(reader);
  kill(reader, SIGKILL);
  second.ExpectError(again, 4009, 0);
  first.ExpectNothing();
}

TEST(LocalIpcReader, NothingIsLeftOverWhenReadersComeAndGo) {
  Setting setting;
  pid_t reader = setting.Connect();
  const int descriptors = OpenDescriptors(setting.Subject.Pid());
  for (int time = 0; time < 5; ++time) {
    setting.Settle(reader);
    kill(reader, SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
    setting.Subject.Barrier();
    reader = setting.Use();
    EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), descriptors);
    EXPECT_EQ(setting.Attached(), 2);
  }
}

TEST(LocalIpcReader, WhatTheReaderDoesIsTraced) {
  Setting setting;
  setting.Subject.Trace();
  setting.Settle(setting.Connect());
  const std::string task = std::to_string(setting.Application->TaskName());
  EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "LIPC CHLD. TaskName = " + task));
  EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "LIPC read TaskName = " + task));
  EXPECT_TRUE(setting.Subject.LogContains("'ReadMessageFromKernelAndSendToDbc' Call from lipc:"));
  EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "'LIpcConnectLink' Leave SUCCESS"));
  EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "'LIpcSendToNetwork' Leave SUCCESS"));
  EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "'LIpcReadyForRead' Leave SUCCESS"));
  setting.Kernel.RemoveQueue();
  EXPECT_TRUE(
      setting.Subject.WaitForLog("'ReadMessageFromKernelAndSendToDbc' Leave FAILED msgrcv"));
}

// The kernel

TEST(LocalIpcReader, AQueueThatGoesBreaksTheLink) {
  Setting setting;
  const pid_t reader = setting.Connect();
  setting.Settle(reader);
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Subject.Barrier();
  setting.Kernel.RemoveQueue();
  setting.Application->ExpectError(request, 4009, 0);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
  setting.Application->ExpectError(setting.Application->Send("K"), 4006, ENOENT);
}

TEST(LocalIpcReader, ASemaphoreThatGoesFailsTheSending) {
  Setting setting;
  setting.Subject.Trace();
  setting.Settle(setting.Connect());
  setting.Kernel.RemoveSemaphore();
  const lumo::Message request = setting.Application->Send("K");
  setting.Application->ExpectError(request, 4007, EINVAL);
  EXPECT_EQ(
      setting.Subject.CountLogged(3, "lipc", "LIPC semop failed. errno " + std::to_string(EINVAL)),
      1);
  EXPECT_TRUE(setting.Subject.Logged(15, "lipc", "'LIpcSendToNetwork' Leave FAILED semop"));
  setting.Application->ExpectNothing();
}

TEST(LocalIpcReader, ASemaphoreAtItsLimitFailsTheSending) {
  constexpr int kLargest = 32767;
  Setting setting;
  setting.Connect();
  ASSERT_EQ(semctl(semget(setting.Kernel.Key(), 1, 0), 0, SETVAL, kLargest), 0);
  const lumo::Message request = setting.Application->Send("K");
  setting.Application->ExpectError(request, 4007, ERANGE);
}

TEST(LocalIpcReader, AReaderThatIsStillEndingDoesNotHoldUpTheNext) {
  constexpr int kLargest = 32767;
  Setting setting;
  setting.Connect();
  const int semaphore = semget(setting.Kernel.Key(), 1, 0);
  for (int time = 0; time < 50 && !testing::Test::HasFailure(); ++time) {
    ASSERT_EQ(semctl(semaphore, 0, SETVAL, kLargest), 0);
    setting.Application->ExpectError(setting.Application->Send("K"), 4007, ERANGE);
    ASSERT_EQ(semctl(semaphore, 0, SETVAL, 0), 0);
    ASSERT_TRUE(setting.Kernel.ReadRequest());  // it had come as far as the queue
    EXPECT_GT(setting.Use(), 0) << time;
  }
}

TEST(LocalIpcReader, AFullQueueIsWaitedForWhileTheKernelLives) {
  Setting setting;
  setting.Connect();
  setting.Kernel.FillQueue();
  const lumo::Message request = setting.Application->Send("K", "at last");
  EXPECT_FALSE(setting.Application->ReceiveFrame(kShortly));
  setting.Kernel.DrainQueue();
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->Message.Strings[0], "at last");
  setting.Kernel.Answer(*received, "answer");
  EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "answer");
}

// Answers that the reader cannot give itself lie between it and the agent until there is no room
// for more, and then in the queue until that is full, too. The agent, which has slept meanwhile,
// first reads a request, because its client and another link were served last.
TEST(LocalIpcReader, AQueueFullOfAnswersThatWaitForTheAgentDoesNotBlockIt) {
  constexpr std::size_t kRequests = 300, kText = 7900;
  EchoNode other;
  Setting setting;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + other.Line("T"));
  const pid_t reader = setting.Connect();
  Client later(setting.Subject);
  std::vector<lumo::Message> requests;
  std::vector<IpcKernel::Request> received;
  for (std::size_t i = 0; i < kRequests; ++i) {
    requests.push_back(later.Send("K"));
    received.push_back(setting.Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  later.Ask("T", "the link and the client that are served first");
  ASSERT_TRUE(WaitFor([&] { return Sleeps(setting.Subject.Pid()); }));
  Freeze(setting.Subject.Pid());
  std::size_t answered = 0;
  for (; answered < kRequests && setting.Kernel.HasRoomFor(kText); ++answered) {
    ASSERT_TRUE(setting.Kernel.Answer(received[answered], std::string(kText, 'x')));
    // Taken, or asleep with an answer left: it waits for the agent.
    ASSERT_TRUE(WaitFor([&] {
      return setting.Kernel.QueuedMessages() == 0 ||
             (Sleeps(reader) && setting.Kernel.QueuedMessages() > 0);
    }));
  }
  ASSERT_FALSE(setting.Kernel.HasRoomFor(kText)) << "there was room for all answers";
  later.Send("K", std::string(kText, 'q'));
  Thaw(setting.Subject.Pid());
  const auto last = setting.Kernel.ReadRequest();
  ASSERT_TRUE(last);
  EXPECT_EQ(last->Message.Strings[0], std::string(kText, 'q'));
  for (std::size_t i = 0; i < answered; ++i)
    EXPECT_EQ(later.ExpectAnswer(requests[i]).Strings[0], std::string(kText, 'x')) << i;
  EXPECT_EQ(setting.Use(), reader);
}

TEST(LocalIpcReader, AFullQueueHoldsUpNobodyElse) {
  EchoNode node;
  Setting setting;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + node.Line("N"));
  setting.Connect();
  Client other(setting.Subject);
  setting.Kernel.FillQueue();
  std::vector<lumo::Message> requests;
  for (int i = 0; i < 5; ++i) requests.push_back(setting.Application->Send("K", std::to_string(i)));
  setting.Subject.Barrier();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(other.Ask("N", std::to_string(i)).Strings[0], std::to_string(i));
    setting.Subject.Tick();
  }
  setting.Kernel.DrainQueue();
  for (int i = 0; i < 5; ++i) {
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->Message.Strings[0], std::to_string(i)) << "in their order";
    setting.Kernel.Answer(*received, "answer");
    setting.Application->ExpectAnswer(requests[static_cast<std::size_t>(i)]);
  }
}

TEST(LocalIpcReader, AReaderThatEndsBesideAFullQueueIsNoticedAtOnce) {
  Setting setting;
  const pid_t reader = setting.Connect();
  setting.Settle(reader);
  setting.Kernel.FillQueue();
  const lumo::Message request = setting.Application->Send("K");
  setting.Subject.Barrier();
  kill(reader, SIGKILL);
  setting.Application->ExpectError(request, 4009, 0);
  setting.Kernel.DrainQueue();
  EXPECT_NE(setting.Use(), reader);
}

// Two of 7 KB are more than half of the queue.
TEST(LocalIpcReader, AnswersToAFormerReaderDoNotFillTheQueue) {
  constexpr unsigned long kSmallQueue = 16384;
  Setting setting;
  setting.Kernel.LimitQueue(kSmallQueue);
  const pid_t former = setting.Connect();
  setting.Settle(former);
  std::vector<IpcKernel::Request> received;
  for (int i = 0; i < 2; ++i) {
    setting.Application->Send("K");
    received.push_back(setting.Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  kill(former, SIGKILL);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(setting.Application->Receive());
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(former); }));
  EXPECT_NE(setting.Use(), former);
  const std::string text(7000, 'x');
  for (const IpcKernel::Request& request : received)
    EXPECT_TRUE(setting.Kernel.Answer(request, text));
  const lumo::Message large = setting.Application->Send("K", text);
  const auto request = setting.Kernel.ReadRequest();
  ASSERT_TRUE(request);
  EXPECT_TRUE(setting.Kernel.Answer(*request, text));
  EXPECT_EQ(setting.Application->ExpectAnswer(large).Strings[0], text);
}

// Each request has come as far as the queue when its semaphore fails, and is answered to a reader
// that is no more.
TEST(LocalIpcReader, ABurstOfFailingSemaphoresLeavesNothingInTheQueue) {
  constexpr int kLargest = 32767;
  constexpr unsigned long kSmallQueue = 16384;
  Setting setting;
  setting.Kernel.LimitQueue(kSmallQueue);
  setting.Connect();
  const int semaphore = semget(setting.Kernel.Key(), 1, 0);
  const std::string text(7000, 'x');
  std::vector<IpcKernel::Request> received;
  ASSERT_EQ(semctl(semaphore, 0, SETVAL, kLargest), 0);
  for (int i = 0; i < 5; ++i) {
    setting.Application->ExpectError(setting.Application->Send("K"), 4007, ERANGE);
    received.push_back(setting.Kernel.ReadRequest().value_or(IpcKernel::Request{}));
  }
  ASSERT_EQ(semctl(semaphore, 0, SETVAL, 0), 0);
  for (const IpcKernel::Request& request : received) {
    EXPECT_TRUE(setting.Kernel.Answer(request, text)) << "there is room";
    EXPECT_GT(setting.Use(), 0);
    setting.Subject.Tick();
  }
  EXPECT_EQ(setting.Kernel.QueuedMessages(), 0);
}

TEST(LocalIpcReader, AFullQueueOfADeadKernelFailsTheSending) {
  Setting setting;
  setting.Subject.LogLevel("3");
  setting.Connect();
  setting.Kernel.FillQueue();
  const lumo::Message request = setting.Application->Send("K");
  EXPECT_FALSE(setting.Application->ReceiveFrame(kShortly));
  setting.Kernel.SetKernelPid(DeadPid());
  const auto answer = setting.Application->Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(answer->CodErr, 4007);
  EXPECT_TRUE(setting.Subject.LogContains("|LIPC msgsnd failed. errno "));
  setting.Application->ExpectNothing();
}

TEST(LocalIpcReader, AFullQueueDoesNotHoldUpAStop) {
  Setting setting;
  setting.Connect();
  setting.Kernel.FillQueue();
  setting.Application->Send("K");
  EXPECT_FALSE(setting.Application->ReceiveFrame(kShortly));
  EXPECT_EQ(setting.Subject.Stop(), 0);
}

// The death of a client

TEST(LocalIpcReader, TheKernelIsToldOfAClientsDeath) {
  Setting setting;
  LivingProcess application;
  const pid_t reader = setting.Connect();
  Client client(setting.Subject, application.Pid());
  setting.Use(&client);
  setting.Subject.Ticks(2);
  EXPECT_EQ(setting.Kernel.QueuedMessages(), 0);
  const int before = setting.Kernel.SemaphoreValue();
  const std::int32_t pid = application.Pid();
  application.Kill();
  setting.Subject.Ticks(2);
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  lumo::Message death;
  death.TaskName = reader;
  death.Command = "CKIL";
  death.Strings[0] = std::string(28, '\0');
  std::memcpy(death.Strings[0].data(), &pid, sizeof pid);
  death.SetTrailerTaskName(pid);
  death.SetAstInd(0xFFFF);
  EXPECT_EQ(lumo::Encode(received->Message, lumo::Lengths::Packet),
            lumo::Encode(death, lumo::Lengths::Packet));
  EXPECT_EQ(setting.Kernel.SemaphoreValue(), before + 1);
  EXPECT_EQ(setting.Kernel.QueuedMessages(), 0) << "only the agent tells, and once";
}

// Management

TEST(LocalIpcReader, ADeletedKernelGoesWithItsReader) {
  Setting setting;
  const pid_t reader = setting.Connect();
  setting.Settle(reader);
  Manager manager(setting.Subject);
  EXPECT_EQ(manager.DeleteNode("K"), 33);
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  kill(reader, SIGKILL);
  setting.Application->ExpectError(request, 4009, 0);
  EXPECT_EQ(manager.Names(), "OTHER");
  setting.Application->ExpectError(setting.Application->Send("K"), 4050, 0);
  setting.Subject.Tick();
  EXPECT_EQ(setting.Subject.Stop(), 0);
}

TEST(LocalIpcReader, ARedefinedKernelIsFoundUnderItsNewKey) {
  Setting setting;
  IpcKernel another;
  const pid_t reader = setting.Connect();
  setting.Settle(reader);
  Manager manager(setting.Subject);
  EXPECT_EQ(manager.SetNode("K", another.Line("L")), 0);
  kill(reader, SIGKILL);
  EXPECT_TRUE(WaitFor([&] { return !ProcessExists(reader); }));
  setting.Subject.Barrier();
  EXPECT_EQ(manager.Names(), "L OTHER");
  const lumo::Message request = setting.Application->Send("L");
  const auto received = another.ReadRequest();
  ASSERT_TRUE(received);
  another.Answer(*received, "from the new one");
  EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "from the new one");
}

}  // namespace
}  // namespace test
