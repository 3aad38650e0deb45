// Repository streams: the size rules of lines and objects, the three repositories written and
// read line by line, the ring of lines of a file, Boolean rows that share bytes, the padding of
// a file at close, shared descriptors, temporary files and the failures of opening.
#include "access/repository.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "test_support.h"

namespace {

using zel::test::clearLastError;
using zel::test::fileBytes;
using zel::test::inited;
using zel::test::makeImage;
using zel::test::openDescriptors;
using zel::test::openStream;
using zel::test::PrivateTemporaryDirectory;
using zel::test::Stream;
using zel::test::word;
using zel::test::writeFile;

using zel::RepositoryStream;
using zel::test::ContextGuard;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

namespace fs = std::filesystem;

// A directory of its own that $TMPDIR names for the length of a test.
// Sets an environment variable for the length of a scope (null: unset).
class EnvironmentSetting {
 public:
  EnvironmentSetting(const char *name, const char *value) : name_(name) {
    if (const char *previous = std::getenv(name)) previous_ = previous;
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~EnvironmentSetting() {
    if (previous_)
      setenv(name_.c_str(), previous_->c_str(), 1);
    else
      unsetenv(name_.c_str());
  }

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// Pixel i of a line whose first pixel lies `firstBit` bits into `line`. Pixels narrower than a
// byte are packed from the most significant bit down; wider ones are bytes in host order.
void putPixel(uint8_t *line, int64_t firstBit, int64_t i, int bits, uint64_t value) {
  if (bits < 8) {
    int64_t bit = firstBit + i * bits;
    int shift = 8 - bits - static_cast<int>(bit % 8);
    auto mask = static_cast<uint8_t>(((1u << bits) - 1) << shift);
    uint8_t &target = line[bit / 8];
    target = static_cast<uint8_t>((target & ~mask) | ((value << shift) & mask));
  } else {
    std::memcpy(line + firstBit / 8 + i * (bits / 8), &value, static_cast<size_t>(bits / 8));
  }
}

uint64_t getPixel(const uint8_t *line, int64_t firstBit, int64_t i, int bits) {
  if (bits < 8) {
    int64_t bit = firstBit + i * bits;
    int shift = 8 - bits - static_cast<int>(bit % 8);
    return (line[bit / 8] >> shift) & ((1u << bits) - 1);
  }
  uint64_t value = 0;
  std::memcpy(&value, line + firstBit / 8 + i * (bits / 8), static_cast<size_t>(bits / 8));
  return value;
}

uint64_t pattern(int64_t x, int64_t y, int bits) {
  uint64_t value = static_cast<uint64_t>(x) * 2654435761u + static_cast<uint64_t>(y) * 40503u + 1;
  return bits >= 64 ? value : value & ((uint64_t{1} << bits) - 1);
}

int64_t lineBytesFor(int64_t bits) {
  return bits % 8 == 0 ? bits / 8 : (bits + 14) / 8;
}

// ---- Sizes ---------------------------------------------------------------------------------

struct WidthCase {
  int bitsPerPixel;
  int width;
  int64_t lineBytes;
};

// Each bit width is made with a type whose precision the context or the object gives.
void applyPixelWidth(ZelContext *ctx, std::vector<ZelAttribute> &list, int bits) {
  switch (bits) {
    case 1:
      list.push_back({"dataType", ZelBoolean});
      break;
    case 4:
      ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 4), 0);
      list.push_back({"dataType", ZelNonNegative});
      break;
    case 8:
      list.push_back({"dataType", ZelNonNegative});
      break;
    case 16:
      list.push_back({"dataType", ZelSigned});
      break;
    case 32:
      list.push_back({"dataType", ZelReal});
      break;
    default:
      list.push_back({"dataType", ZelSigned});
      list.push_back({"dataPrecision", bits});
      break;
  }
}

TEST(RepositoryStream, LineBytesFollowTheBitsOfALine) {
  const WidthCase cases[] = {
      {8, 5, 5},    // whole bytes: n / 8
      {1, 16, 2},   // whole bytes
      {16, 3, 6},   // whole bytes
      {1, 9, 2},    // remainder of one bit: exactly the bytes needed
      {1, 10, 3},   // remainder of two bits: one byte more than needed
      {1, 15, 3},   // remainder of seven bits
      {4, 5, 4},    // 20 bits
      {4, 3, 3},    // 12 bits
      {12, 3, 6},   // 36 bits
      {3, 3, 2},    // 9 bits
      {64, 2, 16},  // whole bytes
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.bitsPerPixel << " bits x " << c.width);
    ContextGuard ctx;
    std::vector<ZelAttribute> list{{"repository", ZelWorkSpace}, {"xDimension", c.width}};
    applyPixelWidth(ctx, list, c.bitsPerPixel);
    ZelObject *image = makeImage(ctx, list);
    ASSERT_NE(image, nullptr);
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr) << Zel003b(ctx);
    EXPECT_EQ(stream->bitsPerPixel, c.bitsPerPixel);
    EXPECT_EQ(stream->linePixels, c.width);
    EXPECT_EQ(stream->lineBytes, c.lineBytes);
    EXPECT_EQ(stream->lineBytes, lineBytesFor(int64_t{c.bitsPerPixel} * c.width));
    EXPECT_EQ(stream->sampleBytes, (c.bitsPerPixel + 7) / 8);
    EXPECT_EQ(stream->requestedLines, 1);
  }
}

struct ClassCase {
  const char *name;
  ZelObject *(*wrapper)(ZelContext *, const char *, ZelObject *, const ZelAttribute *, int);
  enum { AllFive, XOnly, XTimesY, XTimesB, None } count;
};

TEST(RepositoryStream, TotalBytesCountsThePixelsThatEachClassHolds) {
  const ClassCase cases[] = {
      {"ColourImage", Zel000a, ClassCase::AllFive},
      {"GenericImage", Zel000b, ClassCase::AllFive},
      {"MonochromeImage", Zel000c, ClassCase::AllFive},
      {"Histogram", Zel000d, ClassCase::XOnly},
      {"LookupTable", Zel000e, ClassCase::XTimesB},
      {"Matrix", Zel000f, ClassCase::XTimesY},
      {"DitherArray", Zel000g, ClassCase::XTimesY},
      {"ImpulseResponseArray", Zel000h, ClassCase::XTimesY},
      {"MaskArray", Zel000i, ClassCase::XTimesY},
      {"ROI", Zel000j, ClassCase::AllFive},
      {"PowerSpectrumArray", Zel000k, ClassCase::None},
      {"TransferFunctionArray", Zel000l, ClassCase::None},
      {"WindowFunctionArray", Zel000m, ClassCase::None},
      {"Tuple", Zel000n, ClassCase::XOnly},
      {"CompositeIDArray", Zel000z, ClassCase::XOnly},
  };
  const int64_t x = 5, y = 3, z = 2, t = 2, b = 3;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    ContextGuard ctx;
    ZelAttribute list[] = {{"repository", ZelWorkSpace},
                           {"xDimension", x},
                           {"yDimension", y},
                           {"zDimension", z},
                           {"tDimension", t},
                           {"bDimension", b}};
    ZelObject *object = c.wrapper(ctx, nullptr, nullptr, list, 6);
    ASSERT_NE(object, nullptr);
    int64_t bits = readAttribute(ctx, object, "dataPrecision");
    int64_t count = 0;
    switch (c.count) {
      case ClassCase::AllFive:
        count = x * y * z * t * b;
        break;
      case ClassCase::XOnly:
        count = x;
        break;
      case ClassCase::XTimesY:
        count = x * y;
        break;
      case ClassCase::XTimesB:
        count = x * b;
        break;
      case ClassCase::None:
        count = 0;
        break;
    }
    int64_t expected = (bits * count + 7) / 8;
    EXPECT_EQ(zel::objectTotalBytes(ctx, object), expected);
    Stream stream = openStream(ctx, object, "r");
    ASSERT_NE(stream, nullptr) << Zel003b(ctx);
    EXPECT_EQ(stream->totalBytes, expected);
  }
}

