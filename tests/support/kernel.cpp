#include "tests/support/kernel.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

namespace test {
namespace {

constexpr int kKeyFamily = 0x4C550000;  // all keys of these tests
constexpr int kKeyFamilyMask = 0x7FFF0000;
constexpr std::size_t kLargestBody = 8188;

int RandomBelow(int limit) {
  std::random_device random;
  return std::uniform_int_distribution<int>(1, limit - 1)(random);
}

// The kernel is named by a number that no other socket in the directory has.
int FreeNumber(const Agent& agent) {
  int number = 0;
  do {
    number = RandomBelow(1000000);
  } while (number == agent.ExchangeId() || access(agent.SocketPath(number).c_str(), F_OK) == 0);
  return number;
}

struct QueueMessage {
  long Type = 0;
  char Body[kLargestBody] = {};
};

void DropMessages(int queue, long type) {
  QueueMessage dropped;
  while (msgrcv(queue, &dropped, sizeof dropped.Body, type, IPC_NOWAIT) >= 0) {
  }
}

// The objects are found by their key, so that a failed removal cannot hide them.
void RemoveObjects(int key) {
  const int queue = msgget(key, 0), semaphore = semget(key, 0, 0), segment = shmget(key, 0, 0);
  if (queue >= 0) msgctl(queue, IPC_RMID, nullptr);
  if (semaphore >= 0) semctl(semaphore, 0, IPC_RMID);
  if (segment >= 0) shmctl(segment, IPC_RMID, nullptr);
}

std::set<int>& LiveKeys() {
  static std::set<int> keys;
  return keys;
}

void RemoveAllAtExit() {
  for (const int key : LiveKeys()) RemoveObjects(key);
}

// The segment is made first and removed last, and the system knows who made it: with its maker
// gone, all under its key is a leftover.
void RemoveLeftovers() {
  std::ifstream table("/proc/sysvipc/shm");
  std::string line;
  for (std::getline(table, line); std::getline(table, line);) {
    std::istringstream fields(line);
    int key = 0, id = 0, mode = 0;
    unsigned long size = 0;
    pid_t maker = 0;
    fields >> key >> id >> mode >> size >> maker;
    if (fields && (key & kKeyFamilyMask) == kKeyFamily && !ProcessRuns(maker)) RemoveObjects(key);
  }
}

}  // namespace

LocalKernel::LocalKernel(const Agent& agent)
    : Peer(lumo::Lengths::Client), listener_(-1), number_(FreeNumber(agent)) {
  path_ = agent.SocketPath(number_);
  listener_ = BoundAt(path_);
  if (listen(listener_, 16) != 0) throw std::runtime_error("the local kernel does not listen");
}

LocalKernel::~LocalKernel() { StopListening(); }

bool LocalKernel::Accept(const std::string& greeting, Milliseconds timeout) {
  const int fd = AcceptWithin(listener_, timeout);
  if (fd < 0) return false;
  static_cast<Peer&>(*this) = Peer(lumo::Lengths::Client, fd);
  return greeting.empty() || Peer::SendBytes(greeting);
}

lumo::Message LocalKernel::ExpectFirstRequest(const Place& place) {
  if (!Accept()) ADD_FAILURE_AT(place.File, place.Line) << "the agent does not connect";
  return ExpectRequest(place);
}

void LocalKernel::StopListening() {
  if (listener_ < 0) return;
  close(listener_);
  unlink(path_.c_str());
  listener_ = -1;
}

std::string LocalKernel::Line(const std::string& name, const std::string& protocol) const {
  return name + " " + protocol + " " + std::to_string(number_) + "\n";
}

// What is removed at the exit has to outlive the removal: the set of keys is made first.
IpcKernel::IpcKernel(pid_t kernelPid) : key_(0) {
  static const bool kRegistered =
      (LiveKeys(), RemoveLeftovers(), std::atexit(RemoveAllAtExit) == 0);
  for (int attempt = 0; kRegistered && attempt < 100 && segment_ < 0; ++attempt) MakeObjects();
  if (segment_ < 0)
    throw std::runtime_error(std::string("no objects can be made: ") + std::strerror(errno));
  LiveKeys().insert(key_);
  SetKernelPid(kernelPid ? kernelPid : getpid());
}

// Under a key that nobody uses; all of them or none.
void IpcKernel::MakeObjects() {
  key_ = kKeyFamily | RandomBelow(0x10000);
  segment_ = shmget(key_, 4096, IPC_CREAT | IPC_EXCL | 0600);
  if (segment_ < 0) return;
  queue_ = msgget(key_, IPC_CREAT | IPC_EXCL | 0600);
  semaphore_ = queue_ < 0 ? -1 : semget(key_, 1, IPC_CREAT | IPC_EXCL | 0600);
  if (semaphore_ >= 0) return;
  const int error = errno;
  if (queue_ >= 0) msgctl(queue_, IPC_RMID, nullptr);
  shmctl(segment_, IPC_RMID, nullptr);
  segment_ = -1;
  errno = error;
}

IpcKernel::~IpcKernel() {
  RemoveObjects(key_);
  LiveKeys().erase(key_);
}

void IpcKernel::SetKernelPid(pid_t pid) {
  void* const memory = shmat(segment_, nullptr, 0);
  const std::int32_t word = pid;
  std::memcpy(memory, &word, sizeof word);
  shmdt(memory);
}

std::optional<IpcKernel::Request> IpcKernel::ReadRequest(Milliseconds timeout) {
  std::optional<Request> request;
  WaitFor([&] { return (request = TakeRequest()).has_value(); }, timeout);
  if (!request) ADD_FAILURE() << "no request comes through the queue";
  return request;
}

IpcKernel::Request IpcKernel::ExpectRequest(const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  const std::optional<Request> request = ReadRequest();
  if (!request) throw std::runtime_error("the test cannot go on without the request");
  return *request;
}

std::optional<IpcKernel::Request> IpcKernel::TakeRequest() {
  QueueMessage received;
  const ssize_t size = msgrcv(queue_, &received, sizeof received.Body, 1, IPC_NOWAIT);
  if (size < 0) return std::nullopt;
  // Decode wants a length word, which it does not look at.
  const std::string frame =
      std::string(4, '\0') + std::string(received.Body, static_cast<std::size_t>(size));
  const std::optional<lumo::Message> message = lumo::Decode(frame);
  if (!message) {
    ADD_FAILURE() << "not a message: " << testing::PrintToString(frame);
    return std::nullopt;
  }
  return Request{*message, message->TaskName};
}

bool IpcKernel::Answer(const Request& request, const std::string& text, int codErr) {
  return SendMessage(request.Reader, AnswerTo(request.Message, text, codErr));
}

bool IpcKernel::SendMessage(pid_t reader, const lumo::Message& message) {
  return SendBytes(reader, lumo::Encode(message, lumo::Lengths::Packet).substr(4));
}

bool IpcKernel::SendBytes(pid_t reader, const std::string& body) {
  QueueMessage sent;
  sent.Type = reader;
  const std::size_t size = std::min(body.size(), sizeof sent.Body);
  std::memcpy(sent.Body, body.data(), size);
  return WaitFor([&] { return msgsnd(queue_, &sent, size, IPC_NOWAIT) == 0 || errno != EAGAIN; }) &&
         size == body.size();
}

int IpcKernel::SemaphoreValue() const { return semctl(semaphore_, 0, GETVAL); }
void IpcKernel::SetSemaphore(int value) { ASSERT_EQ(semctl(semaphore_, 0, SETVAL, value), 0); }

int IpcKernel::QueuedMessages() const {
  msqid_ds state{};
  return msgctl(queue_, IPC_STAT, &state) == 0 ? static_cast<int>(state.msg_qnum) : -1;
}

bool IpcKernel::HasRoomFor(std::size_t bytes) const {
  msqid_ds state{};
  return msgctl(queue_, IPC_STAT, &state) == 0 && state.__msg_cbytes + bytes <= state.msg_qbytes;
}

void IpcKernel::LimitQueue(unsigned long bytes) {
  msqid_ds state{};
  if (msgctl(queue_, IPC_STAT, &state) != 0) return;
  state.msg_qbytes = bytes;
  msgctl(queue_, IPC_SET, &state);
}

constexpr long kFillerType = 0x7FFFFFFF;  // above every process id

void IpcKernel::FillQueue() {
  QueueMessage filler;
  filler.Type = kFillerType;
  for (std::size_t size = 4096; size > 0; size /= 2) {
    while (msgsnd(queue_, &filler, size, IPC_NOWAIT) == 0) {
    }
  }
}

void IpcKernel::DrainQueue() { DropMessages(queue_, kFillerType); }
void IpcKernel::DropAnswers(pid_t reader) { DropMessages(queue_, reader); }

void IpcKernel::RemoveSegment() { shmctl(segment_, IPC_RMID, nullptr); }
void IpcKernel::RemoveQueue() { msgctl(queue_, IPC_RMID, nullptr); }
void IpcKernel::RemoveSemaphore() { semctl(semaphore_, 0, IPC_RMID); }

std::string IpcKernel::Line(const std::string& name) const {
  return name + " LOCALI " + std::to_string(key_) + "\n";
}

}  // namespace test
