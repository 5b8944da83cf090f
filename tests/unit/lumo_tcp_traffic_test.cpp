// The TCP driver on a connected link, one operation at a time: the timer's arithmetic, what goes
// out and comes in, and the end of the connection.
#include <netinet/tcp.h>

#include "tests/unit/tcp_driver.h"

namespace {

const ControlWords kAlive{8, 1, 0};

class TcpTimer : public TcpDriver {
 protected:
  std::size_t AlivePackets() {
    const std::vector<ControlWords> packets = Packets(ReceiveAll(FarEnd));
    for (const ControlWords& packet : packets) EXPECT_EQ(packet, kAlive);
    return packets.size();
  }
  // A link with a connect under way, as far as it knows: connect() is scripted by the test. Its
  // descriptor.
  int InProgress(const char* timeouts) {
    EXPECT_EQ(Init((std::string("dbhost 1060 ") + timeouts).c_str()), 0);
    EXPECT_EQ(With({SystemCall::Connect, EINPROGRESS}, [&] { return Connect(); }), 0);
    return Data().Socket;
  }
};

class TcpTraffic : public TcpDriver {
 protected:
  // The link is connected.
  void SetUp() override {
    TcpDriver::SetUp();
    Connected("1 30 0");
  }
  // A request of the client is in flight on the link.
  void InFlight() { Note(Node, getpid(), client_.Socket(), 3); }
  void ExpectAnswered(int codErr, int sysErr) const {
    EXPECT_EQ(client_.Received(),
              Texts{"3: " + std::to_string(codErr) + ", " + std::to_string(sysErr)});
  }
  int Read() { return TcpReadyForRead("test", __LINE__, Node); }
  // What has come breaks the link, which has a request in flight, and is no error of the system's.
  void ExpectBroken(int status, const Texts& lines) {
    InFlight();
    const CapturedLog log;
    errno = ENOTTY;  // stale
    EXPECT_EQ(Read(), status);
    EXPECT_EQ(Node->State, kLinkDisconnected);
    ExpectAnswered(status, 0);
    for (const std::string& line : lines) log.ExpectOnce(line);
  }
  int Send(ClientMessage msg) { return TcpSendToNetwork("test", __LINE__, Node, &msg); }
  int TellOfDeath() { return TcpClientDeadEvent("test", __LINE__, Node, 4711); }
  int Disconnect() { return TcpDisconnectLink("test", __LINE__, Node); }
  void Deliver(const std::string& bytes) const { SendAll(FarEnd, bytes); }

