#include "tests/endurance/client.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tests/support/management.h"

namespace endurance {
namespace {

constexpr std::uint32_t kGreetingWord = 56;
constexpr std::uint64_t kAnswersKept = 1024 * 1024;  // by the agent, for one connection
constexpr std::uint64_t kLargestOwnAnswer = 120;     // of the agent, to what is asked here
constexpr std::uint32_t kLargeAnswer = 7800;
constexpr Milliseconds kOldest{30000};

}  // namespace

// Connecting

void Client::Connect(Time now) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  setting_.Path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw Failure("a client's socket cannot be made");
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const bool full = errno == EAGAIN;
    close(fd);
    if (!full) throw Failure("the agent cannot be reached");
    reconnectAt_ = now + Milliseconds(1);
    return;
  }
  socket_ = fd;
  connection_ = ++setting_.Account->Total.Connections;
  phase_ = Phase::Greeting;
  in_.clear();
  out_.clear();
  asked_.clear();
  holdFrom_ = 0;
  queuedBytes_ = sentBytes_ = 0;
  paused_ = false;
  setting_.Events->Watch(fd, EPOLLIN, [this](std::uint32_t events) { Serve(events); });
  BeginLife();
}

void Client::ConnectToStay() {
  stays_ = true;
  Connect(Clock::now());
  reading_ = Reading::Always;
  task_ = 0;
}

void Client::BeginLife() {
  Chance& luck = *setting_.Luck;
  task_ = static_cast<int>(luck.Below(static_cast<std::size_t>(setting_.Tasks)));
  budget_ = luck.Around(setting_.MeanLife);
  depth_ = luck.Percent(10) ? 40 : luck.Between(1, 12);
  const int reading = luck.Between(0, 999);
  const int idlers = *setting_.IdlersPerMille;
  reading_ = reading < idlers        ? Reading::NotAtAll
             : reading < idlers + 56 ? Reading::WithPauses
                                     : Reading::Always;
  if (reading_ == Reading::NotAtAll) {
    budget_ = depth_ = luck.Between(30, 400);
    ++setting_.Account->Total.Faults["client that reads nothing"];
  }
  const int ending = luck.Between(0, 99);
  ending_ = ending < 40   ? Ending::Finish
            : ending < 75 ? Ending::HangUp
            : ending < 85 ? Ending::HalfFrame
            : ending < 93 ? Ending::HalfClose
                          : Ending::Malformed;
}

// Asking

void Client::Step(Time now, bool mayAsk) {
  if (socket_ < 0) {
    if (settling_ || !mayAsk || now < reconnectAt_) return;
    Connect(now);
  }
  if (socket_ < 0 || stays_) return;
  if (phase_ == Phase::Asking) {
    Pause(now);
    if (mayAsk && !settling_ && now >= askAgain_) AskSome(now);
    Flush(now);
    if (socket_ >= 0 && (budget_ <= 0 || settling_)) EndLife(now);
  }
}

void Client::Pause(Time now) {
  if (paused_ && (now >= readAgain_ || settling_)) {
    paused_ = false;
    Interest();
  }
  if (paused_ || settling_ || reading_ == Reading::Always) return;
  if (reading_ == Reading::WithPauses && !setting_.Luck->PerMille(20)) return;
  const bool forLong = reading_ == Reading::NotAtAll;
  if (forLong) reading_ = Reading::Always;
  paused_ = true;
  readAgain_ = now + Milliseconds(forLong ? 3000 : setting_.Luck->Between(5, 120));
  Interest();
}

void Client::AskSome(Time now) {
  while (budget_ > 0 && open_ < depth_ && out_.size() < 65536 && setting_.Account->HasTag(task_)) {
    AskOne();
    --budget_;
    if (now < askAgain_) return;
  }
}

int Client::ChooseNode() {
  const int kind = setting_.Luck->Between(0, 999);
  if (kind < 4) return kNoSuchNode;
  return static_cast<int>(setting_.Luck->Below(setting_.Nodes.size()));
}

std::uint32_t Client::ChooseAnswerSize() {
  Chance& luck = *setting_.Luck;
  if (paused_ && budget_ > 20) return kLargeAnswer;
  if (luck.Percent(3)) return static_cast<std::uint32_t>(luck.Between(16, 8000));
  return static_cast<std::uint32_t>(luck.Between(16, 120));
}

int Client::ChooseSharedTag(int node) {
  Chance& luck = *setting_.Luck;
  if (node != setting_.SharingNode || !luck.Percent(setting_.SharedPercent)) return -1;
  return luck.Between(0, kSharedTags - 1);
}

void Client::AskOne() {
  if (setting_.Luck->PerMille(8)) return AskAgent();
  AskNode(ChooseNode(), false);
}

