#include "tools/lumoctl/table_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "lib/include/lumo.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {
namespace {

// Throws when a fault keeps the line from making a node.
void RequireSound(const TableLine& line, const std::string& place) {
  for (const Fault& fault : line.Faults)
    if (fault.Level == Severity::Error) throw Failure(kNo, place + fault.Text);
}

}  // namespace

std::string ReadTextFile(const std::string& path) {
  if (path == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  std::error_code error;
  if (std::filesystem::is_directory(path, error))
    throw Failure(kUsage, path + " cannot be read: it is a directory");
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Failure(kUsage, path + " cannot be read: " + std::strerror(errno));
  std::string text{std::istreambuf_iterator<char>(file), {}};
  return text;
}

std::string AgentSocket(const Options& options) {
  if (!options.Socket.empty()) return options.Socket;
  char path[512];
  if (lumo_socket_path(options.ExchangeId, path, sizeof path) != LUMO_OK)
    throw Failure(kUsage, "the path of the agent's socket is too long");
  return path;
}

std::vector<std::string> AgentPlaces(const Options& options) {
  if (!options.Socket.empty()) return {options.Socket};
  std::vector<std::string> places;
  char path[512];
  while (lumo_socket_place(options.ExchangeId, places.size(), path, sizeof path) == LUMO_OK)
    places.emplace_back(path);
  return places;
}

int AgentExchangeId(const Options& options) {
  const std::string path = AgentSocket(options), word = "/tavrin.";
  const std::size_t at = path.rfind(word);
  return at == std::string::npos ? 0 : std::atoi(path.c_str() + at + word.size());
}

void TellWarnings(const Options& options, const TableLine& line, const std::string& place) {
  for (const Fault& fault : line.Faults) {
    if (fault.Level != Severity::Warning) continue;
    const std::string text = Printable(place + fault.Text + " [" + fault.Rule + "]");
    if (options.Strict) throw Failure(kNo, text);
    std::fprintf(stderr, "lumoctl: warning: %s\n", text.c_str());
  }
}

TableLine ParseLine(const Options& options, const std::string& text) {
  if (text.find_first_of(std::string("\n\0", 2)) != std::string::npos)
    throw Failure(kUsage, "a node table line holds neither a line end nor a NUL");
  TableReader reader(SystemResolver(), AgentExchangeId(options));
  const TableLine line = reader.Read(1, text);
  RequireSound(line, "");
  TellWarnings(options, line, "");
  return line;
}

Table ReadSoundTable(const Options& options, const std::string& path) {
  Table table = ReadTable(ReadTextFile(path), SystemResolver(), AgentExchangeId(options));
  std::set<std::string> names;
  for (const TableLine& line : table.Lines) {
    const std::string place = path + ':' + std::to_string(line.Number) + ": ";
    RequireSound(line, place);
    if (!names.insert(line.Name).second)
      throw Failure(kNo, place + "the name " + line.Name + " is there twice");
  }
  if (names.empty()) throw Failure(kNo, path + ": no line makes a node");
  for (const TableLine& line : table.Lines)
    TellWarnings(options, line, path + ':' + std::to_string(line.Number) + ": ");
  return table;
}

}  // namespace lumo::ctl
