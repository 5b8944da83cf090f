// lumo_node: a stand-in database node.
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "tools/lumo_node/answers.h"
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

void Serve(const Options& options) {
  // Blocked and read from a descriptor: nothing is interrupted, everything is removed at the end.
  const sigset_t signals = StopSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int stop = signalfd(-1, &signals, SFD_CLOEXEC);
  if (stop < 0) throw std::runtime_error("signalfd failed");
  EventLog log(options.Log);
  Database database(options.Database, StopRequested);
  SetUp(options, &database);
  Node node(options, &log, &database);
  AddTransports(options, &log, &node);
  node.Run(stop);
  log.Write("stopped");
  close(stop);
}

}  // namespace
}  // namespace lumo::node

int main(int argc, char** argv) {
  const lumo::node::Options options = lumo::node::ParseOptions(argc, argv);
  try {
    lumo::node::Serve(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lumo_node: %s\n", error.what());
    return 1;
  }
  return 0;
}
