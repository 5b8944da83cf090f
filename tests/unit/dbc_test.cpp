// The registration of descriptors, a link that becomes the default by connecting, and the loop
// when a descriptor goes bad.
#include "core/dbc.h"

#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "core/loop.h"
#include "core/turn.h"
#include "tests/support/agent.h"
#include "tests/support/connection.h"
#include "tests/support/management.h"
#include "tests/support/node.h"
#include "tests/support/wait.h"
#include "tests/unit/client_fixture.h"
#include "tests/unit/faults.h"
#include "tests/unit/system_faults.h"

namespace {

class SocketRegistration : public AgentTest {};

TEST_F(SocketRegistration, ForReadingPutsTheDescriptorIntoTheReadSetAlone) {
  REGISTER_SOCKET_FOR_READ_EVENT("test", 1, 7);
  EXPECT_TRUE(IsRead(7));
  EXPECT_FALSE(IsWritten(7));
  EXPECT_FALSE(IsRead(6) || IsRead(8));
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 8);
  EXPECT_EQ(LinkOfSocket(7), nullptr);
}

TEST_F(SocketRegistration, ForWritingPutsTheDescriptorIntoTheWriteSetAlone) {
  REGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, 9);
  EXPECT_TRUE(IsWritten(9));
  EXPECT_FALSE(IsRead(9));
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 10);
}

TEST_F(SocketRegistration, TheHighestDescriptorOnlyGrows) {
  REGISTER_SOCKET_FOR_READ_EVENT("test", 1, 20);
  REGISTER_SOCKET_FOR_READ_EVENT("test", 1, 5);
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 21);
  UNREGISTER_SOCKET_FOR_READ_EVENT("test", 1, 20);
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 21);
  REGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, 21);
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 22);
}

TEST_F(SocketRegistration, EachKindIsTakenBackByItself) {
  Link* const link = AddLink("A");
  REGISTER_SOCKET_FOR_READ_EVENT("test", 1, 7);
  REGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, 7);
  REGISTER_SOCKET_FOR_THE_LINK("test", 1, 7, link);
  UNREGISTER_SOCKET_FOR_READ_EVENT("test", 1, 7);
  EXPECT_FALSE(IsRead(7));
  EXPECT_TRUE(IsWritten(7));
  UNREGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, 7);
  EXPECT_FALSE(IsWritten(7));
  EXPECT_EQ(LinkOfSocket(7), link);
  UNREGISTER_SOCKET_FOR_THE_LINK("test", 1, 7);
  EXPECT_EQ(LinkOfSocket(7), nullptr);
}

TEST_F(SocketRegistration, ALinkOwnsDescriptorsUpTo254) {
  Link* const link = AddLink("A");
  for (const int fd : {0, 254, 255, 1023, -1}) REGISTER_SOCKET_FOR_THE_LINK("test", 1, fd, link);
  EXPECT_EQ(LinkOfSocket(0), link);
  EXPECT_EQ(LinkOfSocket(254), link);
  for (const int fd : {-1, 1, 253, 255, 1023, 100000}) EXPECT_EQ(LinkOfSocket(fd), nullptr) << fd;
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 0) << "an owner alone makes nobody wait";
}

TEST_F(SocketRegistration, ClientDescriptorsMayBeAsLargeAsTheSets) {
  REGISTER_SOCKET_FOR_READ_EVENT("test", 1, FD_SETSIZE - 1);
  EXPECT_TRUE(IsRead(FD_SETSIZE - 1));
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, FD_SETSIZE);
}

TEST_F(SocketRegistration, DescriptorsBeyondTheSetsAreIgnored) {
  const struct SocketSets before = g_DbcI.SocketSets;
  for (const int fd : {-1, FD_SETSIZE, 100000}) {
    REGISTER_SOCKET_FOR_READ_EVENT("test", 1, fd);
    REGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, fd);
    UNREGISTER_SOCKET_FOR_READ_EVENT("test", 1, fd);
    UNREGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, fd);
    UNREGISTER_SOCKET_FOR_THE_LINK("test", 1, fd);
  }
  EXPECT_EQ(std::memcmp(&before, &g_DbcI.SocketSets, sizeof before), 0);
}

