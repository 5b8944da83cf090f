// Requests out and answers in, as the link sees them: the format of what comes from the network,
// the request that an answer belongs to, recording and sending, and the flush of what waited.
#include <random>

#include "core/status.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"

namespace {

constexpr char kBadFormat[] = "2 link|Network packet format is fail.";
constexpr char kNotSent[] = "2 link|The message were not send by the agent. Skip the message";
constexpr char kFlushFailed[] = "15 link| SendMsgToLink from ReadyTcpForWrite failed. errno 0";

// Answers

class NetworkAnswer : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    A = AddLink("A");
  }
  // A message whose counted strings have these byte counts; the counts of those that begin beyond
  // the area are not written.
  static ClientMessage WithCounts(std::initializer_list<std::uint16_t> counts) {
    ClientMessage msg = {};
    std::size_t at = 0;
    for (const std::uint16_t count : counts) {
      if (at + 2 > sizeof msg.Strings) break;
      Put(msg.Strings, WireField<std::uint16_t>{at}, count);
      at += CountedSize(count);
    }
    msg.Length = 4711;
    msg.TrailerOffset = 4711;
    return msg;
  }

  static void ExpectAccepted(std::initializer_list<std::uint16_t> counts, unsigned trailerOffset) {
    ClientMessage msg = WithCounts(counts);
    EXPECT_EQ(HandleNetworkMsg("test", __LINE__, &msg), 0);
    EXPECT_EQ(msg.TrailerOffset, trailerOffset);
    EXPECT_EQ(msg.Length, trailerOffset + 52);
  }

  static void ExpectRefused(std::initializer_list<std::initializer_list<std::uint16_t>> messages) {
    for (const auto& counts : messages) {
      ClientMessage msg = WithCounts(counts);
      const CapturedLog log(kLogError);
      EXPECT_EQ(HandleNetworkMsg("test", __LINE__, &msg), kStatusReceive);
      EXPECT_EQ(log.Lines(), Texts{kBadFormat}) << testing::PrintToString(counts);
    }
  }

  static const MsgInfo* Received(std::int32_t task, std::uint16_t astInd) {
    return MarkTheMsgAsReceived("test", __LINE__, task, astInd);
  }
  static const MsgInfo& Info(int index) { return g_DbcI.MsgInfoArray.Items[index]; }
};

TEST_F(NetworkAnswer, FourEmptyStringsPutTheTrailerAtFiftyTwo) { ExpectAccepted({0, 0, 0, 0}, 52); }

TEST_F(NetworkAnswer, StringsOfOddLengthArePadded) {
  ExpectAccepted({1, 0, 0, 0}, 54);
  ExpectAccepted({2, 0, 0, 0}, 54);
  ExpectAccepted({3, 0, 0, 0}, 56);
  ExpectAccepted({1, 2, 3, 5}, 66);
  ExpectAccepted({0, 0, 0, 7}, 60);
}

TEST_F(NetworkAnswer, AStringMayFillTheMessageToItsLastByte) {
  ExpectAccepted({8084, 0, 0, 0}, 8136);
  ExpectAccepted({0, 8083, 0, 0}, 8136);
  ExpectAccepted({0, 0, 0, 8084}, 8136);
  ExpectAccepted({2020, 2022, 2020, 2022}, 8136);
}

TEST_F(NetworkAnswer, AStringThatLeavesNoRoomForTheTrailerIsRefused) {
  ExpectRefused({{8085, 0, 0, 0}, {0, 8085, 0, 0}, {0, 0, 0, 8085}, {2020, 2022, 2022, 2022}});
}

TEST_F(NetworkAnswer, AStringAboveTheLargestUnitCountIsRefused) {
  ExpectRefused({{8187, 0, 0, 0},
                 {0, 8187, 0, 0},
                 {0, 0, 8187, 0},
                 {0, 0, 0, 8187},
                 {0xFFFF, 0, 0, 0},
                 {0, 0, 0, 0xFFFE}});
}

