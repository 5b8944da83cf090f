#include "tests/endurance/ledger.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace endurance {
namespace {

constexpr std::uint32_t kTags = 65000;  // the tags above are for answers to nothing
constexpr int kUnknownNodeCode = 4050;

std::string Filled(std::string text, std::uint64_t seed, std::size_t size) {
  text.reserve(size);
  std::uint64_t state = seed;
  while (text.size() < size) {
    state = Mix(state, size);
    text += static_cast<char>('!' + state % 90);
  }
  return text;
}

// The number that a text of ours begins with, behind its first letter; 0: it is none.
std::uint64_t NumberIn(const std::string& text, char kind) {
  if (text.size() < 2 || text[0] != kind) return 0;
  return std::strtoull(text.c_str() + 1, nullptr, 10);
}

const char* Name(End end) {
  switch (end) {
    case End::Open:
      return "waiting";
    case End::NodeAnswered:
      return "answered by the node";
    case End::AgentAnswered:
      return "answered by the agent";
    case End::HungUp:
      return "dropped, the client had hung up";
    case End::Malformed:
      return "dropped, the client's message was malformed";
    case End::NotTaken:
      return "dropped, the client took no answers";
    case End::ProcessDied:
      return "dropped, the client's process had died";
    case End::NeverSent:
      return "never sent";
  }
  return "";
}

}  // namespace

void Ledger::SetTasks(const std::vector<std::int32_t>& taskNames) {
  tasks_.resize(taskNames.size());
  for (std::size_t i = 0; i < taskNames.size(); ++i) {
    tasks_[i].Name = taskNames[i];
    tasks_[i].ByTag.assign(kTags, 0);
  }
}

void Ledger::ReplaceTask(int task, std::int32_t taskName) {
  Task& place = tasks_[static_cast<std::size_t>(task)];
  died_.push_back(place.Name);
  place = {.Name = taskName, .NextTag = 0, .Ready = {}, .ByTag = {}};
  place.ByTag.assign(kTags, 0);
}

bool Ledger::TaskDied(std::int32_t taskName) const {
  return std::find(died_.begin(), died_.end(), taskName) != died_.end();
}

bool Ledger::HasTag(int task) const {
  const Task& place = tasks_[static_cast<std::size_t>(task)];
  return !place.Ready.empty() || place.NextTag < kTags;
}

// The tag that became free last is the first to be used again: an answer that comes too late or
// twice would meet the new request.
Request& Ledger::Ask(std::uint64_t connection, int task, int node, std::uint32_t answerSize) {
  Task& place = tasks_[static_cast<std::size_t>(task)];
  Request request;
  request.Number = first_ + requests_.size() + 1;
  request.Connection = connection;
  request.Task = task;
  request.TaskName = place.Name;
  request.Node = node;
  request.AnswerSize = answerSize;
  request.AskedAt = Clock::now();
  if (!place.Ready.empty()) {
    request.Tag = place.Ready.back();
    place.Ready.pop_back();
    ++Total.Reused;
  } else {
    request.Tag = static_cast<std::uint16_t>(place.NextTag++);
  }
  if (node >= 0) {
    request.NodeAccepted = History(node).Accepted;
    request.NodeShut = History(node).Shut - History(node).Away;
  }
  place.ByTag[request.Tag] = request.Number;
  requests_.push_back(request);
  ++open_;
  ++Total.Asked;
  return requests_.back();
}

Request* Ledger::Find(std::uint64_t number) {
  if (number <= first_ || number > first_ + requests_.size()) return nullptr;
  return &requests_[number - first_ - 1];
}

void Ledger::CountEnd(const Request& request) {
  ++Total.Ends[request.Ended];
  if (request.Ended == End::NeverSent) --Total.Asked;
  if (request.Ended == End::HungUp && request.Incarnation >= 0) ++Total.HungUpReceived;
}

void Ledger::Close(Request& request, End end) {
  request.Ended = end;
  --open_;
  CountEnd(request);
  if (request.Node >= 0 && request.Answers > 0) --History(request.Node).AnsweredOpen;
  const bool answered = end == End::NodeAnswered || end == End::AgentAnswered;
  Task& place = tasks_[static_cast<std::size_t>(request.Task)];
  if (answered && !request.Stray && place.Name == request.TaskName)
    place.Ready.push_back(request.Tag);
}

std::string Ledger::RequestText(const Request& request) const {
  const std::uint64_t mixed = Mix(seed_, request.Number);
  const std::size_t size = mixed % 100 < 3 ? mixed / 100 % 6000 : 16 + mixed / 100 % 64;
  return Filled("Q" + std::to_string(request.Number) + " ", mixed, size);
}

std::string Ledger::AnswerText(const Request& request) const {
  return Filled("A" + std::to_string(request.Number) + " ", Mix(request.Number, seed_),
                request.AnswerSize);
}

Request& Ledger::Received(int node, int incarnation, const lumo::Message& message) {
  Request* const request = Find(NumberIn(message.Strings[0], 'Q'));
  if (!request) Fail("a node got a request that was never made", nullptr, message);
  if (request->Node != node) Fail("the wrong node got a request", request, message);
  if (request->Incarnation >= 0) Fail("a node got a request twice", request, message);
  if (request->Ended == End::NeverSent)
    Fail("a node got a request that was not sent whole", request, message);
  if (request->Ended == End::NodeAnswered || request->Ended == End::AgentAnswered)
    Fail("a node got a request that had been answered", request, message);
  if (message.TrailerTaskName() != request->TaskName || message.AstInd() != request->Tag ||
      message.PrzExe != static_cast<std::uint32_t>(request->Number) ||
      message.Strings[0] != RequestText(*request))
    Fail("a request reached its node changed", request, message);
  request->Incarnation = incarnation;
  if (request->Ended == End::HungUp) ++Total.HungUpReceived;
  return *request;
}

