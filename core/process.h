// Other processes, as far as the agent can see them.
#pragma once
#include <sys/types.h>

#include <cerrno>
#include <csignal>

// A process of another user, which may not be signalled, is alive too. Leaves errno as kill set it.
inline bool ProcessIsAlive(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }
