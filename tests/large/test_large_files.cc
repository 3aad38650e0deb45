// An image larger than 2 GiB in a file, written and read back line by line through a stream:
// positions beyond 32 bits, and memory that stays at one line whatever the size of the image.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "access/repository.h"
#include "test_support.h"

namespace {

using zel::test::openStream;
using zel::test::PrivateTemporaryDirectory;
using zel::test::Stream;

using zel::test::ContextGuard;
using zel::test::readAttribute;

namespace fs = std::filesystem;

long peakResidentKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// The pixels of line y: a byte pattern that differs from line to line and along the line.
void fillLine(std::vector<uint8_t> &line, int64_t y) {
  for (size_t x = 0; x < line.size(); ++x)
    line[x] = static_cast<uint8_t>((x * 7 + static_cast<uint64_t>(y) * 13 + (x >> 8)) & 0xFF);
}

TEST(LargeFile, ImageBeyondTwoGigabytesIsWrittenAndReadLineByLineInConstantMemory) {
  const int width = 65536;
  const int height = 33000;
  const int64_t total = int64_t{width} * height;
  ASSERT_GT(total, int64_t{2} << 30);

  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ZelAttribute list[] = {
      {"dataType", ZelNonNegative}, {"xDimension", width}, {"yDimension", height}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, list, 3);
  ASSERT_NE(image, nullptr);

  std::vector<uint8_t> expected(width);
  fillLine(expected, 0);
  long peakBefore = peakResidentKilobytes();

  {
    Stream stream = openStream(ctx, image, "w");
    ASSERT_NE(stream, nullptr) << Zel003b(ctx);
    EXPECT_EQ(stream->totalBytes, total);
    EXPECT_EQ(stream->lineBytes, width);
    for (int64_t y = 0; y < height; ++y) {
      uint8_t *line = zel::lineForUpdate(ctx, stream.get(), y * width);
      ASSERT_NE(line, nullptr) << "line " << y << ", code " << Zel003b(ctx);
      fillLine(expected, y);
      std::memcpy(line, expected.data(), expected.size());
      ASSERT_EQ(zel::writeLine(ctx, stream.get(), y * width), line) << "line " << y;
    }
    EXPECT_EQ(stream->filePosition, total);
    stream.reset();
    EXPECT_EQ(Zel003b(ctx), 0);
  }
  auto files = tmp.files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(static_cast<int64_t>(fs::file_size(files[0])), total);

  {
    Stream stream = openStream(ctx, image, "r");
    ASSERT_NE(stream, nullptr) << Zel003b(ctx);
    int64_t badLines = 0;
    for (int64_t y = 0; y < height; ++y) {
      const uint8_t *line = zel::readLine(ctx, stream.get(), y * width);
      ASSERT_NE(line, nullptr) << "line " << y << ", code " << Zel003b(ctx);
      fillLine(expected, y);
      if (std::memcmp(line, expected.data(), expected.size()) != 0 && ++badLines <= 5)
        ADD_FAILURE() << "line " << y << " differs";
    }
    EXPECT_EQ(badLines, 0);

    // Bytes far beyond 2 GiB are reached by their offset as well.
    const int64_t y = height - 2;
    fillLine(expected, y);
    uint8_t bytes[16] = {};
    EXPECT_EQ(zel::readBytes(ctx, stream.get(), y * width + 1000, bytes, 16), 16);
    EXPECT_EQ(std::memcmp(bytes, expected.data() + 1000, 16), 0);
    stream.reset();
  }

  long growth = peakResidentKilobytes() - peakBefore;
  RecordProperty("peakResidentGrowthKiB", static_cast<int>(growth));
  EXPECT_LT(growth, 4096) << "peak resident memory grew by " << growth << " KiB";

  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_TRUE(tmp.files().empty());
}

}  // namespace
