// Object attributes by name: the general words of every object, list walking, the second pass
// that a new format record or strip count triggers, and the handling of bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "kernel/memory.h"
#include "test_support.h"
#include "zel.h"

static_assert(sizeof(ZelValue) == 8, "these tests expect 64-bit attribute words");

namespace {

using zel::test::ContextGuard;
using zel::test::readAttribute;

enum class Kind { Integer, Pointer };

// One name of the general table; names that share `word` are two names of one word.
struct GeneralName {
  const char *name;
  const char *word;
  Kind kind;
  bool clearsInited;
};

constexpr GeneralName kGeneralNames[] = {
    {"applicationAddressSpace", "applicationAddressSpace", Kind::Pointer, false},
    {"applAddressSpaceHandle", "applAddressSpaceHandle", Kind::Pointer, false},
    {"bDimension", "bDimension", Kind::Integer, true},
    {"bMatchPoint", "bMatchPoint", Kind::Integer, false},
    {"bitOrder", "bitOrder", Kind::Integer, false},
    {"byteOrder", "byteOrder", Kind::Integer, false},
    {"colourSpace", "colourSpace", Kind::Integer, false},
    {"compression", "compression", Kind::Integer, true},
    {"compressionMethod", "compression", Kind::Integer, true},
    {"compressionLevel", "compressionLevel", Kind::Integer, false},
    {"dataPrecision", "dataPrecision", Kind::Integer, true},
    {"dataType", "dataType", Kind::Integer, true},
    {"eolState", "eolState", Kind::Integer, false},
    {"predictor", "eolState", Kind::Integer, false},
    {"externalCompression", "externalCompression", Kind::Integer, false},
    {"fileFormat", "fileFormat", Kind::Integer, false},
    {"filter", "filter", Kind::Integer, false},
    {"jIndexAssignment", "jIndexAssignment", Kind::Integer, false},
    {"kIndexAssignment", "kIndexAssignment", Kind::Integer, false},
    {"lIndexAssignment", "lIndexAssignment", Kind::Integer, false},
    {"mIndexAssignment", "mIndexAssignment", Kind::Integer, false},
    {"nIndexAssignment", "nIndexAssignment", Kind::Integer, false},
    {"k", "k", Kind::Integer, false},
    {"lut", "lut", Kind::Pointer, false},
    {"pixelInterpretation", "pixelInterpretation", Kind::Integer, false},
    {"repository", "repository", Kind::Integer, false},
    {"roi", "roi", Kind::Pointer, false},
    {"samplingFactor", "samplingFactor", Kind::Integer, false},
    {"scaleFactor", "scaleFactor", Kind::Integer, false},
    {"quarityFactor", "scaleFactor", Kind::Integer, false},
    {"size", "size", Kind::Integer, false},
    {"tDimension", "tDimension", Kind::Integer, true},
    {"tMatchPoint", "tMatchPoint", Kind::Integer, false},
    {"usedBDimension", "usedBDimension", Kind::Integer, false},
    {"usedTDimension", "usedTDimension", Kind::Integer, false},
    {"usedXDimension", "usedXDimension", Kind::Integer, false},
    {"usedYDimension", "usedYDimension", Kind::Integer, false},
    {"usedZDimension", "usedZDimension", Kind::Integer, false},
    {"xDimension", "xDimension", Kind::Integer, true},
    {"entries", "xDimension", Kind::Integer, true},
    {"xMatchPoint", "xMatchPoint", Kind::Integer, false},
    {"yDimension", "yDimension", Kind::Integer, true},
    {"yMatchPoint", "yMatchPoint", Kind::Integer, false},
    {"zDimension", "zDimension", Kind::Integer, true},
    {"zMatchPoint", "zMatchPoint", Kind::Integer, false},
    {"widthByteBoundary", "widthByteBoundary", Kind::Integer, false},
    {"workSpace", "workSpace", Kind::Pointer, false},
    {"workSpaceHandle", "workSpaceHandle", Kind::Pointer, false},
};

// General names with a behaviour of their own, read alongside the table above.
constexpr const char *kSpecialNames[] = {"fileName", "inited", "tmpnam"};

const GeneralName *generalName(const std::string &name) {
  for (const GeneralName &row : kGeneralNames)
    if (name == row.name) return &row;
  return nullptr;
}

ZelValue text(const char *value) {
  return reinterpret_cast<ZelValue>(value);
}
ZelValue place(ZelValue *where) {
  return reinterpret_cast<ZelValue>(where);
}
ZelValue contextWord(ZelContext *ctx) {
  return reinterpret_cast<ZelValue>(ctx);
}

// Reads `name` into a place that holds `sentinel` before the call.
ZelValue readOver(ZelContext *ctx, ZelObject *object, const char *name, ZelValue sentinel) {
  ZelValue value = sentinel;
  ZelAttribute entry{name, place(&value)};
  EXPECT_EQ(Zel005(ctx, object, &entry, 1), 0) << name;
  return value;
}

constexpr ZelValue kUntouched = -0x5EE5EE5EE5;

// Every general attribute of the object, read with one list.
std::map<std::string, ZelValue> allGeneralWords(ZelContext *ctx, ZelObject *object) {
  std::vector<std::string> names;
  for (const GeneralName &row : kGeneralNames)
    names.emplace_back(row.name);
  for (const char *name : kSpecialNames)
    names.emplace_back(name);
  std::vector<ZelValue> values(names.size(), kUntouched);
  std::vector<ZelAttribute> list;
  for (size_t i = 0; i < names.size(); ++i)
    list.push_back({names[i].c_str(), place(&values[i])});
  EXPECT_EQ(Zel005(ctx, object, list.data(), static_cast<int>(list.size())), 0);
  std::map<std::string, ZelValue> words;
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_NE(values[i], kUntouched) << names[i] << " was not read";
    words[names[i]] = values[i];
  }
  return words;
}

