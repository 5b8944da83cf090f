// A process that stands for one peer of the agent.
//
// It runs at the lowest priority: in earnest such peers have processors of their own, and here they
// must not take those of the ones that are measured.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace stress {

// What the peer does, with its connection; system calls only, since the process is a fork of one
// with several threads.
using PeerBody = void (*)(int socket, const std::string& bytes, std::uint64_t* tally);

class PeerProcess {
 public:
  // Of all descriptors the process keeps only this one. `bytes` is for the body, which may count
  // in Tally().
  PeerProcess(int socket, const std::string& bytes, PeerBody body);
  ~PeerProcess();
  PeerProcess(PeerProcess&& other) noexcept;
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  pid_t Pid() const { return pid_; }
  bool WaitUntilStopped() const;  // it has sent itself SIGSTOP
  std::uint64_t Tally() const { return *tally_; }

 private:
  pid_t pid_ = -1;
  std::uint64_t* tally_;
};

// For bodies: sends all of it; false when the connection is gone.
bool SendAll(int socket, const char* bytes, std::size_t size);

}  // namespace stress
