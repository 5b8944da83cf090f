// The stream of a local kernel's socket.
#include "protocols/lsock.h"
#include "tests/fuzz/node_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  StreamTarget target(data, size);
  Link* const link = ConnectedLink("NODE LOCALS 4711", target.Ours());
  static_cast<LSockLinkData*>(link->DriverData)->Socket = target.Ours();
  ServeStream(&target, link);
  return 0;
}
