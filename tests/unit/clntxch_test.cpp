// Reading requests, answering clients, and who of them is alive.
#include "client/clntxch.h"

#include <csignal>

#include "tests/unit/client_fixture.h"
#include "tests/unit/faults.h"

namespace {

constexpr std::size_t kMebibyte = 1024 * 1024;

class ClientReading : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    socket_ = Connect();
    std::memset(static_cast<void*>(&msg_), 0xDD, sizeof msg_);
  }
  int Read() { return GetMsgFromClient(kHere, 1, &msg_, socket_); }

  // The connection is closed as if the client had hung up, and the log says why.
  void ExpectRefused(const std::string& bytes, const std::string& line) {
    socket_ = Connect();
    const CapturedLog log(kLogError);
    Come(socket_, bytes);
    EXPECT_EQ(Read(), -1);
    EXPECT_TRUE(log.Contains("|" + line + "\n")) << log.Text();
    EXPECT_FALSE(IsOpen(socket_) || IsClient(socket_) || IsRead(socket_));
  }

  int socket_ = -1;
  ClientMessage msg_;
};

TEST_F(ClientReading, AWholeRequestIsLocatedAndNotesItsConnection) {
  lumo::Message request = Request("SRV", 0x1234, "odd");
  request.Strings[3] = "four";
  const std::string frame = FrameOf(request);
  Come(socket_, frame);
  EXPECT_EQ(Read(), static_cast<int>(frame.size()) - 4);
  EXPECT_EQ(msg_.Length, frame.size() - 4);
  EXPECT_EQ(msg_.TrailerOffset, 44 + 6 + 2 + 2 + 6);
  EXPECT_EQ(msg_.ClientSocket, socket_);
  EXPECT_EQ(Get(Trailer(&msg_), kTrailerAstInd), 0x1234);
  EXPECT_EQ(WireBytes(msg_, 4, frame.size() - 4), frame.substr(4));
}

TEST_F(ClientReading, NothingComeYetIsNoFailure) {
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(IsOpen(socket_) && IsClient(socket_) && IsRead(socket_));
}

TEST_F(ClientReading, TheLengthIsRecomputedFromTheStrings) {
  std::string frame = FrameOf(Request("SRV", 5));
  frame += std::string(40, 'x');
  frame.replace(0, 4, BytesOf(static_cast<std::uint32_t>(frame.size())));
  Come(socket_, frame);
  EXPECT_EQ(Read(), 104);
  EXPECT_EQ(msg_.TrailerOffset, 52);
  EXPECT_EQ(Get(Trailer(&msg_), kTrailerAstInd), 5);
}

TEST_F(ClientReading, WhatIsMissingBehindTheLengthCountsAsZero) {
  Come(socket_, BytesOf(8) + std::string("\1\2\3\4", 4));
  EXPECT_EQ(Read(), 104);
  EXPECT_EQ(msg_.TaskName, 0x04030201);
  EXPECT_EQ(WireBytes(msg_, 8, 100), std::string(100, '\0'));
}

TEST_F(ClientReading, AStringThatReachesBeyondTheLengthIsCompletedWithZeros) {
  std::string frame = BytesOf(56) + std::string(48, '\0');
  frame += std::string("\6\0ab", 4);
  ASSERT_EQ(frame.size(), 56u);
  Come(socket_, frame);
  EXPECT_EQ(Read(), 104 + 6);
  EXPECT_EQ(CountedString(msg_, 0), std::string("ab\0\0\0\0", 6));
}

TEST_F(ClientReading, TheLargestMessageIsTaken) {
  const std::string frame = FrameOf(Request("SRV", 5, std::string(8080, 'x')));
  ASSERT_EQ(frame.size(), 8188u);
  Come(socket_, frame);
  EXPECT_EQ(Read(), 8184);
}

