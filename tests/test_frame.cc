// Access frames: the object's words and extents, the bit tables, the match point and the region
// of interest as the operator asks for them and the context allows, and the clean-up of a frame
// that fails to open.
#include "access/frame.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "access/repository.h"
#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "test_support.h"

namespace {

using zel::test::clearLastError;
using zel::test::inited;
using zel::test::makeImage;
using zel::test::openDescriptors;
using zel::test::PrivateTemporaryDirectory;
using zel::test::word;

using zel::AccessFrame;
using zel::test::ContextGuard;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

namespace fs = std::filesystem;

ZelObject *makeRoi(ZelContext *ctx, std::vector<ZelAttribute> list) {
  return Zel000j(ctx, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
}

void writeFile(const fs::path &path, size_t bytes) {
  std::ofstream out(path, std::ios::binary);
  std::string data(bytes, '\x01');
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

const ZelAttribute kBoth[] = {{"matchPointState", 1}, {"roiState", 1}};

std::vector<uint8_t> table(const uint8_t *bytes) {
  return bytes ? std::vector<uint8_t>(bytes, bytes + 8) : std::vector<uint8_t>{};
}

// ---- The object's words ---------------------------------------------------------------------

TEST(AccessFrame, CopiesTheObjectsWordsAndExtents) {
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                     {"dataType", ZelSigned},
                                     {"bitOrder", ZelLeastSignificantFirst},
                                     {"byteOrder", ZelLeastSignificantFirst},
                                     {"xDimension", 6},
                                     {"yDimension", 5},
                                     {"zDimension", 4},
                                     {"tDimension", 3},
                                     {"bDimension", 2}});
  ASSERT_NE(image, nullptr);
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1);
  ASSERT_NE(frame, nullptr) << Zel003b(ctx);
  EXPECT_EQ(frame->object, image);
  EXPECT_EQ(frame->dataType, ZelSigned);
  EXPECT_EQ(frame->dataPrecision, 16);
  EXPECT_EQ(frame->bitOrder, ZelLeastSignificantFirst);
  EXPECT_EQ(frame->byteOrder, ZelLeastSignificantFirst);
  const int32_t extents[] = {6, 5, 4, 3, 2};
  for (int axis = 0; axis < zel::axisCount; ++axis) {
    EXPECT_EQ(frame->dimension[axis], extents[axis]) << axis;
    EXPECT_EQ(frame->matchPoint[axis], 0) << axis;
  }
  EXPECT_EQ(frame->matchPointOn, 0);
  EXPECT_EQ(frame->roiOn, 0);
  EXPECT_EQ(frame->roi, nullptr);
  EXPECT_EQ(frame->roiStream, nullptr);
}

TEST(AccessFrame, ExtentsAreThoseAtOpening) {
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 6}, {"yDimension", 5}});
  ASSERT_NE(image, nullptr);
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1);
  ASSERT_NE(frame, nullptr);
  ASSERT_EQ(Zel006a(ctx, image, "xDimension", 9), 0);
  EXPECT_EQ(frame->dimension[zel::AxisX], 6);
}

TEST(AccessFrame, OpensTheStreamOfTheObjectWithItsModeAndLines) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  writeFile("lines.raw", 40);
  ZelObject *image = makeImage(
      ctx, {{"fileName", word("lines.raw")}, {"xDimension", 8}, {"yDimension", 5}, {"inited", 1}});
  ASSERT_NE(image, nullptr);
  zel::Frame frame = zel::openFrame(ctx, image, "r", 3);
  ASSERT_NE(frame, nullptr);
  ASSERT_NE(frame->stream, nullptr);
  EXPECT_EQ(frame->stream->object, image);
  EXPECT_EQ(frame->stream->requestedLines, 3);
  EXPECT_FALSE(frame->stream->writing);
  EXPECT_EQ(image->fileUseCount, 1);
  const uint8_t *line = zel::readLine(ctx, frame->stream, 0);
  ASSERT_NE(line, nullptr);
  EXPECT_EQ(line[0], 1);
  zel::Frame writer = zel::openFrame(ctx, image, "w", 1);
  ASSERT_NE(writer, nullptr);
  EXPECT_TRUE(writer->stream->writing);
  EXPECT_EQ(image->fileUseCount, 2);
}

