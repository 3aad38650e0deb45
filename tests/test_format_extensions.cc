// The records that an object carries for its file format: fields and defaults, the tables and
// texts they own, their release, and their copies on derived objects.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "kernel/memory.h"
#include "test_support.h"
#include "zel.h"

namespace {

using zel::test::ContextGuard;
using zel::test::readAttribute;

enum class Field {
  Word,          // a plain 32-bit word
  Bytes,         // a table of `size` bytes
  WordPair,      // a table of two int32 words
  StripCount,    // the count that sizes the strip tables
  Strips,        // a table of stripsPerImage int32 words
  Text,          // an owned text
  Transparency,  // 256 bytes, transparencyEntry of them written
};

struct FieldLayout {
  const char *name;
  Field kind;
  int size;
  ZelValue initial;
};

struct RecordLayout {
  int format;
  const char *label;
  std::vector<FieldLayout> fields;
  int scaleFactor;  // given to the object when the record is made; 0 leaves it alone
};

FieldLayout word(const char *name, ZelValue initial = 0) {
  return {name, Field::Word, 0, initial};
}

std::vector<FieldLayout> jpegTables() {
  return {{"chrominanceACBITS", Field::Bytes, 16, 0},
          {"chrominanceACHUFFVAL", Field::Bytes, 256, 0},
          {"chrominanceDCBITS", Field::Bytes, 16, 0},
          {"chrominanceDCHUFFVAL", Field::Bytes, 16, 0},
          {"chrominanceQuantizationTable", Field::Bytes, 64, 0},
          {"luminanceACBITS", Field::Bytes, 16, 0},
          {"luminanceACHUFFVAL", Field::Bytes, 256, 0},
          {"luminanceDCBITS", Field::Bytes, 16, 0},
          {"luminanceDCHUFFVAL", Field::Bytes, 16, 0},
          {"luminanceQuantizationTable", Field::Bytes, 64, 0}};
}

std::vector<FieldLayout> operator+(std::vector<FieldLayout> a, const std::vector<FieldLayout> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const std::vector<RecordLayout> &allFormats() {
  static const std::vector<RecordLayout> formats = {
      {ZelGif,
       "Gif",
       {word("interlacedImage"), word("left"), word("top"), word("screenDepth"),
        word("screenWidth"), word("version"), word("transparency"),
        word("transparencyPaletteIndex"), word("codeSize")},
       0},
      {ZelTiff, "Tiff",
       std::vector<FieldLayout>{word("photometricInterpretation"),
                                word("resolutionUnit"),
                                word("rowsPerStrip"),
                                {"stripByteCounts", Field::Strips, 0, 0},
                                {"stripsPerImage", Field::StripCount, 0, 0},
                                {"xResolution", Field::WordPair, 2, 0},
                                {"yResolution", Field::WordPair, 2, 0},
                                word("orientation"),
                                word("planarConfiguration"),
                                word("pageNumber"),
                                word("newSubfileType"),
                                {"stripOffsets", Field::Strips, 0, 0},
                                word("jpegInterchangeFormatOffset"),
                                word("jpegInterchangeFormatLenght"),
                                word("jpegTablesOffset"),
                                word("jpegTablesLength")} +
           jpegTables() +
           std::vector<FieldLayout>{
               word("restartInterval"), word("former"), {"imageDescription", Field::Text, 0, 0}},
       75},
      {ZelSegmentedDocument,
       "SegmentedDocument",
       {word("resolutionUnit"), word("xResolution"), word("yResolution"), word("xVDC1stCorner"),
        word("yVDC1stCorner"), word("xVDC2ndCorner"), word("yVDC2ndCorner")},
       0},
      {ZelBmp, "Bmp", {word("resolutionUnit"), word("xResolution"), word("yResolution")}, 0},
      {ZelJpegInterchange, "JpegInterchange",
       jpegTables() + std::vector<FieldLayout>{word("restartInterval"), word("progressive"),
                                               word("resolutionUnit"), word("xResolution", 1),
                                               word("yResolution", 1)},
       1},
      {ZelJpegDirect, "JpegDirect",
       jpegTables() + std::vector<FieldLayout>{word("restartInterval"), word("progressive"),
                                               word("resolutionUnit"), word("xResolution", 1),
                                               word("yResolution", 1)},
       75},
      {ZelPcx,
       "Pcx",
       {word("horizontalResolution"), word("verticalResolution"), word("versionNumber", 5),
        word("bytePerLine")},
       0},
      {ZelPng,
       "Png",
       {word("interlacedImage"),
        word("colourType"),
        word("transparency"),
        word("transparencyGray"),
        word("transparencyRed"),
        word("transparencyGreen"),
        word("transparencyBlue"),
        word("transparencyEntry", 256),
        {"transparencyPaletteIndex", Field::Transparency, 256, 0},
        {"copyright", Field::Text, 0, 0},
        word("compressionDataSize")},
       0},
      {ZelJpegColourFax,
       "JpegColourFax",
       {word("resolutionUnit"), word("xResolution", 1), word("yResolution", 1),
        word("lGamutRange", 100), word("lGamutOffset"), word("aGamutRange", 170),
        word("aGamutOffset", 128), word("bGamutRange", 200), word("bGamutOffset", 96)},
       0},
  };
  return formats;
}

const RecordLayout &layoutOf(int format) {
  for (const RecordLayout &layout : allFormats())
    if (layout.format == format) return layout;
  ADD_FAILURE() << "no format " << format;
  return allFormats().front();
}

bool hasField(const RecordLayout &layout, const std::string &name) {
  return std::any_of(layout.fields.begin(), layout.fields.end(),
                     [&](const FieldLayout &field) { return name == field.name; });
}

// Every format attribute name of every record.
std::set<std::string> allFormatNames() {
  std::set<std::string> names;
  for (const RecordLayout &layout : allFormats())
    for (const FieldLayout &field : layout.fields)
      names.insert(field.name);
  return names;
}

ZelValue text(const char *value) {
  return reinterpret_cast<ZelValue>(value);
}
ZelValue table(const void *value) {
  return reinterpret_cast<ZelValue>(value);
}
ZelValue place(ZelValue *where) {
  return reinterpret_cast<ZelValue>(where);
}
template <class T>
const T *tableOf(ZelContext *ctx, ZelObject *object, const char *name) {
  return reinterpret_cast<const T *>(readAttribute(ctx, object, name));
}

constexpr ZelValue kUntouched = -0x5EE5EE5EE5;

// Reads `name` into a place that holds `sentinel` before the call.
ZelValue readOver(ZelContext *ctx, ZelObject *object, const char *name,
                  ZelValue sentinel = kUntouched) {
  ZelValue value = sentinel;
  ZelAttribute entry{name, place(&value)};
  EXPECT_EQ(Zel005(ctx, object, &entry, 1), 0) << name;
  return value;
}

ZelObject *newImage(ZelContext *ctx, ZelObject *parent = nullptr) {
  ZelObject *object = Zel000b(ctx, nullptr, parent, nullptr, 0);
  EXPECT_NE(object, nullptr);
  return object;
}

ZelObject *newImageOfFormat(ZelContext *ctx, int format) {
  ZelObject *object = newImage(ctx);
  if (object) {
    EXPECT_EQ(Zel006a(ctx, object, "fileFormat", format), 0);
  }
  return object;
}

std::vector<uint8_t> pattern(size_t size, int seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<uint8_t>(seed + 7 * i);
  return bytes;
}

// Turns the allocation fault injector off however the test ends.
class AllocationFailure {
 public:
  explicit AllocationFailure(long successes) { zel::testing::failAllocationAfter(successes); }
  ~AllocationFailure() { zel::testing::failAllocationAfter(-1); }
  AllocationFailure(const AllocationFailure &) = delete;
  AllocationFailure &operator=(const AllocationFailure &) = delete;
};

constexpr int kStrips = 3;
constexpr int kTransparencyEntries = 5;

// Gives every field of the object's record a value other than its default: each word its own
// number, each table and text its own contents.
void fillEveryField(ZelContext *ctx, ZelObject *object, const RecordLayout &layout) {
  std::vector<ZelAttribute> words;
  int n = 0;
  for (const FieldLayout &field : layout.fields) {
    if (field.kind != Field::Word) continue;
    ZelValue value = std::string(field.name) == "transparencyEntry" ? kTransparencyEntries
                                                                    : 1000 + 37 * n - 500 * (n % 2);
    words.push_back({field.name, value});
    ++n;
  }
  ASSERT_EQ(Zel006(ctx, object, words.data(), static_cast<int>(words.size())), 0);
  int seed = 1;
  for (const FieldLayout &field : layout.fields) {
    SCOPED_TRACE(field.name);
    switch (field.kind) {
      case Field::Word:
        break;
      case Field::Bytes:
      case Field::Transparency: {
        auto bytes = pattern(static_cast<size_t>(field.size), seed++);
        ASSERT_EQ(Zel006a(ctx, object, field.name, table(bytes.data())), 0);
        break;
      }
      case Field::WordPair: {
        const int32_t pair[2] = {300 + seed, 1 + seed};
        ++seed;
        ASSERT_EQ(Zel006a(ctx, object, field.name, table(pair)), 0);
        break;
      }
      case Field::StripCount:
        ASSERT_EQ(Zel006a(ctx, object, field.name, kStrips), 0);
        break;
      case Field::Strips:
        break;
      case Field::Text: {
        std::string value = std::string(field.name) + " of " + layout.label;
        ASSERT_EQ(Zel006a(ctx, object, field.name, text(value.c_str())), 0);
        break;
      }
    }
  }
  for (const FieldLayout &field : layout.fields) {
    if (field.kind != Field::Strips) continue;
    std::vector<int32_t> strips(kStrips);
    for (int i = 0; i < kStrips; ++i)
      strips[static_cast<size_t>(i)] = 4096 * (i + 1) + seed;
    ++seed;
    ASSERT_EQ(Zel006a(ctx, object, field.name, table(strips.data())), 0);
  }
}

// Bytes that a table field of the record holds.
size_t tableBytes(ZelContext *ctx, ZelObject *object, const FieldLayout &field) {
  switch (field.kind) {
    case Field::Bytes:
    case Field::Transparency:
      return static_cast<size_t>(field.size);
    case Field::WordPair:
      return 2 * sizeof(int32_t);
    case Field::Strips:
      return static_cast<size_t>(readAttribute(ctx, object, "stripsPerImage")) * sizeof(int32_t);
    default:
      return 0;
  }
}

// Both objects hold the same format and equal values in every field, each table and text of
// `b` being a block of its own.
void expectSameRecord(ZelContext *ctx, ZelObject *a, ZelObject *b, const RecordLayout &layout) {
  EXPECT_EQ(readAttribute(ctx, a, "fileFormat"), layout.format);
  EXPECT_EQ(readAttribute(ctx, b, "fileFormat"), layout.format);
  for (const FieldLayout &field : layout.fields) {
    SCOPED_TRACE(field.name);
    ZelValue fromA = readOver(ctx, a, field.name);
    ZelValue fromB = readOver(ctx, b, field.name);
    ASSERT_NE(fromA, kUntouched);
    ASSERT_NE(fromB, kUntouched);
    switch (field.kind) {
      case Field::Word:
      case Field::StripCount:
        EXPECT_EQ(fromA, fromB);
        break;
      case Field::Text:
        ASSERT_NE(fromA, 0);
        ASSERT_NE(fromB, 0);
        EXPECT_NE(fromA, fromB);
        EXPECT_STREQ(reinterpret_cast<const char *>(fromA), reinterpret_cast<const char *>(fromB));
        break;
      default: {
        ASSERT_NE(fromA, 0);
        ASSERT_NE(fromB, 0);
        EXPECT_NE(fromA, fromB);
        size_t bytes = tableBytes(ctx, a, field);
        EXPECT_GT(bytes, 0u);
        EXPECT_EQ(std::memcmp(reinterpret_cast<const void *>(fromA),
                              reinterpret_cast<const void *>(fromB), bytes),
                  0);
      }
    }
  }
}

// ---- Every record, field by field ------------------------------------------------------------

class FormatRecord : public ::testing::TestWithParam<RecordLayout> {};

TEST_P(FormatRecord, FieldsStartWithTheirDefaults) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), layout.format);
  for (const FieldLayout &field : layout.fields) {
    SCOPED_TRACE(field.name);
    EXPECT_EQ(readOver(ctx, object, field.name), field.initial);
    EXPECT_EQ(Zel005a(ctx, object, field.name), field.initial);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST_P(FormatRecord, MakingTheRecordSetsTheScaleFactorWhereTheFormatHasOne) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "scaleFactor", 33), 0);
  ASSERT_EQ(Zel006a(ctx, object, "fileFormat", layout.format), 0);
  EXPECT_EQ(readAttribute(ctx, object, "scaleFactor"),
            layout.scaleFactor ? layout.scaleFactor : 33);
}

