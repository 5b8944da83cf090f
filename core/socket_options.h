// Modes and options that several sockets of the agent get. All take the caller's place for the
// trace and return 0, or -1 with errno.
#pragma once

constexpr int kSocketBufferSize = 8188;  // of both buffers; a whole message

int SetNoBlockMode(const char* file, int line, int socket);
int SetBlockMode(const char* file, int line, int socket);
int SetSendBuffer(const char* file, int line, int socket);
int SetReceiveBuffer(const char* file, int line, int socket);

// Closes a descriptor and leaves errno alone: the code of what failed before goes to a client.
void CloseKeepingErrno(int fd);
