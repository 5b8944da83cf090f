#pragma once

namespace lumo {

// A code that the agent itself puts into an answer, in words; null for any other code.
const char* StatusText(int code);

}  // namespace lumo