TEST_F(NetworkAnswer, StringsThatWouldPassAloneAreRefusedWhenTogetherTheyLeaveTheArea) {
  ExpectRefused({{8186, 0, 0, 0}, {8086, 0, 0, 0}, {8000, 8000, 8000, 8000}, {8090, 1, 0, 0}});
}

TEST_F(NetworkAnswer, TheRefusalIsTracedWithItsWord) {
  ClientMessage msg = WithCounts({8187, 0, 0, 0});
  const CapturedLog log;
  HandleNetworkMsg("caller", 12, &msg);
  EXPECT_EQ(log.Lines(), (Texts{"15 link|'HandleNetworkMsg' Call from caller:12 ", kBadFormat,
                                "15 link|'HandleNetworkMsg' Leave FAILED format"}));
}

TEST_F(NetworkAnswer, TheRefusalIsNotWrittenBelowLevelTwo) {
  ClientMessage msg = WithCounts({8187, 0, 0, 0});
  const CapturedLog log(kLogDefault);
  EXPECT_EQ(HandleNetworkMsg("test", __LINE__, &msg), kStatusReceive);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(NetworkAnswer, TheFirstMatchingRequestIsReleasedAndStaysReadable) {
  Note(A, 10, 5, 1);
  Note(A, 10, 6, 2);
  Note(A, 10, 7, 2);
  const MsgInfo* const info = Received(10, 2);
  ASSERT_EQ(info, &Info(1));
  EXPECT_EQ(info->Link, nullptr);
  EXPECT_EQ(info->TaskName, 10);
  EXPECT_EQ(info->Socket, 6);
  EXPECT_EQ(info->AstInd, 2);
  EXPECT_EQ(Info(0).Link, A);
  EXPECT_EQ(Info(2).Link, A);
  EXPECT_EQ(Received(10, 2), &Info(2));
  EXPECT_EQ(Received(10, 1), &Info(0));
  EXPECT_EQ(Received(10, 1), nullptr);
}

TEST_F(NetworkAnswer, TaskNameAndTagMustBothMatch) {
  Note(A, 10, 5, 1);
  EXPECT_EQ(Received(11, 1), nullptr);
  EXPECT_EQ(Received(10, 2), nullptr);
  EXPECT_EQ(Info(0).Link, A);
}

TEST_F(NetworkAnswer, AnAnswerThatMatchesNothingIsReportedAtLevelTwo) {
  const CapturedLog log(kLogError);
  EXPECT_EQ(Received(10, 1), nullptr);
  EXPECT_EQ(log.Lines(), Texts{kNotSent});
}

TEST_F(NetworkAnswer, TheSearchTracesEachPairUpToTheMatch) {
  Note(A, 10, 5, 1);
  Note(A, 11, 5, 2);
  Note(A, 12, 5, 3);
  const CapturedLog log;
  ASSERT_TRUE(Received(11, 2));
  log.ExpectOnce("15 link|MsgInfo->TaskName = 10 , MsgInfo->AstInd = 1 TaskName = 11 AstInd = 2");
  log.ExpectOnce("15 link|MsgInfo->TaskName = 11 , MsgInfo->AstInd = 2 TaskName = 11 AstInd = 2");
  EXPECT_FALSE(log.Contains("MsgInfo->TaskName = 12"));
  log.ExpectOnce("15 link|'MarkTheMsgAsReceived' Leave SUCCESS");
}

TEST_F(NetworkAnswer, AFailedSearchIsTracedWithItsWord) {
  const CapturedLog log;
  EXPECT_FALSE(Received(11, 2));
  log.ExpectOnce("15 link|'MarkTheMsgAsReceived' Leave FAILED argument is not in list sended");
}

TEST_F(NetworkAnswer, AReleasedRequestDoesNotMatchAgain) {
  Note(A, 10, 5, 1);
  ASSERT_TRUE(Received(10, 1));
  EXPECT_FALSE(Received(10, 1));
}

TEST_F(NetworkAnswer, WhileALinkIsReadOnlyItsOwnRequestsCount) {
  g_DbcI.ServedLink = AddLink("B");
  Note(A, 10, 5, 1);
  Note(g_DbcI.ServedLink, 10, 6, 1);
  EXPECT_EQ(Received(10, 1), &Info(1));
  EXPECT_EQ(Received(10, 1), nullptr);
  EXPECT_EQ(Info(0).Link, A);
}

TEST_F(NetworkAnswer, TheAnswerGoesToTheConnectionOfItsRequest) {
  Note(A, 4321, 17, 9);
  ClientMessage answer = MakeRequest(1, -7, 9, {"odd", "", "rest"});
  Put(Trailer(&answer), kTrailerTaskName, 4321);
  PutResult = -5;
  EXPECT_EQ(ReturnAnswerFromNetworkToClient("test", __LINE__, &answer), -5);
  ASSERT_EQ(Answers.size(), 1u);
  EXPECT_EQ(Answers[0].ClientSocket, 17);
  EXPECT_EQ(Answers[0].TaskName, 4321);
  EXPECT_EQ(CountedString(Answers[0], 0), "odd");
  EXPECT_EQ(CountedString(Answers[0], 2), "rest");
  EXPECT_EQ(Info(0).Link, nullptr);
}

TEST_F(NetworkAnswer, AnAnswerToNoRequestGoesToNobody) {
  Note(A, 4321, 17, 9);
  ClientMessage answer = MakeRequest(4321, -7, 8);
  const CapturedLog log;
  EXPECT_EQ(ReturnAnswerFromNetworkToClient("test", __LINE__, &answer), 0);
  EXPECT_TRUE(Answers.empty());
  EXPECT_EQ(Info(0).Link, A);
  log.ExpectOnce(kNotSent);
  log.ExpectOnce("15 link|'ReturnAnswerFromNetworkToClient' Leave FAILED MarkTheMsgAsReceived");
}

TEST_F(NetworkAnswer, OnlyTheTrailerSaysWhoseAnswerItIs) {
  Note(A, 100, 17, 9);
  ClientMessage answer = MakeRequest(100, -7, 9);  // its own task name matches
  Put(Trailer(&answer), kTrailerTaskName, 101);
  EXPECT_EQ(ReturnAnswerFromNetworkToClient("test", __LINE__, &answer), 0);
  EXPECT_TRUE(Answers.empty());
  EXPECT_EQ(Info(0).Link, A);
}

// Against the plain rule, with many requests of few processes and tags on two links.
TEST_F(NetworkAnswer, ManyRequestsAreFoundAsASearchThroughTheArrayFindsThem) {
  Link* const links[] = {A, AddLink("B")};
  std::vector<MsgInfo> expected;  // slot by slot; free when it has no link
  std::mt19937 random(20260101);
  const auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
  for (int step = 0; step < 20000; ++step) {
    const int task = 1000 + below(5);
    const auto tag = static_cast<std::uint16_t>(below(40));
    if (below(100) < (step < 10000 ? 55 : 45)) {
      const MsgInfo info = {
          .Link = links[below(2)], .TaskName = task, .Socket = step, .AstInd = tag};
      ASSERT_EQ(SaveMsgInfo("test", __LINE__, &info), 0);
      const auto free = std::find_if(expected.begin(), expected.end(),
                                     [](const MsgInfo& slot) { return !slot.Link; });
      if (free != expected.end())
        *free = info;
      else
        expected.push_back(info);
      continue;
    }
    g_DbcI.ServedLink = below(3) ? links[below(2)] : nullptr;
    const auto match = std::find_if(expected.begin(), expected.end(), [&](const MsgInfo& slot) {
      return slot.Link && slot.TaskName == task && slot.AstInd == tag &&
             (!g_DbcI.ServedLink || slot.Link == g_DbcI.ServedLink);
    });
    const MsgInfo* const found = Received(task, tag);
    if (match == expected.end()) {
      ASSERT_EQ(found, nullptr) << "step " << step;
      continue;
    }
    ASSERT_EQ(found, &Info(static_cast<int>(match - expected.begin()))) << "step " << step;
    EXPECT_EQ(found->Socket, match->Socket);
    match->Link = nullptr;
  }
}

// Requests

class RequestSending : public NetworkAnswer {
 protected:
  void SetUp() override {
    NetworkAnswer::SetUp();
    g_DbcI.PutMsg = PutMsgToClient;
    A->State = kLinkConnected;
  }

  static ClientMessage RequestOf(const FakeClient& client, std::uint16_t astInd) {
    return MakeRequest(getpid(), client.Socket(), astInd, {"select"});
  }
  int Send(ClientMessage* msg) { return SendMsgToLink("test", __LINE__, A, msg); }
  void Save(std::uint16_t astInd, Link* link) const {
    AgentTest::Save(RequestOf(client_, astInd), link);
  }
  int Flush() { return SendAllSavedMsgToTheLink("test", __LINE__, A); }

  const FakeClient client_;
};

TEST_F(RequestSending, TheRequestIsRecordedBeforeItGoesOut) {
  ClientMessage msg = RequestOf(client_, 7);
  bool recorded = false;
  Fake().OnSend = [&](Link* link, ClientMessage*) {
    recorded = InFlight() == 1 && Info(0).Link == link && Info(0).TaskName == getpid() &&
               Info(0).Socket == client_.Socket() && Info(0).AstInd == 7;
    return 0;
  };
  EXPECT_EQ(Send(&msg), 0);
  EXPECT_TRUE(recorded);
  EXPECT_EQ(InFlight(), 1);
  EXPECT_EQ(A->State, kLinkConnected);
  EXPECT_EQ(client_.Received(), Texts{});
}

TEST_F(RequestSending, WithoutMemoryTheRequestIsAnswered4200AndNotSent) {
  ClientMessage msg = RequestOf(client_, 7);
  const CapturedLog log;
  EXPECT_EQ(WithoutMemory([&] { return Send(&msg); }), -1);
  EXPECT_EQ(client_.Received(), Texts{"7: 4200, 0"});
  EXPECT_TRUE(Fake().Sent.empty());
  EXPECT_EQ(A->State, kLinkConnected);
  EXPECT_EQ(InFlight(), 0);
  log.ExpectOnce("15 link|SaveMsgInfo return bad status. Send Error to client");
  log.ExpectOnce("15 link|'SendMsgToLink' Leave FAILED Save message");
}

TEST_F(RequestSending, AFullRecordThatCannotGrowKeepsWhatItHolds) {
  for (std::uint16_t tag = 1; tag <= 2; ++tag) {
    ClientMessage msg = RequestOf(client_, tag);
    ASSERT_EQ(Send(&msg), 0);
  }
  ClientMessage third = RequestOf(client_, 3);
  EXPECT_EQ(WithoutMemory([&] { return Send(&third); }), -1);
  EXPECT_EQ(client_.Received(), Texts{"3: 4200, 0"});
  EXPECT_EQ(InFlight(), 2);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Capacity, 2);
  EXPECT_EQ(Fake().SentTags(), (Tags{1, 2}));
}

