#include "tools/lumoctl/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "tools/lumoctl/exits.h"

namespace lumo::ctl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kGrace{1};  // from the request to end until the end
constexpr std::size_t kTextMax = 1 << 20;
constexpr std::size_t kLongestRoot = 60;  // sockets have short paths

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  void Reset(int number) {
    Close();
    number_ = number;
  }
  void Close() {
    if (number_ >= 0) close(number_);
    number_ = -1;
  }
  int Number() const { return number_; }

 private:
  int number_ = -1;
};

struct Pipe {
  Descriptor Read, Write;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(kFailed, "a pipe cannot be made");
    Read.Reset(ends[0]);
    Write.Reset(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
  }
  // What is there now; false at the end of the stream.
  bool Drain(std::string* text) {
    std::array<char, 4096> buffer;
    for (;;) {
      const ssize_t got = read(Read.Number(), buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return got < 0;
      if (text->size() < kTextMax) text->append(buffer.data(), static_cast<std::size_t>(got));
    }
  }
};

std::vector<std::string> Environment(const std::map<std::string, std::string>& changes) {
  std::vector<std::string> all;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    if (!changes.count(text.substr(0, text.find('=')))) all.push_back(text);
  }
  for (const auto& [name, value] : changes) all.push_back(name + '=' + value);
  return all;
}

std::vector<char*> Pointers(std::vector<std::string>* texts) {
  std::vector<char*> pointers;
  for (std::string& text : *texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

pid_t Spawn(std::vector<std::string> arguments, std::vector<std::string> environment, int out,
            int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, arguments[0].c_str(), &actions, nullptr,
                                 Pointers(&arguments).data(), Pointers(&environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw Failure(kFailed, arguments[0] + " cannot be run: " + std::strerror(error));
  return pid;
}

int MillisecondsUntil(Clock::time_point when) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 1 << 30));
}

// Collects output until the process ends or the time is over; true when it has ended.
bool Follow(int process, Pipe* out, Pipe* err, Clock::time_point deadline, RunResult* result) {
  for (;;) {
    std::array<pollfd, 3> ready{
        {{process, POLLIN, 0}, {out->Read.Number(), POLLIN, 0}, {err->Read.Number(), POLLIN, 0}}};
    const int count = poll(ready.data(), ready.size(), MillisecondsUntil(deadline));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    if (ready[1].revents && !out->Drain(&result->Stdout)) out->Read.Close();
    if (ready[2].revents && !err->Drain(&result->Stderr)) err->Read.Close();
    if (ready[0].revents) return true;
  }
}

void Reap(pid_t pid, RunResult* result) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result->Status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace

RunResult RunProgram(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment, int timeoutMs) {
  RunResult result;
  Pipe out, err;
  const Clock::time_point start = Clock::now();
  const pid_t pid =
      Spawn(arguments, Environment(environment), out.Write.Number(), err.Write.Number());
  out.Write.Close();
  err.Write.Close();
  const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  bool ended =
      Follow(process.Number(), &out, &err, start + std::chrono::milliseconds(timeoutMs), &result);
  if (!ended) {
    result.Late = true;
    kill(pid, SIGTERM);
    ended = Follow(process.Number(), &out, &err, Clock::now() + kGrace, &result);
  }
  if (!ended) kill(pid, SIGKILL);
  Reap(pid, &result);
  result.Seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (out.Read.Number() >= 0) out.Drain(&result.Stdout);
  if (err.Read.Number() >= 0) err.Drain(&result.Stderr);
  return result;
}

PrivateDirectory::PrivateDirectory() {
  const char* const wished = std::getenv("TMPDIR");
  const std::string root =
      wished && *wished && std::strlen(wished) < kLongestRoot ? wished : "/tmp";
  std::string name = root + "/lumoctl-XXXXXX";
  if (!mkdtemp(name.data()))
    throw Failure(kFailed, "no directory can be made in " + root + ": " + std::strerror(errno));
  path_ = name;
}

PrivateDirectory::~PrivateDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

}  // namespace lumo::ctl