TEST_F(ClientReading, LengthsOutOfBoundsCloseTheConnection) {
  for (const std::uint32_t length : {0u, 1u, 4u, 8189u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    ExpectRefused(BytesOf(length), "Message length " + std::to_string(length) +
                                       " from client is out of range. The connection is closed");
  }
}

TEST_F(ClientReading, StringsThatLeaveTheAreaCloseTheConnection) {
  const std::string line = "Message strings from client are too long. The connection is closed";
  for (const std::uint16_t count : {std::uint16_t{8082}, std::uint16_t{8100}, std::uint16_t{65535}})
    ExpectRefused(BytesOf(54) + std::string(48, '\0') +
                      std::string(reinterpret_cast<const char*>(&count), sizeof count),
                  line);
}

TEST_F(ClientReading, AHangUpClosesAndForgetsTheConnection) {
  HangUp(socket_);
  const CapturedLog log;
  EXPECT_EQ(Read(), -1);
  EXPECT_TRUE(log.Contains("|recv return 0\n"));
  EXPECT_TRUE(log.Contains("|UNREGISTER_SOCKET_FOR_READ_EVENT " + std::to_string(socket_) + "\n"));
  EXPECT_TRUE(log.Contains("'GetMsgFromClient' Leave Client socket is down. Call:recv\n"));
  EXPECT_FALSE(IsOpen(socket_) || IsClient(socket_) || IsRead(socket_));
}

TEST_F(ClientReading, AHangUpInTheMiddleOfAMessageClosesTheConnection) {
  Come(socket_, FrameOf(Request("SRV", 5)).substr(0, 60));
  EXPECT_EQ(Read(), 0);
  HangUp(socket_);
  EXPECT_EQ(Read(), -1);
  EXPECT_FALSE(IsOpen(socket_) || IsClient(socket_) || IsRead(socket_));
}

TEST_F(ClientReading, AFailedReceiveLeavesTheConnectionAsItIs) {
  ASSERT_EQ(send(socket_, "unread", 6, 0), 6);
  close(Far(socket_));
  const int spare = open("/dev/null", O_RDONLY);  // takes the number that the fixture will close
  EXPECT_EQ(spare, Far(socket_));
  const CapturedLog log;
  EXPECT_EQ(Read(), -1);
  EXPECT_TRUE(log.Contains("[ 2]    clntxch:"));
  EXPECT_TRUE(log.Contains("|Receive message from client fail. Call:recv. Errno 104\n"));
  EXPECT_TRUE(IsOpen(socket_) && IsClient(socket_) && IsRead(socket_));
}

// What had come cannot be kept: the bytes that follow would be taken for another request.
TEST_F(ClientReading, WithoutMemoryForHalfAMessageTheConnectionIsClosed) {
  const NoMemory none;
  ExpectRefused(FrameOf(Request("SRV", 1)).substr(0, 50),
                "Receive message from client fail. Call:recv. Errno " + std::to_string(ENOMEM));
}

TEST_F(ClientReading, TheTraceTellsEachReceiveAndTheFieldsInOrder) {
  lumo::Message request = Request("SRV", 5);
  request.TaskName = 4711;
  request.CodErr = 1;
  request.SysErr = 2;
  request.Prior = 3;
  request.NumChan = 4;
  request.Command = "FTCH";
  request.RowId = -5;
  request.RowCount = 6;
  request.LnBufRow = 7;
  request.PrzExe = 0xBEEF;
  Come(socket_, FrameOf(request));
  EXPECT_EQ(
      Traced([&] { Read(); }),
      (Texts{"15 clntxch|'GetMsgFromClient' Call from test:1 ", "15 clntxch|recv return 4",
             "15 clntxch|Message len is 104 byte", "15 clntxch|recv return 104",
             "15 clntxch| Receive message from client", "15 clntxch|    Length=104",
             "15 clntxch|    TaskName=4711", "15 clntxch|    CBL.CodErr=1",
             "15 clntxch|    CBL.SysErr=2", "15 clntxch|    CBL.Prior=3",
             "15 clntxch|    CBL.NumChan=4", "15 clntxch|    CBL.Command=FTCH",
             "15 clntxch|    CBL.Node=SRV", "15 clntxch|    CBL.RowId=-5",
             "15 clntxch|    CBL.RowCount=6", "15 clntxch|    CBL.LnBufRow=7",
             "15 clntxch|    CBL.PrzExe=0xbeef", "15 clntxch|'GetMsgFromClient' Leave SUCCESS"}));
}

class ClientAnswers : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    socket_ = Connect();
    A = AddLink("A");
  }
  ClientMessage Answer(std::int32_t task = getpid()) const {
    return MakeRequest(task, socket_, 9, {"row"});
  }
  static int Put_(ClientMessage* msg) { return PutMsgToClient(kHere, 1, msg); }
  int PutAnswer(std::int32_t task = getpid()) const {
    ClientMessage msg = Answer(task);
    return Put_(&msg);
  }
  // The answer does not go out, with this error in the log.
  static void ExpectFailure(ClientMessage msg, int error) {
    const CapturedLog log(kLogError);
    EXPECT_EQ(Put_(&msg), -1);
    EXPECT_EQ(log.Lines(),
              Texts{"2 clntxch|Send to client fail. Call:send. errno " + std::to_string(error)});
  }
  static Tags TagsInFlight() {
    Tags tags;
    for (const MsgInfo& info : g_DbcI.MsgInfoArray)
      if (InUse(info)) tags.push_back(info.AstInd);
    return tags;
  }
  // Answers until this much is kept for the client; only the last step may be a part.
  void KeepUnsent(std::size_t bytes) {
    std::string filler(500, 'f');
    while (UnsentBytes(socket_) == 0)
      ASSERT_EQ(SendBytes(kHere, 1, socket_, filler.data(), filler.size()), 0);
    filler.assign(bytes - UnsentBytes(socket_), 'f');
    ASSERT_EQ(SendBytes(kHere, 1, socket_, filler.data(), filler.size()), 0);
    ASSERT_EQ(UnsentBytes(socket_), bytes);
  }

  int socket_ = -1;
};

