// Pieces that the interchange entries share: attribute lists extended for one call, and objects
// that live for one call.
#pragma once

#include <cstdint>
#include <span>

#include "kernel/memory.h"
#include "kernel/objects.h"
#include "zel.h"

namespace zel::interchange {

// The caller's pairs followed by `extra`, which therefore win; `count` gets the total. Null
// after reporting (18 for a bad list, -1 without memory).
Block<ZelAttribute> appendAttributes(ZelContext *ctx, const ZelAttribute *list, int listCount,
                                     std::span<const ZelAttribute> extra, int &count) noexcept;

// The first `count` bytes (at most 4), most significant first.
inline uint32_t bigEndian(const uint8_t *bytes, int count) {
  uint32_t value = 0;
  for (int i = 0; i < count; ++i)
    value = value << 8 | bytes[i];
  return value;
}

inline bool isComposite(const ZelObject *object) {
  return classIdOf(object->objectClass) == ObjectClassId::CompositeIDArray;
}

// A composite over `object` of the same number of entries, all cleared; null after reporting.
ZelObject *emptyPagesOver(ZelContext *ctx, ZelObject *object) noexcept;

}  // namespace zel::interchange
