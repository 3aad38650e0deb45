// Writing with compression on the way and reading with expansion after it: raw pixels of every
// type through files and memory, the checks made before any codec runs (objects that are already
// compressed, palettes that don't cover the levels in use, composites and their pages), the
// routes that end at a codec or a format this build doesn't contain, and the refusals of bad
// files, addresses, sizes and handles. Every call must leave the caller's list as it was, no
// object, temporary file or descriptor behind.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

using List = std::vector<ZelAttribute>;
using Ints = std::initializer_list<int>;

// The pixel types that copy raw, their names and the bits of one element.
struct PixelType {
  int type;
  const char *name;
  int bits;
};
constexpr PixelType kPixelTypes[] = {{ZelBoolean, "Boolean", 1},
                                     {ZelNonNegative, "NonNegative", 8},
                                     {ZelSigned, "Signed", 16},
                                     {ZelReal, "Real", 32},
                                     {ZelWord, "Word", 32}};

const PixelType &pixelType(int type) {
  for (const PixelType &known : kPixelTypes)
    if (known.type == type) return known;
  ADD_FAILURE() << "no raw copy for type " << type;
  return kPixelTypes[1];
}

// Bytes that are valid pixels of the type: any bits, except that Real elements are finite.
std::vector<uint8_t> randomPixels(std::mt19937 &rng, int type, size_t bytes) {
  std::vector<uint8_t> data(bytes);
  if (type == ZelReal) {
    std::uniform_real_distribution<float> value(-1.0e6f, 1.0e6f);
    for (size_t i = 0; i + 4 <= bytes; i += 4) {
      float f = value(rng);
      std::memcpy(&data[i], &f, 4);
    }
    return data;
  }
  for (uint8_t &b : data)
    b = static_cast<uint8_t>(rng() >> 8);
  return data;
}

class Convenience : public OperatorFixture {
 protected:
  static int liveIn(const ZelObject *first) {
    int live = 0;
    for (const ZelObject *record = first; record; record = record->nextSibling)
      live += (record->inUse ? 1 : 0) + liveIn(record->firstChild);
    return live;
  }
  int liveObjects() const { return liveIn(ctx_->rootObject); }

  // The files in the temporary directory; those of objects in files among them.
  std::set<fs::path> temporaryFileSet() const {
    std::set<fs::path> names;
    for (const auto &entry : fs::directory_iterator(temporary_))
      names.insert(entry.path());
    return names;
  }

  // Runs one call with `list` and checks what every call must leave: the list as it was, no
  // object more than before, no temporary file, no descriptor more, and a refusal's code as the
  // last error.
  int checked(const List &list, const std::function<int(const ZelAttribute *, int)> &call) {
    const List before = list;
    int live = liveObjects();
    int descriptors = openDescriptors();
    std::set<fs::path> temporaryFiles = temporaryFileSet();
    clearLastError(ctx_);
    int code = call(list.empty() ? nullptr : list.data(), static_cast<int>(list.size()));
    if (code != 0) {
      EXPECT_EQ(Zel003b(ctx_), code);
    }
    clearLastError(ctx_);
    EXPECT_EQ(liveObjects(), live);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(temporaryFileSet(), temporaryFiles);
    EXPECT_EQ(list.size(), before.size());
    for (size_t i = 0; i < list.size() && i < before.size(); ++i) {
      EXPECT_EQ(list[i].name, before[i].name) << "pair " << i;
      EXPECT_EQ(list[i].value, before[i].value) << "pair " << i;
    }
    return code;
  }

  int write(ZelObject *object, const char *name, int format, const List &list = {}) {
    return checked(list, [&](const ZelAttribute *pairs, int count) {
      return Zel702x(ctx_, object, name, format, pairs, count);
    });
  }
  int read(const char *name, ZelObject *object, int format, const List &list = {}) {
    return checked(list, [&](const ZelAttribute *pairs, int count) {
      return Zel703x(ctx_, name, object, format, pairs, count);
    });
  }
  int readMemory(const void *address, ZelObject *object, int format, int size,
                 const List &list = {}) {
    return checked(list, [&](const ZelAttribute *pairs, int count) {
      return Zel703w(ctx_, address, object, format, size, pairs, count);
    });
  }
  int writeDib(ZelObject *object, void *address, int format, const List &list = {}) {
    return checked(list, [&](const ZelAttribute *pairs, int count) {
      return Zel702z(ctx_, object, address, format, pairs, count);
    });
  }
  int readDib(const void *address, ZelObject *object, int format, const List &list = {}) {
    return checked(list, [&](const ZelAttribute *pairs, int count) {
      return Zel703z(ctx_, address, object, format, pairs, count);
    });
  }

