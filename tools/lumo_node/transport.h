// A way in which packets reach the node.
#pragma once
#include <poll.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lib/message_codec.h"

namespace lumo::node {

using PeerId = std::uint64_t;  // never used twice

class Transport {
 public:
  using Handler = std::function<void(PeerId, const std::string& frame)>;

  virtual ~Transport() = default;
  // Adds what the loop is to wait for; says in how many milliseconds it must be served at the
  // latest, -1 when only then.
  virtual int Collect(std::vector<pollfd>* wanted) = 0;
  // Does everything that can be done without waiting; hands in every whole frame.
  virtual void Serve(const Handler& handler) = 0;
  // Queues an answer; nothing happens when the peer has gone.
  virtual void Send(PeerId peer, const std::string& frame) = 0;
  // Sends what is queued, then closes the connection.
  virtual void CloseAfterSending(PeerId peer) = 0;
  virtual Lengths FrameLengths() const = 0;
  virtual bool HasControlPackets() const = 0;

  void SetDeaf(bool deaf) { deaf_ = deaf; }

 protected:
  bool Deaf() const { return deaf_; }

 private:
  bool deaf_ = false;  // nothing is read
};

}  // namespace lumo::node
