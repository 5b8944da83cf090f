// Client connections whose requests are not read for a while, so that what is kept for slow, silent
// or missing nodes stays bounded by the number of connections. A connection is parked while the
// link to which its last request went has much to send, while many of its requests wait for a link,
// and while more of them are in flight than it has tags for.
//
// Nothing is searched: whoever changes what parks a connection says so here.
#pragma once
#include "link/record.h"

// A request of the connection went to the link, or waits for it.
void ParkIfFull(int socket, Link* link);

// The link's output has become less, or the link has gone down.
void ReleaseParkedBehind(Link* link);

// The link is no more.
void ForgetParkedBehind(Link* link);

// Fewer requests of the connection wait or are in flight.
void ReleaseIfRoom(int socket);

// The connection is closed.
void ForgetParked(int socket);

// Closes the connections whose clients have hung up: they are not read, so nothing else tells. At
// each tick.
void CloseAbandonedParked();
