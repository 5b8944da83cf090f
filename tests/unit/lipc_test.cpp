// The driver of the local kernel's queue: the kernel and the clients are played by the test, the
// reader child is a real one.
#include "protocols/lipc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "core/io.h"
#include "core/mailbox.h"
#include "core/status.h"
#include "protocols/lipc_board.h"
#include "protocols/lipc_reader.h"
#include "tests/support/wait.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/faults.h"

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
  int Queue() const { return queue_; }
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
  bool RecordComes() { return Readable(Data().PipeRead); }
  bool RecordsCome(int count) {
    return test::WaitFor([&] {
      int bytes = 0;
      return ioctl(Data().PipeRead, FIONREAD, &bytes) == 0 &&
             bytes == count * static_cast<int>(sizeof(PipeRecord));
    });
  }

  // A request that is noted as sent and lies in the kernel's queue.
  ClientMessage Ask(int socket, std::uint16_t astInd) {
    ClientMessage msg = MakeRequest(getpid(), socket, astInd, {"request"});
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
  g_DbcI.LogLevel = kLogTrace;
  for (const char* text : {"0", "-3", "word", ""}) {
    CapturedStderr stderrText;
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
  g_DbcI.LogLevel = kLogDriver;
  CapturedStderr stderrText;
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
  g_DbcI.LogLevel = kLogDriver;
  CapturedStderr stderrText;
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
  g_DbcI.LogLevel = kLogDriver;
  kernel.RemoveSemaphore();
  {
    CapturedStderr stderrText;
    EXPECT_EQ(Connect(), kStatusConnect);
    EXPECT_TRUE(stderrText.Contains("LIPC msgget failed. errno 2"));
  }
  kernel.RemoveQueue();
  CapturedStderr stderrText;
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

TEST_F(LocalIpc, PipeBeyondTheTableIsRefused) {
  Kernel kernel;
  ASSERT_EQ(Init(std::to_string(kernel.Key)), 0);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < kMaxDescriptors - 2) fillers.push_back(dup(0));
  EXPECT_EQ(Connect(), kStatusDescriptor);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(Data().ChildPid, 0);
  const int next = dup(0);
  EXPECT_EQ(next, kMaxDescriptors - 1);
  close(next);
  for (const int fd : fillers) close(fd);
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

TEST_F(LocalIpc, OneTagInUseTwiceLeavesTheChoiceToTheAgent) {
  Kernel kernel;
  const Client one = ConnectClient(), two = ConnectClient();
  ConnectTo(kernel);
  Ask(one.Accepted, 1);
  Ask(two.Accepted, 1);
  AnswerNext(kernel, "first");
  ASSERT_TRUE(RecordComes());
  EXPECT_FALSE(Readable(one.Fd, 0));
  EXPECT_FALSE(Readable(two.Fd, 0));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(HasText(Receive(one), "first"));
  AnswerNext(kernel, "second");
  EXPECT_TRUE(HasText(Receive(two), "second"));
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

TEST_F(LocalIpc, HandedAnswerWithoutMemoryBreaksTheLink) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "no room for it");
  ASSERT_TRUE(RecordComes());
  {
    const FailingAllocations failing;
    EXPECT_EQ(Read(), kStatusReceive);
  }
  EXPECT_EQ(link_->State, kLinkDisconnected);
  const std::string failure = Receive(client);
  ASSERT_EQ(failure.size(), 108U);
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(failure.data());
  EXPECT_EQ(Get(bytes, WireField<int>{8}), kStatusReceive);
  EXPECT_EQ(Get(bytes, WireField<int>{44}), ENOMEM);
}

// The record of the first answer is lost with the failure.
TEST_F(LocalIpc, TagUsedAgainAtOnceKeepsItsConnectionWhenTakingAnswersFails) {
  Kernel kernel;
  const Client first = ConnectClient();
  ConnectTo(kernel);
  const Client second = ConnectClient(), third = ConnectClient();
  Ask(first.Accepted, 5);
  AnswerNext(kernel, "first");
  EXPECT_TRUE(HasText(Receive(first), "first"));
  Ask(second.Accepted, 5);
  AnswerNext(kernel, "second");
  Ask(third.Accepted, 6);
  AnswerNext(kernel, "no room for it");
  ASSERT_TRUE(RecordsCome(3));
  {
    const FailingAllocations failing(1);
    EXPECT_EQ(Read(), kStatusReceive);
  }
  EXPECT_TRUE(HasText(Receive(second), "second"));
  EXPECT_EQ(Receive(third).size(), 108U);
  for (const Client& client : {first, second, third}) EXPECT_FALSE(Readable(client.Fd, 0));
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

// A kernel that answers with the request itself. It never waits for room in the queue that it has
// to empty itself.
[[noreturn]] void EchoRequests(int queue, int count) {
  alarm(60);
  std::deque<std::pair<QueueMessage, std::size_t>> answers;
  for (int taken = 0; taken < count || !answers.empty();) {
    QueueMessage msg;
    const ssize_t size = msgrcv(queue, &msg, sizeof msg.Body, 1, IPC_NOWAIT);
    if (size > 0) {
      std::int32_t reader;
      std::memcpy(&reader, msg.Body, sizeof reader);
      msg.Type = reader;
      answers.emplace_back(msg, static_cast<std::size_t>(size));
      ++taken;
    } else if (!answers.empty() &&
               msgsnd(queue, &answers.front().first, answers.front().second, IPC_NOWAIT) == 0) {
      answers.pop_front();
    } else {
      poll(nullptr, 0, 1);
    }
  }
  _exit(0);
}

TEST_F(LocalIpc, FullQueueIsEmptiedByTheReaderWhileTheAgentWaits) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  constexpr int kRequests = 600;  // more answers than the pair holds
  const pid_t server = fork();
  if (server == 0) EchoRequests(kernel.Queue(), kRequests);
  kernel.SetPid(server);
  for (int i = 0; i < kRequests; ++i) Ask(client.Accepted, static_cast<std::uint16_t>(i));
  int answers = 0;
  while (answers < kRequests && RecordComes()) {
    ASSERT_EQ(Read(), 0);
    ASSERT_FALSE(Receive(client).empty());
    ++answers;
  }
  EXPECT_EQ(answers, kRequests);
  EXPECT_EQ(MsgInfos(), 0);
  int status = -1;
  EXPECT_EQ(waitpid(server, &status, 0), server);
  EXPECT_EQ(status, 0);
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

TEST_F(LocalIpc, StopRequestEndsTheWaitForAFullQueue) {
  Kernel kernel;
  ConnectTo(kernel);
  g_DbcI.ExitStatus = -1;
  int status = 0;
  for (int i = 0; i < 100000 && status == 0; ++i) {
    ClientMessage msg = MakeRequest(77, -1, 5, {std::string(1000, 'x')});
    status = Send(msg);
  }
  EXPECT_EQ(status, kStatusSend);
}

TEST_F(LocalIpc, AnswerThatNobodyAskedForIsDropped) {
  Kernel kernel;
  const Client client = ConnectClient();
  ConnectTo(kernel);
  kernel.Answer(Data().ChildPid, BodyOf(MakeRequest(getpid(), 0, 9)));
  ASSERT_TRUE(RecordComes());
  g_DbcI.LogLevel = kLogError;
  CapturedStderr stderrText;
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
  Data().Board->SendingTo = client.Accepted;
  EXPECT_FALSE(MayFlush(client.Accepted));
  Data().Board->SendingTo = 0;
  EXPECT_TRUE(MayFlush(client.Accepted));
  EXPECT_FALSE(BoardBeginSend(Data().Board, client.Accepted));
  Ask(client.Accepted, 1);
  AnswerNext(kernel, "straight again");
  EXPECT_TRUE(HasText(Receive(client), "straight again"));
}

TEST_F(LocalIpc, DeadReaderBreaksTheLinkWithTheNextRead) {
  Kernel kernel;
  ConnectTo(kernel);
  const int pipe = Data().PipeRead;
  ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_EQ(link_->State, kLinkDisconnected);
  EXPECT_EQ(LinkOfSocket(pipe), nullptr);
  EXPECT_EQ(Data().PipeRead, pipe);
  EXPECT_EQ(Data().ShmId, -1);
  EXPECT_EQ(Data().Shm, nullptr);
  EXPECT_EQ(kernel.Attached(), 0);
}

TEST_F(LocalIpc, AnswersOfADeadReaderStillReachTheirClients) {
  Kernel kernel;
  ConnectTo(kernel);
  const Client client = ConnectClient();
  Ask(client.Accepted, 5);
  AnswerNext(kernel, "last words");
  ASSERT_TRUE(RecordComes());
  PipeRecord record;
  ASSERT_EQ(read(Data().PipeRead, &record, sizeof record), 8);  // as if it had not been written
  ASSERT_EQ(kill(Data().ChildPid, SIGKILL), 0);
  ASSERT_TRUE(RecordComes());
  EXPECT_EQ(Read(), kStatusPeerClosed);
  EXPECT_TRUE(HasText(Receive(client), "last words"));
  EXPECT_FALSE(Readable(client.Fd, 0));
}

TEST_F(LocalIpc, TickFindsADeadReader) {
  Kernel kernel;
  ConnectTo(kernel);
  const pid_t child = Data().ChildPid;
  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  g_DbcI.LogLevel = kLogDriver;
  CapturedStderr stderrText;
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

  void Add(int task, std::uint16_t astInd, int socket = 9) {
    BoardAdd(board_, {.TaskName = task, .AstInd = astInd, .Socket = socket, .Serial = 3});
  }
  BoardSlot* Find(int task, std::uint16_t astInd) {
    return BoardFind(board_, task, astInd, &request_, &state_);
  }
  void MarkDelivered(int task, std::uint16_t astInd) {
    BoardSlot* const slot = Find(task, astInd);
    ASSERT_NE(slot, nullptr);
    BoardMarkDelivered(slot, state_);
  }

  ReaderBoard* board_ = nullptr;
  BoardRequest request_ = {};
  std::uint32_t state_ = 0;
};

TEST_F(Board, RequestIsFoundByItsName) {
  Add(1, 1, 10);
  Add(1, 2, 11);
  ASSERT_NE(Find(1, 2), nullptr);
  EXPECT_EQ(request_.Socket, 11);
  EXPECT_EQ(request_.Serial, 3U);
  EXPECT_EQ(Find(2, 1), nullptr);
}

TEST_F(Board, NameInUseTwiceIsNotFound) {
  Add(1, 1, 10);
  Add(1, 1, 11);
  EXPECT_EQ(Find(1, 1), nullptr);
  BoardRemove(board_, 1, 1, false);
  EXPECT_NE(Find(1, 1), nullptr);
}

TEST_F(Board, DeliveredRequestMakesRoomForItsNameAtOnce) {
  Add(1, 1, 10);
  MarkDelivered(1, 1);
  Add(1, 1, 11);
  ASSERT_NE(Find(1, 1), nullptr);
  EXPECT_EQ(request_.Socket, 11);
  BoardRemove(board_, 1, 1, true);
  EXPECT_FALSE(BoardTakeDelivered(board_, &request_));
  EXPECT_NE(Find(1, 1), nullptr);
}

TEST_F(Board, RequestWhoseAnswerWasHandedOverIsNotFoundForASecondOne) {
  Add(1, 1);
  BoardSlot* const slot = Find(1, 1);
  BoardMarkHandedOver(slot, state_);
  EXPECT_EQ(Find(1, 1), nullptr);
  BoardRemove(board_, 1, 1, false);
  Add(1, 1, 11);
  EXPECT_EQ(Find(1, 1), slot);
  EXPECT_EQ(request_.Socket, 11);
}

TEST_F(Board, MarkOfASlotThatWasUsedAgainIsLost) {
  Add(1, 1);
  BoardSlot* const slot = Find(1, 1);
  BoardRemove(board_, 1, 1, false);
  Add(1, 2);
  BoardMarkDelivered(slot, state_);
  EXPECT_FALSE(BoardTakeDelivered(board_, &request_));
  EXPECT_NE(Find(1, 2), nullptr);
}

TEST_F(Board, RemovedRequestIsShown) {
  Add(1, 1, 10);
  MarkDelivered(1, 1);
  Add(1, 1, 11);
  BoardRequest removed = {};
  ASSERT_TRUE(BoardRemove(board_, 1, 1, true, &removed));
  EXPECT_EQ(removed.Socket, 10);
  EXPECT_EQ(removed.Serial, 3U);
  EXPECT_FALSE(BoardRemove(board_, 1, 1, true, &removed));
}

TEST_F(Board, DeliveredRequestIsNotForgottenWhenAFullBoardTakesItsNameAgain) {
  for (std::uint32_t i = 0; i < kBoardSlots; ++i) Add(1, static_cast<std::uint16_t>(i));
  MarkDelivered(1, 7);
  Add(1, 7, 11);
  EXPECT_EQ(Find(1, 7), nullptr);
  ASSERT_TRUE(BoardTakeDelivered(board_, &request_));
  EXPECT_EQ(request_.AstInd, 7);
}

TEST_F(Board, DeliveredRequestsAreTakenOneByOne) {
  for (std::uint16_t i = 0; i < 5; ++i) Add(1, i);
  MarkDelivered(1, 1);
  MarkDelivered(1, 4);
  ASSERT_TRUE(BoardTakeDelivered(board_, &request_));
  EXPECT_EQ(request_.AstInd, 1);
  ASSERT_TRUE(BoardTakeDelivered(board_, &request_));
  EXPECT_EQ(request_.AstInd, 4);
  EXPECT_FALSE(BoardTakeDelivered(board_, &request_));
}

TEST_F(Board, FullBoardForgetsOlderRequestsOfTheSameName) {
  for (std::uint32_t i = 0; i < kBoardSlots; ++i) Add(1, static_cast<std::uint16_t>(i));
  ASSERT_NE(Find(1, 7), nullptr);
  Add(1, 7);
  EXPECT_EQ(Find(1, 7), nullptr);
  EXPECT_NE(Find(1, 8), nullptr);
}

TEST_F(Board, RequestsOfAClientAreRemovedTogether) {
  Add(1, 1);
  Add(2, 1);
  Add(1, 2);
  BoardRemoveTask(board_, 1);
  EXPECT_EQ(Find(1, 1), nullptr);
  EXPECT_EQ(Find(1, 2), nullptr);
  EXPECT_NE(Find(2, 1), nullptr);
}

TEST_F(Board, OneOfTheTwoSidesSeesTheOther) {
  EXPECT_TRUE(BoardBeginSend(board_, 9));
  EXPECT_FALSE(BoardReserve(board_, 9));
  EXPECT_TRUE(BoardReserve(board_, 10));
  BoardEndSend(board_);
  EXPECT_TRUE(BoardReserve(board_, 9));
  EXPECT_FALSE(BoardBeginSend(board_, 9));
  EXPECT_TRUE(BoardBeginSend(board_, 11));
  BoardEndSend(board_);
  board_->Closed = 1;
  EXPECT_FALSE(BoardBeginSend(board_, 11));
}

}  // namespace
