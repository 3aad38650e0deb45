// Compression and expansion dispatched on the compressed object's "compression": the context
// and both handles are checked first, then the image must be plain and the compressed object
// must name a family. Every refusal records its code and leaves both objects as they were: the
// same record, the same bytes, no stream, file or descriptor left open and no file made.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kernel/context.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

// The values of "compression" that name a codec family.
constexpr int32_t kTableValues[] = {ZelFaxGroup3OneDimensional,
                                    ZelFaxGroup3TwoDimensional,
                                    ZelFaxGroup4,
                                    ZelModifiedHuffman,
                                    ZelJpeg,
                                    ZelLzw,
                                    ZelPackBits,
                                    ZelKolLine,
                                    ZelBmpRunLength,
                                    ZelPcxRunLength,
                                    ZelPngDeflate};

// The families whose codec this build doesn't have yet; a value leaves this list, and gets tests
// of its own, when its codec joins the library.
constexpr int32_t kFamiliesWithoutCodec[] = {ZelFaxGroup3OneDimensional,
                                             ZelFaxGroup3TwoDimensional,
                                             ZelFaxGroup4,
                                             ZelModifiedHuffman,
                                             ZelJpeg,
                                             ZelLzw,
                                             ZelPackBits,
                                             ZelKolLine,
                                             ZelBmpRunLength,
                                             ZelPcxRunLength};

// Values next to those of the table, inside and outside 80 to 264, and the extremes.
constexpr int32_t kOutsideTheTable[] = {0,   -1,  79,  83,  89,  91,  100, 113,       115,
                                        135, 137, 155, 157, 263, 265, 256, INT32_MIN, INT32_MAX};

constexpr int kRepositories[] = {ZelApplicationAddressSpace, ZelWorkSpace, ZelFile};

constexpr size_t kImageBytes = 12;       // 4 x 3 NonNegative pixels
constexpr size_t kCompressedBytes = 16;  // a row of 16 bytes of stream

// Both functions, called with the image first.
struct Direction {
  const char *name;
  int (*call)(ZelContext *ctx, ZelObject *image, ZelObject *compressed);
};

const Direction kCompress{"compress", [](ZelContext *ctx, ZelObject *image, ZelObject *compressed) {
                            return Zel700(ctx, image, compressed);
                          }};
const Direction kExpand{"expand", [](ZelContext *ctx, ZelObject *image, ZelObject *compressed) {
                          return Zel701(ctx, compressed, image);
                        }};
const Direction kDirections[] = {kCompress, kExpand};

// What a refused call must leave as it was.
struct ObjectState {
  std::vector<unsigned char> record;
  std::vector<uint8_t> data;
  bool operator==(const ObjectState &) const = default;
};

std::set<std::string> directoryListing(const fs::path &directory) {
  std::set<std::string> names;
  for (const auto &entry : fs::directory_iterator(directory))
    names.insert(entry.path().filename().string());
  return names;
}

class CompressionDispatch : public OperatorFixture {
 protected:
  // A plain 4 x 3 image with pixels, its "compression" set when not 0.
  ZelObject *image(int repository, int32_t compression = 0, bool boolean = false) {
    Image pixels = randomImage(rng_, {4, 3, 1, 1, 1}, boolean);
    ZelObject *object = objects_->make(pixels, repository, true);
    setCompression(object, compression);
    return object;
  }

  // A row of 16 bytes of stream with the given "compression".
  ZelObject *compressed(int repository, int32_t compression) {
    ZelObject *object =
        objects_->make(randomImage(rng_, {16, 1, 1, 1, 1}, false), repository, true);
    setCompression(object, compression);
    return object;
  }

  // Setting "compression" clears "inited"; the object keeps its data all the same.
  void setCompression(ZelObject *object, int32_t compression) {
    if (!object || compression == 0) return;
    const ZelAttribute list[] = {{"compression", compression}, {"inited", 1}};
    ASSERT_EQ(Zel006(ctx_, object, list, 2), 0);
    ASSERT_EQ(readAttribute(ctx_, object, "compression"), compression);
  }

  ObjectState stateOf(ZelObject *object, size_t bytes) {
    const auto *record = reinterpret_cast<const unsigned char *>(object);
    return {std::vector<unsigned char>(record, record + sizeof(ZelObject)),
            objects_->bytes(object, bytes)};
  }

