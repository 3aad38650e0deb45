// Moving objects to and from files and the application's memory without a file format: the
// pixels go out exactly as they lie in memory and come back in the shape of the receiving
// object, converted on the way where the attribute list asks for another type. Also the read
// modes, the refusal of modes and of formats that are unknown or not built in, the clean-up
// after every failure, the palette's used size after a read, composites, and the recognition
// of formats from the first bytes of a file or of a block of memory.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <list>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kernel/context.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

// ---- Values of every pixel type --------------------------------------------------------------

const int kPixelTypes[] = {ZelBoolean, ZelNonNegative, ZelSigned, ZelReal};
const int kRepositories[] = {ZelWorkSpace, ZelFile, ZelApplicationAddressSpace};

std::string nameOfExtent(const Extent &extent) {
  std::string text;
  for (int e : extent)
    text += (text.empty() ? "" : "x") + std::to_string(e);
  return text;
}

// Pixel values of one type, one value a pixel, in the order of the data.
struct Values {
  int type = ZelNonNegative;
  Extent extent{1, 1, 1, 1, 1};
  std::vector<double> at;
};

size_t bytesPerValue(int type) {
  if (type == ZelSigned) return 2;
  if (type == ZelReal || type == ZelWord) return 4;
  return 1;
}

size_t dataBytes(int type, const Extent &extent) {
  const auto count = static_cast<size_t>(pixelCount(extent));
  return type == ZelBoolean ? (count + 7) / 8 : count * bytesPerValue(type);
}

// The bytes an object of the type holds: bits from the most significant one, across rows
// without padding; wider values in the byte order of the host.
std::vector<uint8_t> encode(const Values &values) {
  std::vector<uint8_t> bytes(dataBytes(values.type, values.extent), 0);
  for (size_t i = 0; i < values.at.size(); ++i) {
    const double v = values.at[i];
    uint8_t *place = bytes.data() + i * bytesPerValue(values.type);
    if (values.type == ZelBoolean) {
      if (v != 0) bytes[i / 8] = static_cast<uint8_t>(bytes[i / 8] | (0x80u >> (i % 8)));
    } else if (values.type == ZelNonNegative) {
      *place = static_cast<uint8_t>(v);
    } else if (values.type == ZelSigned) {
      const auto s = static_cast<int16_t>(v);
      std::memcpy(place, &s, sizeof s);
    } else if (values.type == ZelReal) {
      const auto f = static_cast<float>(v);
      std::memcpy(place, &f, sizeof f);
    } else {
      const auto w = static_cast<int32_t>(v);
      std::memcpy(place, &w, sizeof w);
    }
  }
  return bytes;
}

Values decode(int type, const Extent &extent, const std::vector<uint8_t> &bytes) {
  Values values{type, extent, std::vector<double>(static_cast<size_t>(pixelCount(extent)))};
  if (bytes.size() < dataBytes(type, extent)) {
    ADD_FAILURE() << "only " << bytes.size() << " bytes to decode";
    return values;
  }
  for (size_t i = 0; i < values.at.size(); ++i) {
    const uint8_t *place = bytes.data() + i * bytesPerValue(type);
    if (type == ZelBoolean) {
      values.at[i] = (bytes[i / 8] >> (7 - i % 8)) & 1;
    } else if (type == ZelNonNegative) {
      values.at[i] = *place;
    } else if (type == ZelSigned) {
      int16_t s;
      std::memcpy(&s, place, sizeof s);
      values.at[i] = s;
    } else if (type == ZelReal) {
      float f;
      std::memcpy(&f, place, sizeof f);
      values.at[i] = f;
    } else {
      int32_t w;
      std::memcpy(&w, place, sizeof w);
      values.at[i] = w;
    }
  }
  return values;
}

Values randomValues(std::mt19937 &rng, int type, const Extent &extent) {
  Values values{type, extent, std::vector<double>(static_cast<size_t>(pixelCount(extent)))};
  for (double &v : values.at) {
    const uint32_t r = static_cast<uint32_t>(rng());
    switch (type) {
      case ZelBoolean:
        v = r & 1;
        break;
      case ZelNonNegative:
        v = r & 0xFF;
        break;
      case ZelSigned:
        v = static_cast<int16_t>(r & 0xFFFF);
        break;
      case ZelReal:  // fractions of both signs beyond the range of the integer types
        v = static_cast<float>((static_cast<int32_t>(r % 200001) - 100000) / 2.5);
        break;
      default:
        v = static_cast<int32_t>(r);
        break;
    }
  }
  return values;
}

// What the type-converting copy makes of one value, or nothing when it refuses the pair.
std::optional<double> converted(double v, int from, int to) {
  if (from == to) return v;
  if (to == ZelBoolean) return v != 0 ? 1.0 : 0.0;
  if (to == ZelReal) return std::nullopt;
  if (from == ZelBoolean) return v != 0 ? (to == ZelNonNegative ? 255.0 : 32767.0) : 0.0;
  const double low = to == ZelNonNegative ? 0 : -32768, high = to == ZelNonNegative ? 255 : 32767;
  if (v > high) return high;
  if (v < low) return low;
  return std::trunc(v);
}

// Twelve values of each type around the edges of the conversions.
Values edgeValues(int type) {
  const Extent extent{12, 1, 1, 1, 1};
  switch (type) {
    case ZelBoolean:
      return {type, extent, {1, 0, 1, 1, 0, 0, 1, 0, 1, 1, 1, 0}};
    case ZelNonNegative:
      return {type, extent, {0, 1, 2, 127, 128, 200, 254, 255, 0, 17, 99, 255}};
    case ZelSigned:
      return {type, extent, {-32768, -256, -1, 0, 1, 127, 255, 256, 1000, 32767, -5, 42}};
    default:
      return {
          type,
          extent,
          {255.5, 254.9f, -0.4f, -1.9f, -0.0, 0.0, 40000, -40000, 32767.4f, 1.0, 128.75, -32768.5}};
  }
}

