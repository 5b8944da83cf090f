// The running agent, asked through the client library. What does not come about is a Failure.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/include/lumo.h"
#include "tools/lumoctl/nodetab.h"
#include "tools/lumoctl/options.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {

// How a NODE argument names its node.
struct NodeChoice {
  explicit NodeChoice(const std::string& text);
  static NodeChoice Named(const std::string& name);
  bool Default = false;
  std::optional<std::int32_t> Index;
  std::string Name;

 private:
  NodeChoice() = default;
};

class Agent {
 public:
  explicit Agent(const Options& options);

  lumo_connection* Connection() const { return connection_.get(); }
  std::int32_t Pid() const { return lumo_agent_pid(connection_.get()); }
  std::string SocketPath() const { return lumo_connection_path(connection_.get()); }

  std::vector<lumo_node> Nodes();
  std::int32_t DefaultIndex();  // the number of nodes when there is none
  std::string DefaultName();    // empty when there is none
  // Asked of the agent itself only when the system does not tell it. Nothing: there is no file.
  std::optional<std::string> TablePath();
  // The same to be opened here: a relative path begins at the agent's directory. Fails with kNo
  // when this user may not see that.
  std::optional<std::string> TableFile();
  std::optional<lumo_node> Get(const NodeChoice& node);
  // The rest returns the agent's result, a lumo_result.
  std::int32_t Probe();
  std::int32_t SetDefault(std::int32_t index);  // 1 done, 0 no such node
  // In front of the node of this name, in the circle in which the agent goes from node to node; of
  // none: where the agent stands.
  std::int32_t Add(const std::string& line, const std::string& before = "");
  std::int32_t Set(const NodeChoice& node, const std::string& line);
  std::int32_t Delete(const NodeChoice& node);
  std::int32_t Lock(std::int32_t owner);
  std::int32_t Unlock(std::int32_t owner);
  std::int32_t LockState(std::int32_t owner);

 private:
  using Call = std::function<lumo_status(int deadlineMs, std::int32_t* result)>;
  std::int32_t Look(const Call& call) const { return Ask(call, false); }
  std::int32_t Change(const Call& call) const { return Ask(call, true); }
  std::int32_t Ask(const Call& call, bool changes) const;

  struct Closer {
    void operator()(lumo_connection* connection) const { lumo_close(connection); }
  };
  std::unique_ptr<lumo_connection, Closer> connection_;
  std::vector<std::string> places_;  // that were looked at
  int timeoutMs_;
};

// Holds the node table's lock while a command changes nodes; one that this owner already had stays.
class TableLock {
 public:
  TableLock(Agent* agent, const Options& options);
  ~TableLock();
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

 private:
  Agent* agent_;
  std::int32_t owner_;
  bool taken_ = false;
};

enum class Agreement {
  Same,
  Different,
  Unknown,  // nothing differs, but the agent does not tell the address
};
// The agent's node beside a line of a table.
Agreement Compare(const lumo_node& node, const TableLine& line);

// "SRV1 TCPIP 192.0.2.7 1060 1 0 0"; without the address where the agent does not tell it.
std::string LineOf(const lumo_node& node);
Json JsonOf(const lumo_node& node);
[[noreturn]] void FailNoSuchNode(const std::string& node);

}  // namespace lumo::ctl
