// Finding the agent, and what happens when it goes, comes again, or is none.
#include <fcntl.h>
#include <poll.h>

#include <cerrno>

#include "lib/socket_places.h"
#include "tests/lib/lib_setting.h"

static std::function<void()> afterRefusal;  // of bytes, when a test says so
extern "C" ssize_t __real_send(int fd, const void* bytes, std::size_t count, int flags);
extern "C" ssize_t __wrap_send(int fd, const void* bytes, std::size_t count, int flags);
ssize_t __wrap_send(int fd, const void* bytes, std::size_t count, int flags) {
  const ssize_t sent = __real_send(fd, bytes, count, flags);
  const int savedErrno = errno;
  if (sent < 0 && afterRefusal) afterRefusal();
  errno = savedErrno;
  return sent;
}

namespace test {
namespace {

// Changes the environment for one test.
class Variable {
 public:
  Variable(const char* name, const char* value) : name_(name) {
    if (const char* const before = getenv(name)) before_ = before;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~Variable() { before_ ? setenv(name_, before_->c_str(), 1) : unsetenv(name_); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> before_;
};

std::string SocketPath(int exchangeId) {
  char path[300];
  EXPECT_EQ(lumo_socket_path(exchangeId, path, sizeof path), LUMO_OK);
  return path;
}

TEST(SocketPaths, FollowTheEnvironment) {
  const Variable directory("TAVRIN_TMP", nullptr), exchange("NET_MBX", nullptr);
  EXPECT_EQ(SocketPath(0), "/tmp/tavrin/tavrin.20562");
  EXPECT_EQ(SocketPath(7), "/tmp/tavrin/tavrin.7");
  const Variable set("TAVRIN_TMP", "/some/where"), number("NET_MBX", "31000");
  EXPECT_EQ(SocketPath(0), "/some/where/tavrin.31000");
  EXPECT_EQ(SocketPath(7), "/some/where/tavrin.7");
  const Variable none("NET_MBX", "none");
  EXPECT_EQ(SocketPath(0), "/some/where/tavrin.20562");
}

TEST(SocketPaths, ATooLongDirectoryIsIgnored) {
  const std::string most(227, 'd');
  const Variable exchange("NET_MBX", nullptr), fits("TAVRIN_TMP", most.c_str());
  EXPECT_EQ(SocketPath(0), most + "/tavrin.20562");
  const Variable long_("TAVRIN_TMP", (most + "d").c_str());
  EXPECT_EQ(SocketPath(0), "/tmp/tavrin/tavrin.20562");
}

TEST(SocketPaths, ThePackagedServiceIsLookedForFirstWhenItsDirectoryIsThere) {
  using lumo::detail::SocketDirectories;
  const TemporaryDirectory packaged;
  const std::string missing = packaged.Path() / "missing";
  const Variable unset("TAVRIN_TMP", nullptr);
  EXPECT_EQ(SocketDirectories(packaged.Path()),
            (std::vector<std::string>{packaged.Path(), "/tmp/tavrin"}));
  EXPECT_EQ(SocketDirectories(missing), std::vector<std::string>{"/tmp/tavrin"});
  const Variable set("TAVRIN_TMP", "/some/where");
  EXPECT_EQ(SocketDirectories(packaged.Path()), std::vector<std::string>{"/some/where"});
}

TEST(SocketPaths, TheFirstThatIsThereIsTaken) {
  const TemporaryDirectory one, two;
  const std::string first = one.Path() / "tavrin.1", second = two.Path() / "tavrin.1";
  EXPECT_EQ(lumo::detail::ChoosePlace({first, second}), first);
  WriteFile(second, "");
  EXPECT_EQ(lumo::detail::ChoosePlace({first, second}), second);
  WriteFile(first, "");
  EXPECT_EQ(lumo::detail::ChoosePlace({first, second}), first);
}

TEST(SocketPaths, PlacesAreToldOneByOne) {
  const Variable directory("TAVRIN_TMP", "/some/where"), exchange("NET_MBX", nullptr);
  char path[300];
  EXPECT_EQ(lumo_socket_place(7, 0, path, sizeof path), LUMO_OK);
  EXPECT_STREQ(path, "/some/where/tavrin.7");
  EXPECT_EQ(lumo_socket_place(7, 1, path, sizeof path), LUMO_BAD_ARGUMENT);
  EXPECT_STREQ(path, "");
  EXPECT_EQ(lumo_socket_place(7, 0, path, 8), LUMO_TOO_LONG);
}

TEST(SocketPaths, RoomIsChecked) {
  char path[8] = "before";
  EXPECT_EQ(lumo_socket_path(1, path, sizeof path), LUMO_TOO_LONG);
  EXPECT_STREQ(path, "");
  EXPECT_EQ(lumo_socket_path(1, nullptr, 8), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_socket_path(1, path, 0), LUMO_BAD_ARGUMENT);
}

using Connections = AgentTest;

TEST_F(Connections, WithoutAPathTheEnvironmentLeadsToTheAgent) {
  StartAgent();
  const Variable directory("TAVRIN_TMP", agent_.SocketFolder().c_str());
  const Variable exchange("NET_MBX", std::to_string(agent_.ExchangeId()).c_str());
  liblumo::Connection connection;
  ASSERT_TRUE(connection) << connection.Opened().Text();
  EXPECT_EQ(connection.AgentPid(), agent_.Pid());
  EXPECT_EQ(lumo_connection_path(connection.Get()), agent_.SocketPath());
  EXPECT_TRUE(connection.Probe());
}

TEST_F(Connections, ASocketIsClosedOnExec) {
  StartAgent();
  liblumo::Connection connection = Open(agent_);
  EXPECT_EQ(fcntl(connection.Descriptor(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Connections, NothingIsLeftOpen) {
  StartAgent();
  const int before = OpenDescriptors(getpid());
  {
    liblumo::Connection connection = Open(agent_);
    EXPECT_TRUE(connection.Probe(kAmple));
    EXPECT_GT(OpenDescriptors(getpid()), before);
  }
  EXPECT_FALSE(liblumo::Connection("/nowhere/at/all"));
  EXPECT_EQ(OpenDescriptors(getpid()), before);
}

TEST_F(Connections, NobodyThereIsNoAgentAndErrnoSaysWhy) {
  lumo_connection* connection = nullptr;
  errno = 0;
  EXPECT_EQ(lumo_open("/nowhere/at/all", 1000, &connection), LUMO_NO_AGENT);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(connection, nullptr);
  EXPECT_EQ(lumo_open(std::string(108, 'p').c_str(), 1000, &connection), LUMO_TOO_LONG);
}

TEST_F(Connections, AGreetingIsChecked) {
  const struct {
    std::string Bytes;
    lumo_status Status;
  } cases[] = {{Greeting(4711, 60), LUMO_BAD_GREETING},
               {Greeting(0), LUMO_BAD_GREETING},
               {Greeting(-5), LUMO_BAD_GREETING},
               {Greeting(4711).substr(0, 59), LUMO_NO_AGENT},
               {std::string(), LUMO_NO_AGENT}};
  FakeAgent agent;
  for (const auto& [bytes, status] : cases) {
    std::thread server([&, &greeting = bytes] { agent.Accept(greeting).Close(); });
    const liblumo::Connection connection(agent.Path(), kAmple);
    EXPECT_EQ(connection.Opened().Code, status) << bytes.size();
    server.join();
  }
}

TEST_F(Connections, AGreetingThatDoesNotComeIsWaitedForNoLongerThanTheDeadline) {
  FakeAgent agent;  // accepts nothing: the system connects, and nobody greets
  EXPECT_EQ(liblumo::Connection(agent.Path(), kSoon).Opened().Code, LUMO_TIMEOUT);
  EXPECT_EQ(liblumo::Connection(agent.Path(), kAtOnce).Opened().Code, LUMO_TIMEOUT);
}

TEST_F(Connections, AFullBacklogIsWaitedForNoLongerThanTheDeadline) {
  FakeAgent agent;
  std::vector<liblumo::Connection> waiting;
  for (int i = 0; i < 20; ++i) {
    const auto before = test::Clock::now();
    EXPECT_EQ(liblumo::Connection(agent.Path(), kSoon).Opened().Code, LUMO_TIMEOUT);
    EXPECT_LT(test::Clock::now() - before, kPatience);
  }
}

class Restarts : public AgentTest {
 protected:
  void Restart() {
    agent_.CloseControl();
    agent_.Spawn();
    ASSERT_TRUE(agent_.WaitUntilReady());
  }
};

TEST_F(Restarts, TheNextCallConnectsAgain) {
  EchoNode echo;
  StartAgent(echo.Line("SRV"));
  liblumo::Connection connection = Open(agent_);
  EXPECT_EQ(connection.Ask("SRV", "one", kAmple).String(0), "one");
  EXPECT_EQ(agent_.Stop(), 0);
  errno = 0;
  EXPECT_EQ(connection.Ask("SRV", "two", kAmple).Status(), LUMO_NO_AGENT);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(connection.Descriptor(), -1);
  Restart();
  EXPECT_EQ(connection.Ask("SRV", "three", kAmple).String(0), "three");
  EXPECT_EQ(connection.AgentPid(), agent_.Pid());
  EXPECT_EQ(echo.Served(), 2);
}

TEST_F(Restarts, WhatWasInFlightIsUnsureAndTheRestGoesOn) {
  Node node;
  StartAgent(node.Line("SRV"));
  liblumo::Connection connection = Open(agent_);
  const lumo_ticket lost = Send(connection, "SRV", "lost");
  node.ExpectFirstRequest();
  agent_.Kill();
  Restart();
  // Noticed only by sending: nothing was received in between.
  const lumo_ticket kept = Send(connection, "SRV", "kept");
  node.Answer(node.ExpectFirstRequest(), "answer");
  EXPECT_EQ(connection.Receive(kept, kAmple).String(0), "answer");
  const liblumo::Answer end = connection.Receive(lost, kAmple);
  EXPECT_TRUE(end.Unsure());
  EXPECT_EQ(end.Reason(), LUMO_REASON_CONNECTION_LOST);
}

TEST_F(Restarts, CanBeAskedFor) {
  FakeAgent agent;
  auto [connection, peer] = agent.Connect();
  EXPECT_TRUE(connection.Reconnect(kAmple));
  peer.Close();
  std::thread server([&, &end = peer] { end = agent.Accept(Greeting(815)); });
  EXPECT_TRUE(connection.Reconnect(kAmple));
  server.join();
  EXPECT_EQ(connection.AgentPid(), 815);
}

// The last answers may lie in the socket of a connection that is found lost by sending.
TEST_F(Restarts, AnswersThatHadComeAreNotLost) {
  FakeAgent agent;
  auto [connection, peer] = agent.Connect();
  const lumo_ticket answered = Send(connection, "SRV", "answered");
  const lumo_ticket unanswered = Send(connection, "SRV", "unanswered");
  const lumo::Message request = peer.ExpectRequest();
  peer.ExpectRequest();
  peer.Answer(request, "last word");
  peer.Close();
  std::thread server([&, &end = peer] { end = agent.Accept(); });
  const lumo_ticket next = Send(connection, "SRV", "next");
  server.join();
  EXPECT_EQ(connection.Receive(answered, kAtOnce).String(0), "last word");
  EXPECT_TRUE(connection.Receive(unanswered, kAtOnce).Unsure());
  EXPECT_EQ(connection.Receive(next, kAtOnce).Status(), LUMO_TIMEOUT);
}

TEST_F(Restarts, AnAgentThatAlwaysHangsUpIsGivenUp) {
  FakeAgent agent;
  auto [connection, peer] = agent.Connect();
  peer.Close();
  std::thread server([&] {
    for (int i = 0; i < 3; ++i) agent.Accept("");
  });
  EXPECT_EQ(connection.Ask("SRV", "question", kAmple).Status(), LUMO_NO_AGENT);
  // As many as the server still expects.
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(liblumo::Connection(agent.Path(), kAmple));
  server.join();
}

TEST(Answers, MayComeInPiecesAndTogether) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket one = Send(connection, "SRV", "one"), two = Send(connection, "SRV", "two");
  const lumo::Message first = peer.ExpectRequest(), second = peer.ExpectRequest();
  const std::string bytes =
      lumo::Encode(first, lumo::Lengths::Client) + lumo::Encode(second, lumo::Lengths::Client);
  for (std::size_t at = 0; at < bytes.size(); at += 50) {
    EXPECT_EQ(connection.Receive(two, kAtOnce).Status(), LUMO_TIMEOUT);
    peer.SendBytes(std::string_view(bytes).substr(at, 50));
  }
  EXPECT_EQ(connection.Receive(two, kAmple).String(0), "two");
  EXPECT_EQ(connection.Receive(one, kAtOnce).String(0), "one");
}

TEST(Answers, MayBeAsLargeAsANodesLargestPacket) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question"),
                    other = Send(connection, "SRV", "");
  const lumo::Message request = peer.ExpectRequest(), second = peer.ExpectRequest();
  const lumo::Message largest = AnswerTo(request, std::string(8084, 'x'));
  ASSERT_EQ(lumo::EncodedSize(largest), lumo::kMaxFrame);
  peer.SendMessage(largest);
  EXPECT_EQ(connection.Receive(ticket, kAmple).String(0), largest.Strings[0]);
  peer.SendMessage(AnswerTo(second, std::string(8086, 'x')));
  EXPECT_EQ(connection.Receive(other, kAmple).Reason(), LUMO_REASON_BAD_ANSWER);
}

TEST(Answers, ThatNobodyAskedForArePassedOver) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  const lumo::Message request = peer.ExpectRequest();
  lumo::Message stray = request;
  stray.SetAstInd(static_cast<std::uint16_t>(request.AstInd() ^ 1));
  peer.SendMessage(stray);
  stray = request;
  stray.TaskName = getppid();
  peer.SendMessage(stray);
  EXPECT_EQ(connection.Receive(ticket, kSoon).Status(), LUMO_TIMEOUT);
  peer.SendMessage(request);
  peer.SendMessage(request);
  EXPECT_EQ(connection.Receive(ticket, kAmple).String(0), "question");
  EXPECT_EQ(connection.ReceiveAny(kAmple).Status(), LUMO_NOTHING_SENT);
}

TEST(Answers, ThatAreNoMessagesEndTheConnection) {
  const auto tooLong = [](lumo::Message request) {
    std::string frame = lumo::Encode(request, lumo::Lengths::Client);
    frame[52] = '\x7f';  // the count of the first string
    return frame;
  };
  const auto lengthOf = [](std::uint32_t length) {
    std::string frame(200, '\0');
    std::memcpy(frame.data(), &length, sizeof length);
    return frame;
  };
  for (int kind = 0; kind < 4; ++kind) {
    auto [connection, peer] = FakeAgent().Connect();
    const lumo_ticket ticket = Send(connection, "SRV", "question");
    const std::string frames[] = {tooLong(peer.ExpectRequest()), lengthOf(0), lengthOf(107),
                                  lengthOf(8193)};
    peer.SendBytes(frames[kind]);
    const liblumo::Answer answer = connection.Receive(ticket, kAmple);
    EXPECT_TRUE(answer.Unsure()) << kind;
    EXPECT_EQ(answer.Reason(), LUMO_REASON_BAD_ANSWER);
    EXPECT_TRUE(peer.ReadEnd());
  }
}

TEST(Answers, ThatFollowSomethingThatIsNoneAreNotTheNextConnections) {
  FakeAgent agent;
  auto [connection, peer] = agent.Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  peer.SendBytes(std::string(32768 + 3, '\0'));  // more than is taken at once
  EXPECT_EQ(connection.Receive(ticket, kAmple).Reason(), LUMO_REASON_BAD_ANSWER);
  std::thread server([&agent] {
    Peer next = agent.Accept();
    if (const auto request = next.ReadRequest()) next.SendMessage(*request);
  });
  EXPECT_EQ(connection.Ask("SRV", "again", kAmple).String(0), "again");
  server.join();
}

class Sending : public ::testing::Test {
 protected:
  Sending() : pair_(agent_.Connect()), request_("SRV", std::string(8000, 'x')) {}
  // With a small buffer the socket takes the beginning of a request; else all of it or nothing.
  void TakeInPieces() {
    const int size = 4096;
    setsockopt(pair_.Library.Descriptor(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }
  // Sends until nothing more is taken, not even the beginning of a request.
  std::vector<lumo_ticket> Fill() {
    std::vector<lumo_ticket> tickets;
    lumo_ticket ticket = 0;
    while (pair_.Library.Send(request_, &ticket, kAtOnce)) tickets.push_back(ticket);
    EXPECT_EQ(ticket, 0u);
    return tickets;
  }
  // Another thread waits on the socket for an answer that comes when Release is called.
  void Occupy() {
    const lumo_ticket ticket = Send(pair_.Library, "SRV", "held");
    held_ = pair_.Agent.ExpectRequest();
    waiting_ = std::thread([this, ticket] {
      liblumo::Answer answer;
      // While the look below lasts, the request is not this thread's.
      do {
        answer = pair_.Library.Receive(ticket, liblumo::kForever);
      } while (answer.Status() == LUMO_NO_TICKET);
      EXPECT_EQ(answer.String(0), "held");
    });
    // From now on the request is that thread's.
    EXPECT_TRUE(
        WaitFor([&] { return pair_.Library.Receive(ticket, kAtOnce).Status() == LUMO_NO_TICKET; }));
  }
  void Release() {
    pair_.Agent.SendMessage(held_);
    waiting_.join();
  }

  FakeAgent agent_;
  FakeAgent::Pair pair_;
  liblumo::Request request_;
  lumo::Message held_;
  std::thread waiting_;
};

TEST_F(Sending, AnAgentThatTakesNothingIsWaitedForNoLongerThanTheDeadline) {
  TakeInPieces();
  const std::vector<lumo_ticket> tickets = Fill();
  lumo_ticket ticket = 7;
  EXPECT_EQ(pair_.Library.Send(request_, &ticket, kSoon).Code, LUMO_TIMEOUT);
  EXPECT_EQ(ticket, 0u);
  EXPECT_EQ(pair_.Library.InFlight(), tickets.size());
  // Each of those that were sent comes whole, also the one that had only begun, and no other.
  waiting_ = std::thread([&] {
    for (const lumo_ticket sent : tickets)
      EXPECT_EQ(pair_.Library.Receive(sent, kAmple).String(0).size(), 8000u);
  });
  for (std::size_t i = 0; i < tickets.size(); ++i) {
    const auto received = pair_.Agent.ReadRequest();
    EXPECT_TRUE(received);
    if (received) pair_.Agent.SendMessage(*received);
  }
  waiting_.join();
  EXPECT_TRUE(pair_.Agent.Silent(kShortly));
}

TEST_F(Sending, ARequestDoesNotOvertakeTheRestOfAnother) {
  TakeInPieces();
  std::size_t sent = Fill().size(), received = 0;
  // What there is of a request is kept.
  const auto makeRoom = [&] { received += pair_.Agent.ReadFrame(Milliseconds(0)) ? 1 : 0; };
  for (int round = 0; round < 20; ++round) {
    makeRoom();
    sent += Fill().size();
  }
  afterRefusal = makeRoom;  // when the rest has just been refused
  for (int round = 0; round < 20; ++round) sent += Fill().size();
  afterRefusal = nullptr;
  EXPECT_GT(received, 2u);
  std::thread flushing([&] { EXPECT_TRUE(pair_.Library.ReceiveAny(kAmple)); });
  std::optional<lumo::Message> last;
  for (; received < sent; ++received) {
    last = pair_.Agent.ReadRequest();
    EXPECT_TRUE(last) << received;
    if (!last) break;
  }
  if (last) pair_.Agent.SendMessage(*last);
  flushing.join();
}

TEST_F(Sending, TheRestGoesOutOnceWhateverErrnoHasBeenLeftBehind) {
  TakeInPieces();
  const std::size_t sent = Fill().size();
  std::thread flushing([&] {
    errno = EINTR;
    EXPECT_TRUE(pair_.Library.ReceiveAny(kAmple));
  });
  std::optional<lumo::Message> last;
  for (std::size_t i = 0; i < sent; ++i) {
    last = pair_.Agent.ReadRequest();
    EXPECT_TRUE(last) << i;
  }
  EXPECT_TRUE(pair_.Agent.Silent(kShortly));
  if (last) pair_.Agent.SendMessage(*last);
  flushing.join();
}

TEST_F(Sending, TheRestOfARequestGoesOutThroughAThreadThatReceives) {
  TakeInPieces();
  Occupy();
  const std::size_t sent = Fill().size();
  for (std::size_t i = 0; i < sent; ++i) EXPECT_TRUE(pair_.Agent.ReadRequest()) << i;
  Release();
}

TEST_F(Sending, WaitsForRoomWhileAnotherThreadReceives) {
  Occupy();
  const std::size_t sent = Fill().size();
  std::atomic<pid_t> waiter{0};
  std::thread sender([&] {
    lumo_ticket ticket = 0;
    waiter = gettid();
    EXPECT_TRUE(pair_.Library.Send(request_, &ticket, liblumo::kForever));
  });
  EXPECT_TRUE(Sleeps(waiter));
  for (std::size_t i = 0; i <= sent; ++i) EXPECT_TRUE(pair_.Agent.ReadRequest()) << i;
  Release();
  sender.join();
}

TEST(EventLoops, TheDescriptorTellsThatAnAnswerHasCome) {
  auto [connection, peer] = FakeAgent().Connect();
  const lumo_ticket ticket = Send(connection, "SRV", "question");
  pollfd ready{connection.Descriptor(), POLLIN, 0};
  EXPECT_EQ(connection.ReceiveAny(kAtOnce).Status(), LUMO_TIMEOUT);
  EXPECT_EQ(poll(&ready, 1, 0), 0);
  peer.SendMessage(peer.ExpectRequest());
  EXPECT_EQ(poll(&ready, 1, 15000), 1);
  EXPECT_EQ(connection.ReceiveAny(kAtOnce).Ticket(), ticket);
}

}  // namespace
}  // namespace test
