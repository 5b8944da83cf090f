#include "client/connection.h"

Connection g_Connections[FD_SETSIZE];

void NumberConnection(int socket) {
  static std::uint32_t last;
  if (++last == 0) ++last;
  g_Connections[socket].Serial = last;
}
