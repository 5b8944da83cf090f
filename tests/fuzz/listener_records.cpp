// The listener as it is, with a way to its static records: what an input leaves there would be
// taken for descriptors of the next one's system.
#include "client/listener.cpp"
#include "tests/fuzz/agent_state.h"

void ForgetReserve() {
  reserveDescriptor = -1;
  listenerRests = false;
}
