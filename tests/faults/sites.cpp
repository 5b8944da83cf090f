#include "tests/faults/sites.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace faults {
namespace {

std::string OutputOf(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) throw std::runtime_error("cannot run " + command);
  std::string text;
  std::array<char, 65536> piece;
  for (std::size_t got; (got = fread(piece.data(), 1, piece.size(), pipe.get())) > 0;)
    text.append(piece.data(), got);
  return text;
}

std::string Hex(std::uint64_t number) {
  std::ostringstream text;
  text << std::hex << number;
  return text.str();
}

// "(anonymous namespace)::SendNow(int, char const*) [clone ...]" is SendNow.
std::string BareName(std::string name) {
  constexpr std::string_view kAnonymous = "(anonymous namespace)::";
  for (std::size_t at; (at = name.find(kAnonymous)) != std::string::npos;)
    name.erase(at, kAnonymous.size());
  name = name.substr(0, name.find_first_of("(<["));
  const std::size_t blank = name.rfind(' ');  // before it a template's result type
  return blank == std::string::npos ? name : name.substr(blank + 1);
}

std::string BareLine(std::string line) {
  line = line.substr(0, line.find(' '));
  const std::size_t slash = line.rfind('/');
  return slash == std::string::npos ? line : line.substr(slash + 1);
}

std::map<std::string, Call> Wrappers() {
  std::map<std::string, Call> wrappers;
  for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(Call::Count); ++i)
    wrappers[std::string("__wrap_") + kCallNames[i]] = static_cast<Call>(i);
  return wrappers;
}

// What a line of disassembly tells, as far as it matters here.
struct Instruction {
  std::uint64_t Address = 0;
  std::string Text;
};

bool ParseInstruction(const std::string& line, Instruction* parsed) {
  char* end = nullptr;
  parsed->Address = std::strtoull(line.c_str(), &end, 16);
  if (end == line.c_str() || *end != ':') return false;
  parsed->Text = end + 1;
  return true;
}

}  // namespace

void Program::Look(const std::vector<std::uint64_t>& returnAddresses) {
  std::vector<std::uint64_t> unknown;
  std::string command = "addr2line -f -C -e '" + path_ + "'";
  for (const std::uint64_t address : returnAddresses) {
    if (!places_.emplace(address, Place{}).second) continue;
    unknown.push_back(address);
    command += " " + Hex(address - 1);
  }
  if (unknown.empty()) return;
  std::istringstream lines(OutputOf(command));
  for (const std::uint64_t address : unknown) {
    std::string name, line;
    std::getline(lines, name);
    std::getline(lines, line);
    places_[address] = {BareName(name), BareLine(line)};
  }
}

const Place& Program::PlaceOf(std::uint64_t returnAddress) {
  Look({returnAddress});
  return places_[returnAddress];
}

// A call instruction names its wrapper and the next instruction is where it returns to; where the
// address of a wrapper is loaded, the function is called by somebody else.
std::vector<Site> Program::Sites() {
  const std::map<std::string, Call> wrappers = Wrappers();
  std::map<std::string, Call> loads;
  std::istringstream symbols(OutputOf("nm '" + path_ + "'"));
  for (std::string address, type, name; symbols >> address >> type >> name;) {
    const auto wrapper = wrappers.find(name);
    if (wrapper == wrappers.end()) continue;
    std::ostringstream constant;
    constant << "$0x" << Hex(std::strtoull(address.c_str(), nullptr, 16)) << ",";
    loads[constant.str()] = wrapper->second;
  }
  std::vector<Site> sites;
  std::istringstream code(OutputOf("objdump -d --no-show-raw-insn '" + path_ + "'"));
  const Call* called = nullptr;
  for (std::string line; std::getline(code, line);) {
    Instruction at;
    if (line.find(">:") != std::string::npos || !ParseInstruction(line, &at)) continue;
    if (called) sites.push_back({*called, at.Address, {}});
    called = nullptr;
    const std::size_t symbol = at.Text.find('<');
    if (at.Text.find("call") != std::string::npos && symbol != std::string::npos) {
      const auto wrapper =
          wrappers.find(at.Text.substr(symbol + 1, at.Text.find('>') - symbol - 1));
      if (wrapper != wrappers.end()) called = &wrapper->second;
    }
    for (const auto& [constant, call] : loads) {
      if (at.Text.find(constant) == std::string::npos) continue;
      sites.push_back({call, 0, PlaceOf(at.Address + 1)});
    }
  }
  std::vector<std::uint64_t> addresses;
  for (const Site& site : sites) {
    if (site.Return != 0) addresses.push_back(site.Return);
  }
  Look(addresses);
  for (Site& site : sites) {
    if (site.Return != 0) site.At = PlaceOf(site.Return);
  }
  return sites;
}

}  // namespace faults