TEST(RepositoryStream, TotalBytesRoundsAPartialLastByteUp) {
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                     {"dataType", ZelBoolean},
                                     {"xDimension", 5},
                                     {"yDimension", 3}});
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(zel::objectTotalBytes(ctx, image), 2);
  Stream stream = openStream(ctx, image, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->totalBytes, 2);
}

TEST(RepositoryStream, NonNegativeObjectBelowEightBitsTakesTheContextsPrecision) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 4), 0);
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                     {"dataType", ZelNonNegative},
                                     {"dataPrecision", 2},
                                     {"xDimension", 6},
                                     {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(readAttribute(ctx, image, "dataPrecision"), 2);
  Stream stream = openStream(ctx, image, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->bitsPerPixel, 4);
  EXPECT_EQ(stream->lineBytes, 3);
  EXPECT_EQ(stream->totalBytes, 6);
  EXPECT_EQ(zel::objectTotalBytes(ctx, image), 6);
}

TEST(RepositoryStream, OtherPrecisionsAreTheObjectsOwn) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 2), 0);
  ZelObject *wide = makeImage(ctx, {{"repository", ZelWorkSpace},
                                    {"dataType", ZelNonNegative},
                                    {"dataPrecision", 12},
                                    {"xDimension", 2}});
  ZelObject *narrowSigned = makeImage(ctx, {{"repository", ZelWorkSpace},
                                            {"dataType", ZelSigned},
                                            {"dataPrecision", 4},
                                            {"xDimension", 2}});
  ASSERT_NE(wide, nullptr);
  ASSERT_NE(narrowSigned, nullptr);
  Stream wideStream = openStream(ctx, wide, "w");
  Stream signedStream = openStream(ctx, narrowSigned, "w");
  ASSERT_NE(wideStream, nullptr);
  ASSERT_NE(signedStream, nullptr);
  EXPECT_EQ(wideStream->bitsPerPixel, 12);
  EXPECT_EQ(signedStream->bitsPerPixel, 4);
}

TEST(RepositoryStream, NegativeBufferLinesGivesOneLongLine) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 4, height = 6;
  ZelObject *image = makeImage(
      ctx, {{"fileName", word("long.raw")}, {"xDimension", width}, {"yDimension", height}});
  ASSERT_NE(image, nullptr);
  {
    Stream stream = openStream(ctx, image, "w", -height);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->requestedLines, -height);
    EXPECT_EQ(stream->linePixels, width * height);
    EXPECT_EQ(stream->lineBytes, width * height);
    uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 0);
    ASSERT_NE(line, nullptr);
    for (int i = 0; i < width * height; ++i)
      line[i] = static_cast<uint8_t>(i + 1);
    EXPECT_EQ(zel::writeLine(ctx, stream.get(), 0), line);
  }
  std::vector<uint8_t> expected(width * height);
  for (int i = 0; i < width * height; ++i)
    expected[i] = static_cast<uint8_t>(i + 1);
  EXPECT_EQ(fileBytes("long.raw"), expected);
  Stream reader = openStream(ctx, image, "r", -height);
  ASSERT_NE(reader, nullptr);
  uint8_t *line = zel::readLine(ctx, reader.get(), 0);
  ASSERT_NE(line, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(line, line + width * height), expected);
}

TEST(RepositoryStream, NegativeBufferLinesInWorkSpaceGivesOneLongLineInPlace) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 3}, {"yDimension", 5}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "w", -5);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->linePixels, 15);
  EXPECT_EQ(stream->lineBytes, 15);
  auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace"));
  EXPECT_EQ(zel::lineForUpdate(ctx, stream.get(), 0), block);
}

// ---- Writing and reading each repository ----------------------------------------------------

struct RoundTripCase {
  int repository;
  int bits;
};

void PrintTo(const RoundTripCase &c, std::ostream *out) {
  *out << "repository " << c.repository << ", " << c.bits << " bits";
}

std::string roundTripName(const testing::TestParamInfo<RoundTripCase> &info) {
  const char *repository = info.param.repository == ZelFile                      ? "File"
                           : info.param.repository == ZelWorkSpace               ? "WorkSpace"
                           : info.param.repository == ZelApplicationAddressSpace ? "Application"
                                                                                 : "Other";
  return std::string(repository) + std::to_string(info.param.bits) + "Bits";
}

class RepositoryRoundTrip : public testing::TestWithParam<RoundTripCase> {};

TEST_P(RepositoryRoundTrip, LinesWrittenOneByOneAreReadBackUnchanged) {
  const int bits = GetParam().bits;
  const int repository = GetParam().repository;
  const int width = bits == 1 ? 13 : bits == 4 ? 6 : bits == 8 ? 7 : bits == 16 ? 5 : 3;
  const int height = 4;
  const int64_t total = (int64_t{bits} * width * height + 7) / 8;

  ScratchDirectory scratch;
  ContextGuard ctx;
  std::vector<uint8_t> application(static_cast<size_t>(total), 0);
  std::vector<ZelAttribute> list{
      {"repository", repository}, {"xDimension", width}, {"yDimension", height}};
  applyPixelWidth(ctx, list, bits);
  if (repository == ZelFile) list.push_back({"fileName", word("image.raw")});
  if (repository == ZelApplicationAddressSpace) {
    list.push_back({"applicationAddressSpace", word(application.data())});
    list.push_back({"size", total});
  }
  ZelObject *image = makeImage(ctx, list);
  ASSERT_NE(image, nullptr);

  std::vector<uint8_t> expected(static_cast<size_t>(total), 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      putPixel(expected.data(), 0, x + int64_t{width} * y, bits, pattern(x, y, bits));

  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr) << Zel003b(ctx);
    EXPECT_EQ(stream->bitsPerPixel, bits);
    EXPECT_EQ(stream->totalBytes, total);
    EXPECT_EQ(stream->lineBytes, lineBytesFor(int64_t{bits} * width));
    for (int y = 0; y < height; ++y) {
      int64_t offset = int64_t{width} * y;
      uint8_t *line = zel::lineForUpdate(ctx, stream.get(), offset);
      ASSERT_NE(line, nullptr) << "line " << y << ", code " << Zel003b(ctx);
      for (int x = 0; x < width; ++x)
        putPixel(line, offset * bits % 8, x, bits, pattern(x, y, bits));
      EXPECT_EQ(zel::writeLine(ctx, stream.get(), offset), line) << "line " << y;
    }
    EXPECT_FALSE(inited(image));
  }
  EXPECT_TRUE(inited(image));

  if (repository == ZelFile) {
    EXPECT_EQ(fileBytes("image.raw"), expected);
  }
  if (repository == ZelApplicationAddressSpace) {
    EXPECT_EQ(application, expected);
  }
  if (repository == ZelWorkSpace) {
    auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace"));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(block, block + total), expected);
  }

  Stream reader = openStream(ctx, image, "r");
  ASSERT_NE(reader, nullptr) << Zel003b(ctx);
  for (int y = 0; y < height; ++y) {
    int64_t offset = int64_t{width} * y;
    const uint8_t *line = zel::readLine(ctx, reader.get(), offset);
    ASSERT_NE(line, nullptr) << "line " << y << ", code " << Zel003b(ctx);
    for (int x = 0; x < width; ++x)
      EXPECT_EQ(getPixel(line, offset * bits % 8, x, bits), pattern(x, y, bits))
          << "x " << x << " y " << y;
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllRepositoriesAndWidths, RepositoryRoundTrip,
    testing::Values(RoundTripCase{ZelApplicationAddressSpace, 1},
                    RoundTripCase{ZelApplicationAddressSpace, 4},
                    RoundTripCase{ZelApplicationAddressSpace, 8},
                    RoundTripCase{ZelApplicationAddressSpace, 16},
                    RoundTripCase{ZelApplicationAddressSpace, 32}, RoundTripCase{ZelWorkSpace, 1},
                    RoundTripCase{ZelWorkSpace, 4}, RoundTripCase{ZelWorkSpace, 8},
                    RoundTripCase{ZelWorkSpace, 16}, RoundTripCase{ZelWorkSpace, 32},
                    RoundTripCase{ZelFile, 1}, RoundTripCase{ZelFile, 4}, RoundTripCase{ZelFile, 8},
                    RoundTripCase{ZelFile, 16}, RoundTripCase{ZelFile, 32}),
    roundTripName);

