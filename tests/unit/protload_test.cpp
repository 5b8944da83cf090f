// The registry of protocols.
#include "protocols/protload.h"

#include "protocols/dummy.h"
#include "protocols/lipc.h"
#include "protocols/lsock.h"
#include "protocols/lumo_tcp.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"

namespace {

class Registry : public AgentTest {
 protected:
  // The protocol, and in `Word` what became of the caller's buffer.
  static Protocol* Add(const std::string& name) {
    Word = name;
    return AddProtocol("test", 5, Word.data());
  }
  static std::string Loaded() {
    std::string names;
    for (const Protocol* each = g_DbcI.ProtocolList; each; each = each->Next)
      names += (names.empty() ? "" : " ") + std::string(each->Name);
    return names;
  }
  // Makes a link with the real driver of the line.
  static Link* Parse(std::string line) {
    Link* const link = ParseNodetabString("test", 1, line.data(), 1);
    EXPECT_NE(link, nullptr) << line;
    return link;
  }
  void ParseThree(const std::string& a, const std::string& b, const std::string& c) {
    A = Parse("A " + a);
    B = Parse("B " + b);
    C = Parse("C " + c);
  }
  // Links whose protocol is gone get one that can be taken down at the end.
  void TearDown() override {
    for (Link* const link : {A, B, C})
      if (link) link->Protocol = &Fake().Record;
    AgentTest::TearDown();
  }
  inline static std::string Word;
};

TEST_F(Registry, TheTcpDriverIsLoadedOnceInWhateverCaseItIsWritten) {
  Protocol* const first = Add("tcpip");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Word, "TCPIP");
  EXPECT_STREQ(first->Name, "TCPIP");
  EXPECT_EQ(first->ConnectLink, TcpConnectLink);
  EXPECT_EQ(Add("TcpIp"), first);
  EXPECT_EQ(Add("TCPIP"), first);
  EXPECT_EQ(Loaded(), "TCPIP");
}

TEST_F(Registry, LocalIsAnotherNameOfLocals) {
  Protocol* const first = Add("local");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Word, "LOCAL");
  EXPECT_STREQ(first->Name, "LOCALS");
  EXPECT_EQ(first->ConnectLink, LSockConnectLink);
  EXPECT_EQ(Add("LOCAL"), first);
  EXPECT_EQ(Add("LOCALS"), first);
  EXPECT_EQ(Loaded(), "LOCALS");
}

TEST_F(Registry, TheLocalIpcDriverHasANameOfItsOwn) {
  Protocol* const ipc = Add("LocalI");
  ASSERT_NE(ipc, nullptr);
  EXPECT_STREQ(ipc->Name, "LOCALI");
  EXPECT_NE(Add("LOCALS"), ipc);
  EXPECT_EQ(Loaded(), "LOCALI LOCALS");
}

TEST_F(Registry, RecordsStandInTheOrderOfTheirFirstUse) {
  for (const char* name : {"LOCALI", "TCPIP", "LOCALI", "NPIPE", "LOCAL"}) Add(name);
  EXPECT_EQ(Loaded(), "LOCALI TCPIP DUMMY LOCALS");
}

TEST_F(Registry, EveryDriverFillsAllNineOperations) {
  for (const char* name : {"TCPIP", "LOCALS", "LOCALI", "TSR"}) {
    const Protocol* const loaded = Add(name);
    ASSERT_NE(loaded, nullptr) << name;
    EXPECT_TRUE(loaded->InitLink && loaded->UninitLink && loaded->ConnectLink &&
                loaded->ReadyForWrite && loaded->ReadyForRead && loaded->DisconnectLink &&
                loaded->TimerEvent && loaded->SendToNetwork && loaded->ClientDeadEvent)
        << name;
    EXPECT_EQ(loaded->Next, nullptr) << name;
  }
}

TEST_F(Registry, AnUnsupportedNameGetsAFreshRecordEachTime) {
  Protocol* const first = Add("npipe");
  Protocol* const second = Add("NPIPE");
  ASSERT_TRUE(first && second);
  EXPECT_NE(first, second);
  EXPECT_EQ(Loaded(), "DUMMY DUMMY");
}

