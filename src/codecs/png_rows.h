// PNG scanlines: rows of packed pixels, each behind its filter type byte, through one zlib stream,
// plain or in the seven passes of Adam7. Bare streams in compressed objects and the IDAT data of
// PNG files are made and read by the same code; they differ in where the zlib output goes.
#pragma once

#include <cstdint>

#include "access/frame.h"
#include "zel.h"

namespace zel::codec {

// The passes of Adam7 interlacing: column start and step, row start and step.
struct Pass {
  int colStart, colStep, rowStart, rowStep;
};
inline constexpr Pass adam7[7] = {{0, 8, 0, 8}, {4, 8, 0, 8}, {0, 4, 4, 8}, {2, 4, 0, 4},
                                  {0, 2, 2, 4}, {1, 2, 0, 2}, {0, 1, 1, 2}};

// Pixels or rows of a pass over `size` pixels or rows of the image.
inline int64_t passExtent(int64_t size, int start, int step) {
  return size > start ? (size - start + step - 1) / step : 0;
}

// Filter sets: bit 3 none, bit 4 sub, bit 5 up, bit 6 average, bit 7 Paeth.
inline constexpr int noneFilterOnly = 8;
inline constexpr int allFilters = 248;

// The shape of the coded rows.
struct RowLayout {
  int64_t width = 0;
  int64_t height = 0;
  int bitDepth = 0;
  int channels = 0;
  bool interlaced = false;

  int pixelDepth() const { return bitDepth * channels; }
  int64_t rowBytes(int64_t pixels) const { return (pixels * pixelDepth() + 7) / 8; }
};

// The deflate side: filter set and the arguments of deflateInit2 that vary.
struct DeflateOptions {
  int filterSet = allFilters;
  int level = 6;
  int strategy = 1;
};

// Takes each full output buffer of zlib and, at the end of a stream, the rest. 0 or the code.
class DeflateSink {
 public:
  virtual int send(const uint8_t *bytes, int64_t count) noexcept = 0;

 protected:
  ~DeflateSink() = default;
};

// Whether `size` bytes of deflated data could hold `planes` planes of the layout's rows; deflate
// expands no stream more than 1032 times, so a stream below that can't be the image's.
bool streamCanHold(const RowLayout &layout, int64_t planes, int64_t size) noexcept;

// Whether writeImage takes the image's pixels at the layout's depth and channels.
bool canWriteImage(const AccessFrame &image, const RowLayout &layout) noexcept;

// The pixels of the image behind `image`, from its first lines on, as rows of `layout` through
// zlib into `sink`: planes[0] x planes[1] planes (z within t), each one complete zlib stream,
// at the same z and t in the image. Rows and
// planes that the image doesn't have are coded as zeros. A `Boolean` image codes its bits in
// `bitOrder`; the image must have the layout's bands. 0 or the code after reporting.
int writeImage(ZelContext *ctx, AccessFrame &image, const RowLayout &layout, int32_t bitOrder,
               const DeflateOptions &options, const int32_t (&planes)[2],
               DeflateSink &sink) noexcept;

// Both directions of PngDeflate between a plain image and a compressed object.
int compressPngDeflate(ZelContext *ctx, ZelObject *image, ZelObject *compressed) noexcept;
int expandPngDeflate(ZelContext *ctx, ZelObject *compressed, ZelObject *image) noexcept;

}  // namespace zel::codec
