// Memory for what streams hold for a while: blocks of one size, used again by whoever comes next,
// so that a request costs no call for memory and the block in use is likely to be in the cache.
#pragma once
#include <cstddef>

constexpr std::size_t kBlockSize = 65536;

// A block, or null when memory ran out. The caller gives it back.
unsigned char* TakeBlock();
void GiveBlock(unsigned char* block);

// To be called with each tick: of the spare blocks frees those that nobody has needed since the
// last call, but for as many as ordinary traffic takes. A busy moment is not paid for ever after.
void FreeIdleBlocks();
