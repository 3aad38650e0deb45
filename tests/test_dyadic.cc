// Dyadic operators: every operation on bytes and on bits, in each repository, with match points
// and regions of interest, against a reference computed here from the table of operations; the
// documented saturations and shifts; work in place; the checks of pixel widths.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "access/repository.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

class DyadicOperators : public OperatorFixture {};

const int kOperations[] = {ZelAbsoluteDifference, ZelAdd, ZelAverage, ZelDivide, ZelAnd, ZelNand,
                           ZelNor, ZelNot, ZelOr, ZelXor, ZelMaximum, ZelMinimum, ZelMultiply,
                           ZelSubtract, ZelHalfDifference,
                           // not operations of this operator: every pixel is left alone
                           0, 6, 132, 1000, -7};

// ---- Every operation against the reference ----------------------------------------------------

enum class Layout { WorkSpace, Application, File, Mixed };

struct Scenario {
  const char *name;
  bool matchPoints;      // the objects carry match points
  bool matchPointState;  // and the context honours them
  bool roi;              // the objects carry regions of interest
  bool roiState;         // and the context honours them
  bool freshDestination;
};

const Scenario kScenarios[] = {
    {"PlainFresh", false, false, false, false, true},
    {"PlainOverData", false, false, false, false, false},
    {"MatchPoints", true, true, false, false, false},
    {"MatchPointsIgnored", true, false, false, false, false},
    {"Regions", false, false, true, true, false},
    {"RegionsIgnored", false, false, true, false, false},
    {"MatchPointsAndRegionsFresh", true, true, true, true, true},
    {"MatchPointsAndRegions", true, true, true, true, false},
};

using TableParam = std::tuple<bool, Layout, int>;

class DyadicOperationTable : public DyadicOperators,
                             public ::testing::WithParamInterface<TableParam> {};

