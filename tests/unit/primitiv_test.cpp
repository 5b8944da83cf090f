// The arrays of waiting and sent requests, the walk over active links, the comparison of names.
#include "client/primitiv.h"

#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"

namespace {

class RequestBookkeeping : public AgentTest {
 protected:
  static int Save(std::uint16_t astInd, Link* link, int socket = 7) {
    const ClientMessage msg = MakeRequest(100, socket, astInd, {"text"});
    return SaveUnsendMsg(kHere, 1, &msg, link);
  }
  static int Note(std::uint16_t astInd, Link* link, int socket = 7) {
    const MsgInfo info = {.Link = link, .TaskName = 100, .Socket = socket, .AstInd = astInd};
    return SaveMsgInfo(kHere, 1, &info);
  }
  void SaveOfClosedConnections(int count) const {
    for (int tag = 1; tag <= count; ++tag) {
      Save(static_cast<std::uint16_t>(tag), A, 7);
      ForgetConnection(7);
    }
  }
  static Tags SavedTags() {
    Tags tags;
    for (SavedMessage* saved = GetNextUnsendMsg(nullptr); saved; saved = GetNextUnsendMsg(saved))
      tags.push_back(TagOf(saved->Message));
    return tags;
  }
  static Tags SentTags() {
    Tags tags;
    for (MsgInfo* info = GetNextMsgInfo(kHere, 1, nullptr); info;
         info = GetNextMsgInfo(kHere, 1, info))
      tags.push_back(info->AstInd);
    return tags;
  }
  void SetUp() override {
    AgentTest::SetUp();
    AddTwoLinks();
  }
};

TEST_F(RequestBookkeeping, BothArraysStartEmpty) {
  EXPECT_EQ(g_DbcI.SavedArray.Capacity, 0);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Capacity, 0);
  EXPECT_EQ(GetNextUnsendMsg(nullptr), nullptr);
  EXPECT_EQ(GetNextMsgInfo(kHere, 1, nullptr), nullptr);
}

TEST_F(RequestBookkeeping, TheFirstSavedRequestIsTheFirstOfTwoElements) {
  ASSERT_EQ(Save(1, A), 0);
  EXPECT_EQ(g_DbcI.SavedArray.Capacity, 2);
  EXPECT_EQ(g_DbcI.SavedArray.Items[0].Link, A);
  EXPECT_EQ(g_DbcI.SavedArray.Items[1].Link, nullptr);
}

TEST_F(RequestBookkeeping, ASavedRequestIsAWholeCopy) {
  const ClientMessage msg = MakeRequest(4711, 9, 12, {"one", "", "three", "4"});
  ASSERT_EQ(SaveUnsendMsg(kHere, 1, &msg, A), 0);
  const SavedMessage& saved = g_DbcI.SavedArray.Items[0];
  EXPECT_EQ(std::memcmp(Wire(&saved.Message), Wire(&msg), msg.Length + 4), 0);
  EXPECT_EQ(saved.Message.TrailerOffset, msg.TrailerOffset);
  EXPECT_EQ(saved.Message.ClientSocket, 9);
}

TEST_F(RequestBookkeeping, TheThirdSavedRequestGrowsTheArrayToFourAndKeepsTheOldOnes) {
  for (std::uint16_t tag = 1; tag <= 3; ++tag) ASSERT_EQ(Save(tag, A), 0);
  EXPECT_EQ(g_DbcI.SavedArray.Capacity, 4);
  EXPECT_EQ(TagOf(g_DbcI.SavedArray.Items[2].Message), 3);
  EXPECT_EQ(g_DbcI.SavedArray.Items[3].Link, nullptr);
  EXPECT_EQ(SavedTags(), (Tags{1, 2, 3}));
}

TEST_F(RequestBookkeeping, AfterAllAreSentTheNextSavedRequestReusesTheFirstElement) {
  for (std::uint16_t tag = 1; tag <= 3; ++tag) ASSERT_EQ(Save(tag, A), 0);
  while (SavedMessage* const saved = GetNextUnsendMsg(nullptr)) ReleaseSaved(saved);
  ASSERT_EQ(Save(9, B), 0);
  EXPECT_EQ(g_DbcI.SavedArray.Capacity, 4);
  EXPECT_EQ(TagOf(g_DbcI.SavedArray.Items[0].Message), 9);
  EXPECT_EQ(g_DbcI.SavedArray.Items[0].Link, B);
  EXPECT_EQ(SavedTags(), Tags{9});
}

TEST_F(RequestBookkeeping, TheFirstFreeElementOfTheSavedIsTaken) {
  for (std::uint16_t tag = 1; tag <= 4; ++tag) ASSERT_EQ(Save(tag, A), 0);
  ReleaseSaved(&g_DbcI.SavedArray.Items[1]);
  ReleaseSaved(&g_DbcI.SavedArray.Items[2]);
  ASSERT_EQ(Save(5, A), 0);
  EXPECT_EQ(SavedTags(), (Tags{1, 5, 4}));
}

TEST_F(RequestBookkeeping, SavingLeavesWithTheWordOfItsCase) {
  const std::string module = "15 primitiv|'SaveUnsendMsg' ";
  EXPECT_EQ(Traced([&] { Save(1, A); }),
            (Texts{module + "Call from test:1 ", module + "Leave SUCCESS"}));
  EXPECT_EQ(Traced([&] { Save(2, A); }).back(),
            module + "Leave SUCCESS save in exist element of SavedArray");
}

TEST_F(RequestBookkeeping, WithoutMemoryASavedRequestIsRefusedAndTheOldOnesStay) {
  Save(1, A);
  Save(2, A);
  SavedMessage* const before = g_DbcI.SavedArray.Items;
  const CapturedLog log;
  EXPECT_EQ(WithoutMemory([&] { return Save(3, A); }), -1);
  EXPECT_TRUE(log.Contains("'SaveUnsendMsg' Leave FAILED allocation memory\n"));
  EXPECT_EQ(g_DbcI.SavedArray.Items, before);
  EXPECT_EQ(g_DbcI.SavedArray.Capacity, 2);
  EXPECT_EQ(SavedTags(), (Tags{1, 2}));
}

TEST_F(RequestBookkeeping, AFreeElementNeedsNoMemory) {
  Save(1, A);
  const FailingAllocations failing;
  EXPECT_EQ(Save(2, A), 0);
}

TEST_F(RequestBookkeeping, TheWalkOverSavedRequestsWritesNoTrace) {
  Save(1, A);
  const CapturedLog log;
  GetNextUnsendMsg(GetNextUnsendMsg(nullptr));
  EXPECT_EQ(log.Text(), "");
}

TEST_F(RequestBookkeeping, SentRequestsGrowTheirArrayByTheSameRule) {
  const int capacities[] = {2, 2, 4, 4, 8};
  for (std::uint16_t tag = 0; tag < 5; ++tag) {
    ASSERT_EQ(Note(tag, A), 0);
    EXPECT_EQ(g_DbcI.MsgInfoArray.Capacity, capacities[tag]);
  }
  EXPECT_EQ(SentTags(), (Tags{0, 1, 2, 3, 4}));
  const MsgInfo& last = g_DbcI.MsgInfoArray.Items[4];
  EXPECT_TRUE(last.Link == A && last.TaskName == 100 && last.Socket == 7 && last.AstInd == 4);
}

TEST_F(RequestBookkeeping, TheFirstFreeElementOfTheSentIsTaken) {
  for (std::uint16_t tag = 1; tag <= 4; ++tag) Note(tag, A);
  ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[3]);
  ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[1]);
  EXPECT_EQ(SentTags(), (Tags{1, 3}));
  Note(5, B);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Capacity, 4);
  EXPECT_EQ(SentTags(), (Tags{1, 5, 3}));
}

TEST_F(RequestBookkeeping, NotingASentRequestLeavesWithTheWordOfItsCase) {
  EXPECT_EQ(Traced([&] { Note(1, A); }).back(), "15 primitiv|'SaveMsgInfo' Leave SUCCESS");
  EXPECT_EQ(Traced([&] { Note(2, A); }).back(),
            "15 primitiv|'SaveMsgInfo' Leave SUCCESS save in exist array element");
}