  // An image of the type and shape in work space unless `more` says otherwise, without data;
  // Word pixels live in a Histogram.
  ZelObject *image(int type, const Extent &extent, const List &more = {}) {
    List list = {{"xDimension", extent[0]}, {"yDimension", extent[1]},
                 {"zDimension", extent[2]}, {"tDimension", extent[3]},
                 {"bDimension", extent[4]}, {"repository", ZelWorkSpace}};
    if (type != ZelWord) list.push_back({"dataType", type});
    list.insert(list.end(), more.begin(), more.end());
    Wrapper create = type == ZelWord ? Zel000d : Zel000b;
    ZelObject *object = create(ctx_, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(Zel003b(ctx_), 0);
    if (object) {
      EXPECT_EQ(readAttribute(ctx_, object, "dataType"), type);
    }
    return object;
  }

  size_t byteCount(ZelObject *object) {
    int64_t elements = 1;
    for (const char *name : {"xDimension", "yDimension", "zDimension", "tDimension", "bDimension"})
      elements *= readAttribute(ctx_, object, name);
    int64_t bits =
        elements * pixelType(static_cast<int>(readAttribute(ctx_, object, "dataType"))).bits;
    return static_cast<size_t>((bits + 7) / 8);
  }

  void fill(ZelObject *object, std::vector<uint8_t> bytes) {
    ASSERT_EQ(bytes.size(), byteCount(object));
    ASSERT_EQ(Zel609(ctx_, bytes.data(), object, nullptr, 0), 0);
  }

  // The bytes of the object's pixels as they lie in memory, rows without padding.
  std::vector<uint8_t> contents(ZelObject *object) {
    std::vector<uint8_t> bytes(byteCount(object), 0);
    EXPECT_EQ(Zel605(ctx_, object, bytes.data(), nullptr, 0), 0);
    return bytes;
  }

  ZelObject *levels(const Extent &extent, const std::vector<uint8_t> &values) {
    ZelObject *object = image(ZelNonNegative, extent);
    fill(object, values);
    return object;
  }

  // A palette that says it uses `used` entries, attached to `object`.
  ZelObject *palette(ZelObject *object, int used) {
    const ZelAttribute list[] = {{"usedXDimension", used}};
    ZelObject *lut = Zel000e(ctx_, nullptr, nullptr, list, 1);
    EXPECT_NE(lut, nullptr);
    EXPECT_EQ(Zel006a(ctx_, object, "lut", word(lut)), 0);
    return lut;
  }

  ZelObject *composite(const std::vector<ZelObject *> &entries) {
    const ZelAttribute list[] = {{"entries", static_cast<ZelValue>(entries.size())}};
    ZelObject *object = Zel000z(ctx_, nullptr, nullptr, list, 1);
    EXPECT_NE(object, nullptr);
    for (size_t i = 0; i < entries.size(); ++i)
      EXPECT_EQ(Zel011(ctx_, entries[i], object, static_cast<int>(i)), 0);
    return object;
  }

  // The handle of a destroyed object derived from a live one: only objects derived from that
  // one could take its record again.
  ZelObject *deadImage() {
    ZelObject *parent = image(ZelNonNegative, {4, 4, 1, 1, 1});
    ZelObject *object = Zel000b(ctx_, nullptr, parent, nullptr, 0);
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(Zel002(ctx_, object), 0);
    return object;
  }

  // A TIFF head followed by zeros up to `size` bytes.
  static void writeTiffHead(const char *name, uintmax_t size) {
    writeFile(name, {'I', 'I', 42, 0, 8, 0, 0, 0});
    fs::resize_file(name, size);
  }

  std::mt19937 rng_{20240611};
};

// ---- Raw pixels through files and memory -----------------------------------------------------

using RawCase = std::tuple<int, int>;  // data type, repository of the written object

class RawRoundTrip : public Convenience, public ::testing::WithParamInterface<RawCase> {};

TEST_P(RawRoundTrip, WrittenPixelsAreTheFileAndComeBackFromFileAndMemory) {
  const auto [type, repository] = GetParam();
  // Whole bytes of bits, so that the file holds nothing but pixels.
  const Extent extent = type == ZelWord ? Extent{256, 1, 1, 1, 1} : Extent{13, 8, 2, 1, 3};
  ZelObject *source = image(type, extent, {{"repository", repository}});
  std::vector<uint8_t> pixels = randomPixels(rng_, type, byteCount(source));
  fill(source, pixels);
  ASSERT_EQ(contents(source), pixels);

  ASSERT_EQ(write(source, "pixels.raw", 0), 0);
  EXPECT_EQ(fileBytes("pixels.raw"), pixels);
  EXPECT_EQ(contents(source), pixels);

  ZelObject *fromFile = image(type, extent);
  ASSERT_EQ(read("pixels.raw", fromFile, 0), 0);
  EXPECT_EQ(contents(fromFile), pixels);
  EXPECT_EQ(readAttribute(ctx_, fromFile, "compression"), 0);

  std::vector<uint8_t> memory = fileBytes("pixels.raw");
  // In a file, the object has its own temporary file before the call.
  ZelObject *fromMemory = image(type, extent, {{"repository", repository}});
  fill(fromMemory, std::vector<uint8_t>(pixels.size(), 0));
  ASSERT_EQ(readMemory(memory.data(), fromMemory, 0, static_cast<int>(memory.size())), 0);
  EXPECT_EQ(contents(fromMemory), pixels);
  EXPECT_EQ(memory, pixels);
}

INSTANTIATE_TEST_SUITE_P(EveryType, RawRoundTrip,
                         ::testing::Combine(::testing::Values(ZelBoolean, ZelNonNegative, ZelSigned,
                                                              ZelReal, ZelWord),
                                            ::testing::Values(ZelWorkSpace, ZelFile)),
                         [](const ::testing::TestParamInfo<RawCase> &param) {
                           return std::string(pixelType(std::get<0>(param.param)).name) +
                                  (std::get<1>(param.param) == ZelFile ? "InFile" : "InWorkSpace");
                         });

TEST_F(Convenience, BooleanPixelsKeepTheirBitOrderInTheFile) {
  const Extent extent{5, 8, 1, 1, 1};
  ZelObject *source = image(ZelBoolean, extent, {{"bitOrder", ZelLeastSignificantFirst}});
  const std::vector<uint8_t> pixels = {0x01, 0x80, 0x3C, 0xA5, 0x0F};
  fill(source, pixels);
  ASSERT_EQ(write(source, "bits.raw", 0), 0);
  EXPECT_EQ(fileBytes("bits.raw"), pixels);

  ZelObject *back = image(ZelBoolean, extent, {{"bitOrder", ZelLeastSignificantFirst}});
  ASSERT_EQ(read("bits.raw", back, 0), 0);
  EXPECT_EQ(contents(back), pixels);
}

TEST_F(Convenience, FileOfExactlyTheObjectsSizeFillsIt) {
  const std::vector<uint8_t> bytes = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 255, 128};
  writeFile("exact.raw", bytes);
  ZelObject *object = image(ZelNonNegative, {4, 3, 1, 1, 1});
  ASSERT_EQ(read("exact.raw", object, 0), 0);
  EXPECT_EQ(contents(object), bytes);
  EXPECT_TRUE(inited(object));
}

