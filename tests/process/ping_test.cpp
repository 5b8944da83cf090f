// The test run: one node, one request, a verdict in words and in the exit code.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

// The lines at level 0 are all that a run shows by default.
std::string Alive(const std::string& node) { return "lumo_tcp:Node \"" + node + "\" is alive\n"; }
std::string NotAlive(const std::string& node, const std::string& verdict) {
  return "lumo_tcp:Node \"" + node + "\" is not alive\nlumo_tcp:" + verdict + "\n";
}
std::string ConnectFailed(const std::string& node, int error) {
  return NotAlive(node, "Test connection has failed. Status 4006:" + std::to_string(error));
}

constexpr char kNoListener[] = "Peer has no valid listener";

class Ping : public AgentTest {
 protected:
  static int RunPing(Agent* agent, const std::string& nodetab) {
    return agent->Nodetab(nodetab).Option("-PING").Run();
  }
  int RunPing(const std::string& nodetab) { return RunPing(&agent_, nodetab); }
  void StartPing(const std::string& nodetab) { agent_.Nodetab(nodetab).Option("-PING").Spawn(); }
  // The run tests this server, which has got the request.
  template <class Server>
  lumo::Message StartUntilRequest(Server& server, const std::string& name,
                                  const Place& place = Place::Here()) {
    StartPing(server.Line(name));
    return server.ExpectFirstRequest(place);
  }

  // The run ends by itself with this code and these lines, and nothing else in its log.
  void ExpectEnd(int code, const std::string& log, const Place& place = Place::Here()) {
    const testing::ScopedTrace trace(place.File, place.Line, "");
    const std::optional<int> status = agent_.Wait();
    ASSERT_TRUE(status) << "the run does not end\n" << agent_.Log();
    EXPECT_EQ(*status, code);
    EXPECT_EQ(agent_.Results(), log);
  }
  void ExpectRun(const std::string& nodetab, int code, const std::string& log,
                 const Place& place = Place::Here()) {
    StartPing(nodetab);
    ExpectEnd(code, log, place);
  }
  // Ticks come until the run ends; it has no client connection that a barrier could use.
  void ExpectEndByTicks(int code, const std::string& log) {
    std::optional<int> status;
    // Before that a tick would end the run.
    ASSERT_TRUE(WaitFor([&] { return Catches(agent_.Pid(), SIGALRM); }));
    EXPECT_TRUE(WaitFor([&] {
      if ((status = agent_.Wait(Milliseconds(0)))) return true;
      agent_.Signal(SIGALRM);
      return false;
    })) << agent_.Log();
    EXPECT_EQ(status, code);
    EXPECT_EQ(agent_.Results(), log);
  }
};

using PingTrace = Ping;

// Alive

TEST_F(Ping, ANodeThatAnswersOverTcpIsAlive) {
  EchoNode node;
  ExpectRun(node.Line("srv1"), 0, Alive("SRV1"));
}

TEST_F(Ping, AKernelThatAnswersOnItsSocketIsAlive) {
  LocalKernel kernel(agent_);
  StartPing(kernel.Line("K", "LOCAL"));
  kernel.Answer(kernel.ExpectFirstRequest());
  ExpectEnd(0, Alive("K"));
}

TEST_F(Ping, AKernelThatAnswersThroughItsQueueIsAlive) {
  IpcKernel kernel;
  StartPing(kernel.Line("K"));
  const auto request = kernel.ExpectRequest();
  kernel.Answer(request);
  ExpectEnd(0, Alive("K"));
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(request.Reader); }));
}

TEST_F(Ping, AnyAnswerCountsWhateverItsCode) {
  Node node;
  StartPing(node.Line("SRV1"));
  node.Answer(node.ExpectFirstRequest(), "what is TS T?", 1234);
  ExpectEnd(0, Alive("SRV1"));
}

TEST_F(Ping, TheNodeThatIsAliveIsNamedAsTheAnswerNamesIt) {
  Node node;
  const auto request = StartUntilRequest(node, "SRV1");
  lumo::Message answer = AnswerTo(request, "");
  answer.Node = "ANOTHER8";
  node.SendMessage(answer);
  ExpectEnd(0, Alive("ANOTHER8"));
}

TEST_F(Ping, AnAnswerToAnotherRequestIsPassedOver) {
  Node node;
  const auto request = StartUntilRequest(node, "SRV1");
  lumo::Message other = AnswerTo(request, "");
  other.SetAstInd(7);
  node.SendMessage(other);
  EXPECT_FALSE(agent_.Wait(kShortly)) << agent_.Log();
  node.Answer(request);
  ExpectEnd(0, Alive("SRV1"));
}

