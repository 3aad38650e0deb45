// The walk every operator shares, seen through the dyadic operator: the region of work derived
// from match points on each axis, sources of other extents addressed with their own dimensions,
// masks read at each object's own rows, type checks, dead objects and contexts, failures in the
// middle of the walk, and frames closed on every path.
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
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

class OperatorWalk : public OperatorFixture {};

Extent along(int axis, int value, int others) {
  Extent extent;
  extent.fill(others);
  extent[axis] = value;
  return extent;
}

uint8_t apply(int operation, bool boolean, int a, int b) {
  std::optional<uint8_t> r = boolean ? bitResult(operation, a, b) : byteResult(operation, a, b);
  EXPECT_TRUE(r.has_value());
  return r.value_or(0);
}

const char *const kAxisNames[] = {"X", "Y", "Z", "T", "B"};

// ---- The region of work -------------------------------------------------------------------------

using AxisParam = std::tuple<int, bool, int>;  // axis, Boolean pixels, repository of all objects

std::string axisName(const ::testing::TestParamInfo<AxisParam> &param) {
  return std::string(kAxisNames[std::get<0>(param.param)]) + "_" +
         (std::get<1>(param.param) ? "Boolean" : "NonNegative") + "_" +
         repositoryName(std::get<2>(param.param));
}

class RegionOnEachAxis : public OperatorWalk, public ::testing::WithParamInterface<AxisParam> {};

TEST_P(RegionOnEachAxis, IsTheOverlapOfTheObjectsLaidOverTheirMatchPoints) {
  const auto [axis, boolean, repository] = GetParam();
  setting("matchPointState", 1);
  // Along the axis: the destination has 7 pixels with its match point at 2; A has 5 at 1, B 6 at
  // 4. Laid over each other, destination indices 1 to 3 meet A's 0 to 2 and B's 3 to 5.
  const Extent extentD = along(axis, 7, 3), extentA = along(axis, 5, 3),
               extentB = along(axis, 6, 3);
  const Extent matchD = along(axis, 2, 0), matchA = along(axis, 1, 0), matchB = along(axis, 4, 0);
  std::mt19937 rng(static_cast<unsigned>(axis * 10 + boolean));
  Image a = randomImage(rng, extentA, boolean), b = randomImage(rng, extentB, boolean);
  Image before = randomImage(rng, extentD, boolean);
  ZelObject *objectA = objects_->make(a, repository, true, matchA);
  ZelObject *objectB = objects_->make(b, repository, true, matchB);
  ZelObject *objectD = objects_->make(before, repository, true, matchD);
  const int operation = boolean ? ZelXor : ZelAbsoluteDifference;
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, operation), 0);

  Image actual = objects_->read(objectD, extentD, boolean);
  expectPixels(combine(operation, {&a, matchA}, {&b, matchB}, {&before, matchD}), actual);
  for (int i = 0; i < 7; ++i) {
    Extent at = kOrigin, atA = kOrigin, atB = kOrigin;
    at[axis] = i;
    atA[axis] = i - 1;
    atB[axis] = i + 2;
    if (i >= 1 && i <= 3) {
      EXPECT_EQ(actual[at], apply(operation, boolean, a[atA], b[atB])) << "index " << i;
    } else {
      EXPECT_EQ(actual[at], before[at]) << "index " << i;
    }
  }
  expectNoStreamOpen({objectA, objectB, objectD});
}

INSTANTIATE_TEST_SUITE_P(AllAxes, RegionOnEachAxis,
                         ::testing::Combine(::testing::Range(0, 5), ::testing::Bool(),
                                            ::testing::Values(ZelWorkSpace,
                                                              ZelApplicationAddressSpace, ZelFile)),
                         axisName);

std::string singleAxisName(const ::testing::TestParamInfo<int> &param) {
  return kAxisNames[param.param];
}

class EmptyRegionOnEachAxis : public OperatorWalk, public ::testing::WithParamInterface<int> {};

