// The control socket: what is said to a node while it runs, by `lumo_node --tell`.
#pragma once
#include <poll.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace lumo::node {

// A line of options sets the faults to those and no others, "--stop" ends the node. The answer is a
// line, "ok" or what is wrong; the connection is closed behind it, with --stop when the node ends.
class Control {
 public:
  explicit Control(const std::string& path);
  ~Control();  // removes the socket's file
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  void Collect(std::vector<pollfd>* wanted) const;
  // Does everything that can be done without waiting. True: the node is to end. `set` gets a line
  // of faults and throws std::invalid_argument with what is wrong about it.
  using Setter = std::function<void(const std::string& line)>;
  bool Serve(const Setter& set);

 private:
  bool Read(int socket, std::string* line) const;

  const std::string path_;
  const int listener_;
  std::map<int, std::string> lines_;  // what has come, by connection
};

// Says a line to the node at the path and waits for its answer; after "--stop" for its end too.
// Throws what is wrong.
void TellNode(const std::string& path, const std::string& line);

}  // namespace lumo::node
