// The order of nodes, in which the agent goes from one to the next when the default fails: a circle
// that begins with the first line of its table.
#pragma once
#include <string>
#include <vector>

#include "lib/include/lumo.h"
#include "tools/lumoctl/nodetab.h"

namespace lumo::ctl {

// The order of the nodes that both have.
struct Order {
  std::vector<std::string> Agent, File;
  bool Same() const { return Agent == File; }
  bool SameCircle() const;
  std::string Text() const;  // what differs and what can be done; empty when nothing does
};

Order CompareOrder(const std::vector<lumo_node>& nodes, const Table& table);

// The node that follows this one in the circle of the table, of those that the agent has; empty:
// it has none of them.
std::string FollowerOf(const std::string& name, const Table& table,
                       const std::vector<lumo_node>& nodes);

// The agent's nodes as they will be with all that the table has besides.
std::vector<lumo_node> WithAdded(std::vector<lumo_node> nodes, const Table& table);

}  // namespace lumo::ctl
