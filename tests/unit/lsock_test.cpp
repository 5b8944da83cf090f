// The driver of the local kernel's socket, with a kernel played by the test.
#include "protocols/lsock.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <thread>

#include "core/mailbox.h"
#include "core/status.h"
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
    link_ = MakeLink("LOC", &protocol_);
    ASSERT_EQ(LOCALSInitProtocol("test", 1, &protocol_, "LOCALS", nullptr), 0);
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

  void InitLink() { ASSERT_EQ(Init(std::to_string(kMbx)), 0); }
  void InitAndListen() {
    InitLink();
    Listen();
  }
  // A connect to a kernel that accepts and greets: the status.
  int ConnectToKernel(std::size_t greeting = 60) {
    std::thread kernel([this, greeting] {
      kernel_ = accept(listener_, nullptr, nullptr);
      Write(std::string(greeting, 'g'));
    });
    const int status = Connect();
    kernel.join();
    return status;
  }
  void ConnectToGreetingKernel(std::size_t greeting = 60) {
    InitAndListen();
    ASSERT_EQ(ConnectToKernel(greeting), 0);
  }
  // What comes breaks the link.
  void ExpectBroken(const std::string& bytes) {
    Write(bytes);
    EXPECT_EQ(Read(), kStatusReceive);
    EXPECT_EQ(link_->State, kLinkDisconnected);
  }
  int Send(ClientMessage* msg) { return LSockSendToNetwork("test", 1, link_, msg); }

  void Write(const std::string& bytes) { SendAll(kernel_, bytes); }

  // The wire form of a message as the kernel sends it.
  static std::string Frame(ClientMessage msg) {
    msg.Length += 4;
    return WireBytes(msg, 0, msg.Length);
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
  InitLink();
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
  EXPECT_TRUE(IsRead(Data().Socket) && LinkOfSocket(Data().Socket) == link_);
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
  InitAndListen();
  g_DbcI.ExitStatus = -1;
  std::thread kernel([this] { close(accept(listener_, nullptr, nullptr)); });
  EXPECT_EQ(Connect(), kStatusConnect);
  kernel.join();
  EXPECT_EQ(link_->State, kLinkDisconnected);
}

TEST_F(LocalSocket, SocketThatCannotBeMadeFailsTheConnect) {
  InitLink();
  const CapturedLog stderrText(kLogError);
  FailingSystemCall failing(SystemCall::Socket, EMFILE);
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_TRUE(stderrText.Contains("Call socket(PF_UNIX...) failed. errno = 24"));
}

TEST_F(LocalSocket, RefusedModeClosesTheSocket) {
  InitAndListen();
  // Of the calls for the two modes, each gets and sets: let one after the other fail.
  for (const int successes : {0, 1, 2, 3}) {
    const int expected = NextDescriptor();
    EXPECT_EQ(With({SystemCall::Fcntl, EBADF, successes, 1}, [&] { return ConnectToKernel(); }),
              kStatusOption)
        << successes;
    Close(&kernel_);
    EXPECT_EQ(NextDescriptor(), expected) << successes;
  }
}

TEST_F(LocalSocket, RefusedBufferSizeLeavesTheSocketOpen) {
  InitAndListen();
  for (const int successes : {0, 1}) {
    const CapturedLog stderrText;
    EXPECT_EQ(
        With({SystemCall::SetSockOpt, ENOBUFS, successes, 1}, [&] { return ConnectToKernel(); }),
        kStatusOption);
    EXPECT_TRUE(stderrText.Contains(successes == 0 ? "Leave FAILED setsockopt(SO_SNDBUF)\n"
                                                   : "Leave FAILED setsockopt(SO_RCVBUF)\n"));
    char byte;
    EXPECT_EQ(recv(kernel_, &byte, 1, MSG_DONTWAIT), -1);  // 0 would tell of a closed peer
    EXPECT_EQ(errno, EAGAIN);
    Close(&kernel_);
  }
}

TEST_F(LocalSocket, DescriptorBeyondTheTableIsRefusedAndClosed) {
  InitLink();
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
  ASSERT_EQ(Send(&msg), 0);
  EXPECT_EQ(msg.Length, expected.size());
  EXPECT_EQ(ReceiveAll(kernel_), expected);
}

