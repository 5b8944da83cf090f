#include "lib/socket_path.h"

#include <cstdlib>
#include <cstring>

namespace lumo {
namespace {

constexpr int kUsualExchangeId = 20562;

}  // namespace

std::string SocketDirectory() {
  const char* const directory = std::getenv("TAVRIN_TMP");
  return directory && std::strlen(directory) + 28 < 256 ? directory : "/tmp/tavrin";
}

std::string SocketPath(int exchangeId) {
  return SocketDirectory() + "/tavrin." + std::to_string(exchangeId);
}

int ExchangeId() {
  const char* const text = std::getenv("NET_MBX");
  const int id = text ? static_cast<int>(std::strtol(text, nullptr, 10)) : 0;
  return id ? id : kUsualExchangeId;
}

}  // namespace lumo
