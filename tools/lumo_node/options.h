// What the command line of the stand-in node says.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumo::node {

enum class Malformed {
  None,
  Length,     // a length word beyond the largest packet
  Strings,    // a counted string that leaves the packet
  Zero,       // a length word of 0
  Truncated,  // half a packet, then the connection is closed
};

// How the node misbehaves; as it comes, it does not.
struct Faults {
  int DelayMs = 0;
  int OutOfOrder = 1;  // so many requests are collected and answered in reverse
  bool Silent = false;
  bool Deaf = false;  // reads nothing that is sent to it
  bool Twice = false;
  int CloseAfter = 0;  // close a connection at its Nth packet; 0: never
  enum Malformed Malformed = Malformed::None;
};

// The faults of a line of options; throws std::invalid_argument with what is wrong about it.
Faults ParseFaults(const std::string& line);

struct Options {
  std::optional<std::uint16_t> Listen;  // TCP port; 0: any
  std::string Bind = "127.0.0.1";
  std::optional<int> Local;         // exchange id of the UNIX-domain socket
  std::optional<std::int32_t> Ipc;  // System V key

  std::string Database = ":memory:";
  std::vector<std::string> InitFiles, InitSql;
  std::string Log;  // empty: standard error
  std::string Control;
  bool Background = false;
  bool Echo = false;  // a request is its own answer

  struct Faults Faults;

  // What another node is told, over its control socket, in place of being one.
  std::string Tell, TellLine;
  bool Stop = false;
};

// Ends the process itself for --help (status 0) and for a bad command line.
Options ParseOptions(int argc, char** argv);

}  // namespace lumo::node
