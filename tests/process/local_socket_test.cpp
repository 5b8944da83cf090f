// Nodes reached through the local kernel's UNIX-domain socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/process/manager.h"
#include "tests/process/usual_directory.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

// A listener at a path of the test's choice, for what LocalKernel does not do.
class Listener {
 public:
  explicit Listener(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
    EXPECT_EQ(listen(fd_, 16), 0);
  }
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
    ASSERT_TRUE(Kernel.Accept());
    const auto received = Kernel.ReadRequest();
    ASSERT_TRUE(received);
    ASSERT_TRUE(Kernel.Answer(*received, "up"));
    EXPECT_EQ(Application->ExpectAnswer(request).Strings[0], "up");
  }
  // The answer's bytes break the link, and the request is told.
  void ExpectBroken(const std::string& bytes, int sysErr) {
    const lumo::Message request = Application->Send("K");
    ASSERT_TRUE(Kernel.ReadRequest());
    ASSERT_TRUE(Kernel.SendBytes(bytes));
    Application->ExpectError(request, 4008, sysErr);
    EXPECT_TRUE(Kernel.ReadEnd());
  }

  Agent Subject;
  LocalKernel Kernel;
  std::optional<Client> Application;
};

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

TEST(LocalSocket, AnAddressThatIsNoNumberOrZeroIsRefused) {
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

TEST(LocalSocket, TheFirstWordOfTheAddressIsReadUpToItsFirstNonDigit) {
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

TEST(LocalSocket, ANegativeNumberNamesTheSocketToo) {
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

TEST(LocalSocket, ADirectoryNameOf227CharactersIsUsedAndOneOf228IsNot) {
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

TEST(LocalSocket, ADirectoryNameThatIsTooLongGivesWayToTheUsualOne) {
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

TEST(LocalSocket, TheDirectoryIsMadeAndOpenedToEverybody) {
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

TEST(LocalSocket, AConnectionThatCannotBeMadeIsAnsweredWithItsError) {
  SocketSetting setting;
  setting.Subject.Trace();
  ASSERT_TRUE(setting.Subject.Start());
  setting.Kernel.StopListening();
  Client client(setting.Subject);
  client.ExpectNothing();
  const int before = OpenDescriptors(setting.Subject.Pid());
  client.ExpectError(client.Send("K"), 4006, ENOENT);
  EXPECT_TRUE(setting.Subject.Logged(
      15, "lsock", "'LSockConnectLink' Leave FAILED connect to tavrin MBX=%d. Errno = %d"));
  {
    Listener listener(setting.Subject.SocketPath(setting.Kernel.Number()));
    listener.Close();  // the file stays, and nobody listens
  }
  client.ExpectError(client.Send("K"), 4006, ECONNREFUSED);
  EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), before);
}

TEST(LocalSocket, AGreetingOfAnySizeIsPassedOver) {
  for (const std::size_t size : {1u, 60u, 76u, 77u, 152u, 1000u}) {
    SocketSetting setting;
    ASSERT_TRUE(setting.Subject.Start());
    Client client(setting.Subject);
    const lumo::Message request = client.Send("K", "text");
    ASSERT_TRUE(setting.Kernel.Accept(std::string(size, 'g')));
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    setting.Kernel.Answer(*received, "answer");
    EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "answer") << size;
  }
}

TEST(LocalSocket, TheStepsOfTheConnectAreTraced) {
  SocketSetting setting;
  setting.Subject.Trace();
  ASSERT_TRUE(setting.Subject.Start());
  Client client(setting.Subject);
  client.Send("K");
  ASSERT_TRUE(setting.Kernel.Accept(std::string(100, 'g')));  // more than one piece of 76 bytes
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Subject.Barrier();
  const std::vector<std::string> lines = DriverLines(setting.Subject, {"SET_", "REGISTER_"});
  ASSERT_EQ(lines.size(), 6u);
  const std::string socket = lines[0].substr(lines[0].find(' '));
  EXPECT_EQ(lines,
            (std::vector<std::string>{"SET_NOBLOCK_MODE" + socket, "SET_NOBLOCK_MODE" + socket,
                                      "SET_BLOCK_MODE" + socket, "SET_SOCKET_BUFFERS" + socket,
                                      "REGISTER_SOCKET_FOR_READ_EVENT" + socket,
                                      "REGISTER_SOCKET_FOR_THE_LINK" + socket + ", K"}));
  EXPECT_TRUE(setting.Subject.Logged(15, "lsock", "'LSockConnectLink' Leave SUCCESS"));
  EXPECT_TRUE(setting.Subject.Logged(15, "lsock", "Before Send 108 byte to local tavrin"));
}

TEST(LocalSocket, TheGreetingIsWaitedForWhateverSignalsCome) {
  SocketSetting setting;
  ASSERT_TRUE(setting.Subject.Start());
  Client client(setting.Subject);
  client.Send("K");
  ASSERT_TRUE(setting.Kernel.Accept(""));
  for (int tick = 0; tick < 10; ++tick) {
    setting.Subject.Signal(SIGALRM);
    EXPECT_TRUE(setting.Kernel.Silent(Milliseconds(3)));
  }
  setting.Kernel.SendBytes("hello");
  EXPECT_TRUE(setting.Kernel.ReadRequest());
  EXPECT_EQ(setting.Subject.Stop(), 0);
}

TEST(LocalSocket, AKernelThatGoesBeforeItGreetsFailsTheConnection) {
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

TEST(LocalSocket, AKernelThatClosesAtOnceIsReadUntilAStopIsAskedFor) {
  SocketSetting setting;
  ASSERT_TRUE(setting.Subject.Start());
  Client client(setting.Subject);
  client.Send("K");
  ASSERT_TRUE(setting.Kernel.Accept(""));
  setting.Kernel.Close();
  EXPECT_FALSE(client.ReceiveFrame(kShortly)) << "the connect does not end";
  EXPECT_TRUE(setting.Subject.Running());
  EXPECT_EQ(setting.Subject.Stop(), 0);
}

TEST(LocalSocket, ASocketThatCannotBeMadeIsAnsweredWithItsError) {
  constexpr int kAllowed = 16;
  SocketSetting setting;
  setting.Subject.Limit(RLIMIT_NOFILE, kAllowed).LogLevel("2");
  ASSERT_TRUE(setting.Subject.Start());
  Client client(setting.Subject);
  client.ExpectNothing();
  std::vector<int> connections;
  while (OpenDescriptors(setting.Subject.Pid()) < kAllowed && connections.size() < kAllowed) {
    connections.push_back(ConnectRaw(setting.Subject.SocketPath()));
    setting.Subject.Barrier();
  }
  client.ExpectError(client.Send("K"), -1, EMFILE);
  EXPECT_EQ(setting.Subject.CountLogged(
                2, "lsock", "Call socket(PF_UNIX...) failed. errno = " + std::to_string(EMFILE)),
            1);
  for (const int connection : connections) close(connection);
}

TEST(LocalSocket, ADescriptorOf255OrMoreIsRefused) {
  SocketSetting setting;
  ASSERT_TRUE(setting.Subject.Start());
  Client client(setting.Subject);
  client.ExpectNothing();
  std::vector<int> connections;
  while (OpenDescriptors(setting.Subject.Pid()) < 256 && connections.size() < 256) {
    connections.push_back(ConnectRaw(setting.Subject.SocketPath()));
    if (connections.size() % 8 == 0 || connections.size() > 240) setting.Subject.Barrier();
  }
  const int before = OpenDescriptors(setting.Subject.Pid());
  client.ExpectError(client.Send("K"), 4052, 0);
  EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), before);
  for (const int connection : connections) close(connection);
  setting.Subject.Barrier();
  client.Send("K");
  // The refused attempt never came as far as the kernel.
  ASSERT_TRUE(setting.Kernel.Accept());
  EXPECT_TRUE(setting.Kernel.ReadRequest());
}

TEST(LocalSocket, WithConnectOnLoadTheKernelIsConnectedAtTheStartAndBecomesTheDefault) {
  SocketSetting setting;
  setting.Subject.Nodetab("A REZ\n" + setting.Kernel.Line("K"))
      .Options({"-NODAEMON", "-CONNECTONLOAD"})
      .LogLevel("1");
  setting.Subject.Spawn();
  ASSERT_TRUE(setting.Kernel.Accept());
  ASSERT_TRUE(setting.Subject.WaitUntilReady());
  EXPECT_EQ(setting.Subject.Log(), "lumo_tcp:Link K connected\n");
  Client client(setting.Subject);
  const lumo::Message request = client.Send("", "for the default");
  const auto received = setting.Kernel.ReadRequest();
  ASSERT_TRUE(received);
  setting.Kernel.Answer(*received, "from the kernel");
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "from the kernel");
}

// Messages

TEST(LocalSocket, ARequestGoesOutAsItCame) {
  SocketSetting setting;
  setting.Connect();
  lumo::Message request = FullMessage(*setting.Application, "k");
  for (const std::size_t size : {std::size_t{301}, std::size_t{7760}}) {
    request.Strings[3] = std::string(size, 'x');
    const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
    ASSERT_TRUE(setting.Application->SendBytes(frame));
    EXPECT_EQ(setting.Kernel.ReadFrame(), frame);
  }
}

TEST(LocalSocket, TheLargestRequestGoesOutAsItCame) {
  SocketSetting setting;
  setting.Connect();
  lumo::Message request = setting.Application->Request("K", std::string(8188 - 108, 'x'));
  const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
  ASSERT_EQ(frame.size(), 8188u);
  ASSERT_TRUE(setting.Application->SendBytes(frame));
  EXPECT_EQ(setting.Kernel.ReadFrame(), frame);
}

TEST(LocalSocket, AnAnswerComesBackWithTheTaskOfItsTrailerAndTheLengthOfItsStrings) {
  SocketSetting setting;
  setting.Subject.Trace();
  setting.Connect();
  lumo::Message answer = FullMessage(*setting.Application, "k");
  answer.SetTrailerTaskName(answer.TaskName);
  setting.Application->SendMessage(answer);
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  const std::string expected = lumo::Encode(answer, lumo::Lengths::Client);
  answer.TaskName = 4711;
  const std::string sent = lumo::Encode(answer, lumo::Lengths::Client) + "behind the trailer";
  const auto length = static_cast<std::uint32_t>(sent.size());
  setting.Kernel.SendBytes(WithLength(sent, length));
  EXPECT_EQ(setting.Application->ReceiveFrame(), expected);
  EXPECT_EQ(DriverLines(setting.Subject, {"recv form", "Local tavrin"}).back(),
            "recv form local tavrin return " + std::to_string(length - 4));
  EXPECT_TRUE(setting.Subject.Logged(15, "lsock", "recv form local tavrin return 4"));
  EXPECT_TRUE(setting.Subject.Logged(
      15, "lsock", "Local tavrin message len is " + std::to_string(length - 4) + " byte"));
}

TEST(LocalSocket, TheLargestAnswerComesThrough) {
  SocketSetting setting;
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  const lumo::Message answer = AnswerTo(request, std::string(8192 - 108, 'x'));
  setting.Kernel.SendMessage(answer);
  EXPECT_EQ(setting.Application->ReceiveFrame(), lumo::Encode(answer, lumo::Lengths::Client));
}

TEST(LocalSocket, AnAnswerThatComesInPiecesKeepsNobodyWaiting) {
  SocketSetting setting;
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  const lumo::Message answer = AnswerTo(request, "pieces");
  const std::string frame = lumo::Encode(answer, lumo::Lengths::Client);
  for (const char byte : frame.substr(0, frame.size() - 1)) {
    setting.Kernel.SendBytes({&byte, 1});
    setting.Subject.Barrier();
  }
  setting.Application->ExpectNothing();
  setting.Kernel.SendBytes(frame.substr(frame.size() - 1));
  EXPECT_EQ(setting.Application->ReceiveFrame(), frame);
}

TEST(LocalSocket, AnswersThatComeTogetherReachTheirRequestsInAnyOrder) {
  SocketSetting setting;
  setting.Connect();
  Client other(setting.Subject);
  const lumo::Message first = setting.Application->Send("K"), second = other.Send("K"),
                      third = setting.Application->Send("K");
  for (int request = 0; request < 3; ++request) ASSERT_TRUE(setting.Kernel.ReadRequest());
  std::string frames;
  for (const lumo::Message& request : {third, first})
    frames += lumo::Encode(AnswerTo(request, "answer"), lumo::Lengths::Client);
  setting.Kernel.SendBytes(frames);
  EXPECT_EQ(setting.Application->ExpectAnswer(third).Strings[0], "answer");
  EXPECT_EQ(setting.Application->ExpectAnswer(first).Strings[0], "answer");
  setting.Kernel.Close();
  other.ExpectError(second, 4008, 0);
}

TEST(LocalSocket, AnAnswerThatNobodyAskedForIsPassedOver) {
  SocketSetting setting;
  setting.Subject.LogLevel("3");
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  lumo::Message stray = AnswerTo(request, "stray");
  stray.SetAstInd(999);
  setting.Kernel.SendMessage(stray);
  setting.Kernel.SendMessage(AnswerTo(request, "right"));
  EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "right");
  EXPECT_EQ(setting.Subject.CountLogged(2, "link",
                                        "The message were not send by the agent. Skip the message"),
            1);
}

