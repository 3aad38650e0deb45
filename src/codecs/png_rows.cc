#include "codecs/png_rows.h"

#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "codecs/kit.h"
#include "kernel/context.h"
#include "kernel/format_extensions.h"
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "operators/pixels.h"

namespace zel::codec {
namespace {

constexpr int64_t zlibBufferBytes = 8192;

// Deflate never expands more than 1032 to 1; a stream shorter than its rows need by that
// measure can't hold them, whatever its header says.
constexpr int64_t largestInflation = 1032;

// ---- Filters -------------------------------------------------------------------------------

enum FilterType : uint8_t { None, Sub, Up, Average, Paeth };

uint64_t scoreOf(const uint8_t *v, int64_t n) {
  uint64_t sum = 0;
  for (int64_t i = 0; i < n; ++i) {
    unsigned b = v[i];
    sum += b < 128 ? b : 256 - b;
  }
  return sum;
}

inline int paethPredictor(int a, int b, int c) {
  int p = a + b - c;
  int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  if (pa <= pb && pa <= pc) return a;
  return pb <= pc ? b : c;
}

inline uint8_t low8(int v) {
  return static_cast<uint8_t>(v & 0xFF);
}

void subRow(const uint8_t *v, int64_t n, int bpp, uint8_t *out) {
  int64_t head = std::min<int64_t>(bpp, n);
  std::memcpy(out, v, static_cast<size_t>(head));
  for (int64_t i = head; i < n; ++i)
    out[i] = low8(v[i] - v[i - bpp]);
}

void upRow(const uint8_t *v, const uint8_t *prior, int64_t n, uint8_t *out) {
  for (int64_t i = 0; i < n; ++i)
    out[i] = low8(v[i] - prior[i]);
}

void averageRow(const uint8_t *v, const uint8_t *prior, int64_t n, int bpp, uint8_t *out) {
  int64_t head = std::min<int64_t>(bpp, n);
  for (int64_t i = 0; i < head; ++i)
    out[i] = low8(v[i] - (prior[i] >> 1));
  for (int64_t i = head; i < n; ++i)
    out[i] = low8(v[i] - ((v[i - bpp] + prior[i]) >> 1));
}

void paethRow(const uint8_t *v, const uint8_t *prior, int64_t n, int bpp, uint8_t *out) {
  int64_t head = std::min<int64_t>(bpp, n);
  for (int64_t i = 0; i < head; ++i)
    out[i] = low8(v[i] - prior[i]);
  for (int64_t i = head; i < n; ++i)
    out[i] = low8(v[i] - paethPredictor(v[i - bpp], prior[i], prior[i - bpp]));
}

// Undoes the filter of row[1..n] in place; false for a type the format doesn't have.
bool unfilterRow(uint8_t *row, const uint8_t *prior, int64_t n, int bpp) {
  uint8_t *v = row + 1;
  int64_t head = std::min<int64_t>(bpp, n);
  switch (row[0]) {
    case None:
      return true;
    case Sub:
      for (int64_t i = head; i < n; ++i)
        v[i] = low8(v[i] + v[i - bpp]);
      return true;
    case Up:
      for (int64_t i = 0; i < n; ++i)
        v[i] = low8(v[i] + prior[i]);
      return true;
    case Average:
      for (int64_t i = 0; i < head; ++i)
        v[i] = low8(v[i] + (prior[i] >> 1));
      for (int64_t i = head; i < n; ++i)
        v[i] = low8(v[i] + ((v[i - bpp] + prior[i]) >> 1));
      return true;
    case Paeth:
      for (int64_t i = 0; i < head; ++i)
        v[i] = low8(v[i] + prior[i]);
      for (int64_t i = head; i < n; ++i)
        v[i] = low8(v[i] + paethPredictor(v[i - bpp], prior[i], prior[i - bpp]));
      return true;
    default:
      return false;
  }
}

// ---- Packed rows ---------------------------------------------------------------------------

// Pixel `from` of one packed row to pixel `to` of another, for depths 1, 2, 4 or whole bytes.
inline void copyPixel(const uint8_t *source, int64_t from, uint8_t *target, int64_t to,
                      int pixelDepth) {
  if (pixelDepth >= 8) {
    int bytes = pixelDepth / 8;
    std::memcpy(target + to * bytes, source + from * bytes, static_cast<size_t>(bytes));
    return;
  }
  unsigned mask = (1u << pixelDepth) - 1;
  int64_t fromBit = from * pixelDepth, toBit = to * pixelDepth;
  unsigned value = (source[fromBit >> 3] >> (8 - pixelDepth - (fromBit & 7))) & mask;
  int shift = static_cast<int>(8 - pixelDepth - (toBit & 7));
  uint8_t &byte = target[toBit >> 3];
  byte = static_cast<uint8_t>((byte & ~(mask << shift)) | value << shift);
}

// One band line of `Element` samples into its place in a packed row (cleared before), and back.
template <class Element>
void scatterBand(const uint8_t *line, int64_t pixels, int band, const RowLayout &layout,
                 uint8_t *row) {
  Elements<Element> elements;
  auto in = elements.at({const_cast<uint8_t *>(line), 0});
  int depth = layout.bitDepth, channels = layout.channels;
  if (depth == 16) {
    for (int64_t x = 0; x < pixels; ++x) {
      unsigned v = in.load(x);
      uint8_t *sample = row + 2 * (x * channels + band);
      sample[0] = static_cast<uint8_t>(v >> 8 & 0xFF);
      sample[1] = static_cast<uint8_t>(v & 0xFF);
    }
  } else if (depth == 8) {
    for (int64_t x = 0; x < pixels; ++x)
      row[x * channels + band] = static_cast<uint8_t>(in.load(x) & 0xFF);
  } else {
    unsigned mask = (1u << depth) - 1;
    for (int64_t x = 0; x < pixels; ++x) {
      int64_t bit = x * depth;
      row[bit >> 3] |= static_cast<uint8_t>((in.load(x) & mask) << (8 - depth - (bit & 7)));
    }
  }
}

template <class Element>
void gatherBand(const uint8_t *row, int64_t pixels, int band, const RowLayout &layout,
                uint8_t *line) {
  Elements<Element> elements;
  auto out = elements.at({line, 0});
  int depth = layout.bitDepth, channels = layout.channels;
  if (depth == 16) {
    for (int64_t x = 0; x < pixels; ++x) {
      const uint8_t *sample = row + 2 * (x * channels + band);
      out.store(x, static_cast<Element>(sample[0] << 8 | sample[1]));
    }
  } else if (depth == 8) {
    for (int64_t x = 0; x < pixels; ++x)
      out.store(x, row[x * channels + band]);
  } else {
    unsigned mask = (1u << depth) - 1;
    for (int64_t x = 0; x < pixels; ++x) {
      int64_t bit = x * depth;
      out.store(x, static_cast<Element>(row[bit >> 3] >> (8 - depth - (bit & 7)) & mask));
    }
  }
}

bool mostSignificantFirst(const AccessFrame &image) {
  return image.bitSetTable == nullptr || image.bitSetTable[0] == 0x80;
}

// Bit masks of pixel x of a coded row in its bit order.
struct RowBits {
  bool msb;
  unsigned operator()(int64_t x) const { return msb ? 0x80u >> (x & 7) : 1u << (x & 7); }
};

// The bits of a Boolean line in the order of the coded row, and back.
void bitsToRow(const AccessFrame &image, const uint8_t *line, int64_t bitOffset, int64_t pixels,
               int32_t rowOrder, uint8_t *row) {
  const RowBits mask{rowOrder != ZelLeastSignificantFirst};
  if (mostSignificantFirst(image) && mask.msb) {
    realignBooleanLine(line, bitOffset, pixels, row);
    return;
  }
  auto in = bitPixelsOf(image).at({const_cast<uint8_t *>(line), bitOffset});
  for (int64_t x = 0; x < pixels; ++x)
    if (in.load(x)) row[x >> 3] |= static_cast<uint8_t>(mask(x));
}

void rowToBits(const AccessFrame &image, const uint8_t *row, int64_t pixels, int32_t rowOrder,
               uint8_t *line, int64_t bitOffset) {
  const RowBits mask{rowOrder != ZelLeastSignificantFirst};
  if (mostSignificantFirst(image) && mask.msb) {
    mergeBooleanLine(line, bitOffset, pixels, row);
    return;
  }
  auto out = bitPixelsOf(image).at({line, bitOffset});
  for (int64_t x = 0; x < pixels; ++x)
    out.store(x, (row[x >> 3] & mask(x)) != 0);
}

// How the image's pixels meet the coded samples.
enum class Kind { Bits, Bytes, Words };

// The kind, or false when the image's pixels can't be coded at the layout's depth.
bool kindOf(const AccessFrame &image, const RowLayout &layout, Kind &kind) {
  int bits = image.stream->bitsPerPixel;
  int depth = layout.bitDepth;
  bool oneChannel = layout.channels == 1;
  if (image.dataType == ZelBoolean && bits == 1 && depth == 1 && oneChannel)
    kind = Kind::Bits;
  else if (image.dataType == ZelNonNegative && bits == 8 &&
           (depth == 8 || (oneChannel && (depth == 1 || depth == 2 || depth == 4))))
    kind = Kind::Bytes;
  else if (image.dataType == ZelNonNegative && bits == 16 && depth == 16)
    kind = Kind::Words;
  else
    return false;
  return layout.channels >= 1 && layout.channels <= 4;
}

// Whole rows of the image, where it has them, packed as the layout codes them.
class RowPacker {
 public:
  RowPacker(ZelContext *ctx, AccessFrame &image, const RowLayout &layout, Kind kind,
            int32_t rowOrder)
      : ctx_(ctx), image_(image), layout_(layout), kind_(kind), rowOrder_(rowOrder) {}