TEST_P(FormatRecord, WordFieldsKeepWhatIsWritten) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(object, nullptr);
  std::vector<ZelAttribute> list;
  ZelValue value = -3;
  for (const FieldLayout &field : layout.fields)
    if (field.kind == Field::Word) list.push_back({field.name, value += 1001});
  ASSERT_FALSE(list.empty());
  EXPECT_EQ(Zel006(ctx, object, list.data(), static_cast<int>(list.size())), 0);
  for (const ZelAttribute &entry : list) {
    SCOPED_TRACE(entry.name);
    EXPECT_EQ(readAttribute(ctx, object, entry.name), entry.value);
    EXPECT_EQ(Zel005a(ctx, object, entry.name), entry.value);
  }
  // Words hold 32 bits: the low half is kept and read back sign-extended.
  for (const ZelAttribute &entry : list) {
    SCOPED_TRACE(entry.name);
    EXPECT_EQ(Zel006a(ctx, object, entry.name, static_cast<ZelValue>(0x5FFFFFFFE)), 0);
    EXPECT_EQ(readAttribute(ctx, object, entry.name), -2);
    EXPECT_EQ(Zel006a(ctx, object, entry.name, -77), 0);
    EXPECT_EQ(Zel005a(ctx, object, entry.name), -77);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST_P(FormatRecord, NamesOfOtherFormatsAreIgnored) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(object, nullptr);
  int foreign = 0;
  for (const std::string &name : allFormatNames()) {
    if (hasField(layout, name)) continue;
    SCOPED_TRACE(name);
    EXPECT_EQ(readOver(ctx, object, name.c_str()), kUntouched);
    EXPECT_EQ(Zel006a(ctx, object, name.c_str(), 4321), 0);
    EXPECT_EQ(readOver(ctx, object, name.c_str()), kUntouched);
    ++foreign;
  }
  EXPECT_GT(foreign, 0);
  // The record itself is as it was made.
  for (const FieldLayout &field : layout.fields)
    EXPECT_EQ(readOver(ctx, object, field.name), field.initial) << field.name;
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST_P(FormatRecord, SwitchingToAnotherFormatDropsTheRecord) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(object, nullptr);
  fillEveryField(ctx, object, layout);
  const int other = layout.format == ZelGif ? ZelPcx : ZelGif;
  ASSERT_EQ(Zel006a(ctx, object, "fileFormat", other), 0);
  for (const FieldLayout &field : layout.fields) {
    if (!hasField(layoutOf(other), field.name)) {
      EXPECT_EQ(readOver(ctx, object, field.name), kUntouched) << field.name;
    }
  }
  // Coming back gives a new record with the defaults.
  ASSERT_EQ(Zel006a(ctx, object, "fileFormat", layout.format), 0);
  for (const FieldLayout &field : layout.fields)
    EXPECT_EQ(readOver(ctx, object, field.name), field.initial) << field.name;
}

