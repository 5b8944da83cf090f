// The driver of the local kernel's socket, with a kernel played by the test.
#include "protocols/lsock.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "core/mailbox.h"
#include "core/status.h"
#include "core/stream.h"
#include "tests/support/agent.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"
#include "tests/unit/system_faults.h"

namespace {

constexpr int kMbx = 4711;

class LocalSocket : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    setenv("TAVRIN_TMP", directory_.Path().c_str(), 1);
    link_ = static_cast<Link*>(std::calloc(1, sizeof(Link)));
    ASSERT_EQ(LOCALSInitProtocol("test", 1, &protocol_, "LOCALS", nullptr), 0);
    link_->Protocol = &protocol_;
    link_->Next = link_;
    std::snprintf(link_->NodeName, sizeof link_->NodeName, "LOC");
  }

  void TearDown() override {
    if (link_->DriverData) LSockUninitLink("test", 1, link_);
    std::free(link_);
    Close(&listener_);
    Close(&kernel_);
    unsetenv("TAVRIN_TMP");
    AgentTest::TearDown();
  }

  static void Close(int* fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }

  int Init(const std::string& text) {
    std::string copy = text;
    return LSockInitLink("test", 1, link_, copy.data());
  }
  int Connect() {
    errno = 0;
    return LSockConnectLink("test", 1, link_);
  }
  int Read() { return LSockReadyForRead("test", 1, link_); }
  const LSockLinkData& Data() { return *static_cast<LSockLinkData*>(link_->DriverData); }

  void Listen() {
    MailboxAddress address;
    MakeMailboxAddress(&address, kMbx);
    listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(address.Bytes), address.Length), 0);
    ASSERT_EQ(listen(listener_, 4), 0);
  }

  // A kernel that greets, and the link connected to it.
  void ConnectToGreetingKernel(std::size_t greeting = 60) {
    ASSERT_EQ(Init(std::to_string(kMbx)), 0);
    Listen();
    std::thread kernel([this, greeting] {
      kernel_ = accept(listener_, nullptr, nullptr);
      Write(std::string(greeting, 'g'));
    });
    const int status = Connect();
    kernel.join();
    ASSERT_EQ(status, 0);
  }

  int Greet() {
    const int fd = accept(listener_, nullptr, nullptr);
    const char greeting[60] = {};
    EXPECT_EQ(send(fd, greeting, sizeof greeting, MSG_NOSIGNAL), 60);
    return fd;
  }
  static int LowestFree() {
    const int fd = dup(0);
    close(fd);
    return fd;
  }

  void Write(const std::string& bytes) {
    ASSERT_EQ(send(kernel_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }

  // The wire form of a message as the kernel sends it.
  static std::string Frame(ClientMessage msg) {
    msg.Length += 4;
    return std::string(reinterpret_cast<const char*>(Wire(&msg)), msg.Length);
  }

  void AddMsgInfo(std::int32_t task, std::uint16_t astInd, int socket) {
    const MsgInfo info = {.Link = link_, .TaskName = task, .Socket = socket, .AstInd = astInd};
    ASSERT_EQ(SaveMsgInfo("test", 1, &info), 0);
  }

  bool Registered(int fd) {
    return FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet) && LinkOfSocket(fd) == link_;
  }

  Protocol protocol_ = {};
  Link* link_ = nullptr;
  const test::TemporaryDirectory directory_;
  int listener_ = -1;
  int kernel_ = -1;
  const FakeClient client_;
};

TEST_F(LocalSocket, ProtocolTakesItsTwoNamesAndNoOther) {
  Protocol protocol = {};
  EXPECT_EQ(LOCALSInitProtocol("test", 1, &protocol, "LOCALI", nullptr), -1);
  EXPECT_EQ(protocol.Name, nullptr);
  EXPECT_EQ(LOCALSInitProtocol("test", 1, &protocol, "LOCAL", nullptr), 0);
  EXPECT_STREQ(protocol.Name, "LOCALS");
  EXPECT_EQ(protocol.ClientDeadEvent, LSockClientDeadEvent);
}

TEST_F(LocalSocket, AddressIsTheFirstWordInDecimal) {
  ASSERT_EQ(Init("  \t20562  more words"), 0);
  EXPECT_EQ(Data().Mbx, 20562);
  EXPECT_EQ(Data().Socket, -1);
}

