// Reading and writing object attributes by name: the general words of the record first, then
// the fields of the record of the object's fileFormat.
#pragma once

#include <cstdint>

#include "zel.h"

namespace zel {

// Writes a list to a live object, as Zel006 does after checking the handle.
int applyAttributes(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                    int count) noexcept;

// Reads a list from a live object, as Zel005 does after checking the handle.
int readAttributes(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                   int count) noexcept;

// The precision setting that a data type takes when "dataType" is written, or null for types
// that leave "dataPrecision" alone.
const int32_t *precisionOfType(const ZelContext *ctx, int32_t dataType) noexcept;

}  // namespace zel
