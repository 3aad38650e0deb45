// Scaffolding shared by the tests of operators: images held by the test and their reference
// results, objects made in each repository and read back, and a fixture whose context works in a
// scratch directory with a private temporary directory that must be empty again, with every
// descriptor closed, when the test ends.
#pragma once

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

namespace zel::test::operators {

namespace fs = std::filesystem;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

// ---- Images held by the test ---------------------------------------------------------------

using Extent = std::array<int, 5>;  // x, y, z, t, b
constexpr Extent kOrigin{0, 0, 0, 0, 0};

inline int64_t pixelCount(const Extent &extent) {
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
inline std::vector<uint8_t> pack(const Image &image) {
  if (!image.boolean) return image.pixels;
  std::vector<uint8_t> bytes(image.totalBytes(), 0);
  for (size_t i = 0; i < image.pixels.size(); ++i)
    if (image.pixels[i]) bytes[i >> 3] = static_cast<uint8_t>(bytes[i >> 3] | (0x80u >> (i & 7)));
  return bytes;
}

inline Image unpack(const Extent &extent, bool boolean, const uint8_t *bytes) {
  Image image(extent, boolean);
  for (size_t i = 0; i < image.pixels.size(); ++i)
    image.pixels[i] =
        boolean ? static_cast<uint8_t>((bytes[i >> 3] >> (7 - (i & 7))) & 1) : bytes[i];
  return image;
}

inline Image randomImage(std::mt19937 &rng, const Extent &extent, bool boolean) {
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
inline Image randomMask(std::mt19937 &rng, const Extent &extent) {
  Image mask(extent, false);
  for (uint8_t &pixel : mask.pixels) {
    uint32_t r = static_cast<uint32_t>(rng());
    pixel = (r % 4 == 0) ? 0 : static_cast<uint8_t>(1 + (r >> 8) % 255);
  }
  return mask;
}

inline std::string describe(const Image &image, size_t index) {
  Extent at{};
  size_t rest = index;
  for (int axis = 0; axis < 5; ++axis) {
    at[axis] = static_cast<int>(rest % static_cast<size_t>(image.extent[axis]));
    rest /= static_cast<size_t>(image.extent[axis]);
  }
  return "(" + std::to_string(at[0]) + "," + std::to_string(at[1]) + "," + std::to_string(at[2]) +
         "," + std::to_string(at[3]) + "," + std::to_string(at[4]) + ")";
}

inline void expectPixels(const Image &expected, const Image &actual) {
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

inline uint8_t byteOf(int value) {
  return static_cast<uint8_t>(value & 0xFF);
}

// The result for one pixel of two bytes, or nothing when the pixel is left alone.
inline std::optional<uint8_t> byteResult(int operation, int a, int b) {
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
inline std::optional<uint8_t> bitResult(int operation, int a, int b) {
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

inline void forEachPixel(const Extent &first, const Extent &last,
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
inline Image combine(int operation, const Operand &a, const Operand &b, const Operand &d) {
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

inline void expectNoStreamOpen(std::initializer_list<ZelObject *> objects) {
  for (ZelObject *object : objects) {
    EXPECT_EQ(object->openStreams, 0);
    EXPECT_EQ(object->fileUseCount, 0);
  }
}

// A context in a scratch directory with a private temporary directory, which must be empty
// again, and every descriptor closed, once the context is gone.
class OperatorFixture : public ::testing::Test {
 protected:
  OperatorFixture() {
    temporary_ = scratch_.path() / "tmp";
    fs::create_directory(temporary_);
    if (const char *old = std::getenv("TMPDIR")) savedTmpdir_ = old;
    setenv("TMPDIR", temporary_.c_str(), 1);
    descriptors_ = openDescriptors();
    ctx_ = Zel004(nullptr);
    objects_ = std::make_unique<Objects>(ctx_);
  }
  ~OperatorFixture() override {
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

}  // namespace zel::test::operators
