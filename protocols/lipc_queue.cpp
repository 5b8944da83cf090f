#include "protocols/lipc_queue.h"

#include <sys/msg.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "client/parking.h"
#include "core/process.h"
#include "core/status.h"
#include "protocols/lipc.h"

static constexpr char Module[] = "lipc";

// As long as its body.
struct PendingMessage {
  PendingMessage* Next;
  std::size_t Size;
  QueueMessage Message;
};

LIpcLinkData* g_ConnectedQueues;

namespace {

constexpr std::int32_t kFirstPause = 1, kLongestPause = 64;  // milliseconds
constexpr int kFull = -1;

std::int64_t Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

Outcome QueueFailed() {
  LOG(kLogDriver, "LIPC msgsnd failed. errno %d", errno);
  return {kStatusSend, kNotQueued};
}

Outcome WakeKernel(int semaphore) {
  sembuf up = {.sem_num = 0, .sem_op = 1, .sem_flg = 0};
  int result;
  do {
    result = semop(semaphore, &up, 1);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return {};
  LOG(kLogDriver, "LIPC semop failed. errno %d", errno);
  return {kStatusSend, "FAILED semop"};
}

// As SendToQueue, but kFull while the queue is full and a kernel lives that can empty it.
Outcome PutIntoQueue(LIpcLinkData* data, const QueueMessage& msg, std::size_t size) {
  while (msgsnd(data->MsgQueueId, &msg, size, IPC_NOWAIT) != 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return QueueFailed();
    if (TakeFormerAnswers(data)) continue;
    if (ProcessIsAlive(KernelPid(data))) return {kFull, ""};
    errno = EAGAIN;  // whatever the looks at the kernel and the former readers said
    return QueueFailed();
  }
  return WakeKernel(data->SemId);
}

bool Keep(Link* link, const QueueMessage& msg, std::size_t size) {
  constexpr std::size_t kHeader = offsetof(PendingMessage, Message) + offsetof(QueueMessage, Body);
  auto* const kept = static_cast<PendingMessage*>(std::malloc(kHeader + size));
  if (!kept) return false;
  kept->Next = nullptr;
  kept->Size = size;
  std::memcpy(static_cast<void*>(&kept->Message), &msg, offsetof(QueueMessage, Body) + size);
  LIpcLinkData* const data = LIpcDataOf(link);
  (data->FirstPending ? data->LastPending->Next : data->FirstPending) = kept;
  data->LastPending = kept;
  link->Unsent += size;
  return true;
}

void DropFirst(Link* link) {
  LIpcLinkData* const data = LIpcDataOf(link);
  PendingMessage* const first = data->FirstPending;
  data->FirstPending = first->Next;
  link->Unsent -= first->Size;
  std::free(first);
}

// Sends what there is room for. The next pause is longer than the last one when there was none.
Outcome SendPending(Link* link, std::int64_t now) {
  LIpcLinkData* const data = LIpcDataOf(link);
  data->Pause = std::min(2 * data->Pause, kLongestPause);
  Outcome put;
  while (data->FirstPending) {
    put = PutIntoQueue(data, data->FirstPending->Message, data->FirstPending->Size);
    if (put.Status != 0) break;
    DropFirst(link);
    data->Pause = kFirstPause;
  }
  data->RetryAt = now + data->Pause;
  return put;
}

}  // namespace

pid_t KernelPid(const LIpcLinkData* data) {
  pid_t pid;
  std::memcpy(&pid, data->Shm, sizeof pid);
  return pid;
}

Outcome SendToQueue(Link* link, const QueueMessage& msg, std::size_t size) {
  LIpcLinkData* const data = LIpcDataOf(link);
  const int savedErrno = errno;
  if (!data->FirstPending) {
    const Outcome put = PutIntoQueue(data, msg, size);
    if (put.Status > 0) return put;
    errno = savedErrno;
    if (put.Status == 0) return {};
    data->Pause = kFirstPause;
    data->RetryAt = Now() + kFirstPause;
  }
  if (Keep(link, msg, size)) return {};
  errno = ENOMEM;
  return QueueFailed();
}

void RetryNow(LIpcLinkData* data) { data->RetryAt = 0; }

int RetryQueues() {
  std::int64_t next = -1;
  for (LIpcLinkData* data = g_ConnectedQueues; data; data = data->Next) {
    if (!data->FirstPending) continue;
    const std::int64_t now = Now();
    if (now >= data->RetryAt) {
      Link* const link = data->Owner;
      const std::size_t unsent = link->Unsent;
      if (SendPending(link, now).Status > 0) {
        DisconnectLink(HERE, link, kStatusSend, errno);
        return 0;  // the list may be another one now
      }
      if (link->Unsent < unsent) ReleaseParkedBehind(link);
    }
    if (data->FirstPending && (next < 0 || data->RetryAt - now < next)) next = data->RetryAt - now;
  }
  return static_cast<int>(next);
}

void DropPending(Link* link) {
  while (LIpcDataOf(link)->FirstPending) DropFirst(link);
  ReleaseParkedBehind(link);
}

void RememberFormerReader(LIpcLinkData* data) {
  if (data->FormerQueue != data->MsgQueueId) data->FormerCount = 0;
  data->FormerQueue = data->MsgQueueId;
  data->Former[data->FormerCount++ % kFormerReaders] = data->ChildPid;
}

// One that still lives takes them itself; or its number belongs to somebody else by now.
bool TakeFormerAnswers(LIpcLinkData* data) {
  if (data->FormerQueue != data->MsgQueueId) return false;
  bool taken = false;
  QueueMessage msg;
  for (std::uint32_t i = 0; i < std::min(data->FormerCount, kFormerReaders); ++i) {
    if (ProcessIsAlive(data->Former[i])) continue;
    while (msgrcv(data->MsgQueueId, &msg, sizeof msg.Body, data->Former[i],
                  IPC_NOWAIT | MSG_NOERROR) >= 0)
      taken = true;
  }
  return taken;
}
