// The kit every codec shares: the family of each compression value, the bit reversal of
// least-significant-first streams, Boolean lines realigned to a byte boundary and merged back at
// their bit offset, the staging buffer flushed through the byte access of a stream, and the row
// layout of device-independent bitmaps. Lines are checked against bit-by-bit references, in heap
// blocks sized exactly so that the sanitizer catches any access past the last byte in use.
#include "codecs/kit.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "access/repository.h"
#include "kernel/context.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;
using zel::codec::Family;
using zel::codec::StagingBuffer;

// ---- Families -----------------------------------------------------------------------------

const std::vector<std::pair<int32_t, Family>> kFamilyTable = {
    {ZelFaxGroup3OneDimensional, Family::Fax},
    {ZelFaxGroup3TwoDimensional, Family::Fax},
    {ZelFaxGroup4, Family::Fax},
    {ZelModifiedHuffman, Family::Fax},
    {ZelJpeg, Family::Jpeg},
    {ZelLzw, Family::Lzw},
    {ZelPackBits, Family::PackBits},
    {ZelKolLine, Family::KolLine},
    {ZelBmpRunLength, Family::BmpRunLength},
    {ZelPcxRunLength, Family::PcxRunLength},
    {ZelPngDeflate, Family::PngDeflate},
};

TEST(CodecFamilyTable, ValuesOfTheInterfaceAreTheNumbersCallersStore) {
  const std::vector<int32_t> numbers = {80, 81, 82, 90, 114, 136, 156, 217, 234, 247, 264};
  ASSERT_EQ(kFamilyTable.size(), numbers.size());
  for (size_t i = 0; i < numbers.size(); ++i)
    EXPECT_EQ(kFamilyTable[i].first, numbers[i]);
}

TEST(CodecFamilyTable, EveryValueOfTheTableNamesItsFamily) {
  for (const auto &[compression, expected] : kFamilyTable) {
    SCOPED_TRACE(compression);
    // Start from a family the value doesn't have, so that the answer must be written.
    Family family = expected == Family::Fax ? Family::PngDeflate : Family::Fax;
    ASSERT_TRUE(zel::codec::familyOf(compression, family));
    EXPECT_EQ(family, expected);
  }
}

TEST(CodecFamilyTable, EveryOtherValueHasNoFamily) {
  std::set<int32_t> known;
  for (const auto &entry : kFamilyTable)
    known.insert(entry.first);
  std::vector<int32_t> values = {INT32_MIN, INT32_MIN + 1, -65536,   -264,       -80,
                                 INT32_MAX, 65536,         80 + 256, 264 + 65536};
  for (int32_t v = -300; v <= 600; ++v)
    if (!known.count(v)) values.push_back(v);
  for (int32_t compression : values) {
    Family family = Family::Fax;
    EXPECT_FALSE(zel::codec::familyOf(compression, family)) << compression;
  }
}

// ---- Bit reversal -------------------------------------------------------------------------

uint8_t reversedBitByBit(unsigned value) {
  unsigned result = 0;
  for (int bit = 0; bit < 8; ++bit)
    if (value & (1u << bit)) result |= 0x80u >> bit;
  return static_cast<uint8_t>(result);
}

static_assert(zel::codec::bitReversed[0x01] == 0x80 && zel::codec::bitReversed[0x80] == 0x01 &&
                  zel::codec::bitReversed[0xF0] == 0x0F && zel::codec::bitReversed[0x00] == 0 &&
                  zel::codec::bitReversed[0xFF] == 0xFF,
              "the table is usable at compile time");

TEST(CodecBitReversal, TableMatchesABitByBitReferenceForEveryByte) {
  for (unsigned v = 0; v < 256; ++v)
    EXPECT_EQ(zel::codec::bitReversed[v], reversedBitByBit(v)) << v;
}

TEST(CodecBitReversal, TableIsAnInvolution) {
  for (unsigned v = 0; v < 256; ++v)
    EXPECT_EQ(zel::codec::bitReversed[zel::codec::bitReversed[v]], v) << v;
}