ZelObject *newImage(ZelContext *ctx) {
  ZelObject *object = Zel000b(ctx, nullptr, nullptr, nullptr, 0);
  EXPECT_NE(object, nullptr);
  return object;
}

bool isInited(ZelContext *ctx, ZelObject *object) {
  return readAttribute(ctx, object, "inited") != 0;
}

// Turns the allocation fault injector off however the test ends.
class AllocationFailure {
 public:
  explicit AllocationFailure(long successes) { zel::testing::failAllocationAfter(successes); }
  ~AllocationFailure() { zel::testing::failAllocationAfter(-1); }
  AllocationFailure(const AllocationFailure &) = delete;
  AllocationFailure &operator=(const AllocationFailure &) = delete;
};

// ---- Every general attribute ---------------------------------------------------------------

TEST(GeneralAttributes, EveryNameIsWrittenAloneAndReadBackWithBothReaders) {
  ContextGuard ctx;
  int row = 0;
  for (const GeneralName &attribute : kGeneralNames) {
    SCOPED_TRACE(attribute.name);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
    auto before = allGeneralWords(ctx, object);

    // Values that no side effect reacts to: no format has a record for them, no data type a
    // precision setting.
    ZelValue value = attribute.kind == Kind::Integer
                         ? 70001 + 13 * row
                         : static_cast<ZelValue>(0x7123456789ABCD00 + 0x40 * row);
    ZelAttribute entry{attribute.name, value};
    EXPECT_EQ(Zel006(ctx, object, &entry, 1), 0);

    ZelValue read = kUntouched;
    ZelAttribute query{attribute.name, place(&read)};
    EXPECT_EQ(Zel005(ctx, object, &query, 1), 0);
    EXPECT_EQ(read, value);
    EXPECT_EQ(Zel005a(ctx, object, attribute.name), value);

    // Only the word itself changed (and "inited" where the name says so).
    auto after = allGeneralWords(ctx, object);
    for (const auto &[name, old] : before) {
      const GeneralName *other = generalName(name);
      if (other && std::strcmp(other->word, attribute.word) == 0)
        EXPECT_EQ(after[name], value) << name;
      else if (name == "inited")
        EXPECT_EQ(after[name], attribute.clearsInited ? 0 : 1);
      else
        EXPECT_EQ(after[name], old) << name;
    }
    EXPECT_EQ(Zel002(ctx, object), 0);
    ++row;
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(GeneralAttributes, ShapeAttributesClearInitedEvenWhenRewritingTheirValue) {
  ContextGuard ctx;
  int checked = 0;
  for (const GeneralName &attribute : kGeneralNames) {
    if (!attribute.clearsInited) continue;
    SCOPED_TRACE(attribute.name);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    ZelValue current = readAttribute(ctx, object, attribute.name);
    ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
    ASSERT_TRUE(isInited(ctx, object));
    EXPECT_EQ(Zel006a(ctx, object, attribute.name, current), 0);
    EXPECT_FALSE(isInited(ctx, object));
    EXPECT_EQ(readAttribute(ctx, object, attribute.name), current);
    EXPECT_EQ(Zel002(ctx, object), 0);
    ++checked;
  }
  // bDimension, compression twice, dataPrecision, dataType, tDimension, xDimension twice,
  // yDimension, zDimension.
  EXPECT_EQ(checked, 10);
}

TEST(GeneralAttributes, AttributesOutsideTheShapeLeaveInitedSet) {
  ContextGuard ctx;
  int row = 0;
  for (const GeneralName &attribute : kGeneralNames) {
    if (attribute.clearsInited) continue;
    SCOPED_TRACE(attribute.name);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
    ZelValue value = attribute.kind == Kind::Integer ? 91001 + row : 0x6000000000001000 + row;
    EXPECT_EQ(Zel006a(ctx, object, attribute.name, value), 0);
    EXPECT_TRUE(isInited(ctx, object));
    EXPECT_EQ(Zel002(ctx, object), 0);
    ++row;
  }
  // "fileName" keeps it as well.
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
  EXPECT_EQ(Zel006a(ctx, object, "fileName", text("kept.tif")), 0);
  EXPECT_TRUE(isInited(ctx, object));
}

TEST(GeneralAttributes, IntegerAttributesKeepTheLow32BitsAndReadSignExtended) {
  ContextGuard ctx;
  struct Case {
    ZelValue written;
    ZelValue read;
  };
  const Case cases[] = {
      {static_cast<ZelValue>(0x123456789), 0x23456789},
      {static_cast<ZelValue>(0x780000001), INT32_MIN + 1},
      {static_cast<ZelValue>(0xFFFFFFFF), -1},
      {-5, -5},
      {INT32_MAX, INT32_MAX},
  };
  for (const GeneralName &attribute : kGeneralNames) {
    if (attribute.kind != Kind::Integer) continue;
    SCOPED_TRACE(attribute.name);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    for (const Case &c : cases) {
      SCOPED_TRACE(c.written);
      EXPECT_EQ(Zel006a(ctx, object, attribute.name, c.written), 0);
      EXPECT_EQ(readAttribute(ctx, object, attribute.name), c.read);
      EXPECT_EQ(Zel005a(ctx, object, attribute.name), c.read);
    }
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(GeneralAttributes, PointerAttributesKeepAllSixtyFourBits) {
  ContextGuard ctx;
  const ZelValue values[] = {static_cast<ZelValue>(0x7FEDCBA987654321),
                             static_cast<ZelValue>(0xFFFF800000001234),
                             static_cast<ZelValue>(0x0000000100000000), 0};
  int checked = 0;
  for (const GeneralName &attribute : kGeneralNames) {
    if (attribute.kind != Kind::Pointer) continue;
    SCOPED_TRACE(attribute.name);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    for (ZelValue value : values) {
      EXPECT_EQ(Zel006a(ctx, object, attribute.name, value), 0);
      EXPECT_EQ(readAttribute(ctx, object, attribute.name), value);
      EXPECT_EQ(Zel005a(ctx, object, attribute.name), value);
    }
    EXPECT_EQ(Zel002(ctx, object), 0);
    ++checked;
  }
  EXPECT_EQ(checked, 6);
}

TEST(GeneralAttributes, AliasesReadAndWriteTheSameWord) {
  ContextGuard ctx;
  const std::array<std::array<const char *, 2>, 4> pairs{{{"entries", "xDimension"},
                                                          {"quarityFactor", "scaleFactor"},
                                                          {"predictor", "eolState"},
                                                          {"compressionMethod", "compression"}}};
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ZelValue value = 40;
  for (const auto &pair : pairs) {
    SCOPED_TRACE(pair[0]);
    ASSERT_EQ(Zel006a(ctx, object, pair[0], ++value), 0);
    EXPECT_EQ(readAttribute(ctx, object, pair[1]), value);
    EXPECT_EQ(readAttribute(ctx, object, pair[0]), value);
    ASSERT_EQ(Zel006a(ctx, object, pair[1], ++value), 0);
    EXPECT_EQ(readAttribute(ctx, object, pair[0]), value);
    EXPECT_EQ(Zel005a(ctx, object, pair[0]), value);
  }
}

TEST(GeneralAttributes, WritingTheSameXDimensionStillClearsInited) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "xDimension", 64), 0);
  ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
  ASSERT_TRUE(isInited(ctx, object));
  EXPECT_EQ(Zel006a(ctx, object, "xDimension", 64), 0);
  EXPECT_FALSE(isInited(ctx, object));
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 64);
}

