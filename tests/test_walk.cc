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
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

// ---- Images held by the test ---------------------------------------------------------------

using Extent = std::array<int, 5>;  // x, y, z, t, b
constexpr Extent kOrigin{0, 0, 0, 0, 0};

int64_t pixelCount(const Extent &extent) {
  int64_t count = 1;
  for (int e : extent)
    count *= e;
  return count;
}

// The pixels of one object, one value a pixel whatever the type, in the order of the data.
struct Image {
  Extent extent{1, 1, 1, 1, 1};
  bool boolean = false;
  std::vector<uint8_t> pixels;

  Image() = default;
  Image(const Extent &e, bool isBoolean, uint8_t fill = 0)
      : extent(e), boolean(isBoolean), pixels(static_cast<size_t>(pixelCount(e)), fill) {}
  Image(const Extent &e, bool isBoolean, std::vector<uint8_t> values)
      : extent(e), boolean(isBoolean), pixels(std::move(values)) {}

  size_t offset(const Extent &at) const {
    int64_t o = at[4];
    for (int axis = 3; axis >= 0; --axis)
      o = o * extent[axis] + at[axis];
    return static_cast<size_t>(o);
  }
  uint8_t &operator[](const Extent &at) { return pixels[offset(at)]; }
  uint8_t operator[](const Extent &at) const { return pixels[offset(at)]; }
  size_t totalBytes() const { return boolean ? (pixels.size() + 7) / 8 : pixels.size(); }
};

// Boolean pixels are packed from the most significant bit of each byte, rows without padding.
std::vector<uint8_t> pack(const Image &image) {
  if (!image.boolean) return image.pixels;
  std::vector<uint8_t> bytes(image.totalBytes(), 0);
  for (size_t i = 0; i < image.pixels.size(); ++i)
    if (image.pixels[i]) bytes[i >> 3] = static_cast<uint8_t>(bytes[i >> 3] | (0x80u >> (i & 7)));
  return bytes;
}

Image unpack(const Extent &extent, bool boolean, const uint8_t *bytes) {
  Image image(extent, boolean);
  for (size_t i = 0; i < image.pixels.size(); ++i)
    image.pixels[i] =
        boolean ? static_cast<uint8_t>((bytes[i >> 3] >> (7 - (i & 7))) & 1) : bytes[i];
  return image;
}

Image randomImage(std::mt19937 &rng, const Extent &extent, bool boolean) {
  Image image(extent, boolean);
  for (uint8_t &pixel : image.pixels) {
    uint32_t r = static_cast<uint32_t>(rng());
    if (boolean)
      pixel = static_cast<uint8_t>(r & 1);
    else if ((r & 7) == 0)
      pixel = 0;
    else if ((r & 15) == 1)
      pixel = 255;
    else
      pixel = static_cast<uint8_t>(r >> 8);
  }
  return image;
}

// A region of interest: about a quarter holes, and any nonzero byte where it admits.
Image randomMask(std::mt19937 &rng, const Extent &extent) {
  Image mask(extent, false);
  for (uint8_t &pixel : mask.pixels) {
    uint32_t r = static_cast<uint32_t>(rng());
    pixel = (r % 4 == 0) ? 0 : static_cast<uint8_t>(1 + (r >> 8) % 255);
  }
  return mask;
}

std::string describe(const Image &image, size_t index) {
  Extent at{};
  size_t rest = index;
  for (int axis = 0; axis < 5; ++axis) {
    at[axis] = static_cast<int>(rest % static_cast<size_t>(image.extent[axis]));
    rest /= static_cast<size_t>(image.extent[axis]);
  }
  return "(" + std::to_string(at[0]) + "," + std::to_string(at[1]) + "," + std::to_string(at[2]) +
         "," + std::to_string(at[3]) + "," + std::to_string(at[4]) + ")";
}

