// A random course of events, the same for every run of it: what clients, nodes, local kernels and
// management do, in steps. The events of a step come while the agent stands still, so that one pass
// of its loop finds them together; it has settled before the next.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace differential {

enum class Kind {
  Connect,      // a new client
  Ask,          // Who: client, Value: target, Count: requests
  AskLarge,     // the same, with texts of some kilobytes
  Half,         // Who: client; the first half of a request, the rest with its next event
  Garbage,      // Who: client; a length word out of bounds
  HangUp,       // Who: client
  Manage,       // Who: client, Value: which command
  Answer,       // Who: server, Count: the oldest requests, Value odd: in reverse order
  AnswerTwice,  // Who: server
  AnswerHalf,   // Who: server; the first half of an answer, the rest with its next event
  Control,      // Who: server, Count: packets
  BadPacket,    // Who: server
  StopSending,  // Who: server
  Close,        // Who: server
  Reset,        // Who: server
  Refuse,       // Who: server; connections, from now on
  Listen,       // Who: server; again
  QueueAnswer,  // of the kernel behind the queue: the oldest request
  Tick,
  Die,  // the process that some of the clients name
};

struct Event {
  Kind What;
  unsigned Who, Count, Value;
};

struct Scenario {
  std::uint32_t Seed;
  std::vector<std::string> Options;
  unsigned Stalled;    // so many of the nodes never answer a connection
  bool Socket, Queue;  // the local kernels there are
  std::vector<std::vector<Event>> Steps;
};

constexpr unsigned kNodes = 3;  // on TCP: N0, N1, N2; further K (LOCALS), Q (LOCALI), Z (REZ)

Scenario MakeScenario(std::uint32_t seed);
std::string Describe(const Event& event);

}  // namespace differential