TEST(RepositoryStream, ApplicationMemoryIsReachedInPlace) {
  ContextGuard ctx;
  uint16_t pixels[12] = {};
  ZelObject *image = makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                                     {"applicationAddressSpace", word(pixels)},
                                     {"dataType", ZelSigned},
                                     {"xDimension", 4},
                                     {"yDimension", 3}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "w");
  ASSERT_NE(stream, nullptr);
  auto *base = reinterpret_cast<uint8_t *>(pixels);
  EXPECT_EQ(stream->lineBuffer, base);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 4), base + 8);
  uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 8);
  EXPECT_EQ(line, base + 16);
  ASSERT_NE(line, nullptr);
  line[0] = 0x34;
  line[1] = 0x12;
  EXPECT_EQ(zel::writeLine(ctx, stream.get(), 8), base + 16);
  uint16_t expected = 0;
  std::memcpy(&expected, "\x34\x12", 2);
  EXPECT_EQ(pixels[8], expected);
}

TEST(RepositoryStream, WorkSpaceWithDataIsReachedInPlaceByLaterStreams) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  uint8_t *block = nullptr;
  {
    Stream writer = openStream(ctx, image, "w");
    ASSERT_NE(writer, nullptr);
    block = reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace"));
    ASSERT_NE(block, nullptr);
    EXPECT_NE(readAttribute(ctx, image, "workSpaceHandle"), 0);
    EXPECT_EQ(writer->lineBuffer, block);
    EXPECT_EQ(std::vector<uint8_t>(block, block + 8), std::vector<uint8_t>(8, 0));
    uint8_t *line = zel::lineForUpdate(ctx, writer.get(), 4);
    ASSERT_EQ(line, block + 4);
    std::memset(line, 0x5A, 4);
    EXPECT_EQ(zel::writeLine(ctx, writer.get(), 4), block + 4);
  }
  Stream reader = openStream(ctx, image, "r");
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace")), block);
  const uint8_t *line = zel::readLine(ctx, reader.get(), 4);
  ASSERT_EQ(line, block + 4);
  EXPECT_EQ(std::vector<uint8_t>(line, line + 4), std::vector<uint8_t>(4, 0x5A));
}

TEST(RepositoryStream, LimitBytesOfEachRepository) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  uint8_t memory[64] = {};
  ZelObject *sized = makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                                     {"applicationAddressSpace", word(memory)},
                                     {"size", 40},
                                     {"xDimension", 8},
                                     {"yDimension", 4}});
  ZelObject *unsized = makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                                       {"applicationAddressSpace", word(memory)},
                                       {"xDimension", 8},
                                       {"yDimension", 4}});
  ZelObject *work =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"yDimension", 3}});
  ZelObject *file =
      makeImage(ctx, {{"fileName", word("limit.raw")}, {"xDimension", 8}, {"yDimension", 3}});
  Stream a = openStream(ctx, sized, "r");
  Stream b = openStream(ctx, unsized, "r");
  Stream c = openStream(ctx, work, "w");
  Stream d = openStream(ctx, file, "w");
  ASSERT_TRUE(a && b && c && d);
  EXPECT_EQ(a->limitBytes, 40);
  EXPECT_GE(b->limitBytes, 0x7FFFFFFF);
  EXPECT_EQ(c->limitBytes, 24);
  EXPECT_GE(d->limitBytes, 0x7FFFFFFF);
}

// ---- Failures of opening --------------------------------------------------------------------

TEST(RepositoryStream, ApplicationRepositoryWithoutMemoryIsNotPermissible) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelApplicationAddressSpace}, {"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "r", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 12);
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 12);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(inited(image));
}

TEST(RepositoryStream, UnknownRepositoryIsNotPermissible) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", 5}, {"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 12);
  EXPECT_TRUE(tmp.files().empty());
  EXPECT_FALSE(inited(image));
}

TEST(RepositoryStream, FileInAMissingDirectoryCannotBeOpened) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"fileName", word("missing/dir/image.raw")}, {"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 25);
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "r", 3), nullptr);
  EXPECT_EQ(Zel003b(ctx), 25);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_FALSE(inited(image));
  EXPECT_FALSE(fs::exists("missing"));
}

TEST(RepositoryStream, ReadStreamOnAMissingNamedFileCannotBeOpened) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"fileName", word("absent.raw")}, {"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "r", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 25);
  EXPECT_FALSE(fs::exists("absent.raw"));
}

TEST(RepositoryStream, WriteStreamOnAnObjectWithDataNeedsItsFileToExist) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"fileName", word("gone.raw")}, {"xDimension", 4}, {"inited", 1}});
  ASSERT_NE(image, nullptr);
  ASSERT_TRUE(inited(image));
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 25);
  EXPECT_FALSE(fs::exists("gone.raw"));
}

TEST(RepositoryStream, PixelWidthOutsideOneToSixtyFourBitsIsOutOfRange) {
  PrivateTemporaryDirectory tmp;
  const int widths[] = {0, 65, -8};
  for (int width : widths) {
    SCOPED_TRACE(width);
    ContextGuard ctx;
    ZelObject *image =
        makeImage(ctx, {{"dataType", ZelSigned}, {"dataPrecision", width}, {"xDimension", 4}});
    ASSERT_NE(image, nullptr);
    int before = openDescriptors();
    EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
    EXPECT_EQ(Zel003b(ctx), 18);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(readAttribute(ctx, image, "tmpnam"), 0);
    EXPECT_TRUE(tmp.files().empty());
  }
  // A narrow NonNegative object takes its width from the context, which may be out of range too.
  const int contextWidths[] = {0, 70};
  for (int width : contextWidths) {
    SCOPED_TRACE(testing::Message() << "context " << width);
    ContextGuard ctx;
    ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", width), 0);
    ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                       {"dataType", ZelNonNegative},
                                       {"dataPrecision", 4},
                                       {"xDimension", 4}});
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
    EXPECT_EQ(Zel003b(ctx), 18);
  }
  ContextGuard ctx;
  ZelObject *widest = makeImage(ctx, {{"repository", ZelWorkSpace},
                                      {"dataType", ZelComplex},
                                      {"dataPrecision", 64},
                                      {"xDimension", 2}});
  Stream stream = openStream(ctx, widest, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->bitsPerPixel, 64);
}

TEST(RepositoryStream, NegativeDimensionIsOutOfRange) {
  PrivateTemporaryDirectory tmp;
  const char *names[] = {"xDimension", "yDimension", "zDimension", "tDimension", "bDimension"};
  for (const char *name : names) {
    SCOPED_TRACE(name);
    ContextGuard ctx;
    ZelObject *image = makeImage(ctx, {{"xDimension", 4}, {name, -2}});
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
    EXPECT_EQ(Zel003b(ctx), 18);
    ZelObject *work = makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {name, -2}});
    EXPECT_EQ(zel::openRepositoryStream(ctx, work, "w", 1), nullptr);
    EXPECT_EQ(Zel003b(ctx), 18);
    EXPECT_TRUE(tmp.files().empty());
  }
}

