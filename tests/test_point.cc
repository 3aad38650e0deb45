// Point operators: table lookup, arithmetic and logic against a tagged scalar, threshold,
// complement, blend and fold. Every operation on every pixel type it takes, in each repository,
// with match points and regions of interest, against a reference computed here from the
// definitions of the operations; the documented wrap-arounds, saturations and untouched pixels;
// the type rules, the checks of pixel widths, and bad handles.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

// The largest saturation of the colour adjustment, 2 / sqrt(6).
constexpr double kSaturationLimit = 0.8164965809277261;
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// ---- Pixels of any type -------------------------------------------------------------------------

int elementBits(int type) {
  switch (type) {
    case ZelBoolean:
      return 1;
    case ZelNonNegative:
      return 8;
    case ZelSigned:
      return 16;
    default:  // Real and Word
      return 32;
  }
}

// The pixels of one object of any type, one value a pixel, in the order of the data.
struct Picture {
  int type = ZelNonNegative;
  Extent extent{1, 1, 1, 1, 1};
  std::vector<double> values;

  Picture() = default;
  Picture(int t, const Extent &e, double fill = 0)
      : type(t), extent(e), values(static_cast<size_t>(pixelCount(e)), fill) {}
  Picture(int t, const Extent &e, std::vector<double> v)
      : type(t), extent(e), values(std::move(v)) {}

  Image shape() const {
    Image image;
    image.extent = extent;
    return image;
  }
  double &operator[](const Extent &at) { return values[shape().offset(at)]; }
  double operator[](const Extent &at) const { return values[shape().offset(at)]; }
  size_t totalBytes() const {
    return (values.size() * static_cast<size_t>(elementBits(type)) + 7) / 8;
  }
};

Picture rowPicture(int type, std::vector<double> values) {
  const Extent extent{static_cast<int>(values.size()), 1, 1, 1, 1};
  return Picture(type, extent, std::move(values));
}

template <class T>
void putElement(uint8_t *at, double value) {
  const T element = static_cast<T>(value);
  std::memcpy(at, &element, sizeof element);
}

template <class T>
double element(const uint8_t *at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return static_cast<double>(value);
}

// The bytes of the data: Boolean rows packed from the most significant bit, wider elements in
// the host's byte order.
std::vector<uint8_t> encode(const Picture &picture) {
  if (picture.type == ZelBoolean) {
    Image bits(picture.extent, true);
    for (size_t i = 0; i < picture.values.size(); ++i)
      bits.pixels[i] = static_cast<uint8_t>(picture.values[i] != 0 ? 1 : 0);
    return pack(bits);
  }
  std::vector<uint8_t> bytes(picture.totalBytes(), 0);
  const size_t width = static_cast<size_t>(elementBits(picture.type) / 8);
  for (size_t i = 0; i < picture.values.size(); ++i) {
    uint8_t *at = bytes.data() + i * width;
    switch (picture.type) {
      case ZelNonNegative:
        putElement<uint8_t>(at, picture.values[i]);
        break;
      case ZelSigned:
        putElement<int16_t>(at, picture.values[i]);
        break;
      case ZelReal:
        putElement<float>(at, picture.values[i]);
        break;
      default:
        putElement<int32_t>(at, picture.values[i]);
        break;
    }
  }
  return bytes;
}

Picture decode(int type, const Extent &extent, const std::vector<uint8_t> &bytes) {
  Picture picture(type, extent);
  if (bytes.size() < picture.totalBytes()) {
    ADD_FAILURE() << "the object holds " << bytes.size() << " bytes, not " << picture.totalBytes();
    return picture;
  }
  if (type == ZelBoolean) {
    Image bits = unpack(extent, true, bytes.data());
    std::copy(bits.pixels.begin(), bits.pixels.end(), picture.values.begin());
    return picture;
  }
  const size_t width = static_cast<size_t>(elementBits(type) / 8);
  for (size_t i = 0; i < picture.values.size(); ++i) {
    const uint8_t *at = bytes.data() + i * width;
    switch (type) {
      case ZelNonNegative:
        picture.values[i] = element<uint8_t>(at);
        break;
      case ZelSigned:
        picture.values[i] = element<int16_t>(at);
        break;
      case ZelReal:
        picture.values[i] = element<float>(at);
        break;
      default:
        picture.values[i] = element<int32_t>(at);
        break;
    }
  }
  return picture;
}

// Random pixels of the type, with the values that matter to the operations mixed in: zeros,
// the ends of the range, and for Real pixels small integers and the saturation limit.
Picture randomPicture(std::mt19937 &rng, int type, const Extent &extent) {
  Picture picture(type, extent);
  if (type == ZelBoolean || type == ZelNonNegative) {
    const Image image = randomImage(rng, extent, type == ZelBoolean);
    std::copy(image.pixels.begin(), image.pixels.end(), picture.values.begin());
    return picture;
  }
  static const double signedSpecials[] = {0, -1, 1, -32768, 32767, 0, 2, -2};
  for (double &value : picture.values) {
    const uint32_t r = static_cast<uint32_t>(rng());
    if (type == ZelSigned) {
      value = (r & 7) == 0 ? signedSpecials[(r >> 3) & 7] : static_cast<int16_t>(r >> 16);
      continue;
    }
    switch (r & 7) {
      case 0:
        value = 0;
        break;
      case 1:
        value = static_cast<float>(kSaturationLimit);
        break;
      case 2:
        value = static_cast<double>((r >> 8) % 7) - 3;
        break;
      default:
        value = static_cast<float>(static_cast<double>((r >> 8) & 0xFFFFF) / 1048576.0 * 5.0 - 2.5);
        break;
    }
  }
  return picture;
}

bool samePixel(double expected, double actual) {
  return expected == actual || (std::isnan(expected) && std::isnan(actual));
}

void expectPicture(const Picture &expected, const Picture &actual) {
  ASSERT_EQ(expected.values.size(), actual.values.size());
  size_t differences = 0;
  std::string detail;
  const Image shape = expected.shape();
  for (size_t i = 0; i < expected.values.size(); ++i) {
    if (samePixel(expected.values[i], actual.values[i])) continue;
    if (differences++ < 6)
      detail += " " + describe(shape, i) + " expected " + std::to_string(expected.values[i]) +
                " got " + std::to_string(actual.values[i]) + ";";
  }
  EXPECT_EQ(differences, 0u) << "of " << expected.values.size() << " pixels:" << detail;
}

// ---- The region of work -------------------------------------------------------------------------

// One object as the walk sees it: its extent, the match point in force and the mask in force.
struct Placed {
  Extent extent;
  Extent match = kOrigin;
  const Image *mask = nullptr;
};

using Visit = std::function<void(const Extent &at, const std::vector<Extent> &from)>;

// Visits every destination pixel where the objects overlap after their match points are laid
// over each other and every mask in force is nonzero, with the matching index in each source.
void forEachAdmitted(const std::vector<Placed> &sources, const Placed &destination,
                     const Visit &visit) {
  Extent first{}, last{};
  for (int axis = 0; axis < 5; ++axis) {
    first[axis] = 0;
    last[axis] = destination.extent[axis] - 1;
    for (const Placed &source : sources) {
      const int shift = destination.match[axis] - source.match[axis];
      first[axis] = std::max(first[axis], shift);
      last[axis] = std::min(last[axis], source.extent[axis] + shift - 1);
    }
    if (first[axis] > last[axis]) return;
  }
  std::vector<Extent> from(sources.size());
  forEachPixel(first, last, [&](const Extent &at) {
    if (destination.mask && (*destination.mask)[at] == 0) return;
    for (size_t s = 0; s < sources.size(); ++s) {
      for (int axis = 0; axis < 5; ++axis)
        from[s][axis] = at[axis] + sources[s].match[axis] - destination.match[axis];
      if (sources[s].mask && (*sources[s].mask)[from[s]] == 0) return;
    }
    visit(at, from);
  });
}

// ---- Tagged scalars and the reference results ---------------------------------------------------

ZelScalar realScalar(double value) {
  ZelScalar scalar{};
  scalar.tag = ZelReal;
  scalar.v.d = value;
  return scalar;
}

ZelScalar integerScalar(int64_t value, int32_t tag = ZelSigned) {
  ZelScalar scalar{};
  scalar.tag = tag;
  scalar.v.i = value;
  return scalar;
}

std::string describeScalar(const ZelScalar &scalar) {
  if (scalar.tag == ZelReal) return "Real " + std::to_string(scalar.v.d);
  return "tag " + std::to_string(scalar.tag) + " integer " + std::to_string(scalar.v.i);
}

// The integer that a scalar stands for: a Real-tagged double truncated toward zero and held to
// the 32-bit range (not-a-number counts as 0), otherwise the low 32 bits of the integer.
int32_t scalarInteger(const ZelScalar &scalar) {
  if (scalar.tag != ZelReal)
    return static_cast<int32_t>(static_cast<uint32_t>(scalar.v.i & 0xFFFFFFFF));
  if (std::isnan(scalar.v.d)) return 0;
  return static_cast<int32_t>(std::clamp(std::trunc(scalar.v.d), -2147483648.0, 2147483647.0));
}

double scalarReal(const ZelScalar &scalar) {
  return scalar.tag == ZelReal ? scalar.v.d : scalarInteger(scalar);
}

// The 32-bit two's-complement value of a result computed wider.
int32_t wrapped(int64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value & 0xFFFFFFFF));
}

// One NonNegative or Signed pixel against the scalar v, or nothing when the pixel stays.
std::optional<double> integerAgainstScalar(int operation, int32_t p, int32_t v, bool isSigned) {
  const int32_t low = isSigned ? -32768 : 0, high = isSigned ? 32767 : 255;
  auto limit = [&](int32_t r) { return static_cast<double>(std::clamp(r, low, high)); };
  // Logic keeps the pixel's own width and isn't limited.
  auto ownWidth = [&](int32_t bits) {
    const int32_t r = bits & (isSigned ? 0xFFFF : 0xFF);
    return static_cast<double>(isSigned && r > 32767 ? r - 65536 : r);
  };
  const int64_t wp = p, wv = v;
  switch (operation) {
    case ZelAdd:
      return limit(wrapped(wp + wv));
    case ZelAverage:
      return limit(wrapped(wp + wv) >> 1);
    case ZelDivideByScalar:
      if (v == 0) return std::nullopt;
      return limit(wrapped(wp / wv));
    case ZelDivideScalarBy:
      if (p == 0) return std::nullopt;
      return limit(wrapped(wv / wp));
    case ZelAnd:
      return ownWidth(p & v);
    case ZelNand:
      return ownWidth(~(p & v));
    case ZelNor:
      return ownWidth(~(p | v));
    case ZelOr:
      return ownWidth(p | v);
    case ZelXor:
      return ownWidth(p ^ v);
    case ZelMaximum:
      return limit(std::max(p, v));
    case ZelMinimum:
      return limit(std::min(p, v));
    case ZelMultiply:
      return limit(wrapped(wp * wv));
    case ZelSubtractScalar:
      return limit(wrapped(wp - wv));
    case ZelHalfSubtractScalar:
      return limit(wrapped(wp - wv) >> 1);
    case ZelSubtractFromScalar:
      return limit(wrapped(wv - wp));
    case ZelHalfSubtractFromScalar:
      return limit(wrapped(wv - wp) >> 1);
    default:
      return std::nullopt;
  }
}