// The shapes of the round trips; Word pixels live in histograms, which have one axis.
std::vector<Extent> shapesOf(int type) {
  if (type == ZelWord) return {{1, 1, 1, 1, 1}, {9, 1, 1, 1, 1}, {256, 1, 1, 1, 1}};
  return {{1, 1, 1, 1, 1}, {7, 3, 1, 1, 1}, {5, 4, 2, 1, 3}, {16, 2, 1, 2, 1}, {9, 1, 3, 2, 2}};
}

// ---- The fixture -----------------------------------------------------------------------------

// What a call may not leave behind: live objects, open descriptors, temporary files.
struct Snapshot {
  int objects;
  int descriptors;
  size_t temporaryFiles;
};

int liveObjects(ZelContext *ctx) {
  int count = 0;
  std::vector<ZelObject *> levels{ctx->rootObject};
  while (!levels.empty()) {
    ZelObject *record = levels.back();
    levels.pop_back();
    for (; record; record = record->nextSibling) {
      if (record->inUse == 1) ++count;
      if (record->firstChild) levels.push_back(record->firstChild);
    }
  }
  return count;
}

class Interchange : public OperatorFixture {
 protected:
  // An empty object of the type and shape in the repository; Word objects are histograms.
  ZelObject *create(int type, const Extent &extent, int repository = ZelWorkSpace) {
    std::vector<ZelAttribute> list = {{"xDimension", extent[0]}, {"repository", repository}};
    if (type != ZelWord) {
      list.insert(list.end(), {{"dataType", type},
                               {"yDimension", extent[1]},
                               {"zDimension", extent[2]},
                               {"tDimension", extent[3]},
                               {"bDimension", extent[4]}});
    }
    const int count = static_cast<int>(list.size());
    ZelObject *object = type == ZelWord ? Zel000d(ctx_, nullptr, nullptr, list.data(), count)
                                        : Zel000b(ctx_, nullptr, nullptr, list.data(), count);
    if (!object) {
      ADD_FAILURE() << "no object of type " << typeName(type);
      return nullptr;
    }
    if (repository == ZelApplicationAddressSpace) {
      std::vector<uint8_t> &block = blocks_.emplace_back(dataBytes(type, extent), 0);
      EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(block.data())), 0);
    }
    return object;
  }

  ZelObject *holding(const Values &values, int repository = ZelWorkSpace) {
    ZelObject *object = create(values.type, values.extent, repository);
    if (!object) return nullptr;
    std::vector<uint8_t> bytes = encode(values);
    EXPECT_EQ(Zel609(ctx_, bytes.data(), object, nullptr, 0), 0);
    return object;
  }

  // The object's data as the export to the application's memory gives it.
  std::vector<uint8_t> exported(ZelObject *object, int type, const Extent &extent) {
    std::vector<uint8_t> bytes(dataBytes(type, extent), 0);
    EXPECT_EQ(Zel605(ctx_, object, bytes.data(), nullptr, 0), 0);
    return bytes;
  }
  std::vector<uint8_t> exported(ZelObject *object, const Values &shape) {
    return exported(object, shape.type, shape.extent);
  }

  Snapshot snapshot() const {
    return {liveObjects(ctx_), openDescriptors(), fileCount(temporary_)};
  }
  static size_t fileCount(const fs::path &directory) {
    size_t count = 0;
    for (const auto &entry : fs::directory_iterator(directory)) {
      (void)entry;
      ++count;
    }
    return count;
  }
  void expectNothingLeft(const Snapshot &before) const {
    const Snapshot after = snapshot();
    EXPECT_EQ(after.objects, before.objects) << "objects left alive";
    EXPECT_EQ(after.descriptors, before.descriptors) << "descriptors left open";
    EXPECT_EQ(after.temporaryFiles, before.temporaryFiles) << "temporary files left";
  }

  // A failed call: its code, the same in the context, and nothing left behind.
  void expectRefusal(int result, int code, const Snapshot &before) const {
    EXPECT_EQ(result, code);
    EXPECT_EQ(Zel003b(ctx_), code);
    expectNothingLeft(before);
  }

  // Reads `fileName`, or `memory` when given, into `object` with the pairs in `extra`.
  int read(ZelObject *object, const char *fileName, const std::vector<uint8_t> *memory,
           int format = 0, int mode = 0, std::vector<ZelAttribute> extra = {}) {
    if (memory) {
      extra.push_back({"applicationAddressSpace", word(memory->data())});
      extra.push_back({"size", static_cast<ZelValue>(memory->size())});
    }
    return Zel703(ctx_, memory ? nullptr : fileName, object, format, mode, extra.data(),
                  static_cast<int>(extra.size()));
  }

  std::list<std::vector<uint8_t>> blocks_;  // the memory behind objects of the application
};

// ---- Round trips -----------------------------------------------------------------------------

class InterchangeRoundTrip : public Interchange, public ::testing::WithParamInterface<int> {};

TEST_P(InterchangeRoundTrip, FileHoldsThePixelsAsTheyLieAndReadsBackIntoEveryRepository) {
  const int type = GetParam();
  std::mt19937 rng(20240 + static_cast<unsigned>(type));
  for (const Extent &extent : shapesOf(type)) {
    for (int repository : kRepositories) {
      SCOPED_TRACE(nameOfExtent(extent) + " from repository " + std::to_string(repository));
      const Values values = randomValues(rng, type, extent);
      const std::vector<uint8_t> expected = encode(values);
      ZelObject *source = holding(values, repository);
      ASSERT_NE(source, nullptr);
      ASSERT_EQ(exported(source, values), expected);

      Snapshot before = snapshot();
      ASSERT_EQ(Zel702(ctx_, source, "pixels.raw", 0, nullptr, 0), 0);
      expectNothingLeft(before);
      EXPECT_EQ(fileBytes("pixels.raw"), expected);
      EXPECT_EQ(exported(source, values), expected);

      for (int target : kRepositories) {
        SCOPED_TRACE("into repository " + std::to_string(target));
        // Objects in files keep their pixels in temporary files until they are destroyed.
        before = snapshot();
        ZelObject *fromFile = create(type, extent, target);
        ZelObject *fromMemory = create(type, extent, target);
        ASSERT_NE(fromFile, nullptr);
        ASSERT_NE(fromMemory, nullptr);
        const std::vector<uint8_t> block = expected;
        ASSERT_EQ(read(fromFile, "pixels.raw", nullptr), 0);
        ASSERT_EQ(read(fromMemory, nullptr, &block), 0);
        EXPECT_EQ(liveObjects(ctx_), before.objects + 2);
        EXPECT_EQ(openDescriptors(), before.descriptors);
        EXPECT_EQ(exported(fromFile, values), expected);
        EXPECT_EQ(exported(fromMemory, values), expected);
        EXPECT_EQ(block, expected);
        ASSERT_EQ(Zel002(ctx_, fromFile), 0);
        ASSERT_EQ(Zel002(ctx_, fromMemory), 0);
        expectNothingLeft(before);
      }
      ASSERT_EQ(Zel002(ctx_, source), 0);
    }
  }
}

