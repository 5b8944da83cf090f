// What becomes of a request, by the node that it names and the state of the link.
#include "client/dispatch.h"

#include "core/blocks.h"
#include "core/loop.h"
#include "core/status.h"
#include "link/joint.h"
#include "tests/unit/client_fixture.h"
#include "tests/unit/faults.h"

namespace {

class RequestDispatch : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    g_DbcI.PutMsg = PutMsgToClient;
    socket_ = Connect();
    A = AddLink("A");
  }
  int Handle() { return HandleMessageFromClientQueue(kHere, 1, socket_); }
  // A request comes and is handled: the result.
  int Serve(const lumo::Message& request) {
    Come(socket_, FrameOf(request));
    return Handle();
  }
  int Serve(const std::string& node, std::uint16_t astInd = 1) {
    return Serve(Request(node, astInd));
  }
  void ExpectOnlyError(const lumo::Message& request, int codErr, int sysErr) {
    EXPECT_EQ(Take(socket_), test::ErrorFrame(request, codErr, sysErr));
  }
  // A request is handled with this result, and answered with an error.
  void ExpectAnswered(const lumo::Message& request, int result, int codErr, int sysErr) {
    EXPECT_EQ(Serve(request), result);
    ExpectOnlyError(request, codErr, sysErr);
  }
  std::int32_t TakeManagementResult() {
    const std::optional<lumo::Message> answer =
        lumo::Decode(Take(socket_), lumo::Layout::Management);
    EXPECT_TRUE(answer);
    return answer ? answer->RowId : -1;
  }

  int socket_ = -1;
};

TEST_F(RequestDispatch, NothingReadYetIsHandled) {
  EXPECT_EQ(Handle(), 0);
  EXPECT_EQ(Take(socket_), "");
}

TEST_F(RequestDispatch, AFailedReadIsReported) {
  HangUp(socket_);
  const CapturedLog log;
  EXPECT_EQ(Handle(), -1);
  EXPECT_TRUE(log.Contains("'HandleMessageFromClientQueue' Call from test:1 (Socket = " +
                           std::to_string(socket_) + " )\n"));
  EXPECT_TRUE(log.Contains("[ 2]    clntxch:"));
  EXPECT_TRUE(log.Contains("|Client message reading failed\n"));
}

TEST_F(RequestDispatch, EmptyNodesGoToTheDefaultLink) {
  g_DbcI.DefaultLink = AddLink("B");
  Serve("");
  Serve(std::string(8, ' '), 2);
  Serve(" A", 3);
  EXPECT_EQ(Fake().Calls,
            (Texts{"ConnectLink B", "SendToNetwork B", "SendToNetwork B", "SendToNetwork B"}));
}

TEST_F(RequestDispatch, NodesAreFoundByTheComparisonOfNames) {
  AddLink("AB");
  Serve("ab      ");
  Serve(std::string("Ab\0\0", 4), 2);
  EXPECT_EQ(Fake().Calls, (Texts{"ConnectLink AB", "SendToNetwork AB", "SendToNetwork AB"}));
}

TEST_F(RequestDispatch, TheCircleIsEnteredAtTheNodeUsedLast) {
  AddLink("B");
  AddLink("C");
  Serve("B");
  EXPECT_EQ(Circle(), "B C A");
  Serve("A");
  EXPECT_EQ(Circle(), "A B C");
  g_DbcI.DefaultLink = g_DbcI.LinkList->Next->Next;
  Serve("");
  EXPECT_EQ(Circle(), "A B C") << "the default does not move it";
  Serve("X");
  EXPECT_EQ(Circle(), "A B C");
  Serve(Management(100, "C"));
  EXPECT_EQ(Circle(), "C A B") << "a management request moves it as well";
}

TEST_F(RequestDispatch, AnUnknownNodeIsAnsweredWith4050) {
  const CapturedLog log;
  ExpectAnswered(Request("X", 7), -1, 4050, 0);
  log.ExpectInOrder({"15 clntxch|Node name X dasn't correspondence to the nodetab file information",
                     "15 clntxch|MakeAnswerFromMsgInfo(TavrinError=4050, SysError=0)",
                     "15 clntxch|'HandleMessageFromClientQueue' Leave FAILED node name not found"});
  EXPECT_EQ(g_DbcI.ClientPidList.Capacity, 0) << "the client used no link";
}

TEST_F(RequestDispatch, TheNodeNameIsPrintedToItsEighthCharacter) {
  const CapturedLog log;
  Serve("ABCDEFGH");
  EXPECT_TRUE(log.Contains("|Node name ABCDEFGH dasn't correspondence"));
}