TEST_P(DyadicOperationTable, EveryOperationMatchesItsDefinition) {
  const auto [boolean, layout, scenarioIndex] = GetParam();
  const Scenario &scenario = kScenarios[scenarioIndex];
  const Extent extentA{37, 23, 2, 1, 3}, extentB{35, 25, 3, 1, 2}, extentD{37, 23, 2, 1, 3};
  const Extent matchA{2, 1, 0, 0, 1}, matchB{0, 3, 1, 0, 0}, matchD{3, 2, 1, 0, 1};
  int repositoryA = ZelWorkSpace, repositoryB = ZelWorkSpace, repositoryD = ZelWorkSpace;
  int maskRepositoryA = ZelWorkSpace, maskRepositoryB = ZelApplicationAddressSpace,
      maskRepositoryD = ZelWorkSpace;
  switch (layout) {
    case Layout::WorkSpace:
      break;
    case Layout::Application:
      repositoryA = repositoryB = repositoryD = ZelApplicationAddressSpace;
      maskRepositoryD = ZelApplicationAddressSpace;
      break;
    case Layout::File:
      repositoryA = repositoryB = repositoryD = ZelFile;
      break;
    case Layout::Mixed:
      repositoryA = ZelFile;
      repositoryB = ZelApplicationAddressSpace;
      maskRepositoryA = ZelApplicationAddressSpace;
      maskRepositoryB = ZelWorkSpace;
      maskRepositoryD = ZelApplicationAddressSpace;
      break;
  }
  setting("matchPointState", scenario.matchPointState);
  setting("roiState", scenario.roiState);

  unsigned seed = 1000u * static_cast<unsigned>(boolean) + 100u * static_cast<unsigned>(layout) +
                  static_cast<unsigned>(scenarioIndex);
  for (int operation : kOperations) {
    SCOPED_TRACE("operation " + std::to_string(operation));
    std::mt19937 rng(seed * 7919u + static_cast<unsigned>(operation + 100));
    Image a = randomImage(rng, extentA, boolean);
    Image b = randomImage(rng, extentB, boolean);
    Image before =
        scenario.freshDestination ? Image(extentD, boolean) : randomImage(rng, extentD, boolean);
    Image maskA = randomMask(rng, extentA), maskB = randomMask(rng, extentB),
          maskD = randomMask(rng, extentD);

    ZelObject *objectA =
        objects_->make(a, repositoryA, true, scenario.matchPoints ? matchA : kOrigin);
    ZelObject *objectB =
        objects_->make(b, repositoryB, true, scenario.matchPoints ? matchB : kOrigin);
    ZelObject *objectD = objects_->make(before, repositoryD, !scenario.freshDestination,
                                        scenario.matchPoints ? matchD : kOrigin);
    ASSERT_TRUE(objectA && objectB && objectD);
    std::vector<ZelObject *> masks;
    if (scenario.roi) {
      masks.push_back(objects_->maskFor(objectA, maskA, maskRepositoryA));
      masks.push_back(objects_->maskFor(objectB, maskB, maskRepositoryB));
      masks.push_back(objects_->maskFor(objectD, maskD, maskRepositoryD));
    }

    ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, operation), 0) << Zel003b(ctx_);

    const bool shifted = scenario.matchPoints && scenario.matchPointState;
    const bool masked = scenario.roi && scenario.roiState;
    Image expected = combine(operation, {&a, shifted ? matchA : kOrigin, masked ? &maskA : nullptr},
                             {&b, shifted ? matchB : kOrigin, masked ? &maskB : nullptr},
                             {&before, shifted ? matchD : kOrigin, masked ? &maskD : nullptr});
    expectPixels(expected, objects_->read(objectD, extentD, boolean));
    EXPECT_EQ(readAttribute(ctx_, objectD, "inited"), 1);
    // The sources are read, never written.
    expectPixels(a, objects_->read(objectA, extentA, boolean));
    expectPixels(b, objects_->read(objectB, extentB, boolean));
    expectNoStreamOpen({objectA, objectB, objectD});

    for (ZelObject *object : {objectA, objectB, objectD})
      EXPECT_EQ(Zel002(ctx_, object), 0);
    for (ZelObject *object : masks)
      EXPECT_EQ(Zel002(ctx_, object), 0);
  }
}

std::string tableName(const ::testing::TestParamInfo<TableParam> &info) {
  static const char *const layouts[] = {"WorkSpace", "ApplicationMemory", "File", "Mixed"};
  return std::string(std::get<0>(info.param) ? "Boolean" : "NonNegative") + "_" +
         layouts[static_cast<int>(std::get<1>(info.param))] + "_" +
         kScenarios[std::get<2>(info.param)].name;
}

INSTANTIATE_TEST_SUITE_P(
    AllRepositories, DyadicOperationTable,
    ::testing::Combine(::testing::Bool(),
                       ::testing::Values(Layout::WorkSpace, Layout::Application, Layout::File,
                                         Layout::Mixed),
                       ::testing::Range(0, static_cast<int>(std::size(kScenarios)))),
    tableName);

// ---- The documented results ---------------------------------------------------------------------

TEST_F(DyadicOperators, AddSaturatesAt255) {
  ZelObject *a = row({200, 100, 255, 0}), *b = row({100, 100, 255, 0});
  ZelObject *d = objects_->make(Image({4, 1, 1, 1, 1}, false), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 0);
  EXPECT_EQ(rowOf(d, 4), (std::vector<uint8_t>{255, 200, 255, 0}));
}

TEST_F(DyadicOperators, SubtractStopsAtZero) {
  ZelObject *a = row({100, 200, 5}), *b = row({200, 100, 5});
  ZelObject *d = objects_->make(Image({3, 1, 1, 1, 1}, false, 77), ZelWorkSpace, true);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelSubtract), 0);
  EXPECT_EQ(rowOf(d, 3), (std::vector<uint8_t>{0, 100, 0}));
}