TEST_P(InterchangeRoundTrip, WritingReplacesAnOlderLongerFile) {
  const int type = GetParam();
  std::mt19937 rng(77 + static_cast<unsigned>(type));
  const Extent extent = shapesOf(type)[1];
  const Values values = randomValues(rng, type, extent);
  writeFile("pixels.raw", std::vector<uint8_t>(dataBytes(type, extent) * 3 + 5, 0xEE));
  ZelObject *source = holding(values);
  ASSERT_NE(source, nullptr);
  ASSERT_EQ(Zel702(ctx_, source, "pixels.raw", 0, nullptr, 0), 0);
  EXPECT_EQ(fileBytes("pixels.raw"), encode(values));
}

INSTANTIATE_TEST_SUITE_P(EveryType, InterchangeRoundTrip,
                         ::testing::Values(ZelBoolean, ZelNonNegative, ZelSigned, ZelReal, ZelWord),
                         [](const ::testing::TestParamInfo<int> &param) {
                           return typeName(param.param);
                         });

TEST_F(Interchange, ReadTakesTheShapeOfTheObjectFromALongerFile) {
  std::vector<uint8_t> file(40);
  for (size_t i = 0; i < file.size(); ++i)
    file[i] = static_cast<uint8_t>(3 * i + 1);
  writeFile("long.raw", file);
  const Extent extent{3, 2, 1, 1, 2};
  for (const std::vector<uint8_t> *memory : {static_cast<const std::vector<uint8_t> *>(nullptr),
                                             static_cast<const std::vector<uint8_t> *>(&file)}) {
    ZelObject *object = create(ZelNonNegative, extent);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(read(object, "long.raw", memory), 0);
    EXPECT_EQ(exported(object, ZelNonNegative, extent),
              std::vector<uint8_t>(file.begin(), file.begin() + 12));
    EXPECT_EQ(readAttribute(ctx_, object, "xDimension"), 3);
    EXPECT_EQ(readAttribute(ctx_, object, "bDimension"), 2);
  }
}

// ---- Conversions on the way ------------------------------------------------------------------

TEST_F(Interchange, ReadConvertsTheTypeTheListGivesTheFileIntoTheObjectsType) {
  for (int from : kPixelTypes) {
    const Values file = edgeValues(from);
    writeFile("typed.raw", encode(file));
    const std::vector<uint8_t> memory = encode(file);
    for (int to : kPixelTypes) {
      for (bool fromMemory : {false, true}) {
        SCOPED_TRACE(typeName(from) + " file into " + typeName(to) +
                     (fromMemory ? " from memory" : ""));
        const Values before = edgeValues(to);
        ZelObject *object = holding(before);
        ASSERT_NE(object, nullptr);
        const Snapshot clean = snapshot();
        const int result =
            read(object, "typed.raw", fromMemory ? &memory : nullptr, 0, 0, {{"dataType", from}});
        const std::optional<double> possible = converted(0, from, to);
        if (!possible) {
          expectRefusal(result, 10, clean);
          EXPECT_EQ(exported(object, before), encode(before));
        } else {
          EXPECT_EQ(result, 0);
          expectNothingLeft(clean);
          const Values got = decode(to, file.extent, exported(object, before));
          for (size_t i = 0; i < file.at.size(); ++i)
            EXPECT_EQ(got.at[i], *converted(file.at[i], from, to)) << "value " << file.at[i];
        }
        EXPECT_EQ(readAttribute(ctx_, object, "dataType"), to);
        ASSERT_EQ(Zel002(ctx_, object), 0);
      }
    }
  }
}

TEST_F(Interchange, WriteConvertsTheObjectsTypeIntoTheTypeTheListGivesTheFile) {
  for (int from : kPixelTypes) {
    const Values values = edgeValues(from);
    ZelObject *object = holding(values);
    ASSERT_NE(object, nullptr);
    for (int to : kPixelTypes) {
      SCOPED_TRACE(typeName(from) + " object into a " + typeName(to) + " file");
      const ZelAttribute list[] = {{"dataType", to}};
      const Snapshot clean = snapshot();
      const int result = Zel702(ctx_, object, "typed.raw", 0, list, 1);
      if (!converted(0, from, to)) {
        expectRefusal(result, 10, clean);
      } else {
        EXPECT_EQ(result, 0);
        expectNothingLeft(clean);
        const Values got = decode(to, values.extent, fileBytes("typed.raw"));
        for (size_t i = 0; i < values.at.size(); ++i)
          EXPECT_EQ(got.at[i], *converted(values.at[i], from, to)) << "value " << values.at[i];
        EXPECT_EQ(fileBytes("typed.raw").size(), dataBytes(to, values.extent));
      }
      // The object itself keeps its type and pixels.
      EXPECT_EQ(readAttribute(ctx_, object, "dataType"), from);
      EXPECT_EQ(exported(object, values), encode(values));
    }
  }
}

