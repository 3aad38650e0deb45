// Byte and bit access to repository streams: byte ranges in memory and in files, bit streams
// with the zero byte stuffed after 0xFF, aligned markers, the ends of the data and the "size"
// that a bit stream leaves behind.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "access/repository.h"
#include "kernel/context.h"
#include "kernel/objects.h"
#include "test_support.h"

namespace {

using zel::test::clearLastError;
using zel::test::fileBytes;
using zel::test::makeImage;
using zel::test::openStream;
using zel::test::Stream;
using zel::test::word;
using zel::test::writeFile;

using zel::RepositoryStream;
using zel::test::ContextGuard;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

namespace fs = std::filesystem;

// An object of `bytes` 8-bit pixels in the application's memory.
ZelObject *applicationBytes(ZelContext *ctx, std::vector<uint8_t> &memory, int64_t size = 0) {
  return makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                         {"applicationAddressSpace", word(memory.data())},
                         {"size", size},
                         {"xDimension", static_cast<ZelValue>(memory.size())}});
}

ZelObject *workSpaceBytes(ZelContext *ctx, int bytes) {
  return makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", bytes}});
}

ZelObject *fileBytesObject(ZelContext *ctx, const char *name, int bytes) {
  return makeImage(ctx, {{"fileName", word(name)}, {"xDimension", bytes}});
}

const uint8_t *workSpaceOf(ZelContext *ctx, ZelObject *object) {
  return reinterpret_cast<const uint8_t *>(readAttribute(ctx, object, "workSpace"));
}

// ---- Bytes ------------------------------------------------------------------------------------

TEST(ByteAccess, ReadBytesEndingAtTheLimitSucceeds) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  ZelObject *sized = applicationBytes(ctx, memory, 10);
  ZelObject *work = workSpaceBytes(ctx, 16);
  ASSERT_NE(sized, nullptr);
  ASSERT_NE(work, nullptr);
  Stream a = openStream(ctx, sized, "r");
  Stream w = openStream(ctx, work, "r");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(a->limitBytes, 10);
  ASSERT_EQ(w->limitBytes, 16);
  uint8_t buffer[8] = {};
  EXPECT_EQ(zel::readBytes(ctx, a.get(), 2, buffer, 8), 8);
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 8),
            (std::vector<uint8_t>{3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(zel::readBytes(ctx, w.get(), 8, buffer, 8), 8);
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 8), std::vector<uint8_t>(8, 0));
  EXPECT_EQ(zel::readBytes(ctx, a.get(), 10, buffer, 0), 0);
}

TEST(ByteAccess, ReadBytesOutsideTheMemoryIsASystemFailure) {
  ContextGuard ctx;
  std::vector<uint8_t> memory(12, 0x11);
  ZelObject *sized = applicationBytes(ctx, memory, 10);
  ZelObject *work = workSpaceBytes(ctx, 16);
  Stream a = openStream(ctx, sized, "r");
  Stream w = openStream(ctx, work, "r");
  ASSERT_TRUE(a && w);
  uint8_t buffer[8];
  std::memset(buffer, 0xEE, sizeof buffer);
  struct {
    RepositoryStream *stream;
    int64_t offset, count;
  } cases[] = {{a.get(), 3, 8}, {a.get(), -1, 2}, {a.get(), 0, -1},
               {w.get(), 9, 8}, {w.get(), -4, 4}, {w.get(), 16, 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.offset << " + " << c.count);
    clearLastError(ctx);
    EXPECT_EQ(zel::readBytes(ctx, c.stream, c.offset, buffer, c.count), -1);
    EXPECT_EQ(Zel003b(ctx), -1);
  }
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 8), std::vector<uint8_t>(8, 0xEE));
}

