#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>

#include <cstring>
#include <random>
#include <stdexcept>

#include "tests/process/program.h"
#include "tests/support/client.h"
#include "tests/support/connection.h"
#include "tests/support/node.h"
#include "tests/support/peer.h"
#include "tests/support/text.h"

namespace {

using lumo::Message;
using test::NodeProgram;

test::Peer Connect(const NodeProgram& node) {
  const sockaddr_in address = test::Loopback(node.Port());
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return test::Peer(lumo::Lengths::Packet, fd);
}

// A node on a port of its own, with further options, and a connection to it.
class ConnectedNode : public NodeProgram {
 public:
  explicit ConnectedNode(const std::vector<std::string>& options = {})
      : NodeProgram(Listening(options)), Far(Connect(*this)) {}

  test::Peer Far;

 private:
  static std::vector<std::string> Listening(std::vector<std::string> options) {
    options.insert(options.begin(), {"--listen", "0"});
    return options;
  }
};

Message Request(const std::string& sql, std::uint16_t astInd = 1) {
  Message request;
  request.TaskName = 4321;
  request.SetTrailerTaskName(777);
  request.SetAstInd(astInd);
  request.Node = "SRV";
  request.Strings[0] = sql;
  return request;
}

std::optional<Message> Read(test::Peer& peer) {
  const auto frame = peer.ReadFrame();
  return frame ? lumo::Decode(*frame) : std::nullopt;
}

// What is answered to a request; the test is over without it.
Message Answer(test::Peer& peer, const Message& request) {
  peer.SendMessage(request);
  const auto answer = Read(peer);
  if (!answer) throw std::runtime_error("the node does not answer");
  return *answer;
}

std::string Ask(test::Peer& peer, const std::string& sql) {
  peer.SendMessage(Request(sql));
  const auto answer = Read(peer);
  return answer ? answer->Strings[3] : "no answer";
}

TEST(LumoNode, AnswersSqlWithRowsInTheFourthString) {
  ConnectedNode node;
  Ask(node.Far, "create table t(a, b); insert into t values (1, 'x'), (2, 'y')");
  Message request = Request("select * from t order by a", 0xABCD);
  request.Prior = 5;
  request.Trailer[20] = 99;
  const Message answer = Answer(node.Far, request);
  EXPECT_EQ(answer.Strings[3], "1\tx\n2\ty");
  EXPECT_EQ(answer.CodErr, 0);
  EXPECT_EQ(answer.RowCount, 2);
  EXPECT_EQ(answer.LnBufRow, 7);
  EXPECT_EQ(answer.TaskName, 4321);
  EXPECT_EQ(answer.Prior, 5);
  EXPECT_EQ(lumo::NodeText(answer), "SRV");
  EXPECT_EQ(answer.Trailer, request.Trailer);
  EXPECT_EQ(answer.Strings[0], "");
}

TEST(LumoNode, ErrorOfTheDatabaseComesWithItsMessage) {
  ConnectedNode node;
  const Message answer = Answer(node.Far, Request("select * from nowhere"));
  EXPECT_EQ(answer.CodErr, 1);
  EXPECT_EQ(answer.RowCount, 0);
  EXPECT_EQ(answer.Strings[3], "no such table: nowhere");
}

TEST(LumoNode, ValuesThatWouldBreakTheTextAreEscaped) {
  ConnectedNode node;
  EXPECT_EQ(Ask(node.Far, "select 'a' || char(9) || char(10) || '\\', null, x'00ff'"),
            "a\\t\\n\\\\\t\\N\tX'00FF'");
}

TEST(LumoNode, ResultTooLongForOneMessageIsCutAtARowEndAndSaysSo) {
  ConnectedNode node;
  node.Far.SendMessage(
      Request("with recursive c(x) as (select 10000 union all select x + 1 from c where x < 19999) "
              "select x from c"));
  const auto frame = node.Far.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_LE(frame->size(), lumo::kMaxMessage);
  const auto answer = lumo::Decode(*frame);
  ASSERT_TRUE(answer);
  const std::string& text = answer->Strings[3];
  const std::string mark = "\n[cut after " + std::to_string(answer->RowCount) + " of 10000 rows]";
  ASSERT_GT(text.size(), mark.size());
  EXPECT_EQ(text.substr(text.size() - mark.size()), mark);
  EXPECT_EQ(text.size() - mark.size(), static_cast<std::size_t>(answer->RowCount) * 6 - 1);
  EXPECT_EQ(answer->LnBufRow, text.size());
  EXPECT_GT(answer->RowCount, 1300);
}

TEST(LumoNode, ResultThatJustFitsIsNotCut) {
  ConnectedNode node;
  EXPECT_EQ(Ask(node.Far, "select printf('%.8080c', 'x')"), std::string(8080, 'x'));
  EXPECT_EQ(Ask(node.Far, "select printf('%.8081c', 'x')"), "[cut after 0 of 1 rows]");
}

TEST(LumoNode, LinkTestIsAnsweredWithSuccess) {
  ConnectedNode node;
  Message request = Request("");
  request.Command = "TS T";
  const Message answer = Answer(node.Far, request);
  EXPECT_EQ(answer.CodErr, 0);
  EXPECT_TRUE(node.WaitForStderr("link test"));
}

TEST(LumoNode, ControlPacketsAreLogged) {
  ConnectedNode node;
  node.Far.SendControl({0, 5});
  node.Far.SendControl({1, (30U << 16) | 0x5555});
  node.Far.SendControl({1, 0});
  node.Far.SendControl({2, 1234});
  EXPECT_EQ(Ask(node.Far, "select 1"), "1");
  const std::string log = node.Stderr();
  for (const char* event : {" ReceiveTimeout 5\n", " SendTimeout 30\n", " alive\n",
                            " CKIL pid 1234\n", "request task 777 index 1: select 1\n"})
    EXPECT_NE(log.find(event), std::string::npos) << event;
}

TEST(LumoNode, LogGoesToAFile) {
  test::TemporaryDirectory folder;
  ConnectedNode node({"--log", folder.Path() / "log"});
  Ask(node.Far, "select 1");
  EXPECT_NE(test::ReadFile(folder.Path() / "log").find("select 1"), std::string::npos);
  EXPECT_EQ(node.Stderr(), "");
}

TEST(LumoNode, RequestInPiecesIsPutTogether) {
  ConnectedNode node;
  const std::string frame = lumo::Encode(Request("select 42"), lumo::Lengths::Packet);
  for (const char byte : frame) node.Far.SendBytes({&byte, 1});
  const auto answer = Read(node.Far);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Strings[3], "42");
}