TEST_F(DyadicOperators, HalfDifferenceShiftsRightAndStopsAtZero) {
  ZelObject *a = row({7, 4, 255, 0, 8}), *b = row({4, 7, 0, 1, 3});
  ZelObject *d = objects_->make(Image({5, 1, 1, 1, 1}, false, 77), ZelWorkSpace, true);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelHalfDifference), 0);
  EXPECT_EQ(rowOf(d, 5), (std::vector<uint8_t>{1, 0, 127, 0, 2}));
}

TEST_F(DyadicOperators, AverageOfTwoMaximaIsTheMaximum) {
  ZelObject *a = row({255, 3, 0}), *b = row({255, 4, 1});
  ZelObject *d = objects_->make(Image({3, 1, 1, 1, 1}, false), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelAverage), 0);
  EXPECT_EQ(rowOf(d, 3), (std::vector<uint8_t>{255, 3, 0}));
}

TEST_F(DyadicOperators, MultiplySaturatesAt255) {
  ZelObject *a = row({16, 15, 3, 255}), *b = row({16, 17, 5, 0});
  ZelObject *d = objects_->make(Image({4, 1, 1, 1, 1}, false, 9), ZelWorkSpace, true);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelMultiply), 0);
  EXPECT_EQ(rowOf(d, 4), (std::vector<uint8_t>{255, 255, 15, 0}));
}

TEST_F(DyadicOperators, DivideByZeroPixelKeepsTheDestinationPixel) {
  ZelObject *a = row({10, 20, 30, 41}), *b = row({0, 4, 0, 5});
  ZelObject *fresh = objects_->make(Image({4, 1, 1, 1, 1}, false), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, a, b, fresh, ZelDivide), 0);
  EXPECT_EQ(rowOf(fresh, 4), (std::vector<uint8_t>{0, 5, 0, 8}));

  ZelObject *written = row({9, 9, 9, 9}, ZelApplicationAddressSpace);
  ASSERT_EQ(Zel106(ctx_, a, b, written, ZelDivide), 0);
  EXPECT_EQ(rowOf(written, 4), (std::vector<uint8_t>{9, 5, 9, 8}));
}

TEST_F(DyadicOperators, DivideByZeroOnAFreshFileDestinationGivesZero) {
  ZelObject *a = row({10, 20, 30, 41}, ZelFile), *b = row({0, 4, 0, 5}, ZelFile);
  ZelObject *d = objects_->make(Image({4, 1, 1, 1, 1}, false), ZelFile, false);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelDivide), 0);
  EXPECT_EQ(rowOf(d, 4), (std::vector<uint8_t>{0, 5, 0, 8}));
}

TEST_F(DyadicOperators, NotLeavesEveryPixelAlone) {
  for (bool boolean : {false, true}) {
    std::mt19937 rng(boolean ? 5 : 6);
    const Extent extent{13, 3, 1, 1, 2};
    Image a = randomImage(rng, extent, boolean), b = randomImage(rng, extent, boolean);
    Image before = randomImage(rng, extent, boolean);
    ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
    ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
    ZelObject *objectD = objects_->make(before, ZelFile, true);
    ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelNot), 0);
    expectPixels(before, objects_->read(objectD, extent, boolean));
    EXPECT_EQ(readAttribute(ctx_, objectD, "inited"), 1);
  }
}

