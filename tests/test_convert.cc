// Conversion between data types: every pair of Boolean, NonNegative, Signed and Real images in
// each repository, with match points and regions of interest, against a reference computed here
// from the conversion rules; the documented numeric results; bit and byte orders; words and object
// handles; the whole-row move of like pixels and its element-index placement; refusals, with
// every frame closed again.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

constexpr int kMsbFirst = ZelMostSignificantFirst;
constexpr int kLsbFirst = ZelLeastSignificantFirst;
constexpr int kRepositories[] = {ZelWorkSpace, ZelApplicationAddressSpace, ZelFile};
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInfinity = std::numeric_limits<float>::infinity();

// Bits of one pixel of each type as this host stores it.
int bitsOf(int type) {
  switch (type) {
    case ZelBoolean:
      return 1;
    case ZelNonNegative:
      return 8;
    case ZelSigned:
      return 16;
    case ZelReal:
    case ZelWord:
      return 32;
    case ZelObjectHandle:
      return static_cast<int>(8 * sizeof(void *));
    default:  // Complex
      return 64;
  }
}

Extent rows(int width, int height = 1) {
  return {width, height, 1, 1, 1};
}

// ---- Typed pixels held by the test --------------------------------------------------------------

// The data of one object exactly as the library holds it: Boolean pixels packed without padding
// in the object's bit order, other types as elements of the host's byte order.
struct Raster {
  Extent extent{1, 1, 1, 1, 1};
  int type = ZelNonNegative;
  int bitOrder = kMsbFirst;
  std::vector<uint8_t> bytes;

  Raster() = default;
  Raster(const Extent &e, int t, int order = kMsbFirst)
      : extent(e),
        type(t),
        bitOrder(order),
        bytes(static_cast<size_t>((bitsOf(t) * pixelCount(e) + 7) / 8), 0) {}

  int64_t count() const { return pixelCount(extent); }
  int64_t elementBytes() const { return bitsOf(type) / 8; }
  int64_t offset(const Extent &at) const {
    int64_t o = at[4];
    for (int axis = 3; axis >= 0; --axis)
      o = o * extent[axis] + at[axis];
    return o;
  }

  uint8_t bitMask(int64_t i) const {
    int k = static_cast<int>(i & 7);
    return static_cast<uint8_t>(bitOrder == kLsbFirst ? 1u << k : 0x80u >> k);
  }
  bool bit(int64_t i) const { return (bytes[static_cast<size_t>(i >> 3)] & bitMask(i)) != 0; }
  void setBit(int64_t i, bool set) {
    uint8_t &byte = bytes[static_cast<size_t>(i >> 3)];
    byte = set ? static_cast<uint8_t>(byte | bitMask(i)) : static_cast<uint8_t>(byte & ~bitMask(i));
  }

  template <class T>
  T element(int64_t i) const {
    T value;
    std::memcpy(&value, bytes.data() + i * static_cast<int64_t>(sizeof(T)), sizeof(T));
    return value;
  }
  template <class T>
  void setElement(int64_t i, T value) {
    std::memcpy(bytes.data() + i * static_cast<int64_t>(sizeof(T)), &value, sizeof(T));
  }

  double value(int64_t i) const {
    switch (type) {
      case ZelBoolean:
        return bit(i) ? 1 : 0;
      case ZelNonNegative:
        return bytes[static_cast<size_t>(i)];
      case ZelSigned:
        return element<int16_t>(i);
      case ZelReal:
        return element<float>(i);
      case ZelWord:
        return element<uint32_t>(i);
      default:
        ADD_FAILURE() << "no numeric value for " << typeName(type);
        return 0;
    }
  }
  void setValue(int64_t i, double v) {
    switch (type) {
      case ZelBoolean:
        setBit(i, v != 0);
        break;
      case ZelNonNegative:
        bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(v);
        break;
      case ZelSigned:
        setElement(i, static_cast<int16_t>(v));
        break;
      case ZelReal:
        setElement(i, static_cast<float>(v));
        break;
      case ZelWord:
        setElement(i, static_cast<uint32_t>(v));
        break;
      default:
        ADD_FAILURE() << "no numeric value for " << typeName(type);
    }
  }
  std::vector<double> values() const {
    std::vector<double> all;
    for (int64_t i = 0; i < count(); ++i)
      all.push_back(value(i));
    return all;
  }
  // The stored bits of pixel i, for telling pixels apart exactly (not-a-number included).
  uint64_t pattern(int64_t i) const {
    if (type == ZelBoolean) return bit(i);
    uint64_t p = 0;
    std::memcpy(&p, bytes.data() + i * elementBytes(), static_cast<size_t>(elementBytes()));
    return p;
  }
};

Raster raster(int type, const Extent &extent, const std::vector<double> &values,
              int order = kMsbFirst) {
  Raster r(extent, type, order);
  EXPECT_EQ(values.size(), static_cast<size_t>(r.count()));
  for (size_t i = 0; i < values.size() && i < static_cast<size_t>(r.count()); ++i)
    r.setValue(static_cast<int64_t>(i), values[i]);
  return r;
}

Raster filledWith(int type, const Extent &extent, double value, int order = kMsbFirst) {
  return raster(type, extent, std::vector<double>(static_cast<size_t>(pixelCount(extent)), value),
                order);
}

std::string where(const Extent &extent, int64_t index) {
  return describe(Image(extent, false), static_cast<size_t>(index));
}

void expectRaster(const Raster &expected, const Raster &actual) {
  ASSERT_EQ(expected.bytes.size(), actual.bytes.size());
  if (expected.bytes == actual.bytes) return;
  size_t differences = 0;
  std::string detail;
  for (int64_t i = 0; i < expected.count(); ++i) {
    if (expected.pattern(i) == actual.pattern(i)) continue;
    if (differences++ < 6)
      detail += " " + where(expected.extent, i) + " expected " + std::to_string(expected.value(i)) +
                " got " + std::to_string(actual.value(i)) + ";";
  }
  ADD_FAILURE() << typeName(expected.type) << " data differ in " << differences << " of "
                << expected.count() << " pixels (or in bits outside them):" << detail;
}

float randomReal(std::mt19937 &rng) {
  static const float specials[] = {0.0f,      -0.0f,    kNaN,      255.5f,    254.9f,
                                   -0.4f,     -1.9f,    255.0f,    256.0f,    32767.5f,
                                   -32768.5f, 40000.0f, -40000.0f, kInfinity, -kInfinity,
                                   0.999f,    -0.999f,  1.0f,      32767.0f,  -32768.0f};
  auto r = static_cast<uint32_t>(rng());
  auto spread = static_cast<float>(static_cast<int32_t>((r >> 8) & 0xFFFFF) - 0x80000);
  switch (r & 3) {
    case 0:
      return specials[(r >> 8) % std::size(specials)];
    case 1:
      return spread / 1024.0f;  // about -512 to 512, with fractions
    case 2:
      return spread / 8.0f;  // beyond the range of Signed now and then
    default:
      return static_cast<float>((r >> 8) % 25600) / 100.0f;  // 0 to 256
  }
}

int16_t randomSigned(std::mt19937 &rng) {
  static const int16_t specials[] = {0, -1, 1, 255, 256, -256, -32768, 32767, 0x1234, 128};
  auto r = static_cast<uint32_t>(rng());
  switch (r & 3) {
    case 0:
      return specials[(r >> 8) % std::size(specials)];
    case 1:
      return static_cast<int16_t>(static_cast<int>((r >> 8) % 600) - 200);
    default:
      return static_cast<int16_t>(r >> 16);
  }
}

