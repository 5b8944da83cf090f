// A local kernel behind a message queue that sends every message back. Requests and answers share
// the queue, so it never waits for room while requests can be taken: what finds no room is given
// back by a thread of its own.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "bench/queue/queue.h"
#include "bench/sockets.h"

namespace {

using namespace bench;

constexpr int kMode = 0600;
constexpr int kFirstKey = 0x4C000000;  // then upwards, to one that is free

// The three objects of a kernel, under one key.
struct Objects {
  int Segment;
  MessageQueue Queue;
};
Objects objects;

void RemoveObjects() {
  msgctl(objects.Queue.Id, IPC_RMID, nullptr);
  semctl(objects.Queue.Semaphore, 0, IPC_RMID);
  shmctl(objects.Segment, IPC_RMID, nullptr);
}

// What a kernel that was killed has left behind.
void RemoveForgotten(int key) {
  objects = {.Segment = shmget(key, 0, 0),
             .Queue = {.Id = msgget(key, 0), .Semaphore = semget(key, 0, 0)}};
  const void* const segment = shmat(objects.Segment, nullptr, SHM_RDONLY);
  if (segment == reinterpret_cast<void*>(-1)) return;
  const auto pid = Load<std::int32_t>(static_cast<const char*>(segment));
  if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) RemoveObjects();
  shmdt(segment);
}

bool MakeObjects(int key) {
  constexpr int kNew = IPC_CREAT | IPC_EXCL | kMode;
  int id = msgget(key, kNew);
  if (id < 0 && errno == EEXIST) {
    RemoveForgotten(key);
    id = msgget(key, kNew);
  }
  if (id < 0 && errno == EEXIST) return false;
  objects = {.Segment = shmget(key, sizeof(std::int32_t), kNew),
             .Queue = {.Id = id, .Semaphore = semget(key, 1, kNew)}};
  if (id < 0 || objects.Segment < 0 || objects.Queue.Semaphore < 0) Fail("a kernel's objects");
  void* const segment = shmat(objects.Segment, nullptr, 0);
  if (segment == reinterpret_cast<void*>(-1)) Fail("shmat");
  const std::int32_t pid = getpid();
  std::memcpy(segment, &pid, sizeof pid);
  return true;
}

struct Answer {
  std::size_t Size;
  QueueMessage Message;
};

class EchoKernel {
 public:
  [[noreturn]] void Run() {
    std::thread([this] { GiveWaiting(); }).detach();
    while (true) {
      ChangeSemaphore(objects.Queue, -1);
      answer_.Size = Receive(objects.Queue, &answer_.Message, kRequestType);
      answer_.Message.Type = Load<std::int32_t>(answer_.Message.Body + InBody(kTaskNameAt));
      Give();
    }
  }

 private:
  void Give() {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty() && SendIfRoom(objects.Queue, answer_.Message, answer_.Size)) return;
    waiting_.push_back(answer_);
    someWait_.notify_one();
  }

  // The answer in hand stays in the list, so that none overtakes it.
  [[noreturn]] void GiveWaiting() {
    std::unique_lock lock(mutex_);
    while (true) {
      someWait_.wait(lock, [this] { return !waiting_.empty(); });
      const Answer& first = waiting_.front();
      lock.unlock();
      Send(objects.Queue, first.Message, first.Size);
      lock.lock();
      waiting_.pop_front();
    }
  }

  Answer answer_ = {};
  std::mutex mutex_;
  std::condition_variable someWait_;
  std::deque<Answer> waiting_;
};

}  // namespace

// Ends with SIGTERM, as does its parent's end, and takes its objects with it.
int main() {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  int key = kFirstKey;
  while (!MakeObjects(key)) ++key;
  static EchoKernel kernel;
  std::thread([] { kernel.Run(); }).detach();
  std::printf("key %d\n", key);
  std::fflush(stdout);
  int number;
  sigwait(&ends, &number);
  RemoveObjects();
  std::_Exit(0);
}
