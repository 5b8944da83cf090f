// What the tests of both kinds of local kernels have in common.
#pragma once
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/process.h"
#include "tests/support/text.h"

namespace test {

// What a kernel is told of a client's death, in the name of the task.
inline lumo::Message DeathMessage(std::int32_t task, std::int32_t client) {
  lumo::Message death;
  death.TaskName = task;
  death.Command = "CKIL";
  death.Strings[0] = Bytes(client) + std::string(24, '\0');
  death.SetTrailerTaskName(client);
  death.SetAstInd(0xFFFF);
  return death;
}

// Connections that make the agent hold so many descriptors.
class Crowd {
 public:
  Crowd(Agent* agent, std::size_t descriptors) {
    const auto open = [&] { return static_cast<std::size_t>(OpenDescriptors(agent->Pid())); };
    while (open() < descriptors && connections_.size() < descriptors) {
      connections_.push_back(ConnectRaw(agent->SocketPath()));
      // Each one by one only towards the end, as a barrier takes its time.
      if (connections_.size() % 8 == 0 || connections_.size() + 16 > descriptors) agent->Barrier();
    }
  }
  ~Crowd() { Leave(); }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;
  void Leave() {
    for (const int connection : connections_) close(connection);
    connections_.clear();
  }

 private:
  std::vector<int> connections_;
};

}  // namespace test