Raster randomRaster(std::mt19937 &rng, const Extent &extent, int type, int order = kMsbFirst) {
  Raster r(extent, type, order);
  if (type == ZelNonNegative) {
    // Plenty of the bytes that matter: zero and the top of the range.
    r.bytes = randomImage(rng, extent, false).pixels;
    return r;
  }
  for (int64_t i = 0; i < r.count(); ++i) {
    if (type == ZelBoolean)
      r.setBit(i, (rng() & 1) != 0);
    else if (type == ZelSigned)
      r.setElement(i, randomSigned(rng));
    else
      r.setElement(i, randomReal(rng));
  }
  return r;
}

// ---- Objects of any type ------------------------------------------------------------------------

// Makes objects of any data type from a Raster and reads their data back. Application memory is
// held here, exactly as large as the data; work space and files are read through `others`.
class TypedObjects {
 public:
  TypedObjects(ZelContext *ctx, Objects &others) : ctx_(ctx), others_(others) {}

  ZelObject *make(const Raster &data, int repository, bool withData, const Extent &match = kOrigin,
                  std::initializer_list<ZelAttribute> extra = {}, Wrapper create = Zel000b) {
    static const char *const dimensionNames[] = {"xDimension", "yDimension", "zDimension",
                                                 "tDimension", "bDimension"};
    static const char *const matchNames[] = {"xMatchPoint", "yMatchPoint", "zMatchPoint",
                                             "tMatchPoint", "bMatchPoint"};
    std::vector<ZelAttribute> list{
        {"dataType", data.type}, {"bitOrder", data.bitOrder}, {"repository", repository}};
    for (int axis = 0; axis < 5; ++axis) {
      list.push_back({dimensionNames[axis], data.extent[axis]});
      list.push_back({matchNames[axis], match[axis]});
    }
    list.insert(list.end(), extra);
    clearLastError(ctx_);
    ZelObject *object = create(ctx_, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
    if (!object) {
      ADD_FAILURE() << "no " << typeName(data.type) << " object";
      return nullptr;
    }
    EXPECT_EQ(Zel003b(ctx_), 0) << "attributes of a new " << typeName(data.type) << " object";
    memory_.erase(object);  // a record used again after a destroyed object
    if (repository == ZelApplicationAddressSpace)
      give(object, withData ? data.bytes : std::vector<uint8_t>(data.bytes.size(), 0));
    else if (withData)
      fill(object, repository, data.bytes);
    return object;
  }

  std::vector<uint8_t> bytes(ZelObject *object, size_t count) {
    auto found = memory_.find(object);
    if (found == memory_.end()) return others_.bytes(object, count);
    const std::vector<uint8_t> &block = found->second;
    return {block.begin(),
            block.begin() + static_cast<std::ptrdiff_t>(std::min(count, block.size()))};
  }

  // The object's data, shaped and typed as `shape`.
  Raster read(ZelObject *object, const Raster &shape) {
    Raster data = shape;
    data.bytes = bytes(object, shape.bytes.size());
    if (data.bytes.size() != shape.bytes.size()) {
      ADD_FAILURE() << "the object holds " << data.bytes.size() << " bytes, not "
                    << shape.bytes.size();
      data.bytes.resize(shape.bytes.size());
    }
    return data;
  }

 private:
  void give(ZelObject *object, std::vector<uint8_t> block) {
    std::vector<uint8_t> &held = memory_[object];
    held = std::move(block);
    EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(held.data())), 0);
  }

  void fill(ZelObject *object, int repository, const std::vector<uint8_t> &data) {
    if (repository == ZelFile) {
      std::string name = "typed" + std::to_string(files_++) + ".raw";
      writeFile(name, data);
      const ZelAttribute named[] = {{"fileName", word(name.c_str())}, {"inited", 1}};
      EXPECT_EQ(Zel006(ctx_, object, named, 2), 0);
      return;
    }
    // Work space: the first stream makes the block, which then takes the data.
    if (!openStream(ctx_, object, "w")) {
      ADD_FAILURE() << "no work space";
      return;
    }
    auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx_, object, "workSpace"));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, data.data(), data.size());
  }

  ZelContext *ctx_;
  Objects &others_;
  std::map<ZelObject *, std::vector<uint8_t>> memory_;
  int files_ = 0;
};

// ---- The reference ------------------------------------------------------------------------------

int16_t swapped(int16_t value) {
  auto u = static_cast<uint16_t>(value);
  return static_cast<int16_t>(static_cast<uint16_t>(u << 8 | u >> 8));
}

// Pixel i of `from` converted into pixel j of `to`.
void convertPixel(const Raster &from, int64_t i, Raster &to, int64_t j, bool swapBytes) {
  if (to.type == ZelReal) {  // reached from Real only: the value as it is stored
    to.setElement(j, from.element<uint32_t>(i));
    return;
  }
  const double v = from.value(i);
  const bool set = v != 0;  // not-a-number too
  switch (to.type) {
    case ZelBoolean:
      to.setBit(j, set);
      return;
    case ZelNonNegative: {
      uint8_t out = 0;
      if (from.type == ZelBoolean)
        out = set ? 255 : 0;
      else if (v > 255)
        out = 255;
      else if (v > 0)
        out = static_cast<uint8_t>(std::trunc(v));
      to.setElement(j, out);  // below zero, zero and not-a-number give 0
      return;
    }
    case ZelSigned: {
      int16_t out = 0;
      if (from.type == ZelBoolean)
        out = set ? 32767 : 0;
      else if (from.type == ZelSigned && swapBytes)
        out = swapped(from.element<int16_t>(i));
      else if (v > 32767)
        out = 32767;
      else if (v < -32768)
        out = -32768;
      else if (!std::isnan(v))
        out = static_cast<int16_t>(std::trunc(v));
      to.setElement(j, out);
      return;
    }
    default:
      ADD_FAILURE() << "no conversion into " << typeName(to.type);
  }
}

struct Side {
  const Raster *data;
  Extent match = kOrigin;       // the match point in force, zeros when none applies
  const Image *mask = nullptr;  // the region of interest in force
};

// Like pixels without any mask move row by row in one piece: from byte scale x pixel of each row
// (the pixel index taken as an element index: 4 bytes a pixel for Signed, 16 for Real), and never
// past the end of either row.
void moveRow(const Raster &in, Raster &out, const Extent &at, const Extent &shift, int first,
             int last) {
  const int64_t element = in.elementBytes();
  const int64_t scale = in.type == ZelSigned ? 4 : in.type == ZelReal ? 16 : 1;
  Extent rowIn = at, rowOut = at;
  rowIn[0] = rowOut[0] = 0;
  for (int axis = 1; axis < 5; ++axis)
    rowIn[axis] -= shift[axis];
  const int64_t from = scale * (first - shift[0]), to = scale * first;
  const int64_t count = std::min(
      {(last - first + 1) * element, in.extent[0] * element - from, out.extent[0] * element - to});
  if (count <= 0) return;
  std::memmove(out.bytes.data() + out.offset(rowOut) * element + to,
               in.bytes.data() + in.offset(rowIn) * element + from, static_cast<size_t>(count));
}

// The destination after the copy: the objects laid over each other at their match points, every
// pixel of the overlap that both masks admit converted.
Raster expectedCopy(const Side &source, const Side &destination, bool swapBytes = false) {
  const Raster &in = *source.data;
  Raster out = *destination.data;
  Extent first{}, last{}, shift{};
  for (int axis = 0; axis < 5; ++axis) {
    shift[axis] = destination.match[axis] - source.match[axis];
    first[axis] = std::max(0, shift[axis]);
    last[axis] = std::min(out.extent[axis] - 1, in.extent[axis] + shift[axis] - 1);
    if (first[axis] > last[axis]) return out;
  }
  const bool wholeRows =
      !source.mask && !destination.mask && in.type == out.type &&
      (in.type == ZelNonNegative || in.type == ZelReal || (in.type == ZelSigned && !swapBytes));
  if (wholeRows) {
    Extent lastRow = last;
    lastRow[0] = first[0];
    forEachPixel(first, lastRow,
                 [&](const Extent &at) { moveRow(in, out, at, shift, first[0], last[0]); });
    return out;
  }
  forEachPixel(first, last, [&](const Extent &at) {
    Extent from = at;
    for (int axis = 0; axis < 5; ++axis)
      from[axis] -= shift[axis];
    if (source.mask && (*source.mask)[from] == 0) return;
    if (destination.mask && (*destination.mask)[at] == 0) return;
    convertPixel(in, in.offset(from), out, out.offset(at), swapBytes);
  });
  return out;
}

