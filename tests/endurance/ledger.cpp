#include "tests/endurance/ledger.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace endurance {
namespace {

// Of one connection at a time; those that are shared; the tags above are for answers to nothing.
constexpr std::uint32_t kTags = 64000, kFirstShared = kTags;
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

// Of each End, in its order.
constexpr const char* kEndNames[] = {"waiting",
                                     "answered by the node",
                                     "answered by the agent",
                                     "dropped, the client had hung up",
                                     "dropped, the client's message was malformed",
                                     "dropped, the client took no answers",
                                     "dropped, the client's process had died",
                                     "never sent"};
static_assert(std::size(kEndNames) == static_cast<std::size_t>(End::NeverSent) + 1);

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
  place = {.Name = taskName, .NextTag = 0, .Ready = {}, .ByTag = {}, .Sharing = {}};
  place.ByTag.assign(kTags, 0);
}

bool Ledger::TaskDied(std::int32_t taskName) const {
  return std::find(died_.begin(), died_.end(), taskName) != died_.end();
}

bool Ledger::HasTag(int task) const {
  const Task& place = tasks_[static_cast<std::size_t>(task)];
  return !place.Ready.empty() || place.NextTag < kTags;
}

std::vector<std::uint64_t>& Ledger::SharingWith(const Request& request) {
  return tasks_[static_cast<std::size_t>(request.Task)].Sharing[request.Tag - kFirstShared];
}

Request* Ledger::SharedRequestOf(std::uint64_t connection,
                                 const std::vector<std::uint64_t>& sharing) {
  for (const std::uint64_t number : sharing) {
    if (Find(number)->Connection == connection) return Find(number);
  }
  return nullptr;
}

// The tag that became free last is the first to be used again: an answer that comes too late or
// twice would meet the new request.
void Ledger::ChooseTag(Task* place, Request* request, int sharedTag) {
  if (sharedTag >= 0) {
    std::vector<std::uint64_t>& sharing = place->Sharing[static_cast<std::size_t>(sharedTag)];
    request->Shared = !SharedRequestOf(request->Connection, sharing);
    if (request->Shared) {
      request->Tag = static_cast<std::uint16_t>(kFirstShared + static_cast<unsigned>(sharedTag));
      if (!sharing.empty()) ++Total.Shared;
      sharing.push_back(request->Number);
      return;
    }
  }
  if (!place->Ready.empty()) {
    request->Tag = place->Ready.back();
    place->Ready.pop_back();
    ++Total.Reused;
  } else {
    request->Tag = static_cast<std::uint16_t>(place->NextTag++);
  }
  place->ByTag[request->Tag] = request->Number;
}

Request& Ledger::Ask(std::uint64_t connection, int task, int node, std::uint32_t answerSize,
                     int sharedTag) {
  Task& place = tasks_[static_cast<std::size_t>(task)];
  Request request;
  request.Number = first_ + requests_.size() + 1;
  request.Connection = connection;
  request.Task = task;
  request.TaskName = place.Name;
  request.Node = node;
  request.AnswerSize = answerSize;
  request.AskedAt = Clock::now();
  ChooseTag(&place, &request, sharedTag);
  if (node >= 0) {
    request.NodeAccepted = History(node).Accepted;
    request.NodeShut = History(node).Shut - History(node).Away;
  }
  requests_.push_back(request);
  ++open_;
  ++Total.Asked;
  return requests_.back();
}

Request* Ledger::Find(std::uint64_t number) {
  if (number <= first_ || number > first_ + requests_.size()) return nullptr;
  return &requests_[static_cast<std::size_t>(number - first_ - 1)];
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
  if (request.GetsAnswerOf > 0) --History(request.Node).AnsweredOpen;
  const bool answered = end == End::NodeAnswered || end == End::AgentAnswered;
  Task& place = tasks_[static_cast<std::size_t>(request.Task)];
  if (place.Name != request.TaskName) return;
  if (request.Shared)
    std::erase(SharingWith(request), request.Number);
  else if (answered && !request.Stray)
    place.Ready.push_back(request.Tag);
}

