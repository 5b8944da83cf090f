#include "ping/ping.h"

#include <sys/resource.h>

#include <fstream>

#include "client/dispatch.h"
#include "core/status.h"
#include "tests/support/agent.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"

namespace {

class PingMode : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    Fake();
    g_DbcI.PingMode = 1;
    g_DbcI.NodetabPath = Path.data();
  }
  void TearDown() override {
    g_DbcI.LogLevel = 0;
    if (PipeIsOpen) DeinitPing("test", __LINE__);
    AgentTest::TearDown();
  }

  // What the call comes to; what it writes goes to Log.
  template <class Call>
  int Logged(Call call) {
    CapturedStdout out;
    CapturedStderr log;
    const int result = call();
    Log = log.Text();
    return result;
  }
  // The choice of the node with this table.
  int Choose(const std::string& table, const char* defaultNode = "") {
    std::ofstream(Path) << table;
    g_DbcI.DefaultNode = defaultNode;
    return Logged([] { return InitNodeForPing("test", __LINE__); });
  }

  int Initialise(const std::string& table) {
    std::ofstream(Path) << table;
    const int result = Logged([] { return InitialisePing("test", __LINE__); });
    PipeIsOpen = result == 0;
    return result;
  }
  // The pseudo request is handled.
  int Handle() {
    return Logged(
        [] { return HandleMessageFromClientQueue("test", __LINE__, g_DbcI.PingPipe[0]); });
  }

  // The verdict's lines for a link named NODE.
  std::string Verdict(int status, int sysErr) {
    Link link = {};
    std::strcpy(link.NodeName, "NODE");
    CapturedStderr log;
    EXPECT_EQ(PingAnaliseRetcode("test", __LINE__, &link, status, sysErr), 0);
    return log.Text();
  }

  static std::string NotAlive(const std::string& text) {
    return "lumo_tcp:Node \"NODE\" is not alive\nlumo_tcp:" + text + "\n";
  }

  int HandleWithoutMemory(std::uint8_t state);

  const test::TemporaryDirectory Directory;
  std::string Path = Directory.Path() / "nodetab", Log;
  bool PipeIsOpen = false;
};

TEST_F(PingMode, TheFirstNodeIsTestedWhenNoneIsNamed) {
  EXPECT_EQ(Choose("# comment\n; comment\n\n  \t\n  one FAKE here\ntwo FAKE there\n"), 0);
  EXPECT_EQ(Circle(), "ONE");
  EXPECT_EQ(g_DbcI.DefaultLink, g_DbcI.LinkList);
  EXPECT_EQ(g_DbcI.FirstLink, g_DbcI.LinkList);
  EXPECT_EQ(g_DbcI.CircleStartLink, g_DbcI.LinkList);
  EXPECT_EQ(Log, "");
}

TEST_F(PingMode, TheFirstNodeIsTestedWhenThereIsNoNameAtAll) {
  EXPECT_EQ(Choose("ONE FAKE here\n", nullptr), 0);
  EXPECT_EQ(Circle(), "ONE");
}

TEST_F(PingMode, TheNamedNodeIsTestedWithoutRegardToCase) {
  EXPECT_EQ(Choose("ONE FAKE here\nTwo FAKE there\n", "tWO"), 0);
  EXPECT_EQ(Circle(), "TWO");
  EXPECT_EQ(Fake().Calls, Texts{"InitLink TWO"});
}

TEST_F(PingMode, AMissingTableIsReported) {
  unlink(Path.c_str());
  CapturedStderr log;
  EXPECT_EQ(InitNodeForPing("test", __LINE__), -1);
  EXPECT_EQ(log.Text(), "lumo_tcp:File nodetab is not found. Exit.\n");
  EXPECT_EQ(g_DbcI.ExitStatus, 0);
}

TEST_F(PingMode, ATableWithoutTheNodeIsReported) {
  EXPECT_EQ(Choose("ONE FAKE here\n", "TWO"), -1);
  EXPECT_EQ(Log, "lumo_tcp:Node(s) is not found\n");
  EXPECT_EQ(Choose("# ONE FAKE here\n\n"), -1);
  EXPECT_EQ(Log, "lumo_tcp:Node(s) is not found\n");
  EXPECT_EQ(g_DbcI.LinkList, nullptr);
}

