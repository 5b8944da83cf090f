// Events that one pass of the loop finds together: requests that travel to a link together, links
// that break beside them, and whatever holds the pass up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/process/manager.h"
#include "tests/process/node_link.h"
#include "tests/process/reconnection.h"
#include "tests/support/agent_test.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

using SeveralRequests = AgentTest;

// A name whose look-up takes as long as a test wants. The C library looks for aliases before it
// asks a name server: in a pipe, which holds it up.
class SlowName {
 public:
  explicit SlowName(Agent* agent) : agent_(agent), aliases_(agent->Folder() / "aliases") {
    if (mkfifo(aliases_.c_str(), 0600) != 0) throw std::runtime_error("no pipe can be made");
    agent->Environment("HOSTALIASES", aliases_).Environment("RES_OPTIONS", "attempts:1 timeout:1");
  }
  // The command that looks it up.
  static lumo::Message Send(Manager& manager) {
    return manager.Send(119, 0, std::string("SLOW TCPIP lumo-test-host 1 0 0 0") + '\0');
  }
  // The agent stands still in the middle of the look-up, and goes on after the events.
  template <class Events>
  void During(Events events) {
    int pipe = -1;
    EXPECT_TRUE(WaitFor([&] {
      pipe = open(aliases_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      return pipe >= 0;
    })) << "the name is not looked up";
    Freeze(agent_->Pid());
    events();
    const AwaitedSignal ifATickEndedIt(SIGPIPE);
    const std::string alias = "lumo-test-host localhost.invalid\n";
    [[maybe_unused]] const ssize_t written = write(pipe, alias.data(), alias.size());
    Thaw(agent_->Pid());
    close(pipe);
  }

 private:
  Agent* agent_;
  std::string aliases_;
};

// An agent with the nodes A and B, whose links are up; B's was served last. So was `last_`, among
// the clients, until another has asked.
class OnePass : public AgentTest {
 protected:
  void Start(const std::string& furtherNodes = {}) {
    StartAgent(a_.Line("A") + b_.Line("B") + furtherNodes);
    last_.emplace(agent_);
    UseNode(&*last_, &a_, "A");
    UseNode(&*last_, &b_, "B");
  }
  // A request for A has come to the node.
  static lumo::Message ExpectReceived(Peer& node, const lumo::Message& request,
                                      const Place& place = Place::Here()) {
    const lumo::Message received = node.ExpectRequest(place);
    EXPECT_EQ(received.Strings[0], request.Strings[0]);
    return received;
  }

  Node a_, b_;
  std::optional<Client> last_;
};

TEST_F(OnePass, TheLastClientsRequestMeetsALinkThatWasReset) {
  Start();
  lumo::Message request;
  agent_.InOnePass([&] {
    request = last_->Send("A");
    a_.Reset();
  });
  last_->ExpectError(request, 4007, ECONNRESET);
}

TEST_F(OnePass, TheLastClientsRequestStillReachesANodeThatSendsNoMore) {
  Start();
  lumo::Message request;
  agent_.InOnePass([&] {
    request = last_->Send("A", "one");
    a_.StopSending();
  });
  ExpectReceived(a_, request);
  last_->ExpectError(request, 4009, 0);
}

TEST_F(OnePass, TheLastClientsRequestMeetsANodeThatIsDeletedWhenItBreaks) {
  Start();
  Manager manager(agent_);
  EXPECT_EQ(manager.DeleteNode("A"), kDeletionPending);
  ExpectServedBy(b_, "B", *last_, last_->Send("B"));
  lumo::Message request;
  agent_.InOnePass([&] {
    request = last_->Send("A");
    a_.Reset();
  });
  last_->ExpectError(request, 4007, ECONNRESET);
  EXPECT_EQ(manager.Names(), "B");
}

TEST_F(OnePass, AnotherClientsRequestConnectsALinkThatWasResetAnew) {
  Start();
  Client other(agent_);
  lumo::Message request;
  agent_.InOnePass([&] {
    request = other.Send("A", "one");
    a_.Reset();
  });
  ASSERT_TRUE(a_.Accept());
  ExpectReceived(a_, request);
}

// Whatever the timer sends after a pass with several requests leaves at once.
TEST_F(SeveralRequests, DoNotHoldBackWhatComesAfterThem) {
  Node node;
  StartAgent(node.Line("A", "1 0 0"));
  Client first(agent_), second(agent_);
  UseNode(&first, &node, "A");
  agent_.Barrier();
  agent_.InOnePass([&] {
    first.Send("A", "one");
    second.Send("A", "two");
  });
  ASSERT_TRUE(node.ReadRequest() && node.ReadRequest());
  agent_.Ticks(11);
  const auto alive = node.ReadFrame();
  EXPECT_TRUE(alive && alive->size() == 12) << "no alive packet";
}

// A link's input is read before the requests of the pass and after them, not in between.
class ManyAtOnce : public OnePass, public testing::WithParamInterface<int> {};

TEST_P(ManyAtOnce, RequestsAreSentBeforeALinkIsReadAgain) {
  Start();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < GetParam(); ++i) clients.push_back(std::make_unique<Client>(agent_));
  agent_.Barrier();
  std::vector<lumo::Message> requests;
  agent_.InOnePass([&] {
    a_.SendControl({1, 0});
    a_.StopSending();
    for (const auto& client : clients)
      requests.push_back(client->Send("A", std::to_string(requests.size())));
  });
  for (const lumo::Message& request : requests) ExpectReceived(a_, request);
  for (std::size_t i = 0; i < clients.size(); ++i) clients[i]->ExpectError(requests[i], 4009, 0);
}

