// Copies by plane index and exchange with the application's memory: planes put into and taken
// out of larger objects for every pixel type the copy converts, in work space and in files, with
// the match points honoured or not; exports and imports that change the type or the layout on
// the way, under a region of interest; the tuple forms; and the refusals of bad input. The
// expected results are computed here from the table of conversions, independently of the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/memory.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

// ---- Pixels of every type --------------------------------------------------------------------

const int kTypes[] = {ZelBoolean, ZelNonNegative, ZelSigned, ZelReal};

// Bytes of one element; Boolean pixels are bits.
size_t elementBytes(int type) {
  switch (type) {
    case ZelSigned:
      return 2;
    case ZelReal:
    case ZelWord:
      return 4;
    default:
      return 1;
  }
}

// The values of an object's pixels, one a pixel whatever the type, in the order of the data.
struct Pixels {
  int type = ZelNonNegative;
  Extent extent{1, 1, 1, 1, 1};
  std::vector<double> values;

  Pixels() = default;
  Pixels(int t, const Extent &e, double fill = 0)
      : type(t), extent(e), values(static_cast<size_t>(pixelCount(e)), fill) {}

  size_t index(const Extent &at) const {
    int64_t o = at[4];
    for (int axis = 3; axis >= 0; --axis)
      o = o * extent[axis] + at[axis];
    return static_cast<size_t>(o);
  }
  double &operator[](const Extent &at) { return values[index(at)]; }
  double operator[](const Extent &at) const { return values[index(at)]; }
  size_t byteCount() const {
    return type == ZelBoolean ? (values.size() + 7) / 8 : values.size() * elementBytes(type);
  }
};

// The bytes of the pixels as an object of their type holds them: bits packed across rows in
// the given bit order, wider elements in host byte order.
std::vector<uint8_t> encode(const Pixels &pixels, int bitOrder = ZelMostSignificantFirst) {
  std::vector<uint8_t> bytes(pixels.byteCount(), 0);
  for (size_t i = 0; i < pixels.values.size(); ++i) {
    const double v = pixels.values[i];
    switch (pixels.type) {
      case ZelBoolean:
        if (v != 0)
          bytes[i >> 3] = static_cast<uint8_t>(
              bytes[i >> 3] |
              (bitOrder == ZelMostSignificantFirst ? 0x80u >> (i & 7) : 1u << (i & 7)));
        break;
      case ZelNonNegative:
        bytes[i] = static_cast<uint8_t>(v);
        break;
      case ZelSigned: {
        const auto s = static_cast<int16_t>(v);
        std::memcpy(&bytes[2 * i], &s, 2);
        break;
      }
      case ZelReal: {
        const auto f = static_cast<float>(v);
        std::memcpy(&bytes[4 * i], &f, 4);
        break;
      }
      default: {
        const auto w = static_cast<int32_t>(v);
        std::memcpy(&bytes[4 * i], &w, 4);
        break;
      }
    }
  }
  return bytes;
}

Pixels decode(int type, const Extent &extent, const std::vector<uint8_t> &bytes,
              int bitOrder = ZelMostSignificantFirst) {
  Pixels pixels(type, extent);
  if (bytes.size() < pixels.byteCount()) {
    ADD_FAILURE() << "only " << bytes.size() << " bytes for " << pixels.byteCount();
    return pixels;
  }
  for (size_t i = 0; i < pixels.values.size(); ++i) {
    double &v = pixels.values[i];
    switch (type) {
      case ZelBoolean: {
        const unsigned bit = bitOrder == ZelMostSignificantFirst ? 7 - (i & 7) : (i & 7);
        v = (bytes[i >> 3] >> bit) & 1;
        break;
      }
      case ZelNonNegative:
        v = bytes[i];
        break;
      case ZelSigned: {
        int16_t s;
        std::memcpy(&s, &bytes[2 * i], 2);
        v = s;
        break;
      }
      case ZelReal: {
        float f;
        std::memcpy(&f, &bytes[4 * i], 4);
        v = f;
        break;
      }
      default: {
        int32_t w;
        std::memcpy(&w, &bytes[4 * i], 4);
        v = w;
        break;
      }
    }
  }
  return pixels;
}

// Values that reach every branch of the conversions: zeros, the ends of the ranges, values just
// beside the clamps, negative zero and fractions on both sides of zero.
double randomValue(std::mt19937 &rng, int type) {
  const auto r = static_cast<uint32_t>(rng());
  switch (type) {
    case ZelBoolean:
      return r & 1;
    case ZelNonNegative:
      return (r & 7) == 0 ? 0 : (r >> 8) % 256;
    case ZelSigned: {
      static const int special[] = {0, 1, -1, 255, 256, -32768, 32767, 0x1234};
      if ((r & 3) == 0) return special[(r >> 2) % std::size(special)];
      return static_cast<int16_t>(r >> 16);
    }
    default: {
      static const double special[] = {0.0,       -0.0,    255.5,    254.9, -0.4,  -1.9, 32767.5,
                                       -32768.75, 40000.0, -40000.0, 0.75,  255.0, 1e9};
      if ((r & 3) == 0) return static_cast<float>(special[(r >> 2) % std::size(special)]);
      // Eighths from -40000 to 40000 are exact in a float.
      return (static_cast<int>((r >> 8) % 640001u) - 320000) / 8.0;
    }
  }
}

Pixels randomPixels(std::mt19937 &rng, int type, const Extent &extent) {
  Pixels pixels(type, extent);
  for (double &v : pixels.values)
    v = randomValue(rng, type);
  return pixels;
}

// The value that a copy from `from` to `to` gives, or nothing when the copy refuses the pair.
std::optional<double> converted(double v, int from, int to) {
  if (to == ZelBoolean) return v != 0 ? 1.0 : 0.0;
  if (to == ZelReal) return from == ZelReal ? std::optional<double>(v) : std::nullopt;
  switch (from) {
    case ZelBoolean:
      return v != 0 ? (to == ZelNonNegative ? 255.0 : 32767.0) : 0.0;
    case ZelNonNegative:
      return v;
    case ZelSigned:
      return to == ZelSigned ? v : std::clamp(v, 0.0, 255.0);
    default:
      if (to == ZelNonNegative) return v > 255.0 ? 255.0 : v >= 0.0 ? std::trunc(v) : 0.0;
      if (v > 32767.0) return 32767.0;
      if (v < -32768.0) return -32768.0;
      return std::trunc(v);
  }
}

bool copyAllowed(int from, int to) {
  return converted(0, from, to).has_value();
}

// `destination` after the pixels of `source` are laid over it, the match points of both meeting,
// each pixel converted to the destination's type where `mask` (in destination coordinates)
// admits it.
Pixels overlay(const Pixels &source, const Extent &sourceMatch, Pixels destination,
               const Extent &destinationMatch, const Image *mask = nullptr) {
  Extent first{}, last{};
  for (int axis = 0; axis < 5; ++axis) {
    const int shift = sourceMatch[axis] - destinationMatch[axis];
    first[axis] = std::max(0, -shift);
    last[axis] = std::min(destination.extent[axis], source.extent[axis] - shift) - 1;
    if (first[axis] > last[axis]) return destination;
  }
  forEachPixel(first, last, [&](const Extent &at) {
    if (mask && (*mask)[at] == 0) return;
    Extent from = at;
    for (int axis = 0; axis < 5; ++axis)
      from[axis] += sourceMatch[axis] - destinationMatch[axis];
    std::optional<double> v = converted(source[from], source.type, destination.type);
    if (!v) {
      ADD_FAILURE() << "no copy from " << typeName(source.type) << " to "
                    << typeName(destination.type);
      return;
    }
    destination[at] = *v;
  });
  return destination;
}

void expectValues(const Pixels &expected, const Pixels &actual) {
  ASSERT_EQ(expected.values.size(), actual.values.size());
  ASSERT_EQ(expected.type, actual.type);
  const Image shape(expected.extent, false);
  size_t differences = 0;
  std::string detail;
  for (size_t i = 0; i < expected.values.size(); ++i) {
    if (expected.values[i] == actual.values[i]) continue;
    if (differences++ < 6)
      detail += " " + describe(shape, i) + " expected " + std::to_string(expected.values[i]) +
                " got " + std::to_string(actual.values[i]) + ";";
  }
  EXPECT_EQ(differences, 0u) << typeName(expected.type) << ", of " << expected.values.size()
                             << " pixels:" << detail;
}

Image asImage(const Pixels &pixels) {
  Image image(pixels.extent, pixels.type == ZelBoolean);
  for (size_t i = 0; i < pixels.values.size(); ++i)
    image.pixels[i] = static_cast<uint8_t>(pixels.values[i]);
  return image;
}

