// Taking links down and moving the default link: who is answered, with what, and who is asked to
// connect.

#include "core/status.h"
#include "tests/unit/client_fixture.h"

namespace {

// A client connection that is read by the test, and requests that came on it.
class LinkTest : public AgentTest {
 protected:
  ClientMessage Request(std::uint16_t tag, const std::string& node = {}) const {
    ClientMessage msg =
        MakeRequest(getpid(), client_.Socket(), tag, {"text " + std::to_string(tag)});
    std::memcpy(msg.CBL.Node, node.data(), node.size());
    return msg;
  }
  // A request that waits for the link.
  void Save(std::uint16_t tag, Link* link, const std::string& node = {}) const {
    AgentTest::Save(Request(tag, node), link);
  }
  // A request that went to the link.
  void Sent(std::uint16_t tag, Link* link) const { Note(link, getpid(), client_.Socket(), tag); }

  std::string ReceivedBytes() const { return client_.ReceivedBytes(); }
  Texts Received() const { return client_.Received(); }
  // Lines of level 1 and below while `action` runs.
  template <class Action>
  static std::string DefaultLog(Action action) {
    const CapturedLog log(kLogDefault);
    action();
    g_DbcI.LogLevel = 0;
    return log.Text();
  }

  const FakeClient client_;
};

class DisconnectingALink : public LinkTest {};

TEST_F(DisconnectingALink, IsLoggedOnlyWhenItWasConnected) {
  Link* const link = AddLink("SRV1");
  link->State = kLinkConnected;
  EXPECT_EQ(DefaultLog([&] { DisconnectLink("test", 1, link, 4007, 32); }),
            "lumo_tcp:Disconnect link  SRV1\n");
  EXPECT_EQ(link->State, kLinkDisconnected);
  for (const std::uint8_t state : {kLinkDisconnected, kLinkConnecting}) {
    link->State = state;
    EXPECT_EQ(DefaultLog([&] { DisconnectLink("test", 1, link, 4007, 32); }), "");
    EXPECT_EQ(link->State, kLinkDisconnected);
  }
  EXPECT_EQ(Fake().Count("DisconnectLink SRV1"), 3);
}

TEST_F(DisconnectingALink, ReturnsZeroAndTracesTheCodes) {
  Link* const link = AddLink("SRV1");
  const CapturedLog log;
  EXPECT_EQ(DisconnectLink("test", 1, link, 4006, 111), 0);
  EXPECT_TRUE(log.Contains("Link = SRV1, TavrinErr = 4006, SysErr = 111")) << log.Text();
  EXPECT_TRUE(log.Contains("|'DisconnectLink' Leave SUCCESS\n"));
}

TEST_F(DisconnectingALink, AnswersEveryRequestThatWentToItAndClearsItsRecord) {
  AddTwoLinks();
  Sent(1, A);
  Sent(2, B);
  Sent(3, A);
  DisconnectLink("test", 1, A, 4008, 104);
  EXPECT_EQ(Received(), (Texts{"1: 4008, 104", "3: 4008, 104"}));
  for (const int slot : {0, 2}) {
    const MsgInfo& info = g_DbcI.MsgInfoArray.Items[slot];
    EXPECT_EQ(info.Link, nullptr);
    EXPECT_TRUE(info.TaskName == 0 && info.Socket == 0 && info.AstInd == 0) << slot;
  }
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[1].Link, B);
}

TEST_F(DisconnectingALink, AnswersEveryRequestThatWaitsForIt) {
  AddTwoLinks();
  Save(1, A);
  Save(2, B, "B");
  Save(3, A, "A");
  DisconnectLink("test", 1, A, 4006, 111);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 111", "3: 4006, 111"}));
  EXPECT_EQ(Waiting(A), Tags{});
  EXPECT_EQ(Waiting(B), Tags{2});
}

