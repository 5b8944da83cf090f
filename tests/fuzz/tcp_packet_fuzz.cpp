// The stream of a TCP node: packets, control packets, answers and what pretends to be one.
#include "protocols/lumo_tcp.h"
#include "tests/fuzz/node_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  StreamTarget target(data, size);
  Link* const link = ConnectedLink("NODE TCPIP 127.0.0.1 1060 3 60 10", target.Ours());
  static_cast<TcpLinkData*>(link->DriverData)->Socket = target.Ours();
  ServeStream(&target, link);
  return 0;
}