TEST(LumoNode, DatabaseFileOutlivesTheNode) {
  test::TemporaryDirectory folder;
  test::WriteFile(folder.Path() / "init", "create table t(a); insert into t values ('kept');");
  const std::string file = folder.Path() / "data";
  NodeProgram first({"--listen", "0", "--database", file, "--init", folder.Path() / "init"});
  EXPECT_EQ(first.Stop(), 0);
  NodeProgram second({"--listen", "0", "--database", file, "--sql", "insert into t values (2)"});
  test::Peer peer = Connect(second);
  EXPECT_EQ(Ask(peer, "select a from t order by rowid"), "kept\n2");
}

TEST(LumoNode, OutOfOrderAnswersAreReversed) {
  ConnectedNode node({"--out-of-order", "3"});
  for (std::uint16_t i = 1; i <= 3; ++i) node.Far.SendMessage(Request("select 1", i));
  for (std::uint16_t i = 3; i >= 1; --i) {
    const auto answer = Read(node.Far);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->AstInd(), i);
  }
}

TEST(LumoNode, DelayedAnswerComesAfterItsTime) {
  ConnectedNode node({"--delay", "200"});
  const auto start = test::Clock::now();
  EXPECT_EQ(Ask(node.Far, "select 1"), "1");
  EXPECT_GE(test::Clock::now() - start, test::Milliseconds(200));
}