// An answer looks for dead clients, and what that sets off may come back to the link.
TEST_F(DisconnectingALink, AnswersEachRequestOnceWhateverAnAnswerSetsOff) {
  AddTwoLinks();
  B->State = kLinkConnected;
  const pid_t dead = test::DeadPid();
  ASSERT_EQ(AddClientPidIntoList("test", 1, B, dead, 77), 0);
  Fake().OnDead = [&](Link*) { DisconnectLink("test", 1, A, 4007, 32); };
  Save(1, A);
  Save(2, A);
  Sent(3, A);
  ClientMessage first = Request(4);
  first.TaskName = 0;  // the name of no process: all clients are looked at
  ASSERT_EQ(SaveUnsendMsg("test", 1, &first, A), 0);
  DisconnectLink("test", 1, A, 4008, 104);
  EXPECT_EQ(A->Books.Waiting, 0);
  EXPECT_EQ(A->Books.InFlight, 0);
  Texts answers = Received();
  std::sort(answers.begin(), answers.end());
  EXPECT_EQ(answers, (Texts{"1: 4008, 104", "2: 4008, 104", "3: 4008, 104"}));
}

TEST_F(DisconnectingALink, AnswersWhatWasSentBeforeWhatWaits) {
  Link* const a = AddLink("A");
  Save(1, a);
  Sent(2, a);
  DisconnectLink("test", 1, a, 4009, 0);
  EXPECT_EQ(Received(), (Texts{"2: 4009, 0", "1: 4009, 0"}));
}

TEST_F(DisconnectingALink, ASecondTimeAnswersNobody) {
  Link* const a = AddLink("A");
  Save(1, a);
  Sent(2, a);
  DisconnectLink("test", 1, a, 4009, 0);
  Received();
  DisconnectLink("test", 1, a, 4007, 32);
  EXPECT_EQ(Received(), Texts{});
}

TEST_F(DisconnectingALink, TheAnswerIsTheAgentsOwnWithNothingOfTheRequest) {
  Link* const a = AddLink("A");
  Save(7, a, "A");
  DisconnectLink("test", 1, a, 4058, 0);
  lumo::Message expected;
  expected.TaskName = getpid();
  expected.CodErr = 4058;
  expected.SetAstInd(7);
  EXPECT_EQ(ReceivedBytes(), lumo::Encode(expected, lumo::Lengths::Client));
}

TEST_F(DisconnectingALink, InPingModeHandsTheCodesToTheVerdictAndNothingElse) {
  Link* const a = AddLink("A");
  Sent(1, a);
  Save(2, a);
  a->State = kLinkConnected;
  g_DbcI.PingMode = 1;
  const CapturedLog log;
  CapturedStdout out;
  EXPECT_EQ(DisconnectLink("test", 1, a, 4006, 111), -1);
  EXPECT_TRUE(log.Contains("|'DisconnectLink' Leave SUCCESS ping\n"));
  EXPECT_TRUE(log.Contains("lumo_tcp:Disconnect link  A\n"));
  EXPECT_NE(g_DbcI.ExitStatus, 0);
  EXPECT_EQ(a->State, kLinkDisconnected);
  EXPECT_EQ(Received(), Texts{});
  EXPECT_EQ(Waiting(a), Tags{2});
}

TEST_F(DisconnectingALink, CarriesOutAPendingRedefinition) {
  Link* const a = AddLink("A");
  AddLink("B");
  a->State = kLinkConnected;
  std::strcpy(a->PendingNodetabLine, "A FAKE elsewhere");
  DisconnectLink("test", 1, a, 4009, 0);
  EXPECT_STREQ(static_cast<char*>(g_DbcI.FirstLink->DriverData), "elsewhere");
  EXPECT_EQ(Circle(), "A B");
}

TEST_F(DisconnectingALink, CarriesOutAPendingDeletionAfterItsRequestsWereAnswered) {
  AddTwoLinks();
  g_DbcI.DefaultLink = g_DbcI.CircleStartLink = A;
  B->State = kLinkConnected;
  B->DeletePending = 1;
  Sent(1, B);
  DisconnectLink("test", 1, B, 4009, 0);
  EXPECT_EQ(Received(), (Texts{"1: 4009, 0"}));
  EXPECT_EQ(Circle(), "A");
}

// The default link fails

