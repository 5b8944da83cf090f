// Growable arrays: they start at 2 elements, double, and never shrink.
#include "core/grow_array.h"

#include <gtest/gtest.h>

#include "tests/unit/faults.h"

namespace {

struct Item {
  int Value;
  int Other;
};
bool InUse(const Item& item) { return item.Value != 0; }

class GrowArrays : public testing::Test {
 protected:
  ~GrowArrays() override { Free(items_); }
  GrowArray<Item> items_ = {nullptr, 0};
};

TEST_F(GrowArrays, TheFirstGrowthGivesTwoZeroElements) {
  Item* const first = Grow(items_);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, items_.Items);
  EXPECT_EQ(items_.Capacity, 2);
  for (const Item& item : items_) EXPECT_TRUE(item.Value == 0 && item.Other == 0);
}

TEST_F(GrowArrays, TheCapacityStaysAPowerOfTwo) {
  for (const int capacity : {2, 4, 8, 16, 32}) {
    ASSERT_NE(Grow(items_), nullptr);
    EXPECT_EQ(items_.Capacity, capacity);
  }
}

TEST_F(GrowArrays, GrowingKeepsTheElementsAndZeroesTheNewOnes) {
  Grow(items_);
  items_.Items[0] = {1, 2};
  items_.Items[1] = {3, 4};
  Item* const added = Grow(items_);
  ASSERT_EQ(added, items_.Items + 2);
  EXPECT_EQ(items_.Items[0].Value, 1);
  EXPECT_EQ(items_.Items[0].Other, 2);
  EXPECT_EQ(items_.Items[1].Value, 3);
  EXPECT_EQ(items_.Items[1].Other, 4);
  for (int i = 2; i < 4; ++i) {
    EXPECT_EQ(items_.Items[i].Value, 0);
    EXPECT_EQ(items_.Items[i].Other, 0);
  }
}

TEST_F(GrowArrays, OnlyTheBytesToBeKeptAreCarriedOver) {
  Grow(items_);
  items_.Items[0] = {0x01020304, 5};
  items_.Items[1] = {6, 7};
  Grow(items_, 2);
  unsigned char bytes[sizeof(Item)];
  std::memcpy(bytes, items_.Items, sizeof bytes);
  const int original = 0x01020304;
  EXPECT_EQ(std::memcmp(bytes, &original, 2), 0);
  for (std::size_t i = 2; i < sizeof bytes; ++i) EXPECT_EQ(bytes[i], 0) << i;
  EXPECT_EQ(items_.Items[1].Value, 0);
}

TEST_F(GrowArrays, AFailedGrowthLeavesTheArrayAsItWas) {
  Grow(items_);
  items_.Items[1] = {9, 9};
  Item* const before = items_.Items;
  EXPECT_EQ(WithoutMemory([&] { return Grow(items_); }), nullptr);
  EXPECT_EQ(items_.Items, before);
  EXPECT_EQ(items_.Capacity, 2);
  EXPECT_EQ(items_.Items[1].Value, 9);
}

TEST_F(GrowArrays, AFailedFirstGrowthLeavesTheArrayEmpty) {
  FailingAllocations failing;
  EXPECT_EQ(Grow(items_), nullptr);
  EXPECT_EQ(items_.Items, nullptr);
  EXPECT_EQ(items_.Capacity, 0);
}

TEST_F(GrowArrays, TheFirstFreeElementIsTheLowest) {
  EXPECT_EQ(FirstFree(items_), nullptr);
  Grow(items_);
  Grow(items_);
  items_.Items[0].Value = items_.Items[2].Value = 1;
  EXPECT_EQ(FirstFree(items_), items_.Items + 1);
  items_.Items[1].Value = items_.Items[3].Value = 1;
  EXPECT_EQ(FirstFree(items_), nullptr);
}

TEST_F(GrowArrays, TheWalkYieldsTheElementsInUseInOrder) {
  Item* const none = nullptr;
  EXPECT_EQ(NextInUse(items_, none), nullptr);
  Grow(items_);
  Grow(items_);
  EXPECT_EQ(NextInUse(items_, none), nullptr);
  items_.Items[1].Value = items_.Items[3].Value = 1;
  EXPECT_EQ(NextInUse(items_, none), items_.Items + 1);
  EXPECT_EQ(NextInUse(items_, items_.Items + 1), items_.Items + 3);
  EXPECT_EQ(NextInUse(items_, items_.Items + 3), nullptr);
}

TEST_F(GrowArrays, AFreedArrayIsEmptyAndCanGrowAgain) {
  Grow(items_);
  Grow(items_);
  Free(items_);
  EXPECT_EQ(items_.Items, nullptr);
  EXPECT_EQ(items_.Capacity, 0);
  Grow(items_);
  EXPECT_EQ(items_.Capacity, 2);
}

}  // namespace