TEST_F(ClientAnswers, TheWholeSizeGoesOutAsLength) {
  ClientMessage msg = Answer();
  const std::uint32_t length = msg.Length;
  ASSERT_EQ(length, 104u + 4);
  EXPECT_EQ(Put_(&msg), 0);
  EXPECT_EQ(msg.Length, length + 4);
  const std::string came = Take(socket_);
  ASSERT_EQ(came.size(), length + 4);
  EXPECT_EQ(came, WireBytes(msg, 0, came.size()));
}

TEST_F(ClientAnswers, TheTraceTellsTheFieldsThenTheSize) {
  const CapturedLog log;
  PutAnswer();
  const std::string text = log.Text();
  std::size_t at = 0;
  for (const char* part :
       {"|'PutMsgToClient' Call from test:1 \n", "| Need put the message to client\n",
        "|    Length=108\n", "|    CBL.PrzExe=0x0\n",
        "|'TestAliveClient' Call from clntxch:", "|'TestAliveClient' Leave SUCCESS short test\n",
        "|Neeed Send 112 byte to client\n", "|'PutMsgToClient' Leave SUCCESS\n"}) {
    at = text.find(part, at);
    ASSERT_NE(at, std::string::npos) << part << text;
  }
}

TEST_F(ClientAnswers, ADeadClientGetsNothing) {
  const CapturedLog log;
  EXPECT_EQ(PutAnswer(test::DeadPid()), -1);
  EXPECT_TRUE(log.Contains("|The message wasn't send to client. Client is dead\n"));
  EXPECT_TRUE(log.Contains("'PutMsgToClient' Leave FAILED client is not alive\n"));
  EXPECT_EQ(Take(socket_), "");
}

TEST_F(ClientAnswers, TheRequestsOfADeadClientArePurgedByTheFirstHalfWordOfTheTrailer) {
  const pid_t dead = test::DeadPid();
  ClientMessage msg = Answer(dead);  // its AstInd is 9
  Put(Trailer(&msg), kTrailerFirstHalfWord, std::uint16_t{77});
  Note(A, dead, 3, 9);
  Note(A, dead, 3, 77);
  Note(A, dead, 3, 78);
  Note(A, getpid(), 3, 77);
  Note(A, dead, 3, 77);
  EXPECT_EQ(Put_(&msg), -1);
  EXPECT_EQ(TagsInFlight(), (Tags{9, 78, 77}));
  const MsgInfo& purged = g_DbcI.MsgInfoArray.Items[1];
  EXPECT_TRUE(!purged.Link && purged.TaskName == 0 && purged.Socket == 0 && purged.AstInd == 0);
}

TEST_F(ClientAnswers, TheEntriesOfADeadClientAreTakenFromTheList) {
  A->State = kLinkConnected;
  const pid_t dead = test::DeadPid();
  AddClientPidIntoList(kHere, 1, A, dead, socket_);
  EXPECT_EQ(PutAnswer(dead), -1);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Pid, 0);
  EXPECT_EQ(Fake().DeadClients, std::vector<int>{dead});
}