// The request

TEST_F(Ping, TheTestRequestIsEmptyButForItsCommandItsNodeAndItsTask) {
  LocalKernel kernel(agent_);
  StartPing(kernel.Line("Srv1"));
  ASSERT_TRUE(kernel.Accept());
  const auto frame = kernel.ReadFrame();
  ASSERT_TRUE(frame);
  lumo::Message expected;
  expected.TaskName = agent_.Pid();
  expected.Command = "TS T";
  expected.Node = "SRV1";
  expected.SetTrailerTaskName(agent_.Pid());
  EXPECT_EQ(*frame, lumo::Encode(expected, lumo::Lengths::Client));
  EXPECT_EQ(frame->size(), 108u);
  EXPECT_TRUE(kernel.Silent());  // it is made once
  EXPECT_EQ(agent_.Stop(), 0);
}

// Not alive

TEST_F(Ping, ARefusedConnectionIsReported) {
  Node node(Node::Start::Bound);
  ExpectRun(node.Line("SRV1"), 6, NotAlive("SRV1", "Connection refused"));
}

TEST_F(Ping, AKernelThatDoesNotListenRefusesTheConnection) {
  LocalKernel kernel(agent_);
  const std::string line = kernel.Line("K"), path = agent_.SocketPath(kernel.Number());
  kernel.StopListening();
  const int file = BoundAt(path);  // on which nobody listens
  ExpectRun(line, 6, NotAlive("K", "Connection refused"));
  close(file);
}

TEST_F(Ping, AnyOtherConnectFailureIsReportedWithItsError) {
  // There is no file of that name.
  ExpectRun("K LOCALS 4711", 6, ConnectFailed("K", ENOENT));
}

TEST_F(Ping, AnAddressWithoutARouteIsReportedWithItsError) {
  // There is no connection to many at once.
  ExpectRun("SRV1 TCPIP 224.0.0.1 1060", 6, ConnectFailed("SRV1", ENETUNREACH));
}

TEST_F(Ping, AKernelWithoutItsSharedMemoryIsNotAlive) {
  IpcKernel kernel;
  kernel.RemoveSegment();
  ExpectRun(kernel.Line("K"), 6, ConnectFailed("K", ENOENT));
}

TEST_F(Ping, AConnectionThatIsNotMadeInTimeIsReported) {
  Node node(Node::Start::Stalled);
  StartPing(node.Line("SRV1", "0 0 2"));
  ExpectEndByTicks(58, NotAlive("SRV1", "Connect timeout has expired"));
}

TEST_F(Ping, ANodeThatSendsNothingInTimeIsReported) {
  Node node;
  StartPing(node.Line("SRV1", "0 2 0"));
  ASSERT_TRUE(node.Accept());
  ExpectEndByTicks(65, NotAlive("SRV1", "Timeout has expired"));
}

TEST_F(Ping, ANodeWithoutATimeoutIsWaitedFor) {
  Node node;
  const auto request = StartUntilRequest(node, "SRV1");
  for (int tick = 0; tick < 20; ++tick) {
    agent_.Signal(SIGALRM);
    EXPECT_FALSE(agent_.Wait(Milliseconds(5)));
  }
  node.Answer(request);
  ExpectEnd(0, Alive("SRV1"));
}

TEST_F(Ping, ANodeThatClosesTheConnectionHasNoValidListener) {
  Node node;
  StartUntilRequest(node, "SRV1");
  node.Close();
  ExpectEnd(9, NotAlive("SRV1", kNoListener));
}

TEST_F(Ping, ANodeThatBreaksTheConnectionHasNoValidListener) {
  Node node;
  StartUntilRequest(node, "SRV1");
  node.Reset();
  ExpectEnd(8, NotAlive("SRV1", kNoListener));
}

TEST_F(Ping, ANodeThatSendsNonsenseHasNoValidListener) {
  Node node;
  StartUntilRequest(node, "SRV1");
  node.SendBytes("\xff\xff\xff\xff");
  ExpectEnd(8, NotAlive("SRV1", kNoListener));
}

TEST_F(Ping, AKernelThatClosesItsSocketHasNoValidListener) {
  LocalKernel kernel(agent_);
  StartUntilRequest(kernel, "K");
  kernel.Close();
  ExpectEnd(8, NotAlive("K", kNoListener));
}