TEST_P(EmptyRegionOnEachAxis, RunsNoWalkChangesNoPixelAndSucceeds) {
  const int axis = GetParam();
  setting("matchPointState", 1);
  const Extent extent = along(axis, 3, 2);
  // Each case leaves no overlap on this axis only: a source lies wholly before the destination,
  // or the destination's match point lies beyond both sources.
  const struct {
    const char *name;
    Extent matchA, matchB, matchD;
  } cases[] = {
      {"source A before the destination", along(axis, 5, 0), kOrigin, kOrigin},
      {"source B before the destination", kOrigin, along(axis, 3, 0), kOrigin},
      {"destination beyond the sources", kOrigin, kOrigin, along(axis, 10, 0)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    std::mt19937 rng(static_cast<unsigned>(axis));
    Image before = randomImage(rng, extent, false);
    ZelObject *a = objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true, c.matchA);
    ZelObject *b = objects_->make(randomImage(rng, extent, false), ZelFile, true, c.matchB);
    ZelObject *written = objects_->make(before, ZelApplicationAddressSpace, true, c.matchD);
    ZelObject *fresh = objects_->make(Image(extent, false), ZelWorkSpace, false, c.matchD);
    ZelObject *freshFile = objects_->make(Image(extent, false), ZelFile, false, c.matchD);

    EXPECT_EQ(Zel106(ctx_, a, b, written, ZelAdd), 0);
    expectPixels(before, objects_->read(written, extent, false));

    EXPECT_EQ(Zel106(ctx_, a, b, fresh, ZelNand), 0);
    EXPECT_EQ(readAttribute(ctx_, fresh, "inited"), 1);
    expectPixels(Image(extent, false), objects_->read(fresh, extent, false));

    EXPECT_EQ(Zel106(ctx_, a, b, freshFile, ZelNand), 0);
    EXPECT_EQ(readAttribute(ctx_, freshFile, "inited"), 1);
    expectPixels(Image(extent, false), objects_->read(freshFile, extent, false));
    expectNoStreamOpen({a, b, written, fresh, freshFile});
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

INSTANTIATE_TEST_SUITE_P(AllAxes, EmptyRegionOnEachAxis, ::testing::Range(0, 5), singleAxisName);

TEST_F(OperatorWalk, SourcesOfOtherExtentsAreAddressedWithTheirOwnDimensions) {
  const Extent extentA{7, 5, 2, 1, 1}, extentB{9, 3, 3, 1, 1}, extentD{6, 6, 1, 1, 2};
  for (int repository : {ZelWorkSpace, ZelApplicationAddressSpace, ZelFile}) {
    for (bool boolean : {false, true}) {
      SCOPED_TRACE(std::string(repositoryName(repository)) +
                   (boolean ? " Boolean" : " NonNegative"));
      std::mt19937 rng(static_cast<unsigned>(repository + boolean));
      Image a = randomImage(rng, extentA, boolean), b = randomImage(rng, extentB, boolean);
      Image before = randomImage(rng, extentD, boolean);
      ZelObject *objectA = objects_->make(a, repository, true);
      ZelObject *objectB = objects_->make(b, repository, true);
      ZelObject *objectD = objects_->make(before, repository, true);
      const int operation = boolean ? ZelOr : ZelMinimum;
      ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, operation), 0);
      Image actual = objects_->read(objectD, extentD, boolean);
      expectPixels(combine(operation, {&a}, {&b}, {&before}), actual);
      // The overlap is x 0..5, y 0..2, z 0, b 0.
      for (const Extent &at : {Extent{5, 2, 0, 0, 0}, Extent{3, 1, 0, 0, 0}}) {
        EXPECT_EQ(actual[at], apply(operation, boolean, a[at], b[at]));
      }
      for (const Extent &at : {Extent{0, 3, 0, 0, 0}, Extent{4, 1, 0, 0, 1}}) {
        EXPECT_EQ(actual[at], before[at]);
      }
    }
  }
}

TEST_F(OperatorWalk, OverlapWithoutMatchPointsStartsAtTheOrigin) {
  // With the context ignoring match points the objects meet at their origin.
  const Extent extentA{5, 4, 1, 1, 1}, extentD{8, 6, 1, 1, 1};
  std::mt19937 rng(3);
  Image a = randomImage(rng, extentA, false), b = randomImage(rng, extentD, false);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true, {3, 2, 0, 0, 0});
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true, {1, 1, 0, 0, 0});
  ZelObject *objectD =
      objects_->make(Image(extentD, false, 1), ZelWorkSpace, true, {4, 4, 0, 0, 0});
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelMaximum), 0);
  Image actual = objects_->read(objectD, extentD, false);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x) {
      const Extent at{x, y, 0, 0, 0};
      EXPECT_EQ(actual[at], x < 5 && y < 4 ? std::max(a[at], b[at]) : 1) << x << "," << y;
    }
}

