// The test run: one node, one request, a verdict in words and in the exit code.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/agent.h"
#include "tests/support/client.h"
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

void StartPing(Agent* agent, const std::string& nodetab) {
  agent->Nodetab(nodetab).Option("-PING");
  agent->Spawn();
}

int RunPing(Agent* agent, const std::string& nodetab) {
  agent->Nodetab(nodetab).Option("-PING");
  return agent->Run();
}

// The run ends by itself with this code and these lines, and nothing else in its log.
void ExpectEnd(Agent* agent, int code, const std::string& log) {
  const std::optional<int> status = agent->Wait();
  ASSERT_TRUE(status) << "the run does not end\n" << agent->Log();
  EXPECT_EQ(*status, code);
  EXPECT_EQ(agent->Results(), log);
}

// Before that a tick would end the run.
bool CatchesAlarms(const Agent& agent) {
  const std::string caught = ProcessStatus(agent.Pid(), "SigCgt");
  return !caught.empty() && (std::stoull(caught, nullptr, 16) >> (SIGALRM - 1) & 1) != 0;
}

// Ticks come until the run ends; it has no client connection that a barrier could use.
void ExpectEndByTicks(Agent* agent, int code, const std::string& log) {
  std::optional<int> status;
  ASSERT_TRUE(WaitFor([&] { return CatchesAlarms(*agent); }));
  EXPECT_TRUE(WaitFor([&] {
    if ((status = agent->Wait(Milliseconds(0)))) return true;
    agent->Signal(SIGALRM);
    return false;
  })) << agent->Log();
  EXPECT_EQ(status, code);
  EXPECT_EQ(agent->Results(), log);
}

// A socket file on which nobody listens; closed by the caller.
int BindOnly(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

// Alive

TEST(Ping, ANodeThatAnswersOverTcpIsAlive) {
  EchoNode node;
  Agent agent;
  EXPECT_EQ(RunPing(&agent, node.Line("srv1")), 0);
  EXPECT_EQ(agent.Results(), Alive("SRV1"));
}

TEST(Ping, AKernelThatAnswersOnItsSocketIsAlive) {
  Agent agent;
  LocalKernel kernel(agent);
  StartPing(&agent, kernel.Line("K", "LOCAL"));
  ASSERT_TRUE(kernel.Accept());
  const auto request = kernel.ReadRequest();
  ASSERT_TRUE(request);
  kernel.Answer(*request);
  ExpectEnd(&agent, 0, Alive("K"));
}

TEST(Ping, AKernelThatAnswersThroughItsQueueIsAlive) {
  Agent agent;
  IpcKernel kernel;
  StartPing(&agent, kernel.Line("K"));
  const auto request = kernel.ReadRequest();
  ASSERT_TRUE(request);
  kernel.Answer(*request);
  ExpectEnd(&agent, 0, Alive("K"));
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(request->Reader); }));
}

TEST(Ping, AnyAnswerCountsWhateverItsCode) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  node.Answer(*request, "what is TS T?", 1234);
  ExpectEnd(&agent, 0, Alive("SRV1"));
}

TEST(Ping, TheNodeThatIsAliveIsNamedAsTheAnswerNamesIt) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  lumo::Message answer = AnswerTo(*request, "");
  answer.Node = "ANOTHER8";
  node.SendMessage(answer);
  ExpectEnd(&agent, 0, Alive("ANOTHER8"));
}

TEST(Ping, AnAnswerToAnotherRequestIsPassedOver) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  lumo::Message other = AnswerTo(*request, "");
  other.SetAstInd(7);
  node.SendMessage(other);
  EXPECT_FALSE(agent.Wait(kShortly)) << agent.Log();
  node.Answer(*request);
  ExpectEnd(&agent, 0, Alive("SRV1"));
}

// The request

TEST(Ping, TheTestRequestIsEmptyButForItsCommandItsNodeAndItsTask) {
  Agent agent;
  LocalKernel kernel(agent);
  StartPing(&agent, kernel.Line("Srv1"));
  ASSERT_TRUE(kernel.Accept());
  const auto frame = kernel.ReadFrame();
  ASSERT_TRUE(frame);
  lumo::Message expected;
  expected.TaskName = agent.Pid();
  expected.Command = "TS T";
  expected.Node = "SRV1";
  expected.SetTrailerTaskName(agent.Pid());
  EXPECT_EQ(*frame, lumo::Encode(expected, lumo::Lengths::Client));
  EXPECT_EQ(frame->size(), 108u);
  EXPECT_TRUE(kernel.Silent());  // it is made once
  EXPECT_EQ(agent.Stop(), 0);
}