TEST_F(LocalSocket, SendingTwiceAddsFourTwice) {
  ConnectToGreetingKernel();
  ClientMessage msg = MakeRequest(77, 9, 5);
  EXPECT_EQ(Send(&msg), 0);
  EXPECT_EQ(Send(&msg), 0);
  EXPECT_EQ(msg.Length, kEmptyLength + 8);
}

TEST_F(LocalSocket, SendingToAKernelThatHasGoneFails) {
  ConnectToGreetingKernel();
  Close(&kernel_);
  ClientMessage msg = MakeRequest(77, 9, 5);
  EXPECT_EQ(Send(&msg), kStatusSend);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(LocalSocket, WhatTheKernelDoesNotTakeIsKept) {
  ConnectToGreetingKernel();
  ClientMessage msg = MakeRequest(77, 9, 5, {std::string(4000, 'x')});
  for (int i = 0; i < 200 && UnsentBytes(Data().Socket) == 0; ++i) {
    msg.Length = msg.TrailerOffset + 52U;
    ASSERT_EQ(Send(&msg), 0);
  }
  EXPECT_GT(UnsentBytes(Data().Socket), 0U);
  EXPECT_TRUE(IsWritten(Data().Socket));
}

TEST_F(LocalSocket, AnswerReachesTheClientOfItsRequest) {
  ConnectToGreetingKernel();
  Note(link_, 77, 9, 5);
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
  Note(link_, 77, 9, 5);
  const std::string frame = Frame(MakeRequest(77, 0, 5, {"answer"}));
  std::size_t sent = 0;
  for (const std::size_t end : {std::size_t{2}, std::size_t{4}, std::size_t{70}, frame.size()}) {
    EXPECT_TRUE(Answers.empty());
    Write(frame.substr(sent, end - sent));
    EXPECT_EQ(Read(), 0);
    sent = end;
  }
  EXPECT_EQ(Answers.size(), 1U);
  EXPECT_EQ(link_->State, kLinkConnected);
}

TEST_F(LocalSocket, KernelThatHangsUpBreaksTheLinkWithoutASystemError) {
  ConnectToGreetingKernel();
  const int socket = Data().Socket;
  Note(link_, getpid(), client_.Socket(), 5);
  Close(&kernel_);
  EXPECT_EQ(Read(), kStatusReceive);
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(LinkOfSocket(socket), nullptr);
  EXPECT_FALSE(IsRead(socket));
  EXPECT_EQ(client_.Received(), Texts{"5: 4008, 0"});
}

TEST_F(LocalSocket, FrameWithoutABodyCountsAsAHangUp) {
  ConnectToGreetingKernel();
  const CapturedLog stderrText;
  ExpectBroken(BytesOf(4));
  EXPECT_TRUE(stderrText.Contains("Local tavrin message len is 0 byte"));
  EXPECT_TRUE(stderrText.Contains("Tavrin socket is down. Call:recv"));
}

TEST_F(LocalSocket, LengthBelowItsOwnWordBreaksTheLink) {
  ConnectToGreetingKernel();
  Note(link_, getpid(), client_.Socket(), 5);
  ExpectBroken(BytesOf(3));
  EXPECT_EQ(client_.Received(), Texts{"5: 4008, 0"});
}

TEST_F(LocalSocket, FrameBeyondTheMessageAreaBreaksTheLink) {
  ConnectToGreetingKernel();
  ExpectBroken(BytesOf(8193));
}

TEST_F(LocalSocket, LargestFrameIsPassedOn) {
  ConnectToGreetingKernel();
  Note(link_, 77, 9, 5);
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
  ExpectBroken(frame.replace(kStringsAt, 2, "\xFF\xFF"));
}

TEST_F(LocalSocket, DeathOfAClientIsTold) {
  ConnectToGreetingKernel();
  ASSERT_EQ(LSockClientDeadEvent("test", 1, link_, 0x01020304), 0);
  std::string expected(136, '\0');
  const std::string pid("\4\3\2\1", 4);
  expected[0] = static_cast<char>(136);
  expected.replace(4, 4, pid);
  expected.replace(20, 4, "CKIL");
  expected[52] = 28;
  expected.replace(54, 4, pid);
  expected.replace(88, 4, pid);
  expected.replace(100, 2, "\xFF\xFF");
  EXPECT_EQ(ReceiveAll(kernel_), expected);
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
