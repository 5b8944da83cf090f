// What management answers carry.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumo {

// A node's description, 232 bytes on the wire:
//     0  8 bytes    zero
//     8  u32        protocol code
//    12  char[12]   node name
//    24  char[112]  address, dotted (TCPIP only)
//   136  u32        port (TCPIP only; of other protocols a number without meaning)
//   140  u16        receive time-out, as configured
//   142  u16        send time-out
//   144  u16        connect time-out
//   146  86 bytes   zero
struct NodeDescription {
  std::uint32_t ProtocolCode = 0;
  std::string Name, Address;
  std::uint32_t Port = 0;
  std::uint16_t ReceiveTimeout = 0, SendTimeout = 0, ConnectTimeout = 0;
};
constexpr std::size_t kNodeDescriptionSize = 232;
constexpr std::uint32_t kProtocolTcpip = 4;

std::optional<NodeDescription> DecodeNodeDescription(std::string_view item);
// "TCPIP" and the like; "other" for a protocol without a code of its own.
const char* ProtocolText(std::uint32_t protocolCode);
// A name or path without its padding.
std::string ItemText(const std::string& item);

}  // namespace lumo
