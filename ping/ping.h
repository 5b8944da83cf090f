// Link test mode: one request to one node, the verdict in words and in the exit status.
#pragma once
#include "core/dbc.h"

int InitialisePing(const char* file, int line);   // 0 or -1
int InitNodeForPing(const char* file, int line);  // 0 or -1
int PingPseudoReadMsg(const char* file, int line, ClientMessage* msg, int socket);
int PingPseudoPutMsgToClient(const char* file, int line, ClientMessage* msg);

// Gives the verdict for a link that was disconnected with these codes, once; returns 0.
int PingAnaliseRetcode(const char* file, int line, Link* link, int status, int sysErr);
void DeinitPing(const char* file, int line);
