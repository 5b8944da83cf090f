#include "api/dbca.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <fstream>

#include "core/status.h"
#include "protocols/lumo_tcp.h"
#include "tests/support/agent.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/system_faults.h"

namespace {

constexpr int kOwner = 7;

class ManagementCommands : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    AddThreeLinks();
  }

  // Gives the command to the agent; the answer is left in Answer, its integer returned.
  int Command(int code, std::int32_t rowId = 0, const std::string& text = "") {
    Answer = MakeRequest(getpid(), 77, 5, {text});
    std::memcpy(Answer.CBL.Command, "DBCA", 4);
    Answer.CBL.DbcApiCode = static_cast<std::uint16_t>(code);
    Answer.CBL.RowId = rowId;
    EXPECT_EQ(MakeDbcApiAnswer("test", __LINE__, &Answer), 0);
    return Answer.CBL.RowId;
  }

  std::string Item() const {
    const std::string item = CountedString(Answer, 3);
    EXPECT_EQ(Answer.CBL.LnBufRow, item.size());
    EXPECT_EQ(Answer.TrailerOffset, 52 + item.size());
    EXPECT_EQ(Answer.Length, 104 + item.size());
    EXPECT_EQ(Get(Trailer(&Answer), kTrailerAstInd), 5);
    return item;
  }

  // The command with this result and item.
  void ExpectItem(int code, std::int32_t rowId, int result, const std::string& item) {
    EXPECT_EQ(Command(code, rowId), result) << code;
    EXPECT_EQ(Item(), item) << code;
  }

  // The command succeeds, and these are the nodes afterwards.
  void ExpectNodes(int code, std::int32_t rowId, const std::string& text, const char* nodes) {
    EXPECT_EQ(Command(code, rowId, text), 0);
    EXPECT_EQ(Circle(), nodes);
  }

  template <class T>
  T ItemField(std::size_t at) const {
    T value;
    std::memcpy(&value, Item().data() + at, sizeof value);
    return value;
  }

  void ExpectSecondRedefined(const std::string& text) {
    EXPECT_EQ(Command(126, 0, text), 0);
    EXPECT_EQ(Circle(), "A D C");
    EXPECT_STREQ(AddressOf(B), "there");
  }
  void AddTcpDefault(TcpLinkData* data) {
    Link* const link = g_DbcI.DefaultLink = AddLink("SRV1", Fake("TCPIP"));
    std::free(link->DriverData);
    link->DriverData = data;
  }
  static const char* AddressOf(const Link* link) { return static_cast<char*>(link->DriverData); }

  // A request of the client that names the node waits for the link.
  static void Wait(const FakeClient& client, Link* link, const std::string& node) {
    ClientMessage request = MakeRequest(getpid(), client.Socket(), 9);
    node.copy(request.CBL.Node, sizeof request.CBL.Node);
    Save(request, link);
  }

  ClientMessage Answer = {};
};

TEST_F(ManagementCommands, TheAnswerIsBuiltOverTheRequest) {
  EXPECT_EQ(Command(100, 55, "some text"), 1);
  EXPECT_EQ(Answer.TaskName, getpid());
  EXPECT_EQ(Answer.ClientSocket, 77);
  EXPECT_EQ(Answer.CBL.CodErr, 0);
  EXPECT_EQ(Answer.CBL.SysErr, 0);
  EXPECT_EQ(Answer.CBL.DbcApiCode, 0);
  EXPECT_EQ(Item(), "");
}

TEST_F(ManagementCommands, NumbersWithoutAMeaningGiveZero) {
  for (const int code : {0, 99, 101, 107, 108, 109, 110, 111, 112, 113, 114, 115, 130, 65535})
    ExpectItem(code, 1, 0, "");
}

TEST_F(ManagementCommands, TheNodesAreCounted) {
  EXPECT_EQ(Command(102), 3);
  RemoveLinks();
  EXPECT_EQ(Command(102), 0);
}

TEST_F(ManagementCommands, CountingStartsAtTheFirstNodeWhereverTheCircleIsEntered) {
  g_DbcI.LinkList = C;
  ExpectItem(105, 0, 1, "A       ");
}

TEST_F(ManagementCommands, TheDefaultNodeIsNamedBlankPadded) {
  g_DbcI.DefaultLink = B;
  ExpectItem(103, 0, 1, "B       ");
  ExpectItem(104, 0, 1, "");
}

