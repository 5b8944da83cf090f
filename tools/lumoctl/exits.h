// What lumoctl ends with.
#pragma once
#include <stdexcept>
#include <string>

namespace lumo::ctl {

enum Exit : int {
  kDone = 0,
  kNo = 1,        // a negative result: refused, not alive, differences, faults
  kUsage = 2,     // the command line, or a file that cannot be read
  kNoAgent = 3,   // no agent answers, or the connection was lost
  kTimeOver = 4,  // what was waited for did not come in time
  kDeferred = 5,  // accepted, but in force only when a link that is in use is taken down
  kUnsure = 6,    // it was sent, and it is not known whether it was carried out
  kFailed = 7,    // something on this side: a program that cannot be run, a file not written
};

struct Failure : std::runtime_error {
  Failure(Exit status, const std::string& message) : std::runtime_error(message), Status(status) {}
  Exit Status;
};

}  // namespace lumo::ctl
