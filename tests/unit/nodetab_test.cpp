// The node table: its lines, the links made of them and the choice of the default link.

#include <fstream>

#include "tests/support/agent.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"

namespace {

class NodeTableTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    Fake();
    Path = directory_.Path() / "nodetab";
    g_DbcI.NodetabPath = Path.data();
  }

  static Link* Parse(const std::string& line, int addToList = 1) {
    Buffer = line;
    return ParseNodetabString("test", 1, Buffer.data(), addToList);
  }
  // Builds the links of a table with this text; what is printed is kept.
  static int Load(const std::string& text) {
    std::ofstream(Path, std::ios::binary) << text;
    CapturedStdout out;
    CapturedStderr log;
    const int result = InitLinkQueueFromNodetab("test", 1);
    Out = out.Text();
    Log = log.Text();
    return result;
  }
  // A line of which no link is made: what is written.
  static void ExpectSkipped(const std::string& line, const std::string& written) {
    CapturedStderr log;
    EXPECT_EQ(Parse(line), nullptr) << line;
    EXPECT_EQ(log.Text(), written);
  }
  static std::string Found() { return "Nodetab found: \"" + Path + "\"\n"; }

  inline static std::string Path, Buffer, Out, Log;

 private:
  const test::TemporaryDirectory directory_;
};

class NodeTableLine : public NodeTableTest {
 protected:
  // The address of the link that is made of the line.
  static std::string AddressOf(const std::string& line) {
    const Link* const link = Parse(line);
    return link ? static_cast<char*>(link->DriverData) : "no link";
  }
};

TEST_F(NodeTableLine, HoldsNameProtocolAndAddress) {
  Link* const link = Parse("srv1 fake  the address  5");
  ASSERT_NE(link, nullptr);
  EXPECT_STREQ(link->NodeName, "SRV1");
  EXPECT_EQ(link->Protocol, &Fake().Record);
  EXPECT_STREQ(static_cast<char*>(link->DriverData), "the address  5");
  EXPECT_EQ(link->State, kLinkDisconnected);
  EXPECT_EQ(link->PendingNodetabLine[0], '\0');
  EXPECT_EQ(link->DeletePending, 0);
}

TEST_F(NodeTableLine, AnyWhiteSpaceSeparates) {
  EXPECT_EQ(AddressOf("\t\v A \r\f\tFAKE\t\t x\n"), "x\n");
  EXPECT_EQ(Circle(), "A");
}

TEST_F(NodeTableLine, IsCutInPlaceAndTheProtocolWordRaised) {
  Parse(" a  fake \tx y");
  EXPECT_EQ(Buffer, std::string("\0a\0\0FAKE\0\0x y", 13));
}

TEST_F(NodeTableLine, TheAddressMayBeMissing) {
  for (const char* line : {"A FAKE", "B FAKE ", "C FAKE \t\n"})
    EXPECT_EQ(AddressOf(line), "") << line;
}

TEST_F(NodeTableLine, ANameOfEightCharactersIsTaken) {
  EXPECT_NE(Parse("abcdefgh FAKE x"), nullptr);
  EXPECT_EQ(Circle(), "ABCDEFGH");
}

TEST_F(NodeTableLine, ANameOfNineCharactersIsSkipped) {
  ExpectSkipped("abcdefghi FAKE x",
                "lumo_tcp:Node name 'abcdefghi' is too long. Maximum length is 8 chars\n"
                "lumo_tcp:Node name 'abcdefghi' skipped\n");
  EXPECT_EQ(g_DbcI.LinkList, nullptr);
  EXPECT_TRUE(Fake().Calls.empty());
}

TEST_F(NodeTableLine, ALongNameIsReportedBeforeItsProtocolIsLookedAt) {
  CapturedStderr log;
  EXPECT_EQ(Parse("abcdefghi TCPIP 127.0.0.1"), nullptr);
  EXPECT_EQ(g_DbcI.ProtocolList, &Fake().Record);
  EXPECT_EQ(Fake().Record.Next, nullptr);
}