TEST_F(ManagementCommands, WithoutADefaultThereIsNoNameAndTheIndexIsTheNumberOfNodes) {
  g_DbcI.DefaultLink = nullptr;
  ExpectItem(103, 0, 0, "");
  EXPECT_EQ(Command(104), 3);
}

TEST_F(ManagementCommands, ANodeIsNamedByItsNumber) {
  std::strcpy(B->NodeName, "EIGHTCHR");
  ExpectItem(105, 1, 1, "EIGHTCHR");
  ExpectItem(105, 2, 1, "C       ");
  for (const int number : {5, 3, -1}) ExpectItem(105, number, 0, "");
}

TEST_F(ManagementCommands, ANodeIsMadeTheDefaultByItsNumber) {
  EXPECT_EQ(Command(106, 2), 1);
  EXPECT_EQ(g_DbcI.DefaultLink, C);
  EXPECT_EQ(Command(106, 3), 0);
  EXPECT_EQ(g_DbcI.DefaultLink, C);
}

TEST_F(ManagementCommands, TheTraceShowsTheIntegerArgumentAndTheResult) {
  const CapturedLog trace;
  Command(105, 1);
  EXPECT_TRUE(trace.Contains("|Command dbcapi 1\n"));
  EXPECT_TRUE(trace.Contains("|Return char value \"B       \" return int value 1\n"));
  EXPECT_TRUE(trace.Contains("|'MakeDbcApiAnswer' Leave SUCCESS\n"));
}

// Lock

TEST_F(ManagementCommands, AFreeLockIsGrantedAndAnotherOwnerRefused) {
  EXPECT_EQ(Command(117, kOwner), 0);
  EXPECT_EQ(g_DbcI.NodetabLocked, 1);
  EXPECT_EQ(g_DbcI.NodetabLockOwner, kOwner);
  EXPECT_EQ(Command(117, kOwner + 1), 5);
  EXPECT_EQ(g_DbcI.NodetabLockOwner, kOwner);
  EXPECT_EQ(Command(117, kOwner), 0);
}

TEST_F(ManagementCommands, AnOldLockIsNotTakenOver) {
  Command(117, kOwner);
  g_DbcI.NodetabLockTime -= 3600;
  EXPECT_EQ(Command(117, kOwner + 1), 5);
}

TEST_F(ManagementCommands, ALockWhoseAgeReachesItsTimeIsTakenOver) {
  Command(117, kOwner);
  g_DbcI.NodetabLockTime /= 2;
  EXPECT_EQ(Command(117, kOwner + 1), 0);
  EXPECT_EQ(g_DbcI.NodetabLockOwner, kOwner + 1);
}

TEST_F(ManagementCommands, TheStatusTellsWhoHoldsTheLock) {
  Command(117, kOwner);
  EXPECT_EQ(Command(129, kOwner), 4);
  EXPECT_EQ(Command(129, kOwner + 1), 5);
  EXPECT_EQ(g_DbcI.NodetabLocked, 1);
}

TEST_F(ManagementCommands, AfterAMinuteTheStatusIsFreeAndTheLockCleared) {
  Command(117, kOwner);
  g_DbcI.NodetabLockTime -= 60;
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(Command(129, kOwner), 0);
  EXPECT_EQ(g_DbcI.NodetabLocked, 0);
  EXPECT_GE(g_DbcI.NodetabLockTime, before);
  EXPECT_EQ(Command(129, kOwner), 0);
}

TEST_F(ManagementCommands, ALockIsYoungUpToItsFiftyNinthSecond) {
  FixedTime now(1000000);
  Command(117, kOwner);
  now.Set(1000059);
  EXPECT_EQ(Command(118, kOwner + 1), 5);
  EXPECT_EQ(Command(129, kOwner + 1), 5);
  now.Set(1000060);
  EXPECT_EQ(Command(129, kOwner + 1), 0);
}

TEST_F(ManagementCommands, ALockIsTakenOverWhenItsAgeIsItsTime) {
  FixedTime now(1000000);
  Command(117, kOwner);
  now.Set(1999999);
  EXPECT_EQ(Command(117, kOwner + 1), 5);
  now.Set(2000000);
  EXPECT_EQ(Command(117, kOwner + 1), 0);
}