TEST_F(SocketRegistration, EachOperationIsTracedAtTheCallersPlace) {
  Link* const link = AddLink("A");
  const CapturedLog log;
  REGISTER_SOCKET_FOR_READ_EVENT("one", 11, 7);
  REGISTER_SOCKET_FOR_WRITE_EVENT("two", 12, 8);
  REGISTER_SOCKET_FOR_THE_LINK("three", 13, 9, link);
  UNREGISTER_SOCKET_FOR_READ_EVENT("four", 14, 10);
  UNREGISTER_SOCKET_FOR_WRITE_EVENT("five", 15, 11);
  UNREGISTER_SOCKET_FOR_THE_LINK("six", 16, 12);
  EXPECT_EQ(log.Lines(), (Texts{"15 one|REGISTER_SOCKET_FOR_READ_EVENT 7",
                                "15 two|REGISTER_SOCKET_FOR_WRITE_EVENT 8",
                                "15 three|REGISTER_SOCKET_FOR_THE_LINK 9, A",
                                "15 four|UNREGISTER_SOCKET_FOR_READ_EVENT 10",
                                "15 five|UNREGISTER_SOCKET_FOR_WRITE_EVENT 11",
                                "15 six|UNREGISTER_SOCKET_FOR_THE_LINK 12"}));
  EXPECT_TRUE(log.Contains(":  14 "));
}

TEST_F(SocketRegistration, BelowTheTraceLevelNothingIsWritten) {
  const CapturedLog log(14);
  REGISTER_SOCKET_FOR_READ_EVENT("one", 11, 7);
  UNREGISTER_SOCKET_FOR_READ_EVENT("one", 11, 7);
  EXPECT_EQ(log.Text(), "");
}

// The number may belong to another in the same pass.
TEST_F(SocketRegistration, EndsWithWhatTheLastWaitHasFound) {
  for (fd_set* const ready : {&g_Ready.Read, &g_Ready.Write}) {
    FD_SET(7, ready);
    FD_SET(8, ready);
  }
  UNREGISTER_SOCKET_FOR_READ_EVENT("test", 1, 7);
  EXPECT_FALSE(FD_ISSET(7, &g_Ready.Read));
  EXPECT_TRUE(FD_ISSET(8, &g_Ready.Read) && FD_ISSET(7, &g_Ready.Write));
  UNREGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, 7);
  EXPECT_FALSE(FD_ISSET(7, &g_Ready.Write));
  EXPECT_TRUE(FD_ISSET(8, &g_Ready.Write));
}

TEST_F(SocketRegistration, StartsEmptyWithTheProcessesOwnNumber) {
  REGISTER_SOCKET_FOR_READ_EVENT("test", 1, 7);
  REGISTER_SOCKET_FOR_WRITE_EVENT("test", 1, 8);
  REGISTER_SOCKET_FOR_THE_LINK("test", 1, 9, AddLink("A"));
  g_DbcI.SocketSets.AgentPid = 0;
  EXPECT_EQ(DbcInitGlobal("test", 1), 0);
  EXPECT_EQ(g_DbcI.SocketSets.AgentPid, getpid());
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 0);
  EXPECT_FALSE(IsRead(7) || IsWritten(8));
  EXPECT_EQ(LinkOfSocket(9), nullptr);
}

class UsingALinkAsDefault : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    AddTwoLinks();
    B->State = kLinkConnected;
  }
  static void Save(std::uint16_t tag, Link* link, const std::string& node) {
    ClientMessage msg = MakeRequest(getpid(), -1, tag);
    node.copy(msg.CBL.Node, sizeof msg.CBL.Node);
    AgentTest::Save(msg, link);
  }
};

