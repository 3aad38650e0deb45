// Two images combined pixel by pixel.
#include <algorithm>
#include <cstdint>

#include "kernel/context.h"
#include "operators/pixels.h"
#include "operators/walk.h"

namespace zel {
namespace {

// Each operation maps source pixels a, b and the destination's current pixel d to a new d.
struct AbsoluteDifference {
  static uint8_t apply(int a, int b, uint8_t) {
    return static_cast<uint8_t>(a > b ? a - b : b - a);
  }
};
struct Add {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(std::min(a + b, 255)); }
};
struct Average {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>((a + b) >> 1); }
};
struct Divide {
  static uint8_t apply(int a, int b, uint8_t d) { return b == 0 ? d : static_cast<uint8_t>(a / b); }
};
struct And {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(a & b); }
};
struct Nand {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(~(a & b)); }
};
struct Nor {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(~(a | b)); }
};
struct Or {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(a | b); }
};
struct Xor {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(a ^ b); }
};
struct Maximum {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(std::max(a, b)); }
};
struct Minimum {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(std::min(a, b)); }
};
struct Multiply {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(std::min(a * b, 255)); }
};
struct Subtract {
  static uint8_t apply(int a, int b, uint8_t) { return static_cast<uint8_t>(std::max(a - b, 0)); }
};
struct HalfDifference {
  static uint8_t apply(int a, int b, uint8_t) {
    return static_cast<uint8_t>(std::max((a - b) >> 1, 0));
  }
};
struct LeaveAlone {
  static uint8_t apply(int, int, uint8_t d) { return d; }
};

// Logic on single bits; Nand looks at source B alone, as the library always has.
struct BitAnd {
  static bool apply(bool a, bool b) { return a && b; }
};
struct BitNand {
  static bool apply(bool, bool b) { return !b; }
};
struct BitNor {
  static bool apply(bool a, bool b) { return !(a || b); }
};
struct BitOr {
  static bool apply(bool a, bool b) { return a || b; }
};
struct BitXor {
  static bool apply(bool a, bool b) { return a != b; }
};

template <class Op>
struct ByteRows {
  void operator()(const RowPosition *rows, int64_t count) const {
    const uint8_t *a = rows[0].line + rows[0].pixel;
    const uint8_t *b = rows[1].line + rows[1].pixel;
    uint8_t *d = rows[2].line + rows[2].pixel;
    for (int64_t i = 0; i < count; ++i)
      d[i] = Op::apply(a[i], b[i], d[i]);
  }
};

template <class Op>
struct BitRows {
  void operator()(const RowPosition *rows, int64_t count) const {
    auto a = operatorBits.at(rows[0]);
    auto b = operatorBits.at(rows[1]);
    auto d = operatorBits.at(rows[2]);
    for (int64_t i = 0; i < count; ++i)
      d.store(i, Op::apply(a.load(i), b.load(i)));
  }
};

int combineBytes(OperatorWalk &walk, int operation) {
  switch (operation) {
    case ZelAbsoluteDifference:
      return walk.run(ByteRows<AbsoluteDifference>{});
    case ZelAdd:
      return walk.run(ByteRows<Add>{});
    case ZelAverage:
      return walk.run(ByteRows<Average>{});
    case ZelDivide:
      return walk.run(ByteRows<Divide>{});
    case ZelAnd:
      return walk.run(ByteRows<And>{});
    case ZelNand:
      return walk.run(ByteRows<Nand>{});
    case ZelNor:
      return walk.run(ByteRows<Nor>{});
    case ZelOr:
      return walk.run(ByteRows<Or>{});
    case ZelXor:
      return walk.run(ByteRows<Xor>{});
    case ZelMaximum:
      return walk.run(ByteRows<Maximum>{});
    case ZelMinimum:
      return walk.run(ByteRows<Minimum>{});
    case ZelMultiply:
      return walk.run(ByteRows<Multiply>{});
    case ZelSubtract:
      return walk.run(ByteRows<Subtract>{});
    case ZelHalfDifference:
      return walk.run(ByteRows<HalfDifference>{});
    default:
      return walk.run(NoRows{});
  }
}

int combineBits(OperatorWalk &walk, int operation) {
  switch (operation) {
    case ZelAnd:
      return walk.run(BitRows<BitAnd>{});
    case ZelNand:
      return walk.run(BitRows<BitNand>{});
    case ZelNor:
      return walk.run(BitRows<BitNor>{});
    case ZelOr:
      return walk.run(BitRows<BitOr>{});
    case ZelXor:
      return walk.run(BitRows<BitXor>{});
    default:
      return walk.run(NoRows{});
  }
}

}  // namespace
}  // namespace zel

using namespace zel;

extern "C" ZEL_API int Zel106(ZelContext *ctx, ZelObject *sourceA, ZelObject *sourceB,
                              ZelObject *destination, int operation) noexcept {
  OperatorWalk walk(ctx);
  if (int code = walk.open({sourceA, sourceB}, destination, honourMatchPointsAndRoi, 2))
    return code;
  int typeA = walk.source(0).dataType;
  int typeD = walk.destination().dataType;
  if (typeA == ZelBoolean && typeD == ZelBoolean) return combineBits(walk, operation);
  // Bytes are read from every object, source B included, so none may hold narrower pixels.
  if (typeA == ZelNonNegative && typeD == ZelNonNegative && walk.pixelsAtLeast(8))
    return combineBytes(walk, operation);
  return walk.refuse(10);
}
