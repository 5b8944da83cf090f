// Where the agent's socket is looked for.
#pragma once
#include <string>
#include <vector>

namespace lumo::detail {

// The directories, the first to be looked into first. With TAVRIN_TMP there is only that one; else
// the one of the packaged service comes before the agent's own, when it exists.
std::vector<std::string> SocketDirectories(const std::string& packaged);

// The socket's path in each of them.
std::vector<std::string> SocketPlaces(int exchangeId);

// The first of these paths that there is; when there is none, the first.
std::string ChoosePlace(const std::vector<std::string>& places);

}  // namespace lumo::detail
