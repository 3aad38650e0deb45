#include "access/frame.h"

#include <cstring>

#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"

namespace zel {

const uint8_t msbSet[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
const uint8_t msbClear[8] = {0x7F, 0xBF, 0xDF, 0xEF, 0xF7, 0xFB, 0xFD, 0xFE};

namespace {

constexpr uint8_t lsbSet[8] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};
constexpr uint8_t lsbClear[8] = {0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF, 0xBF, 0x7F};

void copyObjectWords(AccessFrame *frame, ZelObject *object) {
  frame->object = object;
  frame->bitOrder = object->bitOrder;
  frame->byteOrder = object->byteOrder;
  frame->dataPrecision = object->dataPrecision;
  frame->dataType = object->dataType;
  if (object->bitOrder == ZelLeastSignificantFirst) {
    frame->bitSetTable = lsbSet;
    frame->bitClearTable = lsbClear;
  } else if (object->bitOrder == ZelMostSignificantFirst) {
    frame->bitSetTable = msbSet;
    frame->bitClearTable = msbClear;
  }
  const int32_t dims[axisCount] = {object->xDimension, object->yDimension, object->zDimension,
                                   object->tDimension, object->bDimension};
  std::memcpy(frame->dimension, dims, sizeof dims);
}

void applyMatchPoints(ZelContext *ctx, AccessFrame *frame) {
  frame->matchPointOn = ctx->matchPointState;
  if (!frame->matchPointOn) return;
  const ZelObject *object = frame->object;
  const int32_t points[axisCount] = {object->xMatchPoint, object->yMatchPoint, object->zMatchPoint,
                                     object->tMatchPoint, object->bMatchPoint};
  std::memcpy(frame->matchPoint, points, sizeof points);
}

// 0, or the code of a region of interest that can't be read.
int applyRegionOfInterest(ZelContext *ctx, AccessFrame *frame) {
  frame->roiOn = ctx->roiState;
  if (!frame->roiOn) return 0;
  frame->roi = frame->object->roi;
  if (!frame->roi) {
    frame->roiOn = 0;
    return 0;
  }
  frame->roiStream = openRepositoryStream(ctx, frame->roi, "r", 1);
  if (!frame->roiStream) return Zel003b(ctx);
  // Operators read a mask row one byte a pixel across the object's whole width.
  if (frame->roiStream->bitsPerPixel != 8) return 10;
  if (frame->roiStream->linePixels < frame->dimension[AxisX]) return 8;
  return 0;
}

}  // namespace

AccessFrame *openAccessFrame(ZelContext *ctx, ZelObject *object, const char *mode, int bufferLines,
                             const ZelAttribute *options, int optionCount) noexcept {
  if (!checkObject(ctx, object)) return nullptr;
  Frame frame(static_cast<AccessFrame *>(allocZeroed(ctx, sizeof(AccessFrame))), FrameCloser(ctx));
  if (!frame) return nullptr;
  copyObjectWords(frame.get(), object);
  for (int i = 0; options && i < optionCount; ++i) {
    if (!options[i].name || options[i].value == 0) continue;
    if (std::strcmp(options[i].name, "matchPointState") == 0) {
      applyMatchPoints(ctx, frame.get());
    } else if (std::strcmp(options[i].name, "roiState") == 0) {
      if (int code = applyRegionOfInterest(ctx, frame.get())) {
        frame.reset();
        reportError(ctx, code);
        return nullptr;
      }
    }
  }
  frame->stream = openRepositoryStream(ctx, object, mode, bufferLines);
  if (!frame->stream) {
    int code = Zel003b(ctx);
    frame.reset();
    if (code != 0) reportError(ctx, code);
    return nullptr;
  }
  return frame.release();
}

void closeAccessFrame(ZelContext *ctx, AccessFrame *frame) noexcept {
  if (!frame) return;
  closeRepositoryStream(ctx, frame->stream);
  closeRepositoryStream(ctx, frame->roiStream);
  releaseBlock(frame);
}

}  // namespace zel
