// The driver of the local kernel's queue: the kernel and the clients are played by the test, the
// reader child is a real one.
#include "protocols/lipc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "core/mailbox.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/wait.h"
#include "protocols/lipc_board.h"
#include "protocols/lipc_queue.h"
#include "protocols/lipc_reader.h"
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

// The kernel's objects, under a key of their own.
class Kernel {
 public:
  explicit Kernel(std::size_t segmentSize = 4096) {
    std::random_device random;
    do {
      Key = static_cast<int>(random() & 0x3FFFFFFF) | 1;
      segment_ = shmget(Key, segmentSize, IPC_CREAT | IPC_EXCL | 0666);
    } while (segment_ < 0);
    queue_ = msgget(Key, IPC_CREAT | 0666);
    semaphore_ = semget(Key, 1, IPC_CREAT | 0666);
    if (segmentSize >= sizeof(pid_t)) SetPid(getpid());
  }
  ~Kernel() {
    RemoveQueue();
    RemoveSemaphore();
    shmctl(segment_, IPC_RMID, nullptr);
  }
  Kernel(const Kernel&) = delete;

  void SetPid(pid_t pid) {
    void* const memory = shmat(segment_, nullptr, 0);
    std::memcpy(memory, &pid, sizeof pid);
    shmdt(memory);
  }
  void RemoveQueue() {
    if (queue_ >= 0) msgctl(queue_, IPC_RMID, nullptr);
    queue_ = -1;
  }
  void RemoveSemaphore() {
    if (semaphore_ >= 0) semctl(semaphore_, 0, IPC_RMID);
    semaphore_ = -1;
  }

  // The next request, in the wire form without its length word.
  std::string Take() {
    QueueMessage msg;
    const ssize_t size = msgrcv(queue_, &msg, sizeof msg.Body, 1, IPC_NOWAIT);
    if (size < 0) return {};
    return std::string(reinterpret_cast<const char*>(msg.Body), static_cast<std::size_t>(size));
  }
  void Answer(pid_t reader, const std::string& body) {
    QueueMessage msg;
    msg.Type = reader;
    std::memcpy(msg.Body, body.data(), body.size());
    ASSERT_EQ(msgsnd(queue_, &msg, body.size(), 0), 0);
  }
  int Messages() const {
    msqid_ds state;
    return msgctl(queue_, IPC_STAT, &state) == 0 ? static_cast<int>(state.msg_qnum) : -1;
  }
  bool HasRoomFor(std::size_t size) const {
    msqid_ds state;
    return msgctl(queue_, IPC_STAT, &state) == 0 && state.__msg_cbytes + size <= state.msg_qbytes;
  }
  int SemaphoreValue() const { return semctl(semaphore_, 0, GETVAL); }
  int Attached() const {
    shmid_ds segment;
    return shmctl(segment_, IPC_STAT, &segment) == 0 ? static_cast<int>(segment.shm_nattch) : -1;
  }

  int Key;

 private:
  int segment_, queue_, semaphore_;
};

std::string BodyOf(ClientMessage msg) {
  return std::string(reinterpret_cast<const char*>(Wire(&msg)) + 4, msg.Length);
}

class LocalIpc : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    g_DbcI.PutMsg = PutMsgToClient;
    link_ = static_cast<Link*>(std::calloc(1, sizeof(Link)));
    ASSERT_EQ(LOCALIInitProtocol("test", 1, &protocol_, "LOCALI", nullptr), 0);
    link_->Protocol = &protocol_;
    link_->Next = link_;
    std::snprintf(link_->NodeName, sizeof link_->NodeName, "IPC");
  }

  void TearDown() override {
    const pid_t child = link_->DriverData ? Data().ChildPid : 0;
    if (link_->DriverData) LIpcUninitLink("test", 1, link_);
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
  void ConnectTo(const Kernel& kernel) {
    ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
    ASSERT_EQ(Connect(), 0);
  }
  int Send(ClientMessage& msg) { return LIpcSendToNetwork("test", 1, link_, &msg); }
  int Read() { return LIpcReadyForRead("test", 1, link_); }
  bool RecordComes() { return FrameWaits(Data().PipeRead) || Readable(Data().PipeRead); }
  bool RecordsCome(int count) {
    return test::WaitFor([&] {
      int bytes = 0;
      return ioctl(Data().PipeRead, FIONREAD, &bytes) == 0 &&
             bytes == count * static_cast<int>(sizeof(PipeRecord));
    });
  }

  // A request that is noted as sent and lies in the kernel's queue.
  ClientMessage Ask(int socket, std::uint16_t astInd, const std::string& text = "request") {
    ClientMessage msg = MakeRequest(getpid(), socket, astInd, {text});
    const MsgInfo info = {.Link = link_, .TaskName = getpid(), .Socket = socket, .AstInd = astInd};
    EXPECT_EQ(SaveMsgInfo("test", 1, &info), 0);
    EXPECT_EQ(Send(msg), 0);
    return msg;
  }
  // The kernel's answer to the oldest request in its queue.
  void AnswerNext(Kernel& kernel, const std::string& text = "answer") {
    const std::string request = kernel.Take();
    ASSERT_FALSE(request.empty());
    Answer(kernel, request, text);
  }
  void Answer(Kernel& kernel, const std::string& request, const std::string& text) {
    ClientMessage asked = {};
    std::memcpy(Wire(&asked) + 4, request.data(), request.size());
    ASSERT_EQ(LocateTrailer(&asked, request.size() + 4, kMessageArea), 0);
    const ClientMessage answer = MakeRequest(Get(Trailer(&asked), kTrailerTaskName), 0,
                                             Get(Trailer(&asked), kTrailerAstInd), {text});
    kernel.Answer(asked.TaskName, BodyOf(answer));
  }

  // A client's end of a connection that the agent has accepted.
  struct Client {
    int Fd;
    int Accepted;
  };
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
  static bool HasText(const std::string& frame, const std::string& text) {
    return frame.size() > 54 + text.size() && frame.compare(54, text.size(), text) == 0;
  }
  static int MsgInfos() {
    int count = 0;
    for (const MsgInfo& info : g_DbcI.MsgInfoArray) count += InUse(info);
    return count;
  }

  void UseATagAgain(Kernel& kernel, const Client& first, const Client& second);
  int FillQueue(int socket);

  Protocol protocol_ = {};
  Link* link_ = nullptr;

 private:
  void StartListener() {
    char name[] = "/tmp/lipcXXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    directory_ = name;
    setenv("TAVRIN_TMP", name, 1);
    g_DbcI.NetMbx = 1;
    CapturedStdout stdoutText;
    ASSERT_EQ(InitialiseClientQueue("test", 1), 0);
  }
  void CloseClients() {
    for (const int fd : clients_) close(fd);
    if (directory_.empty()) return;
    for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd) {
      if (!FD_ISSET(fd, &g_DbcI.ClientSockets)) continue;
      ForgetDescriptor(fd);
      close(fd);
    }
    close(g_DbcI.ClientListenSocket);
    UninitClientQueue("test", 1);
    rmdir(directory_.c_str());
    unsetenv("TAVRIN_TMP");
  }

  std::string directory_;
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
  LIpcUninitLink("test", 1, link_);
  ASSERT_EQ(Init("024"), 0);
  EXPECT_EQ(Data().Key, 20);
}

