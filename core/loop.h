// The loop, and the program around it.
#pragma once
#include "core/dbc.h"

// Makes a link that has just connected the default one, with the requests that wait for the
// default; 0, or -1 when the default is connected, is this link, or the link is not connected.
int UseTheLinkAsDefault(int line, Link* link);

// Runs until a stop is requested; returns the ExitStatus that ended it.
int RunLoop();

// The whole program (core/start.cpp); returns the exit status.
int AgentMain(int argc, char** argv);
