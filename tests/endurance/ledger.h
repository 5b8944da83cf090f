// The account of a run: what has become of each request, and of each answer that came.
//
// A request ends in exactly one way. An answer that arrives must be the one that its request waits
// for, on the connection that asked; anything else ends the run with a Failure.
//
// A shared name is one that several connections of a process have under way at the same time. Its
// answers say no more than the name: each belongs to the request that the node got first of those
// which have none yet, whichever of them the node meant.
#pragma once
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/message_codec.h"
#include "tests/endurance/chance.h"
#include "tests/endurance/loop.h"

namespace endurance {

// Of frames.
constexpr std::size_t kGreetingSize = 60, kLengthSize = 4, kStringsAt = 52;

inline std::uint32_t WordAt(std::string_view bytes, std::size_t at) {
  std::uint32_t word;
  std::memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class End : std::uint8_t {
  Open,
  NodeAnswered,
  AgentAnswered,
  HungUp,       // dropped: the client had closed its connection
  Malformed,    // dropped: the agent closed the connection because of what the client sent
  NotTaken,     // dropped: the agent closed the connection, 1 MiB of answers was not taken
  ProcessDied,  // dropped: the process of this task name had died
  NeverSent,    // the client closed before its last byte was out: no request
};

constexpr int kSharedTags = 8;  // of each task

constexpr int kManagement = -1;  // in place of a node: the agent itself
constexpr int kNoSuchNode = -2;

struct Request {
  std::uint64_t Number = 0, Connection = 0;
  int Task = 0;  // index of the process whose id is the task name
  std::int32_t TaskName = 0;
  std::uint16_t Tag = 0;
  int Node = 0;
  std::uint32_t AnswerSize = 0;
  std::int32_t Expected = 0;  // result of a management command
  Time AskedAt;
  End Ended = End::Open;
  bool Stray = false;     // other answers with its name may come: the name is not used again
  bool Shared = false;    // its name is one of those that connections share
  bool Sentinel = false;  // answered at once and exactly once
  int NodeAccepted = 0;   // when it was asked: connections that the node had accepted,
  int NodeShut = 0;       // and how often the node had been away
  int Incarnation = -1;   // the connection over which the node got it
  int Answers = 0;        // copies that the node has sent of the answer to it
  std::uint64_t AnswerGoesTo = 0;  // the request that this answer belongs to; 0: not sent yet
  std::uint64_t GetsAnswerOf = 0;  // the request whose answer is its own; 0: none is sent yet
};

// What a node has done to its connections, to judge the agent's failure answers.
struct NodeHistory {
  int Accepted = 0;     // connections so far; the newest has this number minus 1
  int LastBroken = -1;  // the newest connection that the node broke
  int Shut = 0;         // times that it has been away
  bool Away = false;
  std::vector<bool> Broken;
  std::vector<int> Codes;  // that a failure of this node's link may have
  int AnsweredOpen = 0;    // requests whose answer it has sent and whose client waits still
  // Of its present connection: the requests of each shared name that have no answer yet, in the
  // order in which they came.
  std::map<std::pair<std::int32_t, std::uint16_t>, std::deque<std::uint64_t>> Waiting;
};

struct Counts {
  std::uint64_t Asked = 0, Connections = 0;
  std::map<End, std::uint64_t> Ends;
  std::map<std::pair<int, int>, std::uint64_t> Codes;  // of the agent's answers, with SysErr
  std::uint64_t Management = 0, HungUpReceived = 0, Reused = 0;
  std::uint64_t Shared = 0;     // asked while another connection waited under the same name
  std::uint64_t OfAnother = 0;  // answered with what the node meant for another connection

  std::map<std::string, std::uint64_t> Faults;
};

class Ledger {
 public:
  explicit Ledger(std::uint64_t seed) : seed_(seed) {}

  void SetTasks(const std::vector<std::int32_t>& taskNames);
  void ReplaceTask(int task, std::int32_t taskName);
  std::int32_t TaskName(int task) const { return tasks_[static_cast<std::size_t>(task)].Name; }
  bool TaskDied(std::int32_t taskName) const;
  NodeHistory& History(int node) { return histories_[static_cast<std::size_t>(node)]; }
  void SetNodes(std::size_t count) { histories_.resize(count); }

  bool HasTag(int task) const;
  // With a shared tag (below kSharedTags) unless the connection waits under that name already.
  Request& Ask(std::uint64_t connection, int task, int node, std::uint32_t answerSize,
               int sharedTag = -1);
  Request* Find(std::uint64_t number);
  void Close(Request& request, End end);

  std::string RequestText(const Request& request) const;
  std::string AnswerText(const Request& request) const;

  // A node got this request; the record of it.
  Request& Received(int node, int incarnation, const lumo::Message& message);
  void AnswerGoesOut(Request& request);
  // A client got this message; the request that it ends.
  Request& Arrived(std::uint64_t connection, const lumo::Message& message);

  std::uint64_t Open() const { return open_; }
  std::uint64_t AskedInRound() const { return requests_.size(); }
  // No answer is under way and no request is open: all names may be used again.
  void EndRound();
  std::string Describe(const Request& request) const;
  std::string DescribeOpen() const;

  Counts Total;

 private:
  struct Task {
    std::int32_t Name = 0;
    std::uint32_t NextTag = 0;
    std::vector<std::uint16_t> Ready;
    std::vector<std::uint64_t> ByTag;
    std::array<std::vector<std::uint64_t>, kSharedTags> Sharing;  // open requests of each name
  };

  std::vector<std::uint64_t>& SharingWith(const Request& request);
  Request* SharedRequestOf(std::uint64_t connection, const std::vector<std::uint64_t>& sharing);
  void ChooseTag(Task* place, Request* request, int sharedTag);
  Request& TakeNodeAnswer(std::uint64_t connection, const lumo::Message& message);
  Request& TakeAgentAnswer(std::uint64_t connection, const lumo::Message& message);
  void JudgeCode(const Request& request, const lumo::Message& message);
  void CountEnd(const Request& request);
  bool Explained(const Request& request);
  [[noreturn]] void Fail(const std::string& what, const Request* request,
                         const lumo::Message& message) const;

  std::uint64_t seed_;
  std::uint64_t first_ = 0;  // number of the round's first request
  std::deque<Request> requests_;
  std::vector<Task> tasks_;
  std::vector<NodeHistory> histories_;
  std::vector<std::int32_t> died_;
  std::uint64_t open_ = 0;
};

}  // namespace endurance
