// The account of a run: what has become of each request, and of each answer that came.
//
// A request ends in exactly one way. An answer that arrives must be the one that its request waits
// for, on the connection that asked; anything else ends the run with a Failure.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lib/message_codec.h"
#include "tests/endurance/chance.h"
#include "tests/endurance/loop.h"

namespace endurance {

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
  bool Sentinel = false;  // answered at once and exactly once
  int NodeAccepted = 0;   // when it was asked: connections that the node had accepted,
  int NodeShut = 0;       // and how often the node had been away
  int Incarnation = -1;   // the connection over which the node got it
  int Answers = 0;        // copies that the node has sent
};

// What a node has done to its connections, to judge the agent's failure answers.
struct NodeHistory {
  int Accepted = 0;     // connections so far; the newest has this number minus 1
  int LastBroken = -1;  // the newest connection that the node broke
  int Shut = 0;         // times that it has been away
  bool Away = false;
  std::vector<bool> Broken;
  std::vector<int> Codes;  // that a failure of this node's link may have
  int AnsweredOpen = 0;    // requests that it has answered and whose client waits still
};

struct Counts {
  std::uint64_t Asked = 0, Connections = 0;
  std::map<End, std::uint64_t> Ends;
  std::map<std::pair<int, int>, std::uint64_t> Codes;  // of the agent's answers, with SysErr
  std::uint64_t Management = 0, HungUpReceived = 0, Reused = 0;
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
  Request& Ask(std::uint64_t connection, int task, int node, std::uint32_t answerSize);
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
  };

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
