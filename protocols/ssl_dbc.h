// The secure TCP protocol's entry point; the protocol is not available.
#pragma once

int TCPIPSInitProtocol(const char* file, int line);  // -1
