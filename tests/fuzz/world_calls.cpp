// The linker directs the agent's system calls here; CMakeLists.txt has the list.
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "tests/fuzz/world.h"

namespace world {
bool Fails(Call call);
}

namespace {

using world::At;
using world::Call;
using world::Fails;
using world::IsOpen;
using world::Kind;
using world::Plan;
using world::Socket;
using world::state;

constexpr std::size_t kMostPieces = 256;  // in which what has come is read, to end in time
constexpr int kEndOfReads = 3;  // a peer that has closed is an error after so many empty reads

bool Simulated(int fd) { return state.Active && fd > STDERR_FILENO; }

int Fail(int error) {
  errno = error;
  return -1;
}

// Passes on what a call has come to.
template <class T>
T Told(Call call, int fd, T result) {
  const int error = errno;
  if (state.OnOutcome) state.OnOutcome(call, fd, result, result < 0 ? error : 0);
  errno = error;
  return result;
}

// Readiness

bool Readable(const Socket& socket) {
  if (socket.What == Kind::Listener) return state.Backlog > 0;
  if (socket.Connecting) return false;
  return !socket.Input.empty() || !socket.Packets.empty() || socket.PeerGone || socket.Error != 0;
}

bool Writable(const Socket& socket) {
  if (socket.Connecting) return socket.ConnectOver;
  return socket.Room > 0 || socket.PeerGone || socket.Error != 0;
}

// Takes out of the set what is not ready; what is left, or -1.
int Narrow(int count, fd_set* set, bool (*ready)(const Socket&)) {
  int left = 0;
  for (int fd = STDERR_FILENO + 1; set && fd < count; ++fd) {
    if (!FD_ISSET(fd, set)) continue;
    if (!IsOpen(fd)) return Fail(EBADF);
    if (ready(At(fd)))
      ++left;
    else
      FD_CLR(fd, set);
  }
  return left;
}

constexpr int kNoEnd = -1;

// Time passes when nothing else ends the wait.
int Waited(int ready, int milliseconds) {
  if (ready == 0 && milliseconds > 0) state.Monotonic += milliseconds;
  return ready;
}

int Select(int count, fd_set* read, fd_set* write, fd_set* except, int milliseconds) {
  const bool ofLoop = read && milliseconds != 0;
  if (ofLoop && state.OnWait && !state.OnWait()) return Fail(EINTR);
  if (ofLoop && Fails(Call::Select)) return -1;
  const int readable = Narrow(count, read, Readable);
  const int writable = readable < 0 ? -1 : Narrow(count, write, Writable);
  const int rest = writable < 0 ? -1 : Narrow(count, except, [](const Socket&) { return false; });
  return rest < 0 ? -1 : Waited(readable + writable, milliseconds);
}

// Bytes in and out

// A connection that breaks says so once; then it is closed. An interruption breaks nothing.
int Break(Socket& socket, int error) {
  if (error == EAGAIN) socket.Refused = true;
  if (error == EINTR || error == EAGAIN) return Fail(error);
  socket.Error = 0;
  socket.PeerGone = true;
  socket.Input.clear();
  socket.Packets.clear();
  return Fail(error);
}

ssize_t TakeBytes(Socket& socket, void* buffer, std::size_t size) {
  if (socket.Error != 0) return Break(socket, socket.Error);
  if (socket.Connecting) return Fail(ENOTCONN);
  if (socket.What == Kind::Pair && !socket.Packets.empty()) {
    const std::string packet = socket.Packets.front();
    socket.Packets.pop_front();
    const std::size_t count = std::min(size, packet.size());
    std::memcpy(buffer, packet.data(), count);
    return static_cast<ssize_t>(count);
  }
  if (socket.Input.empty() && !socket.PeerGone) return Fail(EAGAIN);
  if (socket.Input.empty()) return ++socket.EmptyReads > kEndOfReads ? Fail(ECONNRESET) : 0;
  const std::size_t piece = std::max(socket.Piece, socket.Input.size() / kMostPieces);
  const std::size_t count = std::min({size, socket.Input.size(), piece});
  std::memcpy(buffer, socket.Input.data(), count);
  ++state.Transfers;
  socket.Input.erase(0, count);
  return static_cast<ssize_t>(count);
}

ssize_t GiveBytes(Socket& socket, const void* buffer, std::size_t size) {
  if (socket.Error != 0) return Break(socket, socket.Error);
  if (socket.Connecting) return Fail(ENOTCONN);
  if (socket.PeerGone) return Fail(EPIPE);
  socket.Refused = size > 0 && socket.Room == 0;
  if (socket.Refused) return Fail(EAGAIN);
  const std::size_t count = std::min({size, socket.Room, socket.Piece});
  if (socket.Room != Socket::kEndless) socket.Room -= count;
  socket.Output.append(static_cast<const char*>(buffer), count);
  ++state.Transfers;
  return static_cast<ssize_t>(count);
}

// Connecting

Plan NextPlan(Plan otherwise) {
  if (state.Connects.empty()) return otherwise;
  const Plan plan = state.Connects.front();
  state.Connects.pop_front();
  return plan;
}

int ConnectNode(Socket& socket) {
  if (socket.Connecting && !socket.ConnectOver) return Fail(EALREADY);
  if (socket.Connecting) {
    socket.Connecting = socket.ConnectError != 0;
    return socket.ConnectError != 0 ? Fail(socket.ConnectError) : 0;
  }
  if (socket.What == Kind::Node) return Fail(EISCONN);
  socket.What = Kind::Node;
  const Plan plan = NextPlan(Plan::Pending);
  if (plan == Plan::Refused) return Fail(ECONNREFUSED);
  if (plan == Plan::Unreachable) return Fail(EHOSTUNREACH);
  if (plan == Plan::AtOnce) return 0;
  socket.Connecting = true;
  return Fail(EINPROGRESS);
}

// Nobody listens at the agent's own path before the agent does; kernels are tried by links.
int ConnectKernel(Socket& socket) {
  const Plan plan = NextPlan(state.KernelsListen ? Plan::AtOnce : Plan::Refused);
  if (plan == Plan::Refused) return Fail(ECONNREFUSED);
  if (plan == Plan::Unreachable) return Fail(ENOENT);
  socket.What = Kind::Kernel;
  socket.Input = state.Greeting;
  socket.PeerGone = state.KernelCloses;
  return 0;
}

int OpenTwo(Kind kind, int ends[2]) {
  ends[0] = world::Open(kind);
  if (ends[0] < 0) return -1;
  ends[1] = world::Open(kind);
  if (ends[1] >= 0) return 0;
  At(ends[0]) = {};
  return Fail(EMFILE);
}

hostent* NumericHost(const char* name) {
  static in_addr address;
  static char* addresses[2] = {reinterpret_cast<char*>(&address), nullptr};
  static hostent entry;
  if (inet_aton(name, &address) == 0) return nullptr;
  entry = {};
  entry.h_addrtype = AF_INET;
  entry.h_length = sizeof address;
  entry.h_addr_list = addresses;
  return &entry;
}

constexpr int kEpoll = FD_SETSIZE - 1;              // stands for itself: no connection gets so far
std::array<std::uint32_t, FD_SETSIZE> behindEpoll;  // what is waited for

std::uint32_t& BehindEpoll(int fd) { return behindEpoll[static_cast<std::size_t>(fd)]; }

std::uint32_t EventsOf(int fd) {
  std::uint32_t events = 0;
  if (Readable(At(fd))) events |= EPOLLIN;
  if (Writable(At(fd))) events |= EPOLLOUT;
  return events & BehindEpoll(fd);
}

}  // namespace