// Not alive

TEST(Ping, ARefusedConnectionIsReported) {
  Node node(Node::Start::Bound);
  Agent agent;
  EXPECT_EQ(RunPing(&agent, node.Line("SRV1")), 6);
  EXPECT_EQ(agent.Results(), NotAlive("SRV1", "Connection refused"));
}

TEST(Ping, AKernelThatDoesNotListenRefusesTheConnection) {
  Agent agent;
  LocalKernel kernel(agent);
  const std::string line = kernel.Line("K"), path = agent.SocketPath(kernel.Number());
  kernel.StopListening();
  const int file = BindOnly(path);
  EXPECT_EQ(RunPing(&agent, line), 6);
  EXPECT_EQ(agent.Results(), NotAlive("K", "Connection refused"));
  close(file);
}

TEST(Ping, AnyOtherConnectFailureIsReportedWithItsError) {
  Agent agent;  // no file of that name
  EXPECT_EQ(RunPing(&agent, "K LOCALS 4711"), 6);
  EXPECT_EQ(agent.Results(),
            NotAlive("K", "Test connection has failed. Status 4006:" + std::to_string(ENOENT)));
}

TEST(Ping, AnAddressWithoutARouteIsReportedWithItsError) {
  Agent agent;
  EXPECT_EQ(RunPing(&agent, "SRV1 TCPIP 224.0.0.1 1060"), 6);  // no connection to many at once
  EXPECT_EQ(agent.Results(), NotAlive("SRV1", "Test connection has failed. Status 4006:" +
                                                  std::to_string(ENETUNREACH)));
}

TEST(Ping, AKernelWithoutItsSharedMemoryIsNotAlive) {
  Agent agent;
  IpcKernel kernel;
  kernel.RemoveSegment();
  EXPECT_EQ(RunPing(&agent, kernel.Line("K")), 6);
  EXPECT_EQ(agent.Results(),
            NotAlive("K", "Test connection has failed. Status 4006:" + std::to_string(ENOENT)));
}

TEST(Ping, AConnectionThatIsNotMadeInTimeIsReported) {
  Node node(Node::Start::Bound);
  node.Stall();
  Agent agent;
  StartPing(&agent, node.Line("SRV1", "0 0 2"));
  ExpectEndByTicks(&agent, 58, NotAlive("SRV1", "Connect timeout has expired"));
}

TEST(Ping, ANodeThatSendsNothingInTimeIsReported) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1", "0 2 0"));
  ASSERT_TRUE(node.Accept());
  ExpectEndByTicks(&agent, 65, NotAlive("SRV1", "Timeout has expired"));
}

TEST(Ping, ANodeWithoutATimeoutIsWaitedFor) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  for (int tick = 0; tick < 20; ++tick) {
    agent.Signal(SIGALRM);
    EXPECT_FALSE(agent.Wait(Milliseconds(5)));
  }
  node.Answer(*request);
  ExpectEnd(&agent, 0, Alive("SRV1"));
}

TEST(Ping, ANodeThatClosesTheConnectionHasNoValidListener) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  node.Close();
  ExpectEnd(&agent, 9, NotAlive("SRV1", "Peer has no valid listener"));
}

TEST(Ping, ANodeThatBreaksTheConnectionHasNoValidListener) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  node.Reset();
  ExpectEnd(&agent, 8, NotAlive("SRV1", "Peer has no valid listener"));
}

TEST(Ping, ANodeThatSendsNonsenseHasNoValidListener) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  node.SendBytes("\xff\xff\xff\xff");
  ExpectEnd(&agent, 8, NotAlive("SRV1", "Peer has no valid listener"));
}

TEST(Ping, AKernelThatClosesItsSocketHasNoValidListener) {
  Agent agent;
  LocalKernel kernel(agent);
  StartPing(&agent, kernel.Line("K"));
  ASSERT_TRUE(kernel.Accept());
  ASSERT_TRUE(kernel.ReadRequest());
  kernel.Close();
  ExpectEnd(&agent, 8, NotAlive("K", "Peer has no valid listener"));
}

