#pragma once
#include "tools/client/connection.h"
#include "tools/lumo_query/options.h"

namespace lumo::query {

// Carries out one management command and prints its outcome.
Exit Manage(Connection& agent, const Options& options);

}  // namespace lumo::query