// ---- The fixture --------------------------------------------------------------------------------

class ConvertPixels : public OperatorFixture {
 protected:
  ConvertPixels() : typed_(ctx_, *objects_) {}

  ZelObject *make(const Raster &data, int repository, bool withData = true,
                  const Extent &match = kOrigin, std::initializer_list<ZelAttribute> extra = {},
                  Wrapper create = Zel000b) {
    return typed_.make(data, repository, withData, match, extra, create);
  }
  Raster read(ZelObject *object, const Raster &shape) { return typed_.read(object, shape); }

  // The values that a fresh destination of `type`, shaped like `source`, holds after the copy.
  std::vector<double> converted(const Raster &source, int type, int repository) {
    ZelObject *from = make(source, repository);
    Raster shape(source.extent, type);
    ZelObject *to = make(shape, repository, false);
    EXPECT_EQ(Zel601(ctx_, from, to), 0) << Zel003b(ctx_);
    expectNoStreamOpen({from, to});
    return read(to, shape).values();
  }

  // A refusal: `code` comes back and is recorded, the destination is as it was, nothing is open.
  void expectRefused(ZelObject *source, ZelObject *destination, const Raster &before, int code) {
    clearLastError(ctx_);
    EXPECT_EQ(Zel601(ctx_, source, destination), code);
    EXPECT_EQ(Zel003b(ctx_), code);
    expectRaster(before, read(destination, before));
    expectNoStreamOpen({source, destination});
  }

  TypedObjects typed_;
};

// ---- Every pair of types against the reference --------------------------------------------------

enum class Layout { WorkSpace, Application, File, Mixed };

const char *const kLayoutNames[] = {"WorkSpace", "ApplicationMemory", "File", "Mixed"};

void PrintTo(Layout layout, std::ostream *out) {
  *out << kLayoutNames[static_cast<int>(layout)];
}

struct Scenario {
  const char *name;
  Extent matchSource;
  Extent matchDestination;
  bool matchPointState;
  bool roiSource;
  bool roiDestination;
  bool roiState;
  bool freshDestination;
};

constexpr Extent kMatchSource{2, 1, 0, 0, 1}, kMatchDestination{4, 2, 1, 0, 0};
// The source's match point further right than the destination's: the region starts at x = 0 of
// the destination but further right in the source.
constexpr Extent kMatchSourceRight{5, 0, 1, 0, 0}, kMatchDestinationLeft{1, 1, 0, 0, 1};

const Scenario kScenarios[] = {
    {"PlainFresh", kOrigin, kOrigin, false, false, false, false, true},
    {"PlainOverData", kOrigin, kOrigin, false, false, false, false, false},
    {"MatchPoints", kMatchSource, kMatchDestination, true, false, false, false, false},
    {"MatchPointsSourceFurtherRight", kMatchSourceRight, kMatchDestinationLeft, true, false, false,
     false, false},
    {"MatchPointsIgnored", kMatchSource, kMatchDestination, false, false, false, false, false},
    {"Regions", kOrigin, kOrigin, false, true, true, true, false},
    {"RegionsIgnored", kOrigin, kOrigin, false, true, true, false, false},
    {"SourceRegionOnly", kOrigin, kOrigin, false, true, false, true, false},
    {"DestinationRegionOnly", kOrigin, kOrigin, false, false, true, true, false},
    {"MatchPointsAndRegions", kMatchSource, kMatchDestination, true, true, true, true, false},
    {"MatchPointsAndRegionsFresh", kMatchSourceRight, kMatchDestinationLeft, true, true, true, true,
     true},
};

const int kTypes[] = {ZelBoolean, ZelNonNegative, ZelSigned, ZelReal};

using TableParam = std::tuple<int, int, Layout, int>;

class ConvertPixelsTable : public ConvertPixels,
                           public ::testing::WithParamInterface<TableParam> {};

TEST_P(ConvertPixelsTable, CopyFollowsTheConversionRules) {
  const auto [sourceType, destinationType, layout, scenarioIndex] = GetParam();
  const Scenario &scenario = kScenarios[scenarioIndex];
  int repositoryS = ZelWorkSpace, repositoryD = ZelWorkSpace;
  int maskRepositoryS = ZelWorkSpace, maskRepositoryD = ZelWorkSpace;
  switch (layout) {
    case Layout::WorkSpace:
      break;
    case Layout::Application:
      repositoryS = repositoryD = maskRepositoryS = maskRepositoryD = ZelApplicationAddressSpace;
      break;
    case Layout::File:
      repositoryS = repositoryD = maskRepositoryS = maskRepositoryD = ZelFile;
      break;
    case Layout::Mixed:
      repositoryS = ZelFile;
      repositoryD = ZelApplicationAddressSpace;
      maskRepositoryS = ZelApplicationAddressSpace;
      maskRepositoryD = ZelFile;
      break;
  }
  setting("matchPointState", scenario.matchPointState);
  setting("roiState", scenario.roiState);

  std::mt19937 rng(static_cast<unsigned>(sourceType * 100003 + destinationType * 1009 +
                                         static_cast<int>(layout) * 31 + scenarioIndex));
  const Extent extentS{13, 5, 2, 1, 2}, extentD{11, 6, 2, 1, 2};
  const Raster source = randomRaster(rng, extentS, sourceType);
  const Raster before = scenario.freshDestination ? Raster(extentD, destinationType)
                                                  : randomRaster(rng, extentD, destinationType);
  const Image maskS = randomMask(rng, extentS), maskD = randomMask(rng, extentD);

  ZelObject *objectS = make(source, repositoryS, true, scenario.matchSource);
  ZelObject *objectD =
      make(before, repositoryD, !scenario.freshDestination, scenario.matchDestination);
  ASSERT_TRUE(objectS && objectD);
  if (scenario.roiSource) objects_->maskFor(objectS, maskS, maskRepositoryS);
  if (scenario.roiDestination) objects_->maskFor(objectD, maskD, maskRepositoryD);

  if (destinationType == ZelReal && sourceType != ZelReal) {
    // Nothing is widened to Real.
    expectRefused(objectS, objectD, before, 10);
  } else {
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0) << Zel003b(ctx_);
    const bool shifted = scenario.matchPointState, masked = scenario.roiState;
    const Raster expected = expectedCopy({&source, shifted ? scenario.matchSource : kOrigin,
                                          masked && scenario.roiSource ? &maskS : nullptr},
                                         {&before, shifted ? scenario.matchDestination : kOrigin,
                                          masked && scenario.roiDestination ? &maskD : nullptr});
    expectRaster(expected, read(objectD, before));
    EXPECT_EQ(readAttribute(ctx_, objectD, "inited"), 1);
    expectNoStreamOpen({objectS, objectD});
  }
  // The source is read, never written.
  expectRaster(source, read(objectS, source));
}

std::string tableName(const ::testing::TestParamInfo<TableParam> &info) {
  return typeName(std::get<0>(info.param)) + "To" + typeName(std::get<1>(info.param)) + "_" +
         kLayoutNames[static_cast<int>(std::get<2>(info.param))] + "_" +
         kScenarios[std::get<3>(info.param)].name;
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, ConvertPixelsTable,
    ::testing::Combine(::testing::ValuesIn(kTypes), ::testing::ValuesIn(kTypes),
                       ::testing::Values(Layout::WorkSpace, Layout::Application, Layout::File,
                                         Layout::Mixed),
                       ::testing::Range(0, static_cast<int>(std::size(kScenarios)))),
    tableName);