// One Real pixel against the scalar v, computed in double and stored in float.
std::optional<double> realAgainstScalar(int operation, double p, double v) {
  double r = 0;
  switch (operation) {
    case ZelAdd:
    case ZelSaturationAdd:
      r = p + v;
      break;
    case ZelAverage:
      r = (p + v) * 0.5;
      break;
    case ZelDivideByScalar:
      if (v == 0) return std::nullopt;
      r = p / v;
      break;
    case ZelDivideScalarBy:
      if (p == 0) return std::nullopt;
      r = v / p;
      break;
    case ZelMaximum:
      r = std::max(p, v);
      break;
    case ZelMinimum:
      r = std::min(p, v);
      break;
    case ZelMultiply:
      r = p * v;
      break;
    case ZelSubtractScalar:
    case ZelSaturationSubtract:
      r = p - v;
      break;
    case ZelHalfSubtractScalar:
      r = (p - v) * 0.5;
      break;
    case ZelSubtractFromScalar:
      r = v - p;
      break;
    case ZelHalfSubtractFromScalar:
      r = (v - p) * 0.5;
      break;
    case ZelSaturationFall:
      if (p == 0 || v == 1) {
        r = 0;
      } else {
        r = std::pow(p, 1 / (1 - v));
        if (r < 0) r = 0;
      }
      break;
    case ZelSaturationRise:
      if (p == 0) {
        r = 0;
      } else if (p == kSaturationLimit) {
        r = kSaturationLimit;
      } else {
        r = std::pow(p, 1 - v * 2 / 3) * kSaturationLimit;
        if (r > kSaturationLimit) r = kSaturationLimit;
      }
      break;
    default:
      return std::nullopt;
  }
  return static_cast<double>(static_cast<float>(r));
}

// One Boolean pixel against the one-bit scalar v: the logic rows only.
std::optional<double> bitAgainstScalar(int operation, bool p, bool v) {
  switch (operation) {
    case ZelAnd:
      return p && v;
    case ZelNand:
      return !(p && v);
    case ZelNor:
      return !(p || v);
    case ZelOr:
      return p || v;
    case ZelXor:
      return p != v;
    default:
      return std::nullopt;
  }
}

std::optional<double> scalarResult(int type, int operation, double p, const ZelScalar &scalar) {
  switch (type) {
    case ZelBoolean:
      return bitAgainstScalar(operation, p != 0, scalarInteger(scalar) != 0);
    case ZelNonNegative:
    case ZelSigned:
      return integerAgainstScalar(operation, static_cast<int32_t>(p), scalarInteger(scalar),
                                  type == ZelSigned);
    default:
      return realAgainstScalar(operation, p, scalarReal(scalar));
  }
}

uint8_t scalarByte(const ZelScalar &scalar) {
  return static_cast<uint8_t>(scalarInteger(scalar) & 0xFF);
}

// The blend in the machine's 32-bit arithmetic: only bits 8 to 15 of the sum reach the byte.
uint8_t blended(double a, double b, double weight) {
  const ZelScalar weightA = realScalar(weight * 256), weightB = realScalar((1 - weight) * 256);
  const uint32_t sum = static_cast<uint32_t>(a) * static_cast<uint32_t>(scalarInteger(weightA)) +
                       static_cast<uint32_t>(b) * static_cast<uint32_t>(scalarInteger(weightB)) +
                       128u;
  return static_cast<uint8_t>((sum >> 8) & 0xFF);
}

// ---- Layouts and scenarios of the reference tests -----------------------------------------------

struct Layout {
  const char *name;
  std::array<int, 2> sources;
  int destination;
  std::array<int, 3> masks;  // of the sources, then of the destination
};

const Layout kLayouts[] = {
    {"WorkSpace",
     {ZelWorkSpace, ZelWorkSpace},
     ZelWorkSpace,
     {ZelWorkSpace, ZelApplicationAddressSpace, ZelWorkSpace}},
    {"ApplicationMemory",
     {ZelApplicationAddressSpace, ZelApplicationAddressSpace},
     ZelApplicationAddressSpace,
     {ZelApplicationAddressSpace, ZelApplicationAddressSpace, ZelApplicationAddressSpace}},
    {"File", {ZelFile, ZelFile}, ZelFile, {ZelFile, ZelWorkSpace, ZelFile}},
    {"Mixed",
     {ZelFile, ZelWorkSpace},
     ZelApplicationAddressSpace,
     {ZelApplicationAddressSpace, ZelFile, ZelWorkSpace}},
};

struct Scenario {
  const char *name;
  bool freshDestination;
  bool matchPoints;  // the objects carry match points
  bool regions;      // the objects carry regions of interest
  bool honoured;     // the context's matchPointState and roiState are on
};

const Scenario kScenarios[] = {
    {"FreshDestination", true, false, false, true},
    {"MatchPoints", false, true, false, true},
    {"MatchPointsAndRegions", false, true, true, true},
    {"MatchPointsAndRegionsIgnored", false, true, true, false},
};

const Extent kSourceExtents[2] = {{21, 5, 2, 1, 2}, {20, 7, 2, 1, 1}};
const Extent kSourceMatches[2] = {{2, 1, 0, 0, 1}, {0, 3, 1, 0, 0}};
const Extent kDestinationExtent{19, 6, 2, 1, 2};
const Extent kDestinationMatch{3, 0, 1, 0, 0};

using Call = std::function<int(const std::vector<ZelObject *> &sources, ZelObject *destination)>;
using Rule = std::function<std::optional<double>(const std::vector<double> &sources)>;

// One run of an operator: the call, and the pixel it gives from the source pixels, or nothing
// when the destination pixel stays as it was.
struct Variant {
  std::string name;
  Call call;
  Rule rule;
};

// ---- The fixture --------------------------------------------------------------------------------

class PointOperators : public OperatorFixture {
 protected:
  // An object holding `picture` in `repository`; `create` picks the class. Work space and files
  // get their pixels through an import from application memory.
  ZelObject *make(const Picture &picture, int repository, bool withData,
                  const Extent &match = kOrigin, Wrapper create = Zel000b) {
    ZelObject *object = objects_->make(Image(picture.extent, picture.type == ZelBoolean),
                                       repository, false, match, create);
    if (!object) return nullptr;
    if (picture.type != ZelBoolean && picture.type != ZelNonNegative) {
      EXPECT_EQ(Zel006a(ctx_, object, "dataType", picture.type), 0);
    }
    // The context has no precision for Word data: the object states its own.
    if (picture.type == ZelWord) {
      EXPECT_EQ(Zel006a(ctx_, object, "dataPrecision", 32), 0);
    }
    const std::vector<uint8_t> bytes = encode(picture);
    if (repository == ZelApplicationAddressSpace) {
      std::vector<uint8_t> &block = memory_[object];
      block = withData ? bytes : std::vector<uint8_t>(bytes.size(), 0);
      EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(block.data())), 0);
    } else if (withData) {
      EXPECT_EQ(Zel609(ctx_, const_cast<uint8_t *>(bytes.data()), object, nullptr, 0), 0)
          << Zel003b(ctx_);
      EXPECT_EQ(rawBytes(object, bytes.size()), bytes) << "the pixels didn't arrive";
    }
    return object;
  }

  ZelObject *row(int type, std::vector<double> values,
                 int repository = ZelApplicationAddressSpace) {
    return make(rowPicture(type, std::move(values)), repository, true);
  }

  // A row in application memory whose pixels have `precision` bits in a generous block.
  ZelObject *rowWithPrecision(int type, int precision, int width, Wrapper create = Zel000b) {
    ZelObject *object = make(Picture(type, {width, 1, 1, 1, 1}), ZelApplicationAddressSpace, false,
                             kOrigin, create);
    if (!object) return nullptr;
    std::vector<uint8_t> &block = memory_[object];
    block.assign(static_cast<size_t>(width) * 8 + 8, 0x5A);
    EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(block.data())), 0);
    EXPECT_EQ(Zel006a(ctx_, object, "dataPrecision", precision), 0);
    return object;
  }

  // A LookupTable of `lines` lines of entries of `type`.
  ZelObject *table(int type, const std::vector<double> &entries, int repository = ZelWorkSpace,
                   int lines = 1) {
    const Extent extent{static_cast<int>(entries.size()) / lines, 1, 1, 1, lines};
    return make(Picture(type, extent, entries), repository, true, kOrigin, Zel000e);
  }

  std::vector<uint8_t> rawBytes(ZelObject *object, size_t count) {
    if (readAttribute(ctx_, object, "repository") == ZelApplicationAddressSpace) {
      auto found = memory_.find(object);
      if (found != memory_.end()) {
        const std::vector<uint8_t> &block = found->second;
        return {block.begin(),
                block.begin() + static_cast<std::ptrdiff_t>(std::min(count, block.size()))};
      }
    }
    return objects_->bytes(object, count);
  }

  Picture read(ZelObject *object, int type, const Extent &extent) {
    return decode(type, extent, rawBytes(object, Picture(type, extent).totalBytes()));
  }

  std::vector<double> rowValues(ZelObject *object, int type, size_t width) {
    return read(object, type, {static_cast<int>(width), 1, 1, 1, 1}).values;
  }

  void destroy(ZelObject *object) {
    EXPECT_EQ(Zel002(ctx_, object), 0);
    memory_.erase(object);
  }

  // Runs every variant on the same random sources and a new destination, and compares the
  // destination with the reference.
  void checkAgainstReference(const std::vector<int> &sourceTypes, int destinationType,
                             const std::vector<Variant> &variants, const Layout &layout,
                             const Scenario &scenario, unsigned seed) {
    setting("matchPointState", scenario.honoured);
    setting("roiState", scenario.honoured);
    std::mt19937 rng(seed);
    std::vector<Picture> sources;
    std::vector<Image> sourceMasks;
    for (size_t i = 0; i < sourceTypes.size(); ++i) {
      sources.push_back(randomPicture(rng, sourceTypes[i], kSourceExtents[i]));
      sourceMasks.push_back(randomMask(rng, kSourceExtents[i]));
    }
    const bool shifted = scenario.matchPoints && scenario.honoured;
    const bool masked = scenario.regions && scenario.honoured;
    std::vector<ZelObject *> sourceObjects, masks;
    std::vector<Placed> placed;
    for (size_t i = 0; i < sources.size(); ++i) {
      ZelObject *object = make(sources[i], layout.sources[i], true,
                               scenario.matchPoints ? kSourceMatches[i] : kOrigin);
      ASSERT_NE(object, nullptr);
      sourceObjects.push_back(object);
      if (scenario.regions)
        masks.push_back(objects_->maskFor(object, sourceMasks[i], layout.masks[i]));
      placed.push_back({kSourceExtents[i], shifted ? kSourceMatches[i] : kOrigin,
                        masked ? &sourceMasks[i] : nullptr});
    }

    for (const Variant &variant : variants) {
      SCOPED_TRACE(variant.name);
      const Picture before = scenario.freshDestination
                                 ? Picture(destinationType, kDestinationExtent)
                                 : randomPicture(rng, destinationType, kDestinationExtent);
      const Image destinationMask = randomMask(rng, kDestinationExtent);
      ZelObject *destination = make(before, layout.destination, !scenario.freshDestination,
                                    scenario.matchPoints ? kDestinationMatch : kOrigin);
      ASSERT_NE(destination, nullptr);
      ZelObject *roi = scenario.regions
                           ? objects_->maskFor(destination, destinationMask, layout.masks[2])
                           : nullptr;

      ASSERT_EQ(variant.call(sourceObjects, destination), 0) << Zel003b(ctx_);

      Picture expected = before;
      const Placed target{kDestinationExtent, shifted ? kDestinationMatch : kOrigin,
                          masked ? &destinationMask : nullptr};
      forEachAdmitted(placed, target, [&](const Extent &at, const std::vector<Extent> &from) {
        std::vector<double> pixels;
        for (size_t s = 0; s < sources.size(); ++s)
          pixels.push_back(sources[s][from[s]]);
        if (std::optional<double> result = variant.rule(pixels)) expected[at] = *result;
      });
      expectPicture(expected, read(destination, destinationType, kDestinationExtent));
      EXPECT_EQ(readAttribute(ctx_, destination, "inited"), 1);
      expectNoStreamOpen({destination});
      destroy(destination);
      if (roi) destroy(roi);
    }

    // The sources are read, never written.
    for (size_t i = 0; i < sources.size(); ++i) {
      expectPicture(sources[i], read(sourceObjects[i], sourceTypes[i], kSourceExtents[i]));
      expectNoStreamOpen({sourceObjects[i]});
    }
  }

  // The operator refuses the objects with 10: nothing of the destination changes, every frame is
  // closed again.
  void expectRefused(const std::string &what, const std::function<int()> &call,
                     std::initializer_list<ZelObject *> objects, ZelObject *destination,
                     size_t destinationBytes) {
    SCOPED_TRACE(what);
    const std::vector<uint8_t> before = rawBytes(destination, destinationBytes);
    clearLastError(ctx_);
    EXPECT_EQ(call(), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    EXPECT_EQ(rawBytes(destination, destinationBytes), before);
    expectNoStreamOpen(objects);
  }

  std::map<ZelObject *, std::vector<uint8_t>> memory_;
};

