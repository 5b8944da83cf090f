// The agent's peers in a scripted run: clients that know what they have asked and nodes that know
// what has reached them. What comes out of the agent is compared with that.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

// What tells requests apart: the client's process and its tag.
using Tag = std::pair<std::int32_t, std::uint16_t>;

// A client connection, seen from the client.
struct ClientPeer {
  std::uint32_t Serial = 0;
  std::string Staged;          // sent, on its way to the agent
  std::string Unparsed;        // bytes of a frame that is not whole yet
  std::string Received;        // bytes of an answer that is not whole yet
  bool Greeted = false;        // the greeting has come
  bool Broken = false;         // a frame was refused: the agent closes the connection
  std::map<Tag, int> Waiting;  // requests without an answer
};

namespace peers {

void Reset();

// Follows the connections that the agent has accepted and closed; takes what it has sent. An
// answer that nobody waits for ends the run.
void Follow();

// The connections in the order of their descriptors.
std::vector<int> Clients();
std::vector<int> Nodes();
int Choose(const std::vector<int>& descriptors, unsigned number);  // -1: there is none

// Lets bytes of a client arrive, `count` of those staged before and now.
void Send(int client, const std::string& bytes, std::size_t count = SIZE_MAX);

// It closes its connection, which perhaps breaks.
void HangUp(int fd, bool broken);

// It takes so much from now on: the square of a small number, else everything.
void SetRoom(int fd, unsigned room);

// The frame of an answer. `counted`: how many of the four bytes of the length word its value
// includes.
std::string AnswerFrame(const Tag& tag, const std::string& text, std::uint32_t counted);
void Answer(int node, const Tag& tag, const std::string& text);

// A reader child hands over what no kernel has sent: from here on answers may be anything.
void ExpectAnything();

// An answer has come by another way.
void AnswerCame(int client, const std::string& frame);

// Who is told of each request that has come whole from a client, has reached a node (-1: the queue
// of a kernel), and of each answer that has come to a client. Frames from the length word on, in
// the queue without it.
struct Watch {
  void (*Asked)(int client, const Tag& tag, const std::string& frame);
  void (*Arrived)(int node, const Tag& tag, const std::string& frame);
  void (*Answered)(int client, const Tag& tag, const std::string& frame);
};
void SetWatch(const Watch* watch);  // null: nobody

// What a client has received of answers breaks off in one, or it has been refused.
bool IsBroken(int client);

// The tags of the requests that have reached nodes and kernels, the latest last; at most 64.
const std::deque<Tag>& Seen();

// The agent has recorded a request with this tag of the connection.
bool IsKnown(int client, const Tag& tag);

// Every request that a living client of an open connection still waits for is known to the agent.
void CheckNoneIsLost();

}  // namespace peers