TEST_F(DyadicOperators, UnknownOperationIsNoErrorAndLeavesEveryPixelAlone) {
  for (bool boolean : {false, true}) {
    for (int operation : {0, 4, 6, 9, 125, 132, 189, 191, 9999, -1}) {
      SCOPED_TRACE(operation);
      std::mt19937 rng(static_cast<unsigned>(operation + 77));
      const Extent extent{11, 2, 1, 1, 1};
      Image before = randomImage(rng, extent, boolean);
      ZelObject *objectA = objects_->make(randomImage(rng, extent, boolean), ZelWorkSpace, true);
      ZelObject *objectB =
          objects_->make(randomImage(rng, extent, boolean), ZelApplicationAddressSpace, true);
      ZelObject *objectD = objects_->make(before, ZelApplicationAddressSpace, true);
      ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, operation), 0);
      expectPixels(before, objects_->read(objectD, extent, boolean));
    }
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(DyadicOperators, ArithmeticOnBooleanPixelsLeavesThemAlone) {
  const Extent extent{19, 2, 1, 1, 1};
  for (int operation : {ZelAbsoluteDifference, ZelAdd, ZelAverage, ZelDivide, ZelMaximum,
                        ZelMinimum, ZelMultiply, ZelSubtract, ZelHalfDifference}) {
    SCOPED_TRACE(operation);
    std::mt19937 rng(static_cast<unsigned>(operation));
    Image before = randomImage(rng, extent, true);
    ZelObject *objectA = objects_->make(randomImage(rng, extent, true), ZelWorkSpace, true);
    ZelObject *objectB = objects_->make(randomImage(rng, extent, true), ZelWorkSpace, true);
    ZelObject *objectD = objects_->make(before, ZelWorkSpace, true);
    ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, operation), 0);
    expectPixels(before, objects_->read(objectD, extent, true));
  }
}

TEST_F(DyadicOperators, BooleanNandLooksAtSourceBOnly) {
  const Extent extent{4, 1, 1, 1, 1};
  ZelObject *a = objects_->make(Image(extent, true, {0, 0, 1, 1}), ZelWorkSpace, true);
  ZelObject *b = objects_->make(Image(extent, true, {0, 1, 0, 1}), ZelWorkSpace, true);
  ZelObject *d = objects_->make(Image(extent, true), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelNand), 0);
  EXPECT_EQ(objects_->read(d, extent, true).pixels, (std::vector<uint8_t>{1, 0, 1, 0}));
}

TEST_F(DyadicOperators, BooleanLogicFollowsTruthTables) {
  const Extent extent{4, 1, 1, 1, 1};
  const std::vector<uint8_t> valuesA{0, 0, 1, 1}, valuesB{0, 1, 0, 1};
  const std::pair<int, std::vector<uint8_t>> tables[] = {{ZelAnd, {0, 0, 0, 1}},
                                                         {ZelOr, {0, 1, 1, 1}},
                                                         {ZelXor, {0, 1, 1, 0}},
                                                         {ZelNor, {1, 0, 0, 0}}};
  for (const auto &[operation, result] : tables) {
    SCOPED_TRACE(operation);
    ZelObject *a = objects_->make(Image(extent, true, valuesA), ZelApplicationAddressSpace, true);
    ZelObject *b = objects_->make(Image(extent, true, valuesB), ZelApplicationAddressSpace, true);
    ZelObject *d = objects_->make(Image(extent, true), ZelApplicationAddressSpace, false);
    ASSERT_EQ(Zel106(ctx_, a, b, d, operation), 0);
    EXPECT_EQ(objects_->read(d, extent, true).pixels, result);
  }
}

// ---- Match points and regions of interest ------------------------------------------------------

TEST_F(DyadicOperators, EmptyRegionRunsNoWalkAndSucceeds) {
  setting("matchPointState", 1);
  const Extent extent{8, 4, 1, 1, 1};
  std::mt19937 rng(11);
  Image before = randomImage(rng, extent, false);
  ZelObject *a =
      objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true, {20, 0, 0, 0, 0});
  ZelObject *b = objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true);
  ZelObject *d = objects_->make(before, ZelApplicationAddressSpace, true);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 0);
  expectPixels(before, objects_->read(d, extent, false));
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(DyadicOperators, SourceMatchPointsHaveNoEffectWhenTheContextIgnoresThem) {
  const Extent extent{9, 5, 1, 1, 1};
  const Extent matchA{3, 1, 0, 0, 0}, matchB{1, 2, 0, 0, 0};
  std::mt19937 rng(12);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true, matchA);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true, matchB);
  ZelObject *objectD = objects_->make(Image(extent, false), ZelWorkSpace, false);
  ASSERT_EQ(readAttribute(ctx_, objectA, "xMatchPoint"), 3);
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelAbsoluteDifference), 0);

  Image zero(extent, false);
  Image aligned = combine(ZelAbsoluteDifference, {&a}, {&b}, {&zero});
  Image shifted = combine(ZelAbsoluteDifference, {&a, matchA}, {&b, matchB}, {&zero});
  ASSERT_NE(aligned.pixels, shifted.pixels);
  expectPixels(aligned, objects_->read(objectD, extent, false));
}

