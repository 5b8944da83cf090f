// A link of the TCP driver for the tests of its operations.
#pragma once
#include <arpa/inet.h>
#include <poll.h>

#include <array>
#include <optional>

#include "core/status.h"
#include "protocols/lumo_tcp.h"
#include "tests/support/node.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/system_faults.h"

inline constexpr int kPatienceMs = 15000;

// A control packet's three words.
using ControlWords = std::array<std::uint32_t, 3>;

inline int SocketOption(int fd, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(fd, level, name, &value, &size);
  return value;
}

inline std::vector<ControlWords> Packets(const std::string& bytes) {
  std::vector<ControlWords> packets(bytes.size() / sizeof(ControlWords));
  EXPECT_EQ(bytes.size() % sizeof(ControlWords), 0u);
  if (!packets.empty()) std::memcpy(packets.data(), bytes.data(), bytes.size());
  return packets;
}

class TcpDriver : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    ASSERT_EQ(TCPIPInitProtocol("test", __LINE__, &Driver, "TCPIP", &g_DbcI.SocketSets), 0);
    Node = g_DbcI.LinkList = g_DbcI.FirstLink = g_DbcI.DefaultLink = MakeLink("SRV", &Driver);
  }
  void TearDown() override {
    if (FarEnd >= 0) close(FarEnd);
    AgentTest::TearDown();
  }

  int Init(const char* text) {
    char address[256];
    std::snprintf(address, sizeof address, "%s", text);
    std::free(Node->DriverData);
    Node->DriverData = nullptr;
    const OnlyHost host("dbhost", "10.1.2.3");
    return TcpInitLink("test", __LINE__, Node, address);
  }
  TcpLinkData& Data() const { return *static_cast<TcpLinkData*>(Node->DriverData); }

  // A connected link; the test holds the far end of its stream.
  void Connected(const char* timeouts) {
    ASSERT_EQ(Init((std::string("dbhost 1060 ") + timeouts).c_str()), 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    FarEnd = ends[0];
    Data().Socket = ends[1];
    Node->State = kLinkConnected;
    REGISTER_SOCKET_FOR_THE_LINK("test", __LINE__, ends[1], Node);
    REGISTER_SOCKET_FOR_READ_EVENT("test", __LINE__, ends[1]);
  }
  // A link whose connect has begun, to a server of ours.
  void Connecting(const char* timeouts) {
    Server.emplace();
    const std::string text = "127.0.0.1 " + std::to_string(Server->Port()) + " ";
    ASSERT_EQ(Init((text + timeouts).c_str()), 0);
  }
  int Connect() { return TcpConnectLink("test", __LINE__, Node); }
  // A connect during which the system fails so comes to this; the number that its descriptor had.
  int ExpectNoConnect(const FailingSystemCall&, int status, int error, const char* line) {
    const CapturedLog log;  // opens descriptors of its own
    const int fd = NextDescriptor();
    EXPECT_EQ(Connect(), status);
    EXPECT_EQ(errno, error);
    log.ExpectOnce(line);
    EXPECT_EQ(Node->State, kLinkDisconnected);
    return fd;
  }
  // Connects the link up to the point where it is ready for write.
  void ConnectAndWait(const char* timeouts) {
    Connecting(timeouts);
    ConnectAndWait();
  }
  void ConnectAndWait() {
    ASSERT_EQ(Connect(), 0);
    pollfd ready{Data().Socket, POLLOUT, 0};
    ASSERT_EQ(poll(&ready, 1, kPatienceMs), 1);
    ASSERT_TRUE(Server->Accept());
    FarEnd = dup(Server->Socket());
    Server.reset();
  }
  void CloseFarEnd() {
    close(FarEnd);
    FarEnd = -1;
  }
  int ReadyForWrite() { return TcpReadyForWrite("test", __LINE__, Node); }
  int Tick() { return TcpTimerEvent("test", __LINE__, Node); }
  void QuietTicks(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(Tick(), 0) << "at tick " << i + 1;
  }
  // The link's descriptor is gone.
  void ExpectReleased(int fd) const {
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(Data().Socket, -1);
    EXPECT_EQ(LinkOfSocket(fd), nullptr);
    EXPECT_FALSE(IsRead(fd) || IsWritten(fd));
  }

  Protocol Driver = {};
  Link* Node = nullptr;
  int FarEnd = -1;
  std::optional<test::Node> Server;  // while it listens
};