TEST_F(Ping, AKernelThatTakesNoRequestHasNoValidListener) {
  LocalKernel kernel(agent_);
  StartPing(kernel.Line("K"));
  ASSERT_TRUE(kernel.Accept(""));  // it does not greet yet: the agent waits
  shutdown(kernel.Socket(), SHUT_RD);
  kernel.SendBytes("hello");
  ExpectEnd(7, NotAlive("K", kNoListener));
}

TEST_F(Ping, AKernelWhoseSemaphoreIsFullHasNoValidListener) {
  IpcKernel kernel;
  kernel.SetSemaphore(IpcKernel::kLargestSemaphore);
  StartPing(kernel.Line("K"));
  ExpectEnd(7, NotAlive("K", kNoListener));
}

TEST_F(Ping, AReaderThatEndsIsReported) {
  IpcKernel kernel;
  StartPing(kernel.Line("K"));
  const auto request = kernel.ExpectRequest();
  kill(request.Reader, SIGKILL);
  ExpectEnd(9, NotAlive("K", kNoListener));
}

TEST_F(Ping, AReaderThatATickFindsGoneIsReportedByItsStatus) {
  IpcKernel kernel;
  StartPing(kernel.Line("K"));
  const auto request = kernel.ExpectRequest();
  // The tick comes before the end of the pipe is seen: at the top of a pass, so that the pass of
  // the request must be over.
  ASSERT_TRUE(WaitFor([&] { return Sleeps(agent_.Pid()); }));
  Freeze(agent_.Pid());
  kill(request.Reader, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return !ProcessRuns(request.Reader); }));
  agent_.Signal(SIGALRM);
  Thaw(agent_.Pid());
  ExpectEnd(53, NotAlive("K", "Agent internal status 4053:0"));
}

TEST_F(Ping, AnUnsupportedProtocolIsDisabled) {
  for (const char* protocol :
       {"ATCPIP", "ATCPIPS", "REZ", "IPX/SPX", "npipe", "DECNET", "TSR", "TCPIPS", "NetBios"}) {
    Agent agent;
    EXPECT_EQ(RunPing(&agent, std::string("SRV1 ") + protocol + " somewhere\n"), 66) << protocol;
    EXPECT_EQ(agent.Results(), NotAlive("SRV1", "Protocol disabled")) << protocol;
  }
}

TEST_F(Ping, AStatusWithoutAWordIsReportedByItsNumber) {
  constexpr rlim_t kPipeAndNoMore = 5;
  Agent tcp;
  tcp.Limit(RLIMIT_NOFILE, kPipeAndNoMore);
  EXPECT_EQ(RunPing(&tcp, "SRV1 TCPIP 127.0.0.1 9"), 1);
  EXPECT_EQ(tcp.Results(),
            NotAlive("SRV1", "Agent internal status 4001:" + std::to_string(EMFILE)));
  Agent local;
  local.Limit(RLIMIT_NOFILE, kPipeAndNoMore);
  EXPECT_EQ(RunPing(&local, "K LOCALS 77"), (-1 - 4000) & 0xFF);
  EXPECT_EQ(local.Results(), NotAlive("K", "Agent internal status -1:" + std::to_string(EMFILE)));
}

// The node to test

TEST_F(Ping, TheFirstNodeOfTheTableIsTested) {
  EXPECT_EQ(RunPing("# A LOCALS 1\n;B LOCALS 1\n\n \t \r\n  first REZ\nLAST TCPIP\n"), 66);
  EXPECT_EQ(agent_.Results(), NotAlive("FIRST", "Protocol disabled"));
}

TEST_F(Ping, AnEmptyDefaultIsNone) {
  agent_.Options({"-DEFAULT="});
  ExpectRun("A REZ\nB REZ\n", 66, NotAlive("A", "Protocol disabled"));
}

TEST_F(Ping, TheDefaultNodeIsTestedWhateverItsCase) {
  agent_.Options({"-DEFAULT", "sRv2"});
  ExpectRun("SRV REZ\nSRV22 REZ\n  Srv2\tREZ\nSRV2 LOCALS 1\n", 66,
            NotAlive("SRV2", "Protocol disabled"));
}

TEST_F(Ping, OnlyTheTestedLineIsRead) {
  EchoNode node;
  agent_.Options({"-DEFAULT", "B"});
  ExpectRun("A NONSENSE\n" + node.Line("B") + "TOOLONGNAME REZ\n", 0, Alive("B"));
}

TEST_F(Ping, AMissingNodeIsReportedAndTheCodeStaysZero) {
  for (const char* nodetab : {"A REZ\n", "# only a comment\n", ""}) {
    Agent agent;
    agent.Options({"-DEFAULT", "B"});
    EXPECT_EQ(RunPing(&agent, nodetab), 0);
    EXPECT_EQ(agent.Results(), "lumo_tcp:Node(s) is not found\n");
  }
}

