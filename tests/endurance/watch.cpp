#include "tests/endurance/watch.h"

#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/process.h"

namespace endurance {

long ResidentKb(pid_t pid) {
  return std::strtol(test::ProcessStatus(pid, "VmRSS").c_str(), nullptr, 10);
}

int ChildrenOf(pid_t pid) {
  const std::string id = std::to_string(pid);
  std::ifstream children("/proc/" + id + "/task/" + id + "/children");
  return static_cast<int>(std::distance(std::istream_iterator<pid_t>(children), {}));
}

Usage UsageOf(pid_t pid) {
  return {.ResidentKb = ResidentKb(pid),
          .Descriptors = test::OpenDescriptors(pid),
          .Children = ChildrenOf(pid)};
}

}  // namespace endurance
