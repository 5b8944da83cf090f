#include "tools/lumoctl/agent.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/system_state.h"
#include "tools/lumoctl/table_file.h"

namespace lumo::ctl {
namespace {

constexpr std::uint16_t kAddNode = 119;  // the command's number
constexpr std::uint32_t kCodeLocals = 2, kCodeLocali = 3, kCodeTcpip = 4;

// A node's number; what is none gives -1, which no node has.
std::int32_t ParseIndex(const std::string& text) {
  std::int32_t index = -1;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, index);
  return error == std::errc() && rest == end ? index : -1;
}

// Why nobody answers at each of the places, and what to do. `error` is that of connecting to
// `path`.
Failure NobodyAnswers(const std::vector<std::string>& places, const std::string& path, int error) {
  std::string text = "no agent answers: ";
  bool refused = false;
  for (const std::string& place : places) {
    struct stat unused;
    const int reason = place == path ? error : stat(place.c_str(), &unused) == 0 ? 0 : errno;
    refused = refused || reason == EACCES;
    text += place + " (" + (reason ? std::strerror(reason) : "not tried") + "), ";
  }
  text.replace(text.size() - 2, 2, "; ");
  return {kNoAgent, text + (refused ? "only members of the group lumo may connect to the packaged "
                                      "agent: adduser USER lumo, and log in again"
                                    : "start it (systemctl start lumo_tcp), or say where it is "
                                      "with TAVRIN_TMP, -M or --socket")};
}

// With the errno of the attempt.
Failure NotConnected(lumo_status status, const std::vector<std::string>& places,
                     const std::string& path) {
  const int error = errno;
  switch (status) {
    case LUMO_TIMEOUT:
      return {kTimeOver, "the agent on " + path + " does not greet in time"};
    case LUMO_TOO_LONG:
      return {kUsage, "the path " + path + " is too long for a socket"};
    case LUMO_NO_AGENT:
      if (error != ECONNRESET) return NobodyAnswers(places, path, error);
      return {kNoAgent,
              "the agent on " + path + " is full, or stopping: it closes new connections"};
    case LUMO_SYSTEM:
      return {kNoAgent, "connecting to " + path + " failed: " + std::strerror(error)};
    default:
      return {kNoAgent, path + ": " + lumo_status_text(status)};
  }
}

Failure NotPermitted(bool changes) {
  return {kNo, std::string("the agent does not permit this: ") +
                   (changes ? "LUMO_MANAGERS names who may change its nodes (the packaged service: "
                              "members of lumo-admin), or "
                            : "") +
                   "LUMO_STRICT_TASKS refuses clients in another process id namespace"};
}

std::uint32_t CodeOf(Kind kind) {
  switch (kind) {
    case Kind::Tcpip:
      return kCodeTcpip;
    case Kind::Locals:
      return kCodeLocals;
    case Kind::Locali:
      return kCodeLocali;
    case Kind::None:
    case Kind::Unsupported:
      break;
  }
  return 0;
}

Agreement CompareTcp(const lumo_node& node, const TcpAddress& tcp) {
  const auto told = [](std::int32_t number) { return static_cast<std::uint16_t>(number); };
  if (node.port != tcp.Port || node.receive_timeout != told(tcp.ReceiveTimeout) ||
      node.send_timeout != told(tcp.SendTimeout) ||
      node.connect_timeout != told(tcp.ConnectTimeout))
    return Agreement::Different;
  for (const std::string& address : tcp.Addresses)
    if (address == node.address) return Agreement::Same;
  return Agreement::Different;
}

}  // namespace

NodeChoice::NodeChoice(const std::string& text) {
  if (text == "default")
    Default = true;
  else if (!text.empty() && text[0] == '#')
    Index = ParseIndex(text.substr(1));
  else
    Name = text;
}

NodeChoice NodeChoice::Named(const std::string& name) {
  NodeChoice choice;
  choice.Name = name;
  return choice;
}

Agent::Agent(const Options& options)
    : places_(AgentPlaces(options)), timeoutMs_(options.TimeoutMs(5)) {
  const std::string path = AgentSocket(options);
  lumo_connection* connection = nullptr;
  const lumo_status status = lumo_open(path.c_str(), timeoutMs_, &connection);
  if (status != LUMO_OK) throw NotConnected(status, places_, path);
  connection_.reset(connection);
}

