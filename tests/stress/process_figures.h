// What the system tells of a process.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace stress {

// Processor time so far, user and system.
double CpuSeconds(pid_t pid);

// A memory field of the process's status, such as "VmRSS" or "VmHWM", in bytes.
std::size_t MemoryOf(pid_t pid, const std::string& field);

}  // namespace stress