TEST_F(RequestBookkeeping, WithoutMemoryASentRequestIsNotNotedAndTheOldOnesStay) {
  Note(1, A);
  Note(2, A);
  const CapturedLog log;
  EXPECT_EQ(WithoutMemory([&] { return Note(3, A); }), -1);
  EXPECT_TRUE(log.Contains("'SaveMsgInfo' Leave FAILED allocat memory\n"));
  EXPECT_EQ(g_DbcI.MsgInfoArray.Capacity, 2);
  EXPECT_EQ(SentTags(), (Tags{1, 2}));
}

TEST_F(RequestBookkeeping, TheWalkOverSentRequestsEndsWithItsWord) {
  Note(1, A);
  MsgInfo* first = nullptr;
  EXPECT_EQ(Traced([&] { first = GetNextMsgInfo(kHere, 1, nullptr); }).back(),
            "15 primitiv|'GetNextMsgInfo' Leave SUCCESS");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Traced([&] { EXPECT_EQ(GetNextMsgInfo(kHere, 1, first), nullptr); }).back(),
            "15 primitiv|'GetNextMsgInfo' Leave FAILED not found");
}

TEST_F(RequestBookkeeping, TheRequestsOfALinkAreTakenOutOneByOne) {
  Note(1, A);
  Note(2, B);
  Note(3, A);
  MsgInfo info;
  std::int32_t index = 0;
  ASSERT_TRUE(TakeMsgInfo(A, &index, &info));
  EXPECT_EQ(info.AstInd, 1);
  EXPECT_EQ(SentTags(), (Tags{2, 3})) << "taken before it is answered";
  ASSERT_TRUE(TakeMsgInfo(A, &index, &info));
  EXPECT_EQ(info.AstInd, 3);
  EXPECT_FALSE(TakeMsgInfo(A, &index, &info));
  EXPECT_EQ(SentTags(), Tags{2});
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[0].TaskName, 0) << "the whole element is cleared";
}

TEST_F(RequestBookkeeping, AReleasedRecordStaysReadableAClearedOneIsEmpty) {
  Note(1, A);
  Note(2, A);
  MsgInfo& first = g_DbcI.MsgInfoArray.Items[0];
  MsgInfo& second = g_DbcI.MsgInfoArray.Items[1];
  EXPECT_EQ(RequestsInFlight(), 2);
  ReleaseMsgInfo(&first);
  EXPECT_TRUE(!first.Link && first.TaskName == 100 && first.Socket == 7 && first.AstInd == 1);
  ClearMsgInfo(&second);
  EXPECT_TRUE(!second.Link && second.TaskName == 0 && second.Socket == 0 && second.AstInd == 0);
  EXPECT_EQ(RequestsInFlight(), 0);
}

TEST_F(RequestBookkeeping, ARequestIsFoundByItsPairAndLink) {
  for (std::uint16_t tag = 1; tag <= 3; ++tag) Note(tag, tag == 2 ? B : A);
  EXPECT_EQ(FindMsgInfo(nullptr, 100, 2), &g_DbcI.MsgInfoArray.Items[1]);
  EXPECT_EQ(FindMsgInfo(B, 100, 2), &g_DbcI.MsgInfoArray.Items[1]);
  EXPECT_EQ(FindMsgInfo(A, 100, 2), nullptr);
  EXPECT_EQ(FindMsgInfo(nullptr, 101, 2), nullptr);
  EXPECT_EQ(FindMsgInfo(nullptr, 100, 4), nullptr);
}