TEST_F(DyadicOperators, AnyNonzeroMaskByteAdmitsThePixel) {
  setting("roiState", 1);
  const Extent extent{256, 1, 1, 1, 1};
  Image mask(extent, false);
  for (int i = 0; i < 256; ++i)
    mask.pixels[static_cast<size_t>(i)] = static_cast<uint8_t>(i);
  ZelObject *a = objects_->make(Image(extent, false, 40), ZelWorkSpace, true);
  ZelObject *b = objects_->make(Image(extent, false, 2), ZelWorkSpace, true);
  ZelObject *d = objects_->make(Image(extent, false, 7), ZelWorkSpace, true);
  objects_->maskFor(d, mask, ZelWorkSpace);
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 0);
  std::vector<uint8_t> pixels = objects_->read(d, extent, false).pixels;
  EXPECT_EQ(pixels[0], 7);
  for (size_t i = 1; i < 256; ++i)
    EXPECT_EQ(pixels[i], 42) << "mask byte " << i;
}

TEST_F(DyadicOperators, RegionOfInterestOnTheDestinationOnlyIsReadAtTheDestinationRows) {
  setting("roiState", 1);
  setting("matchPointState", 1);
  const Extent extentS{9, 5, 2, 1, 1}, extentD{7, 6, 2, 1, 1};
  const Extent matchA{2, 0, 0, 0, 0}, matchB{1, 1, 0, 0, 0}, matchD{0, 2, 1, 0, 0};
  for (bool boolean : {false, true}) {
    std::mt19937 rng(boolean ? 13 : 14);
    Image a = randomImage(rng, extentS, boolean), b = randomImage(rng, extentS, boolean);
    Image before = randomImage(rng, extentD, boolean), mask = randomMask(rng, extentD);
    ZelObject *objectA = objects_->make(a, ZelWorkSpace, true, matchA);
    ZelObject *objectB = objects_->make(b, ZelApplicationAddressSpace, true, matchB);
    ZelObject *objectD = objects_->make(before, ZelFile, true, matchD);
    objects_->maskFor(objectD, mask, ZelApplicationAddressSpace);
    ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelXor), 0);
    Image expected = combine(ZelXor, {&a, matchA}, {&b, matchB}, {&before, matchD, &mask});
    expectPixels(expected, objects_->read(objectD, extentD, boolean));
    // The mask really matters to the result.
    ASSERT_NE(expected.pixels,
              combine(ZelXor, {&a, matchA}, {&b, matchB}, {&before, matchD}).pixels);
  }
}

// ---- Work in place and shared files
// --------------------------------------------------------------

TEST_F(DyadicOperators, DestinationEqualToSourceAWorksInPlaceInWorkSpace) {
  const Extent extent{37, 23, 2, 1, 1};
  for (bool boolean : {false, true}) {
    std::mt19937 rng(boolean ? 21 : 22);
    Image a = randomImage(rng, extent, boolean), b = randomImage(rng, extent, boolean);
    ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
    ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
    const int operation = boolean ? ZelXor : ZelSubtract;
    ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectA, operation), 0);
    expectPixels(combine(operation, {&a}, {&b}, {&a}), objects_->read(objectA, extent, boolean));
    expectNoStreamOpen({objectA, objectB});
  }
}