TEST_P(FormatRecord, RewritingTheSameFormatKeepsTheRecordAndItsValues) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(object, nullptr);
  fillEveryField(ctx, object, layout);
  ASSERT_EQ(Zel006a(ctx, object, "scaleFactor", 40), 0);
  std::vector<ZelValue> before;
  for (const FieldLayout &field : layout.fields)
    before.push_back(readOver(ctx, object, field.name));
  EXPECT_EQ(Zel006a(ctx, object, "fileFormat", layout.format), 0);
  for (size_t i = 0; i < layout.fields.size(); ++i)
    EXPECT_EQ(readOver(ctx, object, layout.fields[i].name), before[i]) << layout.fields[i].name;
  EXPECT_EQ(readAttribute(ctx, object, "scaleFactor"), 40);
  if (hasField(layout, "imageDescription")) {
    EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "imageDescription")),
                 "imageDescription of Tiff");
  }
}

TEST_P(FormatRecord, ChildGetsTheFormatAndItsOwnCopiesOfEverything) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(parent, nullptr);
  fillEveryField(ctx, parent, layout);
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  expectSameRecord(ctx, parent, child, layout);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST_P(FormatRecord, DestroyingObjectsWithEverythingAllocatedReleasesIt) {
  const RecordLayout &layout = GetParam();
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(parent, nullptr);
  fillEveryField(ctx, parent, layout);
  ZelObject *child = newImage(ctx, parent);
  ZelObject *alone = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(child, nullptr);
  ASSERT_NE(alone, nullptr);
  fillEveryField(ctx, alone, layout);
  EXPECT_EQ(Zel002(ctx, alone), 0);
  // The child goes with its parent.
  EXPECT_EQ(Zel002(ctx, parent), 0);
  EXPECT_EQ(Zel006a(ctx, child, "fileFormat", 0), 9);
}

TEST_P(FormatRecord, ClosingTheContextReleasesEveryRecord) {
  const RecordLayout &layout = GetParam();
  ContextGuard guard;
  ZelContext *ctx = guard.get();
  ZelObject *parent = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(parent, nullptr);
  fillEveryField(ctx, parent, layout);
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  fillEveryField(ctx, child, layout);
  ZelObject *other = newImageOfFormat(ctx, layout.format);
  ASSERT_NE(other, nullptr);
  fillEveryField(ctx, other, layout);
  EXPECT_EQ(Zel001(guard.release()), 0);
}

void PrintTo(const RecordLayout &layout, std::ostream *out) {
  *out << layout.label << " (" << layout.format << ")";
}

std::string formatName(const ::testing::TestParamInfo<RecordLayout> &info) {
  return info.param.label;
}

INSTANTIATE_TEST_SUITE_P(AllFormats, FormatRecord, ::testing::ValuesIn(allFormats()), formatName);

// ---- Formats without a record -------------------------------------------------------------------