// ---- Every operation against the reference ------------------------------------------------------

using TableParam = std::tuple<int, int, int>;  // pixel type, layout, scenario

class PointOperatorTable : public PointOperators, public ::testing::WithParamInterface<TableParam> {
 protected:
  int type() const { return std::get<0>(GetParam()); }
  const Layout &layout() const { return kLayouts[std::get<1>(GetParam())]; }
  const Scenario &scenario() const { return kScenarios[std::get<2>(GetParam())]; }
  unsigned seed() const {
    return 1000u * static_cast<unsigned>(std::get<0>(GetParam())) +
           100u * static_cast<unsigned>(std::get<1>(GetParam())) +
           static_cast<unsigned>(std::get<2>(GetParam()));
  }
};

std::string tableName(const ::testing::TestParamInfo<TableParam> &info) {
  return typeName(std::get<0>(info.param)) + "_" + kLayouts[std::get<1>(info.param)].name + "_" +
         kScenarios[std::get<2>(info.param)].name;
}

auto tableParams(std::initializer_list<int> types) {
  return ::testing::Combine(::testing::ValuesIn(std::vector<int>(types)),
                            ::testing::Range(0, static_cast<int>(std::size(kLayouts))),
                            ::testing::Range(0, static_cast<int>(std::size(kScenarios))));
}

// Every operation of the scalar table, a few that are no operations of it, and operation values
// that are nothing at all.
const int kScalarOperations[] = {ZelAdd,
                                 ZelAverage,
                                 ZelDivideByScalar,
                                 ZelDivideScalarBy,
                                 ZelAnd,
                                 ZelNand,
                                 ZelNor,
                                 ZelNot,
                                 ZelOr,
                                 ZelXor,
                                 ZelMaximum,
                                 ZelMinimum,
                                 ZelMultiply,
                                 ZelSubtractScalar,
                                 ZelHalfSubtractScalar,
                                 ZelSubtractFromScalar,
                                 ZelHalfSubtractFromScalar,
                                 ZelSaturationFall,
                                 ZelSaturationRise,
                                 ZelSaturationSubtract,
                                 ZelSaturationAdd,
                                 ZelAbsoluteDifference,
                                 ZelDivide,
                                 ZelSubtract,
                                 0,
                                 -1,
                                 1000};

// Scalars tagged Real and tagged otherwise, chosen for the type's range.
std::vector<ZelScalar> scalarsFor(int type) {
  switch (type) {
    case ZelBoolean:
      return {realScalar(0.5),         integerScalar(0),
              realScalar(1.0),         integerScalar(2),
              realScalar(-3.0),        integerScalar(1LL << 32),
              realScalar(-0.9),        integerScalar(-1, ZelNonNegative),
              realScalar(kNotANumber), integerScalar(1, 0)};
    case ZelReal:
      return {realScalar(0.75),
              integerScalar(3),
              realScalar(-1.5),
              integerScalar(-2, ZelNonNegative),
              realScalar(0.0),
              integerScalar(0),
              realScalar(1.0),
              integerScalar((1LL << 32) + 1, ZelReal + 1),
              realScalar(2.5),
              integerScalar(1),
              realScalar(kSaturationLimit),
              integerScalar(-5),
              realScalar(-0.0),
              integerScalar(7)};
    default:
      return {realScalar(3.9),         integerScalar(5),
              realScalar(-2.7),        integerScalar(-7, ZelNonNegative),
              realScalar(0.0),         integerScalar(0),
              realScalar(1e12),        integerScalar((1LL << 32) + 2, 0),
              realScalar(-1e12),       integerScalar(std::numeric_limits<int32_t>::min()),
              realScalar(kNotANumber), integerScalar(std::numeric_limits<int32_t>::max()),
              realScalar(200.5),       integerScalar(0xFFFFFFFFLL),
              realScalar(-40000.2),    integerScalar(300),
              realScalar(1.0),         integerScalar(70000),
              realScalar(-1.0),        integerScalar(0x12345)};
  }
}

class ScalarArithmeticAndLogic : public PointOperatorTable {};

TEST_P(ScalarArithmeticAndLogic, EveryOperationMatchesItsDefinition) {
  const int pixelType = type();
  const std::vector<ZelScalar> scalars = scalarsFor(pixelType);
  std::vector<Variant> variants;
  // Two scalars an operation, one of each tagging, taken in turn from the type's list from a
  // place that differs between layouts and scenarios, so that each operation meets them all.
  size_t next = 2 * static_cast<size_t>(std::get<1>(GetParam()) * 4 + std::get<2>(GetParam()));
  for (int operation : kScalarOperations) {
    for (int j = 0; j < 2; ++j, ++next) {
      const ZelScalar scalar = scalars[next % scalars.size()];
      ZelContext *ctx = ctx_;
      variants.push_back(
          {"operation " + std::to_string(operation) + " with " + describeScalar(scalar),
           [ctx, operation, scalar](const std::vector<ZelObject *> &sources, ZelObject *d) {
             return Zel121(ctx, sources[0], d, operation, scalar);
           },
           [pixelType, operation, scalar](const std::vector<double> &p) {
             return scalarResult(pixelType, operation, p[0], scalar);
           }});
    }
  }
  checkAgainstReference({pixelType}, pixelType, variants, layout(), scenario(), seed());
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, ScalarArithmeticAndLogic,
                         tableParams({ZelBoolean, ZelNonNegative, ZelSigned, ZelReal}), tableName);

class TableLookup : public PointOperatorTable {};

TEST_P(TableLookup, EveryPixelIsTheTableEntryAtItsValue) {
  const int destinationType = type();
  std::mt19937 rng(seed() + 7);
  std::vector<Variant> variants;
  for (int repository : {ZelWorkSpace, ZelApplicationAddressSpace, ZelFile}) {
    Picture entries = randomPicture(rng, destinationType, {256, 1, 1, 1, 1});
    ZelObject *lookupTable = table(destinationType, entries.values, repository);
    ASSERT_NE(lookupTable, nullptr);
    ZelContext *ctx = ctx_;
    variants.push_back({"table in repository " + std::to_string(repository),
                        [ctx, lookupTable](const std::vector<ZelObject *> &sources, ZelObject *d) {
                          return Zel120(ctx, sources[0], d, lookupTable);
                        },
                        [entries](const std::vector<double> &p) {
                          return entries.values[static_cast<size_t>(p[0])];
                        }});
  }
  checkAgainstReference({ZelNonNegative}, destinationType, variants, layout(), scenario(), seed());
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, TableLookup, tableParams({ZelNonNegative, ZelSigned}),
                         tableName);

class Thresholding : public PointOperatorTable {};

TEST_P(Thresholding, PixelsBelowTheThresholdTakeLowAndTheOthersHigh) {
  const int destinationType = type();
  // Threshold, low and high: scalars of both taggings, and values beyond a byte that are cut.
  const std::array<ZelScalar, 3> triples[] = {
      {integerScalar(100), integerScalar(10), integerScalar(200)},
      {realScalar(100.9), realScalar(0.0), realScalar(255.7)},
      {integerScalar(0), integerScalar(1), integerScalar(0)},
      {integerScalar(256), integerScalar(7), integerScalar(9)},
      {integerScalar(300), integerScalar(-1), integerScalar(256)},
      {realScalar(255.0), realScalar(-0.5), realScalar(1e12)},
      {integerScalar(128, ZelNonNegative), integerScalar(513, 0), integerScalar(0)},
      {realScalar(kNotANumber), integerScalar(77), integerScalar((1LL << 32) + 3)},
  };
  std::vector<Variant> variants;
  for (const std::array<ZelScalar, 3> &triple : triples) {
    const ZelScalar threshold = triple[0], low = triple[1], high = triple[2];
    ZelContext *ctx = ctx_;
    const uint8_t t = scalarByte(threshold), l = scalarByte(low), h = scalarByte(high);
    const bool toBits = destinationType == ZelBoolean;
    variants.push_back(
        {"threshold " + describeScalar(threshold) + " low " + describeScalar(low) + " high " +
             describeScalar(high),
         [ctx, threshold, low, high](const std::vector<ZelObject *> &sources, ZelObject *d) {
           return Zel122(ctx, sources[0], d, threshold, low, high);
         },
         [t, l, h, toBits](const std::vector<double> &p) {
           const uint8_t byte = p[0] < t ? l : h;
           return toBits ? (byte != 0 ? 1.0 : 0.0) : static_cast<double>(byte);
         }});
  }
  checkAgainstReference({ZelNonNegative}, destinationType, variants, layout(), scenario(), seed());
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, Thresholding, tableParams({ZelNonNegative, ZelBoolean}),
                         tableName);

