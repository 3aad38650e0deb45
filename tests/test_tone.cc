// Histograms and tone curves: counting grey levels into a histogram, histogram modification to a
// chosen distribution, gamma with a linear toe and the S-curve of brightness and contrast. The
// curves are checked against tables computed here from their formulas, applied through a lookup
// that honours match points and regions of interest; failures are checked for their codes, for
// objects left as they were and for temporary objects that must be gone on every way out.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kernel/context.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

constexpr int kLevels = 256;
using Table = std::array<uint8_t, kLevels>;
using LevelCounts = std::array<uint64_t, kLevels>;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// ---- Constants given to the operators -------------------------------------------------------

ZelScalar realScalar(double value) {
  ZelScalar scalar{};
  scalar.tag = ZelReal;
  scalar.v.d = value;
  return scalar;
}

// An integer constant: only the low 32 bits of the slot carry the value.
ZelScalar integerScalar(int64_t slot, int32_t tag = ZelNonNegative) {
  ZelScalar scalar{};
  scalar.tag = tag;
  scalar.v.i = slot;
  return scalar;
}

// ---- The reference ----------------------------------------------------------------------------

// A curve's value stored in a byte: truncated toward zero, the low eight bits kept; not a number
// gives 0. The cases here stay inside the 32-bit range.
uint8_t storedByte(double value) {
  if (std::isnan(value)) return 0;
  EXPECT_LT(std::fabs(value), 2147483647.0) << "a reference value beyond the cases of this file";
  return static_cast<uint8_t>(static_cast<int64_t>(value));
}

Table identityTable() {
  Table table{};
  for (int i = 0; i < kLevels; ++i)
    table[static_cast<size_t>(i)] = static_cast<uint8_t>(i);
  return table;
}

// The levels of every pixel admitted by `mask` (all of them without one).
LevelCounts levelCounts(const Image &image, const Image *mask = nullptr) {
  LevelCounts counts{};
  for (size_t i = 0; i < image.pixels.size(); ++i)
    if (!mask || mask->pixels[i] != 0) ++counts[image.pixels[i]];
  return counts;
}

// The bins of a histogram of `entries` counters: the width is 256 / entries, and levels beyond
// the last whole bin are counted in the last bin.
std::vector<uint32_t> binCounts(const Image &image, const Image *mask, int entries) {
  const int width = kLevels / entries;
  std::vector<uint32_t> bins(static_cast<size_t>(entries), 0);
  LevelCounts counts = levelCounts(image, mask);
  for (int v = 0; v < kLevels; ++v)
    bins[static_cast<size_t>(std::min(v / width, entries - 1))] +=
        static_cast<uint32_t>(counts[static_cast<size_t>(v)]);
  return bins;
}

// The table of histogram modification: P is the running share of the counts up to and
// including the level; an entry the shape has no value for repeats the one before it, and
// entry 0 then is the low bound; without any count the table keeps every level.
Table modificationTable(const LevelCounts &counts, int shape, double low, double high,
                        double alpha) {
  uint64_t total = 0;
  for (uint64_t count : counts)
    total += count;
  if (total == 0) return identityTable();
  const double third = 0.3333333333333333;
  Table table{};
  uint64_t running = 0;
  for (size_t i = 0; i < table.size(); ++i) {
    running += counts[i];
    const double P = static_cast<double>(running) / static_cast<double>(total);
    double value = 0;
    bool defined = true;
    switch (shape) {
      case ZelCubeRoot:
        value = std::pow((std::pow(high, third) - std::pow(low, third)) * P + std::pow(low, third),
                         3.0) +
                0.5;
        break;
      case ZelExponential:
        defined = P != 1;
        value = low - std::log(1 - P) / alpha;
        break;
      case ZelLogarithmic:
        value = low * std::pow(high / low, P) + 0.5;
        break;
      case ZelUniform:
        value = (high - low) * P + low + 0.5;
        break;
      case ZelRayleigh:
        defined = P != 1;
        value = low + std::sqrt(2 * alpha * alpha * std::log(1 / (1 - P)));
        break;
      default:
        ADD_FAILURE() << "no shape " << shape;
    }
    if (defined)
      table[i] = storedByte(value);
    else
      table[i] = i > 0 ? table[i - 1] : storedByte(low);
  }
  return table;
}

// The gamma table: x = i / 255 as the double 0.00392156862745098, the value scaled by 255,
// rounded by adding 0.5, limited to 0..255 and truncated.
Table gammaTable(int direction, double a, double gamma, double c, double slope, double breakpoint) {
  Table table{};
  for (size_t i = 0; i < table.size(); ++i) {
    const double x = static_cast<double>(i) * 0.00392156862745098;
    double value;
    if (direction == ZelEncode)
      value = x >= breakpoint ? a * std::pow(x, gamma) + c : slope * x;
    else
      value = x >= slope * breakpoint ? std::pow((x - c) / a, 1 / gamma) : x / slope;
    const double scaled = std::clamp(value * 255 + 0.5, 0.0, 255.0);
    table[i] = static_cast<uint8_t>(scaled);
  }
  return table;
}

// The S-curve: two power curves that meet at (c, d); the end entries copy their neighbours.
Table sCurveTable(double brightness, double contrast) {
  const int N = kLevels;
  const double p = brightness * 0.2;
  const double c = 0.5 - p, d = 0.5 + p, g = contrast + 1;
  const double e1 = g * c / d, e2 = g * (1 - c) / (1 - d);
  const double k1 = d * std::pow(c, -e1), k2 = -(1 - d) * std::pow(1 - c, -e2);
  Table table{};
  for (int i = 0; i < N; ++i) {
    const double t = static_cast<double>(i) / (N - 1);
    const auto at = static_cast<size_t>(i);
    if (t > 0 && t < c)
      table[at] = storedByte(std::pow(t, e1) * k1 * (N - 1));
    else if (t >= c && t < 1)
      table[at] = storedByte((std::pow(1 - t, e2) * k2 + 1) * (N - 1));
  }
  table[0] = table[1];
  table[N - 1] = table[N - 2];
  return table;
}

// A lookup of the source into the destination: the objects laid over each other at their match
// points, each pixel of the overlap admitted by every region of interest replaced by the entry.
Image lookedUp(const Table &table, const Operand &source, const Operand &destination) {
  Image out = *destination.image;
  Extent first{}, last{};
  for (int axis = 0; axis < 5; ++axis) {
    const int shift = destination.match[axis] - source.match[axis];
    first[axis] = std::max(0, shift);
    last[axis] = std::min(destination.image->extent[axis], source.image->extent[axis] + shift) - 1;
    if (first[axis] > last[axis]) return out;
  }
  forEachPixel(first, last, [&](const Extent &at) {
    Extent from = at;
    for (int axis = 0; axis < 5; ++axis)
      from[axis] += source.match[axis] - destination.match[axis];
    if (source.mask && (*source.mask)[from] == 0) return;
    if (destination.mask && (*destination.mask)[at] == 0) return;
    out[at] = table[(*source.image)[from]];
  });
  return out;
}

Image mapped(const Table &table, const Image &source) {
  Image out = source;
  for (uint8_t &pixel : out.pixels)
    pixel = table[pixel];
  return out;
}

// Every level once, over several rows.
Image everyLevel() {
  Image image({32, 8, 1, 1, 1}, false);
  for (size_t i = 0; i < image.pixels.size(); ++i)
    image.pixels[i] = static_cast<uint8_t>(i);
  return image;
}

// Levels drawn evenly from lowest..highest only.
Image narrowImage(std::mt19937 &rng, const Extent &extent, int lowest, int highest) {
  Image image(extent, false);
  std::uniform_int_distribution<int> level(lowest, highest);
  for (uint8_t &pixel : image.pixels)
    pixel = static_cast<uint8_t>(level(rng));
  return image;
}

// A seed of its own for each named case.
unsigned seedOf(const char *name) {
  unsigned seed = 2166136261u;
  for (const char *p = name; *p; ++p)
    seed = (seed ^ static_cast<unsigned char>(*p)) * 16777619u;
  return seed;
}

const int kRepositories[] = {ZelWorkSpace, ZelApplicationAddressSpace, ZelFile};

// ---- The fixture -------------------------------------------------------------------------------

struct TreeSize {
  int live = 0;     // objects in use
  int records = 0;  // records in the tree, free ones included
};

class ToneOperators : public OperatorFixture {
 protected:
  TreeSize treeSize() const {
    TreeSize size;
    std::vector<ZelObject *> pending;
    if (ctx_->rootObject) pending.push_back(ctx_->rootObject);
    while (!pending.empty()) {
      ZelObject *record = pending.back();
      pending.pop_back();
      ++size.records;
      if (record->inUse) ++size.live;
      if (record->nextSibling) pending.push_back(record->nextSibling);
      if (record->firstChild) pending.push_back(record->firstChild);
    }
    return size;
  }
  int liveObjects() const { return treeSize().live; }

