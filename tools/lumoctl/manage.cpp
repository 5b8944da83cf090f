// The commands that look at the agent and change one thing.
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/output.h"
#include "tools/lumoctl/table_file.h"

namespace lumo::ctl {
namespace {

constexpr std::uint32_t kTcpip = 4;

std::string Joined(std::vector<std::string>::const_iterator word,
                   std::vector<std::string>::const_iterator end) {
  std::string text = *word;
  while (++word != end) text += ' ' + *word;
  return text;
}

std::string NumberOf(const lumo_node& node, unsigned number) {
  return node.protocol == kTcpip ? std::to_string(number) : "";
}

// What a command did, in one word for programs and in words for people.
int ShowOutcome(const Options& options, const std::string& node, const std::string& outcome,
                const std::string& words, Exit status) {
  Show(options, Json{{"node", node}, {"outcome", outcome}},
       Painted(options, status == kDone ? Style::Plain : Style::Doubtful, words) + '\n');
  return status;
}

lumo_node Require(Agent* agent, const std::string& text) {
  const auto node = agent->Get(NodeChoice(text));
  if (!node) FailNoSuchNode(text);
  return *node;
}

std::int32_t IndexOf(Agent* agent, const std::string& text) {
  const NodeChoice choice(text);
  if (choice.Default) return agent->DefaultIndex();
  if (choice.Index) return *choice.Index;
  const std::vector<lumo_node> nodes = agent->Nodes();
  const auto found = std::find_if(nodes.begin(), nodes.end(), [&](const lumo_node& node) {
    return strcasecmp(node.name, choice.Name.c_str()) == 0;
  });
  return found == nodes.end() ? -1 : static_cast<std::int32_t>(found - nodes.begin());
}

}  // namespace

int RunList(const Options& options) {
  Agent agent(options);
  const std::vector<lumo_node> nodes = agent.Nodes();
  const std::int32_t usual = agent.DefaultIndex();
  Json list = Json::array();
  std::string names;
  TextTable table({"#", "", "NODE", "PROTOCOL", "ADDRESS", "PORT", "RECEIVE", "SEND", "CONNECT"});
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const lumo_node& node = nodes[i];
    const bool isDefault = usual == static_cast<std::int32_t>(i);
    Json value{{"index", i}, {"default", isDefault}};
    value.update(JsonOf(node));
    list.push_back(value);
    names += Printable(node.name) + '\n';
    table.Row({std::to_string(i),
               isDefault ? "*" : "",
               {node.name, isDefault ? Style::Strong : Style::Plain},
               lumo_protocol_name(node.protocol),
               node.address,
               NumberOf(node, node.port),
               NumberOf(node, node.receive_timeout),
               NumberOf(node, node.send_timeout),
               NumberOf(node, node.connect_timeout)});
  }
  Show(options, Json{{"nodes", list}}, options.Names ? names : table.Text(options));
  return kDone;
}

int RunShow(const Options& options) {
  Agent agent(options);
  const lumo_node node = Require(&agent, options.Arguments.at(0));
  std::string text = std::string("name              ") + Printable(node.name) +
                     "\nprotocol          " + lumo_protocol_name(node.protocol) + '\n';
  if (node.protocol == kTcpip)
    text += std::string("address           ") + node.address + "\nport              " +
            std::to_string(node.port) + "\nreceive time-out  " +
            std::to_string(node.receive_timeout) + "\nsend time-out     " +
            std::to_string(node.send_timeout) + "\nconnect time-out  " +
            std::to_string(node.connect_timeout) + '\n';
  Show(options, JsonOf(node), text);
  return kDone;
}

int RunDefault(const Options& options) {
  Agent agent(options);
  if (!options.Arguments.empty()) {
    const std::string& wanted = options.Arguments[0];
    const TableLock lock(&agent, options);
    if (agent.SetDefault(IndexOf(&agent, wanted)) != 1) FailNoSuchNode(wanted);
  }
  const std::string name = agent.DefaultName();
  if (name.empty()) throw Failure(kNo, "there is no default node");
  Show(options, Json{{"default", name}}, Printable(name) + '\n');
  return kDone;
}

int RunAdd(const Options& options) {
  const std::string text = Joined(options.Arguments.begin(), options.Arguments.end());
  const TableLine line = ParseLine(options, text);
  Agent agent(options);
  const TableLock lock(&agent, options);
  // The agent itself would take a second node of the name that it added last.
  if (agent.Get(NodeChoice::Named(line.Name))) throw Failure(kNo, "there is a node " + line.Name);
  if (agent.Add(text) != LUMO_RESULT_DONE)
    throw Failure(kNo, "the agent makes no node of the line; its log says why");
  return ShowOutcome(options, line.Name, "added", "added", kDone);
}

