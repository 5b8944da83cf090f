#include "core/footprint.h"

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace {

// Only segments that are never written are sure to be as in their files.
void Release(const dl_phdr_info& object, const ElfW(Phdr) & segment) {
  if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) return;
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t begin = (object.dlpi_addr + segment.p_vaddr) & ~(page - 1);
  const std::uintptr_t end = object.dlpi_addr + segment.p_vaddr + segment.p_memsz;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader tells addresses as numbers
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
}

int ReleaseObject(dl_phdr_info* object, std::size_t, void*) {
  for (int i = 0; i < object->dlpi_phnum; ++i) Release(*object, object->dlpi_phdr[i]);
  return 0;
}

}  // namespace

void ReleaseStartPages() {
  const int savedErrno = errno;
  dl_iterate_phdr(ReleaseObject, nullptr);
  errno = savedErrno;
}
