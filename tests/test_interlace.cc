// The interlaced line order of GIF and the reordering of an object's lines into it and back: the
// order itself for every small line count, round trips of bytes and of bits (rows that begin
// inside a byte, either bit order on either side) over several planes and bands in work space and
// in files, the region that match points select, and the refusals of other types and dead handles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "interchange/interlace.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;
using zel::interchange::deinterlaceLines;
using zel::interchange::interlacedLine;
using zel::interchange::interlaceLines;

// The lines of a GIF image in the order they are stored: every eighth from 0, every eighth from
// 4, every fourth from 2, every second from 1.
std::vector<int64_t> gifOrder(int64_t lines) {
  std::vector<int64_t> order;
  for (int64_t y = 0; y < lines; y += 8)
    order.push_back(y);
  for (int64_t y = 4; y < lines; y += 8)
    order.push_back(y);
  for (int64_t y = 2; y < lines; y += 4)
    order.push_back(y);
  for (int64_t y = 1; y < lines; y += 2)
    order.push_back(y);
  return order;
}

TEST(InterlacedOrder, EightAndTenLinesGoInTheirKnownOrder) {
  const std::vector<int64_t> eight = {0, 4, 2, 6, 1, 3, 5, 7};
  const std::vector<int64_t> ten = {0, 8, 4, 2, 6, 1, 3, 5, 7, 9};
  for (int64_t i = 0; i < 8; ++i)
    EXPECT_EQ(interlacedLine(i, 8), eight[static_cast<size_t>(i)]) << i;
  for (int64_t i = 0; i < 10; ++i)
    EXPECT_EQ(interlacedLine(i, 10), ten[static_cast<size_t>(i)]) << i;
}

TEST(InterlacedOrder, EveryLineCountUpToFortyFollowsTheFourPasses) {
  for (int64_t lines = 1; lines <= 40; ++lines) {
    std::vector<int64_t> expected = gifOrder(lines);
    ASSERT_EQ(static_cast<int64_t>(expected.size()), lines);
    std::vector<bool> seen(static_cast<size_t>(lines), false);
    for (int64_t i = 0; i < lines; ++i) {
      int64_t line = interlacedLine(i, lines);
      EXPECT_EQ(line, expected[static_cast<size_t>(i)]) << i << " of " << lines;
      ASSERT_GE(line, 0);
      ASSERT_LT(line, lines);
      EXPECT_FALSE(seen[static_cast<size_t>(line)]) << line << " twice among " << lines;
      seen[static_cast<size_t>(line)] = true;
    }
  }
}

// ---- Objects reordered -----------------------------------------------------------------------

struct Side {
  Extent extent;
  int repository = ZelWorkSpace;
  int bitOrder = ZelMostSignificantFirst;
  Extent match = kOrigin;
};

// What the reordering leaves in `destination`: over the overlap of the two objects after their
// match points, line k of the overlap on the walking side meets line gifOrder(k) on the other.
Image reordered(const Image &source, const Extent &sourceMatch, const Image &destination,
                const Extent &destinationMatch, bool interlacing) {
  Image out = destination;
  Extent first{}, last{};
  for (int axis = 0; axis < 5; ++axis) {
    int shift = destinationMatch[axis] - sourceMatch[axis];
    first[axis] = std::max(0, shift);
    last[axis] = std::min(destination.extent[axis] - 1, source.extent[axis] + shift - 1);
    if (first[axis] > last[axis]) return out;
  }
  const std::vector<int64_t> order = gifOrder(last[1] - first[1] + 1);
  std::vector<int> inverse(order.size());
  for (size_t k = 0; k < order.size(); ++k)
    inverse[static_cast<size_t>(order[k])] = static_cast<int>(k);
  forEachPixel(first, last, [&](const Extent &at) {
    const int k = at[1] - first[1];
    Extent from = at;
    for (int axis = 0; axis < 5; ++axis)
      from[axis] += sourceMatch[axis] - destinationMatch[axis];
    from[1] = first[1] +
              (interlacing ? static_cast<int>(order[static_cast<size_t>(k)])
                           : inverse[static_cast<size_t>(k)]) +
              sourceMatch[1] - destinationMatch[1];
    out[at] = source[from];
  });
  return out;
}