TEST(LumoNode, SilentNodeLogsButDoesNotAnswer) {
  ConnectedNode node({"--silent"});
  node.Far.SendMessage(Request("select 1"));
  EXPECT_TRUE(node.WaitForStderr("select 1"));
  EXPECT_TRUE(node.Far.Silent());
}

TEST(LumoNode, ConnectionIsClosedAtItsNthPacketAndTheNextOneStartsAnew) {
  NodeProgram node({"--listen", "0", "--close-after", "2"});
  for (int i = 0; i < 2; ++i) {
    test::Peer peer = Connect(node);
    EXPECT_EQ(Ask(peer, "select 1"), "1");
    peer.SendMessage(Request("select 2"));
    EXPECT_FALSE(peer.ReadFrame());
    EXPECT_TRUE(peer.ReadEnd());
  }
}

TEST(LumoNode, TwiceSendsEachAnswerTwice) {
  ConnectedNode node({"--twice"});
  EXPECT_EQ(Ask(node.Far, "select 1"), "1");
  const auto again = Read(node.Far);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->Strings[3], "1");
}

// A node that is told its faults while it runs.
class ToldNode : public ::testing::Test {
 protected:
  std::optional<int> Tell(std::vector<std::string> line) {
    line.insert(line.begin(), {"--tell", control_});
    test::Program tell(LUMO_NODE_PATH, line);
    const auto status = tell.Wait();
    words_ = tell.Stderr();
    return status;
  }

  test::TemporaryDirectory folder_;
  const std::string control_ = folder_.Path() / "control";
  NodeProgram node_{{"--listen", "0", "--control", control_}};
  test::Peer peer_ = Connect(node_);
  std::string words_;
};

TEST_F(ToldNode, IsSilentUntilItIsToldOtherwise) {
  EXPECT_EQ(Tell({"--silent"}), 0);
  peer_.SendMessage(Request("select 1"));
  EXPECT_TRUE(node_.WaitForStderr("select 1"));
  EXPECT_EQ(Tell({}), 0);
  EXPECT_EQ(Ask(peer_, "select 2"), "2");
  EXPECT_TRUE(node_.WaitForStderr("faults: none"));
}

TEST_F(ToldNode, ReadsNothingWhileItIsDeaf) {
  EXPECT_EQ(Ask(peer_, "select 1"), "1");
  EXPECT_EQ(Tell({"--deaf"}), 0);
  peer_.SendMessage(Request("select 2"));
  test::Peer another = Connect(node_);  // is accepted, and not heard either
  another.SendMessage(Request("select 3"));
  EXPECT_TRUE(node_.WaitForStderr("connection 2 (tcp) opened"));
  EXPECT_EQ(Tell({"--twice"}), 0);
  EXPECT_EQ(node_.Stderr().find("select"), node_.Stderr().find("select 1"));
  EXPECT_EQ(Read(peer_)->Strings[3], "2");
  EXPECT_EQ(Read(another)->Strings[3], "3");
}

TEST_F(ToldNode, ClosesAnswersInGarbageAndIsGoodAgain) {
  EXPECT_EQ(Tell({"--malformed", "zero"}), 0);
  peer_.SendMessage(Request("select 1"));
  EXPECT_EQ(test::ReadRaw(peer_.Socket(), 4), std::string(4, '\0'));
  EXPECT_EQ(Tell({"--close-after", "1"}), 0);
  test::Peer another = Connect(node_);
  another.SendMessage(Request("select 2"));
  EXPECT_TRUE(another.ReadEnd());
  EXPECT_EQ(Tell({}), 0);
  test::Peer third = Connect(node_);
  EXPECT_EQ(Ask(third, "select 3"), "3");
}