// ---- Regions of interest -----------------------------------------------------------------------

using MaskParam = std::tuple<int, bool>;  // which objects carry a mask (bit 0 A, 1 B, 2 D), Boolean

std::string maskName(const ::testing::TestParamInfo<MaskParam> &param) {
  const int word = std::get<0>(param.param);
  return std::string((word & 1) ? "A" : "") + ((word & 2) ? "B" : "") + ((word & 4) ? "D" : "") +
         (std::get<1>(param.param) ? "_Boolean" : "_NonNegative");
}

class MaskRows : public OperatorWalk, public ::testing::WithParamInterface<MaskParam> {};

TEST_P(MaskRows, AreReadAtEachObjectsOwnRowOffsets) {
  const auto [word, boolean] = GetParam();
  setting("matchPointState", 1);
  setting("roiState", 1);
  const Extent extentA{11, 6, 2, 1, 1}, extentB{13, 5, 2, 1, 1}, extentD{10, 7, 2, 1, 1};
  const Extent matchA{1, 0, 0, 0, 0}, matchB{0, 2, 1, 0, 0}, matchD{2, 1, 1, 0, 0};
  std::mt19937 rng(static_cast<unsigned>(word * 2 + boolean));
  Image a = randomImage(rng, extentA, boolean), b = randomImage(rng, extentB, boolean);
  Image before = randomImage(rng, extentD, boolean);
  Image maskA = randomMask(rng, extentA), maskB = randomMask(rng, extentB),
        maskD = randomMask(rng, extentD);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true, matchA);
  ZelObject *objectB = objects_->make(b, ZelFile, true, matchB);
  ZelObject *objectD = objects_->make(before, ZelApplicationAddressSpace, true, matchD);
  std::vector<ZelObject *> rois;
  if (word & 1) rois.push_back(objects_->maskFor(objectA, maskA, ZelApplicationAddressSpace));
  if (word & 2) rois.push_back(objects_->maskFor(objectB, maskB, ZelWorkSpace));
  if (word & 4) rois.push_back(objects_->maskFor(objectD, maskD, ZelApplicationAddressSpace));
  const int operation = boolean ? ZelAnd : ZelAverage;
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, operation), 0);

  Image expected = combine(operation, {&a, matchA, (word & 1) ? &maskA : nullptr},
                           {&b, matchB, (word & 2) ? &maskB : nullptr},
                           {&before, matchD, (word & 4) ? &maskD : nullptr});
  expectPixels(expected, objects_->read(objectD, extentD, boolean));
  // The masks decide something here.
  ASSERT_NE(expected.pixels,
            combine(operation, {&a, matchA}, {&b, matchB}, {&before, matchD}).pixels);
  for (ZelObject *roi : rois)
    expectNoStreamOpen({roi});
}

INSTANTIATE_TEST_SUITE_P(EveryMaskWord, MaskRows,
                         ::testing::Combine(::testing::Range(1, 8), ::testing::Bool()), maskName);

TEST_F(OperatorWalk, RegionOfInterestStateOnWithoutRoiObjectsAdmitsEveryPixel) {
  setting("roiState", 1);
  const Extent extent{9, 4, 1, 1, 1};
  std::mt19937 rng(50);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
  ZelObject *objectD = objects_->make(Image(extent, false), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelOr), 0);
  Image zero(extent, false);
  expectPixels(combine(ZelOr, {&a}, {&b}, {&zero}), objects_->read(objectD, extent, false));
}

TEST_F(OperatorWalk, RegionsOfInterestAreIgnoredWhenTheContextSaysSo) {
  const Extent extent{9, 4, 1, 1, 1};
  std::mt19937 rng(51);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
  ZelObject *objectD = objects_->make(Image(extent, false), ZelWorkSpace, false);
  objects_->maskFor(objectA, Image(extent, false), ZelWorkSpace);
  objects_->maskFor(objectD, Image(extent, false), ZelApplicationAddressSpace);
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelXor), 0);
  Image zero(extent, false);
  expectPixels(combine(ZelXor, {&a}, {&b}, {&zero}), objects_->read(objectD, extent, false));
}