TEST_F(Interchange, ConversionOfTheKnownEdgeValues) {
  // A few results written out, as a check of the reference above.
  const Values real = edgeValues(ZelReal);
  writeFile("real.raw", encode(real));
  ZelObject *bytes = create(ZelNonNegative, real.extent);
  ZelObject *words = create(ZelSigned, real.extent);
  ZelObject *bits = create(ZelBoolean, real.extent);
  ASSERT_NE(bytes, nullptr);
  ASSERT_NE(words, nullptr);
  ASSERT_NE(bits, nullptr);
  for (ZelObject *object : {bytes, words, bits})
    ASSERT_EQ(read(object, "real.raw", nullptr, 0, 0, {{"dataType", ZelReal}}), 0);
  EXPECT_EQ(decode(ZelNonNegative, real.extent, exported(bytes, ZelNonNegative, real.extent)).at,
            (std::vector<double>{255, 254, 0, 0, 0, 0, 255, 0, 255, 1, 128, 0}));
  EXPECT_EQ(decode(ZelSigned, real.extent, exported(words, ZelSigned, real.extent)).at,
            (std::vector<double>{255, 254, 0, -1, 0, 0, 32767, -32768, 32767, 1, 128, -32768}));
  EXPECT_EQ(decode(ZelBoolean, real.extent, exported(bits, ZelBoolean, real.extent)).at,
            (std::vector<double>{1, 1, 1, 1, 0, 0, 1, 1, 1, 1, 1, 1}));
}

// ---- Failures --------------------------------------------------------------------------------

TEST_F(Interchange, ObjectLargerThanTheFileFailsWithACode) {
  std::vector<uint8_t> file(12);
  for (size_t i = 0; i < file.size(); ++i)
    file[i] = static_cast<uint8_t>(i + 100);
  writeFile("short.raw", file);
  const Values prior{ZelNonNegative, {4, 4, 1, 1, 1}, std::vector<double>(16, 9)};
  for (bool fromMemory : {false, true}) {
    SCOPED_TRACE(fromMemory ? "memory" : "file");
    ZelObject *object = holding(prior);
    ASSERT_NE(object, nullptr);
    const Snapshot before = snapshot();
    // A file runs out with a failed read, memory by its given size.
    expectRefusal(read(object, "short.raw", fromMemory ? &file : nullptr), fromMemory ? 8 : -1,
                  before);
    EXPECT_EQ(readAttribute(ctx_, object, "xDimension"), 4);
    EXPECT_EQ(readAttribute(ctx_, object, "yDimension"), 4);
    EXPECT_EQ(readAttribute(ctx_, object, "dataType"), ZelNonNegative);
    ASSERT_EQ(Zel002(ctx_, object), 0);
  }
}

TEST_F(Interchange, FileShorterThanTheFirstRowLeavesThePixelsAlone) {
  writeFile("tiny.raw", {1, 2});
  const Values prior{ZelSigned, {4, 3, 1, 1, 1}, std::vector<double>(12, -7)};
  ZelObject *object = holding(prior);
  ASSERT_NE(object, nullptr);
  const Snapshot before = snapshot();
  expectRefusal(read(object, "tiny.raw", nullptr), -1, before);
  EXPECT_EQ(exported(object, prior), encode(prior));
}

TEST_F(Interchange, MissingInputFileIsAFileOpenFailure) {
  const Values prior = edgeValues(ZelSigned);
  ZelObject *object = holding(prior);
  ASSERT_NE(object, nullptr);
  for (int mode : {0, static_cast<int>(ZelReadData)}) {
    const Snapshot before = snapshot();
    expectRefusal(read(object, "absent.raw", nullptr, 0, mode), 25, before);
    EXPECT_EQ(exported(object, prior), encode(prior));
    EXPECT_FALSE(fs::exists("absent.raw"));
  }
}

TEST_F(Interchange, ReadWithoutNameOrMemoryFailsAndLeavesNothing) {
  const Values prior = edgeValues(ZelNonNegative);
  ZelObject *object = holding(prior);
  ASSERT_NE(object, nullptr);
  const Snapshot before = snapshot();
  expectRefusal(Zel703(ctx_, nullptr, object, 0, 0, nullptr, 0), 18, before);
  EXPECT_EQ(exported(object, prior), encode(prior));
}

TEST_F(Interchange, WriteWithoutAFileNameIsOutOfRange) {
  const Values values = edgeValues(ZelNonNegative);
  ZelObject *object = holding(values);
  ASSERT_NE(object, nullptr);
  const Snapshot before = snapshot();
  expectRefusal(Zel702(ctx_, object, nullptr, 0, nullptr, 0), 18, before);
  EXPECT_EQ(exported(object, values), encode(values));
}

TEST_F(Interchange, WriteIntoAMissingDirectoryIsAFileOpenFailure) {
  const Values values = edgeValues(ZelNonNegative);
  ZelObject *object = holding(values);
  ASSERT_NE(object, nullptr);
  const Snapshot before = snapshot();
  expectRefusal(Zel702(ctx_, object, "nowhere/pixels.raw", 0, nullptr, 0), 25, before);
  EXPECT_FALSE(fs::exists("nowhere"));
  EXPECT_EQ(exported(object, values), encode(values));
}

TEST_F(Interchange, DeadObjectAndBadContextAreRefused) {
  const Values values = edgeValues(ZelNonNegative);
  writeFile("pixels.raw", encode(values));
  ZelObject *object = holding(values);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel002(ctx_, object), 0);
  const Snapshot before = snapshot();
  expectRefusal(Zel702(ctx_, object, "out.raw", 0, nullptr, 0), 9, before);
  expectRefusal(Zel703(ctx_, "pixels.raw", object, 0, 0, nullptr, 0), 9, before);
  EXPECT_FALSE(fs::exists("out.raw"));
  ZelObject *live = holding(values);
  ASSERT_NE(live, nullptr);
  EXPECT_EQ(Zel702(nullptr, live, "out.raw", 0, nullptr, 0), 24);
  EXPECT_EQ(Zel703(nullptr, "pixels.raw", live, 0, 0, nullptr, 0), 24);
  EXPECT_FALSE(fs::exists("out.raw"));
}