TEST(RepositoryStream, SizeBeyondSixtyFourBitsExceedsTheImplementation) {
  PrivateTemporaryDirectory tmp;
  const int repositories[] = {ZelFile, ZelWorkSpace};
  for (int repository : repositories) {
    SCOPED_TRACE(repository);
    ContextGuard ctx;
    ZelObject *image = makeImage(ctx, {{"repository", repository},
                                       {"dataType", ZelComplex},
                                       {"xDimension", 0x7FFFFFFF},
                                       {"yDimension", 0x7FFFFFFF},
                                       {"zDimension", 0x7FFFFFFF},
                                       {"tDimension", 0x7FFFFFFF},
                                       {"bDimension", 0x7FFFFFFF}});
    ASSERT_NE(image, nullptr);
    int before = openDescriptors();
    EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
    EXPECT_EQ(Zel003b(ctx), 3);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(tmp.files().empty());
  }
}

TEST(RepositoryStream, DeadObjectIsAnInvalidInstance) {
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace}});
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(Zel002(ctx, image), 0);
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "r", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(RepositoryStream, ClosingANullStreamDoesNothing) {
  ContextGuard ctx;
  clearLastError(ctx);
  zel::closeRepositoryStream(ctx, nullptr);
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Bounds of memory lines -----------------------------------------------------------------

TEST(RepositoryStream, LineBeyondTheWorkSpaceBlockIsInsufficientSize) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(zel::readLine(ctx, stream.get(), 4), nullptr);
  clearLastError(ctx);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 8), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
  clearLastError(ctx);
  EXPECT_EQ(zel::lineForUpdate(ctx, stream.get(), 5), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeLine(ctx, stream.get(), 100), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
}

TEST(RepositoryStream, LineBeyondTheBlockIsRefusedAfterTheShapeGrew) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  { ASSERT_NE(openStream(ctx, image, "w"), nullptr); }
  ASSERT_TRUE(inited(image));
  ZelAttribute grow[] = {{"yDimension", 4}, {"inited", 1}};
  ASSERT_EQ(Zel006(ctx, image, grow, 2), 0);
  Stream stream = openStream(ctx, image, "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(zel::readLine(ctx, stream.get(), 4), nullptr);
  clearLastError(ctx);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 12), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
}

TEST(RepositoryStream, LineBeyondTheApplicationsSizeIsInsufficientSize) {
  ContextGuard ctx;
  uint8_t memory[6] = {};
  ZelObject *image = makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                                     {"applicationAddressSpace", word(memory)},
                                     {"size", 6},
                                     {"xDimension", 4},
                                     {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 0), memory);
  clearLastError(ctx);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 4), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
  clearLastError(ctx);
  EXPECT_EQ(zel::lineForUpdate(ctx, stream.get(), 4), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeLine(ctx, stream.get(), 4), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
}

TEST(RepositoryStream, ApplicationMemoryWithoutSizeIsNotBounded) {
  ContextGuard ctx;
  uint8_t memory[8] = {};
  ZelObject *image = makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                                     {"applicationAddressSpace", word(memory)},
                                     {"xDimension", 4},
                                     {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "r");
  ASSERT_NE(stream, nullptr);
  // The application vouches for its memory: the pointer is computed, never dereferenced here.
  uint8_t *line = zel::readLine(ctx, stream.get(), 400);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(line), reinterpret_cast<uintptr_t>(memory) + 400);
}

TEST(RepositoryStream, BooleanLineEndingInTheLastByteIsReachableInMemory) {
  // Ten pixels a line: lineBytes is 3, and the second line lies in bytes 1 and 2 of 3.
  ContextGuard ctx;
  uint8_t memory[3] = {};
  ZelObject *application = makeImage(ctx, {{"repository", ZelApplicationAddressSpace},
                                           {"applicationAddressSpace", word(memory)},
                                           {"size", 3},
                                           {"dataType", ZelBoolean},
                                           {"xDimension", 10},
                                           {"yDimension", 2}});
  ZelObject *work = makeImage(ctx, {{"repository", ZelWorkSpace},
                                    {"dataType", ZelBoolean},
                                    {"xDimension", 10},
                                    {"yDimension", 2}});
  ASSERT_NE(application, nullptr);
  ASSERT_NE(work, nullptr);
  Stream a = openStream(ctx, application, "w");
  Stream w = openStream(ctx, work, "w");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(a->lineBytes, 3);
  ASSERT_EQ(a->totalBytes, 3);
  EXPECT_EQ(zel::readLine(ctx, a.get(), 10), memory + 1) << Zel003b(ctx);
  EXPECT_EQ(zel::lineForUpdate(ctx, a.get(), 10), memory + 1) << Zel003b(ctx);
  EXPECT_EQ(zel::writeLine(ctx, a.get(), 10), memory + 1) << Zel003b(ctx);
  auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx, work, "workSpace"));
  EXPECT_EQ(zel::readLine(ctx, w.get(), 10), block + 1) << Zel003b(ctx);
  EXPECT_EQ(zel::writeLine(ctx, w.get(), 10), block + 1) << Zel003b(ctx);
}

TEST(RepositoryStream, LineOperationsAtANegativeOffsetAreInsufficientSize) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *work =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 2}});
  ZelObject *file =
      makeImage(ctx, {{"fileName", word("negative.raw")}, {"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(work, nullptr);
  ASSERT_NE(file, nullptr);
  Stream w = openStream(ctx, work, "w");
  Stream f = openStream(ctx, file, "w");
  ASSERT_NE(w, nullptr);
  ASSERT_NE(f, nullptr);
  for (RepositoryStream *stream : {w.get(), f.get()}) {
    SCOPED_TRACE(stream == w.get() ? "work space" : "file");
    clearLastError(ctx);
    EXPECT_EQ(zel::readLine(ctx, stream, -4), nullptr);
    EXPECT_EQ(Zel003b(ctx), 8);
    clearLastError(ctx);
    EXPECT_EQ(zel::lineForUpdate(ctx, stream, -1), nullptr);
    EXPECT_EQ(Zel003b(ctx), 8);
    clearLastError(ctx);
    EXPECT_EQ(zel::writeLine(ctx, stream, -4), nullptr);
    EXPECT_EQ(Zel003b(ctx), 8);
  }
}

// ---- Files: rings, shared bytes, padding ----------------------------------------------------

// A file object of `height` lines of `width` bytes, line y filled with y + 1.
ZelObject *writtenLines(ZelContext *ctx, const char *name, int width, int height) {
  ZelObject *image =
      makeImage(ctx, {{"fileName", word(name)}, {"xDimension", width}, {"yDimension", height}});
  if (!image) return nullptr;
  Stream stream = openStream(ctx, image, "w");
  if (!stream) return nullptr;
  for (int y = 0; y < height; ++y) {
    uint8_t *line = zel::lineForUpdate(ctx, stream.get(), int64_t{width} * y);
    if (!line) return nullptr;
    std::memset(line, y + 1, static_cast<size_t>(width));
    if (!zel::writeLine(ctx, stream.get(), int64_t{width} * y)) return nullptr;
  }
  return image;
}

std::vector<uint8_t> filled(int width, int value) {
  return std::vector<uint8_t>(static_cast<size_t>(width), static_cast<uint8_t>(value));
}

TEST(RepositoryStream, ThreeLineRingOnTenLinesHasZeroLinesAboveTheFirstAndBelowTheLast) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 4, height = 10;
  ZelObject *image = writtenLines(ctx, "ten.raw", width, height);
  ASSERT_NE(image, nullptr);
  Stream ring = openStream(ctx, image, "r", 3);
  ASSERT_NE(ring, nullptr);
  EXPECT_EQ(ring->requestedLines, 3);
  EXPECT_EQ(ring->halfWindowBytes, width);
  ASSERT_NE(ring->ringStart, nullptr);
  EXPECT_EQ(ring->ringCentre, ring->ringStart + width);
  EXPECT_EQ(ring->lineBuffer, ring->ringStart + 2 * width);
  for (int y = 0; y < height; ++y) {
    SCOPED_TRACE(y);
    const uint8_t *centre = zel::readLine(ctx, ring.get(), int64_t{width} * y);
    ASSERT_NE(centre, nullptr) << Zel003b(ctx);
    EXPECT_EQ(centre, ring->ringCentre);
    const uint8_t *start = ring->ringStart;
    EXPECT_EQ(std::vector<uint8_t>(start, start + width), filled(width, y == 0 ? 0 : y));
    EXPECT_EQ(std::vector<uint8_t>(start + width, start + 2 * width), filled(width, y + 1));
    EXPECT_EQ(std::vector<uint8_t>(start + 2 * width, start + 3 * width),
              filled(width, y == height - 1 ? 0 : y + 2));
  }
}

TEST(RepositoryStream, FiveLineRingStartsWithTwoZeroLinesAbove) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 3, height = 6;
  ZelObject *image = writtenLines(ctx, "six.raw", width, height);
  ASSERT_NE(image, nullptr);
  Stream ring = openStream(ctx, image, "r", 5);
  ASSERT_NE(ring, nullptr);
  EXPECT_EQ(ring->halfWindowBytes, 2 * width);
  for (int y = 0; y < height; ++y) {
    SCOPED_TRACE(y);
    const uint8_t *centre = zel::readLine(ctx, ring.get(), int64_t{width} * y);
    ASSERT_EQ(centre, ring->ringCentre) << Zel003b(ctx);
    for (int k = -2; k <= 2; ++k) {
      int line = y + k;
      int value = line < 0 || line >= height ? 0 : line + 1;
      const uint8_t *at = centre + k * width;
      EXPECT_EQ(std::vector<uint8_t>(at, at + width), filled(width, value)) << "line " << line;
    }
  }
}

