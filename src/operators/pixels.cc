#include "operators/pixels.h"

#include "zel_enum.h"

namespace zel {

BitPixels bitPixelsOf(const AccessFrame &frame) noexcept {
  if (!frame.bitSetTable || !frame.bitClearTable) return {msbSet, msbClear};
  return {frame.bitSetTable, frame.bitClearTable};
}

int elementBitsOf(int32_t dataType) noexcept {
  switch (dataType) {
    case ZelBoolean:
      return 1;
    case ZelNonNegative:
      return 8;
    case ZelSigned:
      return 16;
    case ZelReal:
      return 32;
    default:
      return 0;
  }
}

}  // namespace zel
