// What every codec shares: Boolean lines realigned to a byte boundary and merged back at their
// bit offset, a fixed staging buffer flushed through the byte access of a stream, the bit
// reversal of least-significant-first streams, and the row layout of device-independent bitmaps.
#pragma once

#include <array>
#include <cstdint>

#include "access/repository.h"
#include "kernel/memory.h"
#include "zel.h"

namespace zel::codec {

// The codec families that a compressed object's "compression" names.
enum class Family { Fax, Jpeg, Lzw, PackBits, KolLine, BmpRunLength, PcxRunLength, PngDeflate };

// The family of a compression value, or false for a value outside the table.
bool familyOf(int32_t compression, Family &family) noexcept;

// Each byte with its bits in the opposite order.
inline constexpr std::array<uint8_t, 256> bitReversed = [] {
  std::array<uint8_t, 256> table{};
  for (int v = 0; v < 256; ++v) {
    int r = 0;
    for (int bit = 0; bit < 8; ++bit)
      r |= ((v >> bit) & 1) << (7 - bit);
    table[v] = static_cast<uint8_t>(r);
  }
  return table;
}();

void reverseBits(uint8_t *bytes, int64_t count) noexcept;

// `pixels` bits of `line` from bit `bitOffset` on (most significant bit first) into `out` from
// its first bit, the bits past the last pixel of the last byte cleared. `out` holds
// (pixels + 7) / 8 bytes.
void realignBooleanLine(const uint8_t *line, int64_t bitOffset, int64_t pixels,
                        uint8_t *out) noexcept;

// The reverse: `pixels` bits of `in` into `line` from bit `bitOffset` on; the other bits of the
// bytes they share stay.
void mergeBooleanLine(uint8_t *line, int64_t bitOffset, int64_t pixels, const uint8_t *in) noexcept;

// Output of a codec: a block of fixed size filled by the codec and written by `writeBytes` at a
// running offset, bit-reversed on the way out when the stream is least significant bit first.
class StagingBuffer {
 public:
  StagingBuffer(ZelContext *ctx, RepositoryStream *stream, int64_t capacity, bool reverse) noexcept;
  StagingBuffer(const StagingBuffer &) = delete;
  StagingBuffer &operator=(const StagingBuffer &) = delete;

  bool valid() const { return block_ != nullptr; }
  uint8_t *data() { return block_.get(); }
  int64_t capacity() const { return capacity_; }
  int64_t fill() const { return fill_; }
  void setFill(int64_t fill) { fill_ = fill; }
  int64_t flushedBytes() const { return flushed_; }

  // Appends what fits before the capacity; false when bytes had to be left out.
  bool append(const uint8_t *bytes, int64_t count) noexcept;

  // Writes the filled part and starts over at the start; false after reporting.
  bool flush() noexcept;

 private:
  ZelContext *ctx_;
  RepositoryStream *stream_;
  Block<uint8_t> block_;
  int64_t capacity_;
  int64_t fill_ = 0;
  int64_t flushed_ = 0;
  bool reverse_;
};

// The device-independent layout: rows bottom up, 4-bit pixels two to a byte, three bands
// interleaved blue, green, red.
inline int64_t bottomUpLine(int64_t row, int64_t rows) {
  return rows - 1 - row;
}
inline int64_t packedNibbleBytes(int64_t pixels) {
  return (pixels + 1) / 2;
}
void packNibbles(const uint8_t *pixels, int64_t count, uint8_t *out) noexcept;
void unpackNibbles(const uint8_t *packed, int64_t count, uint8_t *pixels) noexcept;
// `planes` are red, green and blue rows of `count` bytes; `out` takes 3 * count bytes.
void interleaveBgr(const uint8_t *const planes[3], int64_t count, uint8_t *out) noexcept;
void deinterleaveBgr(const uint8_t *in, int64_t count, uint8_t *const planes[3]) noexcept;

// An integer attribute of a live object; 0 or the code.
int integerAttribute(ZelContext *ctx, ZelObject *object, const char *name, int32_t &value) noexcept;

}  // namespace zel::codec
