#include "core/wait.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "core/dbc.h"

namespace {

constexpr int kWordBits = 8 * sizeof(fd_mask);
constexpr int kFewClients = 8;  // of more, epoll waits for nothing else
constexpr int kEventsAtOnce = 256;
constexpr int kNoEnd = -1;
// Above the numbers of links, and low enough for the system to keep select's sets on its stack.
constexpr int kEpollNumber = 300;

int epollDescriptor = -1;  // -1: select does it all
fd_set behindEpoll;        // descriptors to be read that epoll waits for
bool withoutEpollNext;     // the next wait

std::uint64_t& Word(fd_set& set, int index) {
  return reinterpret_cast<std::uint64_t*>(set.fds_bits)[index];
}

int WordsInUse() { return (g_DbcI.SocketSets.MaxSocket + kWordBits - 1) / kWordBits; }

// Client connections whose requests are read.
std::uint64_t Clients(int word) {
  return Word(g_DbcI.ClientSockets, word) & Word(g_DbcI.SocketSets.ReadSet, word);
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

// The flags are looked at as late as can be: what a handler has set since the loop's own look must
// not lie until the next event. A signal that comes between this look and the system's own wait, a
// few instructions later, lies until the next tick. A wait with an end would cost a timer each
// time.
bool OnlyLooks(bool atOnce) { return atOnce || g_DbcI.AlarmFlag || Stopping(); }

int Select(int highest, fd_set* readyForRead, fd_set* readyForWrite, bool atOnce) {
  timeval now = {0, 0};
  return select(highest, readyForRead, readyForWrite, nullptr, OnlyLooks(atOnce) ? &now : nullptr);
}

// Adds what epoll finds readable. Returns how many, or -1 with errno; but for a signal the agent
// then goes on without.
int WaitInEpoll(fd_set* readyForRead, bool atOnce) {
  epoll_event events[kEventsAtOnce];
  const int count =
      epoll_wait(epollDescriptor, events, kEventsAtOnce, OnlyLooks(atOnce) ? 0 : kNoEnd);
  for (int i = 0; i < count; ++i) FD_SET(events[i].data.fd, readyForRead);
  if (count < 0 && errno != EINTR) EndWait();
  return count;
}

}  // namespace

void PrepareWait() {
  EndWait();
  const int lowest = epoll_create1(EPOLL_CLOEXEC);
  if (lowest < 0) return;
  epollDescriptor = fcntl(lowest, F_DUPFD_CLOEXEC, kEpollNumber);
  close(lowest);
  if (epollDescriptor >= FD_SETSIZE) EndWait();
}

void EndWait() {
  if (epollDescriptor >= 0) close(epollDescriptor);
  epollDescriptor = -1;
  FD_ZERO(&behindEpoll);
}

int WaitForEvents(bool atOnce, fd_set* readyForRead, fd_set* readyForWrite, int alone) {
  const int words = WordsInUse();
  const int savedErrno = errno;
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
  if (behind != 0 && (reads | writes) == 0) return WaitInEpoll(readyForRead, atOnce);
  int highest = g_DbcI.SocketSets.MaxSocket;
  if (behind != 0) {
    FD_SET(epollDescriptor, readyForRead);
    if (highest <= epollDescriptor) highest = epollDescriptor + 1;
  }
  fd_set* const write = writes != 0 ? readyForWrite : nullptr;
  const int events = Select(highest, readyForRead, write, atOnce);
  if (events <= 0 || behind == 0 || !FD_ISSET(epollDescriptor, readyForRead)) return events;
  FD_CLR(epollDescriptor, readyForRead);
  if (alone >= 0 && FD_ISSET(alone, readyForRead)) return events - 1;
  return events - 1 + std::max(WaitInEpoll(readyForRead, true), 0);
}

void LookAtAllNext() { withoutEpollNext = true; }

void StopWaitingFor(int fd) {
  if (fd < 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, &behindEpoll)) return;
  const int savedErrno = errno;
  Change(EPOLL_CTL_DEL, fd);
  errno = savedErrno;
}