  // Row y of plane (z, t) into `row`, which holds zeros; 0 or the code.
  int pack(int64_t y, int64_t z, int64_t t, uint8_t *row) const {
    const int32_t *d = image_.dimension;
    if (y >= d[AxisY] || z >= d[AxisZ] || t >= d[AxisT]) return 0;
    int64_t pixels = std::min<int64_t>(d[AxisX], layout_.width);
    for (int band = 0; band < layout_.channels; ++band) {
      int64_t offset = lineOffset(image_, y, z, t, band);
      const uint8_t *line = readLine(ctx_, image_.stream, offset);
      if (!line) return Zel003b(ctx_);
      if (kind_ == Kind::Bits)
        bitsToRow(image_, line, offset % 8, pixels, rowOrder_, row);
      else if (kind_ == Kind::Bytes && layout_.channels == 1 && layout_.bitDepth == 8)
        std::memcpy(row, line, static_cast<size_t>(pixels));
      else if (kind_ == Kind::Bytes)
        scatterBand<uint8_t>(line, pixels, band, layout_, row);
      else
        scatterBand<uint16_t>(line, pixels, band, layout_, row);
    }
    return 0;
  }

 private:
  ZelContext *ctx_;
  AccessFrame &image_;
  const RowLayout &layout_;
  Kind kind_;
  int32_t rowOrder_;
};

// ---- Deflating ----------------------------------------------------------------------------

// The writing half of the scanline coder: filter choice, then deflate into the sink.
class RowEncoder {
 public:
  RowEncoder(ZelContext *ctx, const RowLayout &layout, const DeflateOptions &options,
             DeflateSink &sink)
      : ctx_(ctx), layout_(layout), options_(options), sink_(sink) {}
  RowEncoder(const RowEncoder &) = delete;
  RowEncoder &operator=(const RowEncoder &) = delete;
  ~RowEncoder() {
    if (open_) deflateEnd(&zlib_);
  }