TEST(RepositoryStream, RingOnMemoryGivesTheLineInPlace) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 10}});
  ASSERT_NE(image, nullptr);
  Stream ring = openStream(ctx, image, "r", 3);
  ASSERT_NE(ring, nullptr);
  auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace"));
  EXPECT_EQ(ring->ringStart, nullptr);
  EXPECT_EQ(zel::readLine(ctx, ring.get(), 0), block);
  EXPECT_EQ(zel::readLine(ctx, ring.get(), 20), block + 20);
}

TEST(RepositoryStream, BooleanLineStartingInsideAByteKeepsThePreviousLinesBits) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 10, height = 3;
  ZelObject *image = makeImage(ctx, {{"fileName", word("bits.raw")},
                                     {"dataType", ZelBoolean},
                                     {"xDimension", width},
                                     {"yDimension", height}});
  ASSERT_NE(image, nullptr);
  // Line 0 all ones, line 1 alternating from one, line 2 two ones, two zeros, ...
  auto bit = [](int x, int y) -> uint64_t {
    return y == 0 ? 1 : y == 1 ? (x + 1) % 2 : (x / 2 + 1) % 2;
  };
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(stream->lineBytes, 3);
    for (int y = 0; y < height; ++y) {
      int64_t offset = int64_t{width} * y;
      uint8_t *line = zel::lineForUpdate(ctx, stream.get(), offset);
      ASSERT_NE(line, nullptr);
      if (y == 1) {
        // Bits 8 and 9 of the file, the end of line 0, come back in the shared byte.
        EXPECT_EQ(stream->carryByte, 0xC0);
        EXPECT_EQ(line[0], 0xC0);
        EXPECT_EQ(line[1], 0);
        EXPECT_EQ(line[2], 0);
      }
      for (int x = 0; x < width; ++x)
        putPixel(line, offset % 8, x, 1, bit(x, y));
      EXPECT_EQ(zel::writeLine(ctx, stream.get(), offset), line);
    }
  }
  std::vector<uint8_t> expected(4, 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      putPixel(expected.data(), 0, x + width * y, 1, bit(x, y));
  EXPECT_EQ(expected[0], 0xFF);
  EXPECT_EQ(expected[1], 0xEA);
  EXPECT_EQ(fileBytes("bits.raw"), expected);

  Stream reader = openStream(ctx, image, "r");
  ASSERT_NE(reader, nullptr);
  for (int y = 0; y < height; ++y) {
    int64_t offset = int64_t{width} * y;
    const uint8_t *line = zel::readLine(ctx, reader.get(), offset);
    ASSERT_NE(line, nullptr);
    for (int x = 0; x < width; ++x)
      EXPECT_EQ(getPixel(line, offset % 8, x, 1), bit(x, y)) << x << "," << y;
  }
}

TEST(RepositoryStream, FourBitLineOfOddWidthWritesItsSpareByteForTheNextLineToOverwrite) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 4), 0);
  ZelObject *image = makeImage(ctx, {{"fileName", word("nibbles.raw")},
                                     {"dataType", ZelNonNegative},
                                     {"xDimension", 5},
                                     {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(stream->bitsPerPixel, 4);
    ASSERT_EQ(stream->lineBytes, 4);  // 20 bits need 3 bytes
    uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 0);
    ASSERT_NE(line, nullptr);
    const uint8_t first[] = {0x12, 0x34, 0x50, 0xAA};
    std::memcpy(line, first, 4);
    ASSERT_EQ(zel::writeLine(ctx, stream.get(), 0), line);
    EXPECT_EQ(fileBytes("nibbles.raw"), std::vector<uint8_t>(first, first + 4));

    // Line 1 starts at bit 20, in byte 2: its buffer covers bytes 2 to 5 of the file.
    line = zel::lineForUpdate(ctx, stream.get(), 5);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(line, line + 4), std::vector<uint8_t>(4, 0));
    const uint8_t second[] = {0x06, 0x78, 0x9A, 0x00};
    std::memcpy(line, second, 4);
    ASSERT_EQ(zel::writeLine(ctx, stream.get(), 5), line);
  }
  EXPECT_EQ(fileBytes("nibbles.raw"), (std::vector<uint8_t>{0x12, 0x34, 0x06, 0x78, 0x9A, 0x00}));
}

TEST(RepositoryStream, FreshFileClosedEarlyIsExtendedToItsFullSizeWithZeros) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"fileName", word("short.raw")}, {"xDimension", 10}, {"yDimension", 5}});
  ASSERT_NE(image, nullptr);
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    for (int y = 0; y < 2; ++y) {
      uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 10 * y);
      ASSERT_NE(line, nullptr);
      std::memset(line, 0x77, 10);
      ASSERT_NE(zel::writeLine(ctx, stream.get(), 10 * y), nullptr);
    }
  }
  std::vector<uint8_t> expected(50, 0);
  std::fill(expected.begin(), expected.begin() + 20, 0x77);
  EXPECT_EQ(fileBytes("short.raw"), expected);
  EXPECT_TRUE(inited(image));
}

TEST(RepositoryStream, FreshFileNeverWrittenIsExtendedToItsFullSize) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"fileName", word("empty.raw")},
                                     {"dataType", ZelReal},
                                     {"xDimension", 3},
                                     {"yDimension", 7}});
  ASSERT_NE(image, nullptr);
  { ASSERT_NE(openStream(ctx, image, "w"), nullptr); }
  EXPECT_EQ(fileBytes("empty.raw"), std::vector<uint8_t>(84, 0));
}

TEST(RepositoryStream, FileStoppedInsideALineIsPaddedBySamplesThenByLines) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"fileName", word("samples.raw")},
                                     {"dataType", ZelSigned},
                                     {"xDimension", 3},
                                     {"yDimension", 4}});
  ASSERT_NE(image, nullptr);
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    const uint8_t head[] = {1, 2, 3, 4};
    ASSERT_EQ(zel::writeBytes(ctx, stream.get(), 0, head, 4), 4);
    EXPECT_EQ(stream->filePosition, 4);
  }
  std::vector<uint8_t> expected(24, 0);
  for (int i = 0; i < 4; ++i)
    expected[i] = static_cast<uint8_t>(i + 1);
  EXPECT_EQ(fileBytes("samples.raw"), expected);
}

