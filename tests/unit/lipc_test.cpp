// The driver of the local kernel's queue: the kernel and the clients are played by the test, the
// reader child is a real one.
#include "protocols/lipc.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <optional>

#include "core/mailbox.h"
#include "core/status.h"
#include "protocols/lipc_board.h"
#include "protocols/lipc_queue.h"
#include "protocols/lipc_reader.h"
#include "tests/support/kernel.h"
#include "tests/support/process.h"
#include "tests/support/wait.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"
#include "tests/unit/system_faults.h"

namespace {

using test::WaitFor;

bool Readable(int fd, int timeout = static_cast<int>(test::kPatience.count())) {
  pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
  return poll(&waiting, 1, timeout) == 1;
}

// How often the segment under the key is attached.
int Attached(const test::IpcKernel& kernel) {
  shmid_ds segment;
  const int id = shmget(kernel.Key(), 0, 0);
  return shmctl(id, IPC_STAT, &segment) == 0 ? static_cast<int>(segment.shm_nattch) : -1;
}

std::string BodyOf(const ClientMessage& msg) { return WireBytes(msg, 4, msg.Length); }

class LocalIpc : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    g_DbcI.PutMsg = PutMsgToClient;
    link_ = MakeLink("IPC", &protocol_);
    ASSERT_EQ(LOCALIInitProtocol("test", 1, &protocol_, "LOCALI", nullptr), 0);
  }

  void TearDown() override {
    const pid_t child = link_->DriverData ? Data().ChildPid : 0;
    if (link_->DriverData) Uninit();
    if (child > 0) waitpid(child, nullptr, 0);
    std::free(link_);
    CloseClients();
    AgentTest::TearDown();
  }

  LIpcLinkData& Data() { return *static_cast<LIpcLinkData*>(link_->DriverData); }

  int Init(const std::string& text) {
    std::string copy = text;
    return LIpcInitLink("test", 1, link_, copy.data());
  }
  int Connect() {
    errno = 0;
    return LIpcConnectLink("test", 1, link_);
  }
  void InitLink() { ASSERT_EQ(Init(std::to_string(kernel_.Key())), 0); }
  void ExpectNoConnect(int error, const char* line = "") {
    const CapturedLog log(kLogDriver);
    EXPECT_EQ(Connect(), kStatusConnect);
    EXPECT_EQ(errno, error);
    EXPECT_TRUE(log.Contains(line)) << log.Text();
  }
  void ConnectLink() {
    InitLink();
    ASSERT_EQ(Connect(), 0);
  }
  int TakeDown() { return DisconnectLink("test", 1, link_, 4444, 0); }
  int Uninit() { return LIpcUninitLink("test", 1, link_); }
  int Disconnect() { return LIpcDisconnectLink("test", 1, link_); }
  void Reconnect() {
    Disconnect();
    ASSERT_EQ(Connect(), 0);
  }
  int Send(ClientMessage& msg) { return LIpcSendToNetwork("test", 1, link_, &msg); }
  int Read() { return LIpcReadyForRead("test", 1, link_); }
  int Tick() { return LIpcTimerEvent("test", 1, link_); }
  bool RecordComes() { return FrameWaits(Data().PipeRead) || Readable(Data().PipeRead); }
  // The reader's next record comes, or its end, and is read.
  void ReadRecord(int status = 0) {
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), status);
  }
  void KillReader() {
    ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
    ASSERT_TRUE(RecordComes());
  }
  void CollectReader() {
    const pid_t reader = Data().ChildPid;
    ASSERT_EQ(kill(reader, SIGKILL), 0);
    ASSERT_EQ(waitpid(reader, nullptr, 0), reader);
  }
  bool RecordsCome(int count) {
    return test::WaitFor([&] {
      int bytes = 0;
      return ioctl(Data().PipeRead, FIONREAD, &bytes) == 0 &&
             bytes == count * static_cast<int>(sizeof(PipeRecord));
    });
  }

  // A client's end of a connection that the agent has accepted.
  struct Client {
    int Fd;
    int Accepted;
  };
  static constexpr Client kNobody = {-1, -1};

  // A request that is noted as sent and lies in the kernel's queue.
  void Ask(const Client& client, int tag, const std::string& text = "request") {
    const auto astInd = static_cast<std::uint16_t>(tag);
    ClientMessage msg = MakeRequest(getpid(), client.Accepted, astInd, {text});
    Note(link_, getpid(), client.Accepted, astInd);
    EXPECT_EQ(Send(msg), 0);
  }
  // The kernel's answer to the oldest request in its queue.
  void AnswerNext(const std::string& text = "answer") {
    const auto request = kernel_.TakeRequest();
    ASSERT_TRUE(request);
    EXPECT_TRUE(kernel_.Answer(*request, text));
  }
  // The next request, in the wire form without its length word.
  std::string TakeBody() {
    const auto request = kernel_.TakeRequest();
    return request ? lumo::Encode(request->Message, lumo::Lengths::Packet).substr(4) : "none";
  }
  void AskAndAnswer(const Client& client, int tag, const std::string& text = "answer") {
    Ask(client, tag);
    AnswerNext(text);
  }
  // A request with this tag is answered, and the agent reads of it.
  void ExpectServed(const Client& client, int tag, const std::string& text) {
    Ask(client, tag);
    ExpectAnswered(client, text);
  }
  // So is the oldest request in the queue, which is the client's.
  void ExpectAnswered(const Client& client, const std::string& text) {
    AnswerNext(text);
    ReadRecord();
    ExpectText(client, text);
  }
  // The answer comes without the agent.
  void AskAndExpect(const Client& client, int tag, const std::string& text) {
    AskAndAnswer(client, tag, text);
    ExpectText(client, text);
  }
  // The answer lies with the agent and reaches the client when the agent reads.
  void ExpectHanded(const Client& client, const std::string& text) {
    ASSERT_TRUE(RecordComes());
    EXPECT_FALSE(Readable(client.Fd, 0));
    EXPECT_EQ(Read(), 0);
    ExpectText(client, text);
  }
  void AskAndAnswerThree(const Client& client) {
    for (int tag = 1; tag <= 3; ++tag) Ask(client, tag);
    for (int i = 0; i < 3; ++i) AnswerNext();
    ASSERT_TRUE(RecordsCome(3));
  }

  Client ConnectClient() {
    if (g_DbcI.ClientListenSocket < 0) StartListener();
    MailboxAddress address;
    MakeMailboxAddress(&address, g_DbcI.NetMbx);
    // The client's end lies high, so that the accepted one gets the lowest free number.
    const int low = socket(AF_UNIX, SOCK_STREAM, 0), fd = fcntl(low, F_DUPFD, 500);
    close(low);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(address.Bytes), address.Length), 0);
    const fd_set before = g_DbcI.ClientSockets;
    EXPECT_EQ(AcceptNewClientConnection("test", 1), 0);
    int accepted = kFirstDescriptor;
    while (FD_ISSET(accepted, &g_DbcI.ClientSockets) == FD_ISSET(accepted, &before)) ++accepted;
    char greeting[60];
    EXPECT_EQ(recv(fd, greeting, sizeof greeting, MSG_WAITALL), 60);
    clients_.push_back(fd);
    return {fd, accepted};
  }
  // A client that the reader can answer itself, as its connection was there before the link's.
  Client ConnectClientFirst() {
    const Client client = ConnectClient();
    ConnectLink();
    return client;
  }
  // One that is answered by way of the agent.
  Client ConnectClientAfterwards() {
    ConnectLink();
    return ConnectClient();
  }
  void HangUp(const Client& client) {
    shutdown(client.Fd, SHUT_RDWR);
    ASSERT_TRUE(Readable(client.Accepted));
    ClientMessage msg;
    EXPECT_EQ(GetMsgFromClient("test", 1, &msg, client.Accepted), -1);
  }

  void BeginToWriteAsTheReader(std::uint16_t tag) {
    BoardRequest request;
    ASSERT_TRUE(BoardClaim(Data().Board, getpid(), tag, &request));
    ASSERT_TRUE(BoardBeginWrite(Data().Board, request));
  }

  // One whole message at the client; empty: none comes.
  static std::string Receive(const Client& client, int timeout = 15000) {
    if (!Readable(client.Fd, timeout)) return {};
    std::uint32_t length = 0;
    if (recv(client.Fd, &length, 4, MSG_PEEK | MSG_WAITALL) != 4) return {};
    std::string frame(length, '\0');
    if (recv(client.Fd, frame.data(), length, MSG_WAITALL) != static_cast<ssize_t>(length))
      return {};
    return frame;
  }
  static void ExpectText(const Client& client, const std::string& text) {
    const std::string frame = Receive(client);
    ASSERT_EQ(frame.size(), 108 + (text.size() + 1) / 2 * 2);
    EXPECT_EQ(frame.substr(54, text.size()), text);
  }
  static void ExpectFailure(const Client& client, int codErr, int sysErr = 0) {
    const std::string failure = Receive(client);
    ASSERT_EQ(failure.size(), 108U);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(failure.data());
    EXPECT_EQ(Get(bytes, WireField<int>{8}), codErr);
    EXPECT_EQ(Get(bytes, WireField<int>{44}), sysErr);
  }

  void UseATagAgain(const Client& first, const Client& second);
  int FillQueue(const Client& client);

  test::IpcKernel kernel_;
  Protocol protocol_ = {};
  Link* link_ = nullptr;

 private:
  void StartListener() {
    directory_.emplace();
    setenv("TAVRIN_TMP", directory_->Path().c_str(), 1);
    g_DbcI.NetMbx = 1;
    CapturedStdout stdoutText;
    ASSERT_EQ(InitialiseClientQueue("test", 1), 0);
  }
  void CloseClients() {
    for (const int fd : clients_) close(fd);
    if (!directory_) return;
    for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd) {
      if (!FD_ISSET(fd, &g_DbcI.ClientSockets)) continue;
      ForgetDescriptor(fd);
      close(fd);
    }
    close(g_DbcI.ClientListenSocket);
    UninitClientQueue("test", 1);
    unsetenv("TAVRIN_TMP");
  }

  std::optional<test::TemporaryDirectory> directory_;
  std::vector<int> clients_;
};