TEST_F(Ping, AMissingNodeTableIsReportedAndTheCodeStaysZero) {
  agent_.WithoutNodetab().Options({"-PING", "-NODETAB", agent_.Folder() / "missing"});
  EXPECT_EQ(agent_.Run(), 0);
  EXPECT_EQ(agent_.Results(), "lumo_tcp:File nodetab is not found. Exit.\n");
}

TEST_F(Ping, ALineThatMakesNoNodeIsReportedAndTheCodeStaysZero) {
  ExpectRun("A NONSENSE\nB REZ\n", 0,
            "lumo_tcp:The network agent doesn't support protocol  'NONSENSE' for node 'A'.\n"
            "lumo_tcp:Node name 'A' skipped\n"
            "lumo_tcp:Node string has errors\n");
}

TEST_F(Ping, AFailureToMakeThePipeIsReportedAndTheCodeStaysZero) {
  constexpr rlim_t kTableAndNoMore = 4;
  agent_.Limit(RLIMIT_NOFILE, kTableAndNoMore).LogLevel("2");
  EXPECT_EQ(RunPing("A REZ\n"), 0);
  EXPECT_EQ(agent_.CountLogged(2, "ping",
                               "create pipe failed. Call pipe. errno " + std::to_string(EMFILE)),
            1);
}

// The run itself

TEST_F(Ping, AStopBySignalGivesNoVerdict) {
  for (const int signal : {SIGTERM, SIGINT}) {
    Node node;
    StartUntilRequest(node, "SRV1");
    EXPECT_EQ(agent_.Stop(signal), 0);
    EXPECT_EQ(agent_.Results(), "");
  }
}

TEST_F(Ping, AStopWhileConnectingGivesNoVerdict) {
  Node node(Node::Start::Stalled);
  agent_.LogLevel("15");
  StartPing(node.Line("SRV1"));
  ASSERT_TRUE(agent_.WaitForLog("REGISTER_SOCKET_FOR_WRITE_EVENT"));
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.CountLogged(0, "", "Node \"SRV1\" is not alive"), 0);
}

TEST_F(Ping, AStopWhileTheKernelDoesNotGreetGivesNoVerdict) {
  LocalKernel kernel(agent_);
  StartPing(kernel.Line("K"));
  ASSERT_TRUE(kernel.Accept(""));
  std::optional<int> status;
  EXPECT_TRUE(WaitFor([&] {
    agent_.Signal(SIGTERM);  // one that comes just before the wait is only noticed with the next
    return (status = agent_.Wait(Milliseconds(1))).has_value();
  }));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(agent_.Results(), "");
}

TEST_F(Ping, TheVerdictIsGivenOnce) {
  Node node;
  agent_.LogLevel("2");
  const auto request = StartUntilRequest(node, "SRV1");
  const std::string answer = lumo::Encode(AnswerTo(request, ""), lumo::Lengths::Packet);
  node.SendBytes(answer + answer + std::string(4, '\xff'));  // two answers and a failure
  node.Close();
  ASSERT_EQ(agent_.Wait(), 0);
  EXPECT_EQ(agent_.CountLogged(0, "", "Node \"SRV1\" is alive"), 1);
  EXPECT_EQ(agent_.CountLogged(0, "", "Node \"SRV1\" is not alive"), 0);
}

TEST_F(Ping, TheReconnectionModesDoNotApply) {
  Node node(Node::Start::Bound);
  agent_.LogLevel("1").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60", "-ERR1001"});
  EXPECT_EQ(RunPing(node.Line("SRV1") + "B REZ\n"), 6);
  EXPECT_EQ(agent_.Log(), NotAlive("SRV1", "Connection refused"));
  Agent changing;
  changing.LogLevel("1").Option("-AUTOCHANGE");
  EXPECT_EQ(RunPing(&changing, node.Line("SRV1") + "B REZ\n"), 6);
  EXPECT_EQ(changing.Log(), NotAlive("SRV1", "Connection refused"));
}

TEST_F(Ping, TheTestRequestWaitsForItsConnectionEvenWithConnError) {
  EchoNode node;
  agent_.Option("-CONNERROR");
  ExpectRun(node.Line("SRV1"), 0, Alive("SRV1"));
}

