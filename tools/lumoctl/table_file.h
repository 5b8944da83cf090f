// Node table files and single lines, as commands need them.
#pragma once
#include <string>
#include <vector>

#include "tools/lumoctl/nodetab.h"
#include "tools/lumoctl/options.h"

namespace lumo::ctl {

// "-": standard input. Fails with kUsage.
std::string ReadTextFile(const std::string& path);

// The agent's socket, and the exchange id that its name ends with; 0: with none.
std::string AgentSocket(const Options& options);
std::vector<std::string> AgentPlaces(const Options& options);  // all that it is looked for at
int AgentExchangeId(const Options& options);

// Says the warnings of a line that stands at this place; with --strict they are a Failure.
void TellWarnings(const Options& options, const TableLine& line, const std::string& place);

// One line that the agent would make a node of; else fails with kNo and the reasons. Warnings are
// told.
TableLine ParseLine(const Options& options, const std::string& text);
// Lines of a file, none of them refused by the agent, no name twice; else fails with kNo. Warnings
// are told.
Table ReadSoundTable(const Options& options, const std::string& path);

}  // namespace lumo::ctl
