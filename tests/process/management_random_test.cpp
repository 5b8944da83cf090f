// Random management commands, mixed with requests, breaking links and dying clients: the agent
// serves on, and every request is answered exactly once.
//
// LUMO_RANDOM_COMMANDS sets the number of commands (10000 for the full run), LUMO_RANDOM_SEED
// repeats a run as far as the timing of the processes allows.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/process/manager.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

constexpr int kUsualCommands = 5000;
constexpr std::size_t kClients = 6, kOpenRequests = 100;
constexpr std::size_t kControlSize = 12;

int NumberOf(const char* variable, int otherwise) {
  const char* const text = std::getenv(variable);
  return text ? std::atoi(text) : otherwise;
}

class Dice {
 public:
  explicit Dice(unsigned seed) : random_(seed) {}
  int Below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random_); }
  bool InHundred(int chances) { return Below(100) < chances; }
  template <class T>
  const T& OneOf(const std::vector<T>& all) {
    return all[static_cast<std::size_t>(Below(static_cast<int>(all.size())))];
  }

 private:
  std::mt19937 random_;
};

bool IsQuestion(const std::optional<lumo::Message>& message) {
  return message && message->Command != "CKIL";
}

// Servers and kernels on stream sockets, all on one thread. Most requests are answered with their
// text; some are not, and some break the connection.
class Servers {
 public:
  Servers(std::vector<int> listeners, int localListener, unsigned seed)
      : listeners_(std::move(listeners)), localListener_(localListener), dice_(seed) {
    listeners_.push_back(localListener_);
    if (pipe2(wake_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    thread_ = std::thread([this] { Serve(); });
  }
  ~Servers() {
    stop_ = true;
    Wake();
    thread_.join();
    for (const int fd : wake_) close(fd);
    for (const int fd : listeners_) close(fd);
  }
  Servers(const Servers&) = delete;
  Servers& operator=(const Servers&) = delete;

  void BreakSome() {
    breaking_ = kSome;
    Wake();
  }
  // From now on all requests are answered; the connections of before are closed.
  void BreakAll() {
    faithful_ = true;
    breaking_ = kAll;
    Wake();
  }

 private:
  enum { kNone, kSome, kAll };
  struct Connection {
    Peer Far;
    bool MayClose;  // a kernel that closes before the agent has read its greeting stops the agent
  };

  void Wake() {
    const char byte = 0;
    EXPECT_EQ(write(wake_[1], &byte, 1), 1);
  }
  void Serve() {
    while (!stop_) {
      std::vector<pollfd> ready{{wake_[0], POLLIN, 0}};
      for (const int fd : listeners_) ready.push_back({fd, POLLIN, 0});
      for (const Connection& connection : connections_)
        ready.push_back({connection.Far.Socket(), POLLIN, 0});
      if (poll(ready.data(), ready.size(), -1) <= 0) continue;
      ServeConnections(ready.data() + 1 + listeners_.size());
      for (std::size_t i = 0; i < listeners_.size(); ++i) {
        if (ready[1 + i].revents) Accept(listeners_[i]);
      }
      if (ready[0].revents) Break();
    }
  }
  void ServeConnections(const pollfd* ready) {
    for (auto at = connections_.begin(); at != connections_.end(); ++ready) {
      if (ready->revents) ServeConnection(&*at);
      at = at->Far.Open() ? std::next(at) : connections_.erase(at);
    }
  }
  void Accept(int listener) {
    const bool local = listener == localListener_;
    Peer far(local ? lumo::Lengths::Client : lumo::Lengths::Packet,
             AcceptWithin(listener, Milliseconds(0)));
    if (!far.Open()) return;
    if (local) far.SendBytes(std::string(60, '\0'));
    connections_.push_back({std::move(far), !local});
  }
  void ServeConnection(Connection* connection) {
    Peer& far = connection->Far;
    const auto frame = far.ReadFrame();
    if (!frame) return far.Close();
    connection->MayClose = true;
    if (frame->size() == kControlSize) return;
    const auto message = lumo::Decode(*frame);
    if (!IsQuestion(message)) return;
    const int luck = faithful_ ? 100 : dice_.Below(100);
    if (luck < 4) return far.Close();
    if (luck < 6) return far.Reset();
    if (luck < 9) return void(far.SendBytes(std::string(16, '\xFF')));
    if (luck < 16) return;  // never answered
    if (!far.Answer(*message, message->Strings[0])) far.Close();
  }
  void Break() {
    char bytes[64];
    EXPECT_GT(read(wake_[0], bytes, sizeof bytes), 0);
    const int breaking = breaking_.exchange(kNone);
    if (breaking == kNone) return;
    for (Connection& connection : connections_) {
      if (connection.MayClose && (breaking == kAll || dice_.InHundred(50))) connection.Far.Close();
    }
    connections_.remove_if([](const Connection& connection) { return !connection.Far.Open(); });
  }

  std::vector<int> listeners_;
  int localListener_;
  Dice dice_;
  std::list<Connection> connections_;
  std::atomic<bool> stop_{false}, faithful_{false};
  std::atomic<int> breaking_{kNone};
  int wake_[2] = {-1, -1};
  std::thread thread_;
};

// The kernel behind the queue, on a thread of its own.
class EchoingQueue {
 public:
  EchoingQueue() : thread_([this] { Serve(); }) {}
  ~EchoingQueue() {
    stop_ = true;
    thread_.join();
  }
  EchoingQueue(const EchoingQueue&) = delete;
  EchoingQueue& operator=(const EchoingQueue&) = delete;

  // Ends the reader while it waits: between its answer to a client and its report to the agent
  // nobody could say what the client got.
  void KillReader() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const pid_t reader : readers_) {
      if (!ProcessRuns(reader)) continue;
      WaitFor([&] { return ProcessStatus(reader, "State").rfind('R', 0) != 0; });
      kill(reader, SIGKILL);
    }
  }