TEST_F(NodeTableLine, AnUnsupportedProtocolIsReportedWithTheRaisedWord) {
  ExpectSkipped("node dummy x",
                "lumo_tcp:The network agent doesn't support protocol  'DUMMY' for node 'node'.\n"
                "lumo_tcp:Node name 'node' skipped\n");
}

TEST_F(NodeTableLine, TheRegistrysOwnReportComesFirst) {
  const CapturedLog log(kLogError);
  Parse("node dummy x");
  EXPECT_EQ(log.Lines(),
            (Texts{"2 protload|Protocol 'DUMMY' don't support",
                   "The network agent doesn't support protocol  'DUMMY' for node 'node'.",
                   "Node name 'node' skipped"}));
}

TEST_F(NodeTableLine, AMissingProtocolIsAnUnsupportedOne) {
  ExpectSkipped("node\n",
                "lumo_tcp:The network agent doesn't support protocol  '' for node 'node'.\n"
                "lumo_tcp:Node name 'node' skipped\n");
}

TEST_F(NodeTableLine, ANameThatStandsBeforeTheLastLinkIsADuplicate) {
  ASSERT_TRUE(Parse("A FAKE 1") && Parse("B FAKE 2"));
  ExpectSkipped("A FAKE 3",
                "lumo_tcp:Dublicate node name found in nodetab file\n"
                "lumo_tcp:Node name 'A' skip\n");
  EXPECT_EQ(Circle(), "A B");
  EXPECT_EQ(Fake().Count("InitLink A"), 1);
}

TEST_F(NodeTableLine, TheLastLinkIsNotComparedForDuplicates) {
  EXPECT_TRUE(Parse("A FAKE 1") && Parse("B FAKE 2") && Parse("B FAKE 3"));
  EXPECT_EQ(Circle(), "A B B");
}

TEST_F(NodeTableLine, DuplicatesAreComparedAsWritten) {
  EXPECT_TRUE(Parse("A FAKE 1") && Parse("B FAKE 2") && Parse("a FAKE 3"));
  EXPECT_EQ(Circle(), "A B A");
}

TEST_F(NodeTableLine, ASecondLineWithTheOnlyNameIsTakenAThirdNot) {
  EXPECT_TRUE(Parse("A FAKE 1") && Parse("A FAKE 2"));
  CapturedStderr log;
  EXPECT_EQ(Parse("A FAKE 3"), nullptr);
  EXPECT_EQ(Circle(), "A A");
}

TEST_F(NodeTableLine, DuplicatesAreSoughtFromTheEntryOfTheCircle) {
  ASSERT_TRUE(Parse("A FAKE 1") && Parse("B FAKE 2") && Parse("C FAKE 3"));
  g_DbcI.LinkList = g_DbcI.LinkList->Next;  // the last link is A now
  EXPECT_NE(Parse("A FAKE 4"), nullptr);
  EXPECT_EQ(Circle(), "B C A A");
}

TEST_F(NodeTableLine, TheProtocolOfADuplicateIsLoadedAllTheSame) {
  ASSERT_TRUE(Parse("A FAKE 1") && Parse("B FAKE 2"));
  CapturedStderr log;
  EXPECT_EQ(Parse("A TSR"), nullptr);
  ASSERT_NE(g_DbcI.ProtocolList->Next, nullptr);
  EXPECT_STREQ(g_DbcI.ProtocolList->Next->Name, "DUMMY");
}

TEST_F(NodeTableLine, ALineThatIsNotAddedMakesAnUnattachedLinkAndMayRepeatAName) {
  ASSERT_TRUE(Parse("A FAKE 1") && Parse("B FAKE 2"));
  Link* const link = Parse("A FAKE 3", 0);
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->Next, nullptr);
  EXPECT_EQ(Circle(), "A B");
  std::free(link->DriverData);
  std::free(link);
}

TEST_F(NodeTableLine, WithoutMemoryTheNodeIsSkipped) {
  Buffer = "a FAKE x";
  CapturedStderr log;
  EXPECT_EQ(WithoutMemory([] { return ParseNodetabString("test", 1, Buffer.data(), 1); }), nullptr);
  EXPECT_EQ(log.Text(),
            "lumo_tcp:Memory allocation failed\n"
            "lumo_tcp:Node name 'a' skipped\n");
  EXPECT_EQ(g_DbcI.LinkList, nullptr);
}

