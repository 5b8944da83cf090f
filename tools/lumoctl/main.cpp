// lumoctl: looks after the agent of this machine and its node table.
#include <cstdio>
#include <exception>
#include <iostream>

#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/options.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {
namespace {

int Fail(const Options& options, Exit status, const char* message) {
  std::fprintf(stderr, "lumoctl: %s\n", message);
  if (options.Json)
    Show(options, Json{{"error", {{"status", static_cast<int>(status)}, {"message", message}}}},
         "");
  return status;
}

int Run(const Options& options) {
  try {
    return options.Run(options);
  } catch (const Failure& failure) {
    return Fail(options, failure.Status, failure.what());
  } catch (const std::exception& error) {
    return Fail(options, kFailed, error.what());
  }
}

}  // namespace
}  // namespace lumo::ctl

int main(int argc, char** argv) {
  const int status = lumo::ctl::Run(lumo::ctl::ParseOptions(argc, argv));
  std::cout.flush();
  return std::cout ? status : static_cast<int>(lumo::ctl::kFailed);
}