TEST(FormatExtensions, FormatsWithoutARecordIgnoreEveryFormatName) {
  ContextGuard ctx;
  for (int format :
       std::initializer_list<int>{0, ZelKolShort, ZelMacPaint, ZelKolLong, 255, 99999}) {
    SCOPED_TRACE(format);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(Zel006a(ctx, object, "scaleFactor", 33), 0);
    EXPECT_EQ(Zel006a(ctx, object, "fileFormat", format), 0);
    EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), format);
    EXPECT_EQ(readAttribute(ctx, object, "scaleFactor"), 33);
    for (const std::string &name : allFormatNames()) {
      EXPECT_EQ(Zel006a(ctx, object, name.c_str(), 4321), 0) << name;
      EXPECT_EQ(readOver(ctx, object, name.c_str()), kUntouched) << name;
    }
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(FormatExtensions, SwitchingToAFormatWithoutARecordDropsTheOldOne) {
  ContextGuard ctx;
  for (int format : std::initializer_list<int>{0, ZelKolShort, ZelMacPaint}) {
    SCOPED_TRACE(format);
    ZelObject *object = newImageOfFormat(ctx, ZelTiff);
    ASSERT_NE(object, nullptr);
    fillEveryField(ctx, object, layoutOf(ZelTiff));
    EXPECT_EQ(Zel006a(ctx, object, "fileFormat", format), 0);
    EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), format);
    EXPECT_EQ(readOver(ctx, object, "rowsPerStrip"), kUntouched);
    EXPECT_EQ(readOver(ctx, object, "imageDescription"), kUntouched);
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
}

TEST(FormatExtensions, ReadingLeftOnAnObjectThatIsNotGifLeavesThePlaceUntouched) {
  ContextGuard ctx;
  for (int format : std::initializer_list<int>{0, ZelTiff, ZelPng, ZelKolShort}) {
    SCOPED_TRACE(format);
    ZelObject *object = newImageOfFormat(ctx, format);
    ASSERT_NE(object, nullptr);
    ZelValue left = 1234;
    ZelAttribute entry{"left", place(&left)};
    EXPECT_EQ(Zel005(ctx, object, &entry, 1), 0);
    EXPECT_EQ(left, 1234);
    EXPECT_EQ(Zel005a(ctx, object, "left"), reinterpret_cast<ZelValue>(ctx.get()));
  }
  EXPECT_EQ(Zel003b(ctx), 0);
  ZelObject *gif = newImageOfFormat(ctx, ZelGif);
  ASSERT_NE(gif, nullptr);
  EXPECT_EQ(readOver(ctx, gif, "left", 1234), 0);
}

TEST(FormatExtensions, NamesAreTheExactSpellings) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel006a(ctx, object, "jpegInterchangeFormatLength", 9), 0);
  EXPECT_EQ(readOver(ctx, object, "jpegInterchangeFormatLength"), kUntouched);
  EXPECT_EQ(readAttribute(ctx, object, "jpegInterchangeFormatLenght"), 0);
  EXPECT_EQ(Zel006a(ctx, object, "RowsPerStrip", 9), 0);
  EXPECT_EQ(readAttribute(ctx, object, "rowsPerStrip"), 0);
  EXPECT_EQ(Zel006a(ctx, object, "jpegInterchangeFormatLenght", 9), 0);
  EXPECT_EQ(readAttribute(ctx, object, "jpegInterchangeFormatLenght"), 9);
}

TEST(FormatExtensions, NullPlaceForAFieldOfTheRecordIsOutOfRange) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelGif);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "top", 8), 0);
  ZelValue top = kUntouched, codeSize = kUntouched;
  const ZelAttribute list[] = {
      {"top", place(&top)}, {"rowsPerStrip", 0}, {"left", 0}, {"codeSize", place(&codeSize)}};
  EXPECT_EQ(Zel005(ctx, object, list, 4), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(top, 8);
  EXPECT_EQ(codeSize, kUntouched);
}

// ---- Huffman, quantisation and resolution tables --------------------------------------------

