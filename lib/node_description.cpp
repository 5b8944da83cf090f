#include "lib/node_description.h"

#include <cstring>
#include <iterator>

namespace lumo {
namespace {

template <class T>
T NumberAt(std::string_view bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

std::string TextAt(std::string_view bytes, std::size_t at, std::size_t size) {
  const std::string_view field = bytes.substr(at, size);
  return std::string(field.substr(0, field.find('\0')));
}

}  // namespace

std::optional<NodeDescription> DecodeNodeDescription(std::string_view item) {
  if (item.size() != kNodeDescriptionSize) return std::nullopt;
  return NodeDescription{.ProtocolCode = NumberAt<std::uint32_t>(item, 8),
                         .Name = TextAt(item, 12, 12),
                         .Address = TextAt(item, 24, 112),
                         .Port = NumberAt<std::uint32_t>(item, 136),
                         .ReceiveTimeout = NumberAt<std::uint16_t>(item, 140),
                         .SendTimeout = NumberAt<std::uint16_t>(item, 142),
                         .ConnectTimeout = NumberAt<std::uint16_t>(item, 144)};
}

const char* ProtocolText(std::uint32_t protocolCode) {
  static constexpr const char* kNames[] = {"other", "LOCAL", "LOCALS", "LOCALI", "TCPIP", "TCPIPS"};
  return protocolCode < std::size(kNames) ? kNames[protocolCode] : kNames[0];
}

std::string ItemText(const std::string& item) {
  const std::string text = item.substr(0, item.find('\0'));
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

}  // namespace lumo
