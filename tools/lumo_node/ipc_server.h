// Packets over System V IPC: a queue for requests and answers, a semaphore that counts requests,
// and a segment whose first word is the node's process id.
#pragma once
#include <deque>

#include "tools/lumo_node/event_log.h"
#include "tools/lumo_node/transport.h"

namespace lumo::node {

class IpcServer : public Transport {
 public:
  // Makes the three objects under the key; those of a dead node are removed first.
  IpcServer(EventLog* log, std::int32_t key);
  ~IpcServer() override;
  IpcServer(const IpcServer&) = delete;
  IpcServer& operator=(const IpcServer&) = delete;

  int Collect(std::vector<pollfd>* wanted) override;
  void Serve(const Handler& handler) override;
  void Send(PeerId peer, const std::string& frame) override;
  void CloseAfterSending(PeerId) override {}
  Lengths FrameLengths() const override { return Lengths::Packet; }
  bool HasControlPackets() const override { return false; }

 private:
  struct Answer {
    std::int32_t Reader;  // message type: the process that waits for it
    std::string Body;
  };
  void MakeObjects(std::int32_t key);
  void RemoveObjects();
  bool Receive(std::string* frame);
  bool SendNow(const Answer& answer);

  EventLog* const log_;
  int segment_ = -1, queue_ = -1, semaphore_ = -1;
  std::deque<Answer> unsent_;
};

}  // namespace lumo::node