using MatchPoints = std::array<ZelValue, 10>;

// ---- The fixture -------------------------------------------------------------------------------

class Exchange : public OperatorFixture {
 protected:
  // An object of the pixels' type and shape in `repository`, holding them when `withData`.
  ZelObject *make(const Pixels &pixels, int repository, bool withData,
                  const Extent &match = kOrigin) {
    if (pixels.type == ZelBoolean || pixels.type == ZelNonNegative)
      return objects_->make(asImage(pixels), repository, withData, match);
    // Wider pixels are laid down as bytes, and the object then told their type; its data stays.
    Extent bytesWide = pixels.extent;
    bytesWide[0] *= static_cast<int>(elementBytes(pixels.type));
    ZelObject *object =
        objects_->make(Image(bytesWide, false, encode(pixels)), repository, withData, match);
    if (!object) return nullptr;
    const ZelAttribute retype[] = {
        {"dataType", pixels.type}, {"xDimension", pixels.extent[0]}, {"inited", withData}};
    EXPECT_EQ(Zel006(ctx_, object, retype, 3), 0);
    EXPECT_EQ(readAttribute(ctx_, object, "dataPrecision"),
              static_cast<ZelValue>(8 * elementBytes(pixels.type)));
    return object;
  }

  Pixels read(ZelObject *object, int type, const Extent &extent) {
    Pixels shape(type, extent);
    return decode(type, extent, objects_->bytes(object, shape.byteCount()));
  }

  int state(const char *name) { return static_cast<int>(Zel007a(ctx_, name)); }

  // The last failure was `code`; it is forgotten, so that the next check sees only its own.
  void expectLastError(int code) {
    EXPECT_EQ(Zel003b(ctx_), code);
    clearLastError(ctx_);
  }
  void expectRefused(int result, int code) {
    EXPECT_EQ(result, code);
    expectLastError(code);
  }

  MatchPoints matchPoints(ZelObject *a, ZelObject *b) {
    static const char *const names[] = {"xMatchPoint", "yMatchPoint", "zMatchPoint", "tMatchPoint",
                                        "bMatchPoint"};
    MatchPoints points{};
    for (int i = 0; i < 5; ++i) {
      points[static_cast<size_t>(i)] = readAttribute(ctx_, a, names[i]);
      points[static_cast<size_t>(i) + 5] = readAttribute(ctx_, b, names[i]);
    }
    return points;
  }

  size_t temporaryFileCount() const {
    size_t count = 0;
    for (const auto &entry : fs::directory_iterator(temporary_)) {
      (void)entry;
      ++count;
    }
    return count;
  }

  // The temporary object of an exchange is gone, and its record waits under the object.
  void expectOneFreeRecordUnder(ZelObject *object) {
    ASSERT_NE(object->firstChild, nullptr);
    EXPECT_EQ(object->firstChild->inUse, 0);
    EXPECT_EQ(object->firstChild->nextSibling, nullptr);
    EXPECT_EQ(object->firstChild->firstChild, nullptr);
  }
};

// ---- Planes put into a larger object and taken out again --------------------------------------

enum class Alignment {
  Origins,      // the context ignores match points: x and y meet at 0, whatever the objects say
  RowsShifted,  // match points honoured, equal in x: the plane lands some rows off
  Shifted,      // match points honoured, apart in x and y
};

struct PlaneCase {
  int type;
  int repository;
  bool fiveAxes;
  Alignment alignment;
};

std::vector<PlaneCase> planeCases() {
  std::vector<PlaneCase> cases;
  for (int type : kTypes)
    for (int repository : {ZelWorkSpace, ZelFile})
      for (bool fiveAxes : {false, true})
        for (Alignment alignment : {Alignment::Origins, Alignment::RowsShifted, Alignment::Shifted})
          // A shift in x moves wide pixels from the region's scaled start; see
          // WideTypesShiftedRightAreMovedFromTheScaledRegionStart.
          if (alignment != Alignment::Shifted || type == ZelBoolean || type == ZelNonNegative)
            cases.push_back({type, repository, fiveAxes, alignment});
  return cases;
}

std::string planeCaseName(const ::testing::TestParamInfo<PlaneCase> &info) {
  static const char *const alignments[] = {"Origins", "RowsShifted", "Shifted"};
  const PlaneCase &c = info.param;
  return typeName(c.type) + "_" + repositoryName(c.repository) + "_" +
         (c.fiveAxes ? "FiveAxes" : "ThreeAxes") + "_" + alignments[static_cast<int>(c.alignment)];
}

class PlaneRoundTrip : public Exchange, public ::testing::WithParamInterface<PlaneCase> {};

TEST_P(PlaneRoundTrip, PlanesPutInComeOutAgain) {
  const PlaneCase &c = GetParam();
  const Extent volume = c.fiveAxes ? Extent{7, 5, 3, 2, 2} : Extent{7, 5, 4, 1, 1};
  // The indexed object's own z, t and b match points are replaced by the indices.
  Extent volumeMatch{2, 1, 1, 1, 1}, planeMatch{1, 3, 0, 0, 0};
  Extent plane{7, 5, 1, 1, 1};
  if (c.alignment == Alignment::RowsShifted) {
    planeMatch = {2, 3, 0, 0, 0};
    plane = {7, 4, 1, 1, 1};
  } else if (c.alignment == Alignment::Shifted) {
    volumeMatch = {1, 0, 1, 1, 1};
    planeMatch = {3, 1, 0, 0, 0};
    plane = {6, 4, 1, 1, 1};
  }
  const bool honoured = c.alignment != Alignment::Origins;
  setting("matchPointState", honoured);
  // What the copy sees in x and y.
  Extent volumeXY = kOrigin, planeXY = kOrigin;
  if (honoured) {
    volumeXY = {volumeMatch[0], volumeMatch[1], 0, 0, 0};
    planeXY = {planeMatch[0], planeMatch[1], 0, 0, 0};
  }

  std::mt19937 rng(static_cast<unsigned>(c.type * 100 + c.repository * 10 + (c.fiveAxes ? 1 : 0) +
                                         1000 * static_cast<int>(c.alignment)));
  Pixels expected = randomPixels(rng, c.type, volume);
  ZelObject *big = make(expected, c.repository, true, volumeMatch);
  ASSERT_NE(big, nullptr);

  // The volume's match point while the plane at `index` is copied.
  const auto placeOf = [&](const Extent &index) {
    Extent at = volumeXY;
    for (int axis = 2; axis < 5; ++axis)
      at[axis] = index[axis];
    return at;
  };
  const auto where = [](const Extent &index) {
    return "z " + std::to_string(index[2]) + " t " + std::to_string(index[3]) + " b " +
           std::to_string(index[4]);
  };
  struct Placed {
    Extent index;
    Pixels pixels;
  };
  std::vector<Placed> placed;
  for (int b = 0; b < volume[4]; ++b)
    for (int t = 0; t < volume[3]; ++t)
      for (int z = 0; z < volume[2]; ++z)
        placed.push_back({{0, 0, z, t, b}, randomPixels(rng, c.type, plane)});
  // Visit the planes out of order, so that each copy has to find its own place.
  std::shuffle(placed.begin(), placed.end(), rng);

  for (const Placed &p : placed) {
    SCOPED_TRACE("into " + where(p.index));
    ZelObject *source = make(p.pixels, c.repository, true, planeMatch);
    ASSERT_NE(source, nullptr);
    const MatchPoints before = matchPoints(source, big);
    ASSERT_EQ(Zel600(ctx_, source, big, p.index[2], p.index[3], p.index[4]), 0) << Zel003b(ctx_);
    EXPECT_EQ(matchPoints(source, big), before);
    EXPECT_EQ(state("matchPointState"), honoured ? 1 : 0);
    expected = overlay(p.pixels, planeXY, expected, placeOf(p.index));
    expectNoStreamOpen({source, big});
    // The plane is only read.
    expectValues(p.pixels, read(source, c.type, plane));
    ASSERT_EQ(Zel002(ctx_, source), 0);
  }
  expectValues(expected, read(big, c.type, volume));
  EXPECT_EQ(readAttribute(ctx_, big, "inited"), 1);

  for (const Placed &p : placed) {
    SCOPED_TRACE("out of " + where(p.index));
    ZelObject *out = make(Pixels(c.type, plane), c.repository, false, planeMatch);
    ASSERT_NE(out, nullptr);
    const MatchPoints before = matchPoints(big, out);
    ASSERT_EQ(Zel603(ctx_, big, out, p.index[2], p.index[3], p.index[4]), 0) << Zel003b(ctx_);
    EXPECT_EQ(matchPoints(big, out), before);
    EXPECT_EQ(state("matchPointState"), honoured ? 1 : 0);
    // Pixels of the plane that lie outside the volume stay as a fresh object has them.
    const Pixels back = overlay(expected, placeOf(p.index), Pixels(c.type, plane), planeXY);
    expectValues(back, read(out, c.type, plane));
    if (!honoured) expectValues(p.pixels, back);
    expectNoStreamOpen({big, out});
    ASSERT_EQ(Zel002(ctx_, out), 0);
  }
  // Taking planes out leaves the volume as it was.
  expectValues(expected, read(big, c.type, volume));
  EXPECT_EQ(Zel003b(ctx_), 0);
}

