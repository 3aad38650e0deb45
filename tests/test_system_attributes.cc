// The settings of a context, read and written by name.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using zel::test::ContextGuard;
using zel::test::ScratchDirectory;

struct Default {
  const char *name;
  ZelValue value;
};

// Every setting with the value a new context gives it.
constexpr Default kDefaults[] = {
    {"booleanPrecision", 1},
    {"nonnegativeIntegerPrecision", 8},
    {"signedIntegerPrecision", 16},
    {"realArithmeticPrecision", 32},
    {"complexArithmeticPrecision", 64},
    {"boundaryCondition", 231},
    {"colourQuantization", 211},
    {"comformanceProfile", 86},
    {"errorDiffusion", 85},
    {"errorReportingState", 0},
    {"indexAssignmentState", 0},
    {"interpolation", 191},
    {"matchPointState", 0},
    {"morphologicalOperation", 0},
    {"operationalState", 155},
    {"realArithmeticImplementation", 161},
    {"roiState", 0},
    {"synchronicityState", 1},
    {"thresholdRamp", 42},
    {"byteBoundary", 0},
    {"progressive", 0},
    {"interlacePass", 1},
    {"debugState", 0},
    {"xDimensionLimit", 0x7FFFFFFF},
    {"yDimensionLimit", 0x7FFFFFFF},
    {"zDimensionLimit", 0x7FFFFFFF},
    {"tDimensionLimit", 0x7FFFFFFF},
    {"bDimensionLimit", 0x7FFFFFFF},
};
constexpr int kSettingCount = static_cast<int>(sizeof kDefaults / sizeof kDefaults[0]);

constexpr ZelValue kUntouched = static_cast<ZelValue>(0x5A5A5A5A5A5A5A5Aull);

ZelAttribute readEntry(const char *name, ZelValue *place) {
  return ZelAttribute{name, reinterpret_cast<ZelValue>(place)};
}

ZelValue readSetting(ZelContext *ctx, const char *name) {
  ZelValue value = kUntouched;
  ZelAttribute entry = readEntry(name, &value);
  EXPECT_EQ(Zel007(ctx, &entry, 1), 0) << name;
  return value;
}

TEST(SystemAttributes, ThereAreTwentyEightSettings) {
  EXPECT_EQ(kSettingCount, 28);
}

TEST(SystemAttributes, DefaultsReadInOneList) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  std::vector<ZelValue> places(kSettingCount, kUntouched);
  std::vector<ZelAttribute> list;
  for (int i = 0; i < kSettingCount; ++i)
    list.push_back(readEntry(kDefaults[i].name, &places[static_cast<size_t>(i)]));
  EXPECT_EQ(Zel007(ctx, list.data(), kSettingCount), 0);
  for (int i = 0; i < kSettingCount; ++i)
    EXPECT_EQ(places[static_cast<size_t>(i)], kDefaults[i].value) << kDefaults[i].name;
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(SystemAttributes, DefaultsReadOneByOne) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  for (const Default &setting : kDefaults)
    EXPECT_EQ(Zel007a(ctx, setting.name), setting.value) << setting.name;
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(SystemAttributes, DimensionLimitOfBandsIsUnlimitedOnAFreshContext) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel007a(ctx, "bDimensionLimit"), 0x7FFFFFFF);
}

