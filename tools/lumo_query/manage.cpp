#include "tools/lumo_query/manage.h"

#include <strings.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <system_error>

#include "tools/client/management.h"
#include "tools/lumo_query/query.h"

namespace lumo::query {
namespace {

Exit Refused(const std::string& reason) {
  std::fprintf(stderr, "lumo_query: %s\n", reason.c_str());
  return kAgentRefused;
}

// A node's number; what is none gives -1, which no node has.
std::int32_t ParseIndex(const std::string& text) {
  std::int32_t index = -1;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, index);
  return error == std::errc() && rest == end ? index : -1;
}

// How a NODE argument names its node.
struct NodeChoice {
  bool Default = false;
  std::optional<std::int32_t> Index;
  std::string Name;
};

NodeChoice ChooseNode(const std::string& text) {
  if (text == "default") return {.Default = true, .Index = {}, .Name = {}};
  if (!text.empty() && text[0] == '#')
    return {.Default = false, .Index = ParseIndex(text.substr(1)), .Name = {}};
  return {.Default = false, .Index = {}, .Name = text};
}

Answer GetNode(Connection& agent, const NodeChoice& node) {
  if (node.Default) return GetDefaultNode(agent);
  return node.Index ? GetNodeByIndex(agent, *node.Index) : GetNodeByName(agent, node.Name);
}

Answer DeleteNode(Connection& agent, const NodeChoice& node) {
  if (node.Default) return DeleteDefaultNode(agent);
  return node.Index ? DeleteNodeByIndex(agent, *node.Index) : DeleteNodeByName(agent, node.Name);
}

Answer SetNode(Connection& agent, const NodeChoice& node, const std::string& line) {
  if (node.Default) return SetDefaultNode(agent, line);
  return node.Index ? SetNodeByIndex(agent, *node.Index, line)
                    : SetNodeByName(agent, node.Name, line);
}

// The outcome of a command whose Result is 0 or a reason.
Exit Outcome(const Connection& agent, const Answer& answer, const char* done) {
  if (!answer) return NoAnswer(agent);
  if (answer->CodErr) return Judge(answer->CodErr, answer->SysErr, answer->Item);
  switch (answer->Result) {
    case kDone:
      std::cout << done << '\n';
      return kOk;
    case kDeletionPending:
      std::cout << "in use: it will be deleted when its link is disconnected\n";
      return kOk;
    case kNoSuchNode:
      return Refused("there is no such node");
    case kHeldByOther:
      return Refused("the node table's lock is held by another");
    case kNoNodeTable:
      return Refused("there is no node table");
    default:
      return Refused("the agent refused (result " + std::to_string(answer->Result) + ")");
  }
}

std::string Summary(const NodeDescription& node) {
  std::string text = node.Name + '\t' + ProtocolText(node.ProtocolCode);
  if (node.ProtocolCode == kProtocolTcpip)
    text += '\t' + node.Address + ':' + std::to_string(node.Port);
  return text;
}

Exit List(Connection& agent) {
  const Answer count = CountNodes(agent), usual = GetDefaultIndex(agent);
  if (!count || !usual) return NoAnswer(agent);
  for (std::int32_t i = 0; i < count->Result; ++i) {
    const Answer answer = GetNodeByIndex(agent, i);
    if (!answer) return NoAnswer(agent);
    const auto node = DecodeNodeDescription(answer->Item);
    if (node)
      std::cout << '#' << i << (i == usual->Result ? " * " : "   ") << Summary(*node) << '\n';
  }
  return kOk;
}

Exit Show(Connection& agent, const std::string& nodeText) {
  const Answer answer = GetNode(agent, ChooseNode(nodeText));
  if (!answer) return NoAnswer(agent);
  if (answer->Result == kNoSuchNode) return Refused("there is no such node");
  const auto node = DecodeNodeDescription(answer->Item);
  if (!node) return Refused("the agent's description cannot be read");
  std::cout << "name\t" << node->Name << "\nprotocol\t" << ProtocolText(node->ProtocolCode) << '\n';
  if (node->ProtocolCode == kProtocolTcpip)
    std::cout << "address\t" << node->Address << "\nport\t" << node->Port << "\nreceive time-out\t"
              << node->ReceiveTimeout << "\nsend time-out\t" << node->SendTimeout
              << "\nconnect time-out\t" << node->ConnectTimeout << '\n';
  return kOk;
}

Exit ShowDefault(Connection& agent) {
  const Answer answer = GetDefaultName(agent);
  if (!answer) return NoAnswer(agent);
  if (answer->Result != 1) return Refused("there is no default node");
  std::cout << ItemText(answer->Item) << '\n';
  return kOk;
}

// The number of a node, for the one command that takes no name; -1 when there is none.
std::optional<std::int32_t> FindIndex(Connection& agent, const NodeChoice& node) {
  if (node.Index) return node.Index;
  const Answer count = CountNodes(agent);
  if (!count) return std::nullopt;
  for (std::int32_t i = 0; i < count->Result; ++i) {
    const Answer name = GetNameByIndex(agent, i);
    if (!name) return std::nullopt;
    if (strcasecmp(ItemText(name->Item).c_str(), node.Name.c_str()) == 0) return i;
  }
  return -1;
}

Exit SetDefault(Connection& agent, const std::string& nodeText) {
  const NodeChoice node = ChooseNode(nodeText);
  if (node.Default) return ShowDefault(agent);
  const auto index = FindIndex(agent, node);
  const Answer answer = index ? SetDefaultByIndex(agent, *index) : std::nullopt;
  if (!answer) return NoAnswer(agent);
  if (answer->Result != 1) return Refused("there is no such node");
  return ShowDefault(agent);
}

Exit Path(Connection& agent) {
  const Answer answer = GetNodetabPath(agent);
  return Outcome(agent, answer, answer ? ItemText(answer->Item).c_str() : "");
}

Exit Status(Connection& agent, std::int32_t owner) {
  const Answer answer = GetNodetabStatus(agent, owner);
  if (!answer) return NoAnswer(agent);
  std::cout << (answer->Result == kDone           ? "free"
                : answer->Result == kHeldByCaller ? "held by this owner"
                                                  : "held by another")
            << '\n';
  return kOk;
}

}  // namespace

Exit Manage(Connection& agent, const Options& options) {
  const auto argument = [&options](std::size_t i) { return options.Arguments.at(i); };
  switch (options.Command) {
    case Command::Query:
      break;
    case Command::List:
      return List(agent);
    case Command::Show:
      return Show(agent, argument(0));
    case Command::Default:
      return options.Arguments.empty() ? ShowDefault(agent) : SetDefault(agent, argument(0));
    case Command::Add:
      return Outcome(agent, AddNode(agent, argument(0)), "added");
    case Command::Set:
      return Outcome(agent, SetNode(agent, ChooseNode(argument(0)), argument(1)), "redefined");
    case Command::Delete:
      return Outcome(agent, DeleteNode(agent, ChooseNode(argument(0))), "deleted");
    case Command::Path:
      return Path(agent);
    case Command::Lock:
      return Outcome(agent, LockNodetab(agent, options.Owner), "locked");
    case Command::Unlock:
      return Outcome(agent, UnlockNodetab(agent, options.Owner), "unlocked");
    case Command::Status:
      return Status(agent, options.Owner);
  }
  return kUsage;
}

}  // namespace lumo::query