TEST_F(UsingALinkAsDefault, MovesTheDefault) {
  EXPECT_EQ(UseTheLinkAsDefault(1, B), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(g_DbcI.CircleStartLink, A);
}

TEST_F(UsingALinkAsDefault, SendsTheRequestsThatWaitForTheDefaultOverIt) {
  Save(1, A, "");
  Save(2, A, "A");
  Save(3, A, " ");
  UseTheLinkAsDefault(1, B);
  EXPECT_EQ(Fake().Count("SendToNetwork B"), 2);
  EXPECT_EQ(Waiting(A), Tags{2});
  EXPECT_EQ(Waiting(B), Tags{});
}

TEST_F(UsingALinkAsDefault, ChangesNothingWhileTheDefaultIsConnected) {
  A->State = kLinkConnected;
  Save(1, A, "");
  EXPECT_EQ(UseTheLinkAsDefault(1, B), -1);
  EXPECT_EQ(g_DbcI.DefaultLink, A);
  EXPECT_EQ(Waiting(A), Tags{1});
  EXPECT_TRUE(Fake().Sent.empty());
}

TEST_F(UsingALinkAsDefault, RefusesTheDefaultItselfAndALinkThatIsNotConnected) {
  EXPECT_EQ(UseTheLinkAsDefault(1, A), -1);
  for (const std::uint8_t state : {kLinkDisconnected, kLinkConnecting}) {
    B->State = state;
    EXPECT_EQ(UseTheLinkAsDefault(1, B), -1);
    EXPECT_EQ(g_DbcI.DefaultLink, A);
  }
}

TEST_F(UsingALinkAsDefault, MovesADefaultThatIsOnlyConnecting) {
  A->State = kLinkConnecting;
  EXPECT_EQ(UseTheLinkAsDefault(1, B), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
}

TEST_F(UsingALinkAsDefault, NeedsNoDefaultBefore) {
  g_DbcI.DefaultLink = nullptr;
  EXPECT_EQ(UseTheLinkAsDefault(1, B), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
}

TEST_F(UsingALinkAsDefault, IsTracedWithTheModuleItBelongsTo) {
  EXPECT_EQ(Traced([&] { UseTheLinkAsDefault(77, A); }),
            (Texts{"15 dbc|'UseTheLinkAsDefault' Call from dbc:77 ",
                   "15 dbc|'UseTheLinkAsDefault' Leave FAILED Link is not connected or Link is "
                   "already default"}));
  EXPECT_EQ(Traced([&] { UseTheLinkAsDefault(78, B); }).back(),
            "15 dbc|'UseTheLinkAsDefault' Leave SUCCESS");
}

// The step of the timer: with a link whose TimerEvent asks for a stop it is all that the loop does.
class TimerStep : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    AddLink("STOP")->State = kLinkConnected;
    Fake().OnTimer = [] { g_DbcI.ExitStatus = 7; };
    g_DbcI.AlarmFlag = 1;
  }
  void TearDown() override {
    RetryOutput = [] { return 0; };
    WaitForEvents();  // the one that the step has asked to look at all
    RetryOutput = nullptr;
    ClientTest::TearDown();
  }
};

TEST_F(TimerStep, AStopThatComesInItEndsTheLoopWithoutAWait) {
  std::signal(SIGALRM, [](int) { g_DbcI.ExitStatus = 8; });  // what would end a wait
  alarm(2);
  EXPECT_EQ(RunLoop(), 7);
  alarm(0);
  std::signal(SIGALRM, SIG_DFL);
  EXPECT_EQ(g_DbcI.AlarmFlag, 0);
}

TEST_F(TimerStep, AnswersRequestsThatWaitWithNothingUnderWay) {
  Link* const down = AddLink("DOWN");
  const int socket = Connect();
  const ClientMessage request = MakeRequest(getpid(), socket, 5);
  ASSERT_EQ(SaveUnsendMsg("test", 1, &request, down), 0);
  EXPECT_EQ(RunLoop(), 7);
  EXPECT_EQ(Take(socket), test::ErrorFrame(Request("DOWN", 5), 4006, 0));
  EXPECT_EQ(down->Books.Waiting, 0);
}

TEST_F(TimerStep, FreesTheMemoryOfABusyMoment) {
  TakeAndGiveBlocks(30);
  FreeIdleBlocks();
  EXPECT_EQ(RunLoop(), 7);
  EXPECT_LT(SpareBlocks(), 30);
}

// It is not taken down when another one takes over, but is before it is tried again.
TEST_F(TimerStep, NotesWhatHasFailedOfALinkThatIsStillConnecting) {
  FakeProtocol& slow = Fake("SLOW");
  slow.TimerResult = kStatusConnectTimeout;
  Link* const link = AddLink("A", slow);
  link->State = kLinkConnecting;
  g_DbcI.DefaultLink = g_DbcI.CircleStartLink = link;
  g_DbcI.AutoConnect = 1;
  EXPECT_EQ(RunLoop(), 7);
  EXPECT_STREQ(g_DbcI.DefaultLink->NodeName, "STOP");
  EXPECT_EQ(link->State, kLinkConnecting);
  EXPECT_EQ(link->Broken, kStatusConnectTimeout);
}

TEST(Turns, AreOverAfter256Packets) {
  EndTurn();
  for (int i = 0; i < 256; ++i) {
    EXPECT_FALSE(TurnIsOver()) << i;
    CountPacket(true);
  }
  EXPECT_TRUE(TurnIsOver());
  EndTurn();
  EXPECT_FALSE(TurnIsOver());
}

// A link of which more waits than has been read: it is served until it has nothing left.
class LinkThatIsDrained : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    Link* const link = AddLink("A");
    link->State = kLinkConnected;
    REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, fd_);
    REGISTER_SOCKET_FOR_THE_LINK(kHere, 1, fd_, link);
    MarkWaiting(fd_, true);
    g_DbcI.LastLinkSocket = fd_;
  }
  void TearDown() override {
    MarkWaiting(fd_, false);
    UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, fd_);
    UNREGISTER_SOCKET_FOR_THE_LINK(kHere, 1, fd_);
    close(fd_);
    ClientTest::TearDown();
  }
  const int fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
};