  IpcKernel Kernel;

 private:
  void Serve() {
    while (!stop_) {
      if (!ServeOne()) std::this_thread::sleep_for(Milliseconds(1));
    }
  }
  bool ServeOne() {
    const std::lock_guard<std::mutex> lock(mutex_);
    DropAnswersOfTheDead();
    const auto request = Kernel.TakeRequest();
    if (!request || !IsQuestion(request->Message)) return request.has_value();
    readers_.insert(request->Reader);
    Kernel.Answer(*request, request->Message.Strings[0]);
    return true;
  }
  void DropAnswersOfTheDead() {
    for (const pid_t reader : readers_) {
      if (!ProcessRuns(reader)) Kernel.DropAnswers(reader);
    }
  }

  std::mutex mutex_;
  std::set<pid_t> readers_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::uint16_t lastTag;  // those of one process must differ, whatever its connections

// A client that counts the answers to each of its requests.
class CountingClient {
 public:
  CountingClient(const Agent& agent, bool ownProcess)
      : process_(ownProcess ? std::make_unique<LivingProcess>() : nullptr),
        client_(agent, process_ ? process_->Pid() : getpid()) {}
  void Ask(const std::string& node) {
    if (Open() >= kOpenRequests) return;
    lumo::Message request = client_.Request(node, "to '" + node + "' " + std::to_string(++lastTag));
    request.SetAstInd(lastTag);
    if (client_.SendMessage(request)) expected_[request.AstInd()] = request.Strings[0];
  }
  void TakeAnswers() {
    while (const auto frame = client_.ReceiveFrame(Milliseconds(0))) {
      const auto answer = lumo::Decode(*frame);
      ASSERT_TRUE(answer) << testing::PrintToString(*frame);
      const auto request = expected_.find(answer->AstInd());
      ASSERT_NE(request, expected_.end())
          << "a second answer to request " << answer->AstInd() << ", CodErr " << answer->CodErr;
      if (answer->CodErr == 0 && !answer->Strings[0].empty()) {
        EXPECT_EQ(answer->Strings[0], request->second);
      }
      expected_.erase(request);
    }
    EXPECT_TRUE(client_.Connected()) << "the agent closed the connection";
  }
  std::size_t Open() const { return expected_.size(); }
  std::string OpenRequests() const {
    std::string open;
    for (const auto& [astInd, text] : expected_) open += std::to_string(astInd) + " " + text + "; ";
    return open;
  }
  bool HasOwnProcess() const { return process_ != nullptr; }
  void Die() { process_->Kill(); }

