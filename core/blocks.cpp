#include "core/blocks.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr int kMostSpares = 64;
constexpr int kKeptSpares = 16;  // also while nobody needs them

// The first block is there from the start: who asks for a whole frame at a time needs no more.
unsigned char first[kBlockSize];
bool firstIsInUse;
unsigned char* spares[kMostSpares];
int spareCount;    // of spares; the last is the one given back last
int fewestSpares;  // since idle blocks were freed: so many have not been needed

}  // namespace

unsigned char* TakeBlock() {
  if (!firstIsInUse) {
    firstIsInUse = true;
    return first;
  }
  if (spareCount == 0) return static_cast<unsigned char*>(std::malloc(kBlockSize));
  fewestSpares = std::min(fewestSpares, --spareCount);
  return spares[spareCount];
}

void GiveBlock(unsigned char* block) {
  if (block == first)
    firstIsInUse = false;
  else if (spareCount < kMostSpares)
    spares[spareCount++] = block;
  else
    std::free(block);
}

void FreeIdleBlocks() {
  const int idle = std::max(0, std::min(fewestSpares, spareCount - kKeptSpares));
  std::for_each_n(spares, idle, std::free);
  std::copy(spares + idle, spares + spareCount, spares);
  spareCount -= idle;
  fewestSpares = spareCount;
}