TEST_F(ClientAnswers, TaskZeroFailsWheneverAListedClientIsDead) {
  EXPECT_EQ(PutAnswer(0), 0) << "nobody is listed";
  AddClientPidIntoList(kHere, 1, A, getpid(), socket_);
  EXPECT_EQ(PutAnswer(0), 0) << "all who are listed live";
  AddClientPidIntoList(kHere, 1, A, test::DeadPid(), socket_);
  EXPECT_EQ(PutAnswer(0), -1);
}

TEST_F(ClientAnswers, AnAnswerToAClosedConnectionFailsWithErrno9) {
  ClientMessage msg = Answer();
  msg.ClientSocket = -1;
  ExpectFailure(msg, EBADF);
}

TEST_F(ClientAnswers, AFailedSendLeavesTheConnectionToTheReader) {
  HangUp(socket_);
  ExpectFailure(Answer(), EPIPE);
  EXPECT_TRUE(IsOpen(socket_) && IsClient(socket_) && IsRead(socket_));
}

TEST_F(ClientAnswers, AClientMayLeaveOneMebibyteUnread) {
  ClientMessage msg = Answer();
  KeepUnsent(kMebibyte - msg.Length - 4);
  const CapturedLog log(kLogError);
  EXPECT_EQ(Put_(&msg), 0);
  EXPECT_EQ(UnsentBytes(socket_), kMebibyte);
  EXPECT_TRUE(IsClient(socket_));
  EXPECT_EQ(log.Text(), "");
}

TEST_F(ClientAnswers, AClientThatLeavesMoreUnreadIsClosed) {
  const ClientMessage msg = Answer();
  KeepUnsent(kMebibyte - msg.Length - 3);
  ExpectFailure(msg, ENOBUFS);
  EXPECT_FALSE(IsOpen(socket_) || IsClient(socket_) || IsRead(socket_));
  EXPECT_FALSE(IsWritten(socket_));
  EXPECT_EQ(UnsentDescriptors(), 0);
}

TEST_F(ClientAnswers, AFailedFlushClosesTheConnection) {
  KeepUnsent(1000);
  HangUp(socket_);
  const CapturedLog log(kLogError);
  FlushClient(socket_);
  EXPECT_TRUE(log.Contains("|Send to client fail. Call:send. errno 32\n"));
  EXPECT_FALSE(IsOpen(socket_) || IsClient(socket_) || IsRead(socket_));
  EXPECT_FALSE(IsWritten(socket_));
}

TEST_F(ClientAnswers, AFlushGoesOnInOrder) {
  KeepUnsent(1000);
  ClientMessage msg = Answer();
  EXPECT_EQ(Put_(&msg), 0);
  Take(socket_);
  FlushClient(socket_);
  EXPECT_EQ(UnsentBytes(socket_), 0u);
  const std::string last = Take(socket_);
  EXPECT_EQ(last.substr(1000), WireBytes(msg, 0, msg.Length));
}

TEST_F(ClientAnswers, AClosedConnectionIsForgottenByWhatItWaitsFor) {
  Note(A, 1, socket_, 1);
  Save(Answer(), A);
  AddClientPidIntoList(kHere, 1, A, getpid(), socket_);
  CloseClient(socket_);
  EXPECT_EQ(g_DbcI.MsgInfoArray.Items[0].Socket, -1);
  EXPECT_EQ(g_DbcI.SavedArray.Items[0].Message.ClientSocket, -1);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Socket, socket_) << "the list keeps its numbers";
}

class AgentBuiltAnswers : public ClientTest {};