class Interlace : public OperatorFixture {
 protected:
  ZelObject *make(int type, const Side &side) {
    static const char *const dimensions[] = {"xDimension", "yDimension", "zDimension", "tDimension",
                                             "bDimension"};
    static const char *const matchPoints[] = {"xMatchPoint", "yMatchPoint", "zMatchPoint",
                                              "tMatchPoint", "bMatchPoint"};
    std::vector<ZelAttribute> list = {
        {"dataType", type}, {"repository", side.repository}, {"bitOrder", side.bitOrder}};
    for (size_t axis = 0; axis < 5; ++axis) {
      list.push_back({dimensions[axis], side.extent[axis]});
      list.push_back({matchPoints[axis], side.match[axis]});
    }
    clearLastError(ctx_);
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(Zel003b(ctx_), 0);
    return object;
  }

  // Pixels go in and come out one byte a pixel, set bits as nonzero bytes, with the match points
  // out of the way.
  void put(ZelObject *object, const Image &image) {
    const int honoured = static_cast<int>(Zel007a(ctx_, "matchPointState"));
    setting("matchPointState", 0);
    const ZelAttribute bytes[] = {{"dataType", ZelNonNegative}};
    std::vector<uint8_t> values = image.pixels;
    EXPECT_EQ(Zel609(ctx_, values.data(), object, bytes, 1), 0);
    setting("matchPointState", honoured);
  }
  Image get(ZelObject *object, const Extent &extent, bool boolean) {
    const int honoured = static_cast<int>(Zel007a(ctx_, "matchPointState"));
    setting("matchPointState", 0);
    const ZelAttribute bytes[] = {{"dataType", ZelNonNegative}};
    Image image(extent, boolean);
    EXPECT_EQ(Zel605(ctx_, object, image.pixels.data(), bytes, 1), 0);
    setting("matchPointState", honoured);
    if (boolean)
      for (uint8_t &pixel : image.pixels)
        pixel = pixel ? 1 : 0;
    return image;
  }

  // An object holding random pixels, and those pixels.
  ZelObject *filled(bool boolean, const Side &side, Image &pixels) {
    pixels = randomImage(rng_, side.extent, boolean);
    ZelObject *object = make(boolean ? ZelBoolean : ZelNonNegative, side);
    put(object, pixels);
    return object;
  }

  std::mt19937 rng_{7321};
};

struct RoundTripCase {
  bool boolean;
  int width;
  int sourceBitOrder;
  int destinationBitOrder;
  int sourceRepository;
  int destinationRepository;
};

std::vector<RoundTripCase> roundTripCases() {
  std::vector<RoundTripCase> cases;
  const int orders[] = {ZelMostSignificantFirst, ZelLeastSignificantFirst};
  for (int width = 1; width <= 17; ++width)
    for (int from : orders)
      for (int to : orders) {
        const bool fileFirst = (width + (from == to)) % 2 == 0;
        cases.push_back({true, width, from, to, fileFirst ? ZelFile : ZelWorkSpace,
                         fileFirst ? ZelWorkSpace : ZelFile});
      }
  for (int width : {1, 6, 17})
    for (int from : {ZelWorkSpace, ZelFile})
      for (int to : {ZelWorkSpace, ZelFile})
        cases.push_back({false, width, ZelMostSignificantFirst, ZelMostSignificantFirst, from, to});
  return cases;
}

std::string roundTripName(const ::testing::TestParamInfo<RoundTripCase> &param) {
  const RoundTripCase &c = param.param;
  auto order = [](int bitOrder) { return bitOrder == ZelMostSignificantFirst ? "Msb" : "Lsb"; };
  auto where = [](int repository) { return repository == ZelFile ? "File" : "WorkSpace"; };
  return std::string(c.boolean ? "Boolean" : "NonNegative") + std::to_string(c.width) + "_" +
         order(c.sourceBitOrder) + where(c.sourceRepository) + "_" + order(c.destinationBitOrder) +
         where(c.destinationRepository);
}

class InterlaceRoundTrip : public Interlace, public ::testing::WithParamInterface<RoundTripCase> {};