// ---- Numeric results ----------------------------------------------------------------------------

TEST_F(ConvertPixels, RealAboveTheByteRangeClampsTo255) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(raster(ZelReal, rows(5), {255.5, 256, 255.01, 1e9, kInfinity}),
                        ZelNonNegative, repository),
              (std::vector<double>{255, 255, 255, 255, 255}));
  }
}

TEST_F(ConvertPixels, RealToNonNegativeTruncatesTowardZero) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(raster(ZelReal, rows(6), {254.9, 0.99, 7.5, 1, 255, 128.001}),
                        ZelNonNegative, repository),
              (std::vector<double>{254, 0, 7, 1, 255, 128}));
  }
}

TEST_F(ConvertPixels, RealBelowZeroToNonNegativeGivesZero) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(raster(ZelReal, rows(5), {-0.4, -1, -300, -kInfinity, -0.0}),
                        ZelNonNegative, repository),
              (std::vector<double>{0, 0, 0, 0, 0}));
  }
}

TEST_F(ConvertPixels, RealToSignedTruncatesTowardZero) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(raster(ZelReal, rows(6), {-1.9, 1.9, -0.5, 0.5, -300.75, 1234.5}),
                        ZelSigned, repository),
              (std::vector<double>{-1, 1, 0, 0, -300, 1234}));
  }
}

TEST_F(ConvertPixels, RealOutsideTheSignedRangeClamps) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(raster(ZelReal, rows(6),
                               {40000, 32767.9, -32768.9, -40000, kInfinity, -kInfinity}),
                        ZelSigned, repository),
              (std::vector<double>{32767, 32767, -32768, -32768, 32767, -32768}));
  }
}

TEST_F(ConvertPixels, RealNegativeZeroToBooleanIsClear) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(
        converted(raster(ZelReal, rows(5), {-0.0, 0.0, 1e-30, -1, -0.0}), ZelBoolean, repository),
        (std::vector<double>{0, 0, 1, 1, 0}));
  }
}

TEST_F(ConvertPixels, RealNotANumberGivesZeroOrASetPixel) {
  const std::vector<double> values{kNaN, -kNaN, 3, 0};
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    const Raster source = raster(ZelReal, rows(4), values);
    EXPECT_EQ(converted(source, ZelNonNegative, repository), (std::vector<double>{0, 0, 3, 0}));
    EXPECT_EQ(converted(source, ZelSigned, repository), (std::vector<double>{0, 0, 3, 0}));
    EXPECT_EQ(converted(source, ZelBoolean, repository), (std::vector<double>{1, 1, 1, 0}));
    // Real into Real moves the stored bits, not-a-number included.
    ZelObject *from = make(source, repository);
    ZelObject *to = make(Raster(rows(4), ZelReal), repository, false);
    ASSERT_EQ(Zel601(ctx_, from, to), 0);
    EXPECT_EQ(read(to, source).bytes, source.bytes);
  }
}

TEST_F(ConvertPixels, SignedToNonNegativeClampsToTheByteRange) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(raster(ZelSigned, rows(7), {-1, 0, 255, 256, 32767, -32768, 17}),
                        ZelNonNegative, repository),
              (std::vector<double>{0, 0, 255, 255, 255, 0, 17}));
  }
}

TEST_F(ConvertPixels, BooleanSetPixelsBecomeTheFullScaleOfTheDestination) {
  const Raster source = raster(ZelBoolean, rows(11), {1, 0, 1, 1, 0, 0, 0, 1, 1, 0, 1});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(source, ZelNonNegative, repository),
              (std::vector<double>{255, 0, 255, 255, 0, 0, 0, 255, 255, 0, 255}));
    EXPECT_EQ(converted(source, ZelSigned, repository),
              (std::vector<double>{32767, 0, 32767, 32767, 0, 0, 0, 32767, 32767, 0, 32767}));
  }
}

TEST_F(ConvertPixels, AnyNonzeroValueBecomesASetBooleanPixel) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(
        converted(raster(ZelNonNegative, rows(5), {0, 1, 128, 255, 0}), ZelBoolean, repository),
        (std::vector<double>{0, 1, 1, 1, 0}));
    EXPECT_EQ(
        converted(raster(ZelSigned, rows(5), {0, -1, 256, -32768, 1}), ZelBoolean, repository),
        (std::vector<double>{0, 1, 1, 1, 1}));
  }
}

TEST_F(ConvertPixels, NonNegativeToSignedKeepsTheValue) {
  EXPECT_EQ(converted(raster(ZelNonNegative, rows(4), {0, 1, 128, 255}), ZelSigned, ZelFile),
            (std::vector<double>{0, 1, 128, 255}));
}

TEST_F(ConvertPixels, BooleanRowsOfTenPixelsBecomeFullScaleBytes) {
  // Row 0 is the first byte and the top two bits of the second; row 1 starts at bit 2 of the
  // second byte and ends in the third.
  Raster source(rows(10, 2), ZelBoolean);
  source.bytes = {0xB2, 0xE9, 0x90};
  const std::vector<double> expected{255, 0, 255, 255, 0, 0,   255, 0, 255, 255,  // row 0
                                     255, 0, 255, 0,   0, 255, 255, 0, 0,   255};
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    EXPECT_EQ(converted(source, ZelNonNegative, repository), expected);
  }
}

// ---- Byte and bit orders ------------------------------------------------------------------------

TEST_F(ConvertPixels, SignedBetweenByteOrdersSwapsEachValue) {
  const Raster source = raster(ZelSigned, rows(3), {0x1234, -2, 0x00FF});
  const std::pair<int, int> orders[] = {{kLsbFirst, kMsbFirst}, {kMsbFirst, kLsbFirst}};
  for (int repository : kRepositories) {
    for (const auto &[from, to] : orders) {
      SCOPED_TRACE(repositoryName(repository) + " byte order " + std::to_string(from) + " to " +
                   std::to_string(to));
      ZelObject *objectS = make(source, repository, true, kOrigin, {{"byteOrder", from}});
      Raster shape(rows(3), ZelSigned);
      ZelObject *objectD = make(shape, repository, false, kOrigin, {{"byteOrder", to}});
      ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
      EXPECT_EQ(read(objectD, shape).values(), (std::vector<double>{0x3412, -257, -256}));
    }
  }
}

TEST_F(ConvertPixels, SignedOfEqualByteOrdersIsCopiedAsItIs) {
  const Raster source = raster(ZelSigned, rows(3), {0x1234, -2, 0x00FF});
  for (int order : {kLsbFirst, kMsbFirst}) {
    ZelObject *objectS = make(source, ZelFile, true, kOrigin, {{"byteOrder", order}});
    Raster shape(rows(3), ZelSigned);
    ZelObject *objectD = make(shape, ZelFile, false, kOrigin, {{"byteOrder", order}});
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, shape).values(), source.values());
  }
}

TEST_F(ConvertPixels, SignedSwapFollowsMatchPointsAndRegions) {
  setting("matchPointState", 1);
  setting("roiState", 1);
  const Extent extentS{9, 4, 2, 1, 1}, extentD{8, 5, 2, 1, 1};
  const Extent matchS{1, 0, 0, 0, 0}, matchD{3, 1, 1, 0, 0};
  for (int repository : kRepositories) {
    for (bool withRegion : {false, true}) {
      SCOPED_TRACE(repositoryName(repository) + (withRegion ? " with region" : ""));
      std::mt19937 rng(static_cast<unsigned>(repository * 2 + withRegion));
      const Raster source = randomRaster(rng, extentS, ZelSigned);
      const Raster before = randomRaster(rng, extentD, ZelSigned);
      const Image mask = randomMask(rng, extentS);
      ZelObject *objectS = make(source, repository, true, matchS, {{"byteOrder", kLsbFirst}});
      ZelObject *objectD = make(before, repository, true, matchD, {{"byteOrder", kMsbFirst}});
      if (withRegion) objects_->maskFor(objectS, mask, repository);
      ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
      expectRaster(
          expectedCopy({&source, matchS, withRegion ? &mask : nullptr}, {&before, matchD}, true),
          read(objectD, before));
    }
  }
}