TEST_F(LocalSocket, NegativeAddressIsAccepted) {
  ASSERT_EQ(Init("-5"), 0);
  EXPECT_EQ(Data().Mbx, -5);
}

TEST_F(LocalSocket, AddressOfZeroIsRefused) {
  for (const char* text : {"0", "word", "", "   ", "0x10"}) {
    EXPECT_EQ(Init(text), -1) << text;
    EXPECT_EQ(link_->DriverData, nullptr);
  }
}

TEST_F(LocalSocket, AddressNeedsMemory) {
  char text[] = "1";
  FailingAllocations failing;
  EXPECT_EQ(LSockInitLink("test", 1, link_, text), -1);
}

TEST_F(LocalSocket, ConnectWithoutAKernelFailsAndMakesTheDirectoryUsable) {
  ASSERT_EQ(Init(std::to_string(kMbx)), 0);
  chmod(directory_.Path().c_str(), 0700);
  const CapturedLog stderrText;
  EXPECT_EQ(Connect(), kStatusConnect);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(stderrText.Contains("Leave FAILED connect to tavrin MBX=%d. Errno = %d\n"));
  struct stat status;
  ASSERT_EQ(stat(directory_.Path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0777U);
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, ConnectWithAPathTooLongFailsWithTheSystemsWord) {
  setenv("TAVRIN_TMP", std::string(200, 'd').c_str(), 1);
  ASSERT_EQ(Init("1"), 0);
  EXPECT_EQ(Connect(), kStatusConnect);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(LocalSocket, ConnectDiscardsTheGreetingAndRegisters) {
  ConnectToGreetingKernel(200);
  EXPECT_EQ(link_->State, kLinkConnected);
  EXPECT_TRUE(Registered(Data().Socket));
  EXPECT_EQ(fcntl(Data().Socket, F_GETFL) & O_NONBLOCK, 0);
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(Data().Socket, SOL_SOCKET, SO_SNDBUF, &size, &length);
  EXPECT_EQ(size, 2 * 8188);
  char byte;
  EXPECT_EQ(recv(Data().Socket, &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LocalSocket, StopRequestEndsTheGreetingOfAKernelThatHungUp) {
  ASSERT_EQ(Init(std::to_string(kMbx)), 0);
  Listen();
  g_DbcI.ExitStatus = -1;
  std::thread kernel([this] { close(accept(listener_, nullptr, nullptr)); });
  EXPECT_EQ(Connect(), kStatusConnect);
  kernel.join();
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, SocketThatCannotBeMadeFailsTheConnect) {
  ASSERT_EQ(Init(std::to_string(kMbx)), 0);
  const CapturedLog stderrText(kLogError);
  FailingSystemCall failing(SystemCall::Socket, EMFILE);
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_TRUE(stderrText.Contains("Call socket(PF_UNIX...) failed. errno = 24"));
}

TEST_F(LocalSocket, RefusedModeClosesTheSocket) {
  ASSERT_EQ(Init(std::to_string(kMbx)), 0);
  Listen();
  // Of the calls for the two modes, each gets and sets: let one after the other fail.
  for (const int successes : {0, 1, 2, 3}) {
    const int expected = LowestFree();
    std::thread kernel([this] { kernel_ = Greet(); });
    int status;
    {
      FailingSystemCall failing(SystemCall::Fcntl, EBADF, successes, 1);
      status = Connect();
    }
    kernel.join();
    Close(&kernel_);
    EXPECT_EQ(status, kStatusOption) << successes;
    EXPECT_EQ(LowestFree(), expected) << successes;
  }
}

TEST_F(LocalSocket, RefusedBufferSizeLeavesTheSocketOpen) {
  ASSERT_EQ(Init(std::to_string(kMbx)), 0);
  Listen();
  for (const int successes : {0, 1}) {
    const CapturedLog stderrText;
    std::thread kernel([this] { kernel_ = Greet(); });
    int status;
    {
      FailingSystemCall failing(SystemCall::SetSockOpt, ENOBUFS, successes, 1);
      status = Connect();
    }
    kernel.join();
    EXPECT_EQ(status, kStatusOption);
    EXPECT_TRUE(stderrText.Contains(successes == 0 ? "Leave FAILED setsockopt(SO_SNDBUF)\n"
                                                   : "Leave FAILED setsockopt(SO_RCVBUF)\n"));
    char byte;
    EXPECT_EQ(recv(kernel_, &byte, 1, MSG_DONTWAIT), -1);  // 0 would tell of a closed peer
    EXPECT_EQ(errno, EAGAIN);
    Close(&kernel_);
  }
}

TEST_F(LocalSocket, DescriptorBeyondTheTableIsRefusedAndClosed) {
  ASSERT_EQ(Init(std::to_string(kMbx)), 0);
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GT(limit.rlim_cur, 300U);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < kMaxDescriptors - 1) fillers.push_back(dup(0));
  EXPECT_EQ(Connect(), kStatusDescriptor);
  EXPECT_EQ(errno, 0);
  const int next = dup(0);
  EXPECT_EQ(next, kMaxDescriptors);
  close(next);
  for (const int fd : fillers) close(fd);
}

TEST_F(LocalSocket, RequestGoesOutAsItStandsWithItsFullLength) {
  ConnectToGreetingKernel();
  ClientMessage msg = MakeRequest(77, 9, 5, {"ab", "c"});
  const std::string expected = Frame(msg);
  ASSERT_EQ(LSockSendToNetwork("test", 1, link_, &msg), 0);
  EXPECT_EQ(msg.Length, expected.size());
  std::string got(expected.size(), '\0');
  EXPECT_EQ(recv(kernel_, got.data(), got.size(), MSG_WAITALL),
            static_cast<ssize_t>(expected.size()));
  EXPECT_EQ(got, expected);
}

TEST_F(LocalSocket, SendingTwiceAddsFourTwice) {
  ConnectToGreetingKernel();
  ClientMessage msg = MakeRequest(77, 9, 5);
  EXPECT_EQ(LSockSendToNetwork("test", 1, link_, &msg), 0);
  EXPECT_EQ(LSockSendToNetwork("test", 1, link_, &msg), 0);
  EXPECT_EQ(msg.Length, kEmptyLength + 8);
}

TEST_F(LocalSocket, SendingToAKernelThatHasGoneFails) {
  ConnectToGreetingKernel();
  Close(&kernel_);
  ClientMessage msg = MakeRequest(77, 9, 5);
  EXPECT_EQ(LSockSendToNetwork("test", 1, link_, &msg), kStatusSend);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(LocalSocket, WhatTheKernelDoesNotTakeIsKept) {
  ConnectToGreetingKernel();
  ClientMessage msg = MakeRequest(77, 9, 5, {std::string(4000, 'x')});
  for (int i = 0; i < 200 && UnsentBytes(Data().Socket) == 0; ++i) {
    msg.Length = msg.TrailerOffset + 52U;
    ASSERT_EQ(LSockSendToNetwork("test", 1, link_, &msg), 0);
  }
  EXPECT_GT(UnsentBytes(Data().Socket), 0U);
  EXPECT_TRUE(FD_ISSET(Data().Socket, &g_DbcI.SocketSets.WriteSet));
}

TEST_F(LocalSocket, AnswerReachesTheClientOfItsRequest) {
  ConnectToGreetingKernel();
  AddMsgInfo(77, 5, 9);
  Write(Frame(MakeRequest(77, 0, 5, {"answer"})));
  EXPECT_EQ(Read(), 0);
  ASSERT_EQ(Answers.size(), 1U);
  EXPECT_EQ(Answers[0].ClientSocket, 9);
  EXPECT_EQ(Answers[0].TaskName, 77);
  EXPECT_EQ(CountedString(Answers[0], 0), "answer");
  EXPECT_EQ(Answers[0].Length, Answers[0].TrailerOffset + 52U);
}

TEST_F(LocalSocket, AnswerInPiecesIsPutTogether) {
  ConnectToGreetingKernel();
  AddMsgInfo(77, 5, 9);
  const std::string frame = Frame(MakeRequest(77, 0, 5, {"answer"}));
  for (const std::size_t at : {std::size_t{0}, std::size_t{2}, std::size_t{4}, std::size_t{70}}) {
    EXPECT_TRUE(Answers.empty());
    const std::size_t end = at == 0 ? 2 : at == 2 ? 4 : at == 4 ? 70 : frame.size();
    Write(frame.substr(at, end - at));
    EXPECT_EQ(Read(), 0);
  }
  EXPECT_EQ(Answers.size(), 1U);
  EXPECT_EQ(link_->State, kLinkConnected);
}

TEST_F(LocalSocket, KernelThatHangsUpBreaksTheLinkWithoutASystemError) {
  ConnectToGreetingKernel();
  const int socket = Data().Socket;
  AddMsgInfo(getpid(), 5, client_.Socket());
  Close(&kernel_);
  EXPECT_EQ(Read(), kStatusReceive);
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(LinkOfSocket(socket), nullptr);
  EXPECT_FALSE(FD_ISSET(socket, &g_DbcI.SocketSets.ReadSet));
  EXPECT_EQ(client_.Received(), Texts{"5: 4008, 0"});
}

TEST_F(LocalSocket, FrameWithoutABodyCountsAsAHangUp) {
  ConnectToGreetingKernel();
  const CapturedLog stderrText;
  Write(std::string("\4\0\0\0", 4));
  EXPECT_EQ(Read(), kStatusReceive);
  EXPECT_TRUE(stderrText.Contains("Local tavrin message len is 0 byte"));
  EXPECT_TRUE(stderrText.Contains("Tavrin socket is down. Call:recv"));
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, LengthBelowItsOwnWordBreaksTheLink) {
  ConnectToGreetingKernel();
  AddMsgInfo(getpid(), 5, client_.Socket());
  Write(std::string("\3\0\0\0", 4));
  EXPECT_EQ(Read(), kStatusReceive);
  EXPECT_EQ(client_.Received(), Texts{"5: 4008, 0"});
}

TEST_F(LocalSocket, FrameBeyondTheMessageAreaBreaksTheLink) {
  ConnectToGreetingKernel();
  Write(std::string("\1\x20\0\0", 4));  // 8193
  EXPECT_EQ(Read(), kStatusReceive);
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, LargestFrameIsPassedOn) {
  ConnectToGreetingKernel();
  AddMsgInfo(77, 5, 9);
  // 52 bytes before the strings, 3 empty strings, the trailer: the rest is the first string.
  const std::size_t room = kMessageArea - kStringsAt - 3 * 2 - kTrailerSize - 2;
  const std::string frame = Frame(MakeRequest(77, 0, 5, {std::string(room, 'x')}));
  ASSERT_EQ(frame.size(), kMessageArea);
  Write(frame);
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Answers.size(), 1U);
}

TEST_F(LocalSocket, StringsThatLeaveTheAreaBreakTheLink) {
  ConnectToGreetingKernel();
  std::string frame = Frame(MakeRequest(77, 0, 5));
  frame[kStringsAt] = static_cast<char>(0xFF);
  frame[kStringsAt + 1] = static_cast<char>(0xFF);
  Write(frame);
  EXPECT_EQ(Read(), kStatusReceive);
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, DeathOfAClientIsTold) {
  ConnectToGreetingKernel();
  ASSERT_EQ(LSockClientDeadEvent("test", 1, link_, 0x01020304), 0);
  std::string frame(136, '\0');
  ASSERT_EQ(recv(kernel_, frame.data(), frame.size(), MSG_WAITALL), 136);
  std::string expected(136, '\0');
  const std::string pid("\4\3\2\1", 4);
  expected[0] = static_cast<char>(136);
  expected.replace(4, 4, pid);
  expected.replace(20, 4, "CKIL");
  expected[52] = 28;
  expected.replace(54, 4, pid);
  expected.replace(88, 4, pid);
  expected.replace(100, 2, "\xFF\xFF");
  EXPECT_EQ(frame, expected);
}

TEST_F(LocalSocket, DisconnectIsHarmlessTwice) {
  ConnectToGreetingKernel();
  const int socket = Data().Socket;
  EXPECT_EQ(LSockDisconnectLink("test", 1, link_), 0);
  EXPECT_EQ(Data().Socket, socket);
  EXPECT_EQ(fcntl(socket, F_GETFD), -1);
  EXPECT_EQ(LSockDisconnectLink("test", 1, link_), 0);
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, TickAndReadinessForWritingDoNothing) {
  ConnectToGreetingKernel();
  EXPECT_EQ(LSockTimerEvent("test", 1, link_), 0);
  EXPECT_EQ(LSockReadyForWrite("test", 1, link_), 0);
  EXPECT_EQ(link_->State, kLinkConnected);
}

}  // namespace