TEST(RepositoryStream, WriteStreamOnAnObjectWithDataUpdatesItsFileInPlace) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 4, height = 5;
  ZelObject *image = writtenLines(ctx, "update.raw", width, height);
  ASSERT_NE(image, nullptr);
  ASSERT_TRUE(inited(image));
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->hasData, 1);
    // The line comes with its pixels, so those left alone survive.
    uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 2 * width);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(line, line + width), filled(width, 3));
    line[1] = 0xEE;
    ASSERT_NE(zel::writeLine(ctx, stream.get(), 2 * width), nullptr);
  }
  std::vector<uint8_t> expected;
  for (int y = 0; y < height; ++y) {
    auto row = filled(width, y + 1);
    expected.insert(expected.end(), row.begin(), row.end());
  }
  expected[2 * width + 1] = 0xEE;
  EXPECT_EQ(fileBytes("update.raw"), expected);
}

TEST(RepositoryStream, WriteStreamAfterTheDataWasResetStartsTheFileAfresh) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image = writtenLines(ctx, "reset.raw", 4, 6);
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(fileBytes("reset.raw").size(), 24u);
  ASSERT_EQ(Zel006a(ctx, image, "yDimension", 2), 0);
  ASSERT_FALSE(inited(image));
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->hasData, 0);
    uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 0);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(line, line + 4), filled(4, 0));
    std::memset(line, 9, 4);
    ASSERT_NE(zel::writeLine(ctx, stream.get(), 0), nullptr);
  }
  EXPECT_EQ(fileBytes("reset.raw"), (std::vector<uint8_t>{9, 9, 9, 9, 0, 0, 0, 0}));
}

TEST(RepositoryStream, ReadingPastTheEndOfAFileIsASystemFailure) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  writeFile("truncated.raw", {1, 2, 3, 4, 5, 6});
  ZelObject *image = makeImage(
      ctx,
      {{"fileName", word("truncated.raw")}, {"xDimension", 4}, {"yDimension", 2}, {"inited", 1}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "r");
  ASSERT_NE(stream, nullptr);
  const uint8_t *line = zel::readLine(ctx, stream.get(), 0);
  ASSERT_NE(line, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(line, line + 4), (std::vector<uint8_t>{1, 2, 3, 4}));
  clearLastError(ctx);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 4), nullptr);
  EXPECT_EQ(Zel003b(ctx), -1);
}

TEST(RepositoryStream, ClosingAnyStreamMarksTheObjectAsHoldingData) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  writeFile("given.raw", {1, 2});  // shorter than the data: a read stream adds nothing
  ZelObject *file = makeImage(ctx, {{"fileName", word("given.raw")}, {"xDimension", 4}});
  ZelObject *work = makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}});
  ASSERT_NE(file, nullptr);
  ASSERT_NE(work, nullptr);
  {
    Stream a = openStream(ctx, file, "r");
    Stream b = openStream(ctx, work, "r");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->hasData, 0);
    EXPECT_FALSE(inited(file));
    EXPECT_FALSE(inited(work));
  }
  EXPECT_TRUE(inited(file));
  EXPECT_TRUE(inited(work));
  EXPECT_EQ(readAttribute(ctx, file, "inited"), 1);
  EXPECT_EQ(fileBytes("given.raw"), (std::vector<uint8_t>{1, 2}));
}

// ---- Streams sharing one file ---------------------------------------------------------------

TEST(RepositoryStream, StreamsOfOneObjectShareOneDescriptorUntilTheLastCloses) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image = writtenLines(ctx, "shared.raw", 4, 3);
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  Stream a = openStream(ctx, image, "r");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(image->fileUseCount, 1);
  EXPECT_EQ(openDescriptors(), before + 1);
  Stream b = openStream(ctx, image, "r", 3);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(image->fileUseCount, 2);
  EXPECT_EQ(a->fileHandle, b->fileHandle);
  EXPECT_EQ(image->sharedFileHandle, a->fileHandle);
  EXPECT_EQ(openDescriptors(), before + 1);
  a.reset();
  EXPECT_EQ(image->fileUseCount, 1);
  EXPECT_EQ(openDescriptors(), before + 1);
  EXPECT_NE(zel::readLine(ctx, b.get(), 0), nullptr);
  b.reset();
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(RepositoryStream, InterleavedReadStreamsOnOneFileEachReadTheirOwnLines) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 4;
  ZelObject *image = writtenLines(ctx, "planes.raw", width, 6);
  ASSERT_NE(image, nullptr);
  Stream a = openStream(ctx, image, "r");
  Stream b = openStream(ctx, image, "r");
  Stream c = openStream(ctx, image, "r", 3);
  ASSERT_TRUE(a && b && c);
  for (int y = 0; y < 3; ++y) {
    SCOPED_TRACE(y);
    const uint8_t *first = zel::readLine(ctx, a.get(), int64_t{width} * y);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(first, first + width), filled(width, y + 1));
    const uint8_t *second = zel::readLine(ctx, b.get(), int64_t{width} * (y + 3));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(second, second + width), filled(width, y + 4));
    const uint8_t *centre = zel::readLine(ctx, c.get(), int64_t{width} * y);
    ASSERT_NE(centre, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(centre, centre + width), filled(width, y + 1));
    EXPECT_EQ(std::vector<uint8_t>(centre + width, centre + 2 * width), filled(width, y + 2));
  }
}

TEST(RepositoryStream, InterleavedWriteStreamsOnOneFileEachWriteTheirOwnLines) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 4, height = 6;
  ZelObject *image = writtenLines(ctx, "bands.raw", width, height);
  ASSERT_NE(image, nullptr);
  {
    Stream a = openStream(ctx, image, "w");
    Stream b = openStream(ctx, image, "w");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->fileHandle, b->fileHandle);
    for (int y = 0; y < 3; ++y) {
      uint8_t *line = zel::lineForUpdate(ctx, a.get(), int64_t{width} * y);
      ASSERT_NE(line, nullptr);
      EXPECT_EQ(std::vector<uint8_t>(line, line + width), filled(width, y + 1));
      std::memset(line, 0xA0 + y, width);
      ASSERT_NE(zel::writeLine(ctx, a.get(), int64_t{width} * y), nullptr);
      line = zel::lineForUpdate(ctx, b.get(), int64_t{width} * (y + 3));
      ASSERT_NE(line, nullptr);
      EXPECT_EQ(std::vector<uint8_t>(line, line + width), filled(width, y + 4));
      std::memset(line, 0xB3 + y, width);
      ASSERT_NE(zel::writeLine(ctx, b.get(), int64_t{width} * (y + 3)), nullptr);
    }
  }
  std::vector<uint8_t> expected;
  for (int y = 0; y < height; ++y) {
    auto row = filled(width, y < 3 ? 0xA0 + y : 0xB0 + y);
    expected.insert(expected.end(), row.begin(), row.end());
  }
  EXPECT_EQ(fileBytes("bands.raw"), expected);
}

TEST(RepositoryStream, WriteStreamOpenedWhileAReadStreamHoldsTheFileCannotWrite) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  const int width = 4;
  ZelObject *image = writtenLines(ctx, "held.raw", width, 2);
  ASSERT_NE(image, nullptr);
  auto original = fileBytes("held.raw");
  int before = openDescriptors();
  {
    Stream reader = openStream(ctx, image, "r");
    ASSERT_NE(reader, nullptr);
    Stream writer = openStream(ctx, image, "w");
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->fileHandle, reader->fileHandle);
    EXPECT_EQ(image->fileUseCount, 2);
    EXPECT_EQ(openDescriptors(), before + 1);
    uint8_t *line = zel::lineForUpdate(ctx, writer.get(), 0);
    ASSERT_NE(line, nullptr);
    std::memset(line, 0x44, width);
    clearLastError(ctx);
    EXPECT_EQ(zel::writeLine(ctx, writer.get(), 0), nullptr);
    EXPECT_EQ(Zel003b(ctx), -1);
    EXPECT_EQ(zel::writeBytes(ctx, writer.get(), 0, line, width), -1);
    EXPECT_EQ(Zel003b(ctx), -1);
  }
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(fileBytes("held.raw"), original);
}

