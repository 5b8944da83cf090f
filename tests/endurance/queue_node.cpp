#include "tests/endurance/queue_node.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>

#include <array>
#include <cerrno>

#include "tests/support/process.h"

namespace endurance {
namespace {

constexpr long kRequestType = 1;
constexpr std::size_t kLargestBody = 8188, kRoom = 8192;
constexpr std::size_t kStringsInBody = kStringsAt - kLengthSize;
constexpr int kTakenAtOnce = 256, kSemaphoreSeconds = 20;
constexpr Milliseconds kQuietWithin{200};

struct QueueMessage {
  long Type;
  std::array<char, kRoom> Body;
};

}  // namespace

QueueNode::QueueNode(const NodeSetting& setting) : Node(setting) {
  history().Codes = {4006, 4007, 4009, 4053};
  semaphore_ = semget(kernel_.Key(), 1, 0);
  queue_ = msgget(kernel_.Key(), 0);
  if (queue_ < 0 || semaphore_ < 0) throw Failure("the kernel's objects cannot be opened");
}

void QueueNode::OpenQueue() {
  queue_ = msgget(kernel_.Key(), IPC_CREAT | IPC_EXCL | 0600);
  if (queue_ < 0) throw Failure("the kernel's queue cannot be made again");
}

bool QueueNode::Idle() const { return Node::Idle() && unsent_.empty() && !killing_ && !dropping_; }

void QueueNode::Step(Time now) {
  if (IsAway() && (now >= awayUntil() || settling())) {
    OpenQueue();
    ComeBack();
  }
  for (int i = 0; i < kTakenAtOnce && !IsAway() && TakeOne(); ++i) continue;
  if (dropping_ && !IsAway()) DropAnswersToNobody();
  if (killing_) return KillReaderWhenQuiet(now);
  Node::Step(now);
  Flush();
}

// The agent raises the semaphore once for each message.
bool QueueNode::TakeOne() {
  QueueMessage message;
  const ssize_t size =
      msgrcv(queue_, &message, message.Body.size(), kRequestType, IPC_NOWAIT | MSG_NOERROR);
  if (size < 0) return false;
  sembuf take{0, -1, 0};
  const timespec patience{kSemaphoreSeconds, 0};
  while (semtimedop(semaphore_, &take, 1, &patience) != 0) {
    if (errno != EINTR) throw Failure("the agent did not raise the kernel's semaphore");
  }
  Sort(std::string(message.Body.data(), static_cast<std::size_t>(size)));
  return true;
}

// The reader's process id tells over which connection the message came.
void QueueNode::Sort(const std::string& body) {
  const auto message = lumo::Decode(std::string(4, '\0') + body);
  if (!message) throw Failure("node " + Name() + " got what is no message");
  const pid_t reader = message->TaskName;
  if (reader == gone_) return Fault("request of a reader that had been ended");
  if (reader != reader_) {
    if (Connected())
      throw Failure("node " + Name() + " has a second reader, its first one is good");
    if (test::ProcessStatus(reader, "PPid") != std::to_string(agent_))
      throw Failure("node " + Name() + " got a request of no reader of the agent");
    reader_ = reader;
    Begin();
  }
  Take(*message);
}

// Now and then one comes before it whose strings do not fit: the reader passes over it.
void QueueNode::Transmit(const lumo::Message& message) {
  std::string body = lumo::Encode(message, lumo::Lengths::Packet).substr(4);
  if (luck().PerMille(3)) {
    Fault("strings too long, passed over");
    std::string spoilt = body;
    spoilt.replace(kStringsInBody, 2, "\xF0\xFF");
    unsent_.push_back({reader_, std::move(spoilt)});
  }
  if (unsent_.empty() && Put(reader_, body)) return;
  unsent_.push_back({reader_, std::move(body)});
}

bool QueueNode::Put(long type, const std::string& body) {
  QueueMessage message;
  message.Type = type;
  body.copy(message.Body.data(), message.Body.size());
  if (msgsnd(queue_, &message, body.size(), IPC_NOWAIT) == 0) {
    Touch();
    return true;
  }
  if (errno != EAGAIN && errno != EINTR) throw Failure("msgsnd of an answer fails");
  return false;
}

void QueueNode::Flush() {
  while (!unsent_.empty() && Put(unsent_.front().Type, unsent_.front().Body)) unsent_.pop_front();
}

// Breaking

void QueueNode::Break(Time now) {
  switch (luck().Below(3)) {
    case 0:
      return RemoveQueue(now);
    case 1:
      killing_ = true;
      killUntil_ = now + kQuietWithin;
      return;
    default:
      if (unsent_.empty()) EndSpares();
  }
}

void QueueNode::EndSpares() {
  if (Connected() && Put(reader_, std::string(kLargestBody + 4, 'x')))
    EndReader("body too long for the reader");
}

void QueueNode::EndReader(const std::string& fault) {
  MarkBroken(fault);
  gone_ = reader_;
  dropping_ = true;
  reader_ = -1;
  unsent_.clear();
}

void QueueNode::RemoveQueue(Time now) {
  if (msgctl(queue_, IPC_RMID, nullptr) != 0) throw Failure("the queue cannot be removed");
  const int none = 0;
  semctl(semaphore_, 0, SETVAL, none);
  EndReader("queue removed");
  if (luck().Percent(50)) return GoAway(now + Milliseconds(luck().Between(1, 25)));
  OpenQueue();
}

// Between writing to a client and noting that, nobody can tell whether the answer has gone: the
// reader is killed only when it waits and all that was given to it has arrived.
bool QueueNode::ReaderIsQuiet() const {
  return history().AnsweredOpen == 0 && unsent_.empty() &&
         test::ProcessStatus(reader_, "State").rfind('S', 0) == 0;
}

void QueueNode::KillReaderWhenQuiet(Time now) {
  Flush();
  killing_ = now < killUntil_ && !settling();
  if (!ReaderIsQuiet()) return;
  kill(reader_, SIGKILL);
  killing_ = false;
  EndReader("reader killed");
}

// What the reader that has gone did not take would fill the queue.
void QueueNode::DropAnswersToNobody() {
  if (test::ProcessRuns(gone_)) return;
  QueueMessage message;
  while (msgrcv(queue_, &message, message.Body.size(), gone_, IPC_NOWAIT | MSG_NOERROR) >= 0)
    continue;
  dropping_ = false;
}

}  // namespace endurance