TEST_F(OperatorWalk, RegionOfInterestOfBooleanPixelsIsRefused) {
  setting("roiState", 1);
  const Extent extent{8, 2, 1, 1, 1};
  std::mt19937 rng(52);
  Image before = randomImage(rng, extent, false);
  ZelObject *a = objects_->make(randomImage(rng, extent, false), ZelFile, true);
  ZelObject *b = objects_->make(randomImage(rng, extent, false), ZelFile, true);
  ZelObject *d = objects_->make(before, ZelFile, true);
  ZelObject *roi = objects_->make(Image(extent, true, 1), ZelWorkSpace, true, kOrigin, Zel000j);
  ASSERT_EQ(readAttribute(ctx_, roi, "dataType"), ZelBoolean);
  ASSERT_EQ(Zel006a(ctx_, d, "roi", reinterpret_cast<ZelValue>(roi)), 0);
  EXPECT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 10);
  EXPECT_EQ(Zel003b(ctx_), 10);
  expectPixels(before, objects_->read(d, extent, false));
  expectNoStreamOpen({a, b, d, roi});
}

TEST_F(OperatorWalk, RegionOfInterestNarrowerThanItsObjectIsRefused) {
  setting("roiState", 1);
  const Extent extent{8, 2, 1, 1, 1};
  std::mt19937 rng(53);
  Image before = randomImage(rng, extent, false);
  ZelObject *a = objects_->make(randomImage(rng, extent, false), ZelFile, true);
  ZelObject *b = objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true);
  ZelObject *d = objects_->make(before, ZelApplicationAddressSpace, true);
  ZelObject *roi =
      objects_->maskFor(a, Image({7, 4, 1, 1, 1}, false, 1), ZelApplicationAddressSpace);
  EXPECT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 8);
  EXPECT_EQ(Zel003b(ctx_), 8);
  expectPixels(before, objects_->read(d, extent, false));
  expectNoStreamOpen({a, b, d, roi});
  // Without regions of interest in force the same objects are fine.
  setting("roiState", 0);
  EXPECT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 0);
}

// ---- Types
// ---------------------------------------------------------------------------------------

TEST_F(OperatorWalk, SourceAAndDestinationOfDifferentTypesAreRefused) {
  const Extent extent{12, 3, 1, 1, 1};
  for (bool booleanA : {false, true}) {
    SCOPED_TRACE(booleanA ? "Boolean A, NonNegative destination"
                          : "NonNegative A, Boolean destination");
    std::mt19937 rng(booleanA ? 60 : 61);
    Image before = randomImage(rng, extent, !booleanA);
    ZelObject *a = objects_->make(randomImage(rng, extent, booleanA), ZelFile, true);
    ZelObject *b = objects_->make(randomImage(rng, extent, booleanA), ZelFile, true);
    ZelObject *d = objects_->make(before, ZelFile, true);
    const int descriptors = openDescriptors();
    EXPECT_EQ(Zel106(ctx_, a, b, d, ZelAnd), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    EXPECT_EQ(openDescriptors(), descriptors);
    expectNoStreamOpen({a, b, d});
    expectPixels(before, objects_->read(d, extent, !booleanA));
  }
}

TEST_F(OperatorWalk, TypesOtherThanBooleanAndNonNegativeAreRefused) {
  const Extent extent{6, 2, 1, 1, 1};
  for (int type : {ZelSigned, ZelReal, ZelComplex, ZelWord}) {
    SCOPED_TRACE(type);
    std::vector<uint8_t> memory[3];
    ZelObject *objects[3];
    for (int i = 0; i < 3; ++i) {
      memory[i].assign(6 * 2 * 8, static_cast<uint8_t>(0x30 + i));
      const ZelAttribute list[] = {
          {"dataType", i == 1 ? ZelNonNegative : type},
          {"xDimension", extent[0]},
          {"yDimension", extent[1]},
          {"repository", ZelApplicationAddressSpace},
          {"applicationAddressSpace", reinterpret_cast<ZelValue>(memory[i].data())}};
      objects[i] = Zel000b(ctx_, nullptr, nullptr, list, 5);
      ASSERT_NE(objects[i], nullptr);
    }
    EXPECT_EQ(Zel106(ctx_, objects[0], objects[1], objects[2], ZelAdd), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    EXPECT_EQ(memory[2], std::vector<uint8_t>(memory[2].size(), 0x32));
    expectNoStreamOpen({objects[0], objects[1], objects[2]});
  }
}

TEST_F(OperatorWalk, TypeOfSourceBIsNotLookedAtByBitOperations) {
  // A byte-wide source B under a bit operation: its rows are taken as bits, the first pixel in
  // the most significant bit of the row's first byte.
  const Extent extent{16, 3, 1, 1, 1};
  std::mt19937 rng(62);
  Image a = randomImage(rng, extent, true), b = randomImage(rng, extent, false);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
  ZelObject *objectB = objects_->make(b, ZelApplicationAddressSpace, true);
  ZelObject *objectD = objects_->make(Image(extent, true), ZelWorkSpace, false);
  ASSERT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelOr), 0);
  Image expected(extent, true);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 16; ++x) {
      const uint8_t byte = b[{x >> 3, y, 0, 0, 0}];
      const int bit = (byte >> (7 - (x & 7))) & 1;
      expected[{x, y, 0, 0, 0}] = static_cast<uint8_t>(a[{x, y, 0, 0, 0}] | bit);
    }
  expectPixels(expected, objects_->read(objectD, extent, true));
}