class ComplementOfPixels : public PointOperatorTable {};

TEST_P(ComplementOfPixels, EveryPixelIsInverted) {
  const bool bits = type() == ZelBoolean;
  ZelContext *ctx = ctx_;
  const Variant complement{
      "complement",
      [ctx](const std::vector<ZelObject *> &sources, ZelObject *d) {
        return Zel130(ctx, sources[0], d);
      },
      [bits](const std::vector<double> &p) { return bits ? (p[0] != 0 ? 0.0 : 1.0) : 255 - p[0]; }};
  checkAgainstReference({type()}, type(), {complement}, layout(), scenario(), seed());
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, ComplementOfPixels,
                         tableParams({ZelBoolean, ZelNonNegative}), tableName);

class BlendOfTwoImages : public PointOperatorTable {};

TEST_P(BlendOfTwoImages, EveryPixelIsTheWeightedSumOfItsSources) {
  std::vector<Variant> variants;
  for (double weight :
       {0.5, 0.3, 0.0, 1.0, 0.75, 0.1, -0.25, 1.5, 2.0, kNotANumber, 1e10, -1e10, kInfinity}) {
    ZelContext *ctx = ctx_;
    variants.push_back({"weight " + std::to_string(weight),
                        [ctx, weight](const std::vector<ZelObject *> &sources, ZelObject *d) {
                          return Zel132(ctx, sources[0], sources[1], d, weight);
                        },
                        [weight](const std::vector<double> &p) {
                          return static_cast<double>(blended(p[0], p[1], weight));
                        }});
  }
  checkAgainstReference({ZelNonNegative, ZelNonNegative}, ZelNonNegative, variants, layout(),
                        scenario(), seed());
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, BlendOfTwoImages, tableParams({ZelNonNegative}),
                         tableName);

class FoldOfTheGreyScale : public PointOperatorTable {};

TEST_P(FoldOfTheGreyScale, UpperHalfOfTheScaleIsComplemented) {
  ZelContext *ctx = ctx_;
  const Variant fold{"fold",
                     [ctx](const std::vector<ZelObject *> &sources, ZelObject *d) {
                       return Zel135(ctx, sources[0], d);
                     },
                     [](const std::vector<double> &p) { return p[0] >= 128 ? 255 - p[0] : p[0]; }};
  checkAgainstReference({ZelNonNegative}, ZelNonNegative, {fold}, layout(), scenario(), seed());
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, FoldOfTheGreyScale, tableParams({ZelNonNegative}),
                         tableName);

// ---- Scalar operations: the documented results --------------------------------------------------

TEST_F(PointOperators, RealDivideByZeroScalarLeavesTheDestinationAsItStood) {
  for (const ZelScalar zero :
       {realScalar(0.0), realScalar(-0.0), integerScalar(0), integerScalar(1LL << 32)}) {
    SCOPED_TRACE(describeScalar(zero));
    ZelObject *source = row(ZelReal, {1.5, -2, 0, 7.25});
    ZelObject *written = row(ZelReal, {9, 8, 7, 6}, ZelFile);
    ASSERT_EQ(Zel121(ctx_, source, written, ZelDivideByScalar, zero), 0);
    EXPECT_EQ(rowValues(written, ZelReal, 4), (std::vector<double>{9, 8, 7, 6}));
    ZelObject *fresh = make(Picture(ZelReal, {4, 1, 1, 1, 1}), ZelWorkSpace, false);
    ASSERT_EQ(Zel121(ctx_, source, fresh, ZelDivideByScalar, zero), 0);
    EXPECT_EQ(rowValues(fresh, ZelReal, 4), (std::vector<double>{0, 0, 0, 0}));
  }
}

TEST_F(PointOperators, RealDivideScalarByZeroPixelLeavesThatPixelAlone) {
  ZelObject *source = row(ZelReal, {2, 0, -4, 0});
  ZelObject *destination = row(ZelReal, {9, 8, 7, 6}, ZelWorkSpace);
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelDivideScalarBy, realScalar(3)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 4),
            (std::vector<double>{1.5, 8, static_cast<float>(3.0 / -4), 6}));
}

TEST_F(PointOperators, RealArithmeticIsComputedInDoubleAndStoredAsFloat) {
  ZelObject *source = row(ZelReal, {0.1f, 1e30f, -3});
  ZelObject *destination = make(Picture(ZelReal, {3, 1, 1, 1, 1}), ZelWorkSpace, false);
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelMultiply, realScalar(1e10)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 3),
            (std::vector<double>{static_cast<float>(static_cast<double>(0.1f) * 1e10), kInfinity,
                                 -3e10f}));
}

TEST_F(PointOperators, RealSaturationRowsFollowTheirCurves) {
  const double k = kSaturationLimit;
  ZelObject *source = row(ZelReal, {0, 0.25, 0.5, -0.5, 2, 1});
  ZelObject *destination = make(Picture(ZelReal, {6, 1, 1, 1, 1}), ZelWorkSpace, false);
  // Fall with v = 0.5: p squared, a negative result stored as 0.
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelSaturationFall, realScalar(0.5)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 6),
            (std::vector<double>{0, 0.0625, 0.25, static_cast<float>(std::pow(-0.5, 2.0)), 4, 1}));
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelSaturationFall, realScalar(0.0)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 6), (std::vector<double>{0, 0.25, 0.5, 0, 2, 1}));
  // With v = 1 every result is 0.
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelSaturationFall, integerScalar(1)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 6), (std::vector<double>(6, 0)));
  // Rise with v = 0.75: the square root times K, at most K.
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelSaturationRise, realScalar(0.75)), 0);
  const std::vector<double> risen = rowValues(destination, ZelReal, 6);
  EXPECT_EQ(risen[0], 0);
  EXPECT_EQ(risen[1], static_cast<float>(0.5 * k));
  EXPECT_EQ(risen[2], static_cast<float>(std::pow(0.5, 0.5) * k));
  EXPECT_TRUE(std::isnan(risen[3]));
  EXPECT_EQ(risen[4], static_cast<float>(k));
  EXPECT_EQ(risen[5], static_cast<float>(k));
  // Add and subtract rows of the saturation plane are plain sums.
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelSaturationAdd, realScalar(0.5)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 6), (std::vector<double>{0.5, 0.75, 1, 0, 2.5, 1.5}));
  ASSERT_EQ(Zel121(ctx_, source, destination, ZelSaturationSubtract, realScalar(0.5)), 0);
  EXPECT_EQ(rowValues(destination, ZelReal, 6),
            (std::vector<double>{-0.5, -0.25, 0, -1, 1.5, 0.5}));
}

TEST_F(PointOperators, OperationsWithoutARowForTheTypeLeaveItsPixelsAlone) {
  const std::pair<int, std::vector<int>> unlisted[] = {
      {ZelBoolean,
       {ZelAdd, ZelAverage, ZelDivideByScalar, ZelDivideScalarBy, ZelNot, ZelMaximum, ZelMinimum,
        ZelMultiply, ZelSubtractScalar, ZelHalfSubtractScalar, ZelSubtractFromScalar,
        ZelHalfSubtractFromScalar, ZelSaturationFall, ZelSaturationRise, ZelSaturationSubtract,
        ZelSaturationAdd}},
      {ZelReal, {ZelAnd, ZelNand, ZelNor, ZelNot, ZelOr, ZelXor}},
      {ZelNonNegative,
       {ZelNot, ZelSaturationFall, ZelSaturationRise, ZelSaturationSubtract, ZelSaturationAdd}},
      {ZelSigned,
       {ZelNot, ZelSaturationFall, ZelSaturationRise, ZelSaturationSubtract, ZelSaturationAdd}},
  };
  const Extent extent{13, 3, 1, 1, 1};
  for (const auto &[type, operations] : unlisted) {
    for (int operation : operations) {
      SCOPED_TRACE(typeName(type) + " operation " + std::to_string(operation));
      std::mt19937 rng(static_cast<unsigned>(operation + type));
      const Picture before = randomPicture(rng, type, extent);
      ZelObject *source = make(randomPicture(rng, type, extent), ZelWorkSpace, true);
      ZelObject *destination = make(before, ZelFile, true);
      ASSERT_EQ(Zel121(ctx_, source, destination, operation, integerScalar(1)), 0);
      expectPicture(before, read(destination, type, extent));
      EXPECT_EQ(readAttribute(ctx_, destination, "inited"), 1);
    }
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(PointOperators, UnknownOperationsWalkWithoutChangingAnyPixel) {
  const Extent extent{11, 2, 1, 1, 2};
  for (int type : {ZelBoolean, ZelNonNegative, ZelSigned, ZelReal}) {
    for (int operation : {0, -1, 1000}) {
      SCOPED_TRACE(typeName(type) + " operation " + std::to_string(operation));
      std::mt19937 rng(static_cast<unsigned>(operation + 5 * type));
      const Picture before = randomPicture(rng, type, extent);
      ZelObject *source = make(randomPicture(rng, type, extent), ZelApplicationAddressSpace, true);
      ZelObject *destination = make(before, ZelFile, true);
      ASSERT_EQ(Zel121(ctx_, source, destination, operation, realScalar(3)), 0);
      expectPicture(before, read(destination, type, extent));
      expectNoStreamOpen({source, destination});
    }
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(PointOperators, IntegerResultsAreLimitedToTheTypesRange) {
  ZelObject *bytes = row(ZelNonNegative, {200, 0, 255, 10});
  ZelObject *byteResult = row(ZelNonNegative, {1, 1, 1, 1});
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelAdd, integerScalar(100)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 4), (std::vector<double>{255, 100, 255, 110}));
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelSubtractScalar, integerScalar(100)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 4), (std::vector<double>{100, 0, 155, 0}));

  ZelObject *words = row(ZelSigned, {30000, -30000, 5, -32768});
  ZelObject *wordResult = row(ZelSigned, {1, 1, 1, 1});
  ASSERT_EQ(Zel121(ctx_, words, wordResult, ZelMultiply, integerScalar(2)), 0);
  EXPECT_EQ(rowValues(wordResult, ZelSigned, 4), (std::vector<double>{32767, -32768, 10, -32768}));
  ASSERT_EQ(Zel121(ctx_, words, wordResult, ZelSubtractFromScalar, integerScalar(0)), 0);
  EXPECT_EQ(rowValues(wordResult, ZelSigned, 4), (std::vector<double>{-30000, 30000, -5, 32767}));
}

TEST_F(PointOperators, HalfRowsShiftArithmeticallyBeforeLimiting) {
  ZelObject *words = row(ZelSigned, {-7, 7, 0, -32768});
  ZelObject *result = row(ZelSigned, {1, 1, 1, 1});
  ASSERT_EQ(Zel121(ctx_, words, result, ZelHalfSubtractScalar, integerScalar(0)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>{-4, 3, 0, -16384}));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelHalfSubtractFromScalar, integerScalar(1)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>{4, -3, 0, 16384}));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelAverage, integerScalar(-2)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>{-5, 2, -1, -16385}));

  ZelObject *bytes = row(ZelNonNegative, {3, 10, 255});
  ZelObject *byteResult = row(ZelNonNegative, {9, 9, 9});
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelHalfSubtractScalar, integerScalar(6)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 3), (std::vector<double>{0, 2, 124}));
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelAverage, integerScalar(300)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 3), (std::vector<double>{151, 155, 255}));
}