TEST(GeneralAttributes, MatchPointsRoiAndLutLeaveInitedAlone) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ZelObject *palette = Zel000e(ctx, nullptr, nullptr, nullptr, 0);
  ZelObject *region = Zel000j(ctx, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(object, nullptr);
  ASSERT_NE(palette, nullptr);
  ASSERT_NE(region, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
  const ZelAttribute list[] = {{"xMatchPoint", 1},
                               {"yMatchPoint", 2},
                               {"zMatchPoint", 3},
                               {"tMatchPoint", 4},
                               {"bMatchPoint", 5},
                               {"lut", reinterpret_cast<ZelValue>(palette)},
                               {"roi", reinterpret_cast<ZelValue>(region)}};
  EXPECT_EQ(Zel006(ctx, object, list, 7), 0);
  EXPECT_TRUE(isInited(ctx, object));
  EXPECT_EQ(readAttribute(ctx, object, "lut"), reinterpret_cast<ZelValue>(palette));
  EXPECT_EQ(readAttribute(ctx, object, "roi"), reinterpret_cast<ZelValue>(region));
  EXPECT_EQ(readAttribute(ctx, object, "bMatchPoint"), 5);
}

TEST(GeneralAttributes, InitedNonzeroSetsAndZeroClears) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(readAttribute(ctx, object, "inited"), 0);
  for (ZelValue value : {ZelValue{1}, ZelValue{5}, ZelValue{-1}, ZelValue{0x40000000}}) {
    SCOPED_TRACE(value);
    ASSERT_EQ(Zel006a(ctx, object, "inited", 0), 0);
    EXPECT_EQ(readAttribute(ctx, object, "inited"), 0);
    ASSERT_EQ(Zel006a(ctx, object, "inited", value), 0);
    EXPECT_EQ(readAttribute(ctx, object, "inited"), 1);
    EXPECT_EQ(Zel005a(ctx, object, "inited"), 1);
  }
  ASSERT_EQ(Zel006a(ctx, object, "inited", 0), 0);
  EXPECT_EQ(Zel005a(ctx, object, "inited"), 0);
}

TEST(GeneralAttributes, TmpnamIsReadOnly) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(readAttribute(ctx, object, "tmpnam"), 0);
  EXPECT_EQ(Zel006a(ctx, object, "tmpnam", 1), 0);
  EXPECT_EQ(readAttribute(ctx, object, "tmpnam"), 0);
  EXPECT_EQ(Zel005a(ctx, object, "tmpnam"), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- dataType and its precision ------------------------------------------------------------

TEST(GeneralAttributes, DataTypeTakesThePrecisionSettingOfItsType) {
  ContextGuard ctx;
  struct Case {
    ZelValue dataType;
    const char *setting;
    ZelValue precision;
  };
  const Case cases[] = {{ZelBoolean, "booleanPrecision", 3},
                        {ZelComplex, "complexArithmeticPrecision", 5},
                        {ZelNonNegative, "nonnegativeIntegerPrecision", 7},
                        {ZelReal, "realArithmeticPrecision", 11},
                        {ZelSigned, "signedIntegerPrecision", 13}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.setting);
    ASSERT_EQ(Zel008a(ctx, c.setting, c.precision), 0);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(Zel006a(ctx, object, "dataPrecision", 99), 0);
    ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
    EXPECT_EQ(Zel006a(ctx, object, "dataType", c.dataType), 0);
    EXPECT_EQ(readAttribute(ctx, object, "dataType"), c.dataType);
    EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), c.precision);
    EXPECT_FALSE(isInited(ctx, object));
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
}