TEST(CodecBitReversal, ReverseBitsTurnsEachOfTheCountedBytesInPlaceAndNoMore) {
  std::vector<uint8_t> bytes(256 + 3);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(i);
  zel::codec::reverseBits(bytes.data(), 256);
  for (unsigned v = 0; v < 256; ++v)
    EXPECT_EQ(bytes[v], reversedBitByBit(v)) << v;
  EXPECT_EQ(bytes[256], 0);
  EXPECT_EQ(bytes[257], 1);
  EXPECT_EQ(bytes[258], 2);

  const std::vector<uint8_t> before = bytes;
  zel::codec::reverseBits(bytes.data(), 0);
  EXPECT_EQ(bytes, before);
}

// ---- Boolean lines ------------------------------------------------------------------------

// A heap block of exactly `size` bytes: the sanitizer catches any access past its end.
std::unique_ptr<uint8_t[]> exactBlock(size_t size) {
  return std::unique_ptr<uint8_t[]>(new uint8_t[size]);
}

void fillRandom(std::mt19937 &rng, uint8_t *bytes, size_t count) {
  for (size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<uint8_t>(rng());
}

bool bitAt(const uint8_t *bytes, int64_t index) {
  return ((bytes[index >> 3] >> (7 - (index & 7))) & 1) != 0;
}

void putBit(uint8_t *bytes, int64_t index, bool value) {
  const auto mask = static_cast<uint8_t>(0x80u >> (index & 7));
  bytes[index >> 3] =
      static_cast<uint8_t>(value ? bytes[index >> 3] | mask : bytes[index >> 3] & ~mask);
}

// The bytes a line of `pixels` bits from `bitOffset` on reaches: up to the last byte that holds
// one of its pixels, none after.
size_t lineBytes(int64_t bitOffset, int64_t pixels) {
  return static_cast<size_t>(pixels == 0 ? bitOffset / 8 : (bitOffset + pixels + 7) / 8);
}

size_t alignedBytes(int64_t pixels) {
  return static_cast<size_t>((pixels + 7) / 8);
}

// Every bit offset inside a byte, a few that skip whole bytes, each with 0 to 40 pixels.
void forEachLineShape(const std::function<void(int64_t bitOffset, int64_t pixels)> &f) {
  for (int64_t bitOffset : {0, 1, 2, 3, 4, 5, 6, 7, 8, 13, 23}) {
    for (int64_t pixels = 0; pixels <= 40; ++pixels) {
      SCOPED_TRACE(testing::Message() << "bit offset " << bitOffset << ", " << pixels << " pixels");
      f(bitOffset, pixels);
    }
  }
}

std::vector<uint8_t> bytesOf(const uint8_t *bytes, size_t count) {
  return std::vector<uint8_t>(bytes, bytes + count);
}

TEST(CodecBooleanLine, RealignMatchesABitByBitReferenceForEveryOffsetAndCount) {
  std::mt19937 rng(7001);
  for (int round = 0; round < 4; ++round) {
    forEachLineShape([&](int64_t bitOffset, int64_t pixels) {
      const size_t inBytes = lineBytes(bitOffset, pixels);
      const size_t outBytes = alignedBytes(pixels);
      auto line = exactBlock(inBytes);
      auto out = exactBlock(outBytes);
      fillRandom(rng, line.get(), inBytes);
      std::memset(out.get(), 0xA5, outBytes);
      std::vector<uint8_t> expected(outBytes, 0);
      for (int64_t i = 0; i < pixels; ++i)
        putBit(expected.data(), i, bitAt(line.get(), bitOffset + i));
      zel::codec::realignBooleanLine(line.get(), bitOffset, pixels, out.get());
      EXPECT_EQ(bytesOf(out.get(), outBytes), expected);
    });
  }
}

TEST(CodecBooleanLine, RealignClearsTheBitsPastTheLastPixel) {
  forEachLineShape([&](int64_t bitOffset, int64_t pixels) {
    const size_t inBytes = lineBytes(bitOffset, pixels);
    const size_t outBytes = alignedBytes(pixels);
    auto line = exactBlock(inBytes);
    auto out = exactBlock(outBytes);
    std::memset(line.get(), 0xFF, inBytes);
    std::memset(out.get(), 0xFF, outBytes);
    zel::codec::realignBooleanLine(line.get(), bitOffset, pixels, out.get());
    for (int64_t i = 0; i < static_cast<int64_t>(outBytes) * 8; ++i)
      EXPECT_EQ(bitAt(out.get(), i), i < pixels) << "bit " << i;
  });
}

TEST(CodecBooleanLine, RealignReadsNothingBeyondTheByteOfTheLastPixel) {
  // The line ends at the very end of its block; a shifted line whose last pixel sits in the
  // first bits of its byte is the case that would be tempted to read one byte more.
  const std::vector<std::pair<int64_t, int64_t>> shapes = {
      {1, 7}, {1, 15}, {3, 5}, {3, 13}, {7, 1}, {7, 9}, {5, 11}, {6, 34}, {9, 7}, {15, 1}};
  for (const auto &[bitOffset, pixels] : shapes) {
    SCOPED_TRACE(testing::Message() << bitOffset << " " << pixels);
    const size_t inBytes = lineBytes(bitOffset, pixels);
    auto line = exactBlock(inBytes);
    auto out = exactBlock(alignedBytes(pixels));
    std::memset(line.get(), 0x55, inBytes);
    zel::codec::realignBooleanLine(line.get(), bitOffset, pixels, out.get());
    for (int64_t i = 0; i < pixels; ++i)
      EXPECT_EQ(bitAt(out.get(), i), bitAt(line.get(), bitOffset + i)) << i;
  }
}

TEST(CodecBooleanLine, MergeSetsThePixelsAndKeepsTheOtherBitsOfSharedBytes) {
  std::mt19937 rng(7002);
  for (int round = 0; round < 4; ++round) {
    forEachLineShape([&](int64_t bitOffset, int64_t pixels) {
      const size_t bytes = lineBytes(bitOffset, pixels);
      const size_t inBytes = alignedBytes(pixels);
      auto line = exactBlock(bytes);
      auto in = exactBlock(inBytes);
      fillRandom(rng, line.get(), bytes);
      fillRandom(rng, in.get(), inBytes);  // the bits past the last pixel are noise
      std::vector<uint8_t> expected = bytesOf(line.get(), bytes);
      for (int64_t i = 0; i < pixels; ++i)
        putBit(expected.data(), bitOffset + i, bitAt(in.get(), i));
      const std::vector<uint8_t> inBefore = bytesOf(in.get(), inBytes);
      zel::codec::mergeBooleanLine(line.get(), bitOffset, pixels, in.get());
      EXPECT_EQ(bytesOf(line.get(), bytes), expected);
      EXPECT_EQ(bytesOf(in.get(), inBytes), inBefore);
    });
  }
}

TEST(CodecBooleanLine, MergeOfOnesAndZerosIntoTheOppositeTouchesOnlyThePixels) {
  for (bool ones : {false, true}) {
    forEachLineShape([&](int64_t bitOffset, int64_t pixels) {
      const size_t bytes = lineBytes(bitOffset, pixels);
      const size_t inBytes = alignedBytes(pixels);
      auto line = exactBlock(bytes);
      auto in = exactBlock(inBytes);
      std::memset(line.get(), ones ? 0x00 : 0xFF, bytes);
      std::memset(in.get(), ones ? 0xFF : 0x00, inBytes);
      zel::codec::mergeBooleanLine(line.get(), bitOffset, pixels, in.get());
      for (int64_t j = 0; j < static_cast<int64_t>(bytes) * 8; ++j) {
        const bool pixel = j >= bitOffset && j < bitOffset + pixels;
        EXPECT_EQ(bitAt(line.get(), j), pixel == ones) << "bit " << j;
      }
    });
  }
}

TEST(CodecBooleanLine, RealignThenMergeGivesThePixelsBack) {
  std::mt19937 rng(7003);
  forEachLineShape([&](int64_t bitOffset, int64_t pixels) {
    const size_t bytes = lineBytes(bitOffset, pixels);
    auto original = exactBlock(bytes);
    auto other = exactBlock(bytes);
    auto aligned = exactBlock(alignedBytes(pixels));
    fillRandom(rng, original.get(), bytes);
    for (size_t i = 0; i < bytes; ++i)
      other[i] = static_cast<uint8_t>(~original[i]);
    zel::codec::realignBooleanLine(original.get(), bitOffset, pixels, aligned.get());

    // Into a line of the opposite bits: the pixels come back, the rest stays opposite.
    zel::codec::mergeBooleanLine(other.get(), bitOffset, pixels, aligned.get());
    for (int64_t j = 0; j < static_cast<int64_t>(bytes) * 8; ++j) {
      const bool pixel = j >= bitOffset && j < bitOffset + pixels;
      EXPECT_EQ(bitAt(other.get(), j), pixel == bitAt(original.get(), j)) << "bit " << j;
    }
    // Into the line it came from: nothing changes.
    const std::vector<uint8_t> before = bytesOf(original.get(), bytes);
    zel::codec::mergeBooleanLine(original.get(), bitOffset, pixels, aligned.get());
    EXPECT_EQ(bytesOf(original.get(), bytes), before);
  });
}

// ---- Staging buffer -----------------------------------------------------------------------

TEST(CodecStagingBuffer, StartsEmptyAndZeroedWithItsCapacity) {
  ContextGuard ctx;
  StagingBuffer buffer(ctx, nullptr, 9, false);
  ASSERT_TRUE(buffer.valid());
  EXPECT_EQ(buffer.capacity(), 9);
  EXPECT_EQ(buffer.fill(), 0);
  EXPECT_EQ(buffer.flushedBytes(), 0);
  EXPECT_EQ(bytesOf(buffer.data(), 9), std::vector<uint8_t>(9, 0));
}

TEST(CodecStagingBuffer, AppendKeepsWhatFitsAndSaysWhenBytesWereLeftOut) {
  ContextGuard ctx;
  StagingBuffer buffer(ctx, nullptr, 5, false);
  ASSERT_TRUE(buffer.valid());
  const uint8_t first[] = {1, 2, 3};
  const uint8_t second[] = {4, 5, 6, 7};
  EXPECT_TRUE(buffer.append(first, 3));
  EXPECT_EQ(buffer.fill(), 3);
  EXPECT_FALSE(buffer.append(second, 4));
  EXPECT_EQ(buffer.fill(), 5);
  EXPECT_EQ(bytesOf(buffer.data(), 5), (std::vector<uint8_t>{1, 2, 3, 4, 5}));
  EXPECT_FALSE(buffer.append(second + 2, 1));
  EXPECT_EQ(buffer.fill(), 5);
  EXPECT_TRUE(buffer.append(second, 0));
  EXPECT_EQ(buffer.fill(), 5);
  EXPECT_EQ(bytesOf(buffer.data(), 5), (std::vector<uint8_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(buffer.flushedBytes(), 0);
}

TEST(CodecStagingBuffer, AppendThatExactlyFillsTheBufferIsComplete) {
  ContextGuard ctx;
  StagingBuffer buffer(ctx, nullptr, 4, false);
  ASSERT_TRUE(buffer.valid());
  const uint8_t bytes[] = {9, 8, 7, 6};
  EXPECT_TRUE(buffer.append(bytes, 4));
  EXPECT_EQ(buffer.fill(), 4);
  EXPECT_EQ(bytesOf(buffer.data(), 4), bytesOf(bytes, 4));
}

const char *repositoryName(int repository) {
  switch (repository) {
    case ZelApplicationAddressSpace:
      return "ApplicationMemory";
    case ZelWorkSpace:
      return "WorkSpace";
    case ZelFile:
      return "File";
    default:
      return "Unknown";
  }
}

// A row of NonNegative pixels holding `fill`, in the repository of the parameter, written
// through a "w" stream by a staging buffer and read back as bytes.
class CodecStagingBufferFlush : public OperatorFixture, public testing::WithParamInterface<int> {
 protected:
  ZelObject *target(size_t bytes, uint8_t fill) {
    return objects_->make(Image({static_cast<int>(bytes), 1, 1, 1, 1}, false, fill), GetParam(),
                          true);
  }

  // The bytes read back through a stream of mode "r".
  std::vector<uint8_t> readBack(ZelObject *object, size_t count) {
    Stream reader = openStream(ctx_, object, "r");
    EXPECT_NE(reader, nullptr);
    if (!reader) return {};
    std::vector<uint8_t> bytes(count, 0);
    EXPECT_EQ(zel::readBytes(ctx_, reader.get(), 0, bytes.data(), static_cast<int64_t>(count)),
              static_cast<int64_t>(count));
    return bytes;
  }

  // Appends each piece and flushes after it.
  void appendAndFlush(StagingBuffer &buffer, const std::vector<std::vector<uint8_t>> &pieces) {
    int64_t written = 0;
    for (const std::vector<uint8_t> &piece : pieces) {
      ASSERT_TRUE(buffer.append(piece.data(), static_cast<int64_t>(piece.size())));
      ASSERT_TRUE(buffer.flush()) << Zel003b(ctx_);
      written += static_cast<int64_t>(piece.size());
      EXPECT_EQ(buffer.fill(), 0);
      EXPECT_EQ(buffer.flushedBytes(), written);
    }
  }
};

TEST_P(CodecStagingBufferFlush, FlushesWriteOneAfterTheOtherAtARunningOffset) {
  ZelObject *object = target(10, 0xEE);
  ASSERT_NE(object, nullptr);
  {
    Stream writer = openStream(ctx_, object, "w");
    ASSERT_NE(writer, nullptr);
    StagingBuffer buffer(ctx_, writer.get(), 4, false);
    ASSERT_TRUE(buffer.valid());
    clearLastError(ctx_);
    appendAndFlush(buffer, {{1, 2, 3}, {4, 5, 6, 7}, {8}});
    EXPECT_EQ(Zel003b(ctx_), 0);
  }
  const std::vector<uint8_t> expected = {1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE};
  EXPECT_EQ(objects_->bytes(object, 10), expected);
  EXPECT_EQ(readBack(object, 10), expected);
  expectNoStreamOpen({object});
}

TEST_P(CodecStagingBufferFlush, FlushOfALeastSignificantFirstStreamReversesEachByte) {
  ZelObject *object = target(6, 0x00);
  ASSERT_NE(object, nullptr);
  {
    Stream writer = openStream(ctx_, object, "w");
    ASSERT_NE(writer, nullptr);
    StagingBuffer buffer(ctx_, writer.get(), 4, true);
    ASSERT_TRUE(buffer.valid());
    appendAndFlush(buffer, {{0x01, 0x80, 0xF0, 0x35}, {0xC2, 0xFF}});
  }
  const std::vector<uint8_t> expected = {0x80, 0x01, 0x0F, 0xAC, 0x43, 0xFF};
  EXPECT_EQ(objects_->bytes(object, 6), expected);
  EXPECT_EQ(readBack(object, 6), expected);
}

TEST_P(CodecStagingBufferFlush, FlushOfAnEmptyBufferWritesNothing) {
  ZelObject *object = target(4, 0x3C);
  ASSERT_NE(object, nullptr);
  {
    Stream writer = openStream(ctx_, object, "w");
    ASSERT_NE(writer, nullptr);
    StagingBuffer buffer(ctx_, writer.get(), 4, true);
    ASSERT_TRUE(buffer.valid());
    clearLastError(ctx_);
    const int64_t position = writer->filePosition;
    EXPECT_TRUE(buffer.flush());
    EXPECT_TRUE(buffer.flush());
    EXPECT_EQ(buffer.flushedBytes(), 0);
    EXPECT_EQ(buffer.fill(), 0);
    EXPECT_EQ(writer->filePosition, position);
    EXPECT_EQ(Zel003b(ctx_), 0);
    EXPECT_EQ(objects_->bytes(object, 4), std::vector<uint8_t>(4, 0x3C));
  }
  EXPECT_EQ(objects_->bytes(object, 4), std::vector<uint8_t>(4, 0x3C));
}

INSTANTIATE_TEST_SUITE_P(Repositories, CodecStagingBufferFlush,
                         testing::Values(ZelApplicationAddressSpace, ZelWorkSpace, ZelFile),
                         [](const testing::TestParamInfo<int> &param) {
                           return std::string(repositoryName(param.param));
                         });

class CodecStagingBufferCapacity : public OperatorFixture {
 protected:
  // Fills a buffer of 4 bytes twice into an object of 6 bytes: the first flush fits, the second
  // would pass the end of the memory block and is refused whole.
  void expectSecondFlushRefused(ZelObject *object) {
    {
      Stream writer = openStream(ctx_, object, "w");
      ASSERT_NE(writer, nullptr);
      StagingBuffer buffer(ctx_, writer.get(), 4, false);
      ASSERT_TRUE(buffer.valid());
      const uint8_t bytes[] = {0xA1, 0xA2, 0xA3, 0xA4};
      ASSERT_TRUE(buffer.append(bytes, 4));
      ASSERT_TRUE(buffer.flush());
      ASSERT_TRUE(buffer.append(bytes, 4));
      clearLastError(ctx_);
      EXPECT_FALSE(buffer.flush());
      EXPECT_EQ(Zel003b(ctx_), 8);
      EXPECT_EQ(buffer.flushedBytes(), 4);
    }
    EXPECT_EQ(objects_->bytes(object, 6),
              (std::vector<uint8_t>{0xA1, 0xA2, 0xA3, 0xA4, 0x77, 0x77}));
    expectNoStreamOpen({object});
  }
};

TEST_F(CodecStagingBufferCapacity, FlushPastTheEndOfAWorkSpaceBlockIsInsufficientSize) {
  ZelObject *object = objects_->make(Image({6, 1, 1, 1, 1}, false, 0x77), ZelWorkSpace, true);
  ASSERT_NE(object, nullptr);
  expectSecondFlushRefused(object);
}

TEST_F(CodecStagingBufferCapacity, FlushPastTheSizeOfApplicationMemoryIsInsufficientSize) {
  ZelObject *object =
      objects_->make(Image({6, 1, 1, 1, 1}, false, 0x77), ZelApplicationAddressSpace, true);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx_, object, "size", 6), 0);
  expectSecondFlushRefused(object);
}

TEST_F(CodecStagingBufferCapacity, RefusedReversedFlushKeepsTheBytesAsTheCodecPutThem) {
  ZelObject *object = objects_->make(Image({2, 1, 1, 1, 1}, false, 0x77), ZelWorkSpace, true);
  ASSERT_NE(object, nullptr);
  {
    Stream writer = openStream(ctx_, object, "w");
    ASSERT_NE(writer, nullptr);
    StagingBuffer buffer(ctx_, writer.get(), 4, true);
    ASSERT_TRUE(buffer.valid());
    const uint8_t bytes[] = {0x01, 0x03, 0x07, 0x0F};
    ASSERT_TRUE(buffer.append(bytes, 4));
    EXPECT_FALSE(buffer.flush());
    EXPECT_EQ(Zel003b(ctx_), 8);
    EXPECT_EQ(buffer.fill(), 4);
    EXPECT_EQ(std::vector<uint8_t>(buffer.data(), buffer.data() + 4),
              std::vector<uint8_t>(bytes, bytes + 4));
  }
  EXPECT_EQ(objects_->bytes(object, 2), (std::vector<uint8_t>{0x77, 0x77}));
}

// ---- Device-independent bitmap rows ---------------------------------------------------------

TEST(CodecBitmapLayout, RowsAreStoredBottomUp) {
  EXPECT_EQ(zel::codec::bottomUpLine(0, 1), 0);
  EXPECT_EQ(zel::codec::bottomUpLine(0, 5), 4);
  EXPECT_EQ(zel::codec::bottomUpLine(4, 5), 0);
  EXPECT_EQ(zel::codec::bottomUpLine(2, 5), 2);
  for (int64_t rows = 1; rows <= 9; ++rows) {
    std::set<int64_t> lines;
    for (int64_t row = 0; row < rows; ++row) {
      const int64_t line = zel::codec::bottomUpLine(row, rows);
      EXPECT_GE(line, 0);
      EXPECT_LT(line, rows);
      EXPECT_EQ(zel::codec::bottomUpLine(line, rows), row);
      lines.insert(line);
    }
    EXPECT_EQ(static_cast<int64_t>(lines.size()), rows);
  }
}

TEST(CodecBitmapLayout, FourBitPixelsTakeHalfAByteRoundedUp) {
  const int64_t expected[] = {0, 1, 1, 2, 2, 3, 3, 4};
  for (int64_t pixels = 0; pixels < 8; ++pixels)
    EXPECT_EQ(zel::codec::packedNibbleBytes(pixels), expected[pixels]) << pixels;
  EXPECT_EQ(zel::codec::packedNibbleBytes(4097), 2049);
}

TEST(CodecBitmapLayout, NibblesArePackedHighFirstFromTheLowHalfOfEachPixel) {
  const uint8_t pixels[] = {0xAB, 0xCD, 0xEF, 0x12, 0x3};
  auto out = exactBlock(3);
  zel::codec::packNibbles(pixels, 5, out.get());
  EXPECT_EQ(bytesOf(out.get(), 3), (std::vector<uint8_t>{0xBD, 0xF2, 0x30}));

  const uint8_t pair[] = {1, 2};
  auto one = exactBlock(1);
  zel::codec::packNibbles(pair, 2, one.get());
  EXPECT_EQ(one[0], 0x12);
}

TEST(CodecBitmapLayout, OddPixelCountLeavesTheLowNibbleOfTheLastByteZero) {
  const uint8_t pixels[] = {0xF, 0xF, 0xF};
  auto out = exactBlock(2);
  std::memset(out.get(), 0xFF, 2);
  zel::codec::packNibbles(pixels, 3, out.get());
  EXPECT_EQ(bytesOf(out.get(), 2), (std::vector<uint8_t>{0xFF, 0xF0}));
}

TEST(CodecBitmapLayout, UnpackingTakesTheHighNibbleFirstAndStopsAtTheCount) {
  const uint8_t packed[] = {0x9A, 0x5F};
  auto out = exactBlock(3);
  zel::codec::unpackNibbles(packed, 3, out.get());
  EXPECT_EQ(bytesOf(out.get(), 3), (std::vector<uint8_t>{0x9, 0xA, 0x5}));
}

TEST(CodecBitmapLayout, NibblesPackAndUnpackBackForEveryCount) {
  std::mt19937 rng(7004);
  for (int64_t count = 0; count <= 33; ++count) {
    SCOPED_TRACE(count);
    const auto size = static_cast<size_t>(count);
    const auto packedSize = static_cast<size_t>(zel::codec::packedNibbleBytes(count));
    auto pixels = exactBlock(size);
    auto packed = exactBlock(packedSize);
    auto back = exactBlock(size);
    fillRandom(rng, pixels.get(), size);
    zel::codec::packNibbles(pixels.get(), count, packed.get());
    zel::codec::unpackNibbles(packed.get(), count, back.get());
    for (size_t i = 0; i < size; ++i)
      EXPECT_EQ(back[i], pixels[i] & 0x0F) << i;
  }
}

TEST(CodecBitmapLayout, InterleavedRowsPutBlueFirstAndRedLast) {
  const uint8_t red[] = {1, 2};
  const uint8_t green[] = {3, 4};
  const uint8_t blue[] = {5, 6};
  const uint8_t *const planes[3] = {red, green, blue};
  auto row = exactBlock(6);
  zel::codec::interleaveBgr(planes, 2, row.get());
  EXPECT_EQ(bytesOf(row.get(), 6), (std::vector<uint8_t>{5, 3, 1, 6, 4, 2}));

  std::array<uint8_t, 2> r{}, g{}, b{};
  uint8_t *const out[3] = {r.data(), g.data(), b.data()};
  zel::codec::deinterleaveBgr(row.get(), 2, out);
  EXPECT_EQ(r, (std::array<uint8_t, 2>{1, 2}));
  EXPECT_EQ(g, (std::array<uint8_t, 2>{3, 4}));
  EXPECT_EQ(b, (std::array<uint8_t, 2>{5, 6}));
}

TEST(CodecBitmapLayout, InterleaveAndDeinterleaveRoundTripForEveryCount) {
  std::mt19937 rng(7005);
  for (int64_t count = 0; count <= 17; ++count) {
    SCOPED_TRACE(count);
    const auto size = static_cast<size_t>(count);
    std::array<std::unique_ptr<uint8_t[]>, 3> planes, back;
    for (int band = 0; band < 3; ++band) {
      planes[band] = exactBlock(size);
      back[band] = exactBlock(size);
      fillRandom(rng, planes[band].get(), size);
    }
    auto row = exactBlock(3 * size);
    const uint8_t *const in[3] = {planes[0].get(), planes[1].get(), planes[2].get()};
    uint8_t *const out[3] = {back[0].get(), back[1].get(), back[2].get()};
    zel::codec::interleaveBgr(in, count, row.get());
    for (size_t i = 0; i < size; ++i) {
      EXPECT_EQ(row[3 * i], planes[2][i]);
      EXPECT_EQ(row[3 * i + 1], planes[1][i]);
      EXPECT_EQ(row[3 * i + 2], planes[0][i]);
    }
    zel::codec::deinterleaveBgr(row.get(), count, out);
    for (int band = 0; band < 3; ++band)
      EXPECT_EQ(bytesOf(back[band].get(), size), bytesOf(planes[band].get(), size)) << band;
  }
}

// ---- Attributes -----------------------------------------------------------------------------

TEST(CodecIntegerAttribute, ReadsTheIntegerAttributesOfALiveObject) {
  ContextGuard ctx;
  ZelObject *object = makeImage(ctx, {{"compression", ZelPackBits},
                                      {"xDimension", 12},
                                      {"xMatchPoint", -7},
                                      {"repository", ZelWorkSpace}});
  ASSERT_NE(object, nullptr);
  const std::vector<std::pair<const char *, int32_t>> expected = {{"compression", ZelPackBits},
                                                                  {"xDimension", 12},
                                                                  {"xMatchPoint", -7},
                                                                  {"repository", ZelWorkSpace}};
  for (const auto &[name, value] : expected) {
    int32_t read = 0x5A5A5A5A;
    EXPECT_EQ(zel::codec::integerAttribute(ctx, object, name, read), 0) << name;
    EXPECT_EQ(read, value) << name;
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(CodecIntegerAttribute, DeadHandleIsAnInvalidInstance) {
  ContextGuard ctx;
  ZelObject *object = makeImage(ctx, {{"compression", ZelLzw}});
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel002(ctx, object), 0);
  clearLastError(ctx);
  int32_t value = 0;
  EXPECT_EQ(zel::codec::integerAttribute(ctx, object, "compression", value), 9);
  EXPECT_EQ(Zel003b(ctx), 9);
  clearLastError(ctx);
  EXPECT_EQ(zel::codec::integerAttribute(ctx, nullptr, "compression", value), 9);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(CodecIntegerAttribute, UnusableContextIsRefused) {
  ContextGuard ctx;
  ZelObject *object = makeImage(ctx, {{"compression", ZelLzw}});
  ASSERT_NE(object, nullptr);
  int32_t value = 0;
  EXPECT_EQ(zel::codec::integerAttribute(nullptr, object, "compression", value), 24);
  EXPECT_EQ(Zel003b(ctx), 0);
}

}  // namespace