TEST_F(Convenience, LongerInputFillsTheObjectFromItsStart) {
  std::vector<uint8_t> bytes(20);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(3 * i + 1);
  writeFile("long.raw", bytes);
  const std::vector<uint8_t> first(bytes.begin(), bytes.begin() + 12);

  ZelObject *fromFile = image(ZelNonNegative, {4, 3, 1, 1, 1});
  ASSERT_EQ(read("long.raw", fromFile, 0), 0);
  EXPECT_EQ(contents(fromFile), first);

  ZelObject *fromMemory = image(ZelNonNegative, {4, 3, 1, 1, 1});
  ASSERT_EQ(readMemory(bytes.data(), fromMemory, 0, static_cast<int>(bytes.size())), 0);
  EXPECT_EQ(contents(fromMemory), first);
}

TEST_F(Convenience, ShorterInputIsInsufficient) {
  const std::vector<uint8_t> bytes(11, 42);
  writeFile("short.raw", bytes);
  ZelObject *object = image(ZelNonNegative, {4, 3, 1, 1, 1});
  EXPECT_EQ(read("short.raw", object, 0), 8);
  EXPECT_EQ(readMemory(bytes.data(), object, 0, static_cast<int>(bytes.size())), 8);
}

TEST_F(Convenience, EmptyFileIsInsufficientAndNothingPastItIsRead) {
  writeFile("empty.raw", {});
  ZelObject *object = image(ZelNonNegative, {4, 3, 1, 1, 1});
  EXPECT_EQ(read("empty.raw", object, 0), 8);
}

TEST_F(Convenience, RawFileAboveTheTiffInMemoryLimitIsReadCompletely) {
  // 5 243 391 bytes: past the size from which a TIFF would be read through the file.
  const Extent extent{2049, 2559, 1, 1, 1};
  ZelObject *source = image(ZelNonNegative, extent);
  std::vector<uint8_t> pixels = randomPixels(rng_, ZelNonNegative, byteCount(source));
  ASSERT_GT(pixels.size(), 5242880u);
  fill(source, pixels);
  ASSERT_EQ(write(source, "large.raw", 0), 0);
  ZelObject *back = image(ZelNonNegative, extent);
  ASSERT_EQ(read("large.raw", back, 0), 0);
  EXPECT_TRUE(contents(back) == pixels);
}

TEST_F(Convenience, TiffBelowTheInMemoryLimitEndsAtTheMissingReader) {
  writeTiffHead("big.tif", 5242880);
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  EXPECT_EQ(read("big.tif", object, ZelTiff), 12);
}

TEST_F(Convenience, TiffFromTheInMemoryLimitOnIsReadThroughTheFile) {
  writeTiffHead("big.tif", 5242881);
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  EXPECT_EQ(read("big.tif", object, ZelTiff), 12);
  EXPECT_EQ(read("big.tif", object, ZelTiff, {{"k", 1}}), 12);
}

