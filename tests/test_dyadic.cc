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
class DyadicOperators : public ::testing::Test {
 protected:
  DyadicOperators() {
    temporary_ = scratch_.path() / "tmp";
    fs::create_directory(temporary_);
    if (const char *old = std::getenv("TMPDIR")) savedTmpdir_ = old;
    setenv("TMPDIR", temporary_.c_str(), 1);
    descriptors_ = openDescriptors();
    ctx_ = Zel004(nullptr);
    objects_ = std::make_unique<Objects>(ctx_);
  }
  ~DyadicOperators() override {
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

  ScratchDirectory scratch_;
  fs::path temporary_;
  std::optional<std::string> savedTmpdir_;
  int descriptors_ = 0;
  ZelContext *ctx_ = nullptr;
  std::unique_ptr<Objects> objects_;
};

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