TEST_F(RequestDispatch, WithoutADefaultLinkItsRequestsAreAnsweredWith4050) {
  g_DbcI.DefaultLink = nullptr;
  ExpectAnswered(Request("", 7), -1, 4050, 0);
}

TEST_F(RequestDispatch, WithoutAnyLinkNamedRequestsAreAnsweredWith4050) {
  RemoveLinks();
  ExpectAnswered(Request("A", 7), -1, 4050, 0);
}

TEST_F(RequestDispatch, ManagementRequestsAreAnsweredWithoutAnyLink) {
  RemoveLinks();
  const CapturedLog log;
  EXPECT_EQ(Serve(Management(100)), 0);
  EXPECT_EQ(TakeManagementResult(), 1);
  EXPECT_TRUE(log.Contains("'HandleMessageFromClientQueue' Leave SUCCESS DbcApi\n"));
}

TEST_F(RequestDispatch, ManagementRequestsAreNeverRouted) {
  for (const char* node : {"", "A", "X"}) {
    EXPECT_EQ(Serve(Management(100, node)), 0) << node;
    EXPECT_EQ(TakeManagementResult(), 1) << node;
  }
  EXPECT_EQ(g_DbcI.ClientPidList.Capacity, 0);
  EXPECT_TRUE(Fake().Calls.empty());
  EXPECT_EQ(ClientTimeout, 151);
}

TEST_F(RequestDispatch, OnlyTheExactCommandIsManagement) {
  lumo::Message request = Management(100, "A");
  for (const char* command : {"DBC", "dbca", "DBCB"}) {
    request.Command = command;
    Serve(request);
  }
  EXPECT_EQ(Fake().Count("SendToNetwork A"), 3);
}

TEST_F(RequestDispatch, TheClientIsListedBeforeTheLinkIsTried) {
  ClientTimeout = 5;
  Fake().OnConnect = [this](Link*) {
    EXPECT_EQ(g_DbcI.ClientPidList.Capacity, 2);
    const ClientPid& client = g_DbcI.ClientPidList.Items[0];
    EXPECT_TRUE(client.Link == A && client.Pid == getpid() && client.Socket == socket_);
    return 4066;
  };
  Serve("A");
  EXPECT_EQ(ClientTimeout, 151);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 1);
}

TEST_F(RequestDispatch, WithoutMemoryForTheClientTheRequestIsDropped) {
  const CapturedLog log(kLogError);
  EXPECT_EQ(WithoutMemory([&] { return Serve("A"); }), -1);
  EXPECT_TRUE(log.Contains("|AddClientPidIntoList failed\n"));
  EXPECT_EQ(Take(socket_), "");
  EXPECT_TRUE(Fake().Calls.empty());
}

TEST_F(RequestDispatch, ALinkThatConnectsAtOnceIsUsedAtOnce) {
  const CapturedLog log;
  EXPECT_EQ(Serve(Request("A", 9, "text")), 0);
  EXPECT_EQ(Fake().Calls, (Texts{"ConnectLink A", "SendToNetwork A"}));
  ASSERT_EQ(Fake().Sent.size(), 1u);
  EXPECT_EQ(CountedString(Fake().Sent[0], 0), "text");
  const MsgInfo* const info = FindMsgInfo(A, getpid(), 9);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->Socket, socket_);
  log.ExpectInOrder({"15 clntxch|Link A is disconnect state. Try up the link",
                     "15 clntxch|Link A is already connect state. Try send message",
                     "15 clntxch|Link A SUCESS send message",
                     "15 clntxch|'HandleMessageFromClientQueue' Leave SUCCESS"});
}

TEST_F(RequestDispatch, AConnectedLinkIsNotConnectedAgain) {
  A->State = kLinkConnected;
  EXPECT_EQ(Serve("A"), 0);
  EXPECT_EQ(Fake().Calls, Texts{"SendToNetwork A"});
}

TEST_F(RequestDispatch, ALinkThatCannotBeConnectedAnswersWithItsCodeAndError) {
  Fake().FailToConnect(4006, ECONNREFUSED);
  const CapturedLog log;
  ExpectAnswered(Request("A", 7), -1, 4006, ECONNREFUSED);
  EXPECT_EQ(Fake().Calls, (Texts{"ConnectLink A", "DisconnectLink A"}));
  log.ExpectInOrder({"15 clntxch|Link A is disconnect state. Try up the link",
                     "15 clntxch|Connect link A was failed",
                     "15 clntxch|MakeAnswerFromMsgInfo(TavrinError=4006, SysError=111)",
                     "15 clntxch|'HandleMessageFromClientQueue' Leave FAILED connect"});
}