TEST(ByteAccess, WriteBytesBeyondTheMemoryBlockIsInsufficientSize) {
  ContextGuard ctx;
  std::vector<uint8_t> memory(8, 0);
  ZelObject *sized = applicationBytes(ctx, memory, 6);
  ZelObject *work = workSpaceBytes(ctx, 8);
  Stream a = openStream(ctx, sized, "w");
  Stream w = openStream(ctx, work, "w");
  ASSERT_TRUE(a && w);
  const uint8_t bytes[] = {0xA1, 0xA2, 0xA3, 0xA4};
  EXPECT_EQ(zel::writeBytes(ctx, a.get(), 4, bytes, 2), 2);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeBytes(ctx, a.get(), 4, bytes, 3), -1);
  EXPECT_EQ(Zel003b(ctx), 8);
  EXPECT_EQ(memory, (std::vector<uint8_t>{0, 0, 0, 0, 0xA1, 0xA2, 0, 0}));

  EXPECT_EQ(zel::writeBytes(ctx, w.get(), 4, bytes, 4), 4);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeBytes(ctx, w.get(), 5, bytes, 4), -1);
  EXPECT_EQ(Zel003b(ctx), 8);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeBytes(ctx, w.get(), -1, bytes, 1), -1);
  EXPECT_EQ(Zel003b(ctx), 8);
  const uint8_t *block = workSpaceOf(ctx, work);
  EXPECT_EQ(std::vector<uint8_t>(block, block + 8),
            (std::vector<uint8_t>{0, 0, 0, 0, 0xA1, 0xA2, 0xA3, 0xA4}));
}

TEST(ByteAccess, WriteBytesInMemoryGoesStraightToTheData) {
  ContextGuard ctx;
  std::vector<uint8_t> memory(6, 0);
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "w");
  ASSERT_NE(stream, nullptr);
  const uint8_t bytes[] = {7, 8, 9};
  EXPECT_EQ(zel::writeBytes(ctx, stream.get(), 3, bytes, 3), 3);
  EXPECT_EQ(memory, (std::vector<uint8_t>{0, 0, 0, 7, 8, 9}));
}

TEST(ByteAccess, BytesOfAFileAreWrittenAndReadAtTheirOffsets) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *object = makeImage(
      ctx, {{"fileName", word("bytes.bin")}, {"compression", ZelLzw}, {"xDimension", 64}});
  ASSERT_NE(object, nullptr);
  {
    Stream stream = openStream(ctx, object, "w");
    ASSERT_NE(stream, nullptr);
    const uint8_t tail[] = {5, 6, 7};
    const uint8_t head[] = {1, 2};
    EXPECT_EQ(zel::writeBytes(ctx, stream.get(), 4, tail, 3), 3);
    EXPECT_EQ(stream->filePosition, 7);
    EXPECT_EQ(zel::writeBytes(ctx, stream.get(), 0, head, 2), 2);
    EXPECT_EQ(stream->filePosition, 2);
  }
  EXPECT_EQ(fileBytes("bytes.bin"), (std::vector<uint8_t>{1, 2, 0, 0, 5, 6, 7}));
  Stream reader = openStream(ctx, object, "r");
  ASSERT_NE(reader, nullptr);
  uint8_t buffer[4] = {};
  EXPECT_EQ(zel::readBytes(ctx, reader.get(), 3, buffer, 4), 4);
  EXPECT_EQ(reader->filePosition, 7);
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 4), (std::vector<uint8_t>{0, 5, 6, 7}));
  EXPECT_EQ(zel::readBytes(ctx, reader.get(), 0, buffer, 2), 2);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[1], 2);
}

TEST(ByteAccess, ReadBytesPastTheEndOfAFileIsASystemFailure) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  writeFile("short.bin", {1, 2, 3});
  ZelObject *object = fileBytesObject(ctx, "short.bin", 16);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint8_t buffer[4];
  clearLastError(ctx);
  EXPECT_EQ(zel::readBytes(ctx, stream.get(), 1, buffer, 4), -1);
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(zel::readBytes(ctx, stream.get(), 1, buffer, 2), 2);
}

// ---- Bits ---------------------------------------------------------------------------------------

TEST(BitAccess, StreamsStartWithTheMaskAtTheFirstBitAndTheBufferByMode) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  writeFile("start.bin", {0});
  ZelObject *file = fileBytesObject(ctx, "start.bin", 1);
  ZelObject *work = workSpaceBytes(ctx, 4);
  Stream reader = openStream(ctx, file, "r");
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(reader->bitMask, 128);
  EXPECT_EQ(reader->bitByteCount, 0);
  EXPECT_EQ(reader->bitBufferIndex, zel::bitBufferBytes);
  EXPECT_NE(reader->bitBuffer, nullptr);
  reader.reset();
  Stream writer = openStream(ctx, file, "w");
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(writer->bitMask, 128);
  EXPECT_EQ(writer->bitBufferIndex, 0);
  Stream memory = openStream(ctx, work, "w");
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(memory->bitMask, 128);
  EXPECT_EQ(memory->bitByteCount, 0);
}

