#include "tests/endurance/node.h"

#include <utility>

namespace endurance {
namespace {

constexpr std::int32_t kNobody = 0x7FFFFFF0;    // a task name that no process has
constexpr std::uint16_t kFirstFreeTag = 65001;  // tags that no request has
constexpr std::uint16_t kDeathTag = 0xFFFF;

// An answer under the request's name; the text is to be filled in.
lumo::Message NamedLike(const lumo::Message& request) {
  lumo::Message answer;
  answer.TaskName = request.TaskName;
  answer.Node = request.Node;
  answer.PrzExe = request.PrzExe;
  answer.Trailer = request.Trailer;
  return answer;
}

}  // namespace

Node::Node(const NodeSetting& setting) : setting_(setting) {}

int Node::Begin() {
  current_ = history().Accepted++;
  history().Broken.push_back(false);
  untilBreak_ = luck().Around(setting_.BreakAfter);
  heard_ = false;
  Touch();
  return current_;
}

void Node::MarkBroken(const std::string& fault) {
  Fault(fault);
  history().Broken[static_cast<std::size_t>(current_)] = true;
  history().LastBroken = current_;
  current_ = -1;
  scheduled_ = {};
  swapped_.reset();
  history().Waiting.clear();
  Touch();
}

void Node::GoAway(Time until) {
  Fault("node away for a while");
  history().Away = true;
  ++history().Shut;
  awayUntil_ = until;
  Touch();
}

void Node::ComeBack() {
  history().Away = false;
  Touch();
}

void Node::Step(Time now) {
  SendDue(now);
  if (Connected() && !settling_ && untilBreak_ <= 0) Break(now);
}

void Node::Take(const lumo::Message& message) {
  Touch();
  heard_ = true;
  if (message.Command == "CKIL" || message.AstInd() == kDeathTag)
    return CheckDeath(message.TrailerTaskName());
  Request& request = account().Received(setting_.Index, current_, message);
  if (!request.Sentinel) --untilBreak_;
  Plan(request, message, Clock::now());
}

void Node::CheckDeath(std::int32_t pid) {
  Fault("death of a client process told");
  if (!account().TaskDied(pid))
    throw Failure("node " + setting_.Name + " was told of the death of process " +
                  std::to_string(pid) + ", which lives");
}

Microseconds Node::Delay() {
  const int kind = luck().Between(0, 99);
  if (kind < 78) return Microseconds(0);
  if (kind < 89) return Microseconds(luck().Between(1, 3000));
  if (kind < 98) return Microseconds(luck().Between(1, 30000));
  Fault("answer held back");
  return Microseconds(luck().Between(50000, 250000));
}

// Answers with different delays overtake each other.
void Node::Plan(Request& request, const lumo::Message& message, Time now) {
  if (request.Sentinel || settling_) return Schedule(request, message, now, 0);
  if (luck().PerMille(15)) SendToNobody(message);
  if (luck().PerMille(10) && !Others.empty()) {
    Node* const other = Others[luck().Below(Others.size())];
    other->AnswerForAnother(request, message);
  }
  const Time due = now + Delay();
  Schedule(request, message, due, 0);
  if (request.Shared || !luck().PerMille(40)) return;
  Fault("answer given twice");
  request.Stray = true;
  Schedule(request, message, due + Delay(), 1);
}

void Node::Schedule(const Request& request, const lumo::Message& message, Time due, int copy) {
  lumo::Message answer = NamedLike(message);
  answer.RowCount = copy;
  answer.Strings[0] = account().AnswerText(request);
  scheduled_.push({due, ++lastOrder_, request.Number, current_, copy, std::move(answer)});
}

void Node::SendDue(Time now) {
  while (!scheduled_.empty() && (settling_ || scheduled_.top().Due <= now) && Connected()) {
    Answer answer = scheduled_.top();
    scheduled_.pop();
    Send(std::move(answer));
  }
}

void Node::Send(Answer answer) {
  Request* const request = account().Find(answer.Number);
  if (!request) throw Failure("a node's answer is older than the round");
  Touch();
  if (lying_ && !request->Stray) TakeAnotherName(answer.Number, &answer.Message);
  account().AnswerGoesOut(*request);
  if (swapping_ && request->Shared && Swapped(answer)) return;
  Transmit(answer.Message);
}

// Only one that another of its name will follow is held.
bool Node::Swapped(const Answer& answer) {
  const auto name = std::pair(answer.Message.TrailerTaskName(), answer.Message.AstInd());
  if (!swapped_) {
    if (history().Waiting.count(name) == 0) return false;
    swapped_ = answer;
    return true;
  }
  if (name != std::pair(swapped_->Message.TrailerTaskName(), swapped_->Message.AstInd()))
    return false;
  Transmit(answer.Message);
  Transmit(swapped_->Message);
  swapped_.reset();
  return true;
}

// The name of another connection's request that this node has not answered yet, if there is one.
void Node::TakeAnotherName(std::uint64_t number, lumo::Message* answer) const {
  const std::uint64_t connection = account().Find(number)->Connection;
  while (const Request* const other = account().Find(--number)) {
    if (other->Ended != End::Open || other->Incarnation != current_ || other->Answers > 0 ||
        other->Node != setting_.Index || other->Connection == connection)
      continue;
    answer->SetTrailerTaskName(other->TaskName);
    answer->SetAstInd(other->Tag);
    return;
  }
}

// One of the two halves of the name is that of a request under way.
void Node::SendToNobody(const lumo::Message& request) {
  Fault("answer to an unknown name");
  lumo::Message answer = NamedLike(request);
  if (luck().Percent(50))
    answer.SetTrailerTaskName(kNobody);
  else
    answer.SetAstInd(static_cast<std::uint16_t>(kFirstFreeTag + luck().Below(500)));
  answer.Strings[0] = "answer to nobody";
  Transmit(answer);
}

void Node::AnswerForAnother(Request& request, const lumo::Message& message) {
  if (!Connected() || !heard_ || settling_ || request.Ended != End::Open) return;
  Fault("answer on another node's link");
  request.Stray = true;
  lumo::Message answer = NamedLike(message);
  answer.Strings[0] = "answer of another node";
  Transmit(answer);
}

}  // namespace endurance