TEST_F(LocalIpc, ProtocolTakesItsNameOnly) {
  Protocol protocol = {};
  EXPECT_EQ(LOCALIInitProtocol("test", 1, &protocol, "LOCALS", nullptr), -1);
  EXPECT_EQ(protocol.Name, nullptr);
  EXPECT_EQ(protocol_.SendToNetwork, LIpcSendToNetwork);
  EXPECT_STREQ(protocol_.Name, "LOCALI");
}

TEST_F(LocalIpc, AddressIsTakenInAnyBase) {
  ASSERT_EQ(Init("  0x5052 rest"), 0);
  EXPECT_EQ(Data().Key, 0x5052);
  EXPECT_EQ(Data().ShmId, -1);
  EXPECT_EQ(Data().SemId, -1);
  EXPECT_EQ(Data().MsgQueueId, -1);
  EXPECT_EQ(Data().PipeRead, -1);
  EXPECT_EQ(Data().ChildPid, 0);
  Uninit();
  ASSERT_EQ(Init("024"), 0);
  EXPECT_EQ(Data().Key, 20);
}

TEST_F(LocalIpc, AddressBelowOneIsOutOfRange) {
  for (const char* text : {"0", "-3", "word", ""}) {
    const CapturedLog log;
    EXPECT_EQ(Init(text), 1) << text;
    EXPECT_TRUE(log.Contains("Leave FAILED  param out of range\n"));
    EXPECT_EQ(link_->DriverData, nullptr);
  }
}

TEST_F(LocalIpc, AddressNeedsMemory) {
  char text[] = "1";
  FailingAllocations failing;
  EXPECT_EQ(LIpcInitLink("test", 1, link_, text), 3);
}

TEST_F(LocalIpc, ConnectNeedsTheSegment) {
  {
    const test::IpcKernel gone;
    ASSERT_EQ(Init(std::to_string(gone.Key())), 0);
  }
  ExpectNoConnect(ENOENT, "LIPC shmget failed. errno = 2");
}

