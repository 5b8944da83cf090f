// Management commands: reading and editing the node table through the agent.
#pragma once
#include "core/dbc.h"

// Turns a management request into its answer in place; returns 0.
int MakeDbcApiAnswer(const char* file, int line, ClientMessage* msg);

// Deletes a node: 0 deleted (or null), 33 busy and marked for deletion.
int DelNode(const char* file, int line, Link* link);

// Carries out a redefinition or deletion that waited for the link to disconnect.
void SyncNode(const char* file, int line, Link* link);
