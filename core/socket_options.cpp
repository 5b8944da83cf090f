#include "core/socket_options.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "core/trace.h"

namespace {

int SetBufferSize(int socket, int option) {
  return setsockopt(socket, SOL_SOCKET, option, &kSocketBufferSize, sizeof kSocketBufferSize);
}

}  // namespace

int SetNoBlockMode(const char* file, int line, int socket) {
  log(file, line, kLogTrace, "SET_NOBLOCK_MODE %d", socket);
  const int flags = fcntl(socket, F_GETFL, 0);
  if (flags >= 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK) >= 0) return 0;
  log(file, line, kLogTrace, " fcntl(...F_SETFL, O_NONBLOCK) return bad status. errno = %d", errno);
  return -1;
}

int SetBlockMode(const char* file, int line, int socket) {
  log(file, line, kLogTrace, "SET_BLOCK_MODE %d", socket);
  const int flags = fcntl(socket, F_GETFL, 0);
  if (flags >= 0 && fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) >= 0) return 0;
  log(file, line, kLogTrace, " fcntl(...F_SETFL, ~O_NONBLOCK) return bad status. errno = %d",
      errno);
  return -1;
}

int SetSendBuffer(const char* file, int line, int socket) {
  log(file, line, kLogTrace, "SET_SOCKET_BUFFERS %d", socket);
  if (SetBufferSize(socket, SO_SNDBUF) == 0) return 0;
  log(file, line, kLogTrace, "setsockopt(SO_SNDBUF) failed. Errno %d", errno);
  return -1;
}

int SetReceiveBuffer(const char* file, int line, int socket) {
  if (SetBufferSize(socket, SO_RCVBUF) == 0) return 0;
  log(file, line, kLogTrace, "setsockopt(SO_RCVBUF) failed. Errno %d", errno);
  return -1;
}

void CloseKeepingErrno(int fd) {
  const int savedErrno = errno;
  close(fd);
  errno = savedErrno;
}
