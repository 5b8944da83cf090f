#include "core/dbc.h"

#include <unistd.h>

#include "core/trace.h"
#include "core/wait.h"
#include "link/record.h"

static constexpr char Module[] = "dbc";

AgentState g_DbcI;
std::uint16_t ClientTimeout = kClientTimeout;

namespace {

bool InSets(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

void RegisterIn(fd_set* set, int fd) {
  FD_SET(fd, set);
  g_SetsChanged = true;
  if (fd >= g_DbcI.SocketSets.MaxSocket) g_DbcI.SocketSets.MaxSocket = fd + 1;
}

void TraceRegistration(const char* file, int line, const char* operation, int fd) {
  if (Tracing()) log(file, line, kLogTrace, "%s %d", operation, fd);
}

}  // namespace

void REGISTER_SOCKET_FOR_READ_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (InSets(fd)) RegisterIn(&g_DbcI.SocketSets.ReadSet, fd);
}

void REGISTER_SOCKET_FOR_WRITE_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (InSets(fd)) RegisterIn(&g_DbcI.SocketSets.WriteSet, fd);
}

void REGISTER_SOCKET_FOR_THE_LINK(const char* file, int line, int fd, Link* link) {
  if (Tracing())
    log(file, line, kLogTrace, "REGISTER_SOCKET_FOR_THE_LINK %d, %.8s", fd, link->NodeName);
  if (fd < 0 || fd >= kMaxDescriptors) return;
  g_DbcI.SocketSets.SocketLinks[fd] = link;
  link->Descriptor = fd;
}

void UNREGISTER_SOCKET_FOR_READ_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (!InSets(fd)) return;
  StopWaitingFor(fd);
  FD_CLR(fd, &g_DbcI.SocketSets.ReadSet);
  g_SetsChanged = true;
  FD_CLR(fd, &g_Ready.Read);
}

void UNREGISTER_SOCKET_FOR_WRITE_EVENT(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  if (!InSets(fd)) return;
  FD_CLR(fd, &g_DbcI.SocketSets.WriteSet);
  g_SetsChanged = true;
  FD_CLR(fd, &g_Ready.Write);
}

void UNREGISTER_SOCKET_FOR_THE_LINK(const char* file, int line, int fd) {
  TraceRegistration(file, line, __func__, fd);
  Link* const link = LinkOfSocket(fd);
  if (!link) return;
  g_DbcI.SocketSets.SocketLinks[fd] = nullptr;
  link->Descriptor = 0;
}

int DbcInitGlobal(const char* file, int line) {
  ENTER();
  g_DbcI.SocketSets = {};
  g_SetsChanged = true;
  g_DbcI.SocketSets.AgentPid = getpid();
  return 0;
}
