#include "core/blocks.h"

#include <cstdlib>

namespace {

constexpr int kMostSpares = 64;

// The first block is there from the start: who asks for a whole frame at a time needs no more.
unsigned char first[kBlockSize];
bool firstIsInUse;
unsigned char* spares[kMostSpares];
int spareCount;

}  // namespace

unsigned char* TakeBlock() {
  if (!firstIsInUse) {
    firstIsInUse = true;
    return first;
  }
  if (spareCount > 0) return spares[--spareCount];
  return static_cast<unsigned char*>(std::malloc(kBlockSize));
}

void GiveBlock(unsigned char* block) {
  if (block == first)
    firstIsInUse = false;
  else if (spareCount < kMostSpares)
    spares[spareCount++] = block;
  else
    std::free(block);
}
