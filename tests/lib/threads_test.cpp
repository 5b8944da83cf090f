// Several threads on one connection, and processes that come of a fork.
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "lib/tags.h"
#include "tests/lib/lib_setting.h"

namespace test {
namespace {

using lumo::detail::Tags;

class Threads : public EchoTest {
 protected:
  // Asks until told to stop; every answer must be the asking thread's own.
  static void AskAll(liblumo::Connection& connection, const std::string& name, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string text = name + " " + std::to_string(i);
      const liblumo::Answer answer = connection.Ask("SRV", text, kAmple);
      ASSERT_TRUE(answer) << answer.Words();
      ASSERT_EQ(answer.String(0), text);
    }
  }
};

TEST_F(Threads, EachGetsItsOwnAnswers) {
  liblumo::Connection one = Open(agent_), two = Open(agent_);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] { AskAll(i % 2 ? one : two, "thread " + std::to_string(i), 50); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(echo_.Served(), 400);
}

TEST_F(Threads, WaitersForAnyRequestShareThem) {
  liblumo::Connection connection = Open(agent_);
  constexpr int kCount = 200;
  std::atomic<int> received{0};
  std::vector<std::thread> threads;
  std::set<lumo_ticket> tickets, ended;
  std::mutex mutex;
  for (int i = 0; i < kCount; ++i) tickets.insert(Send(connection, "SRV", "question"));
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (;;) {
        const liblumo::Answer answer = connection.ReceiveAny(kAmple);
        if (answer.Status() == LUMO_NOTHING_SENT) return;
        ASSERT_TRUE(answer) << answer.Words();
        const std::lock_guard lock(mutex);
        ended.insert(answer.Ticket());
        ++received;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(received, kCount);
  EXPECT_EQ(ended, tickets);
}

TEST_F(Threads, AWaitForEverHindersNobody) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket slow = Send(connection, "SRV", "slow");
  const lumo::Message held = peer.ExpectRequest();
  std::thread waiting([&, &connection = connection] {
    EXPECT_EQ(connection.Receive(slow, liblumo::kForever).String(0), "slow");
  });
  for (int i = 0; i < 10; ++i) {
    const lumo_ticket quick = Send(connection, "SRV", "quick");
    const lumo::Message request = peer.ExpectRequest();
    EXPECT_EQ(connection.Receive(quick, kAtOnce).Status(), LUMO_TIMEOUT);
    peer.SendMessage(request);
    EXPECT_EQ(connection.Receive(quick, kAmple).String(0), "quick");
  }
  peer.SendMessage(held);
  waiting.join();
}

// The one request that a thread waits for among any is given up by another thread.
TEST_F(Threads, AWaiterForAnyRequestIsToldWhenThereIsNoneLeft) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  std::atomic<pid_t> waiter{0};
  std::thread waiting([&, &connection = connection] {
    waiter = gettid();
    EXPECT_EQ(connection.ReceiveAny(liblumo::kForever).Status(), LUMO_NOTHING_SENT);
  });
  EXPECT_TRUE(Sleeps(waiter));
  EXPECT_TRUE(connection.Abandon(ticket));
  waiting.join();
}

// What the library's event descriptor counts; -1: there is none.
int UntakenWakeUps() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    const std::string info = ReadFile(entry.path());
    const std::size_t at = info.find("eventfd-count:");
    if (at != std::string::npos) return std::stoi(info.substr(at + 14), nullptr, 16);
  }
  return -1;
}

// One that stayed would end every further wait at once.
TEST_F(Threads, AWakeUpEndsOneWait) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket given = Send(connection, "SRV", "given up"), kept = Send(connection, "SRV", "");
  peer.ExpectRequest();
  const lumo::Message request = peer.ExpectRequest();
  std::atomic<pid_t> waiter{0};
  std::thread waiting([&, &connection = connection] {
    waiter = gettid();
    EXPECT_TRUE(connection.Receive(kept, liblumo::kForever));
  });
  EXPECT_TRUE(Sleeps(waiter));
  EXPECT_TRUE(connection.Abandon(given));
  EXPECT_TRUE(WaitFor([] { return UntakenWakeUps() == 0; })) << UntakenWakeUps();
  peer.SendMessage(request);
  waiting.join();
}

