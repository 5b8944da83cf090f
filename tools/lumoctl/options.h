// What the command line of lumoctl says.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumo::ctl {

struct Options {
  int (*Run)(const Options&) = nullptr;  // the command

  int ExchangeId = 0;  // 0: NET_MBX or the usual one
  std::string Socket;
  std::optional<double> TimeoutSeconds;
  bool Json = false, Color = false;

  std::vector<std::string> Arguments;  // NODE, words of LINE, SQL or the agent's options
  std::string Node;                    // set, query
  std::string File;                    // a node table
  std::string Program;                 // the agent's
  std::string Log, Output;
  std::int32_t Owner = 0;
  int LogLines = 50;
  bool Names = false;                 // list
  bool All = false;                   // refresh, apply
  bool DryRun = false, Keep = false;  // apply
  bool NoLock = false;
  bool NoResolve = false;                // lint
  bool Strict = false;                   // lint: notes count; what sends lines: warnings refuse
  bool Mask = false;                     // report
  bool NoPing = false;                   // export
  std::string Listen;                    // export: ADDRESS:PORT
  double DelaySeconds = 1;               // top
  int Count = 0;                         // top: screens, 0: without end
  bool Stop = false;                     // drain
  std::optional<std::int32_t> Tag, Pid;  // trace
  int Slowest = 0;                       // trace; 0: all, in the order of their answers
  bool Live = false;                     // trace: times are those when lines come

  int TimeoutMs(double usualSeconds) const {
    return static_cast<int>(TimeoutSeconds.value_or(usualSeconds) * 1000);
  }
};

// Ends the process itself for --help and --version (status 0) and for a bad command line.
Options ParseOptions(int argc, char** argv);
// The completion of a shell: its script, with a table of these options in it (completion.h).
std::string CompletionOf(const std::string& script);

}  // namespace lumo::ctl