INSTANTIATE_TEST_SUITE_P(EveryType, PlaneRoundTrip, ::testing::ValuesIn(planeCases()),
                         planeCaseName);

TEST_F(Exchange, PlaceBeyondTheLastPlaneCopiesNothing) {
  const Extent volume{6, 3, 3, 2, 1}, plane{6, 3, 1, 1, 1};
  std::mt19937 rng(3);
  const Pixels before = randomPixels(rng, ZelNonNegative, volume);
  ZelObject *big = make(before, ZelWorkSpace, true);
  ZelObject *source = make(randomPixels(rng, ZelNonNegative, plane), ZelWorkSpace, true);
  ZelObject *out = make(Pixels(ZelNonNegative, plane, 9), ZelWorkSpace, true);
  const int indices[][3] = {{3, 0, 0}, {7, 0, 0}, {-1, 0, 0}, {0, 2, 0}, {0, 0, 1}, {0, -1, 0}};
  for (const auto &index : indices) {
    SCOPED_TRACE(std::to_string(index[0]) + " " + std::to_string(index[1]) + " " +
                 std::to_string(index[2]));
    EXPECT_EQ(Zel600(ctx_, source, big, index[0], index[1], index[2]), 0);
    expectValues(before, read(big, ZelNonNegative, volume));
    EXPECT_EQ(Zel603(ctx_, big, out, index[0], index[1], index[2]), 0);
    expectValues(Pixels(ZelNonNegative, plane, 9), read(out, ZelNonNegative, plane));
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(Exchange, PlaneCopyPutsBackTheStateAndEveryMatchPoint) {
  const Extent volume{5, 4, 3, 2, 2}, plane{5, 4, 1, 1, 1};
  const Extent volumeMatch{-2, 7, 1, -1, 3}, planeMatch{4, -3, 2, 5, -6};
  std::mt19937 rng(4);
  ZelObject *big = make(randomPixels(rng, ZelNonNegative, volume), ZelFile, true, volumeMatch);
  ZelObject *plain = make(randomPixels(rng, ZelNonNegative, plane), ZelWorkSpace, true, planeMatch);
  // A plane that the copy refuses: nothing widens to Real.
  ZelObject *real = make(Pixels(ZelReal, plane), ZelWorkSpace, true, planeMatch);
  // A type that the copy doesn't know at all.
  ZelObject *complex = make(Pixels(ZelNonNegative, plane), ZelWorkSpace, true, planeMatch);
  ASSERT_EQ(Zel006a(ctx_, complex, "dataType", ZelComplex), 0);
  ASSERT_TRUE(big && plain && real && complex);
  for (int matchPointState : {0, 1}) {
    setting("matchPointState", matchPointState);
    struct Call {
      const char *name;
      int (*copy)(ZelContext *, ZelObject *, ZelObject *, int, int, int);
      ZelObject *source;
      ZelObject *destination;
      int result;
    };
    const Call calls[] = {
        {"put", Zel600, plain, big, 0},
        {"take", Zel603, big, plain, 0},
        {"put real", Zel600, big, real, 10},
        {"take into real", Zel603, big, real, 10},
        {"put complex", Zel600, complex, big, 10},
    };
    for (const Call &call : calls) {
      SCOPED_TRACE(std::string(call.name) + ", state " + std::to_string(matchPointState));
      const MatchPoints before = matchPoints(call.source, call.destination);
      expectRefused(call.copy(ctx_, call.source, call.destination, 1, 1, 1), call.result);
      EXPECT_EQ(state("matchPointState"), matchPointState);
      EXPECT_EQ(matchPoints(call.source, call.destination), before);
      expectNoStreamOpen({call.source, call.destination});
    }
  }
}

TEST_F(Exchange, PlaneCopyWithMatchPointsOffMeetsAtTheOrigins) {
  const Extent volume{6, 4, 2, 1, 1}, plane{4, 3, 1, 1, 1};
  std::mt19937 rng(5);
  const Pixels before = randomPixels(rng, ZelNonNegative, volume);
  const Pixels pixels = randomPixels(rng, ZelNonNegative, plane);
  ZelObject *big = make(before, ZelWorkSpace, true, {1, 2, 0, 0, 0});
  ZelObject *source = make(pixels, ZelApplicationAddressSpace, true, {3, 0, 0, 0, 0});
  ASSERT_EQ(state("matchPointState"), 0);
  ASSERT_EQ(Zel600(ctx_, source, big, 1, 0, 0), 0);
  Pixels expected = before;
  for (int y = 0; y < plane[1]; ++y)
    for (int x = 0; x < plane[0]; ++x)
      expected[{x, y, 1, 0, 0}] = pixels[{x, y, 0, 0, 0}];
  expectValues(expected, read(big, ZelNonNegative, volume));
  // With the context honouring them, the same match points put the plane elsewhere.
  setting("matchPointState", 1);
  ZelObject *other = make(before, ZelWorkSpace, true, {1, 2, 0, 0, 0});
  ASSERT_EQ(Zel600(ctx_, source, other, 1, 0, 0), 0);
  const Pixels shifted = read(other, ZelNonNegative, volume);
  expectValues(overlay(pixels, {3, 0, 0, 0, 0}, before, {1, 2, 1, 0, 0}), shifted);
  EXPECT_NE(shifted.values, expected.values);
}

TEST_F(Exchange, SourceZMatchPointCountsEvenWhenTheContextIgnoresMatchPoints) {
  // Only x and y are aligned at the origins; the source's z, t and b match points stay in force.
  const Extent volume{3, 2, 4, 1, 1}, planes{3, 2, 2, 1, 1};
  std::mt19937 rng(6);
  const Pixels before = randomPixels(rng, ZelSigned, volume);
  const Pixels pixels = randomPixels(rng, ZelSigned, planes);
  ZelObject *big = make(before, ZelWorkSpace, true);
  ZelObject *source = make(pixels, ZelWorkSpace, true, {0, 0, 1, 0, 0});
  ASSERT_EQ(Zel600(ctx_, source, big, 1, 0, 0), 0);
  // Source plane 1 meets destination plane 1: source plane 0 lands at plane 0.
  Pixels expected = before;
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x)
        expected[{x, y, z, 0, 0}] = pixels[{x, y, z, 0, 0}];
  expectValues(expected, read(big, ZelSigned, volume));
}

TEST_F(Exchange, SeveralPlanesPutInLandFromTheIndexOn) {
  const Extent volume{5, 3, 4, 1, 1}, planes{5, 3, 2, 1, 1};
  std::mt19937 rng(7);
  const Pixels before = randomPixels(rng, ZelReal, volume);
  const Pixels pixels = randomPixels(rng, ZelReal, planes);
  ZelObject *big = make(before, ZelFile, true);
  ZelObject *source = make(pixels, ZelFile, true);
  ASSERT_EQ(Zel600(ctx_, source, big, 1, 0, 0), 0);
  Pixels expected = before;
  forEachPixel(kOrigin, {4, 2, 1, 0, 0}, [&](const Extent &at) {
    expected[{at[0], at[1], at[2] + 1, 0, 0}] = pixels[at];
  });
  expectValues(expected, read(big, ZelReal, volume));
  // Placed at the last plane, only the first of the two fits.
  ASSERT_EQ(Zel600(ctx_, source, big, 3, 0, 0), 0);
  forEachPixel(kOrigin, {4, 2, 0, 0, 0}, [&](const Extent &at) {
    expected[{at[0], at[1], 3, 0, 0}] = pixels[at];
  });
  expectValues(expected, read(big, ZelReal, volume));
}

TEST_F(Exchange, TakingOutFillsTheDestinationPlanesFromTheIndexOn) {
  const Extent volume{5, 3, 4, 1, 1}, planes{5, 3, 2, 1, 1};
  std::mt19937 rng(8);
  const Pixels pixels = randomPixels(rng, ZelBoolean, volume);
  ZelObject *big = make(pixels, ZelWorkSpace, true);
  ZelObject *out = make(Pixels(ZelBoolean, planes), ZelFile, false);
  ASSERT_EQ(Zel603(ctx_, big, out, 2, 0, 0), 0);
  Pixels expected(ZelBoolean, planes);
  forEachPixel(kOrigin, {4, 2, 1, 0, 0}, [&](const Extent &at) {
    expected[at] = pixels[{at[0], at[1], at[2] + 2, 0, 0}];
  });
  expectValues(expected, read(out, ZelBoolean, planes));
  // From the last plane on, the second destination plane has no partner and stays clear.
  ZelObject *last = make(Pixels(ZelBoolean, planes, 1), ZelWorkSpace, true);
  ASSERT_EQ(Zel603(ctx_, big, last, 3, 0, 0), 0);
  Pixels lastExpected(ZelBoolean, planes, 1);
  forEachPixel(kOrigin, {4, 2, 0, 0, 0}, [&](const Extent &at) {
    lastExpected[at] = pixels[{at[0], at[1], 3, 0, 0}];
  });
  expectValues(lastExpected, read(last, ZelBoolean, planes));
}

TEST_F(Exchange, PlaneCopyConvertsToTheDestinationType) {
  const Extent volume{6, 2, 3, 1, 1}, plane{6, 2, 1, 1, 1};
  std::mt19937 rng(9);
  for (int from : kTypes)
    for (int to : kTypes) {
      SCOPED_TRACE(typeName(from) + " to " + typeName(to));
      const Pixels before = randomPixels(rng, to, volume);
      const Pixels pixels = randomPixels(rng, from, plane);
      ZelObject *big = make(before, ZelWorkSpace, true);
      ZelObject *source = make(pixels, ZelFile, true);
      const int expectedResult = copyAllowed(from, to) ? 0 : 10;
      expectRefused(Zel600(ctx_, source, big, 2, 0, 0), expectedResult);
      expectValues(expectedResult ? before : overlay(pixels, kOrigin, before, {0, 0, 2, 0, 0}),
                   read(big, to, volume));
    }
}

TEST_F(Exchange, WideTypesShiftedRightAreMovedFromTheScaledRegionStart) {
  // Without a mask, like pixels move as one run whose start is the region's first byte taken as
  // an element index: two bytes a pixel for Signed, four for Real. Placed two pixels right, a
  // Signed plane thus lands four pixels right, a Real one eight; bytes go as they would.
  setting("matchPointState", 1);
  const Extent row{16, 1, 1, 1, 1}, plane{4, 1, 1, 1, 1};
  for (const auto &[type, landing] :
       {std::pair{ZelNonNegative, 2}, std::pair{ZelSigned, 4}, std::pair{ZelReal, 8}}) {
    SCOPED_TRACE(typeName(type));
    std::mt19937 rng(static_cast<unsigned>(type));
    const Pixels before = randomPixels(rng, type, row);
    const Pixels pixels = randomPixels(rng, type, plane);
    ZelObject *big = make(before, ZelWorkSpace, true, {2, 0, 0, 0, 0});
    ZelObject *source = make(pixels, ZelWorkSpace, true);
    ASSERT_EQ(Zel600(ctx_, source, big, 0, 0, 0), 0);
    Pixels expected = before;
    for (int x = 0; x < 4; ++x)
      expected[{landing + x, 0, 0, 0, 0}] = pixels[{x, 0, 0, 0, 0}];
    expectValues(expected, read(big, type, row));
  }
}

TEST_F(Exchange, PlaneCopyHonoursTheDestinationRegionOfInterest) {
  setting("roiState", 1);
  const Extent volume{9, 4, 3, 1, 1}, plane{9, 4, 1, 1, 1};
  for (int type : kTypes) {
    SCOPED_TRACE(typeName(type));
    std::mt19937 rng(static_cast<unsigned>(type + 50));
    const Pixels before = randomPixels(rng, type, volume);
    const Pixels pixels = randomPixels(rng, type, plane);
    const Image mask = randomMask(rng, volume);
    ZelObject *big = make(before, ZelFile, true);
    objects_->maskFor(big, mask, ZelWorkSpace);
    ZelObject *source = make(pixels, ZelWorkSpace, true);
    ASSERT_EQ(Zel600(ctx_, source, big, 2, 0, 0), 0);
    const Pixels expected = overlay(pixels, kOrigin, before, {0, 0, 2, 0, 0}, &mask);
    expectValues(expected, read(big, type, volume));
    ASSERT_NE(expected.values, overlay(pixels, kOrigin, before, {0, 0, 2, 0, 0}).values);
  }
}

// ---- Export to and import from the application's memory ---------------------------------------

using ExchangeParam = std::tuple<int, int, bool>;  // type, repository, region of interest

class ExchangeRoundTrip : public Exchange, public ::testing::WithParamInterface<ExchangeParam> {};

TEST_P(ExchangeRoundTrip, ExportAndImportMoveThePixelsTheRegionAdmits) {
  const auto [type, repository, roi] = GetParam();
  // The temporary object takes the object's match points, so that both still meet.
  setting("matchPointState", 1);
  setting("roiState", roi);
  const Extent extent{7, 5, 2, 1, 2}, match{3, 1, 1, 0, 0};
  std::mt19937 rng(static_cast<unsigned>(type * 10 + repository + (roi ? 5000 : 0)));
  const Pixels original = randomPixels(rng, type, extent);
  ZelObject *object = make(original, repository, true, match);
  ASSERT_NE(object, nullptr);
  const Image mask = randomMask(rng, extent);
  if (roi) objects_->maskFor(object, mask, ZelWorkSpace);
  const Image *admitted = roi ? &mask : nullptr;
  const int descriptors = openDescriptors();
  const size_t temporaries = temporaryFileCount();

  const Pixels sentinel = randomPixels(rng, type, extent);
  std::vector<uint8_t> buffer = encode(sentinel);
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), nullptr, 0), 0) << Zel003b(ctx_);
  expectValues(overlay(original, kOrigin, sentinel, kOrigin, admitted),
               decode(type, extent, buffer));
  expectValues(original, read(object, type, extent));
  expectOneFreeRecordUnder(object);

  const Pixels incoming = randomPixels(rng, type, extent);
  buffer = encode(incoming);
  const std::vector<uint8_t> sent = buffer;
  ASSERT_EQ(Zel609(ctx_, buffer.data(), object, nullptr, 0), 0) << Zel003b(ctx_);
  expectValues(overlay(incoming, kOrigin, original, kOrigin, admitted), read(object, type, extent));
  EXPECT_EQ(buffer, sent);
  EXPECT_EQ(readAttribute(ctx_, object, "inited"), 1);

  // The temporary objects left neither a file nor a descriptor, and one record served both.
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(temporaryFileCount(), temporaries);
  expectNoStreamOpen({object});
  expectOneFreeRecordUnder(object);
  EXPECT_EQ(Zel003b(ctx_), 0);
}

