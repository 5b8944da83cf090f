// Nodes reached through the local kernel's UNIX-domain socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/process/local_kernel.h"
#include "tests/process/manager.h"
#include "tests/process/usual_directory.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"
#include "tests/support/text.h"

namespace test {
namespace {

// A listener at a path of the test's choice, for what LocalKernel does not do.
class Listener {
 public:
  explicit Listener(const std::string& path) : fd_(BoundAt(path)) { EXPECT_EQ(listen(fd_, 16), 0); }
  ~Listener() { Close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  bool Connecting() const {
    pollfd ready{fd_, POLLIN, 0};
    return poll(&ready, 1, static_cast<int>(kPatience.count())) > 0;
  }
  Peer Accept() const { return Peer(lumo::Lengths::Client, AcceptWithin(fd_, kPatience)); }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// An agent with one kernel, and a client of it.
class LocalSocket : public ManagerTest {
 protected:
  LocalSocket() { agent_.Nodetab(kernel_.Line("K") + "OTHER REZ\n"); }
  // Brings the link up with a request, which the kernel answers.
  void Connect() {
    client_.emplace(StartWithClient());
    ExpectFirstExchange(*client_, client_->Send("K"), kernel_, "up");
  }
  // A request that the kernel has read.
  lumo::Message InFlight() {
    const lumo::Message request = client_->Send("K");
    kernel_.ExpectRequest();
    return request;
  }
  void ExpectAnswered(const lumo::Message& request, const std::string& text,
                      const Place& place = Place::Here()) {
    test::ExpectAnswered(*client_, request, kernel_, request, text, place);
  }
  // The answer's bytes break the link, and the request is told; the next one connects again.
  void ExpectBroken(const std::string& bytes, const Place& place = Place::Here()) {
    const lumo::Message request = InFlight();
    ASSERT_TRUE(kernel_.SendBytes(bytes));
    client_->ExpectError(request, 4008, 0, place);
    EXPECT_TRUE(kernel_.ReadEnd());
    ExpectFirstExchange(*client_, client_->Send("K"), kernel_, "again", place);
  }

  LocalKernel kernel_{agent_};
  std::optional<Client> client_;
};

std::string WithLength(std::string frame, std::uint32_t length) {
  return frame.replace(0, sizeof length, Bytes(length));
}

// The lines of the driver that begin with one of these words, in the order of the log.
std::vector<std::string> DriverLines(const Agent& agent, const std::vector<std::string>& words) {
  std::vector<std::string> lines;
  for (const LogLine& line : agent.LogLines()) {
    if (line.Module != "lsock" || line.Level != 15) continue;
    for (const std::string& word : words) {
      if (line.Text.rfind(word, 0) == 0) lines.push_back(line.Text);
    }
  }
  return lines;
}

// Address

TEST_F(LocalSocket, AnAddressThatIsNoNumberOrZeroIsRefused) {
  agent_.Trace();
  Manager manager = StartWithManager("OTHER REZ\n");
  int refused = 0;
  for (const char* address : {"0", "nonsense", "", "  ", "0x10", "-0", "x20562"}) {
    EXPECT_EQ(manager.AddNode(std::string("K LOCALS ") + address), 1) << address;
    EXPECT_EQ(agent_.CountLogged(15, "lsock", "'LSockInitLink' Leave FAILED incorrect address"),
              ++refused);
  }
  EXPECT_EQ(agent_.CountLogged(0, "", "Initialization of link 'K' for protocol 'LOCALS' failed"),
            refused);
}

TEST_F(LocalSocket, TheFirstWordOfTheAddressIsReadUpToItsFirstNonDigit) {
  for (const std::string tail : {"", "   further words", "\tfurther", "abc", "  "}) {
    Agent agent;
    LocalKernel kernel(agent);
    agent.Nodetab("K local  \t " + std::to_string(kernel.Number()) + tail + "\n");
    Client client = StartWithClient(agent);
    client.Send("K");
    EXPECT_TRUE(kernel.Accept() && kernel.ReadRequest()) << tail;
  }
}

TEST_F(LocalSocket, ANegativeNumberNamesTheSocketToo) {
  const Listener listener(agent_.SocketPath(-5));
  Client client = StartWithClient("K LOCALS -5\n");
  client.Send("K");
  Peer kernel = listener.Accept();
  ASSERT_TRUE(kernel.Open());
  kernel.SendBytes("hello");
  EXPECT_TRUE(kernel.ReadRequest());
}

// The directory, seen in test runs: they open no client socket, which follows the same rules

std::string DirectoryOfLength(const Agent& agent, std::size_t length) {
  const std::string path = agent.Folder() / "";
  return path + std::string(length - path.size(), 'd');
}

TEST_F(LocalSocket, ADirectoryNameOf227CharactersIsUsedAndOneOf228IsNot) {
  for (const std::size_t length : {std::size_t{227}, std::size_t{228}}) {
    Agent agent;
    const std::string directory = DirectoryOfLength(agent, length);
    agent.Environment("TAVRIN_TMP", directory).Option("-PING");
    agent.Nodetab("K LOCALS " + std::to_string(agent.ExchangeId()) + "\n");
    EXPECT_EQ(agent.Run(), 6);
    // A path of such a length is more than the system takes for a socket.
    const int error = length == 227 ? EINVAL : ENOENT;
    EXPECT_EQ(agent.Results(),
              "lumo_tcp:Node \"K\" is not alive\n"
              "lumo_tcp:Test connection has failed. Status 4006:" +
                  std::to_string(error) + "\n");
    EXPECT_EQ(std::filesystem::exists(directory), length == 227);
  }
}

TEST_F(LocalSocket, ADirectoryNameThatIsTooLongGivesWayToTheUsualOne) {
  const UsualDirectory usual;
  Agent agent;
  agent.Environment("TAVRIN_TMP", DirectoryOfLength(agent, 228));
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.SocketFolder(), usual.Path());
  LocalKernel kernel(agent);
  Manager manager(agent);
  EXPECT_EQ(manager.AddNode(kernel.Line("K")), 0);
  Client client(agent);
  client.Send("K");
  kernel.ExpectFirstRequest();
  EXPECT_EQ(agent.Stop(), 0);  // which removes its socket
}

TEST_F(LocalSocket, TheDirectoryIsMadeAndOpenedToEverybody) {
  for (const bool exists : {false, true}) {
    Agent agent;
    const std::filesystem::path directory = agent.Folder() / "sockets";
    if (exists) {
      std::filesystem::create_directory(directory);
      chmod(directory.c_str(), 0700);
    }
    agent.Environment("TAVRIN_TMP", directory).Option("-PING").Nodetab("K LOCALS 77\n");
    EXPECT_EQ(agent.Run(), 6);
    struct stat state {};
    ASSERT_EQ(stat(directory.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 07777, 0777u);
  }
}

// Connecting

TEST_F(LocalSocket, AConnectionThatCannotBeMadeIsAnsweredWithItsError) {
  agent_.Trace();
  ASSERT_TRUE(agent_.Start());
  kernel_.StopListening();
  Client client(agent_);
  client.ExpectNothing();
  const int before = OpenDescriptors(agent_.Pid());
  client.ExpectError(client.Send("K"), 4006, ENOENT);
  EXPECT_TRUE(agent_.Logged(
      15, "lsock", "'LSockConnectLink' Leave FAILED connect to tavrin MBX=%d. Errno = %d"));
  {
    Listener listener(agent_.SocketPath(kernel_.Number()));
    listener.Close();  // the file stays, and nobody listens
  }
  client.ExpectError(client.Send("K"), 4006, ECONNREFUSED);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
}

TEST_F(LocalSocket, AGreetingOfAnySizeIsPassedOver) {
  Client client = StartWithClient();
  for (const std::size_t size : {1u, 60u, 76u, 77u, 152u, 1000u}) {
    const lumo::Message request = client.Send("K", "text");
    ASSERT_TRUE(kernel_.Accept(std::string(size, 'g')));
    ExpectExchange(client, request, kernel_, "answer of " + std::to_string(size));
    kernel_.Close();
    agent_.Barrier();
  }
}

TEST_F(LocalSocket, TheStepsOfTheConnectAreTraced) {
  agent_.Trace();
  Client client = StartWithClient();
  client.Send("K");
  ASSERT_TRUE(kernel_.Accept(std::string(100, 'g')));  // more than one piece of 76 bytes
  ASSERT_TRUE(kernel_.ReadRequest());
  agent_.Barrier();
  const std::vector<std::string> lines = DriverLines(agent_, {"SET_", "REGISTER_"});
  ASSERT_EQ(lines.size(), 6u);
  const std::string socket = lines[0].substr(lines[0].find(' '));
  EXPECT_EQ(lines,
            (std::vector<std::string>{"SET_NOBLOCK_MODE" + socket, "SET_NOBLOCK_MODE" + socket,
                                      "SET_BLOCK_MODE" + socket, "SET_SOCKET_BUFFERS" + socket,
                                      "REGISTER_SOCKET_FOR_READ_EVENT" + socket,
                                      "REGISTER_SOCKET_FOR_THE_LINK" + socket + ", K"}));
  EXPECT_TRUE(agent_.Logged(15, "lsock", "'LSockConnectLink' Leave SUCCESS"));
  EXPECT_TRUE(agent_.Logged(15, "lsock", "Before Send 108 byte to local tavrin"));
}

TEST_F(LocalSocket, TheGreetingIsWaitedForWhateverSignalsCome) {
  Client client = StartWithClient();
  client.Send("K");
  ASSERT_TRUE(kernel_.Accept(""));
  for (int tick = 0; tick < 10; ++tick) {
    agent_.Signal(SIGALRM);
    EXPECT_TRUE(kernel_.Silent(Milliseconds(3)));
  }
  kernel_.SendBytes("hello");
  EXPECT_TRUE(kernel_.ReadRequest());
}

TEST_F(LocalSocket, AKernelThatGoesBeforeItGreetsFailsTheConnection) {
  Listener listener(agent_.SocketPath(77));
  agent_.Trace();
  Client client = StartWithClient("K LOCALS 77\n");
  client.ExpectNothing();
  const int before = OpenDescriptors(agent_.Pid());
  const lumo::Message request = client.Send("K");
  ASSERT_TRUE(listener.Connecting());
  listener.Close();
  client.ExpectError(request, 4006, ECONNRESET);
  EXPECT_TRUE(agent_.Logged(15, "lsock",
                            "Receive first packet failed. errno " + std::to_string(ECONNRESET)));
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before + 1) << "the socket is left as it is";
}

TEST_F(LocalSocket, AKernelThatClosesAtOnceIsReadUntilAStopIsAskedFor) {
  Client client = StartWithClient();
  client.Send("K");
  ASSERT_TRUE(kernel_.Accept(""));
  kernel_.Close();
  EXPECT_FALSE(client.ReceiveFrame(kShortly)) << "the connect does not end";
  EXPECT_TRUE(agent_.Running());
  EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(LocalSocket, ASocketThatCannotBeMadeIsAnsweredWithItsError) {
  constexpr int kAllowed = 16;
  agent_.Limit(RLIMIT_NOFILE, kAllowed).LogLevel("2");
  Client client = StartWithClient();
  client.ExpectNothing();
  Crowd crowd(&agent_, kAllowed);
  client.ExpectError(client.Send("K"), -1, EMFILE);
  EXPECT_EQ(agent_.CountLogged(2, "lsock",
                               "Call socket(PF_UNIX...) failed. errno = " + std::to_string(EMFILE)),
            1);
}

TEST_F(LocalSocket, ADescriptorOf255OrMoreIsRefused) {
  Client client = StartWithClient();
  client.ExpectNothing();
  Crowd crowd(&agent_, 256);
  const int before = OpenDescriptors(agent_.Pid());
  client.ExpectError(client.Send("K"), 4052, 0);
  EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
  crowd.Leave();
  agent_.Barrier();
  client.Send("K");
  kernel_.ExpectFirstRequest();  // the refused attempt never came as far as the kernel
}

TEST_F(LocalSocket, WithConnectOnLoadTheKernelIsConnectedAtTheStartAndBecomesTheDefault) {
  agent_.Nodetab("A REZ\n" + kernel_.Line("K"))
      .Options({"-NODAEMON", "-CONNECTONLOAD"})
      .LogLevel("1");
  agent_.Spawn();
  ASSERT_TRUE(kernel_.Accept());
  ASSERT_TRUE(agent_.WaitUntilReady());
  EXPECT_EQ(agent_.Log(), "lumo_tcp:Link K connected\n");
  Client client(agent_);
  ExpectExchange(client, client.Send("", "for the default"), kernel_, "from the kernel");
}

// Messages

TEST_F(LocalSocket, ARequestGoesOutAsItCame) {
  Connect();
  lumo::Message request = FullMessage(*client_, "k");
  for (const std::size_t size : {std::size_t{301}, std::size_t{7760}}) {
    request.Strings[3] = std::string(size, 'x');
    const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
    ASSERT_TRUE(client_->SendBytes(frame));
    EXPECT_EQ(kernel_.ReadFrame(), frame);
  }
}

TEST_F(LocalSocket, TheLargestRequestGoesOutAsItCame) {
  Connect();
  lumo::Message request = client_->Request("K", std::string(8188 - 108, 'x'));
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  ASSERT_EQ(frame.size(), 8188u);
  ASSERT_TRUE(client_->SendBytes(frame));
  EXPECT_EQ(kernel_.ReadFrame(), frame);
}

TEST_F(LocalSocket, AnAnswerComesBackWithTheTaskOfItsTrailerAndTheLengthOfItsStrings) {
  agent_.Trace();
  Connect();
  lumo::Message answer = FullMessage(*client_, "k");
  answer.SetTrailerTaskName(answer.TaskName);
  client_->SendMessage(answer);
  ASSERT_TRUE(kernel_.ReadRequest());
  const std::string expected = lumo::Encode(answer, lumo::Lengths::Client);
  answer.TaskName = 4711;
  const std::string sent = lumo::Encode(answer, lumo::Lengths::Client) + "behind the trailer";
  const auto length = static_cast<std::uint32_t>(sent.size());
  kernel_.SendBytes(WithLength(sent, length));
  EXPECT_EQ(client_->ReceiveFrame(), expected);
  EXPECT_EQ(DriverLines(agent_, {"recv form", "Local tavrin"}).back(),
            "recv form local tavrin return " + std::to_string(length - 4));
  EXPECT_TRUE(agent_.Logged(15, "lsock", "recv form local tavrin return 4"));
  EXPECT_TRUE(agent_.Logged(15, "lsock",
                            "Local tavrin message len is " + std::to_string(length - 4) + " byte"));
}

TEST_F(LocalSocket, TheLargestAnswerComesThrough) {
  Connect();
  const lumo::Message request = InFlight();
  const lumo::Message answer = AnswerTo(request, std::string(8192 - 108, 'x'));
  kernel_.SendMessage(answer);
  EXPECT_EQ(client_->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(LocalSocket, AnAnswerThatComesInPiecesKeepsNobodyWaiting) {
  Connect();
  const lumo::Message request = InFlight();
  const lumo::Message answer = AnswerTo(request, "pieces");
  const std::string frame = lumo::Encode(answer, lumo::Lengths::Client);
  for (const char byte : frame.substr(0, frame.size() - 1)) {
    kernel_.SendBytes({&byte, 1});
    agent_.Barrier();
  }
  client_->ExpectNothing();
  kernel_.SendBytes(frame.substr(frame.size() - 1));
  EXPECT_EQ(client_->ReceiveFrame(), frame);
}

TEST_F(LocalSocket, AnswersThatComeTogetherReachTheirRequestsInAnyOrder) {
  Connect();
  Client other(agent_);
  const lumo::Message first = client_->Send("K"), second = other.Send("K"),
                      third = client_->Send("K");
  for (int request = 0; request < 3; ++request) ASSERT_TRUE(kernel_.ReadRequest());
  std::string frames;
  for (const lumo::Message& request : {third, first})
    frames += lumo::Encode(AnswerTo(request, "answer"), lumo::Lengths::Client);
  kernel_.SendBytes(frames);
  EXPECT_EQ(client_->ExpectAnswer(third).Strings[0], "answer");
  EXPECT_EQ(client_->ExpectAnswer(first).Strings[0], "answer");
  kernel_.Close();
  other.ExpectError(second, 4008, 0);
}

TEST_F(LocalSocket, AnAnswerThatNobodyAskedForIsPassedOver) {
  agent_.LogLevel("3");
  Connect();
  const lumo::Message request = InFlight();
  lumo::Message stray = AnswerTo(request, "stray");
  stray.SetAstInd(999);
  kernel_.SendMessage(stray);
  ExpectAnswered(request, "right");
  EXPECT_EQ(
      agent_.CountLogged(2, "link", "The message were not send by the agent. Skip the message"), 1);
}

TEST_F(LocalSocket, AKernelThatDoesNotReadKeepsNobodyElseWaiting) {
  EchoNode node;
  agent_.Nodetab(kernel_.Line("K") + node.Line("N"));
  Connect();
  constexpr int kRequests = 60;
  std::vector<lumo::Message> requests;
  Client other(agent_);
  std::thread sender([&] {  // it is held up as soon as too much waits for the kernel
    for (int i = 0; i < kRequests; ++i)
      requests.push_back(client_->Send("K", std::string(6000, 'x')));
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(other.Ask("N", "text").Strings[0], "text");
  agent_.Ticks(3);
  for (int i = 0; i < kRequests; ++i) kernel_.Answer(kernel_.ExpectRequest(), std::to_string(i));
  sender.join();
  for (int i = 0; i < kRequests; ++i)
    EXPECT_EQ(client_->ExpectAnswer(requests[static_cast<std::size_t>(i)]).Strings[0],
              std::to_string(i));
}

TEST_F(LocalSocket, HundredsOfRequestsMayBeUnanswered) {
  Connect();
  constexpr int kRequests = 300;
  std::vector<lumo::Message> requests;
  for (int i = 0; i < kRequests; ++i) {
    requests.push_back(client_->Send("K"));
    ASSERT_TRUE(kernel_.ReadRequest());
  }
  for (int i = kRequests; i-- > 0;)
    kernel_.Answer(requests[static_cast<std::size_t>(i)], std::to_string(i));
  for (int i = kRequests; i-- > 0;)
    EXPECT_EQ(client_->ExpectAnswer(requests[static_cast<std::size_t>(i)]).Strings[0],
              std::to_string(i));
}

// The end of the connection

TEST_F(LocalSocket, AKernelThatClosesAnswersAllThatWaited) {
  agent_.Trace();
  Connect();
  const lumo::Message first = client_->Send("K"), second = client_->Send("K");
  ASSERT_TRUE(kernel_.ReadRequest() && kernel_.ReadRequest());
  kernel_.Close();
  client_->ExpectError(first, 4008, 0);
  client_->ExpectError(second, 4008, 0);
  client_->ExpectNothing();
  EXPECT_TRUE(
      agent_.Logged(15, "lsock", "'LSockReadyForRead' Leave Tavrin socket is down. Call:recv"));
  EXPECT_TRUE(agent_.LogContains("'DisconnectLink' Call from lsock:"));
  EXPECT_TRUE(agent_.LogContains("Link = K, TavrinErr = 4008, SysErr = 0"));
}

TEST_F(LocalSocket, AKernelThatClosesWithinAMessageCountsAsClosed) {
  Connect();
  const lumo::Message request = InFlight();
  kernel_.SendBytes(lumo::Encode(AnswerTo(request, "text"), lumo::Lengths::Client).substr(0, 50));
  agent_.Barrier();
  kernel_.Close();
  client_->ExpectError(request, 4008, 0);
}

TEST_F(LocalSocket, AReceiveThatFailsIsReportedWithItsError) {
  agent_.LogLevel("3");
  Connect();
  const lumo::Message request = client_->Send("K");
  agent_.Barrier();
  kernel_.Close();  // with a request unread: the agent sees an error, not the end
  client_->ExpectError(request, 4008, ECONNRESET);
  EXPECT_EQ(agent_.CountLogged(3, "lsock",
                               "SOCK.Receive message from local tavrin. Call:recv. Errno " +
                                   std::to_string(ECONNRESET)),
            1);
}

TEST_F(LocalSocket, ASendThatFailsAnswersAllThatWaitedWithItsError) {
  agent_.Trace();
  Connect();
  const lumo::Message first = InFlight();
  shutdown(kernel_.Socket(), SHUT_RD);
  const lumo::Message second = client_->Send("K");
  client_->ExpectError(first, 4007, EPIPE);
  client_->ExpectError(second, 4007, EPIPE);
  client_->ExpectNothing();
  EXPECT_TRUE(agent_.Logged(15, "lsock",
                            "Send to local tavrin. Call:send. errno " + std::to_string(EPIPE)));
  EXPECT_TRUE(agent_.Logged(15, "lsock", "'LSockSendToNetwork' Leave FAILED send"));
  EXPECT_TRUE(kernel_.ReadEnd());
}

TEST_F(LocalSocket, ALengthWordThatCannotBeTakesTheLinkDown) {
  Connect();
  for (const std::uint32_t length : {0u, 3u, 4u, 8193u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SCOPED_TRACE(length);
    ExpectBroken(WithLength(std::string(8, '\0'), length));
  }
}

TEST_F(LocalSocket, StringsThatLeaveTheMessageTakeTheLinkDown) {
  constexpr std::size_t kFirstCountAt = 52, kLastCountAt = 58;
  Connect();
  for (const std::size_t at : {kFirstCountAt, kLastCountAt}) {
    for (const std::uint16_t count : {std::uint16_t{8100}, std::uint16_t{0xFFFF}}) {
      std::string frame(108, '\0');
      Overwrite(&frame, at, count);
      ExpectBroken(WithLength(frame, 108));
    }
  }
}

TEST_F(LocalSocket, BytesThatDidNotComeCountAsZero) {
  Connect();
  const lumo::Message request = InFlight();
  // A short frame is a message without strings whose trailer names no request.
  kernel_.SendBytes(WithLength(std::string(20, '\0'), 20));
  client_->ExpectNothing();
  ExpectAnswered(request, "the link is still up");
}

TEST_F(LocalSocket, TheLinkComesBackWithTheNextRequest) {
  Connect();
  const int before = OpenDescriptors(agent_.Pid());
  for (int time = 0; time < 5; ++time) {
    kernel_.Close();
    agent_.Barrier();
    EXPECT_EQ(OpenDescriptors(agent_.Pid()), before - 1);
    ExpectFirstExchange(*client_, client_->Send("K"), kernel_, "again");
    EXPECT_EQ(OpenDescriptors(agent_.Pid()), before);
  }
}

TEST_F(LocalSocket, TheStopClosesTheConnection) {
  agent_.LogLevel("1");
  Connect();
  const lumo::Message request = InFlight();
  EXPECT_EQ(agent_.Stop(), 0);
  client_->ExpectError(request, 0, 0);
  EXPECT_TRUE(kernel_.ReadEnd());
  EXPECT_EQ(agent_.Log(), "lumo_tcp:Disconnect link  K\n");
}

TEST_F(LocalSocket, TheTimerLeavesTheLinkAlone) {
  Connect();
  const lumo::Message request = InFlight();
  agent_.Ticks(20);
  EXPECT_TRUE(kernel_.Silent(Milliseconds(0)));
  ExpectAnswered(request, "late");
}

// The death of a client

TEST_F(LocalSocket, TheKernelIsToldOfAClientsDeath) {
  Connect();
  LivingProcess application;
  Client client(agent_, application.Pid());
  client.Send("K");
  ASSERT_TRUE(kernel_.ReadRequest());
  agent_.Ticks(2);
  EXPECT_TRUE(kernel_.Silent(Milliseconds(0)));
  const std::int32_t pid = application.Pid();
  application.Kill();
  agent_.Ticks(2);
  const auto frame = kernel_.ReadFrame();
  EXPECT_EQ(frame, lumo::Encode(DeathMessage(pid, pid), lumo::Lengths::Client));
  EXPECT_EQ(frame.value_or("").size(), 136u);
  EXPECT_TRUE(kernel_.Silent(Milliseconds(0))) << "it is told once";
}

TEST_F(LocalSocket, ADeletedKernelGoesWithItsConnection) {
  Connect();
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("K"), 33);
  kernel_.Close();
  agent_.Barrier();
  EXPECT_EQ(manager.Names(), "OTHER");
  client_->ExpectError(client_->Send("K"), 4050, 0);
}

}  // namespace
}  // namespace test