  // The handle of a destroyed object derived from `parent`. Its record stays among the records
  // derived from the parent, which objects made without a parent (the operators' temporaries
  // among them) never reuse: the handle stays dead.
  ZelObject *deadChildOf(ZelObject *parent) {
    ZelObject *child = Zel000(ctx_, nullptr, Zel097(ctx_, parent), parent, nullptr, 0);
    EXPECT_NE(child, nullptr);
    EXPECT_EQ(Zel002(ctx_, child), 0);
    return child;
  }

  // A Histogram of `entries` counters; in application memory the block holds `guard` more words
  // of 0xA5A5A5A5 after the counters, which nothing may write.
  ZelObject *histogram(int entries, int repository = ZelWorkSpace, int yDimension = 1,
                       size_t guard = 0) {
    const ZelAttribute list[] = {
        {"xDimension", entries}, {"yDimension", yDimension}, {"repository", repository}};
    clearLastError(ctx_);
    ZelObject *object = Zel000d(ctx_, nullptr, nullptr, list, 3);
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(Zel003b(ctx_), 0);
    if (object && repository == ZelApplicationAddressSpace) {
      std::vector<uint32_t> &block =
          blocks_.emplace_back(static_cast<size_t>(std::max(entries, 0)) + guard, 0xA5A5A5A5u);
      EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(block.data())), 0);
      memoryOf_[object] = &block;
    }
    return object;
  }

  // The application memory behind an object made by `histogram` or `wordImage`.
  std::vector<uint32_t> &memoryOf(ZelObject *object) { return *memoryOf_.at(object); }

  // An image of 32-bit words in application memory, filled with `fill`.
  ZelObject *wordImage(const Extent &extent, uint32_t fill) {
    const ZelAttribute list[] = {
        {"dataType", ZelWord},     {"dataPrecision", 32},
        {"xDimension", extent[0]}, {"yDimension", extent[1]},
        {"zDimension", extent[2]}, {"tDimension", extent[3]},
        {"bDimension", extent[4]}, {"repository", ZelApplicationAddressSpace}};
    clearLastError(ctx_);
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, list, static_cast<int>(std::size(list)));
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(Zel003b(ctx_), 0);
    std::vector<uint32_t> &block =
        blocks_.emplace_back(static_cast<size_t>(pixelCount(extent)), fill);
    if (object) {
      EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(block.data())), 0);
      memoryOf_[object] = &block;
    }
    return object;
  }

  // The counters of a histogram, exported into memory of the test.
  std::vector<uint32_t> counters(ZelObject *histogram, int entries) {
    std::vector<uint32_t> values(static_cast<size_t>(entries), 0x5A5A5A5Au);
    EXPECT_EQ(Zel605(ctx_, histogram, values.data(), nullptr, 0), 0);
    return values;
  }

  // An object of any data type in application memory, every byte of it `fill`.
  ZelObject *typedImage(int dataType, int precision, const Extent &extent, uint8_t fill) {
    const ZelAttribute list[] = {
        {"dataType", dataType},    {"dataPrecision", precision},
        {"xDimension", extent[0]}, {"yDimension", extent[1]},
        {"zDimension", extent[2]}, {"tDimension", extent[3]},
        {"bDimension", extent[4]}, {"repository", ZelApplicationAddressSpace}};
    clearLastError(ctx_);
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, list, static_cast<int>(std::size(list)));
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(Zel003b(ctx_), 0);
    const size_t bytes = static_cast<size_t>((pixelCount(extent) * precision + 7) / 8);
    std::vector<uint8_t> &block = byteBlocks_.emplace_back(bytes, fill);
    if (object) {
      EXPECT_EQ(Zel006a(ctx_, object, "applicationAddressSpace", word(block.data())), 0);
    }
    return object;
  }
  // The bytes of an object made by `typedImage`, in the order of creation.
  const std::vector<uint8_t> &typedBytes(size_t index) const { return byteBlocks_.at(index); }

  // Runs `run` on a byte image paired with Boolean, Signed and Real images each way round, and
  // expects `code` each time, as the result and as the context's last error (0: nothing
  // reported), with every object as it was and no object left behind.
  void expectTypePairsGive(const std::function<int(ZelObject *, ZelObject *)> &run, int code) {
    const Extent extent{8, 2, 1, 1, 1};
    ZelObject *bytes = objects_->make(Image(extent, false, 100), ZelWorkSpace, true);
    ZelObject *bits = objects_->make(Image(extent, true, 1), ZelApplicationAddressSpace, true);
    ZelObject *byteDestination = objects_->make(Image(extent, false, 7), ZelWorkSpace, true);
    const size_t firstBlock = byteBlocks_.size();
    ZelObject *signedImage = typedImage(ZelSigned, 16, extent, 0x22);
    ZelObject *realImage = typedImage(ZelReal, 32, extent, 0x33);
    const std::pair<ZelObject *, ZelObject *> pairs[] = {
        {bits, byteDestination},      {signedImage, byteDestination},
        {realImage, byteDestination}, {bytes, signedImage},
        {bytes, realImage},           {bytes, bits}};
    for (const auto &[source, destination] : pairs) {
      const int live = liveObjects();
      clearLastError(ctx_);
      EXPECT_EQ(run(source, destination), code);
      EXPECT_EQ(Zel003b(ctx_), code);
      EXPECT_EQ(liveObjects(), live);
    }
    expectPixels(Image(extent, false, 7), objects_->read(byteDestination, extent, false));
    expectPixels(Image(extent, true, 1), objects_->read(bits, extent, true));
    EXPECT_EQ(byteBlocks_[firstBlock], std::vector<uint8_t>(32, 0x22));
    EXPECT_EQ(byteBlocks_[firstBlock + 1], std::vector<uint8_t>(64, 0x33));
    expectNoStreamOpen({bytes, bits, signedImage, realImage, byteDestination});
  }

  std::deque<std::vector<uint32_t>> blocks_;
  std::deque<std::vector<uint8_t>> byteBlocks_;
  std::map<ZelObject *, std::vector<uint32_t> *> memoryOf_;
};

// ===== Counting grey levels ====================================================================

class HistogramCount : public ToneOperators {};

using CountLayout = std::tuple<int, int>;  // source repository, histogram repository

class HistogramCountLayouts : public ToneOperators,
                              public ::testing::WithParamInterface<CountLayout> {};

TEST_P(HistogramCountLayouts, CountsEveryBandAndPlaneIntoOneHistogram) {
  const auto [sourceRepository, histogramRepository] = GetParam();
  const Extent extent{7, 5, 3, 2, 3};
  std::mt19937 rng(static_cast<unsigned>(sourceRepository * 31 + histogramRepository));
  Image image = randomImage(rng, extent, false);
  ZelObject *source = objects_->make(image, sourceRepository, true);
  for (int entries : {256, 16, 3}) {
    SCOPED_TRACE("entries " + std::to_string(entries));
    ZelObject *bins = histogram(entries, histogramRepository);
    ASSERT_EQ(Zel126(ctx_, source, bins), 0);
    EXPECT_EQ(Zel003b(ctx_), 0);
    const std::vector<uint32_t> found = counters(bins, entries);
    EXPECT_EQ(found, binCounts(image, nullptr, entries));
    uint64_t total = 0;
    for (uint32_t count : found)
      total += count;
    EXPECT_EQ(total, static_cast<uint64_t>(pixelCount(extent)));
    EXPECT_EQ(readAttribute(ctx_, bins, "inited"), 1);
    expectNoStreamOpen({source, bins});
  }
  // The source is read, never written.
  expectPixels(image, objects_->read(source, extent, false));
}