TEST(SystemAttributes, EverySettingIsWrittenAndReadBackInLists) {
  ScratchDirectory scratch;  // errorReportingState goes on; nothing fails, but stay contained
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  // Values are stored as given: checking them is the business of whoever uses them.
  std::vector<ZelAttribute> writes;
  std::vector<ZelValue> expected;
  for (int i = 0; i < kSettingCount; ++i) {
    ZelValue value = std::string(kDefaults[i].name) == "operationalState" ? ZelValue{ZelOpen}
                                                                          : ZelValue{1000 + i};
    writes.push_back({kDefaults[i].name, value});
    expected.push_back(value);
  }
  EXPECT_EQ(Zel008(ctx, writes.data(), kSettingCount), 0);

  std::vector<ZelValue> places(kSettingCount, kUntouched);
  std::vector<ZelAttribute> reads;
  for (int i = 0; i < kSettingCount; ++i)
    reads.push_back(readEntry(kDefaults[i].name, &places[static_cast<size_t>(i)]));
  EXPECT_EQ(Zel007(ctx, reads.data(), kSettingCount), 0);
  for (int i = 0; i < kSettingCount; ++i) {
    EXPECT_EQ(places[static_cast<size_t>(i)], expected[static_cast<size_t>(i)])
        << kDefaults[i].name;
    EXPECT_EQ(Zel007a(ctx, kDefaults[i].name), expected[static_cast<size_t>(i)])
        << kDefaults[i].name;
  }
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
}

TEST(SystemAttributes, EverySettingIsWrittenAndReadBackOneByOne) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  for (int i = 0; i < kSettingCount; ++i) {
    const char *name = kDefaults[i].name;
    ZelValue value =
        std::string(name) == "operationalState" ? ZelValue{ZelOpen} : ZelValue{-2000 - i};
    EXPECT_EQ(Zel008a(ctx, name, value), 0) << name;
    EXPECT_EQ(Zel007a(ctx, name), value) << name;
    EXPECT_EQ(readSetting(ctx, name), value) << name;
  }
  // Each write touched its own setting only.
  for (int i = 0; i < kSettingCount; ++i) {
    const char *name = kDefaults[i].name;
    ZelValue value =
        std::string(name) == "operationalState" ? ZelValue{ZelOpen} : ZelValue{-2000 - i};
    EXPECT_EQ(Zel007a(ctx, name), value) << name;
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(SystemAttributes, ConformanceProfileIsSpelledWithAnM) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel007a(ctx, "comformanceProfile"), 86);
  EXPECT_EQ(Zel008a(ctx, "comformanceProfile", 87), 0);
  EXPECT_EQ(Zel007a(ctx, "comformanceProfile"), 87);
  EXPECT_EQ(Zel003b(ctx), 0);

  EXPECT_EQ(Zel008a(ctx, "conformanceProfile", 88), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel007a(ctx, "conformanceProfile"), reinterpret_cast<ZelValue>(ctx.get()));
  EXPECT_EQ(Zel007a(ctx, "comformanceProfile"), 87);
}

TEST(SystemAttributes, NamesAreCaseSensitive) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008a(ctx, "RoiState", 1), 18);
  EXPECT_EQ(Zel008a(ctx, "roistate", 1), 18);
  EXPECT_EQ(Zel008a(ctx, "roiState ", 1), 18);
  EXPECT_EQ(Zel008a(ctx, "roiStat", 1), 18);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 0);
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(SystemAttributes, UnknownNameStopsAWriteWithOutOfRange) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {{"roiState", 1}, {"noSuchSetting", 5}, {"matchPointState", 1}};
  EXPECT_EQ(Zel008(ctx, list, 3), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 1);
  EXPECT_EQ(Zel007a(ctx, "matchPointState"), 0);
}

TEST(SystemAttributes, UnknownNameStopsAReadWithOutOfRange) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelValue before = kUntouched, unknown = kUntouched, after = kUntouched;
  ZelAttribute list[] = {readEntry("interpolation", &before), readEntry("noSuchSetting", &unknown),
                         readEntry("thresholdRamp", &after)};
  EXPECT_EQ(Zel007(ctx, list, 3), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(before, 191);
  EXPECT_EQ(unknown, kUntouched);
  EXPECT_EQ(after, kUntouched);
}

TEST(SystemAttributes, UnknownFirstNameDoesNothing) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {{"objectSetting", 1}, {"roiState", 1}};
  EXPECT_EQ(Zel008(ctx, list, 2), 18);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 0);
}

