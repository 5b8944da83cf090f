#include "bench/queue/queue.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>

#include <cerrno>

#include "bench/sockets.h"

namespace bench {
namespace {

bool Send(const MessageQueue& queue, const QueueMessage& message, std::size_t size, int flags) {
  int result;
  do result = msgsnd(queue.Id, &message, size, flags);
  while (result != 0 && errno == EINTR);
  if (result != 0 && errno != EAGAIN) Fail("msgsnd");
  return result == 0;
}

}  // namespace

MessageQueue OpenQueue(int key) {
  const MessageQueue queue = {.Id = msgget(key, 0), .Semaphore = semget(key, 1, 0)};
  if (queue.Id < 0 || queue.Semaphore < 0) Fail("the kernel's queue");
  return queue;
}

void Send(const MessageQueue& queue, const QueueMessage& message, std::size_t size) {
  Send(queue, message, size, 0);
}

bool SendIfRoom(const MessageQueue& queue, const QueueMessage& message, std::size_t size) {
  return Send(queue, message, size, IPC_NOWAIT);
}

std::size_t Receive(const MessageQueue& queue, QueueMessage* message, long type) {
  ssize_t size;
  do size = msgrcv(queue.Id, message, sizeof message->Body, type, 0);
  while (size < 0 && errno == EINTR);
  if (size < 0) Fail("msgrcv");
  return static_cast<std::size_t>(size);
}

void ChangeSemaphore(const MessageQueue& queue, short by) {
  sembuf change = {.sem_num = 0, .sem_op = by, .sem_flg = 0};
  while (semop(queue.Semaphore, &change, 1) != 0)
    if (errno != EINTR) Fail("semop");
}

}  // namespace bench
