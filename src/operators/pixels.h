// Pixels of a run as row kernels see them: elements of one, two or four bytes at any alignment,
// and Boolean pixels through a frame's bit tables.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "access/frame.h"
#include "operators/walk.h"

namespace zel {

// Row kernels reach the pixels of a run through a cursor made once per run, so that its base
// stays in a register while the loop stores bytes.

// Elements of type T, at any alignment.
template <class T>
struct Elements {
  using Value = T;
  struct Cursor {
    uint8_t *base;
    T load(int64_t i) const {
      T value;
      std::memcpy(&value, base + i * int64_t{sizeof(T)}, sizeof(T));
      return value;
    }
    void store(int64_t i, T value) const {
      std::memcpy(base + i * int64_t{sizeof(T)}, &value, sizeof(T));
    }
  };
  Cursor at(const RowPosition &run) const { return {run.line + run.pixel * int64_t{sizeof(T)}}; }
};

using BytePixels = Elements<uint8_t>;
using SignedPixels = Elements<int16_t>;
using RealPixels = Elements<float>;

// Boolean pixel i of a run is bit i of the row counted through a frame's tables.
struct BitPixels {
  using Value = bool;
  const uint8_t *setTable;
  const uint8_t *clearTable;

  struct Cursor {
    uint8_t *line;
    int64_t first;
    const uint8_t *setTable;
    const uint8_t *clearTable;
    bool load(int64_t i) const {
      int64_t p = first + i;
      return (line[p >> 3] & setTable[p & 7]) != 0;
    }
    void store(int64_t i, bool value) const {
      int64_t p = first + i;
      uint8_t &byte = line[p >> 3];
      byte = value ? static_cast<uint8_t>(byte | setTable[p & 7])
                   : static_cast<uint8_t>(byte & clearTable[p & 7]);
    }
  };
  Cursor at(const RowPosition &run) const { return {run.line, run.pixel, setTable, clearTable}; }
};

// Operators see Boolean rows most significant bit first, whatever the object's bit order.
inline constexpr BitPixels operatorBits{msbSet, msbClear};

// The destination's pixel from the source's through `rule`. A rule of the form
// bool(value, Out::Value &result) may decline a pixel, which then keeps its value.
template <class In, class Out, class Rule>
struct MapRows {
  In in;
  Out out;
  Rule rule;
  void operator()(const RowPosition *rows, int64_t count) const {
    auto from = in.at(rows[0]);
    auto to = out.at(rows[1]);
    const Rule local = rule;  // a copy no byte store can be taken to change
    if constexpr (std::is_invocable_v<Rule, typename In::Value, typename Out::Value &>) {
      typename Out::Value result;
      for (int64_t i = 0; i < count; ++i)
        if (local(from.load(i), result)) to.store(i, result);
    } else {
      for (int64_t i = 0; i < count; ++i)
        to.store(i, local(from.load(i)));
    }
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
