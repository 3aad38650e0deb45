#include "codecs/kit.h"

#include <algorithm>
#include <cstring>

#include "kernel/context.h"

namespace zel::codec {

bool familyOf(int32_t compression, Family &family) noexcept {
  switch (compression) {
    case ZelFaxGroup3OneDimensional:
    case ZelFaxGroup3TwoDimensional:
    case ZelFaxGroup4:
    case ZelModifiedHuffman:
      family = Family::Fax;
      return true;
    case ZelJpeg:
      family = Family::Jpeg;
      return true;
    case ZelLzw:
      family = Family::Lzw;
      return true;
    case ZelPackBits:
      family = Family::PackBits;
      return true;
    case ZelKolLine:
      family = Family::KolLine;
      return true;
    case ZelBmpRunLength:
      family = Family::BmpRunLength;
      return true;
    case ZelPcxRunLength:
      family = Family::PcxRunLength;
      return true;
    case ZelPngDeflate:
      family = Family::PngDeflate;
      return true;
    default:
      return false;
  }
}

void reverseBits(uint8_t *bytes, int64_t count) noexcept {
  for (int64_t i = 0; i < count; ++i)
    bytes[i] = bitReversed[bytes[i]];
}

void realignBooleanLine(const uint8_t *line, int64_t bitOffset, int64_t pixels,
                        uint8_t *out) noexcept {
  const uint8_t *from = line + bitOffset / 8;
  int shift = static_cast<int>(bitOffset % 8);
  int64_t bytes = (pixels + 7) / 8;
  if (bytes == 0) return;
  if (shift == 0) {
    std::memcpy(out, from, static_cast<size_t>(bytes));
  } else {
    // The last output byte may need a source byte beyond the line's last pixel: read it only
    // when the pixels reach into it.
    int64_t sourceBytes = (shift + pixels + 7) / 8;
    for (int64_t i = 0; i < bytes; ++i) {
      unsigned high = from[i];
      unsigned low = i + 1 < sourceBytes ? from[i + 1] : 0u;
      out[i] = static_cast<uint8_t>((high << shift | low >> (8 - shift)) & 0xFF);
    }
  }
  if (int tail = static_cast<int>(pixels % 8))
    out[bytes - 1] = static_cast<uint8_t>(out[bytes - 1] & (0xFF00u >> tail));
}

void mergeBooleanLine(uint8_t *line, int64_t bitOffset, int64_t pixels,
                      const uint8_t *in) noexcept {
  for (int64_t i = 0; i < pixels; ++i) {
    int64_t p = bitOffset + i;
    auto mask = static_cast<uint8_t>(0x80u >> (p & 7));
    bool set = (in[i >> 3] & (0x80u >> (i & 7))) != 0;
    uint8_t &byte = line[p >> 3];
    byte = set ? static_cast<uint8_t>(byte | mask) : static_cast<uint8_t>(byte & ~mask);
  }
}

StagingBuffer::StagingBuffer(ZelContext *ctx, RepositoryStream *stream, int64_t capacity,
                             bool reverse) noexcept
    : ctx_(ctx),
      stream_(stream),
      block_(allocBytes(ctx, capacity)),
      capacity_(capacity),
      reverse_(reverse) {}

bool StagingBuffer::append(const uint8_t *bytes, int64_t count) noexcept {
  int64_t taken = std::min(count, capacity_ - fill_);
  if (taken > 0) std::memcpy(block_.get() + fill_, bytes, static_cast<size_t>(taken));
  fill_ += std::max<int64_t>(taken, 0);
  return taken == count;
}

bool StagingBuffer::flush() noexcept {
  if (fill_ == 0) return true;
  if (reverse_) reverseBits(block_.get(), fill_);
  if (writeBytes(ctx_, stream_, flushed_, block_.get(), fill_) != fill_) {
    if (reverse_) reverseBits(block_.get(), fill_);  // the buffer keeps what the codec put in
    return false;
  }
  flushed_ += fill_;
  fill_ = 0;
  return true;
}

void packNibbles(const uint8_t *pixels, int64_t count, uint8_t *out) noexcept {
  for (int64_t i = 0; i < count; i += 2) {
    unsigned high = pixels[i] & 0x0Fu;
    unsigned low = i + 1 < count ? pixels[i + 1] & 0x0Fu : 0u;
    out[i / 2] = static_cast<uint8_t>(high << 4 | low);
  }
}

void unpackNibbles(const uint8_t *packed, int64_t count, uint8_t *pixels) noexcept {
  for (int64_t i = 0; i < count; ++i)
    pixels[i] = static_cast<uint8_t>(i % 2 == 0 ? packed[i / 2] >> 4 : packed[i / 2] & 0x0F);
}

void interleaveBgr(const uint8_t *const planes[3], int64_t count, uint8_t *out) noexcept {
  for (int64_t i = 0; i < count; ++i) {
    out[3 * i] = planes[2][i];
    out[3 * i + 1] = planes[1][i];
    out[3 * i + 2] = planes[0][i];
  }
}

void deinterleaveBgr(const uint8_t *in, int64_t count, uint8_t *const planes[3]) noexcept {
  for (int64_t i = 0; i < count; ++i) {
    planes[2][i] = in[3 * i];
    planes[1][i] = in[3 * i + 1];
    planes[0][i] = in[3 * i + 2];
  }
}

int integerAttribute(ZelContext *ctx, ZelObject *object, const char *name,
                     int32_t &value) noexcept {
  ZelValue word = 0;
  const ZelAttribute request[] = {{name, reinterpret_cast<ZelValue>(&word)}};
  if (int code = Zel005(ctx, object, request, 1)) return code;
  value = static_cast<int32_t>(word);
  return 0;
}

}  // namespace zel::codec