TEST_F(RequestBookkeeping, OfEqualPairsTheFirstInTheArrayIsFound) {
  for (int i = 0; i < 3; ++i) Note(5, A);
  Note(5, B);
  EXPECT_EQ(FindMsgInfo(nullptr, 100, 5), &g_DbcI.MsgInfoArray.Items[0]);
  ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
  EXPECT_EQ(FindMsgInfo(A, 100, 5), &g_DbcI.MsgInfoArray.Items[1]);
  EXPECT_EQ(FindMsgInfo(B, 100, 5), &g_DbcI.MsgInfoArray.Items[3]);
  Note(5, B);
  EXPECT_EQ(FindMsgInfo(nullptr, 100, 5), &g_DbcI.MsgInfoArray.Items[0]);
}

TEST_F(RequestBookkeeping, OfEqualPairsTheNextIsThatOfTheSameLink) {
  for (Link* const link : {A, B, A}) Note(5, link);
  MsgInfo* const all = g_DbcI.MsgInfoArray.Items;
  EXPECT_EQ(NextOfName(&all[0]), &all[2]);
  EXPECT_EQ(NextOfName(&all[1]), nullptr);
  EXPECT_EQ(NextOfName(&all[2]), nullptr);
}

// The index must agree with the array whatever is noted and released in between.
TEST_F(RequestBookkeeping, FindingAgreesWithASearchThroughTheArray) {
  std::uint32_t random = 20562;
  const auto next = [&random](std::uint32_t bound) {
    random = random * 1664525U + 1013904223U;
    return (random >> 16) % bound;
  };
  for (int step = 0; step < 3000; ++step) {
    const auto tag = static_cast<std::uint16_t>(next(40));
    if (next(5) < 3) {
      const MsgInfo* const free = FirstFree(g_DbcI.MsgInfoArray);
      Note(tag, next(2) ? A : B);
      ASSERT_TRUE(!free || InUse(*free)) << "the first free element is taken, step " << step;
    } else if (MsgInfo* const found = FindMsgInfo(next(2) ? nullptr : B, 100, tag)) {
      ClearMsgInfo(found);
    }
    const Link* const link = next(2) ? A : B;
    const MsgInfo* expected = nullptr;
    int inUse = 0;
    for (const MsgInfo& info : g_DbcI.MsgInfoArray) {
      inUse += InUse(info);
      if (!expected && info.Link == link && info.AstInd == tag) expected = &info;
    }
    ASSERT_EQ(FindMsgInfo(link, 100, tag), expected) << "step " << step;
    ASSERT_EQ(RequestsInFlight(), inUse) << "step " << step;
  }
  EXPECT_GE(g_DbcI.MsgInfoArray.Capacity, 256);
}

TEST_F(RequestBookkeeping, WithoutMemoryForAnyPartNothingChanges) {
  Note(1, A);
  Note(2, A);
  for (int successes = 0; successes < 5; ++successes) {
    const FailingAllocations failing(successes);
    EXPECT_EQ(Note(3, A), -1) << successes;
    EXPECT_EQ(SentTags(), (Tags{1, 2}));
    EXPECT_NE(FindMsgInfo(A, 100, 2), nullptr);
  }
  EXPECT_EQ(Note(3, A), 0);
  EXPECT_EQ(SentTags(), (Tags{1, 2, 3}));
}

TEST_F(RequestBookkeeping, AClosedConnectionIsForgottenByItsRequestsAlone) {
  Note(1, A, 7);
  Note(2, A, 8);
  Save(3, A, 7);
  Save(4, A, 8);
  ForgetConnection(7);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[0].Socket, -1);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[1].Socket, 8);
  EXPECT_EQ(g_DbcI.SavedArray.Items[0].Message.ClientSocket, -1);
  EXPECT_EQ(g_DbcI.SavedArray.Items[1].Message.ClientSocket, 8);
  EXPECT_EQ(SentTags(), (Tags{1, 2})) << "the node still owes its answer";
  EXPECT_EQ(SavedTags(), (Tags{3, 4}));
}

