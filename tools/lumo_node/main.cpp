// lumo_node: a stand-in database node.
#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "tools/lumo_node/answers.h"
#include "tools/lumo_node/control.h"
#include "tools/lumo_node/ipc_server.h"
#include "tools/lumo_node/node.h"
#include "tools/lumo_node/stream_server.h"

namespace lumo::node {
namespace {

sigset_t StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

bool StopRequested() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGTERM) || sigismember(&pending, SIGINT);
}

void SetUp(const Options& options, Database* database) {
  const auto run = [database](const std::string& sql, const std::string& where) {
    const QueryResult result = database->Run(sql, kMaxText);
    if (result.Code) throw std::runtime_error(where + ": " + result.Text);
  };
  for (const std::string& name : options.InitFiles) {
    std::ifstream file(name);
    run(std::string(std::istreambuf_iterator<char>(file), {}), name);
  }
  for (const std::string& sql : options.InitSql) run(sql, "--sql");
}

void Announce(const std::string& place) { std::cout << "listening on " << place << std::endl; }

void AddTransports(const Options& options, EventLog* log, Node* node) {
  if (options.Listen) {
    auto server = std::make_unique<TcpServer>(log, options.Bind, *options.Listen);
    Announce(server->Place());
    node->Add(std::move(server));
  }
  if (options.Local) {
    auto server = std::make_unique<LocalServer>(log, *options.Local);
    Announce(server->Place());
    node->Add(std::move(server));
  }
  if (options.Ipc) {
    node->Add(std::make_unique<IpcServer>(log, *options.Ipc));
    Announce("ipc " + std::to_string(*options.Ipc));
  }
}

// `ready` is called when everything listens.
void Serve(const Options& options, const std::function<void()>& ready) {
  // Blocked and read from a descriptor: nothing is interrupted, everything is removed at the end.
  const sigset_t signals = StopSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int stop = signalfd(-1, &signals, SFD_CLOEXEC);
  if (stop < 0) throw std::runtime_error("signalfd failed");
  EventLog log(options.Log);
  Database database(options.Database, StopRequested);
  SetUp(options, &database);
  Node node(options, &log, &database);
  std::optional<Control> control;
  if (!options.Control.empty()) control.emplace(options.Control);
  AddTransports(options, &log, &node);
  ready();
  node.Run(stop, control ? &*control : nullptr);
  log.Write("stopped");
  close(stop);
}

// Returns in the parent process, with the exit status, when the node is ready or has failed.
std::optional<int> GoToBackground(int* readyPipe) {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) < 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  close(ends[pid == 0 ? 0 : 1]);
  *readyPipe = ends[1];
  if (pid == 0) {
    setsid();
    return std::nullopt;
  }
  char word = 0;
  int status = 0;
  if (read(ends[0], &word, 1) == 1) return 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// Whoever reads what was printed need not wait for the end.
void Detach(int readyPipe) {
  const int null = open("/dev/null", O_RDWR);
  for (const int fd : {0, 1, 2}) dup2(null, fd);
  if (null > 2) close(null);
  [[maybe_unused]] const ssize_t written = write(readyPipe, "1", 1);
  close(readyPipe);
}

int Run(const Options& options) {
  if (!options.Tell.empty()) {
    TellNode(options.Tell, options.TellLine);
    return 0;
  }
  int readyPipe = -1;
  const std::optional<int> parent = options.Background ? GoToBackground(&readyPipe) : std::nullopt;
  if (parent) return *parent;
  Serve(options, [&] {
    if (options.Background) Detach(readyPipe);
  });
  return 0;
}

}  // namespace
}  // namespace lumo::node

int main(int argc, char** argv) {
  const lumo::node::Options options = lumo::node::ParseOptions(argc, argv);
  try {
    return lumo::node::Run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lumo_node: %s\n", error.what());
    return 1;
  }
}