TEST_F(AgentBuiltAnswers, AreZeroButForTheirFields) {
  ClientMessage answer;
  std::memset(static_cast<void*>(&answer), 0xEE, sizeof answer);
  const MsgInfo info = {.Link = nullptr, .TaskName = 4711, .Socket = 12, .AstInd = 0x5566};
  errno = 33;
  EXPECT_EQ(MakeAnswerFromMsgInfo(kHere, 1, &answer, &info, 4006, 111), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(answer.Length, 104u);
  EXPECT_EQ(answer.TrailerOffset, 52);
  EXPECT_EQ(answer.ClientSocket, 12);
  EXPECT_EQ(answer.Reserved[0] | answer.Reserved[1], 0u);
  lumo::Message expected;
  expected.TaskName = 4711;
  expected.CodErr = 4006;
  expected.SysErr = 111;
  expected.SetAstInd(0x5566);
  EXPECT_EQ(WireBytes(answer, 0, 108), lumo::Encode(expected, lumo::Lengths::Packet));
  EXPECT_EQ(WireBytes(answer, 108, kMessageArea - 108), std::string(kMessageArea - 108, '\0'));
}

TEST_F(AgentBuiltAnswers, LeaveTheLinkOfASavedRequestAlone) {
  Link* const link = AddLink("SRV");
  SavedMessage saved = {.Message = MakeRequest(5, 6, 7, {"text"}), .Link = link};
  const MsgInfo info = InfoOfRequest(&saved.Message);
  MakeAnswerFromMsgInfo(kHere, 1, &saved.Message, &info, 1001, 0);
  EXPECT_EQ(saved.Link, link);
  EXPECT_EQ(saved.Message.TaskName, 5);
  EXPECT_EQ(saved.Message.ClientSocket, 6);
  EXPECT_EQ(Get(Trailer(&saved.Message), kTrailerAstInd), 7);
  EXPECT_EQ(Get(Trailer(&saved.Message), kTrailerTaskName), 0);
}

TEST_F(AgentBuiltAnswers, AreTraced) {
  ClientMessage answer;
  const MsgInfo info = {};
  const CapturedLog log;
  MakeAnswerFromMsgInfo(kHere, 1, &answer, &info, 4007, 32);
  EXPECT_TRUE(log.Contains("|MakeAnswerFromMsgInfo(TavrinError=4007, SysError=32)\n"));
}

class LivingClients : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    A = AddLink("A");
  }
  static int Test(int pid) { return TestAliveClient(kHere, 1, pid); }
  static void List(Link* link, int pid, int socket = 5) {
    ASSERT_EQ(AddClientPidIntoList(kHere, 1, link, pid, socket), 0);
  }
  static std::vector<int> Listed() {
    std::vector<int> pids;
    for (const ClientPid& client : g_DbcI.ClientPidList) pids.push_back(client.Pid);
    return pids;
  }
};

TEST_F(LivingClients, ALivingProcessIsFoundByTheShortTest) {
  List(A, test::DeadPid());
  const CapturedLog log;
  EXPECT_EQ(Test(getpid()), 0);
  EXPECT_TRUE(log.Contains("'TestAliveClient' Leave SUCCESS short test\n"));
  EXPECT_NE(Listed()[0], 0) << "the list is not looked at";
}