TEST_F(ManagementCommands, OnlyTheOwnerUnlocksAYoungLock) {
  Command(117, kOwner);
  EXPECT_EQ(Command(118, kOwner + 1), 5);
  EXPECT_EQ(g_DbcI.NodetabLocked, 1);
  EXPECT_EQ(Command(118, kOwner), 0);
  EXPECT_EQ(g_DbcI.NodetabLocked, 0);
  EXPECT_EQ(Command(118, kOwner + 1), 0);
}

TEST_F(ManagementCommands, AnybodyUnlocksAnOldLock) {
  Command(117, kOwner);
  g_DbcI.NodetabLockTime -= 60;
  EXPECT_EQ(Command(118, kOwner + 1), 0);
  EXPECT_EQ(g_DbcI.NodetabLocked, 0);
}

// Path

class NodetabPathCommand : public ManagementCommands {
 protected:
  void MakeFile(const std::string& name) {
    Path = Directory + "/" + name;
    std::ofstream(Path) << "A FAKE\n";
    g_DbcI.NodetabPath = Path.data();
  }

  const test::TemporaryDirectory Temporary;
  std::string Directory = Temporary.Path(), Path;
};

TEST_F(NodetabPathCommand, ThePathIsReturnedWithItsNulAndNoPadding) {
  for (const char* name : {"nodetab", "nodetabs"}) {
    MakeFile(name);
    CapturedStdout out;
    ExpectItem(116, 0, 0, Path + '\0');
    EXPECT_TRUE(out.Contains("Nodetab found: \"" + Path + "\"\n"));
    unlink(Path.c_str());
  }
}

TEST_F(NodetabPathCommand, AMissingFileGives129AndNoItem) {
  Path = Directory + "/nothing";
  g_DbcI.NodetabPath = Path.data();
  ExpectItem(116, 0, 129, "");
}

TEST_F(NodetabPathCommand, APathThatDoesNotFitGives3AndNoItem) {
  for (int i = 0; i < 2; ++i) {
    Directory += "/" + std::string(140, 'd');
    ASSERT_EQ(mkdir(Directory.c_str(), 0700), 0);
  }
  MakeFile("nodetab");
  CapturedStdout out;
  ExpectItem(116, 0, 3, "");
}

TEST_F(NodetabPathCommand, RepeatedCallsDoNotUseUpDescriptors) {
  MakeFile("nodetab");
  CapturedStdout out;
  Command(116);
  const int before = OpenDescriptors();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Command(116), 0);
  EXPECT_EQ(OpenDescriptors(), before);
}

// Adding

TEST_F(ManagementCommands, ANodeIsAddedAtTheEnd) {
  ExpectNodes(119, 0, "new FAKE there", "A B C NEW");
  EXPECT_EQ(Command(102), 4);
  EXPECT_EQ(g_DbcI.DefaultLink, A);
}

TEST_F(ManagementCommands, ALineThatMakesNoNodeGives1) {
  CapturedStderr log;
  for (const char* line :
       {"NINECHARS FAKE there", "D UNKNOWN there", "A FAKE there", "D FAKE bad", ""})
    EXPECT_EQ(Command(119, 0, line), 1) << line;
  EXPECT_EQ(Circle(), "A B C");
}

TEST_F(ManagementCommands, ANodeAddedToAnEmptyTableIsFirstDefaultAndCircleStart) {
  RemoveLinks();
  EXPECT_EQ(Command(119, 0, "ONLY FAKE there"), 0);
  Link* const link = g_DbcI.LinkList;
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->Next, link);
  EXPECT_EQ(g_DbcI.FirstLink, link);
  EXPECT_EQ(g_DbcI.DefaultLink, link);
  EXPECT_EQ(g_DbcI.CircleStartLink, link);
}

TEST_F(ManagementCommands, TheArgumentEndsWithItsString) {
  RemoveLinks();
  // Without a NUL of its own, followed by a string that would otherwise be read on.
  Answer = MakeRequest(getpid(), 77, 5, {"D FAKE at", "not read"});
  Answer.CBL.DbcApiCode = 119;
  MakeDbcApiAnswer("test", __LINE__, &Answer);
  EXPECT_EQ(Answer.CBL.RowId, 0);
  ASSERT_NE(g_DbcI.LinkList, nullptr);
  EXPECT_STREQ(AddressOf(g_DbcI.LinkList), "at");
}

