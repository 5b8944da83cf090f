// Peers that do not do what the agent waits for, all at once.
//
//   client HALF      sent half of a request, and nothing more
//   client UNREAD    asks and asks, a thousand times a second or as fast as its requests are taken,
//                    and never reads an answer; thrown out, it connects again
//   client STOPPED   asked a lot and is stopped (SIGSTOP) before it reads
//   client SIPS      asked a lot and reads one byte a second
//   node STOPPED     is stopped when it has been connected to
//   node SIPS        reads one byte a second
//   node HALF        sends half of an answer, and nothing more
//   node FLOOD       sends packets that nobody has asked for, as fast as its socket takes them
//
// Each of the nodes STOPPED, SIPS and HALF also has a client that asks it as fast as its requests
// are taken. What UNREAD, STOPPED and SIPS ask, the node BUSY answers.
#pragma once
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "tests/stress/peer_process.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/node.h"

namespace stress {

class StuckPeers {
 public:
  enum class Pace { Steady, Fastest };  // of UNREAD

  std::string Nodetab() const;
  // Every peer is connected to the agent and has begun. A failure fails the test.
  void Attach(const test::Agent& agent, Pace pace);
  std::vector<pid_t> Pids() const;
  std::uint64_t UnreadRequests() const { return unread_->Tally(); }
  std::uint64_t FloodBytes() const { return flood_->Tally(); }

  // Of those: clients that do not take their answers, nodes that do not take their requests.
  static constexpr std::size_t kDeafClients = 3, kDeafNodes = 3, kAskersOfDeafNode = 2;

 private:
  PeerProcess& AddNode(const test::Agent& agent, test::Node& node, const std::string& name,
                       const std::string& bytes, PeerBody body);
  PeerProcess& AddClient(const test::Agent& agent, const std::string& node, PeerBody body);

  test::Node busy_, stoppedNode_, sippingNode_, halfNode_, flooder_;
  std::deque<test::Client> clients_;  // each node's first
  std::deque<PeerProcess> processes_;
  const PeerProcess* unread_ = nullptr;
  const PeerProcess* flood_ = nullptr;
};

}  // namespace stress