TEST_F(LocalIpc, ConnectNeedsALivingKernelAndKeepsOneAttachmentAtMost) {
  kernel_.SetKernelPid(test::DeadPid());
  InitLink();
  for (int i = 0; i < 3; ++i)
    ExpectNoConnect(ESRCH, "LIPC send 0 signal to kernel failed. errno 3");
  EXPECT_EQ(Attached(kernel_), 1);
  Uninit();
  EXPECT_EQ(Attached(kernel_), 0);
}

TEST_F(LocalIpc, SegmentWithoutRoomForAProcessIdBelongsToNoKernel) {
  kernel_.RemoveSegment();
  const int small = shmget(kernel_.Key(), 2, IPC_CREAT | 0600);
  InitLink();
  ExpectNoConnect(ESRCH);
  shmctl(small, IPC_RMID, nullptr);
}

// While it lives, this process has no right to signal processes of the superuser.
class OrdinaryUser {
 public:
  OrdinaryUser() : root_(geteuid() == 0) { EXPECT_TRUE(!root_ || setresuid(65534, 65534, 0) == 0); }
  ~OrdinaryUser() { EXPECT_TRUE(!root_ || setresuid(0, 0, 0) == 0); }
  OrdinaryUser(const OrdinaryUser&) = delete;

 private:
  const bool root_;
};

TEST_F(LocalIpc, KernelOfAnotherUserIsAlive) {
  const OrdinaryUser user;
  const test::IpcKernel kernel(1);
  ASSERT_EQ(Init(std::to_string(kernel.Key())), 0);
  ASSERT_EQ(kill(1, 0), -1);
  ASSERT_EQ(errno, EPERM);
  EXPECT_EQ(Connect(), 0);
}

TEST_F(LocalIpc, ConnectNeedsQueueAndSemaphoreAndSaysTheSameForBoth) {
  InitLink();
  kernel_.RemoveSemaphore();
  ExpectNoConnect(ENOENT, "LIPC msgget failed. errno 2");
  kernel_.RemoveQueue();
  ExpectNoConnect(ENOENT, "LIPC msgget failed. errno 2");
}

TEST_F(LocalIpc, ConnectStartsAReaderAndRegistersItsPipe) {
  ConnectLink();
  EXPECT_EQ(link_->State, kLinkConnected);
  EXPECT_GT(Data().ChildPid, 0);
  EXPECT_EQ(LinkOfSocket(Data().PipeRead), link_);
  EXPECT_TRUE(IsRead(Data().PipeRead));
  EXPECT_EQ(Tick(), 0);
}

// Only the end that the agent reads from is a link's descriptor: the last one of the table will do.
TEST_F(LocalIpc, PipeBeyondTheTableIsRefused) {
  InitLink();
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < kMaxDescriptors - 1) fillers.push_back(dup(0));
  EXPECT_EQ(Connect(), kStatusDescriptor);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(Data().ChildPid, 0);
  EXPECT_EQ(NextDescriptor(), kMaxDescriptors) << "nothing is left open";
  close(fillers.back());
  fillers.pop_back();
  EXPECT_EQ(Connect(), 0);
  EXPECT_EQ(Data().PipeRead, kMaxDescriptors - 1);
  for (const int fd : fillers) close(fd);
}

// The reader keeps its own ends wherever they are.
TEST_F(LocalIpc, ReaderWorksWithDescriptorsBeyondThoseOfClients) {
  InitLink();
  const rlimit many = {FD_SETSIZE + 64, FD_SETSIZE + 64};
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_GE(before.rlim_max, many.rlim_max);
  const Client client = ConnectClient();
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < FD_SETSIZE) fillers.push_back(dup(0));
  close(fillers.front());
  fillers.erase(fillers.begin());
  ASSERT_EQ(Connect(), 0);
  for (const int fd : fillers) close(fd);
  ExpectServed(client, 5, "answer");
  EXPECT_EQ(InFlight(), 0);
}

TEST_F(LocalIpc, QueueThatNothingWaitsForIsNotTried) {
  ConnectLink();
  EXPECT_EQ(RetryQueues(), -1);
  EXPECT_EQ(Data().RetryAt, 0) << "the clock has been looked at";
}