TEST_F(RequestDispatch, ACodeWithoutASystemErrorCarriesNone) {
  Fake().FailToConnect(4066, 0);
  errno = EIO;
  ExpectAnswered(Request("A", 7), -1, 4066, 0);
}

TEST_F(RequestDispatch, ErrorsDoNotDependOnTheTraceLevel) {
  Fake().FailToConnect(4006, ECONNREFUSED);
  for (const std::uint8_t level : std::initializer_list<std::uint8_t>{0, 2, 15}) {
    g_DbcI.LogLevel = level;
    const lumo::Message request = Request("A", level);
    const CapturedStderr log;
    Serve(request);
    ExpectOnlyError(request, 4006, ECONNREFUSED);
  }
}

TEST_F(RequestDispatch, TheDefaultLinkFailsLikeAnyOtherWithoutAMode) {
  AddLink("B");
  Fake().FailToConnect(4006, ENETUNREACH);
  ExpectAnswered(Request("", 7), -1, 4006, ENETUNREACH);
  EXPECT_EQ(Waiting(g_DbcI.DefaultLink).size(), 0u);
}

TEST_F(RequestDispatch, OnlyTheDefaultLinkFallsBack) {
  g_DbcI.AutoConnect = 1;
  AddLink("B");
  Fake().FailToConnect(4006, ENETUNREACH);
  ExpectAnswered(Request("B", 7), -1, 4006, ENETUNREACH);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
}

