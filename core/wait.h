// Waiting for events on the registered descriptors.
#pragma once
#include <sys/select.h>

// What the last wait found and what is not served yet. Unregistering a descriptor takes it out.
struct ReadySets {
  fd_set Read;
  fd_set Write;
};
extern ReadySets g_Ready;

// To be set by whoever changes g_DbcI's sets.
extern bool g_SetsChanged;

// Opens the descriptors of the wait's own: one by which a signal handler ends it, and epoll's.
// Where the process may have few, or the system has none left, select does the waiting.
void PrepareWait();

// Closes them.
void EndWait();

// Ends the wait that is under way, or the next one before it has begun; for signal handlers.
void WakeUp();

// To be called before what the handlers have left is looked at: only what comes later ends the next
// wait.
void ForgetWakeUp();

// Waits for what g_DbcI's sets ask for, until an event or a signal; frames that have been taken
// ahead are events. Fills g_Ready and returns the number of events in it, 0, or -1 with errno.
//
// What select costs grows with the descriptors it is handed, so epoll does the waiting, with the
// same results. It says nothing of a descriptor that is no longer open: the first wait after
// LookAtAllNext is select's.
int WaitForEvents();

// The only event is input of this descriptor, found without a wait. Returns 1.
int ServeAlone(int fd);

void LookAtAllNext();

// To be called before a descriptor is closed that may have been waited for: a copy of it in another
// process would go on reporting events, and the next one with its number would not be waited for.
// One of the wait's own is given up with the other.
void StopWaitingFor(int fd);

// For a driver that keeps output where the system tells of no room: asked before each wait, it
// tries again and returns the milliseconds until the next try, or -1: nothing is kept. Null:
// nobody.
extern int (*RetryOutput)();