TEST_F(PointOperators, IntegerLogicWorksOnThePixelsOwnWidthAndIsNotLimited) {
  ZelObject *bytes = row(ZelNonNegative, {0x0F, 0xF0, 0x00});
  ZelObject *byteResult = row(ZelNonNegative, {1, 1, 1});
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelNand, integerScalar(0x1FF)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 3), (std::vector<double>{0xF0, 0x0F, 0xFF}));
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelOr, integerScalar(0x301)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 3), (std::vector<double>{0x0F, 0xF1, 0x01}));

  ZelObject *words = row(ZelSigned, {-1, 0x1234, 0});
  ZelObject *wordResult = row(ZelSigned, {1, 1, 1});
  ASSERT_EQ(Zel121(ctx_, words, wordResult, ZelAnd, integerScalar(0x18000)), 0);
  EXPECT_EQ(rowValues(wordResult, ZelSigned, 3), (std::vector<double>{-32768, 0, 0}));
  ASSERT_EQ(Zel121(ctx_, words, wordResult, ZelXor, integerScalar(0x12345)), 0);
  EXPECT_EQ(rowValues(wordResult, ZelSigned, 3),
            (std::vector<double>{static_cast<int16_t>(0xDCBA), 0x1234 ^ 0x2345, 0x2345}));
  ASSERT_EQ(Zel121(ctx_, words, wordResult, ZelNor, integerScalar(0)), 0);
  EXPECT_EQ(rowValues(wordResult, ZelSigned, 3), (std::vector<double>{0, ~0x1234, -1}));
}

TEST_F(PointOperators, RealTaggedScalarIsTruncatedTowardZero) {
  ZelObject *words = row(ZelSigned, {10, -10});
  ZelObject *result = row(ZelSigned, {0, 0});
  ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, realScalar(2.9)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{12, -8}));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, realScalar(-2.9)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{8, -12}));
  // A truncated zero is a zero divisor.
  ASSERT_EQ(Zel121(ctx_, words, result, ZelDivideByScalar, realScalar(0.99)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{8, -12}));
}

TEST_F(PointOperators, IntegerTaggedScalarIsTheLow32BitsWhateverTheTag) {
  ZelObject *words = row(ZelSigned, {10, -10});
  ZelObject *result = row(ZelSigned, {0, 0});
  for (int32_t tag :
       std::initializer_list<int32_t>{ZelSigned, ZelNonNegative, 0, ZelBoolean, ZelReal + 1}) {
    SCOPED_TRACE(tag);
    ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, integerScalar((7LL << 32) + 5, tag)), 0);
    EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{15, -5}));
    ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, integerScalar(0x1FFFFFFFFLL, tag)), 0);
    EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{9, -11}));
  }
  // On Real pixels too the integer is the scalar's value.
  ZelObject *reals = row(ZelReal, {0.5, -1});
  ZelObject *realResult = row(ZelReal, {0, 0});
  ASSERT_EQ(Zel121(ctx_, reals, realResult, ZelMultiply, integerScalar((1LL << 32) + 3)), 0);
  EXPECT_EQ(rowValues(realResult, ZelReal, 2), (std::vector<double>{1.5, -3}));
}

TEST_F(PointOperators, BooleanScalarIsOneBitOfItsTruncatedValue) {
  const std::vector<double> pixels{0, 1, 0, 1, 1, 0, 1, 0, 1};
  ZelObject *source = row(ZelBoolean, pixels);
  const std::pair<ZelScalar, bool> cases[] = {
      {realScalar(0.5), false},          {realScalar(-0.99), false},
      {realScalar(1.0), true},           {realScalar(-2.0), true},
      {realScalar(kNotANumber), false},  {integerScalar(2), true},
      {integerScalar(1LL << 32), false}, {integerScalar(-1, ZelNonNegative), true}};
  for (const auto &[scalar, bit] : cases) {
    SCOPED_TRACE(describeScalar(scalar));
    for (int operation : {ZelAnd, ZelOr, ZelXor, ZelNand, ZelNor}) {
      ZelObject *destination = row(ZelBoolean, std::vector<double>(pixels.size(), 0));
      ASSERT_EQ(Zel121(ctx_, source, destination, operation, scalar), 0);
      std::vector<double> expected;
      for (double p : pixels)
        expected.push_back(*bitAgainstScalar(operation, p != 0, bit));
      EXPECT_EQ(rowValues(destination, ZelBoolean, pixels.size()), expected) << operation;
    }
  }
}

// ---- 32-bit arithmetic and untouched pixels -----------------------------------------------------

TEST_F(PointOperators, IntegerArithmeticWrapsIn32BitsBeforeLimiting) {
  const int32_t most = std::numeric_limits<int32_t>::max();
  const int32_t least = std::numeric_limits<int32_t>::min();
  ZelObject *words = row(ZelSigned, {2, 3, -1, 0, 1});
  ZelObject *result = row(ZelSigned, std::vector<double>(5, 99));
  // 2 * (2^31 - 1) wraps to -2, -1 * (2^31 - 1) stays in range.
  ASSERT_EQ(Zel121(ctx_, words, result, ZelMultiply, integerScalar(most)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 5), (std::vector<double>{-2, 32767, -32768, 0, 32767}));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, integerScalar(most)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 5),
            (std::vector<double>{-32768, -32768, 32767, 32767, -32768}));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelSubtractFromScalar, integerScalar(least)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 5),
            (std::vector<double>{32767, 32767, -32768, -32768, 32767}));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelHalfSubtractScalar, integerScalar(least)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 5),
            (std::vector<double>{-32768, -32768, 32767, -32768, -32768}));

  // INT32_MIN / -1 wraps to INT32_MIN.
  ZelObject *divisors = row(ZelSigned, {-1, 1, 2, -2});
  ZelObject *quotients = row(ZelSigned, {5, 5, 5, 5});
  ASSERT_EQ(Zel121(ctx_, divisors, quotients, ZelDivideScalarBy, integerScalar(least)), 0);
  EXPECT_EQ(rowValues(quotients, ZelSigned, 4),
            (std::vector<double>{-32768, -32768, -32768, 32767}));

  ZelObject *bytes = row(ZelNonNegative, {2, 3, 0, 1});
  ZelObject *byteResult = row(ZelNonNegative, {9, 9, 9, 9});
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelMultiply, integerScalar(most)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 4), (std::vector<double>{0, 255, 0, 255}));
}

TEST_F(PointOperators, RealTaggedNotANumberScalarCountsAsZero) {
  for (double nan : {kNotANumber, -kNotANumber}) {
    ZelObject *words = row(ZelSigned, {5, -5});
    ZelObject *result = row(ZelSigned, {9, 9});
    ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, realScalar(nan)), 0);
    EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{5, -5}));
    ASSERT_EQ(Zel121(ctx_, words, result, ZelMaximum, realScalar(nan)), 0);
    EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{5, 0}));
    // A zero divisor: the destination stays.
    ASSERT_EQ(Zel121(ctx_, words, result, ZelDivideByScalar, realScalar(nan)), 0);
    EXPECT_EQ(rowValues(result, ZelSigned, 2), (std::vector<double>{5, 0}));
    ZelObject *bytes = row(ZelNonNegative, {5, 0});
    ZelObject *byteResult = row(ZelNonNegative, {9, 9});
    ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelSubtractFromScalar, realScalar(nan)), 0);
    EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 2), (std::vector<double>{0, 0}));
  }
}

TEST_F(PointOperators, RealTaggedScalarBeyondThe32BitRangeSaturates) {
  ZelObject *words = row(ZelSigned, {1, 0, -1000, 1000});
  ZelObject *result = row(ZelSigned, {9, 9, 9, 9});
  ASSERT_EQ(Zel121(ctx_, words, result, ZelMinimum, realScalar(-1e12)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>(4, -32768)));
  ASSERT_EQ(Zel121(ctx_, words, result, ZelMaximum, realScalar(kInfinity)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>(4, 32767)));
  // 2^31 - 1 plus 1 wraps; plus 0 and minus 1000 don't.
  ASSERT_EQ(Zel121(ctx_, words, result, ZelAdd, realScalar(1e12)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>{-32768, 32767, 32767, -32768}));
  // A zero pixel keeps the value of the last run.
  ASSERT_EQ(Zel121(ctx_, words, result, ZelDivideScalarBy, realScalar(-kInfinity)), 0);
  EXPECT_EQ(rowValues(result, ZelSigned, 4), (std::vector<double>{-32768, 32767, 32767, -32768}));
  // 0 - (-2^31) wraps to -2^31 again.
  ZelObject *bytes = row(ZelNonNegative, {0, 7});
  ZelObject *byteResult = row(ZelNonNegative, {9, 9});
  ASSERT_EQ(Zel121(ctx_, bytes, byteResult, ZelSubtractScalar, realScalar(-3e9)), 0);
  EXPECT_EQ(rowValues(byteResult, ZelNonNegative, 2), (std::vector<double>{0, 0}));
}

TEST_F(PointOperators, UndefinedIntegerResultsKeepTheDestinationPixel) {
  for (int type : {ZelNonNegative, ZelSigned}) {
    SCOPED_TRACE(typeName(type));
    for (int repository : {ZelApplicationAddressSpace, ZelWorkSpace, ZelFile}) {
      ZelObject *source = row(type, {0, 12, 0, 100});
      ZelObject *written = row(type, {7, 7, 7, 7}, repository);
      ASSERT_EQ(Zel121(ctx_, source, written, ZelDivideByScalar, integerScalar(0)), 0);
      EXPECT_EQ(rowValues(written, type, 4), (std::vector<double>{7, 7, 7, 7}));
      ASSERT_EQ(Zel121(ctx_, source, written, ZelNot, integerScalar(3)), 0);
      EXPECT_EQ(rowValues(written, type, 4), (std::vector<double>{7, 7, 7, 7}));
      ASSERT_EQ(Zel121(ctx_, source, written, ZelDivideScalarBy, integerScalar(60)), 0);
      EXPECT_EQ(rowValues(written, type, 4), (std::vector<double>{7, 5, 7, 0}));
      ZelObject *fresh = make(Picture(type, {4, 1, 1, 1, 1}), repository, false);
      ASSERT_EQ(Zel121(ctx_, source, fresh, ZelDivideScalarBy, integerScalar(60)), 0);
      EXPECT_EQ(rowValues(fresh, type, 4), (std::vector<double>{0, 5, 0, 0}));
    }
  }
}

// ---- Threshold, blend and fold: the documented results ------------------------------------------

