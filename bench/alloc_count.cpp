// To be preloaded into a program: counts its calls for memory in a file that somebody else can
// read while it runs. The file, of at least 8 bytes, is named by BENCH_ALLOC_COUNT.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {  // the C library's own entries
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
}

namespace {

std::atomic<std::uint64_t>* calls;

[[gnu::constructor]] void MapCount() {
  const char* const path = std::getenv("BENCH_ALLOC_COUNT");
  const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (file < 0) return;
  void* const page = mmap(nullptr, sizeof *calls, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (page != MAP_FAILED) calls = static_cast<std::atomic<std::uint64_t>*>(page);
}

void Count() {
  if (calls) calls->fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {
[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  Count();
  return __libc_malloc(size);
}

[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  Count();
  return __libc_calloc(count, size);
}

[[gnu::visibility("default")]] void* realloc(void* old, std::size_t size) {
  Count();
  return __libc_realloc(old, size);
}
}
