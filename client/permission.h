// Who may change nodes, and in whose name a connection may ask: what LUMO_MANAGERS and
// LUMO_STRICT_TASKS ask for. When both are unset everything is permitted and nothing looked up.
#pragma once
#include <cstdint>

struct ClientMessage;

// Reads the variables, once at the start; says at level 0 what of them cannot be used.
void ReadPermissions();

// A connection has been made: what is known of an earlier one with its number is forgotten.
void ForgetPermissions(int socket);

// Whether the connection may change nodes: its user is root, the agent's own, or a manager.
bool MayManage(int socket);
// Whether the connection may ask in the name of this process: its own, or one of the same user.
bool MayNameTask(int socket, std::int32_t taskName);

// The request may be served; else the reason has been logged.
bool CheckPermissions(const ClientMessage* msg);

extern bool permissionsAsked;
inline bool IsPermitted(const ClientMessage* msg) {
  return !permissionsAsked || CheckPermissions(msg);
}
