#pragma once
#include <string>

namespace lumo::ctl {

// Puts a file in the place of the one there, whole or not at all: a reader never sees half of it.
// Fails with kFailed.
void ReplaceFile(const std::string& path, const std::string& text);

}  // namespace lumo::ctl
