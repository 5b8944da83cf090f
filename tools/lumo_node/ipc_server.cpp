#include "tools/lumo_node/ipc_server.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace lumo::node {
namespace {

constexpr int kNew = IPC_CREAT | IPC_EXCL | 0600;
constexpr std::size_t kSegmentSize = 4096, kLengthSize = 4;
constexpr long kRequestType = 1;
constexpr int kPollMs = 5;  // a queue cannot be waited for together with descriptors

struct QueueMessage {
  long Type;
  std::array<char, kMaxMessage> Body;
};

[[noreturn]] void Fail(const std::string& call) {
  throw std::runtime_error(call + " for the IPC key: " + std::strerror(errno));
}

bool Alive(std::int32_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

bool Attach(int segment, int flags, void** at) {
  *at = shmat(segment, nullptr, flags);
  // The system reports failure as an address of all ones.
  return reinterpret_cast<std::intptr_t>(*at) != -1;
}

// Objects whose owner was killed would keep their key for ever.
void RemoveDeadNode(std::int32_t key) {
  const int segment = shmget(key, 0, 0);
  void* at = nullptr;
  if (segment < 0 || !Attach(segment, SHM_RDONLY, &at)) return;
  std::int32_t owner;
  std::memcpy(&owner, at, sizeof owner);
  shmdt(at);
  if (Alive(owner)) throw std::runtime_error("a node with this IPC key is running already");
  const int queue = msgget(key, 0), semaphore = semget(key, 0, 0);
  if (queue >= 0) msgctl(queue, IPC_RMID, nullptr);
  if (semaphore >= 0) semctl(semaphore, 0, IPC_RMID);
  shmctl(segment, IPC_RMID, nullptr);
}

}  // namespace

IpcServer::IpcServer(EventLog* log, std::int32_t key) : log_(log) {
  RemoveDeadNode(key);
  try {
    MakeObjects(key);
  } catch (...) {
    RemoveObjects();
    throw;
  }
}

IpcServer::~IpcServer() { RemoveObjects(); }

void IpcServer::MakeObjects(std::int32_t key) {
  void* at = nullptr;
  segment_ = shmget(key, kSegmentSize, kNew);
  if (segment_ < 0) Fail("shmget");
  if (!Attach(segment_, 0, &at)) Fail("shmat");
  const std::int32_t pid = getpid();
  std::memcpy(at, &pid, sizeof pid);
  shmdt(at);
  queue_ = msgget(key, kNew);
  if (queue_ < 0) Fail("msgget");
  semaphore_ = semget(key, 1, kNew);
  if (semaphore_ < 0) Fail("semget");
}

void IpcServer::RemoveObjects() {
  if (semaphore_ >= 0) semctl(semaphore_, 0, IPC_RMID);
  if (queue_ >= 0) msgctl(queue_, IPC_RMID, nullptr);
  if (segment_ >= 0) shmctl(segment_, IPC_RMID, nullptr);
}

int IpcServer::Collect(std::vector<pollfd>*) { return kPollMs; }

void IpcServer::Serve(const Handler& handler) {
  while (!unsent_.empty() && SendNow(unsent_.front())) unsent_.pop_front();
  std::string frame;
  while (!Deaf() && Receive(&frame)) {
    std::int32_t reader;
    std::memcpy(&reader, frame.data() + kLengthSize, sizeof reader);
    handler(static_cast<PeerId>(reader), frame);
  }
}

bool IpcServer::Receive(std::string* frame) {
  sembuf take{0, -1, IPC_NOWAIT};
  if (semop(semaphore_, &take, 1) < 0) return false;
  QueueMessage message;
  const ssize_t size =
      msgrcv(queue_, &message, message.Body.size(), kRequestType, IPC_NOWAIT | MSG_NOERROR);
  if (size < static_cast<ssize_t>(sizeof(std::int32_t))) return false;
  const auto length = static_cast<std::uint32_t>(size);
  frame->assign(reinterpret_cast<const char*>(&length), sizeof length);
  frame->append(message.Body.data(), length);
  return true;
}

bool IpcServer::SendNow(const Answer& answer) {
  if (!Alive(answer.Reader)) {
    log_->Write("answer dropped: its reader " + std::to_string(answer.Reader) + " has gone");
    return true;
  }
  QueueMessage message;
  message.Type = answer.Reader;
  std::memcpy(message.Body.data(), answer.Body.data(), answer.Body.size());
  if (msgsnd(queue_, &message, answer.Body.size(), IPC_NOWAIT) == 0) return true;
  if (errno == EAGAIN || errno == EINTR) return false;
  log_->Write(std::string("answer dropped: ") + std::strerror(errno));
  return true;
}

void IpcServer::Send(PeerId peer, const std::string& frame) {
  // Only the body travels: the queue keeps the length itself.
  const std::size_t size = frame.size() > kLengthSize ? frame.size() - kLengthSize : 0;
  if (size > kMaxMessage) return log_->Write("answer dropped: too long for the queue");
  unsent_.push_back({static_cast<std::int32_t>(peer), frame.substr(kLengthSize, size)});
  while (!unsent_.empty() && SendNow(unsent_.front())) unsent_.pop_front();
}

}  // namespace lumo::node