TEST_F(Interchange, BadAttributeListsAreOutOfRange) {
  const Values values = edgeValues(ZelNonNegative);
  writeFile("pixels.raw", encode(values));
  ZelObject *object = holding(values);
  ASSERT_NE(object, nullptr);
  const ZelAttribute one[] = {{"dataType", ZelNonNegative}};
  const Snapshot before = snapshot();
  expectRefusal(Zel702(ctx_, object, "out.raw", 0, one, -5), 18, before);
  expectRefusal(Zel702(ctx_, object, "out.raw", 0, nullptr, 2), 18, before);
  expectRefusal(Zel703(ctx_, "pixels.raw", object, 0, 0, one, -5), 18, before);
  expectRefusal(Zel703(ctx_, "pixels.raw", object, 0, 0, nullptr, 2), 18, before);
  EXPECT_FALSE(fs::exists("out.raw"));
  EXPECT_EQ(exported(object, values), encode(values));
}

// ---- Read modes ------------------------------------------------------------------------------

TEST_F(Interchange, ReadDataAndTheFullReadBothMoveThePixels) {
  const Values file = edgeValues(ZelSigned);
  const std::vector<uint8_t> memory = encode(file);
  writeFile("pixels.raw", memory);
  for (int mode : {0, static_cast<int>(ZelReadData)}) {
    for (bool fromMemory : {false, true}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + (fromMemory ? " memory" : " file"));
      ZelObject *object = create(ZelSigned, file.extent);
      ASSERT_NE(object, nullptr);
      ASSERT_EQ(read(object, "pixels.raw", fromMemory ? &memory : nullptr, 0, mode), 0);
      EXPECT_EQ(exported(object, file), memory);
      ASSERT_EQ(Zel002(ctx_, object), 0);
    }
  }
}

TEST_F(Interchange, ReadAttributesWithoutAFormatDoesNothing) {
  const Values prior = edgeValues(ZelNonNegative);
  const Values other = edgeValues(ZelSigned);
  writeFile("pixels.raw", encode(other));
  const std::vector<uint8_t> memory = encode(other);
  ZelObject *object = holding(prior);
  ASSERT_NE(object, nullptr);
  clearLastError(ctx_);
  const Snapshot before = snapshot();
  EXPECT_EQ(read(object, "pixels.raw", nullptr, 0, ZelReadAttributes), 0);
  EXPECT_EQ(read(object, nullptr, &memory, 0, ZelReadAttributes), 0);
  // The file isn't even opened: a missing one makes no difference.
  EXPECT_EQ(read(object, "absent.raw", nullptr, 0, ZelReadAttributes), 0);
  expectNothingLeft(before);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(exported(object, prior), encode(prior));
  EXPECT_EQ(readAttribute(ctx_, object, "dataType"), ZelNonNegative);
  EXPECT_EQ(readAttribute(ctx_, object, "xDimension"), 12);
}

TEST_F(Interchange, AttributesThenDataReadsTheFileInTwoCalls) {
  const Values file = edgeValues(ZelBoolean);
  writeFile("bits.raw", encode(file));
  ZelObject *object = create(ZelBoolean, file.extent);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(read(object, "bits.raw", nullptr, 0, ZelReadAttributes), 0);
  EXPECT_EQ(exported(object, file), std::vector<uint8_t>(2, 0));
  ASSERT_EQ(read(object, "bits.raw", nullptr, 0, ZelReadData), 0);
  EXPECT_EQ(exported(object, file), encode(file));
}

TEST_F(Interchange, ModesOtherThanTheThreeAreRefusedBeforeAnythingElse) {
  const Values prior = edgeValues(ZelNonNegative);
  writeFile("pixels.raw", encode(edgeValues(ZelSigned)));
  const std::vector<uint8_t> memory = fileBytes("pixels.raw");
  ZelObject *object = holding(prior);
  ASSERT_NE(object, nullptr);
  for (int mode : {1, 2, -1, 170, 173, 999, ZelReadData + 256}) {
    for (bool fromMemory : {false, true}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + (fromMemory ? " memory" : " file"));
      const Snapshot before = snapshot();
      expectRefusal(read(object, "pixels.raw", fromMemory ? &memory : nullptr, ZelTiff, mode), 18,
                    before);
      // Not even the format is noted on the object.
      EXPECT_EQ(readAttribute(ctx_, object, "fileFormat"), 0);
      EXPECT_EQ(exported(object, prior), encode(prior));
      // The mode is looked at before the object and the name.
      expectRefusal(Zel703(ctx_, nullptr, nullptr, 0, mode, nullptr, 0), 18, before);
    }
  }
}

// ---- Formats ---------------------------------------------------------------------------------

// Formats the library knows but whose files aren't built in yet, and values that are no format
// in the direction at all.
const int kWritableFormats[] = {ZelGif, ZelTiff, ZelKolShort, ZelBmp,        ZelJpegInterchange,
                                ZelPcx, ZelDib,  ZelSgiRgb,   ZelJpegDirect, ZelWbmp};
const int kNotWritable[] = {ZelMacPaint,
                            ZelDibHeaderOnly,
                            ZelSegmentedDocument,
                            ZelKolLong,
                            ZelJpegColourFax,
                            1,
                            -1,
                            93,
                            236,
                            100000};
const int kReadableFormats[] = {
    ZelGif, ZelTiff,    ZelKolShort, ZelSegmentedDocument, ZelBmp,  ZelJpegInterchange,
    ZelPcx, ZelKolLong, ZelDib,      ZelJpegDirect,        ZelWbmp, ZelJpegColourFax};
const int kNotReadable[] = {ZelSgiRgb, ZelMacPaint, ZelDibHeaderOnly, 1, -1, 93, 236, 100000};

TEST_F(Interchange, WriteRefusesFormatsNotBuiltInAndValuesThatAreNoFormat) {
  const Values values = edgeValues(ZelSigned);
  ZelObject *object = holding(values);
  ASSERT_NE(object, nullptr);
  for (int code : {12, 18}) {
    for (int format :
         code == 12 ? std::vector<int>(std::begin(kWritableFormats), std::end(kWritableFormats))
                    : std::vector<int>(std::begin(kNotWritable), std::end(kNotWritable))) {
      SCOPED_TRACE("format " + std::to_string(format));
      const Snapshot before = snapshot();
      expectRefusal(Zel702(ctx_, object, "out.img", format, nullptr, 0), code, before);
      EXPECT_FALSE(fs::exists("out.img"));
      EXPECT_EQ(exported(object, values), encode(values));
      EXPECT_EQ(readAttribute(ctx_, object, "fileFormat"), 0);
    }
  }
}