TEST(Ping, AKernelThatTakesNoRequestHasNoValidListener) {
  Agent agent;
  LocalKernel kernel(agent);
  StartPing(&agent, kernel.Line("K"));
  ASSERT_TRUE(kernel.Accept(""));  // it does not greet yet: the agent waits
  shutdown(kernel.Socket(), SHUT_RD);
  kernel.SendBytes("hello");
  ExpectEnd(&agent, 7, NotAlive("K", "Peer has no valid listener"));
}

TEST(Ping, AKernelWhoseSemaphoreIsFullHasNoValidListener) {
  Agent agent;
  IpcKernel kernel;
  constexpr int kLargest = 32767;
  ASSERT_EQ(semctl(semget(kernel.Key(), 1, 0), 0, SETVAL, kLargest), 0);
  StartPing(&agent, kernel.Line("K"));
  ExpectEnd(&agent, 7, NotAlive("K", "Peer has no valid listener"));
}

TEST(Ping, AReaderThatEndsIsReported) {
  Agent agent;
  IpcKernel kernel;
  StartPing(&agent, kernel.Line("K"));
  const auto request = kernel.ReadRequest();
  ASSERT_TRUE(request);
  kill(request->Reader, SIGKILL);
  ExpectEnd(&agent, 9, NotAlive("K", "Peer has no valid listener"));
}

TEST(Ping, AReaderThatATickFindsGoneIsReportedByItsStatus) {
  Agent agent;
  IpcKernel kernel;
  StartPing(&agent, kernel.Line("K"));
  const auto request = kernel.ReadRequest();
  ASSERT_TRUE(request);
  // The tick comes before the end of the pipe is seen: at the top of a pass, so that the pass of
  // the request must be over.
  ASSERT_TRUE(WaitFor([&] { return Sleeps(agent.Pid()); }));
  Freeze(agent.Pid());
  kill(request->Reader, SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return !ProcessRuns(request->Reader); }));
  agent.Signal(SIGALRM);
  Thaw(agent.Pid());
  ExpectEnd(&agent, 53, NotAlive("K", "Agent internal status 4053:0"));
}

TEST(Ping, AnUnsupportedProtocolIsDisabled) {
  for (const char* protocol :
       {"ATCPIP", "ATCPIPS", "REZ", "IPX/SPX", "npipe", "DECNET", "TSR", "TCPIPS", "NetBios"}) {
    Agent agent;
    EXPECT_EQ(RunPing(&agent, std::string("SRV1 ") + protocol + " somewhere\n"), 66) << protocol;
    EXPECT_EQ(agent.Results(), NotAlive("SRV1", "Protocol disabled")) << protocol;
  }
}

