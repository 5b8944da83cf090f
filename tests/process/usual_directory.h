// The socket directory of agents that are told of none, for one test at a time.
#pragma once
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

namespace test {

// While it lives no other test uses the directory; afterwards that is as it was, or not there.
// To be made before the agent.
class UsualDirectory {
 public:
  UsualDirectory() : lock_(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    flock(lock_, LOCK_EX);
    struct stat state {};
    if (stat(Path().c_str(), &state) == 0) mode_ = state.st_mode & 07777;
  }
  ~UsualDirectory() {
    if (mode_)
      chmod(Path().c_str(), *mode_);
    else
      rmdir(Path().c_str());
    close(lock_);
  }
  UsualDirectory(const UsualDirectory&) = delete;
  UsualDirectory& operator=(const UsualDirectory&) = delete;
  static std::string Path() { return "/tmp/tavrin"; }

 private:
  int lock_;
  std::optional<mode_t> mode_;
};

}  // namespace test
