// The TCP driver, one operation at a time: the address text, and connecting with every system call
// that may fail.
#include "protocols/lumo_tcp.h"

#include <netinet/tcp.h>

#include "tests/unit/faults.h"
#include "tests/unit/tcp_driver.h"

namespace {

class TcpAddress : public TcpDriver {
 protected:
  void ExpectRefused(const char* text, const char* line) {
    const CapturedLog log(kLogResult);
    EXPECT_EQ(Init(text), 1) << text;
    EXPECT_EQ(log.Lines(), Texts{line});
    EXPECT_EQ(Node->DriverData, nullptr);
  }
  void ExpectTaken(const char* text, int port, int receive, int send, int connect) {
    ASSERT_EQ(Init(text), 0) << text;
    ExpectTaken(port, receive, send, connect);
  }
  void ExpectTaken(int port, int receive, int send, int connect) {
    EXPECT_EQ(Data().Port, htons(static_cast<std::uint16_t>(port)));
    EXPECT_EQ(Data().ReceiveTimeout, receive);
    EXPECT_EQ(Data().SendTimeout, send);
    EXPECT_EQ(Data().ConnectTimeout, connect);
  }
  int PortOf(const std::string& word) {
    EXPECT_EQ(Init(("dbhost " + word).c_str()), 0);
    return ntohs(static_cast<std::uint16_t>(Data().Port));
  }
  int ReceiveTimeoutOf(const std::string& word) {
    EXPECT_EQ(Init(("dbhost 1 " + word).c_str()), 0);
    return Data().ReceiveTimeout;
  }
};

TEST_F(TcpDriver, OnlyItsOwnNameIsAccepted) {
  for (const char* name : {"TCPIPS", "tcpip", "TCPI", "LOCALS", "ATCPIP", ""}) {
    Protocol protocol = {};
    const CapturedLog log;
    EXPECT_EQ(TCPIPInitProtocol("test", __LINE__, &protocol, name, &g_DbcI.SocketSets), -1);
    log.ExpectOnce("15 lumo_tcp|'TCPIPInitProtocol' Leave Protocol name is not my");
    EXPECT_EQ(protocol.Name, nullptr);
    EXPECT_EQ(protocol.InitLink, nullptr);
  }
}

TEST_F(TcpDriver, ItsNineOperationsFillTheRecord) {
  EXPECT_STREQ(Driver.Name, "TCPIP");
  EXPECT_EQ(Driver.InitLink, TcpInitLink);
  EXPECT_EQ(Driver.UninitLink, TcpUninitLink);
  EXPECT_EQ(Driver.ConnectLink, TcpConnectLink);
  EXPECT_EQ(Driver.ReadyForWrite, TcpReadyForWrite);
  EXPECT_EQ(Driver.ReadyForRead, TcpReadyForRead);
  EXPECT_EQ(Driver.DisconnectLink, TcpDisconnectLink);
  EXPECT_EQ(Driver.TimerEvent, TcpTimerEvent);
  EXPECT_EQ(Driver.SendToNetwork, TcpSendToNetwork);
  EXPECT_EQ(Driver.ClientDeadEvent, TcpClientDeadEvent);
}

// Address text

TEST_F(TcpAddress, AHostAloneGetsTheDefaults) {
  ASSERT_EQ(Init("dbhost"), 0);
  EXPECT_EQ(Data().Address, static_cast<std::int32_t>(inet_addr("10.1.2.3")));
  ExpectTaken(1060, 20, 0, 0);
  EXPECT_EQ(Data().AliveCount, 0);
  EXPECT_EQ(Data().ReceiveCount, 0);
  EXPECT_EQ(Data().ConnectCount, 0);
  EXPECT_EQ(Data().Socket, -1);
}

TEST_F(TcpAddress, AllFieldsAreTakenInTheirOrder) {
  ExpectTaken("dbhost 0x424 5 30 10\n", 1060, 100, 30, 10);
}

TEST_F(TcpAddress, AWrittenZeroTurnsKeepAliveOff) {
  ExpectTaken("dbhost 0x424 0 0 0", 1060, 0, 0, 0);
}

TEST_F(TcpAddress, AnyWhiteSpaceSeparatesTheFieldsAndIsOverwritten) {
  char address[] = "dbhost\t 1\v2\f3  4 \r\n";
  const OnlyHost host("dbhost", "10.1.2.3");
  ASSERT_EQ(TcpInitLink("test", __LINE__, Node, address), 0);
  ExpectTaken(1, 40, 3, 4);
  EXPECT_STREQ(address, "dbhost");
  for (const char c : address) EXPECT_TRUE(c == '\0' || !isspace(c));
}

TEST_F(TcpAddress, PortsAreReadInTheBaseOfTheirPrefix) {
  for (const char* word : {"1061", "0x425", "02045"}) EXPECT_EQ(PortOf(word), 1061) << word;
  EXPECT_EQ(PortOf("12ab"), 12);
}

TEST_F(TcpAddress, AMissingPortIsTheDefaultOne) {
  for (const char* word : {"", "0", "none"}) EXPECT_EQ(PortOf(word), 1060) << word;
}

TEST_F(TcpAddress, APortIsCutToSixteenBits) {
  EXPECT_EQ(PortOf("65535"), 65535);
  EXPECT_EQ(PortOf("65537"), 1);
  EXPECT_EQ(PortOf("-1"), 65535);
}

TEST_F(TcpAddress, AReceiveTimeoutCountsTwentyfold) {
  EXPECT_EQ(ReceiveTimeoutOf("1"), 20);
  EXPECT_EQ(ReceiveTimeoutOf("5"), 100);
  EXPECT_EQ(ReceiveTimeoutOf("0x10"), 320);
  EXPECT_EQ(ReceiveTimeoutOf("010"), 160);
}

TEST_F(TcpAddress, OnlyATextThatBeginsWithZeroTurnsKeepAliveOff) {
  for (const char* word : {"0", "00", "0x0", "0abc"}) EXPECT_EQ(ReceiveTimeoutOf(word), 0) << word;
  for (const char* word : {"", "-3", "-0", "never"}) EXPECT_EQ(ReceiveTimeoutOf(word), 20) << word;
}

TEST_F(TcpAddress, SendAndConnectTimeoutsAreNeverNegative) {
  ExpectTaken("dbhost 1 1 -30 -10", 1, 20, 0, 0);
  ExpectTaken("dbhost 1 1 0x1E 012 more words", 1, 20, 30, 10);
  ExpectTaken("dbhost 1 1 soon later", 1, 20, 0, 0);
}

TEST_F(TcpAddress, NumbersBeyondAllBoundsStayDefined) {
  ASSERT_EQ(Init("dbhost 1 99999999999999999999 99999999999999999999 99999999999999999999"), 0);
  EXPECT_GT(Data().ReceiveTimeout, 0);
  EXPECT_GT(Data().SendTimeout, 0);
  EXPECT_GT(Data().ConnectTimeout, 0);
}

TEST_F(TcpAddress, EachFieldIsTraced) {
  const CapturedLog log;
  ASSERT_EQ(Init("dbhost 0x424 5 30 10"), 0);
  Texts lines = log.Lines();
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0].rfind("15 lumo_tcp|", 0), 0u);
  lines.erase(lines.begin());
  EXPECT_EQ(
      lines,
      (Texts{"15 lumo_tcp|Network address 302010a", "15 lumo_tcp|Port 0x2404 in network order",
             "15 lumo_tcp|Receive timeout(on dbs side) 100 sec",
             "15 lumo_tcp|Send timeout(on dbs side) 30 sec", "15 lumo_tcp|Connect timeout 10 sec",
             "15 lumo_tcp|'TcpInitLink' Leave SUCCESS"}));
}