TEST_F(Convenience, ComplexPixelsHaveNoRawForm) {
  const ZelAttribute shape[] = {{"xDimension", 4}, {"yDimension", 2}, {"repository", ZelWorkSpace}};
  ZelObject *spectrum = Zel000k(ctx_, nullptr, nullptr, shape, 3);
  ASSERT_NE(spectrum, nullptr);
  ASSERT_EQ(readAttribute(ctx_, spectrum, "dataType"), ZelComplex);
  EXPECT_EQ(write(spectrum, "complex.raw", 0), 10);
  writeFile("complex.raw", std::vector<uint8_t>(64, 0));
  EXPECT_EQ(read("complex.raw", spectrum, 0), 10);
}

TEST_F(Convenience, ReadingClearsTheUsedCountOfThePalette) {
  ZelObject *object = image(ZelNonNegative, {4, 3, 1, 1, 1});
  ZelObject *lut = palette(object, 7);
  // A file that can't be opened reads nothing, not even the attributes.
  EXPECT_EQ(read("missing.raw", object, 0), 25);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 7);

  writeFile("exact.raw", std::vector<uint8_t>(12, 1));
  ASSERT_EQ(read("exact.raw", object, 0), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 0);

  // The attributes are read before the data: a file too short for the pixels still clears it.
  ASSERT_EQ(Zel006a(ctx_, lut, "usedXDimension", 7), 0);
  writeFile("short.raw", std::vector<uint8_t>(5, 1));
  EXPECT_EQ(read("short.raw", object, 0), 8);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 0);

  ASSERT_EQ(Zel006a(ctx_, lut, "usedXDimension", 7), 0);
  const std::vector<uint8_t> memory(12, 2);
  ASSERT_EQ(readMemory(memory.data(), object, 0, 12), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 0);
  EXPECT_EQ(contents(object), memory);
}

TEST_F(Convenience, ListPairKIsIgnored) {
  ZelObject *object = image(ZelNonNegative, {7, 5, 1, 1, 2});
  fill(object, randomPixels(rng_, ZelNonNegative, byteCount(object)));
  ASSERT_EQ(write(object, "plain.raw", 0), 0);
  ASSERT_EQ(write(object, "withk.raw", 0, {{"k", 4}}), 0);
  ASSERT_EQ(write(object, "withk0.raw", 0, {{"k", 0}, {"k", -1}}), 0);
  EXPECT_EQ(fileBytes("withk.raw"), fileBytes("plain.raw"));
  EXPECT_EQ(fileBytes("withk0.raw"), fileBytes("plain.raw"));
  EXPECT_EQ(fileBytes("plain.raw"), contents(object));
}

TEST_F(Convenience, CompressionInTheListWinsOverTheFormatsDefault) {
  ZelObject *object = image(ZelNonNegative, {6, 4, 1, 1, 1});
  fill(object, randomPixels(rng_, ZelNonNegative, byteCount(object)));
  // Raw output takes no codec by default; one asked for in the list is used.
  EXPECT_EQ(write(object, "lzw.raw", 0, {{"compression", ZelLzw}}), 12);
  EXPECT_FALSE(fs::exists("lzw.raw"));
  // The later pair wins.
  EXPECT_EQ(write(object, "twice.raw", 0, {{"compression", 0}, {"compression", ZelPackBits}}), 12);
  ASSERT_EQ(write(object, "last.raw", 0, {{"compression", ZelPackBits}, {"compression", 0}}), 0);
  EXPECT_EQ(fileBytes("last.raw"), contents(object));
}

TEST_F(Convenience, CompressedObjectIsExpandedThroughAHolderThatIsDropped) {
  writeFile("in.raw", std::vector<uint8_t>(12, 1));
  const std::vector<uint8_t> memory(12, 1);
  // A compressed size below the expanded 12 bytes keeps the holder in work space; one above
  // puts it in a file. Either holder is gone after the call, which ends at the missing decoder.
  for (int size : Ints{0, 100}) {
    ZelObject *fromFile =
        image(ZelNonNegative, {4, 3, 1, 1, 1}, {{"compression", ZelLzw}, {"size", size}});
    EXPECT_EQ(read("in.raw", fromFile, 0), 12) << size;
    ZelObject *fromMemory =
        image(ZelNonNegative, {4, 3, 1, 1, 1}, {{"compression", ZelLzw}, {"size", size}});
    EXPECT_EQ(readMemory(memory.data(), fromMemory, 0, 12), 12) << size;
    // The object was made plain before the expansion was tried.
    for (ZelObject *object : {fromFile, fromMemory}) {
      EXPECT_EQ(readAttribute(ctx_, object, "compression"), 0);
      EXPECT_FALSE(inited(object));
    }
  }
}

// ---- Checks before any codec runs
// ----------------------------------------------------------------