 private:
  std::unique_ptr<LivingProcess> process_;
  Client client_;
  std::map<std::uint16_t, std::string> expected_;
};

int Listening(int fd) {
  EXPECT_EQ(listen(fd, 64), 0);
  return fd;
}

class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : dice_(seed), stalled_(Node::Start::Bound) {
    stalled_.Stall();
    const int first = Listening(BoundSocket(0)), second = Listening(BoundSocket(0));
    constexpr int kNumber = 4242;
    servers_.emplace(std::vector<int>{first, second},
                     Listening(BoundAt(agent_.SocketPath(kNumber))), seed + 1);
    const std::string tcp = " TCPIP 127.0.0.1 ";
    definitions_ = {tcp + std::to_string(LocalPort(first)) + " 0 0 0",
                    tcp + std::to_string(LocalPort(second)) + " 1 4 2",
                    tcp + std::to_string(LocalPort(second)) + " 0 0 0",
                    tcp + std::to_string(refusing_.Port()) + " 0 0 0",
                    tcp + std::to_string(stalled_.Port()) + " 0 0 2",
                    " LOCALS " + std::to_string(kNumber),
                    " LOCAL 4243",
                    " REZ",
                    " tcpips somewhere"};
    std::string nodetab = "IPC LOCALI " + std::to_string(queue_.Kernel.Key()) + "\n";
    for (std::size_t i = 0; i < definitions_.size(); ++i)
      nodetab += names_[i] + definitions_[i] + "\n";
    const std::vector<std::vector<std::string>> kModes = {
        {},
        {"-AUTOCHANGE"},
        {"-AUTOCONNECT"},
        {"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "6", "-ERR1001"},
        {"-CONNECTONLOAD", "-CONNERROR"}};
    agent_.Nodetab(nodetab).LogLevel("3").Options(dice_.OneOf(kModes)).Options({"-DEFAULT", "N2"});
  }

  void Run(int commands) {
    ASSERT_TRUE(agent_.Start());
    manager_.emplace(agent_);
    for (std::size_t i = 0; i < kClients; ++i) clients_.push_back(NewClient());
    for (int command = 0; command < commands && !testing::Test::HasFailure(); ++command) {
      ManageSomething();
      DisturbSomething();
      for (auto& client : clients_) client->TakeAnswers();
      if (command % 50 == 0) CheckTable();
    }
    if (!testing::Test::HasFailure()) ExpectAllAnswered();
    EXPECT_EQ(agent_.Stop(), 0);
  }

 private:
  std::unique_ptr<CountingClient> NewClient() {
    return std::make_unique<CountingClient>(agent_, dice_.InHundred(50));
  }
  std::string SomeName() { return dice_.OneOf(names_); }
  std::string SomeLine() {
    if (dice_.InHundred(10)) return dice_.OneOf(nonsense_);
    return SomeName() + dice_.OneOf(definitions_);
  }
  int SomeIndex() { return dice_.Below(10) - 1; }

  void ManageSomething() {
    const int command = dice_.InHundred(50) ? dice_.OneOf(changing_) : 99 + dice_.Below(33);
    std::string argument = SomeName();
    if (command == 119 || command == 127 || command == 128) argument = SomeLine();
    if (command == 126) argument += std::string(2, '\0') + SomeLine();
    if (dice_.InHundred(70)) argument += '\0';
    lumo::Message request =
        lumo::ManagementRequest(static_cast<std::uint16_t>(command), SomeIndex(), argument);
    if (dice_.InHundred(30)) request.Node = SomeName();
    const Outcome outcome = manager_->Receive(manager_->SendMessage(request));
    const bool mayHaveItem =
        command == 103 || command == 105 || command == 116 || (command >= 120 && command <= 122);
    EXPECT_TRUE(mayHaveItem || outcome.Item.empty()) << command;
    // The table must not dry up, nor grow without end.
    if (manager_->Count() < 4) manager_->AddNode(SomeName() + dice_.OneOf(definitions_));
    if (manager_->Count() > 20) manager_->Result(124, dice_.Below(20));
  }

