// Waiting for events on the registered descriptors.
#pragma once
#include <sys/select.h>

// Waits with select for what g_DbcI's sets ask for, until an event or a signal; `atOnce`: only
// looks. Fills the result sets and returns the number of events in them, 0, or -1 with errno. A
// signal whose flag is set before the wait begins ends it at once, too.
//
// What select costs grows with the descriptors it is handed. Therefore many client connections
// stand behind one epoll descriptor in their place; the results are the same. Only when `alone`, a
// descriptor that the caller serves alone, is readable, they are left for the next call (-1: none).
int WaitForEvents(bool atOnce, fd_set* readyForRead, fd_set* readyForWrite, int alone);

// To be called before a descriptor is closed that may have been waited for: a copy of it in another
// process would go on reporting events.
void StopWaitingFor(int fd);