TEST_F(Convenience, AlreadyCompressedObjectIsNotWritten) {
  for (int format : Ints{0, ZelGif, ZelTiff, ZelPng}) {
    ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1}, {{"compression", ZelLzw}});
    ASSERT_EQ(readAttribute(ctx_, object, "compression"), ZelLzw);
    EXPECT_EQ(write(object, "out.bin", format), 12) << format;
    EXPECT_EQ(write(object, "out.bin", format, {{"compression", 0}}), 12) << format;
    EXPECT_FALSE(fs::exists("out.bin"));
  }
}

TEST_F(Convenience, PaletteThatDoesNotCoverTheLevelsInUseIsOutOfRange) {
  ZelObject *object = levels({4, 2, 1, 1, 1}, {3, 4, 5, 9, 3, 3, 7, 8});
  ZelObject *lut = palette(object, 9);
  EXPECT_EQ(write(object, "out.raw", 0), 18);
  EXPECT_FALSE(fs::exists("out.raw"));
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 9);
  // Checked before the codec: a GIF is refused for the palette, not for its coder.
  EXPECT_EQ(write(object, "out.gif", ZelGif), 18);
  EXPECT_EQ(write(object, "out.raw", 0, {{"usedXDimension", 20}}), 18);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 9);
  for (int used : Ints{10, 11, 256}) {
    ASSERT_EQ(Zel006a(ctx_, lut, "usedXDimension", used), 0);
    EXPECT_EQ(write(object, "out.raw", 0), 0) << used;
    EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), used);
  }
  EXPECT_EQ(fileBytes("out.raw"), contents(object));
}

TEST_F(Convenience, PaletteUsingTwoEntriesCoversAnImageOfLevelsZeroAndOne) {
  ZelObject *object = levels({3, 1, 1, 1, 1}, {0, 1, 0});
  ZelObject *lut = palette(object, 2);
  EXPECT_EQ(write(object, "out.raw", 0), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 2);
  ASSERT_EQ(Zel609(ctx_, std::vector<uint8_t>{0, 2, 0}.data(), object, nullptr, 0), 0);
  EXPECT_EQ(write(object, "out.raw", 0), 18);
}

TEST_F(Convenience, PaletteOfABooleanImageCannotBeCheckedAgainstItsLevels) {
  ZelObject *object = image(ZelBoolean, {8, 2, 1, 1, 1});
  fill(object, {0x81, 0x7E});
  ZelObject *lut = palette(object, 2);
  // The levels in use are counted for NonNegative images only.
  EXPECT_EQ(write(object, "out.raw", 0), 10);
  EXPECT_FALSE(fs::exists("out.raw"));
  ASSERT_EQ(Zel006a(ctx_, lut, "usedXDimension", 0), 0);
  ASSERT_EQ(write(object, "out.raw", 0), 0);
  EXPECT_EQ(fileBytes("out.raw"), (std::vector<uint8_t>{0x81, 0x7E}));
}

TEST_F(Convenience, PaletteUsedCountOfOneBecomesTheHighestLevelPlusOne) {
  ZelObject *object = levels({3, 2, 1, 1, 2}, {10, 20, 30, 40, 50, 60, 70, 80, 90, 5, 200, 6});
  ZelObject *lut = palette(object, 1);
  ASSERT_EQ(write(object, "out.raw", 0), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 201);
  EXPECT_EQ(fileBytes("out.raw"), contents(object));
}

TEST_F(Convenience, PaletteUsedCountOfZeroIsLeftAlone) {
  ZelObject *object = levels({2, 2, 1, 1, 1}, {255, 0, 17, 4});
  ZelObject *lut = palette(object, 0);
  ASSERT_EQ(write(object, "out.raw", 0), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 0);
}

TEST_F(Convenience, LevelsInUseAreThoseTheRegionOfInterestAdmits) {
  const Extent extent{4, 2, 1, 1, 1};
  ZelObject *object = levels(extent, {1, 2, 3, 4, 60, 70, 80, 90});
  ZelObject *lut = palette(object, 5);
  objects_->maskFor(object, Image(extent, false, {1, 1, 1, 1, 0, 0, 0, 0}), ZelWorkSpace);
  // The region counts only when the context honours regions of interest.
  EXPECT_EQ(write(object, "out.raw", 0), 18);
  setting("roiState", 1);
  EXPECT_EQ(write(object, "out.raw", 0), 0);
  ASSERT_EQ(Zel006a(ctx_, lut, "usedXDimension", 1), 0);
  EXPECT_EQ(write(object, "out.raw", 0), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 5);
}

TEST_F(Convenience, ImageWithNoLevelInUseIsOutOfRange) {
  const Extent extent{3, 3, 1, 1, 1};
  ZelObject *object = levels(extent, std::vector<uint8_t>(9, 0));
  ZelObject *lut = palette(object, 1);
  objects_->maskFor(object, Image(extent, false, 0), ZelWorkSpace);
  setting("roiState", 1);
  EXPECT_EQ(write(object, "out.raw", 0), 18);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 1);
  EXPECT_FALSE(fs::exists("out.raw"));
  // All pixels admitted, all of level 0: one entry in use.
  setting("roiState", 0);
  EXPECT_EQ(write(object, "out.raw", 0), 0);
  EXPECT_EQ(readAttribute(ctx_, lut, "usedXDimension"), 1);
}