Request& Client::AskNode(int node, bool sentinel) {
  Request& request = setting_.Account->Ask(connection_, task_, node, ChooseAnswerSize(),
                                           sentinel ? -1 : ChooseSharedTag(node));
  request.Sentinel = sentinel;
  lumo::Message message;
  const bool byDefault = node == 0 && request.Number % 3 == 0;
  if (node == kNoSuchNode)
    message.Node = "NOWHERE";
  else if (!byDefault)
    message.Node = setting_.Nodes[static_cast<std::size_t>(node)];
  message.Strings[0] = setting_.Account->RequestText(request);
  return Queue(request, message);
}

void Client::AskAgent() {
  static constexpr struct {
    std::uint16_t Command;
    std::int32_t Expected;
  } kCommands[] = {{100, 1}, {101, 0}, {103, 1}, {104, 0}, {115, 0}};
  const auto& chosen = kCommands[setting_.Luck->Below(std::size(kCommands))];
  AskManagement(chosen.Command, 0, {}, chosen.Expected);
}

Request& Client::AskManagement(std::uint16_t command, std::int32_t rowId, const std::string& text,
                               std::int32_t expected) {
  Request& request = setting_.Account->Ask(connection_, task_, kManagement, 0);
  request.Expected = expected;
  return Queue(request, lumo::ManagementRequest(command, rowId, text));
}

// The whole name of a request, and what else the nodes look at.
Request& Client::Queue(Request& request, lumo::Message message) {
  message.TaskName = request.TaskName;
  message.PrzExe = static_cast<std::uint32_t>(request.Number);
  message.SetTrailerTaskName(request.TaskName);
  message.SetAstInd(request.Tag);
  const std::string frame = lumo::Encode(message, lumo::Lengths::Client);
  if (holdFrom_ == 0 && !stays_ && setting_.Luck->PerMille(15)) {
    ++setting_.Account->Total.Faults["request in two pieces"];
    holdFrom_ = out_.size() + 1 + setting_.Luck->Below(frame.size() - 1);
  }
  out_ += frame;
  queuedBytes_ += frame.size();
  asked_.push_back({request.Number, queuedBytes_});
  ++open_;
  if (stays_) Flush(Clock::now());
  return request;
}

void Client::Flush(Time now) {
  if (socket_ < 0 || out_.empty() || now < writeAgain_) return;
  const std::size_t limit = holdFrom_ > 0 ? holdFrom_ : out_.size();
  std::size_t sent = 0;
  while (sent < limit) {
    const ssize_t took = send(socket_, out_.data() + sent, limit - sent, MSG_NOSIGNAL);
    if (took < 0 && errno == EINTR) continue;
    if (took < 0) break;  // the end, if it has come, is met when it is read
    sent += static_cast<std::size_t>(took);
  }
  out_.erase(0, sent);
  sentBytes_ += sent;
  if (holdFrom_ > 0) {
    holdFrom_ -= sent;
    if (holdFrom_ == 0) writeAgain_ = now + Microseconds(setting_.Luck->Between(200, 4000));
  }
  Interest();
}

void Client::Interest() {
  const std::uint32_t in = paused_ ? std::uint32_t{EPOLLRDHUP} : std::uint32_t{EPOLLIN};
  const bool wantsOut = !out_.empty() && Clock::now() >= writeAgain_;
  setting_.Events->Change(socket_, in | (wantsOut ? std::uint32_t{EPOLLOUT} : 0));
}

// Ending

void Client::EndLife(Time now) {
  if (!out_.empty()) return;
  const Ending ending = settling_ ? Ending::Finish : ending_;
  if (ending == Ending::Finish && open_ > 0) return;
  if (ending == Ending::Malformed) return SendMalformed();
  if (ending == Ending::HalfClose) return StopSending();
  if (paused_ && ending != Ending::Finish) return;
  if (ending == Ending::HalfFrame) SendHalf(now);
  if (open_ > 0) ++setting_.Account->Total.Faults["client that hangs up with requests in flight"];
  Close(End::HungUp);
}

void Client::SendHalf(Time now) {
  ++setting_.Account->Total.Faults["half a request"];
  Request& half = setting_.Account->Ask(connection_, task_, ChooseNode(), 16);
  lumo::Message message;
  message.Strings[0] = setting_.Account->RequestText(half);
  Queue(half, message);
  out_.resize(1 + setting_.Luck->Below(out_.size() - 1));
  holdFrom_ = 0;
  Flush(now);
  setting_.Account->Close(half, End::NeverSent);
  asked_.pop_back();
  --open_;
}

// To the agent that is as good as a closed connection.
void Client::StopSending() {
  ++setting_.Account->Total.Faults["client that only stops sending"];
  shutdown(socket_, SHUT_WR);
  phase_ = Phase::AwaitingClose;
  paused_ = false;
  Interest();
}