TEST(FormatTables, JpegTablesCopyTheirFullSizeFromTheCaller) {
  ContextGuard ctx;
  for (int format : {ZelTiff, ZelJpegInterchange, ZelJpegDirect}) {
    ZelObject *object = newImageOfFormat(ctx, format);
    ASSERT_NE(object, nullptr);
    int seed = 3;
    for (const FieldLayout &field : layoutOf(format).fields) {
      if (field.kind != Field::Bytes) continue;
      SCOPED_TRACE(std::to_string(format) + " " + field.name);
      const size_t size = static_cast<size_t>(field.size);
      // Exactly the table's size: reading beyond it would be caught.
      auto caller = pattern(size, seed++);
      const auto original = caller;
      ASSERT_EQ(Zel006a(ctx, object, field.name, table(caller.data())), 0);
      auto *stored = tableOf<uint8_t>(ctx, object, field.name);
      ASSERT_NE(stored, nullptr);
      EXPECT_NE(stored, caller.data());
      EXPECT_EQ(std::memcmp(stored, original.data(), size), 0);
      // The caller keeps its own table.
      std::fill(caller.begin(), caller.end(), uint8_t{0xA5});
      EXPECT_EQ(std::memcmp(tableOf<uint8_t>(ctx, object, field.name), original.data(), size), 0);
      // A second value overwrites the whole table.
      auto second = pattern(size, seed++ + 100);
      ASSERT_EQ(Zel006a(ctx, object, field.name, table(second.data())), 0);
      EXPECT_EQ(std::memcmp(tableOf<uint8_t>(ctx, object, field.name), second.data(), size), 0);
    }
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(FormatTables, NullTableValueIsIgnored) {
  ContextGuard ctx;
  for (int format : {ZelTiff, ZelJpegInterchange, ZelJpegDirect}) {
    SCOPED_TRACE(format);
    ZelObject *object = newImageOfFormat(ctx, format);
    ASSERT_NE(object, nullptr);
    // Never set: stays without a table.
    EXPECT_EQ(Zel006a(ctx, object, "luminanceQuantizationTable", 0), 0);
    EXPECT_EQ(readAttribute(ctx, object, "luminanceQuantizationTable"), 0);
    // Set: stays as it is.
    auto caller = pattern(64, 9);
    ASSERT_EQ(Zel006a(ctx, object, "luminanceQuantizationTable", table(caller.data())), 0);
    ZelValue stored = readAttribute(ctx, object, "luminanceQuantizationTable");
    EXPECT_EQ(Zel006a(ctx, object, "luminanceQuantizationTable", 0), 0);
    EXPECT_EQ(readAttribute(ctx, object, "luminanceQuantizationTable"), stored);
    EXPECT_EQ(
        std::memcmp(tableOf<uint8_t>(ctx, object, "luminanceQuantizationTable"), caller.data(), 64),
        0);
  }
  ZelObject *tiff = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(tiff, nullptr);
  EXPECT_EQ(Zel006a(ctx, tiff, "xResolution", 0), 0);
  EXPECT_EQ(readAttribute(ctx, tiff, "xResolution"), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(FormatTables, TiffResolutionsCopyTwoWords) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  for (const char *name : {"xResolution", "yResolution"}) {
    SCOPED_TRACE(name);
    std::vector<int32_t> caller{300, -7};
    ASSERT_EQ(Zel006a(ctx, object, name, table(caller.data())), 0);
    auto *stored = tableOf<int32_t>(ctx, object, name);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, caller.data());
    caller[0] = 1;
    caller[1] = 1;
    EXPECT_EQ(stored[0], 300);
    EXPECT_EQ(stored[1], -7);
    std::vector<int32_t> second{72, 2};
    ASSERT_EQ(Zel006a(ctx, object, name, table(second.data())), 0);
    stored = tableOf<int32_t>(ctx, object, name);
    EXPECT_EQ(stored[0], 72);
    EXPECT_EQ(stored[1], 2);
  }
}

TEST(FormatTables, ResolutionsOfOtherFormatsArePlainWords) {
  ContextGuard ctx;
  for (int format :
       {ZelSegmentedDocument, ZelBmp, ZelJpegInterchange, ZelJpegDirect, ZelJpegColourFax}) {
    SCOPED_TRACE(format);
    ZelObject *object = newImageOfFormat(ctx, format);
    ASSERT_NE(object, nullptr);
    const ZelAttribute list[] = {{"xResolution", 600}, {"yResolution", -300}};
    EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
    EXPECT_EQ(readAttribute(ctx, object, "xResolution"), 600);
    EXPECT_EQ(readAttribute(ctx, object, "yResolution"), -300);
  }
}

// ---- Strip tables
// ---------------------------------------------------------------------------------

TEST(FormatStrips, StripCountAllocatesZeroedTables) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(readAttribute(ctx, object, "stripOffsets"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripByteCounts"), 0);
  ASSERT_EQ(Zel006a(ctx, object, "stripsPerImage", 5), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 5);
  for (const char *name : {"stripOffsets", "stripByteCounts"}) {
    auto *strips = tableOf<int32_t>(ctx, object, name);
    ASSERT_NE(strips, nullptr) << name;
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(strips[i], 0) << name << " " << i;
  }
  EXPECT_NE(readAttribute(ctx, object, "stripOffsets"),
            readAttribute(ctx, object, "stripByteCounts"));
}

TEST(FormatStrips, StripTablesCopyStripsPerImageWords) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "stripsPerImage", 4), 0);
  // Exactly four words: reading a fifth would be caught.
  std::vector<int32_t> offsets{8, 1008, 2008, 3008};
  std::vector<int32_t> counts{1000, 1000, 1000, -1};
  const ZelAttribute list[] = {{"stripOffsets", table(offsets.data())},
                               {"stripByteCounts", table(counts.data())}};
  EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *storedOffsets = tableOf<int32_t>(ctx, object, "stripOffsets");
  auto *storedCounts = tableOf<int32_t>(ctx, object, "stripByteCounts");
  ASSERT_NE(storedOffsets, nullptr);
  ASSERT_NE(storedCounts, nullptr);
  EXPECT_NE(storedOffsets, offsets.data());
  offsets.assign(4, 0);
  EXPECT_TRUE(std::equal(storedOffsets, storedOffsets + 4,
                         std::vector<int32_t>{8, 1008, 2008, 3008}.begin()));
  EXPECT_TRUE(std::equal(storedCounts, storedCounts + 4, counts.begin()));
  // Null changes nothing.
  EXPECT_EQ(Zel006a(ctx, object, "stripOffsets", 0), 0);
  EXPECT_EQ(tableOf<int32_t>(ctx, object, "stripOffsets"), storedOffsets);
  EXPECT_EQ(storedOffsets[3], 3008);
}

TEST(FormatStrips, StripTablesAreIgnoredWithoutACount) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  std::vector<int32_t> offsets{8, 16, 24};
  EXPECT_EQ(Zel006a(ctx, object, "stripOffsets", table(offsets.data())), 0);
  EXPECT_EQ(Zel006a(ctx, object, "stripByteCounts", table(offsets.data())), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripOffsets"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripByteCounts"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(FormatStrips, StripOffsetsListedBeforeTheFormatAndCountLandInTheNewTables) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  std::vector<int32_t> offsets{100, 200, 300};
  const ZelAttribute list[] = {
      {"stripOffsets", table(offsets.data())}, {"fileFormat", ZelTiff}, {"stripsPerImage", 3}};
  EXPECT_EQ(Zel006(ctx, object, list, 3), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 3);
  auto *stored = tableOf<int32_t>(ctx, object, "stripOffsets");
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored[0], 100);
  EXPECT_EQ(stored[1], 200);
  EXPECT_EQ(stored[2], 300);
  auto *counts = tableOf<int32_t>(ctx, object, "stripByteCounts");
  ASSERT_NE(counts, nullptr);
  EXPECT_EQ(counts[0] | counts[1] | counts[2], 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(FormatStrips, WritingTheSameCountAgainLeavesTheTablesAlone) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  std::vector<int32_t> offsets{11, 22, 33};
  const ZelAttribute list[] = {{"stripsPerImage", 3}, {"stripOffsets", table(offsets.data())}};
  ASSERT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *before = tableOf<int32_t>(ctx, object, "stripOffsets");
  ASSERT_NE(before, nullptr);
  EXPECT_EQ(Zel006a(ctx, object, "stripsPerImage", 3), 0);
  auto *after = tableOf<int32_t>(ctx, object, "stripOffsets");
  EXPECT_EQ(after, before);
  EXPECT_TRUE(std::equal(offsets.begin(), offsets.end(), after));
}

