// Names for the places of the agent's program from which it calls the system.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/faults/control.h"

namespace faults {

struct Place {
  std::string Function;  // bare name
  std::string Line;      // file:line
};

struct Site {
  Call Kind;
  std::uint64_t Return = 0;  // 0: the address of the call is handed to the function named
  Place At;
};

// Asks the tools of the compiler about a program, once for each address.
class Program {
 public:
  explicit Program(std::string path) : path_(std::move(path)) {}
  const std::string& Path() const { return path_; }
  // The place of the call that returns to the address.
  const Place& PlaceOf(std::uint64_t returnAddress);
  void Look(const std::vector<std::uint64_t>& returnAddresses);
  // All call sites in the program's code.
  std::vector<Site> Sites();

 private:
  std::string path_;
  std::map<std::uint64_t, Place> places_;
};

}  // namespace faults
