// What the agent uses of the system.
#pragma once
#include <sys/types.h>

namespace endurance {

struct Usage {
  long ResidentKb = 0;
  int Descriptors = 0;
  int Children = 0;  // those that have ended and were not collected too
};

long ResidentKb(pid_t pid);
int ChildrenOf(pid_t pid);
Usage UsageOf(pid_t pid);

}  // namespace endurance