TEST_F(LinkThatIsDrained, IsLeftWhenAStopIsAskedForMeanwhile) {
  Fake().OnRead = [](Link*) {
    g_DbcI.ExitStatus = 7;
    return 0;
  };
  EXPECT_EQ(RunLoop(), 7);
  EXPECT_EQ(Fake().Count("ReadyForRead A"), 1);
}

// The whole program in a child process in which a signal closes a descriptor behind its back.
class FailingDescriptors : public testing::Test {
 protected:
  // Ends the agent, which has come through.
  void TearDown() override {
    if (pid_ < 0) return;
    kill(pid_, HasFatalFailure() ? SIGKILL : SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    EXPECT_EQ(Log().find("AddressSanitizer"), std::string::npos) << Log();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }

  // Without the trace epoll waits for most descriptors.
  void StartWithoutTrace(const std::string& nodetab) {
    logLevel_ = "5";
    Start(nodetab);
  }
  void Start(const std::string& nodetab) {
    std::ofstream(folder_ / "nodetab") << nodetab;
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) RunAgent();
    ASSERT_TRUE(test::WaitFor([&] {
      control_ = lumo::Connection::Open(SocketPath());
      return control_.has_value();
    })) << Log();
  }
  // Closes the descriptor of the agent; returns when the agent has looked at all of them.
  void CloseInAgent(int fd) {
    sigval value = {};
    value.sival_int = fd;
    sigqueue(pid_, SIGUSR1, value);
    Tick();
    // The first answer may be one of a pass that had begun before.
    ASSERT_TRUE(lumo::AnswerOne(*control_) && lumo::AnswerOne(*control_)) << Log();
  }

  void Tick() const { kill(pid_, SIGALRM); }
  std::filesystem::path Descriptors() const { return "/proc/" + std::to_string(pid_) + "/fd"; }
  bool IsOpen(int fd) const {
    return std::filesystem::is_symlink(Descriptors() / std::to_string(fd));
  }
  // Of the agent's, below those that it keeps for itself.
  int HighestDescriptor() const {
    int highest = -1;
    for (const auto& entry : std::filesystem::directory_iterator(Descriptors())) {
      const int fd = std::stoi(entry.path().filename());
      if (fd < kMaxDescriptors) highest = std::max(highest, fd);
    }
    return highest;
  }

  lumo::Connection Connect() {
    std::optional<lumo::Connection> connection = lumo::Connection::Open(SocketPath());
    if (!connection || !lumo::AnswerOne(*connection))  // also registered when this returns
      throw std::runtime_error("the agent does not answer");
    return std::move(*connection);
  }
  static void Ask(lumo::Connection& client, const std::string& node, std::uint16_t tag) {
    lumo::Message request;
    request.TaskName = getpid();
    request.Node = node;
    request.SetTrailerTaskName(getpid());
    request.SetAstInd(tag);
    EXPECT_TRUE(client.SendFrame(lumo::Encode(request, lumo::Lengths::Client)));
  }
  // The request reaches the node over a new connection; it is not answered.
  static void Reach(test::Node& node, lumo::Connection& client, const std::string& name,
                    std::uint16_t tag) {
    Ask(client, name, tag);
    ASSERT_TRUE(node.Accept());
    ASSERT_TRUE(node.ReadRequest());
  }
  // The node sends the next request back as its own answer, which the client gets.
  static void ExpectServed(test::Node& node, lumo::Connection& client, std::uint16_t tag) {
    const auto request = node.ReadRequest();
    ASSERT_TRUE(request);
    node.SendMessage(*request);
    EXPECT_EQ(Answer(client), std::to_string(tag) + ": 0, 0");
  }
  // So is a request that reaches the node over a new connection.
  static void ExpectServedAnew(test::Node& node, lumo::Connection& client, const std::string& name,
                               std::uint16_t tag) {
    Ask(client, name, tag);
    ASSERT_TRUE(node.Accept());
    ExpectServed(node, client, tag);
  }
  // The next answer: "TAG: CODE, ERRNO".
  static std::string Answer(lumo::Connection& client) {
    const std::optional<std::string> frame =
        client.ReceiveFrame(static_cast<int>(test::kPatience.count()));
    const std::optional<lumo::Message> answer = frame ? lumo::Decode(*frame) : std::nullopt;
    if (!answer) return "nothing";
    return std::to_string(answer->AstInd()) + ": " + std::to_string(answer->CodErr) + ", " +
           std::to_string(answer->SysErr);
  }

  std::string Log() const { return test::ReadFile(folder_ / "log"); }
  int Count(const std::string& text) const {
    const Texts lines = LogTexts(Log());
    return static_cast<int>(std::count(lines.begin(), lines.end(), "15 dbc|" + text));
  }
  // The number in the last line of the log that begins so.
  int LastNumber(const std::string& start) const {
    int number = -1;
    for (const std::string& line : Beginning(LogTexts(Log()), {start}))
      number = std::stoi(line.substr(start.size()));
    return number;
  }
  int DescriptorOfLink(const std::string& name) const {
    int number = -1;
    const std::string start = "15 lumo_tcp|REGISTER_SOCKET_FOR_THE_LINK ";
    for (const std::string& line : Beginning(LogTexts(Log()), {start})) {
      if (line.ends_with(", " + name)) number = std::stoi(line.substr(start.size()));
    }
    return number;
  }
  int NewestClient() const { return LastNumber("15 clntxch|REGISTER_SOCKET_FOR_READ_EVENT "); }
  bool FoundGood(int fd) const {
    return Count("Select bad status socket=" + std::to_string(fd) + " errno=9") > 0;
  }
  lumo::Connection& Control() { return *control_; }