// ---- Handles and contexts
// ---------------------------------------------------------------------------

TEST_F(OperatorWalk, DeadObjectIsRefused) {
  const Extent extent{7, 3, 1, 1, 1};
  const char *const roles[] = {"source A", "source B", "destination"};
  for (int victim = 0; victim < 3; ++victim) {
    SCOPED_TRACE(roles[victim]);
    std::mt19937 rng(static_cast<unsigned>(70 + victim));
    Image before = randomImage(rng, extent, false);
    ZelObject *objects[3] = {objects_->make(randomImage(rng, extent, false), ZelFile, true),
                             objects_->make(randomImage(rng, extent, false), ZelFile, true),
                             objects_->make(before, ZelApplicationAddressSpace, true)};
    ASSERT_EQ(Zel002(ctx_, objects[victim]), 0);
    EXPECT_EQ(Zel106(ctx_, objects[0], objects[1], objects[2], ZelAdd), 9);
    EXPECT_EQ(Zel003b(ctx_), 9);
    for (int i = 0; i < 3; ++i)
      if (i != victim) expectNoStreamOpen({objects[i]});
    if (victim != 2) expectPixels(before, objects_->read(objects[2], extent, false));
  }
}

TEST_F(OperatorWalk, DeadRegionOfInterestIsRefused) {
  setting("roiState", 1);
  const Extent extent{7, 3, 1, 1, 1};
  for (int holder = 0; holder < 3; ++holder) {
    SCOPED_TRACE(holder);
    std::mt19937 rng(static_cast<unsigned>(80 + holder));
    Image before = randomImage(rng, extent, false);
    ZelObject *objects[3] = {objects_->make(randomImage(rng, extent, false), ZelFile, true),
                             objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true),
                             objects_->make(before, ZelFile, true)};
    ZelObject *roi = objects_->maskFor(objects[holder], Image(extent, false, 1), ZelWorkSpace);
    ASSERT_EQ(Zel002(ctx_, roi), 0);
    EXPECT_EQ(Zel106(ctx_, objects[0], objects[1], objects[2], ZelAdd), 9);
    expectNoStreamOpen({objects[0], objects[1], objects[2]});
    expectPixels(before, objects_->read(objects[2], extent, false));
  }
}

TEST_F(OperatorWalk, ObjectOfAnotherContextIsRefused) {
  ZelContext *other = Zel004(nullptr);
  ASSERT_NE(other, nullptr);
  const Extent extent{5, 2, 1, 1, 1};
  Image before(extent, false, 3);
  ZelObject *a = objects_->make(Image(extent, false, 1), ZelWorkSpace, true);
  ZelObject *d = objects_->make(before, ZelWorkSpace, true);
  const ZelAttribute list[] = {{"xDimension", 5}, {"yDimension", 2}, {"repository", ZelWorkSpace}};
  ZelObject *foreign = Zel000b(other, nullptr, nullptr, list, 3);
  ASSERT_NE(foreign, nullptr);
  EXPECT_EQ(Zel106(ctx_, a, foreign, d, ZelAdd), 9);
  expectPixels(before, objects_->read(d, extent, false));
  expectNoStreamOpen({a, d, foreign});
  EXPECT_EQ(Zel001(other), 0);
}

