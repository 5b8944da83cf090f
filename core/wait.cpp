#include "core/wait.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "core/dbc.h"
#include "core/fd_bits.h"
#include "core/stream.h"

namespace {

constexpr int kNoEnd = -1;
constexpr rlim_t kFewDescriptors = 64;  // with fewer all are left to clients and links

int epollDescriptor = -1;  // -1: select does it all
fd_set inEpoll[2];         // what epoll waits for: input, room for output
bool withoutEpollNext;     // the next wait

volatile int wakeDescriptor = -1;  // readable once somebody has called WakeUp; -1: none
volatile std::sig_atomic_t wokenUp;

void EndEpoll() {
  if (epollDescriptor >= 0) close(epollDescriptor);
  epollDescriptor = -1;
  for (fd_set& set : inEpoll) FD_ZERO(&set);
  g_SetsChanged = true;
}

void Put(fd_set& set, int fd, bool in) {
  if (in)
    FD_SET(fd, &set);
  else
    FD_CLR(fd, &set);
}

// Makes epoll wait for just these events of the descriptor; false: it refuses.
bool Change(int fd, bool read, bool write) {
  const bool before = FD_ISSET(fd, &inEpoll[0]) || FD_ISSET(fd, &inEpoll[1]);
  epoll_event event = {};
  event.events = (read ? EPOLLIN : 0U) | (write ? EPOLLOUT : 0U);
  event.data.fd = fd;
  const int operation = !read && !write ? EPOLL_CTL_DEL : before ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  const bool done = epoll_ctl(epollDescriptor, operation, fd, &event) == 0;
  Put(inEpoll[0], fd, done && read);
  Put(inEpoll[1], fd, done && write);
  return done;
}

// Brings epoll up to date with the sets; false: there is something that it does not wait for.
bool MoveDescriptors() {
  if (!g_SetsChanged) return true;
  const fd_set& read = g_DbcI.SocketSets.ReadSet;
  const fd_set& write = g_DbcI.SocketSets.WriteSet;
  const int words = FdWordsFor(g_DbcI.SocketSets.MaxSocket);
  bool all = true;
  for (int i = 0; i < words; ++i) {
    FdWord change =
        (WordOf(read, i) ^ WordOf(inEpoll[0], i)) | (WordOf(write, i) ^ WordOf(inEpoll[1], i));
    for (; change != 0; change &= change - 1) {
      const int fd = i * kFdWordBits + std::countr_zero(change);
      all = Change(fd, FD_ISSET(fd, &read), FD_ISSET(fd, &write)) && all;
    }
  }
  g_SetsChanged = !all;
  return all;
}

// A call of WakeUp is no event: with no other the wait counts as interrupted.
int WithoutWakeUp(int events) {
  if (events > 1) return events - 1;
  errno = EINTR;
  return -1;
}

// All that is registered, and the descriptor of WakeUp.
int SelectAll(int milliseconds) {
  int highest = g_DbcI.SocketSets.MaxSocket;
  g_Ready = {g_DbcI.SocketSets.ReadSet, g_DbcI.SocketSets.WriteSet};
  if (wakeDescriptor >= 0) {
    FD_SET(wakeDescriptor, &g_Ready.Read);
    highest = std::max(highest, wakeDescriptor + 1);
  }
  timeval end = {milliseconds / 1000, milliseconds % 1000 * 1000L};
  const int events =
      select(highest, &g_Ready.Read, &g_Ready.Write, nullptr, milliseconds < 0 ? nullptr : &end);
  if (events <= 0 || wakeDescriptor < 0 || !FD_ISSET(wakeDescriptor, &g_Ready.Read)) return events;
  FD_CLR(wakeDescriptor, &g_Ready.Read);
  return WithoutWakeUp(events);
}

// As select reports it: what is neither input nor room for output, an error or the peer's end, is
// both, as far as it was asked for.
int AddReady(const epoll_event& event) {
  const int fd = event.data.fd;
  const bool all = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
  const bool read = FD_ISSET(fd, &inEpoll[0]) && (all || (event.events & EPOLLIN) != 0);
  const bool write = FD_ISSET(fd, &inEpoll[1]) && (all || (event.events & EPOLLOUT) != 0);
  if (read) FD_SET(fd, &g_Ready.Read);
  if (write) FD_SET(fd, &g_Ready.Write);
  return read + write;
}

// But for a signal the agent goes on without epoll when it fails.
int WaitInEpoll(int milliseconds) {
  static epoll_event events[FD_SETSIZE];
  g_Ready = {};
  const int count = epoll_wait(epollDescriptor, events, FD_SETSIZE, milliseconds);
  if (count < 0 && errno != EINTR) {
    EndEpoll();
    errno = EINTR;
  }
  int found = 0;
  bool woken = false;
  for (int i = 0; i < count; ++i) {
    if (events[i].data.fd == wakeDescriptor)
      woken = true;
    else
      found += AddReady(events[i]);
  }
  if (count <= 0) return count;
  return woken ? WithoutWakeUp(found + 1) : found;
}

// Frames that have been taken already are events that the system does not know of. Adds their
// descriptors, as far as they are to be read; returns how many were not there.
int AddWaitingFrames() {
  if (g_WaitingCount == 0) return 0;
  int added = 0;
  const int words = FdWordsFor(g_DbcI.SocketSets.MaxSocket);
  for (int i = 0; i < words; ++i) {
    const FdWord wanted = WordOf(g_WaitingFrames, i) & WordOf(g_DbcI.SocketSets.ReadSet, i);
    if (wanted == 0) continue;
    const FdWord ready = WordOf(g_Ready.Read, i);
    added += std::popcount(wanted & ~ready);
    SetWord(g_Ready.Read, i, ready | wanted);
  }
  return added;
}

bool AnyFrameWaits() {
  if (g_WaitingCount == 0) return false;
  const int words = FdWordsFor(g_DbcI.SocketSets.MaxSocket);
  for (int i = 0; i < words; ++i) {
    if ((WordOf(g_WaitingFrames, i) & WordOf(g_DbcI.SocketSets.ReadSet, i)) != 0) return true;
  }
  return false;
}

bool AreFew() {
  rlimit limit;
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kFewDescriptors;
}

}  // namespace

