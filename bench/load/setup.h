// What is there before the measuring begins: connections, idle clients, requests in flight.
#pragma once
#include <vector>

#include "bench/load/options.h"

namespace bench {

// A connection over which a request can be sent at once; it waits 10 seconds at most.
int Open(const Options& options);

// Connections that have asked once each.
std::vector<int> OpenIdle(const Options& options);

// Sends the requests that are never answered, spread over connections of their own, and waits until
// the node has read them all. They take the tags from `firstTag` on.
std::vector<int> SendHeld(const Options& options, int firstTag);

}  // namespace bench
