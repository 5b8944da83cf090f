// A node table file: its lines, protocols and addresses. The first line is the value of -DEFAULT.
#include <cctype>
#include <cstring>

#include "link/link.h"
#include "protocols/lipc.h"
#include "protocols/lsock.h"
#include "protocols/lumo_tcp.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

void CheckTcp(const TcpLinkData& data) {
  if (data.Port == 0 || data.ReceiveTimeout < 0 || data.SendTimeout < 0 || data.ConnectTimeout < 0)
    world::Violated("a TCP address has numbers out of range");
  if (data.ReceiveTimeout % 20 != 0 || data.Socket != -1)
    world::Violated("a TCP address is not as it should be");
}

void CheckDriverData(const Link& link) {
  const char* const name = link.Protocol->Name;
  if (std::strcmp(name, "TCPIP") == 0) CheckTcp(*static_cast<TcpLinkData*>(link.DriverData));
  if (std::strcmp(name, "LOCALS") == 0 && static_cast<LSockLinkData*>(link.DriverData)->Mbx == 0)
    world::Violated("an exchange number is 0");
  if (std::strcmp(name, "LOCALI") == 0 && static_cast<LIpcLinkData*>(link.DriverData)->Key < 1)
    world::Violated("a key is below 1");
}

void CheckLinks() {
  const Link* link = g_DbcI.LinkList;
  while (link) {
    for (const char* c = link->NodeName; *c != '\0'; ++c) {
      const int letter = static_cast<unsigned char>(*c);
      if (std::isspace(letter) != 0 || letter != std::toupper(letter))
        world::Violated("a node name holds what it must not");
    }
    CheckDriverData(*link);
    link = link->Next;
    if (link == g_DbcI.LinkList) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string defaultNode = input.Line();
  const SimulatedAgent agent(size);
  g_DbcI.DefaultNode = defaultNode.c_str();
  g_DbcI.AutoConnect = 1;
  LoadNodetab(input.Rest());
  CheckAgent();
  CheckLinks();
  return 0;
}