TEST(BitAccess, CompletingAnFfByteStuffsAZeroAndCountsBoth) {
  ContextGuard ctx;
  ZelObject *work = workSpaceBytes(ctx, 8);
  ASSERT_NE(work, nullptr);
  {
    Stream stream = openStream(ctx, work, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0xF, 4), 0);
    EXPECT_EQ(stream->bitByteCount, 0);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x1F, 5), 0);  // completes 0xFF, one bit over
    EXPECT_EQ(stream->bitByteCount, 2);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x12, 7), 0);
    EXPECT_EQ(stream->bitByteCount, 3);
  }
  const uint8_t *block = workSpaceOf(ctx, work);
  EXPECT_EQ(std::vector<uint8_t>(block, block + 4), (std::vector<uint8_t>{0xFF, 0x00, 0x92, 0}));
  EXPECT_EQ(readAttribute(ctx, work, "size"), 3);
}

TEST(BitAccess, CompletingAnFfByteInAFileStuffsAZeroAndCountsBoth) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *file = fileBytesObject(ctx, "stuffed.bin", 16);
  ASSERT_NE(file, nullptr);
  {
    Stream stream = openStream(ctx, file, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x3FF, 10), 0);
    EXPECT_EQ(stream->bitByteCount, 2);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x12, 6), 0);
    EXPECT_EQ(stream->bitByteCount, 3);
  }
  EXPECT_EQ(fileBytes("stuffed.bin"), (std::vector<uint8_t>{0xFF, 0x00, 0xD2}));
  EXPECT_EQ(readAttribute(ctx, file, "size"), 3);
}

TEST(BitAccess, ReadBitsGivesTheBitsBackWithoutTheStuffedZero) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *work = workSpaceBytes(ctx, 8);
  ZelObject *file = fileBytesObject(ctx, "round.bin", 8);
  ASSERT_NE(work, nullptr);
  ASSERT_NE(file, nullptr);
  for (ZelObject *object : {work, file}) {
    Stream stream = openStream(ctx, object, "w");
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(zel::writeBits(ctx, stream.get(), 0x7, 3), 0);
    ASSERT_EQ(zel::writeBits(ctx, stream.get(), 0x1F12, 13), 0);
    ASSERT_EQ(zel::writeBits(ctx, stream.get(), 0x3, 5), 0);
  }
  // 111 11111 00010010 00011: the stream holds FF 00 12 18, a zero after the 0xFF byte.
  const uint8_t *block = workSpaceOf(ctx, work);
  EXPECT_EQ(std::vector<uint8_t>(block, block + 5),
            (std::vector<uint8_t>{0xFF, 0x00, 0x12, 0x18, 0}));
  EXPECT_EQ(readAttribute(ctx, work, "size"), 4);
  EXPECT_EQ(fileBytes("round.bin"), (std::vector<uint8_t>{0xFF, 0x00, 0x12, 0x18}));
  for (ZelObject *object : {work, file}) {
    Stream stream = openStream(ctx, object, "r");
    ASSERT_NE(stream, nullptr);
    uint32_t value = 0;
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 3), 0);
    EXPECT_EQ(value, 0x7u);
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 13), 0);
    EXPECT_EQ(value, 0x1F12u);
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 5), 0);
    EXPECT_EQ(value, 0x3u);
  }
}

TEST(BitAccess, ReadBitsSkipsTheZeroAfterAnFfByte) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0xFF, 0x00, 0x12, 0xFF, 0x00, 0xFF, 0x00};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 12), 0);
  EXPECT_EQ(value, 0xFF1u);
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 20), 0);
  EXPECT_EQ(value, 0x2FFFFu);
  EXPECT_EQ(stream->bitByteCount, 7);
}

TEST(BitAccess, ReadBitsClearsTheValueBeforeSettingBits) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0x50};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0xFFFFFFFF;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 4), 0);
  EXPECT_EQ(value, 0x5u);
  value = 0xFFFFFFFF;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 4), 0);
  EXPECT_EQ(value, 0u);
}

TEST(BitAccess, ReadBitStoresTheBitAndMovesTheMask) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0xA0};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  const uint32_t expected[] = {1, 0, 1, 0, 0, 0, 0, 0};
  for (int i = 0; i < 8; ++i) {
    uint32_t bit = 7;
    EXPECT_EQ(zel::readBit(ctx, stream.get(), &bit), 0);
    EXPECT_EQ(bit, expected[i]) << i;
    EXPECT_EQ(stream->bitMask, i == 7 ? 128 : 64 >> i) << i;
  }
}

