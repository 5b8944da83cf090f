// The line of a test, for the failures of the verbs that it calls.
#pragma once

namespace test {

// std::source_location asks for a later clang.
struct Place {
  const char* File;
  int Line;
  static Place Here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {file, line};
  }
};

}  // namespace test