TEST_F(ToldNode, AnswersAtOnceWhatComesBehindADelayedAnswer) {
  EXPECT_EQ(Tell({"--delay", "600000"}), 0);
  peer_.SendMessage(Request("select 1", 1));
  EXPECT_TRUE(node_.WaitForStderr("select 1"));
  EXPECT_EQ(Tell({"--out-of-order", "2"}), 0);
  peer_.SendMessage(Request("select 2", 2));
  EXPECT_TRUE(node_.WaitForStderr("select 2"));
  EXPECT_EQ(Tell({}), 0);  // what was collected goes out
  EXPECT_EQ(Read(peer_)->Strings[3], "2");
}

TEST_F(ToldNode, SaysWhatItDoesNotUnderstand) {
  EXPECT_EQ(Tell({"--listen", "1"}), 2);
  EXPECT_EQ(Tell({"--delay", "-1"}), 2);
  test::Program stop(LUMO_NODE_PATH, {"--stop"});
  EXPECT_EQ(stop.Wait(), 2);
  EXPECT_EQ(Ask(peer_, "select 1"), "1");
}

TEST_F(ToldNode, EndsWhenItIsTold) {
  EXPECT_EQ(Tell({"--stop"}), 0);
  EXPECT_EQ(node_.Wait(), 0);
  EXPECT_EQ(Tell({}), 1);
  EXPECT_NE(words_.find("No such file"), std::string::npos) << words_;
}

TEST(LumoNode, InTheBackgroundItServesWhenTheCommandHasReturned) {
  test::TemporaryDirectory folder;
  const std::string control = folder.Path() / "control", log = folder.Path() / "log";
  NodeProgram node({"--listen", "0", "--background", "--control", control, "--log", log});
  ASSERT_EQ(node.Wait(), 0);
  test::Peer peer = Connect(node);
  EXPECT_EQ(Ask(peer, "select 1"), "1");
  test::Program tell(LUMO_NODE_PATH, {"--tell", control, "--stop"});
  EXPECT_EQ(tell.Wait(), 0);
  EXPECT_NE(test::ReadFile(log).find("stopped"), std::string::npos);
  test::Program bad(LUMO_NODE_PATH, {"--listen", "0", "--background", "--sql", "nonsense"});
  EXPECT_EQ(bad.Wait(), 1);
  EXPECT_NE(bad.Stderr().find("syntax error"), std::string::npos);
}

TEST(LumoNode, EchoAnswersWithTheRequest) {
  ConnectedNode node({"--echo"});
  Message request = Request("text", 9);
  request.Command = "HOLD";
  node.Far.SendMessage(request);
  request.Command = "ECHO";
  request.Strings[2] = std::string("a\0b", 3);
  node.Far.SendMessage(request);
  const auto answer = node.Far.ReadFrame();
  EXPECT_EQ(answer, lumo::Encode(request, lumo::Lengths::Packet));
}

// The load generator through the agent of its environment.
TEST(LumoNode, ServesTheLoadGenerator) {
  NodeProgram node({"--listen", "0", "--echo"});
  test::Agent agent;
  agent.Nodetab(node.Line("SRV"));
  ASSERT_TRUE(agent.Start());
  const std::map<std::string, std::string> environment{
      {"TAVRIN_TMP", agent.SocketFolder()}, {"NET_MBX", std::to_string(agent.ExchangeId())}};
  test::Program load(LUMO_LOAD_PATH,
                     {"--clients", "3", "--depth", "2", "--held", "5", "--count", "500"},
                     environment);
  EXPECT_EQ(load.Wait(), 0) << load.Stderr();
  EXPECT_NE(load.Stdout().find("\"errors\": 0"), std::string::npos) << load.Stdout();
}

TEST(LumoNode, MalformedLengthIsBeyondTheLargestPacket) {
  ConnectedNode node({"--malformed", "length"});
  node.Far.SendMessage(Request("select 1"));
  const std::string length = test::ReadRaw(node.Far.Socket(), 4);
  ASSERT_EQ(length.size(), 4u);
  EXPECT_GT(test::ValueAt<std::uint32_t>(length, 0), lumo::kMaxMessage);
}