TEST_F(PointOperators, ThresholdWithEqualLowAndHighPaintsTheRegionInOneValue) {
  setting("matchPointState", 1);
  const Extent destinationExtent{10, 1, 1, 1, 1};
  const Picture source = rowPicture(ZelNonNegative, {0, 255, 30, 31, 200, 1});
  for (int type : {ZelNonNegative, ZelBoolean}) {
    SCOPED_TRACE(typeName(type));
    const double before = type == ZelBoolean ? 0 : 5, painted = type == ZelBoolean ? 1 : 77;
    ZelObject *from = make(source, ZelWorkSpace, true);
    ZelObject *to = make(Picture(type, destinationExtent, before), ZelFile, true, {3, 0, 0, 0, 0});
    ASSERT_EQ(Zel122(ctx_, from, to, integerScalar(31), integerScalar(77), integerScalar(77)), 0);
    std::vector<double> expected(10, before);
    std::fill(expected.begin() + 3, expected.begin() + 9, painted);
    EXPECT_EQ(read(to, type, destinationExtent).values, expected);
  }
}

TEST_F(PointOperators, ThresholdToBooleanSetsTheBitWhenTheCutByteIsNotZero) {
  ZelObject *source = row(ZelNonNegative, {0, 99, 100, 255});
  ZelObject *destination = row(ZelBoolean, {1, 1, 1, 1});
  // 256 cut to a byte is 0: pixels at or above the threshold clear their bit.
  ASSERT_EQ(
      Zel122(ctx_, source, destination, integerScalar(100), integerScalar(513), integerScalar(256)),
      0);
  EXPECT_EQ(rowValues(destination, ZelBoolean, 4), (std::vector<double>{1, 1, 0, 0}));
}

TEST_F(PointOperators, BlendAtHalfWeightKeepsEqualPixels) {
  ZelObject *a = row(ZelNonNegative, {1, 255, 0, 100, 3});
  ZelObject *b = row(ZelNonNegative, {1, 255, 255, 101, 4});
  ZelObject *d = make(Picture(ZelNonNegative, {5, 1, 1, 1, 1}), ZelWorkSpace, false);
  ASSERT_EQ(Zel132(ctx_, a, b, d, 0.5), 0);
  EXPECT_EQ(rowValues(d, ZelNonNegative, 5), (std::vector<double>{1, 255, 128, 101, 4}));
}

TEST_F(PointOperators, BlendAtWeightPointThreeTurnsFlat255Into254) {
  // The weights are 76 and 179, which sum to 255.
  ZelObject *a = row(ZelNonNegative, {255, 255, 0});
  ZelObject *b = row(ZelNonNegative, {255, 0, 255});
  ZelObject *d = row(ZelNonNegative, {9, 9, 9}, ZelFile);
  ASSERT_EQ(Zel132(ctx_, a, b, d, 0.3), 0);
  EXPECT_EQ(rowValues(d, ZelNonNegative, 3), (std::vector<double>{254, 76, 178}));
}

TEST_F(PointOperators, BlendResultsWrapIntoTheByte) {
  ZelObject *a = row(ZelNonNegative, {255, 0, 128, 1});
  ZelObject *b = row(ZelNonNegative, {0, 255, 0, 1});
  ZelObject *d = row(ZelNonNegative, {9, 9, 9, 9});
  // Weights 512 and -256.
  ASSERT_EQ(Zel132(ctx_, a, b, d, 2.0), 0);
  EXPECT_EQ(rowValues(d, ZelNonNegative, 4), (std::vector<double>{254, 1, 0, 1}));
}

TEST_F(PointOperators, BlendWeightBeyondThe32BitRangeSaturates) {
  ZelObject *a = row(ZelNonNegative, {255, 0, 1, 0});
  ZelObject *b = row(ZelNonNegative, {0, 255, 1, 0});
  ZelObject *d = row(ZelNonNegative, {9, 9, 9, 9});
  // Weights 2^31 - 1 and -2^31.
  for (double weight : {1e10, kInfinity}) {
    ASSERT_EQ(Zel132(ctx_, a, b, d, weight), 0);
    EXPECT_EQ(rowValues(d, ZelNonNegative, 4), (std::vector<double>{255, 0, 0, 0})) << weight;
  }
  // Weights -2^31 and 2^31 - 1.
  ASSERT_EQ(Zel132(ctx_, a, b, d, -1e10), 0);
  EXPECT_EQ(rowValues(d, ZelNonNegative, 4), (std::vector<double>{0, 255, 0, 0}));
}

TEST_F(PointOperators, BlendWeightNotANumberGivesZeroWeights) {
  ZelObject *a = row(ZelNonNegative, {255, 10, 0});
  ZelObject *b = row(ZelNonNegative, {255, 20, 0});
  ZelObject *d = row(ZelNonNegative, {9, 9, 9});
  ASSERT_EQ(Zel132(ctx_, a, b, d, kNotANumber), 0);
  EXPECT_EQ(rowValues(d, ZelNonNegative, 3), (std::vector<double>{0, 0, 0}));
}

TEST_F(PointOperators, BlendHonoursARegionOfInterestOnEachOfItsObjects) {
  setting("roiState", 1);
  const Extent extent{8, 1, 1, 1, 1};
  const Image open(extent, false, 1);
  Image closed = open;
  for (int which = 0; which < 3; ++which) {
    SCOPED_TRACE(which);
    closed.pixels = {1, 1, 0, 1, 1, 1, 1, 1};
    closed.pixels[static_cast<size_t>(5 + which)] = 0;
    ZelObject *objects[3] = {row(ZelNonNegative, std::vector<double>(8, 100)),
                             row(ZelNonNegative, std::vector<double>(8, 200)),
                             row(ZelNonNegative, std::vector<double>(8, 9))};
    // Pixel 2 is held by every mask, pixel 5 + which by the mask of that object only.
    for (int i = 0; i < 3; ++i) {
      Image mask = open;
      mask.pixels[2] = 0;
      if (i == which) mask = closed;
      objects_->maskFor(objects[i], mask, i == 1 ? ZelFile : ZelWorkSpace);
    }
    ASSERT_EQ(Zel132(ctx_, objects[0], objects[1], objects[2], 0.5), 0);
    std::vector<double> expected(8, 150);
    expected[2] = expected[static_cast<size_t>(5 + which)] = 9;
    EXPECT_EQ(rowValues(objects[2], ZelNonNegative, 8), expected);
  }
}

TEST_F(PointOperators, FoldOf127And128Is127) {
  std::vector<double> scale;
  for (int p = 0; p < 256; ++p)
    scale.push_back(p);
  ZelObject *source = row(ZelNonNegative, scale);
  ZelObject *destination = make(Picture(ZelNonNegative, {256, 1, 1, 1, 1}), ZelFile, false);
  ASSERT_EQ(Zel135(ctx_, source, destination), 0);
  const std::vector<double> folded = rowValues(destination, ZelNonNegative, 256);
  EXPECT_EQ(folded[127], 127);
  EXPECT_EQ(folded[128], 127);
  EXPECT_EQ(folded[0], 0);
  EXPECT_EQ(folded[255], 0);
  EXPECT_EQ(folded[200], 55);
  EXPECT_EQ(*std::max_element(folded.begin(), folded.end()), 127);
}

TEST_F(PointOperators, ComplementOfBooleanPixelsKeepsTheBitsOutsideTheRegion) {
  setting("matchPointState", 1);
  // A row of 13 bits starting inside a byte, in a destination of 3 rows of 11.
  const Extent sourceExtent{5, 2, 1, 1, 1}, destinationExtent{11, 3, 1, 1, 1};
  std::mt19937 rng(3);
  const Picture source = randomPicture(rng, ZelBoolean, sourceExtent);
  const Picture before = randomPicture(rng, ZelBoolean, destinationExtent);
  for (int repository : {ZelApplicationAddressSpace, ZelWorkSpace, ZelFile}) {
    ZelObject *from = make(source, ZelWorkSpace, true);
    ZelObject *to = make(before, repository, true, {4, 1, 0, 0, 0});
    ASSERT_EQ(Zel130(ctx_, from, to), 0);
    Picture expected = before;
    forEachAdmitted(std::vector<Placed>{Placed{sourceExtent}}, {destinationExtent, {4, 1, 0, 0, 0}},
                    [&](const Extent &at, const std::vector<Extent> &at0) {
                      expected[at] = source[at0[0]] != 0 ? 0 : 1;
                    });
    expectPicture(expected, read(to, ZelBoolean, destinationExtent));
  }
}

// ---- Lookup tables ------------------------------------------------------------------------------

// Entries first, first - 1, ... taken modulo 256.
std::vector<double> descendingEntries(int count, int first = 255) {
  std::vector<double> entries;
  for (int i = 0; i < count; ++i)
    entries.push_back((first - i) & 0xFF);
  return entries;
}

TEST_F(PointOperators, LookupIntoSignedUsesSixteenBitEntries) {
  std::vector<double> entries;
  for (int i = 0; i < 256; ++i)
    entries.push_back(i * 257 - 32768);
  ZelObject *lookupTable = table(ZelSigned, entries, ZelApplicationAddressSpace);
  ZelObject *source = row(ZelNonNegative, {0, 1, 128, 255});
  ZelObject *destination = make(Picture(ZelSigned, {4, 1, 1, 1, 1}), ZelFile, false);
  ASSERT_EQ(Zel120(ctx_, source, destination, lookupTable), 0);
  EXPECT_EQ(rowValues(destination, ZelSigned, 4),
            (std::vector<double>{-32768, -32511, 128 * 257 - 32768, 32767}));
  expectNoStreamOpen({lookupTable, source, destination});
}

TEST_F(PointOperators, LookupTableLongerThan256EntriesUsesItsFirst256) {
  ZelObject *lookupTable = table(ZelNonNegative, descendingEntries(300, 43));
  ZelObject *source = row(ZelNonNegative, {0, 1, 255});
  ZelObject *destination = row(ZelNonNegative, {9, 9, 9});
  ASSERT_EQ(Zel120(ctx_, source, destination, lookupTable), 0);
  EXPECT_EQ(rowValues(destination, ZelNonNegative, 3), (std::vector<double>{43, 42, 44}));
}

TEST_F(PointOperators, LookupReadsOnlyTheTablesFirstLine) {
  std::vector<double> entries = descendingEntries(256);
  for (int i = 0; i < 512; ++i)
    entries.push_back(7);
  ZelObject *lookupTable = table(ZelNonNegative, entries, ZelWorkSpace, 3);
  ZelObject *source = row(ZelNonNegative, {0, 100, 255});
  ZelObject *destination = row(ZelNonNegative, {9, 9, 9});
  ASSERT_EQ(Zel120(ctx_, source, destination, lookupTable), 0);
  EXPECT_EQ(rowValues(destination, ZelNonNegative, 3), (std::vector<double>{255, 155, 0}));
}

