// The node: hands requests from its transports to the database and the answers back, when and as
// the options want it.
#pragma once
#include <chrono>
#include <map>
#include <memory>
#include <vector>

#include "tools/lumo_node/control.h"
#include "tools/lumo_node/database.h"
#include "tools/lumo_node/event_log.h"
#include "tools/lumo_node/options.h"
#include "tools/lumo_node/transport.h"

namespace lumo::node {

class Node {
 public:
  Node(const Options& options, EventLog* log, Database* database);
  void Add(std::unique_ptr<Transport> transport);
  // Serves until the descriptor can be read, or the control socket, which may be null, says so.
  void Run(int stopDescriptor, Control* control);

 private:
  struct Pending {
    Transport* Way;
    PeerId Peer;
    std::string Frame;
    std::string Event;  // for the log; empty: none
  };
  bool Wait(int stopDescriptor, Control* control);
  void SetFaults(const std::string& line);
  void TakePacket(Transport* transport, PeerId peer, const std::string& frame);
  void LogControl(const std::string& frame);
  void TakeRequest(Transport* transport, PeerId peer, const Message& request);
  Message RunRequest(const Message& request);
  void Collect(Pending answer);
  void QueueCollected();
  void SendDue();
  void SendOne(const Pending& answer);

  using Clock = std::chrono::steady_clock;
  Faults faults_;
  const bool echo_;
  EventLog* const log_;
  Database* const database_;
  std::vector<std::unique_ptr<Transport>> transports_;
  std::map<std::pair<Transport*, PeerId>, int> packets_;  // counted for --close-after
  std::vector<Pending> collected_;                        // for --out-of-order
  std::multimap<Clock::time_point, Pending> due_;
};

}  // namespace lumo::node
