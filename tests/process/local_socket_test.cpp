// Nodes reached through the local kernel's UNIX-domain socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
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
struct SocketSetting {
  SocketSetting() : Kernel(Subject) { Subject.Nodetab(Kernel.Line("K") + "OTHER REZ\n"); }
  // Brings the link up with a request, which the kernel answers.
  void Connect() {
    ASSERT_TRUE(Subject.Start());
    Application.emplace(Subject);
    const lumo::Message request = Application->Send("K");
    const auto received = Kernel.ExpectFirstRequest();
    ASSERT_TRUE(Kernel.Answer(received, "up"));
    EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "up");
  }
  // A request that the kernel has read.
  lumo::Message InFlight() {
    const lumo::Message request = Application->Send("K");
    Kernel.ExpectRequest();
    return request;
  }
  // The answer's bytes break the link, and the request is told.
  void ExpectBroken(const std::string& bytes, int sysErr) {
    const lumo::Message request = InFlight();
    ASSERT_TRUE(Kernel.SendBytes(bytes));
    Application->ExpectError(request, 4008, sysErr);
    EXPECT_TRUE(Kernel.ReadEnd());
  }

  Agent Subject;
  LocalKernel Kernel;
  std::optional<Client> Application;
};

class LocalSocket : public testing::Test, protected SocketSetting {};

std::string WithLength(std::string frame, std::uint32_t length) {
  std::memcpy(frame.data(), &length, sizeof length);
  return frame;
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
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  Manager manager(agent);
  int refused = 0;
  for (const char* address : {"0", "nonsense", "", "  ", "0x10", "-0", "x20562"}) {
    EXPECT_EQ(manager.AddNode(std::string("K LOCALS ") + address), 1) << address;
    EXPECT_EQ(agent.CountLogged(15, "lsock", "'LSockInitLink' Leave FAILED incorrect address"),
              ++refused);
  }
  EXPECT_EQ(agent.CountLogged(0, "", "Initialization of link 'K' for protocol 'LOCALS' failed"),
            refused);
}

TEST_F(LocalSocket, TheFirstWordOfTheAddressIsReadUpToItsFirstNonDigit) {
  for (const std::string tail : {"", "   further words", "\tfurther", "abc", "  "}) {
    Agent agent;
    LocalKernel kernel(agent);
    agent.Nodetab("K local  \t " + std::to_string(kernel.Number()) + tail + "\n");
    ASSERT_TRUE(agent.Start());
    Client client(agent);
    client.Send("K");
    EXPECT_TRUE(kernel.Accept()) << tail;
    EXPECT_TRUE(kernel.ReadRequest());
  }
}

TEST_F(LocalSocket, ANegativeNumberNamesTheSocketToo) {
  Agent agent;
  const Listener listener(agent.SocketPath(-5));
  agent.Nodetab("K LOCALS -5\n");
  ASSERT_TRUE(agent.Start());
  Client client(agent);
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
  EXPECT_TRUE(kernel.Accept());
  EXPECT_TRUE(kernel.ReadRequest());
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
  Subject.Trace();
  ASSERT_TRUE(Subject.Start());
  Kernel.StopListening();
  Client client(Subject);
  client.ExpectNothing();
  const int before = OpenDescriptors(Subject.Pid());
  client.ExpectError(client.Send("K"), 4006, ENOENT);
  EXPECT_TRUE(Subject.Logged(
      15, "lsock", "'LSockConnectLink' Leave FAILED connect to tavrin MBX=%d. Errno = %d"));
  {
    Listener listener(Subject.SocketPath(Kernel.Number()));
    listener.Close();  // the file stays, and nobody listens
  }
  client.ExpectError(client.Send("K"), 4006, ECONNREFUSED);
  EXPECT_EQ(OpenDescriptors(Subject.Pid()), before);
}

TEST_F(LocalSocket, AGreetingOfAnySizeIsPassedOver) {
  for (const std::size_t size : {1u, 60u, 76u, 77u, 152u, 1000u}) {
    SocketSetting setting;
    ASSERT_TRUE(setting.Subject.Start());
    Client client(setting.Subject);
    const lumo::Message request = client.Send("K", "text");
    ASSERT_TRUE(setting.Kernel.Accept(std::string(size, 'g')));
    const auto received = setting.Kernel.ExpectRequest();
    setting.Kernel.Answer(received, "answer");
    EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "answer") << size;
  }
}