ReadySets g_Ready;
bool g_SetsChanged = true;
int (*RetryOutput)();

void PrepareWait() {
  EndWait();
  if (AreFew()) return;
  wakeDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeDescriptor < 0) return;
  epollDescriptor = epoll_create1(EPOLL_CLOEXEC);
  if (epollDescriptor < 0) return;
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = wakeDescriptor;
  if (epoll_ctl(epollDescriptor, EPOLL_CTL_ADD, wakeDescriptor, &event) != 0) EndEpoll();
}

void EndWait() {
  EndEpoll();
  if (wakeDescriptor >= 0) close(wakeDescriptor);
  wakeDescriptor = -1;
  wokenUp = 0;
}

void WakeUp() {
  const int savedErrno = errno;
  wokenUp = 1;
  if (wakeDescriptor >= 0) eventfd_write(wakeDescriptor, 1);
  errno = savedErrno;
}

void ForgetWakeUp() {
  if (!wokenUp) return;
  const int savedErrno = errno;
  wokenUp = 0;
  eventfd_t calls;
  if (wakeDescriptor >= 0) eventfd_read(wakeDescriptor, &calls);
  errno = savedErrno;
}

// No wait has an end of its own, which would cost a timer each time, unless output is to be
// retried.
int WaitForEvents() {
  const int savedErrno = errno;
  const int retry = RetryOutput ? RetryOutput() : kNoEnd;
  const int end = AnyFrameWaits() || wokenUp ? 0 : retry;
  const bool useEpoll = epollDescriptor >= 0 && !withoutEpollNext && MoveDescriptors();
  withoutEpollNext = false;
  errno = savedErrno;
  const int events = useEpoll ? WaitInEpoll(end) : SelectAll(end);
  if (events < 0 && errno != EINTR) return events;
  if (events <= 0) g_Ready = {};
  const int added = AddWaitingFrames();
  return events < 0 && added == 0 ? events : std::max(events, 0) + added;
}

int ServeAlone(int fd) {
  g_Ready = {};
  FD_SET(fd, &g_Ready.Read);
  return 1;
}

void LookAtAllNext() { withoutEpollNext = true; }

void StopWaitingFor(int fd) {
  if (fd >= 0 && (fd == epollDescriptor || fd == wakeDescriptor)) EndWait();
  if (fd < 0 || fd >= FD_SETSIZE || epollDescriptor < 0) return;
  if (!FD_ISSET(fd, &inEpoll[0]) && !FD_ISSET(fd, &inEpoll[1])) return;
  const int savedErrno = errno;
  Change(fd, false, false);
  g_SetsChanged = true;
  errno = savedErrno;
}