  const FakeClient client_;
};

// The timer

TEST_F(TcpTimer, ADisconnectedLinkHasNothingToDo) {
  ASSERT_EQ(Init("dbhost 1060 1 1 1"), 0);
  EXPECT_EQ(Tick(), 0);
  EXPECT_EQ(Data().AliveCount, 0);
  EXPECT_EQ(Data().ReceiveCount, 0);
  EXPECT_EQ(Data().ConnectCount, 0);
}

TEST_F(TcpTimer, AnAlivePacketGoesOutWhenTheCountHasRunOut) {
  Connected("1 0 0");
  Data().AliveCount = 10;
  QuietTicks(10);
  EXPECT_EQ(Data().AliveCount, 0);
  EXPECT_EQ(AlivePackets(), 0u);
  const CapturedLog log;
  EXPECT_EQ(Tick(), 0);
  EXPECT_EQ(AlivePackets(), 1u);
  EXPECT_EQ(Data().AliveCount, 10);
  log.ExpectOnce("15 lumo_tcp|Send Alive packet");
  log.ExpectOnce("15 lumo_tcp|Send CONNECTIONINFO btPktType = 1, dwParam = 0");
  g_DbcI.LogLevel = 0;
  QuietTicks(10);
  EXPECT_EQ(AlivePackets(), 0u);
  QuietTicks(1);
  EXPECT_EQ(AlivePackets(), 1u);
}

TEST_F(TcpTimer, WithoutKeepAliveNothingIsSent) {
  Connected("0 0 0");
  QuietTicks(50);
  EXPECT_EQ(ReceiveAll(FarEnd), "");
  EXPECT_EQ(Data().AliveCount, 0);
}

TEST_F(TcpTimer, AFailedAlivePacketTakesTheLinkDownAndEndsTheTick) {
  Connected("1 1 0");
  Data().AliveCount = 0;
  Data().ReceiveCount = 0;  // the watchdog would report 4065
  const int fd = Data().Socket;
  const CapturedLog log(kLogDriver);
  EXPECT_EQ(With({SystemCall::Send, ECONNRESET}, [&] { return Tick(); }), 0);
  EXPECT_EQ(Node->State, kLinkDisconnected);
  EXPECT_FALSE(IsOpen(fd));
  log.ExpectOnce("3 lumo_tcp|TCP.Send the CONNECTIONINFO fail. Call:send. errno 104");
  log.ExpectOnce("Disconnect link  SRV");
}

TEST_F(TcpTimer, TheWatchdogExpiresOneTickAfterItsCount) {
  Connected("0 30 0");
  Data().ReceiveCount = 16;
  QuietTicks(16);
  EXPECT_EQ(Data().ReceiveCount, 0);
  const CapturedLog log;
  EXPECT_EQ(Tick(), 4065);
  log.ExpectOnce("3 lumo_tcp|TCPIP.Link is broken on timeout send");
  log.ExpectOnce("15 lumo_tcp|'TcpTimerEvent' Leave FAILED on timeout send");
  EXPECT_EQ(Node->State, kLinkConnected);
}

TEST_F(TcpTimer, WithoutASendTimeoutNothingIsWatched) {
  Connected("0 0 0");
  Data().ReceiveCount = 0;
  QuietTicks(50);
  EXPECT_EQ(Data().ReceiveCount, 0);
}

TEST_F(TcpTimer, AConnectMayTakeHalfItsSecondsPlusOneTicks) {
  InProgress("0 0 10");
  EXPECT_EQ(Data().ConnectCount, 6);
  const FailingSystemCall connecting(SystemCall::Connect, EALREADY);
  QuietTicks(6);
  EXPECT_EQ(Data().ConnectCount, 0);
  const CapturedLog log;
  EXPECT_EQ(Tick(), 4058);
  EXPECT_EQ(connecting.Calls(), 6);
  log.ExpectOnce("3 lumo_tcp|TCPIP.Connect is broken on timeout");
  log.ExpectOnce("15 lumo_tcp|'TcpTimerEvent' Leave FAILED timeount");
  EXPECT_EQ(Node->State, kLinkConnecting);
}

TEST_F(TcpTimer, AnOddConnectTimeoutIsHalvedDownwards) {
  InProgress("0 0 1");
  EXPECT_EQ(Data().ConnectCount, 1);
  const FailingSystemCall connecting(SystemCall::Connect, EALREADY);
  QuietTicks(1);
  EXPECT_EQ(Tick(), 4058);
}

TEST_F(TcpTimer, WithoutAConnectTimeoutTheLinkWaitsOn) {
  InProgress("0 0 0");
  const FailingSystemCall connecting(SystemCall::Connect, EALREADY);
  QuietTicks(50);
  EXPECT_EQ(Node->State, kLinkConnecting);
  EXPECT_EQ(Data().ConnectCount, 1);
}

TEST_F(TcpTimer, ATickRepeatsTheConnectAndItsSettings) {
  const int fd = InProgress("0 0 0");
  for (const int result : {EALREADY, EISCONN, EINPROGRESS}) {
    UNREGISTER_SOCKET_FOR_WRITE_EVENT("test", __LINE__, fd);
    const CapturedLog log;
    const FailingSystemCall connecting(SystemCall::Connect, result);
    EXPECT_EQ(Tick(), 0);
    EXPECT_EQ(connecting.Calls(), 1);
    EXPECT_TRUE(IsWritten(fd));
    const std::string number = std::to_string(fd);
    log.ExpectInOrder({"15 lumo_tcp|Connection \"SRV\" is in progress state.",
                       "15 lumo_tcp|SET_NOBLOCK_MODE " + number,
                       "15 lumo_tcp|SET_NO_DELAY_MODE " + number,
                       "15 lumo_tcp|before repeate connect()",
                       "15 lumo_tcp|REGISTER_SOCKET_FOR_WRITE_EVENT " + number});
    EXPECT_EQ(log.Count("15 lumo_tcp|Connection \"SRV\" is already in progress. Call:connect"),
              result == EINPROGRESS ? 0 : 1);
  }
}

TEST_F(TcpTimer, ARepeatedConnectIsRepeatedWhenInterrupted) {
  InProgress("0 0 0");
  const test::Node server;
  Data().Address = static_cast<std::int32_t>(htonl(INADDR_LOOPBACK));
  Data().Port = htons(server.Port());
  const FailingSystemCall interrupted(SystemCall::Connect, EINTR, 0, 2);
  EXPECT_EQ(Tick(), 0);
  EXPECT_EQ(interrupted.Calls(), 3);
  EXPECT_EQ(Node->State, kLinkConnecting);
}

TEST_F(TcpTimer, ARepeatedConnectThatFailsGives4006AndClosesTheSocket) {
  const int fd = InProgress("0 0 0");
  const CapturedLog log;
  const FailingSystemCall failing(SystemCall::Connect, ECONNREFUSED);
  EXPECT_EQ(Tick(), 4006);
  ExpectReleased(fd);
  log.ExpectOnce("3 lumo_tcp|tcpip. repeate connect(...) return bad status. errno = 111");
  log.ExpectOnce("15 lumo_tcp|'TcpTimerEvent' Leave FAILED repeate connect");
}

TEST_F(TcpTimer, AModeThatCannotBeSetAgainGives4002AndClosesTheSocket) {
  const int fd = InProgress("0 0 0");
  const CapturedLog log;
  EXPECT_EQ(With({SystemCall::Fcntl, EPERM}, [&] { return Tick(); }), 4002);
  ExpectReleased(fd);
  log.ExpectOnce("15 lumo_tcp| fcntl(...F_SETFL, O_NONBLOCK) return bad status. errno = 1");
}

TEST_F(TcpTimer, AnOptionThatCannotBeSetAgainGives4002AndKeepsTheSocket) {
  const int fd = InProgress("0 0 0");
  const CapturedLog log;
  const FailingSocketOption failing(IPPROTO_TCP, TCP_NODELAY, ENOMEM);
  EXPECT_EQ(Tick(), 4002);
  EXPECT_TRUE(IsOpen(fd));
  EXPECT_EQ(Data().Socket, fd);
  log.ExpectOnce("15 lumo_tcp|setsockopt(...TCP_NODELAY...) failed. Errno 12");
}

// Out

TEST_F(TcpTraffic, ARequestGoesOutWithItsMarkAndTheLinksDescriptor) {
  Data().AliveCount = 3;
  ClientMessage msg = MakeRequest(4711, 9, 0x1234, {"odd"});
  for (std::size_t at = 0; at < kTrailerSize; ++at) {
    if (at >= 4 && at != 12 && at != 13) Trailer(&msg)[at] = static_cast<std::uint8_t>(0xA0 + at);
  }
  std::string expected = WireBytes(msg, 0, msg.Length + 4);
  const std::int32_t fd = Data().Socket;
  std::memcpy(&expected[expected.size() - 48 + 4], &fd, sizeof fd);
  expected[expected.size() - 48 + 46] = 3;
  const CapturedLog log;
  EXPECT_EQ(Send(msg), 0);
  EXPECT_EQ(ReceiveAll(FarEnd), expected);
  EXPECT_EQ(expected.size(), 112u);
  EXPECT_EQ(Data().AliveCount, 10);
  log.ExpectOnce("15 lumo_tcp|Need write 112 bytes for link \"SRV\"");
  log.ExpectOnce("15 lumo_tcp|write return 112");
}

TEST_F(TcpTraffic, AnInterruptedWriteIsRepeated) {
  const FailingSystemCall interrupted(SystemCall::Send, EINTR, 0, 2);
  EXPECT_EQ(Send(MakeRequest(4711, 9, 1)), 0);
  EXPECT_EQ(interrupted.Calls(), 3);
  EXPECT_EQ(ReceiveAll(FarEnd).size(), 108u);
}

TEST_F(TcpTraffic, AFailedWriteGives4007AndLeavesTheLinkToTheCaller) {
  Data().AliveCount = 3;
  const CapturedLog log;
  const FailingSystemCall failing(SystemCall::Send, EPIPE);
  EXPECT_EQ(Send(MakeRequest(4711, 9, 1)), 4007);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(Node->State, kLinkConnected);
  EXPECT_EQ(Data().AliveCount, 3);
  log.ExpectOnce("3 lumo_tcp|TCPIP.Write into socket failed. Call:write. errno = 32");
  log.ExpectOnce("15 lumo_tcp|'TcpSendToNetwork' Leave FAILED write");
}

TEST_F(TcpTraffic, AControlPacketIsTracedAndSentWhole) {
  const CapturedLog log;
  const std::uint32_t params[2] = {7, 0x80000001};
  EXPECT_EQ(TcpSendConnectionInfo(42, Data().Socket, params), 0);
  EXPECT_EQ(Packets(ReceiveAll(FarEnd)), (std::vector<ControlWords>{{8, 7, 0x80000001}}));
  log.ExpectOnce("15 lumo_tcp|'TcpSendConnectionInfo' Call from lumo_tcp:42 ");
  log.ExpectOnce("15 lumo_tcp|Send CONNECTIONINFO btPktType = 7, dwParam = -2147483647");
  log.ExpectOnce("15 lumo_tcp|Neeed Send 12 byte of the CONNECTIONINFO");
}

TEST_F(TcpTraffic, AnInterruptedControlPacketIsRepeatedAndAFailedOneGivesMinusOne) {
  const std::uint32_t params[2] = {1, 0};
  const auto sendInfo = [&] { return TcpSendConnectionInfo(1, Data().Socket, params); };
  EXPECT_EQ(With({SystemCall::Send, EINTR, 0, 1}, sendInfo), 0);
  EXPECT_EQ(Packets(ReceiveAll(FarEnd)), (std::vector<ControlWords>{{8, 1, 0}}));
  EXPECT_EQ(With({SystemCall::Send, EPIPE}, sendInfo), -1);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(TcpTraffic, AClientsDeathIsToldWithItsProcessId) {
  const CapturedLog log;
  EXPECT_EQ(TellOfDeath(), 0);
  EXPECT_EQ(Packets(ReceiveAll(FarEnd)), (std::vector<ControlWords>{{8, 2, 4711}}));
  log.ExpectOnce("15 lumo_tcp|Send CKIL packet to server \"SRV\". Pid = 4711");
}

TEST_F(TcpTraffic, AClientsDeathThatCannotBeToldTakesTheLinkDown) {
  InFlight();
  const CapturedLog log;
  EXPECT_EQ(With({SystemCall::Send, EPIPE, 0, 1}, [&] { return TellOfDeath(); }), 4007);
  EXPECT_EQ(Node->State, kLinkDisconnected);
  ExpectAnswered(4007, EPIPE);
  log.ExpectOnce("15 lumo_tcp|'TcpClientDeadEvent' Leave FAILED send");
}

// In

TEST_F(TcpTraffic, AControlPacketOnlyRearmsTheWatchdog) {
  Data().ReceiveCount = 2;
  Deliver(std::string("\x08\0\0\0\xFF\xFF\xFF\xFF\x01\x02\x03\x04", 12));
  const CapturedLog log;
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Data().ReceiveCount, 16);
  EXPECT_TRUE(Answers.empty());
  log.ExpectOnce("15 lumo_tcp|'TcpReadyForRead' Leave SUCCESS after receive  CONNECTIONINFO");
}

TEST_F(TcpTraffic, AnAnswerRearmsTheWatchdogAndItsDeliveryIsTheResult) {
  Data().ReceiveCount = 2;
  InFlight();
  const ClientMessage answer = MakeRequest(getpid(), 0, 3, {"one row"});
  Deliver(WireBytes(answer, 0, answer.Length + 4));
  PutResult = -1;
  EXPECT_EQ(Read(), -1);
  ASSERT_EQ(Answers.size(), 1u);
  EXPECT_EQ(CountedString(Answers[0], 0), "one row");
  EXPECT_EQ(Answers[0].ClientSocket, client_.Socket());
  EXPECT_EQ(Data().ReceiveCount, 16);
  EXPECT_EQ(Node->State, kLinkConnected);
}

TEST_F(TcpTraffic, HalfAPacketIsKeptAndDoesNotRearmTheWatchdog) {
  Data().ReceiveCount = 2;
  Deliver(BytesOf(8));
  EXPECT_EQ(Read(), 0);
  Deliver("abcd");
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Data().ReceiveCount, 2);
  Deliver("efgh");
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Data().ReceiveCount, 16);
}