TEST_F(ManagementCommands, TheLargestArgumentIsReadWhole) {
  RemoveLinks();
  const std::string address(8000, 'x');
  EXPECT_EQ(Command(119, 0, "D FAKE " + address), 0);
  EXPECT_EQ(AddressOf(g_DbcI.LinkList), address);
}

// Node descriptions

TEST_F(ManagementCommands, ANodeThatIsNotThereGives17) {
  g_DbcI.DefaultLink = nullptr;
  for (const int code : {120, 123, 126}) EXPECT_EQ(Command(code, 0, "NONE"), 17) << code;
  for (const int code : {121, 124, 127}) EXPECT_EQ(Command(code, 3, "X FAKE y"), 17) << code;
  for (const int code : {122, 125, 128}) EXPECT_EQ(Command(code, 0, "X FAKE y"), 17) << code;
  EXPECT_EQ(Item(), "");
  EXPECT_EQ(Circle(), "A B C");
}

TEST_F(ManagementCommands, ATcpNodeIsDescribedWithItsAddressAndTimeouts) {
  auto* const data = static_cast<TcpLinkData*>(std::calloc(1, sizeof(TcpLinkData)));
  AddTcpDefault(data);
  data->Address = static_cast<std::int32_t>(inet_addr("10.1.2.3"));
  data->Port = htons(1060);
  data->ReceiveTimeout = 100;
  data->SendTimeout = 60;
  data->ConnectTimeout = 10;
  EXPECT_EQ(Command(122), 0);
  ASSERT_EQ(Item().size(), 232U);
  EXPECT_EQ(ItemField<std::uint64_t>(0), 0U);
  EXPECT_EQ(ItemField<std::uint32_t>(8), 4U);
  EXPECT_EQ(Item().substr(12, 12), std::string("SRV1") + std::string(8, '\0'));
  EXPECT_EQ(Item().substr(24, 112), std::string("10.1.2.3") + std::string(104, '\0'));
  EXPECT_EQ(ItemField<std::uint32_t>(136), 1060U);
  EXPECT_EQ(ItemField<std::uint16_t>(140), 5);
  EXPECT_EQ(ItemField<std::uint16_t>(142), 60);
  EXPECT_EQ(ItemField<std::uint16_t>(144), 10);
  EXPECT_EQ(Item().substr(146), std::string(86, '\0'));
}

TEST_F(ManagementCommands, ATcpNodeWithoutADriverRecordHasNoAddress) {
  AddTcpDefault(nullptr);
  EXPECT_EQ(Command(122), 0);
  EXPECT_EQ(Item().substr(24), std::string(208, '\0'));
}

TEST_F(ManagementCommands, OtherNodesAreDescribedWithTheirProtocolsIdentity) {
  struct {
    const char* Name;
    std::uint32_t Code;
  } const protocols[] = {{"LOCAL", 1}, {"locals", 2}, {"LOCALI", 3}, {"TCPIPS", 5}, {"DECNET", 0}};
  int number = 3;
  for (const auto& protocol : protocols) {
    FakeProtocol& fake = Fake(protocol.Name);
    AddLink("N", fake);
    EXPECT_EQ(Command(121, number++), 0);
    EXPECT_EQ(ItemField<std::uint32_t>(8), protocol.Code) << protocol.Name;
    EXPECT_EQ(Item().substr(24, 112), std::string(112, '\0'));
    const auto identity = reinterpret_cast<std::uintptr_t>(&fake.Record);
    EXPECT_EQ(ItemField<std::uint32_t>(136), static_cast<std::uint32_t>(identity));
    EXPECT_EQ(Item().substr(140), std::string(92, '\0'));
  }
}

TEST_F(ManagementCommands, ANodeIsFoundByNameWithoutRegardToCase) {
  AddLink("AB");
  AddLink("ABC");
  for (const char* name : {"abc", "ABC", "Abc  rest"}) {
    EXPECT_EQ(Command(120, 0, name), 0) << name;
    EXPECT_EQ(Item().substr(12, 4), std::string("ABC\0", 4)) << name;
  }
  EXPECT_EQ(Command(120, 0, "ABCD"), 17);
  EXPECT_EQ(Command(120, 0, ""), 17);
}

TEST_F(ManagementCommands, TheNameMustHaveTheNodesLength) {
  AddLink("EIGHTCHR");
  EXPECT_EQ(Command(120, 0, "EIGHTCHR"), 0);
  EXPECT_EQ(Command(120, 0, "EIGHTCHRS"), 17);
}