INSTANTIATE_TEST_SUITE_P(Requests, ManyAtOnce, testing::Values(3, 70, 200));

// What is on its way to a link does not wait for anything that can take long.

TEST_F(OnePass, ARequestLeavesBeforeAKernelIsWaitedFor) {
  LocalKernel kernel(agent_);
  Start(kernel.Line("K"));
  Client first(agent_), second(agent_);
  agent_.Barrier();
  lumo::Message request, local;
  agent_.InOnePass([&] {
    request = first.Send("A", "one");
    local = second.Send("K", "two");
  });
  const lumo::Message received = ExpectReceived(a_, request);  // before the greeting
  ASSERT_TRUE(kernel.Accept());
  const lumo::Message localReceived = ExpectReceived(kernel, local);
  ExpectAnswered(first, request, a_, received);
  ExpectAnswered(second, local, kernel, localReceived);
}

TEST_F(OnePass, ARequestLeavesBeforeANameIsLookedUp) {
  SlowName name(&agent_);
  Start();
  Client client(agent_);
  Manager manager(agent_);
  agent_.Barrier();
  lumo::Message request, command;
  agent_.InOnePass([&] {
    request = client.Send("A", "one");
    command = SlowName::Send(manager);
  });
  name.During([&] { ExpectReceived(a_, request); });  // before the name is known
  manager.Receive(command);
}

TEST_F(OnePass, ARequestLeavesThoughAQueueIsFull) {
  IpcKernel kernel;
  Start(kernel.Line("K"));
  Client first(agent_), second(agent_);
  ExpectExchange(second, second.Send("K"), kernel);
  kernel.FillQueue();
  agent_.Barrier();
  lumo::Message request, local;
  agent_.InOnePass([&] {
    request = first.Send("A", "one");
    local = second.Send("K", "two");
  });
  ExpectAnswered(first, request, a_, ExpectReceived(a_, request));  // while the queue is full
  first.ExpectNothing();
  kernel.DrainQueue();
  const auto localReceived = kernel.ExpectRequest();
  EXPECT_EQ(localReceived.Message.Strings[0], "two");
  ExpectAnswered(second, local, kernel, localReceived);
}

// A look-up holds a pass up, so that a node can break in its middle.
class BrokenMeanwhile : public OnePass {
 protected:
  // To be called before the clients of the test are made: the pass comes to the manager first.
  void Prepare() { manager_.emplace(agent_); }
  template <class Requests>
  void Break(Requests requests) {
    lumo::Message command;
    agent_.InOnePass([&] {
      command = SlowName::Send(*manager_);
      requests();
    });
    name_.During([&] { a_.Reset(); });
    manager_->Receive(command);
  }

