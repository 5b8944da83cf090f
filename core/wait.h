// Waiting for events on the registered descriptors.
#pragma once
#include <sys/select.h>

// Opens the descriptors of the wait's own: one by which a signal handler ends it, and with epoll
// one that spares the agent much of select. Where the process may have few, or the system has none
// left, it goes without.
void PrepareWait(bool withEpoll);

// Closes them.
void EndWait();

// Ends the wait that is under way, or the next one before it has begun; for signal handlers.
void WakeUp();

// To be called before what the handlers have left is looked at: only what comes later ends the next
// wait.
void ForgetWakeUp();

// Waits with select for what g_DbcI's sets ask for, until an event or a signal; `atOnce`: only
// looks. Fills the result sets and returns the number of events in them, 0, or -1 with errno.
//
// What select costs grows with the descriptors it is handed. Therefore what is only to be read
// stands behind one epoll descriptor in its place, and when nothing else is left, epoll itself does
// the waiting; the results are the same. Of many clients nothing but the clients stands there: when
// `alone`, a descriptor that the caller serves alone, is readable, they are left for the next call
// (-1: none).
int WaitForEvents(bool atOnce, fd_set* readyForRead, fd_set* readyForWrite, int alone);

// The next wait is select's alone: it notices a descriptor that is no longer open, epoll does not.
void LookAtAllNext();

// To be called before a descriptor is closed that may have been waited for: a copy of it in another
// process would go on reporting events, and the next one with its number would not be waited for.
// One of the wait's own is given up with the other.
void StopWaitingFor(int fd);
