// Pieces that the interchange entries share: attribute lists extended for one call, and objects
// that live for one call.
#pragma once

#include <cstdint>
#include <span>

#include "kernel/memory.h"
#include "kernel/objects.h"
#include "zel.h"

namespace zel::interchange {

int refuse(ZelContext *ctx, int code) noexcept;

// The caller's pairs followed by `extra`, which therefore win; `count` gets the total. Null
// after reporting (18 for a bad list, -1 without memory).
Block<ZelAttribute> appendAttributes(ZelContext *ctx, const ZelAttribute *list, int listCount,
                                     std::span<const ZelAttribute> extra, int &count) noexcept;

inline bool isComposite(const ZelObject *object) {
  return classIdOf(object->objectClass) == ObjectClassId::CompositeIDArray;
}

// A composite over `object` of the same number of entries, all cleared; null after reporting.
ZelObject *emptyPagesOver(ZelContext *ctx, ZelObject *object) noexcept;

}  // namespace zel::interchange
