// More clients than an agent was made for, and more than there are descriptors.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ostream>
#include <thread>
#include <vector>

#include "tests/stress/options.h"
#include "tests/stress/process_figures.h"
#include "tests/support/agent_test.h"
#include "tests/support/management.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace stress {
namespace {

using test::Client;

constexpr double kIdleShare = 0.05;  // of a processor; a loop that spins takes all of it
constexpr int kRefusals = 5;         // tried at the limit
constexpr char kAcceptFailed[] = "Call accept has failed. Errno 24";
constexpr int kLatePlaces = 12;  // between the client that is asked at the limit and the limit

struct Crowd {
  int Clients;
  rlim_t Limit;  // of the agent's descriptors
};

void PrintTo(const Crowd& crowd, std::ostream* out) {
  *out << crowd.Clients << " clients, " << crowd.Limit << " descriptors";
}

class Descriptors : public test::AgentTest, public testing::WithParamInterface<Crowd> {
 protected:
  ~Descriptors() override {
    for (const int fd : connections_) close(fd);
  }
  void SetUp() override {
    AllowOurselves(1400);
    agent_.LogLevel("3").Limit(RLIMIT_NOFILE, GetParam().Limit);
    StartAgent(node_.Line("SRV") + other_.Line("OTHER"));
  }
  static void AllowOurselves(rlim_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, count);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << "the test needs as many";
  }
  // A further client; false: the agent closed the connection, and nothing came before.
  bool Connect() {
    const int fd = test::ConnectRaw(agent_.SocketPath());
    EXPECT_GE(fd, 0);
    const std::string greeting = test::ReadRaw(fd, 60);
    if (greeting.size() == 60) {
      connections_.push_back(fd);
      return true;
    }
    EXPECT_EQ(greeting, "");
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, MSG_DONTWAIT), 0) << "not closed";
    close(fd);
    return false;
  }
  void ConnectUntil(int count) {
    while (static_cast<int>(connections_.size()) < count && refused_ == 0) refused_ += !Connect();
  }
  void ExpectServed(int connection) const {
    const std::string frame = lumo::Encode(lumo::ManagementRequest(102), lumo::Lengths::Client);
    ASSERT_EQ(send(connection, frame.data(), frame.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(frame.size()));
    EXPECT_EQ(test::ReadRaw(connection, 108).size(), 108u);
  }
  // The agent's part of a processor while nobody asks it anything.
  double IdleShare() const {
    const auto begin = test::Clock::now();
    const double before = CpuSeconds(agent_.Pid());
    std::this_thread::sleep_for(std::chrono::duration<double>(options.IdleSeconds));
    const std::chrono::duration<double> time = test::Clock::now() - begin;
    return (CpuSeconds(agent_.Pid()) - before) / time.count();
  }
  // No link gets a descriptor: which code, and with it which error, says why.
  void ExpectRefused(Client& client) {
    const int before = test::OpenDescriptors(agent_.Pid());
    const bool none = FreeDescriptors() == 0;
    for (int i = 0; i < 3; ++i)
      client.ExpectError(client.Send("OTHER"), none ? 4001 : 4052, none ? EMFILE : 0);
    EXPECT_EQ(test::OpenDescriptors(agent_.Pid()), before);
    const std::string line = none
                                 ? "tcpip. Connect. socket(PF_INET..) return bad status. errno = 24"
                                 : "tcpip. Connect. socket(PF_INET..) return too big value = " +
                                       std::to_string(FirstFreeDescriptor());
    EXPECT_EQ(agent_.CountLogged(3, "lumo_tcp", line), 3) << line;
  }
  int FirstFreeDescriptor() const {
    int fd = 0;
    while (!test::DescriptorTarget(agent_.Pid(), fd).empty()) ++fd;
    return fd;
  }
  int FreeDescriptors() const {
    return static_cast<int>(GetParam().Limit) - test::OpenDescriptors(agent_.Pid());
  }
  void CloseFirst(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) close(connections_[i]);
    connections_.erase(connections_.begin(),
                       connections_.begin() + static_cast<std::ptrdiff_t>(count));
  }

  test::EchoNode node_, other_;
  std::vector<int> connections_;
  int refused_ = 0;
};

TEST_P(Descriptors, NobodySpinsTheRestIsServedAndNoLinkIsMadeBeyondItsBound) {
  const int count = GetParam().Clients;
  Client first(agent_);
  EXPECT_EQ(first.Ask("SRV", "first").Strings[0], "first");
  ConnectUntil(std::min({count, static_cast<int>(GetParam().Limit), FD_SETSIZE}) - kLatePlaces);
  Client late(agent_);
  ConnectUntil(count);
  const bool full = refused_ > 0;
  for (int i = 0; full && i < kRefusals; ++i) refused_ += !Connect();
  EXPECT_EQ(refused_, full ? 1 + kRefusals : 0);

  const double share = IdleShare();
  std::printf("%zu clients, %d refused; idle: %.1f %% of a processor\n", connections_.size() + 2,
              refused_, 100 * share);
  EXPECT_LT(share, kIdleShare);
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", kAcceptFailed), refused_);

  for (const int connection : connections_) ExpectServed(connection);
  EXPECT_EQ(late.Ask("SRV", "late").Strings[0], "late");
  ExpectRefused(late);
  EXPECT_EQ(first.Ask("SRV", "first").Strings[0], "first");

  // With room again there is a link, and a client.
  CloseFirst(2);
  agent_.Barrier();
  EXPECT_EQ(late.Ask("OTHER", "late").Strings[0], "late");
  EXPECT_TRUE(Connect());
  CloseFirst(connections_.size());
  agent_.Barrier();
  EXPECT_EQ(agent_.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Crowds, Descriptors,
                         testing::Values(Crowd{300, 2048}, Crowd{1000, 2048}, Crowd{1100, 2048},
                                         Crowd{100, 24}),
                         [](const auto& crowd) {
                           return std::to_string(crowd.param.Clients) + "In" +
                                  std::to_string(crowd.param.Limit);
                         });

}  // namespace
}  // namespace stress