TEST_F(RequestDispatch, TheRequestFollowsTheDefaultLinkToTheNextThatConnects) {
  g_DbcI.AutoConnect = 1;
  B = AddLink("B");
  Fake().OnConnect = [this](Link* link) {
    if (link == A) return 4006;
    link->State = kLinkConnected;
    return 0;
  };
  const CapturedLog log;
  EXPECT_EQ(Serve("", 7), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(Fake().Count("SendToNetwork B"), 1);
  EXPECT_NE(FindMsgInfo(B, getpid(), 7), nullptr);
  EXPECT_EQ(Waiting(A).size() + Waiting(B).size(), 0u);
  EXPECT_EQ(Take(socket_), "");
  log.ExpectInOrder({"15 clntxch|Connect link A was failed",
                     "15 primitiv|'SaveUnsendMsg' Leave SUCCESS",
                     "15 clntxch|It's default link. Try set new default link"});
}

TEST_F(RequestDispatch, WhenTheWholeCircleFailsTheRequestIsAnsweredOnce) {
  g_DbcI.AutoConnect = 1;
  AddLink("B");
  Fake().FailToConnect(4066, 0);
  const CapturedLog log;
  ExpectAnswered(Request("", 7), 0, 4006, 0);
  EXPECT_TRUE(log.Contains(
      "'HandleMessageFromClientQueue' Leave FAILED TryConnectDefultLinkToNextServer\n"));
}

TEST_F(RequestDispatch, ANamedRequestOfTheFailedDefaultIsAnsweredWithTheFailure) {
  g_DbcI.AutoChange = 1;
  B = AddLink("B");
  Fake().FailToConnect(4006, ENETUNREACH);
  const lumo::Message request = Request("A", 7);
  EXPECT_EQ(Serve(request), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  ExpectOnlyError(request, 4006, 0);
}

TEST_F(RequestDispatch, ASingleDefaultLinkDoesNotFallBack) {
  g_DbcI.AutoConnect = g_DbcI.AutoChange = 1;
  Fake().FailToConnect(4006, ENETUNREACH);
  ExpectAnswered(Request("", 7), -1, 4006, ENETUNREACH);
}

TEST_F(RequestDispatch, ARequestForTheDownDefaultLinkLoadsTheCircleTimerWithHalfTheTimeout) {
  g_DbcI.AutoConnect = 1;
  g_DbcI.AutoConnectTimeout = 21;
  AddLink("B");
  Fake().StayConnecting();
  Serve("");
  EXPECT_EQ(g_DbcI.CircleTimeCount, 10);
}

TEST_F(RequestDispatch, TheCircleTimerIsLoadedOnlyWhenAllConditionsHold) {
  struct Case {
    std::uint8_t AutoConnect, AutoChange;
    std::uint16_t Timeout, Count;
    const char* Node;
    int Expected;
  };
  B = AddLink("B");
  Fake().StayConnecting();
  std::uint16_t tag = 0;
  for (const Case& one :
       {Case{1, 0, 20, 0, "", 10}, Case{1, 0, 20, 0, "A", 10}, Case{0, 1, 20, 0, "", 0},
        Case{0, 0, 20, 0, "", 0}, Case{1, 0, 0, 0, "", 0}, Case{1, 0, 20, 4, "", 4},
        Case{1, 0, 20, 0, "B", 0}, Case{1, 0, 1, 0, "", 0}}) {
    A->State = B->State = kLinkDisconnected;
    g_DbcI.AutoConnect = one.AutoConnect;
    g_DbcI.AutoChange = one.AutoChange;
    g_DbcI.AutoConnectTimeout = one.Timeout;
    g_DbcI.CircleTimeCount = one.Count;
    Serve(one.Node, ++tag);
    EXPECT_EQ(g_DbcI.CircleTimeCount, one.Expected) << "case " << tag;
  }
  g_DbcI.AutoConnect = 1;
  g_DbcI.AutoConnectTimeout = 20;
  g_DbcI.CircleTimeCount = 0;
  Serve("", ++tag);
  EXPECT_EQ(g_DbcI.CircleTimeCount, 0) << "the link is not down";
}

TEST_F(RequestDispatch, WhileTheLinkConnectsItsRequestsAreSaved) {
  Fake().StayConnecting();
  const CapturedLog log;
  EXPECT_EQ(Serve("A", 1), 0);
  EXPECT_EQ(Serve("A", 2), 0);
  EXPECT_EQ(Waiting(A), (Tags{1, 2}));
  EXPECT_EQ(Fake().Calls, Texts{"ConnectLink A"}) << "the second finds it connecting";
  EXPECT_EQ(Take(socket_), "");
  EXPECT_TRUE(log.Contains(
      "'HandleMessageFromClientQueue' Leave SUCCESS connect in progress. Message saved\n"));
}

TEST_F(RequestDispatch, WithConnErrorAConnectingLinkAnswersAtOnce) {
  Fake().StayConnecting();
  g_DbcI.ConnError = 1;
  for (const int code : {4006, 1001}) {
    g_DbcI.Err1001 = code == 1001;
    const lumo::Message request = Request("A", static_cast<std::uint16_t>(code));
    const CapturedLog log;
    EXPECT_EQ(Serve(request), 0);
    ExpectOnlyError(request, code, 115);
    EXPECT_TRUE(log.Contains("|Connection is in progress state. return error to client\n"));
  }
  EXPECT_TRUE(Waiting(A).empty());
  EXPECT_EQ(A->State, kLinkConnecting);
}

TEST_F(RequestDispatch, WithoutMemoryToSaveARequestIsAnsweredWith4200) {
  A->State = kLinkConnecting;
  AddClientPidIntoList(kHere, 1, A, getpid(), socket_);
  const lumo::Message request = Request("A", 7);
  WithoutMemory([&] { return Serve(request); });
  ExpectOnlyError(request, 4200, 0);
}

TEST_F(RequestDispatch, WithoutMemoryToNoteARequestIsAnsweredWith4200AndTheLinkGoesDown) {
  A->State = kLinkConnected;
  AddClientPidIntoList(kHere, 1, A, getpid(), socket_);
  const lumo::Message request = Request("A", 7);
  const CapturedLog log;
  EXPECT_EQ(WithoutMemory([&] { return Serve(request); }), -1);
  ExpectOnlyError(request, 4200, 0);
  EXPECT_EQ(A->State, kLinkDisconnected);
  EXPECT_EQ(Fake().Count("SendToNetwork A"), 0);
  log.ExpectInOrder({"15 primitiv|'SaveMsgInfo' Leave FAILED allocat memory",
                     "15 link|SaveMsgInfo return bad status. Send Error to client",
                     "15 clntxch|SendMsgToLink return < 0. Save the message. Send this later.",
                     "15 clntxch|Link A send message failed"});
}

TEST_F(RequestDispatch, AFailedSendAnswersTheRequestOnceWith4007) {
  A->State = kLinkConnected;
  Fake().FailToSend(4007, EPIPE);
  const CapturedLog log;
  ExpectAnswered(Request("A", 7), -1, 4007, EPIPE);
  EXPECT_EQ(A->State, kLinkDisconnected);
  EXPECT_EQ(RequestsInFlight(), 0);
  log.ExpectInOrder({"15 clntxch|Link A is already connect state. Try send message",
                     "15 link|Send to network failed",
                     "15 clntxch|SendMsgToLink return < 0. Save the message. Send this later.",
                     "15 clntxch|Link A send message failed"});
}

TEST_F(RequestDispatch, ARequestWaitsNowhereAfterItsAnswer) {
  Fake().FailToConnect(4006, ECONNREFUSED);
  Serve("A");
  Take(socket_);
  EXPECT_TRUE(Waiting(A).empty());
  EXPECT_EQ(RequestsInFlight(), 0);
}

// Parking: connections whose requests are not read until what they wait for has gone on.
class Parking : public RequestDispatch {
 protected:
  static constexpr std::size_t kLimit = 64 * 1024;

  // The link is connected and has a stream; its descriptor.
  int Stream(Link* link) {
    link->State = kLinkConnected;
    const int own = Connect();
    FD_CLR(own, &g_DbcI.ClientSockets);
    links_.push_back(own);
    REGISTER_SOCKET_FOR_THE_LINK(kHere, 1, own, link);
    return own;
  }
  // The node reads nothing and this much is unsent.
  int BusyStream(std::size_t unsent) {
    const int own = Stream(A);
    while (UnsentBytes(own) == 0) EXPECT_EQ(SendBytes(kHere, 1, own, bytes_, 500), 0);
    EXPECT_EQ(SendBytes(kHere, 1, own, bytes_, unsent - UnsentBytes(own)), 0);
    EXPECT_EQ(UnsentBytes(own), unsent);
    return own;
  }
  // Requests travel over it together.
  int JoiningStream() {
    const int own = Stream(A);
    A->Protocol->Joins = true;
    Fake().OnSend = [own](Link*, ClientMessage* msg) {
      return SendBytes(kHere, 1, own, Wire(msg), kCblAt + msg->TrailerOffset + kTrailerSize);
    };
    return own;
  }
  void TearDown() override {
    JoinRequests(false);
    for (const int own : links_) {
      ForgetDescriptor(own);
      close(own);
    }
    RequestDispatch::TearDown();
  }

  unsigned char bytes_[2 * kLimit] = {};

 private:
  std::vector<int> links_;
};

TEST_F(Parking, AConnectionIsReadWhileItsLinkHasUpTo64KibibytesUnsent) {
  BusyStream(kLimit);
  EXPECT_EQ(Serve("A"), 0);
  EXPECT_TRUE(IsRead(socket_));
}

TEST_F(Parking, AConnectionIsParkedBehindALinkWithMoreUnsentUntilThatIsGone) {
  const int own = BusyStream(kLimit + 1);
  EXPECT_EQ(Serve("A"), 0) << "the request itself still went";
  EXPECT_FALSE(IsRead(socket_));
  EXPECT_TRUE(IsClient(socket_) && IsOpen(socket_));
  ReleaseParkedBehind(A);
  EXPECT_FALSE(IsRead(socket_));
  Take(own);
  EXPECT_EQ(FlushBytes(kHere, 1, own), 0);
  ReleaseParkedBehind(A);
  EXPECT_TRUE(IsRead(socket_));
}

TEST_F(Parking, WhatLeavesTogetherReleasesItsClients) {
  const int own = Stream(A);
  A->Protocol->Joins = true;
  JoinRequests(true);
  EXPECT_EQ(SendBytes(kHere, 1, own, bytes_, kLimit + 1), 0);
  EXPECT_EQ(Serve("A"), 0) << "more than 64 KiB are to go: the connection is parked";
  SendTogether();
  EXPECT_EQ(UnsentBytes(own), 0u) << "the node takes it all at once";
  EXPECT_TRUE(IsRead(socket_));
}

// What went out in the pass before has nothing to do with it.
TEST_F(Parking, OfThoseThatLeaveTogetherTheFirstThatIsNotTakenFails) {
  const int own = JoiningStream();
  JoinRequests(true);
  Serve("A", 1);
  SendTogether();
  MsgInfo answered;
  std::int32_t index = 0;
  ASSERT_TRUE(TakeMsgInfo(A, &index, &answered));
  HangUp(own);
  JoinRequests(true);
  const lumo::Message request = Request("A", 2);
  Serve(request);
  SendTogether();
  ExpectOnlyError(request, 4007, EPIPE);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
}

TEST_F(Parking, ALinkThatGoesDownWithWhatLeavesIsNoLongerWrittenTo) {
  const int own = JoiningStream(), other = Stream(AddLink("B"));
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, own);
  HangUp(own);
  REGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, other);
  Fake().OnDisconnect = [other](Link*) {  // B goes down with A
    UNREGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, other);
    g_DbcI.ExitStatus = 7;
  };
  const lumo::Message request = Request("A", 1);
  Come(socket_, FrameOf(request));
  EXPECT_EQ(RunLoop(), 7);
  ExpectOnlyError(request, 4007, EPIPE);
  EXPECT_EQ(Fake().Count("ReadyForWrite B"), 0);
}

