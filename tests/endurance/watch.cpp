#include "tests/endurance/watch.h"

#include <filesystem>
#include <fstream>

#include "tests/support/process.h"

namespace endurance {
namespace {

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The fields after the command's name, which may hold blanks.
pid_t ParentIn(const std::filesystem::path& stat) {
  std::ifstream file(stat);
  std::string text;
  std::getline(file, text);
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos || end + 4 >= text.size()) return -1;
  return static_cast<pid_t>(std::strtol(text.c_str() + end + 4, nullptr, 10));
}

}  // namespace

long ResidentKb(pid_t pid) {
  return std::strtol(test::ProcessStatus(pid, "VmRSS").c_str(), nullptr, 10);
}

int ChildrenOf(pid_t pid) {
  int count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator at("/proc", error), end; at != end;
       at.increment(error)) {
    if (IsNumber(at->path().filename()) && ParentIn(at->path() / "stat") == pid) ++count;
  }
  return count;
}

Usage UsageOf(pid_t pid) {
  return {.ResidentKb = ResidentKb(pid),
          .Descriptors = test::OpenDescriptors(pid),
          .Children = ChildrenOf(pid)};
}

}  // namespace endurance