 private:
  SlowName name_{&agent_};
  std::optional<Manager> manager_;
};

TEST_F(BrokenMeanwhile, EachRequestMeetsTheLinkAsTheOneBeforeLeftIt) {
  Start();
  Prepare();
  Client first(agent_), second(agent_), third(agent_);
  agent_.Barrier();
  std::array<lumo::Message, 3> requests;
  Break([&] {
    requests = {first.Send("A", "one"), second.Send("A", "two"), third.Send("A", "three")};
  });
  first.ExpectError(requests[0], 4007, ECONNRESET);
  ExpectFirstServedBy(a_, "A", second, requests[1]);
  ExpectServedBy(a_, "A", third, requests[2]);
}

TEST_F(BrokenMeanwhile, IsReportedInTheDriversWords) {
  agent_.LogLevel("3");
  Start();
  Prepare();
  Client first(agent_), second(agent_);
  agent_.Barrier();
  std::array<lumo::Message, 2> requests;
  Break([&] { requests = {first.Send("A"), second.Send("A")}; });
  first.ExpectError(requests[0], 4007, ECONNRESET);
  ASSERT_TRUE(a_.Accept());
  agent_.Barrier();
  EXPECT_EQ(
      agent_.CountLogged(3, "lumo_tcp", "TCPIP.Write into socket failed. Call:write. errno = 104"),
      1)
      << agent_.Log();
  std::vector<std::string> drivers;
  for (const LogLine& line : agent_.LogLines()) {
    if (line.Level == 3) drivers.push_back(line.Text);
  }
  EXPECT_EQ(drivers.size(), 1u) << agent_.Log();
}

// A request in hand belongs to its connection, not to the number of its descriptor. The client
// leaves so many answers unread that it is closed when A's failure answers all that it asked of A:
// at that moment its request for the node D is in hand, and D's new connection gets the number.
TEST_F(BrokenMeanwhile, ARequestInHandIsNotAnsweredOverANumberThatIsInUseAgain) {
  constexpr int kInFlight = 400;  // their answers are more than what is left of the bound
  constexpr long kBound = 1 << 20, kLeft = 20000;
  Node d;
  EchoNode echo;
  StartAgent(a_.Line("A") + echo.Line("E") + d.Line("D"));
  Prepare();
  Client asksA(agent_), reader(agent_), client(agent_);
  for (int i = 0; i < kInFlight; ++i) {
    client.Send("A", std::to_string(i));
    ASSERT_TRUE(i > 0 || a_.Accept());
    ASSERT_TRUE(a_.ReadRequest());
  }
  const lumo::Message large = client.Request("E", std::string(8080, 'e'));
  const auto size = static_cast<long>(lumo::Encode(large, lumo::Lengths::Client).size());
  int held = 0;  // by the system, which takes no more by then
  for (long sent = 0; (sent + 1) * size - held < kBound - kLeft; ++sent) {
    client.SendMessage(large);
    if (sent * size < kBound / 2) continue;
    reader.Ask("E", "behind it");
    ASSERT_EQ(ioctl(client.Connection().Socket(), FIONREAD, &held), 0);
  }
  lumo::Message fromA;
  Break([&] {
    fromA = asksA.Send("A");
    client.Send("D", "in hand");
  });
  asksA.ExpectError(fromA, 4007, ECONNRESET);
  // D is connected if the request went on without its connection. It gets requests only.
  const lumo::Message request = reader.Send("D", "afterwards");
  ASSERT_TRUE(d.Accept());
  for (bool over = false; !over;) {
    const auto received = d.ExpectRequest();
    over = received.Strings[0] == "afterwards";
    EXPECT_TRUE(over || received.Strings[0] == "in hand");
    d.Answer(received, "answer");
  }
  reader.ExpectAnswer(request);
  agent_.Barrier();
  EXPECT_TRUE(d.Silent(Milliseconds(0))) << "the node gets an answer";
}

}  // namespace
}  // namespace test