TEST_F(Parking, RequestsTravelTogetherWhileTwoMoreHaveRoomInABlock) {
  const int own = JoiningStream();
  JoinRequests(true);
  Serve("A", 1);
  const std::size_t request = JoinedBytes(own);
  const std::size_t rest = kBlockSize - 2 * kMessageArea - 2 * request;
  EXPECT_EQ(SendBytes(kHere, 1, own, bytes_, rest), 0);
  Serve("A", 2);
  EXPECT_EQ(Take(own), "");
  Serve("A", 3);
  EXPECT_EQ(Take(own).size(), rest + 3 * request);
}

TEST_F(Parking, OnlyTheClientsOfTheBusyLinkAreParked) {
  BusyStream(kLimit + 1);
  AddLink("B")->State = kLinkConnected;
  EXPECT_EQ(Serve("B"), 0);
  EXPECT_TRUE(IsRead(socket_));
}

TEST_F(Parking, ABrokenLinkReleasesItsClients) {
  const int own = BusyStream(kLimit + 1);
  Serve("A");
  UNREGISTER_SOCKET_FOR_THE_LINK(kHere, 1, own);
  DisconnectLink(kHere, 1, A, 4007, 0);
  EXPECT_TRUE(IsRead(socket_));
}

TEST_F(Parking, ABrokenLinkReleasesThoseWhoseRequestsItHasAnswered) {
  BusyStream(kLimit + 1);
  Serve("A");
  MsgInfo answered;
  std::int32_t index = 0;
  ASSERT_TRUE(TakeMsgInfo(A, &index, &answered));
  EXPECT_FALSE(IsRead(socket_));
  UNREGISTER_SOCKET_FOR_THE_LINK(kHere, 1, A->Descriptor);
  DisconnectLink(kHere, 1, A, 4007, 0);
  EXPECT_TRUE(IsRead(socket_));
}