// Deletion

TEST_F(ManagementCommands, ADisconnectedNodeIsDeletedByNameNumberOrAsTheDefault) {
  AddLink("D");
  ExpectNodes(123, 0, "c", "A B D");
  ExpectNodes(124, 1, "", "A D");
  ExpectNodes(125, 0, "", "D");
  EXPECT_EQ(Fake().Count("UninitLink A"), 1);
  EXPECT_EQ(g_DbcI.FirstLink->NodeName, std::string("D"));
  EXPECT_EQ(g_DbcI.DefaultLink, g_DbcI.FirstLink);
}

TEST_F(ManagementCommands, AConnectedNodeGives33AndIsDeletedAtItsDisconnect) {
  B->State = kLinkConnected;
  std::strcpy(B->PendingNodetabLine, "X FAKE there");
  EXPECT_EQ(Command(123, 0, "B"), 33);
  EXPECT_EQ(Circle(), "A B C");
  EXPECT_EQ(B->DeletePending, 1);
  EXPECT_STREQ(B->PendingNodetabLine, "");
  DisconnectLink("test", __LINE__, B, 4009, 0);
  EXPECT_EQ(Circle(), "A C");
}

TEST_F(ManagementCommands, DeletingNothingIsDone) {
  EXPECT_EQ(DelNode("test", __LINE__, nullptr), 0);
}

TEST_F(ManagementCommands, DeletingTheLastNodeLeavesNoPointer) {
  RemoveLinks();
  AddLink("A");
  EXPECT_EQ(Command(125), 0);
  EXPECT_EQ(g_DbcI.LinkList, nullptr);
  EXPECT_EQ(g_DbcI.FirstLink, nullptr);
  EXPECT_EQ(g_DbcI.DefaultLink, nullptr);
  EXPECT_EQ(g_DbcI.CircleStartLink, nullptr);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
  FreeRetiredLinks();
  EXPECT_EQ(Command(102), 0);
  EXPECT_EQ(Command(119, 0, "A FAKE again"), 0);
  EXPECT_EQ(Command(103), 1);
}

TEST_F(ManagementCommands, DeletingTheDefaultConnectsTheNextNodeAndRestoresTheMode) {
  ExpectNodes(125, 0, "", "B C");
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(g_DbcI.CircleStartLink, B);
  EXPECT_EQ(B->State, kLinkConnected);
  EXPECT_EQ(C->State, kLinkDisconnected);
  EXPECT_EQ(g_DbcI.AutoConnect, 0);
}

TEST_F(ManagementCommands, WhenNoNodeConnectsTheSuccessorIsTheDefaultAndTheCircleHasNoStart) {
  Fake().FailToConnect(kStatusConnect, 0);
  ExpectNodes(125, 0, "", "B C");
  EXPECT_EQ(g_DbcI.DefaultLink, B);
  EXPECT_EQ(g_DbcI.CircleStartLink, nullptr);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
}

TEST_F(ManagementCommands, ANewCircleStartIsTheFirstNodeThatConnects) {
  g_DbcI.DefaultLink = B;
  Fake().OnConnect = [this](Link* link) {
    if (link != C) return static_cast<int>(kStatusConnect);
    link->State = kLinkConnected;
    return 0;
  };
  EXPECT_EQ(Command(124, 0), 0);
  EXPECT_EQ(Fake().Count("ConnectLink B"), 1);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
  EXPECT_EQ(g_DbcI.CircleStartLink, C);
  EXPECT_EQ(g_DbcI.DefaultLink, B);
}

TEST_F(ManagementCommands, ANodeThatIsOnlyConnectingDoesNotBecomeTheCircleStart) {
  g_DbcI.DefaultLink = C;
  Fake().StayConnecting();
  EXPECT_EQ(Command(124, 0), 0);
  EXPECT_EQ(Fake().Count("ConnectLink B"), 1);
  EXPECT_EQ(Fake().Count("ConnectLink C"), 0);
  EXPECT_EQ(g_DbcI.CircleStartLink, nullptr);
}

TEST_F(ManagementCommands, AConnectedNodeBecomesTheCircleStartWithoutAnotherConnect) {
  g_DbcI.DefaultLink = C;
  B->State = kLinkConnected;
  EXPECT_EQ(Command(124, 0), 0);
  EXPECT_EQ(g_DbcI.CircleStartLink, B);
  EXPECT_EQ(Fake().Count("ConnectLink B"), 0);
}

