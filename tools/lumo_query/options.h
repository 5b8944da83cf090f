// What the command line of lumo_query says.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumo::query {

// What the process ends with.
enum Exit : int {
  kOk = 0,
  kNodeRefused = 1,   // the node or its database
  kAgentRefused = 2,  // the code is one of the agent's
  kNoAgent = 3,       // or the connection was lost, or no answer came in time
  kUsage = 4,
};

enum class Command {
  Query,
  List,
  Show,
  Default,
  Add,
  Set,
  Delete,
  Path,
  Lock,
  Unlock,
  Status,
};

struct Options {
  int ExchangeId = 0;
  std::string Node;  // empty: the default node
  double TimeoutSeconds = 30;
  bool Verbose = false;
  enum Command Command = Command::Query;
  std::vector<std::string> Arguments;  // of the command; the SQL texts of a query
  std::int32_t Owner = 0;              // of the node table's lock

  int TimeoutMs() const { return static_cast<int>(TimeoutSeconds * 1000); }
};

// Ends the process itself for --help (status 0) and for a bad command line (kUsage).
Options ParseOptions(int argc, char** argv);

}  // namespace lumo::query