TEST_F(RequestBookkeeping, WhatConnectionsAndLinksHaveIsCounted) {
  const auto& requests = g_Connections[7].Requests;
  Save(1, A, 7);
  Save(2, B, 7);
  Save(3, A, 8);
  Note(4, A, 7);
  EXPECT_EQ(requests[kWaiting].Count, 2);
  EXPECT_EQ(requests[kInFlight].Count, 1);
  EXPECT_EQ(A->Books.Waiting, 2);
  EXPECT_EQ(A->Books.InFlight, 1);
  MoveSaved(&g_DbcI.SavedArray.Items[0], B);
  EXPECT_EQ(A->Books.Waiting, 1);
  EXPECT_EQ(B->Books.Waiting, 2);
  ForgetConnection(7);
  EXPECT_EQ(requests[kWaiting].Count + requests[kInFlight].Count, 0);
  EXPECT_EQ(B->Books.Gone[kWaiting].Count, 2);
  EXPECT_EQ(A->Books.Gone[kInFlight].Count, 1);
  MoveSaved(&g_DbcI.SavedArray.Items[1], A);
  EXPECT_EQ(B->Books.Gone[kWaiting].Count, 1);
  EXPECT_EQ(A->Books.Gone[kWaiting].Count, 1);
  while (SavedMessage* const saved = GetNextUnsendMsg(nullptr)) ReleaseSaved(saved);
  ClearMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
  for (const Link* link : {A, B}) {
    EXPECT_EQ(link->Books.Waiting + link->Books.InFlight, 0);
    EXPECT_EQ(link->Books.Gone[kWaiting].Count + link->Books.Gone[kInFlight].Count, 0);
  }
}

TEST_F(RequestBookkeeping, OfClosedConnectionsTheOldestWaitingRequestsAreDropped) {
  const CapturedLog log(kLogError);
  SaveOfClosedConnections(1030);
  const Tags tags = SavedTags();
  EXPECT_EQ(tags.size(), 1024U);
  EXPECT_EQ(std::count_if(tags.begin(), tags.end(), [](int tag) { return tag <= 6; }), 0);
  EXPECT_EQ(log.Lines().size(), 1U) << "told once: " << log.Text();
  while (A->Books.Waiting > 1000) ReleaseSaved(GetNextUnsendMsg(nullptr));
  SaveOfClosedConnections(30);
  EXPECT_EQ(log.Lines().size(), 2U) << "their number had fallen";
}

TEST_F(RequestBookkeeping, OfClosedConnectionsTheOldestRequestsInFlightAreDropped) {
  const CapturedLog log(kLogError);
  for (int i = 0; i < 262144; ++i) Note(1, A, -1);
  Note(2, B, -1);
  ASSERT_NE(FindMsgInfo(A, 100, 1), nullptr);
  Note(3, A, -1);
  EXPECT_EQ(A->Books.InFlight, 262144);
  EXPECT_NE(FindMsgInfo(A, 100, 3), nullptr);
  EXPECT_FALSE(InUse(g_DbcI.MsgInfoArray.Items[0])) << "the oldest";
  EXPECT_NE(FindMsgInfo(B, 100, 2), nullptr) << "each link has its own limit";
  Note(4, A, -1);
  EXPECT_EQ(log.Lines().size(), 1U) << "told once";
  ReleaseMsgInfo(FindMsgInfo(A, 100, 3));
  for (int i = 0; i < 2; ++i) Note(5, A, -1);
  EXPECT_EQ(log.Lines().size(), 2U) << "their number had fallen";
}

TEST_F(RequestBookkeeping, ARequestIsKnownByItsIdUntilItIsReleased) {
  Note(1, A);
  const RequestId first = LastSavedRequest();
  Note(2, A);
  EXPECT_EQ(FindRequest(first), &g_DbcI.MsgInfoArray.Items[0]);
  ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
  EXPECT_EQ(FindRequest(first), nullptr);
  Note(3, A);
  EXPECT_EQ(LastSavedRequest().Slot, first.Slot);
  EXPECT_EQ(FindRequest(first), nullptr) << "the record has been used again";
  EXPECT_EQ(FindRequest({.Slot = -1, .Serial = 1}), nullptr);
  EXPECT_EQ(FindRequest({.Slot = 1000, .Serial = 1}), nullptr);
}