TEST_F(Parking, ADeletedLinkReleasesItsClients) {
  BusyStream(kLimit + 1);
  Serve("A");
  ForgetParkedBehind(A);
  EXPECT_TRUE(IsRead(socket_));
}

TEST_F(Parking, AParkedConnectionThatIsClosedLeavesNoTrace) {
  BusyStream(kLimit + 1);
  Serve("A");
  CloseClient(socket_);
  const int next = Connect();
  EXPECT_EQ(next, socket_) << "the number is used again";
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, next);
  ForgetParkedBehind(A);
  EXPECT_FALSE(IsRead(next)) << "nothing to release";
}

TEST_F(Parking, AConnectionWithTheNumberOfOneThatHasHungUpStaysOpen) {
  BusyStream(kLimit + 1);
  const int first = socket_;
  Serve("A", 1);
  const int second = socket_ = Connect();
  Serve("A", 2);
  const int third = socket_ = Connect();
  Serve("A", 3);
  HangUp(third);
  CloseAbandonedParked();
  ASSERT_EQ(socket_ = Connect(), third);
  Serve("A", 4);
  CloseClient(first);
  HangUp(second);
  CloseAbandonedParked();
  EXPECT_FALSE(IsOpen(second));
  EXPECT_TRUE(IsClient(third));
}

TEST_F(Parking, TheThirtySecondSavedRequestParksItsConnectionAlone) {
  A->State = kLinkConnecting;
  for (std::uint16_t tag = 1; tag <= 31; ++tag) Serve("A", tag);
  EXPECT_TRUE(IsRead(socket_));
  Serve("A", 32);
  EXPECT_FALSE(IsRead(socket_));
  const int full = socket_;
  socket_ = Connect();
  Serve("A", 33);
  EXPECT_TRUE(IsRead(socket_));
  EXPECT_FALSE(IsRead(full));
  ReleaseSaved(&g_DbcI.SavedArray.Items[5]);
  EXPECT_TRUE(IsRead(full));
}

}  // namespace
