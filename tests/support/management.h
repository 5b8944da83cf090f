// The agent's management commands. An answer is missing when the connection is lost or the time is
// over; a command that the agent carried out negatively still has an answer.
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

Answer AnswerOne(Connection& agent);                                  // 100: Result 1
Answer DeleteNodeByName(Connection& agent, const std::string& name);  // 123

}  // namespace lumo
