// Which codes a failing call leads to.
#pragma once
#include <vector>

#include "tests/fuzz/world.h"

namespace codes {

// With which a link or a request can end when the call fails. The error beside them is the call's,
// or 0 where the timer has noticed it.
std::vector<int> Of(world::Call call);

}  // namespace codes
