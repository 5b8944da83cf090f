#include "tools/lumoctl/system_state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "tools/lumoctl/nodetab.h"

namespace lumo::ctl {
namespace {

namespace fs = std::filesystem;

std::string ProcPath(pid_t pid, const std::string& file) {
  return "/proc/" + std::to_string(pid) + '/' + file;
}

std::string ReadProc(pid_t pid, const std::string& file) {
  std::ifstream stream(ProcPath(pid, file), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> SplitAtNul(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, '\0');) parts.push_back(part);
  return parts;
}

// Where every descriptor leads; nothing when this user may not see it.
std::vector<std::string> Targets(pid_t pid) {
  std::vector<std::string> targets;
  std::error_code error;
  for (fs::directory_iterator at(ProcPath(pid, "fd"), error), end; !error && at != end;
       at.increment(error)) {
    const fs::path target = fs::read_symlink(at->path(), error);
    if (!error) targets.push_back(target);
    error.clear();
  }
  return targets;
}

std::string KindOf(const std::string& target) {
  const std::size_t colon = target.find(':');
  if (target[0] == '/') return "file";
  return colon == std::string::npos ? "other" : target.substr(0, colon);
}

// The numbers of the sockets among the targets.
std::set<std::string> SocketNumbers(const std::vector<std::string>& targets) {
  std::set<std::string> numbers;
  const std::string word = "socket:[";
  for (const std::string& target : targets)
    if (target.rfind(word, 0) == 0)
      numbers.insert(target.substr(word.size(), target.size() - word.size() - 1));
  return numbers;
}

const char* TcpStateText(unsigned state) {
  static constexpr const char* kStates[] = {"",          "established", "connecting", "answering",
                                            "closing",   "closing",     "waiting",    "closed",
                                            "half-open", "closing",     "listening",  "closing"};
  return state < std::size(kStates) ? kStates[state] : "";
}

std::string AddressText(unsigned address, unsigned port) {
  std::array<unsigned char, 4> bytes;
  std::memcpy(bytes.data(), &address, bytes.size());
  std::string text;
  for (const unsigned char byte : bytes) text += (text.empty() ? "" : ".") + std::to_string(byte);
  return text + ':' + std::to_string(port);
}

Json TcpConnections(pid_t pid, const std::set<std::string>& numbers) {
  Json list = Json::array();
  std::istringstream table(ReadProc(pid, "net/tcp"));
  for (std::string line; std::getline(table, line);) {
    unsigned local = 0, localPort = 0, remote = 0, remotePort = 0, state = 0;
    char number[32] = "";
    const int fields = std::sscanf(line.c_str(), " %*u: %x:%x %x:%x %x %*s %*s %*s %*s %*s %31s",
                                   &local, &localPort, &remote, &remotePort, &state, number);
    if (fields != 6 || !numbers.count(number)) continue;
    list.push_back(Json{{"local", AddressText(local, localPort)},
                        {"remote", AddressText(remote, remotePort)},
                        {"state", TcpStateText(state)}});
  }
  return list;
}

// Connections accepted from the socket have its path too.
int ConnectionsTo(pid_t pid, const std::set<std::string>& numbers, const std::string& path) {
  int count = 0;
  std::istringstream table(ReadProc(pid, "net/unix"));
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string word, number, found;
    for (int i = 0; i < 6; ++i) words >> word;
    if (!(words >> number >> found) || found != path || !numbers.count(number)) continue;
    const bool listens = line.find(" 00010000 ") != std::string::npos;
    if (!listens) ++count;
  }
  return count;
}

}  // namespace

Json ProcessState(pid_t pid) {
  Json state;
  state["command"] = SplitAtNul(ReadProc(pid, "cmdline"));
  Json environment = Json::object();
  for (const std::string& entry : SplitAtNul(ReadProc(pid, "environ"))) {
    const std::string name = entry.substr(0, entry.find('='));
    if (name == "NET_MBX" || name == "TAVRIN_TMP" || name == "DBC_LOG" || name == "HOME")
      environment[name] = entry.substr(std::min(name.size() + 1, entry.size()));
  }
  state["environment"] = environment;
  std::istringstream status(ReadProc(pid, "status"));
  for (std::string line; std::getline(status, line);) {
    const std::size_t colon = line.find(':');
    const std::string name = line.substr(0, colon);
    if (name != "State" && name != "Uid" && name != "VmRSS" && name != "Threads") continue;
    const std::size_t value = line.find_first_not_of(" \t", colon + 1);
    if (value != std::string::npos)
      state[name] = line.substr(value, line.find('\t', value) - value);
  }
  return state;
}

Json ProcessLimits(pid_t pid) {
  Json limits = Json::object();
  std::istringstream stream(ReadProc(pid, "limits"));
  constexpr std::size_t kName = 26, kColumn = 21;  // widths of the columns
  for (std::string line; std::getline(stream, line);) {
    if (line.rfind("Max ", 0) != 0 || line.size() < kName + kColumn) continue;
    const std::string name = line.substr(4, kName - 4);
    std::istringstream values(line.substr(kName));
    std::string soft, hard;
    values >> soft >> hard;
    limits[name.substr(0, name.find_last_not_of(' ') + 1)] = Json{{"soft", soft}, {"hard", hard}};
  }
  return limits;
}

Json ProcessSockets(pid_t pid, const std::string& socketPath) {
  const std::vector<std::string> targets = Targets(pid);
  if (targets.empty())
    return Json{{"unknown", "this user may not look at the agent's descriptors"}};
  Json kinds = Json::object();
  for (const std::string& target : targets) {
    Json& count = kinds[KindOf(target)];
    count = count.is_null() ? 1 : count.get<int>() + 1;
  }
  const std::set<std::string> numbers = SocketNumbers(targets);
  return Json{{"descriptors", targets.size()},
              {"kinds", kinds},
              {"clients", ConnectionsTo(pid, numbers, socketPath)},
              {"tcp", TcpConnections(pid, numbers)}};
}

std::vector<std::string> ProcessArguments(pid_t pid) {
  std::vector<std::string> arguments = SplitAtNul(ReadProc(pid, "cmdline"));
  if (!arguments.empty()) arguments.erase(arguments.begin());
  return arguments;
}

std::optional<std::string> TableOfProcess(pid_t pid) {
  const std::vector<std::string> arguments = ProcessArguments(pid);
  if (arguments.empty()) return std::nullopt;
  auto given = OptionValue(arguments, "N");
  if (!given) given = OptionValue(arguments, "NODETAB");
  fs::path path = given && !given->empty() ? *given : "nodetab";
  std::error_code error;
  if (path.is_relative()) path = fs::read_symlink(ProcPath(pid, "cwd"), error) / path;
  if (error || !fs::is_regular_file(path, error)) return std::nullopt;
  return path.string();
}

std::string StandardErrorFile(pid_t pid) {
  std::error_code error;
  const fs::path link = ProcPath(pid, "fd/2");
  return fs::is_regular_file(link, error) ? fs::read_symlink(link, error).string() : "";
}

std::vector<std::string> LastLines(const std::string& path, std::size_t count) {
  std::ifstream file(path, std::ios::binary);
  constexpr std::streamoff kTail = 1 << 20;  // of a long log only its end is read
  file.seekg(0, std::ios::end);
  const std::streamoff size = file.tellg();
  file.seekg(std::max<std::streamoff>(size - kTail, 0));
  std::deque<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
    if (lines.size() > count) lines.pop_front();
  }
  return {lines.begin(), lines.end()};
}

}  // namespace lumo::ctl