TEST(LumoNode, MalformedZeroHasALengthOfNothing) {
  ConnectedNode node({"--malformed", "zero"});
  node.Far.SendMessage(Request("select 1"));
  EXPECT_EQ(test::ReadRaw(node.Far.Socket(), 4), std::string(4, '\0'));
}

TEST(LumoNode, MalformedStringsLeaveThePacket) {
  ConnectedNode node({"--malformed", "strings"});
  node.Far.SendMessage(Request("select 1"));
  const auto frame = node.Far.ReadFrame();
  ASSERT_TRUE(frame);
  EXPECT_FALSE(lumo::Decode(*frame));
}

TEST(LumoNode, TruncatedPacketEndsWithTheConnection) {
  ConnectedNode node({"--malformed", "truncated"});
  node.Far.SendMessage(Request("select 1"));
  const std::string got = test::ReadRaw(node.Far.Socket(), 65536);
  ASSERT_GE(got.size(), 4U);
  EXPECT_LT(got.size(), test::ValueAt<std::uint32_t>(got, 0) + 4);
}

TEST(LumoNode, LocalSocketGreetsAnswersAndIsRemovedAtTheEnd) {
  test::TemporaryDirectory folder;
  const std::string path = folder.Path() / "tavrin.77";
  NodeProgram node({"--local", "77"}, {{"TAVRIN_TMP", folder.Path()}});
  EXPECT_EQ(node.Stdout(), "listening on local " + path + "\n");
  auto connection = lumo::Connection::Open(path);
  ASSERT_TRUE(connection);
  EXPECT_EQ(connection->AgentPid(), node.Pid());
  const auto answer = connection->Ask(Request("select 7"), 15000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Strings[3], "7");
  Message death;
  death.Command = "CKIL";
  death.SetTrailerTaskName(4711);
  connection->SendFrame(lumo::Encode(death, lumo::Lengths::Client));
  EXPECT_TRUE(node.WaitForStderr(" CKIL pid 4711\n"));
  EXPECT_EQ(node.Stop(SIGINT), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(LumoNode, LocalSocketInUseIsRefused) {
  test::TemporaryDirectory folder;
  NodeProgram node({"--local", "77"}, {{"TAVRIN_TMP", folder.Path()}});
  test::Program second(LUMO_NODE_PATH, {"--local", "77"}, {{"TAVRIN_TMP", folder.Path()}});
  EXPECT_EQ(second.Wait(), 1);
  EXPECT_NE(second.Stderr().find("already"), std::string::npos);
}

class LumoNodeIpc : public ::testing::Test {
 protected:
  LumoNodeIpc() {
    std::random_device random;
    do {
      key_ = static_cast<int>(0x4E000000U | (random() & 0xFFFFFF));
    } while (shmget(key_, 0, 0) >= 0);
  }
  ~LumoNodeIpc() override {
    if (const int id = msgget(key_, 0); id >= 0) msgctl(id, IPC_RMID, nullptr);
    if (const int id = semget(key_, 0, 0); id >= 0) semctl(id, 0, IPC_RMID);
    if (const int id = shmget(key_, 0, 0); id >= 0) shmctl(id, IPC_RMID, nullptr);
  }
  std::vector<std::string> Options() const { return {"--ipc", std::to_string(key_)}; }
  bool ObjectsExist() const {
    return msgget(key_, 0) >= 0 || semget(key_, 0, 0) >= 0 || shmget(key_, 0, 0) >= 0;
  }
  std::int32_t SegmentPid() const {
    const void* const at = shmat(shmget(key_, 0, 0), nullptr, SHM_RDONLY);
    std::int32_t pid;
    std::memcpy(&pid, at, sizeof pid);
    shmdt(at);
    return pid;
  }

  struct QueueMessage {
    long Type;
    char Body[lumo::kMaxMessage];
  };
  void Send(const Message& request) const {
    const std::string frame = lumo::Encode(request, lumo::Lengths::Packet);
    QueueMessage message{.Type = 1, .Body = {}};
    std::memcpy(message.Body, frame.data() + 4, frame.size() - 4);
    ASSERT_EQ(msgsnd(msgget(key_, 0), &message, frame.size() - 4, 0), 0);
    sembuf give{0, 1, 0};
    ASSERT_EQ(semop(semget(key_, 1, 0), &give, 1), 0);
  }
  std::optional<Message> Receive(long type) const {
    QueueMessage message;
    ssize_t size = -1;
    test::WaitFor([&] {
      size = msgrcv(msgget(key_, 0), &message, sizeof message.Body, type, IPC_NOWAIT);
      return size >= 0;
    });
    if (size < 0) return std::nullopt;
    return lumo::Decode(std::string(4, '\0') +
                        std::string(message.Body, static_cast<std::size_t>(size)));
  }

  int key_ = 0;
};

TEST_F(LumoNodeIpc, AnswersGoToTheProcessThatTheRequestNames) {
  NodeProgram node(Options());
  EXPECT_EQ(SegmentPid(), node.Pid());
  Message request = Request("select 5", 9);
  request.TaskName = getpid();
  Send(request);
  const auto answer = Receive(getpid());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Strings[3], "5");
  EXPECT_EQ(answer->TrailerTaskName(), 777);
  EXPECT_EQ(answer->AstInd(), 9);
  EXPECT_EQ(semctl(semget(key_, 1, 0), 0, GETVAL), 0);
}

TEST_F(LumoNodeIpc, LargestAnswerFitsTheQueue) {
  NodeProgram node(Options());
  Message request = Request("select printf('%.8080c', 'x')");
  request.TaskName = getpid();
  Send(request);
  const auto answer = Receive(getpid());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Strings[3].size(), 8080U);
}

