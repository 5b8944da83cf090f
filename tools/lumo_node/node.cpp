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

}  // namespace

Node::Node(const Options& options, EventLog* log, Database* database)
    : options_(options), log_(log), database_(database) {}

void Node::Add(std::unique_ptr<Transport> transport) {
  transports_.push_back(std::move(transport));
}

void Node::Run(int stopDescriptor) {
  while (!Wait(stopDescriptor)) {
    for (const auto& transport : transports_) {
      Transport* const way = transport.get();
      way->Serve(
          [this, way](PeerId peer, const std::string& frame) { TakePacket(way, peer, frame); });
    }
    SendDue();
  }
}

int Node::Wait(int stopDescriptor) {
  std::vector<pollfd> wanted{{stopDescriptor, POLLIN, 0}};
  int timeout = -1;
  const auto atMost = [&timeout](int limit) {
    if (limit >= 0 && (timeout < 0 || limit < timeout)) timeout = limit;
  };
  for (const auto& transport : transports_) atMost(transport->Collect(&wanted));
  if (!due_.empty()) {
    const auto left = std::chrono::ceil<Milliseconds>(due_.front().Due - Clock::now()).count();
    atMost(static_cast<int>(std::max<decltype(left)>(left, 0)));
  }
  poll(wanted.data(), wanted.size(), timeout);
  return wanted.front().revents;
}

void Node::TakePacket(Transport* transport, PeerId peer, const std::string& frame) {
  const int count = options_.CloseAfter ? ++packets_[{transport, peer}] : 0;
  if (transport->HasControlPackets() && frame.size() == kControlFrame) {
    LogControl(frame);
  } else if (const std::optional<Message> message = Decode(frame); !message) {
    log_->Write("malformed packet of " + std::to_string(frame.size()) + " bytes");
  } else if (IsClientDeath(*message)) {
    log_->Write("CKIL pid " + std::to_string(message->TrailerTaskName()));
  } else if (!options_.CloseAfter || count < options_.CloseAfter) {
    TakeRequest(transport, peer, *message);
  }
  if (options_.CloseAfter && count >= options_.CloseAfter) {
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
  const bool test = IsLinkTest(request);
  log_->Write("request " + Tag(request) + ": " +
              (test ? "link test" : Printable(RequestSql(request))));
  if (options_.Silent) return;
  const QueryResult result = test ? QueryResult() : database_->Run(RequestSql(request), kMaxText);
  const Message answer = MakeAnswer(request, result);
  Queue({.Due = Clock::now() + Milliseconds(options_.DelayMs),
         .Way = transport,
         .Peer = peer,
         .Frame = Spoil(Encode(answer, transport->FrameLengths()), options_.Malformed),
         .Event = "answer " + Tag(answer) + ": code " + std::to_string(answer.CodErr) + ", rows " +
                  std::to_string(answer.RowCount) + ", " + std::to_string(answer.LnBufRow) +
                  " bytes"});
}

void Node::Queue(Pending answer) {
  collected_.push_back(std::move(answer));
  if (collected_.size() < static_cast<std::size_t>(options_.OutOfOrder)) return;
  std::move(collected_.rbegin(), collected_.rend(), std::back_inserter(due_));
  collected_.clear();
}

void Node::SendDue() {
  while (!due_.empty() && due_.front().Due <= Clock::now()) {
    SendOne(due_.front());
    due_.pop_front();
  }
}

void Node::SendOne(const Pending& answer) {
  for (int i = 0; i < (options_.Twice ? 2 : 1); ++i) {
    answer.Way->Send(answer.Peer, answer.Frame);
    log_->Write(answer.Event);
  }
  if (options_.Malformed == Malformed::Truncated) answer.Way->CloseAfterSending(answer.Peer);
}

}  // namespace lumo::node