  int start() {
    int64_t bytes = layout_.rowBytes(layout_.width) + 1;
    int set = options_.filterSet;
    row_ = allocBytes(ctx_, bytes);
    output_ = allocBytes(ctx_, zlibBufferBytes);
    bool ok = row_ && output_;
    if (set > noneFilterOnly) ok = ok && (previous_ = allocBytes(ctx_, bytes));
    if (set & 16) ok = ok && (candidates_[Sub] = allocBytes(ctx_, bytes));
    if (set & 32) ok = ok && (candidates_[Up] = allocBytes(ctx_, bytes));
    if (set & 64) ok = ok && (candidates_[Average] = allocBytes(ctx_, bytes));
    if (set & 128) ok = ok && (candidates_[Paeth] = allocBytes(ctx_, bytes));
    if (!ok) return -1;
    for (int type = Sub; type <= Paeth; ++type)
      if (candidates_[type]) candidates_[type].get()[0] = static_cast<uint8_t>(type);
    int result = deflateInit2(&zlib_, options_.level, Z_DEFLATED, 15, 8, options_.strategy);
    if (result == Z_MEM_ERROR) return refuse(ctx_, -1);
    if (result != Z_OK) return refuse(ctx_, 22);
    open_ = true;
    resetOutput();
    return 0;
  }

  // Where the caller packs the next row, cleared.
  uint8_t *row(int64_t bytes) {
    std::memset(row_.get() + 1, 0, static_cast<size_t>(bytes));
    return row_.get() + 1;
  }

  // Filters the `bytes` bytes of the row and deflates the result.
  int put(int64_t bytes) {
    const uint8_t *chosen = choose(bytes);
    if (int code = feed(chosen, bytes + 1, Z_NO_FLUSH)) return code;
    if (previous_) std::swap(row_, previous_);
    return 0;
  }

  // The first row of a pass has a prior row of zeros.
  void newPass() {
    if (previous_)
      std::memset(previous_.get(), 0, static_cast<size_t>(layout_.rowBytes(layout_.width) + 1));
  }