TEST(FormatStrips, ANewCountGivesNewZeroedTablesAndZeroGivesNone) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  std::vector<int32_t> offsets{11, 22, 33};
  const ZelAttribute list[] = {{"stripsPerImage", 3}, {"stripOffsets", table(offsets.data())}};
  ASSERT_EQ(Zel006(ctx, object, list, 2), 0);
  EXPECT_EQ(Zel006a(ctx, object, "stripsPerImage", 6), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 6);
  auto *grown = tableOf<int32_t>(ctx, object, "stripOffsets");
  ASSERT_NE(grown, nullptr);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(grown[i], 0) << i;
  std::vector<int32_t> six{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(Zel006a(ctx, object, "stripByteCounts", table(six.data())), 0);
  EXPECT_TRUE(std::equal(six.begin(), six.end(), tableOf<int32_t>(ctx, object, "stripByteCounts")));

  EXPECT_EQ(Zel006a(ctx, object, "stripsPerImage", 0), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripOffsets"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "stripByteCounts"), 0);
}

TEST(FormatStrips, NegativeCountIsOutOfRangeAndChangesNothing) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  std::vector<int32_t> offsets{11, 22};
  const ZelAttribute list[] = {{"stripsPerImage", 2}, {"stripOffsets", table(offsets.data())}};
  ASSERT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *before = tableOf<int32_t>(ctx, object, "stripOffsets");
  ZelValue counts = readAttribute(ctx, object, "stripByteCounts");
  Zel006a(ctx, object, "stripsPerImage", -4);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 2);
  EXPECT_EQ(tableOf<int32_t>(ctx, object, "stripOffsets"), before);
  EXPECT_EQ(readAttribute(ctx, object, "stripByteCounts"), counts);
  EXPECT_TRUE(std::equal(offsets.begin(), offsets.end(), before));
}

// A strip count never stands without both of its tables.
void expectCountWithItsTables(ZelContext *ctx, ZelObject *object, ZelValue wanted) {
  ZelValue count = readAttribute(ctx, object, "stripsPerImage");
  ZelValue offsets = readAttribute(ctx, object, "stripOffsets");
  ZelValue counts = readAttribute(ctx, object, "stripByteCounts");
  if (count == 0) {
    EXPECT_EQ(offsets, 0);
    EXPECT_EQ(counts, 0);
  } else {
    EXPECT_EQ(count, wanted);
    EXPECT_NE(offsets, 0);
    EXPECT_NE(counts, 0);
  }
}

TEST(FormatStrips, NoMemoryForTheStripTablesLeavesNoCount) {
  ContextGuard ctx;
  for (long failAfter = 0; failAfter < 4; ++failAfter) {
    SCOPED_TRACE(failAfter);
    ZelObject *object = newImageOfFormat(ctx, ZelTiff);
    ASSERT_NE(object, nullptr);
    {
      AllocationFailure failure(failAfter);
      EXPECT_EQ(Zel006a(ctx, object, "stripsPerImage", 4), 0);
    }
    expectCountWithItsTables(ctx, object, 4);
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
  EXPECT_EQ(Zel003b(ctx), -1);
}

TEST(FormatStrips, ChildWithoutMemoryForTheStripTablesGetsNoCount) {
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(parent, nullptr);
  std::vector<int32_t> offsets{5, 6, 7};
  const ZelAttribute list[] = {{"stripsPerImage", 3}, {"stripOffsets", table(offsets.data())}};
  ASSERT_EQ(Zel006(ctx, parent, list, 2), 0);
  bool sawLostCount = false;
  for (long failAfter = 0; failAfter < 12; ++failAfter) {
    SCOPED_TRACE(failAfter);
    ZelObject *child;
    {
      AllocationFailure failure(failAfter);
      child = Zel000b(ctx, nullptr, parent, nullptr, 0);
    }
    if (!child) continue;
    if (readAttribute(ctx, child, "fileFormat") == ZelTiff &&
        readOver(ctx, child, "stripsPerImage") == 0)
      sawLostCount = true;
    if (readOver(ctx, child, "stripsPerImage") != kUntouched)
      expectCountWithItsTables(ctx, child, 3);
    EXPECT_EQ(Zel002(ctx, child), 0);
  }
  EXPECT_TRUE(sawLostCount);
  // The parent kept everything.
  EXPECT_EQ(readAttribute(ctx, parent, "stripsPerImage"), 3);
  EXPECT_TRUE(
      std::equal(offsets.begin(), offsets.end(), tableOf<int32_t>(ctx, parent, "stripOffsets")));
}

// ---- Texts ----------------------------------------------------------------------------------

TEST(FormatTexts, TextsAreCopiedAndNullReleasesThem) {
  ContextGuard ctx;
  const std::pair<int, const char *> cases[] = {{ZelTiff, "imageDescription"},
                                                {ZelPng, "copyright"}};
  for (const auto &[format, name] : cases) {
    SCOPED_TRACE(name);
    ZelObject *object = newImageOfFormat(ctx, format);
    ASSERT_NE(object, nullptr);
    char caller[] = "first text";
    ASSERT_EQ(Zel006a(ctx, object, name, text(caller)), 0);
    auto *stored = tableOf<char>(ctx, object, name);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, caller);
    caller[0] = 'X';
    EXPECT_STREQ(tableOf<char>(ctx, object, name), "first text");
    // A new text replaces the old one.
    ASSERT_EQ(Zel006a(ctx, object, name, text("second, longer text")), 0);
    EXPECT_STREQ(tableOf<char>(ctx, object, name), "second, longer text");
    ASSERT_EQ(Zel006a(ctx, object, name, text("")), 0);
    ASSERT_NE(tableOf<char>(ctx, object, name), nullptr);
    EXPECT_STREQ(tableOf<char>(ctx, object, name), "");
    // Null releases it.
    EXPECT_EQ(Zel006a(ctx, object, name, 0), 0);
    EXPECT_EQ(readAttribute(ctx, object, name), 0);
    EXPECT_EQ(Zel006a(ctx, object, name, 0), 0);
    EXPECT_EQ(readAttribute(ctx, object, name), 0);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Transparency -----------------------------------------------------------------------------

TEST(FormatTransparency, FirstTableIsFilledWithFFThenTakesTransparencyEntryBytes) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  // Exactly the counted bytes: a longer read would be caught.
  std::vector<uint8_t> alpha{0, 64, 128, 192};
  const ZelAttribute list[] = {{"transparencyEntry", 4},
                               {"transparencyPaletteIndex", table(alpha.data())}};
  EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *stored = tableOf<uint8_t>(ctx, object, "transparencyPaletteIndex");
  ASSERT_NE(stored, nullptr);
  EXPECT_NE(stored, alpha.data());
  alpha.assign(4, 7);
  EXPECT_EQ(stored[0], 0);
  EXPECT_EQ(stored[1], 64);
  EXPECT_EQ(stored[2], 128);
  EXPECT_EQ(stored[3], 192);
  for (int i = 4; i < 256; ++i)
    ASSERT_EQ(stored[i], 0xFF) << i;
  EXPECT_EQ(readAttribute(ctx, object, "transparencyEntry"), 4);
}

TEST(FormatTransparency, DefaultEntryCountCopiesAllOfTheTable) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  auto alpha = pattern(256, 1);
  ASSERT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", table(alpha.data())), 0);
  auto *stored = tableOf<uint8_t>(ctx, object, "transparencyPaletteIndex");
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(std::memcmp(stored, alpha.data(), 256), 0);
}