uint8_t reversed(uint8_t byte) {
  uint8_t out = 0;
  for (int bit = 0; bit < 8; ++bit)
    if (byte & (1u << bit)) out = static_cast<uint8_t>(out | (0x80u >> bit));
  return out;
}

TEST_F(ConvertPixels, BooleanCopyBetweenBitOrdersReversesTheBitsOfEachByte) {
  const std::vector<uint8_t> data{0xCA, 0x0F, 0x31, 0x80, 0x01, 0x5B};
  const std::pair<int, int> orders[] = {{kMsbFirst, kLsbFirst}, {kLsbFirst, kMsbFirst}};
  for (int repository : kRepositories) {
    for (const auto &[from, to] : orders) {
      SCOPED_TRACE(repositoryName(repository) + " bit order " + std::to_string(from) + " to " +
                   std::to_string(to));
      Raster source(rows(16, 3), ZelBoolean, from);
      source.bytes = data;
      Raster shape(rows(16, 3), ZelBoolean, to);
      ZelObject *objectS = make(source, repository);
      ZelObject *objectD = make(shape, repository, false);
      ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
      const Raster result = read(objectD, shape);
      std::vector<uint8_t> expected;
      for (uint8_t byte : data)
        expected.push_back(reversed(byte));
      EXPECT_EQ(result.bytes, expected);
      // Pixel by pixel, each in its own order, nothing changed.
      EXPECT_EQ(result.values(), source.values());
    }
  }
}

TEST_F(ConvertPixels, BooleanCopyChangesOnlyTheBitsOfItsOwnPixels) {
  // Three pixels written into bits 2 to 4 of a byte that holds 0xA5.
  setting("matchPointState", 1);
  const Raster source = raster(ZelBoolean, rows(3), {0, 1, 1});
  const std::pair<int, uint8_t> results[] = {{kLsbFirst, 0xB9}, {kMsbFirst, 0x9D}};
  for (int repository : kRepositories) {
    for (const auto &[order, expected] : results) {
      SCOPED_TRACE(repositoryName(repository) + " bit order " + std::to_string(order));
      Raster before(rows(8), ZelBoolean, order);
      before.bytes = {0xA5};
      ZelObject *objectS = make(source, repository);
      ZelObject *objectD = make(before, repository, true, {2, 0, 0, 0, 0});
      ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
      EXPECT_EQ(read(objectD, before).bytes, std::vector<uint8_t>{expected});
    }
  }
}

TEST_F(ConvertPixels, BooleanOfAnUnknownBitOrderIsReadMostSignificantBitFirst) {
  Raster source(rows(16), ZelBoolean, 77);
  source.bytes = {0x81, 0x40};
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository);
    ASSERT_EQ(readAttribute(ctx_, objectS, "bitOrder"), 77);
    Raster shape(rows(16), ZelNonNegative);
    ZelObject *objectD = make(shape, repository, false);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    std::vector<double> expected(16, 0);
    expected[0] = expected[7] = expected[9] = 255;
    EXPECT_EQ(read(objectD, shape).values(), expected);
  }
}

TEST_F(ConvertPixels, BooleanOfAnUnknownBitOrderIsWrittenMostSignificantBitFirst) {
  const Raster source = raster(ZelNonNegative, rows(10), {200, 0, 0, 1, 0, 0, 0, 0, 0, 9});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository);
    Raster shape(rows(10), ZelBoolean, 0);
    ZelObject *objectD = make(shape, repository, false);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, shape).bytes, (std::vector<uint8_t>{0x90, 0x40}));
  }
}

// ---- Match points and regions of interest -------------------------------------------------------

TEST_F(ConvertPixels, NoOverlapAfterMatchPointsWritesNothing) {
  setting("matchPointState", 1);
  for (int repository : kRepositories) {
    for (int type : kTypes) {
      SCOPED_TRACE(repositoryName(repository) + " " + typeName(type));
      std::mt19937 rng(static_cast<unsigned>(repository + type));
      const Raster before = randomRaster(rng, rows(8, 4), type);
      ZelObject *objectS =
          make(randomRaster(rng, rows(8, 4), type), repository, true, {0, 4, 0, 0, 0});
      ZelObject *objectD = make(before, repository);
      clearLastError(ctx_);
      ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
      EXPECT_EQ(Zel003b(ctx_), 0);
      expectRaster(before, read(objectD, before));
      expectNoStreamOpen({objectS, objectD});
    }
  }
}

TEST_F(ConvertPixels, RegionOfInterestOnTheDestinationOnlyKeepsMaskedOutPixels) {
  setting("roiState", 1);
  const Image mask(rows(8), false, std::vector<uint8_t>{1, 0, 7, 0, 0, 255, 0, 2});
  const std::pair<int, int> pairs[] = {{ZelNonNegative, ZelNonNegative},
                                       {ZelSigned, ZelSigned},
                                       {ZelReal, ZelReal},
                                       {ZelReal, ZelSigned},
                                       {ZelBoolean, ZelNonNegative}};
  for (int repository : kRepositories) {
    for (const auto &[from, to] : pairs) {
      SCOPED_TRACE(repositoryName(repository) + " " + typeName(from) + " to " + typeName(to));
      const Raster source = raster(from, rows(8), {1, 2, 3, 4, 5, 6, 7, 8});
      const Raster before = filledWith(to, rows(8), 99);
      ZelObject *objectS = make(source, repository);
      ZelObject *objectD = make(before, repository);
      ZelObject *roi = objects_->maskFor(objectD, mask, repository);
      ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
      std::vector<double> expected;
      for (size_t x = 0; x < 8; ++x)
        expected.push_back(mask.pixels[x] == 0  ? 99
                           : from == ZelBoolean ? 255
                                                : static_cast<double>(x + 1));
      EXPECT_EQ(read(objectD, before).values(), expected);
      expectNoStreamOpen({objectS, objectD, roi});
    }
  }
}

TEST_F(ConvertPixels, PixelIsCopiedOnlyWhereBothRegionsAdmitIt) {
  setting("roiState", 1);
  const Image maskS(rows(6), false, std::vector<uint8_t>{1, 1, 0, 0, 3, 9});
  const Image maskD(rows(6), false, std::vector<uint8_t>{1, 0, 1, 0, 4, 0});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    const Raster before = filledWith(ZelSigned, rows(6), -5);
    ZelObject *objectS = make(raster(ZelReal, rows(6), {10, 20, 30, 40, 50.5, 60}), repository);
    ZelObject *objectD = make(before, repository);
    objects_->maskFor(objectS, maskS, repository);
    objects_->maskFor(objectD, maskD, repository);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, before).values(), (std::vector<double>{10, -5, -5, -5, 50, -5}));
  }
}

TEST_F(ConvertPixels, BooleanRowsAfterSkippedRowsOfAFreshDestinationLeaveTheSkippedBitsClear) {
  // Rows 1 to 3 of each plane are written; a row that follows skipped rows starts inside a byte
  // that no written row has touched.
  setting("matchPointState", 1);
  const Extent extentD{11, 6, 2, 1, 1}, match{0, 1, 0, 0, 0};
  const Raster source = filledWith(ZelBoolean, {11, 3, 2, 1, 1}, 1);
  const Raster before(extentD, ZelBoolean);
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, ZelWorkSpace);
    ZelObject *objectD = make(before, repository, false, match);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    expectRaster(expectedCopy({&source}, {&before, match}), read(objectD, before));
  }
}

// ---- The whole-row move of like pixels ----------------------------------------------------------