TEST_F(Threads, ALostConnectionEndsEveryWait) {
  auto [connection, peer] = FakeAgent().Connect();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    const lumo_ticket ticket = Send(connection, "SRV", "question");
    threads.emplace_back([&connection = connection, ticket] {
      EXPECT_TRUE(connection.Receive(ticket, liblumo::kForever).Unsure());
    });
  }
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(peer.ReadRequest());
  peer.Close();
  for (std::thread& thread : threads) thread.join();
}

// The agent is killed and started again under threads that go on asking: each request comes to one
// of the three ends or is not sent, and the connection recovers.
TEST_F(Threads, SurviveARestart) {
  liblumo::Connection connection = Open(agent_);
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        const liblumo::Answer answer = connection.Ask("SRV", "question", kAmple);
        if (answer) ++answered;
        EXPECT_TRUE(answer || answer.Unsure() || answer.Status() == LUMO_NO_AGENT)
            << answer.Words();
      }
    });
  }
  EXPECT_TRUE(WaitFor([&] { return answered > 20; }));
  agent_.Kill();
  agent_.CloseControl();
  agent_.Spawn();
  EXPECT_TRUE(agent_.WaitUntilReady());
  const int before = answered;
  EXPECT_TRUE(WaitFor([&] { return answered > before + 20; }));
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

// Runs in a child process; true when the steps all say so.
template <class Steps>
bool InChild(Steps steps) {
  const pid_t child = fork();
  if (child == 0) _exit(steps() ? 0 : 1);
  int status = -1;
  if (!WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; })) {
    ADD_FAILURE() << "the child is held up";
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(Threads, AChildGoesOnWithAConnectionOfItsOwn) {
  liblumo::Connection connection = Open(agent_);
  EXPECT_TRUE(InChild([&] {
    const int inherited = connection.Descriptor();
    const liblumo::Answer answer = connection.Ask("SRV", "child", kAmple);
    return inherited == -1 && answer && answer.String(0) == "child" &&
           connection.AgentPid() == agent_.Pid();
  }));
  EXPECT_EQ(connection.Ask("SRV", "parent", kAmple).String(0), "parent");
}

TEST(Forks, WhatTheParentSentStaysTheParents) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  const lumo::Message request = peer.ExpectRequest();
  EXPECT_TRUE(InChild([&, &connection = connection] {
    return connection.InFlight() == 0 &&
           connection.Receive(ticket, kAmple).Status() == LUMO_FORKED &&
           connection.Abandon(ticket).Code == LUMO_FORKED &&
           connection.ReceiveAny(kAmple).Status() == LUMO_NOTHING_SENT &&
           connection.Receive(ticket + 1000, kAtOnce).Status() == LUMO_NO_TICKET;
  }));
  peer.SendMessage(request);
  EXPECT_EQ(connection.Receive(ticket, kAmple).String(0), "question");
}

TEST(Forks, ClosingInTheChildLeavesTheParentsConnection) {
  auto [connection, peer] = FakeAgent().Connect();
  EXPECT_TRUE(InChild([&, &connection = connection] {
    const int before = OpenDescriptors(getpid());
    lumo_close(connection.Get());
    return OpenDescriptors(getpid()) < before;
  }));
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  peer.SendMessage(peer.ExpectRequest());
  EXPECT_EQ(connection.Receive(ticket, kAmple).String(0), "question");
}

// Whatever of the library the parent's threads hold at the moment of the fork. Neither they nor
// anybody else in the process needs memory meanwhile: a sanitizer's own allocator does not survive
// a fork in the middle of it.
TEST(Forks, AChildOfABusyProcessIsNotHeldUp) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  auto [parents, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(parents, "SRV", "question");
  liblumo::Connection childs = Open(agent);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    lumo_answer* answer = nullptr;
    while (!stop) lumo_receive(childs.Get(), ticket, 0, &answer);
  });
  threads.emplace_back([&] {
    while (!stop) Tags::OfThisProcess().Release(*Tags::OfThisProcess().Take());
  });
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(InChild([&, &connection = parents] {
      return childs.Probe(kAmple).Value == 1 &&
             connection.Receive(ticket, kAtOnce).Status() == LUMO_FORKED;
    }));
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