TEST_F(Registry, TcpipsIsTakenByThePlaceholder) {
  Add("TCPIP");
  const Protocol* const secure = Add("TCPIPS");
  ASSERT_NE(secure, nullptr);
  EXPECT_STREQ(secure->Name, "DUMMY");
  EXPECT_EQ(secure->ConnectLink, DummyConnectLink);
}

TEST_F(Registry, ThePlaceholdersOwnNameIsNotSupportedEvenWhenItIsLoaded) {
  const CapturedLog log(kLogError);
  EXPECT_EQ(Add("dummy"), nullptr);
  EXPECT_EQ(log.Lines(), (Texts{"2 protload|Protocol 'DUMMY' don't support"}));
  EXPECT_EQ(g_DbcI.ProtocolList, nullptr);
}

TEST_F(Registry, NamesAreComparedWhole) {
  for (const char* name :
       {"TCP", "TCPIPX", "LOCA", "LOCALX", "LOCALSX", "LOCALIX", "REZA", "TS", ""}) {
    const CapturedLog log(kLogError);
    EXPECT_EQ(Add(name), nullptr) << name;
    EXPECT_EQ(log.Lines(),
              (Texts{"2 protload|Protocol '" + std::string(name) + "' don't support"}));
  }
  EXPECT_EQ(g_DbcI.ProtocolList, nullptr);
}

TEST_F(Registry, WithoutMemoryNothingIsLoaded) {
  Add("TCPIP");
  const CapturedLog log(kLogError);
  Word = "local";
  EXPECT_EQ(WithoutMemory([] { return AddProtocol("test", 1, Word.data()); }), nullptr);
  EXPECT_EQ(log.Lines(), (Texts{"2 protload|Error allocation memory for protocol LOCALS data"}));
  EXPECT_EQ(Loaded(), "TCPIP");
}

TEST_F(Registry, ALoadedProtocolNeedsNoMemory) {
  Protocol* const tcp = Add("TCPIP");
  Word = "tcpip";
  const FailingAllocations failing;
  EXPECT_EQ(AddProtocol("test", 1, Word.data()), tcp);
}

TEST_F(Registry, TheFourDriversAreAskedInTheirOrder) {
  const CapturedLog log;
  Add("Nothing");
  Texts calls;
  for (const std::string& text : log.Lines()) {
    if (text.find("InitProtocol' ") == std::string::npos) continue;
    const std::size_t from = text.find(" Call from ");
    calls.push_back(from == std::string::npos ? text : text.substr(0, from));
  }
  EXPECT_EQ(calls, (Texts{"15 lumo_tcp|'TCPIPInitProtocol'",
                          "15 lumo_tcp|'TCPIPInitProtocol' Leave Protocol name is not my",
                          "15 lsock|'LOCALSInitProtocol'",
                          "15 lsock|'LOCALSInitProtocol' Leave Protocol name is not my",
                          "15 lipc|'LOCALIInitProtocol'",
                          "15 lipc|'LOCALIInitProtocol' Leave Protocol name is not my",
                          "15 dummy|'DUMMYInitProtocol'",
                          "15 dummy|'DUMMYInitProtocol' Leave Protocol name is not my"}));
}

TEST_F(Registry, TheFirstDriverThatAcceptsEndsTheSearch) {
  const CapturedLog log;
  Add("LOCAL");
  EXPECT_TRUE(log.Contains("'TCPIPInitProtocol' Leave Protocol name is not my"));
  EXPECT_TRUE(log.Contains("'LOCALSInitProtocol' Leave SUCCESS"));
  EXPECT_FALSE(log.Contains("LOCALIInitProtocol"));
  EXPECT_FALSE(log.Contains("DUMMYInitProtocol"));
}