TEST_F(TcpTraffic, ATooLongPacketTakesTheLinkDownWith4008) {
  Deliver(BytesOf(8189));
  ExpectBroken(4008,
               {"3 lumo_tcp|TCPIP.Receive network is too long. Link \"SRV\". Call:recv. Len = 8189",
                "15 lumo_tcp|'TcpReadyForRead' Leave FAILED format (length)"});
}

TEST_F(TcpTraffic, AFailedReceiveTakesTheLinkDownWith4008AndItsError) {
  InFlight();
  const CapturedLog log;
  close(Data().Socket);
  EXPECT_EQ(Read(), 4008);
  ExpectAnswered(4008, EBADF);
  log.ExpectOnce("3 lumo_tcp|TCPIP.Receive network message fail. Link \"SRV\". Call:recv. Errno 9");
  log.ExpectOnce("15 lumo_tcp|'TcpReadyForRead' Leave FAILED receive");
}

TEST_F(TcpTraffic, AClosedConnectionGives4009WithoutAStaleError) {
  shutdown(FarEnd, SHUT_WR);
  ExpectBroken(4009, {"15 lumo_tcp|Connection \"SRV\" is broken. Call:recv"});
}

TEST_F(TcpTraffic, AMalformedAnswerTakesTheLinkDownWith4008) {
  ClientMessage answer = MakeRequest(getpid(), 0, 3);
  Put(answer.Strings, WireField<std::uint16_t>{0}, std::uint16_t{8187});
  Deliver(WireBytes(answer, 0, 108));
  ExpectBroken(4008, {"2 link|Network packet format is fail.",
                      "15 lumo_tcp|'TcpReadyForRead' Leave FAILED:HanldeNetworkMsg"});
}

