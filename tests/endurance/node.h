// What the nodes of a run have in common: each answers its requests late, in another order, twice,
// or not at all before it breaks, and puts answers that nobody waits for between them.
#pragma once
#include <cstdint>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "tests/endurance/ledger.h"

namespace endurance {

struct NodeSetting {
  Loop* Events;
  Ledger* Account;
  Chance* Luck;
  int Index;         // in the ledger and in the node table
  int BreakAfter;    // requests, on average
  std::string Name;  // of the node
};

class Node {
 public:
  explicit Node(const NodeSetting& setting);
  virtual ~Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  virtual std::string Line() const = 0;  // of the node table
  virtual void Step(Time now);           // in each pass of the loop
  // Nothing is left to be sent and nothing is under way to or from it, as far as it can see.
  virtual bool Idle() const { return scheduled_.empty(); }
  // Descriptors and children of the agent that belong to its connection here.
  virtual int AgentDescriptors() const = 0;
  virtual int AgentChildren() const { return 0; }
  // Answers all that is held back, breaks no more and is not away any longer.
  void Settle(bool on) { settling_ = on; }
  // A request to another node is answered here: its answer must be dropped.
  void AnswerForAnother(Request& request, const lumo::Message& message);
  // To see that the checks see: from now on answers go out under other requests' names. One lie
  // would not do: it is never heard when its link breaks or its client hangs up first.
  void Lie() { lying_ = true; }
  // The same among connections that share a name: of two answers the account has noted the one
  // first, the agent gets the other first.
  void SwapAnswers() { swapping_ = true; }

  const std::string& Name() const { return setting_.Name; }
  std::uint64_t Activity() const { return activity_; }
  std::vector<Node*> Others;

 protected:
  virtual void Transmit(const lumo::Message& message) = 0;
  virtual void Break(Time now) = 0;
  virtual bool Connected() const = 0;

  // A new connection of the agent, its number; the end of the present one.
  int Begin();
  void MarkBroken(const std::string& fault);
  void GoAway(Time until);
  bool IsAway() const { return history().Away; }
  void ComeBack();
  // A whole message from the agent.
  void Take(const lumo::Message& message);
  void Fault(const std::string& name) { ++account().Total.Faults[name]; }

  Ledger& account() const { return *setting_.Account; }
  Chance& luck() const { return *setting_.Luck; }
  NodeHistory& history() const { return account().History(setting_.Index); }
  const NodeSetting& setting() const { return setting_; }
  bool settling() const { return settling_; }
  Time awayUntil() const { return awayUntil_; }
  void Touch() { ++activity_; }

 private:
  struct Answer {
    Time Due;
    std::uint64_t Order;
    std::uint64_t Number;
    int Incarnation;
    int Copy;
    lumo::Message Message;
    bool operator<(const Answer& other) const {
      return Due != other.Due ? Due > other.Due : Order > other.Order;
    }
  };

  void Plan(Request& request, const lumo::Message& message, Time now);
  void Schedule(const Request& request, const lumo::Message& message, Time due, int copy);
  void SendDue(Time now);
  void Send(Answer answer);
  void TakeAnotherName(std::uint64_t number, lumo::Message* answer) const;
  bool Swapped(const Answer& answer);
  void SendToNobody(const lumo::Message& request);
  void CheckDeath(std::int32_t pid);
  Microseconds Delay();

  NodeSetting setting_;
  std::priority_queue<Answer> scheduled_;
  std::uint64_t lastOrder_ = 0, activity_ = 0;
  int current_ = -1;
  int untilBreak_ = 0;
  bool settling_ = false, lying_ = false, swapping_ = false;
  std::optional<Answer> swapped_;  // has been noted and waits for the next one of its name
  bool heard_ = false;             // the agent has sent something over the present connection
  Time awayUntil_;
};

}  // namespace endurance