TEST_F(PointOperators, LookupIgnoresTheTablesRegionOfInterestAndMatchPoint) {
  setting("roiState", 1);
  setting("matchPointState", 1);
  ZelObject *lookupTable = table(ZelNonNegative, descendingEntries(256));
  ASSERT_EQ(Zel006a(ctx_, lookupTable, "xMatchPoint", 100), 0);
  objects_->maskFor(lookupTable, Image({256, 1, 1, 1, 1}, false, 0), ZelWorkSpace);
  ZelObject *source = row(ZelNonNegative, {0, 100, 255});
  ZelObject *destination = row(ZelNonNegative, {9, 9, 9});
  ASSERT_EQ(Zel120(ctx_, source, destination, lookupTable), 0);
  EXPECT_EQ(rowValues(destination, ZelNonNegative, 3), (std::vector<double>{255, 155, 0}));
}

TEST_F(PointOperators, LookupTableWithFewerThan256EntriesIsRefusedWith18) {
  for (int destinationType : {ZelNonNegative, ZelSigned}) {
    for (int count : {255, 128, 1}) {
      SCOPED_TRACE(typeName(destinationType) + " " + std::to_string(count));
      // In application memory of exactly its size, so that a read beyond it is seen.
      ZelObject *lookupTable =
          table(destinationType, descendingEntries(count), ZelApplicationAddressSpace);
      ZelObject *source = row(ZelNonNegative, {0, 200, 255});
      ZelObject *destination = row(destinationType, {9, 9, 9});
      clearLastError(ctx_);
      EXPECT_EQ(Zel120(ctx_, source, destination, lookupTable), 18);
      EXPECT_EQ(Zel003b(ctx_), 18);
      EXPECT_EQ(rowValues(destination, destinationType, 3), (std::vector<double>{9, 9, 9}));
      expectNoStreamOpen({lookupTable, source, destination});
    }
  }
}

TEST_F(PointOperators, LookupTableOfAnotherTypeThanTheDestinationIsRefusedWith10) {
  const std::pair<int, int> pairs[] = {{ZelNonNegative, ZelSigned},  {ZelSigned, ZelNonNegative},
                                       {ZelNonNegative, ZelReal},    {ZelSigned, ZelReal},
                                       {ZelNonNegative, ZelBoolean}, {ZelSigned, ZelWord}};
  for (const auto &[destinationType, tableType] : pairs) {
    ZelObject *lookupTable = table(tableType, std::vector<double>(256, 1));
    ZelObject *source = row(ZelNonNegative, {0, 200, 255});
    ZelObject *destination = row(destinationType, {9, 9, 9});
    expectRefused(
        typeName(destinationType) + " with a table of " + typeName(tableType),
        [&] { return Zel120(ctx_, source, destination, lookupTable); },
        {lookupTable, source, destination}, destination, 6);
  }
}

TEST_F(PointOperators, DeadLookupTableGives9) {
  ZelObject *lookupTable = table(ZelNonNegative, descendingEntries(256));
  ZelObject *source = row(ZelNonNegative, {0, 200, 255});
  ZelObject *destination = row(ZelNonNegative, {9, 9, 9});
  destroy(lookupTable);
  clearLastError(ctx_);
  EXPECT_EQ(Zel120(ctx_, source, destination, lookupTable), 9);
  EXPECT_EQ(Zel003b(ctx_), 9);
  EXPECT_EQ(rowValues(destination, ZelNonNegative, 3), (std::vector<double>{9, 9, 9}));
  expectNoStreamOpen({source, destination});
}

// ---- Boolean bit addressing ---------------------------------------------------------------------

TEST_F(PointOperators, BooleanPixelsAreAddressedMostSignificantBitFirstWhateverTheBitOrder) {
  const Extent extent{13, 2, 1, 1, 1};
  std::mt19937 rng(17);
  const Picture bits = randomPicture(rng, ZelBoolean, extent);
  const Picture bytes = randomPicture(rng, ZelNonNegative, extent);
  const Picture before = randomPicture(rng, ZelBoolean, extent);
  Picture inverted = bits, thresholded = bits;
  for (size_t i = 0; i < inverted.values.size(); ++i) {
    inverted.values[i] = bits.values[i] != 0 ? 0 : 1;
    thresholded.values[i] = bytes.values[i] < 100 ? 0 : 1;
  }
  // The bytes of the untouched tail of the last byte must stay as well.
  std::vector<uint8_t> expectedInverted = encode(inverted),
                       expectedThresholded = encode(thresholded);
  const std::vector<uint8_t> beforeBytes = encode(before);
  const uint8_t tail = 0x3F;  // pixels 26 to 31 of the last byte
  expectedInverted.back() =
      static_cast<uint8_t>((expectedInverted.back() & ~tail) | (beforeBytes.back() & tail));
  expectedThresholded.back() =
      static_cast<uint8_t>((expectedThresholded.back() & ~tail) | (beforeBytes.back() & tail));

  for (int order : {ZelMostSignificantFirst, ZelLeastSignificantFirst}) {
    SCOPED_TRACE(order);
    const std::pair<std::string, std::function<int(ZelObject *, ZelObject *)>> runs[] = {
        {"xor with one",
         [&](ZelObject *s, ZelObject *d) { return Zel121(ctx_, s, d, ZelXor, integerScalar(1)); }},
        {"complement", [&](ZelObject *s, ZelObject *d) { return Zel130(ctx_, s, d); }},
        {"threshold",
         [&](ZelObject *s, ZelObject *d) {
           return Zel122(ctx_, s, d, integerScalar(100), integerScalar(0), integerScalar(1));
         }},
    };
    for (const auto &[name, call] : runs) {
      SCOPED_TRACE(name);
      const bool threshold = name == "threshold";
      ZelObject *source = make(threshold ? bytes : bits, ZelApplicationAddressSpace, true);
      ZelObject *destination = make(before, ZelApplicationAddressSpace, true);
      if (!threshold) {
        ASSERT_EQ(Zel006a(ctx_, source, "bitOrder", order), 0);
      }
      ASSERT_EQ(Zel006a(ctx_, destination, "bitOrder", order), 0);
      ASSERT_EQ(call(source, destination), 0);
      EXPECT_EQ(rawBytes(destination, 4), threshold ? expectedThresholded : expectedInverted);
    }
  }
}

// ---- Type rules ---------------------------------------------------------------------------------

const int kTypes[] = {ZelBoolean, ZelNonNegative, ZelSigned, ZelReal, ZelWord};

class PointOperatorTypeRules : public PointOperators {
 protected:
  // Objects of the two types, a row of 4 in application memory, given to `call`; refused unless
  // the pair is allowed.
  void checkPairs(const char *what, const std::vector<std::pair<int, int>> &allowed,
                  const std::function<int(ZelObject *, ZelObject *)> &call) {
    for (int sourceType : kTypes) {
      for (int destinationType : kTypes) {
        if (std::find(allowed.begin(), allowed.end(),
                      std::make_pair(sourceType, destinationType)) != allowed.end())
          continue;
        ZelObject *source = row(sourceType, {1, 0, 1, 1});
        ZelObject *destination = row(destinationType, {1, 1, 0, 1}, ZelWorkSpace);
        expectRefused(
            std::string(what) + " " + typeName(sourceType) + " to " + typeName(destinationType),
            [&] { return call(source, destination); }, {source, destination}, destination,
            rowPicture(destinationType, {0, 0, 0, 0}).totalBytes());
      }
    }
  }
};

TEST_F(PointOperatorTypeRules, LookupRefusesEveryOtherPairWhateverTheTable) {
  ZelObject *byteTable = table(ZelNonNegative, descendingEntries(256));
  ZelObject *wordTable = table(ZelSigned, descendingEntries(256));
  checkPairs("lookup", {{ZelNonNegative, ZelNonNegative}, {ZelNonNegative, ZelSigned}},
             [&](ZelObject *s, ZelObject *d) {
               const bool signedTarget = readAttribute(ctx_, d, "dataType") == ZelSigned;
               return Zel120(ctx_, s, d, signedTarget ? wordTable : byteTable);
             });
}

TEST_F(PointOperatorTypeRules, ScalarOperationsNeedOneTypeOfTheirFour) {
  checkPairs(
      "scalar",
      {{ZelBoolean, ZelBoolean},
       {ZelNonNegative, ZelNonNegative},
       {ZelSigned, ZelSigned},
       {ZelReal, ZelReal}},
      [&](ZelObject *s, ZelObject *d) { return Zel121(ctx_, s, d, ZelAnd, integerScalar(1)); });
}

TEST_F(PointOperatorTypeRules, ThresholdTakesNonNegativeToNonNegativeOrBoolean) {
  checkPairs("threshold", {{ZelNonNegative, ZelNonNegative}, {ZelNonNegative, ZelBoolean}},
             [&](ZelObject *s, ZelObject *d) {
               return Zel122(ctx_, s, d, integerScalar(1), integerScalar(0), integerScalar(1));
             });
}

TEST_F(PointOperatorTypeRules, ComplementTakesBooleanOrNonNegativeToItself) {
  checkPairs("complement", {{ZelBoolean, ZelBoolean}, {ZelNonNegative, ZelNonNegative}},
             [&](ZelObject *s, ZelObject *d) { return Zel130(ctx_, s, d); });
}

TEST_F(PointOperatorTypeRules, FoldTakesNonNegativeOnly) {
  checkPairs("fold", {{ZelNonNegative, ZelNonNegative}},
             [&](ZelObject *s, ZelObject *d) { return Zel135(ctx_, s, d); });
}

TEST_F(PointOperatorTypeRules, BlendTakesNonNegativeOnly) {
  for (int position = 0; position < 3; ++position) {
    for (int other : kTypes) {
      if (other == ZelNonNegative) continue;
      ZelObject *objects[3];
      for (int i = 0; i < 3; ++i)
        objects[i] = row(i == position ? other : ZelNonNegative, {1, 2, 3, 4}, ZelWorkSpace);
      expectRefused(
          "blend with a " + typeName(other) + " object in place " + std::to_string(position),
          [&] { return Zel132(ctx_, objects[0], objects[1], objects[2], 0.5); },
          {objects[0], objects[1], objects[2]}, objects[2],
          rowPicture(position == 2 ? other : ZelNonNegative, {0, 0, 0, 0}).totalBytes());
    }
  }
  ZelObject *bits[3];
  for (ZelObject *&object : bits)
    object = row(ZelBoolean, {1, 0, 1, 0});
  expectRefused(
      "blend of Boolean objects", [&] { return Zel132(ctx_, bits[0], bits[1], bits[2], 0.5); },
      {bits[0], bits[1], bits[2]}, bits[2], 1);
}

TEST_F(PointOperatorTypeRules, TypesAreCheckedAfterTheFramesOpen) {
  // An object that can't be opened is reported before a pair of types that doesn't fit.
  ZelObject *source = row(ZelSigned, {1, 2});
  ZelObject *dead = row(ZelReal, {1, 2});
  destroy(dead);
  EXPECT_EQ(Zel121(ctx_, source, dead, ZelAdd, integerScalar(1)), 9);
  EXPECT_EQ(Zel130(ctx_, dead, source), 9);
  EXPECT_EQ(Zel132(ctx_, source, dead, source, 0.5), 9);
  ZelContext *closed = Zel004(nullptr);
  ASSERT_NE(closed, nullptr);
  ASSERT_EQ(Zel001(closed), 0);
  ZelObject *real = row(ZelReal, {1, 2});
  EXPECT_EQ(Zel121(closed, source, real, ZelAdd, integerScalar(1)), 24);
  EXPECT_EQ(Zel135(closed, source, real), 24);
  EXPECT_EQ(rowValues(real, ZelReal, 2), (std::vector<double>{1, 2}));
  expectNoStreamOpen({source, real});
}