// The agent closes the connection.
void Client::SendMalformed() {
  ++setting_.Account->Total.Faults["malformed request"];
  lumo::Message message;
  message.Strings[0] = "malformed";
  out_ = lumo::Encode(message, lumo::Lengths::Client);
  const std::uint32_t lengths[] = {0, 4, 8189, 0xFFFFFFFF};
  const std::uint16_t longString = 0xFFF0;
  const std::size_t kind = setting_.Luck->Below(std::size(lengths) + 1);
  if (kind < std::size(lengths))
    std::memcpy(out_.data(), &lengths[kind], sizeof lengths[kind]);
  else
    std::memcpy(out_.data() + kStringsAt, &longString, sizeof longString);
  holdFrom_ = 0;
  writeAgain_ = Time();
  phase_ = Phase::AwaitingClose;
  paused_ = false;
  Flush(Clock::now());
}

void Client::ProcessDied() {
  if (socket_ >= 0) Close(End::ProcessDied);
}

// Requests whose last byte is still here were never made.
void Client::Close(End end) {
  Ledger& account = *setting_.Account;
  const Time now = Clock::now();
  for (const Asked& asked : asked_) {
    Request& request = *account.Find(asked.Number);
    const bool whole = asked.EndsAt <= sentBytes_;
    if (request.Ended != End::Open) continue;
    if (whole && now - request.AskedAt > kOldest)
      throw Failure("a request has waited too long\n  " + account.Describe(request));
    account.Close(request, whole ? end : End::NeverSent);
  }
  asked_.clear();
  CloseSocket();
  if (setting_.Luck->Percent(30)) reconnectAt_ = now + Milliseconds(setting_.Luck->Between(1, 10));
}

void Client::CloseSocket() {
  if (socket_ < 0) return;
  setting_.Events->Forget(socket_);
  close(socket_);
  socket_ = -1;
  open_ = 0;
}

// At most: the agent may have made an answer of its own to each request that no node has answered.
std::uint64_t Client::OwedBytes() const {
  std::uint64_t owed = 0;
  for (const Asked& asked : asked_) {
    const Request* const request = setting_.Account->Find(asked.Number);
    if (request->Ended != End::Open) continue;
    owed += kLargestOwnAnswer;
    if (request->GetsAnswerOf > 0)
      owed += setting_.Account->Find(request->GetsAnswerOf)->AnswerSize;
  }
  return owed;
}

// Reading

void Client::Serve(std::uint32_t events) {
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) Read();
  if (socket_ >= 0) Flush(Clock::now());
}

void Client::Read() {
  std::array<char, 32768> piece;
  const ssize_t got = recv(socket_, piece.data(), piece.size(), 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got == 0 || (got < 0 && errno == ECONNRESET)) return AgentClosed();
  if (got < 0) throw Failure("a client's recv fails");
  in_.append(piece.data(), static_cast<std::size_t>(got));
  TakeFrames();
}

void Client::TakeFrames() {
  if (phase_ == Phase::Greeting) TakeGreeting();
  std::size_t at = 0;
  while (phase_ != Phase::Greeting && in_.size() - at >= kLengthSize) {
    const std::size_t size = WordAt(in_, at);
    if (size < lumo::kEmptyMessage || size > lumo::kMaxFrame)
      throw Failure("a client got a frame of length " + std::to_string(size));
    if (in_.size() - at < size) break;
    TakeAnswer(std::string_view(in_).substr(at, size));
    at += size;
  }
  in_.erase(0, at);
}

void Client::TakeGreeting() {
  if (in_.size() < kGreetingSize) return;
  if (WordAt(in_, 0) != kGreetingWord ||
      WordAt(in_, kLengthSize) != static_cast<std::uint32_t>(setting_.AgentPid) ||
      in_.find_first_not_of('\0', 2 * kLengthSize) < kGreetingSize)
    throw Failure("a client got a wrong greeting");
  in_.erase(0, kGreetingSize);
  phase_ = Phase::Asking;
}

// After a failure the client waits a little: it would ask a node that is away all the time.
void Client::TakeAnswer(std::string_view frame) {
  auto message = lumo::Decode(frame);
  if (!message) message = lumo::Decode(frame, lumo::Layout::Management);
  if (!message) throw Failure("a client got what is no message");
  const Request& request = setting_.Account->Arrived(connection_, *message);
  --open_;
  while (!asked_.empty() && setting_.Account->Find(asked_.front().Number)->Ended != End::Open)
    asked_.pop_front();
  if (request.Ended == End::AgentAnswered && request.Node >= 0)
    askAgain_ = Clock::now() + Milliseconds(setting_.Luck->Between(1, 8));
}

// The agent may close a connection only for what the client did.
void Client::AgentClosed() {
  if (phase_ == Phase::AwaitingClose)
    return Close(ending_ == Ending::Malformed ? End::Malformed : End::HungUp);
  const std::uint64_t owed = OwedBytes();
  if (owed <= kAnswersKept)
    throw Failure("the agent has closed connection " + std::to_string(connection_) +
                  ", which had " + std::to_string(owed) + " bytes of answers to take\n" +
                  setting_.Account->DescribeOpen());
  Close(End::NotTaken);
}

}  // namespace endurance