TEST_P(InterlaceRoundTrip, InterlacedLinesComeBackInPlace) {
  const RoundTripCase &c = GetParam();
  const Extent extent{c.width, 13, 2, 2, 3};
  const int type = c.boolean ? ZelBoolean : ZelNonNegative;
  Image pixels;
  ZelObject *source =
      filled(c.boolean, {extent, c.sourceRepository, c.sourceBitOrder, kOrigin}, pixels);
  ZelObject *interlaced = make(type, {extent, c.destinationRepository, c.destinationBitOrder});
  // Back into work space; deinterlacing into files is tested on its own below.
  ZelObject *back = make(type, {extent, ZelWorkSpace, c.sourceBitOrder});

  ASSERT_EQ(interlaceLines(ctx_, source, interlaced), 0);
  const Image lines = get(interlaced, extent, c.boolean);
  expectPixels(reordered(pixels, kOrigin, Image(extent, c.boolean), kOrigin, true), lines);
  // Line i of every plane is line interlacedLine(i) of the same plane of the source.
  forEachPixel(kOrigin, {extent[0] - 1, extent[1] - 1, extent[2] - 1, extent[3] - 1, extent[4] - 1},
               [&](const Extent &at) {
                 Extent from = at;
                 from[1] = static_cast<int>(interlacedLine(at[1], extent[1]));
                 ASSERT_EQ(lines[at], pixels[from]) << describe(pixels, lines.offset(at));
               });

  ASSERT_EQ(deinterlaceLines(ctx_, interlaced, back), 0);
  expectPixels(pixels, get(back, extent, c.boolean));
  expectPixels(pixels, get(source, extent, c.boolean));
  expectNoStreamOpen({source, interlaced, back});
}

INSTANTIATE_TEST_SUITE_P(Widths, InterlaceRoundTrip, ::testing::ValuesIn(roundTripCases()),
                         roundTripName);

TEST_F(Interlace, EveryLineCountUpToFortyRoundTrips) {
  for (int lines = 1; lines <= 40; ++lines) {
    const Extent extent{3, lines, 1, 1, 1};
    Image pixels;
    ZelObject *source = filled(false, {extent}, pixels);
    ZelObject *interlaced = make(ZelNonNegative, {extent});
    ZelObject *back = make(ZelNonNegative, {extent});
    ASSERT_EQ(interlaceLines(ctx_, source, interlaced), 0);
    expectPixels(reordered(pixels, kOrigin, Image(extent, false), kOrigin, true),
                 get(interlaced, extent, false));
    ASSERT_EQ(deinterlaceLines(ctx_, interlaced, back), 0);
    expectPixels(pixels, get(back, extent, false));
    for (ZelObject *object : {source, interlaced, back})
      EXPECT_EQ(Zel002(ctx_, object), 0);
  }
}

// Deinterlacing writes the destination's lines out of their order: a file object must end with
// every line, whether it had data before or is written for the first time.
TEST_F(Interlace, DeinterlacingIntoFilesKeepsEveryLine) {
  for (bool boolean : {false, true})
    for (bool written : {false, true})
      for (int width = 1; width <= 17; ++width) {
        SCOPED_TRACE(std::string(boolean ? "Boolean" : "NonNegative") + " width " +
                     std::to_string(width) + (written ? " over data" : " fresh"));
        const Extent extent{width, 13, 1, 1, 2};
        const int type = boolean ? ZelBoolean : ZelNonNegative;
        Image pixels, old;
        ZelObject *stored = filled(boolean, {extent}, pixels);
        ZelObject *file =
            written ? filled(boolean, {extent, ZelFile}, old) : make(type, {extent, ZelFile});
        ASSERT_EQ(deinterlaceLines(ctx_, stored, file), 0);
        expectPixels(reordered(pixels, kOrigin, Image(extent, boolean), kOrigin, false),
                     get(file, extent, boolean));
        expectNoStreamOpen({stored, file});
        EXPECT_EQ(Zel002(ctx_, stored), 0);
        EXPECT_EQ(Zel002(ctx_, file), 0);
      }
}

