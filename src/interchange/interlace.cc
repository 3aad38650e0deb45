#include "interchange/interlace.h"

#include <algorithm>
#include <cstring>

#include "access/frame.h"
#include "kernel/context.h"
#include "operators/pixels.h"

namespace zel::interchange {
namespace {

constexpr int64_t passStart[4] = {0, 4, 2, 1};
constexpr int64_t passStep[4] = {8, 8, 4, 2};

int64_t linesInPass(int pass, int64_t lines) {
  return lines > passStart[pass] ? (lines - passStart[pass] - 1) / passStep[pass] + 1 : 0;
}

// The overlap of two frames after their match points, per axis, in destination coordinates.
struct Region {
  int64_t first[axisCount];
  int64_t last[axisCount];
  int64_t shift[axisCount];  // source index = destination index + shift
};

Region regionOf(const AccessFrame &in, const AccessFrame &out) {
  Region region{};
  for (int axis = 0; axis < axisCount; ++axis) {
    int64_t offset = int64_t{out.matchPoint[axis]} - in.matchPoint[axis];
    region.first[axis] = std::max<int64_t>(0, offset);
    region.last[axis] = std::min<int64_t>(out.dimension[axis] - 1, in.dimension[axis] + offset - 1);
    region.shift[axis] = -offset;
  }
  return region;
}

// Moves the region's part of one line.
void moveLine(const AccessFrame &in, const uint8_t *from, int64_t fromOffset,
              const AccessFrame &out, uint8_t *to, int64_t toOffset, const Region &region) {
  int64_t x = region.first[AxisX], count = region.last[AxisX] - x + 1;
  if (in.dataType == ZelNonNegative) {
    std::memcpy(to + x, from + x + region.shift[AxisX], static_cast<size_t>(count));
    return;
  }
  auto source =
      bitPixelsOf(in).at({const_cast<uint8_t *>(from), fromOffset % 8 + x + region.shift[AxisX]});
  auto destination = bitPixelsOf(out).at({to, toOffset % 8 + x});
  for (int64_t i = 0; i < count; ++i)
    destination.store(i, source.load(i));
}

// The destination's lines are written in order, which files without data need; each takes the
// source line that the interlaced order puts there.
int reorder(ZelContext *ctx, ZelObject *source, ZelObject *destination, bool interlacing) {
  const ZelAttribute options[] = {{"matchPointState", 1}};
  Frame in = openFrame(ctx, source, "r", 1, options, 1);
  if (!in) return Zel003b(ctx);
  Frame out = openFrame(ctx, destination, "w", 1, options, 1);
  if (!out) return Zel003b(ctx);
  bool bytes = in->dataType == ZelNonNegative && in->stream->bitsPerPixel == 8;
  bool bits = in->dataType == ZelBoolean && in->stream->bitsPerPixel == 1;
  if ((!bytes && !bits) || out->dataType != in->dataType ||
      out->stream->bitsPerPixel != in->stream->bitsPerPixel) {
    reportError(ctx, 10);
    return 10;
  }
  Region r = regionOf(*in, *out);
  for (int axis = 0; axis < axisCount; ++axis)
    if (r.first[axis] > r.last[axis]) return 0;
  int64_t lines = r.last[AxisY] - r.first[AxisY] + 1;
  for (int64_t b = r.first[AxisB]; b <= r.last[AxisB]; ++b)
    for (int64_t t = r.first[AxisT]; t <= r.last[AxisT]; ++t)
      for (int64_t z = r.first[AxisZ]; z <= r.last[AxisZ]; ++z)
        for (int64_t k = 0; k < lines; ++k) {
          int64_t taken = interlacing ? interlacedLine(k, lines) : interlacedIndex(k, lines);
          int64_t outY = r.first[AxisY] + k;
          int64_t inY = r.first[AxisY] + taken + r.shift[AxisY];
          int64_t inOffset =
              lineOffset(*in, inY, z + r.shift[AxisZ], t + r.shift[AxisT], b + r.shift[AxisB]);
          int64_t outOffset = lineOffset(*out, outY, z, t, b);
          const uint8_t *from = readLine(ctx, in->stream, inOffset);
          uint8_t *to = from ? lineForUpdate(ctx, out->stream, outOffset) : nullptr;
          if (!to) return Zel003b(ctx);
          moveLine(*in, from, inOffset, *out, to, outOffset, r);
          if (!writeLine(ctx, out->stream, outOffset)) return Zel003b(ctx);
        }
  return 0;
}

}  // namespace

int64_t interlacedLine(int64_t index, int64_t lines) noexcept {
  for (int pass = 0; pass < 4; ++pass) {
    int64_t inPass = linesInPass(pass, lines);
    if (index < inPass) return passStart[pass] + index * passStep[pass];
    index -= inPass;
  }
  return -1;
}

int64_t interlacedIndex(int64_t line, int64_t lines) noexcept {
  int pass = line % 8 == 0 ? 0 : line % 8 == 4 ? 1 : line % 4 == 2 ? 2 : 3;
  int64_t before = 0;
  for (int p = 0; p < pass; ++p)
    before += linesInPass(p, lines);
  return before + (line - passStart[pass]) / passStep[pass];
}

int interlaceLines(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept {
  return reorder(ctx, source, destination, true);
}

int deinterlaceLines(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept {
  return reorder(ctx, source, destination, false);
}

}  // namespace zel::interchange
