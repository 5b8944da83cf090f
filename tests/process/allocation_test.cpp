// Once everything is up, requests and answers pass without a call for memory, in the agent and in
// the reader child of a LOCALI link.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/process/manager.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace test {
namespace {

constexpr int kFew = 3, kMany = 12;  // the agent waits for more than 8 clients in another way
constexpr int kBurst = 4;            // requests that a client sends with one call
constexpr std::size_t kUnread = 2 * kBurst;     // a node takes that many without reading
constexpr int kWarmUp = 200, kMeasured = 2400;  // requests

// The count of an agent that runs with its calls for memory counted.
class AllocationCount {
 public:
  explicit AllocationCount(Agent* agent) {
    const std::filesystem::path path = agent->Folder() / "allocations";
    WriteFile(path, std::string(sizeof(Counter), '\0'));
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    counter_ = mmap(nullptr, sizeof(Counter), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (counter_ == MAP_FAILED) throw std::runtime_error("the count cannot be mapped");
    const char* const given = std::getenv("LUMO_TCP_COUNTED");
    agent->Program(given ? given : LUMO_TCP_COUNTED_PATH).Environment("BENCH_ALLOC_COUNT", path);
  }
  ~AllocationCount() { munmap(counter_, sizeof(Counter)); }
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;
  std::uint64_t Value() const { return static_cast<const Counter*>(counter_)->load(); }

 private:
  using Counter = std::atomic<std::uint64_t>;
  void* counter_;
};

// What the three kinds of nodes have in common.
struct TcpServer : Node {
  explicit TcpServer(const Agent&) {}
};
using SocketServer = LocalKernel;
struct QueueServer : IpcKernel {
  explicit QueueServer(const Agent&) {}
  static bool Accept() { return true; }
};
const std::string& TextOf(const lumo::Message& request) { return request.Strings[0]; }
const std::string& TextOf(const IpcKernel::Request& request) { return TextOf(request.Message); }

template <class Server>
class Traffic {
 public:
  Traffic() : count_(&agent_), server_(agent_) {
    agent_.Nodetab(server_.Line("K") + "OTHER REZ\n");
  }

  bool Start() { return agent_.Start(); }
  void AddClients(int count) {
    for (int i = 0; i < count; ++i) {
      clients_.push_back(std::make_unique<Client>(agent_));
      clients_.back()->ExpectNothing();
    }
  }
  void BringUpLink() {
    ExpectFirstExchange(*clients_.front(), clients_.front()->Send("K", "up"), server_);
  }

  // The memory that the most requests at once need is there after the first round, in which they
  // come while the agent stands still; how many come together later is chance.
  void ExpectNoAllocation() {
    ASSERT_NO_FATAL_FAILURE(RoundAtOnce());
    Exchange(kWarmUp);
    const std::uint64_t before = count_.Value();
    EXPECT_GT(before, 0u) << "the link was allocated, at least";
    Exchange(kMeasured);
    const std::uint64_t after = count_.Value();
    EXPECT_EQ(after - before, 0u) << "calls for memory in " << kMeasured << " requests";
    EXPECT_EQ(Manager(agent_).AddNode("NEW REZ"), 0);
    EXPECT_GT(count_.Value(), after) << "calls are still counted";
    EXPECT_EQ(agent_.Stop(), 0);
  }

 private:
  using Taken = std::vector<decltype(std::declval<Server>().ExpectRequest())>;

  void Exchange(int requests) {
    for (int sent = 0; sent < requests; ++round_) {
      ASSERT_NO_FATAL_FAILURE(Round());
      sent += kBurst * static_cast<int>(clients_.size());
      if (round_ % 10 == 0) agent_.Tick();
    }
  }

  // The node has read all requests of all clients before it gives the first answer.
  void Round() {
    std::vector<lumo::Message> requests;
    Taken taken;
    for (std::size_t i = 0; i < clients_.size(); ++i) {
      Send(i, &requests);
      if (requests.size() - taken.size() < kUnread && i + 1 < clients_.size()) continue;
      Take(requests.size(), &taken);
    }
    Answer(requests, taken);
  }

  void RoundAtOnce() {
    std::vector<lumo::Message> requests;
    Taken taken;
    Freeze(agent_.Pid());
    for (std::size_t i = 0; i < clients_.size(); ++i) Send(i, &requests);
    Thaw(agent_.Pid());
    Take(requests.size(), &taken);
    Answer(requests, taken);
  }

  void Take(std::size_t count, Taken* taken) {
    while (taken->size() < count) taken->push_back(server_.ExpectRequest());
  }

  void Answer(const std::vector<lumo::Message>& requests, const Taken& taken) {
    for (const auto& request : taken) ASSERT_TRUE(server_.Answer(request, TextOf(request)));
    for (std::size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(clients_[i / kBurst]->ExpectAnswer(requests[i]).Strings[0], requests[i].Strings[0]);
    }
  }

  void Send(std::size_t client, std::vector<lumo::Message>* requests) {
    std::string bytes;
    for (int i = 0; i < kBurst; ++i) {
      const auto size = static_cast<std::size_t>(round_ % 50 + i);
      lumo::Message request = clients_[client]->Request("K", std::string(size, 'x'));
      request.SetAstInd(static_cast<std::uint16_t>(requests->size()));
      bytes += lumo::Encode(request, lumo::Lengths::Client);
      requests->push_back(request);
    }
    ASSERT_TRUE(clients_[client]->SendBytes(bytes));
  }

  Agent agent_;
  AllocationCount count_;
  Server server_;
  std::vector<std::unique_ptr<Client>> clients_;
  int round_ = 0;
};

template <class Server>
void ExpectNoAllocation(int clients) {
  Traffic<Server> traffic;
  ASSERT_TRUE(traffic.Start());
  traffic.AddClients(clients);
  traffic.BringUpLink();
  traffic.ExpectNoAllocation();
}

TEST(Allocation, NoneForFewClientsOfATcpNode) { ExpectNoAllocation<TcpServer>(kFew); }
TEST(Allocation, NoneForManyClientsOfATcpNode) { ExpectNoAllocation<TcpServer>(kMany); }
TEST(Allocation, NoneForFewClientsOfALocalSocket) { ExpectNoAllocation<SocketServer>(kFew); }
TEST(Allocation, NoneForManyClientsOfALocalSocket) { ExpectNoAllocation<SocketServer>(kMany); }
TEST(Allocation, NoneForFewClientsOfALocalQueue) { ExpectNoAllocation<QueueServer>(kFew); }
TEST(Allocation, NoneForManyClientsOfALocalQueue) { ExpectNoAllocation<QueueServer>(kMany); }

// The reader child writes only to connections that are older than it; it hands over the others'.
void ExpectNoAllocationForLaterClients(int clients) {
  Traffic<QueueServer> traffic;
  ASSERT_TRUE(traffic.Start());
  traffic.AddClients(1);
  traffic.BringUpLink();
  traffic.AddClients(clients - 1);
  traffic.ExpectNoAllocation();
}

TEST(Allocation, NoneForFewLaterClientsOfALocalQueue) { ExpectNoAllocationForLaterClients(kFew); }
TEST(Allocation, NoneForManyLaterClientsOfALocalQueue) { ExpectNoAllocationForLaterClients(kMany); }

}  // namespace
}  // namespace test