TEST_F(PingMode, ALineThatMakesNoNodeIsReported) {
  EXPECT_EQ(Choose("ONE FAKE bad\nTWO FAKE there\n"), -1);
  EXPECT_NE(Log.find("lumo_tcp:Node string has errors\n"), std::string::npos);
  EXPECT_EQ(g_DbcI.LinkList, nullptr);
}

TEST_F(PingMode, TheTableIsClosedInEveryCase) {
  const int before = OpenDescriptors();
  Choose("ONE FAKE here\n");
  Choose("TWO FAKE bad\n");
  Choose("# nothing\n");
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(PingMode, ANameIsComparedByItsFirstEightCharacters) {
  EXPECT_EQ(Choose("EIGHTCHRS FAKE here\n", "EIGHTCHR"), -1);
  EXPECT_NE(Log.find("Node string has errors"), std::string::npos);
}

TEST_F(PingMode, SettingUpMakesThePipeAClientWithARequestWaiting) {
  ASSERT_EQ(Initialise("ONE FAKE here\n"), 0);
  const int readEnd = g_DbcI.PingPipe[0];
  EXPECT_TRUE(FD_ISSET(readEnd, &g_DbcI.ClientSockets));
  EXPECT_TRUE(FD_ISSET(readEnd, &g_DbcI.SocketSets.ReadSet));
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, readEnd + 1);
  EXPECT_EQ(g_DbcI.ClientListenSocket, 2);
  EXPECT_EQ(g_DbcI.GetMsg, &PingPseudoReadMsg);
  EXPECT_EQ(g_DbcI.PutMsg, &PingPseudoPutMsgToClient);
  char bytes[2];
  EXPECT_EQ(read(readEnd, bytes, sizeof bytes), 1);
}

TEST_F(PingMode, SettingUpClearsWhatDoesNotApplyToOneNode) {
  g_DbcI.AutoConnect = g_DbcI.AutoChange = g_DbcI.ConnError = 1;
  ASSERT_EQ(Initialise("ONE FAKE here\n"), 0);
  EXPECT_EQ(g_DbcI.AutoConnect, 0);
  EXPECT_EQ(g_DbcI.AutoChange, 0);
  EXPECT_EQ(g_DbcI.ConnError, 0);
}

TEST_F(PingMode, AFailedChoiceEndsTheSetUp) {
  EXPECT_EQ(Initialise("# nothing\n"), -1);
  EXPECT_EQ(g_DbcI.GetMsg, &GetMsgFromClient);
  EXPECT_EQ(g_DbcI.ClientListenSocket, -1);
}