TEST(LocalSocket, AKernelThatDoesNotReadKeepsNobodyElseWaiting) {
  EchoNode node;
  SocketSetting setting;
  setting.Subject.Nodetab(setting.Kernel.Line("K") + node.Line("N"));
  setting.Connect();
  constexpr int kRequests = 60;
  std::vector<lumo::Message> requests;
  Client other(setting.Subject);
  std::thread sender([&] {  // it is held up as soon as too much waits for the kernel
    for (int i = 0; i < kRequests; ++i)
      requests.push_back(setting.Application->Send("K", std::string(6000, 'x')));
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(other.Ask("N", "text").Strings[0], "text");
  setting.Subject.Ticks(3);
  for (int i = 0; i < kRequests; ++i) {
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    setting.Kernel.Answer(*received, std::to_string(i));
  }
  sender.join();
  for (int i = 0; i < kRequests; ++i)
    EXPECT_EQ(setting.Application->ExpectAnswer(requests[static_cast<std::size_t>(i)]).Strings[0],
              std::to_string(i));
}

TEST(LocalSocket, HundredsOfRequestsMayBeUnanswered) {
  SocketSetting setting;
  setting.Connect();
  constexpr int kRequests = 300;
  std::vector<lumo::Message> requests;
  for (int i = 0; i < kRequests; ++i) {
    requests.push_back(setting.Application->Send("K"));
    ASSERT_TRUE(setting.Kernel.ReadRequest());
  }
  for (int i = kRequests; i-- > 0;)
    setting.Kernel.Answer(requests[static_cast<std::size_t>(i)], std::to_string(i));
  for (int i = kRequests; i-- > 0;)
    EXPECT_EQ(setting.Application->ExpectAnswer(requests[static_cast<std::size_t>(i)]).Strings[0],
              std::to_string(i));
}

// The end of the connection

TEST(LocalSocket, AKernelThatClosesAnswersAllThatWaited) {
  SocketSetting setting;
  setting.Subject.Trace();
  setting.Connect();
  const lumo::Message first = setting.Application->Send("K"),
                      second = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest() && setting.Kernel.ReadRequest());
  setting.Kernel.Close();
  setting.Application->ExpectError(first, 4008, 0);
  setting.Application->ExpectError(second, 4008, 0);
  setting.Application->ExpectNothing();
  EXPECT_TRUE(setting.Subject.Logged(15, "lsock",
                                     "'LSockReadyForRead' Leave Tavrin socket is down. Call:recv"));
  EXPECT_TRUE(setting.Subject.LogContains("'DisconnectLink' Call from lsock:"));
  EXPECT_TRUE(setting.Subject.LogContains("Link = K, TavrinErr = 4008, SysErr = 0"));
}

TEST(LocalSocket, AKernelThatClosesWithinAMessageCountsAsClosed) {
  SocketSetting setting;
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Kernel.SendBytes(
      lumo::Encode(AnswerTo(request, "text"), lumo::Lengths::Client).substr(0, 50));
  setting.Subject.Barrier();
  setting.Kernel.Close();
  setting.Application->ExpectError(request, 4008, 0);
}

TEST(LocalSocket, AReceiveThatFailsIsReportedWithItsError) {
  SocketSetting setting;
  setting.Subject.LogLevel("3");
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  setting.Subject.Barrier();
  setting.Kernel.Close();  // with a request unread: the agent sees an error, not the end
  setting.Application->ExpectError(request, 4008, ECONNRESET);
  EXPECT_EQ(
      setting.Subject.CountLogged(
          3, "lsock",
          "SOCK.Receive message from local tavrin. Call:recv. Errno " + std::to_string(ECONNRESET)),
      1);
}

TEST(LocalSocket, ASendThatFailsAnswersAllThatWaitedWithItsError) {
  SocketSetting setting;
  setting.Subject.Trace();
  setting.Connect();
  const lumo::Message first = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  shutdown(setting.Kernel.Socket(), SHUT_RD);
  const lumo::Message second = setting.Application->Send("K");
  setting.Application->ExpectError(first, 4007, EPIPE);
  setting.Application->ExpectError(second, 4007, EPIPE);
  setting.Application->ExpectNothing();
  EXPECT_TRUE(setting.Subject.Logged(
      15, "lsock", "Send to local tavrin. Call:send. errno " + std::to_string(EPIPE)));
  EXPECT_TRUE(setting.Subject.Logged(15, "lsock", "'LSockSendToNetwork' Leave FAILED send"));
  EXPECT_TRUE(setting.Kernel.ReadEnd());
}

TEST(LocalSocket, ALengthWordThatCannotBeTakesTheLinkDown) {
  for (const std::uint32_t length : {0u, 3u, 4u, 8193u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SocketSetting setting;
    setting.Connect();
    setting.ExpectBroken(WithLength(std::string(8, '\0'), length), 0);
    const lumo::Message request = setting.Application->Send("K");
    ASSERT_TRUE(setting.Kernel.Accept()) << "the next request connects again";
    EXPECT_TRUE(setting.Kernel.ReadRequest()) << length;
  }
}

TEST(LocalSocket, StringsThatLeaveTheMessageTakeTheLinkDown) {
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

TEST(LocalSocket, BytesThatDidNotComeCountAsZero) {
  SocketSetting setting;
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  // A short frame is a message without strings whose trailer names no request.
  setting.Kernel.SendBytes(WithLength(std::string(20, '\0'), 20));
  setting.Application->ExpectNothing();
  setting.Kernel.Answer(request, "the link is still up");
  EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "the link is still up");
}

TEST(LocalSocket, TheLinkComesBackWithTheNextRequest) {
  SocketSetting setting;
  setting.Connect();
  const int before = OpenDescriptors(setting.Subject.Pid());
  for (int time = 0; time < 5; ++time) {
    setting.Kernel.Close();
    setting.Subject.Barrier();
    EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), before - 1);
    const lumo::Message request = setting.Application->Send("K");
    ASSERT_TRUE(setting.Kernel.Accept());
    const auto received = setting.Kernel.ReadRequest();
    ASSERT_TRUE(received);
    setting.Kernel.Answer(*received, "again");
    EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "again");
    EXPECT_EQ(OpenDescriptors(setting.Subject.Pid()), before);
  }
}