std::string countLayoutName(const ::testing::TestParamInfo<CountLayout> &info) {
  return std::string("Source") + repositoryName(std::get<0>(info.param)) + "_Histogram" +
         repositoryName(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(AllRepositories, HistogramCountLayouts,
                         ::testing::Combine(::testing::ValuesIn(kRepositories),
                                            ::testing::ValuesIn(kRepositories)),
                         countLayoutName);

class HistogramBinWidths : public ToneOperators, public ::testing::WithParamInterface<int> {};

TEST_P(HistogramBinWidths, EachBinCountsTheLevelsOfItsWidth) {
  const int entries = GetParam();
  const int width = kLevels / entries;
  // Every level three times: the bins hold three times their width, the last one the rest too.
  Image levels = everyLevel();
  Image thrice({32, 8, 1, 1, 3}, false);
  for (size_t i = 0; i < thrice.pixels.size(); ++i)
    thrice.pixels[i] = levels.pixels[i % levels.pixels.size()];
  ZelObject *source = objects_->make(thrice, ZelWorkSpace, true);
  ZelObject *bins = histogram(entries);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  std::vector<uint32_t> expected(static_cast<size_t>(entries), static_cast<uint32_t>(3 * width));
  expected.back() = static_cast<uint32_t>(3 * (kLevels - width * (entries - 1)));
  EXPECT_EQ(counters(bins, entries), expected);

  std::mt19937 rng(static_cast<unsigned>(entries));
  Image image = randomImage(rng, {41, 9, 2, 1, 1}, false);
  ZelObject *random = objects_->make(image, ZelApplicationAddressSpace, true);
  ASSERT_EQ(Zel126(ctx_, random, bins), 0);
  EXPECT_EQ(counters(bins, entries), binCounts(image, nullptr, entries));
}

INSTANTIATE_TEST_SUITE_P(Entries, HistogramBinWidths,
                         ::testing::Values(2, 3, 5, 16, 100, 128, 255, 256));

TEST_F(HistogramCount, LevelsBeyondTheLastWholeBinGoIntoTheLastBin) {
  struct Case {
    int entries;
    uint8_t level;
    size_t bin;
  };
  // Three bins are 85 levels wide: 255 lies beyond the third whole bin and is counted in it.
  const Case cases[] = {{3, 255, 2},     {3, 254, 2},    {3, 170, 2},    {3, 169, 1},
                        {3, 84, 0},      {5, 255, 4},    {5, 254, 4},    {5, 203, 3},
                        {100, 255, 99},  {100, 199, 99}, {100, 198, 99}, {100, 197, 98},
                        {255, 255, 254}, {255, 254, 254}};
  for (const Case &c : cases) {
    SCOPED_TRACE("entries " + std::to_string(c.entries) + " level " + std::to_string(c.level));
    ZelObject *source = row({c.level, c.level});
    ZelObject *bins = histogram(c.entries, ZelApplicationAddressSpace);
    ASSERT_EQ(Zel126(ctx_, source, bins), 0);
    std::vector<uint32_t> expected(static_cast<size_t>(c.entries), 0);
    expected[c.bin] = 2;
    EXPECT_EQ(memoryOf(bins), expected);
  }
}

TEST_F(HistogramCount, ManyLongRowsAreCountedExactly) {
  const Extent extent{301, 133, 1, 1, 1};
  std::mt19937 rng(301);
  Image image = randomImage(rng, extent, false);
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *source = objects_->make(image, repository, true);
    ZelObject *bins = histogram(256);
    ASSERT_EQ(Zel126(ctx_, source, bins), 0);
    EXPECT_EQ(counters(bins, 256), binCounts(image, nullptr, 256));
  }
}

TEST_F(HistogramCount, RegionOfInterestCountsOnlyPixelsWithANonzeroMaskByte) {
  setting("roiState", 1);
  const Extent extent{19, 7, 2, 1, 2};
  std::mt19937 rng(17);
  Image image = randomImage(rng, extent, false);
  Image mask = randomMask(rng, extent);
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *source = objects_->make(image, repository, true);
    objects_->maskFor(source, mask, repository);
    // 256 entries without a mask take the lean loop; a mask and wider bins the general one.
    for (int entries : {256, 16, 2}) {
      SCOPED_TRACE(entries);
      ZelObject *bins = histogram(entries);
      ASSERT_EQ(Zel126(ctx_, source, bins), 0);
      EXPECT_EQ(counters(bins, entries), binCounts(image, &mask, entries));
      ASSERT_NE(binCounts(image, &mask, entries), binCounts(image, nullptr, entries));
    }
  }
}

TEST_F(HistogramCount, RegionOfInterestMaskByteOfAnyNonzeroValueAdmits) {
  setting("roiState", 1);
  Image levels = everyLevel();
  Image mask = everyLevel();  // the mask byte equals the level: only level 0 is left out
  ZelObject *source = objects_->make(levels, ZelWorkSpace, true);
  objects_->maskFor(source, mask, ZelApplicationAddressSpace);
  ZelObject *bins = histogram(256);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  std::vector<uint32_t> expected(256, 1);
  expected[0] = 0;
  EXPECT_EQ(counters(bins, 256), expected);
}

TEST_F(HistogramCount, RegionOfInterestIsIgnoredWhenTheContextSaysSo) {
  const Extent extent{13, 6, 1, 1, 2};
  std::mt19937 rng(18);
  Image image = randomImage(rng, extent, false);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  objects_->maskFor(source, randomMask(rng, extent), ZelWorkSpace);
  ZelObject *bins = histogram(256);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  EXPECT_EQ(counters(bins, 256), binCounts(image, nullptr, 256));
}

TEST_F(HistogramCount, MatchPointsPlayNoPart) {
  setting("matchPointState", 1);
  setting("roiState", 1);
  const Extent extent{11, 6, 2, 1, 2};
  std::mt19937 rng(19);
  Image image = randomImage(rng, extent, false);
  Image mask = randomMask(rng, extent);
  ZelObject *plain = objects_->make(image, ZelWorkSpace, true, {5, 3, 1, 0, 1});
  ZelObject *masked = objects_->make(image, ZelFile, true, {-4, 20, 3, 2, 7});
  objects_->maskFor(masked, mask, ZelWorkSpace);
  ZelObject *bins = histogram(256);
  ASSERT_EQ(Zel126(ctx_, plain, bins), 0);
  EXPECT_EQ(counters(bins, 256), binCounts(image, nullptr, 256));
  // The mask applies at the source's own pixels, wherever its match point lies.
  ASSERT_EQ(Zel126(ctx_, masked, bins), 0);
  EXPECT_EQ(counters(bins, 256), binCounts(image, &mask, 256));
}

TEST_F(HistogramCount, OldCountersAreClearedFirst) {
  std::mt19937 rng(20);
  Image image = randomImage(rng, {9, 4, 1, 1, 1}, false);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *bins = histogram(16, repository);
    std::vector<uint32_t> old(16);
    for (size_t i = 0; i < old.size(); ++i)
      old[i] = 1000u + static_cast<uint32_t>(i) * 77u;
    ASSERT_EQ(Zel609(ctx_, old.data(), bins, nullptr, 0), 0);
    ASSERT_EQ(counters(bins, 16), old);
    ASSERT_EQ(Zel126(ctx_, source, bins), 0);
    EXPECT_EQ(counters(bins, 16), binCounts(image, nullptr, 16));
    // Counting again starts from nothing again.
    ASSERT_EQ(Zel126(ctx_, source, bins), 0);
    EXPECT_EQ(counters(bins, 16), binCounts(image, nullptr, 16));
  }
}

TEST_F(HistogramCount, HistogramTallerThanOneLineHoldsItsCountersInTheFirst) {
  std::mt19937 rng(21);
  Image image = randomImage(rng, {15, 4, 1, 1, 1}, false);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  // A Histogram's data is its xDimension of counters, whatever its other dimensions.
  ZelObject *bins = histogram(16, ZelApplicationAddressSpace, 3, 8);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  std::vector<uint32_t> expected = binCounts(image, nullptr, 16);
  expected.resize(16 + 8, 0xA5A5A5A5u);
  EXPECT_EQ(memoryOf(bins), expected);
}

TEST_F(HistogramCount, EveryLineOfAWordImageIsClearedAndTheFirstCounts) {
  std::mt19937 rng(22);
  Image image = randomImage(rng, {15, 4, 1, 1, 2}, false);
  ZelObject *source = objects_->make(image, ZelFile, true);
  const Extent shape{8, 3, 2, 1, 1};
  ZelObject *bins = wordImage(shape, 0xDEADBEEFu);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  std::vector<uint32_t> expected(static_cast<size_t>(pixelCount(shape)), 0);
  const std::vector<uint32_t> first = binCounts(image, nullptr, 8);
  std::copy(first.begin(), first.end(), expected.begin());
  EXPECT_EQ(memoryOf(bins), expected);
}

TEST_F(HistogramCount, NamedFileHoldsThirtyTwoBitCountersInHostOrder) {
  std::mt19937 rng(23);
  Image image = randomImage(rng, {10, 6, 1, 1, 2}, false);
  ZelObject *source = objects_->make(image, ZelApplicationAddressSpace, true);
  const ZelAttribute list[] = {
      {"xDimension", 16}, {"repository", ZelFile}, {"fileName", word("counts.bin")}};
  ZelObject *bins = Zel000d(ctx_, nullptr, nullptr, list, 3);
  ASSERT_NE(bins, nullptr);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  const std::vector<uint8_t> bytes = fileBytes("counts.bin");
  ASSERT_EQ(bytes.size(), 16 * sizeof(uint32_t));
  std::vector<uint32_t> found(16);
  std::memcpy(found.data(), bytes.data(), bytes.size());
  EXPECT_EQ(found, binCounts(image, nullptr, 16));
}

