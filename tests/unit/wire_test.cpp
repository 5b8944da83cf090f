// Typed access to bytes at no fixed alignment.
#include "core/wire.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace {

using Bytes = std::array<unsigned char, 24>;

Bytes AreaOf(unsigned char value) {
  Bytes bytes;
  bytes.fill(value);
  return bytes;
}

TEST(Wire, AValuePutAtAnOddOffsetIsReadBack) {
  for (std::size_t offset = 0; offset < 9; ++offset) {
    Bytes bytes = AreaOf(0);
    Put(bytes.data(), WireField<std::int32_t>{offset}, -123456789);
    EXPECT_EQ(Get(bytes.data(), WireField<std::int32_t>{offset}), -123456789) << offset;
  }
}

TEST(Wire, IntegersAreInHostByteOrder) {
  Bytes bytes = AreaOf(0);
  Put(bytes.data(), WireField<std::uint32_t>{3}, 0xA1B2C3D4U);
  const std::uint32_t host = 0xA1B2C3D4U;
  EXPECT_EQ(std::memcmp(bytes.data() + 3, &host, sizeof host), 0);
}

TEST(Wire, PuttingTouchesNoOtherByte) {
  Bytes bytes = AreaOf(0xEE);
  Put(bytes.data(), WireField<std::uint16_t>{5}, 0);
  Put(bytes.data(), WireField<std::uint8_t>{9}, 1);
  Bytes expected = AreaOf(0xEE);
  expected[5] = expected[6] = 0;
  expected[9] = 1;
  EXPECT_EQ(bytes, expected);
}

TEST(Wire, AFieldHasTheWidthOfItsType) {
  Bytes bytes = AreaOf(0xFF);
  EXPECT_EQ(Get(bytes.data(), WireField<std::uint8_t>{1}), 0xFF);
  EXPECT_EQ(Get(bytes.data(), WireField<std::uint16_t>{1}), 0xFFFF);
  EXPECT_EQ(Get(bytes.data(), WireField<std::uint32_t>{1}), 0xFFFFFFFFU);
  EXPECT_EQ(Get(bytes.data(), WireField<std::int32_t>{1}), -1);
}

}  // namespace
