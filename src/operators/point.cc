// Operators that compute each pixel from the same place of one or two images and a constant:
// table lookup, arithmetic and logic against a scalar, threshold, complement, blend and fold.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "kernel/context.h"
#include "operators/pixels.h"
#include "operators/scalar.h"
#include "operators/walk.h"

namespace zel {
namespace {

bool allOfType(const OperatorWalk &walk, int sources, int32_t type) {
  for (int i = 0; i < sources; ++i)
    if (walk.source(i).dataType != type) return false;
  return walk.destination().dataType == type;
}

template <class In, class Out, class Rule>
int map(OperatorWalk &walk, Rule rule, In in = {}, Out out = {}) {
  return walk.run(MapRows<In, Out, Rule>{in, out, rule});
}

// ---- Lookup ----------------------------------------------------------------------------------

constexpr int lookupEntries = 256;

// Vectorised, a lookup becomes an emulated gather that runs at half the speed of plain loads.
#if defined(__GNUC__) && !defined(__clang__)
#define ZEL_SCALAR_LOOP __attribute__((optimize("no-tree-vectorize")))
#else
#define ZEL_SCALAR_LOOP
#endif

template <class T, class Out>
struct LookupRows {
  const T *table;
  ZEL_SCALAR_LOOP void operator()(const RowPosition *rows, int64_t count) const {
    const uint8_t *from = rows[0].line + rows[0].pixel;
    auto to = Out{}.at(rows[1]);
    const T *local = table;
    for (int64_t i = 0; i < count; ++i)
      to.store(i, local[from[i]]);
  }
};

// The first line of the table, which must hold an entry of `type` for every byte value; 0 or
// the code after reporting.
template <class T>
int readTable(ZelContext *ctx, ZelObject *table, int32_t type, T (&entries)[lookupEntries]) {
  Frame frame = openFrame(ctx, table, "r", 1);
  if (!frame) return Zel003b(ctx);
  int code = 0;
  if (frame->dataType != type || frame->stream->bitsPerPixel != elementBitsOf(type))
    code = 10;
  else if (frame->stream->linePixels < lookupEntries)
    code = 18;
  if (code) {
    reportError(ctx, code);
    return code;
  }
  const uint8_t *line = readLine(ctx, frame->stream, 0);
  if (!line) return Zel003b(ctx);
  std::memcpy(entries, line, sizeof entries);
  return 0;
}

template <class T, class Out>
int lookUp(OperatorWalk &walk, ZelContext *ctx, ZelObject *table, int32_t type) {
  T entries[lookupEntries];
  if (int code = readTable(ctx, table, type, entries)) return walk.stop(code);
  return walk.run(LookupRows<T, Out>{entries});
}

// ---- Pixel against a scalar ------------------------------------------------------------------

// The machine's 32-bit arithmetic: sums and products wrap instead of overflowing.
inline int32_t wrap(int64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
}

template <class T>
T limited(int32_t r) {
  return static_cast<T>(
      std::clamp<int32_t>(r, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
}

template <class T, int operation>
struct IntegerRule {
  int32_t v;
  bool operator()(T pixel, T &out) const {
    int64_t p = pixel;
    auto bits = static_cast<T>(v);  // logic works on the pixel's own width
    if constexpr (operation == ZelAdd) out = limited<T>(wrap(p + v));
    if constexpr (operation == ZelAverage) out = limited<T>(wrap(p + v) >> 1);
    if constexpr (operation == ZelDivideByScalar) {
      if (v == 0) return false;
      out = limited<T>(wrap(p / v));
    }
    if constexpr (operation == ZelDivideScalarBy) {
      if (p == 0) return false;
      out = limited<T>(wrap(v / p));
    }
    if constexpr (operation == ZelAnd) out = static_cast<T>(pixel & bits);
    if constexpr (operation == ZelNand) out = static_cast<T>(~(pixel & bits));
    if constexpr (operation == ZelNor) out = static_cast<T>(~(pixel | bits));
    if constexpr (operation == ZelOr) out = static_cast<T>(pixel | bits);
    if constexpr (operation == ZelXor) out = static_cast<T>(pixel ^ bits);
    if constexpr (operation == ZelMaximum) out = limited<T>(std::max(wrap(p), v));
    if constexpr (operation == ZelMinimum) out = limited<T>(std::min(wrap(p), v));
    if constexpr (operation == ZelMultiply) out = limited<T>(wrap(p * v));
    if constexpr (operation == ZelSubtractScalar) out = limited<T>(wrap(p - v));
    if constexpr (operation == ZelHalfSubtractScalar) out = limited<T>(wrap(p - v) >> 1);
    if constexpr (operation == ZelSubtractFromScalar) out = limited<T>(wrap(v - p));
    if constexpr (operation == ZelHalfSubtractFromScalar) out = limited<T>(wrap(v - p) >> 1);
    return true;
  }
};

// K = 2 / sqrt(6), the largest saturation of the colour adjustment.
constexpr double saturationLimit = 0.8164965809277261;

template <int operation>
struct RealRule {
  double v;
  bool operator()(float pixel, float &out) const {
    double p = pixel, r = 0;
    if constexpr (operation == ZelAdd || operation == ZelSaturationAdd) r = p + v;
    if constexpr (operation == ZelAverage) r = (p + v) * 0.5;
    if constexpr (operation == ZelDivideByScalar) {
      if (v == 0) return false;
      r = p / v;
    }
    if constexpr (operation == ZelDivideScalarBy) {
      if (p == 0) return false;
      r = v / p;
    }
    if constexpr (operation == ZelMaximum) r = std::max(p, v);
    if constexpr (operation == ZelMinimum) r = std::min(p, v);
    if constexpr (operation == ZelMultiply) r = p * v;
    if constexpr (operation == ZelSubtractScalar || operation == ZelSaturationSubtract) r = p - v;
    if constexpr (operation == ZelHalfSubtractScalar) r = (p - v) * 0.5;
    if constexpr (operation == ZelSubtractFromScalar) r = v - p;
    if constexpr (operation == ZelHalfSubtractFromScalar) r = (v - p) * 0.5;
    if constexpr (operation == ZelSaturationFall) {
      if (p != 0 && v != 1) r = std::pow(p, 1 / (1 - v));
      if (r < 0) r = 0;
    }
    if constexpr (operation == ZelSaturationRise) {
      if (p == saturationLimit) {
        r = saturationLimit;
      } else if (p != 0) {
        r = std::pow(p, 1 - v * 2 / 3) * saturationLimit;
        if (r > saturationLimit) r = saturationLimit;
      }
    }
    out = static_cast<float>(r);
    return true;
  }
};

template <int operation>
struct BitRule {
  bool v;
  bool operator()(bool p, bool &out) const {
    if constexpr (operation == ZelAnd) out = p && v;
    if constexpr (operation == ZelNand) out = !(p && v);
    if constexpr (operation == ZelNor) out = !(p || v);
    if constexpr (operation == ZelOr) out = p || v;
    if constexpr (operation == ZelXor) out = p != v;
    return true;
  }
};

// Runs the rows of `operation` when it is one of `Listed`; any other operation walks without
// touching a pixel.
template <template <int> class Rows, int... Listed, class Pixels, class Constant>
int runListed(OperatorWalk &walk, int operation, Pixels pixels, Constant v) {
  bool listed = ((operation == Listed) || ...);
  if (!listed) return walk.run(NoRows{});
  int code = 0;
  (void)((operation == Listed && (code = walk.run(Rows<Listed>{pixels, pixels, {v}}), true)) ||
         ...);
  return code;
}

template <class T, class Pixels>
struct IntegerOperations {
  template <int operation>
  using Rows = MapRows<Pixels, Pixels, IntegerRule<T, operation>>;
};
template <int operation>
using RealRows = MapRows<RealPixels, RealPixels, RealRule<operation>>;
template <int operation>
using BitRows = MapRows<BitPixels, BitPixels, BitRule<operation>>;

template <class T, class Pixels>
int integerAgainstScalar(OperatorWalk &walk, int operation, int32_t v) {
  return runListed<IntegerOperations<T, Pixels>::template Rows, ZelAdd, ZelAverage,
                   ZelDivideByScalar, ZelDivideScalarBy, ZelAnd, ZelNand, ZelNor, ZelOr, ZelXor,
                   ZelMaximum, ZelMinimum, ZelMultiply, ZelSubtractScalar, ZelHalfSubtractScalar,
                   ZelSubtractFromScalar, ZelHalfSubtractFromScalar>(walk, operation, Pixels{}, v);
}

int realAgainstScalar(OperatorWalk &walk, int operation, double v) {
  return runListed<RealRows, ZelAdd, ZelAverage, ZelDivideByScalar, ZelDivideScalarBy, ZelMaximum,
                   ZelMinimum, ZelMultiply, ZelSubtractScalar, ZelHalfSubtractScalar,
                   ZelSubtractFromScalar, ZelHalfSubtractFromScalar, ZelSaturationFall,
                   ZelSaturationRise, ZelSaturationSubtract, ZelSaturationAdd>(walk, operation,
                                                                               RealPixels{}, v);
}

int bitsAgainstScalar(OperatorWalk &walk, int operation, bool v) {
  return runListed<BitRows, ZelAnd, ZelNand, ZelNor, ZelOr, ZelXor>(walk, operation, operatorBits,
                                                                    v);
}

// ---- Threshold, complement, blend, fold ------------------------------------------------------

struct Threshold {
  uint8_t threshold, low, high;
  uint8_t operator()(uint8_t p) const { return p < threshold ? low : high; }
};
struct ThresholdToBit {
  Threshold byte;
  bool operator()(uint8_t p) const { return byte(p) != 0; }
};

struct Complement {
  uint8_t operator()(uint8_t p) const { return static_cast<uint8_t>(255 - p); }
};

struct InvertBits {
  void operator()(const RowPosition *rows, int64_t count) const {
    auto from = operatorBits.at(rows[0]);
    auto to = operatorBits.at(rows[1]);
    for (int64_t i = 0; i < count; ++i)
      to.store(i, !from.load(i));
  }
};

struct Fold {
  uint8_t operator()(uint8_t p) const { return p >= 128 ? static_cast<uint8_t>(255 - p) : p; }
};

// Only bits 8 to 15 of the weighted sum reach the byte, so 64-bit sums give what 32-bit ones
// would without overflowing.
struct BlendRows {
  int64_t weightA, weightB;
  void operator()(const RowPosition *rows, int64_t count) const {
    const uint8_t *a = rows[0].line + rows[0].pixel;
    const uint8_t *b = rows[1].line + rows[1].pixel;
    uint8_t *d = rows[2].line + rows[2].pixel;
    for (int64_t i = 0; i < count; ++i)
      d[i] = static_cast<uint8_t>((a[i] * weightA + b[i] * weightB + 128) >> 8);
  }
};

int openOperator(OperatorWalk &walk, std::initializer_list<ZelObject *> sources,
                 ZelObject *destination) {
  return walk.open(sources, destination, honourMatchPointsAndRoi, 2);
}

}  // namespace
}  // namespace zel

using namespace zel;

extern "C" ZEL_API int Zel120(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              ZelObject *table) noexcept {
  OperatorWalk walk(ctx);
  if (int code = openOperator(walk, {source}, destination)) return code;
  if (!walk.elementsFitTypes() || walk.source(0).dataType != ZelNonNegative) return walk.refuse(10);
  switch (walk.destination().dataType) {
    case ZelNonNegative:
      return lookUp<uint8_t, BytePixels>(walk, ctx, table, ZelNonNegative);
    case ZelSigned:
      return lookUp<int16_t, SignedPixels>(walk, ctx, table, ZelSigned);
    default:
      return walk.refuse(10);
  }
}

extern "C" ZEL_API int Zel121(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              int operation, ZelScalar scalar) noexcept {
  OperatorWalk walk(ctx);
  if (int code = openOperator(walk, {source}, destination)) return code;
  int32_t type = walk.source(0).dataType;
  if (!walk.elementsFitTypes() || walk.destination().dataType != type) return walk.refuse(10);
  switch (type) {
    case ZelBoolean:
      return bitsAgainstScalar(walk, operation, integerOf(scalar) != 0);
    case ZelNonNegative:
      return integerAgainstScalar<uint8_t, BytePixels>(walk, operation, integerOf(scalar));
    case ZelSigned:
      return integerAgainstScalar<int16_t, SignedPixels>(walk, operation, integerOf(scalar));
    case ZelReal:
      return realAgainstScalar(walk, operation, realOf(scalar));
    default:
      return walk.refuse(10);
  }
}

extern "C" ZEL_API int Zel122(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              ZelScalar threshold, ZelScalar low, ZelScalar high) noexcept {
  OperatorWalk walk(ctx);
  if (int code = openOperator(walk, {source}, destination)) return code;
  if (!walk.elementsFitTypes() || walk.source(0).dataType != ZelNonNegative) return walk.refuse(10);
  Threshold rule{static_cast<uint8_t>(integerOf(threshold)), static_cast<uint8_t>(integerOf(low)),
                 static_cast<uint8_t>(integerOf(high))};
  switch (walk.destination().dataType) {
    case ZelNonNegative:
      return map<BytePixels, BytePixels>(walk, rule);
    case ZelBoolean:
      return map<BytePixels, BitPixels>(walk, ThresholdToBit{rule}, {}, operatorBits);
    default:
      return walk.refuse(10);
  }
}

extern "C" ZEL_API int Zel130(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept {
  OperatorWalk walk(ctx);
  if (int code = openOperator(walk, {source}, destination)) return code;
  if (!walk.elementsFitTypes()) return walk.refuse(10);
  if (allOfType(walk, 1, ZelBoolean)) return walk.run(InvertBits{});
  if (allOfType(walk, 1, ZelNonNegative)) return map<BytePixels, BytePixels>(walk, Complement{});
  return walk.refuse(10);
}

extern "C" ZEL_API int Zel132(ZelContext *ctx, ZelObject *sourceA, ZelObject *sourceB,
                              ZelObject *destination, double weight) noexcept {
  OperatorWalk walk(ctx);
  if (int code = openOperator(walk, {sourceA, sourceB}, destination)) return code;
  if (!walk.elementsFitTypes() || !allOfType(walk, 2, ZelNonNegative)) return walk.refuse(10);
  return walk.run(BlendRows{truncatedToInt32(weight * 256), truncatedToInt32((1 - weight) * 256)});
}

extern "C" ZEL_API int Zel135(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept {
  OperatorWalk walk(ctx);
  if (int code = openOperator(walk, {source}, destination)) return code;
  if (!walk.elementsFitTypes() || !allOfType(walk, 1, ZelNonNegative)) return walk.refuse(10);
  return map<BytePixels, BytePixels>(walk, Fold{});
}