std::string exchangeName(const ::testing::TestParamInfo<ExchangeParam> &info) {
  return typeName(std::get<0>(info.param)) + "_" + repositoryName(std::get<1>(info.param)) +
         (std::get<2>(info.param) ? "_Region" : "_Whole");
}

INSTANTIATE_TEST_SUITE_P(EveryType, ExchangeRoundTrip,
                         ::testing::Combine(::testing::ValuesIn(kTypes),
                                            ::testing::Values(ZelWorkSpace, ZelFile),
                                            ::testing::Bool()),
                         exchangeName);

TEST_F(Exchange, FreshFileObjectImportedAndExportedKeepsOnlyItsOwnFile) {
  const Extent extent{9, 4, 1, 1, 1};
  std::mt19937 rng(10);
  const Pixels pixels = randomPixels(rng, ZelSigned, extent);
  ZelObject *object = make(Pixels(ZelSigned, extent), ZelFile, false);
  std::vector<uint8_t> buffer = encode(pixels);
  ASSERT_EQ(Zel609(ctx_, buffer.data(), object, nullptr, 0), 0);
  // The object's own temporary file holds the pixels now.
  EXPECT_EQ(temporaryFileCount(), 1u);
  EXPECT_EQ(readAttribute(ctx_, object, "tmpnam"), 1);
  std::vector<uint8_t> back(buffer.size(), 0);
  ASSERT_EQ(Zel605(ctx_, object, back.data(), nullptr, 0), 0);
  EXPECT_EQ(back, buffer);
  EXPECT_EQ(temporaryFileCount(), 1u);
  ASSERT_EQ(Zel002(ctx_, object), 0);
  EXPECT_EQ(temporaryFileCount(), 0u);
}