TEST_F(DyadicOperators, DestinationEqualToSourceBWorksInPlaceInWorkSpace) {
  const Extent extent{29, 7, 1, 1, 2};
  for (bool boolean : {false, true}) {
    std::mt19937 rng(boolean ? 23 : 24);
    Image a = randomImage(rng, extent, boolean), b = randomImage(rng, extent, boolean);
    ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
    ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
    const int operation = boolean ? ZelNor : ZelHalfDifference;
    ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectB, operation), 0);
    expectPixels(combine(operation, {&a}, {&b}, {&b}), objects_->read(objectB, extent, boolean));
  }
}

TEST_F(DyadicOperators, OneWorkSpaceObjectAsBothSourcesAndDestination) {
  const Extent extent{37, 5, 1, 1, 1};
  std::mt19937 rng(25);
  Image a = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
  ASSERT_EQ(Zel106(ctx_, objectA, objectA, objectA, ZelAdd), 0);
  expectPixels(combine(ZelAdd, {&a}, {&a}, {&a}), objects_->read(objectA, extent, false));
}

TEST_F(DyadicOperators, FreshWorkSpaceObjectReadTwiceKeepsOneBlock) {
  const Extent extent{37, 23, 1, 1, 1};
  ZelObject *a = objects_->make(Image(extent, false), ZelWorkSpace, false);
  ZelObject *d = objects_->make(Image(extent, false), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, a, a, d, ZelNand), 0);
  expectPixels(Image(extent, false, 255), objects_->read(d, extent, false));
  EXPECT_EQ(readAttribute(ctx_, a, "inited"), 1);
  EXPECT_NE(readAttribute(ctx_, a, "workSpace"), 0);
  expectPixels(Image(extent, false), objects_->read(a, extent, false));
}

TEST_F(DyadicOperators, FreshWorkSpaceDestinationThatIsAlsoASourceStartsFromZeros) {
  const Extent extent{37, 23, 1, 1, 1};
  std::mt19937 rng(26);
  Image b = randomImage(rng, extent, false);
  ZelObject *a = objects_->make(Image(extent, false), ZelWorkSpace, false);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
  ASSERT_EQ(Zel106(ctx_, a, objectB, a, ZelAdd), 0);
  expectPixels(b, objects_->read(a, extent, false));
}

TEST_F(DyadicOperators, OneFileReadAsBothSourcesGivesTheRightLines) {
  const Extent extent{37, 23, 2, 1, 3};
  for (bool boolean : {false, true}) {
    std::mt19937 rng(boolean ? 27 : 28);
    Image a = randomImage(rng, extent, boolean);
    Image before = randomImage(rng, extent, boolean);
    ZelObject *objectA = objects_->make(a, ZelFile, true);
    ZelObject *objectD = objects_->make(before, ZelFile, true);
    const int operation = boolean ? ZelNand : ZelAdd;
    ASSERT_EQ(Zel106(ctx_, objectA, objectA, objectD, operation), 0);
    Image expected = combine(operation, {&a}, {&a}, {&before});
    expectPixels(expected, objects_->read(objectD, extent, boolean));
    expectNoStreamOpen({objectA, objectD});
  }
}

TEST_F(DyadicOperators, FileDestinationEqualToASourceIsRefused) {
  const Extent extent{16, 4, 1, 1, 1};
  std::mt19937 rng(30);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelFile, true);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
  const auto *name = reinterpret_cast<const char *>(readAttribute(ctx_, objectA, "fileName"));
  ASSERT_NE(name, nullptr);
  const std::vector<uint8_t> original = fileBytes(name);
  EXPECT_EQ(Zel106(ctx_, objectA, objectB, objectA, ZelAdd), -1);
  EXPECT_EQ(Zel003b(ctx_), -1);
  EXPECT_EQ(fileBytes(name), original);
  expectNoStreamOpen({objectA, objectB});
  // Nothing is wrong with the object itself afterwards.
  ZelObject *d = objects_->make(Image(extent, false), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, d, ZelAdd), 0);
  Image zero(extent, false);
  expectPixels(combine(ZelAdd, {&a}, {&b}, {&zero}), objects_->read(d, extent, false));
}