TEST(BitAccess, ReadBitsWithCountZeroReadsThirtyTwoBits) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0x12, 0x34, 0x56, 0x78, 0x9A};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 0), 0);
  EXPECT_EQ(value, 0x12345678u);
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
  EXPECT_EQ(value, 0x9Au);
}

TEST(BitAccess, ReadBitAtTheEndOfMemoryIsInsufficientSize) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0xC3};
  ZelObject *object = applicationBytes(ctx, memory);
  ZelObject *work = workSpaceBytes(ctx, 1);
  for (ZelObject *source : {object, work}) {
    Stream stream = openStream(ctx, source, "r");
    ASSERT_NE(stream, nullptr);
    uint32_t value = 0;
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
    clearLastError(ctx);
    uint32_t bit = 0;
    EXPECT_EQ(zel::readBit(ctx, stream.get(), &bit), 8);
    EXPECT_EQ(Zel003b(ctx), 8);
    clearLastError(ctx);
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 3), 8);
    EXPECT_EQ(Zel003b(ctx), 8);
  }
}

TEST(BitAccess, FfAtTheEndOfMemoryNeedsItsStuffedZero) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0x01, 0xFF};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
  clearLastError(ctx);
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 8);
  EXPECT_EQ(Zel003b(ctx), 8);
}

TEST(BitAccess, ReadBitAtTheEndOfAFileGivesWhatTheBufferHeld) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  writeFile("small.bin", {0x5A, 0xC3});
  ZelObject *object = fileBytesObject(ctx, "small.bin", 2);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 16), 0);
  EXPECT_EQ(value, 0x5AC3u);
  // The buffer started out cleared, and the short read left the rest of it so.
  clearLastError(ctx);
  value = 0xFFFFFFFF;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
  EXPECT_EQ(value, 0u);
  uint32_t bit = 1;
  EXPECT_EQ(zel::readBit(ctx, stream.get(), &bit), 0);
  EXPECT_EQ(bit, 0u);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(BitAccess, ReadBitsPastTheEndOfALongerFileGiveTheBytesLeftInTheBuffer) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  std::vector<uint8_t> bytes(515);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(i % 250 + 1);  // never 0xFF
  writeFile("long.bin", bytes);
  ZelObject *object = fileBytesObject(ctx, "long.bin", 515);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    ASSERT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0) << i;
    ASSERT_EQ(value, bytes[i]) << i;
  }
  // The second fill brought three bytes; the buffer still holds the first fill after them.
  for (size_t i = 3; i < 6; ++i) {
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
    EXPECT_EQ(value, bytes[i]) << i;
  }
}

TEST(BitAccess, FfFollowedByANonZeroByteIsASemanticalError) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  std::vector<uint8_t> memory{0x80, 0xFF, 0x12};
  writeFile("bad.bin", memory);
  ZelObject *object = applicationBytes(ctx, memory);
  ZelObject *file = fileBytesObject(ctx, "bad.bin", 3);
  for (ZelObject *source : {object, file}) {
    Stream stream = openStream(ctx, source, "r");
    ASSERT_NE(stream, nullptr);
    uint32_t value = 0;
    EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
    EXPECT_EQ(value, 0x80u);
    clearLastError(ctx);
    uint32_t bit = 0;
    EXPECT_EQ(zel::readBit(ctx, stream.get(), &bit), 19);
    EXPECT_EQ(Zel003b(ctx), 19);
  }
}

TEST(BitAccess, ReadBitsAlignedDropsTheRestOfTheByteAndTakesFfAsData) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0xA5, 0xFF, 0x3C, 0x7E};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "r");
  ASSERT_NE(stream, nullptr);
  uint32_t value = 0;
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 3), 0);
  EXPECT_EQ(value, 0x5u);
  value = 0xFFFFFFFF;
  EXPECT_EQ(zel::readBitsAligned(ctx, stream.get(), &value, 8), 0);
  EXPECT_EQ(value, 0xFFu);
  EXPECT_EQ(zel::readBits(ctx, stream.get(), &value, 8), 0);
  EXPECT_EQ(value, 0x3Cu);
  // At a byte boundary nothing is dropped.
  EXPECT_EQ(zel::readBitsAligned(ctx, stream.get(), &value, 4), 0);
  EXPECT_EQ(value, 0x7u);
}

