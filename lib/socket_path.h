// Where agents and local kernels have their sockets.
#pragma once
#include <string>

namespace lumo {

// The directory of the sockets: TAVRIN_TMP when it is set and leaves room for the file name.
std::string SocketDirectory();
// The socket of the agent, or of the local database kernel, with this exchange id.
std::string SocketPath(int exchangeId);
// The exchange id of the environment variable NET_MBX, else the usual one.
int ExchangeId();

}  // namespace lumo
