// Spare blocks: used again by whoever comes next, and not kept for ever after a busy moment.
#include "core/blocks.h"

#include <gtest/gtest.h>

#include "tests/unit/faults.h"

namespace {

constexpr int kKept = 17;  // the first and 16 spares

TEST(Blocks, AreUsedAgain) {
  TakeAndGiveBlocks(30);
  EXPECT_EQ(SpareBlocks(), 30);
}

TEST(Blocks, ThatNobodyNeedsFromTickToTickAreFreedButForAFew) {
  TakeAndGiveBlocks(30);
  FreeIdleBlocks();
  EXPECT_EQ(SpareBlocks(), 30) << "they have been needed";
  FreeIdleBlocks();
  FreeIdleBlocks();
  EXPECT_EQ(SpareBlocks(), kKept);
  FreeIdleBlocks();
  FreeIdleBlocks();
  EXPECT_EQ(SpareBlocks(), kKept);
}

TEST(Blocks, ThatAreNeededStay) {
  TakeAndGiveBlocks(30);
  FreeIdleBlocks();
  TakeAndGiveBlocks(25);
  FreeIdleBlocks();
  EXPECT_EQ(SpareBlocks(), 25);
}

}  // namespace