TEST_F(RequestSending, AFailedSendTakesTheLinkDownAndAnswersAllWhoWaitOnIt) {
  Link* const other = AddLink("B");
  other->State = kLinkConnected;
  const FakeClient first, second, elsewhere;
  ClientMessage sent = RequestOf(first, 1);
  ASSERT_EQ(Send(&sent), 0);
  ClientMessage sentElsewhere = RequestOf(elsewhere, 2);
  ASSERT_EQ(SendMsgToLink("test", __LINE__, other, &sentElsewhere), 0);
  AgentTest::Save(RequestOf(second, 3), A);
  Fake().FailToSend(4007, EPIPE);
  ClientMessage failing = RequestOf(client_, 4);
  const CapturedLog log;
  EXPECT_EQ(Send(&failing), -1);
  EXPECT_EQ(first.Received(), Texts{"1: 4007, 32"});
  EXPECT_EQ(second.Received(), Texts{"3: 4007, 32"});
  EXPECT_EQ(client_.Received(), Texts{"4: 4007, 32"});
  EXPECT_EQ(elsewhere.Received(), Texts{});
  EXPECT_EQ(A->State, kLinkDisconnected);
  EXPECT_EQ(other->State, kLinkConnected);
  EXPECT_EQ(InFlight(), 1);
  EXPECT_EQ(Waiting(), 0);
  log.ExpectOnce("15 link|Send to network failed");
  log.ExpectOnce("Disconnect link  A");
  log.ExpectOnce("15 link|'SendMsgToLink' Leave FAILED send(protocol function)");
}