void expectPixels(const Image &expected, const Image &actual) {
  ASSERT_EQ(expected.pixels.size(), actual.pixels.size());
  size_t differences = 0;
  std::string detail;
  for (size_t i = 0; i < expected.pixels.size(); ++i) {
    if (expected.pixels[i] == actual.pixels[i]) continue;
    if (differences++ < 6)
      detail += " " + describe(expected, i) + " expected " + std::to_string(expected.pixels[i]) +
                " got " + std::to_string(actual.pixels[i]) + ";";
  }
  EXPECT_EQ(differences, 0u) << "of " << expected.pixels.size() << " pixels:" << detail;
}

// ---- The reference ---------------------------------------------------------------------------

uint8_t byteOf(int value) {
  return static_cast<uint8_t>(value & 0xFF);
}

// The result for one pixel of two bytes, or nothing when the pixel is left alone.
std::optional<uint8_t> byteResult(int operation, int a, int b) {
  switch (operation) {
    case ZelAbsoluteDifference:
      return byteOf(std::abs(a - b));
    case ZelAdd:
      return byteOf(std::min(a + b, 255));
    case ZelAverage:
      return byteOf((a + b) >> 1);
    case ZelDivide:
      if (b == 0) return std::nullopt;
      return byteOf(a / b);
    case ZelAnd:
      return byteOf(a & b);
    case ZelNand:
      return byteOf(~(a & b));
    case ZelNor:
      return byteOf(~(a | b));
    case ZelOr:
      return byteOf(a | b);
    case ZelXor:
      return byteOf(a ^ b);
    case ZelMaximum:
      return byteOf(std::max(a, b));
    case ZelMinimum:
      return byteOf(std::min(a, b));
    case ZelMultiply:
      return byteOf(std::min(a * b, 255));
    case ZelSubtract:
      return byteOf(std::max(a - b, 0));
    case ZelHalfDifference:
      return byteOf(std::max((a - b) >> 1, 0));
    default:
      return std::nullopt;
  }
}

// The result for one pixel of two bits, or nothing when the pixel is left alone.
std::optional<uint8_t> bitResult(int operation, int a, int b) {
  switch (operation) {
    case ZelAnd:
      return byteOf(a & b);
    case ZelNand:
      return byteOf(!b);
    case ZelNor:
      return byteOf(!(a | b));
    case ZelOr:
      return byteOf(a | b);
    case ZelXor:
      return byteOf(a ^ b);
    default:
      return std::nullopt;
  }
}

struct Operand {
  const Image *image;
  Extent match = kOrigin;       // the match point in force, zeros when none applies
  const Image *mask = nullptr;  // the region of interest in force, shaped like the image
};

void forEachPixel(const Extent &first, const Extent &last,
                  const std::function<void(const Extent &)> &f) {
  Extent at{};
  for (at[4] = first[4]; at[4] <= last[4]; ++at[4])
    for (at[3] = first[3]; at[3] <= last[3]; ++at[3])
      for (at[2] = first[2]; at[2] <= last[2]; ++at[2])
        for (at[1] = first[1]; at[1] <= last[1]; ++at[1])
          for (at[0] = first[0]; at[0] <= last[0]; ++at[0])
            f(at);
}

// The destination after the operation: the objects laid over each other at their match
// points, the overlap computed pixel by pixel where every region of interest admits it.
Image combine(int operation, const Operand &a, const Operand &b, const Operand &d) {
  Image out = *d.image;
  Extent first{}, last{};
  for (int axis = 0; axis < 5; ++axis) {
    int low = 0, high = d.image->extent[axis] - 1;
    for (const Operand *source : {&a, &b}) {
      int shift = d.match[axis] - source->match[axis];
      low = std::max(low, shift);
      high = std::min(high, source->image->extent[axis] + shift - 1);
    }
    if (low > high) return out;
    first[axis] = low;
    last[axis] = high;
  }
  forEachPixel(first, last, [&](const Extent &at) {
    Extent atA = at, atB = at;
    for (int axis = 0; axis < 5; ++axis) {
      atA[axis] += a.match[axis] - d.match[axis];
      atB[axis] += b.match[axis] - d.match[axis];
    }
    if (a.mask && (*a.mask)[atA] == 0) return;
    if (b.mask && (*b.mask)[atB] == 0) return;
    if (d.mask && (*d.mask)[at] == 0) return;
    int va = (*a.image)[atA], vb = (*b.image)[atB];
    std::optional<uint8_t> r =
        out.boolean ? bitResult(operation, va, vb) : byteResult(operation, va, vb);
    if (r) out[at] = *r;
  });
  return out;
}