TEST(AccessFrame, ClosingTheFrameClosesItsStream) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"fileName", word("closed.raw")}, {"xDimension", 8}, {"yDimension", 2}});
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  AccessFrame *frame = zel::openAccessFrame(ctx, image, "w", 1, nullptr, 0);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(image->fileUseCount, 1);
  EXPECT_FALSE(inited(image));
  zel::closeAccessFrame(ctx, frame);
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_TRUE(inited(image));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(fs::file_size("closed.raw"), 16u);
}

TEST(AccessFrame, ClosingANullFrameDoesNothing) {
  ContextGuard ctx;
  clearLastError(ctx);
  zel::closeAccessFrame(ctx, nullptr);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(AccessFrame, DeadObjectIsAnInvalidInstance) {
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace}});
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(Zel002(ctx, image), 0);
  EXPECT_EQ(zel::openAccessFrame(ctx, image, "r", 1, kBoth, 2), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

// ---- Bit tables -----------------------------------------------------------------------------

TEST(AccessFrame, LeastSignificantFirstTablesStartAtTheLowBit) {
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                     {"dataType", ZelBoolean},
                                     {"bitOrder", ZelLeastSignificantFirst},
                                     {"xDimension", 16}});
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(table(frame->bitSetTable),
            (std::vector<uint8_t>{0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80}));
  EXPECT_EQ(table(frame->bitClearTable),
            (std::vector<uint8_t>{0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF, 0xBF, 0x7F}));
}

TEST(AccessFrame, MostSignificantFirstTablesStartAtTheHighBit) {
  ContextGuard ctx;
  ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                     {"dataType", ZelBoolean},
                                     {"bitOrder", ZelMostSignificantFirst},
                                     {"xDimension", 16}});
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(table(frame->bitSetTable),
            (std::vector<uint8_t>{0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01}));
  EXPECT_EQ(table(frame->bitClearTable),
            (std::vector<uint8_t>{0x7F, 0xBF, 0xDF, 0xEF, 0xF7, 0xFB, 0xFD, 0xFE}));
}

TEST(AccessFrame, OtherBitOrdersHaveNoTables) {
  const int orders[] = {0, ZelWhiteIsZero, 151, -1};
  for (int order : orders) {
    SCOPED_TRACE(order);
    ContextGuard ctx;
    ZelObject *image = makeImage(ctx, {{"repository", ZelWorkSpace},
                                       {"dataType", ZelBoolean},
                                       {"bitOrder", order},
                                       {"xDimension", 16}});
    zel::Frame frame = zel::openFrame(ctx, image, "r", 1);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->bitOrder, order);
    EXPECT_EQ(frame->bitSetTable, nullptr);
    EXPECT_EQ(frame->bitClearTable, nullptr);
  }
}

// ---- Match points ---------------------------------------------------------------------------

ZelObject *imageWithMatchPoint(ZelContext *ctx) {
  return makeImage(ctx, {{"repository", ZelWorkSpace},
                         {"xDimension", 8},
                         {"yDimension", 4},
                         {"xMatchPoint", 3},
                         {"yMatchPoint", -2},
                         {"zMatchPoint", 1},
                         {"tMatchPoint", 4},
                         {"bMatchPoint", 5}});
}

TEST(AccessFrame, MatchPointsApplyWhenAskedForAndOnInTheContext) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "matchPointState", 1), 0);
  ZelObject *image = imageWithMatchPoint(ctx);
  ASSERT_NE(image, nullptr);
  const ZelAttribute options[] = {{"matchPointState", 1}};
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, options, 1);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->matchPointOn, 1);
  const int32_t expected[] = {3, -2, 1, 4, 5};
  for (int axis = 0; axis < zel::axisCount; ++axis)
    EXPECT_EQ(frame->matchPoint[axis], expected[axis]) << axis;
}