TEST_F(HistogramCount, RegionOfInterestOfTheHistogramIsIgnored) {
  setting("roiState", 1);
  std::mt19937 rng(24);
  Image image = randomImage(rng, {12, 5, 1, 1, 1}, false);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  ZelObject *bins = histogram(256, ZelApplicationAddressSpace);
  ZelObject *roi = objects_->mask(Image({256, 1, 1, 1, 1}, false, 0), ZelWorkSpace);
  ASSERT_EQ(Zel006a(ctx_, bins, "roi", word(roi)), 0);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  EXPECT_EQ(memoryOf(bins), binCounts(image, nullptr, 256));
}

TEST_F(HistogramCount, FewerThanTwoEntriesIsOutOfRange) {
  ZelObject *source = row({1, 2, 3});
  for (int entries : {1, 0}) {
    SCOPED_TRACE(entries);
    ZelObject *bins = histogram(entries, ZelApplicationAddressSpace, 1, 4);
    const std::vector<uint32_t> before = memoryOf(bins);
    clearLastError(ctx_);
    EXPECT_EQ(Zel126(ctx_, source, bins), 18);
    EXPECT_EQ(Zel003b(ctx_), 18);
    EXPECT_EQ(memoryOf(bins), before);
    expectNoStreamOpen({source, bins});
  }
}

TEST_F(HistogramCount, TooFewEntriesIsReportedBeforeTheSourceType) {
  ZelObject *source = objects_->make(Image({8, 2, 1, 1, 1}, true), ZelWorkSpace, true);
  ZelObject *bins = histogram(1);
  EXPECT_EQ(Zel126(ctx_, source, bins), 18);
  EXPECT_EQ(Zel003b(ctx_), 18);
}

TEST_F(HistogramCount, MoreThan256EntriesIsDivisionByZero) {
  ZelObject *source = row({1, 2, 3});
  for (int entries : {257, 300, 1024}) {
    SCOPED_TRACE(entries);
    ZelObject *bins = histogram(entries, ZelApplicationAddressSpace);
    const std::vector<uint32_t> before = memoryOf(bins);
    clearLastError(ctx_);
    EXPECT_EQ(Zel126(ctx_, source, bins), 2);
    EXPECT_EQ(Zel003b(ctx_), 2);
    EXPECT_EQ(memoryOf(bins), before);
    expectNoStreamOpen({source, bins});
  }
}