TEST_F(LocalIpc, AddressBelowOneIsOutOfRange) {
  for (const char* text : {"0", "-3", "word", ""}) {
    const CapturedLog stderrText;
    EXPECT_EQ(Init(text), 1) << text;
    EXPECT_TRUE(stderrText.Contains("Leave FAILED  param out of range\n"));
    EXPECT_EQ(link_->DriverData, nullptr);
  }
}

TEST_F(LocalIpc, AddressNeedsMemory) {
  char text[] = "1";
  FailingAllocations failing;
  EXPECT_EQ(LIpcInitLink("test", 1, link_, text), 3);
}

TEST_F(LocalIpc, ConnectNeedsTheSegment) {
  int key;
  {
    Kernel kernel;
    key = kernel.Key;
  }
  ASSERT_EQ(Init(std::to_string(key)), 0);
  const CapturedLog stderrText(kLogDriver);
  EXPECT_EQ(Connect(), kStatusConnect);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(stderrText.Contains("LIPC shmget failed. errno = 2"));
}

TEST_F(LocalIpc, ConnectNeedsALivingKernelAndKeepsOneAttachmentAtMost) {
  Kernel kernel;
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  kernel.SetPid(dead);
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
  const CapturedLog stderrText(kLogDriver);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Connect(), kStatusConnect);
  EXPECT_TRUE(stderrText.Contains("LIPC send 0 signal to kernel failed. errno 3"));
  EXPECT_EQ(kernel.Attached(), 1);
  LIpcUninitLink("test", 1, link_);
  EXPECT_EQ(kernel.Attached(), 0);
}

TEST_F(LocalIpc, SegmentWithoutRoomForAProcessIdBelongsToNoKernel) {
  Kernel kernel(2);
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
  EXPECT_EQ(Connect(), kStatusConnect);
  EXPECT_EQ(errno, ESRCH);
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
  Kernel kernel;
  kernel.SetPid(1);
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
  OrdinaryUser user;
  ASSERT_EQ(kill(1, 0), -1);
  ASSERT_EQ(errno, EPERM);
  EXPECT_EQ(Connect(), 0);
}

TEST_F(LocalIpc, ConnectNeedsQueueAndSemaphoreAndSaysTheSameForBoth) {
  Kernel kernel;
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
  kernel.RemoveSemaphore();
  {
    const CapturedLog stderrText(kLogDriver);
    EXPECT_EQ(Connect(), kStatusConnect);
    EXPECT_TRUE(stderrText.Contains("LIPC msgget failed. errno 2"));
  }
  kernel.RemoveQueue();
  const CapturedLog stderrText(kLogDriver);
  EXPECT_EQ(Connect(), kStatusConnect);
  EXPECT_TRUE(stderrText.Contains("LIPC msgget failed. errno 2"));
}

TEST_F(LocalIpc, ConnectStartsAReaderAndRegistersItsPipe) {
  Kernel kernel;
  ConnectTo(kernel);
  EXPECT_EQ(link_->State, kLinkConnected);
  EXPECT_GT(Data().ChildPid, 0);
  EXPECT_EQ(LinkOfSocket(Data().PipeRead), link_);
  EXPECT_TRUE(FD_ISSET(Data().PipeRead, &g_DbcI.SocketSets.ReadSet));
  EXPECT_EQ(LIpcTimerEvent("test", 1, link_), 0);
}