TEST(GeneralAttributes, DataTypeWithoutAPrecisionSettingLeavesDataPrecision) {
  ContextGuard ctx;
  for (ZelValue dataType : {ZelValue{ZelWord}, ZelValue{ZelObjectHandle}, ZelValue{0},
                            ZelValue{12345}, ZelValue{-18}}) {
    SCOPED_TRACE(dataType);
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(Zel006a(ctx, object, "dataPrecision", 21), 0);
    ASSERT_EQ(Zel006a(ctx, object, "inited", 1), 0);
    EXPECT_EQ(Zel006a(ctx, object, "dataType", dataType), 0);
    EXPECT_EQ(readAttribute(ctx, object, "dataType"), dataType);
    EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 21);
    EXPECT_FALSE(isInited(ctx, object));
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
}

TEST(GeneralAttributes, WordDataTypeKeepsPrecisionWhileNonNegativeTakesTheCurrentSetting) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "dataPrecision", 12), 0);
  EXPECT_EQ(Zel006a(ctx, object, "dataType", ZelWord), 0);
  EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 12);

  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 4), 0);
  EXPECT_EQ(Zel006a(ctx, object, "dataType", ZelNonNegative), 0);
  EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 4);

  // A later change of the setting reaches the object only when "dataType" is written again.
  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 6), 0);
  EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 4);
  EXPECT_EQ(Zel006a(ctx, object, "dataType", ZelNonNegative), 0);
  EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 6);
}

TEST(GeneralAttributes, DataPrecisionTakesEffectOnlyAfterDataTypeInAList) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute precisionFirst[] = {{"dataPrecision", 12}, {"dataType", ZelSigned}};
  EXPECT_EQ(Zel006(ctx, object, precisionFirst, 2), 0);
  EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 16);
  const ZelAttribute typeFirst[] = {{"dataType", ZelSigned}, {"dataPrecision", 12}};
  EXPECT_EQ(Zel006(ctx, object, typeFirst, 2), 0);
  EXPECT_EQ(readAttribute(ctx, object, "dataPrecision"), 12);
}

// ---- fileName ------------------------------------------------------------------------------

TEST(GeneralAttributes, FileNameIsCopiedFromTheCallersText) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  char name[] = "page-one.tif";
  ASSERT_EQ(Zel006a(ctx, object, "fileName", text(name)), 0);
  std::memcpy(name, "XXXXXXXX", 8);
  auto *stored = reinterpret_cast<const char *>(readAttribute(ctx, object, "fileName"));
  ASSERT_NE(stored, nullptr);
  EXPECT_NE(stored, name);
  EXPECT_STREQ(stored, "page-one.tif");
}

TEST(GeneralAttributes, ReadingFileNameGivesTheLibrarysOwnCopy) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const std::string name = "scan.png";
  ASSERT_EQ(Zel006a(ctx, object, "fileName", text(name.c_str())), 0);
  ZelValue first = readAttribute(ctx, object, "fileName");
  ZelValue second = Zel005a(ctx, object, "fileName");
  EXPECT_EQ(first, second);
  EXPECT_NE(first, text(name.c_str()));
  EXPECT_STREQ(reinterpret_cast<const char *>(first), "scan.png");
}

TEST(GeneralAttributes, WritingFileNameTwiceLeavesTheFirstName) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel006a(ctx, object, "fileName", text("first.tif")), 0);
  EXPECT_EQ(Zel006a(ctx, object, "fileName", text("second.tif")), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "fileName")), "first.tif");
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(GeneralAttributes, NullFileNameIsIgnored) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel006a(ctx, object, "fileName", 0), 0);
  EXPECT_EQ(readAttribute(ctx, object, "fileName"), 0);
  // The null didn't count as the one name the object may get.
  EXPECT_EQ(Zel006a(ctx, object, "fileName", text("late.bmp")), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "fileName")), "late.bmp");
  // Nor does a null clear it.
  EXPECT_EQ(Zel006a(ctx, object, "fileName", 0), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "fileName")), "late.bmp");
}

// ---- Reading ---------------------------------------------------------------------------------

TEST(AttributeReading, OneListFillsEveryKnownPlaceAndLeavesUnknownOnesUntouched) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute setup[] = {{"xDimension", 17}, {"yDimension", 19}, {"colourSpace", ZelRgb}};
  ASSERT_EQ(Zel006(ctx, object, setup, 3), 0);
  ZelValue x = kUntouched, unknown = kUntouched, y = kUntouched, wrongCase = kUntouched,
           colour = kUntouched;
  const ZelAttribute list[] = {{"xDimension", place(&x)},
                               {"noSuchAttribute", place(&unknown)},
                               {"yDimension", place(&y)},
                               {"XDimension", place(&wrongCase)},
                               {"colourSpace", place(&colour)}};
  EXPECT_EQ(Zel005(ctx, object, list, 5), 0);
  EXPECT_EQ(x, 17);
  EXPECT_EQ(y, 19);
  EXPECT_EQ(colour, ZelRgb);
  EXPECT_EQ(unknown, kUntouched);
  EXPECT_EQ(wrongCase, kUntouched);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(AttributeReading, SingleReadOfAnUnknownNameGivesTheContextHandleAndLeavesLastErrorAlone) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel005a(ctx, object, "noSuchAttribute"), contextWord(ctx));
  EXPECT_EQ(Zel003b(ctx), 0);
  // An earlier failure stays as it was.
  EXPECT_EQ(Zel006(ctx, object, nullptr, 1), 18);
  ASSERT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel005a(ctx, object, "noSuchAttribute"), contextWord(ctx));
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(AttributeReading, SingleReadReturnsNegativeIntegersSignExtended) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "xMatchPoint", -7), 0);
  EXPECT_EQ(Zel005a(ctx, object, "xMatchPoint"), -7);
}

