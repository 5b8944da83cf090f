#include "tools/lumoctl/write_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/lumoctl/exits.h"

namespace lumo::ctl {
namespace {

constexpr mode_t kMode = 0644;  // a collector runs as another user

bool WriteAll(int file, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(file, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

void ReplaceFile(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";  // in the same directory, so that it can be renamed
  const int file = mkostemp(temporary.data(), O_CLOEXEC);
  if (file < 0) throw Failure(kFailed, path + " cannot be written: " + std::strerror(errno));
  const bool written =
      WriteAll(file, text.data(), text.size()) && fchmod(file, kMode) == 0 && fsync(file) == 0;
  int error = written ? 0 : errno;
  close(file);
  if (!error && std::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (!error) return;
  unlink(temporary.c_str());
  throw Failure(kFailed, path + " cannot be written: " + std::strerror(error));
}

}  // namespace lumo::ctl
