// What the system tells about the agent's process.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/lumoctl/output.h"

namespace lumo::ctl {

// Command line, the environment variables that the agent reads, memory, threads; with a reason in
// "unknown" for what this user may not see.
Json ProcessState(pid_t pid);
// Name of the limit: "soft" and "hard".
Json ProcessLimits(pid_t pid);
// Descriptors by kind, TCP connections, connections to the socket at this path.
Json ProcessSockets(pid_t pid, const std::string& socketPath);

// The arguments of the process, without its name; none when this user may not see them.
std::vector<std::string> ProcessArguments(pid_t pid);
// The node table that an agent reads, where its arguments or its directory tell it; asking it would
// make it print a line. Nothing: it has to be asked.
std::optional<std::string> TableOfProcess(pid_t pid);

// The file that the process writes its standard error to; empty when that is none.
std::string StandardErrorFile(pid_t pid);
std::vector<std::string> LastLines(const std::string& path, std::size_t count);

}  // namespace lumo::ctl