// Every pair of types, in both directions: the list's "dataType" gives the buffer its type.
using ConversionParam = std::tuple<int, int, bool, int>;  // object type, buffer type, export, rep.

class ExchangeConversion : public Exchange,
                           public ::testing::WithParamInterface<ConversionParam> {};

TEST_P(ExchangeConversion, ListTypeConvertsAsTheCopyDoes) {
  const auto [objectType, bufferType, isExport, repository] = GetParam();
  const Extent extent{11, 3, 2, 1, 1};
  std::mt19937 rng(static_cast<unsigned>(objectType * 1000 + bufferType + (isExport ? 7 : 3)));
  const Pixels original = randomPixels(rng, objectType, extent);
  ZelObject *object = make(original, repository, true);
  ASSERT_NE(object, nullptr);
  const ZelAttribute list[] = {{"dataType", bufferType}};
  const Pixels inBuffer = randomPixels(rng, bufferType, extent);
  std::vector<uint8_t> buffer = encode(inBuffer);
  if (isExport) {
    const int expected = copyAllowed(objectType, bufferType) ? 0 : 10;
    expectRefused(Zel605(ctx_, object, buffer.data(), list, 1), expected);
    expectValues(expected ? inBuffer : overlay(original, kOrigin, inBuffer, kOrigin),
                 decode(bufferType, extent, buffer));
    expectValues(original, read(object, objectType, extent));
  } else {
    const int expected = copyAllowed(bufferType, objectType) ? 0 : 10;
    expectRefused(Zel609(ctx_, buffer.data(), object, list, 1), expected);
    expectValues(expected ? original : overlay(inBuffer, kOrigin, original, kOrigin),
                 read(object, objectType, extent));
    EXPECT_EQ(buffer, encode(inBuffer));
  }
  // The list shaped the temporary object only.
  EXPECT_EQ(readAttribute(ctx_, object, "dataType"), objectType);
  expectNoStreamOpen({object});
  expectOneFreeRecordUnder(object);
}

std::string conversionName(const ::testing::TestParamInfo<ConversionParam> &info) {
  const auto [objectType, bufferType, isExport, repository] = info.param;
  return std::string(isExport ? "Export" : "Import") + typeName(objectType) +
         (isExport ? "As" : "From") + typeName(bufferType) + "_" + repositoryName(repository);
}

INSTANTIATE_TEST_SUITE_P(EveryPair, ExchangeConversion,
                         ::testing::Combine(::testing::ValuesIn(kTypes),
                                            ::testing::ValuesIn(kTypes), ::testing::Bool(),
                                            ::testing::Values(ZelWorkSpace, ZelFile)),
                         conversionName);

TEST_F(Exchange, ExportOfNonNegativeAsRealIsRefusedAndLeavesTheBuffer) {
  const Extent extent{8, 3, 1, 1, 1};
  std::mt19937 rng(11);
  ZelObject *object = make(randomPixels(rng, ZelNonNegative, extent), ZelWorkSpace, true);
  std::vector<float> buffer(24, 1.5f);
  const ZelAttribute list[] = {{"dataType", ZelReal}};
  expectRefused(Zel605(ctx_, object, buffer.data(), list, 1), 10);
  EXPECT_EQ(buffer, std::vector<float>(24, 1.5f));
  expectNoStreamOpen({object});
}

TEST_F(Exchange, RealExportedAsNonNegativeIsClampedAndTruncated) {
  const Extent extent{9, 1, 1, 1, 1};
  Pixels pixels(ZelReal, extent);
  pixels.values = {
      255.5, static_cast<float>(254.9), static_cast<float>(-0.4), -0.0, 300.0, -7.0, 0.75, 128.0,
      1e9};
  ZelObject *object = make(pixels, ZelFile, true);
  std::vector<uint8_t> buffer(9, 77);
  const ZelAttribute list[] = {{"dataType", ZelNonNegative}};
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 1), 0);
  EXPECT_EQ(buffer, (std::vector<uint8_t>{255, 254, 0, 0, 255, 0, 0, 128, 255}));
}

TEST_F(Exchange, NonNegativeExportedAsSignedKeepsEachValue) {
  const Extent extent{5, 1, 1, 1, 1};
  Pixels pixels(ZelNonNegative, extent);
  pixels.values = {0, 1, 127, 128, 255};
  ZelObject *object = make(pixels, ZelWorkSpace, true);
  std::vector<int16_t> buffer(5, -5);
  const ZelAttribute list[] = {{"dataType", ZelSigned}};
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 1), 0);
  EXPECT_EQ(buffer, (std::vector<int16_t>{0, 1, 127, 128, 255}));
}

TEST_F(Exchange, OtherBitOrderInTheListReversesTheBitsOfEachByte) {
  // Ten pixels a row: the rows share bytes, and each pixel keeps its place in the sequence.
  const Extent extent{10, 3, 1, 1, 1};
  std::mt19937 rng(12);
  const Pixels pixels = randomPixels(rng, ZelBoolean, extent);
  ZelObject *object = make(pixels, ZelWorkSpace, true);
  const ZelAttribute list[] = {{"bitOrder", ZelLeastSignificantFirst}};
  std::vector<uint8_t> buffer(4, 0);
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 1), 0);
  EXPECT_EQ(buffer, encode(pixels, ZelLeastSignificantFirst));

  const Pixels incoming = randomPixels(rng, ZelBoolean, extent);
  buffer = encode(incoming, ZelLeastSignificantFirst);
  ASSERT_EQ(Zel609(ctx_, buffer.data(), object, list, 1), 0);
  expectValues(incoming, read(object, ZelBoolean, extent));
  EXPECT_EQ(readAttribute(ctx_, object, "bitOrder"), ZelMostSignificantFirst);
}

TEST_F(Exchange, OtherByteOrderInTheListSwapsEachSignedValue) {
  const Extent extent{3, 1, 1, 1, 1};
  Pixels pixels(ZelSigned, extent);
  pixels.values = {0x1234, -2, 0x00FF};
  ZelObject *object = make(pixels, ZelFile, true);
  const ZelAttribute list[] = {{"byteOrder", ZelLeastSignificantFirst}};
  std::vector<int16_t> buffer(3, 0);
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 1), 0);
  EXPECT_EQ(buffer, (std::vector<int16_t>{0x3412, static_cast<int16_t>(0xFEFF), -256}));

  buffer = {0x3412, 0x0100, static_cast<int16_t>(0x0080)};
  ASSERT_EQ(Zel609(ctx_, buffer.data(), object, list, 1), 0);
  Pixels expected(ZelSigned, extent);
  expected.values = {0x1234, 1, -32768};
  expectValues(expected, read(object, ZelSigned, extent));
}

TEST_F(Exchange, SmallerDimensionsInTheListExchangeTheTopLeftWindow) {
  const Extent extent{7, 5, 2, 1, 1}, window{4, 3, 2, 1, 1};
  const ZelAttribute list[] = {{"xDimension", window[0]}, {"yDimension", window[1]}};
  for (int type : kTypes) {
    SCOPED_TRACE(typeName(type));
    std::mt19937 rng(static_cast<unsigned>(type + 13));
    const Pixels pixels = randomPixels(rng, type, extent);
    ZelObject *object = make(pixels, ZelWorkSpace, true);
    // The buffer holds the window's pixels, rows without padding.
    Pixels exported(type, window);
    std::vector<uint8_t> buffer(exported.byteCount(), 0);
    ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 2), 0);
    expectValues(overlay(pixels, kOrigin, exported, kOrigin), decode(type, window, buffer));

    const Pixels incoming = randomPixels(rng, type, window);
    buffer = encode(incoming);
    ASSERT_EQ(Zel609(ctx_, buffer.data(), object, list, 2), 0);
    expectValues(overlay(incoming, kOrigin, pixels, kOrigin), read(object, type, extent));
  }
}

TEST_F(Exchange, MatchPointsInTheListChooseTheWindow) {
  setting("matchPointState", 1);
  const Extent extent{9, 6, 1, 1, 1}, window{4, 3, 1, 1, 1}, corner{-3, -2, 0, 0, 0};
  const ZelAttribute list[] = {{"xDimension", window[0]},
                               {"yDimension", window[1]},
                               {"xMatchPoint", corner[0]},
                               {"yMatchPoint", corner[1]}};
  for (int type : {ZelBoolean, ZelNonNegative}) {
    SCOPED_TRACE(typeName(type));
    std::mt19937 rng(static_cast<unsigned>(type + 14));
    const Pixels pixels = randomPixels(rng, type, extent);
    ZelObject *object = make(pixels, ZelFile, true);
    Pixels exported(type, window);
    std::vector<uint8_t> buffer(exported.byteCount(), 0);
    ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 4), 0);
    const Pixels got = decode(type, window, buffer);
    expectValues(overlay(pixels, kOrigin, exported, corner), got);
    const Extent windowCorner{3, 2, 0, 0, 0};
    EXPECT_EQ(got[kOrigin], pixels[windowCorner]);
  }
}