TEST_F(TcpAddress, ANameThatDoesNotResolveMayBeANumber) {
  for (const char* text : {"127.0.0.1", "0x7f.0.0.1", "127.1", "0x7f000001", "2130706433"}) {
    const CapturedLog log;
    ASSERT_EQ(Init(text), 0) << text;
    EXPECT_EQ(Data().Address, static_cast<std::int32_t>(htonl(INADDR_LOOPBACK))) << text;
    log.ExpectOnce("15 lumo_tcp|Network address 0x100007f");
  }
}

TEST_F(TcpAddress, AHostThatIsNoAddressIsRefused) {
  ExpectRefused("no_such_host 1060", "'no_such_' is not a valid tcp address");
  ExpectRefused("1.2.3.4.5", "'1.2.3.4.' is not a valid tcp address");
  ExpectRefused("ab", "'ab' is not a valid tcp address");
}

TEST_F(TcpAddress, TheAllOnesAddressIsRefused) {
  ExpectRefused("255.255.255.255", "'255.255.' is not a valid tcp address");
}

TEST_F(TcpAddress, AnEmptyHostIsRefused) {
  ExpectRefused("", "Tcp address is empty");
  ExpectRefused(" \t\n", "Tcp address is empty");
}

TEST_F(TcpAddress, NoTextAtAllIsRefusedAtLevelFour) {
  const CapturedLog log(4);
  EXPECT_EQ(TcpInitLink("test", __LINE__, Node, nullptr), 1);
  log.ExpectOnce("4 lumo_tcp|NULL nodetab string");
  EXPECT_EQ(Node->DriverData, nullptr);
  const CapturedLog quiet(kLogDriver);
  EXPECT_EQ(TcpInitLink("test", __LINE__, Node, nullptr), 1);
  EXPECT_EQ(quiet.Text(), "");
}