TEST_F(Ping, NoClientSocketIsOpened) {
  Node node;
  StartUntilRequest(node, "SRV1");
  EXPECT_FALSE(std::filesystem::exists(agent_.SocketPath()));
  EXPECT_EQ(agent_.Stdout().find("Default server"), std::string::npos);
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Ping, TheSocketFileOfTheExchangeIdIsRemovedAtTheEnd) {
  EchoNode node;
  WriteFile(agent_.SocketPath(), "left by somebody");
  EXPECT_EQ(RunPing(node.Line("SRV1")), 0);
  EXPECT_FALSE(std::filesystem::exists(agent_.SocketPath()));
}

TEST_F(Ping, TheParentIsNotSignalledAndThePidFileIsRemoved) {
  Node node;
  const std::string pidFile = agent_.Folder() / "pid";
  agent_.Options({"-PKILL", "15", "-PIDFILE", pidFile}).UnderOwnParent();
  const auto request = StartUntilRequest(node, "SRV1");
  EXPECT_EQ(ReadFile(pidFile), std::to_string(request.TaskName) + "\n");
  node.Answer(request);
  EXPECT_TRUE(agent_.WaitForLog(Alive("SRV1")));
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(request.TaskName); }));
  EXPECT_FALSE(std::filesystem::exists(pidFile));
}

TEST_F(Ping, ImpliesTheForeground) {
  agent_.Trace();
  EXPECT_EQ(RunPing("NOWHERE REZ\n"), 66) << "a background start would give 0";
  EXPECT_TRUE(agent_.Logged(15, "init", "Set ping flag = 1"));
}

// The trace

TEST_F(PingTrace, TheSetUpIsShown) {
  EchoNode node;
  agent_.Trace();
  const std::string line = node.Line("SRV1");
  EXPECT_EQ(RunPing("# comment\n" + line), 0);
  EXPECT_NE(agent_.Log().find("|Parse nodetab string:\n# comment\n\n"), std::string::npos);
  EXPECT_NE(agent_.Log().find("|Parse nodetab string:\n" + line + "\n"), std::string::npos);
  EXPECT_TRUE(agent_.LogContains("'InitNodeForPing' Call from ping:"));
  EXPECT_TRUE(agent_.Logged(15, "ping", "'InitNodeForPing' Leave SUCCESS"));
  EXPECT_FALSE(agent_.LogContains("'InitialisePing'"));
  EXPECT_TRUE(agent_.LogContains("'PingPseudoReadMsg' Call from clntxch:"));
  EXPECT_TRUE(agent_.LogContains("'PingPseudoPutMsgToClient' Call from link:"));
  EXPECT_TRUE(agent_.LogContains("'DeinitPing' Call from dbc:"));
  EXPECT_FALSE(agent_.LogContains("'DisconnectLink' Leave SUCCESS ping")) << "the node answered";
}

TEST_F(PingTrace, TheReadEndIsShownWithItsNumber) {
  agent_.Trace();
  EXPECT_EQ(RunPing("A REZ\n"), 66);
  EXPECT_EQ(agent_.CountLogged(15, "ping", "REGISTER_SOCKET_FOR_READ_EVENT 3"), 1);
  EXPECT_TRUE(agent_.Logged(15, "link", "'DisconnectLink' Leave SUCCESS ping"));
  EXPECT_TRUE(agent_.LogContains("'PingAnaliseRetcode' Call from link:"));
}

TEST_F(PingTrace, AFailedSetUpSaysWhatFailed) {
  const std::pair<const char*, const char*> kFailures[] = {
      {"# no node\n", "'InitNodeForPing' Leave FAILED Do not found"},
      {"A NONSENSE\n", "'InitNodeForPing' Leave FAILED Parce nodetab string"}};
  for (const auto& [nodetab, word] : kFailures) {
    Agent agent;
    agent.Trace();
    EXPECT_EQ(RunPing(&agent, nodetab), 0);
    EXPECT_TRUE(agent.Logged(15, "ping", word)) << nodetab;
  }
  Agent noTable;
  noTable.Trace().WithoutNodetab().Options({"-PING", "-NODETAB", noTable.Folder() / "missing"});
  EXPECT_EQ(noTable.Run(), 0);
  EXPECT_TRUE(noTable.Logged(15, "ping", "'InitNodeForPing' Leave FAILED no nodetab"));
  Agent noPipe;
  noPipe.Trace().Limit(RLIMIT_NOFILE, 4);
  EXPECT_EQ(RunPing(&noPipe, "A REZ\n"), 0);
  EXPECT_TRUE(noPipe.Logged(15, "ping", "'InitialisePing' Leave FAILED InitialisePing"));
}

}  // namespace
}  // namespace test
