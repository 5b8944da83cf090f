// The LOCALI driver as it is, with a way to its static records: what the agent keeps for ever
// would pile up over millions of inputs.
#include "protocols/lipc.cpp"
#include "tests/fuzz/agent_state.h"

void FreeRefusedRecords() {
  while (LIpcLinkData* const data = refused) {
    refused = data->Next;
    std::free(data);
  }
}