TEST(LocalSocket, TheStopClosesTheConnection) {
  SocketSetting setting;
  setting.Subject.LogLevel("1");
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  EXPECT_EQ(setting.Subject.Stop(), 0);
  setting.Application->ExpectError(request, 0, 0);
  EXPECT_TRUE(setting.Kernel.ReadEnd());
  EXPECT_EQ(setting.Subject.Log(), "lumo_tcp:Disconnect link  K\n");
}

TEST(LocalSocket, TheTimerLeavesTheLinkAlone) {
  SocketSetting setting;
  setting.Connect();
  const lumo::Message request = setting.Application->Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Subject.Ticks(20);
  EXPECT_TRUE(setting.Kernel.Silent(Milliseconds(0)));
  setting.Kernel.Answer(request, "late");
  EXPECT_EQ(setting.Application->ExpectAnswer(request).Strings[0], "late");
}

// The death of a client

TEST(LocalSocket, TheKernelIsToldOfAClientsDeath) {
  SocketSetting setting;
  setting.Connect();
  LivingProcess application;
  Client client(setting.Subject, application.Pid());
  client.Send("K");
  ASSERT_TRUE(setting.Kernel.ReadRequest());
  setting.Subject.Ticks(2);
  EXPECT_TRUE(setting.Kernel.Silent(Milliseconds(0)));
  const std::int32_t pid = application.Pid();
  application.Kill();
  setting.Subject.Ticks(2);
  lumo::Message death;
  death.TaskName = pid;
  death.Command = "CKIL";
  death.Strings[0] = std::string(28, '\0');
  std::memcpy(death.Strings[0].data(), &pid, sizeof pid);
  death.SetTrailerTaskName(pid);
  death.SetAstInd(0xFFFF);
  const auto frame = setting.Kernel.ReadFrame();
  EXPECT_EQ(frame, lumo::Encode(death, lumo::Lengths::Client));
  EXPECT_EQ(frame.value_or("").size(), 136u);
  EXPECT_TRUE(setting.Kernel.Silent(Milliseconds(0))) << "it is told once";
}

TEST(LocalSocket, ADeletedKernelGoesWithItsConnection) {
  SocketSetting setting;
  setting.Connect();
  Manager manager(setting.Subject);
  EXPECT_EQ(manager.DeleteNode("K"), 33);
  setting.Kernel.Close();
  setting.Subject.Barrier();
  EXPECT_EQ(manager.Names(), "OTHER");
  setting.Application->ExpectError(setting.Application->Send("K"), 4050, 0);
  EXPECT_EQ(setting.Subject.Stop(), 0);
}

}  // namespace
}  // namespace test
