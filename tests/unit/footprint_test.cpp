// What the system keeps resident of the files that the process was made of.
#include "core/footprint.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

// Resident kilobytes of what is mapped of files without a right to write.
long ResidentOfFiles() {
  std::ifstream maps("/proc/self/smaps");
  long sum = 0;
  bool counts = false;
  for (std::string line; std::getline(maps, line);) {
    std::istringstream words(line);
    std::string first, rights;
    words >> first >> rights;
    if (first.find('-') != std::string::npos && first.back() != ':')
      counts = rights[1] == '-' && line.find('/') != std::string::npos;
    if (counts && first == "Rss:") sum += std::stol(rights);
  }
  return sum;
}

TEST(Footprint, PagesOfTheStartAreLetGoOfAndComeBackWhenTheyAreNeeded) {
  const long before = ResidentOfFiles();
  ReleaseStartPages();
  const long after = ResidentOfFiles();
  EXPECT_LT(after, before);
  std::ostringstream text;  // code that has been let go of
  text << before << after;
  EXPECT_FALSE(text.str().empty());
}

}  // namespace
