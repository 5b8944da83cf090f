// The placeholder for protocols that the agent does not carry: every connect fails.
#pragma once
#include "protocols/protload.h"

InitProtocol DUMMYInitProtocol;
LinkOperation DummyConnectLink;  // 4066