// Only the end that the agent reads from is a link's descriptor: the last one of the table will do.
TEST_F(LocalIpc, PipeBeyondTheTableIsRefused) {
  Kernel kernel;
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < kMaxDescriptors - 1) fillers.push_back(dup(0));
  EXPECT_EQ(Connect(), kStatusDescriptor);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(Data().ChildPid, 0);
  const int next = dup(0);
  EXPECT_EQ(next, kMaxDescriptors) << "nothing is left open";
  close(next);
  close(fillers.back());
  fillers.pop_back();
  EXPECT_EQ(Connect(), 0);
  EXPECT_EQ(Data().PipeRead, kMaxDescriptors - 1);
  for (const int fd : fillers) close(fd);
}

// The reader keeps its own ends wherever they are.
TEST_F(LocalIpc, ReaderWorksWithDescriptorsBeyondThoseOfClients) {
  Kernel kernel;
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
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
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "answer");
  EXPECT_TRUE(HasText(Receive(client), "answer"));
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(MsgInfos(), 0);
}

TEST_F(LocalIpc, RequestIsQueuedWithTheReaderAsItsTaskName) {
  Kernel kernel;
  ConnectTo(kernel);
  ClientMessage msg = MakeRequest(77, -1, 5, {"abc"});
  Put(Trailer(&msg), kTrailerTaskName, 0);
  ClientMessage expected = msg;
  expected.TaskName = Data().ChildPid;
  Put(Trailer(&expected), kTrailerTaskName, 77);
  ASSERT_EQ(Send(msg), 0);
  EXPECT_EQ(msg.Length, 1U);
  EXPECT_EQ(msg.TaskName, 77);
  EXPECT_EQ(kernel.Take(), BodyOf(expected));
  EXPECT_EQ(kernel.SemaphoreValue(), 1);
}

TEST_F(LocalIpc, RequestWithoutAQueueFailsAndStaysAsChanged) {
  Kernel kernel;
  ConnectTo(kernel);
  kernel.RemoveQueue();
  ClientMessage msg = MakeRequest(77, -1, 5);
  EXPECT_EQ(Send(msg), kStatusSend);
  EXPECT_EQ(msg.Length, 1U);
  EXPECT_EQ(msg.TaskName, Data().ChildPid);
}

TEST_F(LocalIpc, RequestWithoutASemaphoreFails) {
  Kernel kernel;
  ConnectTo(kernel);
  kernel.RemoveSemaphore();
  ClientMessage msg = MakeRequest(77, -1, 5);
  EXPECT_EQ(Send(msg), kStatusSend);
  EXPECT_EQ(msg.TaskName, 77);
}

TEST_F(LocalIpc, AnswerGoesStraightToAClientThatWasThereFirst) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "straight");
  const std::string frame = Receive(client);
  EXPECT_TRUE(HasText(frame, "straight"));
  EXPECT_EQ(frame.size(), 108U + 8U);
  EXPECT_EQ(MsgInfos(), 1);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(MsgInfos(), 0);
}

TEST_F(LocalIpc, AnswerGoesThroughTheAgentToAClientThatCameLater) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "handed");
  ASSERT_TRUE(RecordComes());
  EXPECT_FALSE(Readable(client.Fd, 0));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(client), "handed"));
  EXPECT_EQ(MsgInfos(), 0);
}

TEST_F(LocalIpc, TheTraceShowsWhoseAnswerIsLookedFor) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "traced");
  ASSERT_TRUE(RecordComes());
  const std::string name = "TaskName = " + std::to_string(getpid());
  const CapturedLog log;
  EXPECT_EQ(Read(), 0);
  g_DbcI.LogLevel = 0;
  EXPECT_TRUE(log.Contains("MsgInfo->" + name + " , MsgInfo->AstInd = 5 " + name + " AstInd = 5\n"))
      << log.Text();
}

TEST_F(LocalIpc, ConnectionWithAnOldNumberIsNotTakenForTheOldOne) {
  Kernel kernel;
  const Client first = ConnectClient();
  ConnectTo(kernel);
  shutdown(first.Fd, SHUT_RDWR);
  ASSERT_TRUE(Readable(first.Accepted));
  ClientMessage msg;
  EXPECT_EQ(GetMsgFromClient("test", 1, &msg, first.Accepted), -1);
  const Client second = ConnectClient();
  ASSERT_EQ(second.Accepted, first.Accepted);
  Ask(second.Accepted, 5);
  AnswerNext(kernel, "second");
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(second), "second"));
}

TEST_F(LocalIpc, EachConnectionOfAProcessGetsItsOwnAnswer) {
  Kernel kernel;
  const Client one = ConnectClient(), two = ConnectClient();
  ConnectTo(kernel);
  Ask(one.Accepted, 1);
  Ask(two.Accepted, 2);
  const std::string requestOne = kernel.Take(), requestTwo = kernel.Take();
  Answer(kernel, requestTwo, "second");
  Answer(kernel, requestOne, "first");
  EXPECT_TRUE(HasText(Receive(two), "second"));
  EXPECT_TRUE(HasText(Receive(one), "first"));
}

