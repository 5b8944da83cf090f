// lumo_query: SQL through the agent, and management of its node table, from the command line.
#include <cstdio>
#include <exception>

#include "tools/client/connection.h"
#include "tools/lumo_query/manage.h"
#include "tools/lumo_query/query.h"

namespace lumo::query {
namespace {

int Run(const Options& options) {
  std::string error;
  auto agent = Connection::Open(SocketPath(options.ExchangeId), &error);
  if (!agent) {
    std::fprintf(stderr, "lumo_query: %s\n", error.c_str());
    return kNoAgent;
  }
  return options.Command == Command::Query ? RunQueries(*agent, options) : Manage(*agent, options);
}

}  // namespace
}  // namespace lumo::query

int main(int argc, char** argv) {
  const lumo::query::Options options = lumo::query::ParseOptions(argc, argv);
  try {
    return lumo::query::Run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lumo_query: %s\n", error.what());
    return lumo::query::kUsage;
  }
}