  void DisturbSomething() {
    for (int request = dice_.Below(4); request-- > 0;)
      dice_.OneOf(clients_)->Ask(dice_.InHundred(40) ? "" : SomeName());
    if (dice_.InHundred(8)) servers_->BreakSome();
    if (dice_.InHundred(3)) queue_.KillReader();
    if (dice_.InHundred(10)) agent_.Signal(SIGALRM);
    if (dice_.InHundred(4))
      ReplaceClient(
          &clients_[static_cast<std::size_t>(dice_.Below(static_cast<int>(clients_.size())))]);
  }

  // Its process dies, or it only hangs up.
  void ReplaceClient(std::unique_ptr<CountingClient>* client) {
    if ((*client)->HasOwnProcess() && dice_.InHundred(70)) (*client)->Die();
    *client = NewClient();
  }

  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (int index = 0; index < 100; ++index) {
      const Outcome name = manager_->Ask(105, index);
      if (name.Result != 1) break;
      names.push_back(name.Item);
    }
    return names;
  }

  // The commands tell the same of the table. A breaking link may change it or move the default
  // between two of them, but not each time.
  void CheckTable() {
    bool same = false;
    std::string seen;
    for (int attempt = 0; attempt < 20 && !same; ++attempt) {
      const std::vector<std::string> names = Names();
      const int count = manager_->Count(), defaultIndex = manager_->Result(104);
      const Outcome name = manager_->Ask(103);
      seen = std::to_string(names.size()) + " names, " + std::to_string(count) +
             " nodes, default number " + std::to_string(defaultIndex) + " '" + name.Item + "'";
      same = count == static_cast<int>(names.size()) && defaultIndex < count &&
             name == Outcome(1, names[static_cast<std::size_t>(defaultIndex)]);
    }
    EXPECT_TRUE(same) << seen;
  }

  std::string OpenRequests() const {
    std::string open;
    for (const auto& client : clients_) open += client->OpenRequests() + "\n";
    return open;
  }

  void ExpectAllAnswered() {
    EXPECT_TRUE(WaitFor([&] {
      servers_->BreakAll();
      agent_.Tick();
      std::size_t open = 0;
      for (auto& client : clients_) {
        client->TakeAnswers();
        open += client->Open();
      }
      return open == 0 || testing::Test::HasFailure();
    })) << "requests stay without an answer: "
        << OpenRequests() << agent_.Log();
  }

  Dice dice_;
  Node stalled_;
  Node refusing_{Node::Start::Bound};
  std::optional<Servers> servers_;
  EchoingQueue queue_;
  Agent agent_;
  std::optional<Manager> manager_;
  std::vector<std::unique_ptr<CountingClient>> clients_;
  std::vector<std::string> definitions_;
  const std::vector<std::string> names_ = {"N1", "N2", "N3", "n4",  "N5",       "N6",
                                           "N7", "N8", "N9", "IPC", "EIGHTCHR", "NOWHERE"};
  const std::vector<std::string> nonsense_ = {"",
                                              " ",
                                              "N1",
                                              "N1 NONSENSE",
                                              "TOOLONGNAME REZ",
                                              "N2 LOCALS x",
                                              "N3 LOCALI 0",
                                              "N4 TCPIP",
                                              "N5 REZ " + std::string(400, 'x'),
                                              std::string(3000, 'y')};
  const std::vector<int> changing_ = {106, 119, 119, 123, 124, 125, 126, 127, 128};
};

TEST(RandomManagement, TheAgentServesOnAndAnswersEveryRequestOnce) {
  const unsigned seed = static_cast<unsigned>(
      NumberOf("LUMO_RANDOM_SEED", static_cast<int>(std::random_device()() & 0x7FFFFFFF)));
  const int commands = NumberOf("LUMO_RANDOM_COMMANDS", kUsualCommands);
  std::printf("LUMO_RANDOM_SEED=%u LUMO_RANDOM_COMMANDS=%d\n", seed, commands);
  std::fflush(stdout);  // for a run that is ended from outside
  const testing::ScopedTrace trace(__FILE__, __LINE__, "seed " + std::to_string(seed));
  RandomRun(seed).Run(commands);
}

}  // namespace
}  // namespace test
