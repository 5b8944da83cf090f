// The agent's management commands.
#include <cstring>
#include <string>

#include "lib/entry.h"
#include "lib/node_description.h"

using namespace lumo::detail;

namespace {

// Numbers of the commands.
enum : std::uint16_t {
  kProbe = 100,
  kCountNodes = 102,
  kDefaultName = 103,
  kDefaultIndex = 104,
  kNodeName = 105,
  kSetDefault = 106,
  kNodetabPath = 116,
  kLock = 117,
  kUnlock = 118,
  kAddNode = 119,
  kGetNode = 120,
  kGetNodeAt = 121,
  kGetDefaultNode = 122,
  kDeleteNode = 123,
  kDeleteNodeAt = 124,
  kDeleteDefaultNode = 125,
  kSetNode = 126,
  kSetNodeAt = 127,
  kSetDefaultNode = 128,
  kLockStatus = 129,
};

constexpr std::size_t kNameSize = 8;

// What a call asks: everything but where and how long.
struct Command {
  std::uint16_t Number;
  std::int32_t Argument = 0;
  std::string Text = {};
};

struct Reply {
  Outcome Result;
  std::int32_t Value = 0;
  std::string Item = {};
};

Reply Ask(lumo_connection* connection, const Command& command, int deadlineMs) {
  AnswerPointer answer;
  Reply reply;
  reply.Result =
      AskAgent(connection, command.Number, command.Argument, command.Text, deadlineMs, &answer);
  if (!reply.Result.Good()) return reply;
  reply.Value = answer->Message.RowId;
  reply.Item = std::move(answer->Message.Strings[LUMO_ROWS]);
  return reply;
}

// Asks what `make` says, hands out the result, and lets `finish` look at what has come.
template <class Make, class Finish>
lumo_status Manage(lumo_connection* connection, int deadlineMs, std::int32_t* result, Make make,
                   Finish finish) {
  if (result) *result = 0;
  return Entry([&]() -> Outcome {
    const Reply reply = Ask(connection, make(), deadlineMs);
    if (!reply.Result.Good()) return reply.Result;
    if (result) *result = reply.Value;
    return {finish(reply)};
  });
}

lumo_status Any(const Reply&) { return LUMO_OK; }

lumo_status IsDone(const Reply& reply) {
  return reply.Value == LUMO_RESULT_DONE ? LUMO_OK : LUMO_REFUSED;
}

lumo_status IsDoneOrPending(const Reply& reply) {
  return reply.Value == LUMO_RESULT_PENDING ? LUMO_OK : IsDone(reply);
}

// Of the commands that answer 1 for yes and 0 for no.
lumo_status IsFound(const Reply& reply) { return reply.Value == 1 ? LUMO_OK : LUMO_REFUSED; }

lumo_status CopyName(const Reply& reply, char* name) {
  const lumo_status found = IsFound(reply);
  if (found != LUMO_OK) return found;
  const std::string text = lumo::ItemText(reply.Item);
  if (text.size() > kNameSize) return LUMO_BAD_ANSWER;
  std::memcpy(name, text.c_str(), text.size() + 1);
  return LUMO_OK;
}

lumo_status CopyPath(const Reply& reply, char* path, std::size_t size) {
  const lumo_status found = IsDone(reply);
  if (found != LUMO_OK) return found;
  const std::string text = reply.Item.c_str();
  if (text.size() >= size) return LUMO_TOO_LONG;
  std::memcpy(path, text.c_str(), text.size() + 1);
  return LUMO_OK;
}

lumo_status CopyNode(const Reply& reply, lumo_node* node) {
  const lumo_status found = IsDone(reply);
  if (found != LUMO_OK) return found;
  const auto description = lumo::DecodeNodeDescription(reply.Item);
  if (!description) return LUMO_BAD_ANSWER;
  node->protocol = description->ProtocolCode;
  node->port = description->Port;
  description->Name.copy(node->name, sizeof node->name - 1);
  description->Address.copy(node->address, sizeof node->address - 1);
  node->receive_timeout = description->ReceiveTimeout;
  node->send_timeout = description->SendTimeout;
  node->connect_timeout = description->ConnectTimeout;
  return LUMO_OK;
}

// The agent reads a text to its NUL.
std::string Terminated(const std::string& text) { return text + '\0'; }

std::string FirstWord(const std::string& name) { return name.substr(0, name.find(' ')); }

lumo_status CheckName(const char* name) {
  if (!name) return LUMO_BAD_ARGUMENT;
  return std::strcspn(name, " ") > kNameSize ? LUMO_TOO_LONG : LUMO_OK;
}

lumo_status Simple(lumo_connection* connection, std::uint16_t number, std::int32_t argument,
                   int deadlineMs, std::int32_t* result, lumo_status (*finish)(const Reply&)) {
  return Manage(
      connection, deadlineMs, result,
      [&] {
        return Command{number, argument};
      },
      finish);
}

lumo_status WithLine(lumo_connection* connection, const Command& command, const char* line,
                     int deadlineMs, std::int32_t* result) {
  if (result) *result = 0;
  if (!line) return LUMO_BAD_ARGUMENT;
  const auto make = [&] { return Command{command.Number, command.Argument, Terminated(line)}; };
  return Manage(connection, deadlineMs, result, make, IsDone);
}

lumo_status FindName(lumo_connection* connection, const Command& command, int deadlineMs,
                     char* name, std::int32_t* result) {
  if (result) *result = 0;
  if (!name) return LUMO_BAD_ARGUMENT;
  name[0] = '\0';
  return Manage(
      connection, deadlineMs, result, [&] { return command; },
      [&](const Reply& reply) { return CopyName(reply, name); });
}

// `checked`: what has been found out about the name; without a name the number counts.
lumo_status Describe(lumo_connection* connection, std::uint16_t number, std::int32_t index,
                     lumo_status checked, const char* name, int deadlineMs, lumo_node* node,
                     std::int32_t* result) {
  if (result) *result = 0;
  if (!node) return LUMO_BAD_ARGUMENT;
  *node = {};
  if (checked != LUMO_OK) return checked;
  const auto make = [&] { return Command{number, index, name ? Terminated(name) : std::string()}; };
  return Manage(connection, deadlineMs, result, make,
                [&](const Reply& reply) { return CopyNode(reply, node); });
}

}  // namespace