TEST_F(RequestSending, WaitingRequestsGoOutInSlotOrder) {
  Save(1, A);
  Save(2, A);
  Save(3, A);
  ReleaseSaved(&g_DbcI.SavedArray.Items[0]);
  Save(4, A);  // takes the first slot
  EXPECT_EQ(Flush(), 0);
  EXPECT_EQ(Fake().SentTags(), (Tags{4, 2, 3}));
  EXPECT_EQ(Waiting(), 0);
  EXPECT_EQ(InFlight(), 3);
  EXPECT_EQ(client_.Received(), Texts{});
}

TEST_F(RequestSending, RequestsForOtherLinksGoOnWaiting) {
  Link* const other = AddLink("B");
  Save(1, other);
  Save(2, A);
  Save(3, other);
  EXPECT_EQ(Flush(), 0);
  EXPECT_EQ(Fake().SentTags(), (Tags{2}));
  EXPECT_EQ(Waiting(), 2);
  EXPECT_EQ(g_DbcI.SavedArray.Items[0].Link, other);
  EXPECT_EQ(g_DbcI.SavedArray.Items[2].Link, other);
}

TEST_F(RequestSending, AFlushWithNothingWaitingDoesNothing) {
  EXPECT_EQ(Flush(), 0);
  EXPECT_TRUE(Fake().Calls.empty());
}

