// Runs every file of the directories given through a target, once. What a target finds ends it.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/agent_state.h"

namespace {

using Path = std::filesystem::path;

std::vector<char> Read(const Path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<Path> FilesOf(const Path& directory) {
  std::vector<Path> files;
  if (!std::filesystem::is_directory(directory)) return files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const Path& file : FilesOf(argv[i])) {
      std::printf("%s\n", file.c_str());
      std::fflush(stdout);  // the last one named is the one that fails
      // A copy of exactly the size, on the heap: reads beyond it are seen.
      const std::vector<char> bytes = Read(file);
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count > 0 ? 0 : 1;  // an empty corpus shows nothing
}