// What lies behind the last entry would be taken for one whose answer is being written.
TEST_F(LocalIpc, OfAFullBoardTheEntriesAloneAreSettled) {
  ConnectLink();
  Data().Board->Used = kBoardSlots;
  Data().Board->Entries[0].Serial = static_cast<std::uint32_t>(BoardState::Writing);
  const CapturedLog log(kLogError);
  LIpcDisconnectLink("test", 1, link_);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(LocalIpc, RequestIsQueuedWithTheReaderAsItsTaskName) {
  ConnectLink();
  ClientMessage msg = MakeRequest(77, -1, 5, {"abc"});
  Put(Trailer(&msg), kTrailerTaskName, 0);
  ClientMessage expected = msg;
  expected.TaskName = Data().ChildPid;
  Put(Trailer(&expected), kTrailerTaskName, 77);
  ASSERT_EQ(Send(msg), 0);
  EXPECT_EQ(msg.Length, 1U);
  EXPECT_EQ(msg.TaskName, 77);
  EXPECT_EQ(TakeBody(), BodyOf(expected));
  EXPECT_EQ(kernel_.SemaphoreValue(), 1);
}

TEST_F(LocalIpc, RequestWithoutAQueueFailsAndStaysAsChanged) {
  ConnectLink();
  kernel_.RemoveQueue();
  ClientMessage msg = MakeRequest(77, -1, 5);
  EXPECT_EQ(Send(msg), kStatusSend);
  EXPECT_EQ(msg.Length, 1U);
  EXPECT_EQ(msg.TaskName, Data().ChildPid);
}

TEST_F(LocalIpc, RequestWithoutASemaphoreFails) {
  ConnectLink();
  kernel_.RemoveSemaphore();
  ClientMessage msg = MakeRequest(77, -1, 5);
  EXPECT_EQ(Send(msg), kStatusSend);
  EXPECT_EQ(msg.TaskName, 77);
}

TEST_F(LocalIpc, AnswerGoesStraightToAClientThatWasThereFirst) {
  const Client client = ConnectClientFirst();
  AskAndExpect(client, 5, "straight");
  EXPECT_EQ(InFlight(), 1);
  ReadRecord();
  EXPECT_EQ(InFlight(), 0);
}

TEST_F(LocalIpc, AnswerGoesThroughTheAgentToAClientThatCameLater) {
  const Client client = ConnectClientAfterwards();
  AskAndAnswer(client, 5, "handed");
  ExpectHanded(client, "handed");
  EXPECT_EQ(InFlight(), 0);
}

// Of what such a connection has no room for, a part would be taken.
TEST_F(LocalIpc, AnswerGoesThroughTheAgentToAClientWithLittleRoom) {
  const Client client = ConnectClient();
  const int little = 4096;
  ASSERT_EQ(setsockopt(client.Accepted, SOL_SOCKET, SO_SNDBUF, &little, sizeof little), 0);
  ConnectLink();
  AskAndAnswer(client, 5, "handed");
  ExpectHanded(client, "handed");
}

TEST_F(LocalIpc, TheTraceShowsWhoseAnswerIsLookedFor) {
  const Client client = ConnectClientAfterwards();
  AskAndAnswer(client, 5, "traced");
  ASSERT_TRUE(RecordComes());
  const std::string name = "TaskName = " + std::to_string(getpid());
  const CapturedLog log;
  EXPECT_EQ(Read(), 0);
  g_DbcI.LogLevel = 0;
  EXPECT_TRUE(log.Contains("MsgInfo->" + name + " , MsgInfo->AstInd = 5 " + name + " AstInd = 5\n"))
      << log.Text();
}

TEST_F(LocalIpc, ConnectionWithAnOldNumberIsNotTakenForTheOldOne) {
  const Client first = ConnectClientFirst();
  HangUp(first);
  const Client second = ConnectClient();
  ASSERT_EQ(second.Accepted, first.Accepted);
  ExpectServed(second, 5, "second");
}

TEST_F(LocalIpc, EachConnectionOfAProcessGetsItsOwnAnswer) {
  const Client one = ConnectClient(), two = ConnectClient();
  ConnectLink();
  Ask(one, 1);
  Ask(two, 2);
  const auto requestOne = kernel_.TakeRequest(), requestTwo = kernel_.TakeRequest();
  ASSERT_TRUE(requestOne && requestTwo);
  kernel_.Answer(*requestTwo, "second");
  kernel_.Answer(*requestOne, "first");
  ExpectText(two, "second");
  ExpectText(one, "first");
}

// An earlier request has left a hole among the records: the one asked last has the first of them.
TEST_F(LocalIpc, OfTwoConnectionsWithOneTagEachGetsOneAnswerInTheOrderOfTheRequests) {
  const Client early = ConnectClientFirst();
  const Client late = ConnectClient();
  for (const bool lateFirst : {false, true}) {
    const Client& one = lateFirst ? late : early;
    const Client& two = lateFirst ? early : late;
    Note(link_, 1, -1, 1);
    Ask(one, 1);
    ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
    Ask(two, 1);
    ASSERT_EQ(g_DbcI.MsgInfoArray.Items[0].Socket, two.Accepted);
    ExpectAnswered(one, "first");
    EXPECT_FALSE(Readable(two.Fd, 0));
    ExpectAnswered(two, "second");
    EXPECT_FALSE(Readable(one.Fd, 0));
    EXPECT_EQ(InFlight(), 0);
  }
}

// The board has no room for the requests between the two.
TEST_F(LocalIpc, OneTagBeyondTheBoardIsAnsweredInTheOrderOfTheRequestsToo) {
  const Client one = ConnectClient(), two = ConnectClient();
  ConnectLink();
  for (std::int32_t i = 0; i < kBoardSlots; ++i) Note(link_, 1, -1, 1);
  Ask(one, 1);
  ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
  Ask(two, 1);
  for (const Client& client : {one, two}) {
    ExpectAnswered(client, "answer");
    EXPECT_FALSE(Readable(one.Fd, 0));
    EXPECT_FALSE(Readable(two.Fd, 0));
  }
}

// The answer to the request with tag 5 of `first` has been delivered, the agent has not read of it,
// and `second` has used the tag again: its record stands before the older one's.
void LocalIpc::UseATagAgain(const Client& first, const Client& second) {
  Ask(first, 4);
  AskAndAnswer(first, 5);
  Receive(first);
  ReadRecord();
  AnswerNext();
  Receive(first);
  ASSERT_TRUE(RecordComes());
  Ask(second, 5);
  ASSERT_EQ(g_DbcI.MsgInfoArray.Items[0].Socket, second.Accepted);
}

TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnection) {
  const Client first = ConnectClient(), second = ConnectClient();
  ConnectLink();
  UseATagAgain(first, second);
  EXPECT_EQ(Read(), 0);
  TakeDown();
  EXPECT_EQ(Receive(second).size(), 108U) << "the failure is told to who still waits";
  EXPECT_FALSE(Readable(first.Fd, 0));
}

TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnectionWhenTheLinkGoesDown) {
  const Client first = ConnectClient(), second = ConnectClient();
  ConnectLink();
  UseATagAgain(first, second);
  TakeDown();
  EXPECT_EQ(Receive(second).size(), 108U);
  EXPECT_FALSE(Readable(first.Fd, 0));
}

TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnectionWhenTheFirstIsClosed) {
  const Client first = ConnectClientFirst();
  const Client second = ConnectClient();
  UseATagAgain(first, second);
  HangUp(first);
  EXPECT_EQ(Read(), 0);
  ExpectAnswered(second, "second");
}

TEST_F(LocalIpc, SlowClientGetsItsAnswersWholeAndInPlace) {
  const Client client = ConnectClientFirst();
  const std::string text(1500, 's');
  int asked = 0;
  while (UnsentBytes(client.Accepted) == 0) {
    ASSERT_LT(asked, 1000);
    Ask(client, ++asked);
    AnswerNext(text);
    ReadRecord();
  }
  Ask(client, ++asked);
  AnswerNext(text);
  ReadRecord();
  for (int got = 0; got < asked; ++got) {
    ExpectText(client, text);
    EXPECT_EQ(FlushBytes("test", 1, client.Accepted), 0);
  }
  EXPECT_EQ(UnsentBytes(client.Accepted), 0U);
  EXPECT_EQ(InFlight(), 0);
}

// Requests over the link until one finds the queue full: how many there are then.
int LocalIpc::FillQueue(const Client& client) {
  int asked = 0;
  while (link_->Unsent == 0 && asked < 1000 && !HasFatalFailure())
    Ask(client, ++asked, std::string(4000, 'x'));
  return asked;
}