  // Ends the zlib stream, sends the rest and makes the coder ready for another.
  int finish() {
    if (int code = feed(nullptr, 0, Z_FINISH)) return code;
    if (int code = sendOutput()) return code;
    deflateReset(&zlib_);
    newPass();
    return 0;
  }

 private:
  const uint8_t *choose(int64_t n) {
    uint8_t *raw = row_.get();
    raw[0] = None;
    int set = options_.filterSet;
    if (set == noneFilterOnly) return raw;
    int bpp = (layout_.pixelDepth() + 7) / 8;
    const uint8_t *v = raw + 1, *prior = previous_.get() + 1;
    const uint8_t *best = raw;
    uint64_t bestScore = (set & 8) ? scoreOf(v, n) : UINT64_MAX;
    auto consider = [&](FilterType type) {
      uint64_t score = scoreOf(candidates_[type].get() + 1, n);
      if (score < bestScore) {
        bestScore = score;
        best = candidates_[type].get();
      }
    };
    if (set & 16) {
      subRow(v, n, bpp, candidates_[Sub].get() + 1);
      consider(Sub);
    }
    if (set & 32) {
      upRow(v, prior, n, candidates_[Up].get() + 1);
      consider(Up);
    }
    if (set & 64) {
      averageRow(v, prior, n, bpp, candidates_[Average].get() + 1);
      consider(Average);
    }
    if (set & 128) {
      paethRow(v, prior, n, bpp, candidates_[Paeth].get() + 1);
      consider(Paeth);
    }
    return best;
  }

  void resetOutput() {
    zlib_.next_out = output_.get();
    zlib_.avail_out = static_cast<uInt>(zlibBufferBytes);
  }

  int sendOutput() {
    int64_t filled = zlibBufferBytes - zlib_.avail_out;
    if (filled > 0)
      if (int code = sink_.send(output_.get(), filled)) return code;
    resetOutput();
    return 0;
  }

  // Deflates `count` bytes; with Z_FINISH until the stream's end is out. Full buffers are sent.
  int feed(const uint8_t *bytes, int64_t count, int flush) {
    zlib_.next_in = const_cast<Bytef *>(bytes);
    zlib_.avail_in = static_cast<uInt>(count);
    for (;;) {
      int result = deflate(&zlib_, flush);
      bool idle = result == Z_BUF_ERROR && zlib_.avail_in == 0 && flush == Z_NO_FLUSH;
      if (result != Z_OK && result != Z_STREAM_END && !idle) return refuse(ctx_, 22);
      if (zlib_.avail_out == 0) {
        if (int code = sendOutput()) return code;
        continue;
      }
      if (flush == Z_FINISH ? result == Z_STREAM_END : zlib_.avail_in == 0) return 0;
    }
  }

  ZelContext *ctx_;
  const RowLayout &layout_;
  DeflateOptions options_;
  DeflateSink &sink_;
  z_stream zlib_{};
  bool open_ = false;
  Block<uint8_t> row_, previous_, output_;
  Block<uint8_t> candidates_[5];
};

// Pixels of pass `pass` of a packed full row, side by side.
void takePass(const uint8_t *full, const Pass &pass, int64_t passWidth, int pixelDepth,
              uint8_t *out) {
  for (int64_t j = 0; j < passWidth; ++j)
    copyPixel(full, pass.colStart + j * pass.colStep, out, j, pixelDepth);
}

// ---- Inflating ----------------------------------------------------------------------------

// The reading half: rows of inflated bytes from a compressed stream of known length.
class RowDecoder {
 public:
  RowDecoder(ZelContext *ctx, RepositoryStream *source, int64_t size)
      : ctx_(ctx), source_(source), remaining_(std::max<int64_t>(size, 0)) {}
  RowDecoder(const RowDecoder &) = delete;
  RowDecoder &operator=(const RowDecoder &) = delete;
  ~RowDecoder() {
    if (open_) inflateEnd(&zlib_);
  }

  int start() {
    input_ = allocBytes(ctx_, zlibBufferBytes);
    if (!input_) return -1;
    int result = inflateInit(&zlib_);
    if (result == Z_MEM_ERROR) return refuse(ctx_, -1);
    if (result != Z_OK) return refuse(ctx_, 22);
    open_ = true;
    return 0;
  }

  // Exactly `count` bytes of the stream into `out`.
  int read(uint8_t *out, int64_t count) {
    if (ended_) return refuse(ctx_, 22);
    zlib_.next_out = out;
    zlib_.avail_out = static_cast<uInt>(count);
    while (zlib_.avail_out > 0) {
      if (int code = refill()) return code;
      int result = inflate(&zlib_, Z_PARTIAL_FLUSH);
      if (result == Z_STREAM_END) {
        ended_ = true;
        return zlib_.avail_out == 0 ? 0 : refuse(ctx_, 22);
      }
      if (result != Z_OK) return refuse(ctx_, 22);
    }
    return 0;
  }

