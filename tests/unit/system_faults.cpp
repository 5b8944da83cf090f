#include "tests/unit/system_faults.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>

namespace {

struct Fault {
  bool Active = false;
  int Error = 0, Successes = 0, Failures = 0, Calls = 0;
};
std::array<Fault, static_cast<std::size_t>(SystemCall::Count)> faults;

Fault& FaultOf(SystemCall call) { return faults[static_cast<std::size_t>(call)]; }

bool Fails(SystemCall call) {
  Fault& fault = FaultOf(call);
  if (!fault.Active) return false;
  ++fault.Calls;
  if (fault.Successes-- > 0) return false;
  if (fault.Failures-- <= 0) return false;
  errno = fault.Error;
  return true;
}

struct OptionFault {
  int Error = 0;  // 0: none
  int Level = 0, Name = 0;
};
OptionFault optionFault;

bool OptionFails(int level, int name) {
  if (optionFault.Error == 0 || level != optionFault.Level || name != optionFault.Name)
    return false;
  errno = optionFault.Error;
  return true;
}

std::atomic<int>* waits;  // in epoll, of started processes; null: not counted
pid_t starter;

bool IsWatched() { return waits && getpid() != starter; }

void AwaitAnswer(int fd) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return;
  if (address.sin_family != AF_INET) return;
  pollfd answer = {fd, POLLIN, 0};
  poll(&answer, 1, 1000);
}

std::time_t fixedTime;  // 0: time goes by

const char* onlyHost;
const char* onlyAddress;

hostent* LookUp(const char* name) {
  static in_addr address;
  static char* addresses[2];
  static hostent entry;
  if (std::strcmp(name, onlyHost) != 0) return nullptr;
  address.s_addr = inet_addr(onlyAddress);
  addresses[0] = reinterpret_cast<char*>(&address);
  entry = {};
  entry.h_addrtype = AF_INET;
  entry.h_length = sizeof address;
  entry.h_addr_list = addresses;
  return &entry;
}

}  // namespace

AnswersAtOnce::AnswersAtOnce() {
  void* const memory =
      mmap(nullptr, sizeof *waits, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  waits = new (memory) std::atomic<int>(0);
  starter = getpid();
}

AnswersAtOnce::~AnswersAtOnce() {
  munmap(waits, sizeof *waits);
  waits = nullptr;
}

int AnswersAtOnce::Waits() const { return *waits; }

FailingSystemCall::FailingSystemCall(SystemCall call, int error, int successes, int failures)
    : call_(call) {
  FaultOf(call) = {true, error, successes, failures, 0};
}

FailingSystemCall::~FailingSystemCall() { FaultOf(call_) = {}; }

int FailingSystemCall::Calls() const { return FaultOf(call_).Calls; }

FailingSocketOption::FailingSocketOption(int level, int name, int error) {
  optionFault = {error, level, name};
}

FailingSocketOption::~FailingSocketOption() { optionFault = {}; }

FixedTime::FixedTime(std::time_t seconds) { Set(seconds); }

FixedTime::~FixedTime() { Set(0); }

void FixedTime::Set(std::time_t seconds) { fixedTime = seconds; }

OnlyHost::OnlyHost(const char* name, const char* address) {
  onlyHost = name;
  onlyAddress = address;
}

OnlyHost::~OnlyHost() { onlyHost = onlyAddress = nullptr; }

// The linker directs the calls of everything linked statically into the test here.
extern "C" {
int __real_socket(int domain, int type, int protocol);
int __real_fcntl(int fd, int command, ...);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __real_connect(int fd, const sockaddr* address, socklen_t size);
ssize_t __real_send(int fd, const void* bytes, std::size_t count, int flags);
ssize_t __real_recv(int fd, void* bytes, std::size_t count, int flags);
ssize_t __real_read(int fd, void* bytes, std::size_t count);
ssize_t __real_write(int fd, const void* bytes, std::size_t count);
int __real_select(int end, fd_set* read, fd_set* write, fd_set* other, timeval* limit);
int __real_shutdown(int fd, int how);
int __real_msgsnd(int queue, const void* message, std::size_t size, int flags);
ssize_t __real_msgrcv(int queue, void* message, std::size_t size, long type, int flags);
std::time_t __real_time(std::time_t* seconds);
int __real_semop(int set, sembuf* operations, std::size_t count);
int __real_epoll_wait(int epoll, epoll_event* events, int room, int wait);
hostent* __real_gethostbyname(const char* name);

int __wrap_socket(int domain, int type, int protocol) {
  return Fails(SystemCall::Socket) ? -1 : __real_socket(domain, type, protocol);
}
int __wrap_fcntl(int fd, int command, ...) {
  std::va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  return Fails(SystemCall::Fcntl) ? -1 : __real_fcntl(fd, command, argument);
}
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
  if (OptionFails(level, name) || Fails(SystemCall::SetSockOpt)) return -1;
  return __real_setsockopt(fd, level, name, value, size);
}
int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
  return Fails(SystemCall::Connect) ? -1 : __real_connect(fd, address, size);
}
ssize_t __wrap_send(int fd, const void* bytes, std::size_t count, int flags) {
  if (Fails(SystemCall::Send)) return -1;
  const ssize_t sent = __real_send(fd, bytes, count, flags);
  if (IsWatched()) AwaitAnswer(fd);
  return sent;
}
ssize_t __wrap_recv(int fd, void* bytes, std::size_t count, int flags) {
  return Fails(SystemCall::Recv) ? -1 : __real_recv(fd, bytes, count, flags);
}
ssize_t __wrap_read(int fd, void* bytes, std::size_t count) {
  return Fails(SystemCall::Read) ? -1 : __real_read(fd, bytes, count);
}
// What becomes of them where the compiler knows how much room there is.
ssize_t __wrap___recv_chk(int fd, void* bytes, std::size_t count, std::size_t, int flags) {
  return __wrap_recv(fd, bytes, count, flags);
}
ssize_t __wrap___read_chk(int fd, void* bytes, std::size_t count, std::size_t) {
  return __wrap_read(fd, bytes, count);
}
ssize_t __wrap_write(int fd, const void* bytes, std::size_t count) {
  return Fails(SystemCall::Write) ? -1 : __real_write(fd, bytes, count);
}
int __wrap_select(int end, fd_set* read, fd_set* write, fd_set* other, timeval* limit) {
  return Fails(SystemCall::Select) ? -1 : __real_select(end, read, write, other, limit);
}
int __wrap_shutdown(int fd, int how) {
  return Fails(SystemCall::Shutdown) ? -1 : __real_shutdown(fd, how);
}
int __wrap_msgsnd(int queue, const void* message, std::size_t size, int flags) {
  return Fails(SystemCall::MsgSend) ? -1 : __real_msgsnd(queue, message, size, flags);
}
ssize_t __wrap_msgrcv(int queue, void* message, std::size_t size, long type, int flags) {
  return Fails(SystemCall::MsgReceive) ? -1 : __real_msgrcv(queue, message, size, type, flags);
}
std::time_t __wrap_time(std::time_t* seconds) {
  if (fixedTime == 0) return __real_time(seconds);
  if (seconds) *seconds = fixedTime;
  return fixedTime;
}
int __wrap_semop(int set, sembuf* operations, std::size_t count) {
  return Fails(SystemCall::SemOp) ? -1 : __real_semop(set, operations, count);
}
int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int wait) {
  if (IsWatched()) ++*waits;
  return __real_epoll_wait(epoll, events, room, wait);
}
hostent* __wrap_gethostbyname(const char* name) {
  return onlyHost ? LookUp(name) : __real_gethostbyname(name);
}
}