TEST_F(LivingClients, AProcessOfAnotherUserIsAlive) {
  pid_t foreign = 1;
  const bool root = geteuid() == 0;
  if (root) {
    foreign = fork();
    if (foreign == 0) {
      if (setuid(1) != 0) _exit(1);
      for (;;) pause();
    }
    while (kill(foreign, 0) == 0) {  // until it has become another user's
      ASSERT_EQ(seteuid(65534), 0);
      if (kill(foreign, 0) != 0 && errno == EPERM) break;
      ASSERT_EQ(seteuid(0), 0);
    }
  }
  EXPECT_EQ(kill(foreign, 0), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(Test(foreign), 0);
  List(A, foreign);
  EXPECT_EQ(Test(0), 0);
  EXPECT_EQ(Listed()[0], foreign);
  if (!root) return;
  ASSERT_EQ(seteuid(0), 0);
  kill(foreign, SIGKILL);
  waitpid(foreign, nullptr, 0);
}

TEST_F(LivingClients, OnlyTheEntriesOfTheProcessAskedForAreTested) {
  const pid_t dead = test::DeadPid(), alsoDead = test::DeadPid();
  List(A, dead);
  List(A, alsoDead);
  EXPECT_EQ(Test(dead), 1);
  EXPECT_EQ(Listed(), (std::vector<int>{0, alsoDead}));
}

TEST_F(LivingClients, TheTestOfAllTakesOutTheDead) {
  const pid_t dead = test::DeadPid();
  List(A, dead);
  List(A, getpid());
  const CapturedLog log;
  EXPECT_EQ(Test(0), 1);
  EXPECT_EQ(Listed(), (std::vector<int>{0, getpid()}));
  EXPECT_TRUE(log.Contains("|Test Client \"" + std::to_string(dead) + "\" is dead\n"));
  EXPECT_TRUE(log.Contains("|Return 1\n"));
  EXPECT_EQ(Test(0), 0);
  EXPECT_TRUE(log.Contains("|Return 0\n"));
}

TEST_F(LivingClients, ADeathIsToldForEachConnectionOfTheProcess) {
  A->State = kLinkConnected;
  const pid_t dead = test::DeadPid();
  for (const int socket : {5, 6}) List(A, dead, socket);
  EXPECT_EQ(Test(0), 1);
  EXPECT_EQ(Fake().DeadClients, (std::vector<int>{dead, dead}));
}

TEST_F(LivingClients, OnlyConnectedLinksAreToldOfADeath) {
  const pid_t dead = test::DeadPid();
  B = AddLink("B");
  C = AddLink("C");
  B->State = kLinkConnected;
  C->State = kLinkConnecting;
  for (Link* link : {A, B, C}) {
    List(link, dead);
    EXPECT_EQ(Test(0), 1);
  }
  List(B, dead);
  ForgetLinkOfClients(B);
  EXPECT_EQ(Test(0), 1) << "the link of this entry has been deleted";
  EXPECT_EQ(Fake().Count("ClientDeadEvent B"), 1);
  EXPECT_EQ(Fake().DeadClients, std::vector<int>{dead});
}

TEST_F(LivingClients, AnUnknownDeadProcessIsDeadAllTheSame) { EXPECT_EQ(Test(test::DeadPid()), 1); }

TEST_F(LivingClients, After151ChecksWithoutClientsAllLinksAreDisconnectedOnce) {
  A->State = kLinkConnected;
  AddLink("B");
  AddLink("C")->State = kLinkConnecting;
  for (int check = 1; check < 151; ++check) Test(0);
  EXPECT_EQ(ClientTimeout, 1);
  EXPECT_TRUE(Fake().Calls.empty());
  const CapturedLog log;
  Test(0);
  EXPECT_TRUE(log.Contains("|Client timeout is expire. Disconnect all link.\n"));
  EXPECT_TRUE(log.Contains("Link = A, TavrinErr = 0, SysErr = 0\n"));
  EXPECT_EQ(Fake().Calls, (Texts{"DisconnectLink A", "DisconnectLink C"}));
}

TEST_F(LivingClients, TheCountdownThenStandsStillUntilTheNextRequest) {
  ClientTimeout = 1;
  Test(0);
  EXPECT_EQ(ClientTimeout, 0);
  Test(0);
  EXPECT_EQ(ClientTimeout, 0xFFFF);
  A->State = kLinkConnected;
  for (int check = 0; check < 200; ++check) Test(0);
  EXPECT_EQ(ClientTimeout, 0xFFFF);
  EXPECT_EQ(A->State, kLinkConnected);
  List(A, getpid());
  EXPECT_EQ(ClientTimeout, 151);
}

TEST_F(LivingClients, TheCountdownRunsOnlyWithoutClients) {
  List(A, getpid());
  Test(0);
  EXPECT_EQ(ClientTimeout, 151);
  g_DbcI.ClientPidList.Items[0] = {};
  Test(0);
  EXPECT_EQ(ClientTimeout, 150) << "a list without entries in use counts as none";
  Test(getpid());
  EXPECT_EQ(ClientTimeout, 150) << "the short test does not count";
  List(A, test::DeadPid());
  ClientTimeout = 100;
  Test(0);
  EXPECT_EQ(ClientTimeout, 100) << "it was listed when the check began";
  Test(0);
  EXPECT_EQ(ClientTimeout, 99);
}

TEST_F(LivingClients, TheCountdownWaitsForConnectOnLoad) {
  g_DbcI.ConnectOnLoad = 1;
  Test(0);
  EXPECT_EQ(ClientTimeout, 151);
}

class ClientList : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    AddTwoLinks();
  }
  static int Add(Link* link, int pid, int socket) {
    return AddClientPidIntoList(kHere, 1, link, pid, socket);
  }
  // "pid/socket" of each element, "-" where free.
  static std::string Shown() {
    std::string text;
    for (const ClientPid& client : g_DbcI.ClientPidList) {
      text += InUse(client) ? std::to_string(client.Pid) + "/" + std::to_string(client.Socket)
                            : std::string("-");
      text += ' ';
    }
    return text;
  }
  // With what word adding the client ends.
  std::string LeaveWord(int pid) const {
    const CapturedLog log;
    Add(A, pid, 5);
    const std::string text = log.Text(), mark = "'AddClientPidIntoList' Leave ";
    const std::size_t at = text.find(mark);
    return at == std::string::npos ? "" : text.substr(at + mark.size());
  }
};

