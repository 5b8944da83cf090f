// The client socket: its place and modes, the greeting, second agents, unloading.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/process/usual_directory.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/node.h"

namespace test {
namespace {

constexpr std::size_t kGreetingSize = 60;

std::string Greeting(std::uint32_t length, std::int32_t pid) {
  std::string greeting(kGreetingSize, '\0');
  std::memcpy(greeting.data(), &length, sizeof length);
  std::memcpy(greeting.data() + 4, &pid, sizeof pid);
  return greeting;
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Something else than an agent that listens where an agent would.
class Impostor {
 public:
  explicit Impostor(const Agent& agent) : listener_(Bind(agent.SocketPath())) {}
  ~Impostor() {
    if (connection_ >= 0) close(connection_);
    close(listener_);
  }
  Impostor(const Impostor&) = delete;
  Impostor& operator=(const Impostor&) = delete;

  static int Bind(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
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

TEST(Greeting, Is60BytesWithTheProcessIdAndTheLengthWord56) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  const int connection = ConnectRaw(agent.SocketPath());
  EXPECT_EQ(ReadRaw(connection, kGreetingSize), Greeting(56, agent.Pid()));
  agent.Barrier();
  EXPECT_EQ(ReadRaw(connection, 1, Milliseconds(0)), "") << "more than the greeting was sent";
  close(connection);
}

TEST(Greeting, OfADaemonNamesTheDaemon) {
  Agent agent;
  const std::string pidFile = agent.Folder() / "agent.pid";
  ASSERT_TRUE(agent.Options({"-PIDFILE", pidFile}).StartDaemon());
  const int connection = ConnectRaw(agent.SocketPath());
  EXPECT_EQ(ReadRaw(connection, kGreetingSize), Greeting(56, std::stoi(ReadFile(pidFile))));
  close(connection);
}

TEST(Greeting, IsTracedWithItsSize) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  EXPECT_TRUE(agent.Logged(15, "clntxch", "Neeed Send 60 init bytes to client"));
}

TEST(Greeting, ToAClientThatIsGoneIsAFailedSendAndTheAgentGoesOn) {
  Agent agent;
  agent.LogLevel("2");
  ASSERT_TRUE(agent.Start());
  const int before = OpenDescriptors(agent.Pid());
  Freeze(agent.Pid());
  close(ConnectRaw(agent.SocketPath()));
  Thaw(agent.Pid());
  agent.Barrier();
  EXPECT_TRUE(
      agent.Logged(2, "clntxch", "Send to client fail. Call:send. errno " + std::to_string(EPIPE)))
      << agent.Log();
  EXPECT_EQ(OpenDescriptors(agent.Pid()), before) << "the connection is not closed";
  Client(agent).ExpectNothing();
}

TEST(ClientSocket, IsAnnouncedAndOpenToEverybody) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  EXPECT_NE(agent.Stdout().find("The agent has used communication identifier (NET_MBX) " +
                                std::to_string(agent.ExchangeId()) + "\n"),
            std::string::npos);
  EXPECT_EQ(ModeOf(agent.SocketPath()), 0777u);
  EXPECT_TRUE(agent.LogContains("|SET_SOCKET_BUFFERS "));
}

TEST(ClientSocket, DirectoryIsModedAnewOnEveryStart) {
  Agent agent;
  ASSERT_EQ(chmod(agent.SocketFolder().c_str(), 0700), 0);
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(ModeOf(agent.SocketFolder()), 01777u);
}

TEST(ClientSocket, DirectoryIsMadeWhenThereIsNone) {
  Agent agent;
  agent.Environment("TAVRIN_TMP", agent.Folder() / "new");
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(ModeOf(agent.Folder() / "new"), 01777u);
  EXPECT_TRUE(Exists(agent.Folder() / "new" / ("tavrin." + std::to_string(agent.ExchangeId()))));
}

TEST(ClientSocket, DirectoryVariableOf228CharactersIsIgnored) {
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
TEST(ClientSocket, DirectoryVariableOf227CharactersIsUsed) {
  Agent agent;
  const std::string directory =
      agent.Folder().string() + "/" + std::string(226 - agent.Folder().string().size(), 'x');
  ASSERT_EQ(directory.size(), 227u);
  agent.Environment("TAVRIN_TMP", directory).LogLevel("2").Option("-NODAEMON");
  EXPECT_EQ(agent.Run(), 255);
  EXPECT_TRUE(agent.Logged(
      2, "clntxch",
      "Call bind socket to " + agent.SocketPath() + " failed. Errno " + std::to_string(EINVAL)))
      << agent.Log();
  EXPECT_EQ(ModeOf(directory), 01777u);
}

TEST(ClientSocket, WithoutTheVariableIsInTheUsualDirectory) {
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

TEST(ClientSocket, ThatCannotBeBoundEndsTheStartWith255) {
  Agent agent;
  WriteFile(agent.Folder() / "file", "");
  agent.Environment("TAVRIN_TMP", agent.Folder() / "file").LogLevel("2").Option("-NODAEMON");
  EXPECT_EQ(agent.Run(), 255);
  EXPECT_TRUE(agent.Logged(
      2, "clntxch",
      "Call bind socket to " + agent.SocketPath() + " failed. Errno " + std::to_string(ENOTDIR)))
      << agent.Log();
  EXPECT_TRUE(agent.Logged(0, "", "Initialization of interprocess communication failed"));
}

TEST(ClientSocket, StaleFileOfADeadAgentIsReplaced) {
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

TEST(ClientSocket, StalePlainFileIsReplaced) {
  Agent agent;
  WriteFile(agent.SocketPath(), "no socket");
  ASSERT_TRUE(agent.Start());
  Client(agent).ExpectNothing();
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
  close(Impostor::Bind(target.SocketPath()));
  ASSERT_TRUE(Exists(target.SocketPath()));
  PrepareUnload(unload, target);
  EXPECT_EQ(unload.Trace().Run(), 255);
  EXPECT_FALSE(Exists(target.SocketPath()));
  EXPECT_TRUE(unload.Logged(15, "clntxch", "'InitialiseClientQueue' Leave INFO unload the driver"));
}

constexpr char kNotUnloaded[] = "lumo_tcp:SIGTERM has not been send to the agent. Status 3\n\n";

class UnloadOfAnImpostor : public testing::TestWithParam<std::string> {};

TEST_P(UnloadOfAnImpostor, SendsNoSignal) {
  Agent target, unload;
  Impostor impostor(target);
  impostor.Listen();
  PrepareUnload(unload, target);
  unload.Spawn();
  ASSERT_TRUE(impostor.Accept());
  if (!GetParam().empty()) impostor.Say(GetParam());
  impostor.HangUp();
  EXPECT_EQ(unload.Wait(), 0);
  EXPECT_EQ(unload.Results(), kNotUnloaded);
}

INSTANTIATE_TEST_SUITE_P(Greetings, UnloadOfAnImpostor,
                         testing::Values("", Greeting(56, 0), Greeting(56, 1).substr(0, 59)));

// A negative number would name a whole process group; another first word is no agent's.
TEST(Unload, TakesNoNumberThatIsNotAnAgents) {
  LivingProcess process;
  ASSERT_EQ(setpgid(process.Pid(), process.Pid()), 0);
  for (const std::string& greeting : {Greeting(56, -process.Pid()), Greeting(60, process.Pid())}) {
    Agent target, unload;
    Impostor impostor(target);
    impostor.Listen();
    PrepareUnload(unload, target);
    unload.Spawn();
    ASSERT_TRUE(impostor.Accept());
    impostor.Say(greeting);
    EXPECT_EQ(unload.Wait(), 0);
    EXPECT_EQ(unload.Results(), kNotUnloaded);
    EXPECT_TRUE(ProcessRuns(process.Pid()));
  }
}

TEST(Unload, OfAnAgentThatDiedMeanwhileReportsTheError) {
  Agent target, unload;
  Impostor impostor(target);
  impostor.Listen();
  PrepareUnload(unload, target);
  unload.Spawn();
  ASSERT_TRUE(impostor.Accept());
  impostor.Say(Greeting(56, DeadPid()));
  EXPECT_EQ(unload.Wait(), 0);
  EXPECT_EQ(unload.Results(), kNotUnloaded);
}

TEST(Unload, OfSomethingThatNeverGreetsEnds) {
  Agent target, unload;
  Impostor impostor(target);
  impostor.Listen();
  PrepareUnload(unload, target);
  unload.Spawn();
  ASSERT_TRUE(impostor.Accept());
  EXPECT_TRUE(WaitFor([&] {
    if (!unload.Running()) return true;
    unload.Signal(SIGALRM);
    return false;
  }));
  EXPECT_EQ(unload.Wait(), 0);
  EXPECT_EQ(unload.Results(), kNotUnloaded);
}

TEST(Unload, TakesAGreetingInPieces) {
  Agent target, unload;
  Impostor impostor(target);
  impostor.Listen();
  PrepareUnload(unload, target);
  unload.Spawn();
  ASSERT_TRUE(impostor.Accept());
  LivingProcess process;
  const std::string greeting = Greeting(56, process.Pid());
  impostor.Say(greeting.substr(0, 6));
  unload.Signal(SIGIO);
  impostor.Say(greeting.substr(6));
  EXPECT_EQ(unload.Wait(), 0);
  EXPECT_EQ(unload.Results(), "lumo_tcp:SIGTERM has been send to the agent pid " +
                                  std::to_string(process.Pid()) + "\n\n");
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

TEST(ManyClients, BeyondTheLinksDescriptorsAreServed) {
  RaiseOwnDescriptorLimit();
  EchoNode node;
  Agent agent;
  agent.Nodetab(node.Line("A"));
  ASSERT_TRUE(agent.Start());
  Client(agent).Ask("A", "the link takes a low descriptor");
  const std::vector<int> others = ConnectMany(agent, 300);
  for (const int connection : others)
    ASSERT_EQ(ReadRaw(connection, kGreetingSize), Greeting(56, agent.Pid()));
  Client client(agent);
  EXPECT_EQ(client.Ask("A", "from the three hundred and first").Strings[0],
            "from the three hundred and first");
  CloseAll(others);
  agent.Barrier();
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(ManyClients, BeyondASelectSetAreClosedAtOnce) {
  RaiseOwnDescriptorLimit();
  Agent agent;
  agent.LogLevel("2").Limit(RLIMIT_NOFILE, 2048);
  ASSERT_TRUE(agent.Start());
  const std::vector<int> connections = ConnectMany(agent, 1100);
  std::ptrdiff_t greeted = 0, refused = 0;
  for (const int connection : connections)
    ++(ReadRaw(connection, kGreetingSize).size() == kGreetingSize ? greeted : refused);
  EXPECT_GT(greeted, 1000);
  EXPECT_GT(refused, 60);
  EXPECT_EQ(agent.CountLogged(2, "clntxch", "Call accept has failed. Errno 24"), refused);
  agent.Barrier();
  CloseAll(connections);
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(ManyClients, BeyondTheSystemsLimitAreClosedAndTheAgentGoesOn) {
  Agent agent;
  agent.LogLevel("2").Limit(RLIMIT_NOFILE, 24);
  ASSERT_TRUE(agent.Start());
  std::vector<int> connections = ConnectMany(agent, 40);
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
  agent.Barrier();
  // Each refused connection costs one line: the loop does not spin on it.
  EXPECT_EQ(agent.CountLogged(2, "clntxch", "Call accept has failed. Errno 24"), refused);
  CloseAll(connections);
  agent.Barrier();
  Client(agent).ExpectNothing();
  EXPECT_EQ(agent.Stop(), 0);
}

}  // namespace
}  // namespace test