TEST(BitAccess, AlignedMarkerAfterMidByteDataLeavesTheByteRestZero) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *work = workSpaceBytes(ctx, 8);
  ZelObject *file = fileBytesObject(ctx, "marker.bin", 8);
  for (ZelObject *object : {work, file}) {
    Stream stream = openStream(ctx, object, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x5, 3), 0);
    EXPECT_EQ(zel::writeBitsAligned(ctx, stream.get(), 0xFFD9, 16), 0);
    EXPECT_EQ(stream->bitByteCount, 3);
    EXPECT_EQ(stream->bitMask, 128);
  }
  const uint8_t *block = workSpaceOf(ctx, work);
  EXPECT_EQ(std::vector<uint8_t>(block, block + 4), (std::vector<uint8_t>{0xA0, 0xFF, 0xD9, 0}));
  EXPECT_EQ(readAttribute(ctx, work, "size"), 3);
  EXPECT_EQ(fileBytes("marker.bin"), (std::vector<uint8_t>{0xA0, 0xFF, 0xD9}));
  EXPECT_EQ(readAttribute(ctx, file, "size"), 3);
}

TEST(BitAccess, AlignedWriteAtAByteBoundaryAddsNoByte) {
  ContextGuard ctx;
  ZelObject *work = workSpaceBytes(ctx, 8);
  Stream stream = openStream(ctx, work, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x81, 8), 0);
  EXPECT_EQ(zel::writeBitsAligned(ctx, stream.get(), 0xC, 4), 0);
  EXPECT_EQ(stream->bitByteCount, 1);
  EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x3, 4), 0);
  EXPECT_EQ(stream->bitByteCount, 2);
  const uint8_t *block = workSpaceOf(ctx, work);
  EXPECT_EQ(block[0], 0x81);
  EXPECT_EQ(block[1], 0xC3);
}

TEST(BitAccess, WriteBitsPastTheMemoryIsInsufficientSize) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x12, 8), 0);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x34, 8), 8);
  EXPECT_EQ(Zel003b(ctx), 8);
  EXPECT_EQ(memory[0], 0x12);
}

TEST(BitAccess, StuffedZeroPastTheMemoryIsInsufficientSize) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0};
  ZelObject *object = applicationBytes(ctx, memory);
  Stream stream = openStream(ctx, object, "w");
  ASSERT_NE(stream, nullptr);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0xFF, 8), 8);
  EXPECT_EQ(Zel003b(ctx), 8);
  EXPECT_EQ(memory[0], 0xFF);
}

TEST(BitAccess, UnfinishedByteInMemoryIsStoredAndCountedAtClose) {
  ContextGuard ctx;
  std::vector<uint8_t> memory(4, 0);
  ZelObject *object = applicationBytes(ctx, memory);
  {
    Stream stream = openStream(ctx, object, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0xA5, 8), 0);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0xB, 4), 0);
    EXPECT_EQ(stream->bitByteCount, 1);
  }
  EXPECT_EQ(memory, (std::vector<uint8_t>{0xA5, 0xB0, 0, 0}));
  EXPECT_EQ(readAttribute(ctx, object, "size"), 2);
}

TEST(BitAccess, UnfinishedByteBeyondTheMemoryIsInsufficientSizeAtClose) {
  ContextGuard ctx;
  std::vector<uint8_t> memory{0};
  ZelObject *object = applicationBytes(ctx, memory);
  RepositoryStream *stream = zel::openRepositoryStream(ctx, object, "w", 1);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(zel::writeBits(ctx, stream, 0xAB, 8), 0);
  EXPECT_EQ(zel::writeBits(ctx, stream, 0x1, 1), 0);
  clearLastError(ctx);
  zel::closeRepositoryStream(ctx, stream);
  EXPECT_EQ(Zel003b(ctx), 8);
  EXPECT_EQ(readAttribute(ctx, object, "size"), 0);
  EXPECT_EQ(memory[0], 0xAB);
}

TEST(BitAccess, UnfinishedByteOfAFileIsWrittenAndCountedInSize) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *file = fileBytesObject(ctx, "nibble.bin", 16);
  {
    Stream stream = openStream(ctx, file, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x3C, 8), 0);
    EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0xB, 4), 0);
    EXPECT_EQ(stream->bitByteCount, 1);
  }
  EXPECT_EQ(fileBytes("nibble.bin"), (std::vector<uint8_t>{0x3C, 0xB0}));
  EXPECT_EQ(readAttribute(ctx, file, "size"), 2);
}