TEST(SystemAttributes, ObjectAttributeNamesAreNoSettings) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008a(ctx, "xDimension", 5), 18);
  EXPECT_EQ(Zel007a(ctx, "dataType"), reinterpret_cast<ZelValue>(ctx.get()));
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(SystemAttributes, SingleReadOfUnknownNameGivesTheContextWord) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel007a(ctx, "noSuchSetting"), reinterpret_cast<ZelValue>(ctx.get()));
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(SystemAttributes, SingleReadOnABadContextGivesTheHandleWord) {
  EXPECT_EQ(Zel007a(nullptr, "roiState"), 0);
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  ASSERT_EQ(Zel001(ctx), 0);
  EXPECT_EQ(Zel007a(ctx, "roiState"), reinterpret_cast<ZelValue>(ctx));
  int local = 0;
  auto *garbage = reinterpret_cast<ZelContext *>(&local);
  EXPECT_EQ(Zel007a(garbage, "roiState"), reinterpret_cast<ZelValue>(garbage));
  EXPECT_EQ(local, 0);
}

TEST(SystemAttributes, SingleWriteSetsOneSetting) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008a(ctx, "errorDiffusion", ZelStucki), 0);
  EXPECT_EQ(Zel007a(ctx, "errorDiffusion"), ZelStucki);
  EXPECT_EQ(Zel008a(ctx, "noSuchSetting", 1), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel007a(ctx, "errorDiffusion"), ZelStucki);
}

TEST(SystemAttributes, BadContextGivesInvalidHandle) {
  ZelValue place = kUntouched;
  ZelAttribute read = readEntry("roiState", &place);
  ZelAttribute write{"roiState", 1};
  EXPECT_EQ(Zel007(nullptr, &read, 1), 24);
  EXPECT_EQ(Zel008(nullptr, &write, 1), 24);
  EXPECT_EQ(Zel008a(nullptr, "roiState", 1), 24);

  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  ASSERT_EQ(Zel001(ctx), 0);
  EXPECT_EQ(Zel007(ctx, &read, 1), 24);
  EXPECT_EQ(Zel008(ctx, &write, 1), 24);
  EXPECT_EQ(Zel008a(ctx, "roiState", 1), 24);
  EXPECT_EQ(place, kUntouched);
}

TEST(SystemAttributes, OnlyTheCountedEntriesAreWalked) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {{"roiState", 1}, {"matchPointState", 1}, {"noSuchSetting", 1}};
  EXPECT_EQ(Zel008(ctx, list, 1), 0);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 1);
  EXPECT_EQ(Zel007a(ctx, "matchPointState"), 0);
  EXPECT_EQ(Zel008(ctx, list, 2), 0);
  EXPECT_EQ(Zel007a(ctx, "matchPointState"), 1);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(SystemAttributes, CountBelowOneDoesNothing) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelValue place = kUntouched;
  ZelAttribute write[] = {{"roiState", 1}, {"noSuchSetting", 1}};
  ZelAttribute read[] = {readEntry("roiState", &place), readEntry("noSuchSetting", &place)};
  for (int count : {0, -1, -2, INT_MIN}) {
    EXPECT_EQ(Zel008(ctx, write, count), 0) << count;
    EXPECT_EQ(Zel007(ctx, read, count), 0) << count;
    EXPECT_EQ(Zel008(ctx, nullptr, count), 0) << count;
    EXPECT_EQ(Zel007(ctx, nullptr, count), 0) << count;
  }
  EXPECT_EQ(place, kUntouched);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(SystemAttributes, NullListWithPositiveCountIsOutOfRange) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008(ctx, nullptr, 1), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel008a(ctx, "roiState", 0), 0);
  EXPECT_EQ(Zel007(ctx, nullptr, 3), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  // The settings are unchanged.
  for (const Default &setting : kDefaults)
    EXPECT_EQ(Zel007a(ctx, setting.name), setting.value) << setting.name;
}

