// The node's log: one line per event, with the time.
#pragma once
#include <fstream>
#include <string>

namespace lumo::node {

class EventLog {
 public:
  // Appends to the file, or writes to standard error when the name is empty.
  explicit EventLog(const std::string& fileName);
  void Write(const std::string& event);

 private:
  std::ofstream file_;
};

// A text for one line of the log: control characters and backslashes escaped, cut when long.
std::string Printable(const std::string& text);

}  // namespace lumo::node
