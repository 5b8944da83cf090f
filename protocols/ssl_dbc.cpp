#include "protocols/ssl_dbc.h"

#include "core/trace.h"

static constexpr char Module[] = "ssl_dbc";

int TCPIPSInitProtocol(const char* file, int line) {
  ENTER();
  return LEAVE(-1, "FAILED");
}