// An earlier request has left a hole among the records: the one asked last has the first of them.
TEST_F(LocalIpc, OfTwoConnectionsWithOneTagEachGetsOneAnswerInTheOrderOfTheRequests) {
  Kernel kernel;
  const Client early = ConnectClient();
  ConnectTo(kernel);
  const Client late = ConnectClient();
  for (const bool lateFirst : {false, true}) {
    const Client& one = lateFirst ? late : early;
    const Client& two = lateFirst ? early : late;
    MsgInfo other = {.Link = link_, .TaskName = 1, .Socket = -1, .AstInd = 1};
    ASSERT_EQ(SaveMsgInfo("test", 1, &other), 0);
    Ask(one.Accepted, 1);
    ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
    Ask(two.Accepted, 1);
    ASSERT_EQ(g_DbcI.MsgInfoArray.Items[0].Socket, two.Accepted);
    AnswerNext(kernel, "first");
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(HasText(Receive(one), "first"));
    EXPECT_FALSE(Readable(two.Fd, 0));
    AnswerNext(kernel, "second");
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(HasText(Receive(two), "second"));
    EXPECT_FALSE(Readable(one.Fd, 0));
    EXPECT_EQ(MsgInfos(), 0);
  }
}

// The board has no room for the requests between the two.
TEST_F(LocalIpc, OneTagBeyondTheBoardIsAnsweredInTheOrderOfTheRequestsToo) {
  Kernel kernel;
  const Client one = ConnectClient(), two = ConnectClient();
  ConnectTo(kernel);
  for (std::int32_t i = 0; i < kBoardSlots; ++i) {
    const MsgInfo other = {.Link = link_, .TaskName = 1, .Socket = -1, .AstInd = 1};
    ASSERT_EQ(SaveMsgInfo("test", 1, &other), 0);
  }
  Ask(one.Accepted, 1);
  ReleaseMsgInfo(&g_DbcI.MsgInfoArray.Items[0]);
  Ask(two.Accepted, 1);
  for (const Client& client : {one, two}) {
    AnswerNext(kernel, "answer");
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(HasText(Receive(client), "answer"));
    EXPECT_FALSE(Readable(one.Fd, 0));
    EXPECT_FALSE(Readable(two.Fd, 0));
  }
}

// The answer to the request with tag 5 of `first` has been delivered, the agent has not read of it,
// and `second` has used the tag again: its record stands before the older one's.
void LocalIpc::UseATagAgain(Kernel& kernel, const Client& first, const Client& second) {
  Ask(first.Accepted, 4);
  Ask(first.Accepted, 5);
  AnswerNext(kernel);
  Receive(first);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  AnswerNext(kernel);
  Receive(first);
  ASSERT_TRUE(RecordComes());
  Ask(second.Accepted, 5);
  ASSERT_EQ(g_DbcI.MsgInfoArray.Items[0].Socket, second.Accepted);
}

TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnection) {
  Kernel kernel;
  const Client first = ConnectClient(), second = ConnectClient();
  ConnectTo(kernel);
  UseATagAgain(kernel, first, second);
  EXPECT_EQ(Read(), 0);
  DisconnectLink("test", 1, link_, 4444, 0);
  EXPECT_EQ(Receive(second).size(), 108U) << "the failure is told to who still waits";
  EXPECT_FALSE(Readable(first.Fd, 0));
}

TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnectionWhenTheLinkGoesDown) {
  Kernel kernel;
  const Client first = ConnectClient(), second = ConnectClient();
  ConnectTo(kernel);
  UseATagAgain(kernel, first, second);
  DisconnectLink("test", 1, link_, 4444, 0);
  EXPECT_EQ(Receive(second).size(), 108U);
  EXPECT_FALSE(Readable(first.Fd, 0));
}

TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnectionWhenTheFirstIsClosed) {
  Kernel kernel;
  const Client first = ConnectClient();
  ConnectTo(kernel);
  const Client second = ConnectClient();
  UseATagAgain(kernel, first, second);
  shutdown(first.Fd, SHUT_RDWR);
  ASSERT_TRUE(Readable(first.Accepted));
  ClientMessage msg;
  EXPECT_EQ(GetMsgFromClient("test", 1, &msg, first.Accepted), -1);
  EXPECT_EQ(Read(), 0);
  AnswerNext(kernel, "second");
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(second), "second"));
}

TEST_F(LocalIpc, SlowClientGetsItsAnswersWholeAndInPlace) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  const std::string text(1500, 's');
  int asked = 0;
  while (UnsentBytes(client.Accepted) == 0) {
    ASSERT_LT(asked, 1000);
    Ask(client.Accepted, static_cast<std::uint16_t>(++asked));
    AnswerNext(kernel, text);
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), 0);
  }
  Ask(client.Accepted, static_cast<std::uint16_t>(++asked));
  AnswerNext(kernel, text);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  for (int got = 0; got < asked; ++got) {
    EXPECT_TRUE(HasText(Receive(client), text));
    EXPECT_EQ(FlushBytes("test", 1, client.Accepted), 0);
  }
  EXPECT_EQ(UnsentBytes(client.Accepted), 0U);
  EXPECT_EQ(MsgInfos(), 0);
}