void Ledger::AnswerGoesOut(Request& request) {
  if (request.Answers++ == 0 && request.Ended == End::Open) ++History(request.Node).AnsweredOpen;
}

Request& Ledger::Arrived(std::uint64_t connection, const lumo::Message& message) {
  Request& request = message.TrailerTaskName() != 0 ? TakeNodeAnswer(connection, message)
                                                    : TakeAgentAnswer(connection, message);
  Close(request, message.TrailerTaskName() != 0 ? End::NodeAnswered : End::AgentAnswered);
  return request;
}

Request& Ledger::TakeNodeAnswer(std::uint64_t connection, const lumo::Message& message) {
  Request* const request = Find(NumberIn(message.Strings[0], 'A'));
  if (!request) Fail("an answer to no request of this round", nullptr, message);
  if (request->Connection != connection) Fail("an answer on a wrong connection", request, message);
  if (request->Ended != End::Open) Fail("a second answer", request, message);
  if (request->Answers == 0) Fail("an answer that the node never gave", request, message);
  if (message.RowCount != 0)
    Fail("the node's first answer was lost and a later copy came", request, message);
  if (message.TaskName != request->TaskName || message.TrailerTaskName() != request->TaskName ||
      message.AstInd() != request->Tag || message.Strings[0] != AnswerText(*request))
    Fail("an answer came changed", request, message);
  return *request;
}

Request& Ledger::TakeAgentAnswer(std::uint64_t connection, const lumo::Message& message) {
  Request* request = nullptr;
  for (const Task& task : tasks_) {
    if (task.Name == message.TaskName && message.AstInd() < kTags)
      request = Find(task.ByTag[message.AstInd()]);
  }
  if (!request) Fail("an answer of the agent to no request of this round", nullptr, message);
  if (request->Connection != connection)
    Fail("an answer of the agent on a wrong connection", request, message);
  if (request->Ended != End::Open) Fail("a second answer, of the agent", request, message);
  JudgeCode(*request, message);
  return *request;
}

// Some failure of the node's link falls into the request's time. A request that the node got went
// over one connection; one that it did not get went over the newest connection that the node knew
// of or a later one, or there was none to be had.
bool Ledger::Explained(const Request& request) {
  const NodeHistory& history = History(request.Node);
  if (request.Incarnation >= 0)
    return history.Broken[static_cast<std::size_t>(request.Incarnation)];
  return history.LastBroken >= request.NodeAccepted - 1 || history.Shut > request.NodeShut;
}

void Ledger::JudgeCode(const Request& request, const lumo::Message& message) {
  if (request.Node == kManagement) {
    if (message.CodErr != 0 || message.RowId != request.Expected)
      Fail("a management command with a wrong result", &request, message);
    ++Total.Management;
    return;
  }
  ++Total.Codes[{message.CodErr, message.SysErr}];
  if (request.Node == kNoSuchNode) {
    if (message.CodErr != kUnknownNodeCode) Fail("an unknown node, answered", &request, message);
    return;
  }
  const std::vector<int>& codes = History(request.Node).Codes;
  if (std::find(codes.begin(), codes.end(), message.CodErr) == codes.end())
    Fail("a code that this node's link cannot have", &request, message);
  if (!Explained(request)) Fail("a failure, and the node had not failed", &request, message);
}

void Ledger::EndRound() {
  if (open_ != 0) throw Failure("a round ends with open requests\n" + DescribeOpen());
  first_ += requests_.size();
  requests_.clear();
  for (Task& task : tasks_) {
    task.NextTag = 0;
    task.Ready.clear();
    task.ByTag.assign(kTags, 0);
  }
}

std::string Ledger::Describe(const Request& request) const {
  std::ostringstream text;
  text << "request " << request.Number << " of connection " << request.Connection << ", task name "
       << request.TaskName << ", AstInd " << request.Tag << ", node " << request.Node << ", "
       << Name(request.Ended) << ", asked "
       << std::chrono::duration_cast<Milliseconds>(Clock::now() - request.AskedAt).count()
       << " ms ago, the node "
       << (request.Incarnation < 0
               ? std::string("never got it")
               : "got it over connection " + std::to_string(request.Incarnation) + " and sent " +
                     std::to_string(request.Answers) + " answers");
  return text.str();
}

std::string Ledger::DescribeOpen() const {
  std::string text = std::to_string(open_) + " requests are not answered; the first:\n";
  int shown = 0;
  for (const Request& request : requests_) {
    if (request.Ended == End::Open && ++shown <= 8) text += "  " + Describe(request) + "\n";
  }
  return text;
}

void Ledger::Fail(const std::string& what, const Request* request,
                  const lumo::Message& message) const {
  std::ostringstream text;
  text << what << "\n  message: task name " << message.TaskName << ", trailer "
       << message.TrailerTaskName() << ", AstInd " << message.AstInd() << ", CodErr "
       << message.CodErr << ", SysErr " << message.SysErr << ", copy " << message.RowCount
       << ", node '" << lumo::NodeText(message) << "', text '" << message.Strings[0].substr(0, 40)
       << "'\n";
  if (request) text << "  " << Describe(*request) << "\n";
  throw Failure(text.str());
}

}  // namespace endurance
