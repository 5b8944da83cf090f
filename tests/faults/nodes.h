// Database nodes on every protocol that do what the text of a request says: "close" breaks the
// link, "split" is answered in two pieces, "large" with many bytes, anything else with itself.
#pragma once
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/agent.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/peer.h"

namespace faults {

constexpr std::size_t kLargeAnswer = 8000;

class Nodes {
 public:
  Nodes();
  ~Nodes();
  Nodes(const Nodes&) = delete;
  Nodes& operator=(const Nodes&) = delete;

  // The directory that the agents have to share with the node on a UNIX socket.
  std::filesystem::path Directory() const { return directory_.Path(); }
  std::string Tcp(const std::string& name, const std::string& timeouts) const;
  std::string Local(const std::string& name) const;
  std::string Ipc(const std::string& name) const { return kernel_.Line(name); }
  // Nodes that nobody serves: connections are refused, or stay in progress.
  std::string DeadTcp(const std::string& name) const { return dead_.Line(name); }
  std::string DeadLocal(const std::string& name) const;
  std::string StalledTcp(const std::string& name) const { return stalled_.Line(name, "0 0 2"); }

  // While paused nothing is read from the agent.
  void Pause() { paused_ = true; }
  void Resume();
  test::IpcKernel& Kernel() { return kernel_; }
  int Served() const { return served_; }  // requests answered

 private:
  void ServeStreams();
  void ServeStream(test::Peer& peer);
  void ServeQueue();
  bool AnswerFromQueue(int queue);
  void Wake() const;

  test::TemporaryDirectory directory_;
  test::Node dead_{test::Node::Start::Bound};
  test::Node stalled_;
  test::IpcKernel kernel_;
  int tcpListener_ = -1, localListener_ = -1, wakePipe_[2] = {-1, -1};
  std::uint16_t port_ = 0;
  std::atomic<bool> paused_{false}, ended_{false};
  std::atomic<int> served_{0};
  std::thread streams_, queue_;
};

}  // namespace faults
