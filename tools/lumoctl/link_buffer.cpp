// The buffers of TCP links: what the agent asks for, and what the system gives.
#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "tools/lumoctl/nodetab.h"

namespace lumo::ctl {
namespace {

// Those of the agent; another value counts as unset.
constexpr long kUsualBuffer = 262144, kMostBuffer = 4194304;

long AskedFor(const char* text) {
  if (!text || *text < '0' || *text > '9') return kUsualBuffer;
  char* end = nullptr;
  const long bytes = std::strtol(text, &end, 10);
  return *end == '\0' && bytes <= kMostBuffer ? bytes : kUsualBuffer;
}

bool IsElsewhere(const TableLine* node) {
  if (node->ProtocolKind != Kind::Tcpip) return false;
  const TcpAddress& tcp = node->Tcp;
  const std::string address = tcp.Addresses.empty() ? tcp.Host : tcp.Addresses.front();
  return address.rfind("127.", 0) != 0 && address != "localhost";
}

long NumberIn(const char* path) {
  long number = 0;
  std::ifstream(path) >> number;
  return number;
}

}  // namespace

BufferLimits SystemBufferLimits() {
  return {NumberIn("/proc/sys/net/core/rmem_max"), NumberIn("/proc/sys/net/core/wmem_max")};
}

std::vector<Fault> CheckLinkBuffer(const Table& table, const char* asked,
                                   const BufferLimits& limits) {
  const auto nodes = table.Nodes();
  if (std::none_of(nodes.begin(), nodes.end(), IsElsewhere)) return {};
  const long bytes = AskedFor(asked);
  std::string told;
  const auto tell = [&](const char* name, long most) {
    if (most > 0 && most < bytes)
      told += (told.empty() ? "" : ", ") + std::string(name) + " is " + std::to_string(most);
  };
  tell("net.core.rmem_max", limits.Receive);
  tell("net.core.wmem_max", limits.Send);
  if (told.empty()) return {};
  const std::string text = "the agent asks for " + std::to_string(bytes) +
                           " bytes of buffer for a TCP link (LUMO_LINK_BUFFER), but " + told;
  if (asked && bytes != kUsualBuffer) return {{Severity::Warning, "link-buffer", text}};
  return {{Severity::Note, "link-buffer", text + ": raise it for nodes at a distance"}};
}

}  // namespace lumo::ctl