TEST(SystemAttributes, NullNameIsAnUnknownName) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute write[] = {{"roiState", 1}, {nullptr, 1}, {"matchPointState", 1}};
  EXPECT_EQ(Zel008(ctx, write, 3), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 1);
  EXPECT_EQ(Zel007a(ctx, "matchPointState"), 0);

  ZelValue before = kUntouched, unnamed = kUntouched, after = kUntouched;
  ZelAttribute read[] = {readEntry("roiState", &before), readEntry(nullptr, &unnamed),
                         readEntry("matchPointState", &after)};
  EXPECT_EQ(Zel008a(ctx, "debugState", 0), 0);
  EXPECT_EQ(Zel007(ctx, read, 3), 18);
  EXPECT_EQ(before, 1);
  EXPECT_EQ(unnamed, kUntouched);
  EXPECT_EQ(after, kUntouched);

  EXPECT_EQ(Zel008a(ctx, nullptr, 1), 18);
  EXPECT_EQ(Zel007a(ctx, nullptr), reinterpret_cast<ZelValue>(ctx.get()));
}

TEST(SystemAttributes, NullPlaceStopsAReadWithOutOfRange) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ASSERT_EQ(Zel008a(ctx, "roiState", 7), 0);
  ZelValue before = kUntouched, after = kUntouched;
  ZelAttribute list[] = {readEntry("roiState", &before), readEntry("matchPointState", nullptr),
                         readEntry("debugState", &after)};
  EXPECT_EQ(Zel007(ctx, list, 3), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(before, 7);
  EXPECT_EQ(after, kUntouched);
}

TEST(SystemAttributes, VeryLongNamesAreUnknownNames) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string filler(1 << 20, 'a');
  const std::string prefixed = std::string("roiState") + std::string(1 << 20, 'x');
  for (const std::string *name : {&filler, &prefixed}) {
    EXPECT_EQ(Zel008a(ctx, name->c_str(), 1), 18);
    EXPECT_EQ(Zel007a(ctx, name->c_str()), reinterpret_cast<ZelValue>(ctx.get()));
    ZelValue place = kUntouched;
    ZelAttribute read = readEntry(name->c_str(), &place);
    EXPECT_EQ(Zel007(ctx, &read, 1), 18);
    EXPECT_EQ(place, kUntouched);
  }
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 0);
}

TEST(SystemAttributes, WritesKeepTheLowThirtyTwoBitsAndReadsSignExtend) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  struct Case {
    ZelValue written;
    ZelValue read;
  };
  const Case cases[] = {
      {-5, -5},
      {static_cast<ZelValue>(0x100000001ll), 1},
      {static_cast<ZelValue>(0xFFFFFFFFll), -1},
      {static_cast<ZelValue>(0x80000000ll), INT32_MIN},
      {0x7FFFFFFF, 0x7FFFFFFF},
      {static_cast<ZelValue>(0x123456789ABCDEF0ll), static_cast<int32_t>(0x9ABCDEF0u)},
      {static_cast<ZelValue>(-0x100000000ll), 0},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(Zel008a(ctx, "xDimensionLimit", c.written), 0);
    EXPECT_EQ(Zel007a(ctx, "xDimensionLimit"), c.read) << c.written;
    EXPECT_EQ(readSetting(ctx, "xDimensionLimit"), c.read) << c.written;
    ZelAttribute write{"debugState", c.written};
    EXPECT_EQ(Zel008(ctx, &write, 1), 0);
    EXPECT_EQ(readSetting(ctx, "debugState"), c.read) << c.written;
  }
}

TEST(SystemAttributes, LaterEntriesOverrideEarlierOnes) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {{"interpolation", ZelBilinear}, {"interpolation", ZelCubicConvolution}};
  EXPECT_EQ(Zel008(ctx, list, 2), 0);
  EXPECT_EQ(Zel007a(ctx, "interpolation"), ZelCubicConvolution);
}