bool world::IsReadable(int fd) { return IsOpen(fd) && Readable(At(fd)); }
bool world::IsWritable(int fd) { return IsOpen(fd) && Writable(At(fd)); }

extern "C" {

// Output

ssize_t __real_write(int fd, const void* buffer, std::size_t size);
ssize_t __wrap_write(int fd, const void* buffer, std::size_t size) {
  if (fd == STDERR_FILENO && state.Quiet && !state.ShowLog) return static_cast<ssize_t>(size);
  if (!Simulated(fd)) return __real_write(fd, buffer, size);
  if (Fails(Call::Write)) return IsOpen(fd) ? Break(At(fd), errno) : -1;
  return IsOpen(fd) ? Told(Call::Send, fd, GiveBytes(At(fd), buffer, size)) : Fail(EBADF);
}

int __real_vprintf(const char* format, std::va_list arguments);
[[gnu::format(printf, 1, 0)]] int __wrap_vprintf(const char* format, std::va_list arguments) {
  if (!state.Quiet) return __real_vprintf(format, arguments);
  char text[4096];
  return std::vsnprintf(text, sizeof text, format, arguments);
}

int __real_vfprintf(std::FILE* stream, const char* format, std::va_list arguments);
[[gnu::format(printf, 2, 0)]] int __wrap_vfprintf(std::FILE* stream, const char* format,
                                                  std::va_list arguments) {
  if (stream == stdout) return __wrap_vprintf(format, arguments);
  return __real_vfprintf(stream, format, arguments);
}

int __real_vdprintf(int fd, const char* format, std::va_list arguments);
[[gnu::format(printf, 2, 0)]] int __wrap_vdprintf(int fd, const char* format,
                                                  std::va_list arguments) {
  if (!state.Quiet) return __real_vdprintf(fd, format, arguments);
  static char text[65536];
  return std::vsnprintf(text, sizeof text, format, arguments);
}

// Sockets

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  if (!state.Active) return __real_socket(domain, type, protocol);
  return Fails(Call::Socket) ? -1 : world::Open(Kind::File);
}