TEST(Ping, AStatusWithoutAWordIsReportedByItsNumber) {
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

TEST(Ping, TheFirstNodeOfTheTableIsTested) {
  Agent agent;
  EXPECT_EQ(RunPing(&agent, "# A LOCALS 1\n;B LOCALS 1\n\n \t \r\n  first REZ\nLAST TCPIP\n"), 66);
  EXPECT_EQ(agent.Results(), NotAlive("FIRST", "Protocol disabled"));
}

TEST(Ping, AnEmptyDefaultIsNone) {
  Agent agent;
  agent.Options({"-DEFAULT="});
  EXPECT_EQ(RunPing(&agent, "A REZ\nB REZ\n"), 66);
  EXPECT_EQ(agent.Results(), NotAlive("A", "Protocol disabled"));
}

TEST(Ping, TheDefaultNodeIsTestedWhateverItsCase) {
  Agent agent;
  agent.Options({"-DEFAULT", "sRv2"});
  EXPECT_EQ(RunPing(&agent, "SRV REZ\nSRV22 REZ\n  Srv2\tREZ\nSRV2 LOCALS 1\n"), 66);
  EXPECT_EQ(agent.Results(), NotAlive("SRV2", "Protocol disabled"));
}

TEST(Ping, OnlyTheTestedLineIsRead) {
  EchoNode node;
  Agent agent;
  agent.Options({"-DEFAULT", "B"});
  EXPECT_EQ(RunPing(&agent, "A NONSENSE\n" + node.Line("B") + "TOOLONGNAME REZ\n"), 0);
  EXPECT_EQ(agent.Results(), Alive("B"));
}

TEST(Ping, AMissingNodeIsReportedAndTheCodeStaysZero) {
  for (const char* nodetab : {"A REZ\n", "# only a comment\n", ""}) {
    Agent agent;
    agent.Options({"-DEFAULT", "B"});
    EXPECT_EQ(RunPing(&agent, nodetab), 0);
    EXPECT_EQ(agent.Results(), "lumo_tcp:Node(s) is not found\n");
  }
}

TEST(Ping, AMissingNodeTableIsReportedAndTheCodeStaysZero) {
  Agent agent;
  agent.WithoutNodetab().Options({"-PING", "-NODETAB", agent.Folder() / "missing"});
  EXPECT_EQ(agent.Run(), 0);
  EXPECT_EQ(agent.Results(), "lumo_tcp:File nodetab is not found. Exit.\n");
}

TEST(Ping, ALineThatMakesNoNodeIsReportedAndTheCodeStaysZero) {
  Agent agent;
  EXPECT_EQ(RunPing(&agent, "A NONSENSE\nB REZ\n"), 0);
  EXPECT_EQ(agent.Results(),
            "lumo_tcp:The network agent doesn't support protocol  'NONSENSE' for node 'A'.\n"
            "lumo_tcp:Node name 'A' skipped\n"
            "lumo_tcp:Node string has errors\n");
}

TEST(Ping, AFailureToMakeThePipeIsReportedAndTheCodeStaysZero) {
  constexpr rlim_t kTableAndNoMore = 4;
  Agent agent;
  agent.Limit(RLIMIT_NOFILE, kTableAndNoMore).LogLevel("2");
  EXPECT_EQ(RunPing(&agent, "A REZ\n"), 0);
  EXPECT_EQ(agent.CountLogged(2, "ping",
                              "create pipe failed. Call pipe. errno " + std::to_string(EMFILE)),
            1);
}

// The run itself

TEST(Ping, AStopBySignalGivesNoVerdict) {
  for (const int signal : {SIGTERM, SIGINT}) {
    Node node;
    Agent agent;
    StartPing(&agent, node.Line("SRV1"));
    ASSERT_TRUE(node.Accept());
    ASSERT_TRUE(node.ReadRequest());
    EXPECT_EQ(agent.Stop(signal), 0);
    EXPECT_EQ(agent.Results(), "");
  }
}

TEST(Ping, AStopWhileConnectingGivesNoVerdict) {
  Node node(Node::Start::Bound);
  node.Stall();
  Agent agent;
  agent.LogLevel("15");
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(agent.WaitForLog("REGISTER_SOCKET_FOR_WRITE_EVENT"));
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_EQ(agent.CountLogged(0, "", "Node \"SRV1\" is not alive"), 0);
}

TEST(Ping, AStopWhileTheKernelDoesNotGreetGivesNoVerdict) {
  Agent agent;
  LocalKernel kernel(agent);
  StartPing(&agent, kernel.Line("K"));
  ASSERT_TRUE(kernel.Accept(""));
  std::optional<int> status;
  EXPECT_TRUE(WaitFor([&] {
    agent.Signal(SIGTERM);  // one that comes just before the wait is only noticed with the next
    return (status = agent.Wait(Milliseconds(1))).has_value();
  }));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(agent.Results(), "");
}

TEST(Ping, TheVerdictIsGivenOnce) {
  Node node;
  Agent agent;
  agent.LogLevel("2");
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  const std::string answer = lumo::Encode(AnswerTo(*request, ""), lumo::Lengths::Packet);
  node.SendBytes(answer + answer + std::string(4, '\xff'));  // two answers and a failure
  node.Close();
  ASSERT_EQ(agent.Wait(), 0);
  EXPECT_EQ(agent.CountLogged(0, "", "Node \"SRV1\" is alive"), 1);
  EXPECT_EQ(agent.CountLogged(0, "", "Node \"SRV1\" is not alive"), 0);
}

TEST(Ping, TheReconnectionModesDoNotApply) {
  Node node(Node::Start::Bound);
  Agent agent;
  agent.LogLevel("1").Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "60", "-ERR1001"});
  EXPECT_EQ(RunPing(&agent, node.Line("SRV1") + "B REZ\n"), 6);
  EXPECT_EQ(agent.Log(), NotAlive("SRV1", "Connection refused"));
  Agent changing;
  changing.LogLevel("1").Option("-AUTOCHANGE");
  EXPECT_EQ(RunPing(&changing, node.Line("SRV1") + "B REZ\n"), 6);
  EXPECT_EQ(changing.Log(), NotAlive("SRV1", "Connection refused"));
}

