// What a service manager is told, when the environment names its socket (NOTIFY_SOCKET): that the
// agent serves, what it does, that it goes on, that it ends. Never waits; what the manager does not
// take is lost. Without a manager each call is one test.
#pragma once

// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID; nothing is told before.
void InitialiseNotify();

bool HasManager();

void NotifyReady();
void NotifyStopping();
// A sign of life when the manager asks for one, and what has changed of "12 clients, 3 nodes,
// default SRV1"; `defaultNode`: at most 8 characters, null: there is none.
void NotifyTick(int clients, int nodes, const char* defaultNode);