TEST_F(RequestSending, AFailedFlushStopsAndAnswersEachRequestOnce) {
  for (std::uint16_t tag = 1; tag <= 3; ++tag) Save(tag, A);
  Fake().OnSend = [&](Link*, ClientMessage*) {
    if (Fake().Sent.size() < 2) return 0;
    errno = ECONNRESET;
    return 4007;
  };
  const CapturedLog log;
  EXPECT_EQ(Flush(), kStatusSend);
  EXPECT_EQ(Fake().SentTags(), (Tags{1, 2}));
  EXPECT_EQ(client_.Received(), (Texts{"1: 4007, 104", "2: 4007, 104", "3: 4007, 104"}));
  EXPECT_EQ(Waiting() + InFlight(), 0);
  EXPECT_EQ(A->State, kLinkDisconnected);
  log.ExpectOnce(kFlushFailed);
  log.ExpectOnce("15 link|'SendAllSavedMsgToTheLink' Leave FAILED send message");
}

TEST_F(RequestSending, AFlushWithoutMemoryAnswersOneWith4200AndTheRestWith4007) {
  for (std::uint16_t tag = 1; tag <= 2; ++tag) Save(tag, A);
  EXPECT_EQ(WithoutMemory([&] { return Flush(); }), kStatusSend);
  EXPECT_EQ(client_.Received(), (Texts{"1: 4200, 0", "2: 4007, 0"}));
  EXPECT_TRUE(Fake().Sent.empty());
  EXPECT_EQ(A->State, kLinkDisconnected);
}

}  // namespace