TEST_F(LocalSocket, TheStepsOfTheConnectAreTraced) {
  Subject.Trace();
  ASSERT_TRUE(Subject.Start());
  Client client(Subject);
  client.Send("K");
  ASSERT_TRUE(Kernel.Accept(std::string(100, 'g')));  // more than one piece of 76 bytes
  ASSERT_TRUE(Kernel.ReadRequest());
  Subject.Barrier();
  const std::vector<std::string> lines = DriverLines(Subject, {"SET_", "REGISTER_"});
  ASSERT_EQ(lines.size(), 6u);
  const std::string socket = lines[0].substr(lines[0].find(' '));
  EXPECT_EQ(lines,
            (std::vector<std::string>{"SET_NOBLOCK_MODE" + socket, "SET_NOBLOCK_MODE" + socket,
                                      "SET_BLOCK_MODE" + socket, "SET_SOCKET_BUFFERS" + socket,
                                      "REGISTER_SOCKET_FOR_READ_EVENT" + socket,
                                      "REGISTER_SOCKET_FOR_THE_LINK" + socket + ", K"}));
  EXPECT_TRUE(Subject.Logged(15, "lsock", "'LSockConnectLink' Leave SUCCESS"));
  EXPECT_TRUE(Subject.Logged(15, "lsock", "Before Send 108 byte to local tavrin"));
}

TEST_F(LocalSocket, TheGreetingIsWaitedForWhateverSignalsCome) {
  ASSERT_TRUE(Subject.Start());
  Client client(Subject);
  client.Send("K");
  ASSERT_TRUE(Kernel.Accept(""));
  for (int tick = 0; tick < 10; ++tick) {
    Subject.Signal(SIGALRM);
    EXPECT_TRUE(Kernel.Silent(Milliseconds(3)));
  }
  Kernel.SendBytes("hello");
  EXPECT_TRUE(Kernel.ReadRequest());
  EXPECT_EQ(Subject.Stop(), 0);
}

TEST_F(LocalSocket, AKernelThatGoesBeforeItGreetsFailsTheConnection) {
  Agent agent;
  Listener listener(agent.SocketPath(77));
  agent.Nodetab("K LOCALS 77\n").Trace();
  ASSERT_TRUE(agent.Start());
  Client client(agent);
  client.ExpectNothing();
  const int before = OpenDescriptors(agent.Pid());
  const lumo::Message request = client.Send("K");
  ASSERT_TRUE(listener.Connecting());
  listener.Close();
  client.ExpectError(request, 4006, ECONNRESET);
  EXPECT_TRUE(agent.Logged(15, "lsock",
                           "Receive first packet failed. errno " + std::to_string(ECONNRESET)));
  EXPECT_EQ(OpenDescriptors(agent.Pid()), before + 1) << "the socket is left as it is";
}

TEST_F(LocalSocket, AKernelThatClosesAtOnceIsReadUntilAStopIsAskedFor) {
  ASSERT_TRUE(Subject.Start());
  Client client(Subject);
  client.Send("K");
  ASSERT_TRUE(Kernel.Accept(""));
  Kernel.Close();
  EXPECT_FALSE(client.ReceiveFrame(kShortly)) << "the connect does not end";
  EXPECT_TRUE(Subject.Running());
  EXPECT_EQ(Subject.Stop(), 0);
}

TEST_F(LocalSocket, ASocketThatCannotBeMadeIsAnsweredWithItsError) {
  constexpr int kAllowed = 16;
  Subject.Limit(RLIMIT_NOFILE, kAllowed).LogLevel("2");
  ASSERT_TRUE(Subject.Start());
  Client client(Subject);
  client.ExpectNothing();
  Crowd crowd(&Subject, kAllowed);
  client.ExpectError(client.Send("K"), -1, EMFILE);
  EXPECT_EQ(Subject.CountLogged(
                2, "lsock", "Call socket(PF_UNIX...) failed. errno = " + std::to_string(EMFILE)),
            1);
}

TEST_F(LocalSocket, ADescriptorOf255OrMoreIsRefused) {
  ASSERT_TRUE(Subject.Start());
  Client client(Subject);
  client.ExpectNothing();
  Crowd crowd(&Subject, 256);
  const int before = OpenDescriptors(Subject.Pid());
  client.ExpectError(client.Send("K"), 4052, 0);
  EXPECT_EQ(OpenDescriptors(Subject.Pid()), before);
  crowd.Leave();
  Subject.Barrier();
  client.Send("K");
  // The refused attempt never came as far as the kernel.
  ASSERT_TRUE(Kernel.Accept());
  EXPECT_TRUE(Kernel.ReadRequest());
}