// ---- Composites
// ----------------------------------------------------------------------------------

TEST_F(Convenience, CompositeWrittenOtherThanAsTiffWritesItsFirstEntry) {
  ZelObject *first = levels({3, 2, 1, 1, 1}, {1, 2, 3, 4, 5, 6});
  ZelObject *second = levels({2, 2, 1, 1, 1}, {7, 8, 9, 10});
  ZelObject *pages = composite({first, second});
  ASSERT_EQ(write(pages, "first.raw", 0), 0);
  EXPECT_EQ(fileBytes("first.raw"), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(Zel010(ctx_, pages, 0), first);
  EXPECT_EQ(Zel010(ctx_, pages, 1), second);
}

TEST_F(Convenience, CompositeWithoutFirstEntryIsAnInvalidInstance) {
  ZelObject *second = levels({2, 2, 1, 1, 1}, {7, 8, 9, 10});
  ZelObject *pages = composite({nullptr, second});
  for (int format : Ints{0, ZelGif, ZelPng, ZelMacPaint, 999})
    EXPECT_EQ(write(pages, "out.bin", format), 9) << format;
  EXPECT_FALSE(fs::exists("out.bin"));
}

TEST_F(Convenience, CompositePageAlreadyCompressedIsRefusedForTiff) {
  ZelObject *plain = levels({2, 2, 1, 1, 1}, {7, 8, 9, 10});
  ZelObject *compressed = image(ZelNonNegative, {4, 4, 1, 1, 1}, {{"compression", ZelLzw}});
  EXPECT_EQ(write(composite({plain, compressed}), "pages.tif", ZelTiff), 12);
  EXPECT_EQ(write(composite({compressed, nullptr}), "pages.tif", ZelTiff), 12);
  EXPECT_EQ(write(composite({nullptr, plain}), "pages.tif", ZelTiff), 9);
  EXPECT_FALSE(fs::exists("pages.tif"));
}

TEST_F(Convenience, CompositeAsTiffEndsAtTheMissingWriterOrCoder) {
  ZelObject *a = levels({2, 2, 1, 1, 1}, {7, 8, 9, 10});
  ZelObject *b = levels({3, 1, 1, 1, 1}, {1, 2, 3});
  ZelObject *pages = composite({a, b});
  EXPECT_EQ(write(pages, "pages.tif", ZelTiff), 12);
  EXPECT_EQ(write(pages, "pages.tif", ZelTiff, {{"compression", ZelLzw}}), 12);
  EXPECT_EQ(write(pages, "pages.tif", ZelTiff, {{"compression", ZelFaxGroup4}, {"k", 2}}), 12);
  EXPECT_EQ(Zel010(ctx_, pages, 0), a);
  EXPECT_EQ(Zel010(ctx_, pages, 1), b);
  EXPECT_EQ(readAttribute(ctx_, a, "compression"), 0);
}

TEST_F(Convenience, CompositeReadOtherThanAsTiffReadsIntoItsFirstEntry) {
  const std::vector<uint8_t> bytes = {11, 12, 13, 14, 15, 16};
  writeFile("in.raw", bytes);
  ZelObject *first = image(ZelNonNegative, {3, 2, 1, 1, 1});
  ZelObject *second = levels({2, 1, 1, 1, 1}, {1, 2});
  ZelObject *pages = composite({first, second});
  ASSERT_EQ(read("in.raw", pages, 0), 0);
  EXPECT_EQ(contents(first), bytes);
  EXPECT_EQ(contents(second), (std::vector<uint8_t>{1, 2}));

  ZelObject *fromMemory = image(ZelNonNegative, {3, 2, 1, 1, 1});
  ZelObject *memoryPages = composite({fromMemory});
  ASSERT_EQ(readMemory(bytes.data(), memoryPages, 0, static_cast<int>(bytes.size())), 0);
  EXPECT_EQ(contents(fromMemory), bytes);
}

TEST_F(Convenience, CompositeReadWithoutFirstEntryIsAnInvalidInstance) {
  writeFile("in.raw", std::vector<uint8_t>(16, 1));
  const std::vector<uint8_t> memory(16, 1);
  ZelObject *pages = composite({nullptr, image(ZelNonNegative, {2, 2, 1, 1, 1})});
  for (int format : Ints{0, ZelGif, ZelPng}) {
    EXPECT_EQ(read("in.raw", pages, format), 9) << format;
    EXPECT_EQ(readMemory(memory.data(), pages, format, 16), 9) << format;
  }
}

TEST_F(Convenience, DocumentsAreReadPageByPageFromFilesOnly) {
  writeFile("in.doc", std::vector<uint8_t>(16, 1));
  const std::vector<uint8_t> memory(16, 1);
  ZelObject *pages = composite({nullptr, image(ZelNonNegative, {2, 2, 1, 1, 1})});
  // From a file a document is read for all its pages, which reaches the reader; from memory
  // only the first entry is read, and there is none.
  EXPECT_EQ(read("in.doc", pages, ZelSegmentedDocument), 12);
  EXPECT_EQ(readMemory(memory.data(), pages, ZelSegmentedDocument, 16), 9);
  // A TIFF is read for all its pages either way.
  EXPECT_EQ(read("in.doc", pages, ZelTiff), 12);
  EXPECT_EQ(readMemory(memory.data(), pages, ZelTiff, 16), 12);
}

// ---- Routes that end at a codec or a format not built in
// -----------------------------------------

TEST_F(Convenience, GifIsCompressedFirstAndEndsAtTheMissingCoder) {
  for (int type : Ints{ZelNonNegative, ZelBoolean}) {
    ZelObject *object = image(type, {8, 9, 1, 1, 1});
    const std::vector<uint8_t> pixels(byteCount(object), 3);
    fill(object, pixels);
    EXPECT_EQ(write(object, "out.gif", ZelGif), 12);
    EXPECT_EQ(write(object, "out.gif", ZelGif, {{"interlacedImage", 1}}), 12);
    EXPECT_EQ(write(object, "out.gif", ZelGif, {{"compression", ZelLzw}, {"k", 1}}), 12);
    // Without compression the GIF writer itself is reached, which isn't built in either.
    EXPECT_EQ(write(object, "out.gif", ZelGif, {{"compression", 0}}), 12);
    EXPECT_FALSE(fs::exists("out.gif"));
    EXPECT_EQ(contents(object), pixels);
  }
}

TEST_F(Convenience, InterlacedGifOfAnotherTypeIsAMismatch) {
  ZelObject *object = image(ZelSigned, {3, 5, 1, 1, 1});
  fill(object, std::vector<uint8_t>(30, 1));
  EXPECT_EQ(write(object, "out.gif", ZelGif, {{"interlacedImage", 1}}), 10);
  EXPECT_EQ(write(object, "out.gif", ZelGif), 12);
  EXPECT_FALSE(fs::exists("out.gif"));
}

TEST_F(Convenience, MacPaintEndsAtTheMissingCoderWhateverTheSize) {
  for (Extent extent : {Extent{576, 720, 1, 1, 1}, Extent{40, 30, 1, 1, 1}}) {
    ZelObject *object = image(ZelBoolean, extent);
    EXPECT_EQ(write(object, "out.mac", ZelMacPaint), 12) << extent[0];
    EXPECT_FALSE(fs::exists("out.mac"));
  }
}

TEST_F(Convenience, FormatsWithoutCompressionReachTheirWriter) {
  ZelObject *object = levels({2, 2, 1, 1, 1}, {1, 2, 3, 4});
  // Known formats whose writers aren't built in.
  for (int format : Ints{ZelTiff, ZelBmp, ZelDib, ZelWbmp, ZelSgiRgb, ZelJpegDirect})
    EXPECT_EQ(write(object, "out.bin", format), 12) << format;
  // TIFF compresses with JPEG in its writer.
  EXPECT_EQ(write(object, "out.bin", ZelTiff, {{"compression", ZelJpeg}}), 12);
  // Formats that are never written, or unknown.
  for (int format : Ints{ZelSegmentedDocument, ZelJpegColourFax, ZelDibHeaderOnly, 1, 999})
    EXPECT_EQ(write(object, "out.bin", format), 18) << format;
  EXPECT_FALSE(fs::exists("out.bin"));
}

TEST_F(Convenience, FormatsWithACodecEndAtTheMissingCoder) {
  ZelObject *object = levels({2, 2, 1, 1, 1}, {1, 2, 3, 4});
  for (int format : Ints{ZelKolShort, ZelKolLong, ZelPcx, ZelJpegInterchange})
    EXPECT_EQ(write(object, "out.bin", format), 12) << format;
  EXPECT_FALSE(fs::exists("out.bin"));
}

TEST_F(Convenience, ReadsOfFormatsNotBuiltInAreRefused) {
  writeFile("in.bin", std::vector<uint8_t>(64, 0));
  const std::vector<uint8_t> memory(64, 0);
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  for (int format : Ints{ZelGif, ZelTiff, ZelBmp, ZelJpegDirect, ZelSegmentedDocument}) {
    EXPECT_EQ(read("in.bin", object, format), 12) << format;
    EXPECT_EQ(readMemory(memory.data(), object, format, 64), 12) << format;
  }
  for (int format : Ints{ZelSgiRgb, ZelMacPaint, ZelDibHeaderOnly, 999}) {
    EXPECT_EQ(read("in.bin", object, format), 18) << format;
    EXPECT_EQ(readMemory(memory.data(), object, format, 64), 18) << format;
  }
}

// ---- Bad files, addresses, sizes and handles
// -----------------------------------------------------

TEST_F(Convenience, MissingFileCannotBeOpened) {
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  EXPECT_EQ(read("missing.raw", object, 0), 25);
  EXPECT_EQ(read("missing.tif", object, ZelTiff), 25);
  EXPECT_EQ(read("no/such/dir/file", object, ZelGif), 25);
}

TEST_F(Convenience, DirectoryCannotBeRead) {
  fs::create_directory("folder");
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  EXPECT_EQ(read("folder", object, 0), -1);
}

TEST_F(Convenience, ReadWithoutFileNameIsOutOfRange) {
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  EXPECT_EQ(read(nullptr, object, 0), 18);
}

TEST_F(Convenience, MemoryReadNeedsAnAddressAndBytes) {
  const std::vector<uint8_t> memory(16, 5);
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  EXPECT_EQ(readMemory(nullptr, object, 0, 16), 18);
  EXPECT_EQ(readMemory(nullptr, object, 0, 0), 18);
  EXPECT_EQ(readMemory(memory.data(), object, 0, 0), 8);
  EXPECT_EQ(readMemory(memory.data(), object, 0, -16), 8);
  EXPECT_EQ(readMemory(memory.data(), object, ZelGif, -1), 8);
  ASSERT_EQ(readMemory(memory.data(), object, 0, 16), 0);
  EXPECT_EQ(contents(object), memory);
}

TEST_F(Convenience, DeadHandlesAreInvalidInstances) {
  ZelObject *dead = deadImage();
  writeFile("in.raw", std::vector<uint8_t>(16, 1));
  const std::vector<uint8_t> memory(64, 0);
  std::vector<uint8_t> out(64, 0xA5);
  EXPECT_EQ(write(dead, "out.raw", 0), 9);
  EXPECT_FALSE(fs::exists("out.raw"));
  EXPECT_EQ(read("in.raw", dead, 0), 9);
  EXPECT_EQ(readMemory(memory.data(), dead, 0, 16), 9);
  EXPECT_EQ(writeDib(dead, out.data(), ZelBmp), 9);
  EXPECT_EQ(readDib(memory.data(), dead, ZelBmp, {{"size", 64}}), 9);
  EXPECT_EQ(out, std::vector<uint8_t>(64, 0xA5));
}

// ---- Device-independent bitmaps in memory
// --------------------------------------------------------

TEST_F(Convenience, BitmapToMemoryRefusesOtherFormatsAndCompressions) {
  ZelObject *object = levels({2, 2, 1, 1, 1}, {1, 2, 3, 4});
  std::vector<uint8_t> out(256, 0xA5);
  for (int format : Ints{0, ZelGif, ZelTiff, ZelPng, 999})
    EXPECT_EQ(writeDib(object, out.data(), format), 18) << format;
  // The bitmap writer isn't built in.
  for (int format : Ints{ZelBmp, ZelDib, ZelDibHeaderOnly})
    EXPECT_EQ(writeDib(object, out.data(), format), 12) << format;
  // Only the bitmap's own run-length coder is allowed; it isn't built in.
  for (int compression : Ints{ZelLzw, ZelPackBits, ZelPcxRunLength, ZelJpeg})
    EXPECT_EQ(writeDib(object, out.data(), ZelBmp, {{"compression", compression}}), 12)
        << compression;
  EXPECT_EQ(writeDib(object, out.data(), ZelBmp, {{"compression", ZelBmpRunLength}}), 12);
  EXPECT_EQ(writeDib(object, out.data(), ZelDib,
                     {{"compression", ZelBmpRunLength}, {"dataPrecision", 4}}),
            12);
  EXPECT_EQ(out, std::vector<uint8_t>(256, 0xA5));
}

TEST_F(Convenience, BitmapToMemoryOfACompressedObjectIsRefused) {
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1}, {{"compression", ZelLzw}});
  std::vector<uint8_t> out(64, 0xA5);
  EXPECT_EQ(writeDib(object, out.data(), ZelBmp), 12);
  EXPECT_EQ(writeDib(object, out.data(), ZelGif), 12);
  EXPECT_EQ(out, std::vector<uint8_t>(64, 0xA5));
}

TEST_F(Convenience, BitmapFromMemoryRefusesOtherFormats) {
  const std::vector<uint8_t> memory(64, 0);
  ZelObject *object = image(ZelNonNegative, {4, 4, 1, 1, 1});
  for (int format : Ints{0, ZelGif, ZelTiff, ZelPng, ZelDibHeaderOnly}) {
    EXPECT_EQ(readDib(memory.data(), object, format, {{"size", 64}}), 18) << format;
    // The format is set on the object before it is checked.
    EXPECT_EQ(readAttribute(ctx_, object, "fileFormat"), format);
  }
  // The bitmap reader isn't built in.
  for (int format : Ints{ZelBmp, ZelDib})
    EXPECT_EQ(readDib(memory.data(), object, format, {{"size", 64}}), 12) << format;
  EXPECT_EQ(readAttribute(ctx_, object, "compression"), 0);
}

}  // namespace
