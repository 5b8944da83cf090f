#include "core/loop.h"

int main(int argc, char** argv) { return AgentMain(argc, argv); }