TEST_F(LocalIpc, WhatFindsTheQueueFullIsKeptInOrderAndGoesOutWhenThereIsRoom) {
  const Client client = ConnectClientFirst();
  ASSERT_NE(RetryOutput, nullptr);
  EXPECT_EQ(RetryOutput(), -1);
  int asked = FillQueue(client);
  for (int i = 0; i < 3; ++i) Ask(client, ++asked);
  EXPECT_GT(link_->Unsent, 4000U);
  EXPECT_GT(RetryOutput(), 0);
  const int queued = kernel_.SemaphoreValue();
  EXPECT_LT(queued, asked);
  for (int i = 1; i <= asked; ++i) {
    AnswerNext();
    ReadRecord();
    RetryOutput();  // as before each wait
    const std::string answer = Receive(client);
    ASSERT_FALSE(answer.empty()) << i;
    EXPECT_EQ(
        Get(reinterpret_cast<const unsigned char*>(answer.data()) + answer.size() - kTrailerSize,
            kTrailerAstInd),
        i);
  }
  EXPECT_EQ(kernel_.SemaphoreValue(), asked) << "the kernel is woken once for each";
  EXPECT_EQ(link_->Unsent, 0U);
  EXPECT_EQ(RetryOutput(), -1);
  EXPECT_EQ(InFlight(), 0);
}

TEST_F(LocalIpc, PausesBetweenTwoTriesGrowUntilThereIsRoom) {
  ConnectLink();
  FillQueue(kNobody);
  const auto tryAgain = [&] {
    RetryNow(&Data());
    return RetryOutput();
  };
  int pause = tryAgain();
  for (int i = 0; i < 20; ++i) {
    const int next = tryAgain();
    EXPECT_TRUE(next > pause || (next == pause && pause >= 32)) << pause << " then " << next;
    pause = next;
  }
  EXPECT_LE(pause, 100);
  EXPECT_LE(RetryOutput(), pause) << "what is not due is not tried";
  FillQueue(kNobody);
  Ask(kNobody, 999);
  kernel_.TakeRequest();
  EXPECT_EQ(Tick(), 0);
  EXPECT_LE(RetryOutput(), 2) << "the tick tries, and something went out";
}

TEST_F(LocalIpc, FullQueueOfADeadKernelFailsTheRequest) {
  ConnectLink();
  kernel_.SetKernelPid(test::DeadPid());
  int status = 0;
  for (int i = 0; i < 100000 && status == 0; ++i) {
    ClientMessage msg = MakeRequest(77, -1, 5, {std::string(1000, 'x')});
    status = Send(msg);
  }
  EXPECT_EQ(status, kStatusSend);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LocalIpc, KernelThatGoesFailsWhatIsKeptForIt) {
  const Client client = ConnectClientFirst();
  const int asked = FillQueue(client);
  kernel_.SetKernelPid(test::DeadPid());
  RetryNow(&Data());
  EXPECT_EQ(RetryOutput(), 0);
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(link_->Unsent, 0U);
  for (int i = 0; i < asked; ++i) ExpectFailure(client, kStatusSend, EAGAIN);
  EXPECT_EQ(RetryOutput(), -1);
}

