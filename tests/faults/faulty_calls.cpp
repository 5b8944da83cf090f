// Stands between the agent and the system: notes by which path each call was reached and lets it
// fail where the driver wants that. Without a control file every call goes through.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/faults/control.h"

extern "C" {
extern char __executable_start, etext;
extern void* __libc_stack_end;
}

namespace {

using faults::Call;
using faults::FramePath;

constexpr useconds_t kDelayMicroseconds = 60000;

faults::Control* control;

bool IsCode(std::uint64_t address) {
  return address >= reinterpret_cast<std::uint64_t>(&__executable_start) &&
         address < reinterpret_cast<std::uint64_t>(&etext);
}

// Follows the chain of frame pointers through the agent's own code; a signal handler's chain ends
// with the handler.
__attribute__((no_sanitize("address", "undefined"))) FramePath WalkFrom(const void* frame) {
  FramePath path = {};
  const std::uint64_t* at = static_cast<const std::uint64_t*>(frame);
  while (path.Depth < faults::kDepth && IsCode(at[1])) {
    path.Frames[path.Depth++] = at[1];
    const std::uint64_t* const next = reinterpret_cast<const std::uint64_t*>(at[0]);
    if (next <= at || next >= static_cast<const std::uint64_t*>(__libc_stack_end) ||
        (at[0] & 7) != 0)
      break;
    at = next;
  }
  return path;
}

bool Begins(const FramePath& path, const FramePath& beginning) {
  return beginning.Depth <= path.Depth &&
         std::memcmp(path.Frames, beginning.Frames, beginning.Depth * sizeof path.Frames[0]) == 0;
}

bool IsRecorded(const faults::PathRecord& record, Call call, const FramePath& path) {
  return record.Ready && record.Call == static_cast<std::uint32_t>(call) &&
         record.Path.Depth == path.Depth && Begins(path, record.Path);
}

// Two processes may record a path at the same time: it then stands there twice.
void Record(Call call, const FramePath& path) {
  const std::uint32_t count = control->PathCount;
  for (std::uint32_t i = 0; i < count && i < faults::kPathsMax; ++i) {
    if (IsRecorded(control->Paths[i], call, path)) return;
  }
  const std::uint32_t index = control->PathCount.fetch_add(1);
  if (index >= faults::kPathsMax) return;
  faults::PathRecord& record = control->Paths[index];
  record.Call = static_cast<std::uint32_t>(call);
  record.Path = path;
  record.Ready = 1;
}

bool IsHit(faults::Fault& fault, Call call, const FramePath& path) {
  if (!fault.Armed || fault.Call != static_cast<std::uint32_t>(call)) return false;
  for (std::uint32_t i = 0; i < fault.Variants; ++i) {
    if (Begins(path, fault.Paths[i]))
      return fault.Skip.fetch_sub(1) <= 0 && fault.Armed.exchange(0) != 0;
  }
  return false;
}

struct Verdict {
  int Error = 0;  // 0: the call is made and tells its own result
  bool Short = false;
  bool Perform = false;
};

// What becomes of a call made from the frame of its wrapper.
Verdict Meet(Call call, const void* frame) {
  if (!control) return {};
  const int savedErrno = errno;
  const FramePath path = WalkFrom(frame);
  Record(call, path);
  Verdict verdict;
  for (faults::Fault& fault : control->Faults) {
    if (!IsHit(fault, call, path)) continue;
    verdict.Short = fault.Error == faults::kShort;
    verdict.Error = fault.Error > 0 ? fault.Error : 0;
    verdict.Perform = fault.Perform != 0;
    fault.Fired = 1;
    if (fault.Error == faults::kDelay) usleep(kDelayMicroseconds);
    break;
  }
  errno = savedErrno;
  return verdict;
}

std::size_t Shortened(const Verdict& verdict, std::size_t count) {
  return verdict.Short && count > 1 ? 1 : count;
}

}  // namespace

// A wrapper of a call that takes its arguments as they are.
#define FAULTY(result, failure, name, parameters, arguments)              \
  extern "C" result __real_##name parameters;                             \
  extern "C" result __wrap_##name parameters;                             \
  result __wrap_##name parameters {                                       \
    const Verdict verdict = Meet(Call::name, __builtin_frame_address(0)); \
    if (verdict.Error == 0 || verdict.Perform) {                          \
      result made = __real_##name arguments;                              \
      if (verdict.Error == 0) return made;                                \
    }                                                                     \
    errno = verdict.Error;                                                \
    return failure;                                                       \
  }

// A wrapper of a call that may deliver less than `count`.
#define FAULTY_COUNT(result, name, count, parameters, arguments)                                 \
  extern "C" result __real_##name parameters;                                                    \
  extern "C" result __wrap_##name parameters;                                                    \
  result __wrap_##name parameters {                                                              \
    const Verdict verdict = Meet(Call::name, __builtin_frame_address(0));                        \
    if (verdict.Error == 0) {                                                                    \
      count = static_cast<decltype(count)>(Shortened(verdict, static_cast<std::size_t>(count))); \
      return __real_##name arguments;                                                            \
    }                                                                                            \
    errno = verdict.Error;                                                                       \
    return -1;                                                                                   \
  }