TEST_F(Registry, TheSearchIsTracedFromTheNameAsWrittenToTheResult) {
  Add("TCPIP");
  EXPECT_EQ(
      Traced([] { Add("tcpip"); }),
      (Texts{"15 protload|'AddProtocol' Call from test:5 ", "15 protload|Protocol name = tcpip",
             "15 protload|Protocol TCPIP already is in list of protocol",
             "15 protload|'AddProtocol' Leave SUCCESS already load"}));
}

TEST_F(Registry, TheWordsOfTheOtherResults) {
  EXPECT_EQ(Traced([] { Add("nothing"); }).back(),
            "15 protload|'AddProtocol' Leave FAILED init ( protocol func )");
  EXPECT_EQ(Traced([] { Add("TSR"); }).back(), "15 protload|'AddProtocol' Leave SUCCESS");
  const CapturedLog log;
  Word = "LOCALS";
  WithoutMemory([] { return AddProtocol("test", 5, Word.data()); });
  EXPECT_EQ(log.Lines().back(), "15 protload|'AddProtocol' Leave FAILED all mem");
}

TEST_F(Registry, ADriverThatRefusesANameLeavesTheRecordUntouched) {
  for (InitProtocol* const init : {TCPIPInitProtocol, LOCALSInitProtocol, LOCALIInitProtocol}) {
    Protocol before;
    std::memset(static_cast<void*>(&before), 0x5A, sizeof before);
    Protocol record = before;
    for (const char* name : {"TCPIPS", "tcpip", "locals"})
      EXPECT_EQ(init("test", 1, &record, name, &g_DbcI.SocketSets), -1) << name;
    EXPECT_EQ(std::memcmp(&record, &before, sizeof before), 0);
  }
}

TEST_F(Registry, TheLocalDriverItselfAlsoTakesTheShortName) {
  Protocol record = {};
  EXPECT_EQ(LOCALSInitProtocol("test", 1, &record, "LOCAL", &g_DbcI.SocketSets), 0);
  EXPECT_STREQ(record.Name, "LOCALS");
}

TEST_F(Registry, WithoutLinksNoProtocolIsReleased) {
  Protocol* const tcp = Add("TCPIP");
  const CapturedLog log;
  EXPECT_EQ(UninitProtocol("test", 1, tcp), 0);
  EXPECT_EQ(log.Lines().back(), "15 protload|'UninitProtocol' Leave SUCCESS not init");
  EXPECT_EQ(Loaded(), "TCPIP");
}

TEST_F(Registry, ReleasingAProtocolUninitialisesItsLinksButNotTheLastOfTheCircle) {
  ParseThree("LOCALS 1", "LOCALS 2", "LOCALS 3");
  EXPECT_EQ(UninitProtocol("test", 1, g_DbcI.ProtocolList), 0);
  EXPECT_EQ(g_DbcI.ProtocolList, nullptr);
  EXPECT_EQ(A->DriverData, nullptr);
  EXPECT_EQ(B->DriverData, nullptr);
  EXPECT_NE(C->DriverData, nullptr);
}

TEST_F(Registry, ReleasingAProtocolLeavesTheLinksOfOthers) {
  ParseThree("TCPIP 127.0.0.1", "LOCALS 2", "TCPIP 127.0.0.1");
  EXPECT_EQ(Loaded(), "TCPIP LOCALS");
  UninitProtocol("test", 1, B->Protocol);
  EXPECT_EQ(Loaded(), "TCPIP");
  EXPECT_NE(A->DriverData, nullptr);
  EXPECT_EQ(B->DriverData, nullptr);
  EXPECT_NE(C->DriverData, nullptr);
}

TEST_F(Registry, ReleasingAProtocolTakesItOutOfAnyPlaceOfTheList) {
  ParseThree("TCPIP 127.0.0.1", "LOCALS 2", "TSR");
  UninitProtocol("test", 1, B->Protocol);
  EXPECT_EQ(Loaded(), "TCPIP DUMMY");
  UninitProtocol("test", 1, A->Protocol);
  EXPECT_EQ(Loaded(), "DUMMY");
}

}  // namespace