TEST_F(LocalSocket, WithConnectOnLoadTheKernelIsConnectedAtTheStartAndBecomesTheDefault) {
  Subject.Nodetab("A REZ\n" + Kernel.Line("K"))
      .Options({"-NODAEMON", "-CONNECTONLOAD"})
      .LogLevel("1");
  Subject.Spawn();
  ASSERT_TRUE(Kernel.Accept());
  ASSERT_TRUE(Subject.WaitUntilReady());
  EXPECT_EQ(Subject.Log(), "lumo_tcp:Link K connected\n");
  Client client(Subject);
  ExpectExchange(client, client.Send("", "for the default"), Kernel, "from the kernel");
}

// Messages

TEST_F(LocalSocket, ARequestGoesOutAsItCame) {
  Connect();
  lumo::Message request = FullMessage(*Application, "k");
  for (const std::size_t size : {std::size_t{301}, std::size_t{7760}}) {
    request.Strings[3] = std::string(size, 'x');
    const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
    ASSERT_TRUE(Application->SendBytes(frame));
    EXPECT_EQ(Kernel.ReadFrame(), frame);
  }
}

TEST_F(LocalSocket, TheLargestRequestGoesOutAsItCame) {
  Connect();
  lumo::Message request = Application->Request("K", std::string(8188 - 108, 'x'));
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  ASSERT_EQ(frame.size(), 8188u);
  ASSERT_TRUE(Application->SendBytes(frame));
  EXPECT_EQ(Kernel.ReadFrame(), frame);
}

TEST_F(LocalSocket, AnAnswerComesBackWithTheTaskOfItsTrailerAndTheLengthOfItsStrings) {
  Subject.Trace();
  Connect();
  lumo::Message answer = FullMessage(*Application, "k");
  answer.SetTrailerTaskName(answer.TaskName);
  Application->SendMessage(answer);
  ASSERT_TRUE(Kernel.ReadRequest());
  const std::string expected = lumo::Encode(answer, lumo::Lengths::Client);
  answer.TaskName = 4711;
  const std::string sent = lumo::Encode(answer, lumo::Lengths::Client) + "behind the trailer";
  const auto length = static_cast<std::uint32_t>(sent.size());
  Kernel.SendBytes(WithLength(sent, length));
  EXPECT_EQ(Application->ReceiveFrame(), expected);
  EXPECT_EQ(DriverLines(Subject, {"recv form", "Local tavrin"}).back(),
            "recv form local tavrin return " + std::to_string(length - 4));
  EXPECT_TRUE(Subject.Logged(15, "lsock", "recv form local tavrin return 4"));
  EXPECT_TRUE(Subject.Logged(
      15, "lsock", "Local tavrin message len is " + std::to_string(length - 4) + " byte"));
}