TEST_F(Interlace, DeinterlacingPutsEachStoredLineWhereTheOrderSays) {
  // Stored line k holds the level k: line interlacedLine(k) of the image must come out as k.
  const Extent extent{2, 11, 1, 1, 1};
  Image stored(extent, false);
  for (int y = 0; y < extent[1]; ++y)
    for (int x = 0; x < extent[0]; ++x)
      stored[{x, y, 0, 0, 0}] = static_cast<uint8_t>(10 * y + x);
  ZelObject *source = make(ZelNonNegative, {extent});
  put(source, stored);
  ZelObject *image = make(ZelNonNegative, {extent});
  ASSERT_EQ(deinterlaceLines(ctx_, source, image), 0);
  const Image out = get(image, extent, false);
  for (int k = 0; k < extent[1]; ++k) {
    const int y = static_cast<int>(interlacedLine(k, extent[1]));
    EXPECT_EQ(out[(Extent{0, y, 0, 0, 0})], 10 * k) << k;
    EXPECT_EQ(out[(Extent{1, y, 0, 0, 0})], 10 * k + 1) << k;
  }
}

TEST_F(Interlace, BitsLieInTheDestinationsOwnBitOrder) {
  // One row of 8 pixels a line: each line is one byte of the destination's work space.
  const Extent extent{8, 5, 1, 1, 1};
  Image pixels(extent, true);
  const uint8_t rows[5] = {0x80, 0x41, 0x0F, 0xC3, 0x01};  // most significant bit first
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 8; ++x)
      pixels[{x, y, 0, 0, 0}] = (rows[y] >> (7 - x)) & 1;
  ZelObject *source = make(ZelBoolean, {extent});
  put(source, pixels);
  ZelObject *interlaced = make(ZelBoolean, {extent, ZelWorkSpace, ZelLeastSignificantFirst});
  ASSERT_EQ(interlaceLines(ctx_, source, interlaced), 0);
  const std::vector<uint8_t> bytes = objects_->bytes(interlaced, 5);
  ASSERT_EQ(bytes.size(), 5u);
  // Order 0, 4, 2, 1, 3, each byte with its bits reversed.
  const uint8_t expected[5] = {0x01, 0x80, 0xF0, 0x82, 0xC3};
  for (size_t i = 0; i < 5; ++i)
    EXPECT_EQ(bytes[i], expected[i]) << i;
}

// ---- The region after match points -----------------------------------------------------------

struct RegionCase {
  bool boolean;
  bool interlacing;
  bool honoured;
};

class InterlaceRegion : public Interlace, public ::testing::WithParamInterface<RegionCase> {};

TEST_P(InterlaceRegion, OnlyTheOverlapAfterMatchPointsIsReordered) {
  const RegionCase &c = GetParam();
  setting("matchPointState", c.honoured ? 1 : 0);
  const Side from{{9, 20, 1, 1, 3}, ZelWorkSpace, ZelMostSignificantFirst, {2, 0, 0, 0, 1}};
  const Side to{{9, 12, 1, 1, 2}, ZelFile, ZelLeastSignificantFirst, {0, 3, 0, 0, 0}};
  Image source, destination;
  ZelObject *in = filled(c.boolean, from, source);
  ZelObject *out = filled(c.boolean, to, destination);
  const Extent sourceMatch = c.honoured ? from.match : kOrigin;
  const Extent destinationMatch = c.honoured ? to.match : kOrigin;
  const Image expected =
      reordered(source, sourceMatch, destination, destinationMatch, c.interlacing);
  ASSERT_EQ(c.interlacing ? interlaceLines(ctx_, in, out) : deinterlaceLines(ctx_, in, out), 0);
  expectPixels(expected, get(out, to.extent, c.boolean));
  expectPixels(source, get(in, from.extent, c.boolean));
  if (c.honoured) {
    // Lines above the destination's match point and columns beyond the source stay as they were.
    for (const Extent &at : {Extent{0, 0, 0, 0, 0}, Extent{8, 2, 0, 0, 1}, Extent{7, 5, 0, 0, 1},
                             Extent{8, 11, 0, 0, 0}})
      EXPECT_EQ(expected[at], destination[at]);
  }
}