TEST_F(HistogramCount, SourceOtherThanNonNegativeIsMismatch) {
  const Extent extent{6, 2, 1, 1, 1};
  ZelObject *sources[] = {objects_->make(Image(extent, true, 1), ZelWorkSpace, true),
                          typedImage(ZelSigned, 16, extent, 3), typedImage(ZelReal, 32, extent, 0)};
  for (ZelObject *source : sources) {
    ZelObject *bins = histogram(256);
    clearLastError(ctx_);
    EXPECT_EQ(Zel126(ctx_, source, bins), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    expectNoStreamOpen({source, bins});
  }
}

TEST_F(HistogramCount, HistogramWithoutThirtyTwoBitCountersIsMismatch) {
  ZelObject *source = row({4, 5, 6});
  const ZelAttribute narrow[] = {{"dataPrecision", 16}, {"repository", ZelWorkSpace}};
  ZelObject *sixteen = Zel000d(ctx_, nullptr, nullptr, narrow, 2);
  ASSERT_NE(sixteen, nullptr);
  ZelObject *bytes = objects_->make(Image({256, 1, 1, 1, 1}, false, 9), ZelWorkSpace, true);
  for (ZelObject *bins : {sixteen, bytes}) {
    clearLastError(ctx_);
    EXPECT_EQ(Zel126(ctx_, source, bins), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    expectNoStreamOpen({source, bins});
  }
  expectPixels(Image({256, 1, 1, 1, 1}, false, 9), objects_->read(bytes, {256, 1, 1, 1, 1}, false));
}

TEST_F(HistogramCount, DeadSourceOrHistogramIsAnInvalidInstance) {
  ZelObject *source = row({1, 2});
  ZelObject *bins = histogram(256, ZelApplicationAddressSpace);
  ZelObject *deadSource = deadChildOf(row({3, 4}));
  ZelObject *deadBins = deadChildOf(histogram(256));
  const std::vector<uint32_t> before = memoryOf(bins);
  EXPECT_EQ(Zel126(ctx_, deadSource, bins), 9);
  EXPECT_EQ(Zel003b(ctx_), 9);
  EXPECT_EQ(memoryOf(bins), before);
  clearLastError(ctx_);
  EXPECT_EQ(Zel126(ctx_, source, deadBins), 9);
  EXPECT_EQ(Zel003b(ctx_), 9);
  expectNoStreamOpen({source, bins});
}

TEST_F(HistogramCount, BadContextIsRefused) {
  ZelObject *source = row({1, 2});
  ZelObject *bins = histogram(256, ZelApplicationAddressSpace);
  const std::vector<uint32_t> before = memoryOf(bins);
  int notAContext = 0;
  EXPECT_EQ(Zel126(nullptr, source, bins), 24);
  EXPECT_EQ(Zel126(reinterpret_cast<ZelContext *>(&notAContext), source, bins), 24);
  EXPECT_EQ(notAContext, 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(memoryOf(bins), before);
  expectNoStreamOpen({source, bins});
}

TEST_F(HistogramCount, TemporaryObjectsAreNotMadeByCounting) {
  ZelObject *source = row({1, 2, 3});
  ZelObject *bins = histogram(256);
  ZelObject *narrow = histogram(1);
  const TreeSize before = treeSize();
  for (int round = 0; round < 4; ++round) {
    EXPECT_EQ(Zel126(ctx_, source, bins), 0);
    EXPECT_EQ(Zel126(ctx_, source, narrow), 18);
  }
  EXPECT_EQ(treeSize().live, before.live);
  EXPECT_EQ(treeSize().records, before.records);
}

// ===== Histogram modification =================================================================

class HistogramModification : public ToneOperators {
 protected:
  // Modifies `image`, held in one repository, into a destination in another, with the bounds
  // given as `low` and `high` (worth `lowValue` and `highValue`), and checks the pixels against
  // the table computed from the shape's formula.
  void expectModification(const Image &image, int sourceRepository, int destinationRepository,
                          int shape, ZelScalar low, ZelScalar high, double lowValue,
                          double highValue, double alpha) {
    ZelObject *source = objects_->make(image, sourceRepository, true);
    ZelObject *destination = objects_->make(Image(image.extent, false, 0x3C), destinationRepository,
                                            destinationRepository != ZelFile);
    const int before = liveObjects();
    clearLastError(ctx_);
    ASSERT_EQ(Zel129(ctx_, source, destination, shape, low, high, alpha), 0) << Zel003b(ctx_);
    EXPECT_EQ(Zel003b(ctx_), 0);
    EXPECT_EQ(liveObjects(), before);
    const Table table = modificationTable(levelCounts(image), shape, lowValue, highValue, alpha);
    expectPixels(mapped(table, image), objects_->read(destination, image.extent, false));
    expectPixels(image, objects_->read(source, image.extent, false));
    expectNoStreamOpen({source, destination});
  }
};

struct ShapeCase {
  const char *name;
  int shape;
  double low, high, alpha;
};

void PrintTo(const ShapeCase &value, std::ostream *out) {
  *out << value.name;
}

const ShapeCase kShapeCases[] = {
    {"CubeRootFullRange", ZelCubeRoot, 0, 255, 0},
    {"CubeRootNarrow", ZelCubeRoot, 20, 200, 0},
    {"CubeRootAboveAByte", ZelCubeRoot, 8.5, 300, 0},
    {"ExponentialSteep", ZelExponential, 0, 0, 0.05},
    {"ExponentialFromTen", ZelExponential, 10, 0, 0.02},
    {"ExponentialAboveAByte", ZelExponential, 0, 0, 0.01},
    {"LogarithmicFullRange", ZelLogarithmic, 1, 255, 0},
    {"LogarithmicNarrow", ZelLogarithmic, 16, 235, 0},
    {"LogarithmicFalling", ZelLogarithmic, 200, 10, 0},
    {"UniformFullRange", ZelUniform, 0, 255, 0},
    {"UniformInverted", ZelUniform, 255, 0, 0},
    {"UniformNarrow", ZelUniform, 50.25, 100.75, 0},
    {"UniformBeyondBothEnds", ZelUniform, -20, 300, 0},
    {"RayleighFromZero", ZelRayleigh, 0, 0, 40},
    {"RayleighFromFive", ZelRayleigh, 5, 0, 80},
    {"RayleighAboveAByte", ZelRayleigh, 100, 0, 150},
};

class HistogramModificationShapes : public HistogramModification,
                                    public ::testing::WithParamInterface<ShapeCase> {};

TEST_P(HistogramModificationShapes, ShapeMatchesItsFormula) {
  const ShapeCase &c = GetParam();
  std::mt19937 rng(seedOf(c.name));
  // A wide image (all levels, many zeros and 255s) and one whose levels span 30..180 only, so
  // that the share is 0 below and 1 from the top of its range on.
  const Image images[] = {randomImage(rng, {37, 13, 2, 1, 3}, false),
                          narrowImage(rng, {23, 11, 1, 1, 2}, 30, 180)};
  const std::pair<int, int> layouts[] = {{ZelWorkSpace, ZelApplicationAddressSpace},
                                         {ZelFile, ZelFile},
                                         {ZelApplicationAddressSpace, ZelWorkSpace}};
  for (const Image &image : images) {
    for (const auto &[from, to] : layouts) {
      SCOPED_TRACE(std::string(repositoryName(from)) + " to " + repositoryName(to));
      expectModification(image, from, to, c.shape, realScalar(c.low), realScalar(c.high), c.low,
                         c.high, c.alpha);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, HistogramModificationShapes, ::testing::ValuesIn(kShapeCases),
                         [](const ::testing::TestParamInfo<ShapeCase> &param) {
                           return std::string(param.param.name);
                         });

TEST_F(HistogramModification, AllGreyImageUnderUniformBecomesWhite) {
  // The share is 0 up to level 99 and 1 from 100 on: entries up to 99 are trunc(0.5) = 0, the
  // rest 255.
  const Table table =
      modificationTable(levelCounts(Image({1, 1, 1, 1, 1}, false, 100)), ZelUniform, 0, 255, 0);
  for (int i = 0; i < kLevels; ++i)
    ASSERT_EQ(table[static_cast<size_t>(i)], i < 100 ? 0 : 255) << i;
  const Extent extent{17, 9, 2, 1, 3};
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *source = objects_->make(Image(extent, false, 100), repository, true);
    ZelObject *destination = objects_->make(Image(extent, false, 7), ZelWorkSpace, true);
    ASSERT_EQ(Zel129(ctx_, source, destination, ZelUniform, realScalar(0), realScalar(255), 0), 0);
    expectPixels(Image(extent, false, 255), objects_->read(destination, extent, false));
  }
}

TEST_F(HistogramModification, TwoLevelImageUnderUniformSplitsAtTheRunningShare) {
  // Half the pixels are 50 and half 100: 50 gets 255 * 0.5 + 0.5 = 128, and 100 gets 255.
  ZelObject *source = row({50, 100, 100, 50, 50, 100});
  ZelObject *destination = row({0, 0, 0, 0, 0, 0}, ZelApplicationAddressSpace);
  ASSERT_EQ(Zel129(ctx_, source, destination, ZelUniform, realScalar(0), realScalar(255), 0), 0);
  EXPECT_EQ(rowOf(destination, 6), (std::vector<uint8_t>{128, 255, 255, 128, 128, 255}));
  // Equal bounds paint everything in one value.
  ASSERT_EQ(Zel129(ctx_, source, destination, ZelUniform, realScalar(77), realScalar(77), 0), 0);
  EXPECT_EQ(rowOf(destination, 6), std::vector<uint8_t>(6, 77));
}

TEST_F(HistogramModification, EntryAtFullShareRepeatsTheOneBeforeIt) {
  // Half the pixels 10 and half 20. Below 10 the share is 0 (entry = low), from 10 it is 0.5,
  // and at 20 it reaches 1, where the shape has no value: 20 gets the entry of 19.
  ZelObject *source = row({10, 20, 20, 10});
  ZelObject *destination = row({0, 0, 0, 0});
  // 5 - ln(0.5) / 0.1 = 11.93...
  ASSERT_EQ(Zel129(ctx_, source, destination, ZelExponential, realScalar(5), realScalar(0), 0.1),
            0);
  EXPECT_EQ(rowOf(destination, 4), (std::vector<uint8_t>{11, 11, 11, 11}));
  // 5 + sqrt(2 * 100 * ln 2) = 16.77...
  ASSERT_EQ(Zel129(ctx_, source, destination, ZelRayleigh, realScalar(5), realScalar(0), 10), 0);
  EXPECT_EQ(rowOf(destination, 4), (std::vector<uint8_t>{16, 16, 16, 16}));
}

TEST_F(HistogramModification, SkippedFirstEntryIsTheLowBoundTruncatedToAByte) {
  // Only zeros: the share is 1 at entry 0 already.
  const std::pair<double, uint8_t> cases[] = {{37.9, 37}, {300.5, 44}, {-3.7, 253}, {0.99, 0}};
  for (int shape : {ZelExponential, ZelRayleigh}) {
    for (const auto &[low, expected] : cases) {
      SCOPED_TRACE("shape " + std::to_string(shape) + " low " + std::to_string(low));
      ZelObject *source = objects_->make(Image({5, 3, 1, 1, 1}, false, 0), ZelWorkSpace, true);
      ZelObject *destination = objects_->make(Image({5, 3, 1, 1, 1}, false, 1), ZelFile, true);
      ASSERT_EQ(Zel129(ctx_, source, destination, shape, realScalar(low), realScalar(0), 3), 0);
      expectPixels(Image({5, 3, 1, 1, 1}, false, expected),
                   objects_->read(destination, {5, 3, 1, 1, 1}, false));
    }
  }
}

TEST_F(HistogramModification, NotANumberValuesAreStoredAsZero) {
  std::mt19937 rng(40);
  Image image = randomImage(rng, {12, 5, 1, 1, 1}, false);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  ZelObject *destination = objects_->make(Image(image.extent, false, 99), ZelWorkSpace, true);
  ASSERT_EQ(Zel129(ctx_, source, destination, ZelUniform, realScalar(0), realScalar(kNaN), 0), 0);
  expectPixels(Image(image.extent, false, 0), objects_->read(destination, image.extent, false));
}

TEST_F(HistogramModification, ImageWithoutPixelsUnderItsRegionOfInterestIsLeftAsItWas) {
  // Nothing is counted, so there is no share to speak of: the table keeps every level, and the
  // lookup under the same empty region writes nothing anyway.
  setting("roiState", 1);
  const Extent extent{14, 5, 1, 1, 2};
  std::mt19937 rng(41);
  Image image = randomImage(rng, extent, false);
  Image before = randomImage(rng, extent, false);
  for (const ShapeCase &c : kShapeCases) {
    SCOPED_TRACE(c.name);
    ZelObject *source = objects_->make(image, ZelWorkSpace, true);
    objects_->maskFor(source, Image(extent, false, 0), ZelWorkSpace);
    ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true);
    const int live = liveObjects();
    clearLastError(ctx_);
    ASSERT_EQ(
        Zel129(ctx_, source, destination, c.shape, realScalar(c.low), realScalar(c.high), c.alpha),
        0);
    EXPECT_EQ(Zel003b(ctx_), 0);
    EXPECT_EQ(liveObjects(), live);
    expectPixels(before, objects_->read(destination, extent, false));
  }
}

TEST_F(HistogramModification, ImageWithoutPixelsUnderItsRegionOfInterestCountsNothing) {
  setting("roiState", 1);
  const Extent extent{9, 4, 1, 1, 1};
  std::mt19937 rng(42);
  ZelObject *source = objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true);
  objects_->maskFor(source, Image(extent, false, 0), ZelApplicationAddressSpace);
  ZelObject *bins = histogram(256);
  ASSERT_EQ(Zel126(ctx_, source, bins), 0);
  EXPECT_EQ(counters(bins, 256), std::vector<uint32_t>(256, 0));
}

TEST_F(HistogramModification, IntegerTaggedBoundsActLikeRealOnes) {
  std::mt19937 rng(43);
  Image image = randomImage(rng, {21, 7, 1, 1, 2}, false);
  struct Bounds {
    int shape;
    int low, high;
    double alpha;
  };
  const Bounds cases[] = {{ZelCubeRoot, 20, 200, 0},   {ZelExponential, 12, 0, 0.04},
                          {ZelLogarithmic, 3, 250, 0}, {ZelUniform, 40, 180, 0},
                          {ZelRayleigh, 7, 0, 60},     {ZelUniform, -10, 270, 0}};
  for (const Bounds &c : cases) {
    for (int32_t tag : {int32_t{ZelNonNegative}, int32_t{ZelSigned}, int32_t{0}}) {
      SCOPED_TRACE("shape " + std::to_string(c.shape) + " tag " + std::to_string(tag));
      expectModification(image, ZelWorkSpace, ZelApplicationAddressSpace, c.shape,
                         integerScalar(c.low, tag), integerScalar(c.high, tag), c.low, c.high,
                         c.alpha);
    }
  }
}

TEST_F(HistogramModification, IntegerTagTakesTheLowHalfOfTheSlotOnly) {
  std::mt19937 rng(44);
  Image image = randomImage(rng, {16, 6, 1, 1, 1}, false);
  // The high halves carry noise; the low halves are 30 and the 32-bit -6 (0xFFFFFFFA).
  const int64_t low = static_cast<int64_t>((uint64_t{0x12345678} << 32) | 30u);
  const int64_t high = static_cast<int64_t>((uint64_t{0x0BADF00D} << 32) | 0xFFFFFFFAu);
  expectModification(image, ZelApplicationAddressSpace, ZelWorkSpace, ZelUniform,
                     integerScalar(low), integerScalar(high), 30, -6, 0);
  // A Logarithmic low of 0 with noise above is 0, and out of range.
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  ZelObject *destination = objects_->make(image, ZelWorkSpace, true);
  EXPECT_EQ(Zel129(ctx_, source, destination, ZelLogarithmic,
                   integerScalar(static_cast<int64_t>(uint64_t{7} << 32)), integerScalar(255), 0),
            18);
}

TEST_F(HistogramModification, UnknownShapeIsOutOfRange) {
  std::mt19937 rng(45);
  const Extent extent{10, 3, 1, 1, 1};
  Image before = randomImage(rng, extent, false);
  ZelObject *source = objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true);
  ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true);
  for (int shape : {0, 42, 44, 77, 79, 124, 126, 210, 212, 243, 245, -1, 100000}) {
    SCOPED_TRACE(shape);
    const int live = liveObjects();
    clearLastError(ctx_);
    EXPECT_EQ(Zel129(ctx_, source, destination, shape, realScalar(1), realScalar(255), 1), 18);
    EXPECT_EQ(Zel003b(ctx_), 18);
    EXPECT_EQ(liveObjects(), live);
    expectPixels(before, objects_->read(destination, extent, false));
  }
}