// Requests over the link until one finds the queue full: how many there are then.
int LocalIpc::FillQueue(int socket) {
  int asked = 0;
  while (link_->Unsent == 0 && asked < 1000 && !HasFatalFailure())
    Ask(socket, static_cast<std::uint16_t>(++asked), std::string(4000, 'x'));
  return asked;
}

TEST_F(LocalIpc, WhatFindsTheQueueFullIsKeptInOrderAndGoesOutWhenThereIsRoom) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  ASSERT_NE(RetryOutput, nullptr);
  EXPECT_EQ(RetryOutput(), -1);
  int asked = FillQueue(client.Accepted);
  for (int i = 0; i < 3; ++i) Ask(client.Accepted, static_cast<std::uint16_t>(++asked));
  EXPECT_GT(link_->Unsent, 4000U);
  EXPECT_GT(RetryOutput(), 0);
  const int queued = kernel.SemaphoreValue();
  EXPECT_LT(queued, asked);
  for (int i = 1; i <= asked; ++i) {
    AnswerNext(kernel);
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), 0);
    RetryOutput();  // as before each wait
    const std::string answer = Receive(client);
    ASSERT_FALSE(answer.empty()) << i;
    EXPECT_EQ(
        Get(reinterpret_cast<const unsigned char*>(answer.data()) + answer.size() - kTrailerSize,
            kTrailerAstInd),
        i);
  }
  EXPECT_EQ(kernel.SemaphoreValue(), asked) << "the kernel is woken once for each";
  EXPECT_EQ(link_->Unsent, 0U);
  EXPECT_EQ(RetryOutput(), -1);
  EXPECT_EQ(MsgInfos(), 0);
}

TEST_F(LocalIpc, PausesBetweenTwoTriesGrowUntilThereIsRoom) {
  Kernel kernel;
  ConnectTo(kernel);
  FillQueue(-1);
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
  FillQueue(-1);
  Ask(-1, 999);
  kernel.Take();
  EXPECT_EQ(LIpcTimerEvent("test", 1, link_), 0);
  EXPECT_LE(RetryOutput(), 2) << "the tick tries, and something went out";
}

TEST_F(LocalIpc, FullQueueOfADeadKernelFailsTheRequest) {
  Kernel kernel;
  ConnectTo(kernel);
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  kernel.SetPid(dead);
  int status = 0;
  for (int i = 0; i < 100000 && status == 0; ++i) {
    ClientMessage msg = MakeRequest(77, -1, 5, {std::string(1000, 'x')});
    status = Send(msg);
  }
  EXPECT_EQ(status, kStatusSend);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LocalIpc, KernelThatGoesFailsWhatIsKeptForIt) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  const int asked = FillQueue(client.Accepted);
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  kernel.SetPid(dead);
  RetryNow(&Data());
  EXPECT_EQ(RetryOutput(), 0);
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(link_->Unsent, 0U);
  for (int i = 0; i < asked; ++i) {
    const std::string failure = Receive(client);
    ASSERT_EQ(failure.size(), 108U);
    const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(failure.data());
    EXPECT_EQ(Get(bytes, WireField<int>{8}), kStatusSend);
    EXPECT_EQ(Get(bytes, WireField<int>{44}), EAGAIN);
  }
  EXPECT_EQ(RetryOutput(), -1);
}

TEST_F(LocalIpc, MessageThatCannotBeKeptFails) {
  Kernel kernel;
  ConnectTo(kernel);
  FillQueue(-1);
  ClientMessage msg = MakeRequest(77, -1, 5);
  const FailingAllocations failing;
  EXPECT_EQ(Send(msg), kStatusSend);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(LocalIpc, WhatWasForAFormerReaderDoesNotFillTheQueue) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  const pid_t former = Data().ChildPid;
  LIpcDisconnectLink("test", 1, link_);
  ASSERT_EQ(Connect(), 0);
  const std::string answer = BodyOf(MakeRequest(77, 0, 5, {std::string(7000, 'x')}));
  while (kernel.HasRoomFor(answer.size())) kernel.Answer(former, answer);
  Ask(client.Accepted, 6, std::string(7000, 'y'));
  EXPECT_EQ(link_->Unsent, 0U);
  AnswerNext(kernel, "answer");
  EXPECT_TRUE(HasText(Receive(client), "answer"));
  kernel.Answer(former, answer);
  EXPECT_EQ(LIpcTimerEvent("test", 1, link_), 0);
  EXPECT_EQ(kernel.Messages(), 0) << "the tick, too, takes it away";
}

TEST_F(LocalIpc, AnswersForAProcessThatLivesAreNotTakenAway) {
  Kernel kernel;
  ConnectTo(kernel);
  LIpcDisconnectLink("test", 1, link_);
  ASSERT_EQ(Connect(), 0);
  Data().Former[0] = getpid();  // its number belongs to somebody else by now
  kernel.Answer(getpid(), BodyOf(MakeRequest(77, 0, 5)));
  EXPECT_EQ(LIpcTimerEvent("test", 1, link_), 0);
  EXPECT_EQ(kernel.Messages(), 1);
}

