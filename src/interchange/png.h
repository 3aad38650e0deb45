// PNG files: the chunk layer around PngDeflate data.
#pragma once

#include "zel.h"

namespace zel::interchange {

// Writes `object` to the byte stream of `file`: a plain object through the row filters and
// deflate, an object holding PngDeflate data as it stands. 0 or the code after reporting.
int writePng(ZelContext *ctx, ZelObject *object, ZelObject *file) noexcept;

// Reads the file behind `file` into `object`: its attributes (mode 0 or ReadAttributes) and its
// still compressed data (mode 0 or ReadData). 0 or the code after reporting.
int readPng(ZelContext *ctx, ZelObject *file, ZelObject *object, int mode) noexcept;

}  // namespace zel::interchange