TEST_F(NodeTableLine, AnOddResultOfTheDriverSkipsTheNode) {
  for (const int result : {1, 3, -1}) {
    Fake().InitResult = result;
    ExpectSkipped("NODE FAKE x",
                  "lumo_tcp:Initialization of link 'NODE' for protocol 'FAKE' failed\n"
                  "lumo_tcp:Node name 'NODE' skipped\n");
  }
  EXPECT_EQ(g_DbcI.LinkList, nullptr);
}

TEST_F(NodeTableLine, AnEvenResultOfTheDriverIsNoFailure) {
  Fake().InitResult = 2;
  EXPECT_NE(Parse("A FAKE x"), nullptr);
  Fake().InitResult = -2;
  EXPECT_NE(Parse("B FAKE x"), nullptr);
  EXPECT_EQ(Circle(), "A B");
}

TEST_F(NodeTableLine, LinksAreAppendedBehindTheLastOfTheCircle) {
  Link* const a = Parse("A FAKE 1");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->Next, a);
  Parse("B FAKE 2");
  Parse("C FAKE 3");
  EXPECT_EQ(Circle(), "A B C");
  g_DbcI.LinkList = a->Next;
  Parse("D FAKE 4");
  EXPECT_EQ(Circle(), "B C A D");
}

TEST_F(NodeTableLine, IsTracedBeforeItIsCut) {
  const CapturedLog log;
  Parse("A FAKE  x");
  EXPECT_TRUE(log.Contains("|Nodetab string:\nA FAKE  x\n")) << log.Text();
  EXPECT_TRUE(log.Contains("|'ParseNodetabString' Call from test:1 "));
  EXPECT_TRUE(log.Contains("|'ParseNodetabString' Leave SUCCESS\n"));
}

class NodeTable : public NodeTableTest {};

TEST_F(NodeTable, MakesALinkOfEachGoodLineInOrder) {
  EXPECT_EQ(Load("B FAKE 1\nA FAKE 2\nC FAKE 3\n"), 0);
  EXPECT_EQ(Circle(), "B A C");
  EXPECT_STREQ(g_DbcI.FirstLink->NodeName, "B");
  EXPECT_EQ(g_DbcI.DefaultLink, g_DbcI.FirstLink);
  EXPECT_EQ(g_DbcI.CircleStartLink, g_DbcI.FirstLink);
  EXPECT_EQ(Out, Found() + "Default server: B\n");
  EXPECT_EQ(Log, "");
}

TEST_F(NodeTable, CommentsAndEmptyLinesAreSkipped) {
  EXPECT_EQ(Load("# A FAKE 1\n ; B FAKE 2\n\n\r\n \t \n\t#\nC FAKE 3\n;\n"), 0);
  EXPECT_EQ(Circle(), "C");
  EXPECT_EQ(Log, "");
}

TEST_F(NodeTable, TheLastLineNeedsNoNewlineAndLinesMayEndWithCarriageReturn) {
  EXPECT_EQ(Load("A FAKE\r\nB FAKE"), 0);
  EXPECT_EQ(Circle(), "A B");
}

TEST_F(NodeTable, FaultyLinesAreSkippedAndTheOthersTaken) {
  EXPECT_EQ(Load("TOOLONGNAME FAKE 1\nA FAKE 2\nB NOTHING 3\nC FAKE bad\nD FAKE 5\nA FAKE 6\n"), 0);
  EXPECT_EQ(Circle(), "A D");
  EXPECT_EQ(Log,
            "lumo_tcp:Node name 'TOOLONGNAME' is too long. Maximum length is 8 chars\n"
            "lumo_tcp:Node name 'TOOLONGNAME' skipped\n"
            "lumo_tcp:The network agent doesn't support protocol  'NOTHING' for node 'B'.\n"
            "lumo_tcp:Node name 'B' skipped\n"
            "lumo_tcp:Initialization of link 'C' for protocol 'FAKE' failed\n"
            "lumo_tcp:Node name 'C' skipped\n"
            "lumo_tcp:Dublicate node name found in nodetab file\n"
            "lumo_tcp:Node name 'A' skip\n");
}

