#include "tests/stress/process_figures.h"

#include <unistd.h>

#include <sstream>

#include "tests/support/agent.h"
#include "tests/support/process.h"

namespace stress {

double CpuSeconds(pid_t pid) {
  const std::string stat = test::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  // The name, in brackets, may hold blanks; behind it 11 fields come before the two times.
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  double user = 0, system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::size_t MemoryOf(pid_t pid, const std::string& field) {
  std::istringstream value(test::ProcessStatus(pid, field));
  std::size_t kilobytes = 0;
  value >> kilobytes;
  return kilobytes * 1024;
}

}  // namespace stress