// The end

TEST_F(TcpTraffic, ADisconnectReleasesTheDescriptor) {
  const int fd = Data().Socket;
  const std::string number = std::to_string(fd);
  const int copy = dup(fd);  // as a process that was forked meanwhile may hold one
  Deliver(BytesOf(200));
  EXPECT_EQ(Read(), 0);  // half a packet is kept
  const CapturedLog log;
  EXPECT_EQ(Disconnect(), 0);
  EXPECT_EQ(Node->State, kLinkDisconnected);
  ExpectReleased(fd);
  char byte;
  EXPECT_EQ(recv(FarEnd, &byte, 1, MSG_DONTWAIT), 0);
  close(copy);
  log.ExpectInOrder({"15 lumo_tcp|UNREGISTER_SOCKET_FOR_THE_LINK " + number,
                     "15 lumo_tcp|UNREGISTER_SOCKET_FOR_READ_EVENT " + number,
                     "15 lumo_tcp|UNREGISTER_SOCKET_FOR_WRITE_EVENT " + number});
}

TEST_F(TcpTraffic, WhatWasKeptForADescriptorDoesNotReachItsNextOwner) {
  const int fd = Data().Socket;
  Deliver(BytesOf(200));
  EXPECT_EQ(Read(), 0);
  std::vector<char> flood(4 << 20);
  ASSERT_EQ(SendBytes("test", __LINE__, fd, flood.data(), flood.size()), 0);
  ASSERT_GT(UnsentBytes(fd), 0u);
  DisconnectLink("test", __LINE__, Node, 0, 0);
  EXPECT_EQ(UnsentBytes(fd), 0u);
  close(FarEnd);
  Connected("0 0 0");
  Deliver(std::string("\x08\0\0\0abcdefgh", 12));
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Node->State, kLinkConnected);
  DisconnectLink("test", __LINE__, Node, 0, 0);
}