class MovingTheDefault : public LinkTest {
 protected:
  // Three links in the circle A, B, C; A is the default and the start of the circle. AutoConnect is
  // the mode.
  void SetUp() override {
    LinkTest::SetUp();
    g_DbcI.AutoConnect = 1;
    AddThreeLinks();
    for (const char* name : {"A", "B", "C"}) Outcomes[name] = kStatusConnect;
    Fake().OnConnect = [this](Link* link) {
      const int outcome = Outcomes[link->NodeName];
      if (outcome == kComesUp) link->State = kLinkConnected;
      if (outcome == kUnderWay) link->State = kLinkConnecting;
      return outcome > 0 ? outcome : 0;
    };
  }
  static constexpr int kComesUp = 0;
  static constexpr int kUnderWay = -1;

  static void UseAutoChange() {
    g_DbcI.AutoConnect = 0;
    g_DbcI.AutoChange = 1;
  }
  static int Fail(Link* link, int status) {
    return TryConnectDefaultLinkToNextServer("test", 1, link, status);
  }
  int Connects(const char* name) { return Fake().Count(std::string("ConnectLink ") + name); }
  int Disconnects(const char* name) { return Fake().Count(std::string("DisconnectLink ") + name); }

  std::map<std::string, int> Outcomes;  // of a connect: a status, or one of the two above
};

TEST_F(MovingTheDefault, WithoutAModeOnlyTakesTheLinkDown) {
  g_DbcI.AutoConnect = 0;
  Save(1, A);
  Save(2, A, "A");
  EXPECT_EQ(DefaultLog([&] { EXPECT_EQ(Fail(A, 4066), 4066); }), "");
  EXPECT_EQ(g_DbcI.DefaultLink, A);
  EXPECT_EQ(Received(), (Texts{"1: 4066, 0", "2: 4066, 0"}));
  EXPECT_EQ(Connects("B"), 0);
}

TEST_F(MovingTheDefault, WithoutAModeIsTraced) {
  g_DbcI.AutoConnect = 0;
  const CapturedLog log;
  Fail(A, 4066);
  EXPECT_TRUE(log.Contains("|Not set flags AUTOCONNECT or AUTOCHANGE\n"));
}

TEST_F(MovingTheDefault, AutoChangeStepsToTheNextLinkAndConnectsNothing) {
  UseAutoChange();
  Save(1, A);
  EXPECT_EQ(DefaultLog([&] { EXPECT_EQ(Fail(A, 4006), 0); }), "lumo_tcp:New default link is B\n");
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(g_DbcI.CircleStartLink, A);
  EXPECT_EQ(Connects("B"), 0);
  EXPECT_EQ(Disconnects("A"), 1);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"})) << "requests are not moved in this mode";
  EXPECT_EQ(Waiting(B), Tags{});
}

TEST_F(MovingTheDefault, AutoChangeGoesRound) {
  UseAutoChange();
  EXPECT_EQ(DefaultLog([&] {
              Fail(A, 4006);
              Fail(B, 4006);
              Fail(C, 4006);
            }),
            "lumo_tcp:New default link is B\n"
            "lumo_tcp:New default link is C\n"
            "lumo_tcp:New default link is A\n");
  EXPECT_EQ(Disconnects("C"), 1);
}