// One row copy between objects of one type, Y = 3 rows each, with x match points only: where the
// destination's pixels [destinationFirst, destinationFirst + count) take the source's pixels from
// sourceFirst on, every other destination pixel keeping its value.
struct RowMove {
  const char *name;
  int type;
  int sourceWidth, destinationWidth;
  int sourceMatch, destinationMatch;
  int destinationFirst, count, sourceFirst;
};

const RowMove kRowMoves[] = {
    // A region right of x = 0 is moved from and to 4 bytes a pixel for Signed, 16 for Real.
    {"SignedRegionRightOfOriginLandsTwiceAsFarRight", ZelSigned, 4, 16, 0, 2, 4, 4, 0},
    {"RealRegionRightOfOriginLandsFourTimesAsFarRight", ZelReal, 4, 16, 0, 2, 8, 4, 0},
    {"SignedSourceFurtherRightIsReadTwiceAsFarRight", ZelSigned, 8, 4, 2, 0, 0, 4, 4},
    {"RealSourceFurtherRightIsReadFourTimesAsFarRight", ZelReal, 16, 4, 2, 0, 0, 4, 8},
    // Moves that would leave a row stop at the row's end.
    {"SignedMoveStopsAtTheDestinationRowEnd", ZelSigned, 8, 8, 0, 3, 6, 2, 0},
    {"RealMoveStopsAtTheDestinationRowEnd", ZelReal, 8, 8, 0, 1, 4, 4, 0},
    {"RealMoveStartingPastTheDestinationRowMovesNothing", ZelReal, 8, 8, 0, 3, 0, 0, 0},
    {"SignedMoveStopsAtTheSourceRowEnd", ZelSigned, 8, 8, 3, 0, 0, 2, 6},
    {"RealMoveStopsAtTheSourceRowEnd", ZelReal, 8, 8, 1, 0, 0, 4, 4},
    {"RealMoveStartingPastTheSourceRowMovesNothing", ZelReal, 8, 8, 2, 0, 0, 0, 0},
    // Bytes are placed exactly.
    {"NonNegativeRegionRightOfOriginIsPlacedExactly", ZelNonNegative, 4, 16, 0, 2, 2, 4, 0},
    {"NonNegativeSourceFurtherRightIsReadExactly", ZelNonNegative, 8, 4, 2, 0, 0, 4, 2},
    // Rows that start at x = 0 on both sides are whole rows.
    {"SignedWholeRows", ZelSigned, 8, 8, 0, 0, 0, 8, 0},
    {"RealWholeRows", ZelReal, 8, 6, 0, 0, 0, 6, 0},
};

using RowMoveParam = std::tuple<int, int>;  // case, repository

class ConvertLikePixels : public ConvertPixels, public ::testing::WithParamInterface<RowMoveParam> {
 protected:
  const RowMove &move() const { return kRowMoves[std::get<0>(GetParam())]; }
  int repository() const { return std::get<1>(GetParam()); }

  // A source with a distinct value in each pixel, and a destination that holds -7 everywhere.
  Raster sourceOf(const RowMove &m) const {
    Raster r(rows(m.sourceWidth, 3), m.type);
    for (int64_t i = 0; i < r.count(); ++i)
      r.setValue(i, m.type == ZelNonNegative ? static_cast<double>(i + 1)
                    : m.type == ZelSigned    ? 100.0 * static_cast<double>(i + 1)
                                             : 100.25 * static_cast<double>(i + 1));
    return r;
  }
  Raster beforeOf(const RowMove &m) const {
    return filledWith(m.type, rows(m.destinationWidth, 3), m.type == ZelNonNegative ? 250 : -7);
  }
  // Runs the copy and returns the destination.
  Raster copy(const RowMove &m, const Raster &source, const Raster &before,
              const Image *destinationMask) {
    setting("matchPointState", 1);
    setting("roiState", destinationMask != nullptr);
    ZelObject *objectS = make(source, repository(), true, {m.sourceMatch, 0, 0, 0, 0});
    ZelObject *objectD = make(before, repository(), true, {m.destinationMatch, 0, 0, 0, 0});
    if (destinationMask) objects_->maskFor(objectD, *destinationMask, repository());
    EXPECT_EQ(Zel601(ctx_, objectS, objectD), 0) << Zel003b(ctx_);
    expectNoStreamOpen({objectS, objectD});
    expectRaster(source, read(objectS, source));
    return read(objectD, before);
  }
};

TEST_P(ConvertLikePixels, WithoutMaskTheRowPartMovesFromItsElementIndex) {
  const RowMove &m = move();
  const Raster source = sourceOf(m), before = beforeOf(m);
  Raster expected = before;
  for (int y = 0; y < 3; ++y)
    for (int i = 0; i < m.count; ++i)
      expected.setValue(expected.offset({m.destinationFirst + i, y, 0, 0, 0}),
                        source.value(source.offset({m.sourceFirst + i, y, 0, 0, 0})));
  expectRaster(expected, copy(m, source, before, nullptr));
}

TEST_P(ConvertLikePixels, WithMaskEachPixelMovesToItsOwnPlace) {
  const RowMove &m = move();
  const Raster source = sourceOf(m), before = beforeOf(m);
  const Image everywhere(rows(m.destinationWidth, 3), false, 1);
  const int shift = m.destinationMatch - m.sourceMatch;
  Raster expected = before;
  for (int y = 0; y < 3; ++y)
    for (int x = std::max(0, shift); x < std::min(m.destinationWidth, m.sourceWidth + shift); ++x)
      expected.setValue(expected.offset({x, y, 0, 0, 0}),
                        source.value(source.offset({x - shift, y, 0, 0, 0})));
  expectRaster(expected, copy(m, source, before, &everywhere));
}

std::string rowMoveName(const ::testing::TestParamInfo<RowMoveParam> &info) {
  return std::string(kRowMoves[std::get<0>(info.param)].name) + "_" +
         repositoryName(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(
    RowMoves, ConvertLikePixels,
    ::testing::Combine(::testing::Range(0, static_cast<int>(std::size(kRowMoves))),
                       ::testing::ValuesIn(kRepositories)),
    rowMoveName);

// ---- Narrow NonNegative pixels ------------------------------------------------------------------

TEST_F(ConvertPixels, NonNegativeOfNarrowPrecisionIsCopiedByteByByte) {
  // Below 8 bits an object's pixels are as wide as the context says, a byte by default.
  setting("matchPointState", 1);
  const Raster source = raster(ZelNonNegative, rows(6, 2),
                               {0, 15, 16, 200, 255, 7,  //
                                1, 2, 3, 4, 5, 6});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository, true, kOrigin, {{"dataPrecision", 4}});
    ASSERT_EQ(readAttribute(ctx_, objectS, "dataPrecision"), 4);
    const Raster before = filledWith(ZelNonNegative, rows(8, 2), 77);
    ZelObject *objectD = make(before, repository, true, {1, 0, 0, 0, 0}, {{"dataPrecision", 4}});
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, before).values(),
              (std::vector<double>{77, 0, 15, 16, 200, 255, 7, 77,  //
                                   77, 1, 2, 3, 4, 5, 6, 77}));

    Raster signedShape(rows(6, 2), ZelSigned);
    ZelObject *signedD = make(signedShape, repository, false);
    ASSERT_EQ(Zel601(ctx_, objectS, signedD), 0);
    EXPECT_EQ(read(signedD, signedShape).values(), source.values());
  }
}

TEST_F(ConvertPixels, BooleanIntoNarrowNonNegativeGivesFullBytes) {
  const Raster source = raster(ZelBoolean, rows(5), {1, 0, 0, 1, 1});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository);
    Raster shape(rows(5), ZelNonNegative);
    ZelObject *objectD = make(shape, repository, false, kOrigin, {{"dataPrecision", 2}});
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, shape).values(), (std::vector<double>{255, 0, 0, 255, 255}));
  }
}

