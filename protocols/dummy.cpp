#include "protocols/dummy.h"

#include <cstring>

#include "core/status.h"
#include "core/trace.h"

static constexpr char Module[] = "dummy";

namespace {

constexpr const char* kNames[] = {"ATCPIP", "ATCPIPS", "REZ",    "IPX/SPX", "NPIPE",
                                  "DECNET", "TSR",     "TCPIPS", "NETBIOS"};

bool IsOwnName(const char* name) {
  for (const char* const own : kNames) {
    if (std::strcmp(name, own) == 0) return true;
  }
  return false;
}

int Nothing(const char*, int, Link*) { return 0; }
int NothingToInit(const char*, int, Link*, char*) { return 0; }
int NothingToSend(const char*, int, Link*, ClientMessage*) { return 0; }
int NobodyToTell(const char*, int, Link*, int) { return 0; }

}  // namespace

int DUMMYInitProtocol(const char* file, int line, Protocol* protocol, const char* name,
                      SocketSets*) {
  ENTER("Protocol name = '%s'", name);
  if (!IsOwnName(name)) return LEAVE(-1, "Protocol name is not my");
  *protocol = {.Name = "DUMMY",
               .InitLink = NothingToInit,
               .UninitLink = Nothing,
               .ConnectLink = DummyConnectLink,
               .ReadyForWrite = Nothing,
               .ReadyForRead = Nothing,
               .DisconnectLink = Nothing,
               .TimerEvent = Nothing,
               .SendToNetwork = NothingToSend,
               .ClientDeadEvent = NobodyToTell,
               .Next = nullptr,
               .Joins = false};
  return 0;
}

int DummyConnectLink(const char* file, int line, Link*) {
  ENTER();
  return LEAVE(static_cast<int>(kStatusUnsupported), "FAILED:unsupport");
}
