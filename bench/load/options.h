// What the load generator is told to do.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct Options {
  std::string Agent;  // path of the agent's client socket: greeting, client messages
  std::string Unix;   // path of a byte relay: the node's packets
  int Tcp = 0;        // port of the node itself: its packets
  std::string Host = "127.0.0.1";
  std::string Node;  // named in the requests; empty: the default

  int Clients = 1;
  int Depth = 1;               // requests of one client at a time
  std::size_t Size = 108;      // of a request, whole
  int Idle = 0;                // more connections that ask once and then keep quiet
  int Held = 0;                // more requests that are never answered
  int HeldConnections = 16;    // on which those are sent
  double Seconds = 1;          // that are measured
  double Warmup = 0.2;         // seconds before them
  std::uint64_t Count = 0;     // not 0: so many round trips are measured, whatever time it takes
  int StallMs = 3000;          // so long without any answer: it stands still
  std::vector<int> Pids;       // whose processor time is taken
  std::vector<int> OtherPids;  // whose processor time counts to the work of all, as does our own
};

inline bool Greets(const Options& options) { return !options.Agent.empty(); }

}  // namespace bench