TEST_F(Interchange, ReadRefusesFormatsNotBuiltInAndValuesThatAreNoFormat) {
  const Values prior = edgeValues(ZelNonNegative);
  writeFile("in.img", std::vector<uint8_t>(64, 0x42));
  const std::vector<uint8_t> memory(64, 0x42);
  for (int code : {12, 18}) {
    for (int format :
         code == 12 ? std::vector<int>(std::begin(kReadableFormats), std::end(kReadableFormats))
                    : std::vector<int>(std::begin(kNotReadable), std::end(kNotReadable))) {
      for (int mode : {0, static_cast<int>(ZelReadAttributes), static_cast<int>(ZelReadData)}) {
        for (bool fromMemory : {false, true}) {
          SCOPED_TRACE("format " + std::to_string(format) + " mode " + std::to_string(mode) +
                       (fromMemory ? " memory" : " file"));
          ZelObject *object = holding(prior);
          ASSERT_NE(object, nullptr);
          const Snapshot before = snapshot();
          expectRefusal(read(object, "in.img", fromMemory ? &memory : nullptr, format, mode), code,
                        before);
          EXPECT_EQ(exported(object, prior), encode(prior));
          EXPECT_EQ(readAttribute(ctx_, object, "xDimension"), 12);
          EXPECT_EQ(readAttribute(ctx_, object, "dataType"), ZelNonNegative);
          ASSERT_EQ(Zel002(ctx_, object), 0);
        }
      }
    }
  }
  EXPECT_EQ(fileBytes("in.img"), std::vector<uint8_t>(64, 0x42));
}

// ---- The palette's used size -----------------------------------------------------------------

class InterchangePalette : public Interchange {
 protected:
  // An image with a lookup table whose used size is set.
  ZelObject *imageWithTable(const Values &values) {
    ZelObject *image = holding(values);
    const ZelAttribute tableList[] = {{"xDimension", 256}};
    table_ = Zel000e(ctx_, nullptr, nullptr, tableList, 1);
    if (!image || !table_) {
      ADD_FAILURE() << "no image or table";
      return nullptr;
    }
    EXPECT_EQ(Zel006a(ctx_, table_, "usedXDimension", 17), 0);
    EXPECT_EQ(Zel006a(ctx_, image, "lut", word(table_)), 0);
    return image;
  }
  ZelValue used() { return readAttribute(ctx_, table_, "usedXDimension"); }

  ZelObject *table_ = nullptr;
};

TEST_F(InterchangePalette, SuccessfulReadClearsTheUsedSizeOfTheTable) {
  const Values values = edgeValues(ZelNonNegative);
  writeFile("pixels.raw", encode(values));
  const std::vector<uint8_t> memory = encode(values);
  for (int mode : {0, static_cast<int>(ZelReadData), static_cast<int>(ZelReadAttributes)}) {
    for (bool fromMemory : {false, true}) {
      SCOPED_TRACE("mode " + std::to_string(mode) + (fromMemory ? " memory" : " file"));
      ZelObject *image = imageWithTable(edgeValues(ZelNonNegative));
      ASSERT_NE(image, nullptr);
      ASSERT_EQ(used(), 17);
      ASSERT_EQ(read(image, "pixels.raw", fromMemory ? &memory : nullptr, 0, mode), 0);
      EXPECT_EQ(used(), 0);
      // The table itself stays the image's, and alive.
      EXPECT_EQ(readAttribute(ctx_, image, "lut"), word(table_));
      EXPECT_EQ(table_->inUse, 1);
      EXPECT_EQ(readAttribute(ctx_, table_, "xDimension"), 256);
    }
  }
}

TEST_F(InterchangePalette, FailedReadLeavesTheUsedSize) {
  const Values values = edgeValues(ZelNonNegative);
  writeFile("short.raw", {1, 2, 3});
  ZelObject *image = imageWithTable(values);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(read(image, "short.raw", nullptr), -1);
  EXPECT_EQ(read(image, "absent.raw", nullptr), 25);
  EXPECT_EQ(read(image, "short.raw", nullptr, ZelTiff), 12);
  EXPECT_EQ(read(image, "short.raw", nullptr, 0, 5), 18);
  EXPECT_EQ(used(), 17);
}

TEST_F(InterchangePalette, WriteLeavesTheUsedSize) {
  ZelObject *image = imageWithTable(edgeValues(ZelNonNegative));
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(Zel702(ctx_, image, "out.raw", 0, nullptr, 0), 0);
  EXPECT_EQ(used(), 17);
}

// ---- Composites ------------------------------------------------------------------------------

class InterchangeComposite : public Interchange {
 protected:
  // A composite of `entries` places holding the pages in order, null for a missing one.
  ZelObject *compositeOf(const std::vector<ZelObject *> &pages) {
    const ZelAttribute list[] = {{"xDimension", static_cast<ZelValue>(pages.size())}};
    ZelObject *composite = Zel000z(ctx_, nullptr, nullptr, list, 1);
    if (!composite) {
      ADD_FAILURE() << "no composite";
      return nullptr;
    }
    for (size_t i = 0; i < pages.size(); ++i)
      EXPECT_EQ(Zel011(ctx_, pages[i], composite, static_cast<int>(i)), 0);
    return composite;
  }

  void expectPagesKept(ZelObject *composite, const std::vector<ZelObject *> &pages,
                       const std::vector<Values> &values) {
    for (size_t i = 0; i < pages.size(); ++i) {
      SCOPED_TRACE("page " + std::to_string(i));
      EXPECT_EQ(Zel010(ctx_, composite, static_cast<int>(i)), pages[i]);
      if (!pages[i]) continue;
      ASSERT_EQ(pages[i]->inUse, 1) << "the application's page was destroyed";
      EXPECT_EQ(exported(pages[i], values[i]), encode(values[i]));
    }
  }
};

