// What the tests of failing links have in common.
#pragma once
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "tests/process/manager.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/peer.h"

namespace test {

// The whole log, once the agent has done what had come before.
inline std::string LogOf(Agent& agent) {
  agent.Barrier();
  return agent.Log();
}

// The node gets its next request, which is answered with "from NODE".
inline void ExpectServedBy(Peer& node, const std::string& name, Client& client,
                           const lumo::Message& request, const Place& place = Place::Here()) {
  ExpectExchange(client, request, node, "from " + name, place);
}

// The same over the node's next connection.
template <class Server>
void ExpectFirstServedBy(Server& node, const std::string& name, Client& client,
                         const lumo::Message& request, const Place& place = Place::Here()) {
  ExpectFirstExchange(client, request, node, "from " + name, place);
}

// A local kernel that is not there until told.
class LateKernel : public Peer {
 public:
  explicit LateKernel(const Agent& agent)
      : Peer(lumo::Lengths::Client),
        number_(agent.ExchangeId() + 1),
        path_(agent.SocketPath(number_)) {}
  ~LateKernel() {
    if (listener_ >= 0) close(listener_);
  }
  LateKernel(LateKernel&&) = delete;

  // From here on connections are refused.
  void Bind() { listener_ = BoundAt(path_); }
  // From here on they wait for Accept.
  void Listen() {
    if (listener_ < 0) Bind();
    if (listen(listener_, 16) != 0) throw std::runtime_error("listen fails");
  }
  bool Accept() { return AcceptConnection() && Greet(); }
  // The two halves of Accept: the agent waits between them.
  bool AcceptConnection() {
    static_cast<Peer&>(*this) = Peer(lumo::Lengths::Client, AcceptWithin(listener_, kPatience));
    return Open();
  }
  bool Greet() { return SendBytes(std::string(60, '\0')); }
  std::string Line(const std::string& name) const {
    return name + " LOCALS " + std::to_string(number_) + "\n";
  }

 private:
  int number_;
  std::string path_;
  int listener_ = -1;
};

}  // namespace test