TEST(AttributeReading, NullPlaceForAKnownNameStopsTheReadWithOutOfRange) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute setup[] = {{"xDimension", 3}, {"zDimension", 5}};
  ASSERT_EQ(Zel006(ctx, object, setup, 2), 0);
  ZelValue x = kUntouched, z = kUntouched;
  const ZelAttribute list[] = {
      {"xDimension", place(&x)}, {"yDimension", 0}, {"zDimension", place(&z)}};
  EXPECT_EQ(Zel005(ctx, object, list, 3), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(x, 3);
  EXPECT_EQ(z, kUntouched);
}

TEST(AttributeReading, NullPlaceForAnUnknownNameIsHarmless) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ZelValue x = kUntouched;
  const ZelAttribute list[] = {{"noSuchAttribute", 0}, {"left", 0}, {"xDimension", place(&x)}};
  EXPECT_EQ(Zel005(ctx, object, list, 3), 0);
  EXPECT_EQ(x, 1);
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Walking a list ----------------------------------------------------------------------------

TEST(AttributeLists, EntriesAreAppliedInListOrder) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"xDimension", 3}, {"yDimension", 8}, {"entries", 4}};
  EXPECT_EQ(Zel006(ctx, object, list, 3), 0);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 4);
  EXPECT_EQ(readAttribute(ctx, object, "yDimension"), 8);
}

TEST(AttributeLists, UnknownAndMisspelledNamesAreSkippedWithoutError) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "scaleFactor", 3), 0);
  const ZelAttribute list[] = {
      {"xDimension", 10},  {"noSuchAttribute", 1}, {"XDimension", 11},       {"xdimension", 12},
      {"xDimension ", 13}, {"qualityFactor", 14},  {"compressionlevel", 15}, {"", 16},
      {"yDimension", 20}};
  EXPECT_EQ(Zel006(ctx, object, list, 9), 0);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 10);
  EXPECT_EQ(readAttribute(ctx, object, "yDimension"), 20);
  EXPECT_EQ(readAttribute(ctx, object, "scaleFactor"), 3);
  EXPECT_EQ(readAttribute(ctx, object, "compressionLevel"), 6);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(AttributeLists, EntriesWithoutANameAreIgnored) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute write[] = {{nullptr, 5}, {"xDimension", 6}, {nullptr, 0}};
  EXPECT_EQ(Zel006(ctx, object, write, 3), 0);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 6);
  ZelValue unnamed = kUntouched, x = kUntouched;
  const ZelAttribute read[] = {{nullptr, place(&unnamed)}, {"xDimension", place(&x)}};
  EXPECT_EQ(Zel005(ctx, object, read, 2), 0);
  EXPECT_EQ(unnamed, kUntouched);
  EXPECT_EQ(x, 6);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(AttributeLists, MissingWriteListWithAPositiveCountIsOutOfRange) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel006(ctx, object, nullptr, 2), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(AttributeLists, MissingReadListWithAPositiveCountIsOutOfRange) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(Zel005(ctx, object, nullptr, 1), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(AttributeLists, CountBelowOneDoesNothing) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute write[] = {{"xDimension", 9}};
  for (int count : {0, -1, INT_MIN}) {
    SCOPED_TRACE(count);
    EXPECT_EQ(Zel006(ctx, object, write, count), 0);
    EXPECT_EQ(Zel006(ctx, object, nullptr, count), 0);
    ZelValue x = kUntouched;
    const ZelAttribute read[] = {{"xDimension", place(&x)}};
    EXPECT_EQ(Zel005(ctx, object, read, count), 0);
    EXPECT_EQ(Zel005(ctx, object, nullptr, count), 0);
    EXPECT_EQ(x, kUntouched);
  }
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 1);
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- The second pass ---------------------------------------------------------------------------

TEST(AttributeLists, FormatFieldsBeforeFileFormatTakeEffectOnTheSecondPass) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"rowsPerStrip", 9}, {"xDimension", 33}, {"fileFormat", ZelTiff}};
  EXPECT_EQ(Zel006(ctx, object, list, 3), 0);
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelTiff);
  EXPECT_EQ(readAttribute(ctx, object, "rowsPerStrip"), 9);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 33);
}

TEST(AttributeLists, EntriesAfterFileFormatAreAppliedTwice) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"fileFormat", ZelPng}, {"copyright", text("(c) Zel")}};
  {
    // The record and the copy of the second pass take two blocks; only a copy made once more,
    // by the first pass going on after "fileFormat", meets the failure.
    AllocationFailure failure(2);
    EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  }
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelPng);
  EXPECT_EQ(Zel006a(ctx, object, "copyright", text("(c) Zel")), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "copyright")), "(c) Zel");
}

TEST(AttributeLists, RewritingTheSameFileFormatDoesNotApplyTheListAgain) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "fileFormat", ZelPng), 0);
  const ZelAttribute list[] = {{"fileFormat", ZelPng}, {"copyright", text("(c) Zel")}};
  {
    // One copy of the text, made by the only pass.
    AllocationFailure failure(1);
    EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "copyright")), "(c) Zel");
}