TEST_F(TcpTraffic, ADisconnectKeepsErrno) {
  const FailingSystemCall notConnected(SystemCall::Shutdown, ENOTCONN);
  EXPECT_EQ(KeepingErrno([&] { return Disconnect(); }), 0);
  EXPECT_EQ(notConnected.Calls(), 1);
}

TEST_F(TcpTraffic, ADisconnectedLinkIsLeftAsItIs) {
  Node->State = kLinkDisconnected;
  const int fd = Data().Socket;
  const CapturedLog log;
  EXPECT_EQ(Disconnect(), 0);
  EXPECT_TRUE(IsOpen(fd));
  EXPECT_EQ(Data().Socket, fd);
  log.ExpectOnce("15 lumo_tcp|'TcpDisconnectLink' Leave SUCCESS already disconnected");
  Node->State = kLinkConnected;
}

TEST_F(TcpTraffic, ALinkWithoutARecordIsOnlyMarkedDisconnected) {
  TcpUninitLink("test", __LINE__, Node);
  Node->State = kLinkConnecting;
  EXPECT_EQ(Disconnect(), 0);
  EXPECT_EQ(Node->State, kLinkDisconnected);
}

TEST_F(TcpTraffic, UninitTakesTheLinkDownWithoutACode) {
  const int fd = Data().Socket;
  InFlight();
  EXPECT_EQ(TcpUninitLink("test", __LINE__, Node), 0);
  EXPECT_EQ(Node->DriverData, nullptr);
  EXPECT_EQ(Node->State, kLinkDisconnected);
  EXPECT_FALSE(IsOpen(fd));
  ExpectAnswered(0, 0);
}

TEST_F(TcpTraffic, UninitOfADisconnectedLinkOnlyFreesItsRecord) {
  Disconnect();
  const CapturedLog log;
  EXPECT_EQ(TcpUninitLink("test", __LINE__, Node), 0);
  EXPECT_EQ(Node->DriverData, nullptr);
  EXPECT_FALSE(log.Contains("DisconnectLink"));
}

}  // namespace
