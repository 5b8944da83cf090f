#include "tools/lumo_node/node.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "tools/lumo_node/answers.h"

namespace lumo::node {
namespace {

constexpr std::size_t kControlFrame = 12;

enum ControlType : std::uint32_t { kReceiveTimeout = 0, kSendTimeoutOrAlive = 1, kClientDead = 2 };

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

std::string ControlText(std::uint32_t type, std::uint32_t parameter) {
  switch (type) {
    case kReceiveTimeout:
      return "ReceiveTimeout " + std::to_string(parameter);
    case kSendTimeoutOrAlive:
      return parameter ? "SendTimeout " + std::to_string(parameter >> 16) : "alive";
    case kClientDead:
      return "CKIL pid " + std::to_string(parameter);
    default:
      return "control type " + std::to_string(type) + " parameter " + std::to_string(parameter);
  }
}

std::string Tag(const Message& message) {
  return "task " + std::to_string(message.TrailerTaskName()) + " index " +
         std::to_string(message.AstInd());
}

std::string AnswerText(const Message& answer) {
  return "answer " + Tag(answer) + ": code " + std::to_string(answer.CodErr) + ", rows " +
         std::to_string(answer.RowCount) + ", " + std::to_string(answer.LnBufRow) + " bytes";
}

}  // namespace

Node::Node(const Options& options, EventLog* log, Database* database)
    : faults_(options.Faults), echo_(options.Echo), log_(log), database_(database) {}

void Node::Add(std::unique_ptr<Transport> transport) {
  transport->SetDeaf(faults_.Deaf);
  transports_.push_back(std::move(transport));
}

void Node::Run(int stopDescriptor, Control* control) {
  while (Wait(stopDescriptor, control)) {
    const auto set = [this](const std::string& line) { SetFaults(line); };
    if (control && control->Serve(set)) return;
    for (const auto& transport : transports_) {
      Transport* const way = transport.get();
      way->Serve(
          [this, way](PeerId peer, const std::string& frame) { TakePacket(way, peer, frame); });
    }
    SendDue();
  }
}

void Node::SetFaults(const std::string& line) {
  faults_ = ParseFaults(line);
  packets_.clear();
  QueueCollected();
  for (const auto& transport : transports_) transport->SetDeaf(faults_.Deaf);
  log_->Write("faults: " + (line.empty() ? "none" : line));
}

bool Node::Wait(int stopDescriptor, Control* control) {
  std::vector<pollfd> wanted{{stopDescriptor, POLLIN, 0}};
  int timeout = -1;
  const auto atMost = [&timeout](int limit) {
    if (limit >= 0 && (timeout < 0 || limit < timeout)) timeout = limit;
  };
  for (const auto& transport : transports_) atMost(transport->Collect(&wanted));
  if (control) control->Collect(&wanted);
  if (!due_.empty()) {
    const auto left = std::chrono::ceil<Milliseconds>(due_.begin()->first - Clock::now()).count();
    atMost(static_cast<int>(std::max<decltype(left)>(left, 0)));
  }
  poll(wanted.data(), wanted.size(), timeout);
  return wanted.front().revents == 0;
}

void Node::TakePacket(Transport* transport, PeerId peer, const std::string& frame) {
  const int count = faults_.CloseAfter ? ++packets_[{transport, peer}] : 0;
  if (transport->HasControlPackets() && frame.size() == kControlFrame) {
    LogControl(frame);
  } else if (const std::optional<Message> message = Decode(frame); !message) {
    log_->Write("malformed packet of " + std::to_string(frame.size()) + " bytes");
  } else if (IsClientDeath(*message)) {
    log_->Write("CKIL pid " + std::to_string(message->TrailerTaskName()));
  } else if (!faults_.CloseAfter || count < faults_.CloseAfter) {
    TakeRequest(transport, peer, *message);
  }
  if (faults_.CloseAfter && count >= faults_.CloseAfter) {
    packets_.erase({transport, peer});
    transport->CloseAfterSending(peer);
  }
}

void Node::LogControl(const std::string& frame) {
  std::uint32_t type, parameter;
  std::memcpy(&type, frame.data() + 4, sizeof type);
  std::memcpy(&parameter, frame.data() + 8, sizeof parameter);
  log_->Write(ControlText(type, parameter));
}

void Node::TakeRequest(Transport* transport, PeerId peer, const Message& request) {
  if (echo_ && IsHeld(request)) return;
  if (!echo_)
    log_->Write("request " + Tag(request) + ": " +
                (IsLinkTest(request) ? "link test" : Printable(RequestSql(request))));
  if (faults_.Silent) return;
  const Message answer = echo_ ? request : RunRequest(request);
  Collect({.Way = transport,
           .Peer = peer,
           .Frame = Spoil(Encode(answer, transport->FrameLengths()), faults_.Malformed),
           .Event = echo_ ? "" : AnswerText(answer)});
}

Message Node::RunRequest(const Message& request) {
  const bool test = IsLinkTest(request);
  return MakeAnswer(request, test ? QueryResult() : database_->Run(RequestSql(request), kMaxText));
}

void Node::Collect(Pending answer) {
  collected_.push_back(std::move(answer));
  if (collected_.size() >= static_cast<std::size_t>(faults_.OutOfOrder)) QueueCollected();
}

void Node::QueueCollected() {
  const Clock::time_point due = Clock::now() + Milliseconds(faults_.DelayMs);
  for (; !collected_.empty(); collected_.pop_back())
    due_.emplace(due, std::move(collected_.back()));
}

void Node::SendDue() {
  while (!due_.empty() && due_.begin()->first <= Clock::now()) {
    SendOne(due_.begin()->second);
    due_.erase(due_.begin());
  }
}

void Node::SendOne(const Pending& answer) {
  for (int i = 0; i < (faults_.Twice ? 2 : 1); ++i) {
    answer.Way->Send(answer.Peer, answer.Frame);
    if (!answer.Event.empty()) log_->Write(answer.Event);
  }
  if (faults_.Malformed == Malformed::Truncated) answer.Way->CloseAfterSending(answer.Peer);
}

}  // namespace lumo::node