TEST_F(LocalIpc, AnswerThatNobodyAskedForIsDropped) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  kernel.Answer(Data().ChildPid, BodyOf(MakeRequest(getpid(), 0, 9)));
  ASSERT_TRUE(RecordComes());
  const CapturedLog stderrText(kLogError);
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(stderrText.Contains("The message were not send by the agent. Skip the message"));
  EXPECT_FALSE(Readable(client.Fd, 0));
  EXPECT_EQ(link_->State, kLinkConnected);
}

TEST_F(LocalIpc, AnswerWhoseStringsLeaveTheAreaIsSkipped) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  Ask(client.Accepted, 5);
  std::string body = BodyOf(MakeRequest(getpid(), 0, 5));
  body[kStringsAt - 4] = body[kStringsAt - 3] = static_cast<char>(0xFF);
  kernel.Answer(Data().ChildPid, body);
  AnswerNext(kernel, "good");
  EXPECT_TRUE(HasText(Receive(client), "good"));
}

TEST_F(LocalIpc, RequestAnsweredByTheReaderIsNotAnsweredAgainWhenTheLinkGoesDown) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  Ask(client.Accepted, 1);
  Ask(client.Accepted, 2);
  AnswerNext(kernel, "answered");
  EXPECT_TRUE(HasText(Receive(client), "answered"));
  EXPECT_EQ(DisconnectLink("test", 1, link_, 4444, 0), 0);
  const std::string failure = Receive(client);
  ASSERT_EQ(failure.size(), 108U);
  EXPECT_EQ(Get(reinterpret_cast<const unsigned char*>(failure.data()), WireField<int>{8}), 4444);
  EXPECT_FALSE(Readable(client.Fd, 0));
  EXPECT_EQ(MsgInfos(), 0);
}

TEST_F(LocalIpc, FlushIsPutOffWhileTheReaderWritesAndTheReaderStaysOutAfterwards) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  ASSERT_NE(MayFlush, nullptr);
  Data().Board->Writer[client.Accepted] = 1;  // as the reader does
  EXPECT_FALSE(MayFlush(client.Accepted));
  Data().Board->Writer[client.Accepted] = 0;
  Ask(client.Accepted, 1);
  EXPECT_TRUE(MayFlush(client.Accepted));
  AnswerNext(kernel, "by way of the agent");
  ASSERT_TRUE(RecordComes());
  EXPECT_FALSE(Readable(client.Fd, 0));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(client), "by way of the agent"));
  Ask(client.Accepted, 2);
  AnswerNext(kernel, "straight again");
  EXPECT_TRUE(HasText(Receive(client), "straight again"));
}

// Puts the reader out of its work in the middle of writing the answer to the first client.
TEST_F(LocalIpc, ConnectionThatTheReaderWasWritingToWhenItDiedIsClosed) {
  Kernel kernel;
  const Client client = ConnectClient(), other = ConnectClient();
  ConnectTo(kernel);
  Ask(client.Accepted, 1);
  Ask(other.Accepted, 2);
  BoardRequest request;
  ASSERT_TRUE(BoardClaim(Data().Board, getpid(), 1, &request));
  ASSERT_TRUE(BoardBeginWrite(Data().Board, request));
  ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
  ASSERT_TRUE(RecordComes());
  const CapturedLog stderrText(kLogError);
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_TRUE(stderrText.Contains("The reader has ended while it wrote to a client."));
  char byte;
  EXPECT_EQ(recv(client.Fd, &byte, 1, 0), 0) << "neither an answer nor a failure";
  EXPECT_FALSE(FD_ISSET(client.Accepted, &g_DbcI.ClientSockets));
  EXPECT_EQ(Receive(other).size(), 108U);
  EXPECT_EQ(MsgInfos(), 0);
}

// Another connection may have the number by now, which the reader has nothing to do with.
TEST_F(LocalIpc, ConnectionWithTheNumberOfOneThatTheReaderWasWritingToStays) {
  Kernel kernel;
  const Client first = ConnectClient();
  ConnectTo(kernel);
  Ask(first.Accepted, 1);
  BoardRequest request;
  ASSERT_TRUE(BoardClaim(Data().Board, getpid(), 1, &request));
  ASSERT_TRUE(BoardBeginWrite(Data().Board, request));
  CloseClient(first.Accepted);
  const Client second = ConnectClient();
  ASSERT_EQ(second.Accepted, first.Accepted);
  ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_TRUE(FD_ISSET(second.Accepted, &g_DbcI.ClientSockets));
  EXPECT_FALSE(Readable(second.Fd, 0));
}

TEST_F(LocalIpc, DeadReaderBreaksTheLinkWithTheNextRead) {
  Kernel kernel;
  ConnectTo(kernel);
  const int pipe = Data().PipeRead;
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
  ASSERT_TRUE(RecordComes());
  errno = 77;
  {
    const FailingSystemCall interrupted(SystemCall::Read, EINTR, 0, 1);
    EXPECT_EQ(Read(), kStatusPeerClosed);
    EXPECT_EQ(interrupted.Calls(), 2);
  }
  const std::string failure = Receive(client);
  ASSERT_EQ(failure.size(), 108U);
  EXPECT_EQ(Get(reinterpret_cast<const unsigned char*>(failure.data()), WireField<int>{44}), 0)
      << "the error is of something else";
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(LinkOfSocket(pipe), nullptr);
  EXPECT_EQ(Data().PipeRead, pipe);
  EXPECT_EQ(Data().ShmId, -1);
  EXPECT_EQ(Data().Shm, nullptr);
  EXPECT_EQ(kernel.Attached(), 0);
}