// ---- Objects of the library --------------------------------------------------------------

using Wrapper = ZelObject *(*)(ZelContext *, const char *, ZelObject *, const ZelAttribute *, int);

std::vector<uint8_t> fileBytes(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path &path, const std::vector<uint8_t> &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// Makes objects with pixels in any repository, keeping the application memory behind them, and
// reads their pixels back: work space through "workSpace", files from the disk.
class Objects {
 public:
  explicit Objects(ZelContext *ctx) : ctx_(ctx) {}

  ZelObject *make(const Image &image, int repository, bool withData, const Extent &match = kOrigin,
                  Wrapper create = Zel000b) {
    const ZelAttribute list[] = {
        {"dataType", image.boolean ? ZelBoolean : ZelNonNegative},
        {"xDimension", image.extent[0]},
        {"yDimension", image.extent[1]},
        {"zDimension", image.extent[2]},
        {"tDimension", image.extent[3]},
        {"bDimension", image.extent[4]},
        {"repository", repository},
        {"xMatchPoint", match[0]},
        {"yMatchPoint", match[1]},
        {"zMatchPoint", match[2]},
        {"tMatchPoint", match[3]},
        {"bMatchPoint", match[4]},
    };
    ZelObject *object = create(ctx_, nullptr, nullptr, list, static_cast<int>(std::size(list)));
    if (!object) {
      ADD_FAILURE() << "no object";
      return nullptr;
    }
    std::vector<uint8_t> bytes =
        withData ? pack(image) : std::vector<uint8_t>(image.totalBytes(), 0);
    if (repository == ZelApplicationAddressSpace) {
      std::vector<uint8_t> &block = memory_[object];
      block = bytes;
      EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace",
                        reinterpret_cast<ZelValue>(block.data())),
                0);
    } else if (repository == ZelFile && withData) {
      std::string name = "object" + std::to_string(files_++) + ".raw";
      writeFile(name, bytes);
      const ZelAttribute named[] = {{"fileName", reinterpret_cast<ZelValue>(name.c_str())},
                                    {"inited", 1}};
      EXPECT_EQ(Zel006(ctx_, object, named, 2), 0);
    } else if (repository == ZelWorkSpace && withData) {
      zel::RepositoryStream *stream = zel::openRepositoryStream(ctx_, object, "w", 1);
      if (!stream) {
        ADD_FAILURE() << "no work space for the pixels";
        return object;
      }
      zel::closeRepositoryStream(ctx_, stream);
      auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx_, object, "workSpace"));
      EXPECT_NE(block, nullptr);
      if (block) std::memcpy(block, bytes.data(), bytes.size());
    }
    return object;
  }

  // A region-of-interest object holding `mask`.
  ZelObject *mask(const Image &mask, int repository) {
    return make(mask, repository, true, kOrigin, Zel000j);
  }

  ZelObject *maskFor(ZelObject *object, const Image &mask, int repository) {
    ZelObject *roi = this->mask(mask, repository);
    EXPECT_EQ(Zel006a(ctx_, object, "roi", reinterpret_cast<ZelValue>(roi)), 0);
    return roi;
  }

  std::vector<uint8_t> bytes(ZelObject *object, size_t count) {
    switch (readAttribute(ctx_, object, "repository")) {
      case ZelApplicationAddressSpace: {
        std::vector<uint8_t> &block = memory_[object];
        return std::vector<uint8_t>(
            block.begin(),
            block.begin() + static_cast<std::ptrdiff_t>(std::min(count, block.size())));
      }
      case ZelWorkSpace: {
        auto *block = reinterpret_cast<const uint8_t *>(readAttribute(ctx_, object, "workSpace"));
        if (!block) return {};
        return std::vector<uint8_t>(block, block + count);
      }
      case ZelFile: {
        auto *name = reinterpret_cast<const char *>(readAttribute(ctx_, object, "fileName"));
        if (!name) return {};
        std::vector<uint8_t> all = fileBytes(name);
        if (all.size() > count) all.resize(count);
        return all;
      }
      default:
        return {};
    }
  }

  Image read(ZelObject *object, const Extent &extent, bool boolean) {
    Image shape(extent, boolean);
    std::vector<uint8_t> data = bytes(object, shape.totalBytes());
    if (data.size() != shape.totalBytes()) {
      ADD_FAILURE() << "the object holds " << data.size() << " bytes, not " << shape.totalBytes();
      return shape;
    }
    return unpack(extent, boolean, data.data());
  }

 private:
  ZelContext *ctx_;
  std::map<ZelObject *, std::vector<uint8_t>> memory_;
  int files_ = 0;
};