TEST_F(LocalIpc, MessageThatCannotBeKeptFails) {
  ConnectLink();
  FillQueue(kNobody);
  ClientMessage msg = MakeRequest(77, -1, 5);
  const FailingAllocations failing;
  EXPECT_EQ(Send(msg), kStatusSend);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(LocalIpc, WhatWasForAFormerReaderDoesNotFillTheQueue) {
  const Client client = ConnectClientFirst();
  const pid_t former = Data().ChildPid;
  Reconnect();
  const std::string answer = BodyOf(MakeRequest(77, 0, 5, {std::string(7000, 'x')}));
  while (kernel_.HasRoomFor(answer.size())) kernel_.SendBytes(former, answer);
  Ask(client, 6, std::string(7000, 'y'));
  EXPECT_EQ(link_->Unsent, 0U);
  AnswerNext("answer");
  ExpectText(client, "answer");
  kernel_.SendBytes(former, answer);
  EXPECT_EQ(Tick(), 0);
  EXPECT_EQ(kernel_.QueuedMessages(), 0) << "the tick, too, takes it away";
}

TEST_F(LocalIpc, AnswersForAProcessThatLivesAreNotTakenAway) {
  ConnectLink();
  Reconnect();
  Data().Former[0] = getpid();  // its number belongs to somebody else by now
  kernel_.SendBytes(getpid(), BodyOf(MakeRequest(77, 0, 5)));
  EXPECT_EQ(Tick(), 0);
  EXPECT_EQ(kernel_.QueuedMessages(), 1);
}

TEST_F(LocalIpc, AnswerThatNobodyAskedForIsDropped) {
  const Client client = ConnectClientFirst();
  kernel_.SendBytes(Data().ChildPid, BodyOf(MakeRequest(getpid(), 0, 9)));
  ASSERT_TRUE(RecordComes());
  const CapturedLog log(kLogError);
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(log.Contains("The message were not send by the agent. Skip the message"));
  EXPECT_FALSE(Readable(client.Fd, 0));
  EXPECT_EQ(link_->State, kLinkConnected);
}

// That is the agent's business, which finds it by itself.
TEST_F(LocalIpc, ReaderThatFindsAClientDeadTellsNoLink) {
  const Client client = ConnectClient();
  const pid_t dead = test::DeadPid();
  AddLink("TOLD")->State = kLinkConnected;
  Fake().OnDead = [this](Link*) { kernel_.SendBytes(1, "death"); };
  AddClientPidIntoList("test", 1, g_DbcI.LinkList, dead, client.Accepted);
  ConnectLink();
  ClientMessage msg = MakeRequest(dead, client.Accepted, 5);
  Note(link_, dead, client.Accepted, 5);
  EXPECT_EQ(Send(msg), 0);
  AnswerNext();
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(kernel_.QueuedMessages(), 0);
}

TEST_F(LocalIpc, AnswerWhoseStringsLeaveTheAreaIsSkipped) {
  const Client client = ConnectClientFirst();
  Ask(client, 5);
  std::string body = BodyOf(MakeRequest(getpid(), 0, 5));
  body[kStringsAt - 4] = body[kStringsAt - 3] = static_cast<char>(0xFF);
  kernel_.SendBytes(Data().ChildPid, body);
  AnswerNext("good");
  ExpectText(client, "good");
}

TEST_F(LocalIpc, RequestAnsweredByTheReaderIsNotAnsweredAgainWhenTheLinkGoesDown) {
  const Client client = ConnectClientFirst();
  Ask(client, 1);
  AskAndExpect(client, 2, "answered");
  EXPECT_EQ(TakeDown(), 0);
  ExpectFailure(client, 4444);
  EXPECT_FALSE(Readable(client.Fd, 0));
  EXPECT_EQ(InFlight(), 0);
}

TEST_F(LocalIpc, FlushIsPutOffWhileTheReaderWritesAndTheReaderStaysOutAfterwards) {
  const Client client = ConnectClientFirst();
  ASSERT_NE(MayFlush, nullptr);
  Data().Board->Writer[client.Accepted] = 1;  // as the reader does
  EXPECT_FALSE(MayFlush(client.Accepted));
  Data().Board->Writer[client.Accepted] = 0;
  Ask(client, 1);
  EXPECT_TRUE(MayFlush(client.Accepted));
  AnswerNext("by way of the agent");
  ExpectHanded(client, "by way of the agent");
  AskAndExpect(client, 2, "straight again");
}

// Puts the reader out of its work in the middle of writing the answer to the first client.
TEST_F(LocalIpc, ConnectionThatTheReaderWasWritingToWhenItDiedIsClosed) {
  const Client client = ConnectClient(), other = ConnectClient();
  ConnectLink();
  Ask(client, 1);
  Ask(other, 2);
  BeginToWriteAsTheReader(1);
  KillReader();
  const CapturedLog log(kLogError);
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_TRUE(log.Contains("The reader has ended while it wrote to a client."));
  char byte;
  EXPECT_EQ(recv(client.Fd, &byte, 1, 0), 0) << "neither an answer nor a failure";
  EXPECT_FALSE(FD_ISSET(client.Accepted, &g_DbcI.ClientSockets));
  EXPECT_EQ(Receive(other).size(), 108U);
  EXPECT_EQ(InFlight(), 0);
}

// Another connection may have the number by now, which the reader has nothing to do with.
TEST_F(LocalIpc, ConnectionWithTheNumberOfOneThatTheReaderWasWritingToStays) {
  const Client first = ConnectClientFirst();
  Ask(first, 1);
  BeginToWriteAsTheReader(1);
  CloseClient(first.Accepted);
  const Client second = ConnectClient();
  ASSERT_EQ(second.Accepted, first.Accepted);
  KillReader();
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_TRUE(FD_ISSET(second.Accepted, &g_DbcI.ClientSockets));
  EXPECT_FALSE(Readable(second.Fd, 0));
}

TEST_F(LocalIpc, DeadReaderBreaksTheLinkWithTheNextRead) {
  ConnectLink();
  const int pipe = Data().PipeRead;
  const Client client = ConnectClient();
  Ask(client, 5);
  KillReader();
  errno = 77;
  {
    const FailingSystemCall interrupted(SystemCall::Read, EINTR, 0, 1);
    EXPECT_EQ(Read(), kStatusPeerClosed);
    EXPECT_EQ(interrupted.Calls(), 2);
  }
  ExpectFailure(client, kStatusPeerClosed, 0);  // errno was of something else
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(LinkOfSocket(pipe), nullptr);
  EXPECT_EQ(Data().PipeRead, pipe);
  EXPECT_EQ(Data().ShmId, -1);
  EXPECT_EQ(Data().Shm, nullptr);
  EXPECT_EQ(Attached(kernel_), 0);
}

TEST_F(LocalIpc, RecordsThatCameTogetherAreReadWithOneCallAndServedOneByOne) {
  const Client client = ConnectClientAfterwards();
  AskAndAnswerThree(client);
  for (int left = 2; left >= 0; --left) {
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(RequestsInFlight(), left);
    EXPECT_EQ(FrameWaits(Data().PipeRead), left > 0);
    EXPECT_TRUE(RecordsCome(0));
  }
}

TEST_F(LocalIpc, RecordsOfALinkThatGoesDownAreForgotten) {
  const Client client = ConnectClientAfterwards();
  const int pipe = Data().PipeRead;
  AskAndAnswerThree(client);
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Disconnect(), 0);
  EXPECT_FALSE(FrameWaits(pipe));
  EXPECT_EQ(Connect(), 0);
  AskAndAnswer(client, 4);
  ASSERT_TRUE(RecordsCome(1));
  const int before = RequestsInFlight();
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(RequestsInFlight(), before - 1);
}

TEST_F(LocalIpc, AnswersOfADeadReaderStillReachTheirClients) {
  const Client client = ConnectClientAfterwards();
  AskAndAnswer(client, 5, "last words");
  ASSERT_TRUE(RecordComes());
  PipeRecord record;
  ASSERT_EQ(read(Data().PipeRead, &record, sizeof record),
            static_cast<ssize_t>(sizeof record));  // as if it had not been written
  KillReader();
  EXPECT_EQ(Read(), kStatusPeerClosed);
  ExpectText(client, "last words");
  EXPECT_FALSE(Readable(client.Fd, 0));
}

// The child counts its calls from its start on.
TEST_F(LocalIpc, ReaderGoesOnWhateverSignalsCome) {
  for (const SystemCall call : {SystemCall::MsgReceive, SystemCall::Send, SystemCall::Write}) {
    SCOPED_TRACE(static_cast<int>(call));
    With({call, EINTR, 0, 2}, [&] { ConnectLink(); });
    const Client client = ConnectClient();
    ExpectServed(client, 5, "handed");
    const pid_t reader = Data().ChildPid;
    Uninit();
    waitpid(reader, nullptr, 0);
  }
}