TEST_F(MovingTheDefault, ALinkThatBecomesTheDefaultIsNotTakenDown) {
  UseAutoChange();
  EXPECT_EQ(Fail(B, 4006), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(Disconnects("B"), 0);
}

TEST_F(MovingTheDefault, TheCircleStopsAtTheFirstLinkThatConnects) {
  Outcomes["C"] = kComesUp;
  Save(1, A);
  Save(2, A, " ");
  Save(3, A, "A");
  Save(4, B, "B");
  EXPECT_EQ(DefaultLog([&] { EXPECT_EQ(Fail(A, 4066), 0); }),
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Try connect link as default C\n");
  EXPECT_EQ(g_DbcI.DefaultLink, C);
  EXPECT_EQ(g_DbcI.CircleStartLink, C);
  EXPECT_EQ(Disconnects("A"), 0) << "the failed link is left as it is";
  EXPECT_EQ(Waiting(B), Tags{4});
}

TEST_F(MovingTheDefault, RequestsMovedToAConnectedLinkAreSentAtOnce) {
  Outcomes["C"] = kComesUp;
  Save(1, A);
  Save(2, A, " ");
  Fail(A, 4066);
  EXPECT_EQ(Fake().SentTags(), (Tags{1, 2}));
  EXPECT_EQ(Fake().Count("SendToNetwork C"), 2);
  EXPECT_EQ(Waiting(C), Tags{});
  EXPECT_EQ(Received(), Texts{});
}

TEST_F(MovingTheDefault, RequestsThatNameAFailedLinkThatIsDownAreAnswered) {
  Outcomes["B"] = kComesUp;
  Save(1, A, "A");
  Fail(A, 4066);
  EXPECT_EQ(Received(), (Texts{"1: 4066, 0"}));
  EXPECT_EQ(Waiting(A), Tags{});
}

TEST_F(MovingTheDefault, RequestsThatNameAFailedLinkThatIsNotDownGoOnWaiting) {
  Outcomes["B"] = kComesUp;
  A->State = kLinkConnecting;
  Save(1, A, "A");
  Fail(A, 4006);
  EXPECT_EQ(Received(), Texts{});
  EXPECT_EQ(Waiting(A), Tags{1});
  EXPECT_EQ(A->State, kLinkConnecting);
}

TEST_F(MovingTheDefault, ALinkThatIsConnectingKeepsTheRequestsAndTheCirclesStart) {
  Outcomes["C"] = kUnderWay;
  Save(1, A);
  Save(2, A, "A");
  EXPECT_EQ(Fail(A, 4058), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, C);
  EXPECT_EQ(g_DbcI.CircleStartLink, A);
  EXPECT_EQ(Waiting(C), Tags{1});
  EXPECT_EQ(Disconnects("A"), 1);
  EXPECT_EQ(Received(), (Texts{"2: 4058, 0"}));
  EXPECT_TRUE(Fake().Sent.empty());
}

TEST_F(MovingTheDefault, ACandidateThatIsUpIsUsedWithoutAnotherConnect) {
  B->State = kLinkConnected;
  Save(1, A);
  EXPECT_EQ(Fail(A, 4006), 0);
  EXPECT_EQ(Connects("B"), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(g_DbcI.CircleStartLink, B);
  EXPECT_EQ(Fake().Count("SendToNetwork B"), 1);
}

TEST_F(MovingTheDefault, ACandidateThatIsConnectingIsAwaitedWithoutAnotherConnect) {
  B->State = kLinkConnecting;
  Save(1, A);
  EXPECT_EQ(Fail(A, 4006), 0);
  EXPECT_EQ(Connects("B"), 0);
  EXPECT_EQ(Waiting(B), Tags{1});
}

TEST_F(MovingTheDefault, WhenAllFailTheDefaultIsTheStartAgainAndAllAreAnswered) {
  Save(1, A);
  Save(2, A, "A");
  EXPECT_EQ(DefaultLog([&] { EXPECT_EQ(Fail(A, 4066), 4006); }),
            "lumo_tcp:Set link  B as default\n"
            "lumo_tcp:Try connect link as default B\n"
            "lumo_tcp:Set link  C as default\n"
            "lumo_tcp:Try connect link as default C\n"
            "lumo_tcp:Set link  A as default\n"
            "lumo_tcp:Full connect circle failed or timeout expired\n");
  EXPECT_EQ(g_DbcI.DefaultLink, A);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0", "2: 4006, 0"}));
  EXPECT_EQ(Connects("A"), 0) << "the start of the circle is not tried again";
  EXPECT_EQ(Disconnects("A"), 1);
}

TEST_F(MovingTheDefault, TheFailureOfTheCircleMayBeReportedAs1001) {
  g_DbcI.Err1001 = 1;
  Save(1, A);
  EXPECT_EQ(Fail(A, 4066), 1001);
  EXPECT_EQ(Received(), (Texts{"1: 1001, 0"}));
}

TEST_F(MovingTheDefault, AFailedLinkThatIsNotTheStartIsTakenDownWithItsOwnCode) {
  g_DbcI.DefaultLink = B;
  B->State = kLinkConnected;
  Sent(1, B);
  Save(2, B);
  EXPECT_EQ(Fail(B, 4065), 4006);
  EXPECT_EQ(g_DbcI.DefaultLink, A);
  EXPECT_EQ(Received(), (Texts{"2: 4006, 0", "1: 4065, 0"}));
  EXPECT_EQ(Connects("B"), 0);
  EXPECT_EQ(Connects("C"), 1);
  EXPECT_EQ(Connects("A"), 0);
}

TEST_F(MovingTheDefault, WhileTheTimersCountRunsTheRequestsWait) {
  g_DbcI.AutoConnectTimeout = 10;
  g_DbcI.CircleTimeCount = 5;
  Save(1, A);
  EXPECT_EQ(Fail(A, 4066), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, A);
  EXPECT_EQ(Waiting(A), Tags{1});
  EXPECT_EQ(Received(), Texts{});
  EXPECT_EQ(Disconnects("A"), 0);
}

TEST_F(MovingTheDefault, WhileTheTimersCountRunsAFailedLinkThatIsNotTheStartIsTakenDown) {
  g_DbcI.AutoConnectTimeout = 10;
  g_DbcI.CircleTimeCount = 5;
  g_DbcI.DefaultLink = C;
  Save(1, C);
  Save(2, C, "C");
  EXPECT_EQ(Fail(C, 4006), 0);
  EXPECT_EQ(Waiting(A), Tags{1});
  EXPECT_EQ(Received(), (Texts{"2: 4006, 0"}));
}

TEST_F(MovingTheDefault, ACountThatHasRunOutOrATimeOutThatIsNotSetDoesNotWait) {
  g_DbcI.AutoConnectTimeout = 10;
  EXPECT_EQ(Fail(A, 4066), 4006);
  g_DbcI.AutoConnectTimeout = 0;
  g_DbcI.CircleTimeCount = 5;
  EXPECT_EQ(Fail(A, 4066), 4006);
}

TEST_F(MovingTheDefault, TheCircleIsTraced) {
  const CapturedLog log;
  Fail(A, 4066);
  const Texts traced =
      Beginning(log.Lines(), {"15 link|Try", "15 link|Connect", "15 link|Link", "15 link|Full",
                              "15 link|Return", "Set", "Try", "Full"});
  EXPECT_EQ(traced,
            (Texts{"15 link|Try circle link connect", "Set link  B as default",
                   "Try connect link as default B", "15 link|Connect link B failed",
                   "Set link  C as default", "Try connect link as default C",
                   "15 link|Connect link C failed", "Set link  A as default",
                   "15 link|Link A is last link in the list",
                   "Full connect circle failed or timeout expired", "15 link|Return 4006"}));
}

TEST_F(MovingTheDefault, ASuccessAndAWaitAreTraced) {
  {
    g_DbcI.AutoConnectTimeout = g_DbcI.CircleTimeCount = 9;
    const CapturedLog log;
    Fail(A, 4066);
    EXPECT_TRUE(log.Contains("|Full connect cicle failed. Wait timer event\n"));
    EXPECT_TRUE(log.Contains("|Return 0\n"));
    EXPECT_FALSE(log.Contains("Full connect circle failed or timeout expired"));
  }
  Outcomes["B"] = kComesUp;
  const CapturedLog log;
  Fail(A, 4066);
  EXPECT_TRUE(log.Contains("|Return 0 LINK_CONNECTED\n"));
}

TEST_F(MovingTheDefault, AutoConnectComesBeforeAutoChange) {
  g_DbcI.AutoChange = 1;
  Outcomes["C"] = kComesUp;
  Fail(A, 4006);
  EXPECT_EQ(g_DbcI.DefaultLink, C);
}

TEST_F(MovingTheDefault, WithoutAStartTheCircleEndsWhereItWasEntered) {
  g_DbcI.CircleStartLink = nullptr;
  g_DbcI.DefaultLink = B;
  Save(1, B);
  EXPECT_EQ(Fail(B, 4006), 4006);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(Connects("C"), 1);
  EXPECT_EQ(Connects("A"), 1);
  EXPECT_EQ(Connects("B"), 0);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"}));
}

TEST_F(MovingTheDefault, WithoutAStartLateFailuresDoNotKeepTheCircleGoing) {
  g_DbcI.CircleStartLink = nullptr;
  for (const char* name : {"A", "B", "C"}) Outcomes[name] = kUnderWay;
  Save(1, A);
  EXPECT_EQ(Fail(A, 4006), 0);
  EXPECT_EQ(Fail(B, 4006), 0);
  EXPECT_EQ(Fail(C, 4006), 4006);
  EXPECT_EQ(g_DbcI.DefaultLink, A);
  EXPECT_EQ(Connects("A"), 0);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"}));
}

TEST_F(MovingTheDefault, ALinkThatTheTimerFoundBrokenIsTakenDownBeforeItIsTried) {
  B->State = kLinkConnected;
  B->Broken = kStatusReceiveTimeout;
  Outcomes["C"] = kComesUp;
  Sent(1, B);
  Save(2, A);
  EXPECT_EQ(Fail(A, 4065), 0);
  EXPECT_EQ(B->State, kLinkDisconnected);
  EXPECT_EQ(g_DbcI.DefaultLink, C);
  EXPECT_EQ(Received(), (Texts{"1: 4065, 0"}));
}

TEST_F(MovingTheDefault, TheCirclesStartMayBeDeletedOnTheWay) {
  g_DbcI.DefaultLink = A;
  g_DbcI.CircleStartLink = C;
  C->State = kLinkConnected;
  C->Broken = kStatusReceiveTimeout;
  C->DeletePending = 1;
  Save(1, A);
  EXPECT_EQ(Fail(A, 4006), 4006);
  EXPECT_EQ(Circle(), "A B");
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"}));
}

TEST_F(MovingTheDefault, ALinkThatComesUpAtOnceGetsTheRequestsThatWaitForIt) {
  g_DbcI.AutoConnect = 0;
  Outcomes["B"] = kComesUp;
  Save(1, B, "B");
  Save(2, C, "C");
  EXPECT_EQ(ConnectTheLink("test", 1, B), 0);
  EXPECT_EQ(Waiting(B), Tags{});
  EXPECT_EQ(Waiting(C), Tags{2});
  EXPECT_EQ(RequestsInFlight(), 1);
}

TEST_F(MovingTheDefault, WithoutADefaultTheFailedLinkIsTakenDown) {
  g_DbcI.DefaultLink = nullptr;
  Save(1, B, "B");
  EXPECT_EQ(Fail(B, 4006), 4006);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"}));
  EXPECT_EQ(g_DbcI.DefaultLink, nullptr);
}

TEST_F(MovingTheDefault, WhileTheAgentIsStoppingNoLinkIsConnected) {
  for (const char* name : {"A", "B", "C"}) Outcomes[name] = kComesUp;
  Save(1, A);
  g_DbcI.ExitStatus = -1;
  EXPECT_EQ(Fail(A, 4006), 4006);
  EXPECT_EQ(Connects("B") + Connects("C"), 0);
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"}));
}

class OneLink : public LinkTest {};

TEST_F(OneLink, TheModesDoNotApply) {
  Link* const link = AddLink("A");
  for (const bool change : {true, false}) {
    g_DbcI.AutoChange = change;
    g_DbcI.AutoConnect = !change;
    EXPECT_FALSE(ReconnectionFollows(link));
    Save(1, link);
    EXPECT_EQ(DefaultLog([&] {
                EXPECT_EQ(TryConnectDefaultLinkToNextServer("test", 1, link, 4066), 4066);
              }),
              "");
    EXPECT_EQ(Received(), (Texts{"1: 4066, 0"}));
  }
}

class ReconnectionRules : public LinkTest {};

TEST_F(ReconnectionRules, OnlyTheDefaultLinksFailureMovesTheDefaultAndOnlyInAMode) {
  AddTwoLinks();
  EXPECT_FALSE(ReconnectionFollows(A));
  g_DbcI.AutoChange = 1;
  EXPECT_TRUE(ReconnectionFollows(A));
  EXPECT_FALSE(ReconnectionFollows(B));
  g_DbcI.AutoChange = 0;
  g_DbcI.AutoConnect = 1;
  EXPECT_TRUE(ReconnectionFollows(A));
  EXPECT_FALSE(ReconnectionFollows(B));
}

TEST_F(ReconnectionRules, AConnectBeginsWithoutAStaleErrno) {
  Link* const a = AddLink("A");
  int seen = -1;
  Fake().OnConnect = [&](Link*) {
    seen = errno;
    errno = 98;
    return 4001;
  };
  errno = 5;
  EXPECT_EQ(ConnectTheLink("test", 1, a), 4001);
  EXPECT_EQ(errno, 98);
  EXPECT_EQ(seen, 0);
}

TEST_F(ReconnectionRules, WhileTheAgentIsStoppingAConnectIsRefused) {
  Link* const a = AddLink("A");
  g_DbcI.ExitStatus = -1;
  EXPECT_EQ(ConnectTheLink("test", 1, a), 4006);
  EXPECT_EQ(errno, ECANCELED);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
}

TEST_F(ReconnectionRules, OnlyRequestsForTheDefaultThatWaitForTheLinkAreMoved) {
  AddThreeLinks();
  Save(1, A);
  Save(2, A, " A");
  Save(3, A, "A");
  Save(4, C);
  MoveDefaultRequests(A, B);
  EXPECT_EQ(Waiting(B), (Tags{1, 2}));
  EXPECT_EQ(Waiting(A), Tags{3});
  EXPECT_EQ(Waiting(C), Tags{4});
}

class StrandedRequests : public LinkTest {};

TEST_F(StrandedRequests, AreThoseWhoseLinkIsDownWithNothingUnderWay) {
  AddThreeLinks();
  B->State = kLinkConnecting;
  C->State = kLinkConnected;
  Save(1, A, "A");
  Save(2, B, "B");
  Save(3, C, "C");
  AnswerStrandedRequests();
  EXPECT_EQ(Received(), (Texts{"1: 4006, 0"}));
  EXPECT_EQ(Waiting(A), Tags{});
  EXPECT_EQ(Waiting(B), Tags{2});
  EXPECT_EQ(Waiting(C), Tags{3});
}

TEST_F(StrandedRequests, AreNotThoseThatTheCirclesTimerWillServe) {
  AddTwoLinks();
  g_DbcI.AutoConnect = 1;
  g_DbcI.Err1001 = 1;
  g_DbcI.AutoConnectTimeout = 4;
  g_DbcI.CircleTimeCount = 1;
  Save(1, A);
  Save(2, B, "B");
  AnswerStrandedRequests();
  EXPECT_EQ(Received(), (Texts{"2: 1001, 0"}));
  EXPECT_EQ(Waiting(A), Tags{1});
  g_DbcI.CircleTimeCount = 0;
  AnswerStrandedRequests();
  EXPECT_EQ(Received(), (Texts{"1: 1001, 0"}));
}

class RetiringALink : public LinkTest {};

TEST_F(RetiringALink, TellsWaitingClientsThatTheNodeIsUnknownAndForgetsWhatWasSent) {
  AddTwoLinks();
  Save(1, B, "B");
  Save(2, A);
  Sent(3, B);
  Sent(4, A);
  ASSERT_EQ(AddClientPidIntoList("test", 1, B, getpid(), client_.Socket()), 0);
  g_DbcI.ServedLink = B;
  A->Next = A;
  std::free(B->DriverData);
  B->DriverData = nullptr;
  RetireLink(B);
  EXPECT_EQ(Received(), (Texts{"1: 4050, 0"}));
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[0].Link, nullptr);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[1].Link, A);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Link, nullptr);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Pid, getpid());
  EXPECT_EQ(g_DbcI.ServedLink, nullptr);
  EXPECT_STREQ(B->NodeName, "B") << "it stays readable until the next pass";
  FreeRetiredLinks();
}

}  // namespace
