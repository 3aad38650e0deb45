// Pixels of a run as row kernels see them: elements of one, two or four bytes at any alignment,
// and Boolean pixels through a frame's bit tables.
#pragma once

#include <cstdint>
#include <cstring>

#include "access/frame.h"
#include "operators/walk.h"

namespace zel {

// Pixel `i` of a run of elements of type T.
template <class T>
struct Elements {
  using Value = T;
  static T load(const RowPosition &run, int64_t i) {
    T value;
    std::memcpy(&value, run.line + (run.pixel + i) * int64_t{sizeof(T)}, sizeof(T));
    return value;
  }
  static void store(const RowPosition &run, int64_t i, T value) {
    std::memcpy(run.line + (run.pixel + i) * int64_t{sizeof(T)}, &value, sizeof(T));
  }
};

using BytePixels = Elements<uint8_t>;
using SignedPixels = Elements<int16_t>;
using RealPixels = Elements<float>;

// Boolean pixel i of a run is bit i of the row counted through the frame's tables.
struct BitPixels {
  using Value = bool;
  const uint8_t *setTable;
  const uint8_t *clearTable;

  bool load(const RowPosition &run, int64_t i) const {
    int64_t p = run.pixel + i;
    return (run.line[p >> 3] & setTable[p & 7]) != 0;
  }
  void store(const RowPosition &run, int64_t i, bool value) const {
    int64_t p = run.pixel + i;
    uint8_t &byte = run.line[p >> 3];
    byte = value ? static_cast<uint8_t>(byte | setTable[p & 7])
                 : static_cast<uint8_t>(byte & clearTable[p & 7]);
  }
};

// Operators see Boolean rows most significant bit first, whatever the object's bit order.
inline constexpr BitPixels operatorBits{msbSet, msbClear};

// The destination's pixel from the source's through `rule`.
template <class In, class Out, class Rule>
struct MapRows {
  In in;
  Out out;
  Rule rule;
  void operator()(const RowPosition *rows, int64_t count) const {
    for (int64_t i = 0; i < count; ++i)
      out.store(rows[1], i, rule(in.load(rows[0], i)));
  }
};

// Rows of an operation that leaves every pixel as it was.
struct NoRows {
  void operator()(const RowPosition *, int64_t) const {}
};

// The frame's tables; a bit order the library doesn't know is taken as most significant first.
BitPixels bitPixelsOf(const AccessFrame &frame) noexcept;

// The element width in bits that pixels of `dataType` have in row kernels, 0 for other types.
int elementBitsOf(int32_t dataType) noexcept;

}  // namespace zel
