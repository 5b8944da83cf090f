// The client socket: its place and modes, the greeting, second agents, unloading.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/process/usual_directory.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace test {
namespace {

using Greeting = AgentTest;
using ClientSocket = AgentTest;
using ManyClients = AgentTest;

constexpr std::size_t kGreetingSize = 60;

std::string GreetingOf(std::uint32_t length, std::int32_t pid) {
  return Bytes(length) + Bytes(pid) + std::string(kGreetingSize - 8, '\0');
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Something else than an agent that listens where an agent would.
class Impostor {
 public:
  explicit Impostor(const Agent& agent) : listener_(BoundAt(agent.SocketPath())) {}
  ~Impostor() {
    if (connection_ >= 0) close(connection_);
    close(listener_);
  }
  Impostor(const Impostor&) = delete;
  Impostor& operator=(const Impostor&) = delete;

  void Listen() { ASSERT_EQ(listen(listener_, 4), 0); }
  bool Accept() {
    connection_ = AcceptWithin(listener_, kPatience);
    return connection_ >= 0;
  }
  void Say(const std::string& bytes) {
    EXPECT_EQ(send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void HangUp() {
    close(connection_);
    connection_ = -1;
  }

 private:
  int listener_, connection_ = -1;
};

TEST_F(Greeting, Is60BytesWithTheProcessIdAndTheLengthWord56) {
  StartAgent();
  const int connection = ConnectRaw(agent_.SocketPath());
  EXPECT_EQ(ReadRaw(connection, kGreetingSize), GreetingOf(56, agent_.Pid()));
  agent_.Barrier();
  EXPECT_EQ(ReadRaw(connection, 1, Milliseconds(0)), "") << "more than the greeting was sent";
  close(connection);
}

TEST_F(Greeting, OfADaemonNamesTheDaemon) {
  const std::string pidFile = agent_.Folder() / "agent.pid";
  ASSERT_TRUE(agent_.Options({"-PIDFILE", pidFile}).StartDaemon());
  const int connection = ConnectRaw(agent_.SocketPath());
  EXPECT_EQ(ReadRaw(connection, kGreetingSize), GreetingOf(56, std::stoi(ReadFile(pidFile))));
  close(connection);
}

TEST_F(Greeting, IsTracedWithItsSize) {
  agent_.Trace();
  StartAgent();
  EXPECT_TRUE(agent_.Logged(15, "clntxch", "Neeed Send 60 init bytes to client"));
}

TEST_F(Greeting, ToAClientThatIsGoneIsAFailedSendAndTheAgentGoesOn) {
  agent_.LogLevel("2");
  StartAgent();
  const int before = OpenDescriptors(agent_.Pid());
  Freeze(agent_.Pid());
  close(ConnectRaw(agent_.SocketPath()));
  Thaw(agent_.Pid());
  agent_.Barrier();
  EXPECT_TRUE(
      agent_.Logged(2, "clntxch", "Send to client fail. Call:send. errno " + std::to_string(EPIPE)))
      << agent_.Log();
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before) << "the connection is not closed";
  Client(agent_).ExpectNothing();
}

TEST_F(ClientSocket, IsAnnouncedAndOpenToEverybody) {
  agent_.Trace();
  StartAgent();
  EXPECT_NE(agent_.Stdout().find("The agent has used communication identifier (NET_MBX) " +
                                 std::to_string(agent_.ExchangeId()) + "\n"),
            std::string::npos);
  EXPECT_EQ(ModeOf(agent_.SocketPath()), 0777u);
  EXPECT_TRUE(agent_.LogContains("|SET_SOCKET_BUFFERS "));
}

TEST_F(ClientSocket, DirectoryIsModedAnewOnEveryStart) {
  ASSERT_EQ(chmod(agent_.SocketFolder().c_str(), 0700), 0);
  StartAgent();
  EXPECT_EQ(ModeOf(agent_.SocketFolder()), 01777u);
}

TEST_F(ClientSocket, DirectoryIsMadeWhenThereIsNone) {
  agent_.Environment("TAVRIN_TMP", agent_.Folder() / "new");
  StartAgent();
  EXPECT_EQ(ModeOf(agent_.Folder() / "new"), 01777u);
  EXPECT_TRUE(Exists(agent_.Folder() / "new" / ("tavrin." + std::to_string(agent_.ExchangeId()))));
}

TEST_F(ClientSocket, DirectoryVariableOf228CharactersIsIgnored) {
  const UsualDirectory usual;
  Agent agent;
  agent.Environment("TAVRIN_TMP", std::string(228, 'x'));
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.SocketPath(), usual.Path() + "/tavrin." + std::to_string(agent.ExchangeId()));
  EXPECT_TRUE(Exists(agent.SocketPath()));
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_FALSE(Exists(agent.SocketPath()));
}

// The system takes no such path, so that the start fails, but it is the path that was asked for.
TEST_F(ClientSocket, DirectoryVariableOf227CharactersIsUsed) {
  const std::string directory =
      agent_.Folder().string() + "/" + std::string(226 - agent_.Folder().string().size(), 'x');
  ASSERT_EQ(directory.size(), 227u);
  agent_.Environment("TAVRIN_TMP", directory).LogLevel("2").Option("-NODAEMON");
  EXPECT_EQ(agent_.Run(), 255);
  EXPECT_TRUE(agent_.Logged(
      2, "clntxch",
      "Call bind socket to " + agent_.SocketPath() + " failed. Errno " + std::to_string(EINVAL)))
      << agent_.Log();
  EXPECT_EQ(ModeOf(directory), 01777u);
}

TEST_F(ClientSocket, WithoutTheVariableIsInTheUsualDirectory) {
  const UsualDirectory usual;
  Agent agent;
  agent.Without("TAVRIN_TMP");
  ASSERT_TRUE(agent.Start());
  const std::string path = usual.Path() + "/tavrin." + std::to_string(agent.ExchangeId());
  EXPECT_EQ(ModeOf(usual.Path()), 01777u);
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_FALSE(Exists(path));
}

TEST_F(ClientSocket, ThatCannotBeBoundEndsTheStartWith255) {
  WriteFile(agent_.Folder() / "file", "");
  agent_.Environment("TAVRIN_TMP", agent_.Folder() / "file").LogLevel("2").Option("-NODAEMON");
  EXPECT_EQ(agent_.Run(), 255);
  EXPECT_TRUE(agent_.Logged(
      2, "clntxch",
      "Call bind socket to " + agent_.SocketPath() + " failed. Errno " + std::to_string(ENOTDIR)))
      << agent_.Log();
  EXPECT_TRUE(agent_.Logged(0, "", "Initialization of interprocess communication failed"));
}

TEST_F(ClientSocket, StaleFileOfADeadAgentIsReplaced) {
  Agent dead, agent;
  ASSERT_TRUE(dead.Start());
  dead.Kill();
  ASSERT_TRUE(Exists(dead.SocketPath()));
  agent.ExchangeId(dead.ExchangeId()).Environment("TAVRIN_TMP", dead.SocketFolder());
  ASSERT_TRUE(agent.Start());
  Client(agent).ExpectNothing();
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_FALSE(Exists(agent.SocketPath()));
}

TEST_F(ClientSocket, StalePlainFileIsReplaced) {
  WriteFile(agent_.SocketPath(), "no socket");
  StartAgent();
  Client(agent_).ExpectNothing();
}

TEST(SecondAgent, RefusesToStartAndLeavesTheFirstAlone) {
  Agent first, second;
  ASSERT_TRUE(first.Start());
  second.ExchangeId(first.ExchangeId()).Environment("TAVRIN_TMP", first.SocketFolder());
  EXPECT_EQ(second.Option("-NODAEMON").Run(), 255);
  EXPECT_EQ(second.Results(),
            "lumo_tcp:Socket \"" + first.SocketPath() +
                "\" is already used\n"
                "lumo_tcp:Network agent or kernel of Tavrin-SQL is already running\n"
                "\n"
                "lumo_tcp:Initialization of interprocess communication failed\n");
  Client(first).ExpectNothing();
  EXPECT_EQ(first.Stop(), 0);
}

TEST(SecondAgent, IsRefusedWithTheTraceWordOfTheReason) {
  Agent first, second;
  ASSERT_TRUE(first.Start());
  second.ExchangeId(first.ExchangeId()).Environment("TAVRIN_TMP", first.SocketFolder());
  EXPECT_EQ(second.Option("-NODAEMON").Trace().Run(), 255);
  EXPECT_TRUE(
      second.Logged(15, "clntxch", "'InitialiseClientQueue' Leave FAILED client already running"));
}

TEST(SecondAgent, WithAnotherExchangeIdServesBesideTheFirst) {
  Agent first, second;
  second.Environment("TAVRIN_TMP", first.SocketFolder());
  ASSERT_TRUE(first.Start());
  ASSERT_TRUE(second.Start());
  Client(first).ExpectNothing();
  Client(second).ExpectNothing();
  EXPECT_EQ(second.Stop(), 0);
  EXPECT_TRUE(Exists(first.SocketPath()));
  EXPECT_EQ(first.Stop(), 0);
}

// A run with -U against the directory and exchange id of `target`.
void PrepareUnload(Agent& unload, const Agent& target) {
  unload.ExchangeId(target.ExchangeId())
      .Environment("TAVRIN_TMP", target.SocketFolder())
      .Options({"-NODAEMON", "-U"});
}

TEST(Unload, StopsTheRunningAgent) {
  Agent agent, unload;
  ASSERT_TRUE(agent.Start());
  PrepareUnload(unload, agent);
  const pid_t pid = agent.Pid();
  EXPECT_EQ(unload.Run(), 0);
  EXPECT_EQ(unload.Results(),
            "lumo_tcp:SIGTERM has been send to the agent pid " + std::to_string(pid) + "\n\n");
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_FALSE(Exists(agent.SocketPath()));
}

TEST(Unload, StopsADaemonFromTheBackgroundToo) {
  Agent agent, unload;
  ASSERT_TRUE(agent.StartDaemon());
  unload.ExchangeId(agent.ExchangeId()).Environment("TAVRIN_TMP", agent.SocketFolder());
  EXPECT_EQ(unload.Option("-U").Run(), 0);
  EXPECT_EQ(agent.Wait(), 0);
}

TEST(Unload, WithoutARunningAgentFailsSilentlyAndLeavesNoSocket) {
  Agent target, unload;
  PrepareUnload(unload, target);
  EXPECT_EQ(unload.Run(), 255);
  EXPECT_EQ(unload.Results(), "");
  EXPECT_FALSE(Exists(target.SocketPath()));
}

TEST(Unload, WithoutARunningAgentRemovesAStaleSocketAndSaysSoInTheTrace) {
  Agent target, unload;
  close(BoundAt(target.SocketPath()));
  ASSERT_TRUE(Exists(target.SocketPath()));
  PrepareUnload(unload, target);
  EXPECT_EQ(unload.Trace().Run(), 255);
  EXPECT_FALSE(Exists(target.SocketPath()));
  EXPECT_TRUE(unload.Logged(15, "clntxch", "'InitialiseClientQueue' Leave INFO unload the driver"));
}

// A run with -U that is connected to something else than an agent.
struct MetImpostor {
  MetImpostor() : Other(Target) {
    Other.Listen();
    PrepareUnload(Unload, Target);
    Unload.Spawn();
    EXPECT_TRUE(Other.Accept());
  }
  void ExpectEnd(const std::string& results) {
    EXPECT_EQ(Unload.Wait(), 0);
    EXPECT_EQ(Unload.Results(), results);
  }

  Agent Target, Unload;
  Impostor Other;
};

constexpr char kNotUnloaded[] = "lumo_tcp:SIGTERM has not been send to the agent. Status 3\n\n";

class UnloadOfAnImpostor : public testing::TestWithParam<std::string> {};

TEST_P(UnloadOfAnImpostor, SendsNoSignal) {
  MetImpostor run;
  if (!GetParam().empty()) run.Other.Say(GetParam());
  run.Other.HangUp();
  run.ExpectEnd(kNotUnloaded);
}

INSTANTIATE_TEST_SUITE_P(Greetings, UnloadOfAnImpostor,
                         testing::Values("", GreetingOf(56, 0), GreetingOf(56, 1).substr(0, 59)));

// A negative number would name a whole process group; another first word is no agent's.
TEST(Unload, TakesNoNumberThatIsNotAnAgents) {
  LivingProcess process;
  ASSERT_EQ(setpgid(process.Pid(), process.Pid()), 0);
  for (const std::string& greeting :
       {GreetingOf(56, -process.Pid()), GreetingOf(60, process.Pid())}) {
    MetImpostor run;
    run.Other.Say(greeting);
    run.ExpectEnd(kNotUnloaded);
    EXPECT_TRUE(ProcessRuns(process.Pid()));
  }
}

TEST(Unload, OfAnAgentThatDiedMeanwhileReportsTheError) {
  MetImpostor run;
  run.Other.Say(GreetingOf(56, DeadPid()));
  run.ExpectEnd(kNotUnloaded);
}

TEST(Unload, OfSomethingThatNeverGreetsEnds) {
  MetImpostor run;
  EXPECT_TRUE(WaitFor([&] {
    if (!run.Unload.Running()) return true;
    run.Unload.Signal(SIGALRM);
    return false;
  }));
  run.ExpectEnd(kNotUnloaded);
}

TEST(Unload, TakesAGreetingInPieces) {
  MetImpostor run;
  LivingProcess process;
  const std::string greeting = GreetingOf(56, process.Pid());
  run.Other.Say(greeting.substr(0, 6));
  run.Unload.Signal(SIGIO);
  run.Other.Say(greeting.substr(6));
  run.ExpectEnd("lumo_tcp:SIGTERM has been send to the agent pid " + std::to_string(process.Pid()) +
                "\n\n");
}

std::vector<int> ConnectMany(const Agent& agent, int count) {
  std::vector<int> connections;
  for (int i = 0; i < count; ++i) connections.push_back(ConnectRaw(agent.SocketPath()));
  return connections;
}

void CloseAll(const std::vector<int>& connections) {
  for (const int connection : connections) close(connection);
}

void RaiseOwnDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(ManyClients, BeyondTheLinksDescriptorsAreServed) {
  RaiseOwnDescriptorLimit();
  EchoNode node;
  StartAgent(node.Line("A"));
  Client(agent_).Ask("A", "the link takes a low descriptor");
  const std::vector<int> others = ConnectMany(agent_, 300);
  for (const int connection : others)
    ASSERT_EQ(ReadRaw(connection, kGreetingSize), GreetingOf(56, agent_.Pid()));
  EXPECT_EQ(Client(agent_).Ask("A", "from the three hundred and first").Strings[0],
            "from the three hundred and first");
  CloseAll(others);
  agent_.Barrier();
}

TEST_F(ManyClients, BeyondASelectSetAreClosedAtOnce) {
  RaiseOwnDescriptorLimit();
  agent_.LogLevel("2").Limit(RLIMIT_NOFILE, 2048);
  StartAgent();
  const std::vector<int> connections = ConnectMany(agent_, 1100);
  std::ptrdiff_t greeted = 0, refused = 0;
  for (const int connection : connections)
    ++(ReadRaw(connection, kGreetingSize).size() == kGreetingSize ? greeted : refused);
  EXPECT_GT(greeted, 1000);
  EXPECT_GT(refused, 60);
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", "Call accept has failed. Errno 24"), refused);
  agent_.Barrier();
  CloseAll(connections);
}

TEST_F(ManyClients, BeyondTheSystemsLimitAreClosedAndTheAgentGoesOn) {
  agent_.LogLevel("2").Limit(RLIMIT_NOFILE, 24);
  StartAgent();
  std::vector<int> connections = ConnectMany(agent_, 40);
  std::vector<int> greeted;
  int refused = 0;
  for (const int connection : connections) {
    if (ReadRaw(connection, kGreetingSize).size() == kGreetingSize)
      greeted.push_back(connection);
    else
      ++refused;
  }
  EXPECT_GT(greeted.size(), 10u);
  EXPECT_GT(refused, 15);
  agent_.Barrier();
  // Each refused connection costs one line: the loop does not spin on it.
  EXPECT_EQ(agent_.CountLogged(2, "clntxch", "Call accept has failed. Errno 24"), refused);
  CloseAll(connections);
  agent_.Barrier();
  Client(agent_).ExpectNothing();
}

}  // namespace
}  // namespace test
