// The way to the agent's socket.
#pragma once
#include <cstdint>
#include <string>

#include "lib/deadline.h"
#include "lib/include/lumo.h"

namespace lumo::detail {

// How a step ended; Error is the errno that goes with LUMO_NO_AGENT and LUMO_SYSTEM.
struct Outcome {
  lumo_status Status = LUMO_OK;
  int Error = 0;
  bool Good() const { return Status == LUMO_OK; }
};

struct AgentSocket {
  Outcome Result;
  int Socket = -1;  // the caller's to close
  std::int32_t AgentPid = 0;
};

// Connects and reads the greeting.
AgentSocket ConnectToAgent(const std::string& path, const Deadline& deadline);

// A path that a socket address can hold.
bool FitsSocketAddress(const std::string& path);

}  // namespace lumo::detail
