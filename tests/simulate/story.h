// A story: how the agent is started, and what its clients, its nodes, its system and the clock do,
// one step after the other. All of it comes from a seed.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace story {

enum class What : std::uint8_t {
  Connect,       // a: clients
  Ask,           // a: client, b: node, c: how many, d: bytes of each
  Trickle,       // a: client: the next requests come in pieces of b bytes
  Pass,          // the agent makes one pass
  Rest,          // the agent goes on until nothing moves
  Tick,          // a: ticks of two seconds
  Answer,        // a: node, b: how many, c: in which order
  AnswerOddly,   // a: node, b: how: twice, a stranger's, another node's request
  Decide,        // a: pending connection, b: how it ends
  Plan,          // a: how the next connect goes
  NodeGoes,      // a: node, b: closes or resets
  NodeStalls,    // a: node, b: bytes that it still takes, 0 to 254; 255: takes all again
  NodeDribbles,  // a: node, b: bytes that come at a time; 255: all
  ClientGoes,    // a: client, b: closes or resets
  ClientStalls,  // as NodeStalls
  Kill,          // a: process: it is dead
  Manage,        // a: client, b: command, c: argument
  Fail,          // a: call, b: error, c: calls that go well before
  Junk,          // a: client or node, b: which, c: bytes
  Reader,        // a: what the reader child does, b: with which request
  Queue,         // a: messages that the kernel's queue has room for
  Count
};

struct Step {
  What Kind;
  std::uint16_t A, B, C, D;
};

struct Story {
  std::uint64_t Seed;
  std::vector<std::string> Options;
  std::vector<std::string> Nodes;  // lines of the node table
  bool Epoll;
  bool Faults, Edits;  // there are steps of that kind
  std::vector<Step> Steps;
};

// `times`: so many times as long as usual.
Story Tell(std::uint64_t seed, unsigned times);
bool Has(const Story& story, const char* option);
std::string Describe(const Story& story);
std::string Describe(const Step& step);

}  // namespace story