int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
  if (!Simulated(fd)) return __real_bind(fd, address, size);
  return Fails(Call::Bind) ? -1 : 0;
}

int __real_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog) {
  if (!Simulated(fd)) return __real_listen(fd, backlog);
  if (Fails(Call::Listen)) return -1;
  At(fd).What = Kind::Listener;
  return 0;
}

int __real_accept(int fd, sockaddr* address, socklen_t* size);
int __wrap_accept(int fd, sockaddr* address, socklen_t* size) {
  if (!Simulated(fd)) return __real_accept(fd, address, size);
  if (Fails(Call::Accept)) return -1;
  if (state.Backlog == 0) return Fail(EAGAIN);
  const int client = world::Open(Kind::Client);
  if (client < 0) return -1;
  --state.Backlog;
  ++state.Transfers;
  return client;
}

int __real_connect(int fd, const sockaddr* address, socklen_t size);
int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
  if (!Simulated(fd)) return __real_connect(fd, address, size);
  if (Fails(Call::Connect)) return -1;
  const bool isNode = address->sa_family == AF_INET;
  At(fd).Address = isNode ? inet_ntoa(reinterpret_cast<const sockaddr_in*>(address)->sin_addr)
                          : reinterpret_cast<const sockaddr_un*>(address)->sun_path;
  return Told(Call::Connect, fd, isNode ? ConnectNode(At(fd)) : ConnectKernel(At(fd)));
}

ssize_t __real_send(int fd, const void* buffer, std::size_t size, int flags);
ssize_t __wrap_send(int fd, const void* buffer, std::size_t size, int flags) {
  if (!Simulated(fd)) return __real_send(fd, buffer, size, flags);
  if (Fails(Call::Send)) return IsOpen(fd) ? Break(At(fd), errno) : -1;
  return IsOpen(fd) ? Told(Call::Send, fd, GiveBytes(At(fd), buffer, size)) : Fail(EBADF);
}

ssize_t __real_recv(int fd, void* buffer, std::size_t size, int flags);
ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags) {
  if (!Simulated(fd))
    return state.Quiet && Fails(Call::Recv) ? -1 : __real_recv(fd, buffer, size, flags);
  if (size == 0) world::Violated("recv of 0 bytes from %d", fd);
  if (Fails(Call::Recv)) return IsOpen(fd) ? Break(At(fd), errno) : -1;
  return IsOpen(fd) ? Told(Call::Recv, fd, TakeBytes(At(fd), buffer, size)) : Fail(EBADF);
}

ssize_t __real_read(int fd, void* buffer, std::size_t size);
ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
  if (!Simulated(fd)) return __real_read(fd, buffer, size);
  if (Fails(Call::Read)) return IsOpen(fd) ? Break(At(fd), errno) : -1;
  return IsOpen(fd) ? Told(Call::Read, fd, TakeBytes(At(fd), buffer, size)) : Fail(EBADF);
}

int __real_close(int fd);
int __wrap_close(int fd) {
  if (!Simulated(fd)) return __real_close(fd);
  if (!IsOpen(fd)) return Fail(EBADF);
  At(fd) = {};
  BehindEpoll(fd) = 0;
  return 0;
}

