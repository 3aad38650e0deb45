// Access frames: how an operator sees one object for the length of its work. The frame adds what
// the context decides for all operators, the match point and the region of interest, to the
// object's repository stream.
#pragma once

#include <cstdint>
#include <memory>

#include "access/repository.h"
#include "zel.h"

namespace zel {

enum Axis { AxisX, AxisY, AxisZ, AxisT, AxisB, axisCount };

struct AccessFrame {
  int32_t bitOrder;
  int32_t byteOrder;
  int32_t dataPrecision;
  int32_t dataType;
  const uint8_t *bitClearTable;  // masks that clear pixel i of a byte, or null
  const uint8_t *bitSetTable;    // masks that set pixel i of a byte, or null
  ZelObject *object;
  int32_t matchPointOn;
  RepositoryStream *stream;
  ZelObject *roi;
  RepositoryStream *roiStream;
  int32_t roiOn;
  int32_t dimension[axisCount];   // the object's extents at opening
  int32_t matchPoint[axisCount];  // the match point when it applies, else zeros
};

// The bit tables of most-significant-first data: pixel i of a byte is bit 128 >> i.
extern const uint8_t msbSet[8];
extern const uint8_t msbClear[8];

// Pixel offset of the line (y, z, t, b) in the frame's object.
inline int64_t lineOffset(const AccessFrame &frame, int64_t y, int64_t z, int64_t t, int64_t b) {
  const int32_t *d = frame.dimension;
  return (((b * d[AxisT] + t) * d[AxisZ] + z) * d[AxisY] + y) * d[AxisX];
}

// `options` may hold {"matchPointState", nonzero} and {"roiState", nonzero}: what the operator
// honours; the context's settings decide whether they apply. Null after reporting.
AccessFrame *openAccessFrame(ZelContext *ctx, ZelObject *object, const char *mode, int bufferLines,
                             const ZelAttribute *options, int optionCount) noexcept;
void closeAccessFrame(ZelContext *ctx, AccessFrame *frame) noexcept;

// A frame that closes itself.
class FrameCloser {
 public:
  explicit FrameCloser(ZelContext *ctx = nullptr) : ctx_(ctx) {}
  void operator()(AccessFrame *frame) const noexcept { closeAccessFrame(ctx_, frame); }

 private:
  ZelContext *ctx_;
};
using Frame = std::unique_ptr<AccessFrame, FrameCloser>;

inline Frame openFrame(ZelContext *ctx, ZelObject *object, const char *mode, int bufferLines,
                       const ZelAttribute *options = nullptr, int optionCount = 0) noexcept {
  return Frame(openAccessFrame(ctx, object, mode, bufferLines, options, optionCount),
               FrameCloser(ctx));
}

}  // namespace zel
