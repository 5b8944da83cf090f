#include "tests/stress/peer_process.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

#include "tests/support/process.h"
#include "tests/support/wait.h"

namespace stress {
namespace {

constexpr int kLowestPriority = 19;

[[noreturn]] void Live(int socket, const std::string& bytes, std::uint64_t* tally, PeerBody body) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(socket, 3);
  close_range(4, ~0U, 0);
  if (nice(kLowestPriority) < 0) _exit(1);
  body(3, bytes, tally);
  for (;;) pause();
}

}  // namespace

PeerProcess::PeerProcess(int socket, const std::string& bytes, PeerBody body) {
  void* const shared =
      mmap(nullptr, sizeof *tally_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) throw std::runtime_error("no memory can be shared");
  tally_ = static_cast<std::uint64_t*>(shared);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("no process can be made");
  if (pid_ == 0) Live(socket, bytes, tally_, body);
}

PeerProcess::PeerProcess(PeerProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), tally_(std::exchange(other.tally_, nullptr)) {}

PeerProcess::~PeerProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  munmap(tally_, sizeof *tally_);
}

bool PeerProcess::WaitUntilStopped() const {
  return test::WaitFor([&] { return test::ProcessStatus(pid_, "State").starts_with('T'); });
}

bool SendAll(int socket, const char* bytes, std::size_t size) {
  for (std::size_t sent = 0; sent < size;) {
    const ssize_t took = send(socket, bytes + sent, size - sent, MSG_NOSIGNAL);
    if (took < 0 && errno == EINTR) continue;
    if (took < 0) return false;
    sent += static_cast<std::size_t>(took);
  }
  return true;
}

}  // namespace stress
