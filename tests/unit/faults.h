// Memory that runs out when a test says so.
#pragma once
#include <vector>

#include "core/blocks.h"

// While it lives, the allocation calls of the agent's modules (malloc, calloc, realloc) fail after
// `successes` more have succeeded.
class FailingAllocations {
 public:
  explicit FailingAllocations(int successes = 0);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;
};

// What a call comes to that no memory can be allocated in.
template <class Call>
auto WithoutMemory(Call call) {
  const FailingAllocations failing;
  return call();
}

// Nothing is left to keep bytes in.
class NoMemory {
 public:
  NoMemory() {
    while (unsigned char* const block = TakeBlock()) blocks_.push_back(block);
  }
  ~NoMemory() {
    for (unsigned char* const block : blocks_) GiveBlock(block);
  }
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;
  int Taken() const { return static_cast<int>(blocks_.size()); }

 private:
  std::vector<unsigned char*> blocks_ = Reserved();
  const FailingAllocations failing_;

  static std::vector<unsigned char*> Reserved() {
    std::vector<unsigned char*> blocks;
    blocks.reserve(128);
    return blocks;
  }
};

// As many streams as that hold something at once.
inline void TakeAndGiveBlocks(int count) {
  std::vector<unsigned char*> blocks;
  for (int i = 0; i < count; ++i) blocks.push_back(TakeBlock());
  for (unsigned char* const block : blocks) GiveBlock(block);
}

// The blocks that can be had without a call for memory; they count as needed then.
inline int SpareBlocks() { return NoMemory().Taken(); }