TEST_F(DyadicOperators, FileDestinationEqualToSourceBIsRefused) {
  const Extent extent{16, 4, 1, 1, 1};
  std::mt19937 rng(31);
  ZelObject *objectA =
      objects_->make(randomImage(rng, extent, false), ZelApplicationAddressSpace, true);
  Image b = randomImage(rng, extent, false);
  ZelObject *objectB = objects_->make(b, ZelFile, true);
  EXPECT_EQ(Zel106(ctx_, objectA, objectB, objectB, ZelOr), -1);
  expectPixels(b, objects_->read(objectB, extent, false));
  expectNoStreamOpen({objectA, objectB});
}

// ---- Pixel widths of byte operations ----------------------------------------------------------

TEST_F(DyadicOperators, ByteOperationRefusesABooleanSourceB) {
  const Extent extent{13, 3, 1, 1, 1};
  std::mt19937 rng(40);
  Image before = randomImage(rng, extent, false);
  ZelObject *a = objects_->make(randomImage(rng, extent, false), ZelFile, true);
  ZelObject *b = objects_->make(randomImage(rng, extent, true), ZelFile, true);
  ZelObject *d = objects_->make(before, ZelApplicationAddressSpace, true);
  EXPECT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 10);
  EXPECT_EQ(Zel003b(ctx_), 10);
  expectPixels(before, objects_->read(d, extent, false));
  expectNoStreamOpen({a, b, d});
}

TEST_F(DyadicOperators, ByteOperationRefusesNonNegativePixelsNarrowedByTheContext) {
  setting("nonnegativeIntegerPrecision", 4);
  const Extent extent{12, 3, 1, 1, 1};
  std::vector<uint8_t> memoryA(18, 0x12), memoryB(18, 0x34), memoryD(18, 0x56);
  ZelObject *objects[3];
  std::vector<uint8_t> *memories[3] = {&memoryA, &memoryB, &memoryD};
  for (int i = 0; i < 3; ++i) {
    const ZelAttribute list[] = {
        {"dataType", ZelNonNegative},
        {"xDimension", extent[0]},
        {"yDimension", extent[1]},
        {"repository", ZelApplicationAddressSpace},
        {"applicationAddressSpace", reinterpret_cast<ZelValue>(memories[i]->data())}};
    objects[i] = Zel000b(ctx_, nullptr, nullptr, list, 5);
    ASSERT_NE(objects[i], nullptr);
    ASSERT_EQ(readAttribute(ctx_, objects[i], "dataPrecision"), 4);
  }
  EXPECT_EQ(Zel106(ctx_, objects[0], objects[1], objects[2], ZelAdd), 10);
  EXPECT_EQ(memoryD, std::vector<uint8_t>(18, 0x56));
  expectNoStreamOpen({objects[0], objects[1], objects[2]});
}

TEST_F(DyadicOperators, NarrowNonNegativePrecisionOfAnObjectIsReadAsBytes) {
  // Below 8 bits the context's precision decides the width, which is a byte by default.
  const Extent extent{10, 2, 1, 1, 1};
  std::mt19937 rng(41);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelApplicationAddressSpace, true);
  ZelObject *objectB = objects_->make(b, ZelApplicationAddressSpace, true);
  ZelObject *objectD = objects_->make(Image(extent, false), ZelApplicationAddressSpace, false);
  for (ZelObject *object : {objectA, objectB, objectD})
    ASSERT_EQ(Zel006a(ctx_, object, "dataPrecision", 4), 0);
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelMaximum), 0);
  Image zero(extent, false);
  expectPixels(combine(ZelMaximum, {&a}, {&b}, {&zero}), objects_->read(objectD, extent, false));
}

}  // namespace