TEST(AccessFrame, MatchPointStateComesFromTheContext) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "matchPointState", 7), 0);
  ZelObject *image = imageWithMatchPoint(ctx);
  const ZelAttribute options[] = {{"matchPointState", 2}};
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, options, 1);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->matchPointOn, 7);
  EXPECT_EQ(frame->matchPoint[zel::AxisX], 3);
}

TEST(AccessFrame, MatchPointsAreZeroWhenTheContextHasThemOff) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "matchPointState", 0), 0);
  ZelObject *image = imageWithMatchPoint(ctx);
  ASSERT_NE(image, nullptr);
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, kBoth, 2);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->matchPointOn, 0);
  for (int axis = 0; axis < zel::axisCount; ++axis)
    EXPECT_EQ(frame->matchPoint[axis], 0) << axis;
}

TEST(AccessFrame, MatchPointsAreZeroWhenTheOperatorDoesNotAskForThem) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "matchPointState", 1), 0);
  ZelObject *image = imageWithMatchPoint(ctx);
  ASSERT_NE(image, nullptr);
  const ZelAttribute zero[] = {{"matchPointState", 0}, {"roiState", 1}};
  const ZelAttribute *lists[] = {nullptr, zero};
  const int counts[] = {0, 2};
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    zel::Frame frame = zel::openFrame(ctx, image, "r", 1, lists[i], counts[i]);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->matchPointOn, 0);
    for (int axis = 0; axis < zel::axisCount; ++axis)
      EXPECT_EQ(frame->matchPoint[axis], 0) << axis;
  }
}

TEST(AccessFrame, UnknownOptionsAreIgnored) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "matchPointState", 1), 0);
  ZelObject *image = imageWithMatchPoint(ctx);
  const ZelAttribute options[] = {{"matchpointstate", 1}, {"interpolation", 192}, {"roi", 1}};
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, options, 3);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->matchPointOn, 0);
  EXPECT_EQ(frame->roiOn, 0);
  EXPECT_EQ(frame->matchPoint[zel::AxisX], 0);
}

// ---- Region of interest ---------------------------------------------------------------------

TEST(AccessFrame, RoiAppliesWhenAskedForAndOnInTheContext) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  ZelObject *roi =
      makeRoi(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"yDimension", 4}});
  ASSERT_NE(roi, nullptr);
  ZelObject *image = makeImage(
      ctx,
      {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"yDimension", 4}, {"roi", word(roi)}});
  ASSERT_NE(image, nullptr);
  const ZelAttribute options[] = {{"roiState", 1}};
  {
    zel::Frame frame = zel::openFrame(ctx, image, "w", 1, options, 1);
    ASSERT_NE(frame, nullptr) << Zel003b(ctx);
    EXPECT_EQ(frame->roiOn, 1);
    EXPECT_EQ(frame->roi, roi);
    ASSERT_NE(frame->roiStream, nullptr);
    EXPECT_EQ(frame->roiStream->object, roi);
    EXPECT_FALSE(frame->roiStream->writing);
    EXPECT_EQ(frame->roiStream->requestedLines, 1);
    EXPECT_NE(frame->stream, frame->roiStream);
    EXPECT_EQ(frame->stream->object, image);
    EXPECT_TRUE(frame->stream->writing);
    EXPECT_EQ(frame->matchPointOn, 0);
    EXPECT_NE(zel::readLine(ctx, frame->roiStream, 8), nullptr);
    EXPECT_FALSE(inited(roi));
  }
  EXPECT_TRUE(inited(roi));
  EXPECT_TRUE(inited(image));
}

TEST(AccessFrame, RoiStateOnWithoutARoiLeavesTheRoiOff) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"yDimension", 4}});
  ASSERT_NE(image, nullptr);
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, kBoth, 2);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->roiOn, 0);
  EXPECT_EQ(frame->roi, nullptr);
  EXPECT_EQ(frame->roiStream, nullptr);
}

TEST(AccessFrame, RoiIsLeftAloneWhenTheContextHasItOff) {
  ContextGuard ctx;
  ZelObject *roi = makeRoi(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}});
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"roi", word(roi)}});
  ASSERT_NE(image, nullptr);
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, kBoth, 2);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->roiOn, 0);
  EXPECT_EQ(frame->roi, nullptr);
  EXPECT_EQ(frame->roiStream, nullptr);
  frame.reset();
  EXPECT_FALSE(inited(roi));
}