std::int32_t Agent::Ask(const Call& call, bool changes) const {
  using namespace std::chrono;
  const auto start = steady_clock::now();
  std::int32_t result = 0;
  const lumo_status status = call(timeoutMs_, &result);
  if (status == LUMO_OK || status == LUMO_REFUSED) return result;
  if (status == LUMO_ERROR && errno == EPERM) throw NotPermitted(changes);
  if (status == LUMO_TIMEOUT) throw Failure(kTimeOver, "the agent does not answer in time");
  if (status == LUMO_UNSURE && changes)
    throw Failure(kUnsure, "no answer came: it is not known whether the agent carried it out");
  if (status == LUMO_UNSURE) {
    const bool late = steady_clock::now() - start >= milliseconds(timeoutMs_);
    throw late ? Failure(kTimeOver, "the agent does not answer in time")
               : Failure(kNoAgent, "the connection to the agent was lost");
  }
  if (status == LUMO_NO_AGENT || status == LUMO_BAD_GREETING)
    throw NotConnected(status, places_, SocketPath());
  throw Failure(status == LUMO_TOO_LONG ? kUsage : kFailed, lumo_status_text(status));
}

std::vector<lumo_node> Agent::Nodes() {
  const std::int32_t count = Look([&](int deadline, std::int32_t* result) {
    return lumo_count_nodes(Connection(), deadline, result);
  });
  std::vector<lumo_node> nodes;
  for (std::int32_t i = 0; i < count; ++i) {
    lumo_node node;
    const std::int32_t found = Look([&](int deadline, std::int32_t* result) {
      return lumo_get_node_at(Connection(), i, deadline, &node, result);
    });
    if (found == LUMO_RESULT_DONE) nodes.push_back(node);
  }
  return nodes;
}

std::int32_t Agent::DefaultIndex() {
  return Look([&](int deadline, std::int32_t* result) {
    return lumo_default_index(Connection(), deadline, result);
  });
}

std::string Agent::DefaultName() {
  char name[LUMO_NODE_NAME_SIZE] = "";
  Look([&](int deadline, std::int32_t* result) {
    return lumo_default_name(Connection(), deadline, name, result);
  });
  return name;
}

std::optional<std::string> Agent::TablePath() {
  if (const auto known = TableOfProcess(Pid())) return known;
  char path[512] = "";
  const std::int32_t found = Look([&](int deadline, std::int32_t* result) {
    return lumo_nodetab_path(Connection(), deadline, path, sizeof path, result);
  });
  if (found != LUMO_RESULT_DONE) return std::nullopt;
  return path;
}

std::optional<std::string> Agent::TableFile() {
  const auto path = TablePath();
  if (!path || path->front() == '/') return path;
  std::error_code error;
  const auto folder =
      std::filesystem::read_symlink("/proc/" + std::to_string(Pid()) + "/cwd", error);
  if (!error) return (folder / *path).lexically_normal();
  throw Failure(kNo, "the agent's node table is " + *path +
                         " in its own directory, which this user may not see; --file names one");
}

std::optional<lumo_node> Agent::Get(const NodeChoice& choice) {
  lumo_node node;
  const std::int32_t found = Look([&](int deadline, std::int32_t* result) {
    if (choice.Default) return lumo_get_default_node(Connection(), deadline, &node, result);
    if (choice.Index) return lumo_get_node_at(Connection(), *choice.Index, deadline, &node, result);
    return lumo_get_node(Connection(), choice.Name.c_str(), deadline, &node, result);
  });
  if (found != LUMO_RESULT_DONE) return std::nullopt;
  return node;
}

std::int32_t Agent::Probe() {
  return Look([&](int deadline, std::int32_t* result) {
    return lumo_probe(Connection(), deadline, result);
  });
}

std::int32_t Agent::SetDefault(std::int32_t index) {
  return Change([&](int deadline, std::int32_t* result) {
    return lumo_set_default(Connection(), index, deadline, result);
  });
}

