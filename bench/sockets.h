// Socket chores that the measuring programs share. What cannot go on ends the program.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace bench {

// Says what failed, with errno, and ends the program.
[[noreturn]] void Fail(const std::string& what);

int ConnectUnix(const std::string& path);
void ConnectTcp(int socket, const std::string& host, int port);  // host: a dotted address
int NewSocket(int family);

// Listens on this address; *port 0: any free one, then its number.
int ListenTcp(const std::string& host, int* port);
// What stands at the path is removed first.
int ListenUnix(const std::string& path);

// What the agent sends to a new client.
std::string Greeting();

void SetNoDelay(int socket);
void SetNonBlocking(int socket);

// As many descriptors as the system allows.
void RaiseDescriptorLimit();

// Both wait; false when the peer has closed or the socket's time-out is over.
bool SendAll(int socket, std::string_view bytes);
bool ReceiveAll(int socket, char* bytes, std::size_t size);

}  // namespace bench
