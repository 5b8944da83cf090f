// The command line: the first line of the input is NET_MBX, each further line an argument.
#include <cstdio>
#include <vector>

#include "core/init.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

constexpr std::size_t kArgumentsMax = 64;
constexpr const char* kKeys[] = {"N", "PKILL", "AUTOCONNECTTIMEOUT", "-", "", "U"};

bool Holds(const std::vector<std::string>& arguments, const char* value) {
  for (const std::string& argument : arguments) {
    if (value >= argument.c_str() && value <= argument.c_str() + argument.size()) return true;
  }
  return false;
}

void MustBeArgument(const std::vector<std::string>& arguments, const char* value) {
  if (value && !Holds(arguments, value)) world::Violated("the value is no part of an argument");
}

void CheckOptions(const std::vector<std::string>& arguments) {
  MustBeArgument(arguments, g_DbcI.NodetabPath);
  MustBeArgument(arguments, g_DbcI.PidFile);
  if (g_DbcI.DefaultNode[0] != '\0') MustBeArgument(arguments, g_DbcI.DefaultNode);
  if (g_DbcI.NetMbx == 0) world::Violated("the exchange number is 0");
  if (g_DbcI.AutoConnect && g_DbcI.AutoChange) world::Violated("both reconnection modes are on");
  if (g_DbcI.PingMode && !g_DbcI.NoDaemon) world::Violated("a ping in the background");
}

// The environment refers to the buffer, so that no run leaves anything behind.
void SetNetMbx(const std::string& value) {
  static char variable[256];
  std::snprintf(variable, sizeof variable, "NET_MBX=%s", value.c_str());
  putenv(variable);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  SetNetMbx(input.Line());
  std::vector<std::string> arguments = {"lumo_tcp"};
  while (!input.Empty() && arguments.size() < kArgumentsMax) arguments.push_back(input.Line());
  const SimulatedAgent agent(size);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  for (const char* const key : kKeys)
    MustBeArgument(arguments, GetArgument(__LINE__, argv.data(), key));
  if (DbcInitGlobalInternal(kFuzz, __LINE__, argv.data()) == 0) CheckOptions(arguments);
  return 0;
}