TEST(AccessFrame, RoiIsLeftAloneWhenTheOperatorDoesNotAskForIt) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  ZelObject *roi = makeRoi(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}});
  ZelObject *image =
      makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"roi", word(roi)}});
  const ZelAttribute options[] = {{"matchPointState", 1}, {"roiState", 0}};
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, options, 2);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->roiOn, 0);
  EXPECT_EQ(frame->roiStream, nullptr);
}

TEST(AccessFrame, RoiStreamOnAFileIsClosedWithTheFrame) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  writeFile("mask.raw", 32);
  ZelObject *roi = makeRoi(
      ctx, {{"fileName", word("mask.raw")}, {"xDimension", 8}, {"yDimension", 4}, {"inited", 1}});
  ZelObject *image = makeImage(
      ctx,
      {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"yDimension", 4}, {"roi", word(roi)}});
  ASSERT_NE(roi, nullptr);
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  AccessFrame *frame = zel::openAccessFrame(ctx, image, "w", 1, kBoth, 2);
  ASSERT_NE(frame, nullptr) << Zel003b(ctx);
  ASSERT_NE(frame->roiStream, nullptr);
  EXPECT_EQ(roi->fileUseCount, 1);
  EXPECT_EQ(openDescriptors(), before + 1);
  const uint8_t *mask = zel::readLine(ctx, frame->roiStream, 8);
  ASSERT_NE(mask, nullptr);
  EXPECT_EQ(mask[0], 1);
  zel::closeAccessFrame(ctx, frame);
  EXPECT_EQ(roi->fileUseCount, 0);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(fs::file_size("mask.raw"), 32u);
}

TEST(AccessFrame, RoiWithoutEightBitPixelsIsAMismatchedDataType) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  const std::vector<ZelAttribute> roiTypes[] = {
      {{"dataType", ZelBoolean}},
      {{"dataType", ZelSigned}},
      {{"dataType", ZelReal}},
  };
  for (const auto &type : roiTypes) {
    std::vector<ZelAttribute> list{{"repository", ZelWorkSpace}, {"xDimension", 8}};
    list.insert(list.end(), type.begin(), type.end());
    ZelObject *roi = makeRoi(ctx, list);
    ASSERT_NE(roi, nullptr);
    SCOPED_TRACE(readAttribute(ctx, roi, "dataType"));
    ZelObject *image =
        makeImage(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 8}, {"roi", word(roi)}});
    ASSERT_NE(image, nullptr);
    clearLastError(ctx);
    EXPECT_EQ(zel::openAccessFrame(ctx, image, "w", 1, kBoth, 2), nullptr);
    EXPECT_EQ(Zel003b(ctx), 10);
    EXPECT_FALSE(inited(image));
  }
}

TEST(AccessFrame, RoiNarrowerThanTheObjectIsInsufficientSize) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  ZelObject *roi =
      makeRoi(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 5}, {"yDimension", 4}});
  ZelObject *image = makeImage(
      ctx,
      {{"repository", ZelWorkSpace}, {"xDimension", 6}, {"yDimension", 4}, {"roi", word(roi)}});
  ASSERT_NE(image, nullptr);
  clearLastError(ctx);
  EXPECT_EQ(zel::openAccessFrame(ctx, image, "r", 1, kBoth, 2), nullptr);
  EXPECT_EQ(Zel003b(ctx), 8);
  EXPECT_FALSE(inited(image));
}

TEST(AccessFrame, RoiWiderThanTheObjectIsAccepted) {
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  ZelObject *roi =
      makeRoi(ctx, {{"repository", ZelWorkSpace}, {"xDimension", 9}, {"yDimension", 2}});
  ZelObject *image = makeImage(
      ctx,
      {{"repository", ZelWorkSpace}, {"xDimension", 6}, {"yDimension", 4}, {"roi", word(roi)}});
  zel::Frame frame = zel::openFrame(ctx, image, "r", 1, kBoth, 2);
  ASSERT_NE(frame, nullptr) << Zel003b(ctx);
  EXPECT_EQ(frame->roi, roi);
  EXPECT_NE(frame->roiStream, nullptr);
}