  // After the last row of a plane the zlib stream must end, with no byte of output left. The
  // last plane must use up all input; another plane starts a new stream on what is left.
  int endPlane(bool last) {
    uint8_t spare;
    while (!ended_) {
      zlib_.next_out = &spare;
      zlib_.avail_out = 1;
      if (int code = refill()) return code;
      int result = inflate(&zlib_, Z_PARTIAL_FLUSH);
      if (zlib_.avail_out == 0 || (result != Z_OK && result != Z_STREAM_END))
        return refuse(ctx_, 22);
      ended_ = result == Z_STREAM_END;
    }
    if (last) return zlib_.avail_in == 0 && remaining_ == 0 ? 0 : refuse(ctx_, 22);
    ended_ = false;
    return inflateReset(&zlib_) == Z_OK ? 0 : refuse(ctx_, 22);
  }

 private:
  // More input when zlib has none; a stream that ends before its data is 22.
  int refill() {
    if (zlib_.avail_in > 0) return 0;
    if (remaining_ == 0) return refuse(ctx_, 22);
    int64_t count = std::min(zlibBufferBytes, remaining_);
    if (readBytes(ctx_, source_, offset_, input_.get(), count) != count) return Zel003b(ctx_);
    offset_ += count;
    remaining_ -= count;
    zlib_.next_in = input_.get();
    zlib_.avail_in = static_cast<uInt>(count);
    return 0;
  }

  ZelContext *ctx_;
  RepositoryStream *source_;
  int64_t remaining_;
  int64_t offset_ = 0;
  z_stream zlib_{};
  bool open_ = false;
  bool ended_ = false;
  Block<uint8_t> input_;
};

// Bytes of all rows of all passes of one plane, with their filter bytes; false on overflow.
bool planeStreamBytes(const RowLayout &layout, int64_t &total) {
  total = 0;
  int passes = layout.interlaced ? 7 : 1;
  for (int p = 0; p < passes; ++p) {
    const Pass &pass = layout.interlaced ? adam7[p] : Pass{0, 1, 0, 1};
    int64_t width = passExtent(layout.width, pass.colStart, pass.colStep);
    int64_t rows = passExtent(layout.height, pass.rowStart, pass.rowStep);
    if (width == 0 || rows == 0) continue;
    int64_t rowBits = 0, passBytes = 0;
    if (__builtin_mul_overflow(width, int64_t{layout.pixelDepth()}, &rowBits) ||
        __builtin_mul_overflow((rowBits + 7) / 8 + 1, rows, &passBytes) ||
        __builtin_add_overflow(total, passBytes, &total))
      return false;
  }
  return true;
}

// Block sizes of the passes when the picture is built up pass by pass.
constexpr int blockWidth[7] = {8, 4, 4, 2, 2, 1, 1};
constexpr int blockHeight[7] = {8, 8, 4, 4, 2, 2, 1};

// The image's side of expansion: decoded full rows into its lines.
class RowUnpacker {
 public:
  RowUnpacker(ZelContext *ctx, AccessFrame &image, const RowLayout &layout, Kind kind,
              int32_t rowOrder, bool bmp)
      : ctx_(ctx), image_(image), layout_(layout), kind_(kind), rowOrder_(rowOrder), bmp_(bmp) {}

  int unpack(const uint8_t *row, int64_t y, int64_t z, int64_t t) const {
    const int32_t *d = image_.dimension;
    if (y >= d[AxisY] || z >= d[AxisZ] || t >= d[AxisT]) return 0;
    int64_t lineY = bmp_ ? bottomUpLine(y, d[AxisY]) : y;
    int64_t pixels = std::min<int64_t>(d[AxisX], layout_.width);
    if (bmp_ && kind_ == Kind::Bytes && (layout_.bitDepth == 4 || layout_.channels == 3))
      return unpackBmpLine(row, lineY, z, t, pixels);
    int bands = std::min<int>(layout_.channels, d[AxisB]);
    for (int band = 0; band < bands; ++band) {
      int64_t offset = lineOffset(image_, lineY, z, t, band);
      uint8_t *line = lineForUpdate(ctx_, image_.stream, offset);
      if (!line) return Zel003b(ctx_);
      if (kind_ == Kind::Bits)
        rowToBits(image_, row, pixels, rowOrder_, line, offset % 8);
      else if (kind_ == Kind::Bytes && layout_.channels == 1 && layout_.bitDepth == 8)
        std::memcpy(line, row, static_cast<size_t>(pixels));
      else if (kind_ == Kind::Bytes)
        gatherBand<uint8_t>(row, pixels, band, layout_, line);
      else
        gatherBand<uint16_t>(row, pixels, band, layout_, line);
      if (!writeLine(ctx_, image_.stream, offset)) return Zel003b(ctx_);
    }
    return 0;
  }