TEST_F(LocalIpc, AgentGoesOnWhateverSignalsCome) {
  const Client client = ConnectClientAfterwards();
  {
    const FailingSystemCall send(SystemCall::MsgSend, EINTR, 0, 2),
        wake(SystemCall::SemOp, EINTR, 0, 2);
    Ask(client, 5);
    EXPECT_EQ(send.Calls(), 3);
    EXPECT_EQ(wake.Calls(), 3);
  }
  EXPECT_EQ(kernel_.SemaphoreValue(), 1);
  AnswerNext("handed");
  ASSERT_TRUE(RecordComes());
  {
    const FailingSystemCall record(SystemCall::Read, EINTR, 0, 2),
        answer(SystemCall::Recv, EINTR, 0, 2);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(record.Calls(), 3);
    EXPECT_EQ(answer.Calls(), 3);
  }
  ExpectText(client, "handed");
}

TEST_F(LocalIpc, HalfARecordOfAFormerReaderIsForgotten) {
  ConnectLink();
  Data().RecordsEnd = 4;
  Reconnect();
  const Client client = ConnectClient();
  ExpectServed(client, 5, "whole");
}

TEST_F(LocalIpc, ReaderMayWriteAgainWhenAllIsAnsweredThatItMayNotChooseAmong) {
  const Client client = ConnectClientFirst();
  Data().Board->AgentDecides = true;
  AskAndExpect(client, 5, "straight");
}

TEST_F(LocalIpc, AnswerIsNotForARequestToWhichTheReaderHasOne) {
  ConnectLink();
  const Client first = ConnectClient(), second = ConnectClient();
  Ask(first, 5);
  Ask(second, 5);
  BoardRequest request;
  ASSERT_TRUE(BoardClaim(Data().Board, getpid(), 5, &request));
  ASSERT_EQ(request.Socket, first.Accepted);
  Data().Board->AgentDecides = true;
  ExpectAnswered(second, "second");
}

// A reader that still lives would take a later request for one that is closed already.
TEST_F(LocalIpc, ReaderMayChooseAmongNoneAfterTheParting) {
  ConnectLink();
  int parted[2];
  ASSERT_EQ(pipe(parted), 0);
  const ReaderBoard* const board = Data().Board;
  const pid_t looker = fork();
  if (looker == 0) {
    char byte;
    _exit(read(parted[0], &byte, 1) == 1 && board->AgentDecides ? 0 : 1);
  }
  Disconnect();
  EXPECT_EQ(write(parted[1], "", 1), 1);
  int status = -1;
  EXPECT_EQ(waitpid(looker, &status, 0), looker);
  EXPECT_EQ(status, 0);
  close(parted[0]);
  close(parted[1]);
}

TEST_F(LocalIpc, TickFindsADeadReader) {
  ConnectLink();
  CollectReader();
  const CapturedLog log(kLogDriver);
  EXPECT_EQ(Tick(), kStatusReaderGone);
  EXPECT_TRUE(log.Contains("LIPC child proccess deaded"));
}

