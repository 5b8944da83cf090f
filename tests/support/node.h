// Stand-ins for a database server on TCP.
#pragma once
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/peer.h"

namespace test {

sockaddr_in Loopback(std::uint16_t port);
// A TCP socket of the loopback interface on which nobody listens yet; 0: at any port.
int BoundSocket(std::uint16_t port);

// A server in the test's own thread. It listens at once; the verbs of Peer work on the connection
// that was accepted last.
class Node : public Peer {
 public:
  // Bound: connections are refused until Listen(). Stalled: see Stall().
  enum class Start { Listening, Bound, Stalled };
  explicit Node(Start start = Start::Listening);
  ~Node();
  Node(Node&&) = delete;

  void Listen(int backlog = 16);
  void StopListening();  // connections are refused; the port stays ours
  // The next connection of the agent; the one before is closed.
  bool Accept(Milliseconds timeout = kPatience);
  // The next connection, and the first request over it; the test is over without them.
  lumo::Message ExpectFirstRequest(const Place& place = Place::Here());
  // The next connection, kept apart from this one.
  Peer AcceptAnother(Milliseconds timeout = kPatience);
  bool Connecting(Milliseconds timeout = kShortly);  // a connection waits to be accepted

  // Fills the queue of connections: the agent's connect stays in progress until Unstall().
  void Stall();
  void Unstall();

  std::uint16_t Port() const { return port_; }
  // A node table line; the default switches keep-alive and time-outs off.
  std::string Line(const std::string& name, const std::string& timeouts = "0 0 0") const;

 private:
  void Bind(std::uint16_t port);

  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::vector<int> fillers_;
  std::set<std::uint16_t> fillerPorts_;  // connections of our own, never handed out
};

// A server on a thread of its own that answers each request of each connection with its first
// string.
class EchoNode {
 public:
  EchoNode();
  ~EchoNode();
  EchoNode(const EchoNode&) = delete;
  EchoNode& operator=(const EchoNode&) = delete;
  std::uint16_t Port() const { return port_; }
  std::string Line(const std::string& name, const std::string& timeouts = "0 0 0") const;
  int Served() const { return served_; }

 private:
  void Serve();
  void ServeConnection(Peer& peer);

  int listener_;
  int stopPipe_[2] = {-1, -1};
  std::uint16_t port_;
  std::atomic<int> served_{0};
  std::thread thread_;
};

}  // namespace test