TEST_F(LocalSocket, TheLargestAnswerComesThrough) {
  Connect();
  const lumo::Message request = InFlight();
  const lumo::Message answer = AnswerTo(request, std::string(8192 - 108, 'x'));
  Kernel.SendMessage(answer);
  EXPECT_EQ(Application->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST_F(LocalSocket, AnAnswerThatComesInPiecesKeepsNobodyWaiting) {
  Connect();
  const lumo::Message request = InFlight();
  const lumo::Message answer = AnswerTo(request, "pieces");
  const std::string frame = lumo::Encode(answer, lumo::Lengths::Client);
  for (const char byte : frame.substr(0, frame.size() - 1)) {
    Kernel.SendBytes({&byte, 1});
    Subject.Barrier();
  }
  Application->ExpectNothing();
  Kernel.SendBytes(frame.substr(frame.size() - 1));
  EXPECT_EQ(Application->ReceiveFrame(), frame);
}

TEST_F(LocalSocket, AnswersThatComeTogetherReachTheirRequestsInAnyOrder) {
  Connect();
  Client other(Subject);
  const lumo::Message first = Application->Send("K"), second = other.Send("K"),
                      third = Application->Send("K");
  for (int request = 0; request < 3; ++request) ASSERT_TRUE(Kernel.ReadRequest());
  std::string frames;
  for (const lumo::Message& request : {third, first})
    frames += lumo::Encode(AnswerTo(request, "answer"), lumo::Lengths::Client);
  Kernel.SendBytes(frames);
  EXPECT_EQ(Application->ExpectAnswer(third).Strings[0], "answer");
  EXPECT_EQ(Application->ExpectAnswer(first).Strings[0], "answer");
  Kernel.Close();
  other.ExpectError(second, 4008, 0);
}

TEST_F(LocalSocket, AnAnswerThatNobodyAskedForIsPassedOver) {
  Subject.LogLevel("3");
  Connect();
  const lumo::Message request = InFlight();
  lumo::Message stray = AnswerTo(request, "stray");
  stray.SetAstInd(999);
  Kernel.SendMessage(stray);
  Kernel.SendMessage(AnswerTo(request, "right"));
  EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "right");
  EXPECT_EQ(
      Subject.CountLogged(2, "link", "The message were not send by the agent. Skip the message"),
      1);
}

TEST_F(LocalSocket, AKernelThatDoesNotReadKeepsNobodyElseWaiting) {
  EchoNode node;
  Subject.Nodetab(Kernel.Line("K") + node.Line("N"));
  Connect();
  constexpr int kRequests = 60;
  std::vector<lumo::Message> requests;
  Client other(Subject);
  std::thread sender([&] {  // it is held up as soon as too much waits for the kernel
    for (int i = 0; i < kRequests; ++i)
      requests.push_back(Application->Send("K", std::string(6000, 'x')));
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(other.Ask("N", "text").Strings[0], "text");
  Subject.Ticks(3);
  for (int i = 0; i < kRequests; ++i) {
    const auto received = Kernel.ExpectRequest();
    Kernel.Answer(received, std::to_string(i));
  }
  sender.join();
  for (int i = 0; i < kRequests; ++i)
    EXPECT_EQ(Application->ExpectAnswer(requests[static_cast<std::size_t>(i)]).Strings[0],
              std::to_string(i));
}

TEST_F(LocalSocket, HundredsOfRequestsMayBeUnanswered) {
  Connect();
  constexpr int kRequests = 300;
  std::vector<lumo::Message> requests;
  for (int i = 0; i < kRequests; ++i) {
    requests.push_back(Application->Send("K"));
    ASSERT_TRUE(Kernel.ReadRequest());
  }
  for (int i = kRequests; i-- > 0;)
    Kernel.Answer(requests[static_cast<std::size_t>(i)], std::to_string(i));
  for (int i = kRequests; i-- > 0;)
    EXPECT_EQ(Application->ExpectAnswer(requests[static_cast<std::size_t>(i)]).Strings[0],
              std::to_string(i));
}

// The end of the connection

TEST_F(LocalSocket, AKernelThatClosesAnswersAllThatWaited) {
  Subject.Trace();
  Connect();
  const lumo::Message first = Application->Send("K"), second = Application->Send("K");
  ASSERT_TRUE(Kernel.ReadRequest() && Kernel.ReadRequest());
  Kernel.Close();
  Application->ExpectError(first, 4008, 0);
  Application->ExpectError(second, 4008, 0);
  Application->ExpectNothing();
  EXPECT_TRUE(
      Subject.Logged(15, "lsock", "'LSockReadyForRead' Leave Tavrin socket is down. Call:recv"));
  EXPECT_TRUE(Subject.LogContains("'DisconnectLink' Call from lsock:"));
  EXPECT_TRUE(Subject.LogContains("Link = K, TavrinErr = 4008, SysErr = 0"));
}

TEST_F(LocalSocket, AKernelThatClosesWithinAMessageCountsAsClosed) {
  Connect();
  const lumo::Message request = InFlight();
  Kernel.SendBytes(lumo::Encode(AnswerTo(request, "text"), lumo::Lengths::Client).substr(0, 50));
  Subject.Barrier();
  Kernel.Close();
  Application->ExpectError(request, 4008, 0);
}

TEST_F(LocalSocket, AReceiveThatFailsIsReportedWithItsError) {
  Subject.LogLevel("3");
  Connect();
  const lumo::Message request = Application->Send("K");
  Subject.Barrier();
  Kernel.Close();  // with a request unread: the agent sees an error, not the end
  Application->ExpectError(request, 4008, ECONNRESET);
  EXPECT_EQ(Subject.CountLogged(3, "lsock",
                                "SOCK.Receive message from local tavrin. Call:recv. Errno " +
                                    std::to_string(ECONNRESET)),
            1);
}

TEST_F(LocalSocket, ASendThatFailsAnswersAllThatWaitedWithItsError) {
  Subject.Trace();
  Connect();
  const lumo::Message first = InFlight();
  shutdown(Kernel.Socket(), SHUT_RD);
  const lumo::Message second = Application->Send("K");
  Application->ExpectError(first, 4007, EPIPE);
  Application->ExpectError(second, 4007, EPIPE);
  Application->ExpectNothing();
  EXPECT_TRUE(Subject.Logged(15, "lsock",
                             "Send to local tavrin. Call:send. errno " + std::to_string(EPIPE)));
  EXPECT_TRUE(Subject.Logged(15, "lsock", "'LSockSendToNetwork' Leave FAILED send"));
  EXPECT_TRUE(Kernel.ReadEnd());
}

TEST_F(LocalSocket, ALengthWordThatCannotBeTakesTheLinkDown) {
  for (const std::uint32_t length : {0u, 3u, 4u, 8193u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SocketSetting setting;
    setting.Connect();
    setting.ExpectBroken(WithLength(std::string(8, '\0'), length), 0);
    const lumo::Message request = setting.Application->Send("K");
    ASSERT_TRUE(setting.Kernel.Accept()) << "the next request connects again";
    EXPECT_TRUE(setting.Kernel.ReadRequest()) << length;
  }
}

TEST_F(LocalSocket, StringsThatLeaveTheMessageTakeTheLinkDown) {
  constexpr std::size_t kFirstCountAt = 52, kLastCountAt = 58;
  for (const std::size_t at : {kFirstCountAt, kLastCountAt}) {
    for (const std::uint16_t count : {std::uint16_t{8100}, std::uint16_t{0xFFFF}}) {
      SocketSetting setting;
      setting.Connect();
      std::string frame(108, '\0');
      std::memcpy(frame.data() + at, &count, sizeof count);
      setting.ExpectBroken(WithLength(frame, 108), 0);
    }
  }
}

TEST_F(LocalSocket, BytesThatDidNotComeCountAsZero) {
  Connect();
  const lumo::Message request = InFlight();
  // A short frame is a message without strings whose trailer names no request.
  Kernel.SendBytes(WithLength(std::string(20, '\0'), 20));
  Application->ExpectNothing();
  Kernel.Answer(request, "the link is still up");
  EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "the link is still up");
}

TEST_F(LocalSocket, TheLinkComesBackWithTheNextRequest) {
  Connect();
  const int before = OpenDescriptors(Subject.Pid());
  for (int time = 0; time < 5; ++time) {
    Kernel.Close();
    Subject.Barrier();
    EXPECT_EQ(OpenDescriptors(Subject.Pid()), before - 1);
    const lumo::Message request = Application->Send("K");
    const auto received = Kernel.ExpectFirstRequest();
    Kernel.Answer(received, "again");
    EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "again");
    EXPECT_EQ(OpenDescriptors(Subject.Pid()), before);
  }
}

TEST_F(LocalSocket, TheStopClosesTheConnection) {
  Subject.LogLevel("1");
  Connect();
  const lumo::Message request = InFlight();
  EXPECT_EQ(Subject.Stop(), 0);
  Application->ExpectError(request, 0, 0);
  EXPECT_TRUE(Kernel.ReadEnd());
  EXPECT_EQ(Subject.Log(), "lumo_tcp:Disconnect link  K\n");
}

TEST_F(LocalSocket, TheTimerLeavesTheLinkAlone) {
  Connect();
  const lumo::Message request = InFlight();
  Subject.Ticks(20);
  EXPECT_TRUE(Kernel.Silent(Milliseconds(0)));
  Kernel.Answer(request, "late");
  EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "late");
}

// The death of a client

TEST_F(LocalSocket, TheKernelIsToldOfAClientsDeath) {
  Connect();
  LivingProcess application;
  Client client(Subject, application.Pid());
  client.Send("K");
  ASSERT_TRUE(Kernel.ReadRequest());
  Subject.Ticks(2);
  EXPECT_TRUE(Kernel.Silent(Milliseconds(0)));
  const std::int32_t pid = application.Pid();
  application.Kill();
  Subject.Ticks(2);
  const auto frame = Kernel.ReadFrame();
  EXPECT_EQ(frame, lumo::Encode(DeathMessage(pid, pid), lumo::Lengths::Client));
  EXPECT_EQ(frame.value_or("").size(), 136u);
  EXPECT_TRUE(Kernel.Silent(Milliseconds(0))) << "it is told once";
}

TEST_F(LocalSocket, ADeletedKernelGoesWithItsConnection) {
  Connect();
  Manager manager(Subject);
  EXPECT_EQ(manager.DeleteNode("K"), 33);
  Kernel.Close();
  Subject.Barrier();
  EXPECT_EQ(manager.Names(), "OTHER");
  Application->ExpectError(Application->Send("K"), 4050, 0);
  EXPECT_EQ(Subject.Stop(), 0);
}

}  // namespace
}  // namespace test