TEST_F(ClientList, AClientIsListedOncePerLinkAndConnection) {
  Add(A, 10, 5);
  Add(A, 10, 5);
  EXPECT_EQ(Shown(), "10/5 - ");
  Add(B, 10, 5);
  EXPECT_EQ(Shown(), "10/5 10/5 ");
  EXPECT_EQ(g_DbcI.ClientPidList.Items[1].Link, B);
}

TEST_F(ClientList, EachCaseLeavesWithItsWord) {
  EXPECT_EQ(LeaveWord(10), "SUCCESS\n");
  EXPECT_EQ(LeaveWord(10), "SUCCESS element already exist\n");
  EXPECT_EQ(LeaveWord(11), "SUCCESS save to exist blank element\n");
}

TEST_F(ClientList, AFreeElementAheadOfTheClientsOwnIsFilled) {
  Add(A, 10, 5);
  Add(A, 11, 6);
  g_DbcI.ClientPidList.Items[0] = {};
  g_DbcI.FirstFreeClient = 0;
  Add(A, 11, 6);
  EXPECT_EQ(Shown(), "11/6 11/6 ");
}

TEST_F(ClientList, GrowingCarriesOverOnlyAsManyBytesAsThereWereElements) {
  Add(A, 10, 5);
  Add(A, 11, 6);
  unsigned char before[sizeof(ClientPid)];
  std::memcpy(before, g_DbcI.ClientPidList.Items, sizeof before);
  Add(A, 12, 7);
  EXPECT_EQ(Shown(), "- - 12/7 - ");
  unsigned char after[2 * sizeof(ClientPid)];
  std::memcpy(after, g_DbcI.ClientPidList.Items, sizeof after);
  EXPECT_EQ(std::memcmp(after, before, 2), 0);
  for (std::size_t i = 2; i < sizeof after; ++i) EXPECT_EQ(after[i], 0) << i;
  Add(A, 10, 5);
  EXPECT_EQ(Shown(), "10/5 - 12/7 - ") << "a lost entry comes back with the client's next request";
}

TEST_F(ClientList, OlderEntriesAreDroppedAtEachGrowth) {
  for (int pid = 1; pid <= 4; ++pid) Add(A, pid, pid);
  EXPECT_EQ(Shown(), "4/4 - 3/3 - ");
  Add(A, 5, 5);
  Add(A, 6, 6);
  EXPECT_EQ(Shown(), "4/4 5/5 3/3 6/6 ");
  Add(A, 7, 7);
  EXPECT_EQ(Shown(), "- - - - 7/7 - - - ");
}

TEST_F(ClientList, WithoutMemoryTheOldListStays) {
  Add(A, 10, 5);
  Add(A, 11, 6);
  const CapturedLog log(kLogError);
  EXPECT_EQ(WithoutMemory([&] { return Add(A, 12, 7); }), -1);
  EXPECT_TRUE(log.Contains("[ 2]    clntxch:"));
  EXPECT_TRUE(log.Contains("|AddClientPidIntoList failed\n"));
  EXPECT_EQ(Shown(), "10/5 11/6 ");
}

TEST_F(ClientList, EachRequestStartsTheTimeoutAnew) {
  ClientTimeout = 3;
  Add(A, 10, 5);
  EXPECT_EQ(ClientTimeout, 151);
  ClientTimeout = 3;
  Add(A, 10, 5);
  EXPECT_EQ(ClientTimeout, 151);
}

TEST_F(ClientList, ADeletedLinkIsForgottenByItsClientsAlone) {
  Add(A, 10, 5);
  Add(B, 11, 6);
  ForgetLinkOfClients(A);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Link, nullptr);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Pid, 10);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[1].Link, B);
}

TEST_F(ClientList, OfTheEntriesOfADeletedLinkOneAProcessIsKept) {
  for (int socket = 5; socket < 13; ++socket) Add(A, 10, socket);
  ForgetLinkOfClients(A);
  int kept = 0;
  for (const ClientPid& client : g_DbcI.ClientPidList) kept += client.Pid == 10;
  EXPECT_EQ(kept, 1);
}

TEST_F(ClientList, NothingIsKeptOfADeletedLinkForAProcessListedWithAnother) {
  Add(A, 10, 5);
  Add(B, 10, 5);
  ForgetLinkOfClients(A);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[0].Pid, 0);
  EXPECT_EQ(g_DbcI.ClientPidList.Items[1].Link, B);
}

}  // namespace