 private:
  static void CloseDescriptor(int, siginfo_t* info, void*) { close(info->si_value.sival_int); }

  [[noreturn]] void RunAgent() const {
    setenv("DBC_LOG", logLevel_, 1);
    setenv("TAVRIN_TMP", folder_.c_str(), 1);
    const std::string log = folder_ / "log", nodetab = folder_ / "nodetab";
    if (!std::freopen(log.c_str(), "a", stderr) || !std::freopen("/dev/null", "w", stdout))
      _exit(126);
    struct sigaction action = {};
    action.sa_sigaction = CloseDescriptor;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &action, nullptr);
    std::vector<std::string> arguments = {"lumo_tcp", "-NODAEMON", "-M", "7", "-N", nodetab};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    _exit(AgentMain(static_cast<int>(arguments.size()), argv.data()));
  }
  std::string SocketPath() const { return folder_ / "tavrin.7"; }

  const test::TemporaryDirectory directory_;
  const std::filesystem::path& folder_ = directory_.Path();
  const char* logLevel_ = "15";
  pid_t pid_ = -1;
  std::optional<lumo::Connection> control_;
};

class WaitsOfTheAgent : public FailingDescriptors {};

TEST_F(WaitsOfTheAgent, AnAnswerThatIsThereAtOnceNeedsNone) {
  const AnswersAtOnce system;
  test::Node a;
  StartWithoutTrace(a.Line("A"));
  lumo::Connection client = Connect();
  ExpectServedAnew(a, client, "A", 1);
  const int before = system.Waits();
  for (std::uint16_t tag = 2; tag < 42; ++tag) {
    Ask(client, "A", tag);
    ExpectServed(a, client, tag);
  }
  EXPECT_LE(system.Waits() - before, 45) << "one for each request";
}

TEST_F(FailingDescriptors, WithoutTheTraceALinksIsNoticedAtTheNextTick) {
  test::Node a;
  StartWithoutTrace(a.Line("A"));
  lumo::Connection client = Connect();
  Reach(a, client, "A", 1);
  CloseInAgent(HighestDescriptor());
  Tick();
  EXPECT_EQ(Answer(client), "1: 4005, 9");
  ExpectServedAnew(a, client, "A", 2);
}

TEST_F(FailingDescriptors, ALinksIsTakenDownWith4005AndTheOthersGoOn) {
  test::Node a, b;
  Start(a.Line("A") + b.Line("B"));
  lumo::Connection client = Connect();
  const int clientFd = NewestClient();
  Reach(a, client, "A", 1);
  Ask(client, "B", 2);
  ASSERT_TRUE(b.Accept());
  const auto request = b.ReadRequest();  // the link is up
  ASSERT_TRUE(request);
  const int fdA = DescriptorOfLink("A"), fdB = DescriptorOfLink("B");
  CloseInAgent(fdA);
  EXPECT_EQ(Answer(client), "1: 4005, 9");
  b.SendMessage(*request);
  EXPECT_EQ(Answer(client), "2: 0, 0");
  EXPECT_TRUE(FoundGood(fdB));
  EXPECT_TRUE(FoundGood(clientFd));
  EXPECT_FALSE(FoundGood(fdA));
  EXPECT_FALSE(Beginning(LogTexts(Log()), {"Disconnect link  A"}).empty());
  ExpectServedAnew(a, client, "A", 3);
}

// The first call of select is the wait that fails, each next one looks at one descriptor.
TEST_F(FailingDescriptors, ALookThatIsInterruptedIsRepeated) {
  test::Node a;
  With({SystemCall::Select, EINTR, 1, 1}, [&] { Start(a.Line("A")); });
  lumo::Connection client = Connect();
  const lumo::Connection victim = Connect();
  CloseInAgent(NewestClient());
  EXPECT_TRUE(FoundGood(3)) << "the listener was looked at first";
  ExpectServedAnew(a, client, "A", 1);
  EXPECT_EQ(Connect().AgentPid(), client.AgentPid());
}