TEST_F(OperatorWalk, BadContextIsRefusedAndNothingIsTouched) {
  const Extent extent{5, 2, 1, 1, 1};
  Image before(extent, false, 3);
  ZelObject *a = objects_->make(Image(extent, false, 1), ZelApplicationAddressSpace, true);
  ZelObject *b = objects_->make(Image(extent, false, 2), ZelFile, true);
  ZelObject *d = objects_->make(before, ZelApplicationAddressSpace, true);
  int notAContext = 0;
  EXPECT_EQ(Zel106(nullptr, a, b, d, ZelAdd), 24);
  EXPECT_EQ(Zel106(reinterpret_cast<ZelContext *>(&notAContext), a, b, d, ZelAdd), 24);
  EXPECT_EQ(notAContext, 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  expectPixels(before, objects_->read(d, extent, false));
  expectNoStreamOpen({a, b, d});
}

// ---- Failures in the walk
// ---------------------------------------------------------------------------

TEST_F(OperatorWalk, ShortSourceFileEndsTheWalkAndKeepsTheLinesWritten) {
  const Extent extent{9, 6, 1, 1, 1};
  for (int repository : {ZelApplicationAddressSpace, ZelFile, ZelWorkSpace}) {
    SCOPED_TRACE(repositoryName(repository));
    std::mt19937 rng(static_cast<unsigned>(90 + repository));
    Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
    Image before(extent, false, 0x5A);
    ZelObject *objectA = objects_->make(a, ZelFile, true);
    ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
    ZelObject *objectD = objects_->make(before, repository, true);
    // Three whole rows and part of the fourth.
    fs::resize_file(reinterpret_cast<const char *>(readAttribute(ctx_, objectA, "fileName")),
                    3 * 9 + 4);
    EXPECT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelAdd), -1);
    EXPECT_EQ(Zel003b(ctx_), -1);
    Image actual = objects_->read(objectD, extent, false);
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 9; ++x) {
        const Extent at{x, y, 0, 0, 0};
        EXPECT_EQ(actual[at], y < 3 ? std::min(a[at] + b[at], 255) : 0x5A) << x << "," << y;
      }
    EXPECT_EQ(readAttribute(ctx_, objectD, "inited"), 1);
    expectNoStreamOpen({objectA, objectB, objectD});
  }
}

TEST_F(OperatorWalk, LineBeyondTheSizeOfApplicationMemoryEndsTheWalk) {
  const Extent extent{9, 5, 1, 1, 1};
  std::mt19937 rng(95);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  Image before(extent, false, 0x33);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
  ZelObject *objectD = objects_->make(before, ZelApplicationAddressSpace, true);
  // The application's block is whole, but it says that only two rows are there.
  ASSERT_EQ(Zel006a(ctx_, objectD, "size", 2 * 9), 0);
  EXPECT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelXor), 8);
  EXPECT_EQ(Zel003b(ctx_), 8);
  Image actual = objects_->read(objectD, extent, false);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 9; ++x) {
      const Extent at{x, y, 0, 0, 0};
      EXPECT_EQ(actual[at], y < 2 ? (a[at] ^ b[at]) : 0x33) << x << "," << y;
    }
  expectNoStreamOpen({objectA, objectB, objectD});
}

TEST_F(OperatorWalk, SourceLargerThanItsWorkSpaceBlockEndsTheWalk) {
  const Extent extent{9, 2, 1, 1, 1}, larger{9, 4, 1, 1, 1};
  std::mt19937 rng(96);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, larger, false);
  Image before(larger, false, 0x44);
  ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
  ZelObject *objectB = objects_->make(b, ZelWorkSpace, true);
  ZelObject *objectD = objects_->make(before, ZelApplicationAddressSpace, true);
  // The block holds two rows; the object is made to claim four, with its data kept.
  const ZelAttribute grow[] = {{"yDimension", 4}, {"inited", 1}};
  ASSERT_EQ(Zel006(ctx_, objectA, grow, 2), 0);
  EXPECT_EQ(Zel106(ctx_, objectA, objectB, objectD, ZelOr), 8);
  EXPECT_EQ(Zel003b(ctx_), 8);
  Image actual = objects_->read(objectD, larger, false);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 9; ++x) {
      const Extent at{x, y, 0, 0, 0};
      EXPECT_EQ(actual[at], y < 2 ? (a[at] | b[at]) : 0x44) << x << "," << y;
    }
  expectNoStreamOpen({objectA, objectB, objectD});
}