TEST(RepositoryStream, WorkSpaceObjectWithoutDataLosesItsBlockAtTheNextStream) {
  const char *modes[] = {"r", "w"};
  for (const char *mode : modes) {
    SCOPED_TRACE(mode);
    ContextGuard ctx;
    ZelObject *image =
        makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 2}});
    ASSERT_NE(image, nullptr);
    {
      Stream writer = openStream(ctx, image, "w");
      ASSERT_NE(writer, nullptr);
      uint8_t *line = zel::lineForUpdate(ctx, writer.get(), 0);
      ASSERT_NE(line, nullptr);
      std::memset(line, 0x3C, 8);
    }
    ASSERT_TRUE(inited(image));
    ASSERT_EQ(Zel006a(ctx, image, "xDimension", 4), 0);  // the same width still resets the data
    ASSERT_FALSE(inited(image));
    Stream stream = openStream(ctx, image, mode);
    ASSERT_NE(stream, nullptr);
    auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace"));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(stream->lineBuffer, block);
    EXPECT_EQ(std::vector<uint8_t>(block, block + 8), std::vector<uint8_t>(8, 0));
  }
}

TEST(RepositoryStream, WorkSpaceBlockIsKeptWhileAnotherStreamIsOpen) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  Stream writer = openStream(ctx, image, "w");
  ASSERT_NE(writer, nullptr);
  uint8_t *line = zel::lineForUpdate(ctx, writer.get(), 4);
  ASSERT_NE(line, nullptr);
  std::memset(line, 0x61, 4);
  ASSERT_FALSE(inited(image));
  Stream reader = openStream(ctx, image, "r");
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(reader->lineBuffer, writer->lineBuffer);
  const uint8_t *seen = zel::readLine(ctx, reader.get(), 4);
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(seen, seen + 4), filled(4, 0x61));
  reader.reset();
  // The writer still works on the block it had.
  EXPECT_EQ(zel::writeLine(ctx, writer.get(), 4), line);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(readAttribute(ctx, image, "workSpace")),
            writer->lineBuffer);
}

// ---- Closing ------------------------------------------------------------------------------

TEST(RepositoryStream, FailedLineWriteIsASystemFailure) {
  ScratchDirectory scratch;
  fs::create_symlink("/dev/full", "full");
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"fileName", word("full")}, {"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "w");
  ASSERT_NE(stream, nullptr);
  uint8_t *line = zel::lineForUpdate(ctx, stream.get(), 0);
  ASSERT_NE(line, nullptr);
  clearLastError(ctx);
  EXPECT_EQ(zel::writeLine(ctx, stream.get(), 0), nullptr);
  EXPECT_EQ(Zel003b(ctx), -1);
}

TEST(RepositoryStream, FailedWriteWhileClosingReportsAndStillReleasesTheFile) {
  ScratchDirectory scratch;
  fs::create_symlink("/dev/full", "full");
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"fileName", word("full")}, {"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  RepositoryStream *stream = zel::openRepositoryStream(ctx, image, "w", 1);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(openDescriptors(), before + 1);
  clearLastError(ctx);
  zel::closeRepositoryStream(ctx, stream);  // the zeros that make the file's size can't be written
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_FALSE(inited(image));
  EXPECT_TRUE(fs::is_symlink("full"));
  // The object can be opened again afterwards.
  Stream again = openStream(ctx, image, "w");
  EXPECT_NE(again, nullptr);
}

TEST(RepositoryStream, ObjectWithCompressionCountsPlainPixelsAndGetsItsSizeAtClose) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *file = makeImage(ctx, {{"fileName", word("coded.jpg")},
                                    {"compression", ZelJpeg},
                                    {"xDimension", 16},
                                    {"yDimension", 4}});
  ZelObject *work = makeImage(ctx, {{"repository", ZelWorkSpace},
                                    {"compression", ZelLzw},
                                    {"xDimension", 16},
                                    {"yDimension", 4}});
  ASSERT_NE(file, nullptr);
  ASSERT_NE(work, nullptr);
  EXPECT_EQ(zel::objectTotalBytes(ctx, file), 64);
  for (ZelObject *object : {file, work}) {
    Stream stream = openStream(ctx, object, "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->totalBytes, 64);
    EXPECT_EQ(stream->compression, readAttribute(ctx, object, "compression"));
    ASSERT_EQ(zel::writeBits(ctx, stream.get(), 0xABCDE, 20), 0);
    ASSERT_EQ(zel::writeBits(ctx, stream.get(), 0x12, 8), 0);
    EXPECT_EQ(stream->bitByteCount, 3);
  }
  EXPECT_EQ(readAttribute(ctx, file, "size"), 4);
  EXPECT_EQ(readAttribute(ctx, work, "size"), 4);
  EXPECT_EQ(fileBytes("coded.jpg"), (std::vector<uint8_t>{0xAB, 0xCD, 0xE1, 0x20}));
  auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx, work, "workSpace"));
  EXPECT_EQ(std::vector<uint8_t>(block, block + 4), (std::vector<uint8_t>{0xAB, 0xCD, 0xE1, 0x20}));
}

TEST(RepositoryStream, FileOfAnotherCompressionIsNotPaddedAtClose) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"fileName", word("coded.lzw")},
                                     {"compression", ZelLzw},
                                     {"xDimension", 16},
                                     {"yDimension", 4}});
  ASSERT_NE(image, nullptr);
  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr);
    const uint8_t bytes[] = {9, 8, 7, 6, 5};
    ASSERT_EQ(zel::writeBytes(ctx, stream.get(), 0, bytes, 5), 5);
  }
  EXPECT_EQ(fileBytes("coded.lzw"), (std::vector<uint8_t>{9, 8, 7, 6, 5}));
  EXPECT_TRUE(inited(image));
}

// ---- Temporary files ------------------------------------------------------------------------

bool isTemporaryName(const fs::path &path, const fs::path &directory) {
  std::string name = path.filename().string();
  return path.parent_path() == directory && name.size() == 9 && name.rfind("zel", 0) == 0;
}

TEST(TemporaryFile, FirstStreamOnAnUnnamedFileObjectCreatesOneInTmpdir) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(readAttribute(ctx, image, "fileName"), 0);
  {
    Stream first = openStream(ctx, image, "w");
    ASSERT_NE(first, nullptr);
    auto files = tmp.files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(isTemporaryName(files[0], tmp.path())) << files[0];
    auto *name = reinterpret_cast<const char *>(readAttribute(ctx, image, "fileName"));
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(fs::path(name), files[0]);
    EXPECT_EQ(readAttribute(ctx, image, "tmpnam"), 1);
    Stream second = openStream(ctx, image, "r");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(tmp.files().size(), 1u);
    EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, image, "fileName")), name);
  }
  EXPECT_EQ(tmp.files().size(), 1u);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_TRUE(tmp.files().empty());
}

TEST(TemporaryFile, ReadStreamOnAnUnnamedFileObjectMakesAnEmptyFileThatComesShort) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"xDimension", 4}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  Stream stream = openStream(ctx, image, "r");
  ASSERT_NE(stream, nullptr);
  auto files = tmp.files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(fs::file_size(files[0]), 0u);
  EXPECT_EQ(readAttribute(ctx, image, "tmpnam"), 1);
  clearLastError(ctx);
  EXPECT_EQ(zel::readLine(ctx, stream.get(), 0), nullptr);
  EXPECT_EQ(Zel003b(ctx), -1);
  stream.reset();
  EXPECT_EQ(fs::file_size(files[0]), 0u);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_TRUE(tmp.files().empty());
}

