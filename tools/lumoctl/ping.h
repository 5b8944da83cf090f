// The agent's test mode, run for one node.
#pragma once
#include <string>
#include <vector>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/options.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {

struct Verdict {
  std::string Node;
  bool Alive = false;
  bool Untestable = false;  // nothing tells its address: neither alive nor not
  int Code = 0;             // the agent's code when the node is not alive; 0 with none
  bool Late = false;        // the test was ended because the time was over
  std::string Words;        // "alive", or why it is not
  double Seconds = 0;       // that the test took, with the start of its process
};

// Tests the nodes of these lines, several at a time; the verdicts come in their order.
std::vector<Verdict> TestNodes(const Options& options, const std::vector<std::string>& lines,
                               int timeoutMs);

// The lines of the agent's nodes: what it has in force where it tells that, else what its node
// table says; empty where neither is known.
std::vector<std::string> LinesToTest(const Options& options, Agent* agent,
                                     const std::vector<lumo_node>& nodes);

Json JsonOf(const Verdict& verdict);

// The agent's program: --program, LUMO_TCP, beside this one, or on the PATH. Fails with kFailed.
std::string AgentProgram(const Options& options);

}  // namespace lumo::ctl
