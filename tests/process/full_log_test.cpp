// A log that nobody reads holds nobody up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace test {
namespace {

using FullLog = AgentTest;

// The agent's standard error: a pipe that can be filled and emptied.
class LogPipe {
 public:
  LogPipe() {
    if (pipe2(ends_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe can be made");
    fcntl(ends_[0], F_SETFL, O_NONBLOCK);
  }
  ~LogPipe() {
    close(ends_[0]);
    close(ends_[1]);
  }
  LogPipe(const LogPipe&) = delete;
  LogPipe& operator=(const LogPipe&) = delete;

  int WriteEnd() const { return ends_[1]; }
  // By a descriptor of its own, so that the agent's stays one that blocks.
  void Fill() const {
    const std::string path = "/proc/self/fd/" + std::to_string(ends_[1]);
    const int filler = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    for (std::string lines(4096, '\n'); !lines.empty(); lines.resize(lines.size() / 2)) {
      while (write(filler, lines.data(), lines.size()) > 0) continue;
    }
    close(filler);
  }
  // What has come, without what filled it.
  std::string Take() const {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(ends_[0], buffer, sizeof buffer)) > 0;)
      text.append(buffer, static_cast<std::size_t>(got));
    return text.substr(std::min(text.size(), text.find_first_not_of('\n')));
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST_F(FullLog, HoldsUpNeitherTheStartNorTheClientsNorTheStop) {
  EchoNode node;
  LogPipe log;
  log.Fill();
  // which has something to say at every level
  agent_.LogInto(log.WriteEnd());
  Client client = StartWithClient("BAD TCPIP\n" + node.Line("A"));
  for (int i = 0; i < 100; ++i) client.Ask("A", std::to_string(i));
  agent_.Tick();
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(FullLog, ThatFillsInTheMiddleHoldsNobodyUp) {
  EchoNode node;
  LogPipe log;
  agent_.Nodetab(node.Line("A")).LogInto(log.WriteEnd()).Option("-NODAEMON");
  agent_.Spawn();
  ASSERT_TRUE(WaitFor([&] {
    log.Take();
    return std::filesystem::exists(agent_.SocketPath());
  }));
  ASSERT_TRUE(agent_.WaitUntilReady());
  for (int i = 0; i < 100; ++i) Client(agent_).Ask("A", std::to_string(i));
}

TEST_F(FullLog, TellsHowManyLinesWereLostAsSoonAsItIsReadAgain) {
  constexpr char kHangUp[] = "Client message reading failed";
  LogPipe log;
  agent_.LogLevel("2").LogInto(log.WriteEnd());
  StartAgent();
  log.Take();
  log.Fill();
  for (int i = 0; i < 37 && !HasFailure(); ++i) {
    Client(agent_).Close();
    agent_.Barrier();
  }
  EXPECT_EQ(log.Take(), "");
  Client(agent_).Close();
  agent_.Barrier();
  const std::string text = log.Take();
  EXPECT_EQ(Count(text, kHangUp), 1u) << text;
  EXPECT_TRUE(Matches(Lines(text).front(), ".*[^0-9]37([^0-9].*)?")) << text;
  Client(agent_).Close();
  agent_.Barrier();
  EXPECT_EQ(Lines(log.Take()).size(), 1u) << "told once";
}

TEST_F(FullLog, IsWaitedForNoLongerThanUntilAStop) {
  LogPipe log;
  agent_.LogLevel("2").LogInto(log.WriteEnd());
  StartAgent();
  log.Fill();
  Client(agent_).Close();
  EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
}  // namespace test
