// The tagged scalar that operators take as a constant: a double when tagged Real, otherwise a
// 32-bit integer in the low half of the value.
#pragma once

#include <cstdint>
#include <limits>

#include "zel.h"

namespace zel {

// Truncation toward zero that stays defined: not-a-number gives 0, values beyond the 32-bit
// range give its ends.
inline int32_t truncatedToInt32(double x) {
  if (!(x == x)) return 0;
  if (x >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  if (x <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(x);
}

inline int32_t integerOf(const ZelScalar &scalar) {
  if (scalar.tag == ZelReal) return truncatedToInt32(scalar.v.d);
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(scalar.v.i)));
}

inline double realOf(const ZelScalar &scalar) {
  return scalar.tag == ZelReal ? scalar.v.d : integerOf(scalar);
}

}  // namespace zel