INSTANTIATE_TEST_SUITE_P(
    MatchPoints, InterlaceRegion,
    ::testing::Values(RegionCase{false, true, true}, RegionCase{false, false, true},
                      RegionCase{true, true, true}, RegionCase{true, false, true},
                      RegionCase{false, true, false}, RegionCase{true, false, false}),
    [](const ::testing::TestParamInfo<RegionCase> &param) {
      const RegionCase &c = param.param;
      return std::string(c.boolean ? "Boolean" : "NonNegative") +
             (c.interlacing ? "Interlacing" : "Deinterlacing") +
             (c.honoured ? "MatchPointsHonoured" : "MatchPointsIgnored");
    });

TEST_F(Interlace, ObjectsThatDoNotOverlapAreLeftAlone) {
  setting("matchPointState", 1);
  const Side from{{4, 6, 1, 1, 1}, ZelWorkSpace, ZelMostSignificantFirst, {0, 0, 0, 0, 0}};
  const Side to{{4, 6, 1, 1, 1}, ZelWorkSpace, ZelMostSignificantFirst, {0, 9, 0, 0, 0}};
  Image source, destination;
  ZelObject *in = filled(false, from, source);
  ZelObject *out = filled(false, to, destination);
  EXPECT_EQ(interlaceLines(ctx_, in, out), 0);
  EXPECT_EQ(deinterlaceLines(ctx_, in, out), 0);
  expectPixels(destination, get(out, to.extent, false));
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST_F(Interlace, OtherOrDifferingTypesAreAMismatch) {
  const Extent extent{4, 4, 1, 1, 1};
  const int pairs[][2] = {{ZelSigned, ZelSigned},       {ZelReal, ZelReal},
                          {ZelBoolean, ZelNonNegative}, {ZelNonNegative, ZelBoolean},
                          {ZelNonNegative, ZelSigned},  {ZelSigned, ZelNonNegative},
                          {ZelReal, ZelNonNegative}};
  for (const auto &pair : pairs) {
    ZelObject *source = make(pair[0], {extent});
    ZelObject *destination = make(pair[1], {extent});
    // A destination with data of its own type (bytes 0x3C, a finite Real too), to see that
    // nothing is written.
    const size_t bytes = pair[1] == ZelBoolean  ? 2
                         : pair[1] == ZelSigned ? 32
                         : pair[1] == ZelReal   ? 64
                                                : 16;
    std::vector<uint8_t> before(bytes, 0x3C), after(bytes, 0);
    ASSERT_EQ(Zel609(ctx_, before.data(), destination, nullptr, 0), 0);
    for (auto reorder : {interlaceLines, deinterlaceLines}) {
      clearLastError(ctx_);
      EXPECT_EQ(reorder(ctx_, source, destination), 10) << pair[0] << " to " << pair[1];
      EXPECT_EQ(Zel003b(ctx_), 10);
    }
    ASSERT_EQ(Zel605(ctx_, destination, after.data(), nullptr, 0), 0);
    EXPECT_EQ(after, before);
    expectNoStreamOpen({source, destination});
  }
}

TEST_F(Interlace, DeadObjectsAreInvalidInstances) {
  const Extent extent{3, 4, 1, 1, 1};
  Image pixels;
  ZelObject *live = filled(false, {extent}, pixels);
  // Derived from a live object, the dead record is taken again only by objects derived from it.
  ZelObject *dead = Zel000b(ctx_, nullptr, live, nullptr, 0);
  ASSERT_NE(dead, nullptr);
  ASSERT_EQ(Zel002(ctx_, dead), 0);
  for (auto reorder : {interlaceLines, deinterlaceLines}) {
    clearLastError(ctx_);
    EXPECT_EQ(reorder(ctx_, dead, live), 9);
    EXPECT_EQ(Zel003b(ctx_), 9);
    clearLastError(ctx_);
    EXPECT_EQ(reorder(ctx_, live, dead), 9);
    EXPECT_EQ(Zel003b(ctx_), 9);
  }
  expectPixels(pixels, get(live, extent, false));
  expectNoStreamOpen({live});
}

}  // namespace