int __real_shutdown(int fd, int how);
int __wrap_shutdown(int fd, int how) {
  if (!Simulated(fd)) return __real_shutdown(fd, how);
  if (!IsOpen(fd)) return Fail(EBADF);
  At(fd).PeerGone = true;
  At(fd).Input.clear();
  return 0;
}

int __real_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* wait);
int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* wait) {
  if (!state.Active) return __real_select(count, read, write, except, wait);
  const int milliseconds =
      wait ? static_cast<int>(wait->tv_sec * 1000 + wait->tv_usec / 1000) : kNoEnd;
  return Select(count, read, write, except, milliseconds);
}

int __real_poll(pollfd* fds, nfds_t count, int wait);
int __wrap_poll(pollfd* fds, nfds_t count, int wait) {
  if (!state.Active) return __real_poll(fds, count, wait);
  int found = 0;
  for (nfds_t i = 0; i < count; ++i) {
    const bool gone = !Simulated(fds[i].fd) || !IsOpen(fds[i].fd) || At(fds[i].fd).PeerGone ||
                      At(fds[i].fd).Error != 0;
    fds[i].revents = gone ? POLLHUP : 0;
    found += gone;
  }
  return found;
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
  std::va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (!Simulated(fd)) return __real_fcntl(fd, command, argument);
  if (Fails(Call::Fcntl)) return -1;
  return IsOpen(fd) ? 0 : Fail(EBADF);
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
  if (!Simulated(fd)) return __real_setsockopt(fd, level, name, value, size);
  return Fails(Call::SetSockOpt) ? -1 : 0;
}

int __real_getsockopt(int fd, int level, int name, void* value, socklen_t* size);
int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* size) {
  if (!Simulated(fd)) return __real_getsockopt(fd, level, name, value, size);
  if (Fails(Call::GetSockOpt)) return -1;
  constexpr int kBuffer = 212992;
  if (*size < sizeof kBuffer) return Fail(EINVAL);
  int result = kBuffer;
  if (name == SO_ERROR) {
    result = At(fd).ConnectError;
    if (result == 0 && At(fd).ConnectOver) At(fd).Connecting = false;
    if (state.OnOutcome) state.OnOutcome(Call::GetSockOpt, fd, result == 0 ? 0 : -1, result);
  }
  std::memcpy(value, &result, sizeof result);
  return 0;
}

int __real_socketpair(int domain, int type, int protocol, int ends[2]);
int __wrap_socketpair(int domain, int type, int protocol, int ends[2]) {
  if (!state.Active) return __real_socketpair(domain, type, protocol, ends);
  return Fails(Call::SocketPair) ? -1 : OpenTwo(Kind::Pair, ends);
}

int __real_pipe(int ends[2]);
int __wrap_pipe(int ends[2]) {
  if (!state.Active) return __real_pipe(ends);
  return Fails(Call::Pipe) ? -1 : OpenTwo(Kind::Pipe, ends);
}

int __real_pipe2(int ends[2], int flags);
int __wrap_pipe2(int ends[2], int flags) {
  if (!state.Active) return __real_pipe2(ends, flags);
  if (Fails(Call::Pipe) || OpenTwo(Kind::Pipe, ends) != 0) return -1;
  At(ends[0]).Input = '\0';  // the one use of such a pipe: its reader finds a byte
  return 0;
}

int __real_epoll_create1(int flags);
int __wrap_epoll_create1(int flags) {
  if (!state.Active) return __real_epoll_create1(flags);
  behindEpoll = {};
  return Fails(Call::EpollCreate) ? -1 : kEpoll;
}

// Readable while anything has been written to it.
int __real_eventfd(unsigned int count, int flags);
int __wrap_eventfd(unsigned int count, int flags) {
  if (!state.Active) return __real_eventfd(count, flags);
  return state.HasEpoll ? world::Open(Kind::File) : Fail(EMFILE);
}

int __real_eventfd_write(int fd, eventfd_t value);
int __wrap_eventfd_write(int fd, eventfd_t value) {
  if (!Simulated(fd)) return __real_eventfd_write(fd, value);
  At(fd).Input = '\1';
  return 0;
}

