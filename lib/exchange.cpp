#include "lib/exchange.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace lumo::detail {
namespace {

constexpr std::size_t kTrailerSize = 48, kAstIndAt = 12, kTaskNameAt = 4;
constexpr int kConnectionsPerSend = 3;

std::atomic<lumo_ticket> lastTicket{0};

template <class T>
T NumberAt(std::string_view bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

// A tag that goes back unless its request went out.
class TakenTag {
 public:
  explicit TakenTag(Tags& tags) : tags_(tags), tag_(tags.Take()) {}
  ~TakenTag() {
    if (tag_) tags_.Release(*tag_);
  }
  TakenTag(const TakenTag&) = delete;
  TakenTag& operator=(const TakenTag&) = delete;
  bool Good() const { return tag_.has_value(); }
  std::uint16_t Value() const { return *tag_; }
  void Keep() { tag_.reset(); }

 private:
  Tags& tags_;
  std::optional<std::uint16_t> tag_;
};

class Undo {
 public:
  explicit Undo(int* counter) : counter_(counter) { ++*counter_; }
  ~Undo() { --*counter_; }
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;

 private:
  int* const counter_;
};

}  // namespace

// While it lives, this thread alone may wait on the socket, replace and close it. Made and
// destroyed with the mutex held.
class Exchange::Busy {
 public:
  explicit Busy(Exchange& exchange) : exchange_(exchange) { exchange_.busy_ = true; }
  ~Busy() {
    exchange_.busy_ = false;
    if (exchange_.lost_) exchange_.CloseSocket();
    exchange_.changed_.notify_all();
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  Exchange& exchange_;
};

Exchange::Exchange(const std::string& path, const Exchange* before)
    : pid_(getpid()),
      path_(path),
      firstTicket_(lastTicket + 1),
      inherited_(before != nullptr),
      tags_(Tags::OfThisProcess()),
      agentPid_(before ? before->AgentPid() : 0),
      received_(std::make_unique<std::array<char, kReceiveRoom>>()) {
  // Nothing that has been received or half sent may be lost for want of memory.
  unsent_.reserve(kMaxMessage);
}

Exchange::~Exchange() {
  EndLost(LUMO_REASON_CONNECTION_LOST);
  CloseSocket();
  if (wake_ >= 0) close(wake_);
}

void Exchange::LeaveToParent() {
  static std::atomic<Exchange*> left{nullptr};
  for (std::atomic<int>* const descriptor : {&descriptor_, &wake_}) {
    const int number = descriptor->exchange(-1);
    if (number >= 0) close(number);
  }
  nextLeft_ = left;
  while (!left.compare_exchange_weak(nextLeft_, this)) continue;
}

std::size_t Exchange::InFlight() {
  const Lock lock(mutex_);
  return byTicket_.size();
}

// ------------------------------------------------------------------------------- The connection

Outcome Exchange::Connect(const Deadline& deadline) {
  Lock lock(mutex_);
  // Nobody may have looked at the socket since the agent went.
  if (Up() && !busy_) ReadAvailable();
  return EnsureConnected(lock, deadline);
}

Outcome Exchange::EnsureConnected(Lock& lock, const Deadline& deadline) {
  while (!Up()) {
    if (busy_) {
      if (deadline.Passed()) return {LUMO_TIMEOUT};
      deadline.Wait(changed_, lock);
      continue;
    }
    if (wake_ < 0) wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_ < 0) return {LUMO_SYSTEM, errno};
    const Busy busy(*this);
    lock.unlock();
    const AgentSocket agent = ConnectToAgent(path_, deadline);
    lock.lock();
    if (!agent.Result.Good()) return agent.Result;
    descriptor_ = agent.Socket;
    agentPid_ = agent.AgentPid;
  }
  return {};
}

void Exchange::CloseSocket() {
  const int number = descriptor_.exchange(-1);
  if (number >= 0) close(number);
  lost_ = false;
}

// The agent has gone, or cannot be understood: no answer will come to anything that is in flight.
void Exchange::Lose(lumo_reason reason) {
  lost_ = true;
  EndLost(reason);
  receivedSize_ = 0;
  unsent_.clear();
  if (!busy_) CloseSocket();
  TellAll();
}

void Exchange::EndLost(lumo_reason reason) {
  for (auto request = inFlight_.begin(); request != inFlight_.end();) {
    const auto next = std::next(request);
    tags_.Retire(request->Tag);
    byTag_.erase(request->Tag);
    if (request->Abandoned) {
      inFlight_.erase(request);
    } else {
      request->Answer->Reason = reason;
      End(request);
    }
    request = next;
  }
}

// --------------------------------------------------------------------------------------- Waiting

// Until the condition holds: false when the time is over. With a deadline that has passed it still
// looks once at what is there.
template <class Condition>
bool Exchange::WaitUntil(Lock& lock, const Deadline& deadline, Condition condition) {
  while (!condition()) {
    const bool last = deadline.Passed();
    if (busy_ && !last) {
      deadline.Wait(changed_, lock);
    } else if (!busy_) {
      Pump(lock, deadline);
    }
    if (last) return condition();
  }
  return true;
}

void Exchange::WaitForRoom(Lock& lock, const Deadline& deadline) {
  const Undo undo(&waitingForRoom_);
  if (busy_) {
    Wake();
    deadline.Wait(changed_, lock);
  } else {
    Pump(lock, deadline);
  }
}

// Waits once for the socket and does what it is ready for.
void Exchange::Pump(Lock& lock, const Deadline& deadline) {
  const Busy busy(*this);
  if (DeliverReceived()) return;  // what a lack of memory had left
  const bool writing = !unsent_.empty() || waitingForRoom_ > 0;
  std::array<pollfd, 2> ready{
      {{descriptor_, static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0}, {wake_, POLLIN, 0}}};
  lock.unlock();
  poll(ready.data(), ready.size(), deadline.Left());
  lock.lock();
  if (ready[1].revents) TakeWake();
  if (Up() && ready[0].revents & POLLOUT) FlushUnsent();
  if (Up() && ready[0].revents & ~POLLOUT) ReadAvailable();
}

void Exchange::Wake() {
  const std::uint64_t one = 1;
  // Fails only when it is readable already.
  [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
}

void Exchange::TellAll() {
  changed_.notify_all();
  if (busy_) Wake();
}

void Exchange::TakeWake() {
  std::uint64_t count;
  [[maybe_unused]] const ssize_t got = read(wake_, &count, sizeof count);
}

// --------------------------------------------------------------------------------------- Sending

Outcome Exchange::Send(Message& request, Kind kind, const Deadline& deadline, lumo_ticket* ticket) {
  return SendClaimed(request, kind, false, deadline, ticket);
}

Outcome Exchange::SendClaimed(Message& request, Kind kind, bool claimed, const Deadline& deadline,
                              lumo_ticket* ticket) {
  TakenTag tag(tags_);
  if (!tag.Good()) return {LUMO_NO_TAG};
  request.TaskName = pid_;
  request.SetTrailerTaskName(pid_);
  request.SetAstInd(tag.Value());
  const std::string frame = Encode(request, Lengths::Client);
  List pending;
  pending.push_back({.Ticket = ++lastTicket,
                     .Tag = tag.Value(),
                     .RequestKind = kind,
                     .Claimed = claimed,
                     .Ended = false,
                     .Abandoned = false,
                     .Answer = NewAnswer(tag.Value())});
  const lumo_ticket number = pending.front().Ticket;
  Lock lock(mutex_);
  const Outcome sent = SendFrame(lock, frame, pending, deadline);
  if (!sent.Good()) return sent;
  tag.Keep();
  *ticket = number;
  return {};
}

Outcome Exchange::SendFrame(Lock& lock, std::string_view frame, List& request,
                            const Deadline& deadline) {
  for (int connections = 0; connections < kConnectionsPerSend;) {
    if (!Up()) {
      ++connections;
      const Outcome connected = EnsureConnected(lock, deadline);
      if (!connected.Good()) return connected;
    }
    const bool last = deadline.Passed();
    FlushUnsent();
    if (unsent_.empty() && TrySend(frame, request)) return {};
    if (!Up()) continue;
    if (last) return {LUMO_TIMEOUT};
    WaitForRoom(lock, deadline);
  }
  return {LUMO_NO_AGENT, EPIPE};
}

bool Exchange::TrySend(std::string_view frame, List& request) {
  Register(request);
  ssize_t sent;
  do {
    sent = send(descriptor_, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (sent > 0) {
    unsent_.assign(frame.substr(static_cast<std::size_t>(sent)));
    // A thread that waits for answers alone would not notice when the rest can go out.
    if (!unsent_.empty() && busy_) Wake();
    return true;
  }
  const int error = errno;
  Unregister(request);
  if (error == EAGAIN) return false;
  // The agent has gone; its last answers may be there.
  ReadAvailable();
  if (Up()) Lose(LUMO_REASON_CONNECTION_LOST);
  return false;
}

void Exchange::Register(List& request) {
  const auto pending = request.begin();
  const auto place = byTicket_.emplace(pending->Ticket, pending).first;
  try {
    byTag_.emplace(pending->Tag, pending);
  } catch (...) {
    byTicket_.erase(place);
    throw;
  }
  if (pending->Claimed) ++claimed_;
  inFlight_.splice(inFlight_.end(), request);
}

void Exchange::Unregister(List& request) {
  const auto pending = std::prev(inFlight_.end());
  if (pending->Claimed) --claimed_;
  byTicket_.erase(pending->Ticket);
  byTag_.erase(pending->Tag);
  request.splice(request.end(), inFlight_, pending);
}

void Exchange::FlushUnsent() {
  while (!unsent_.empty()) {
    const ssize_t sent =
        send(descriptor_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    // Any other failure shows again when the socket is read.
    if (sent < 0) return;
    unsent_.erase(0, static_cast<std::size_t>(sent));
  }
}

// ------------------------------------------------------------------------------------- Receiving

// Takes what has come, but not for ever: other threads wait for the mutex.
void Exchange::ReadAvailable() {
  for (int reads = 0; reads < 16; ++reads) {
    DeliverReceived();
    if (!Up()) return;
    const ssize_t got = recv(descriptor_, received_->data() + receivedSize_,
                             received_->size() - receivedSize_, MSG_DONTWAIT);
    if (got > 0) {
      receivedSize_ += static_cast<std::size_t>(got);
    } else if (got < 0 && errno == EAGAIN) {
      return;
    } else if (got == 0 || errno != EINTR) {
      return Lose(LUMO_REASON_CONNECTION_LOST);
    }
  }
  DeliverReceived();
}

// True when there was a whole message, or something that is none.
bool Exchange::DeliverReceived() {
  const std::string_view all(received_->data(), receivedSize_);
  std::size_t at = 0;
  bool good = true;
  while (good && all.size() - at >= sizeof(std::uint32_t)) {
    const std::size_t length = NumberAt<std::uint32_t>(all, at);
    good = length >= kEmptyMessage && length <= kMaxFrame;
    if (!good || all.size() - at < length) break;
    try {
      good = Deliver(all.substr(at, length));
    } catch (...) {
      std::memmove(received_->data(), received_->data() + at, all.size() - at);
      receivedSize_ = all.size() - at;
      throw;
    }
    at += length;
  }
  if (!good) {
    Lose(LUMO_REASON_BAD_ANSWER);
    return true;
  }
  std::memmove(received_->data(), received_->data() + at, all.size() - at);
  receivedSize_ = all.size() - at;
  return at > 0;
}

// False when it is no message. An answer that nobody asked for is passed over.
bool Exchange::Deliver(std::string_view frame) {
  const auto tag = NumberAt<std::uint16_t>(frame, frame.size() - kTrailerSize + kAstIndAt);
  const auto found = byTag_.find(tag);
  if (found == byTag_.end() || NumberAt<std::int32_t>(frame, kTaskNameAt) != pid_) return true;
  const List::iterator request = found->second;
  if (!request->Abandoned) {
    const bool management = request->RequestKind == Kind::Management;
    auto message = Decode(frame, management ? Layout::Management : Layout::Ordinary);
    if (!message) return false;
    FillAnswer(std::move(*message), request->RequestKind, request->Answer.get());
  }
  tags_.Release(tag);
  byTag_.erase(found);
  if (request->Abandoned) {
    inFlight_.erase(request);
  } else {
    End(request);
  }
  return true;
}

void Exchange::End(List::iterator request) {
  request->Ended = true;
  ended_.splice(ended_.end(), inFlight_, request);
}

Outcome Exchange::Find(lumo_ticket ticket, List::iterator* request) {
  if (inherited_ && ticket != 0 && ticket < firstTicket_) return {LUMO_FORKED};
  const auto found = byTicket_.find(ticket);
  if (found == byTicket_.end() || found->second->Claimed) return {LUMO_NO_TICKET};
  *request = found->second;
  return {};
}

void Exchange::SetClaimed(List::iterator request, bool claimed) {
  if (request->Claimed == claimed) return;
  request->Claimed = claimed;
  claimed ? ++claimed_ : --claimed_;
  // A thread that waits for any request may now have this one to wait for, or none.
  TellAll();
}

AnswerPointer Exchange::Take(List::iterator request) {
  AnswerPointer answer = std::move(request->Answer);
  byTicket_.erase(request->Ticket);
  if (request->Claimed) --claimed_;
  ended_.erase(request);
  return answer;
}

Outcome Exchange::Receive(lumo_ticket ticket, const Deadline& deadline, AnswerPointer* answer) {
  Lock lock(mutex_);
  List::iterator request;
  const Outcome found = Find(ticket, &request);
  if (!found.Good()) return found;
  SetClaimed(request, true);
  return ReceiveClaimed(lock, request, deadline, answer);
}

Outcome Exchange::ReceiveClaimed(Lock& lock, List::iterator request, const Deadline& deadline,
                                 AnswerPointer* answer) {
  try {
    WaitUntil(lock, deadline, [&] { return request->Ended; });
  } catch (...) {
    SetClaimed(request, false);
    throw;
  }
  if (!request->Ended) {
    SetClaimed(request, false);
    return {LUMO_TIMEOUT};
  }
  *answer = Take(request);
  return {(*answer)->Status};
}

Exchange::List::iterator Exchange::FirstUnclaimed() {
  auto request = ended_.begin();
  while (request != ended_.end() && request->Claimed) ++request;
  return request;
}

Outcome Exchange::ReceiveAny(const Deadline& deadline, lumo_ticket* ticket, AnswerPointer* answer) {
  Lock lock(mutex_);
  List::iterator request = ended_.end();
  WaitUntil(lock, deadline, [&] {
    request = FirstUnclaimed();
    return request != ended_.end() || byTicket_.size() == claimed_;
  });
  if (request == ended_.end())
    return {byTicket_.size() == claimed_ ? LUMO_NOTHING_SENT : LUMO_TIMEOUT};
  *ticket = request->Ticket;
  *answer = Take(request);
  return {(*answer)->Status};
}

Outcome Exchange::Abandon(lumo_ticket ticket) {
  const Lock lock(mutex_);
  List::iterator request;
  const Outcome found = Find(ticket, &request);
  if (!found.Good()) return found;
  GiveUp(request);
  TellAll();
  return {};
}

void Exchange::GiveUp(List::iterator request) {
  if (request->Ended) {
    Take(request);
    return;
  }
  byTicket_.erase(request->Ticket);
  if (request->Claimed) --claimed_;
  request->Claimed = false;
  request->Abandoned = true;
  request->Answer.reset();
}

Outcome Exchange::Ask(Message& request, Kind kind, const Deadline& deadline,
                      AnswerPointer* answer) {
  AnswerPointer late = NewAnswer(0);
  late->Reason = LUMO_REASON_DEADLINE;
  lumo_ticket ticket = 0;
  const Outcome sent = SendClaimed(request, kind, true, deadline, &ticket);
  if (!sent.Good()) return sent;
  Lock lock(mutex_);
  const List::iterator pending = byTicket_.at(ticket);
  try {
    WaitUntil(lock, deadline, [&] { return pending->Ended; });
  } catch (...) {
    late->Reason = LUMO_REASON_NO_MEMORY;
  }
  if (pending->Ended) {
    *answer = Take(pending);
  } else {
    late->Message.SetAstInd(pending->Tag);
    GiveUp(pending);
    *answer = std::move(late);
  }
  return {(*answer)->Status};
}

}  // namespace lumo::detail