lumo_status lumo_manage(lumo_connection* connection, uint16_t command, int32_t argument,
                        lumo_bytes text, int deadline_ms, int32_t* result, lumo_answer** answer) {
  if (result) *result = 0;
  if (answer) *answer = nullptr;
  if (!text.data && text.size > 0) return LUMO_BAD_ARGUMENT;
  return Entry([&]() -> Outcome {
    if (text.size > lumo::kMaxMessage) return {LUMO_TOO_LONG};
    const std::string_view bytes(static_cast<const char*>(text.data), text.size);
    AnswerPointer end;
    const Outcome asked = AskAgent(connection, command, argument, bytes, deadline_ms, &end);
    if (result && asked.Good()) *result = end->Message.RowId;
    if (answer) *answer = end.release();
    return asked;
  });
}

lumo_status lumo_probe(lumo_connection* connection, int deadline_ms, int32_t* result) {
  return Simple(connection, kProbe, 0, deadline_ms, result, Any);
}

lumo_status lumo_count_nodes(lumo_connection* connection, int deadline_ms, int32_t* result) {
  return Simple(connection, kCountNodes, 0, deadline_ms, result, Any);
}

lumo_status lumo_default_name(lumo_connection* connection, int deadline_ms,
                              char name[LUMO_NODE_NAME_SIZE], int32_t* result) {
  return FindName(connection, {kDefaultName}, deadline_ms, name, result);
}

lumo_status lumo_default_index(lumo_connection* connection, int deadline_ms, int32_t* result) {
  return Simple(connection, kDefaultIndex, 0, deadline_ms, result, Any);
}

lumo_status lumo_node_name(lumo_connection* connection, int32_t index, int deadline_ms,
                           char name[LUMO_NODE_NAME_SIZE], int32_t* result) {
  return FindName(connection, {kNodeName, index}, deadline_ms, name, result);
}