int __real_eventfd_read(int fd, eventfd_t* value);
int __wrap_eventfd_read(int fd, eventfd_t* value) {
  if (!Simulated(fd)) return __real_eventfd_read(fd, value);
  At(fd).Input.clear();
  return 0;
}

int __real_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
  if (!state.Active) return __real_epoll_ctl(epoll, operation, fd, event);
  if (!IsOpen(fd)) return Fail(EBADF);
  if (operation == EPOLL_CTL_ADD && BehindEpoll(fd) != 0) return Fail(EEXIST);
  if (operation != EPOLL_CTL_ADD && BehindEpoll(fd) == 0) return Fail(ENOENT);
  if (operation == EPOLL_CTL_ADD && Fails(Call::EpollCtl)) return -1;
  BehindEpoll(fd) = operation == EPOLL_CTL_DEL ? 0 : event->events;
  return 0;
}

int __real_epoll_wait(int epoll, epoll_event* events, int room, int wait);
int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int wait) {
  if (!state.Active) return __real_epoll_wait(epoll, events, room, wait);
  if (wait != 0 && state.OnWait && !state.OnWait()) return Fail(EINTR);
  if (wait != 0 && Fails(Call::Select)) return -1;
  int count = 0;
  for (int fd = 0; fd <= state.Highest && count < room; ++fd) {
    const std::uint32_t found = BehindEpoll(fd) != 0 ? EventsOf(fd) : 0;
    if (found == 0) continue;
    events[count] = {};
    events[count].events = found;
    events[count++].data.fd = fd;
  }
  return Waited(count, wait);
}

// Files

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (!state.Active) return __real_open(path, flags, mode);
  return Fails(Call::Open) ? -1 : world::Open(Kind::File);
}

std::FILE* __real_fopen(const char* path, const char* mode);
std::FILE* __wrap_fopen(const char* path, const char* mode) {
  if (!state.Active || mode[0] != 'r') return __real_fopen(path, mode);
  errno = ENOENT;
  if (!state.HasNodetab) return nullptr;
  static char nothing[] = "\n";  // an empty stream in memory cannot be opened
  return state.Nodetab.empty() ? fmemopen(nothing, 1, "r")
                               : fmemopen(state.Nodetab.data(), state.Nodetab.size(), "r");
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) { return state.Active ? 0 : __real_unlink(path); }

int __real_mkdir(const char* path, mode_t mode);
int __wrap_mkdir(const char* path, mode_t mode) {
  return state.Active ? 0 : __real_mkdir(path, mode);
}

int __real_chmod(const char* path, mode_t mode);
int __wrap_chmod(const char* path, mode_t mode) {
  return state.Active ? 0 : __real_chmod(path, mode);
}

// Processes

int __real_kill(pid_t pid, int signal);
int __wrap_kill(pid_t pid, int signal) {
  if (!state.Quiet) return __real_kill(pid, signal);
  if (!world::IsAlive(pid)) return Fail(ESRCH);
  if (signal != 0) state.Dead.insert(pid);
  return 0;
}

pid_t __real_fork();
pid_t __wrap_fork() {
  if (!state.Quiet) return __real_fork();
  return Fails(Call::Fork) ? -1 : ++state.LastChild;
}

pid_t __real_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
  if (!state.Quiet) return __real_waitpid(pid, status, options);
  return pid > 0 && world::IsAlive(pid) ? 0 : Fail(ECHILD);
}

int __real_sigaction(int signal, const struct sigaction* action, struct sigaction* old);
int __wrap_sigaction(int signal, const struct sigaction* action, struct sigaction* old) {
  if (!state.Quiet) return __real_sigaction(signal, action, old);
  state.Handlers[signal] = action->sa_handler;
  return 0;
}

sighandler_t __real_signal(int number, sighandler_t handler);
sighandler_t __wrap_signal(int number, sighandler_t handler) {
  return state.Quiet ? SIG_DFL : __real_signal(number, handler);
}

int __real_sigprocmask(int how, const sigset_t* set, sigset_t* old);
int __wrap_sigprocmask(int how, const sigset_t* set, sigset_t* old) {
  return state.Quiet ? 0 : __real_sigprocmask(how, set, old);
}

unsigned __real_alarm(unsigned seconds);
unsigned __wrap_alarm(unsigned seconds) { return state.Quiet ? 0 : __real_alarm(seconds); }