TEST_F(TcpAddress, WithoutMemoryTheResultIsThree) {
  char address[] = "";  // the memory is asked for before the host is looked at
  CapturedStderr log;
  EXPECT_EQ(WithoutMemory([&] { return TcpInitLink("test", __LINE__, Node, address); }), 3);
  EXPECT_EQ(log.Text(), "lumo_tcp:Memory for TCP link allocation error\n");
  EXPECT_EQ(Node->DriverData, nullptr);
}

// Connecting

TEST_F(TcpDriver, AConnectSetsTheSocketUpAndWaitsForIt) {
  Connecting("5 30 10");
  const CapturedLog log;
  ConnectAndWait();
  const int fd = Data().Socket;
  EXPECT_EQ(Node->State, kLinkConnecting);
  EXPECT_EQ(Data().ConnectCount, 6);
  EXPECT_EQ(LinkOfSocket(fd), Node);
  EXPECT_TRUE(IsWritten(fd));
  EXPECT_FALSE(IsRead(fd));
  EXPECT_TRUE(fcntl(fd, F_GETFL, 0) & O_NONBLOCK);
  EXPECT_EQ(SocketOption(fd, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(SocketOption(fd, SOL_SOCKET, SO_SNDBUF), 2 * 8188);  // the system doubles it
  EXPECT_EQ(SocketOption(fd, SOL_SOCKET, SO_RCVBUF), 2 * 8188);
  const std::string number = std::to_string(fd);
  log.ExpectInOrder({"15 lumo_tcp|Connect link \"SRV\"", "15 lumo_tcp|SET_NOBLOCK_MODE " + number,
                     "15 lumo_tcp|SET_SOCKET_BUFFERS " + number,
                     "15 lumo_tcp|SET_NO_DELAY_MODE " + number, "15 lumo_tcp|before connect()",
                     "15 lumo_tcp|REGISTER_SOCKET_FOR_THE_LINK " + number + ", SRV",
                     "15 lumo_tcp|REGISTER_SOCKET_FOR_WRITE_EVENT " + number});
}

TEST_F(TcpDriver, ACompletedConnectAnnouncesItsTimeouts) {
  ConnectAndWait("5 30 10");
  const int fd = Data().Socket;
  const CapturedLog log;
  EXPECT_EQ(ReadyForWrite(), 0);
  EXPECT_EQ(Node->State, kLinkConnected);
  EXPECT_FALSE(IsWritten(fd));
  EXPECT_TRUE(IsRead(fd));
  EXPECT_FALSE(fcntl(fd, F_GETFL, 0) & O_NONBLOCK);
  EXPECT_EQ(Data().AliveCount, 50);
  EXPECT_EQ(Data().ReceiveCount, 16);
  EXPECT_EQ(Packets(ReceiveAll(FarEnd)),
            (std::vector<ControlWords>{{8, 0, 5}, {8, 1, 0x001E5555}}));
  log.ExpectInOrder({"15 lumo_tcp|SET_BLOCK_MODE " + std::to_string(fd),
                     "15 lumo_tcp|Prepare send ReceiveTimeout",
                     "15 lumo_tcp|Send CONNECTIONINFO btPktType = 0, dwParam = 5",
                     "15 lumo_tcp|Prepare send SendTimeout",
                     "15 lumo_tcp|Send CONNECTIONINFO btPktType = 1, dwParam = 1987925"});
  EXPECT_EQ(log.Count("15 lumo_tcp|Neeed Send 12 byte of the CONNECTIONINFO"), 2);
}

TEST_F(TcpDriver, WithoutTimeoutsNothingIsAnnounced) {
  ConnectAndWait("0 0 0");
  EXPECT_EQ(Data().ConnectCount, 1);
  EXPECT_EQ(ReadyForWrite(), 0);
  EXPECT_EQ(Node->State, kLinkConnected);
  EXPECT_EQ(ReceiveAll(FarEnd), "");
}

TEST_F(TcpDriver, ASocketThatCannotBeMadeGives4001) {
  ASSERT_EQ(Init("dbhost"), 0);
  ExpectNoConnect({SystemCall::Socket, EMFILE}, 4001, EMFILE,
                  "3 lumo_tcp|tcpip. Connect. socket(PF_INET..) return bad status. errno = 24");
}

TEST_F(TcpDriver, Descriptor255IsRefusedAndClosed) {
  Connecting("0 0 0");
  const CapturedLog log;  // opens descriptors of its own
  std::vector<int> held;
  do held.push_back(open("/dev/null", O_RDONLY));
  while (held.back() < 253 && held.back() >= 0);
  EXPECT_EQ(Connect(), 0);  // number 254 still serves
  EXPECT_EQ(Data().Socket, 254);
  EXPECT_EQ(LinkOfSocket(254), Node);
  DisconnectLink("test", __LINE__, Node, 0, 0);
  held.push_back(open("/dev/null", O_RDONLY));
  ASSERT_EQ(held.back(), 254);
  EXPECT_EQ(Connect(), 4052);
  EXPECT_FALSE(IsOpen(255));
  log.ExpectOnce("3 lumo_tcp|tcpip. Connect. socket(PF_INET..) return too big value = 255");
  log.ExpectOnce("15 lumo_tcp|'TcpConnectLink' Leave FAILED too many connections");
  EXPECT_EQ(Node->State, kLinkDisconnected);
  for (const int fd : held) close(fd);
}

TEST_F(TcpDriver, ADescriptorModeThatCannotBeSetGives4002AndClosesIt) {
  ASSERT_EQ(Init("dbhost"), 0);
  const int fd =
      ExpectNoConnect({SystemCall::Fcntl, EPERM, 1}, 4002, EPERM,
                      "15 lumo_tcp| fcntl(...F_SETFL, O_NONBLOCK) return bad status. errno = 1");
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(TcpDriver, AnOptionThatCannotBeSetGives4002AndLeavesTheSocketOpen) {
  ASSERT_EQ(Init("dbhost"), 0);
  const struct {
    int Level, Name;
    const char* Line;
  } options[] = {
      {SOL_SOCKET, SO_SNDBUF, "15 lumo_tcp|setsockopt(SO_SNDBUF) failed. Errno 12"},
      {SOL_SOCKET, SO_RCVBUF, "15 lumo_tcp|setsockopt(SO_RCVBUF) failed. Errno 12"},
      {IPPROTO_TCP, TCP_NODELAY, "15 lumo_tcp|setsockopt(...TCP_NODELAY...) failed. Errno 12"}};
  for (const auto& option : options) {
    const CapturedLog log;
    const int next = NextDescriptor();
    const FailingSocketOption failing(option.Level, option.Name, ENOMEM);
    EXPECT_EQ(Connect(), 4002);
    EXPECT_EQ(errno, ENOMEM);
    int written = 0;
    for (const auto& other : options) written += log.Count(other.Line);
    EXPECT_EQ(written, 1);
    log.ExpectOnce(option.Line);
    EXPECT_EQ(Node->State, kLinkDisconnected);
    EXPECT_EQ(close(next), 0);
  }
}

// A peer would wait before it sends a segment that is larger than the agent's small window.
TEST_F(TcpDriver, SegmentsAreNoLargerThanTheWindow) {
  ConnectAndWait("0 0 0");
  EXPECT_LE(SocketOption(Data().Socket, IPPROTO_TCP, TCP_MAXSEG), 4094);
  EXPECT_LE(SocketOption(FarEnd, IPPROTO_TCP, TCP_MAXSEG), 4094);
}

TEST_F(TcpDriver, ASegmentSizeThatIsRefusedChangesNothing) {
  Connecting("0 0 0");
  const FailingSocketOption failing(IPPROTO_TCP, TCP_MAXSEG, EINVAL);
  ConnectAndWait();
  EXPECT_EQ(Node->State, kLinkConnecting);
}

TEST_F(TcpDriver, AConnectThatFailsAtOnceGives4006AndClosesTheSocket) {
  ASSERT_EQ(Init("dbhost"), 0);
  const int fd = ExpectNoConnect({SystemCall::Connect, ENETUNREACH}, 4006, ENETUNREACH,
                                 "3 lumo_tcp|tcpip. connect(...) return bad status. errno = 101");
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(TcpDriver, AnInterruptedConnectIsRepeated) {
  Connecting("0 0 0");
  const FailingSystemCall interrupted(SystemCall::Connect, EINTR, 0, 2);
  ConnectAndWait();
  EXPECT_EQ(interrupted.Calls(), 3);
  EXPECT_EQ(Node->State, kLinkConnecting);
}

TEST_F(TcpDriver, ReadyForWriteNeedsAUsableSocket) {
  ASSERT_EQ(Init("dbhost"), 0);
  const struct {
    int Socket;
    std::uint8_t State;
  } bad[] = {{-1, kLinkConnecting}, {255, kLinkConnecting}, {9, kLinkDisconnected}};
  for (const auto& [socket, state] : bad) {
    Data().Socket = socket;
    Node->State = state;
    const CapturedLog log;
    EXPECT_EQ(ReadyForWrite(), 4052);
    log.ExpectOnce("15 lumo_tcp|Argument of ReadyTcpForWrite is bad");
    log.ExpectOnce("15 lumo_tcp|'TcpReadyForWrite' Leave FAILED inv arg");
  }
  Data().Socket = -1;
  Node->State = kLinkDisconnected;
}

TEST_F(TcpDriver, ARefusedConnectGives4006WithItsError) {
  Connecting("0 0 0");
  Server.reset();
  ASSERT_EQ(Connect(), 0);
  const int fd = Data().Socket;
  pollfd ready{fd, POLLOUT, 0};
  ASSERT_EQ(poll(&ready, 1, kPatienceMs), 1);
  const CapturedLog log(kLogDriver);
  errno = 0;
  EXPECT_EQ(ReadyForWrite(), 4006);
  EXPECT_EQ(errno, ECONNREFUSED);
  log.ExpectOnce(
      "3 lumo_tcp|TCPIP.Asyncrounus connection failed. Call:getsockopt(SO_ERROR).Status 111. errno "
      "0");
  EXPECT_EQ(Node->State, kLinkConnecting);
  EXPECT_FALSE(IsWritten(fd)) << "it would be taken for connected";
}

TEST_F(TcpDriver, AnErrorThatCannotBeReadGives4006) {
  Connected("0 0 0");
  Node->State = kLinkConnecting;
  const CapturedLog log(kLogDriver);
  close(Data().Socket);
  EXPECT_EQ(ReadyForWrite(), 4006);
  EXPECT_EQ(errno, 0);
  log.ExpectOnce(
      "3 lumo_tcp|TCPIP.Asyncrounus connection failed. Call:getsockopt(SO_ERROR).Status 0. errno "
      "9");
}

TEST_F(TcpDriver, ABlockingModeThatCannotBeSetGives4002AndClosesTheSocket) {
  ConnectAndWait("0 0 0");
  const int fd = Data().Socket;
  const CapturedLog log;
  EXPECT_EQ(With({SystemCall::Fcntl, EPERM, 1}, [&] { return ReadyForWrite(); }), 4002);
  EXPECT_EQ(errno, EPERM);
  ExpectReleased(fd);
  log.ExpectOnce("15 lumo_tcp| fcntl(...F_SETFL, ~O_NONBLOCK) return bad status. errno = 1");
}

TEST_F(TcpDriver, AnAnnouncementThatCannotBeSentGives4007) {
  const char* const words[] = {"15 lumo_tcp|'TcpReadyForWrite' Leave FAILED send connectioninfo",
                               "15 lumo_tcp|'TcpReadyForWrite' Leave FAILED send connection info"};
  for (int successes = 0; successes < 2; ++successes) {
    ConnectAndWait("5 30 10");
    const CapturedLog log;
    EXPECT_EQ(With({SystemCall::Send, EPIPE, successes}, [&] { return ReadyForWrite(); }), 4007);
    EXPECT_EQ(errno, EPIPE);
    log.ExpectOnce("3 lumo_tcp|TCP.Send the CONNECTIONINFO fail. Call:send. errno 32");
    log.ExpectOnce(words[successes]);
    DisconnectLink("test", __LINE__, Node, 0, 0);
    CloseFarEnd();
  }
}

// A failing flush takes the link down itself; the operation has succeeded all the same.
TEST_F(TcpDriver, ReadyForWriteOnAConnectedLinkSendsWhatWaitsWhateverComesOfIt) {
  Connected("0 0 0");
  const ClientMessage msg = MakeRequest(getpid(), -1, 1);
  Save(msg, Node);
  EXPECT_EQ(ReadyForWrite(), 0);
  EXPECT_EQ(ReceiveAll(FarEnd).size(), 108u);
  Save(msg, Node);
  CloseFarEnd();
  EXPECT_EQ(ReadyForWrite(), 0);
  EXPECT_EQ(Node->State, kLinkDisconnected);
}

}  // namespace