TEST(AttributeLists, ContradictoryFileFormatsEndWithExceedImplementation) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"fileFormat", ZelTiff}, {"fileFormat", ZelPng}};
  EXPECT_EQ(Zel006(ctx, object, list, 2), 0);
  EXPECT_EQ(Zel003b(ctx), 3);

  // Whatever format won, the object holds that format's record and only that one.
  ZelValue format = readAttribute(ctx, object, "fileFormat");
  ASSERT_TRUE(format == ZelTiff || format == ZelPng) << format;
  if (format == ZelTiff) {
    EXPECT_EQ(readOver(ctx, object, "rowsPerStrip", kUntouched), 0);
    EXPECT_EQ(readOver(ctx, object, "transparencyEntry", kUntouched), kUntouched);
    EXPECT_EQ(Zel006a(ctx, object, "rowsPerStrip", 8), 0);
    EXPECT_EQ(readAttribute(ctx, object, "rowsPerStrip"), 8);
  } else {
    EXPECT_EQ(readOver(ctx, object, "transparencyEntry", kUntouched), 256);
    EXPECT_EQ(readOver(ctx, object, "rowsPerStrip", kUntouched), kUntouched);
    EXPECT_EQ(Zel006a(ctx, object, "colourType", 3), 0);
    EXPECT_EQ(readAttribute(ctx, object, "colourType"), 3);
  }
}

TEST(AttributeLists, ContradictoryStripCountsEndWithExceedImplementation) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {
      {"fileFormat", ZelTiff}, {"stripsPerImage", 1}, {"stripsPerImage", 2}};
  EXPECT_EQ(Zel006(ctx, object, list, 3), 0);
  EXPECT_EQ(Zel003b(ctx), 3);
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelTiff);

  // The count that won has tables of its own size.
  ZelValue count = readAttribute(ctx, object, "stripsPerImage");
  ASSERT_TRUE(count == 1 || count == 2) << count;
  std::vector<int32_t> offsets(static_cast<size_t>(count));
  for (size_t i = 0; i < offsets.size(); ++i)
    offsets[i] = static_cast<int32_t>(1000 + i);
  EXPECT_EQ(Zel006a(ctx, object, "stripOffsets", reinterpret_cast<ZelValue>(offsets.data())), 0);
  EXPECT_EQ(Zel006a(ctx, object, "stripByteCounts", reinterpret_cast<ZelValue>(offsets.data())), 0);
  auto *stored = reinterpret_cast<const int32_t *>(readAttribute(ctx, object, "stripOffsets"));
  auto *counts = reinterpret_cast<const int32_t *>(readAttribute(ctx, object, "stripByteCounts"));
  ASSERT_NE(stored, nullptr);
  ASSERT_NE(counts, nullptr);
  EXPECT_TRUE(std::equal(offsets.begin(), offsets.end(), stored));
  EXPECT_TRUE(std::equal(offsets.begin(), offsets.end(), counts));
}

