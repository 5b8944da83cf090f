// The node: hands requests from its transports to the database and the answers back, when and as
// the options want it.
#pragma once
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "tools/lumo_node/database.h"
#include "tools/lumo_node/event_log.h"
#include "tools/lumo_node/options.h"
#include "tools/lumo_node/transport.h"

namespace lumo::node {

class Node {
 public:
  Node(const Options& options, EventLog* log, Database* database);
  void Add(std::unique_ptr<Transport> transport);
  // Serves until the descriptor can be read.
  void Run(int stopDescriptor);

 private:
  struct Pending {
    std::chrono::steady_clock::time_point Due;
    Transport* Way;
    PeerId Peer;
    std::string Frame;
    std::string Event;
  };
  int Wait(int stopDescriptor);
  void TakePacket(Transport* transport, PeerId peer, const std::string& frame);
  void LogControl(const std::string& frame);
  void TakeRequest(Transport* transport, PeerId peer, const Message& request);
  void Queue(Pending answer);
  void SendDue();
  void SendOne(const Pending& answer);

  const Options& options_;
  EventLog* const log_;
  Database* const database_;
  std::vector<std::unique_ptr<Transport>> transports_;
  std::map<std::pair<Transport*, PeerId>, int> packets_;  // counted for --close-after
  std::vector<Pending> collected_;                        // for --out-of-order
  std::deque<Pending> due_;                               // in the order of their time
};

}  // namespace lumo::node
