// Every allocation of a call is made to fail once: the call says so, and everything goes on.
#include <array>
#include <cstdlib>
#include <new>
#include <utility>

#include "tests/lib/lib_setting.h"

namespace {

thread_local int allocationsUntilFailure = -1;  // negative: none fails

bool FailsNow() { return allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0; }

void* Allocate(std::size_t size) {
  if (FailsNow()) throw std::bad_alloc();
  if (void* const memory = std::malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) { return Allocate(size); }
[[gnu::noinline]] void* operator new[](std::size_t size) { return Allocate(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using test::kAmple;

// Repeats the call with the first, second, ... allocation failing, until none is left to fail.
template <class Call>
int FailEach(Call call) {
  for (int failing = 0;; ++failing) {
    allocationsUntilFailure = failing;
    call();
    const bool allFine = allocationsUntilFailure >= 0;
    allocationsUntilFailure = -1;
    if (allFine) return failing;
  }
}

using Memory = test::EchoTest;

TEST_F(Memory, OpeningFailsCleanly) {
  const std::string path = agent_.SocketPath();
  const int before = test::OpenDescriptors(getpid());
  const int failures = FailEach([&] {
    lumo_connection* connection = nullptr;
    const lumo_status status = lumo_open(path.c_str(), 5000, &connection);
    if (status != LUMO_OK) {
      EXPECT_EQ(status, LUMO_NO_MEMORY);
      EXPECT_EQ(connection, nullptr);
    }
    lumo_close(connection);
  });
  EXPECT_GE(failures, 3);
  EXPECT_EQ(test::OpenDescriptors(getpid()), before);
}

TEST_F(Memory, AskingFailsCleanlyAndTheConnectionGoesOn) {
  liblumo::Connection connection = test::Open(agent_);
  const std::string text(300, 'x');
  int unsure = 0;
  const int failures = FailEach([&] {
    lumo_answer* answer = nullptr;
    const lumo_status status = lumo_ask_text(connection.Get(), "SRV", text.c_str(), 5000, &answer);
    if (status == LUMO_UNSURE) {
      EXPECT_EQ(lumo_answer_reason(answer), LUMO_REASON_NO_MEMORY);
      ++unsure;
    } else if (status != LUMO_OK) {
      EXPECT_EQ(status, LUMO_NO_MEMORY);
      EXPECT_EQ(answer, nullptr);
    }
    lumo_answer_free(answer);
  });
  EXPECT_GE(failures, 5);
  EXPECT_GE(unsure, 1);
  EXPECT_EQ(connection.InFlight(), 0u);
  EXPECT_EQ(connection.Ask("SRV", "afterwards", kAmple).String(0), "afterwards");
}

TEST_F(Memory, AnAnswerThatCouldNotBeTakenIsTakenLater) {
  liblumo::Connection connection = test::Open(agent_);
  const std::string text(300, 'x');
  const int failures = FailEach([&] {
    const int budget = allocationsUntilFailure;
    allocationsUntilFailure = -1;
    const lumo_ticket ticket = test::Send(connection, "SRV", text);
    allocationsUntilFailure = budget;
    lumo_answer* answer = nullptr;
    lumo_status status = lumo_receive(connection.Get(), ticket, 5000, &answer);
    if (status != LUMO_OK) {
      EXPECT_EQ(status, LUMO_NO_MEMORY);
      EXPECT_EQ(connection.InFlight(), 1u);
      status = lumo_receive(connection.Get(), ticket, 5000, &answer);
    }
    EXPECT_EQ(status, LUMO_OK);
    const char* const string = lumo_answer_string(answer, 0, nullptr);
    EXPECT_TRUE(string && string == text);
    lumo_answer_free(answer);
  });
  EXPECT_GE(failures, 1);
}

TEST_F(Memory, OfAnswersThatCameTogetherTheOneThatCouldNotBeTakenIsTakenLater) {
  auto [connection, peer] = test::FakeAgent().Connect();
  const int failures = FailEach([&, &connection = connection, &peer = peer] {
    const int budget = allocationsUntilFailure;
    allocationsUntilFailure = -1;
    std::string answers;
    std::array<lumo_ticket, 2> tickets{};
    for (lumo_ticket& ticket : tickets) {
      ticket = test::Send(connection, "SRV", std::string(300, 'x'));
      answers += lumo::Encode(peer.ExpectRequest(), lumo::Lengths::Client);
    }
    ASSERT_TRUE(peer.SendBytes(answers));
    allocationsUntilFailure = budget;
    lumo_answer* answer = nullptr;
    const lumo_status status = lumo_receive(connection.Get(), tickets[1], 5000, &answer);
    lumo_answer_free(answer);
    const int left = std::exchange(allocationsUntilFailure, -1);
    EXPECT_TRUE(connection.Receive(tickets[0], kAmple));
    EXPECT_EQ(connection.Receive(tickets[1], kAmple).Status(),
              status == LUMO_OK ? LUMO_NO_TICKET : LUMO_OK);
    allocationsUntilFailure = left;
  });
  EXPECT_GE(failures, 4) << "of both answers";
}

}  // namespace