TEST_F(InterchangeComposite, MissingPageIsAnInvalidInstance) {
  std::mt19937 rng(5);
  const std::vector<Values> values = {randomValues(rng, ZelNonNegative, {4, 3, 1, 1, 1}),
                                      randomValues(rng, ZelNonNegative, {4, 3, 1, 1, 1}),
                                      randomValues(rng, ZelNonNegative, {4, 3, 1, 1, 1})};
  for (size_t missing = 0; missing < values.size(); ++missing) {
    SCOPED_TRACE("missing page " + std::to_string(missing));
    std::vector<ZelObject *> pages;
    for (size_t i = 0; i < values.size(); ++i)
      pages.push_back(i == missing ? nullptr : holding(values[i]));
    ZelObject *composite = compositeOf(pages);
    ASSERT_NE(composite, nullptr);
    const Snapshot before = snapshot();
    expectRefusal(Zel702(ctx_, composite, "pages.img", ZelTiff, nullptr, 0), 9, before);
    EXPECT_FALSE(fs::exists("pages.img"));
    expectPagesKept(composite, pages, values);
  }
}

TEST_F(InterchangeComposite, EveryPageGetsAFileObjectThatDiesWithTheCall) {
  std::mt19937 rng(6);
  const std::vector<Values> values = {randomValues(rng, ZelBoolean, {9, 2, 1, 1, 1}),
                                      randomValues(rng, ZelSigned, {3, 3, 1, 1, 1})};
  const std::vector<ZelObject *> pages = {holding(values[0]), holding(values[1])};
  ZelObject *composite = compositeOf(pages);
  ASSERT_NE(composite, nullptr);
  // The writer is refused only after all file objects were made.
  for (int format : {static_cast<int>(ZelTiff), static_cast<int>(ZelMacPaint)}) {
    const Snapshot before = snapshot();
    expectRefusal(Zel702(ctx_, composite, "pages.img", format, nullptr, 0),
                  format == ZelTiff ? 12 : 18, before);
    EXPECT_FALSE(fs::exists("pages.img"));
    expectPagesKept(composite, pages, values);
    for (ZelObject *page : pages)
      for (ZelObject *child = page->firstChild; child; child = child->nextSibling)
        EXPECT_EQ(child->inUse, 0);
  }
}

TEST_F(InterchangeComposite, CompositeWithoutAFormatIsRefusedAndKeepsTheApplicationsPages) {
  std::mt19937 rng(7);
  const std::vector<Values> values = {randomValues(rng, ZelNonNegative, {5, 2, 1, 1, 1}),
                                      randomValues(rng, ZelNonNegative, {5, 2, 1, 1, 1})};
  const std::vector<ZelObject *> pages = {holding(values[0]), holding(values[1])};
  ZelObject *composite = compositeOf(pages);
  ASSERT_NE(composite, nullptr);
  const Snapshot before = snapshot();
  // Raw pixels have no pages: the write is refused, and the pages belong to the application.
  EXPECT_EQ(Zel702(ctx_, composite, "pages.raw", 0, nullptr, 0), 12);
  EXPECT_EQ(Zel003b(ctx_), 12);
  EXPECT_FALSE(std::filesystem::exists("pages.raw"));
  expectPagesKept(composite, pages, values);
  expectNothingLeft(before);
}

// ---- Recognition of formats ------------------------------------------------------------------

struct Header {
  const char *name;
  std::vector<uint8_t> bytes;
  int format;
  bool readersTried;  // no signature matched, so the readers were asked
};

std::vector<uint8_t> bytesOfText(const std::string &text, std::vector<uint8_t> tail = {}) {
  std::vector<uint8_t> bytes(text.begin(), text.end());
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  return bytes;
}