  // The call returns `code`, which stands as the last error; the live objects, the files of the
  // working and temporary directories and the open descriptors are as they were.
  void expectRefused(const Direction &direction, ZelObject *imageObject,
                     ZelObject *compressedObject, int code,
                     std::initializer_list<std::pair<ZelObject *, size_t>> live) {
    SCOPED_TRACE(direction.name);
    std::vector<ObjectState> before;
    for (const auto &[object, bytes] : live)
      before.push_back(stateOf(object, bytes));
    const std::set<std::string> files = directoryListing(scratch_.path());
    const int descriptors = openDescriptors();
    clearLastError(ctx_);

    EXPECT_EQ(direction.call(ctx_, imageObject, compressedObject), code);

    EXPECT_EQ(Zel003b(ctx_), code);
    size_t i = 0;
    for (const auto &[object, bytes] : live) {
      EXPECT_TRUE(stateOf(object, bytes) == before[i++]) << "object " << i << " was touched";
      expectNoStreamOpen({object});
    }
    EXPECT_EQ(directoryListing(scratch_.path()), files);
    EXPECT_EQ(takeTemporaryFiles(), "");
    EXPECT_EQ(openDescriptors(), descriptors);
  }

  // A plain image and a compressed object of the given values, in every pair of repositories.
  void expectRefusedInEveryRepository(const Direction &direction, int32_t imageCompression,
                                      int32_t compression, int code) {
    for (int imageRepository : kRepositories) {
      for (int compressedRepository : kRepositories) {
        SCOPED_TRACE(testing::Message() << "image in " << imageRepository << ", compressed in "
                                        << compressedRepository);
        ZelObject *plain = image(imageRepository, imageCompression);
        ZelObject *stream = compressed(compressedRepository, compression);
        ASSERT_TRUE(plain && stream);
        expectRefused(direction, plain, stream, code,
                      {{plain, kImageBytes}, {stream, kCompressedBytes}});
      }
    }
  }

  std::mt19937 rng_{700};
};

TEST_F(CompressionDispatch, CompressingIntoAnObjectWithoutCompressionIsRefusedAndTouchesNothing) {
  expectRefusedInEveryRepository(kCompress, 0, 0, 12);
}

TEST_F(CompressionDispatch, CompressingIntoAnObjectOfAnUnknownCompressionIsRefusedUntouched) {
  expectRefusedInEveryRepository(kCompress, 0, 100, 12);
}

TEST_F(CompressionDispatch, ExpandingIntoAnImageThatIsNotPlainIsRefusedAndTouchesNothing) {
  for (int32_t imageCompression : std::initializer_list<int32_t>{ZelPackBits, ZelLzw, 100, -1}) {
    SCOPED_TRACE(imageCompression);
    expectRefusedInEveryRepository(kExpand, imageCompression, ZelPackBits, 12);
  }
}

TEST_F(CompressionDispatch, CompressingFromAnImageThatIsNotPlainIsRefusedAndTouchesNothing) {
  for (int32_t imageCompression : std::initializer_list<int32_t>{ZelPackBits, ZelPngDeflate, 1}) {
    SCOPED_TRACE(imageCompression);
    expectRefusedInEveryRepository(kCompress, imageCompression, ZelPackBits, 12);
  }
}

TEST_F(CompressionDispatch, ValuesOutsideTheTableAreRefusedInBothDirections) {
  for (const Direction &direction : kDirections) {
    for (int32_t compression : kOutsideTheTable) {
      SCOPED_TRACE(compression);
      ZelObject *plain = image(ZelWorkSpace);
      ZelObject *stream = compressed(ZelWorkSpace, compression);
      ASSERT_TRUE(plain && stream);
      ASSERT_EQ(readAttribute(ctx_, stream, "compression"), compression);
      expectRefused(direction, plain, stream, 12,
                    {{plain, kImageBytes}, {stream, kCompressedBytes}});
    }
  }
}

TEST_F(CompressionDispatch, FamiliesWhoseCodecIsNotBuiltAreRefusedInBothDirections) {
  for (const Direction &direction : kDirections) {
    for (int32_t compression : kFamiliesWithoutCodec) {
      for (bool boolean : {false, true}) {
        SCOPED_TRACE(testing::Message() << compression << (boolean ? " Boolean" : " bytes"));
        ZelObject *plain = image(ZelWorkSpace, 0, boolean);
        ZelObject *stream = compressed(ZelApplicationAddressSpace, compression);
        ASSERT_TRUE(plain && stream);
        expectRefused(direction, plain, stream, 12,
                      {{plain, boolean ? size_t{2} : kImageBytes}, {stream, kCompressedBytes}});
      }
    }
  }
}

