#include "tests/support/management.h"

#include <unistd.h>

namespace lumo {
namespace {

std::uint16_t NextAstInd() {
  static std::uint16_t last = 0;
  return ++last;
}

Answer FromMessage(const std::optional<Message>& message) {
  if (!message) return std::nullopt;
  return ManagementAnswer{message->CodErr, message->SysErr, message->RowId, message->Strings[3]};
}

}  // namespace

Message ManagementRequest(std::uint16_t command, std::int32_t rowId, const std::string& argument) {
  Message request;
  request.TaskName = getpid();
  request.SetTrailerTaskName(request.TaskName);
  request.SetAstInd(NextAstInd());
  request.Command = "DBCA";
  request.DbcApiCode = command;
  request.RowId = rowId;
  request.Strings[0] = argument;
  return request;
}

std::optional<ManagementAnswer> DecodeManagementAnswer(std::string_view frame) {
  return FromMessage(Decode(frame, Layout::Management));
}

Answer AskManagement(Connection& agent, std::uint16_t command, std::int32_t rowId,
                     const std::string& argument, int timeoutMs) {
  return FromMessage(
      agent.Ask(ManagementRequest(command, rowId, argument), timeoutMs, Layout::Management));
}

Answer AnswerOne(Connection& agent) { return AskManagement(agent, 100); }
Answer DeleteNodeByName(Connection& agent, const std::string& name) {
  return AskManagement(agent, 123, 0, name + '\0');
}

}  // namespace lumo