int RunSet(const Options& options) {
  const std::string& node = options.Node;
  const std::string text = Joined(options.Arguments.begin(), options.Arguments.end());
  const TableLine line = ParseLine(options, text);
  Agent agent(options);
  const TableLock lock(&agent, options);
  const lumo_node before = Require(&agent, node);
  if (before.name != line.Name && agent.Get(NodeChoice::Named(line.Name)))
    throw Failure(kNo, "there is a node " + line.Name);
  const NodeChoice choice(node);
  if (agent.Set(choice, text) != LUMO_RESULT_DONE) FailNoSuchNode(node);
  const auto after = agent.Get(choice.Name.empty() ? choice : NodeChoice::Named(line.Name));
  const Agreement agreement = after ? Compare(*after, line) : Agreement::Different;
  if (agreement == Agreement::Different)
    return ShowOutcome(options, line.Name, "deferred",
                       "in use: in force when its link is disconnected", kDeferred);
  // Of a local node the agent tells the protocol only.
  if (agreement == Agreement::Unknown && before.protocol == after->protocol)
    return ShowOutcome(options, line.Name, "sent",
                       "sent: in force at once, unless the node is in use", kDone);
  return ShowOutcome(options, line.Name, "redefined", "redefined", kDone);
}

int RunDelete(const Options& options) {
  Agent agent(options);
  const TableLock lock(&agent, options);
  const std::string& text = options.Arguments.at(0);
  const lumo_node node = Require(&agent, text);
  const std::int32_t result = agent.Delete(NodeChoice(text));
  if (result == LUMO_RESULT_PENDING)
    return ShowOutcome(options, node.name, "deferred",
                       "in use: it will be deleted when its link is disconnected", kDeferred);
  if (result != LUMO_RESULT_DONE) FailNoSuchNode(text);
  return ShowOutcome(options, node.name, "deleted", "deleted", kDone);
}

int RunPath(const Options& options) {
  Agent agent(options);
  const auto path = agent.TablePath();
  if (!path) throw Failure(kNo, "the agent finds no node table file");
  Show(options, Json{{"path", *path}}, *path + '\n');
  return kDone;
}

int RunLock(const Options& options) {
  Agent agent(options);
  if (agent.Lock(options.Owner) != LUMO_RESULT_DONE)
    throw Failure(kNo, "the node table's lock is held by another");
  Show(options, Json{{"lock", "held"}, {"owner", options.Owner}}, "locked\n");
  return kDone;
}

int RunUnlock(const Options& options) {
  Agent agent(options);
  if (agent.Unlock(options.Owner) != LUMO_RESULT_DONE)
    throw Failure(kNo, "the node table's lock is held by another");
  Show(options, Json{{"lock", "free"}, {"owner", options.Owner}}, "unlocked\n");
  return kDone;
}

int RunStatus(const Options& options) {
  Agent agent(options);
  const std::int32_t state = agent.LockState(options.Owner);
  const std::string lock = state == LUMO_RESULT_DONE             ? "free"
                           : state == LUMO_RESULT_HELD_BY_CALLER ? "held by this owner"
                                                                 : "held by another";
  const auto path = agent.TablePath();
  const std::string usual = agent.DefaultName();
  const std::size_t nodes = agent.Nodes().size();
  Json value{{"pid", agent.Pid()}, {"socket", agent.SocketPath()}, {"nodes", nodes}};
  value["default"] = usual.empty() ? Json() : Json(usual);
  value["path"] = path ? Json(*path) : Json();
  value["lock"] = lock;
  Show(options, value,
       "agent    process " + std::to_string(agent.Pid()) + " on " + agent.SocketPath() +
           "\nnodes    " + std::to_string(nodes) + "\ndefault  " +
           (usual.empty() ? "none" : Printable(usual)) + "\ntable    " + path.value_or("none") +
           "\nlock     " + lock + '\n');
  return kDone;
}

int RunWait(const Options& options) {
  using namespace std::chrono;
  const auto start = steady_clock::now();
  const auto deadline = start + milliseconds(options.TimeoutMs(30));
  for (milliseconds pause{5};; pause = std::min(pause * 2, milliseconds(100))) {
    const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
    try {
      Options attempt = options;
      attempt.TimeoutSeconds = std::max(0.0, static_cast<double>(left.count()) / 1000);
      Agent agent(attempt);
      agent.Probe();
      const double seconds = duration<double>(steady_clock::now() - start).count();
      Show(options, Json{{"pid", agent.Pid()}, {"seconds", seconds}},
           "the agent answers: process " + std::to_string(agent.Pid()) + '\n');
      return kDone;
    } catch (const Failure& failure) {
      if (failure.Status != kNoAgent && failure.Status != kTimeOver) throw;
      if (left <= pause) throw Failure(kTimeOver, failure.what());
    }
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace lumo::ctl