lumo_status lumo_set_default(lumo_connection* connection, int32_t index, int deadline_ms,
                             int32_t* result) {
  return Simple(connection, kSetDefault, index, deadline_ms, result, IsFound);
}

lumo_status lumo_nodetab_path(lumo_connection* connection, int deadline_ms, char* path, size_t size,
                              int32_t* result) {
  if (result) *result = 0;
  if (!path || size == 0) return LUMO_BAD_ARGUMENT;
  path[0] = '\0';
  return Manage(
      connection, deadline_ms, result, [] { return Command{kNodetabPath}; },
      [&](const Reply& reply) { return CopyPath(reply, path, size); });
}

lumo_status lumo_lock_nodetab(lumo_connection* connection, int32_t owner, int deadline_ms,
                              int32_t* result) {
  return Simple(connection, kLock, owner, deadline_ms, result, IsDone);
}

lumo_status lumo_unlock_nodetab(lumo_connection* connection, int32_t owner, int deadline_ms,
                                int32_t* result) {
  return Simple(connection, kUnlock, owner, deadline_ms, result, IsDone);
}

lumo_status lumo_nodetab_status(lumo_connection* connection, int32_t owner, int deadline_ms,
                                int32_t* result) {
  return Simple(connection, kLockStatus, owner, deadline_ms, result, Any);
}

lumo_status lumo_add_node(lumo_connection* connection, const char* line, int deadline_ms,
                          int32_t* result) {
  return WithLine(connection, {kAddNode}, line, deadline_ms, result);
}

lumo_status lumo_get_node(lumo_connection* connection, const char* name, int deadline_ms,
                          lumo_node* node, int32_t* result) {
  return Describe(connection, kGetNode, 0, CheckName(name), name, deadline_ms, node, result);
}

lumo_status lumo_get_node_at(lumo_connection* connection, int32_t index, int deadline_ms,
                             lumo_node* node, int32_t* result) {
  return Describe(connection, kGetNodeAt, index, LUMO_OK, nullptr, deadline_ms, node, result);
}

lumo_status lumo_get_default_node(lumo_connection* connection, int deadline_ms, lumo_node* node,
                                  int32_t* result) {
  return Describe(connection, kGetDefaultNode, 0, LUMO_OK, nullptr, deadline_ms, node, result);
}

lumo_status lumo_delete_node(lumo_connection* connection, const char* name, int deadline_ms,
                             int32_t* result) {
  if (result) *result = 0;
  const lumo_status checked = CheckName(name);
  if (checked != LUMO_OK) return checked;
  return Manage(
      connection, deadline_ms, result,
      [&] {
        return Command{kDeleteNode, 0, Terminated(name)};
      },
      IsDoneOrPending);
}

lumo_status lumo_delete_node_at(lumo_connection* connection, int32_t index, int deadline_ms,
                                int32_t* result) {
  return Simple(connection, kDeleteNodeAt, index, deadline_ms, result, IsDoneOrPending);
}

lumo_status lumo_delete_default_node(lumo_connection* connection, int deadline_ms,
                                     int32_t* result) {
  return Simple(connection, kDeleteDefaultNode, 0, deadline_ms, result, IsDoneOrPending);
}

lumo_status lumo_set_node(lumo_connection* connection, const char* name, const char* line,
                          int deadline_ms, int32_t* result) {
  if (result) *result = 0;
  const lumo_status checked = CheckName(name);
  if (checked != LUMO_OK) return checked;
  if (!line) return LUMO_BAD_ARGUMENT;
  // The agent looks for the line one byte behind the NUL of the name, which for it ends at a blank.
  const auto make = [&] {
    return Command{kSetNode, 0, Terminated(FirstWord(name)) + '\0' + Terminated(line)};
  };
  return Manage(connection, deadline_ms, result, make, IsDone);
}

lumo_status lumo_set_node_at(lumo_connection* connection, int32_t index, const char* line,
                             int deadline_ms, int32_t* result) {
  return WithLine(connection, {kSetNodeAt, index}, line, deadline_ms, result);
}

lumo_status lumo_set_default_node(lumo_connection* connection, const char* line, int deadline_ms,
                                  int32_t* result) {
  return WithLine(connection, {kSetDefaultNode}, line, deadline_ms, result);
}