TEST_F(HistogramModification, LogarithmicWithLowNotAboveZeroIsOutOfRange) {
  std::mt19937 rng(46);
  const Extent extent{10, 3, 1, 1, 1};
  Image before = randomImage(rng, extent, false);
  ZelObject *source = objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true);
  ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true);
  const ZelScalar lows[] = {realScalar(0),    realScalar(-0.0), realScalar(-1),   realScalar(-1e9),
                            realScalar(kNaN), integerScalar(0), integerScalar(-5)};
  for (const ZelScalar &low : lows) {
    SCOPED_TRACE(low.tag == ZelReal ? std::to_string(low.v.d) : std::to_string(low.v.i));
    const int live = liveObjects();
    clearLastError(ctx_);
    EXPECT_EQ(Zel129(ctx_, source, destination, ZelLogarithmic, low, realScalar(255), 0), 18);
    EXPECT_EQ(Zel003b(ctx_), 18);
    EXPECT_EQ(liveObjects(), live);
    expectPixels(before, objects_->read(destination, extent, false));
  }
  // Just above zero is accepted.
  EXPECT_EQ(Zel129(ctx_, source, destination, ZelLogarithmic, realScalar(1e-3), realScalar(255), 0),
            0);
}

TEST_F(HistogramModification, ShapeAndLowBoundAreCheckedBeforeTheObjects) {
  ZelObject *source = row({1, 2, 3});
  ZelObject *dead = deadChildOf(row({4, 5, 6}));
  EXPECT_EQ(Zel129(ctx_, dead, dead, 17, realScalar(0), realScalar(255), 0), 18);
  EXPECT_EQ(Zel003b(ctx_), 18);
  clearLastError(ctx_);
  EXPECT_EQ(Zel129(ctx_, source, dead, ZelLogarithmic, realScalar(0), realScalar(255), 0), 18);
  EXPECT_EQ(Zel003b(ctx_), 18);
  clearLastError(ctx_);
  EXPECT_EQ(Zel129(ctx_, dead, source, ZelLogarithmic, realScalar(kNaN), realScalar(255), 0), 18);
  EXPECT_EQ(Zel003b(ctx_), 18);
  // The context comes first all the same.
  clearLastError(ctx_);
  EXPECT_EQ(Zel129(nullptr, source, source, 17, realScalar(0), realScalar(255), 0), 24);
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(HistogramModification, SourceOtherThanNonNegativeIsMismatch) {
  const Extent extent{8, 2, 1, 1, 1};
  Image before(extent, false, 61);
  ZelObject *destination = objects_->make(before, ZelWorkSpace, true);
  ZelObject *sources[] = {objects_->make(Image(extent, true, 1), ZelWorkSpace, true),
                          typedImage(ZelSigned, 16, extent, 2)};
  for (ZelObject *source : sources) {
    const int live = liveObjects();
    clearLastError(ctx_);
    EXPECT_EQ(Zel129(ctx_, source, destination, ZelUniform, realScalar(0), realScalar(255), 0), 10);
    EXPECT_EQ(Zel003b(ctx_), 10);
    EXPECT_EQ(liveObjects(), live);
    expectPixels(before, objects_->read(destination, extent, false));
  }
}

TEST_F(HistogramModification, SignedDestinationIsMismatch) {
  const Extent extent{8, 2, 1, 1, 1};
  ZelObject *source = objects_->make(everyLevel(), ZelWorkSpace, true);
  ZelObject *destination = typedImage(ZelSigned, 16, extent, 0x11);
  const int live = liveObjects();
  EXPECT_EQ(Zel129(ctx_, source, destination, ZelUniform, realScalar(0), realScalar(255), 0), 10);
  EXPECT_EQ(Zel003b(ctx_), 10);
  EXPECT_EQ(liveObjects(), live);
  EXPECT_EQ(typedBytes(0), std::vector<uint8_t>(32, 0x11));
}

TEST_F(HistogramModification, WorksInPlaceInWorkSpace) {
  std::mt19937 rng(47);
  Image image = randomImage(rng, {29, 11, 1, 1, 2}, false);
  ZelObject *object = objects_->make(image, ZelWorkSpace, true);
  ASSERT_EQ(Zel129(ctx_, object, object, ZelCubeRoot, realScalar(0), realScalar(255), 0), 0);
  const Table table = modificationTable(levelCounts(image), ZelCubeRoot, 0, 255, 0);
  expectPixels(mapped(table, image), objects_->read(object, image.extent, false));
}

// ===== Gamma with a linear toe ================================================================

class GammaCurve : public ToneOperators {};

struct GammaCase {
  const char *name;
  int direction;
  double a, gamma, c, slope, breakpoint;
};

void PrintTo(const GammaCase &value, std::ostream *out) {
  *out << value.name;
}

const GammaCase kGammaCases[] = {
    {"EncodeVideoLike", ZelEncode, 1.099, 0.45, -0.099, 4.5, 0.018},
    {"DecodeVideoLike", ZelDecode, 1.099, 0.45, -0.099, 4.5, 0.018},
    {"EncodeScreenLike", ZelEncode, 1.055, 1 / 2.4, -0.055, 12.92, 0.0031308},
    {"DecodeScreenLike", ZelDecode, 1.055, 1 / 2.4, -0.055, 12.92, 0.0031308},
    {"EncodePurePower", ZelEncode, 1, 2.2, 0, 0, 0},
    {"DecodePurePower", ZelDecode, 1, 2.2, 0, 1, 0},
    {"EncodeLimitedAtBothEnds", ZelEncode, 2, 0.5, -0.4, -3, 0.1},
    {"DecodeLimitedAtBothEnds", ZelDecode, 0.5, 1.5, 0.2, 0.5, 0.6},
};

class GammaCurveCases : public GammaCurve, public ::testing::WithParamInterface<GammaCase> {};

TEST_P(GammaCurveCases, CurveMatchesItsFormula) {
  const GammaCase &g = GetParam();
  const Table table = gammaTable(g.direction, g.a, g.gamma, g.c, g.slope, g.breakpoint);
  // Every level once: the destination is the table itself.
  Image levels = everyLevel();
  ZelObject *source = objects_->make(levels, ZelWorkSpace, true);
  ZelObject *destination = objects_->make(Image(levels.extent, false, 3), ZelWorkSpace, true);
  const int live = liveObjects();
  ASSERT_EQ(
      Zel133(ctx_, source, destination, g.direction, g.a, g.gamma, g.c, g.slope, g.breakpoint), 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(liveObjects(), live);
  expectPixels(mapped(table, levels), objects_->read(destination, levels.extent, false));

  std::mt19937 rng(seedOf(g.name));
  Image image = randomImage(rng, {23, 7, 2, 1, 3}, false);
  for (const auto &[from, to] : {std::pair{ZelFile, ZelApplicationAddressSpace},
                                 std::pair{ZelApplicationAddressSpace, ZelFile}}) {
    SCOPED_TRACE(std::string(repositoryName(from)) + " to " + repositoryName(to));
    ZelObject *randomSource = objects_->make(image, from, true);
    ZelObject *randomDestination = objects_->make(Image(image.extent, false), to, false);
    ASSERT_EQ(Zel133(ctx_, randomSource, randomDestination, g.direction, g.a, g.gamma, g.c, g.slope,
                     g.breakpoint),
              0);
    expectPixels(mapped(table, image), objects_->read(randomDestination, image.extent, false));
    expectNoStreamOpen({randomSource, randomDestination});
  }
}

INSTANTIATE_TEST_SUITE_P(Parameters, GammaCurveCases, ::testing::ValuesIn(kGammaCases),
                         [](const ::testing::TestParamInfo<GammaCase> &param) {
                           return std::string(param.param.name);
                         });

TEST_F(GammaCurve, UnitEncodeIsTheIdentity) {
  const Table table = gammaTable(ZelEncode, 1, 1, 0, 1, 0);
  ASSERT_EQ(table, identityTable());
  std::mt19937 rng(50);
  for (const Image &image : {everyLevel(), randomImage(rng, {31, 9, 1, 2, 2}, false)}) {
    for (int repository : kRepositories) {
      SCOPED_TRACE(repositoryName(repository));
      ZelObject *source = objects_->make(image, repository, true);
      ZelObject *destination = objects_->make(Image(image.extent, false, 200), ZelWorkSpace, true);
      ASSERT_EQ(Zel133(ctx_, source, destination, ZelEncode, 1, 1, 0, 1, 0), 0);
      expectPixels(image, objects_->read(destination, image.extent, false));
    }
  }
}

TEST_F(GammaCurve, ObjectsOtherThanNonNegativeAreLeftAloneWithoutAnError) {
  for (int direction : {int{ZelEncode}, int{ZelDecode}, 0}) {
    SCOPED_TRACE(direction);
    expectTypePairsGive(
        [&](ZelObject *source, ZelObject *destination) {
          return Zel133(ctx_, source, destination, direction, 1.099, 0.45, -0.099, 4.5, 0.018);
        },
        0);
  }
}

TEST_F(GammaCurve, UnknownDirectionWritesZeros) {
  setting("roiState", 1);
  const Extent extent{12, 5, 1, 1, 2};
  std::mt19937 rng(51);
  Image image = randomImage(rng, extent, false);
  Image before = randomImage(rng, extent, false);
  Image mask = randomMask(rng, extent);
  for (int direction : {0, 241, 244, -242, 1000}) {
    SCOPED_TRACE(direction);
    ZelObject *source = objects_->make(image, ZelWorkSpace, true);
    ZelObject *plain = objects_->make(before, ZelApplicationAddressSpace, true);
    ZelObject *masked = objects_->make(before, ZelWorkSpace, true);
    objects_->maskFor(masked, mask, ZelWorkSpace);
    const int live = liveObjects();
    clearLastError(ctx_);
    ASSERT_EQ(Zel133(ctx_, source, plain, direction, 1.099, 0.45, -0.099, 4.5, 0.018), 0);
    ASSERT_EQ(Zel133(ctx_, source, masked, direction, 1.099, 0.45, -0.099, 4.5, 0.018), 0);
    EXPECT_EQ(Zel003b(ctx_), 0);
    EXPECT_EQ(liveObjects(), live);
    const Table zeros{};
    expectPixels(Image(extent, false, 0), objects_->read(plain, extent, false));
    expectPixels(lookedUp(zeros, {&image}, {&before, kOrigin, &mask}),
                 objects_->read(masked, extent, false));
  }
}

// ===== The S-curve of brightness and contrast =================================================

class BrightnessContrastCurve : public ToneOperators {};

struct SCurveCase {
  const char *name;
  double brightness, contrast;
};

void PrintTo(const SCurveCase &value, std::ostream *out) {
  *out << value.name;
}

const SCurveCase kSCurveCases[] = {
    {"Neutral", 0, 0},
    {"Brighter", 0.5, 0},
    {"Darker", -0.5, 0},
    {"MoreContrast", 0, 1},
    {"LessContrast", 0, -0.5},
    {"BrighterWithMoreContrast", 1, 2},
    {"DarkerWithLessContrast", -1, -0.3},
    {"NearlyWhitePoint", 2.2, 0.4},
    {"NearlyBlackPoint", -2.2, 0.4},
    {"InvertedContrastWrapsInAByte", 0.3, -2},
};

class BrightnessContrastCases : public BrightnessContrastCurve,
                                public ::testing::WithParamInterface<SCurveCase> {};

TEST_P(BrightnessContrastCases, CurveMatchesItsSteps) {
  const SCurveCase &s = GetParam();
  const Table table = sCurveTable(s.brightness, s.contrast);
  Image levels = everyLevel();
  ZelObject *source = objects_->make(levels, ZelApplicationAddressSpace, true);
  ZelObject *destination = objects_->make(Image(levels.extent, false), ZelWorkSpace, false);
  const int live = liveObjects();
  ASSERT_EQ(Zel134(ctx_, source, destination, s.brightness, s.contrast), 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(liveObjects(), live);
  expectPixels(mapped(table, levels), objects_->read(destination, levels.extent, false));

  std::mt19937 rng(seedOf(s.name));
  Image image = randomImage(rng, {19, 6, 2, 2, 2}, false);
  ZelObject *randomSource = objects_->make(image, ZelFile, true);
  ZelObject *randomDestination = objects_->make(Image(image.extent, false, 1), ZelFile, true);
  ASSERT_EQ(Zel134(ctx_, randomSource, randomDestination, s.brightness, s.contrast), 0);
  expectPixels(mapped(table, image), objects_->read(randomDestination, image.extent, false));
  expectNoStreamOpen({source, destination, randomSource, randomDestination});
}

INSTANTIATE_TEST_SUITE_P(Settings, BrightnessContrastCases, ::testing::ValuesIn(kSCurveCases),
                         [](const ::testing::TestParamInfo<SCurveCase> &param) {
                           return std::string(param.param.name);
                         });

TEST_F(BrightnessContrastCurve, NeutralSettingsAreTheIdentityUpToTruncation) {
  const Table table = sCurveTable(0, 0);
  // Each inner entry is i, or i - 1 where i / 255 * 255 falls just below i; the ends copy
  // their neighbours.
  for (int i = 1; i < 255; ++i) {
    const int entry = table[static_cast<size_t>(i)];
    EXPECT_TRUE(entry == i || entry == i - 1) << i << " gives " << entry;
  }
  EXPECT_EQ(table[0], table[1]);
  EXPECT_EQ(table[255], table[254]);
  Image levels = everyLevel();
  for (int repository : kRepositories) {
    SCOPED_TRACE(repositoryName(repository));
    ZelObject *source = objects_->make(levels, repository, true);
    ZelObject *destination = objects_->make(Image(levels.extent, false, 42), repository, true);
    ASSERT_EQ(Zel134(ctx_, source, destination, 0, 0), 0);
    expectPixels(mapped(table, levels), objects_->read(destination, levels.extent, false));
  }
}

TEST_F(BrightnessContrastCurve, NotANumberGivesZero) {
  Image levels = everyLevel();
  ZelObject *source = objects_->make(levels, ZelWorkSpace, true);
  ZelObject *destination = objects_->make(Image(levels.extent, false, 42), ZelWorkSpace, true);
  ASSERT_EQ(Zel134(ctx_, source, destination, 0, kNaN), 0);
  expectPixels(Image(levels.extent, false, 0), objects_->read(destination, levels.extent, false));
}

TEST_F(BrightnessContrastCurve, ObjectsOtherThanNonNegativeAreMismatch) {
  expectTypePairsGive(
      [&](ZelObject *source, ZelObject *destination) {
        return Zel134(ctx_, source, destination, 0.2, 0.5);
      },
      10);
}

// ===== What the three curves share ============================================================

// One curve: how to run it and the table it must apply to the source under its mask.
struct Curve {
  const char *name;
  std::function<int(ZelContext *, ZelObject *, ZelObject *)> run;
  std::function<Table(const Image &, const Image *)> table;
  int mismatch;  // the result for objects other than NonNegative
};

const Curve kCurves[] = {
    {"HistogramModification",
     [](ZelContext *ctx, ZelObject *s, ZelObject *d) {
       return Zel129(ctx, s, d, ZelUniform, realScalar(10), realScalar(240), 0);
     },
     [](const Image &image, const Image *mask) {
       return modificationTable(levelCounts(image, mask), ZelUniform, 10, 240, 0);
     },
     10},
    {"Gamma",
     [](ZelContext *ctx, ZelObject *s, ZelObject *d) {
       return Zel133(ctx, s, d, ZelEncode, 1.099, 0.45, -0.099, 4.5, 0.018);
     },
     [](const Image &, const Image *) {
       return gammaTable(ZelEncode, 1.099, 0.45, -0.099, 4.5, 0.018);
     },
     0},
    {"BrightnessContrast",
     [](ZelContext *ctx, ZelObject *s, ZelObject *d) { return Zel134(ctx, s, d, -0.4, 0.7); },
     [](const Image &, const Image *) { return sCurveTable(-0.4, 0.7); }, 10},
};

class ToneCurveLookup : public ToneOperators, public ::testing::WithParamInterface<int> {};

TEST_P(ToneCurveLookup, RegionsOfInterestAndMatchPointsApplyAsInALookup) {
  const Curve &curve = kCurves[GetParam()];
  setting("roiState", 1);
  setting("matchPointState", 1);
  const Extent extentS{21, 9, 2, 1, 2}, extentD{17, 11, 3, 1, 2};
  const Extent matchS{4, 1, 0, 0, 1}, matchD{1, 3, 1, 0, 0};
  std::mt19937 rng(static_cast<unsigned>(60 + GetParam()));
  Image image = randomImage(rng, extentS, false);
  Image before = randomImage(rng, extentD, false);
  Image maskS = randomMask(rng, extentS), maskD = randomMask(rng, extentD);
  ZelObject *source = objects_->make(image, ZelFile, true, matchS);
  objects_->maskFor(source, maskS, ZelWorkSpace);
  ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true, matchD);
  objects_->maskFor(destination, maskD, ZelFile);
  const int live = liveObjects();
  ASSERT_EQ(curve.run(ctx_, source, destination), 0) << Zel003b(ctx_);
  EXPECT_EQ(liveObjects(), live);
  // The table comes from the whole source under its own mask, match points aside.
  const Table table = curve.table(image, &maskS);
  Image expected = lookedUp(table, {&image, matchS, &maskS}, {&before, matchD, &maskD});
  expectPixels(expected, objects_->read(destination, extentD, false));
  ASSERT_NE(expected.pixels, lookedUp(table, {&image, matchS}, {&before, matchD}).pixels);
  ASSERT_NE(expected.pixels, lookedUp(table, {&image}, {&before, kOrigin, &maskD}).pixels);
  expectNoStreamOpen({source, destination});
}

TEST_P(ToneCurveLookup, MatchPointsOfObjectsAreIgnoredWhenTheContextSaysSo) {
  const Curve &curve = kCurves[GetParam()];
  const Extent extentS{13, 7, 1, 1, 2}, extentD{11, 8, 1, 1, 2};
  std::mt19937 rng(static_cast<unsigned>(70 + GetParam()));
  Image image = randomImage(rng, extentS, false);
  Image before = randomImage(rng, extentD, false);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true, {3, 2, 0, 0, 1});
  ZelObject *destination = objects_->make(before, ZelWorkSpace, true, {0, 1, 0, 0, 0});
  ASSERT_EQ(curve.run(ctx_, source, destination), 0);
  expectPixels(lookedUp(curve.table(image, nullptr), {&image}, {&before}),
               objects_->read(destination, extentD, false));
}

TEST_P(ToneCurveLookup, MatchPointsWithoutOverlapLeaveTheDestinationAlone) {
  const Curve &curve = kCurves[GetParam()];
  setting("matchPointState", 1);
  const Extent extent{8, 4, 1, 1, 1};
  std::mt19937 rng(static_cast<unsigned>(80 + GetParam()));
  Image before = randomImage(rng, extent, false);
  ZelObject *source =
      objects_->make(randomImage(rng, extent, false), ZelWorkSpace, true, {20, 0, 0, 0, 0});
  ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true);
  ASSERT_EQ(curve.run(ctx_, source, destination), 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  expectPixels(before, objects_->read(destination, extent, false));
}

TEST_P(ToneCurveLookup, DeadSourceOrDestinationIsAnInvalidInstance) {
  const Curve &curve = kCurves[GetParam()];
  const Extent extent{6, 2, 1, 1, 1};
  Image before(extent, false, 5);
  ZelObject *source = objects_->make(Image(extent, false, 9), ZelWorkSpace, true);
  ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true);
  ZelObject *dead = deadChildOf(objects_->make(Image(extent, false, 9), ZelWorkSpace, true));
  for (const auto &[from, to] : {std::pair{dead, destination}, std::pair{source, dead}}) {
    const int live = liveObjects();
    clearLastError(ctx_);
    EXPECT_EQ(curve.run(ctx_, from, to), 9);
    EXPECT_EQ(Zel003b(ctx_), 9);
    EXPECT_EQ(liveObjects(), live);
  }
  expectPixels(before, objects_->read(destination, extent, false));
  expectNoStreamOpen({source, destination});
}