std::string Ledger::RequestText(const Request& request) const {
  const std::uint64_t mixed = Mix(seed_, request.Number);
  const std::uint64_t size = mixed % 100 < 3 ? mixed / 100 % 6000 : 16 + mixed / 100 % 64;
  return Filled("Q" + std::to_string(request.Number) + " ", mixed, static_cast<std::size_t>(size));
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
  if (request->Shared)
    History(node).Waiting[{request->TaskName, request->Tag}].push_back(request->Number);
  if (request->Ended == End::HungUp) ++Total.HungUpReceived;
  return *request;
}

void Ledger::AnswerGoesOut(Request& request) {
  if (request.Answers++ > 0) return;
  NodeHistory& history = History(request.Node);
  Request* owner = &request;
  if (request.Shared) {
    const auto waiting = history.Waiting.find({request.TaskName, request.Tag});
    owner = Find(waiting->second.front());
    waiting->second.pop_front();
    if (waiting->second.empty()) history.Waiting.erase(waiting);
  }
  request.AnswerGoesTo = owner->Number;
  owner->GetsAnswerOf = request.Number;
  if (owner->Ended == End::Open) ++history.AnsweredOpen;
}

Request& Ledger::Arrived(std::uint64_t connection, const lumo::Message& message) {
  Request& request = message.TrailerTaskName() != 0 ? TakeNodeAnswer(connection, message)
                                                    : TakeAgentAnswer(connection, message);
  Close(request, message.TrailerTaskName() != 0 ? End::NodeAnswered : End::AgentAnswered);
  return request;
}

Request& Ledger::TakeNodeAnswer(std::uint64_t connection, const lumo::Message& message) {
  const Request* const answered = Find(NumberIn(message.Strings[0], 'A'));
  if (!answered) Fail("an answer to no request of this round", nullptr, message);
  if (answered->Answers == 0) Fail("an answer that the node never gave", answered, message);
  Request* const request = Find(answered->AnswerGoesTo);
  if (request->Connection != connection) Fail("an answer on a wrong connection", request, message);
  if (request->Ended != End::Open) Fail("a second answer", request, message);
  if (message.RowCount != 0)
    Fail("the node's first answer was lost and a later copy came", request, message);
  if (message.TaskName != request->TaskName || message.TrailerTaskName() != request->TaskName ||
      message.AstInd() != request->Tag || message.Strings[0] != AnswerText(*answered))
    Fail("an answer came changed", request, message);
  if (answered != request) ++Total.OfAnother;
  return *request;
}

Request& Ledger::TakeAgentAnswer(std::uint64_t connection, const lumo::Message& message) {
  Request* request = nullptr;
  const std::uint32_t tag = message.AstInd();
  for (const Task& task : tasks_) {
    if (task.Name != message.TaskName) continue;
    if (tag < kTags)
      request = Find(task.ByTag[tag]);
    else if (tag - kFirstShared < kSharedTags)
      request = SharedRequestOf(connection, task.Sharing[tag - kFirstShared]);
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
  for (const NodeHistory& history : histories_) {
    if (!history.Waiting.empty()) throw Failure("a round ends with requests that have no answer");
  }
}

std::string Ledger::Describe(const Request& request) const {
  std::ostringstream text;
  text << "request " << request.Number << " of connection " << request.Connection << ", task name "
       << request.TaskName << ", AstInd " << request.Tag << ", node " << request.Node << ", "
       << kEndNames[static_cast<std::size_t>(request.Ended)] << ", asked "
       << std::chrono::duration_cast<Milliseconds>(Clock::now() - request.AskedAt).count()
       << " ms ago, the node "
       << (request.Incarnation < 0
               ? std::string("never got it")
               : "got it over connection " + std::to_string(request.Incarnation) + " and sent " +
                     std::to_string(request.Answers) + " answers");
  if (request.Shared) text << "; its name is shared";
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