TEST_F(OperatorWalk, FailureToOpenAFrameIsTheResult) {
  const Extent extent{6, 2, 1, 1, 1};
  Image before(extent, false, 5);
  ZelObject *b = objects_->make(Image(extent, false, 1), ZelFile, true);
  ZelObject *d = objects_->make(before, ZelFile, true);

  // Application memory without an address.
  const ZelAttribute noAddress[] = {
      {"xDimension", 6}, {"yDimension", 2}, {"repository", ZelApplicationAddressSpace}};
  ZelObject *a = Zel000b(ctx_, nullptr, nullptr, noAddress, 3);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(Zel106(ctx_, b, a, d, ZelAdd), 12);
  EXPECT_EQ(Zel003b(ctx_), 12);
  expectNoStreamOpen({a, b, d});
  expectPixels(before, objects_->read(d, extent, false));

  // A file that isn't there.
  ZelObject *missing = objects_->make(Image(extent, false), ZelFile, false);
  const ZelAttribute named[] = {{"fileName", reinterpret_cast<ZelValue>("missing.raw")},
                                {"inited", 1}};
  ASSERT_EQ(Zel006(ctx_, missing, named, 2), 0);
  EXPECT_EQ(Zel106(ctx_, b, missing, d, ZelAdd), 25);
  EXPECT_EQ(Zel003b(ctx_), 25);
  expectNoStreamOpen({missing, b, d});
  expectPixels(before, objects_->read(d, extent, false));
  EXPECT_FALSE(fs::exists("missing.raw"));
}

TEST_F(OperatorWalk, FailedAllocationAnywhereClosesEveryFrame) {
  setting("roiState", 1);
  setting("matchPointState", 1);
  const Extent extent{21, 5, 2, 1, 1};
  std::mt19937 rng(100);
  Image a = randomImage(rng, extent, false), b = randomImage(rng, extent, false);
  Image before = randomImage(rng, extent, false), maskA = randomMask(rng, extent),
        maskD = randomMask(rng, extent);
  ZelObject *objectA = objects_->make(a, ZelFile, true, {1, 0, 0, 0, 0});
  ZelObject *objectB = objects_->make(b, ZelFile, true);
  ZelObject *objectD = objects_->make(before, ZelFile, true);
  ZelObject *roiA = objects_->maskFor(objectA, maskA, ZelWorkSpace);
  ZelObject *roiD = objects_->maskFor(objectD, maskD, ZelApplicationAddressSpace);
  const int descriptors = openDescriptors();
  int result = -1;
  int failures = 0;
  for (long successes = 0; successes < 1000 && result != 0; ++successes) {
    zel::testing::failAllocationAfter(successes);
    result = Zel106(ctx_, objectA, objectB, objectD, ZelSubtract);
    zel::testing::failAllocationAfter(-1);
    SCOPED_TRACE(successes);
    expectNoStreamOpen({objectA, objectB, objectD, roiA, roiD});
    EXPECT_EQ(openDescriptors(), descriptors);
    if (result == 0) break;
    ++failures;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(Zel003b(ctx_), -1);
    expectPixels(before, objects_->read(objectD, extent, false));
  }
  ASSERT_EQ(result, 0);
  EXPECT_GT(failures, 0);
  expectPixels(
      combine(ZelSubtract, {&a, {1, 0, 0, 0, 0}, &maskA}, {&b}, {&before, kOrigin, &maskD}),
      objects_->read(objectD, extent, false));
}

TEST_F(OperatorWalk, FailedAllocationLeavesNoTemporaryFile) {
  const Extent extent{11, 3, 1, 1, 1};
  for (bool boolean : {false, true}) {
    SCOPED_TRACE(boolean ? "Boolean" : "NonNegative");
    std::mt19937 rng(boolean ? 101 : 102);
    Image a = randomImage(rng, extent, boolean), b = randomImage(rng, extent, boolean);
    ZelObject *objectA = objects_->make(a, ZelWorkSpace, true);
    ZelObject *objectB = objects_->make(b, ZelApplicationAddressSpace, true);
    int result = -1;
    int failures = 0;
    for (long successes = 0; successes < 1000 && result != 0; ++successes) {
      SCOPED_TRACE(successes);
      ZelObject *objectD = objects_->make(Image(extent, boolean), ZelFile, false);
      zel::testing::failAllocationAfter(successes);
      result = Zel106(ctx_, objectA, objectB, objectD, ZelXor);
      zel::testing::failAllocationAfter(-1);
      expectNoStreamOpen({objectA, objectB, objectD});
      if (result == 0) {
        Image zero(extent, boolean);
        expectPixels(combine(ZelXor, {&a}, {&b}, {&zero}),
                     objects_->read(objectD, extent, boolean));
      } else {
        ++failures;
        EXPECT_EQ(result, -1);
      }
      EXPECT_EQ(Zel002(ctx_, objectD), 0);
      EXPECT_EQ(takeTemporaryFiles(), "") << "after failing allocation " << successes;
    }
    EXPECT_EQ(result, 0);
    EXPECT_GT(failures, 0);
  }
}

