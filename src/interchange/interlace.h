// The interlaced line order of GIF: passes from lines 0, 4, 2 and 1 in steps of 8, 8, 4 and 2.
#pragma once

#include <cstdint>

#include "zel.h"

namespace zel::interchange {

// Line `index` of the interlaced order among `lines` lines, and the reverse: the place of
// `line` in that order.
int64_t interlacedLine(int64_t index, int64_t lines) noexcept;
int64_t interlacedIndex(int64_t line, int64_t lines) noexcept;

// Lines of `source` into `destination` in interlaced order (line i of the destination is line
// interlacedLine(i) of the source), and back. Planes are walked over b, t and z, on the region
// where the objects overlap after their match points. Boolean lines move bit by bit,
// NonNegative lines by bytes; other or differing types give 10. 0 or the code.
int interlaceLines(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept;
int deinterlaceLines(ZelContext *ctx, ZelObject *source, ZelObject *destination) noexcept;

}  // namespace zel::interchange
