#pragma once
#include "tools/client/connection.h"
#include "tools/lumo_query/options.h"

namespace lumo::query {

// Sends each SQL text and prints its rows; ends at the first that fails.
Exit RunQueries(Connection& agent, const Options& options);
// Says on standard error that the connection gives no answer.
Exit NoAnswer(const Connection& agent);
// Says on standard error what the code means; kOk for 0.
Exit Judge(std::int32_t code, std::int32_t systemError, const std::string& nodeText);

}  // namespace lumo::query