TEST(AttributeListsDeathTest, LongContradictoryListsStillEndPromptly) {
  // Each switch of format applies the list again; however long the list, the number of passes
  // stays bounded. The watchdog is generous: the list needs milliseconds when that holds.
  EXPECT_EXIT(
      {
        alarm(20);
        ContextGuard ctx;
        ZelObject *object = newImage(ctx);
        std::vector<ZelAttribute> list;
        for (int i = 0; i < 64; ++i)
          list.push_back({"fileFormat", i % 2 ? ZelPng : ZelTiff});
        int result = Zel006(ctx, object, list.data(), static_cast<int>(list.size()));
        ZelValue format = readAttribute(ctx, object, "fileFormat");
        bool consistent =
            result == 0 && Zel003b(ctx) == 3 && (format == ZelTiff || format == ZelPng);
        std::_Exit(consistent ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// ---- Order independence
// --------------------------------------------------------------------------

struct TiffListValues {
  std::array<uint8_t, 16> bits{};
  std::array<int32_t, 3> offsets{{800, 1600, 2400}};
  std::array<int32_t, 3> counts{{700, 650, 12}};
  TiffListValues() {
    for (size_t i = 0; i < bits.size(); ++i)
      bits[i] = static_cast<uint8_t>(3 * i + 1);
  }
};

void expectTiffWordsTableAndText(ZelContext *ctx, ZelObject *object, const TiffListValues &v) {
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelTiff);
  EXPECT_EQ(readAttribute(ctx, object, "scaleFactor"), 75);
  EXPECT_EQ(readAttribute(ctx, object, "rowsPerStrip"), 16);
  auto *description =
      reinterpret_cast<const char *>(readAttribute(ctx, object, "imageDescription"));
  ASSERT_NE(description, nullptr);
  EXPECT_STREQ(description, "scan of page 1");
  auto *bits = reinterpret_cast<const uint8_t *>(readAttribute(ctx, object, "luminanceACBITS"));
  ASSERT_NE(bits, nullptr);
  EXPECT_EQ(std::memcmp(bits, v.bits.data(), v.bits.size()), 0);
}

void expectTiffStrips(ZelContext *ctx, ZelObject *object, const TiffListValues &v) {
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelTiff);
  EXPECT_EQ(readAttribute(ctx, object, "stripsPerImage"), 3);
  auto *offsets = reinterpret_cast<const int32_t *>(readAttribute(ctx, object, "stripOffsets"));
  auto *counts = reinterpret_cast<const int32_t *>(readAttribute(ctx, object, "stripByteCounts"));
  ASSERT_NE(offsets, nullptr);
  ASSERT_NE(counts, nullptr);
  EXPECT_TRUE(std::equal(v.offsets.begin(), v.offsets.end(), offsets));
  EXPECT_TRUE(std::equal(v.counts.begin(), v.counts.end(), counts));
}

std::vector<ZelAttribute> wordsTableAndTextList(const TiffListValues &v) {
  return {{"fileFormat", ZelTiff},
          {"rowsPerStrip", 16},
          {"imageDescription", text("scan of page 1")},
          {"luminanceACBITS", reinterpret_cast<ZelValue>(v.bits.data())}};
}

std::vector<ZelAttribute> stripList(const TiffListValues &v) {
  return {{"fileFormat", ZelTiff},
          {"stripsPerImage", 3},
          {"stripOffsets", reinterpret_cast<ZelValue>(v.offsets.data())},
          {"stripByteCounts", reinterpret_cast<ZelValue>(v.counts.data())}};
}

std::string orderOf(const std::vector<ZelAttribute> &list) {
  std::string order;
  for (const ZelAttribute &entry : list)
    order += std::string(entry.name) + " ";
  return order;
}

TEST(AttributeLists, AnyOrderOfFormatWordsTablesAndTextGivesTheSameObject) {
  ContextGuard ctx;
  TiffListValues values;
  auto list = wordsTableAndTextList(values);
  auto byName = [](const ZelAttribute &a, const ZelAttribute &b) {
    return std::strcmp(a.name, b.name) < 0;
  };
  std::sort(list.begin(), list.end(), byName);
  int orders = 0;
  do {
    SCOPED_TRACE(orderOf(list));
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(Zel006(ctx, object, list.data(), 4), 0);
    expectTiffWordsTableAndText(ctx, object, values);
    EXPECT_EQ(Zel002(ctx, object), 0);
    ++orders;
  } while (std::next_permutation(list.begin(), list.end(), byName));
  EXPECT_EQ(orders, 24);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(AttributeLists, AnyOrderOfStripCountAndStripTablesGivesTheSameObject) {
  ContextGuard ctx;
  TiffListValues values;
  auto list = stripList(values);
  auto byName = [](const ZelAttribute &a, const ZelAttribute &b) {
    return std::strcmp(a.name, b.name) < 0;
  };
  std::sort(list.begin(), list.end(), byName);
  int orders = 0;
  do {
    SCOPED_TRACE(orderOf(list));
    ZelObject *object = newImage(ctx);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(Zel006(ctx, object, list.data(), 4), 0);
    expectTiffStrips(ctx, object, values);
    EXPECT_EQ(Zel002(ctx, object), 0);
    ++orders;
  } while (std::next_permutation(list.begin(), list.end(), byName));
  EXPECT_EQ(orders, 24);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(AttributeLists, CreatingAnObjectWithAListInAnyOrderGivesTheSameObject) {
  ContextGuard ctx;
  TiffListValues values;
  auto byName = [](const ZelAttribute &a, const ZelAttribute &b) {
    return std::strcmp(a.name, b.name) < 0;
  };
  using Check = void (*)(ZelContext *, ZelObject *, const TiffListValues &);
  const std::pair<std::vector<ZelAttribute>, Check> cases[] = {
      {wordsTableAndTextList(values), expectTiffWordsTableAndText},
      {stripList(values), expectTiffStrips}};
  for (auto [list, check] : cases) {
    std::sort(list.begin(), list.end(), byName);
    int orders = 0;
    do {
      SCOPED_TRACE(orderOf(list));
      ZelObject *object = Zel000b(ctx, nullptr, nullptr, list.data(), 4);
      ASSERT_NE(object, nullptr);
      check(ctx, object, values);
      EXPECT_EQ(Zel002(ctx, object), 0);
      ++orders;
    } while (std::next_permutation(list.begin(), list.end(), byName));
    EXPECT_EQ(orders, 24);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Running out of memory
// -----------------------------------------------------------------------

TEST(AttributeAllocation, NoMemoryForARecordLeavesTheNewFormatWithoutOne) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"xDimension", 5}, {"fileFormat", ZelTiff}, {"yDimension", 6}};
  {
    AllocationFailure failure(0);
    EXPECT_EQ(Zel006(ctx, object, list, 3), -1);
  }
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 5);
  EXPECT_EQ(readAttribute(ctx, object, "yDimension"), 1);
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelTiff);
  // Without a record the format's names are ignored.
  EXPECT_EQ(readOver(ctx, object, "rowsPerStrip", kUntouched), kUntouched);
  EXPECT_EQ(Zel006a(ctx, object, "rowsPerStrip", 3), 0);
  EXPECT_EQ(readOver(ctx, object, "rowsPerStrip", kUntouched), kUntouched);
}

TEST(AttributeAllocation, NoMemoryForANewRecordStillDropsTheOldOne) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute png[] = {{"fileFormat", ZelPng}, {"copyright", text("(c) old")}};
  ASSERT_EQ(Zel006(ctx, object, png, 2), 0);
  {
    AllocationFailure failure(0);
    EXPECT_EQ(Zel006a(ctx, object, "fileFormat", ZelTiff), -1);
  }
  EXPECT_EQ(readAttribute(ctx, object, "fileFormat"), ZelTiff);
  EXPECT_EQ(readOver(ctx, object, "copyright", kUntouched), kUntouched);
  EXPECT_EQ(readOver(ctx, object, "transparencyEntry", kUntouched), kUntouched);
  // A later switch makes a record again.
  EXPECT_EQ(Zel006a(ctx, object, "fileFormat", ZelPng), 0);
  EXPECT_EQ(readAttribute(ctx, object, "transparencyEntry"), 256);
  EXPECT_EQ(readAttribute(ctx, object, "copyright"), 0);
}