 private:
  // The device-independent layout: 4-bit pixels stay packed, three bands go blue, green, red
  // into the one line, as far as the line reaches.
  int unpackBmpLine(const uint8_t *row, int64_t lineY, int64_t z, int64_t t, int64_t pixels) const {
    int64_t offset = lineOffset(image_, lineY, z, t, 0);
    uint8_t *line = lineForUpdate(ctx_, image_.stream, offset);
    if (!line) return Zel003b(ctx_);
    int64_t room = image_.stream->lineBytes;
    if (layout_.bitDepth == 4) {
      std::memcpy(line, row, static_cast<size_t>(std::min(packedNibbleBytes(pixels), room)));
    } else {
      int64_t count = std::min(layout_.width, room / 3);
      for (int64_t x = 0; x < count; ++x) {
        line[3 * x] = row[3 * x + 2];
        line[3 * x + 1] = row[3 * x + 1];
        line[3 * x + 2] = row[3 * x];
      }
    }
    return writeLine(ctx_, image_.stream, offset) ? 0 : Zel003b(ctx_);
  }

  ZelContext *ctx_;
  AccessFrame &image_;
  const RowLayout &layout_;
  Kind kind_;
  int32_t rowOrder_;
  bool bmp_;
};

// Reads the rows of one plane and hands them to the image.
class PlaneReader {
 public:
  PlaneReader(ZelContext *ctx, const RowLayout &layout, RowDecoder &decoder,
              const RowUnpacker &unpacker)
      : ctx_(ctx), layout_(layout), decoder_(decoder), unpacker_(unpacker) {}

  int setUp() {
    rowBytes_ = layout_.rowBytes(layout_.width);
    row_ = allocBytes(ctx_, rowBytes_ + 1);
    previous_ = allocBytes(ctx_, rowBytes_ + 1);
    if (!row_ || !previous_) return -1;
    if (layout_.interlaced) {
      work_ = Block<uint8_t>(static_cast<uint8_t *>(allocZeroedArray(
          ctx_, static_cast<size_t>(layout_.height), static_cast<size_t>(rowBytes_))));
      if (!work_) return -1;
    }
    return 0;
  }

  int plain(int64_t z, int64_t t) {
    std::memset(previous_.get(), 0, static_cast<size_t>(rowBytes_ + 1));
    for (int64_t y = 0; y < layout_.height; ++y) {
      if (int code = nextRow(rowBytes_)) return code;
      if (int code = unpacker_.unpack(current(), y, z, t)) return code;
    }
    return 0;
  }

  // Passes 0 to `lastPass`; with `blocks` each pixel also fills the block it stands for until
  // later passes come, as a picture built up pass by pass shows it.
  int interlaced(int64_t z, int64_t t, int lastPass, bool blocks) {
    std::memset(work_.get(), 0, static_cast<size_t>(layout_.height * rowBytes_));
    int depth = layout_.pixelDepth();
    for (int p = 0; p <= lastPass; ++p) {
      const Pass &pass = adam7[p];
      int64_t width = passExtent(layout_.width, pass.colStart, pass.colStep);
      int64_t rows = passExtent(layout_.height, pass.rowStart, pass.rowStep);
      if (width == 0 || rows == 0) continue;
      std::memset(previous_.get(), 0, static_cast<size_t>(rowBytes_ + 1));
      for (int64_t k = 0; k < rows; ++k) {
        if (int code = nextRow(layout_.rowBytes(width))) return code;
        int64_t y = pass.rowStart + k * pass.rowStep;
        int64_t spanX = blocks ? blockWidth[p] : 1;
        int64_t lastY = blocks ? std::min<int64_t>(y + blockHeight[p], layout_.height) : y + 1;
        for (int64_t fill = y; fill < lastY; ++fill) {
          uint8_t *line = work_.get() + fill * rowBytes_;
          for (int64_t j = 0; j < width; ++j) {
            int64_t x = pass.colStart + j * pass.colStep;
            for (int64_t c = x; c < std::min(x + spanX, layout_.width); ++c)
              copyPixel(current(), j, line, c, depth);
          }
        }
      }
    }
    for (int64_t y = 0; y < layout_.height; ++y)
      if (int code = unpacker_.unpack(work_.get() + y * rowBytes_, y, z, t)) return code;
    return 0;
  }