TEST_F(OperatorWalk, FramesAreClosedAfterSuccess) {
  setting("roiState", 1);
  const Extent extent{10, 3, 2, 1, 1};
  std::mt19937 rng(110);
  ZelObject *a = objects_->make(randomImage(rng, extent, true), ZelFile, true);
  ZelObject *b = objects_->make(randomImage(rng, extent, true), ZelFile, true);
  ZelObject *d = objects_->make(Image(extent, true), ZelFile, false);
  ZelObject *roi = objects_->maskFor(b, randomMask(rng, extent), ZelWorkSpace);
  const int descriptors = openDescriptors();
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelXor), 0);
  EXPECT_EQ(openDescriptors(), descriptors);
  expectNoStreamOpen({a, b, d, roi});
  EXPECT_EQ(readAttribute(ctx_, d, "inited"), 1);
}

// ---- The destination
// --------------------------------------------------------------------------------

TEST_F(OperatorWalk, DestinationKeepsItsShapeAndAttributes) {
  setting("matchPointState", 1);
  std::mt19937 rng(120);
  const Extent extentS{4, 3, 1, 1, 1}, extentD{10, 4, 2, 1, 2};
  ZelObject *a = objects_->make(randomImage(rng, extentS, false), ZelWorkSpace, true);
  ZelObject *b = objects_->make(randomImage(rng, extentS, false), ZelWorkSpace, true);
  ZelObject *d = objects_->make(Image(extentD, false), ZelWorkSpace, false, {1, 1, 0, 0, 1});
  const char *const names[] = {"xDimension",  "yDimension",  "zDimension",  "tDimension",
                               "bDimension",  "xMatchPoint", "yMatchPoint", "zMatchPoint",
                               "tMatchPoint", "bMatchPoint", "dataType",    "dataPrecision",
                               "repository",  "bitOrder",    "byteOrder",   "compression",
                               "colourSpace", "size",        "roi",         "fileFormat"};
  std::vector<ZelValue> before;
  for (const char *name : names)
    before.push_back(readAttribute(ctx_, d, name));
  ASSERT_EQ(Zel106(ctx_, a, b, d, ZelAdd), 0);
  for (size_t i = 0; i < std::size(names); ++i)
    EXPECT_EQ(readAttribute(ctx_, d, names[i]), before[i]) << names[i];
  EXPECT_EQ(readAttribute(ctx_, d, "inited"), 1);
}

TEST_F(OperatorWalk, FreshBooleanFileDestinationIsZeroOutsideTheRegion) {
  // Rows of 13 bits, so that rows share bytes; the region covers some rows of each plane only,
  // or some pixels of each row only.
  const Extent extentD{13, 4, 2, 1, 1};
  for (const Extent &extentS :
       {Extent{13, 2, 2, 1, 1}, Extent{6, 4, 2, 1, 1}, Extent{13, 3, 1, 1, 1}}) {
    SCOPED_TRACE(std::to_string(extentS[0]) + "x" + std::to_string(extentS[1]) + "x" +
                 std::to_string(extentS[2]));
    Image ones(extentS, true, 1);
    ZelObject *a = objects_->make(ones, ZelWorkSpace, true);
    ZelObject *b = objects_->make(ones, ZelWorkSpace, true);
    for (bool named : {false, true}) {
      SCOPED_TRACE(named ? "named file" : "temporary file");
      ZelObject *d = objects_->make(Image(extentD, true), ZelFile, false);
      if (named) {
        ASSERT_EQ(Zel006a(ctx_, d, "fileName", reinterpret_cast<ZelValue>("fresh.raw")), 0);
      }
      ASSERT_EQ(Zel106(ctx_, a, b, d, ZelOr), 0);
      Image zero(extentD, true);
      expectPixels(combine(ZelOr, {&ones}, {&ones}, {&zero}), objects_->read(d, extentD, true));
      ASSERT_EQ(Zel002(ctx_, d), 0);
      if (named) fs::remove("fresh.raw");
    }
  }
}

}  // namespace