class TagsOfAProcess : public ::testing::Test {
 protected:
  // All that are left.
  std::vector<std::uint16_t> TakeAll() {
    std::vector<std::uint16_t> taken;
    while (const auto tag = tags_.Take()) taken.push_back(*tag);
    return taken;
  }

  Tags& tags_ = Tags::OfThisProcess();
};

TEST_F(TagsOfAProcess, AllAreDifferentUntilTheyRunOut) {
  std::set<std::uint16_t> taken;
  while (const auto tag = tags_.Take()) EXPECT_TRUE(taken.insert(*tag).second);
  EXPECT_EQ(taken.size(), 65534u);
  EXPECT_EQ(*taken.begin(), 1);
  EXPECT_EQ(*taken.rbegin(), 0xFFFE);

  auto [connection, peer] = FakeAgent().Connect();
  lumo_ticket ticket = 0;
  EXPECT_EQ(connection.Send(liblumo::Request("SRV"), &ticket).Code, LUMO_NO_TAG);
  for (const std::uint16_t tag : taken) tags_.Release(tag);
  EXPECT_TRUE(connection.Send(liblumo::Request("SRV"), &ticket));
}

TEST_F(TagsOfAProcess, OneWhoseAnswerMayStillComeIsTakenLast) {
  const std::vector<std::uint16_t> taken = TakeAll();
  tags_.Retire(700);
  tags_.Release(800);
  EXPECT_EQ(tags_.Take(), 800);
  tags_.Release(900);
  EXPECT_EQ(tags_.Take(), 900);
  EXPECT_EQ(tags_.Take(), 700);
  EXPECT_EQ(tags_.Take(), std::nullopt);
  for (const std::uint16_t tag : taken) tags_.Release(tag);
}

TEST_F(TagsOfAProcess, OneOfALostConnectionIsTakenAfterAllThatAreFree) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  const lumo::Message request = peer.ExpectRequest();
  peer.Close();
  EXPECT_TRUE(connection.Receive(ticket, kAmple).Unsure());
  for (int i = 0; i < 1000; ++i) tags_.Release(*tags_.Take());  // else it would be the last in turn
  const std::vector<std::uint16_t> taken = TakeAll();
  const auto place = std::find(taken.begin(), taken.end(), request.AstInd());
  EXPECT_LT(taken.end() - place, 500) << "behind it are those that other tests have left";
  EXPECT_NE(place, taken.end());
  for (const std::uint16_t tag : taken) tags_.Release(tag);
}

TEST_F(TagsOfAProcess, OneThatWasGivenUpIsParkedUntilItsAnswerComes) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  const lumo::Message request = peer.ExpectRequest();
  EXPECT_TRUE(connection.Abandon(ticket));
  std::vector<std::uint16_t> taken = TakeAll();
  EXPECT_EQ(std::count(taken.begin(), taken.end(), request.AstInd()), 0);
  tags_.Release(taken.back());
  const lumo_ticket other = Send(connection, "SRV", "question");
  const lumo::Message second = peer.ExpectRequest();
  EXPECT_EQ(second.AstInd(), taken.back());
  taken.pop_back();
  peer.SendMessage(request);
  peer.SendMessage(second);
  EXPECT_TRUE(connection.Receive(other, kAmple));
  // Both answers have come: both tags are free again, and taken before any that is only retired.
  for (const std::uint16_t tag : taken) tags_.Retire(tag);
  const std::vector<std::uint16_t> again = TakeAll();
  ASSERT_EQ(again.size(), taken.size() + 2);
  EXPECT_EQ((std::set<std::uint16_t>{again[0], again[1]}),
            (std::set<std::uint16_t>{request.AstInd(), second.AstInd()}));
  for (const std::uint16_t tag : again) tags_.Release(tag);
}

TEST_F(TagsOfAProcess, AChildHasItsOwn) {
  const std::vector<std::uint16_t> taken = TakeAll();
  EXPECT_TRUE(InChild([&] { return Tags::OfThisProcess().Take().has_value(); }));
  for (const std::uint16_t tag : taken) tags_.Release(tag);
}

}  // namespace
}  // namespace test