TEST_F(ManagementCommands, NothingIsConnectedOnceAStopWasRequested) {
  g_DbcI.ExitStatus = -1;
  EXPECT_EQ(Command(125), 0);
  EXPECT_EQ(Fake().Count("ConnectLink B") + Fake().Count("ConnectLink C"), 0);
  EXPECT_EQ(Circle(), "B C");
}

TEST_F(ManagementCommands, ADeletedNodeIsNotConnectedByADeletionItSetsOff) {
  RemoveLinks();
  AddTwoLinks();
  g_DbcI.CircleStartLink = B;
  B->State = kLinkConnected;
  B->DeletePending = 1;
  EXPECT_EQ(Command(125), 0);
  EXPECT_EQ(Fake().Count("ConnectLink A"), 0);
  EXPECT_EQ(Circle(), "");
  EXPECT_EQ(g_DbcI.DefaultLink, nullptr);
}

TEST_F(ManagementCommands, RequestsWaitingForADeletedNodeAreToldThatItIsUnknown) {
  const FakeClient client;
  Wait(client, C, "C       ");
  EXPECT_EQ(Command(123, 0, "C"), 0);
  EXPECT_EQ(client.Received(), Texts{"9: 4050, 0"});
  EXPECT_EQ(GetNextUnsendMsg(nullptr), nullptr);
}

TEST_F(ManagementCommands, RequestsThatNamedADeletedDefaultAreNotTakenForServed) {
  const FakeClient client;
  Wait(client, A, "A       ");
  EXPECT_EQ(Command(125), 0);
  EXPECT_EQ(client.Received(), Texts{"9: 4050, 0"});
}

TEST_F(ManagementCommands, RequestsForTheDefaultGoOnWhenItIsDeleted) {
  const FakeClient client;
  Wait(client, A, "");
  EXPECT_EQ(Command(125), 0);
  EXPECT_EQ(Fake().Count("SendToNetwork B"), 1);
  EXPECT_EQ(client.Received(), Texts{});
}

TEST_F(ManagementCommands, DeletingTheEntryOfTheCircleLetsWalksStartAnew) {
  B->State = kLinkConnected;
  EXPECT_EQ(DelNode("test", __LINE__, A), 0);
  EXPECT_EQ(g_DbcI.LinkList, B);
  EXPECT_EQ(g_DbcI.FirstLink, B);
  EXPECT_EQ(GetNextActiveLink("test", __LINE__, A), B);
}

// Redefinition

TEST_F(ManagementCommands, ADisconnectedNodeTakesItsNewDefinitionAtOnce) {
  ExpectNodes(127, 1, "new FAKE elsewhere", "A NEW C");
  EXPECT_STREQ(AddressOf(B), "elsewhere");
  EXPECT_EQ(Fake().Count("UninitLink B"), 1);
  EXPECT_EQ(Fake().Count("DisconnectLink B"), 0);
}

TEST_F(ManagementCommands, TheDefaultNodeIsRedefined) {
  g_DbcI.DefaultLink = C;
  ExpectNodes(128, 0, "D FAKE there", "A B D");
  EXPECT_EQ(g_DbcI.DefaultLink, C);
}

TEST_F(ManagementCommands, TheDefinitionOfANamedNodeStandsTwoBytesBehindTheName) {
  ExpectSecondRedefined(std::string("b\0\0D FAKE there", 15));
}

TEST_F(ManagementCommands, TheNameOfANodeToRedefineMayBePadded) {
  ExpectSecondRedefined(std::string("b       \0\0D FAKE there", 22));
}

TEST_F(ManagementCommands, ANamedNodeWithoutADefinitionStaysAsItIs) {
  for (const std::string& text : {std::string("B"), std::string("B\0", 2), std::string("B\0\0", 3)})
    ExpectNodes(126, 0, text, "A B C");
  EXPECT_EQ(Fake().Calls.size(), 0U);
}

// A definition of no characters would be the last word on the node.
TEST_F(ManagementCommands, ANamedNodeWithoutADefinitionIsDeletedLaterAllTheSame) {
  B->State = kLinkConnected;
  EXPECT_EQ(Command(123, 0, "B"), 33);
  EXPECT_EQ(Command(126, 0, std::string("B\0\0", 3)), 0);
  DisconnectLink("test", 1, B, 0, 0);
  EXPECT_EQ(Circle(), "A C");
}

