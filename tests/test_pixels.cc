// How row kernels see pixels: elements at any alignment, Boolean bits through a frame's tables,
// and the element widths that operators accept for each type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "access/frame.h"
#include "operators/pixels.h"

namespace {

using namespace zel;

TEST(RowPixels, ElementsAreReadAndWrittenAtOddAddresses) {
  alignas(8) uint8_t row[16] = {};
  RowPosition run{row + 1, 2};  // the run starts at byte 1 + 2 * 2 = 5
  auto cursor = SignedPixels{}.at(run);
  cursor.store(0, int16_t{-2});
  cursor.store(1, int16_t{0x1234});
  int16_t stored = 0;
  std::memcpy(&stored, row + 5, sizeof stored);
  EXPECT_EQ(stored, -2);
  std::memcpy(&stored, row + 7, sizeof stored);
  EXPECT_EQ(stored, 0x1234);
  EXPECT_EQ(cursor.load(1), 0x1234);
  EXPECT_EQ(row[4], 0);
  EXPECT_EQ(row[9], 0);
}

TEST(RowPixels, RealElementsKeepTheirBits) {
  uint8_t row[12] = {};
  auto cursor = RealPixels{}.at(RowPosition{row + 3, 0});
  cursor.store(1, -0.0f);
  cursor.store(0, 254.9f);
  EXPECT_EQ(cursor.load(0), 254.9f);
  EXPECT_TRUE(std::signbit(cursor.load(1)));
}

TEST(RowPixels, BitsOfARunStartInsideTheirFirstByte) {
  uint8_t row[3] = {0x00, 0xFF, 0x00};
  auto cursor = operatorBits.at(RowPosition{row, 10});  // pixel 0 is bit 2 of byte 1
  EXPECT_TRUE(cursor.load(0));
  cursor.store(0, false);
  EXPECT_EQ(row[1], 0xDF);
  cursor.store(6, true);  // byte 2, bit 0
  EXPECT_EQ(row[2], 0x80);
  EXPECT_EQ(row[0], 0x00);
}

TEST(RowPixels, LeastSignificantFirstTablesAddressBitsFromTheLowEnd) {
  AccessFrame frame{};
  frame.bitOrder = ZelLeastSignificantFirst;
  static const uint8_t set[8] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};
  static const uint8_t clear[8] = {0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF, 0xBF, 0x7F};
  frame.bitSetTable = set;
  frame.bitClearTable = clear;
  uint8_t row[1] = {0};
  auto cursor = bitPixelsOf(frame).at(RowPosition{row, 0});
  cursor.store(0, true);
  cursor.store(3, true);
  EXPECT_EQ(row[0], 0x09);
  cursor.store(0, false);
  EXPECT_EQ(row[0], 0x08);
}

TEST(RowPixels, UnknownBitOrderIsTakenAsMostSignificantFirst) {
  AccessFrame frame{};
  frame.bitOrder = 7;  // no tables
  BitPixels bits = bitPixelsOf(frame);
  EXPECT_EQ(bits.setTable, msbSet);
  EXPECT_EQ(bits.clearTable, msbClear);
}

TEST(RowPixels, ElementWidthsFollowTheType) {
  EXPECT_EQ(elementBitsOf(ZelBoolean), 1);
  EXPECT_EQ(elementBitsOf(ZelNonNegative), 8);
  EXPECT_EQ(elementBitsOf(ZelSigned), 16);
  EXPECT_EQ(elementBitsOf(ZelReal), 32);
  EXPECT_EQ(elementBitsOf(ZelComplex), 0);
  EXPECT_EQ(elementBitsOf(ZelWord), 0);
}

TEST(RowPixels, MappedRowsApplyTheRuleToEachPixel) {
  uint8_t in[4] = {1, 2, 3, 4};
  uint8_t out[8] = {};
  struct Twice {
    int16_t operator()(uint8_t p) const { return static_cast<int16_t>(p * 2); }
  };
  RowPosition rows[2] = {{in, 1}, {out, 0}};
  MapRows<BytePixels, SignedPixels, Twice>{{}, {}, {}}(rows, 3);
  int16_t values[4] = {};
  std::memcpy(values, out, sizeof values);
  EXPECT_EQ(values[0], 4);
  EXPECT_EQ(values[1], 6);
  EXPECT_EQ(values[2], 8);
  EXPECT_EQ(values[3], 0);
}

}  // namespace
