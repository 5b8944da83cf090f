// The placeholder for protocols that the agent does not carry, and the secure protocol's stub.
#include "protocols/dummy.h"

#include "protocols/ssl_dbc.h"
#include "tests/unit/agent_test.h"

namespace {

class Dummy : public AgentTest {
 protected:
  static int Init(const char* name) {
    return DUMMYInitProtocol("test", 7, &Record, name, &g_DbcI.SocketSets);
  }
  void SetUp() override {
    AgentTest::SetUp();
    Record = {};
  }
  // All operations but the connect.
  static void ExpectZeroOfAll(const char* file, int line, Link* link, char* address,
                              ClientMessage* msg) {
    EXPECT_EQ(Record.InitLink(file, line, link, address), 0);
    for (LinkOperation* const operation :
         {Record.UninitLink, Record.ReadyForWrite, Record.ReadyForRead, Record.DisconnectLink,
          Record.TimerEvent})
      EXPECT_EQ(operation(file, line, link), 0);
    EXPECT_EQ(Record.SendToNetwork(file, line, link, msg), 0);
    EXPECT_EQ(Record.ClientDeadEvent(file, line, link, line), 0);
  }
  inline static Protocol Record;
};

TEST_F(Dummy, ExactlyNineNamesAreAccepted) {
  for (const char* name :
       {"ATCPIP", "ATCPIPS", "REZ", "IPX/SPX", "NPIPE", "DECNET", "TSR", "TCPIPS", "NETBIOS"}) {
    Record = {};
    EXPECT_EQ(Init(name), 0) << name;
    EXPECT_STREQ(Record.Name, "DUMMY") << name;
  }
}

TEST_F(Dummy, AnyOtherNameIsRefusedAndTheRecordStaysUntouched) {
  for (const char* name : {"DUMMY", "REZA", "RE", "TS", "TSRX", "npipe", "NPipe", "TCPIP", "LOCALS",
                           "IPX", "SPX", "NETBIOSX", " REZ", "REZ ", ""}) {
    Protocol before;
    std::memset(static_cast<void*>(&before), 0x5A, sizeof before);
    std::memcpy(static_cast<void*>(&Record), &before, sizeof before);
    EXPECT_EQ(Init(name), -1) << name;
    EXPECT_EQ(std::memcmp(&Record, &before, sizeof before), 0) << name;
  }
}

TEST_F(Dummy, TheSetUpIsTracedWithItsResult) {
  const CapturedLog log;
  Init("TSR");
  Init("TS");
  const Texts texts = log.Lines();
  ASSERT_EQ(texts.size(), 4u);
  EXPECT_EQ(texts[0].rfind("15 dummy|'DUMMYInitProtocol' Call from test:7 ", 0), 0u) << texts[0];
  EXPECT_EQ(texts[1], "15 dummy|'DUMMYInitProtocol' Leave SUCCESS");
  EXPECT_EQ(texts[3], "15 dummy|'DUMMYInitProtocol' Leave Protocol name is not my");
}

TEST_F(Dummy, EveryOperationButTheConnectReturnsZeroAndTracesNothing) {
  ASSERT_EQ(Init("REZ"), 0);
  const CapturedLog log;
  Link link = {};
  ClientMessage msg = {};
  char address[] = "anything";
  ExpectZeroOfAll("test", 1, &link, address, &msg);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(Dummy, TheOperationsLookAtNoneOfTheirArguments) {
  ASSERT_EQ(Init("REZ"), 0);
  ExpectZeroOfAll(nullptr, 0, nullptr, nullptr, nullptr);
}

TEST_F(Dummy, ALinkKeepsNoDataAndStaysDisconnected) {
  char line[] = "A npipe somewhere";
  Link* const link = ParseNodetabString("test", 1, line, 1);
  ASSERT_NE(link, nullptr);
  EXPECT_STREQ(link->Protocol->Name, "DUMMY");
  EXPECT_EQ(link->DriverData, nullptr);
  EXPECT_EQ(link->Protocol->ConnectLink("test", 1, link), 4066);
  EXPECT_EQ(link->State, kLinkDisconnected);
  EXPECT_EQ(g_DbcI.SocketSets.MaxSocket, 0);
}

TEST_F(Dummy, TheConnectReturns4066AtEveryTraceLevel) {
  Link link = {};
  CapturedStderr log;
  for (int level : {0, 1, 2, 3, 14, 255}) {
    g_DbcI.LogLevel = static_cast<std::uint8_t>(level);
    EXPECT_EQ(DummyConnectLink("test", 1, &link), 4066) << level;
  }
}

TEST_F(Dummy, TheConnectIsTracedWithItsWord) {
  Link link = {};
  const CapturedLog log;
  DummyConnectLink("link", 42, &link);
  EXPECT_EQ(log.Lines(), (Texts{"15 dummy|'DummyConnectLink' Call from link:42 ",
                                "15 dummy|'DummyConnectLink' Leave FAILED:unsupport"}));
}

TEST_F(Dummy, TheSecureProtocolsStubFails) {
  const CapturedLog log;
  EXPECT_EQ(TCPIPSInitProtocol("test", 3), -1);
  EXPECT_EQ(log.Lines(), (Texts{"15 ssl_dbc|'TCPIPSInitProtocol' Call from test:3 ",
                                "15 ssl_dbc|'TCPIPSInitProtocol' Leave FAILED"}));
}

}  // namespace