 private:
  // The next row of `bytes` bytes behind its filter byte, unfiltered against the one before;
  // the two rows change places, so that the new one is the prior of the next.
  int nextRow(int64_t bytes) {
    if (int code = decoder_.read(row_.get(), bytes + 1)) return code;
    int bpp = (layout_.pixelDepth() + 7) / 8;
    if (!unfilterRow(row_.get(), previous_.get() + 1, bytes, bpp)) return refuse(ctx_, 22);
    std::swap(row_, previous_);
    return 0;
  }

  // The row that nextRow gave last.
  const uint8_t *current() const { return previous_.get() + 1; }

  ZelContext *ctx_;
  const RowLayout &layout_;
  RowDecoder &decoder_;
  const RowUnpacker &unpacker_;
  int64_t rowBytes_ = 0;
  Block<uint8_t> row_, previous_, work_;
};

// Writes to a bare stream at a running offset.
class BareStreamSink final : public DeflateSink {
 public:
  BareStreamSink(ZelContext *ctx, RepositoryStream *stream) : ctx_(ctx), stream_(stream) {}
  int send(const uint8_t *bytes, int64_t count) noexcept override {
    if (writeBytes(ctx_, stream_, offset_, bytes, count) != count) return Zel003b(ctx_);
    offset_ += count;
    return 0;
  }
  int64_t offset() const { return offset_; }

