// The agent's management commands, one function each. An answer is missing when the connection is
// lost or the time is over; a command that the agent carried out negatively still has an answer.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lib/node_description.h"
#include "tests/support/connection.h"

namespace lumo {

// What the agent answers as Result.
enum ManagementResult : std::int32_t {
  kDone = 0,
  kHeldByCaller = 4,
  kHeldByOther = 5,
  kNoSuchNode = 17,
  kDeletionPending = 33,
  kNoNodeTable = 129,
};

struct ManagementAnswer {
  std::int32_t CodErr = 0, SysErr = 0;
  std::int32_t Result = 0;
  std::string Item;  // as it came: a blank-padded name, a path with its NUL, a description
};
using Answer = std::optional<ManagementAnswer>;

constexpr int kManagementTimeoutMs = 5000;

// The request itself, for those who send it in their own way.
Message ManagementRequest(std::uint16_t command, std::int32_t rowId = 0,
                          const std::string& argument = {});
std::optional<ManagementAnswer> DecodeManagementAnswer(std::string_view frame);
// Any command by its number; the argument goes out as given, without a NUL added.
Answer AskManagement(Connection& agent, std::uint16_t command, std::int32_t rowId = 0,
                     const std::string& argument = {}, int timeoutMs = kManagementTimeoutMs);

Answer AnswerOne(Connection& agent);                           // 100: Result 1
Answer CountNodes(Connection& agent);                          // 102: Result is the number of nodes
Answer GetDefaultName(Connection& agent);                      // 103: Result 1, Item the name
Answer GetNameByIndex(Connection& agent, std::int32_t index);  // 105: Result 1, Item the name
Answer SetDefaultByIndex(Connection& agent, std::int32_t index);      // 106: Result 1
Answer LockNodetab(Connection& agent, std::int32_t owner);            // 117
Answer UnlockNodetab(Connection& agent, std::int32_t owner);          // 118
Answer AddNode(Connection& agent, const std::string& line);           // 119: Result 1 when refused
Answer GetNodeByName(Connection& agent, const std::string& name);     // 120: Item a description
Answer GetDefaultNode(Connection& agent);                             // 122
Answer DeleteNodeByName(Connection& agent, const std::string& name);  // 123
Answer DeleteDefaultNode(Connection& agent);                          // 125
Answer SetNodeByName(Connection& agent, const std::string& name,
                     const std::string& line);                   // 126
Answer GetNodetabStatus(Connection& agent, std::int32_t owner);  // 129

}  // namespace lumo