TEST_F(LocalIpc, RecordsThatCameTogetherAreReadWithOneCallAndServedOneByOne) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  for (std::uint16_t tag = 1; tag <= 3; ++tag) Ask(client.Accepted, tag);
  for (int i = 0; i < 3; ++i) AnswerNext(kernel);
  ASSERT_TRUE(RecordsCome(3));
  for (int left = 2; left >= 0; --left) {
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(RequestsInFlight(), left);
    EXPECT_EQ(FrameWaits(Data().PipeRead), left > 0);
    EXPECT_TRUE(RecordsCome(0));
  }
}

TEST_F(LocalIpc, RecordsOfALinkThatGoesDownAreForgotten) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  const int pipe = Data().PipeRead;
  for (std::uint16_t tag = 1; tag <= 3; ++tag) Ask(client.Accepted, tag);
  for (int i = 0; i < 3; ++i) AnswerNext(kernel);
  ASSERT_TRUE(RecordsCome(3));
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(LIpcDisconnectLink("test", 1, link_), 0);
  EXPECT_FALSE(FrameWaits(pipe));
  EXPECT_EQ(Connect(), 0);
  Ask(client.Accepted, 4);
  AnswerNext(kernel);
  ASSERT_TRUE(RecordsCome(1));
  const int before = RequestsInFlight();
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(RequestsInFlight(), before - 1);
}

TEST_F(LocalIpc, AnswersOfADeadReaderStillReachTheirClients) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "last words");
  ASSERT_TRUE(RecordComes());
  PipeRecord record;
  ASSERT_EQ(read(Data().PipeRead, &record, sizeof record),
            static_cast<ssize_t>(sizeof record));  // as if it had not been written
  ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_TRUE(HasText(Receive(client), "last words"));
  EXPECT_FALSE(Readable(client.Fd, 0));
}

// The child counts its calls from its start on.
TEST_F(LocalIpc, ReaderGoesOnWhateverSignalsCome) {
  for (const SystemCall call : {SystemCall::MsgReceive, SystemCall::Send, SystemCall::Write}) {
    Kernel kernel;
    {
      const FailingSystemCall interrupted(call, EINTR, 0, 2);
      ConnectTo(kernel);
    }
    const Client client = ConnectClient();
    Ask(client.Accepted, 5);
    AnswerNext(kernel, "handed");
    ASSERT_TRUE(RecordComes());
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(HasText(Receive(client), "handed")) << static_cast<int>(call);
    const pid_t reader = Data().ChildPid;
    LIpcUninitLink("test", 1, link_);
    waitpid(reader, nullptr, 0);
  }
}

TEST_F(LocalIpc, AgentGoesOnWhateverSignalsCome) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  {
    const FailingSystemCall send(SystemCall::MsgSend, EINTR, 0, 2),
        wake(SystemCall::SemOp, EINTR, 0, 2);
    Ask(client.Accepted, 5);
    EXPECT_EQ(send.Calls(), 3);
    EXPECT_EQ(wake.Calls(), 3);
  }
  EXPECT_EQ(kernel.SemaphoreValue(), 1);
  AnswerNext(kernel, "handed");
  ASSERT_TRUE(RecordComes());
  {
    const FailingSystemCall record(SystemCall::Read, EINTR, 0, 2),
        answer(SystemCall::Recv, EINTR, 0, 2);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(record.Calls(), 3);
    EXPECT_EQ(answer.Calls(), 3);
  }
  EXPECT_TRUE(HasText(Receive(client), "handed"));
}

TEST_F(LocalIpc, HalfARecordOfAFormerReaderIsForgotten) {
  Kernel kernel;
  ConnectTo(kernel);
  Data().RecordsEnd = 4;
  LIpcDisconnectLink("test", 1, link_);
  ASSERT_EQ(Connect(), 0);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "whole");
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(client), "whole"));
}

TEST_F(LocalIpc, ReaderMayWriteAgainWhenAllIsAnsweredThatItMayNotChooseAmong) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  Data().Board->AgentDecides = true;
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "straight");
  EXPECT_TRUE(HasText(Receive(client), "straight"));
}

TEST_F(LocalIpc, AnswerIsNotForARequestToWhichTheReaderHasOne) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client first = ConnectClient(), second = ConnectClient();
  Ask(first.Accepted, 5);
  Ask(second.Accepted, 5);
  BoardRequest request;
  ASSERT_TRUE(BoardClaim(Data().Board, getpid(), 5, &request));
  ASSERT_EQ(request.Socket, first.Accepted);
  Data().Board->AgentDecides = true;
  AnswerNext(kernel, "second");
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(second), "second"));
}

// A reader that still lives would take a later request for one that is closed already.
TEST_F(LocalIpc, ReaderMayChooseAmongNoneAfterTheParting) {
  Kernel kernel;
  ConnectTo(kernel);
  int parted[2];
  ASSERT_EQ(pipe(parted), 0);
  const ReaderBoard* const board = Data().Board;
  const pid_t looker = fork();
  if (looker == 0) {
    char byte;
    _exit(read(parted[0], &byte, 1) == 1 && board->AgentDecides ? 0 : 1);
  }
  LIpcDisconnectLink("test", 1, link_);
  EXPECT_EQ(write(parted[1], "", 1), 1);
  int status = -1;
  EXPECT_EQ(waitpid(looker, &status, 0), looker);
  EXPECT_EQ(status, 0);
  close(parted[0]);
  close(parted[1]);
}