TEST_P(ToneCurveLookup, DestroyedTopLevelHandleIsRefusedBeforeItsRecordIsReused) {
  const Curve &curve = kCurves[GetParam()];
  const Extent extent{6, 2, 1, 1, 1};
  for (bool deadIsSource : {false, true}) {
    SCOPED_TRACE(deadIsSource);
    ZelObject *live = objects_->make(Image(extent, false, 9), ZelWorkSpace, true);
    ZelObject *dead = objects_->make(Image(extent, false, 9), ZelWorkSpace, true);
    ASSERT_EQ(Zel002(ctx_, dead), 0);
    clearLastError(ctx_);
    int code = deadIsSource ? curve.run(ctx_, dead, live) : curve.run(ctx_, live, dead);
    EXPECT_EQ(code, 9);
    EXPECT_EQ(Zel003b(ctx_), 9);
    ASSERT_EQ(Zel002(ctx_, live), 0);
  }
}

TEST_P(ToneCurveLookup, BadContextIsRefused) {
  const Curve &curve = kCurves[GetParam()];
  const Extent extent{6, 2, 1, 1, 1};
  Image before(extent, false, 5);
  ZelObject *source = objects_->make(Image(extent, false, 9), ZelWorkSpace, true);
  ZelObject *destination = objects_->make(before, ZelApplicationAddressSpace, true);
  const int live = liveObjects();
  int notAContext = 0;
  EXPECT_EQ(curve.run(nullptr, source, destination), 24);
  EXPECT_EQ(curve.run(reinterpret_cast<ZelContext *>(&notAContext), source, destination), 24);
  EXPECT_EQ(notAContext, 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(liveObjects(), live);
  expectPixels(before, objects_->read(destination, extent, false));
}

TEST_P(ToneCurveLookup, TemporaryObjectsAreGoneAfterEveryCall) {
  const Curve &curve = kCurves[GetParam()];
  const Extent extent{9, 4, 1, 1, 2};
  std::mt19937 rng(static_cast<unsigned>(90 + GetParam()));
  Image image = randomImage(rng, extent, false);
  ZelObject *sentinel = Zel000b(ctx_, "sentinel", nullptr, nullptr, 0);
  ASSERT_NE(sentinel, nullptr);
  ZelObject *source = objects_->make(image, ZelWorkSpace, true);
  ZelObject *destination = objects_->make(Image(extent, false), ZelFile, false);
  ZelObject *signedDestination = typedImage(ZelSigned, 16, extent, 0);
  ZelObject *bits = objects_->make(Image(extent, true), ZelWorkSpace, false);
  ZelObject *dead = deadChildOf(objects_->make(image, ZelWorkSpace, true));
  const int live = liveObjects();
  int records = 0;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(curve.run(ctx_, source, destination), 0);
    EXPECT_EQ(liveObjects(), live);
    // Failing calls, each on another way out.
    const std::tuple<ZelObject *, ZelObject *, int> failures[] = {
        {source, signedDestination, curve.mismatch},
        {bits, bits, curve.mismatch},
        {dead, destination, 9},
        {source, dead, 9}};
    for (const auto &[from, to, code] : failures) {
      EXPECT_EQ(curve.run(ctx_, from, to), code);
      EXPECT_EQ(liveObjects(), live);
    }
    // The records that temporary objects used are used again, not added to.
    if (round == 1) records = treeSize().records;
    if (round > 1) {
      EXPECT_EQ(treeSize().records, records);
    }
  }
  EXPECT_EQ(Zel099(ctx_, nullptr, "sentinel"), sentinel);
  expectNoStreamOpen({source, destination, signedDestination, bits});
}

INSTANTIATE_TEST_SUITE_P(Curves, ToneCurveLookup,
                         ::testing::Range(0, static_cast<int>(std::size(kCurves))),
                         [](const ::testing::TestParamInfo<int> &param) {
                           return std::string(kCurves[param.param].name);
                         });

}  // namespace