std::time_t __real_time(std::time_t* result);
std::time_t __wrap_time(std::time_t* result) {
  return state.Active ? state.Now : __real_time(result);
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  if (!state.Active) return __real_clock_gettime(clock, now);
  now->tv_sec = static_cast<std::time_t>(state.Monotonic / 1000);
  now->tv_nsec = static_cast<long>(state.Monotonic % 1000 * 1000000);
  return 0;
}

hostent* __real_gethostbyname(const char* name);
hostent* __wrap_gethostbyname(const char* name) {
  return state.Quiet ? NumericHost(name) : __real_gethostbyname(name);
}

// The local kernel's objects

int __real_shmget(key_t key, std::size_t size, int flags);
int __wrap_shmget(key_t key, std::size_t size, int flags) {
  if (!state.Active) return __real_shmget(key, size, flags);
  return Fails(Call::ShmGet) ? -1 : 1;
}

void* __real_shmat(int id, const void* address, int flags);
void* __wrap_shmat(int id, const void* address, int flags) {
  if (!state.Active) return __real_shmat(id, address, flags);
  return Fails(Call::ShmAt) ? reinterpret_cast<void*>(-1) : &state.KernelPid;
}

int __real_shmdt(const void* address);
int __wrap_shmdt(const void* address) { return state.Active ? 0 : __real_shmdt(address); }

int __real_shmctl(int id, int command, shmid_ds* segment);
int __wrap_shmctl(int id, int command, shmid_ds* segment) {
  if (!state.Active) return __real_shmctl(id, command, segment);
  if (Fails(Call::ShmCtl)) return -1;
  *segment = {};
  segment->shm_segsz = state.SegmentSize;
  return 0;
}

int __real_msgget(key_t key, int flags);
int __wrap_msgget(key_t key, int flags) {
  if (!state.Active) return __real_msgget(key, flags);
  return Fails(Call::MsgGet) ? -1 : 1;
}

int __real_msgsnd(int id, const void* message, std::size_t size, int flags);
int __wrap_msgsnd(int id, const void* message, std::size_t size, int flags) {
  if (!state.Active) return __real_msgsnd(id, message, size, flags);
  if (Fails(Call::MsgSnd)) return -1;
  if (state.QueueRoom == 0) return Fail(EAGAIN);
  --state.QueueRoom;
  ++state.Transfers;
  state.ToKernel.emplace_back(static_cast<const char*>(message) + sizeof(long), size);
  return 0;
}

ssize_t __real_msgrcv(int id, void* message, std::size_t size, long type, int flags);
ssize_t __wrap_msgrcv(int id, void* message, std::size_t size, long type, int flags) {
  if (!state.Active) return __real_msgrcv(id, message, size, type, flags);
  if ((flags & IPC_NOWAIT) != 0) return Fail(ENOMSG);  // nothing is for a former reader
  if (state.OnReceive) state.OnReceive();
  if (state.FromKernel.empty()) return Fail(EIDRM);
  const std::string body = state.FromKernel.front().substr(0, size);
  state.FromKernel.pop_front();
  std::memcpy(message, &type, sizeof type);
  std::memcpy(static_cast<char*>(message) + sizeof type, body.data(), body.size());
  return static_cast<ssize_t>(body.size());
}

int __real_semget(key_t key, int count, int flags);
int __wrap_semget(key_t key, int count, int flags) {
  if (!state.Active) return __real_semget(key, count, flags);
  return Fails(Call::SemGet) ? -1 : 1;
}

int __real_semop(int id, sembuf* operations, std::size_t count);
int __wrap_semop(int id, sembuf* operations, std::size_t count) {
  if (!state.Active) return __real_semop(id, operations, count);
  return Fails(Call::SemOp) ? -1 : 0;
}

// Memory

void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
  return state.Quiet && Fails(Call::Allocate) ? nullptr : __real_malloc(size);
}

void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return state.Quiet && Fails(Call::Allocate) ? nullptr : __real_calloc(count, size);
}

void* __real_realloc(void* old, std::size_t size);
void* __wrap_realloc(void* old, std::size_t size) {
  return state.Quiet && Fails(Call::Allocate) ? nullptr : __real_realloc(old, size);
}

}  // extern "C"