int openDescriptors() {
  int count = 0;
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

void expectNoStreamOpen(std::initializer_list<ZelObject *> objects) {
  for (ZelObject *object : objects) {
    EXPECT_EQ(object->openStreams, 0);
    EXPECT_EQ(object->fileUseCount, 0);
  }
}

// A context in a scratch directory with a private temporary directory, which must be empty
// again, and every descriptor closed, once the context is gone.
class OperatorWalk : public ::testing::Test {
 protected:
  OperatorWalk() {
    temporary_ = scratch_.path() / "tmp";
    fs::create_directory(temporary_);
    if (const char *old = std::getenv("TMPDIR")) savedTmpdir_ = old;
    setenv("TMPDIR", temporary_.c_str(), 1);
    descriptors_ = openDescriptors();
    ctx_ = Zel004(nullptr);
    objects_ = std::make_unique<Objects>(ctx_);
  }
  ~OperatorWalk() override {
    if (savedTmpdir_)
      setenv("TMPDIR", savedTmpdir_->c_str(), 1);
    else
      unsetenv("TMPDIR");
  }
  void TearDown() override {
    if (ctx_) {
      EXPECT_EQ(Zel001(ctx_), 0);
    }
    ctx_ = nullptr;
    objects_.reset();
    std::string left;
    for (const auto &entry : fs::directory_iterator(temporary_))
      left += entry.path().filename().string() + " ";
    EXPECT_TRUE(left.empty()) << "temporary files left: " << left;
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  void setting(const char *name, ZelValue value) {
    ASSERT_EQ(Zel008a(ctx_, name, value), 0) << name;
  }

  // One row of bytes in work space.
  ZelObject *row(const std::vector<uint8_t> &values, int repository = ZelWorkSpace) {
    return objects_->make(Image({static_cast<int>(values.size()), 1, 1, 1, 1}, false, values),
                          repository, true);
  }
  std::vector<uint8_t> rowOf(ZelObject *object, size_t width) {
    return objects_->read(object, {static_cast<int>(width), 1, 1, 1, 1}, false).pixels;
  }

  // The names of the files in the temporary directory, which are removed.
  std::string takeTemporaryFiles() {
    std::string names;
    for (const auto &entry : fs::directory_iterator(temporary_)) {
      names += entry.path().filename().string() + " ";
      fs::remove(entry.path());
    }
    return names;
  }

  ScratchDirectory scratch_;
  fs::path temporary_;
  std::optional<std::string> savedTmpdir_;
  int descriptors_ = 0;
  ZelContext *ctx_ = nullptr;
  std::unique_ptr<Objects> objects_;
};

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

const char *repositoryName(int repository) {
  switch (repository) {
    case ZelWorkSpace:
      return "WorkSpace";
    case ZelApplicationAddressSpace:
      return "ApplicationMemory";
    case ZelFile:
      return "File";
    default:
      return "Unknown";
  }
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
