// Copying pixels from one object into another, converting them to the destination's type.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kernel/context.h"
#include "kernel/objects.h"
#include "operators/pixels.h"
#include "operators/walk.h"

namespace zel {
namespace {

// Conversions of one value.
struct Same {
  template <class T>
  T operator()(T value) const {
    return value;
  }
};
struct NonZero {
  template <class T>
  bool operator()(T value) const {
    return value != 0;
  }
};
template <class T, int fullScale>
struct FullScale {
  T operator()(bool set) const { return set ? T{fullScale} : T{0}; }
};
struct ClampToByte {
  uint8_t operator()(int16_t v) const {
    return static_cast<uint8_t>(std::clamp<int16_t>(v, 0, 255));
  }
};
// Not-a-number compares false everywhere and becomes 0.
struct RealToByte {
  uint8_t operator()(float x) const {
    if (x > 255.0f) return 255;
    return x >= 0.0f ? static_cast<uint8_t>(x) : 0;
  }
};
struct RealToSigned {
  int16_t operator()(float x) const {
    if (x > 32767.0f) return 32767;
    if (x < -32768.0f) return -32768;
    return x == x ? static_cast<int16_t>(x) : 0;
  }
};
struct SwapBytes {
  int16_t operator()(int16_t value) const {
    auto u = static_cast<uint16_t>(value);
    return static_cast<int16_t>(static_cast<uint16_t>(u << 8 | u >> 8));
  }
};

template <class Convert, class In, class Out>
int convert(OperatorWalk &walk, In in, Out out) {
  return walk.run(MapRows<In, Out, Convert>{in, out, {}});
}

// A run of like pixels moved as bytes. A run starts at byte pixel * startScale of its row; the
// move never leaves either row.
struct MoveRun {
  int64_t elementBytes;
  int64_t startScale;
  int64_t sourceRowBytes;
  int64_t destinationRowBytes;
  void operator()(const RowPosition *rows, int64_t count) const {
    int64_t from = rows[0].pixel * startScale;
    int64_t to = rows[1].pixel * startScale;
    int64_t bytes =
        std::min({count * elementBytes, sourceRowBytes - from, destinationRowBytes - to});
    if (bytes > 0) std::memmove(rows[1].line + to, rows[0].line + from, static_cast<size_t>(bytes));
  }
};

// Like pixels. Without a mask a row's region moves in one piece from its first byte, which rows
// of 16 and 32 bits take as an element index: a region that starts right of x = 0 is then moved
// from and to places further right, `wholeRegionScale` bytes a pixel.
int moveLike(OperatorWalk &walk, int64_t elementBytes, int64_t wholeRegionScale) {
  int64_t scale = walk.masked() ? elementBytes : wholeRegionScale;
  return walk.run(MoveRun{elementBytes, scale, walk.source(0).dimension[AxisX] * elementBytes,
                          walk.destination().dimension[AxisX] * elementBytes});
}

int fromBoolean(OperatorWalk &walk) {
  BitPixels in = bitPixelsOf(walk.source(0));
  switch (walk.destination().dataType) {
    case ZelBoolean:
      return convert<Same>(walk, in, bitPixelsOf(walk.destination()));
    case ZelNonNegative:
      return convert<FullScale<uint8_t, 255>>(walk, in, BytePixels{});
    case ZelSigned:
      return convert<FullScale<int16_t, 32767>>(walk, in, SignedPixels{});
    default:
      return walk.refuse(10);
  }
}

int fromNonNegative(OperatorWalk &walk) {
  switch (walk.destination().dataType) {
    case ZelBoolean:
      return convert<NonZero>(walk, BytePixels{}, bitPixelsOf(walk.destination()));
    case ZelNonNegative:
      return moveLike(walk, 1, 1);
    case ZelSigned:
      return convert<Same>(walk, BytePixels{}, SignedPixels{});
    default:
      return walk.refuse(10);
  }
}

int fromSigned(OperatorWalk &walk) {
  switch (walk.destination().dataType) {
    case ZelBoolean:
      return convert<NonZero>(walk, SignedPixels{}, bitPixelsOf(walk.destination()));
    case ZelNonNegative:
      return convert<ClampToByte>(walk, SignedPixels{}, BytePixels{});
    case ZelSigned:
      if (walk.source(0).byteOrder != walk.destination().byteOrder)
        return convert<SwapBytes>(walk, SignedPixels{}, SignedPixels{});
      return moveLike(walk, 2, 4);
    default:
      return walk.refuse(10);
  }
}

int fromReal(OperatorWalk &walk) {
  switch (walk.destination().dataType) {
    case ZelBoolean:
      return convert<NonZero>(walk, RealPixels{}, bitPixelsOf(walk.destination()));
    case ZelNonNegative:
      return convert<RealToByte>(walk, RealPixels{}, BytePixels{});
    case ZelSigned:
      return convert<RealToSigned>(walk, RealPixels{}, SignedPixels{});
    case ZelReal:
      return moveLike(walk, 4, 16);
    default:
      return walk.refuse(10);
  }
}

// Words and object handles are copied, never converted, between objects of the same type.
int copyWords(OperatorWalk &walk) {
  const AccessFrame &in = walk.source(0);
  const AccessFrame &out = walk.destination();
  int32_t bits = in.stream->bitsPerPixel;
  if (out.dataType != in.dataType || out.stream->bitsPerPixel != bits || bits % 8 != 0)
    return walk.refuse(10);
  return moveLike(walk, bits / 8, bits / 8);
}

}  // namespace
}  // namespace zel

using namespace zel;

extern "C" ZEL_API int Zel601(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, source)) return 9;
  int32_t type = source->dataType;
  bool known = type == ZelBoolean || type == ZelNonNegative || type == ZelSigned ||
               type == ZelReal || type == ZelWord || type == ZelObjectHandle;
  if (!known) {
    reportError(ctx, 10);
    return 10;
  }
  OperatorWalk walk(ctx);
  if (int code = walk.open({source}, destination, honourMatchPointsAndRoi, 2)) return code;
  if (type == ZelWord || type == ZelObjectHandle) return copyWords(walk);
  if (!walk.elementsFitTypes()) return walk.refuse(10);
  switch (type) {
    case ZelBoolean:
      return fromBoolean(walk);
    case ZelNonNegative:
      return fromNonNegative(walk);
    case ZelSigned:
      return fromSigned(walk);
    default:
      return fromReal(walk);
  }
}