TEST(SystemAttributes, SettingsOfTwoContextsAreSeparate) {
  ContextGuard first;
  ContextGuard second;
  ASSERT_NE(first.get(), nullptr);
  ASSERT_NE(second.get(), nullptr);
  EXPECT_EQ(Zel008a(first, "boundaryCondition", ZelReflect), 0);
  EXPECT_EQ(Zel008a(second, "colourQuantization", ZelPopularity), 0);
  EXPECT_EQ(Zel007a(first, "boundaryCondition"), ZelReflect);
  EXPECT_EQ(Zel007a(second, "boundaryCondition"), 231);
  EXPECT_EQ(Zel007a(first, "colourQuantization"), 211);
  EXPECT_EQ(Zel007a(second, "colourQuantization"), ZelPopularity);
}

TEST(SystemAttributes, NonnegativePrecisionReachesOnlyObjectsWhoseDataTypeIsWrittenLater) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *before = Zel000b(ctx, "before", nullptr, nullptr, 0);
  ASSERT_NE(before, nullptr);
  ASSERT_EQ(Zel005a(ctx, before, "dataType"), ZelNonNegative);
  ASSERT_EQ(Zel005a(ctx, before, "dataPrecision"), 8);

  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 4), 0);
  EXPECT_EQ(Zel005a(ctx, before, "dataPrecision"), 8);

  // A new image takes its class defaults; its precision follows only a write of the type.
  ZelObject *plain = Zel000b(ctx, "plain", nullptr, nullptr, 0);
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(Zel005a(ctx, plain, "dataPrecision"), 8);
  ZelAttribute typed[] = {{"dataType", ZelNonNegative}};
  ZelObject *written = Zel000b(ctx, "written", nullptr, typed, 1);
  ASSERT_NE(written, nullptr);
  EXPECT_EQ(Zel005a(ctx, written, "dataPrecision"), 4);

  EXPECT_EQ(Zel006a(ctx, before, "dataType", ZelNonNegative), 0);
  EXPECT_EQ(Zel005a(ctx, before, "dataPrecision"), 4);
  EXPECT_EQ(Zel005a(ctx, plain, "dataPrecision"), 8);

  // A later change again leaves the objects as they are.
  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 12), 0);
  EXPECT_EQ(Zel005a(ctx, before, "dataPrecision"), 4);
  EXPECT_EQ(Zel005a(ctx, written, "dataPrecision"), 4);
}

TEST(SystemAttributes, EachPrecisionSettingFeedsItsDataType) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute precisions[] = {{"booleanPrecision", 3},
                               {"nonnegativeIntegerPrecision", 5},
                               {"signedIntegerPrecision", 11},
                               {"realArithmeticPrecision", 40},
                               {"complexArithmeticPrecision", 96}};
  ASSERT_EQ(Zel008(ctx, precisions, 5), 0);
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  const struct {
    ZelValue dataType;
    ZelValue precision;
  } expected[] = {
      {ZelBoolean, 3}, {ZelNonNegative, 5}, {ZelSigned, 11}, {ZelReal, 40}, {ZelComplex, 96}};
  for (const auto &e : expected) {
    EXPECT_EQ(Zel006a(ctx, image, "dataType", e.dataType), 0);
    EXPECT_EQ(Zel005a(ctx, image, "dataPrecision"), e.precision) << e.dataType;
  }
  // Types without a precision setting leave the precision alone.
  for (ZelValue other : {ZelValue{ZelWord}, ZelValue{ZelObjectHandle}}) {
    EXPECT_EQ(Zel006a(ctx, image, "dataPrecision", 21), 0);
    EXPECT_EQ(Zel006a(ctx, image, "dataType", other), 0);
    EXPECT_EQ(Zel005a(ctx, image, "dataType"), other);
    EXPECT_EQ(Zel005a(ctx, image, "dataPrecision"), 21) << other;
  }
}

}  // namespace