TEST_F(LumoNodeIpc, ObjectsAreRemovedOnSigterm) {
  NodeProgram node(Options());
  EXPECT_TRUE(ObjectsExist());
  EXPECT_EQ(node.Stop(), 0);
  EXPECT_FALSE(ObjectsExist());
}

TEST_F(LumoNodeIpc, ObjectsOfAKilledNodeAreReplaced) {
  NodeProgram first(Options());
  EXPECT_EQ(first.Stop(SIGKILL), -SIGKILL);
  EXPECT_TRUE(ObjectsExist());
  NodeProgram second(Options());
  EXPECT_EQ(SegmentPid(), second.Pid());
}

TEST_F(LumoNodeIpc, KeyOfALivingNodeIsRefused) {
  NodeProgram first(Options());
  test::Program second(LUMO_NODE_PATH, Options());
  EXPECT_EQ(second.Wait(), 1);
  EXPECT_EQ(SegmentPid(), first.Pid());
}

TEST(LumoNode, SigtermEndsAnEndlessStatement) {
  ConnectedNode node;
  node.Far.SendMessage(
      Request("with recursive c(x) as (select 1 union all select x + 1 from c) "
              "select count(*) from c"));
  EXPECT_TRUE(node.WaitForStderr("with recursive"));
  EXPECT_EQ(node.Stop(), 0);
}

TEST(LumoNode, BadCommandLinesEndWithStatusTwo) {
  const std::vector<std::vector<std::string>> lines{
      {},
      {"--listen", "70000"},
      {"--ipc", "0"},
      {"--ipc", "12x"},
      {"--listen", "0", "--malformed", "odd"},
      {"--listen", "0", "--no-such-option"},
  };
  for (const auto& line : lines) {
    test::Program node(LUMO_NODE_PATH, line);
    EXPECT_EQ(node.Wait(), 2) << testing::PrintToString(line);
  }
}

TEST(LumoNode, BadSqlAtTheStartEndsWithStatusOne) {
  test::Program node(LUMO_NODE_PATH, {"--listen", "0", "--sql", "nonsense"});
  EXPECT_EQ(node.Wait(), 1);
  EXPECT_NE(node.Stderr().find("syntax error"), std::string::npos);
}

}  // namespace