// ---- Pixels as wide as their types --------------------------------------------------------------

// Pixels of a width other than their type's.
struct Odd {
  int type;
  int precision;
  bool narrowByContext;  // a NonNegative object below 8 bits, read at the context's width
};

const Odd kNarrowBytes{ZelNonNegative, 4, true};

class PointOperatorPixelWidths : public PointOperators {
 protected:
  ZelObject *plain(int type) { return row(type, std::vector<double>(8, 1)); }

  // Runs `call` on rows of 8 pixels where the one in `position` is `kind`: refused with 10.
  void check(const std::string &what, const std::vector<int> &types, int position, const Odd &kind,
             const std::function<int(const std::vector<ZelObject *> &)> &call) {
    std::vector<ZelObject *> objects;
    for (size_t i = 0; i < types.size(); ++i)
      objects.push_back(static_cast<int>(i) == position
                            ? rowWithPrecision(kind.type, kind.precision, 8)
                            : plain(types[i]));
    if (kind.narrowByContext) setting("nonnegativeIntegerPrecision", 4);
    expectRefused(
        what + ", place " + std::to_string(position) + ", " + typeName(kind.type) + " of " +
            std::to_string(kind.precision) + " bits",
        [&] { return call(objects); }, {}, objects.back(), 72);
    for (ZelObject *object : objects)
      expectNoStreamOpen({object});
    setting("nonnegativeIntegerPrecision", 8);
  }
};

TEST_F(PointOperatorPixelWidths, ScalarOperationsRefusePixelsNotAsWideAsTheirType) {
  const Odd kinds[] = {{ZelSigned, 8, false}, {ZelSigned, 32, false}, {ZelReal, 64, false},
                       {ZelReal, 16, false},  {ZelBoolean, 8, false}, kNarrowBytes};
  for (const Odd &kind : kinds)
    for (int position : {0, 1})
      check("scalar", {kind.type, kind.type}, position, kind,
            [&](const std::vector<ZelObject *> &o) {
              return Zel121(ctx_, o[0], o[1], ZelAdd, integerScalar(1));
            });
}

TEST_F(PointOperatorPixelWidths, LookupRefusesPixelsNotAsWideAsTheirType) {
  ZelObject *byteTable = table(ZelNonNegative, descendingEntries(256));
  check("lookup", {ZelNonNegative, ZelNonNegative}, 0, kNarrowBytes,
        [&](const std::vector<ZelObject *> &o) { return Zel120(ctx_, o[0], o[1], byteTable); });
  check("lookup", {ZelNonNegative, ZelNonNegative}, 1, kNarrowBytes,
        [&](const std::vector<ZelObject *> &o) { return Zel120(ctx_, o[0], o[1], byteTable); });
  ZelObject *wordTable = table(ZelSigned, descendingEntries(256));
  check("lookup", {ZelNonNegative, ZelSigned}, 1, {ZelSigned, 8, false},
        [&](const std::vector<ZelObject *> &o) { return Zel120(ctx_, o[0], o[1], wordTable); });
}

TEST_F(PointOperatorPixelWidths, LookupRefusesATableNotAsWideAsItsType) {
  for (const auto &[type, precision] :
       {std::pair{ZelSigned, 8}, std::pair{ZelSigned, 32}, std::pair{ZelNonNegative, 16}}) {
    SCOPED_TRACE(typeName(type) + " table of " + std::to_string(precision) + " bits");
    ZelObject *lookupTable = rowWithPrecision(type, precision, 256, Zel000e);
    ZelObject *source = plain(ZelNonNegative);
    ZelObject *destination = plain(type);
    expectRefused(
        "table", [&] { return Zel120(ctx_, source, destination, lookupTable); },
        {lookupTable, source, destination}, destination, 8);
  }
}

TEST_F(PointOperatorPixelWidths, ThresholdBlendComplementAndFoldRefuseOddWidths) {
  for (int position : {0, 1}) {
    check("threshold", {ZelNonNegative, ZelNonNegative}, position, kNarrowBytes,
          [&](const std::vector<ZelObject *> &o) {
            return Zel122(ctx_, o[0], o[1], integerScalar(1), integerScalar(0), integerScalar(2));
          });
    check("complement", {ZelNonNegative, ZelNonNegative}, position, kNarrowBytes,
          [&](const std::vector<ZelObject *> &o) { return Zel130(ctx_, o[0], o[1]); });
    check("fold", {ZelNonNegative, ZelNonNegative}, position, kNarrowBytes,
          [&](const std::vector<ZelObject *> &o) { return Zel135(ctx_, o[0], o[1]); });
  }
  for (int position : {0, 1, 2})
    check("blend", {ZelNonNegative, ZelNonNegative, ZelNonNegative}, position, kNarrowBytes,
          [&](const std::vector<ZelObject *> &o) { return Zel132(ctx_, o[0], o[1], o[2], 0.5); });
  check("threshold", {ZelNonNegative, ZelBoolean}, 1, {ZelBoolean, 8, false},
        [&](const std::vector<ZelObject *> &o) {
          return Zel122(ctx_, o[0], o[1], integerScalar(1), integerScalar(0), integerScalar(2));
        });
  check("complement", {ZelBoolean, ZelBoolean}, 0, {ZelBoolean, 8, false},
        [&](const std::vector<ZelObject *> &o) { return Zel130(ctx_, o[0], o[1]); });
}

TEST_F(PointOperatorPixelWidths, NarrowNonNegativePrecisionOfAnObjectIsReadAsBytes) {
  // Below 8 bits the context's precision decides the width, a byte unless it is changed.
  ZelObject *source = row(ZelNonNegative, {0, 127, 128, 255});
  ZelObject *destination = row(ZelNonNegative, {9, 9, 9, 9});
  ASSERT_EQ(Zel006a(ctx_, source, "dataPrecision", 4), 0);
  ASSERT_EQ(Zel006a(ctx_, destination, "dataPrecision", 2), 0);
  ASSERT_EQ(Zel135(ctx_, source, destination), 0);
  EXPECT_EQ(rowValues(destination, ZelNonNegative, 4), (std::vector<double>{0, 127, 127, 0}));
}

// ---- Bad handles --------------------------------------------------------------------------------

// One operator: the types of its objects, -1 standing for a lookup table, and the call.
struct OperatorCall {
  const char *name;
  std::vector<int> types;  // of the objects, destination last
  std::function<int(ZelContext *, const std::vector<ZelObject *> &)> call;
};

std::vector<OperatorCall> everyOperator() {
  return {
      {"lookup",
       {ZelNonNegative, ZelNonNegative, -1},
       [](ZelContext *ctx, const std::vector<ZelObject *> &o) {
         return Zel120(ctx, o[0], o[1], o[2]);
       }},
      {"scalar",
       {ZelSigned, ZelSigned},
       [](ZelContext *ctx, const std::vector<ZelObject *> &o) {
         return Zel121(ctx, o[0], o[1], ZelAdd, integerScalar(1));
       }},
      {"threshold",
       {ZelNonNegative, ZelBoolean},
       [](ZelContext *ctx, const std::vector<ZelObject *> &o) {
         return Zel122(ctx, o[0], o[1], integerScalar(1), integerScalar(0), integerScalar(1));
       }},
      {"complement",
       {ZelBoolean, ZelBoolean},
       [](ZelContext *ctx, const std::vector<ZelObject *> &o) { return Zel130(ctx, o[0], o[1]); }},
      {"blend",
       {ZelNonNegative, ZelNonNegative, ZelNonNegative},
       [](ZelContext *ctx, const std::vector<ZelObject *> &o) {
         return Zel132(ctx, o[0], o[1], o[2], 0.5);
       }},
      {"fold",
       {ZelNonNegative, ZelNonNegative},
       [](ZelContext *ctx, const std::vector<ZelObject *> &o) { return Zel135(ctx, o[0], o[1]); }},
  };
}

class PointOperatorBadHandles : public PointOperators {
 protected:
  // The objects of `op`, rows of 4; the type -1 stands for a lookup table.
  std::vector<ZelObject *> objectsFor(const OperatorCall &op) {
    std::vector<ZelObject *> objects;
    for (int type : op.types)
      objects.push_back(type < 0 ? table(ZelNonNegative, descendingEntries(256))
                                 : row(type, {1, 0, 1, 1}, ZelWorkSpace));
    return objects;
  }
  // The object that receives the pixels: the second of a lookup, else the last.
  static size_t destinationOf(const OperatorCall &op) {
    return op.types.back() < 0 ? op.types.size() - 2 : op.types.size() - 1;
  }
};

TEST_F(PointOperatorBadHandles, DeadObjectsAreRefusedWith9) {
  for (const OperatorCall &op : everyOperator()) {
    for (size_t dead = 0; dead < op.types.size(); ++dead) {
      SCOPED_TRACE(std::string(op.name) + ", object " + std::to_string(dead) + " dead");
      std::vector<ZelObject *> objects = objectsFor(op);
      const size_t target = destinationOf(op);
      const int targetType = op.types[target];
      const std::vector<double> before = rowValues(objects[target], targetType, 4);
      destroy(objects[dead]);
      clearLastError(ctx_);
      EXPECT_EQ(op.call(ctx_, objects), 9);
      EXPECT_EQ(Zel003b(ctx_), 9);
      for (size_t i = 0; i < objects.size(); ++i) {
        if (i == dead) continue;
        expectNoStreamOpen({objects[i]});
      }
      if (dead != target) {
        EXPECT_EQ(rowValues(objects[target], targetType, 4), before);
      }
    }
  }
}

TEST_F(PointOperatorBadHandles, BadContextsAreRefusedWith24) {
  ZelContext *closed = Zel004(nullptr);
  ASSERT_NE(closed, nullptr);
  ASSERT_EQ(Zel001(closed), 0);
  int notAContext = 0;
  for (const OperatorCall &op : everyOperator()) {
    std::vector<ZelObject *> objects = objectsFor(op);
    const size_t target = destinationOf(op);
    const std::vector<double> before = rowValues(objects[target], op.types[target], 4);
    for (ZelContext *bad : {static_cast<ZelContext *>(nullptr), closed,
                            reinterpret_cast<ZelContext *>(&notAContext)}) {
      SCOPED_TRACE(op.name);
      EXPECT_EQ(op.call(bad, objects), 24);
    }
    EXPECT_EQ(rowValues(objects[target], op.types[target], 4), before);
    for (ZelObject *object : objects)
      expectNoStreamOpen({object});
  }
  EXPECT_EQ(notAContext, 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
}

}  // namespace