TEST_F(ManagementCommands, ADefinitionThatMakesNoNodeChangesNothingButGives0) {
  CapturedStderr log;
  EXPECT_EQ(Command(127, 1, "TOOLONGNAME FAKE there"), 0);
  ExpectNodes(127, 1, "D FAKE bad", "A B C");
  EXPECT_STREQ(AddressOf(B), "B");
}

TEST_F(ManagementCommands, ABusyNodeKeepsItsDefinitionUntilItDisconnects) {
  B->State = kLinkConnected;
  B->DeletePending = 1;
  ExpectNodes(126, 0, std::string("B\0\0D FAKE there", 15), "A B C");
  EXPECT_STREQ(B->PendingNodetabLine, "D FAKE there");
  EXPECT_EQ(B->DeletePending, 0);
  DisconnectLink("test", __LINE__, B, 4009, 0);
  EXPECT_EQ(Circle(), "A D C");
  EXPECT_STREQ(B->PendingNodetabLine, "");
  EXPECT_EQ(B->State, kLinkDisconnected);
}

TEST_F(ManagementCommands, APendingLineIsCutAt299Characters) {
  B->State = kLinkConnecting;
  for (const std::size_t size : {298U, 299U, 300U, 301U, 8000U}) {
    std::memset(B->PendingNodetabLine, 'y', sizeof B->PendingNodetabLine);
    EXPECT_EQ(Command(127, 1, std::string(size, 'x')), 0);
    ASSERT_NE(std::memchr(B->PendingNodetabLine, 0, kPendingLineSize), nullptr);
    EXPECT_EQ(B->PendingNodetabLine, std::string(std::min<std::size_t>(size, 299), 'x'));
    EXPECT_EQ(B->DeletePending, 0);
  }
}

TEST_F(ManagementCommands, APendingLineThatMakesNoNodeStaysAsItWas) {
  std::strcpy(B->PendingNodetabLine, "  d FAKE bad");
  CapturedStderr log;
  SyncNode("test", __LINE__, B);
  EXPECT_STREQ(B->PendingNodetabLine, "  d FAKE bad");
  EXPECT_EQ(Circle(), "A B C");
  EXPECT_STREQ(AddressOf(B), "B");
}

TEST_F(ManagementCommands, APendingLineComesBeforeAPendingDeletion) {
  std::strcpy(B->PendingNodetabLine, "D FAKE there");
  B->DeletePending = 1;
  SyncNode("test", __LINE__, B);
  EXPECT_EQ(Circle(), "A D C");
  EXPECT_EQ(B->DeletePending, 0);
}

TEST_F(ManagementCommands, WhileTheAgentIsStoppingNothingPendingIsCarriedOut) {
  g_DbcI.ExitStatus = -1;
  B->DeletePending = 1;
  std::strcpy(C->PendingNodetabLine, "D FAKE there");
  SyncNode("test", __LINE__, B);
  SyncNode("test", __LINE__, C);
  EXPECT_EQ(Circle(), "A B C");
}

TEST_F(ManagementCommands, CarryingOutWhatIsPendingKeepsErrno) {
  std::strcpy(B->PendingNodetabLine, "D FAKE there");
  C->DeletePending = 1;
  Fake().FailToConnect(kStatusConnect, EIO);
  g_DbcI.CircleStartLink = C;
  errno = ENOSPC;
  SyncNode("test", __LINE__, B);
  SyncNode("test", __LINE__, C);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(Circle(), "A D");
}

TEST_F(ManagementCommands, ACommandsTraceCarriesItsNameAndWord) {
  B->State = kLinkConnected;
  const CapturedLog trace;
  Command(124, 1);
  EXPECT_TRUE(trace.Contains("'DelNode' Leave FAIL\n"));
  EXPECT_TRUE(trace.Contains("'ApiDelNode' Leave FAIL\n"));
  Command(127, 1, "D FAKE there");
  EXPECT_TRUE(trace.Contains("'ApiSetNode' Leave FAIL\n"));
  Command(117, kOwner);
  EXPECT_TRUE(trace.Contains("'ApiLockNodetab' Call from dbca:"));
  EXPECT_TRUE(trace.Contains("'ApiLockNodetab' Leave SUCCESS\n"));
}

}  // namespace
