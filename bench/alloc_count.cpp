// Preloaded into a program, or linked into one: counts its calls for memory, the C library's own
// included, in a file that somebody else can read while it runs. The file, of at least 8 bytes, is
// named by BENCH_ALLOC_COUNT. Processes that the program forks count into the same file.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {
#ifdef __SANITIZE_ADDRESS__
int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, std::size_t),
                                              void (*freed)(const volatile void*));
#else  // the C library's own entries
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
#endif
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

#ifdef __SANITIZE_ADDRESS__
// AddressSanitizer has the names already; it calls this from each of them.
[[gnu::constructor]] void WatchSanitizer() {
  __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) { Count(); },
                                            [](const volatile void*) {});
}
#endif

}  // namespace

#ifndef __SANITIZE_ADDRESS__
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

[[gnu::visibility("default")]] void* aligned_alloc(std::size_t alignment, std::size_t size) {
  Count();
  return __libc_memalign(alignment, size);
}
}
#endif