FAULTY(int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAULTY(int, -1, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
FAULTY(int, -1, listen, (int fd, int backlog), (fd, backlog))
FAULTY(int, -1, accept, (int fd, sockaddr* address, socklen_t* size), (fd, address, size))
FAULTY(int, -1, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
FAULTY(int, -1, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
       (fd, level, name, value, size))
FAULTY(int, -1, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
       (fd, level, name, value, size))
FAULTY_COUNT(ssize_t, send, count, (int fd, const void* bytes, std::size_t count, int flags),
             (fd, bytes, count, flags))
FAULTY_COUNT(ssize_t, recv, count, (int fd, void* bytes, std::size_t count, int flags),
             (fd, bytes, count, flags))
FAULTY_COUNT(ssize_t, read, count, (int fd, void* bytes, std::size_t count), (fd, bytes, count))
FAULTY_COUNT(ssize_t, write, count, (int fd, const void* bytes, std::size_t count),
             (fd, bytes, count))
FAULTY(int, -1, select, (int count, fd_set* in, fd_set* out, fd_set* other, timeval* wait),
       (count, in, out, other, wait))
FAULTY(int, -1, poll, (pollfd * set, nfds_t count, int wait), (set, count, wait))
FAULTY(int, -1, pipe, (int* ends), (ends))
FAULTY(int, -1, pipe2, (int* ends, int flags), (ends, flags))
FAULTY(int, -1, socketpair, (int domain, int type, int protocol, int* ends),
       (domain, type, protocol, ends))
FAULTY(int, -1, eventfd, (unsigned int count, int flags), (count, flags))
FAULTY(int, -1, epoll_create1, (int flags), (flags))
FAULTY(int, -1, epoll_ctl, (int epoll, int operation, int fd, epoll_event* event),
       (epoll, operation, fd, event))
FAULTY_COUNT(int, epoll_wait, count, (int epoll, epoll_event* events, int count, int wait),
             (epoll, events, count, wait))
FAULTY(pid_t, -1, fork, (), ())
FAULTY(pid_t, -1, waitpid, (pid_t pid, int* status, int options), (pid, status, options))
FAULTY(FILE*, nullptr, fopen, (const char* path, const char* mode), (path, mode))
FAULTY(void*, nullptr, malloc, (std::size_t size), (size))
FAULTY(void*, nullptr, calloc, (std::size_t count, std::size_t size), (count, size))
FAULTY(void*, nullptr, realloc, (void* memory, std::size_t size), (memory, size))
FAULTY(void*, MAP_FAILED, mmap,
       (void* where, std::size_t size, int access, int flags, int fd, off_t offset),
       (where, size, access, flags, fd, offset))
FAULTY(int, -1, shmget, (key_t key, std::size_t size, int flags), (key, size, flags))
FAULTY(void*, MAP_FAILED, shmat, (int id, const void* where, int flags), (id, where, flags))
FAULTY(int, -1, shmctl, (int id, int command, void* state), (id, command, state))
FAULTY(int, -1, msgget, (key_t key, int flags), (key, flags))
FAULTY(int, -1, msgsnd, (int id, const void* msg, std::size_t size, int flags),
       (id, msg, size, flags))
FAULTY(ssize_t, -1, msgrcv, (int id, void* msg, std::size_t size, long type, int flags),
       (id, msg, size, type, flags))
FAULTY(int, -1, semget, (key_t key, int count, int flags), (key, count, flags))
FAULTY(int, -1, semop, (int id, sembuf* operations, std::size_t count), (id, operations, count))
FAULTY(int, -1, kill, (pid_t pid, int signal), (pid, signal))
FAULTY(hostent*, nullptr, gethostbyname, (const char* name), (name))

extern "C" {
int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
}

int __wrap_fcntl(int fd, int command, ...) {
  std::va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  const Verdict verdict = Meet(Call::fcntl, __builtin_frame_address(0));
  if (verdict.Error == 0) return __real_fcntl(fd, command, argument);
  errno = verdict.Error;
  return -1;
}

int __wrap_open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  const Verdict verdict = Meet(Call::open, __builtin_frame_address(0));
  if (verdict.Error == 0) return __real_open(path, flags, mode);
  errno = verdict.Error;
  return -1;
}

namespace {

[[gnu::constructor]] void OpenControl() {
  const char* const path = std::getenv(faults::kControlVariable);
  if (!path) return;
  const int fd = __real_open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  void* const memory =
      __real_mmap(nullptr, sizeof(faults::Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory != MAP_FAILED) control = static_cast<faults::Control*>(memory);
}

}  // namespace
