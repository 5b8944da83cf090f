#include "protocols/protload.h"

#include <cstdlib>
#include <cstring>

#include "core/trace.h"
#include "link/link.h"
#include "protocols/address_text.h"
#include "protocols/dummy.h"
#include "protocols/lipc.h"
#include "protocols/lsock.h"
#include "protocols/lumo_tcp.h"

static constexpr char Module[] = "protload";

namespace {

// In the order in which a name is offered to them.
constexpr InitProtocol* kDrivers[] = {TCPIPInitProtocol, LOCALSInitProtocol, LOCALIInitProtocol,
                                      DUMMYInitProtocol};

Protocol* FindProtocol(const char* name) {
  for (Protocol* protocol = g_DbcI.ProtocolList; protocol; protocol = protocol->Next) {
    if (std::strcmp(protocol->Name, name) == 0) return protocol;
  }
  return nullptr;
}

bool OfferToDrivers(Protocol* protocol, const char* name) {
  for (InitProtocol* const init : kDrivers) {
    if (init(HERE, protocol, name, &g_DbcI.SocketSets) == 0) return true;
  }
  return false;
}

// Where the pointer to a record of the registry stands, or where its last one ends.
Protocol** SlotOf(const Protocol* protocol) {
  Protocol** slot = &g_DbcI.ProtocolList;
  while (*slot && *slot != protocol) slot = &(*slot)->Next;
  return slot;
}

}  // namespace

Protocol* AddProtocol(const char* file, int line, char* name) {
  ENTER();
  LOG(kLogTrace, "Protocol name = %s", name);
  UpperCase(name);
  const char* const canonical = std::strcmp(name, "LOCAL") == 0 ? "LOCALS" : name;
  Protocol* const loaded = FindProtocol(canonical);
  if (loaded) {
    LOG(kLogTrace, "Protocol %s already is in list of protocol", canonical);
    return LEAVE(loaded, "SUCCESS already load");
  }
  Protocol* const protocol = static_cast<Protocol*>(std::calloc(1, sizeof(Protocol)));
  if (!protocol) {
    LOG(kLogError, "Error allocation memory for protocol %s data", canonical);
    return LEAVE(protocol, "FAILED all mem");
  }
  if (!OfferToDrivers(protocol, canonical)) {
    LOG(kLogError, "Protocol '%s' don't support", canonical);
    std::free(protocol);
    return LEAVE(static_cast<Protocol*>(nullptr), "FAILED init ( protocol func )");
  }
  protocol->Next = nullptr;
  *SlotOf(nullptr) = protocol;
  return protocol;
}

int UninitProtocol(const char* file, int line, Protocol* protocol) {
  ENTER();
  if (!g_DbcI.LinkList || !g_DbcI.ProtocolList) return LEAVE(0, "SUCCESS not init");
  // kept: the last link of the circle is not examined.
  const Link* const first = g_DbcI.LinkList;
  for (Link* link = g_DbcI.LinkList; link && link->Next && link->Next != first; link = link->Next) {
    if (link->Protocol == protocol) protocol->UninitLink(HERE, link);
  }
  Protocol** const slot = SlotOf(protocol);
  if (*slot) *slot = protocol->Next;
  std::free(protocol);
  return 0;
}