TEST(TemporaryFile, GoesToTmpWhenTmpdirIsEmptyOrUnset) {
  const char *settings[] = {"", nullptr};
  for (const char *setting : settings) {
    SCOPED_TRACE(setting ? "empty" : "unset");
    EnvironmentSetting environment("TMPDIR", setting);
    ContextGuard ctx;
    ZelObject *image = makeImage(ctx, {{"xDimension", 4}});
    ASSERT_NE(image, nullptr);
    { ASSERT_NE(openStream(ctx, image, "w"), nullptr); }
    auto *name = reinterpret_cast<const char *>(readAttribute(ctx, image, "fileName"));
    ASSERT_NE(name, nullptr);
    fs::path path(name);
    EXPECT_TRUE(isTemporaryName(path, "/tmp")) << path;
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(Zel002(ctx, image), 0);
    EXPECT_FALSE(fs::exists(path));
  }
}

TEST(TemporaryFile, ContextCloseDeletesTheTemporaryFiles) {
  PrivateTemporaryDirectory tmp;
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  for (int i = 0; i < 3; ++i) {
    ZelObject *image = makeImage(ctx, {{"xDimension", 4}});
    ASSERT_NE(image, nullptr);
    RepositoryStream *stream = zel::openRepositoryStream(ctx, image, "w", 1);
    ASSERT_NE(stream, nullptr);
    zel::closeRepositoryStream(ctx, stream);
  }
  EXPECT_EQ(tmp.files().size(), 3u);
  EXPECT_EQ(Zel001(ctx), 0);
  EXPECT_TRUE(tmp.files().empty());
}

TEST(TemporaryFile, IsDeletedEvenWhenTheDataWasResetSince) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  { ASSERT_NE(openStream(ctx, image, "w"), nullptr); }
  ASSERT_EQ(Zel006a(ctx, image, "xDimension", 8), 0);
  ASSERT_FALSE(inited(image));
  EXPECT_EQ(tmp.files().size(), 1u);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_TRUE(tmp.files().empty());

  ZelContext *other = Zel004(nullptr);
  ASSERT_NE(other, nullptr);
  ZelObject *second = makeImage(other, {{"xDimension", 4}});
  ASSERT_NE(second, nullptr);
  RepositoryStream *stream = zel::openRepositoryStream(other, second, "w", 1);
  ASSERT_NE(stream, nullptr);
  zel::closeRepositoryStream(other, stream);
  ASSERT_EQ(Zel006a(other, second, "inited", 0), 0);
  EXPECT_EQ(tmp.files().size(), 1u);
  EXPECT_EQ(Zel001(other), 0);
  EXPECT_TRUE(tmp.files().empty());
}

TEST(TemporaryFile, AlreadyDeletedFileOfAnObjectWithoutDataIsNoErrorAtRelease) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  { ASSERT_NE(openStream(ctx, image, "w"), nullptr); }
  auto files = tmp.files();
  ASSERT_EQ(files.size(), 1u);
  fs::remove(files[0]);
  ASSERT_EQ(Zel006a(ctx, image, "xDimension", 5), 0);  // the data is reset
  clearLastError(ctx);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(TemporaryFile, AlreadyDeletedFileOfAnObjectWithDataIsASystemFailureAtRelease) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  { ASSERT_NE(openStream(ctx, image, "w"), nullptr); }
  auto files = tmp.files();
  ASSERT_EQ(files.size(), 1u);
  fs::remove(files[0]);
  clearLastError(ctx);
  EXPECT_EQ(Zel002(ctx, image), -1);
  EXPECT_EQ(Zel003b(ctx), -1);
}

TEST(TemporaryFile, FileNamedByTheApplicationIsNeverDeleted) {
  ScratchDirectory scratch;
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  ZelObject *first = writtenLines(ctx, "mine.raw", 4, 2);
  ZelObject *second = writtenLines(ctx, "ours.raw", 4, 2);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(readAttribute(ctx, first, "tmpnam"), 0);
  EXPECT_EQ(Zel002(ctx, first), 0);
  EXPECT_TRUE(fs::exists("mine.raw"));
  EXPECT_EQ(Zel001(ctx), 0);
  EXPECT_TRUE(fs::exists("ours.raw"));
  EXPECT_EQ(fs::file_size("ours.raw"), 8u);
}

TEST(TemporaryFile, UnusableTemporaryDirectoryIsASystemFailure) {
  EnvironmentSetting environment("TMPDIR", "/nonexistent-zel-directory/below");
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"xDimension", 4}});
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  EXPECT_EQ(zel::openRepositoryStream(ctx, image, "w", 1), nullptr);
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(readAttribute(ctx, image, "fileName"), 0);
  EXPECT_EQ(readAttribute(ctx, image, "tmpnam"), 0);
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_FALSE(inited(image));
}

TEST(TemporaryFile, OpenAndCloseCyclesLeaveNoDescriptorBehind) {
  PrivateTemporaryDirectory tmp;
  ScratchDirectory scratch;
  ContextGuard ctx;
  int before = openDescriptors();
  ZelObject *unnamed = makeImage(ctx, {{"xDimension", 8}, {"yDimension", 4}});
  ZelObject *named =
      makeImage(ctx, {{"fileName", word("cycle.raw")}, {"xDimension", 8}, {"yDimension", 4}});
  ASSERT_NE(unnamed, nullptr);
  ASSERT_NE(named, nullptr);
  for (int cycle = 0; cycle < 20; ++cycle) {
    for (ZelObject *object : {unnamed, named}) {
      {
        Stream w = openStream(ctx, object, "w");
        ASSERT_NE(w, nullptr);
      }
      {
        Stream r = openStream(ctx, object, "r", 3);
        ASSERT_NE(r, nullptr);
        ASSERT_NE(zel::readLine(ctx, r.get(), 0), nullptr) << Zel003b(ctx);
      }
      Stream w = openStream(ctx, object, "w");
      Stream r = openStream(ctx, object, "r");
      ASSERT_TRUE(w && r);
      if (cycle % 2) {
        ASSERT_EQ(Zel006a(ctx, object, "inited", 0), 0);
      }
    }
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_EQ(tmp.files().size(), 1u);
  EXPECT_EQ(Zel002(ctx, unnamed), 0);
  EXPECT_EQ(Zel002(ctx, named), 0);
  EXPECT_TRUE(tmp.files().empty());
  EXPECT_EQ(openDescriptors(), before);
}

TEST(TemporaryFile, FailedAllocationsWhileOpeningLeaveNoDescriptorOrFileBehind) {
  PrivateTemporaryDirectory tmp;
  ScratchDirectory scratch;
  const char *modes[] = {"w", "r"};
  for (bool namedFile : {false, true}) {
    for (const char *mode : modes) {
      SCOPED_TRACE(testing::Message() << (namedFile ? "named " : "unnamed ") << mode);
      bool opened = false;
      for (long successes = 0; successes < 64 && !opened; ++successes) {
        SCOPED_TRACE(successes);
        ContextGuard ctx;
        std::vector<ZelAttribute> list{{"xDimension", 8}, {"yDimension", 4}};
        if (namedFile) {
          writeFile("named.raw", std::vector<uint8_t>(32, 1));
          list.push_back({"fileName", word("named.raw")});
        }
        ZelObject *image = makeImage(ctx, list);
        ASSERT_NE(image, nullptr);
        int before = openDescriptors();
        zel::testing::failAllocationAfter(successes);
        RepositoryStream *stream = zel::openRepositoryStream(ctx, image, mode, 3);
        zel::testing::failAllocationAfter(-1);
        if (stream) {
          opened = true;
          zel::closeRepositoryStream(ctx, stream);
        } else {
          EXPECT_EQ(Zel003b(ctx), -1);
          EXPECT_EQ(image->fileUseCount, 0);
          EXPECT_FALSE(inited(image));
        }
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(Zel002(ctx, image), 0);
        EXPECT_TRUE(tmp.files().empty());
        for (const auto &left : tmp.files())  // told once, at the step that left it
          fs::remove(left);
      }
      EXPECT_TRUE(opened);
    }
  }
}

}  // namespace