TEST(FormatTransparency, LaterTablesOverwriteOnlyTheCountedBytes) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  auto first = pattern(256, 1);
  ASSERT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", table(first.data())), 0);
  std::vector<uint8_t> second{9, 9};
  const ZelAttribute list[] = {{"transparencyEntry", 2},
                               {"transparencyPaletteIndex", table(second.data())}};
  EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *stored = tableOf<uint8_t>(ctx, object, "transparencyPaletteIndex");
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored[0], 9);
  EXPECT_EQ(stored[1], 9);
  EXPECT_EQ(std::memcmp(stored + 2, first.data() + 2, 254), 0);
}

TEST(FormatTransparency, NullTableIsIgnored) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", 0), 0);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyPaletteIndex"), 0);
  auto alpha = pattern(256, 5);
  ASSERT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", table(alpha.data())), 0);
  ZelValue stored = readAttribute(ctx, object, "transparencyPaletteIndex");
  EXPECT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", 0), 0);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyPaletteIndex"), stored);
  EXPECT_EQ(
      std::memcmp(tableOf<uint8_t>(ctx, object, "transparencyPaletteIndex"), alpha.data(), 256), 0);
}

TEST(FormatTransparency, EntryCountAboveTheTableCopiesOnlyItsSize) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  auto alpha = pattern(1000, 3);
  const ZelAttribute list[] = {{"transparencyEntry", 1000},
                               {"transparencyPaletteIndex", table(alpha.data())}};
  EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *stored = tableOf<uint8_t>(ctx, object, "transparencyPaletteIndex");
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(std::memcmp(stored, alpha.data(), 256), 0);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyEntry"), 1000);
}

TEST(FormatTransparency, NegativeEntryCountCopiesNothing) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  std::vector<uint8_t> alpha{1};
  const ZelAttribute list[] = {{"transparencyEntry", -3},
                               {"transparencyPaletteIndex", table(alpha.data())}};
  EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  auto *stored = tableOf<uint8_t>(ctx, object, "transparencyPaletteIndex");
  ASSERT_NE(stored, nullptr);
  for (int i = 0; i < 256; ++i)
    ASSERT_EQ(stored[i], 0xFF) << i;
}

TEST(FormatTransparency, GifTransparencyPaletteIndexIsAPlainWord) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelGif);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", 77), 0);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyPaletteIndex"), 77);
  EXPECT_EQ(Zel006a(ctx, object, "transparencyPaletteIndex", 0), 0);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyPaletteIndex"), 0);
}

// ---- Derived objects
// ------------------------------------------------------------------------------

TEST(FormatDerivation, ChangingAChildsTableLeavesTheParentsAlone) {
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, ZelJpegDirect);
  ASSERT_NE(parent, nullptr);
  auto parentTable = pattern(64, 2);
  ASSERT_EQ(Zel006a(ctx, parent, "luminanceQuantizationTable", table(parentTable.data())), 0);
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  auto childTable = pattern(64, 90);
  ASSERT_EQ(Zel006a(ctx, child, "luminanceQuantizationTable", table(childTable.data())), 0);
  EXPECT_EQ(std::memcmp(tableOf<uint8_t>(ctx, child, "luminanceQuantizationTable"),
                        childTable.data(), 64),
            0);
  EXPECT_EQ(std::memcmp(tableOf<uint8_t>(ctx, parent, "luminanceQuantizationTable"),
                        parentTable.data(), 64),
            0);
  // And the other way round.
  auto again = pattern(64, 150);
  ASSERT_EQ(Zel006a(ctx, parent, "luminanceQuantizationTable", table(again.data())), 0);
  EXPECT_EQ(std::memcmp(tableOf<uint8_t>(ctx, child, "luminanceQuantizationTable"),
                        childTable.data(), 64),
            0);
}

TEST(FormatDerivation, ChildOwnsItsTextsAndStripTables) {
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(parent, nullptr);
  fillEveryField(ctx, parent, layoutOf(ZelTiff));
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  std::string parentText =
      reinterpret_cast<const char *>(readAttribute(ctx, parent, "imageDescription"));
  std::vector<int32_t> parentOffsets(kStrips);
  std::copy_n(tableOf<int32_t>(ctx, parent, "stripOffsets"), kStrips, parentOffsets.begin());

  ASSERT_EQ(Zel006a(ctx, child, "imageDescription", 0), 0);
  std::vector<int32_t> childOffsets{1, 2, 3};
  ASSERT_EQ(Zel006a(ctx, child, "stripOffsets", table(childOffsets.data())), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, parent, "imageDescription")),
               parentText.c_str());
  EXPECT_TRUE(std::equal(parentOffsets.begin(), parentOffsets.end(),
                         tableOf<int32_t>(ctx, parent, "stripOffsets")));
  // A new count on the child leaves the parent's count and tables.
  ASSERT_EQ(Zel006a(ctx, child, "stripsPerImage", 9), 0);
  EXPECT_EQ(readAttribute(ctx, parent, "stripsPerImage"), kStrips);
  EXPECT_TRUE(std::equal(parentOffsets.begin(), parentOffsets.end(),
                         tableOf<int32_t>(ctx, parent, "stripOffsets")));
}

TEST(FormatDerivation, ChildGetsThePngTransparencyTableWithItsCount) {
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(parent, nullptr);
  std::vector<uint8_t> alpha{10, 20, 30};
  const ZelAttribute list[] = {{"transparencyEntry", 3},
                               {"transparencyPaletteIndex", table(alpha.data())}};
  ASSERT_EQ(Zel006(ctx, parent, list, 2), 0);
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(readAttribute(ctx, child, "transparencyEntry"), 3);
  auto *fromParent = tableOf<uint8_t>(ctx, parent, "transparencyPaletteIndex");
  auto *fromChild = tableOf<uint8_t>(ctx, child, "transparencyPaletteIndex");
  ASSERT_NE(fromChild, nullptr);
  EXPECT_NE(fromChild, fromParent);
  EXPECT_EQ(fromChild[0], 10);
  EXPECT_EQ(fromChild[1], 20);
  EXPECT_EQ(fromChild[2], 30);
  for (int i = 3; i < 256; ++i)
    ASSERT_EQ(fromChild[i], 0xFF) << i;
}