// ---- Failures -------------------------------------------------------------------------------

TEST(AccessFrame, FailingStreamClosesTheRoiStreamAndLeavesItsCode) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  writeFile("mask.raw", 8);
  ZelObject *roi = makeRoi(ctx, {{"fileName", word("mask.raw")}, {"xDimension", 8}, {"inited", 1}});
  ZelObject *image = makeImage(
      ctx, {{"repository", ZelApplicationAddressSpace}, {"xDimension", 8}, {"roi", word(roi)}});
  ASSERT_NE(roi, nullptr);
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  clearLastError(ctx);
  EXPECT_EQ(zel::openAccessFrame(ctx, image, "r", 1, kBoth, 2), nullptr);
  EXPECT_EQ(Zel003b(ctx), 12);
  EXPECT_EQ(roi->fileUseCount, 0);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(inited(image));
}

TEST(AccessFrame, FailingRoiStreamOpensNothingMore) {
  PrivateTemporaryDirectory tmp;
  ContextGuard ctx;
  ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
  ZelObject *roi = makeRoi(ctx, {{"repository", ZelApplicationAddressSpace}, {"xDimension", 8}});
  ZelObject *image = makeImage(ctx, {{"xDimension", 8}, {"yDimension", 2}, {"roi", word(roi)}});
  ASSERT_NE(image, nullptr);
  int before = openDescriptors();
  clearLastError(ctx);
  EXPECT_EQ(zel::openAccessFrame(ctx, image, "w", 1, kBoth, 2), nullptr);
  EXPECT_EQ(Zel003b(ctx), 12);
  EXPECT_EQ(tmp.fileCount(), 0u);
  EXPECT_EQ(readAttribute(ctx, image, "fileName"), 0);
  EXPECT_EQ(image->fileUseCount, 0);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(AccessFrame, FailingFileStreamLeavesFileOpenFailure) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ZelObject *image =
      makeImage(ctx, {{"fileName", word("no/such/dir/image.raw")}, {"xDimension", 8}});
  ASSERT_NE(image, nullptr);
  clearLastError(ctx);
  EXPECT_EQ(zel::openAccessFrame(ctx, image, "w", 1, kBoth, 2), nullptr);
  EXPECT_EQ(Zel003b(ctx), 25);
}

TEST(AccessFrame, FailedAllocationsLeaveNothingOpenBehind) {
  PrivateTemporaryDirectory tmp;
  ScratchDirectory scratch;
  writeFile("mask.raw", 32);
  bool opened = false;
  for (long successes = 0; successes < 64 && !opened; ++successes) {
    SCOPED_TRACE(successes);
    ContextGuard ctx;
    ASSERT_EQ(Zel008a(ctx, "roiState", 1), 0);
    ZelObject *roi = makeRoi(
        ctx, {{"fileName", word("mask.raw")}, {"xDimension", 8}, {"yDimension", 4}, {"inited", 1}});
    ZelObject *image = makeImage(ctx, {{"xDimension", 8}, {"yDimension", 4}, {"roi", word(roi)}});
    ASSERT_NE(image, nullptr);
    int before = openDescriptors();
    zel::testing::failAllocationAfter(successes);
    AccessFrame *frame = zel::openAccessFrame(ctx, image, "w", 3, kBoth, 2);
    zel::testing::failAllocationAfter(-1);
    if (frame) {
      opened = true;
      EXPECT_NE(frame->roiStream, nullptr);
      zel::closeAccessFrame(ctx, frame);
    } else {
      EXPECT_EQ(Zel003b(ctx), -1);
      EXPECT_EQ(roi->fileUseCount, 0);
      EXPECT_EQ(image->fileUseCount, 0);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(Zel002(ctx, image), 0);
    EXPECT_EQ(tmp.fileCount(), 0u);
    tmp.clear();  // so that a file left behind is told once, at the step that left it
  }
  EXPECT_TRUE(opened);
}

}  // namespace