TEST_F(FailingDescriptors, OneThatCannotBeLookedAtIsClosed) {
  With({SystemCall::Select, ENOMEM, 1, 1}, [&] { Start("A REZ\n"); });
  const lumo::Connection victim = Connect();
  const int listener = 3;
  ASSERT_TRUE(IsOpen(listener));
  CloseInAgent(NewestClient());
  EXPECT_FALSE(FoundGood(listener));
  EXPECT_FALSE(IsOpen(listener));
}

TEST_F(FailingDescriptors, AClientsIsForgottenAndItsNumberServesAgain) {
  test::Node a;
  Start(a.Line("A"));
  lumo::Connection client = Connect();
  lumo::Connection victim = Connect();
  const int victimFd = NewestClient();
  CloseInAgent(victimFd);
  EXPECT_FALSE(FoundGood(victimFd));
  EXPECT_FALSE(victim.ReceiveFrame(static_cast<int>(test::kPatience.count())));
  EXPECT_TRUE(victim.Lost());
  const Texts traced = Beginning(LogTexts(Log()), {"15 clntxch|'TestAliveClient' Call from dbc:"});
  EXPECT_EQ(std::set<std::string>(traced.begin(), traced.end()).size(), 2U)
      << "by the tick and by the look at the descriptors";
  lumo::Connection next = Connect();
  EXPECT_EQ(NewestClient(), victimFd);
  for (lumo::Connection* each : {&client, &next}) {
    Ask(*each, "X", 5);
    EXPECT_EQ(Answer(*each), "5: 4050, 0");
  }
}

TEST_F(FailingDescriptors, ALinkWithAnExceptionalConditionIsTakenDownToo) {
  test::Node a;
  // What the look at the listener leaves in errno is not the link's.
  With({SystemCall::Select, EINTR, 1, 1}, [&] { Start(a.Line("A")); });
  lumo::Connection client = Connect();
  Reach(a, client, "A", 1);
  lumo::Connection victim = Connect();
  const int victimFd = NewestClient();
  EXPECT_EQ(send(a.Socket(), "!", 1, MSG_OOB), 1);
  CloseInAgent(victimFd);
  EXPECT_EQ(Answer(client), "1: 4005, 9");
  EXPECT_FALSE(FoundGood(DescriptorOfLink("A")));
}

TEST_F(FailingDescriptors, ANumberThatAnotherLinkHasTakenMeanwhileIsNotClosed) {
  test::Node a, b;
  Start(a.Line("A") + b.Line("B"));
  lumo::Connection client = Connect();
  Reach(a, client, "A", 1);
  const lumo::Answer deletion = lumo::DeleteNodeByName(Control(), "A");
  ASSERT_TRUE(deletion && deletion->Result == lumo::kDeletionPending);
  const int fdA = DescriptorOfLink("A");
  CloseInAgent(fdA);  // deletes A, the default, so that B is connected
  EXPECT_EQ(Answer(client), "1: 4005, 9");
  ASSERT_EQ(DescriptorOfLink("B"), fdA);
  ASSERT_TRUE(b.Accept());
  Ask(client, "", 2);
  ExpectServed(b, client, 2);
}

TEST_F(FailingDescriptors, WithoutTheListenerTheClientsThatAreThereAreServed) {
  Start("A REZ\n");
  lumo::Connection client = Connect();
  const int listener = 3;
  ASSERT_NE(Log().find("REGISTER_SOCKET_FOR_READ_EVENT 3"), std::string::npos) << Log();
  CloseInAgent(listener);
  EXPECT_FALSE(FoundGood(listener));
  Ask(client, "A", 1);
  EXPECT_EQ(Answer(client), "1: 4066, 0");
  const int waits = Count("select return -1");
  ASSERT_TRUE(lumo::AnswerOne(Control()));
  EXPECT_LE(Count("select return -1"), waits + 1) << "only the alarm interrupts a wait now";
}

}  // namespace