TEST_F(Exchange, ImportIntoFiveEntryTupleReadsFiveElementsOfItsType) {
  for (int type : {ZelReal, ZelSigned, ZelNonNegative, ZelWord}) {
    SCOPED_TRACE(typeName(type));
    const ZelAttribute shape[] = {{"entries", 5}, {"dataType", type}};
    ZelObject *tuple = Zel000n(ctx_, nullptr, nullptr, shape, type == ZelReal ? 1 : 2);
    ASSERT_NE(tuple, nullptr);
    ASSERT_EQ(readAttribute(ctx_, tuple, "dataType"), type);
    Pixels values(type, {5, 1, 1, 1, 1});
    values.values = {-3.5, 1, 200, 77, 4};
    if (type != ZelReal) values.values[0] = type == ZelNonNegative ? 9 : -3;
    if (type == ZelWord) values.values[2] = INT32_MIN;
    // A block of exactly five elements: a read past them would be caught.
    std::vector<uint8_t> buffer = encode(values);
    ASSERT_EQ(buffer.size(), 5 * elementBytes(type));
    ASSERT_EQ(Zel609(ctx_, buffer.data(), tuple, nullptr, 0), 0);
    EXPECT_EQ(objects_->bytes(tuple, buffer.size()), buffer);
  }
}

TEST_F(Exchange, RepositoryNamedInTheListIsOverruled) {
  const Extent extent{6, 2, 1, 1, 1};
  std::mt19937 rng(15);
  const Pixels pixels = randomPixels(rng, ZelNonNegative, extent);
  ZelObject *object = make(pixels, ZelWorkSpace, true);
  std::vector<uint8_t> elsewhere(12, 5);
  for (ZelValue repository : {ZelValue{ZelFile}, ZelValue{ZelWorkSpace}}) {
    SCOPED_TRACE(repository);
    const ZelAttribute list[] = {{"repository", repository},
                                 {"applicationAddressSpace", word(elsewhere.data())}};
    std::vector<uint8_t> buffer(12, 0);
    ASSERT_EQ(Zel605(ctx_, object, buffer.data(), list, 2), 0);
    EXPECT_EQ(buffer, encode(pixels));
    EXPECT_EQ(elsewhere, std::vector<uint8_t>(12, 5));
    EXPECT_EQ(temporaryFileCount(), 0u);
  }
}

TEST_F(Exchange, TemporaryObjectHasTheShapeThatDerivationGivesItsClass) {
  // The temporary object is derived from the object: a ColourImage child keeps the bands but
  // only one z and t plane, a MonochromeImage child a single plane, a GenericImage child all.
  const Extent extent{5, 3, 2, 2, 3};
  struct Case {
    const char *name;
    Wrapper create;
    Extent exchanged;
  };
  const Case cases[] = {{"ColourImage", Zel000a, {5, 3, 1, 1, 3}},
                        {"GenericImage", Zel000b, extent},
                        {"MonochromeImage", Zel000c, {5, 3, 1, 1, 1}}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::mt19937 rng(static_cast<unsigned>(c.exchanged[4] * 10 + c.exchanged[2]));
    const Pixels pixels = randomPixels(rng, ZelNonNegative, extent);
    ZelObject *object = objects_->make(asImage(pixels), ZelWorkSpace, true, kOrigin, c.create);
    ASSERT_NE(object, nullptr);
    // Exactly as many bytes as the temporary object holds: more would be caught.
    const Pixels window(ZelNonNegative, c.exchanged);
    std::vector<uint8_t> buffer(window.byteCount(), 0);
    ASSERT_EQ(Zel605(ctx_, object, buffer.data(), nullptr, 0), 0);
    expectValues(overlay(pixels, kOrigin, window, kOrigin),
                 decode(ZelNonNegative, c.exchanged, buffer));

    const Pixels incoming = randomPixels(rng, ZelNonNegative, c.exchanged);
    buffer = encode(incoming);
    ASSERT_EQ(Zel609(ctx_, buffer.data(), object, nullptr, 0), 0);
    expectValues(overlay(incoming, kOrigin, pixels, kOrigin), read(object, ZelNonNegative, extent));
    // The list can give the temporary object the whole extent back.
    const ZelAttribute whole[] = {
        {"zDimension", extent[2]}, {"tDimension", extent[3]}, {"bDimension", extent[4]}};
    std::vector<uint8_t> all(pixels.byteCount(), 0);
    ASSERT_EQ(Zel605(ctx_, object, all.data(), whole, 3), 0);
    expectValues(overlay(incoming, kOrigin, pixels, kOrigin), decode(ZelNonNegative, extent, all));
  }
}

TEST_F(Exchange, TemporaryRecordStaysFreeUnderTheObjectAndIsReused) {
  const Extent extent{4, 2, 1, 1, 1};
  ZelObject *object = make(Pixels(ZelNonNegative, extent, 3), ZelWorkSpace, true);
  ASSERT_EQ(object->firstChild, nullptr);
  std::vector<uint8_t> buffer(8, 0);
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), nullptr, 0), 0);
  ZelObject *record = object->firstChild;
  expectOneFreeRecordUnder(object);
  // The old handle of the temporary object is dead.
  EXPECT_EQ(Zel605(ctx_, record, buffer.data(), nullptr, 0), 9);
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(Zel609(ctx_, buffer.data(), object, nullptr, 0), 0);
  EXPECT_EQ(object->firstChild, record);
  expectOneFreeRecordUnder(object);
  // The next derivation from the object takes the record.
  ZelObject *child = Zel000b(ctx_, nullptr, object, nullptr, 0);
  EXPECT_EQ(child, record);
}

// ---- Tuples -----------------------------------------------------------------------------------

void expectTupleShape(ZelContext *ctx, ZelObject *tuple, int entries, int dataType) {
  ASSERT_NE(tuple, nullptr);
  EXPECT_EQ(Zel097(ctx, tuple), &ZelClassTuple);
  EXPECT_EQ(readAttribute(ctx, tuple, "entries"), entries);
  EXPECT_EQ(readAttribute(ctx, tuple, "dataType"), dataType);
  EXPECT_EQ(readAttribute(ctx, tuple, "repository"), ZelWorkSpace);
}