// ---- Words and object handles -------------------------------------------------------------------

Raster words(const Extent &extent, const std::vector<uint32_t> &values) {
  Raster r(extent, ZelWord);
  for (size_t i = 0; i < values.size(); ++i)
    r.setElement(static_cast<int64_t>(i), values[i]);
  return r;
}

TEST_F(ConvertPixels, WordsAreCopiedIntoWords) {
  const Raster source = words(rows(6), {1, 0xFFFFFFFFu, 0x12345678u, 0, 42, 0x80000000u});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository, true, kOrigin, {}, Zel000d);
    ASSERT_EQ(readAttribute(ctx_, objectS, "dataType"), ZelWord);
    ASSERT_EQ(readAttribute(ctx_, objectS, "dataPrecision"), 32);
    const Raster before = words(rows(6), std::vector<uint32_t>(6, 0xAAAAAAAAu));
    ZelObject *objectD = make(before, repository, true, kOrigin, {}, Zel000d);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, before).bytes, source.bytes);
    expectNoStreamOpen({objectS, objectD});
  }
}

TEST_F(ConvertPixels, WordsFollowMatchPointsElementByElement) {
  setting("matchPointState", 1);
  const Raster source = words(rows(4), {11, 22, 33, 44});
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository, true, kOrigin, {}, Zel000d);
    const Raster before = words(rows(8), std::vector<uint32_t>(8, 5));
    ZelObject *objectD = make(before, repository, true, {3, 0, 0, 0, 0}, {}, Zel000d);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    EXPECT_EQ(read(objectD, before).values(), (std::vector<double>{5, 5, 5, 11, 22, 33, 44, 5}));
  }
}

TEST_F(ConvertPixels, ObjectHandlesAreCopiedIntoObjectHandles) {
  setting("matchPointState", 1);
  ZelObject *entries[] = {makeImage(ctx_, {}), nullptr, makeImage(ctx_, {}), makeImage(ctx_, {})};
  Raster source(rows(4), ZelObjectHandle);
  for (int i = 0; i < 4; ++i)
    source.setElement(i, entries[i]);
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *objectS = make(source, repository, true, kOrigin, {}, Zel000z);
    ASSERT_EQ(readAttribute(ctx_, objectS, "dataPrecision"),
              static_cast<ZelValue>(8 * sizeof(ZelObject *)));
    const Raster before(rows(6), ZelObjectHandle);
    ZelObject *objectD = make(before, repository, false, {2, 0, 0, 0, 0}, {}, Zel000z);
    ASSERT_EQ(Zel601(ctx_, objectS, objectD), 0);
    const Raster result = read(objectD, before);
    for (int i = 0; i < 6; ++i) {
      ZelObject *expected = i < 2 ? nullptr : entries[i - 2];
      EXPECT_EQ(result.element<ZelObject *>(i), expected) << "entry " << i;
      EXPECT_EQ(Zel010(ctx_, objectD, i), expected) << "entry " << i;
    }
  }
}

TEST_F(ConvertPixels, WordSourceIntoAnotherTypeIsRefused) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *wordS = make(words(rows(4), {1, 2, 3, 4}), repository, true, kOrigin, {}, Zel000d);
    for (int type : kTypes) {
      SCOPED_TRACE(typeName(type));
      const Raster before = filledWith(type, rows(4), 1);
      expectRefused(wordS, make(before, repository), before, 10);
    }
    Raster handles(rows(4), ZelObjectHandle);
    ZelObject *handleD = make(handles, repository, true, kOrigin, {}, Zel000z);
    expectRefused(wordS, handleD, handles, 10);
    // And the other way round.
    const Raster wordsBefore = words(rows(4), {9, 9, 9, 9});
    ZelObject *wordD = make(wordsBefore, repository, true, kOrigin, {}, Zel000d);
    expectRefused(handleD, wordD, wordsBefore, 10);
    const Raster bytesBefore = filledWith(ZelNonNegative, rows(8), 3);
    expectRefused(handleD, make(bytesBefore, repository), bytesBefore, 10);
  }
}