TEST_F(CompressionDispatch, EveryValueOfTheTableIsRefusedWhenTheImageIsNotPlain) {
  for (const Direction &direction : kDirections) {
    for (int32_t compression : kTableValues) {
      SCOPED_TRACE(compression);
      ZelObject *plain = image(ZelFile, compression);
      ZelObject *stream = compressed(ZelWorkSpace, compression);
      ASSERT_TRUE(plain && stream);
      expectRefused(direction, plain, stream, 12,
                    {{plain, kImageBytes}, {stream, kCompressedBytes}});
    }
  }
}

TEST_F(CompressionDispatch, RefusalMakesNoFileForACompressedObjectNotYetWritten) {
  for (const Direction &direction : kDirections) {
    for (int32_t compression : std::initializer_list<int32_t>{0, 100, ZelPackBits, ZelFaxGroup4}) {
      SCOPED_TRACE(compression);
      ZelObject *plain = image(ZelWorkSpace);
      ZelObject *stream = objects_->make(Image({16, 1, 1, 1, 1}, false), ZelFile, false);
      ASSERT_TRUE(plain && stream);
      ASSERT_EQ(Zel006a(ctx_, stream, "fileName", word("fresh.bin")), 0);
      setCompression(stream, compression);
      expectRefused(direction, plain, stream, 12, {{plain, kImageBytes}, {stream, 0}});
      EXPECT_FALSE(fs::exists("fresh.bin"));
      EXPECT_EQ(readAttribute(ctx_, stream, "size"), 0);
    }
  }
}

TEST_F(CompressionDispatch, InvalidHandlesAreReportedBeforeCompressionIsLookedAt) {
  ContextGuard other;
  ASSERT_NE(other.get(), nullptr);
  ZelObject *foreign = makeImage(other, {{"xDimension", 4}});
  ASSERT_NE(foreign, nullptr);
  // Each live object would be refused with 12 for its "compression".
  ZelObject *plain = image(ZelWorkSpace, ZelLzw);
  ZelObject *stream = compressed(ZelFile, 0);
  ASSERT_TRUE(plain && stream);
  // Destroyed last: a record given back is taken again by the next object made.
  ZelObject *dead = image(ZelWorkSpace, ZelPackBits);
  ASSERT_NE(dead, nullptr);
  ASSERT_EQ(Zel002(ctx_, dead), 0);
  const std::initializer_list<std::pair<ZelObject *, size_t>> live = {{plain, kImageBytes},
                                                                      {stream, kCompressedBytes}};
  for (const Direction &direction : kDirections) {
    expectRefused(direction, dead, stream, 9, live);
    expectRefused(direction, plain, dead, 9, live);
    expectRefused(direction, nullptr, stream, 9, live);
    expectRefused(direction, plain, nullptr, 9, live);
    expectRefused(direction, foreign, stream, 9, live);
    expectRefused(direction, plain, foreign, 9, live);
    expectRefused(direction, dead, nullptr, 9, live);
  }
  EXPECT_EQ(Zel003b(other), 0);
}

TEST_F(CompressionDispatch, UnusableContextIsRefusedBeforeTheHandles) {
  ZelContext *closed = Zel004(nullptr);
  ASSERT_NE(closed, nullptr);
  ASSERT_EQ(Zel001(closed), 0);
  int notAContext = 0;
  ZelContext *contexts[] = {nullptr, closed, reinterpret_cast<ZelContext *>(&notAContext)};
  for (const Direction &direction : kDirections) {
    ZelObject *plain = image(ZelApplicationAddressSpace);
    ZelObject *stream = compressed(ZelWorkSpace, ZelLzw);
    ASSERT_TRUE(plain && stream);
    const ObjectState plainBefore = stateOf(plain, kImageBytes);
    const ObjectState streamBefore = stateOf(stream, kCompressedBytes);
    clearLastError(ctx_);
    for (ZelContext *ctx : contexts) {
      EXPECT_EQ(direction.call(ctx, plain, stream), 24) << direction.name;
      EXPECT_EQ(direction.call(ctx, nullptr, nullptr), 24) << direction.name;
    }
    EXPECT_EQ(notAContext, 0);
    EXPECT_EQ(Zel003b(ctx_), 0);
    EXPECT_TRUE(stateOf(plain, kImageBytes) == plainBefore);
    EXPECT_TRUE(stateOf(stream, kCompressedBytes) == streamBefore);
    expectNoStreamOpen({plain, stream});
  }
}

}  // namespace