TEST_F(NodeTable, ALineOf1023CharactersIsReadWhole) {
  const std::string start = "A FAKE ";
  EXPECT_EQ(Load(start + std::string(1022 - start.size(), 'x') + "\n"), 0);
  EXPECT_EQ(std::strlen(static_cast<char*>(g_DbcI.LinkList->DriverData)), 1022 - start.size() + 1);
}

TEST_F(NodeTable, ALongerLineIsReadAsSeveral) {
  const std::string start = "A FAKE ";
  EXPECT_EQ(Load(start + std::string(1023 - start.size(), 'x') + "B FAKE y\n"), 0);
  EXPECT_EQ(Circle(), "A B");
}

TEST_F(NodeTable, TheNamedDefaultIsAlsoTheEntryOfTheCircle) {
  g_DbcI.DefaultNode = "srv2";
  EXPECT_EQ(Load("SRV1 FAKE 1\nSRV2 FAKE 2\nSRV3 FAKE 3\n"), 0);
  EXPECT_STREQ(g_DbcI.DefaultLink->NodeName, "SRV2");
  EXPECT_EQ(g_DbcI.LinkList, g_DbcI.DefaultLink);
  EXPECT_EQ(g_DbcI.CircleStartLink, g_DbcI.DefaultLink);
  EXPECT_STREQ(g_DbcI.FirstLink->NodeName, "SRV1");
  EXPECT_EQ(Circle(), "SRV2 SRV3 SRV1");
  EXPECT_EQ(Out, Found() + "Default server: SRV2\n");
}

TEST_F(NodeTable, AnUnknownDefaultGivesTheFirstLinkSilently) {
  g_DbcI.DefaultNode = "SRV9";
  EXPECT_EQ(Load("SRV1 FAKE 1\nSRV2 FAKE 2\n"), 0);
  EXPECT_STREQ(g_DbcI.DefaultLink->NodeName, "SRV1");
  EXPECT_EQ(Circle(), "SRV1 SRV2");
  EXPECT_EQ(Out, Found() + "Default server: SRV1\n");
  EXPECT_EQ(Log, "");
}

TEST_F(NodeTable, TheDefaultsNameEndsAtABlankAndAfterEightCharacters) {
  g_DbcI.DefaultNode = "SRV2 and more";
  EXPECT_EQ(Load("SRV1 FAKE 1\nSRV2 FAKE 2\nABCDEFGH FAKE 3\n"), 0);
  EXPECT_STREQ(g_DbcI.DefaultLink->NodeName, "SRV2");
  g_DbcI.DefaultNode = "ABCDEFGHIJ";
  EXPECT_EQ(Load("X1 FAKE 1\n"), 0);
  EXPECT_STREQ(g_DbcI.DefaultLink->NodeName, "ABCDEFGH");
}

TEST_F(NodeTable, TheFirstOfTwoLinksWithTheDefaultsNameIsTaken) {
  g_DbcI.DefaultNode = "B";
  EXPECT_EQ(Load("A FAKE 1\nB FAKE 2\nB FAKE 3\n"), 0);
  EXPECT_STREQ(static_cast<char*>(g_DbcI.DefaultLink->DriverData), "2\n");
}

TEST_F(NodeTable, ASingleNodeSwitchesTheReconnectionModesOff) {
  g_DbcI.AutoConnect = 1;
  g_DbcI.AutoChange = 1;
  EXPECT_EQ(Load("TOOLONGNAME FAKE\nA FAKE 1\n"), 0);
  EXPECT_EQ(g_DbcI.AutoConnect, 0);
  EXPECT_EQ(g_DbcI.AutoChange, 0);
  EXPECT_EQ(Out, Found() +
                     "Default server: A\n"
                     "Only one server is in the nodetab file. \n"
                     "The autoconnect and autochange modes have disabled");
}