TEST_F(ConvertPixels, WordsOfAnotherWidthAreRefused) {
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    const Raster source = words(rows(4), {1, 2, 3, 4});
    ZelObject *wide = make(source, repository, true, kOrigin, {}, Zel000d);
    // Four 16-bit words take eight bytes.
    Raster narrowData = source;
    narrowData.bytes.resize(8);
    ZelObject *narrow =
        make(narrowData, repository, true, kOrigin, {{"dataPrecision", 16}}, Zel000d);
    ASSERT_EQ(readAttribute(ctx_, narrow, "dataPrecision"), 16);
    expectRefused(wide, narrow, narrowData, 10);
    expectRefused(narrow, wide, source, 10);
  }
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST_F(ConvertPixels, ComplexSourceIsRefusedWhateverTheDestination) {
  ZelObject *complex = make(Raster(rows(4), ZelComplex), ZelWorkSpace);
  std::vector<ZelObject *> destinations;
  for (int type : {ZelBoolean, ZelNonNegative, ZelSigned, ZelReal, ZelComplex}) {
    SCOPED_TRACE(typeName(type));
    const Raster before(rows(4), type);
    ZelObject *destination = make(before, ZelFile, false);
    clearLastError(ctx_);
    EXPECT_EQ(Zel601(ctx_, complex, destination), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    // The type is refused before any frame is opened: the destination got no data.
    EXPECT_EQ(readAttribute(ctx_, destination, "inited"), 0);
    expectNoStreamOpen({complex, destination});
    destinations.push_back(destination);
  }
  // Even a dead destination isn't looked at.
  ASSERT_EQ(Zel002(ctx_, destinations.back()), 0);
  EXPECT_EQ(Zel601(ctx_, complex, destinations.back()), 10);
}

TEST_F(ConvertPixels, DestinationOfATypeWithoutConversionIsRefused) {
  for (int repository : kRepositories) {
    for (int type : kTypes) {
      SCOPED_TRACE(repositoryName(repository) + " " + typeName(type));
      ZelObject *source = make(filledWith(type, rows(4, 2), 1), repository);
      Raster complex(rows(4, 2), ZelComplex);
      std::fill(complex.bytes.begin(), complex.bytes.end(), 0x77);
      expectRefused(source, make(complex, repository), complex, 10);
      const Raster histogram = words(rows(8), std::vector<uint32_t>(8, 3));
      expectRefused(source, make(histogram, repository, true, kOrigin, {}, Zel000d), histogram, 10);
    }
  }
}

TEST_F(ConvertPixels, SignedOfAnotherPrecisionIsRefusedOnEitherSide) {
  for (int precision : {8, 32}) {
    SCOPED_TRACE(precision);
    const Raster signedData = filledWith(ZelSigned, rows(4), 300);
    const Raster bytes = filledWith(ZelNonNegative, rows(8), 6);
    ZelObject *odd =
        make(signedData, ZelApplicationAddressSpace, true, kOrigin, {{"dataPrecision", precision}});
    ASSERT_EQ(readAttribute(ctx_, odd, "dataPrecision"), precision);
    ZelObject *plainSigned = make(signedData, ZelFile);
    expectRefused(odd, make(bytes, ZelFile), bytes, 10);
    expectRefused(odd, plainSigned, signedData, 10);
    expectRefused(plainSigned, odd, signedData, 10);
    expectRefused(make(bytes, ZelWorkSpace), odd, signedData, 10);
  }
}

TEST_F(ConvertPixels, RealOfAnotherPrecisionIsRefusedOnEitherSide) {
  for (int precision : {16, 64}) {
    SCOPED_TRACE(precision);
    const Raster realData = filledWith(ZelReal, rows(4), 2.5);
    const Raster bytes = filledWith(ZelNonNegative, rows(16), 6);
    ZelObject *odd =
        make(realData, ZelApplicationAddressSpace, true, kOrigin, {{"dataPrecision", precision}});
    ASSERT_EQ(readAttribute(ctx_, odd, "dataPrecision"), precision);
    ZelObject *plainReal = make(realData, ZelWorkSpace);
    expectRefused(odd, make(bytes, ZelFile), bytes, 10);
    expectRefused(odd, plainReal, realData, 10);
    expectRefused(plainReal, odd, realData, 10);
  }
}

TEST_F(ConvertPixels, NonNegativeNarrowedByTheContextIsRefusedOnEitherSide) {
  const Raster bytes = filledWith(ZelNonNegative, rows(8, 2), 40);
  const Raster signedData = filledWith(ZelSigned, rows(8, 2), 41);
  ZelObject *narrow =
      make(bytes, ZelApplicationAddressSpace, true, kOrigin, {{"dataPrecision", 4}});
  ZelObject *byteWide = make(bytes, ZelFile, true, kOrigin, {{"dataPrecision", 8}});
  ZelObject *signedObject = make(signedData, ZelWorkSpace);
  for (int precision : {4, 16}) {
    SCOPED_TRACE(precision);
    const ZelAttribute change[] = {{"nonnegativeIntegerPrecision", precision}};
    ASSERT_EQ(Zel008(ctx_, change, 1), 0);
    expectRefused(narrow, signedObject, signedData, 10);
    expectRefused(byteWide, narrow, bytes, 10);
    expectRefused(signedObject, narrow, bytes, 10);
  }
  // With the context's default again the same objects are fine.
  setting("nonnegativeIntegerPrecision", 8);
  EXPECT_EQ(Zel601(ctx_, narrow, signedObject), 0);
  EXPECT_EQ(read(signedObject, signedData).values(), bytes.values());
}

TEST_F(ConvertPixels, DeadSourceGivesNineBeforeItsTypeIsLookedAt) {
  const Raster before = filledWith(ZelNonNegative, rows(4), 8);
  ZelObject *destination = make(before, ZelFile, false);
  ZelObject *deadImage = make(before, ZelWorkSpace);
  ZelObject *deadComplex = make(Raster(rows(4), ZelComplex), ZelWorkSpace);
  ASSERT_EQ(Zel002(ctx_, deadImage), 0);
  ASSERT_EQ(Zel002(ctx_, deadComplex), 0);
  int notAnObject = 0;
  for (ZelObject *source : {deadImage, deadComplex, static_cast<ZelObject *>(nullptr),
                            reinterpret_cast<ZelObject *>(&notAnObject)}) {
    clearLastError(ctx_);
    EXPECT_EQ(Zel601(ctx_, source, destination), 9);
    EXPECT_EQ(Zel003b(ctx_), 9);
    EXPECT_EQ(readAttribute(ctx_, destination, "inited"), 0);
    expectNoStreamOpen({destination});
  }
}

TEST_F(ConvertPixels, DeadDestinationGivesNineAndClosesTheSource) {
  for (int repository : kRepositories) {
    const std::pair<Raster, Wrapper> sources[] = {{filledWith(ZelBoolean, rows(9, 2), 1), Zel000b},
                                                  {filledWith(ZelReal, rows(9, 2), 1.5), Zel000b},
                                                  {words(rows(3), {1, 2, 3}), Zel000d}};
    for (const auto &[data, create] : sources) {
      SCOPED_TRACE(repositoryName(repository) + " " + typeName(data.type));
      ZelObject *source = make(data, repository, true, kOrigin, {}, create);
      ZelObject *destination = make(filledWith(ZelNonNegative, rows(9, 2), 0), repository);
      ASSERT_EQ(Zel002(ctx_, destination), 0);
      clearLastError(ctx_);
      EXPECT_EQ(Zel601(ctx_, source, destination), 9);
      EXPECT_EQ(Zel003b(ctx_), 9);
      expectNoStreamOpen({source});
      expectRaster(data, read(source, data));
    }
  }
}

TEST_F(ConvertPixels, BadContextGives24) {
  const Raster before = filledWith(ZelNonNegative, rows(4), 8);
  ZelObject *source = make(filledWith(ZelReal, rows(4), 1), ZelApplicationAddressSpace);
  ZelObject *destination = make(before, ZelApplicationAddressSpace);
  ZelContext *closed = Zel004(nullptr);
  ASSERT_NE(closed, nullptr);
  ASSERT_EQ(Zel001(closed), 0);
  int notAContext = 0;
  clearLastError(ctx_);
  for (ZelContext *bad :
       {static_cast<ZelContext *>(nullptr), reinterpret_cast<ZelContext *>(&notAContext), closed})
    EXPECT_EQ(Zel601(bad, source, destination), 24);
  EXPECT_EQ(Zel003b(ctx_), 0);
  expectRaster(before, read(destination, before));
}

TEST_F(ConvertPixels, MissingApplicationMemoryOfTheDestinationClosesTheSource) {
  ZelObject *source = make(filledWith(ZelSigned, rows(4, 2), 3), ZelFile);
  const ZelAttribute list[] = {{"dataType", ZelSigned},
                               {"xDimension", 4},
                               {"yDimension", 2},
                               {"repository", ZelApplicationAddressSpace}};
  ZelObject *destination = Zel000b(ctx_, nullptr, nullptr, list, 4);
  ASSERT_NE(destination, nullptr);
  clearLastError(ctx_);
  EXPECT_EQ(Zel601(ctx_, source, destination), 12);
  EXPECT_EQ(Zel003b(ctx_), 12);
  expectNoStreamOpen({source, destination});
}

TEST_F(ConvertPixels, ShortSourceFileEndsTheCopyAndKeepsTheRowsWritten) {
  const Raster full = raster(ZelSigned, rows(4, 4),
                             {1, 2, 3, 4, 5, 6, 7, 8,  //
                              9, 10, 11, 12, 13, 14, 15, 16});
  ZelObject *source = make(full, ZelFile);
  const auto *name = reinterpret_cast<const char *>(readAttribute(ctx_, source, "fileName"));
  ASSERT_NE(name, nullptr);
  // The file holds two of the four rows.
  writeFile(name, std::vector<uint8_t>(full.bytes.begin(), full.bytes.begin() + 16));
  const Raster before = filledWith(ZelNonNegative, rows(4, 4), 99);
  ZelObject *destination = make(before, ZelApplicationAddressSpace);
  clearLastError(ctx_);
  EXPECT_EQ(Zel601(ctx_, source, destination), -1);
  EXPECT_EQ(Zel003b(ctx_), -1);
  EXPECT_EQ(read(destination, before).values(),
            (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 8, 99, 99, 99, 99, 99, 99, 99, 99}));
  expectNoStreamOpen({source, destination});
}

// ---- What stays as it was -----------------------------------------------------------------------

TEST_F(ConvertPixels, DestinationAttributesStayAsTheyWere) {
  ZelObject *source = make(filledWith(ZelReal, rows(5, 3), 7.5), ZelWorkSpace);
  ZelObject *destination =
      make(Raster(rows(4, 2), ZelSigned), ZelFile, false, kOrigin, {{"byteOrder", kLsbFirst}});
  const char *const names[] = {"dataType",   "dataPrecision", "xDimension", "yDimension",
                               "zDimension", "byteOrder",     "bitOrder",   "colourSpace"};
  std::vector<ZelValue> beforeValues;
  for (const char *name : names)
    beforeValues.push_back(readAttribute(ctx_, destination, name));
  ASSERT_EQ(Zel601(ctx_, source, destination), 0);
  for (size_t i = 0; i < std::size(names); ++i)
    EXPECT_EQ(readAttribute(ctx_, destination, names[i]), beforeValues[i]) << names[i];
  EXPECT_EQ(readAttribute(ctx_, destination, "inited"), 1);
  EXPECT_EQ(read(destination, Raster(rows(4, 2), ZelSigned)).values(), std::vector<double>(8, 7));
}

}  // namespace
