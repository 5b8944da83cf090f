// What the agent under test and the driver share: the calls that the agent has made, by the path of
// return addresses that led to each, and the faults that are to hit one of them.
#pragma once
#include <atomic>
#include <cstdint>

namespace faults {

// The calls of the agent that are watched.
// clang-format off
#define FAULT_CALLS(X)                                                                     \
  X(socket) X(bind) X(listen) X(accept) X(connect) X(fcntl) X(setsockopt) X(getsockopt)    \
  X(send) X(recv) X(read) X(write) X(select) X(poll) X(pipe) X(pipe2) X(socketpair)        \
  X(eventfd) X(epoll_create1) X(epoll_ctl) X(epoll_wait) X(fork) X(waitpid) X(open)        \
  X(fopen) X(malloc) X(calloc) X(realloc) X(mmap) X(shmget) X(shmat) X(shmctl) X(msgget)   \
  X(msgsnd) X(msgrcv) X(semget) X(semop) X(kill) X(gethostbyname)
// clang-format on

enum class Call : std::uint32_t {
#define FAULT_ENUMERATOR(name) name,
  FAULT_CALLS(FAULT_ENUMERATOR)
#undef FAULT_ENUMERATOR
      Count
};

constexpr const char* kCallNames[] = {
#define FAULT_NAME(name) #name,
    FAULT_CALLS(FAULT_NAME)
#undef FAULT_NAME
};

constexpr std::uint32_t kDepth = 12;       // return addresses kept of a path, innermost first
constexpr std::uint32_t kPathsMax = 4000;  // beyond, the run of the driver fails
// In place of an errno:
constexpr int kShort = -1;  // fewer bytes than asked for
constexpr int kDelay = -2;  // the call is made, but somewhat later

struct FramePath {
  std::uint32_t Depth;
  std::uint64_t Frames[kDepth];
};

constexpr std::uint32_t kVariants = 64;  // callers that are not told apart, and copies of a call

// Hits one call whose path begins with one of these.
struct Fault {
  std::atomic<std::uint32_t> Armed;
  std::atomic<std::int32_t> Skip;  // so many calls are let through first
  std::uint32_t Call, Variants;
  FramePath Paths[kVariants];
  std::int32_t Error;     // errno, or kShort
  std::uint32_t Perform;  // the call is made all the same; only its result is a failure
  std::atomic<std::uint32_t> Fired;
};

struct PathRecord {
  std::atomic<std::uint32_t> Ready;  // the rest may be read
  std::uint32_t Call;
  FramePath Path;
};

// Those before the last make the agent pass what is to be tested.
constexpr int kFaults = 3, kTested = kFaults - 1;

struct Control {
  std::atomic<std::uint32_t> PathCount;
  PathRecord Paths[kPathsMax];
  Fault Faults[kFaults];
};

constexpr char kControlVariable[] = "LUMO_FAULT_CONTROL";  // the path of the shared file

}  // namespace faults
