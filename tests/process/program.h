// A program beside the agent, run by a test: its output in files of a directory of its own.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/agent.h"

namespace test {

class Program {
 public:
  Program(const std::string& path, std::vector<std::string> arguments,
          const std::map<std::string, std::string>& environment = {}) {
    arguments.insert(arguments.begin(), path);
    pid_ = fork();
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Redirect("stdout", 1);
    Redirect("stderr", 2);
    unsetenv("NET_MBX");
    unsetenv("TAVRIN_TMP");
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  ~Program() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t Pid() const { return pid_; }
  void Signal(int signal) const { kill(pid_, signal); }
  // The exit status, or minus the signal that ended it; nothing when it goes on.
  std::optional<int> Wait() {
    int status = 0;
    if (!WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return std::nullopt;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  std::optional<int> Stop(int signal = SIGTERM) {
    Signal(signal);
    return Wait();
  }
  std::string Stdout() const { return ReadFile(folder_.Path() / "stdout"); }
  std::string Stderr() const { return ReadFile(folder_.Path() / "stderr"); }
  bool WaitForStdout(const std::string& text) const {
    return WaitFor([&] { return Stdout().find(text) != std::string::npos; });
  }
  bool WaitForStderr(const std::string& text) const {
    return WaitFor([&] { return Stderr().find(text) != std::string::npos; });
  }
  const std::filesystem::path& Folder() const { return folder_.Path(); }

 private:
  void Redirect(const char* name, int descriptor) const {
    const int fd = open((folder_.Path() / name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, descriptor);
    close(fd);
  }

  TemporaryDirectory folder_;
  pid_t pid_ = -1;
};

// The stand-in node; ready when the constructor returns, or it has ended.
class NodeProgram : public Program {
 public:
  explicit NodeProgram(std::vector<std::string> arguments,
                       const std::map<std::string, std::string>& environment = {})
      : Program(LUMO_NODE_PATH, std::move(arguments), environment) {
    EXPECT_TRUE(WaitForStdout("listening on")) << Stderr();
  }
  std::uint16_t Port() const {
    const std::string out = Stdout(), word = "127.0.0.1:";
    const std::size_t at = out.find(word);
    return at == std::string::npos
               ? std::uint16_t{0}
               : static_cast<std::uint16_t>(std::stoi(out.substr(at + word.size())));
  }
  std::string Line(const std::string& name) const {
    return name + " TCPIP 127.0.0.1 " + std::to_string(Port()) + " 0 0 0\n";
  }
};

}  // namespace test
