// Measuring on a machine on which others work: for a moment the processes in question come before
// everything else.
#pragma once
#include <sys/types.h>

#include <vector>

namespace stress {

class RealTime {
 public:
  // The threads of this process and the `first` ones, then the `next` ones, then all others.
  // Without the right to do so nothing changes.
  RealTime(std::vector<pid_t> first, std::vector<pid_t> next);
  ~RealTime();
  RealTime(const RealTime&) = delete;
  RealTime& operator=(const RealTime&) = delete;
  bool Granted() const { return granted_; }

 private:
  bool granted_;
  std::vector<pid_t> first_, next_;
};

}  // namespace stress