TEST(BitAccess, FileBitStreamGoesOutInBlocksOfTheBuffer) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int count = 1300;
  ZelObject *file = fileBytesObject(ctx, "blocks.bin", count);
  std::vector<uint8_t> expected(count);
  for (int i = 0; i < count; ++i)
    expected[i] = static_cast<uint8_t>(i % 251);  // never 0xFF
  {
    Stream stream = openStream(ctx, file, "w");
    ASSERT_NE(stream, nullptr);
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(zel::writeBits(ctx, stream.get(), expected[i], 8), 0);
      if (i == zel::bitBufferBytes - 2) {
        EXPECT_TRUE(fileBytes("blocks.bin").empty());
      }
      if (i == zel::bitBufferBytes) {
        EXPECT_EQ(fileBytes("blocks.bin").size(), 512u);
      }
    }
    EXPECT_EQ(stream->bitByteCount, count);
    EXPECT_EQ(stream->bitBufferIndex, count % zel::bitBufferBytes);
  }
  EXPECT_EQ(fileBytes("blocks.bin"), expected);
  EXPECT_EQ(readAttribute(ctx, file, "size"), count);

  Stream reader = openStream(ctx, file, "r");
  ASSERT_NE(reader, nullptr);
  for (int i = 0; i < count; ++i) {
    uint32_t value = 0;
    ASSERT_EQ(zel::readBits(ctx, reader.get(), &value, 8), 0);
    ASSERT_EQ(value, expected[i]) << i;
  }
}

TEST(BitAccess, StreamThatNeverUsedBitsLeavesSizeAlone) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *work = makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"size", 77}});
  ZelObject *file =
      makeImage(ctx, {{"fileName", word("plain.bin")}, {"xDimension", 8}, {"size", 77}});
  ASSERT_NE(work, nullptr);
  ASSERT_NE(file, nullptr);
  for (ZelObject *object : {work, file}) {
    Stream stream = openStream(ctx, object, "w");
    ASSERT_NE(stream, nullptr);
    uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 0);
    ASSERT_NE(line, nullptr);
    std::memset(line, 0x42, 8);
    ASSERT_NE(zel::writeLine(ctx, stream.get(), 0), nullptr);
    const uint8_t more[] = {1, 2};
    ASSERT_EQ(zel::writeBytes(ctx, stream.get(), 6, more, 2), 2);
    EXPECT_EQ(stream->bitByteCount, 0);
  }
  EXPECT_EQ(readAttribute(ctx, work, "size"), 77);
  EXPECT_EQ(readAttribute(ctx, file, "size"), 77);
  EXPECT_EQ(fileBytes("plain.bin"),
            (std::vector<uint8_t>{0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 1, 2}));
}

TEST(BitAccess, FailedFlushOfAFileBitStreamReportsAndLeavesSizeAlone) {
  ScratchDirectory scratch;
  fs::create_symlink("/dev/full", "full");
  ContextGuard ctx;
  ZelObject *file = makeImage(ctx, {{"fileName", word("full")}, {"xDimension", 8}});
  ASSERT_NE(file, nullptr);
  RepositoryStream *stream = zel::openRepositoryStream(ctx, file, "w", 1);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(zel::writeBits(ctx, stream, 0x1234, 16), 0);
  clearLastError(ctx);
  zel::closeRepositoryStream(ctx, stream);
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(readAttribute(ctx, file, "size"), 0);
  EXPECT_EQ(readAttribute(ctx, file, "inited"), 0);
  EXPECT_EQ(file->fileUseCount, 0);
}

TEST(BitAccess, FailedBlockWriteOfAFileBitStreamIsASystemFailure) {
  ScratchDirectory scratch;
  fs::create_symlink("/dev/full", "full");
  ContextGuard ctx;
  ZelObject *file = makeImage(ctx, {{"fileName", word("full")}, {"xDimension", 8}});
  ASSERT_NE(file, nullptr);
  Stream stream = openStream(ctx, file, "w");
  ASSERT_NE(stream, nullptr);
  for (int i = 0; i < zel::bitBufferBytes - 1; ++i)
    ASSERT_EQ(zel::writeBits(ctx, stream.get(), 0x11, 8), 0);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeBits(ctx, stream.get(), 0x11, 8), -1);
  EXPECT_EQ(Zel003b(ctx), -1);
}

}  // namespace