class ActiveLinks : public AgentTest {
 protected:
  // The active links from LinkList on, by name.
  static std::string Walk() {
    std::string names;
    for (Link* link = GetNextActiveLink(kHere, 1, nullptr); link;
         link = GetNextActiveLink(kHere, 1, link))
      names += link->NodeName;
    return names;
  }
};

TEST_F(ActiveLinks, WithoutLinksThereIsNone) {
  EXPECT_EQ(GetNextActiveLink(kHere, 1, nullptr), nullptr);
}

TEST_F(ActiveLinks, DisconnectedLinksArePassedOver) {
  AddLink("A");
  AddLink("B")->State = kLinkConnected;
  AddLink("C");
  AddLink("D")->State = kLinkConnecting;
  EXPECT_EQ(Walk(), "BD");
}

TEST_F(ActiveLinks, WithAllDisconnectedThereIsNone) {
  AddLink("A");
  AddLink("B");
  EXPECT_EQ(Walk(), "");
}

TEST_F(ActiveLinks, TheWalkBeginsWhereTheCircleIsEnteredAndGoesRoundOnce) {
  for (const char* name : {"A", "B", "C"}) AddLink(name)->State = kLinkConnected;
  EXPECT_EQ(Walk(), "ABC");
  g_DbcI.LinkList = g_DbcI.LinkList->Next;
  EXPECT_EQ(Walk(), "BCA");
}

TEST_F(ActiveLinks, ASingleLinkIsYieldedOnce) {
  AddLink("A")->State = kLinkConnecting;
  EXPECT_EQ(Walk(), "A");
}

TEST_F(ActiveLinks, TheWalkLeavesWithItsWords) {
  Link* const link = AddLink("A");
  link->State = kLinkConnected;
  EXPECT_EQ(Traced([] { GetNextActiveLink(kHere, 1, nullptr); }).back(),
            "15 primitiv|'GetNextActiveLink' Leave SUSSESS");
  EXPECT_EQ(Traced([=] { GetNextActiveLink(kHere, 1, link); }).back(),
            "15 primitiv|'GetNextActiveLink' Leave FAILED link not found");
}

int Compare(std::string a, std::string b) {
  const int result = CompareNodeName(a.c_str(), b.c_str());
  EXPECT_EQ(CompareNodeName(b.c_str(), a.c_str()), result) << "the order makes no difference";
  return result;
}

TEST(NodeNames, AreComparedWithoutRegardToCase) {
  EXPECT_EQ(Compare("srv1", "SRV1"), 0);
  EXPECT_EQ(Compare("sRv1", "SrV2"), 1);
}

TEST(NodeNames, BlanksAndNulsEndThem) {
  EXPECT_EQ(Compare("ab      ", "AB"), 0);
  EXPECT_EQ(Compare("ab cd", "AB xy"), 0);
  EXPECT_EQ(Compare("ab cd", "AB"), 0);
  EXPECT_EQ(Compare("", " "), 0);
  EXPECT_EQ(Compare("", ""), 0);
}

TEST(NodeNames, APrefixIsAnotherName) {
  EXPECT_EQ(Compare("AB", "ABC"), 1);
  EXPECT_EQ(Compare("AB ", "ABC"), 1);
  EXPECT_EQ(Compare("", "A"), 1);
}

TEST(NodeNames, EightCharactersCount) {
  EXPECT_EQ(Compare("abcdefgh", "ABCDEFGHI"), 0);
  EXPECT_EQ(Compare("abcdefghX", "ABCDEFGHY"), 0);
  EXPECT_EQ(Compare("abcdefgX", "ABCDEFGY"), 1);
}

TEST(NodeNames, NothingBehindTheEighthCharacterIsRead) {
  const std::vector<char> a = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
  const std::vector<char> b = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  EXPECT_EQ(CompareNodeName(a.data(), b.data()), 0);
}

TEST(NodeNames, BytesAbove127AreOrdinaryCharacters) {
  EXPECT_EQ(Compare("N\xE4", "n\xE4"), 0);
  EXPECT_EQ(Compare("N\xE4", "N\xE5"), 1);
}

}  // namespace