TEST(FormatDerivation, ChildOfAParentWithANullTableHasNone) {
  ContextGuard ctx;
  ZelObject *parent = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(parent, nullptr);
  ASSERT_EQ(Zel006a(ctx, parent, "rowsPerStrip", 12), 0);
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(readAttribute(ctx, child, "rowsPerStrip"), 12);
  for (const FieldLayout &field : layoutOf(ZelTiff).fields) {
    if (field.kind != Field::Word && field.kind != Field::StripCount) {
      EXPECT_EQ(readAttribute(ctx, child, field.name), 0) << field.name;
    }
  }
}

TEST(FormatDerivation, ParentFormatWithoutARecordIsPassedOnAsAWord) {
  ContextGuard ctx;
  for (int format : {ZelKolShort, ZelMacPaint}) {
    SCOPED_TRACE(format);
    ZelObject *parent = newImageOfFormat(ctx, format);
    ASSERT_NE(parent, nullptr);
    ASSERT_EQ(Zel006a(ctx, parent, "scaleFactor", 12), 0);
    ZelObject *child = newImage(ctx, parent);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(readAttribute(ctx, child, "fileFormat"), format);
    EXPECT_EQ(readAttribute(ctx, child, "scaleFactor"), 12);
    for (const std::string &name : allFormatNames())
      EXPECT_EQ(readOver(ctx, child, name.c_str()), kUntouched) << name;
    EXPECT_EQ(Zel002(ctx, parent), 0);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(FormatDerivation, ChildOfAParentWhoseRecordCouldNotBeMadeGetsOneWithTheDefaults) {
  ContextGuard ctx;
  ZelObject *parent = newImage(ctx);
  ASSERT_NE(parent, nullptr);
  {
    AllocationFailure failure(0);
    ASSERT_EQ(Zel006a(ctx, parent, "fileFormat", ZelTiff), -1);
  }
  ASSERT_EQ(readAttribute(ctx, parent, "fileFormat"), ZelTiff);
  ZelObject *child = newImage(ctx, parent);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(readAttribute(ctx, child, "fileFormat"), ZelTiff);
  EXPECT_EQ(readAttribute(ctx, child, "scaleFactor"), 75);
  EXPECT_EQ(readOver(ctx, child, "rowsPerStrip"), 0);
  EXPECT_EQ(readOver(ctx, child, "imageDescription"), 0);
}

// ---- Running out of memory for tables and texts -------------------------------------------------

TEST(FormatAllocation, NoMemoryForATableIsRecordedAndTheWalkGoesOn) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelTiff);
  ASSERT_NE(object, nullptr);
  auto bits = pattern(16, 4);
  const int32_t resolution[2] = {300, 1};
  const ZelAttribute list[] = {{"luminanceACBITS", table(bits.data())},
                               {"rowsPerStrip", 8},
                               {"xResolution", table(resolution)},
                               {"orientation", 3}};
  {
    AllocationFailure failure(0);
    EXPECT_EQ(Zel006(ctx, object, list, 4), 0);
  }
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(readAttribute(ctx, object, "luminanceACBITS"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "rowsPerStrip"), 8);
  EXPECT_EQ(readAttribute(ctx, object, "orientation"), 3);
  auto *stored = tableOf<int32_t>(ctx, object, "xResolution");
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored[0], 300);
  // The lost table can be written later.
  EXPECT_EQ(Zel006a(ctx, object, "luminanceACBITS", table(bits.data())), 0);
  EXPECT_EQ(std::memcmp(tableOf<uint8_t>(ctx, object, "luminanceACBITS"), bits.data(), 16), 0);
}

TEST(FormatAllocation, NoMemoryForATextIsRecordedAndTheWalkGoesOn) {
  ContextGuard ctx;
  const std::pair<int, const char *> cases[] = {{ZelTiff, "imageDescription"},
                                                {ZelPng, "copyright"}};
  for (const auto &[format, name] : cases) {
    SCOPED_TRACE(name);
    ContextGuard local;
    ZelObject *object = newImageOfFormat(local, format);
    ASSERT_NE(object, nullptr);
    const ZelAttribute list[] = {{name, text("lost")}, {"xDimension", 44}};
    {
      AllocationFailure failure(0);
      EXPECT_EQ(Zel006(local, object, list, 2), 0);
    }
    EXPECT_EQ(Zel003b(local), -1);
    EXPECT_EQ(readAttribute(local, object, name), 0);
    EXPECT_EQ(readAttribute(local, object, "xDimension"), 44);
  }
}

TEST(FormatAllocation, NoMemoryForTheTransparencyTableIsRecordedAndTheWalkGoesOn) {
  ContextGuard ctx;
  ZelObject *object = newImageOfFormat(ctx, ZelPng);
  ASSERT_NE(object, nullptr);
  auto alpha = pattern(256, 8);
  const ZelAttribute list[] = {{"transparencyPaletteIndex", table(alpha.data())},
                               {"colourType", 3}};
  {
    AllocationFailure failure(0);
    EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  }
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyPaletteIndex"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "colourType"), 3);
}

TEST(FormatAllocation, ChildrenMadeUnderAnyAllocationFailureLeakNothing) {
  ContextGuard ctx;
  for (int format : {ZelTiff, ZelJpegInterchange, ZelPng}) {
    ZelObject *parent = newImageOfFormat(ctx, format);
    ASSERT_NE(parent, nullptr);
    fillEveryField(ctx, parent, layoutOf(format));
    for (long failAfter = 0; failAfter < 40; ++failAfter) {
      SCOPED_TRACE(std::to_string(format) + " after " + std::to_string(failAfter));
      ZelObject *child;
      {
        AllocationFailure failure(failAfter);
        child = Zel000b(ctx, nullptr, parent, nullptr, 0);
      }
      if (child) {
        EXPECT_EQ(Zel002(ctx, child), 0);
      }
    }
    EXPECT_EQ(Zel002(ctx, parent), 0);
  }
}

}  // namespace
