// Another program, run to its end, and a directory for what it needs.
#pragma once
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace lumo::ctl {

struct RunResult {
  int Status = -1;    // the exit status, or minus the signal that ended it
  bool Late = false;  // it was ended because the time was over
  std::string Stdout, Stderr;
  double Seconds = 0;
};

// Runs a program with these variables changed in its environment. Fails with kFailed when it cannot
// be run.
RunResult RunProgram(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment, int timeoutMs);

// A directory that only this user can enter, removed with all that is in it.
class PrivateDirectory {
 public:
  PrivateDirectory();
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace lumo::ctl