TEST_F(LocalIpc, ReaderEndsWithTheQueue) {
  ConnectLink();
  kernel_.RemoveQueue();
  int status = -1;
  ASSERT_EQ(waitpid(Data().ChildPid, &status, 0), Data().ChildPid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(LocalIpc, DisconnectEndsTheReaderAndIsHarmlessTwice) {
  ConnectLink();
  const pid_t child = Data().ChildPid;
  EXPECT_EQ(Disconnect(), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(Disconnect(), 0);
  EXPECT_EQ(Attached(kernel_), 0);
}

// As an agent that a shell has started with a job in the background, and then become.
TEST_F(LocalIpc, ChildrenThatAreNoReadersAreNotWaitedFor) {
  const pid_t other = fork();
  if (other == 0) pause();
  const auto begin = std::chrono::steady_clock::now();
  ConnectLink();
  const auto patience = std::chrono::milliseconds(900);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, patience);
  kill(other, SIGKILL);
  EXPECT_EQ(waitpid(other, nullptr, 0), other) << "nor collected";
}

TEST_F(LocalIpc, ReaderThatIsStillEndingIsWaitedForBeforeTheNext) {
  ConnectLink();
  const pid_t former = Data().ChildPid;
  Reconnect();
  EXPECT_EQ(kill(former, 0), -1) << "gone, and collected";
  EXPECT_NE(Data().ChildPid, former);
}

TEST_F(LocalIpc, ProcessThatHasTheNumberOfAReaderIsNotTakenForIt) {
  ConnectLink();
  CollectReader();
  Data().ChildPid = getpid();
  EXPECT_EQ(Tick(), kStatusReaderGone);
  Disconnect();  // else this process would be told to end
  Data().ChildPid = 0;
}

TEST_F(LocalIpc, AnswerThatCannotBeHandedOverBreaksTheLink) {
  const Client client = ConnectClientAfterwards();
  ASSERT_EQ(shutdown(Data().Pair, SHUT_RDWR), 0);
  AskAndAnswer(client, 5, "to nobody");
  ReadRecord(kStatusPeerClosed);
  ExpectFailure(client, kStatusPeerClosed);
}

// Without this every answer handed over later would go to the request before its own.
TEST_F(LocalIpc, HandedAnswerThatIsNotThereBreaksTheLink) {
  const Client client = ConnectClientAfterwards();
  AskAndAnswer(client, 5, "lost");
  ASSERT_TRUE(RecordComes());
  char taken[8192];
  ASSERT_GT(recv(Data().Pair, taken, sizeof taken, MSG_DONTWAIT), 0);
  const CapturedLog log(kLogDriver);
  EXPECT_EQ(Read(), kStatusReceive);
  log.ExpectOnce("3 lipc|LIPC.Receive message from child fail. Link \"IPC\". Call:read. Errno 11");
  ExpectFailure(client, kStatusReceive, EAGAIN);
}

TEST_F(LocalIpc, DeathOfAClientIsTold) {
  ConnectLink();
  ASSERT_EQ(LIpcClientDeadEvent("test", 1, link_, 4242), 0);
  ClientMessage expected;
  MakeClientDeathMessage(&expected, 4242);
  expected.TaskName = Data().ChildPid;
  EXPECT_EQ(TakeBody(), BodyOf(expected));
}

class Board : public testing::Test {
 protected:
  void SetUp() override {
    board_ = CreateBoard();
    ASSERT_NE(board_, nullptr);
  }
  void TearDown() override { RemoveBoard(board_); }

  void Add(RequestId id, int task, std::uint16_t astInd, int socket = 9) {
    BoardAdd(board_,
             {.Id = id, .TaskName = task, .AstInd = astInd, .Socket = socket, .Connection = 3});
  }
  bool Claim(int task, std::uint16_t astInd) { return BoardClaim(board_, task, astInd, &request_); }
  void AddAndClaim() {
    Add({0, 1}, 1, 1);
    ASSERT_TRUE(Claim(1, 1));
  }
  void Write(int task, std::uint16_t astInd, bool written = true) {
    ASSERT_TRUE(Claim(task, astInd));
    ASSERT_TRUE(BoardBeginWrite(board_, request_));
    BoardEndWrite(board_, request_, written);
  }
  BoardState Close(std::int32_t slot) { return BoardClose(board_, slot, &request_); }

  ReaderBoard* board_ = nullptr;
  BoardRequest request_ = {};
};

TEST_F(Board, RequestIsClaimedOnceByItsName) {
  Add({0, 1}, 1, 1, 10);
  Add({1, 2}, 1, 2, 11);
  EXPECT_FALSE(Claim(2, 1));
  ASSERT_TRUE(Claim(1, 2));
  EXPECT_EQ(request_.Id.Slot, 1);
  EXPECT_EQ(request_.Id.Serial, 2U);
  EXPECT_EQ(request_.Socket, 11);
  EXPECT_EQ(request_.Connection, 3U);
  EXPECT_FALSE(Claim(1, 2));
}

TEST_F(Board, OfOneNameTheRequestAskedFirstIsClaimedFirst) {
  Add({2, 0xFFFFFFFF}, 1, 1, 12);  // the serial numbers go round
  Add({1, 0}, 1, 1, 11);
  Add({0, 1}, 1, 1, 10);
  for (const int socket : {12, 11, 10}) {
    ASSERT_TRUE(Claim(1, 1));
    EXPECT_EQ(request_.Socket, socket);
  }
}

TEST_F(Board, EntryIsFreeAgainWithTheRecordOfItsRequestOnly) {
  Add({0, 1}, 1, 1);
  Write(1, 1);
  Add({0, 3}, 1, 1);
  EXPECT_FALSE(Claim(1, 1)) << "the child has not told of the answer to the first";
  board_->AgentDecides = false;
  const RequestId told = BoardRemove(board_, 0);
  EXPECT_EQ(told.Slot, 0);
  EXPECT_EQ(told.Serial, 1U);
  Add({0, 3}, 1, 1);
  EXPECT_TRUE(Claim(1, 1));
}

TEST_F(Board, RequestThatFindsNoEntryLeavesTheChoiceToTheAgent) {
  Add({0, 1}, 1, 1);
  Add({kBoardSlots, 2}, 1, 2);
  EXPECT_TRUE(board_->AgentDecides);
  EXPECT_FALSE(Claim(1, 1));
  EXPECT_TRUE(BoardWithdraw(board_, {kBoardSlots, 2}));
  EXPECT_TRUE(BoardWithdraw(board_, {0, 1}));
  board_->AgentDecides = false;
  EXPECT_FALSE(Claim(1, 1)) << "the agent has it";
}

TEST_F(Board, ClaimedRequestIsNotTheAgentsToAnswer) {
  AddAndClaim();
  EXPECT_FALSE(BoardWithdraw(board_, {0, 1}));
  EXPECT_TRUE(BoardWithdraw(board_, {0, 2})) << "another request of that record";
}

TEST_F(Board, AbandonedRequestMakesRoomForTheNextOfItsRecord) {
  Add({0, 1}, 1, 1, 10);
  Add({0, 2}, 1, 1, 11);
  ASSERT_TRUE(Claim(1, 1));
  EXPECT_EQ(request_.Socket, 11);
  EXPECT_FALSE(board_->AgentDecides);
}

TEST_F(Board, PartingTellsWhatIsAnswered) {
  for (std::int32_t slot = 0; slot < 5; ++slot)
    Add({slot, static_cast<std::uint32_t>(slot) + 1}, 1, static_cast<std::uint16_t>(slot));
  ASSERT_TRUE(Claim(1, 1));
  Write(1, 2);
  Write(1, 3, false);
  ASSERT_TRUE(Claim(1, 4));
  ASSERT_TRUE(BoardBeginWrite(board_, request_));
  const BoardRequest last = request_;
  EXPECT_EQ(Close(0), BoardState::Waiting);
  EXPECT_EQ(Close(1), BoardState::Claimed);
  EXPECT_EQ(Close(2), BoardState::Written);
  EXPECT_EQ(request_.Id.Serial, 3U);
  EXPECT_EQ(Close(3), BoardState::Claimed);
  EXPECT_EQ(Close(4), BoardState::Writing);
  EXPECT_EQ(Close(4), BoardState::Writing);
  BoardEndWrite(board_, last, true);
  EXPECT_EQ(Close(4), BoardState::Written);
  for (std::int32_t slot = 0; slot < 5; ++slot) EXPECT_EQ(Close(slot), BoardState::Free);
}

TEST_F(Board, ClaimThatTheAgentHasClosedIsNotWritten) {
  AddAndClaim();
  const BoardRequest claimed = request_;
  Close(0);
  EXPECT_FALSE(BoardBeginWrite(board_, claimed));
  EXPECT_TRUE(BoardTakeConnection(board_, claimed.Socket)) << "it was given back";
}

TEST_F(Board, ConnectionHasOneWriter) {
  AddAndClaim();
  ASSERT_TRUE(BoardBeginWrite(board_, request_));
  EXPECT_FALSE(BoardTakeConnection(board_, 9));
  EXPECT_TRUE(BoardTakeConnection(board_, 10));
  BoardEndWrite(board_, request_, false);
  EXPECT_TRUE(BoardTakeConnection(board_, 9));
  EXPECT_TRUE(BoardTakeConnection(board_, 9)) << "again";
  EXPECT_FALSE(BoardBeginWrite(board_, request_));
  BoardGiveConnection(board_, 9);
  EXPECT_TRUE(BoardBeginWrite(board_, request_));
  BoardGiveConnection(board_, 9);
  EXPECT_FALSE(BoardTakeConnection(board_, 9)) << "only one's own is given back";
}

}  // namespace