TEST_F(PingMode, AFailedPipeIsAnErrorOfTheAgent) {
  std::ofstream(Path) << "ONE FAKE here\n";
  CapturedStdout out;
  const CapturedLog log(kLogError);
  const int spare = NextDescriptor();  // the table can be opened, a pipe needs one more
  rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit low = {static_cast<rlim_t>(spare) + 1, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const int result = InitialisePing("test", __LINE__);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(
      log.Contains("|create pipe failed. Call pipe. errno " + std::to_string(EMFILE) + "\n"));
}

TEST_F(PingMode, SettingUpWritesNoEntryAndNoExitTrace) {
  g_DbcI.LogLevel = kLogTrace;
  ASSERT_EQ(Initialise("ONE FAKE here\n"), 0);
  EXPECT_EQ(Log.find("'InitialisePing'"), std::string::npos);
  EXPECT_NE(Log.find("|Parse nodetab string:\nONE FAKE here\n\n"), std::string::npos);
  EXPECT_NE(Log.find("|REGISTER_SOCKET_FOR_READ_EVENT " + std::to_string(g_DbcI.PingPipe[0])),
            std::string::npos);
}

TEST_F(PingMode, ThePseudoRequestAsksTheTestedNode) {
  ASSERT_EQ(Initialise("one FAKE here\n"), 0);
  ClientMessage msg;
  std::memset(static_cast<void*>(&msg), 0xEE, sizeof msg);
  EXPECT_EQ(g_DbcI.GetMsg("test", __LINE__, &msg, g_DbcI.PingPipe[0]), 104);
  ClientMessage expected = {};
  expected.Length = 104;
  expected.TaskName = getpid();
  std::memcpy(expected.CBL.Command, "TS T", 4);
  std::memcpy(expected.CBL.Node, "ONE\0\0\0\0\0", 8);
  expected.TrailerOffset = 52;
  Put(Trailer(&expected), kTrailerTaskName, getpid());
  EXPECT_EQ(std::memcmp(Wire(&msg), Wire(&expected), kMessageArea), 0);
  EXPECT_EQ(msg.Reserved[0] | msg.Reserved[1], 0U);
  EXPECT_EQ(msg.TrailerOffset, 52);
  EXPECT_EQ(msg.ClientSocket, 0);
}

TEST_F(PingMode, TheRequestIsTakenOutOfThePipe) {
  ASSERT_EQ(Initialise("ONE FAKE here\n"), 0);
  ClientMessage msg;
  g_DbcI.GetMsg("test", __LINE__, &msg, g_DbcI.PingPipe[0]);
  char byte;
  EXPECT_EQ(read(g_DbcI.PingPipe[0], &byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(PingMode, AnAnswerMeansAlive) {
  ClientMessage answer = MakeRequest(getpid(), 0, 0);
  std::memcpy(answer.CBL.Node, "LONGNAME", 8);
  CapturedStderr log;
  EXPECT_EQ(PingPseudoPutMsgToClient("test", __LINE__, &answer), 0);
  EXPECT_EQ(log.Text(), "lumo_tcp:Node \"LONGNAME\" is alive\n");
  EXPECT_EQ(g_DbcI.ExitStatus, -1);
  EXPECT_EQ(g_DbcI.PingMode, 2);
}

TEST_F(PingMode, EachStatusHasItsVerdictAndExitStatus) {
  struct {
    int Status, SysErr;
    const char* Text;
  } const verdicts[] = {
      {4005, 0, "Peer has no valid listener"},
      {4007, 1, "Peer has no valid listener"},
      {4008, 2, "Peer has no valid listener"},
      {4009, 3, "Peer has no valid listener"},
      {4006, 113, "Host is unreachable"},
      {4006, 111, "Connection refused"},
      {4006, 5, "Test connection has failed. Status 4006:5"},
      {4006, 0, "Test connection has failed. Status 4006:0"},
      {4058, 0, "Connect timeout has expired"},
      {4065, 0, "Timeout has expired"},
      {4066, 9, "Protocol disabled"},
      {4156, 0, "Peer has refused the secure connection"},
      {4052, 17, "Agent internal status 4052:17"},
      {1001, 0, "Agent internal status 1001:0"},
  };
  for (const auto& verdict : verdicts) {
    g_DbcI.ExitStatus = 0;
    EXPECT_EQ(Verdict(verdict.Status, verdict.SysErr), NotAlive(verdict.Text));
    EXPECT_EQ(g_DbcI.ExitStatus, verdict.Status - 4000);
    EXPECT_EQ(g_DbcI.PingMode, 1);
  }
}

TEST_F(PingMode, TheExitStatusKeepsSixteenBits) {
  Verdict(4000 + 0x18003, 0);
  EXPECT_EQ(g_DbcI.ExitStatus, -0x7FFD);
}

TEST_F(PingMode, Status4000WouldLetTheRunGoOn) {
  EXPECT_EQ(Verdict(4000, 0), NotAlive("Agent internal status 4000:0"));
  EXPECT_FALSE(Stopping());
}

TEST_F(PingMode, TheVerdictIsGivenOnce) {
  Verdict(4066, 0);
  EXPECT_EQ(Verdict(4009, 0), "");
  EXPECT_EQ(g_DbcI.ExitStatus, 66);
  ClientMessage answer = MakeRequest(getpid(), 0, 0);
  CapturedStderr log;
  PingPseudoPutMsgToClient("test", __LINE__, &answer);
  EXPECT_EQ(log.Text(), "");
  EXPECT_EQ(g_DbcI.ExitStatus, 66);
}

TEST_F(PingMode, AStopBySignalGivesNoVerdict) {
  g_DbcI.ExitStatus = -1;
  EXPECT_EQ(Verdict(4009, 0), "");
  EXPECT_EQ(g_DbcI.ExitStatus, -1);
}

TEST_F(PingMode, AnAnsweredRunGivesNoSecondVerdict) {
  g_DbcI.PingMode = 2;
  EXPECT_EQ(Verdict(4009, 0), "");
  EXPECT_EQ(g_DbcI.ExitStatus, 0);
}

TEST_F(PingMode, ADisconnectGivesTheVerdictInPlaceOfItsUsualWork) {
  Link* const link = AddLink("NODE");
  link->State = kLinkConnected;
  link->DeletePending = 1;
  CapturedStderr log;
  EXPECT_EQ(DisconnectLink("test", __LINE__, link, 4009, 0), -1);
  EXPECT_EQ(log.Text(), NotAlive("Peer has no valid listener"));
  EXPECT_EQ(g_DbcI.ExitStatus, 9);
  EXPECT_EQ(Circle(), "NODE");
}

TEST_F(PingMode, ARefusedConnectionEndsTheRunWithItsVerdict) {
  Fake().FailToConnect(kStatusConnect, ECONNREFUSED);
  ASSERT_EQ(Initialise("NODE FAKE here\n"), 0);
  EXPECT_EQ(Handle(), -1);
  EXPECT_EQ(Log, NotAlive("Connection refused"));
  EXPECT_EQ(g_DbcI.ExitStatus, 6);
}

TEST_F(PingMode, AnAnswerOfTheNodeEndsTheRunAsAlive) {
  Fake().OnSend = [](Link*, ClientMessage* msg) {
    ClientMessage answer = *msg;
    return ReturnAnswerFromNetworkToClient("test", __LINE__, &answer);
  };
  ASSERT_EQ(Initialise("NODE FAKE here\n"), 0);
  EXPECT_EQ(Handle(), 0);
  EXPECT_EQ(Log, "lumo_tcp:Node \"NODE\" is alive\n");
  EXPECT_EQ(g_DbcI.ExitStatus, -1);
  ASSERT_EQ(Fake().Sent.size(), 1U);
  EXPECT_EQ(std::memcmp(Fake().Sent[0].CBL.Command, "TS T", 4), 0);
}

// Nobody has been asked: the verdict is that of the code.
int PingMode::HandleWithoutMemory(std::uint8_t state) {
  EXPECT_EQ(Initialise("NODE FAKE here\n"), 0);
  g_DbcI.DefaultLink->State = state;
  CapturedStderr log;
  const int result = WithoutMemory(
      [] { return HandleMessageFromClientQueue("test", __LINE__, g_DbcI.PingPipe[0]); });
  EXPECT_EQ(log.Text(), NotAlive("Agent internal status 4200:0"));
  EXPECT_EQ(g_DbcI.ExitStatus, 200);
  EXPECT_TRUE(Fake().Sent.empty());
  return result;
}

TEST_F(PingMode, ARequestThatCannotBeRecordedAsSentHasTheVerdictOfItsCode) {
  ASSERT_NE(Grow(g_DbcI.ClientPidList), nullptr);
  HandleWithoutMemory(kLinkConnected);
}

TEST_F(PingMode, ARequestThatCannotBeSavedHasTheVerdictOfItsCode) {
  ASSERT_NE(Grow(g_DbcI.ClientPidList), nullptr);
  HandleWithoutMemory(kLinkConnecting);
}

TEST_F(PingMode, AClientThatCannotBeListedEndsTheRun) {
  EXPECT_EQ(HandleWithoutMemory(kLinkConnected), 0);
}

// What a node answers is an answer, also one that says what failed.
TEST_F(PingMode, AFailureThatTheNodeTellsOfMeansAlive) {
  Fake().OnSend = [](Link* link, ClientMessage* msg) {
    ClientMessage answer = *msg;
    answer.CBL.CodErr = 4200;
    g_DbcI.ServedLink = link;
    EXPECT_EQ(ReturnAnswerFromNetworkToClient("test", __LINE__, &answer), 0);
    g_DbcI.ServedLink = nullptr;
    return 0;
  };
  ASSERT_EQ(Initialise("NODE FAKE here\n"), 0);
  Handle();
  EXPECT_EQ(Log, "lumo_tcp:Node \"NODE\" is alive\n");
}

TEST_F(PingMode, EndingClosesBothEnds) {
  ASSERT_EQ(Initialise("ONE FAKE here\n"), 0);
  DeinitPing("test", __LINE__);
  PipeIsOpen = false;
  EXPECT_EQ(fcntl(g_DbcI.PingPipe[0], F_GETFD), -1);
  EXPECT_EQ(fcntl(g_DbcI.PingPipe[1], F_GETFD), -1);
}

}  // namespace