TEST_F(Exchange, FiveWordsRoundTripThroughATuple) {
  const int32_t words[][5] = {{1, -2, 3, -4, 5},
                              {INT32_MIN, INT32_MAX, 0, -1, 65536},
                              {0, 0, 0, 0, 0},
                              {INT32_MAX, INT32_MAX - 1, INT32_MIN + 1, 255, -256}};
  for (const auto &w : words) {
    ZelObject *tuple = Zel000p(ctx_, w[0], w[1], w[2], w[3], w[4]);
    expectTupleShape(ctx_, tuple, 5, ZelWord);
    EXPECT_EQ(readAttribute(ctx_, tuple, "dataPrecision"), 32);
    int32_t out[5] = {7, 7, 7, 7, 7};
    ASSERT_EQ(Zel000q(ctx_, tuple, &out[0], &out[1], &out[2], &out[3], &out[4]), 0);
    EXPECT_EQ(std::vector<int32_t>(out, out + 5), std::vector<int32_t>(w, w + 5));
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(Exchange, UpToFourWordsRoundTripThroughATuple) {
  const int32_t words[4] = {INT32_MIN, -7, INT32_MAX, 42};
  for (int count = 0; count <= 4; ++count) {
    SCOPED_TRACE(count);
    ZelObject *tuple = Zel000p2(ctx_, words, count);
    expectTupleShape(ctx_, tuple, count, ZelWord);
    std::vector<int32_t> out(4, 99);
    ASSERT_EQ(Zel000q2(ctx_, tuple, out.data(), count), 0);
    for (int i = 0; i < 4; ++i)
      EXPECT_EQ(out[static_cast<size_t>(i)], i < count ? words[i] : 99) << i;
  }
  // No words need no array.
  expectTupleShape(ctx_, Zel000p2(ctx_, nullptr, 0), 0, ZelWord);
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(Exchange, ReadingFewerWordsThanTheTupleHoldsCopiesOnlyThose) {
  const int32_t words[4] = {11, -22, 33, -44};
  ZelObject *tuple = Zel000p2(ctx_, words, 4);
  ASSERT_NE(tuple, nullptr);
  for (int count = -3; count <= 4; ++count) {
    SCOPED_TRACE(count);
    std::vector<int32_t> out(4, 99);
    ASSERT_EQ(Zel000q2(ctx_, tuple, out.data(), count), 0);
    for (int i = 0; i < 4; ++i)
      EXPECT_EQ(out[static_cast<size_t>(i)], i < count ? words[i] : 99) << i;
  }
  // Nothing to copy needs no place to copy to.
  EXPECT_EQ(Zel000q2(ctx_, tuple, nullptr, 0), 0);
  EXPECT_EQ(Zel000q2(ctx_, tuple, nullptr, -1), 0);
}

TEST_F(Exchange, ReadingNoWordsStillReadsTheTuple) {
  // The tuple is looked at even when nothing is copied: a dead one and a long one are refused.
  ZelObject *longTuple = Zel000p(ctx_, 1, 2, 3, 4, 5);
  ZelObject *dead = Zel000p2(ctx_, nullptr, 0);
  ASSERT_TRUE(longTuple && dead);
  ASSERT_EQ(Zel002(ctx_, dead), 0);
  int32_t out = 99;
  for (int count : {0, -1}) {
    expectRefused(Zel000q2(ctx_, dead, &out, count), 9);
    expectRefused(Zel000q2(ctx_, longTuple, &out, count), 18);
  }
  EXPECT_EQ(out, 99);
}

TEST_F(Exchange, MoreThanFourWordsAreOutOfRange) {
  const int32_t words[6] = {1, 2, 3, 4, 5, 6};
  for (int count : {5, 6, 1000}) {
    SCOPED_TRACE(count);
    EXPECT_EQ(Zel000p2(ctx_, words, count), nullptr);
    expectLastError(18);
    ZelObject *tuple = Zel000p2(ctx_, words, 4);
    ASSERT_NE(tuple, nullptr);
    int32_t out[6] = {0, 0, 0, 0, 0, 0};
    expectRefused(Zel000q2(ctx_, tuple, out, count), 18);
    EXPECT_EQ(std::vector<int32_t>(out, out + 6), std::vector<int32_t>(6, 0));
  }
  // Words from nowhere are refused too.
  EXPECT_EQ(Zel000p2(ctx_, nullptr, 2), nullptr);
  expectLastError(18);
}

TEST_F(Exchange, NegativeCountsMakeNoTuple) {
  const int32_t words[4] = {1, 2, 3, 4};
  for (int count : {-1, -2, -1000}) {
    SCOPED_TRACE(count);
    EXPECT_EQ(Zel000p2(ctx_, words, count), nullptr);
    expectLastError(18);
    EXPECT_EQ(Zel000o(ctx_, words, count, ZelWord), nullptr);
    expectLastError(18);
  }
}

TEST_F(Exchange, TuplesLongerThanTheReadersAreRefusedAndNothingIsWritten) {
  const int32_t six[6] = {1, 2, 3, 4, 5, 6};
  ZelObject *sixWords = Zel000o(ctx_, six, 6, ZelWord);
  ZelObject *fiveWords = Zel000p(ctx_, 1, 2, 3, 4, 5);
  // Byte tuples longer than the readers' arrays, too.
  const uint8_t bytes[21] = {};
  ZelObject *manyBytes = Zel000o(ctx_, bytes, 21, ZelNonNegative);
  ASSERT_TRUE(sixWords && fiveWords && manyBytes);

  int32_t out[5] = {-9, -9, -9, -9, -9};
  const std::vector<int32_t> untouched(5, -9);
  for (ZelObject *tuple : {sixWords, manyBytes}) {
    expectRefused(Zel000q(ctx_, tuple, &out[0], &out[1], &out[2], &out[3], &out[4]), 18);
    EXPECT_EQ(std::vector<int32_t>(out, out + 5), untouched);
  }
  for (ZelObject *tuple : {sixWords, fiveWords, manyBytes}) {
    expectRefused(Zel000q2(ctx_, tuple, out, 4), 18);
    EXPECT_EQ(std::vector<int32_t>(out, out + 5), untouched);
  }
}

TEST_F(Exchange, MissingPlacesForTheWordsAreOutOfRange) {
  ZelObject *tuple = Zel000p(ctx_, 1, 2, 3, 4, 5);
  ASSERT_NE(tuple, nullptr);
  for (int missing = 0; missing < 5; ++missing) {
    SCOPED_TRACE(missing);
    int32_t out[5] = {0, 0, 0, 0, 0};
    int32_t *places[5] = {&out[0], &out[1], &out[2], &out[3], &out[4]};
    places[missing] = nullptr;
    expectRefused(Zel000q(ctx_, tuple, places[0], places[1], places[2], places[3], places[4]), 18);
    EXPECT_EQ(std::vector<int32_t>(out, out + 5), std::vector<int32_t>(5, 0));
  }
  ZelObject *empty = Zel000p2(ctx_, nullptr, 0);
  ASSERT_NE(empty, nullptr);
  expectRefused(Zel000q2(ctx_, empty, nullptr, 1), 18);
}

TEST_F(Exchange, TupleFromAnArrayReadsElementsOfTheGivenType) {
  const std::vector<float> reals{-1.5f, 0.0f, 3.25f, 1e6f};
  const std::vector<int16_t> signeds{-32768, 32767, -1, 0, 1234, 7};
  const std::vector<uint8_t> bytes{0, 255, 128};
  const std::vector<int32_t> words{INT32_MIN, 5};
  const std::vector<uint8_t> bits{0xB5, 0x80};  // nine pixels: 1 0 1 1 0 1 0 1 1
  struct Case {
    int type;
    const void *array;
    int entries;
    size_t bytes;
    int precision;
  };
  const Case cases[] = {
      {ZelReal, reals.data(), 4, 16, 32},      {ZelSigned, signeds.data(), 6, 12, 16},
      {ZelNonNegative, bytes.data(), 3, 3, 8}, {ZelWord, words.data(), 2, 8, 32},
      {ZelBoolean, bits.data(), 9, 2, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(typeName(c.type));
    ZelObject *tuple = Zel000o(ctx_, c.array, c.entries, c.type);
    expectTupleShape(ctx_, tuple, c.entries, c.type);
    EXPECT_EQ(readAttribute(ctx_, tuple, "dataPrecision"), c.precision);
    const auto *first = static_cast<const uint8_t *>(c.array);
    const std::vector<uint8_t> given(first, first + c.bytes);
    // Exported again as it stands, the tuple gives back the array.
    std::vector<uint8_t> back(c.bytes, 0);
    ASSERT_EQ(Zel605(ctx_, tuple, back.data(), nullptr, 0), 0);
    EXPECT_EQ(back, given);
    EXPECT_EQ(objects_->bytes(tuple, c.bytes), given);
  }
  // A Signed tuple exported as bytes is clamped on the way.
  ZelObject *tuple = Zel000o(ctx_, signeds.data(), 6, ZelSigned);
  std::vector<uint8_t> clamped(6, 9);
  const ZelAttribute list[] = {{"dataType", ZelNonNegative}};
  ASSERT_EQ(Zel605(ctx_, tuple, clamped.data(), list, 1), 0);
  EXPECT_EQ(clamped, (std::vector<uint8_t>{0, 255, 0, 0, 255, 7}));
  EXPECT_EQ(Zel003b(ctx_), 0);
}

// ---- Bad input --------------------------------------------------------------------------------

TEST_F(Exchange, DeadObjectsAreInvalidInstancesAndNothingChanges) {
  setting("matchPointState", 1);
  const Extent volume{4, 3, 2, 1, 1}, plane{4, 3, 1, 1, 1};
  std::mt19937 rng(16);
  const Pixels before = randomPixels(rng, ZelNonNegative, volume);
  const Pixels planeBefore = randomPixels(rng, ZelNonNegative, plane);
  ZelObject *big = make(before, ZelFile, true, {1, 1, 0, 0, 0});
  ZelObject *live = make(planeBefore, ZelWorkSpace, true, {2, 0, 0, 0, 0});
  ZelObject *dead = make(Pixels(ZelNonNegative, plane), ZelWorkSpace, true);
  ASSERT_EQ(Zel002(ctx_, dead), 0);
  ZelObject *tuple = Zel000p(ctx_, 1, 2, 3, 4, 5);
  ASSERT_EQ(Zel002(ctx_, tuple), 0);
  const MatchPoints points = matchPoints(big, live);

  expectRefused(Zel600(ctx_, dead, big, 1, 0, 0), 9);
  expectRefused(Zel600(ctx_, live, dead, 0, 0, 0), 9);
  expectRefused(Zel603(ctx_, big, dead, 1, 0, 0), 9);
  expectRefused(Zel603(ctx_, dead, live, 0, 0, 0), 9);
  EXPECT_EQ(state("matchPointState"), 1);
  EXPECT_EQ(matchPoints(big, live), points);
  expectValues(before, read(big, ZelNonNegative, volume));
  expectValues(planeBefore, read(live, ZelNonNegative, plane));

  std::vector<uint8_t> buffer(12, 0x5A);
  expectRefused(Zel605(ctx_, dead, buffer.data(), nullptr, 0), 9);
  expectRefused(Zel609(ctx_, buffer.data(), dead, nullptr, 0), 9);
  EXPECT_EQ(buffer, std::vector<uint8_t>(12, 0x5A));
  EXPECT_EQ(dead->firstChild, nullptr);

  int32_t out[5] = {-1, -1, -1, -1, -1};
  expectRefused(Zel000q(ctx_, tuple, &out[0], &out[1], &out[2], &out[3], &out[4]), 9);
  expectRefused(Zel000q2(ctx_, tuple, out, 3), 9);
  EXPECT_EQ(std::vector<int32_t>(out, out + 5), std::vector<int32_t>(5, -1));
  expectNoStreamOpen({big, live});
}

TEST_F(Exchange, BadContextIsRefusedAndNothingIsTouched) {
  const Extent plane{4, 2, 1, 1, 1};
  const Pixels pixels(ZelNonNegative, plane, 6);
  ZelObject *a = make(pixels, ZelWorkSpace, true);
  ZelObject *b = make(Pixels(ZelNonNegative, plane, 1), ZelWorkSpace, true);
  ZelObject *tuple = Zel000p(ctx_, 1, 2, 3, 4, 5);
  ASSERT_TRUE(a && b && tuple);
  int notAContext = 0;
  const int32_t words[2] = {1, 2};
  std::vector<uint8_t> buffer(8, 3);
  int32_t out[5] = {-1, -1, -1, -1, -1};
  // A context the application abandoned counts as bad as well.
  ZelContext *abandoned = Zel004(nullptr);
  ASSERT_NE(abandoned, nullptr);
  ASSERT_EQ(Zel008a(abandoned, "operationalState", ZelClosed), 0);

  for (ZelContext *bad : {static_cast<ZelContext *>(nullptr),
                          reinterpret_cast<ZelContext *>(&notAContext), abandoned}) {
    EXPECT_EQ(Zel600(bad, a, b, 0, 0, 0), 24);
    EXPECT_EQ(Zel603(bad, a, b, 0, 0, 0), 24);
    EXPECT_EQ(Zel605(bad, a, buffer.data(), nullptr, 0), 24);
    EXPECT_EQ(Zel609(bad, buffer.data(), a, nullptr, 0), 24);
    EXPECT_EQ(Zel000o(bad, words, 2, ZelWord), nullptr);
    EXPECT_EQ(Zel000p(bad, 1, 2, 3, 4, 5), nullptr);
    EXPECT_EQ(Zel000p2(bad, words, 2), nullptr);
    EXPECT_EQ(Zel000q(bad, tuple, &out[0], &out[1], &out[2], &out[3], &out[4]), 24);
    EXPECT_EQ(Zel000q2(bad, tuple, out, 2), 24);
  }
  EXPECT_EQ(notAContext, 0);
  EXPECT_EQ(buffer, std::vector<uint8_t>(8, 3));
  EXPECT_EQ(std::vector<int32_t>(out, out + 5), std::vector<int32_t>(5, -1));
  expectValues(pixels, read(a, ZelNonNegative, plane));
  expectValues(Pixels(ZelNonNegative, plane, 1), read(b, ZelNonNegative, plane));
  EXPECT_EQ(a->firstChild, nullptr);
  EXPECT_EQ(Zel003b(ctx_), 0);
  // The application takes the abandoned context back only to release it.
  abandoned->operationalState = ZelOpen;
  EXPECT_EQ(Zel001(abandoned), 0);
}

TEST_F(Exchange, ExchangeWithoutBufferOrWithABadListIsOutOfRange) {
  const Extent extent{4, 2, 1, 1, 1};
  const Pixels pixels(ZelNonNegative, extent, 4);
  ZelObject *object = make(pixels, ZelWorkSpace, true);
  std::vector<uint8_t> buffer(8, 3);
  const ZelAttribute list[] = {{"dataType", ZelSigned}};
  struct Bad {
    const char *what;
    void *buffer;
    const ZelAttribute *list;
    int count;
  };
  const Bad cases[] = {{"no buffer", nullptr, nullptr, 0},
                       {"no buffer with a list", nullptr, list, 1},
                       {"negative count", buffer.data(), list, -1},
                       {"negative count without list", buffer.data(), nullptr, -5},
                       {"no list for the count", buffer.data(), nullptr, 1}};
  for (const Bad &bad : cases) {
    SCOPED_TRACE(bad.what);
    expectRefused(Zel605(ctx_, object, bad.buffer, bad.list, bad.count), 18);
    expectRefused(Zel609(ctx_, bad.buffer, object, bad.list, bad.count), 18);
  }
  EXPECT_EQ(buffer, std::vector<uint8_t>(8, 3));
  expectValues(pixels, read(object, ZelNonNegative, extent));
  // No temporary object was ever made.
  EXPECT_EQ(object->firstChild, nullptr);
}

TEST_F(Exchange, FailedAllocationsAreReportedAndLeaveNothingBehind) {
  // Each allocation of an export and an import fails in turn: the list, the temporary record,
  // the frames and streams of the copy. Each failure is -1, with buffer and object untouched.
  const Extent extent{5, 3, 1, 1, 1};
  std::mt19937 rng(17);
  for (int repository : {ZelWorkSpace, ZelFile}) {
    for (bool isExport : {true, false}) {
      SCOPED_TRACE(repositoryName(repository) + (isExport ? " export" : " import"));
      const Pixels pixels = randomPixels(rng, ZelSigned, extent);
      const Pixels incoming = randomPixels(rng, ZelSigned, extent);
      ZelObject *object = make(pixels, repository, true);
      ASSERT_NE(object, nullptr);
      int failures = 0;
      for (long successes = 0; successes < 100; ++successes) {
        std::vector<uint8_t> buffer = encode(incoming);
        zel::testing::failAllocationAfter(successes);
        const int result = isExport ? Zel605(ctx_, object, buffer.data(), nullptr, 0)
                                    : Zel609(ctx_, buffer.data(), object, nullptr, 0);
        zel::testing::failAllocationAfter(-1);
        if (result == 0) {
          expectValues(isExport ? pixels : incoming, isExport ? decode(ZelSigned, extent, buffer)
                                                              : read(object, ZelSigned, extent));
          break;
        }
        ++failures;
        expectRefused(result, -1);
        EXPECT_EQ(buffer, encode(incoming)) << successes;
        expectValues(pixels, read(object, ZelSigned, extent));
        expectNoStreamOpen({object});
        // No temporary object survives a failure.
        for (ZelObject *child = object->firstChild; child; child = child->nextSibling)
          EXPECT_EQ(child->inUse, 0);
      }
      // The list, the record and at least one frame.
      EXPECT_GE(failures, 3);
      ASSERT_EQ(Zel002(ctx_, object), 0);
    }
  }
}

TEST_F(Exchange, RefusedDerivationGivesTheCodeOfTheFailure) {
  // With the list in hand, the very next allocation is the temporary object's record.
  const Extent extent{3, 1, 1, 1, 1};
  ZelObject *object = make(Pixels(ZelNonNegative, extent, 8), ZelWorkSpace, true);
  ASSERT_EQ(object->firstChild, nullptr);
  std::vector<uint8_t> buffer(3, 1);
  zel::testing::failAllocationAfter(1);
  const int result = Zel605(ctx_, object, buffer.data(), nullptr, 0);
  zel::testing::failAllocationAfter(-1);
  expectRefused(result, -1);
  EXPECT_EQ(object->firstChild, nullptr);
  EXPECT_EQ(buffer, std::vector<uint8_t>(3, 1));
  // Once memory is back, the same export works.
  ASSERT_EQ(Zel605(ctx_, object, buffer.data(), nullptr, 0), 0);
  EXPECT_EQ(buffer, std::vector<uint8_t>(3, 8));
}

}  // namespace