std::vector<Header> headers() {
  return {
      {"BitmapBM", bytesOfText("BM", {0x36, 0, 0, 0, 0, 0, 0, 0}), ZelBmp, false},
      {"BitmapBeforeTiffLookalike", bytesOfText("BMII"), ZelBmp, false},
      {"Gif87a", bytesOfText("GIF87a", {1, 0, 1, 0}), ZelGif, false},
      {"Gif89a", bytesOfText("GIF89a", {1, 0, 1, 0}), ZelGif, false},
      {"Gif88aIsNoGif", bytesOfText("GIF88a"), 0, true},
      {"Gif87bIsNoGif", bytesOfText("GIF87b"), 0, true},
      {"TiffLittleEndian", bytesOfText("II", {42, 0, 8, 0, 0, 0}), ZelTiff, false},
      {"TiffBigEndian", bytesOfText("MM", {0, 42, 0, 0, 0, 8}), ZelTiff, false},
      {"TiffByOrderMarkAlone", bytesOfText("MMxyz"), ZelTiff, false},
      {"JpegColourFax", {0xFF, 0xD8, 0xFF, 0xE1, 0x00, 0x0C, 0x47, 0x33}, ZelJpegColourFax, false},
      {"JpegWithOtherApp1", {0xFF, 0xD8, 0xFF, 0xE1, 0x00, 0x0C, 0x47, 0x34}, ZelJpegDirect, false},
      {"JpegJfif", {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F'}, ZelJpegDirect, false},
      {"JpegBareStart", {0xFF, 0xD8}, ZelJpegDirect, false},
      {"JpegHalfStart", {0xFF, 0xD9}, 0, true},
      {"PcxAnyVersion", {0x0A, 0x05, 0x01, 0x08}, ZelPcx, false},
      {"PcxVersionZero", {0x0A, 0x00, 0x01}, ZelPcx, false},
      {"PcxVersionFF", {0x0A, 0xFF, 0x01}, ZelPcx, false},
      {"PcxWithoutRunLength", {0x0A, 0x05, 0x00}, 0, true},
      {"Document03", {0xF0, 0xF3, 0x23, 0x00}, ZelSegmentedDocument, false},
      {"Document04", {0xF0, 0xF4, 0x23, 0x40}, ZelSegmentedDocument, false},
      {"Document05IsUnknown", {0xF0, 0xF5, 0x23, 0x00}, 0, true},
      {"Document03WithoutHash", {0xF0, 0xF3, 0x24, 0x00}, 0, true},
      {"Png", {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, ZelPng, false},
      {"PngDamagedSignature", {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0B}, 0, true},
      {"Photoshop", bytesOfText("8BPS", {0, 1}), 0, false},
      {"Zeros", {}, 0, true},
      {"Text", bytesOfText("hello, world"), 0, true},
  };
}

// Ten bytes at least: the header, then zeros.
std::vector<uint8_t> padded(std::vector<uint8_t> bytes, size_t size = 16) {
  if (bytes.size() < size) bytes.resize(size, 0);
  return bytes;
}

class InterchangeDetection : public Interchange, public ::testing::WithParamInterface<Header> {};

TEST_P(InterchangeDetection, FileAndMemoryGiveTheFormatOfTheFirstBytes) {
  const Header &header = GetParam();
  const std::vector<uint8_t> bytes = padded(header.bytes);
  writeFile("head.img", bytes);
  for (bool fromMemory : {false, true}) {
    SCOPED_TRACE(fromMemory ? "memory" : "file");
    clearLastError(ctx_);
    const Snapshot before = snapshot();
    const int format = fromMemory ? Zel705w(ctx_, bytes.data(), static_cast<int>(bytes.size()))
                                  : Zel705(ctx_, "head.img");
    EXPECT_EQ(format, header.format);
    expectNothingLeft(before);
    // A signature is taken at once, and "8BPS" ends the search at once too; anything else is
    // tried by the readers, whose complaints leave a code behind.
    if (header.readersTried)
      EXPECT_NE(Zel003b(ctx_), 0);
    else
      EXPECT_EQ(Zel003b(ctx_), 0);
    EXPECT_EQ(Zel007a(ctx_, "errorReportingState"), 0);
  }
  EXPECT_EQ(fileBytes("head.img"), bytes);
}

INSTANTIATE_TEST_SUITE_P(Headers, InterchangeDetection, ::testing::ValuesIn(headers()),
                         [](const ::testing::TestParamInfo<Header> &param) {
                           return std::string(param.param.name);
                         });

TEST_F(Interchange, DetectionInMemoryNeedsTenBytes) {
  const std::vector<uint8_t> bytes = bytesOfText("BMxxxxxxxxxx");
  for (int size : {-1, 0, 1, 2, 9}) {
    SCOPED_TRACE(size);
    const Snapshot before = snapshot();
    EXPECT_EQ(Zel705w(ctx_, bytes.data(), size), 0);
    EXPECT_EQ(Zel003b(ctx_), 8);
    expectNothingLeft(before);
  }
  clearLastError(ctx_);
  EXPECT_EQ(Zel705w(ctx_, bytes.data(), 10), ZelBmp);
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(Interchange, DetectionOfANullAddressIsOutOfRange) {
  const Snapshot before = snapshot();
  EXPECT_EQ(Zel705w(ctx_, nullptr, 100), 0);
  EXPECT_EQ(Zel003b(ctx_), 18);
  EXPECT_EQ(Zel705(ctx_, nullptr), 0);
  EXPECT_EQ(Zel003b(ctx_), 18);
  expectNothingLeft(before);
}

TEST_F(Interchange, DetectionOfMissingOrShortFilesGivesNothing) {
  const Snapshot before = snapshot();
  EXPECT_EQ(Zel705(ctx_, "absent.img"), 0);
  EXPECT_EQ(Zel003b(ctx_), 25);
  expectNothingLeft(before);
  // Fewer than the ten bytes of the test can't be read, even with a signature in them.
  writeFile("short.img", bytesOfText("BM\x36"));
  clearLastError(ctx_);
  EXPECT_EQ(Zel705(ctx_, "short.img"), 0);
  EXPECT_NE(Zel003b(ctx_), 0);
  expectNothingLeft(before);
}

TEST_F(Interchange, DetectionWithABadContextGivesNothing) {
  const std::vector<uint8_t> bytes = padded(bytesOfText("BM"));
  writeFile("head.img", bytes);
  EXPECT_EQ(Zel705(nullptr, "head.img"), 0);
  EXPECT_EQ(Zel705w(nullptr, bytes.data(), 16), 0);
  ZelContext *closed = Zel004(nullptr);
  ASSERT_NE(closed, nullptr);
  ASSERT_EQ(Zel001(closed), 0);
  EXPECT_EQ(Zel705(closed, "head.img"), 0);
  EXPECT_EQ(Zel705w(closed, bytes.data(), 16), 0);
}

TEST_F(Interchange, DetectionByTheReadersKeepsTheLogQuietAndRestoresItsSetting) {
  const fs::path log = scratch_.path() / "errors.log";
  ContextGuard logged(log.c_str());
  ASSERT_NE(logged.get(), nullptr);
  ASSERT_EQ(Zel007a(logged, "errorReportingState"), 1);
  const std::vector<uint8_t> unknown = padded(bytesOfText("no format here"));
  writeFile("unknown.img", unknown);
  EXPECT_EQ(Zel705(logged, "unknown.img"), 0);
  EXPECT_EQ(Zel705w(logged, unknown.data(), static_cast<int>(unknown.size())), 0);
  EXPECT_EQ(Zel007a(logged, "errorReportingState"), 1);
  EXPECT_FALSE(fs::exists(log)) << "the readers' complaints reached the log";
  // Logging is still on: a real failure of the call itself is written.
  EXPECT_EQ(Zel705(logged, "absent.img"), 0);
  EXPECT_TRUE(fs::exists(log));

  // A context that logs nothing keeps it so.
  ASSERT_EQ(Zel008a(logged, "errorReportingState", 0), 0);
  fs::remove(log);
  EXPECT_EQ(Zel705(logged, "unknown.img"), 0);
  EXPECT_EQ(Zel007a(logged, "errorReportingState"), 0);
  EXPECT_FALSE(fs::exists(log));
}

}  // namespace
