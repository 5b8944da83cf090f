#include "core/wait.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "core/dbc.h"

namespace {

constexpr int kWordBits = 8 * sizeof(fd_mask);
constexpr int kFewClients = 8;  // so many connections select is handed itself
constexpr int kEventsAtOnce = 256;

int epollDescriptor = -1;
fd_set behindEpoll;  // connections that epoll waits for

std::uint64_t& Word(fd_set& set, int index) {
  return reinterpret_cast<std::uint64_t*>(set.fds_bits)[index];
}

int WordsInUse() { return (g_DbcI.SocketSets.MaxSocket + kWordBits - 1) / kWordBits; }

// Connections that are only read from.
std::uint64_t QuietClients(int word) {
  return Word(g_DbcI.ClientSockets, word) & Word(g_DbcI.SocketSets.ReadSet, word) &
         ~Word(g_DbcI.SocketSets.WriteSet, word);
}

// An epoll descriptor that stands in select's set; false: there is none, select does it all.
bool OpenEpoll() {
  if (epollDescriptor >= 0) return true;
  epollDescriptor = epoll_create1(EPOLL_CLOEXEC);
  if (epollDescriptor >= FD_SETSIZE) {
    close(epollDescriptor);
    epollDescriptor = -1;
  }
  return epollDescriptor >= 0;
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
  for (int i = 0; i < words; ++i) count += std::popcount(QuietClients(i));
  return count > kFewClients;
}

// Brings the connections behind epoll up to date with the sets.
void MoveClients(int words) {
  const bool wanted = ManyClients(words) && OpenEpoll();
  for (int i = 0; i < words; ++i) {
    const std::uint64_t target = wanted ? QuietClients(i) : 0;
    std::uint64_t change = target ^ Word(behindEpoll, i);
    for (; change != 0; change &= change - 1) {
      const int bit = std::countr_zero(change);
      const bool add = (target >> bit & 1) != 0;
      Change(add ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, i * kWordBits + bit);
    }
  }
}

bool AnyBehindEpoll(int words) {
  for (int i = 0; i < words; ++i) {
    if (Word(behindEpoll, i) != 0) return true;
  }
  return false;
}

// The flags are looked at as late as can be: what a handler has set since the loop's own look must
// not lie until the next event. A signal that comes between this look and the system's own wait, a
// few instructions later, lies until the next tick. A wait with an end would cost a timer each
// time.
int Select(int highest, fd_set* readyForRead, fd_set* readyForWrite, bool atOnce) {
  timeval now = {0, 0};
  const bool signalled = g_DbcI.AlarmFlag || Stopping();
  return select(highest, readyForRead, readyForWrite, nullptr,
                atOnce || signalled ? &now : nullptr);
}

// Puts the connections that epoll found readable in the place of its descriptor. Returns how many.
int TakeEpollEvents(fd_set* readyForRead) {
  epoll_event events[kEventsAtOnce];
  const int count = epoll_wait(epollDescriptor, events, kEventsAtOnce, 0);
  for (int i = 0; i < count; ++i) FD_SET(events[i].data.fd, readyForRead);
  return count > 0 ? count : 0;
}

}  // namespace

int WaitForEvents(bool atOnce, fd_set* readyForRead, fd_set* readyForWrite, int alone) {
  const int words = WordsInUse();
  const int savedErrno = errno;
  MoveClients(words);
  errno = savedErrno;
  std::uint64_t writes = 0;
  for (int i = 0; i < words; ++i) {
    Word(*readyForRead, i) = Word(g_DbcI.SocketSets.ReadSet, i) & ~Word(behindEpoll, i);
    Word(*readyForWrite, i) = Word(g_DbcI.SocketSets.WriteSet, i);
    writes |= Word(*readyForWrite, i);
  }
  int highest = g_DbcI.SocketSets.MaxSocket;
  const bool useEpoll = epollDescriptor >= 0 && AnyBehindEpoll(words);
  if (useEpoll) {
    FD_SET(epollDescriptor, readyForRead);
    if (highest <= epollDescriptor) highest = epollDescriptor + 1;
  }
  fd_set* const write = writes != 0 ? readyForWrite : nullptr;
  const int events = Select(highest, readyForRead, write, atOnce);
  if (events <= 0 || !useEpoll || !FD_ISSET(epollDescriptor, readyForRead)) return events;
  FD_CLR(epollDescriptor, readyForRead);
  if (alone >= 0 && FD_ISSET(alone, readyForRead)) return events - 1;
  return events - 1 + TakeEpollEvents(readyForRead);
}

void StopWaitingFor(int fd) {
  if (fd < 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, &behindEpoll)) return;
  const int savedErrno = errno;
  Change(EPOLL_CTL_DEL, fd);
  errno = savedErrno;
}
