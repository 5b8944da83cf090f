#include "lib/socket_places.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "lib/socket_path.h"

namespace lumo::detail {
namespace {

constexpr char kPackaged[] = "/run/lumo/agent";

bool Exists(const std::string& path) {
  struct stat unused;
  return stat(path.c_str(), &unused) == 0;
}

// Who may not look into it is told that when connecting: it is there.
bool IsThere(const std::string& directory) { return Exists(directory) || errno == EACCES; }

}  // namespace

std::vector<std::string> SocketDirectories(const std::string& packaged) {
  if (std::getenv("TAVRIN_TMP") || !IsThere(packaged)) return {SocketDirectory()};
  return {packaged, SocketDirectory()};
}

std::vector<std::string> SocketPlaces(int exchangeId) {
  std::vector<std::string> places = SocketDirectories(kPackaged);
  for (std::string& place : places) place += "/tavrin." + std::to_string(exchangeId);
  return places;
}

std::string ChoosePlace(const std::vector<std::string>& places) {
  const auto found = std::find_if(places.begin(), places.end(), Exists);
  return found == places.end() ? places.front() : *found;
}

}  // namespace lumo::detail