TEST(Ping, TheTestRequestWaitsForItsConnectionEvenWithConnError) {
  EchoNode node;
  Agent agent;
  agent.Option("-CONNERROR");
  EXPECT_EQ(RunPing(&agent, node.Line("SRV1")), 0);
  EXPECT_EQ(agent.Results(), Alive("SRV1"));
}

TEST(Ping, NoClientSocketIsOpened) {
  Node node;
  Agent agent;
  StartPing(&agent, node.Line("SRV1"));
  ASSERT_TRUE(node.Accept());
  ASSERT_TRUE(node.ReadRequest());
  EXPECT_FALSE(std::filesystem::exists(agent.SocketPath()));
  EXPECT_EQ(agent.Stdout().find("Default server"), std::string::npos);
  EXPECT_EQ(agent.Stop(), 0);
}

TEST(Ping, TheSocketFileOfTheExchangeIdIsRemovedAtTheEnd) {
  EchoNode node;
  Agent agent;
  WriteFile(agent.SocketPath(), "left by somebody");
  EXPECT_EQ(RunPing(&agent, node.Line("SRV1")), 0);
  EXPECT_FALSE(std::filesystem::exists(agent.SocketPath()));
}

TEST(Ping, TheParentIsNotSignalledAndThePidFileIsRemoved) {
  Node node;
  Agent agent;
  const std::string pidFile = agent.Folder() / "pid";
  agent.Options({"-PKILL", "15", "-PIDFILE", pidFile}).UnderOwnParent();
  agent.Nodetab(node.Line("SRV1")).Option("-PING");
  agent.Spawn();
  ASSERT_TRUE(node.Accept());
  const auto request = node.ReadRequest();
  ASSERT_TRUE(request);
  EXPECT_EQ(ReadFile(pidFile), std::to_string(request->TaskName) + "\n");
  node.Answer(*request);
  EXPECT_TRUE(agent.WaitForLog(Alive("SRV1")));
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(request->TaskName); }));
  EXPECT_FALSE(std::filesystem::exists(pidFile));
}

// The trace

TEST(PingTrace, TheSetUpIsShown) {
  EchoNode node;
  Agent agent;
  agent.Trace();
  const std::string line = node.Line("SRV1");
  EXPECT_EQ(RunPing(&agent, "# comment\n" + line), 0);
  EXPECT_NE(agent.Log().find("|Parse nodetab string:\n# comment\n\n"), std::string::npos);
  EXPECT_NE(agent.Log().find("|Parse nodetab string:\n" + line + "\n"), std::string::npos);
  EXPECT_TRUE(agent.LogContains("'InitNodeForPing' Call from ping:"));
  EXPECT_TRUE(agent.Logged(15, "ping", "'InitNodeForPing' Leave SUCCESS"));
  EXPECT_FALSE(agent.LogContains("'InitialisePing'"));
  EXPECT_TRUE(agent.LogContains("'PingPseudoReadMsg' Call from clntxch:"));
  EXPECT_TRUE(agent.LogContains("'PingPseudoPutMsgToClient' Call from link:"));
  EXPECT_TRUE(agent.LogContains("'DeinitPing' Call from dbc:"));
  EXPECT_FALSE(agent.LogContains("'DisconnectLink' Leave SUCCESS ping")) << "the node answered";
}

TEST(PingTrace, TheReadEndIsShownWithItsNumber) {
  Agent agent;
  agent.Trace();
  EXPECT_EQ(RunPing(&agent, "A REZ\n"), 66);
  EXPECT_EQ(agent.CountLogged(15, "ping", "REGISTER_SOCKET_FOR_READ_EVENT 3"), 1);
  EXPECT_TRUE(agent.Logged(15, "link", "'DisconnectLink' Leave SUCCESS ping"));
  EXPECT_TRUE(agent.LogContains("'PingAnaliseRetcode' Call from link:"));
}

TEST(PingTrace, AFailedSetUpSaysWhatFailed) {
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
