#include "tools/lumoctl/order.h"

#include <algorithm>
#include <set>

namespace lumo::ctl {
namespace {

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::set<std::string> NamesOf(const std::vector<lumo_node>& nodes) {
  std::set<std::string> names;
  for (const lumo_node& node : nodes) names.insert(node.name);
  return names;
}

}  // namespace

bool Order::SameCircle() const {
  std::vector<std::string> turned = Agent;
  const auto first = std::find(turned.begin(), turned.end(), File.empty() ? "" : File.front());
  if (first != turned.end()) std::rotate(turned.begin(), first, turned.end());
  return turned == File;
}

std::string Order::Text() const {
  if (Same()) return "";
  if (SameCircle())
    return "the nodes follow each other as in the file, but are counted from " + Agent.front() +
           "; only a restart makes " + File.front() + " the first";
  return "the agent goes through its nodes in the order " + Joined(Agent) + ", the file has " +
         Joined(File) + ": only a restart changes it";
}

Order CompareOrder(const std::vector<lumo_node>& nodes, const Table& table) {
  Order order;
  std::set<std::string> taken;
  for (const lumo_node& node : nodes)
    if (table.Find(node.name) && taken.insert(node.name).second) order.Agent.push_back(node.name);
  for (const TableLine* const line : table.Nodes())
    if (taken.count(line->Name)) order.File.push_back(line->Name);
  return order;
}

std::string FollowerOf(const std::string& name, const Table& table,
                       const std::vector<lumo_node>& nodes) {
  const std::set<std::string> names = NamesOf(nodes);
  std::vector<const TableLine*> circle = table.Nodes();
  const auto own = std::find_if(circle.begin(), circle.end(),
                                [&](const TableLine* line) { return line->Name == name; });
  std::rotate(circle.begin(), own, circle.end());
  for (const TableLine* const line : circle)
    if (line->Name != name && names.count(line->Name)) return line->Name;
  return "";
}

std::vector<lumo_node> WithAdded(std::vector<lumo_node> nodes, const Table& table) {
  const std::set<std::string> before = NamesOf(nodes);
  for (const TableLine* const line : table.Nodes()) {
    if (before.count(line->Name)) continue;
    lumo_node added{};
    line->Name.copy(added.name, sizeof added.name - 1);
    const std::string follower = FollowerOf(line->Name, table, nodes);
    const auto at = std::find_if(nodes.begin(), nodes.end(),
                                 [&](const lumo_node& node) { return follower == node.name; });
    // In front of the first one is behind the last: it stays the first.
    nodes.insert(at == nodes.begin() ? nodes.end() : at, added);
  }
  return nodes;
}

}  // namespace lumo::ctl