TEST(AttributeAllocation, NoMemoryForAFileNameStopsTheListAtOnce) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"xDimension", 5}, {"fileName", text("out.tif")}, {"yDimension", 6}};
  {
    AllocationFailure failure(0);
    EXPECT_EQ(Zel006(ctx, object, list, 3), -1);
  }
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 5);
  EXPECT_EQ(readAttribute(ctx, object, "yDimension"), 1);
  EXPECT_EQ(readAttribute(ctx, object, "fileName"), 0);
  // Nothing was kept of the failed name, so the object can still get one.
  EXPECT_EQ(Zel006(ctx, object, list, 3), 0);
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, object, "fileName")), "out.tif");
  EXPECT_EQ(readAttribute(ctx, object, "yDimension"), 6);
}

// ---- Bad handles and hostile input
// ---------------------------------------------------------------

TEST(AttributeHandles, NullObjectIsAnInvalidInstance) {
  ContextGuard ctx;
  ZelValue x = kUntouched;
  const ZelAttribute read[] = {{"xDimension", place(&x)}};
  const ZelAttribute write[] = {{"xDimension", 4}};
  EXPECT_EQ(Zel005(ctx, nullptr, read, 1), 9);
  EXPECT_EQ(x, kUntouched);
  EXPECT_EQ(Zel006(ctx, nullptr, write, 1), 9);
  EXPECT_EQ(Zel006a(ctx, nullptr, "xDimension", 4), 9);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(AttributeHandles, SingleReadOfAnInvalidObjectGivesTheContextHandle) {
  ContextGuard ctx;
  EXPECT_EQ(Zel005a(ctx, nullptr, "xDimension"), contextWord(ctx));
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(AttributeHandles, DestroyedObjectIsAnInvalidInstance) {
  ContextGuard ctx;
  ZelObject *keeper = newImage(ctx);
  ZelObject *object = newImage(ctx);
  ASSERT_NE(keeper, nullptr);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel002(ctx, object), 0);
  ZelValue x = kUntouched;
  const ZelAttribute read[] = {{"xDimension", place(&x)}};
  const ZelAttribute write[] = {{"xDimension", 4}};
  EXPECT_EQ(Zel005(ctx, object, read, 1), 9);
  EXPECT_EQ(x, kUntouched);
  EXPECT_EQ(Zel006(ctx, object, write, 1), 9);
  EXPECT_EQ(Zel006a(ctx, object, "fileFormat", ZelTiff), 9);
  EXPECT_EQ(Zel005a(ctx, object, "xDimension"), contextWord(ctx));
  EXPECT_EQ(Zel003b(ctx), 9);
  // The refused handle didn't reach a live object's words.
  EXPECT_EQ(readAttribute(ctx, keeper, "xDimension"), 1);
}

TEST(AttributeHandles, ObjectOfAnotherContextIsAnInvalidInstance) {
  ContextGuard ours;
  ContextGuard theirs;
  ZelObject *mine = newImage(ours);
  ZelObject *foreign = newImage(theirs);
  ASSERT_NE(mine, nullptr);
  ASSERT_NE(foreign, nullptr);
  ZelValue x = kUntouched;
  const ZelAttribute read[] = {{"xDimension", place(&x)}};
  const ZelAttribute write[] = {{"xDimension", 4}};
  EXPECT_EQ(Zel005(ours, foreign, read, 1), 9);
  EXPECT_EQ(x, kUntouched);
  EXPECT_EQ(Zel006(ours, foreign, write, 1), 9);
  EXPECT_EQ(Zel006a(ours, foreign, "xDimension", 4), 9);
  EXPECT_EQ(Zel005a(ours, foreign, "xDimension"), contextWord(ours));
  EXPECT_EQ(Zel003b(ours), 9);
  EXPECT_EQ(Zel003b(theirs), 0);
  EXPECT_EQ(readAttribute(theirs, foreign, "xDimension"), 1);
}

TEST(AttributeHandles, TheHandleIsCheckedBeforeTheCount) {
  ContextGuard ctx;
  EXPECT_EQ(Zel005(ctx, nullptr, nullptr, 0), 9);
  ContextGuard other;
  EXPECT_EQ(Zel006(other, nullptr, nullptr, -1), 9);
  EXPECT_EQ(Zel003b(other), 9);
}

TEST(AttributeHandles, MissingContextGivesInvalidHandle) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ZelValue x = kUntouched;
  const ZelAttribute read[] = {{"xDimension", place(&x)}};
  const ZelAttribute write[] = {{"xDimension", 4}};
  EXPECT_EQ(Zel005(nullptr, object, read, 1), 24);
  EXPECT_EQ(x, kUntouched);
  EXPECT_EQ(Zel006(nullptr, object, write, 1), 24);
  EXPECT_EQ(Zel006a(nullptr, object, "xDimension", 4), 24);
  EXPECT_EQ(Zel005a(nullptr, object, "xDimension"), 0);
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 1);
}

TEST(AttributeLists, VeryLongNamesAreUnknownNames) {
  ContextGuard ctx;
  ZelObject *object = newImage(ctx);
  ASSERT_NE(object, nullptr);
  ASSERT_EQ(Zel006a(ctx, object, "fileFormat", ZelGif), 0);
  const std::string filler(1 << 20, 'x');
  for (const std::string &name : {filler, "xDimension" + filler, "left" + filler}) {
    SCOPED_TRACE(name.substr(0, 12));
    EXPECT_EQ(Zel006a(ctx, object, name.c_str(), 77), 0);
    EXPECT_EQ(readOver(ctx, object, name.c_str(), kUntouched), kUntouched);
    EXPECT_EQ(Zel005a(ctx, object, name.c_str()), contextWord(ctx));
  }
  EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 1);
  EXPECT_EQ(readAttribute(ctx, object, "left"), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

}  // namespace