// The agent puts a new node in front of the one that a message has named last, and this one may.
std::int32_t Agent::Add(const std::string& line, const std::string& before) {
  return Change([&](int deadline, std::int32_t* result) {
    lumo_request request = lumo_request_make();
    request.node = before.c_str();
    request.command = "DBCA";
    request.dbc_api_code = kAddNode;
    request.strings[0] = {line.c_str(), line.size() + 1};
    lumo_answer* raw = nullptr;
    const lumo_status status = lumo_ask(Connection(), &request, deadline, &raw);
    const std::unique_ptr<lumo_answer, decltype(&lumo_answer_free)> answer(raw, lumo_answer_free);
    *result = lumo_answer_row_id(raw);
    if (status == LUMO_ERROR) errno = lumo_answer_sys_error(raw);
    return status;
  });
}

std::int32_t Agent::Set(const NodeChoice& node, const std::string& line) {
  return Change([&](int deadline, std::int32_t* result) {
    const char* const text = line.c_str();
    if (node.Default) return lumo_set_default_node(Connection(), text, deadline, result);
    if (node.Index) return lumo_set_node_at(Connection(), *node.Index, text, deadline, result);
    return lumo_set_node(Connection(), node.Name.c_str(), text, deadline, result);
  });
}

std::int32_t Agent::Delete(const NodeChoice& node) {
  return Change([&](int deadline, std::int32_t* result) {
    if (node.Default) return lumo_delete_default_node(Connection(), deadline, result);
    if (node.Index) return lumo_delete_node_at(Connection(), *node.Index, deadline, result);
    return lumo_delete_node(Connection(), node.Name.c_str(), deadline, result);
  });
}

std::int32_t Agent::Lock(std::int32_t owner) {
  return Change([&](int deadline, std::int32_t* result) {
    return lumo_lock_nodetab(Connection(), owner, deadline, result);
  });
}

std::int32_t Agent::Unlock(std::int32_t owner) {
  return Change([&](int deadline, std::int32_t* result) {
    return lumo_unlock_nodetab(Connection(), owner, deadline, result);
  });
}

// Asking gives a lock back that is older than a minute: it changes as little as any look.
std::int32_t Agent::LockState(std::int32_t owner) {
  return Look([&](int deadline, std::int32_t* result) {
    return lumo_nodetab_status(Connection(), owner, deadline, result);
  });
}

TableLock::TableLock(Agent* agent, const Options& options) : agent_(agent), owner_(options.Owner) {
  if (options.NoLock) return;
  const std::int32_t state = agent_->LockState(owner_);
  if (state == LUMO_RESULT_HELD_BY_CALLER) return;
  taken_ = state == LUMO_RESULT_DONE && agent_->Lock(owner_) == LUMO_RESULT_DONE;
  if (!taken_)
    throw Failure(kNo, "the node table's lock is held by another; --no-lock goes on without it");
}

TableLock::~TableLock() {
  try {
    if (taken_) agent_->Unlock(owner_);
  } catch (const Failure&) {  // a lock that is left behind is given back after a minute
  }
}

Agreement Compare(const lumo_node& node, const TableLine& line) {
  if (node.name != line.Name || node.protocol != CodeOf(line.ProtocolKind))
    return Agreement::Different;
  switch (line.ProtocolKind) {
    case Kind::Tcpip:
      return CompareTcp(node, line.Tcp);
    case Kind::Locals:
    case Kind::Locali:
      return Agreement::Unknown;
    case Kind::None:
    case Kind::Unsupported:
      break;
  }
  return Agreement::Same;
}

std::string LineOf(const lumo_node& node) {
  std::string line = std::string(node.name) + ' ' + lumo_protocol_name(node.protocol);
  if (node.protocol == kCodeTcpip)
    line += std::string(" ") + node.address + ' ' + std::to_string(node.port) + ' ' +
            std::to_string(node.receive_timeout) + ' ' + std::to_string(node.send_timeout) + ' ' +
            std::to_string(node.connect_timeout);
  return line;
}

Json JsonOf(const lumo_node& node) {
  Json value{{"name", node.name}, {"protocol", lumo_protocol_name(node.protocol)}};
  if (node.protocol != kCodeTcpip) return value;
  value["address"] = node.address;
  value["port"] = node.port;
  value["receive_timeout"] = node.receive_timeout;
  value["send_timeout"] = node.send_timeout;
  value["connect_timeout"] = node.connect_timeout;
  return value;
}

void FailNoSuchNode(const std::string& node) { throw Failure(kNo, "there is no node " + node); }

}  // namespace lumo::ctl
