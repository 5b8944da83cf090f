// Whatever call has failed: at each wait the agent's counts are those of its records, within their
// bounds, and no request that is recorded as sent is still held back.
#include <sys/select.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "core/wait.h"
#include "link/link.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

extern "C" {
int __real__Z13WaitForEventsv();
int __wrap__Z13WaitForEventsv();
}

void world::Violated(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  std::abort();
}

int EndOfDescriptors() { return FD_SETSIZE; }

int __wrap__Z13WaitForEventsv() {
  std::set<const Link*> links;
  for (const Link* link = g_DbcI.LinkList; link && links.insert(link).second;) link = link->Next;
  CheckCounts(links);
  CheckNothingIsJoined();
  return __real__Z13WaitForEventsv();
}