TEST_F(NodeTable, ASingleNodeWithoutAModeIsNoOccasionForATextAndTwoNodesKeepTheModes) {
  EXPECT_EQ(Load("A FAKE 1\n"), 0);
  EXPECT_EQ(Out, Found() + "Default server: A\n");
  g_DbcI.AutoConnect = 1;
  EXPECT_EQ(Load("B FAKE 1\nC FAKE 2\n"), 0);
  EXPECT_EQ(g_DbcI.AutoConnect, 1);
  EXPECT_EQ(Out, Found() + "Default server: A\n");
}

TEST_F(NodeTable, TwoEqualLinesAreTwoNodes) {
  g_DbcI.AutoChange = 1;
  EXPECT_EQ(Load("A FAKE 1\nA FAKE 1\n"), 0);
  EXPECT_EQ(Circle(), "A A");
  EXPECT_EQ(g_DbcI.AutoChange, 1);
}

TEST_F(NodeTable, WithoutAProtocolTheAgentMustExit) {
  g_DbcI.ProtocolList = nullptr;
  EXPECT_EQ(Load("# nothing\n\n; at all\n"), -1);
  EXPECT_EQ(Log, "lumo_tcp:Supported protocols are not found in the nodetab file. Exit\n");
  EXPECT_EQ(Out, Found());
}

TEST_F(NodeTable, WithoutANodeTheAgentMustExit) {
  EXPECT_EQ(Load("A FAKE bad\n"), -1);
  EXPECT_EQ(Log,
            "lumo_tcp:Initialization of link 'A' for protocol 'FAKE' failed\n"
            "lumo_tcp:Node name 'A' skipped\n"
            "lumo_tcp:There are no nodes in the nodetab file. Exit\n");
  EXPECT_EQ(g_DbcI.DefaultLink, nullptr);
}

TEST_F(NodeTable, AMissingFileMeansExit) {
  unlink(Path.c_str());
  CapturedStdout out;
  CapturedStderr log;
  EXPECT_EQ(InitLinkQueueFromNodetab("test", 1), -1);
  EXPECT_EQ(log.Text(), "lumo_tcp:File nodetab is not found. Exit.\n");
  EXPECT_EQ(out.Text(), "");
}

TEST_F(NodeTable, TheFileIsClosedWhateverItHolds) {
  const int before = NextDescriptor();
  for (const char* text : {"A FAKE 1\n", "# nothing\n"}) Load(text);
  EXPECT_EQ(NextDescriptor(), before);
}

TEST_F(NodeTable, APathGivenIsTheOnlyPlaceSearchedAndReportedAsItIs) {
  std::ofstream(Path) << "A FAKE 1\n";
  CapturedStdout out;
  const CapturedLog log;
  char found[260] = "untouched";
  std::FILE* const stream = SearchForNodetab("test", 1, found);
  ASSERT_NE(stream, nullptr);
  std::fclose(stream);
  EXPECT_EQ(found, Path);
  EXPECT_EQ(out.Text(), Found());
  EXPECT_TRUE(log.Contains("|File \"" + Path + "\" opened\n\n")) << log.Text();
  EXPECT_FALSE(log.Contains("g_DbcI.Argv[0]"));
}

TEST_F(NodeTable, APathGivenThatDoesNotOpenEndsTheSearch) {
  unlink(Path.c_str());
  CapturedStdout out;
  const CapturedLog log;
  char found[260] = "untouched";
  EXPECT_EQ(SearchForNodetab("test", 1, found), nullptr);
  EXPECT_STREQ(found, "untouched");
  EXPECT_EQ(out.Text(), "");
  EXPECT_TRUE(log.Contains("|Open nodetab file \"" + Path + "\" failed\n")) << log.Text();
  EXPECT_FALSE(log.Contains("g_DbcI.Argv[0]"));
}

TEST_F(NodeTable, TheOpenedFileIsReadFromItsStart) {
  std::ofstream(Path) << "A FAKE 1\n";
  CapturedStdout out;
  std::FILE* const stream = OpenNodetabFile("test", 1);
  ASSERT_NE(stream, nullptr);
  char line[64] = "";
  EXPECT_NE(std::fgets(line, sizeof line, stream), nullptr);
  std::fclose(stream);
  EXPECT_STREQ(line, "A FAKE 1\n");
}

}  // namespace
