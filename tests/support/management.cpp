#include "tests/support/management.h"

#include <unistd.h>

namespace lumo {
namespace {

// The agent reads an argument as a NUL-terminated text.
std::string Terminated(const std::string& text) { return text + '\0'; }

std::uint16_t NextAstInd() {
  static std::uint16_t last = 0;
  return ++last;
}

ManagementAnswer FromMessage(const Message& message) {
  return {.CodErr = message.CodErr,
          .SysErr = message.SysErr,
          .Result = message.RowId,
          .Item = message.Strings[3]};
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
  const std::optional<Message> message = Decode(frame, Layout::Management);
  if (!message) return std::nullopt;
  return FromMessage(*message);
}

Answer AskManagement(Connection& agent, std::uint16_t command, std::int32_t rowId,
                     const std::string& argument, int timeoutMs) {
  const std::optional<Message> answer =
      agent.Ask(ManagementRequest(command, rowId, argument), timeoutMs, Layout::Management);
  if (!answer) return std::nullopt;
  return FromMessage(*answer);
}

Answer AnswerOne(Connection& agent) { return AskManagement(agent, 100); }
Answer CountNodes(Connection& agent) { return AskManagement(agent, 102); }
Answer GetDefaultName(Connection& agent) { return AskManagement(agent, 103); }
Answer GetNameByIndex(Connection& agent, std::int32_t index) {
  return AskManagement(agent, 105, index);
}
Answer SetDefaultByIndex(Connection& agent, std::int32_t index) {
  return AskManagement(agent, 106, index);
}
Answer LockNodetab(Connection& agent, std::int32_t owner) {
  return AskManagement(agent, 117, owner);
}
Answer UnlockNodetab(Connection& agent, std::int32_t owner) {
  return AskManagement(agent, 118, owner);
}
Answer AddNode(Connection& agent, const std::string& line) {
  return AskManagement(agent, 119, 0, Terminated(line));
}
Answer GetNodeByName(Connection& agent, const std::string& name) {
  return AskManagement(agent, 120, 0, Terminated(name));
}
Answer GetDefaultNode(Connection& agent) { return AskManagement(agent, 122); }
Answer DeleteNodeByName(Connection& agent, const std::string& name) {
  return AskManagement(agent, 123, 0, Terminated(name));
}
Answer DeleteDefaultNode(Connection& agent) { return AskManagement(agent, 125); }

Answer SetNodeByName(Connection& agent, const std::string& name, const std::string& line) {
  // The agent looks for the line behind the name, its NUL and one byte more.
  return AskManagement(agent, 126, 0, Terminated(name) + '\0' + Terminated(line));
}
Answer GetNodetabStatus(Connection& agent, std::int32_t owner) {
  return AskManagement(agent, 129, owner);
}

}  // namespace lumo
