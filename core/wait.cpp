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
#include <cstring>

#include "core/dbc.h"

namespace {

constexpr int kWordBits = 8 * sizeof(fd_mask);
constexpr int kFewClients = 8;  // of more, epoll waits for nothing else
constexpr int kEventsAtOnce = 256;
constexpr int kNoEnd = -1;
constexpr rlim_t kFewDescriptors = 64;  // with fewer all are left to clients and links

int epollDescriptor = -1;  // -1: select does it all
fd_set behindEpoll;        // descriptors to be read that epoll waits for
bool withoutEpollNext;     // the next wait

volatile int wakeDescriptor = -1;  // readable once somebody has called WakeUp; -1: none
volatile std::sig_atomic_t wokenUp;

std::uint64_t& Word(fd_set& set, int index) {
  return reinterpret_cast<std::uint64_t*>(set.fds_bits)[index];
}

int WordsInUse() { return (g_DbcI.SocketSets.MaxSocket + kWordBits - 1) / kWordBits; }

// Client connections whose requests are read.
std::uint64_t Clients(int word) {
  return Word(g_DbcI.ClientSockets, word) & Word(g_DbcI.SocketSets.ReadSet, word);
}

void EndEpoll() {
  if (epollDescriptor >= 0) close(epollDescriptor);
  epollDescriptor = -1;
  FD_ZERO(&behindEpoll);
}

void Change(int operation, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = fd;
  const bool done = epoll_ctl(epollDescriptor, operation, fd, &event) == 0;
  if (operation == EPOLL_CTL_ADD && done)
    FD_SET(fd, &behindEpoll);
  else
    FD_CLR(fd, &behindEpoll);
}

bool ManyClients(int words) {
  int count = 0;
  for (int i = 0; i < words; ++i) count += std::popcount(Clients(i));
  return count > kFewClients;
}

// Brings the descriptors behind epoll up to date with the sets: all that are to be read, or, where
// there are many clients, those of the clients.
void MoveDescriptors(int words) {
  const bool many = ManyClients(words);
  for (int i = 0; i < words; ++i) {
    const std::uint64_t target = many ? Clients(i) : Word(g_DbcI.SocketSets.ReadSet, i);
    std::uint64_t change = target ^ Word(behindEpoll, i);
    for (; change != 0; change &= change - 1) {
      const int bit = std::countr_zero(change);
      const bool add = (target >> bit & 1) != 0;
      Change(add ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, i * kWordBits + bit);
    }
  }
}

// A call of WakeUp is no event: with no other the wait counts as interrupted.
int WithoutWakeUp(int events) {
  if (events > 1) return events - 1;
  errno = EINTR;
  return -1;
}

// No wait has an end of its own, which would cost a timer each time.
int Select(int highest, fd_set* readyForRead, fd_set* readyForWrite, bool atOnce) {
  timeval now = {0, 0};
  return select(highest, readyForRead, readyForWrite, nullptr, atOnce ? &now : nullptr);
}

// All that is registered, and the descriptor of WakeUp.
int SelectAll(fd_set* readyForRead, fd_set* readyForWrite, bool atOnce) {
  int highest = g_DbcI.SocketSets.MaxSocket;
  if (wakeDescriptor >= 0) {
    FD_SET(wakeDescriptor, readyForRead);
    highest = std::max(highest, wakeDescriptor + 1);
  }
  const int events = Select(highest, readyForRead, readyForWrite, atOnce);
  if (events <= 0 || wakeDescriptor < 0 || !FD_ISSET(wakeDescriptor, readyForRead)) return events;
  FD_CLR(wakeDescriptor, readyForRead);
  return WithoutWakeUp(events);
}

// Adds what epoll finds readable. Returns how many, or -1 with errno; but for a signal the agent
// then goes on without.
int WaitInEpoll(fd_set* readyForRead, bool atOnce) {
  epoll_event events[kEventsAtOnce];
  const int count = epoll_wait(epollDescriptor, events, kEventsAtOnce, atOnce ? 0 : kNoEnd);
  if (count < 0 && errno != EINTR) EndEpoll();
  bool woken = false;
  for (int i = 0; i < count; ++i) {
    if (events[i].data.fd == wakeDescriptor)
      woken = true;
    else
      FD_SET(events[i].data.fd, readyForRead);
  }
  return woken ? WithoutWakeUp(count) : count;
}

bool AreFew() {
  rlimit limit;
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kFewDescriptors;
}

}  // namespace

void PrepareWait(bool withEpoll) {
  EndWait();
  if (AreFew()) return;
  wakeDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (!withEpoll) return;
  epollDescriptor = epoll_create1(EPOLL_CLOEXEC);
  if (epollDescriptor < 0 || wakeDescriptor < 0) return;
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

int WaitForEvents(bool atOnce, fd_set* readyForRead, fd_set* readyForWrite, int alone) {
  const int words = WordsInUse();
  const int savedErrno = errno;
  atOnce = atOnce || wokenUp;
  const bool useEpoll = epollDescriptor >= 0 && !withoutEpollNext;
  withoutEpollNext = false;
  if (useEpoll) MoveDescriptors(words);
  errno = savedErrno;
  std::uint64_t reads = 0, writes = 0, behind = 0;
  for (int i = 0; i < words; ++i) {
    const std::uint64_t left = useEpoll ? Word(behindEpoll, i) : 0;
    reads |= Word(*readyForRead, i) = Word(g_DbcI.SocketSets.ReadSet, i) & ~left;
    writes |= Word(*readyForWrite, i) = Word(g_DbcI.SocketSets.WriteSet, i);
    behind |= left;
  }
  fd_set* const write = writes != 0 ? readyForWrite : nullptr;
  if (behind == 0) return SelectAll(readyForRead, write, atOnce);
  if ((reads | writes) == 0) return WaitInEpoll(readyForRead, atOnce);
  FD_SET(epollDescriptor, readyForRead);
  const int highest = std::max(g_DbcI.SocketSets.MaxSocket, epollDescriptor + 1);
  const int events = Select(highest, readyForRead, write, atOnce);
  if (events <= 0 || !FD_ISSET(epollDescriptor, readyForRead)) return events;
  FD_CLR(epollDescriptor, readyForRead);
  if (alone >= 0 && FD_ISSET(alone, readyForRead)) return events - 1;
  return events - 1 + std::max(WaitInEpoll(readyForRead, true), 0);
}

void LookAtAllNext() { withoutEpollNext = true; }

void StopWaitingFor(int fd) {
  if (fd >= 0 && (fd == epollDescriptor || fd == wakeDescriptor)) EndWait();
  if (fd < 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, &behindEpoll)) return;
  const int savedErrno = errno;
  Change(EPOLL_CTL_DEL, fd);
  errno = savedErrno;
}
