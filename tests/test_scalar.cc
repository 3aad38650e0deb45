// The tagged scalar of the operators: doubles when tagged Real, otherwise the low 32 bits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "operators/scalar.h"

namespace {

using namespace zel;

ZelScalar real(double value) {
  ZelScalar scalar{};
  scalar.tag = ZelReal;
  scalar.v.d = value;
  return scalar;
}

ZelScalar integer(int64_t value, int32_t tag = ZelNonNegative) {
  ZelScalar scalar{};
  scalar.tag = tag;
  scalar.v.i = value;
  return scalar;
}

TEST(TaggedScalar, RealValuesAreTruncatedTowardZeroForIntegers) {
  EXPECT_EQ(integerOf(real(2.9)), 2);
  EXPECT_EQ(integerOf(real(-2.9)), -2);
  EXPECT_EQ(integerOf(real(-0.0)), 0);
}

TEST(TaggedScalar, RealValuesBeyondThe32BitRangeSaturate) {
  EXPECT_EQ(integerOf(real(1e12)), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(integerOf(real(-1e12)), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(integerOf(real(std::numeric_limits<double>::infinity())),
            std::numeric_limits<int32_t>::max());
}

TEST(TaggedScalar, NotANumberIsZeroForIntegers) {
  EXPECT_EQ(integerOf(real(std::nan(""))), 0);
}

TEST(TaggedScalar, OtherTagsTakeTheLow32BitsOfTheValue) {
  EXPECT_EQ(integerOf(integer(7)), 7);
  EXPECT_EQ(integerOf(integer(-1, ZelSigned)), -1);
  EXPECT_EQ(integerOf(integer(0x1'0000'0005, 0)), 5);
  EXPECT_EQ(integerOf(integer(0x8000'0000)), std::numeric_limits<int32_t>::min());
}

TEST(TaggedScalar, RealReadingOfAnIntegerTagIsItsValue) {
  EXPECT_EQ(realOf(integer(-300, ZelSigned)), -300.0);
  EXPECT_EQ(realOf(real(0.25)), 0.25);
}

}  // namespace