TEST_F(LocalIpc, TickFindsADeadReader) {
  Kernel kernel;
  ConnectTo(kernel);
  const pid_t child = Data().ChildPid;
  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  const CapturedLog stderrText(kLogDriver);
  EXPECT_EQ(LIpcTimerEvent("test", 1, link_), kStatusReaderGone);
  EXPECT_TRUE(stderrText.Contains("LIPC child proccess deaded"));
}

TEST_F(LocalIpc, ReaderEndsWithTheQueue) {
  Kernel kernel;
  ConnectTo(kernel);
  kernel.RemoveQueue();
  int status = -1;
  ASSERT_EQ(waitpid(Data().ChildPid, &status, 0), Data().ChildPid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(LocalIpc, DisconnectEndsTheReaderAndIsHarmlessTwice) {
  Kernel kernel;
  ConnectTo(kernel);
  const pid_t child = Data().ChildPid;
  EXPECT_EQ(LIpcDisconnectLink("test", 1, link_), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(LIpcDisconnectLink("test", 1, link_), 0);
  EXPECT_EQ(kernel.Attached(), 0);
}

// As an agent that a shell has started with a job in the background, and then become.
TEST_F(LocalIpc, ChildrenThatAreNoReadersAreNotWaitedFor) {
  Kernel kernel;
  const pid_t other = fork();
  if (other == 0) pause();
  const auto begin = std::chrono::steady_clock::now();
  ConnectTo(kernel);
  const auto patience = std::chrono::milliseconds(900);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, patience);
  kill(other, SIGKILL);
  EXPECT_EQ(waitpid(other, nullptr, 0), other) << "nor collected";
}

TEST_F(LocalIpc, ReaderThatIsStillEndingIsWaitedForBeforeTheNext) {
  Kernel kernel;
  ConnectTo(kernel);
  const pid_t former = Data().ChildPid;
  LIpcDisconnectLink("test", 1, link_);
  ASSERT_EQ(Connect(), 0);
  EXPECT_EQ(kill(former, 0), -1) << "gone, and collected";
  EXPECT_NE(Data().ChildPid, former);
}

TEST_F(LocalIpc, ProcessThatHasTheNumberOfAReaderIsNotTakenForIt) {
  Kernel kernel;
  ConnectTo(kernel);
  const pid_t reader = Data().ChildPid;
  ASSERT_EQ(kill(reader, SIGKILL), 0);
  ASSERT_EQ(waitpid(reader, nullptr, 0), reader);
  Data().ChildPid = getpid();
  EXPECT_EQ(LIpcTimerEvent("test", 1, link_), kStatusReaderGone);
  LIpcDisconnectLink("test", 1, link_);  // else this process would be told to end
  Data().ChildPid = 0;
}

TEST_F(LocalIpc, AnswerThatCannotBeHandedOverBreaksTheLink) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  ASSERT_EQ(shutdown(Data().Pair, SHUT_RDWR), 0);
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "to nobody");
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), kStatusPeerClosed);
  const std::string failure = Receive(client);
  ASSERT_EQ(failure.size(), 108U);
  EXPECT_EQ(Get(reinterpret_cast<const unsigned char*>(failure.data()), WireField<int>{8}),
            kStatusPeerClosed);
}

// Without this every answer handed over later would go to the request before its own.
TEST_F(LocalIpc, HandedAnswerThatIsNotThereBreaksTheLink) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "lost");
  ASSERT_TRUE(RecordComes());
  char taken[8192];
  ASSERT_GT(recv(Data().Pair, taken, sizeof taken, MSG_DONTWAIT), 0);
  EXPECT_EQ(Read(), kStatusReceive);
  const std::string failure = Receive(client);
  ASSERT_EQ(failure.size(), 108U);
  EXPECT_EQ(Get(reinterpret_cast<const unsigned char*>(failure.data()), WireField<int>{8}),
            kStatusReceive);
}

TEST_F(LocalIpc, DeathOfAClientIsTold) {
  Kernel kernel;
  ConnectTo(kernel);
  ASSERT_EQ(LIpcClientDeadEvent("test", 1, link_, 4242), 0);
  ClientMessage expected;
  MakeClientDeathMessage(&expected, 4242);
  expected.TaskName = Data().ChildPid;
  EXPECT_EQ(kernel.Take(), BodyOf(expected));
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
  Add({0, 1}, 1, 1);
  ASSERT_TRUE(Claim(1, 1));
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
  Add({0, 1}, 1, 1);
  ASSERT_TRUE(Claim(1, 1));
  const BoardRequest claimed = request_;
  Close(0);
  EXPECT_FALSE(BoardBeginWrite(board_, claimed));
  EXPECT_TRUE(BoardTakeConnection(board_, claimed.Socket)) << "it was given back";
}

TEST_F(Board, ConnectionHasOneWriter) {
  Add({0, 1}, 1, 1, 9);
  ASSERT_TRUE(Claim(1, 1));
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