 private:
  ZelContext *ctx_;
  RepositoryStream *stream_;
  int64_t offset_ = 0;
};

bool validDepth(const RowLayout &layout) {
  int d = layout.bitDepth;
  bool known = d == 1 || d == 2 || d == 4 || d == 8 || d == 16;
  return known && layout.channels >= 1 && layout.channels <= 4 && (layout.channels == 1 || d >= 8);
}

// The layout of a compressed object: its frame's dimensions, precision and bands.
RowLayout layoutOf(const AccessFrame &compressed) {
  RowLayout layout;
  layout.width = compressed.dimension[AxisX];
  layout.height = compressed.dimension[AxisY];
  layout.bitDepth = compressed.dataPrecision;
  layout.channels = compressed.dimension[AxisB];
  return layout;
}

// Interlacing and the colour type of a compressed object that comes from a PNG file.
bool interlacedPng(const ZelObject *compressed) {
  if (compressed->fileFormat != ZelPng || !compressed->formatExtension) return false;
  return static_cast<const PngRecord *>(compressed->formatExtension)->interlacedImage == 1;
}

int expandPlanes(ZelContext *ctx, AccessFrame &in, AccessFrame &out, const RowLayout &layout,
                 int lastPass, bool blocks) {
  Kind kind;
  if (!validDepth(layout) || !kindOf(out, layout, kind)) return refuse(ctx, 10);
  int64_t planes = int64_t{in.dimension[AxisZ]} * in.dimension[AxisT];
  if (!streamCanHold(layout, planes, in.object->size)) return refuse(ctx, 22);
  RowDecoder decoder(ctx, in.stream, in.object->size);
  RowUnpacker unpacker(ctx, out, layout, kind, in.bitOrder,
                       out.object->pixelInterpretation == ZelBmp);
  PlaneReader reader(ctx, layout, decoder, unpacker);
  if (int code = decoder.start()) return code;
  if (int code = reader.setUp()) return code;
  for (int64_t t = 0; t < in.dimension[AxisT]; ++t)
    for (int64_t z = 0; z < in.dimension[AxisZ]; ++z) {
      int code = layout.interlaced ? reader.interlaced(z, t, lastPass, blocks) : reader.plain(z, t);
      bool last = t + 1 == in.dimension[AxisT] && z + 1 == in.dimension[AxisZ];
      // A picture stopped after an early pass leaves the rest of the stream unread.
      if (code == 0 && !(layout.interlaced && lastPass < 6)) code = decoder.endPlane(last);
      if (code) return code;
    }
  return 0;
}

// The kind of an image that the layout's rows can be made of, with all the bands they take.
bool writableKind(const AccessFrame &image, const RowLayout &layout, Kind &kind) {
  return validDepth(layout) && kindOf(image, layout, kind) &&
         image.dimension[AxisB] >= layout.channels;
}

// All passes of one plane through the encoder; rows of Adam7 passes are taken from full rows.
int writePlane(RowEncoder &encoder, const RowPacker &packer, uint8_t *full, const RowLayout &layout,
               int passes, int64_t z, int64_t t) {
  for (int p = 0; p < passes; ++p) {
    const Pass pass = layout.interlaced ? adam7[p] : Pass{0, 1, 0, 1};
    int64_t width = passExtent(layout.width, pass.colStart, pass.colStep);
    int64_t rows = passExtent(layout.height, pass.rowStart, pass.rowStep);
    if (width == 0 || rows == 0) continue;
    encoder.newPass();
    int64_t bytes = layout.rowBytes(width);
    for (int64_t k = 0; k < rows; ++k) {
      int64_t y = pass.rowStart + k * pass.rowStep;
      uint8_t *row = encoder.row(bytes);
      uint8_t *target = layout.interlaced ? full : row;
      if (layout.interlaced)
        std::memset(target, 0, static_cast<size_t>(layout.rowBytes(layout.width)));
      if (int code = packer.pack(y, z, t, target)) return code;
      if (layout.interlaced) takePass(target, pass, width, layout.pixelDepth(), row);
      if (int code = encoder.put(bytes)) return code;
    }
  }
  return 0;
}

}  // namespace

bool streamCanHold(const RowLayout &layout, int64_t planes, int64_t size) noexcept {
  int64_t planeBytes = 0, limit = 0;
  return planeStreamBytes(layout, planeBytes) &&
         !__builtin_mul_overflow(std::max<int64_t>(size, 0) + 1, largestInflation, &limit) &&
         planeBytes <= limit / std::max<int64_t>(planes, 1);
}

bool canWriteImage(const AccessFrame &image, const RowLayout &layout) noexcept {
  Kind kind;
  return writableKind(image, layout, kind);
}

int writeImage(ZelContext *ctx, AccessFrame &image, const RowLayout &layout, int32_t bitOrder,
               const DeflateOptions &options, const int32_t (&planes)[2],
               DeflateSink &sink) noexcept {
  Kind kind;
  if (!writableKind(image, layout, kind)) return refuse(ctx, 10);
  RowEncoder encoder(ctx, layout, options, sink);
  if (int code = encoder.start()) return code;
  RowPacker packer(ctx, image, layout, kind, bitOrder);
  Block<uint8_t> full = allocBytes(ctx, layout.rowBytes(layout.width) + 1);
  if (!full) return -1;
  int passes = layout.interlaced ? 7 : 1;
  for (int64_t t = 0; t < planes[1]; ++t)
    for (int64_t z = 0; z < planes[0]; ++z) {
      if (int code = writePlane(encoder, packer, full.get(), layout, passes, z, t)) return code;
      if (int code = encoder.finish()) return code;
    }
  return 0;
}

int compressPngDeflate(ZelContext *ctx, ZelObject *image, ZelObject *compressed) noexcept {
  Frame out = openFrame(ctx, compressed, "w", 1);
  if (!out) return Zel003b(ctx);
  Frame in = openFrame(ctx, image, "r", 1);
  if (!in) return Zel003b(ctx);
  RowLayout layout = layoutOf(*out);
  if (layout.channels != 1 && layout.channels != 3) return refuse(ctx, 12);
  DeflateOptions options;
  if (compressed->filter == 0)
    options.filterSet = noneFilterOnly;
  else if (compressed->filter == ZelAdaptiveFilter)
    options.filterSet = allFilters;
  else
    return refuse(ctx, 12);
  options.strategy = options.filterSet == noneFilterOnly ? 0 : 1;
  options.level = compressed->compressionLevel;
  if (options.level < 1 || options.level > 9) return refuse(ctx, 12);
  BareStreamSink sink(ctx, out->stream);
  const int32_t planes[2] = {out->dimension[AxisZ], out->dimension[AxisT]};
  if (int code = writeImage(ctx, *in, layout, out->bitOrder, options, planes, sink)) return code;
  if (sink.offset() > INT32_MAX) return refuse(ctx, 3);
  compressed->size = static_cast<int32_t>(sink.offset());
  return 0;
}

int expandPngDeflate(ZelContext *ctx, ZelObject *compressed, ZelObject *image) noexcept {
  Frame out = openFrame(ctx, image, "w", 1);
  if (!out) return Zel003b(ctx);
  Frame in = openFrame(ctx, compressed, "r", 1);
  if (!in) return Zel003b(ctx);
  RowLayout layout = layoutOf(*in);
  layout.interlaced = interlacedPng(compressed);
  int lastPass = layout.interlaced ? 6 : 0;
  bool blocks = ctx->progressive != 0;
  if (blocks) {
    if (ctx->interlacePass < 1 || ctx->interlacePass > 7) return refuse(ctx, 18);
    if (layout.interlaced) lastPass = ctx->interlacePass - 1;
  }
  return expandPlanes(ctx, *in, *out, layout, lastPass, blocks);
}

}  // namespace zel::codec
