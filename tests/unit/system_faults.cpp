#include "tests/unit/system_faults.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
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
int __real_epoll_wait(int epoll, epoll_event* events, int room, int wait);
hostent* __real_gethostbyname(const char* name);

int __wrap_socket(int domain, int type, int protocol);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_connect(int fd, const sockaddr* address, socklen_t size);
ssize_t __wrap_send(int fd, const void* bytes, std::size_t count, int flags);
int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int wait);
hostent* __wrap_gethostbyname(const char* name);

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
int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int wait) {
  if (IsWatched()) ++*waits;
  return __real_epoll_wait(epoll, events, room, wait);
}
hostent* __wrap_gethostbyname(const char* name) {
  return onlyHost ? LookUp(name) : __real_gethostbyname(name);
}
}
