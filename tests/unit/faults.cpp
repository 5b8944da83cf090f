#include "tests/unit/faults.h"

#include <cstddef>

namespace {

bool failing;
int successesLeft;

bool Fails() { return failing && successesLeft-- <= 0; }

}  // namespace

FailingAllocations::FailingAllocations(int successes) {
  successesLeft = successes;
  failing = true;
}

FailingAllocations::~FailingAllocations() { failing = false; }

// The linker directs the calls of everything linked statically into the test here.
extern "C" {
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_malloc(std::size_t size);
void* __real_realloc(void* memory, std::size_t size);

void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return Fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_malloc(std::size_t size) { return Fails() ? nullptr : __real_malloc(size); }
void* __wrap_realloc(void* memory, std::size_t size) {
  return Fails() ? nullptr : __real_realloc(memory, size);
}
}
