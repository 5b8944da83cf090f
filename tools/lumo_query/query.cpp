#include "tools/lumo_query/query.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>

#include "tools/client/status_text.h"

namespace lumo::query {
namespace {

Message SqlRequest(const std::string& sql, const std::string& node) {
  static std::uint16_t lastAstInd = 0;
  Message request;
  request.TaskName = getpid();
  request.SetTrailerTaskName(request.TaskName);
  request.SetAstInd(++lastAstInd);
  request.Command = "SQL";
  request.Node = node;
  request.Strings[0] = sql;
  return request;
}

void PrintRows(const Message& answer, bool verbose) {
  const std::string& rows = answer.Strings[3];
  if (answer.CodErr == 0 && !rows.empty()) std::cout << rows << '\n';
  if (verbose)
    std::cout << "-- rows " << answer.RowCount << ", bytes " << answer.LnBufRow << ", code "
              << answer.CodErr << '\n';
  std::cout.flush();
}

}  // namespace

Exit NoAnswer(const Connection& agent) {
  std::fprintf(stderr, "lumo_query: %s\n",
               agent.Lost() ? "the connection to the agent was lost" : "no answer came in time");
  return kNoAgent;
}

Exit Judge(std::int32_t code, std::int32_t systemError, const std::string& nodeText) {
  if (code == 0) return kOk;
  const char* const words = StatusText(code);
  if (!words) {
    std::fprintf(stderr, "lumo_query: the node refused: %s (code %d)\n", nodeText.c_str(), code);
    return kNodeRefused;
  }
  const std::string detail =
      systemError ? std::string(", system error ") + std::strerror(systemError) : std::string();
  std::fprintf(stderr, "lumo_query: %s (code %d%s)\n", words, code, detail.c_str());
  return kAgentRefused;
}

Exit RunQueries(Connection& agent, const Options& options) {
  for (const std::string& sql : options.Arguments) {
    const Message request = SqlRequest(sql, options.Node);
    if (EncodedSize(request) > kMaxMessage) {
      std::fprintf(stderr, "lumo_query: the SQL is too long for one message\n");
      return kUsage;
    }
    const std::optional<Message> answer = agent.Ask(request, options.TimeoutMs());
    if (!answer) return NoAnswer(agent);
    PrintRows(*answer, options.Verbose);
    const Exit exit = Judge(answer->CodErr, answer->SysErr, answer->Strings[3]);
    if (exit != kOk) return exit;
  }
  return kOk;
}

}  // namespace lumo::query
