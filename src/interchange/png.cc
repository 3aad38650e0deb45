#include "interchange/png.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "access/frame.h"
#include "codecs/png_rows.h"
#include "interchange/common.h"
#include "interchange/page_count.h"
#include "kernel/context.h"
#include "kernel/format_extensions.h"
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "platform/files.h"

namespace zel::interchange {
namespace {

constexpr uint8_t signature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
constexpr int64_t workBytes = 8192;
constexpr uint32_t largestChunk = 0x7FFFFFFF;

void putBigEndian32(uint8_t *b, uint32_t v) {
  b[0] = static_cast<uint8_t>(v >> 24);
  b[1] = static_cast<uint8_t>(v >> 16 & 0xFF);
  b[2] = static_cast<uint8_t>(v >> 8 & 0xFF);
  b[3] = static_cast<uint8_t>(v & 0xFF);
}

void putBigEndian16(uint8_t *b, int32_t v) {
  b[0] = static_cast<uint8_t>(v >> 8 & 0xFF);
  b[1] = static_cast<uint8_t>(v & 0xFF);
}

uint32_t crcOf(uint32_t crc, const uint8_t *bytes, int64_t count) {
  if (count == 0) return crc;  // zlib takes a null buffer as a request for the initial value
  return static_cast<uint32_t>(crc32(crc, bytes, static_cast<uInt>(count)));
}

PngRecord *pngRecordOf(ZelObject *object) {
  return object->fileFormat == ZelPng ? static_cast<PngRecord *>(object->formatExtension) : nullptr;
}

// A byte stream of an object for the length of one call.
class ByteStream {
 public:
  ByteStream(ZelContext *ctx, ZelObject *object, const char *mode)
      : ctx_(ctx), stream_(openRepositoryStream(ctx, object, mode, 0)) {}
  ByteStream(const ByteStream &) = delete;
  ByteStream &operator=(const ByteStream &) = delete;
  ~ByteStream() { closeRepositoryStream(ctx_, stream_); }
  RepositoryStream *get() const { return stream_; }

 private:
  ZelContext *ctx_;
  RepositoryStream *stream_;
};

// ---- Writing ------------------------------------------------------------------------------

// Chunks one after the other: length, type, data and the CRC over type and data.
class ChunkWriter {
 public:
  ChunkWriter(ZelContext *ctx, RepositoryStream *stream) : ctx_(ctx), stream_(stream) {}

  int bytes(const void *data, int64_t count) {
    if (count > 0 && writeBytes(ctx_, stream_, offset_, data, count) != count) return Zel003b(ctx_);
    offset_ += count;
    return 0;
  }

  int chunk(const char *type, const uint8_t *data, int64_t length) {
    uint8_t head[8];
    putBigEndian32(head, static_cast<uint32_t>(length));
    std::memcpy(head + 4, type, 4);
    uint32_t crc = crcOf(crcOf(0, head + 4, 4), data, length);
    uint8_t tail[4];
    putBigEndian32(tail, crc);
    if (int code = bytes(head, 8)) return code;
    if (int code = bytes(data, length)) return code;
    return bytes(tail, 4);
  }

 private:
  ZelContext *ctx_;
  RepositoryStream *stream_;
  int64_t offset_ = 0;
};

// Each full buffer of zlib output becomes one IDAT chunk.
class IdatSink final : public codec::DeflateSink {
 public:
  explicit IdatSink(ChunkWriter &writer) : writer_(writer) {}
  int send(const uint8_t *bytes, int64_t count) noexcept override {
    return writer_.chunk("IDAT", bytes, count);
  }

 private:
  ChunkWriter &writer_;
};

struct Header {
  int64_t width = 0, height = 0;
  int bitDepth = 0, colourType = 0, channels = 0;
  bool interlaced = false;
};

bool hasEntries(ZelContext *ctx, ZelObject *lut) {
  return lut && checkObject(ctx, lut) && lut->xDimension >= 1;
}

// The PNG colour type the file object asks for, or chooses by its bands; false for none.
bool colourTypeOf(ZelContext *ctx, ZelObject *file, const PngRecord &png, int &type) {
  switch (png.colourType) {
    case ZelPngGreyscale:
      type = 0;
      return true;
    case ZelPngTrueColour:
      type = 2;
      return true;
    case ZelPalette:
      type = 3;
      return true;
    case ZelPngGreyscaleAlpha:
      type = 4;
      return true;
    case ZelPngTrueColourAlpha:
      type = 6;
      return true;
    case 0:
      break;
    default:
      return false;
  }
  switch (file->bDimension) {
    case 1:
      type = hasEntries(ctx, file->lut) ? 3 : 0;
      return true;
    case 2:
      type = 4;
      return true;
    case 3:
      type = 2;
      return true;
    case 4:
      type = 6;
      return true;
    default:
      return false;
  }
}

bool depthFits(int type, int depth) {
  bool small = depth == 1 || depth == 2 || depth == 4;
  switch (type) {
    case 0:
      return small || depth == 8 || depth == 16;
    case 3:
      return small || depth == 8;
    default:
      return depth == 8 || depth == 16;
  }
}

int channelsOf(int type) {
  constexpr int channels[7] = {1, 0, 3, 1, 2, 0, 4};
  return channels[type];
}

int headerOf(ZelContext *ctx, ZelObject *file, const PngRecord &png, Header &header) {
  if (!colourTypeOf(ctx, file, png, header.colourType)) return refuse(ctx, 12);
  header.bitDepth = file->dataPrecision;
  if (!depthFits(header.colourType, header.bitDepth)) return refuse(ctx, 12);
  if (png.interlacedImage != 0 && png.interlacedImage != 1) return refuse(ctx, 12);
  if (file->xDimension < 1 || file->yDimension < 1) return refuse(ctx, 12);
  header.channels = channelsOf(header.colourType);
  header.interlaced = png.interlacedImage == 1;
  header.width = file->xDimension;
  header.height = file->yDimension;
  return 0;
}

int writeHeader(ChunkWriter &out, const Header &header) {
  uint8_t data[13] = {};
  putBigEndian32(data, static_cast<uint32_t>(header.width));
  putBigEndian32(data + 4, static_cast<uint32_t>(header.height));
  data[8] = static_cast<uint8_t>(header.bitDepth);
  data[9] = static_cast<uint8_t>(header.colourType);
  data[12] = header.interlaced ? 1 : 0;
  return out.chunk("IHDR", data, 13);
}

// Entries of the palette that a file gets: the used part of the table, or all of it.
int32_t paletteCount(const ZelObject *lut) {
  int32_t used = lut->usedXDimension;
  return used > 0 && used < lut->xDimension ? used : lut->xDimension;
}

int writePalette(ZelContext *ctx, ChunkWriter &out, ZelObject *lut, int32_t &count) {
  if (!lut || !checkObject(ctx, lut) || lut->bDimension < 3 || lut->xDimension < 1 ||
      lut->xDimension > 256 || lut->dataType != ZelNonNegative ||
      lut->bitOrder != ZelMostSignificantFirst)
    return refuse(ctx, 12);
  Frame table = openFrame(ctx, lut, "r", 1);
  if (!table) return Zel003b(ctx);
  if (table->stream->bitsPerPixel != 8) return refuse(ctx, 12);
  count = paletteCount(lut);
  uint8_t data[3 * 256];
  for (int band = 0; band < 3; ++band) {
    int64_t offset = lineOffset(*table, 0, 0, 0, band);
    const uint8_t *line = readLine(ctx, table->stream, offset);
    if (!line) return Zel003b(ctx);
    for (int32_t i = 0; i < count; ++i)
      data[3 * i + band] = line[i];
  }
  return out.chunk("PLTE", data, 3 * int64_t{count});
}

// The keyword and its text are parted by a blank, so the whole is one keyword to a reader.
int writeCopyright(ZelContext *ctx, ChunkWriter &out, const char *text) {
  constexpr char keyword[] = "Copyright ";
  int64_t length = static_cast<int64_t>(std::strlen(text)) + 11;
  Block<uint8_t> data = allocBytes(ctx, length);
  if (!data) return -1;
  std::memcpy(data.get(), keyword, 10);
  std::memcpy(data.get() + 10, text, static_cast<size_t>(length - 10));
  return out.chunk("tEXt", data.get(), length);
}

int writeTransparency(ZelContext *ctx, ChunkWriter &out, const PngRecord &png, int type,
                      int32_t paletteEntries) {
  uint8_t data[6];
  switch (type) {
    case 3:
      if (png.transparencyEntry < 1 || png.transparencyEntry > paletteEntries ||
          !png.transparencyPaletteIndex)
        return refuse(ctx, 12);
      return out.chunk("tRNS", png.transparencyPaletteIndex, png.transparencyEntry);
    case 0:
      putBigEndian16(data, png.transparencyGray);
      return out.chunk("tRNS", data, 2);
    case 2:
      putBigEndian16(data, png.transparencyRed);
      putBigEndian16(data + 2, png.transparencyGreen);
      putBigEndian16(data + 4, png.transparencyBlue);
      return out.chunk("tRNS", data, 6);
    default:
      return refuse(ctx, 12);
  }
}

codec::RowLayout layoutOf(const Header &header) {
  codec::RowLayout layout;
  layout.width = header.width;
  layout.height = header.height;
  layout.bitDepth = header.bitDepth;
  layout.channels = header.channels;
  layout.interlaced = header.interlaced;
  return layout;
}

// Plain pixels through the row filters and deflate.
int writePixels(ZelContext *ctx, AccessFrame &image, const Header &header, ChunkWriter &out) {
  codec::RowLayout layout = layoutOf(header);
  codec::DeflateOptions options;
  bool noneAlone = header.colourType == 3 || header.bitDepth < 8;
  options.filterSet = noneAlone ? codec::noneFilterOnly : codec::allFilters;
  options.level = Z_DEFAULT_COMPRESSION;
  options.strategy = noneAlone ? Z_DEFAULT_STRATEGY : Z_FILTERED;
  IdatSink sink(out);
  const int32_t onePlane[2] = {1, 1};
  return codec::writeImage(ctx, image, layout, ZelMostSignificantFirst, options, onePlane, sink);
}

// PngDeflate data as the object holds them, in IDAT chunks.
int copyCompressed(ZelContext *ctx, ZelObject *object, ChunkWriter &out) {
  ByteStream in(ctx, object, "r");
  if (!in.get()) return Zel003b(ctx);
  Block<uint8_t> buffer = allocBytes(ctx, workBytes);
  if (!buffer) return -1;
  for (int64_t done = 0, total = std::max(object->size, 0); done < total;) {
    int64_t count = std::min(workBytes, total - done);
    if (readBytes(ctx, in.get(), done, buffer.get(), count) != count) return Zel003b(ctx);
    if (int code = out.chunk("IDAT", buffer.get(), count)) return code;
    done += count;
  }
  return 0;
}

// ---- Reading ------------------------------------------------------------------------------

// What the chunk scan finds.
struct Scan {
  Header header;
  bool seenHeader = false, seenPalette = false, seenTransparency = false;
  int64_t paletteAt = 0;
  int32_t paletteEntries = 0;
  int64_t firstIdat = -1;
  int64_t idatBytes = 0;
  uint8_t transparency[256] = {};
  int32_t transparencyBytes = 0;
  int32_t transparencyValues[3] = {};
  double gamma = 0;
  Block<char> copyright;
};

class ChunkReader {
 public:
  ChunkReader(ZelContext *ctx, const ByteSource &source) : ctx_(ctx), source_(source) {}

  int scan(Scan &scan) {
    uint8_t head[8];
    if (int code = source_.read(0, head, 8)) return code;
    if (std::memcmp(head, signature, 8) != 0) return refuse(ctx_, 22);
    for (int64_t at = 8;;) {
      uint32_t length = 0;
      char type[4];
      if (int code = chunkHead(at, length, type)) return code;
      bool end = std::memcmp(type, "IEND", 4) == 0;
      if (int code = chunk(scan, at, length, type, at == 8)) return code;
      if (end) break;
      at += 12 + int64_t{length};
    }
    return scan.seenHeader ? 0 : refuse(ctx_, 22);
  }

  // The CRC of the chunk at `at` over type and `length` bytes of data, read in pieces, against
  // the one stored behind them; `data` gets the first bytes when given.
  int checkCrc(int64_t at, uint32_t length, uint8_t *data = nullptr, int64_t dataRoom = 0) {
    uint8_t piece[workBytes];
    if (int code = source_.read(at + 4, piece, 4)) return code;
    uint32_t crc = crcOf(0, piece, 4);
    for (int64_t done = 0; done < length;) {
      int64_t count = std::min<int64_t>(workBytes, length - done);
      if (int code = source_.read(at + 8 + done, piece, count)) return code;
      if (data && done < dataRoom)
        std::memcpy(data + done, piece, static_cast<size_t>(std::min(count, dataRoom - done)));
      crc = crcOf(crc, piece, count);
      done += count;
    }
    uint8_t stored[4];
    if (int code = source_.read(at + 8 + length, stored, 4)) return code;
    return bigEndian(stored, 4) == crc ? 0 : refuse(ctx_, 22);
  }

 private:
  int chunkHead(int64_t at, uint32_t &length, char (&type)[4]) {
    uint8_t head[8];
    if (int code = source_.read(at, head, 8)) return code;
    length = bigEndian(head, 4);
    std::memcpy(type, head + 4, 4);
    // Lengths are checked against the bytes there are before anything is sized by them.
    if (length > largestChunk || at + 12 + int64_t{length} > source_.size) return refuse(ctx_, 22);
    return 0;
  }

  int chunk(Scan &scan, int64_t at, uint32_t length, const char *type, bool first) {
    auto is = [type](const char *name) { return std::memcmp(type, name, 4) == 0; };
    if (is("IHDR")) return first && length == 13 ? header(scan, at) : refuse(ctx_, 22);
    if (is("PLTE")) {
      if (!scan.seenHeader || scan.seenPalette || length % 3 != 0) return refuse(ctx_, 22);
      scan.seenPalette = true;
      scan.paletteAt = at;
      scan.paletteEntries = static_cast<int32_t>(length / 3);
      return 0;
    }
    if (is("IDAT")) {
      if (!scan.seenHeader || (scan.header.colourType == 3 && !scan.seenPalette))
        return refuse(ctx_, 22);
      if (scan.firstIdat < 0) scan.firstIdat = at;
      scan.idatBytes += length;
      return 0;
    }
    if (is("IEND")) return checkCrc(at, length);
    if (is("gAMA")) return gamma(scan, at, length);
    if (is("tRNS")) return transparency(scan, at, length);
    if (is("tEXt")) return text(scan, at, length);
    for (int i = 0; i < 4; ++i) {
      auto c = static_cast<unsigned char>(type[i]);
      if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return refuse(ctx_, 22);
    }
    return checkCrc(at, length);
  }

  int header(Scan &scan, int64_t at) {
    uint8_t d[13];
    if (int code = checkCrc(at, 13, d, 13)) return code;
    Header &h = scan.header;
    h.width = bigEndian(d, 4);
    h.height = bigEndian(d + 4, 4);
    h.bitDepth = d[8];
    h.colourType = d[9];
    int depth = h.bitDepth, type = h.colourType;
    bool knownDepth = depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16;
    bool knownType = type == 0 || type == 2 || type == 3 || type == 6;
    bool fits = (type != 2 && type != 6) || depth >= 8;
    if (h.width == 0 || h.height == 0 || h.width > largestChunk || h.height > largestChunk ||
        !knownDepth || !knownType || !fits || (type == 3 && depth == 16) || d[10] != 0 ||
        d[11] != 0 || d[12] > 1)
      return refuse(ctx_, 22);
    h.channels = channelsOf(type);
    h.interlaced = d[12] == 1;
    scan.seenHeader = true;
    return 0;
  }

  int gamma(Scan &scan, int64_t at, uint32_t length) {
    if (!scan.seenHeader || scan.seenPalette || length != 4) return refuse(ctx_, 22);
    uint8_t d[4];
    if (int code = checkCrc(at, 4, d, 4)) return code;
    scan.gamma = bigEndian(d, 4) * 0.00001;
    return 0;
  }

  int transparency(Scan &scan, int64_t at, uint32_t length) {
    int type = scan.header.colourType;
    bool fits = type == 3 ? scan.seenPalette && length <= static_cast<uint32_t>(scan.paletteEntries)
                          : (type == 2 && length == 6) || (type == 0 && length == 2);
    if (!scan.seenHeader || !fits || length > 256) return refuse(ctx_, 22);
    if (int code = checkCrc(at, length, scan.transparency, length)) return code;
    scan.seenTransparency = true;
    scan.transparencyBytes = static_cast<int32_t>(length);
    for (uint32_t i = 0; type != 3 && i < length / 2; ++i)
      scan.transparencyValues[i] = static_cast<int32_t>(bigEndian(scan.transparency + 2 * i, 2));
    return 0;
  }

  int text(Scan &scan, int64_t at, uint32_t length) {
    Block<uint8_t> data = allocBytes(ctx_, int64_t{length} + 1);
    if (!data) return -1;
    if (int code = checkCrc(at, length, data.get(), length)) return code;
    constexpr char keyword[] = "Copyright";  // with its NUL
    if (length < sizeof keyword || std::memcmp(data.get(), keyword, sizeof keyword) != 0) return 0;
    size_t textBytes = length - sizeof keyword;
    scan.copyright.reset(static_cast<char *>(allocZeroed(ctx_, textBytes + 1)));
    if (!scan.copyright) return -1;
    std::memcpy(scan.copyright.get(), data.get() + sizeof keyword, textBytes);
    return 0;
  }

  ZelContext *ctx_;
  const ByteSource &source_;
};

int32_t colourTypeName(int type) {
  switch (type) {
    case 0:
      return ZelPngGreyscale;
    case 2:
      return ZelPngTrueColour;
    case 3:
      return ZelPalette;
    case 4:
      return ZelPngGreyscaleAlpha;
    default:
      return ZelPngTrueColourAlpha;
  }
}

// Shape and pixel type of the image from the header.
int setImageAttributes(ZelContext *ctx, ZelObject *object, const Scan &scan) {
  const Header &h = scan.header;
  if (h.bitDepth == 2 || h.bitDepth == 16) return refuse(ctx, 22);
  bool colour = h.channels >= 3;
  ObjectClassId id = classIdOf(object->objectClass);
  ObjectClassId wanted = colour ? ObjectClassId::ColourImage : ObjectClassId::MonochromeImage;
  if (id != wanted && id != ObjectClassId::GenericImage) return refuse(ctx, 11);
  if (scan.idatBytes > INT32_MAX) return refuse(ctx, 3);
  object->flags &= ~initedFlag;
  object->xDimension = static_cast<int32_t>(h.width);
  object->yDimension = static_cast<int32_t>(h.height);
  object->zDimension = object->tDimension = 1;
  object->bDimension = h.channels;
  object->dataType = h.bitDepth == 1 ? ZelBoolean : ZelNonNegative;
  object->dataPrecision = h.bitDepth;
  if (colour) object->colourSpace = ZelRgb;
  object->bitOrder = object->byteOrder = ZelMostSignificantFirst;
  object->compression = ZelPngDeflate;
  object->size = static_cast<int32_t>(scan.idatBytes);
  return 0;
}

int setPngRecord(ZelContext *ctx, ZelObject *object, const Scan &scan) {
  const Header &h = scan.header;
  ZelAttribute pairs[10];
  int n = 0;
  pairs[n++] = {"colourType", colourTypeName(h.colourType)};
  pairs[n++] = {"interlacedImage", h.interlaced ? 1 : 0};
  pairs[n++] = {"transparency", scan.seenTransparency ? 1 : 0};
  pairs[n++] = {"compressionDataSize", static_cast<ZelValue>(scan.idatBytes)};
  pairs[n++] = {"copyright", reinterpret_cast<ZelValue>(scan.copyright.get())};
  if (scan.seenTransparency && h.colourType == 3) {
    pairs[n++] = {"transparencyEntry", scan.transparencyBytes};
    pairs[n++] = {"transparencyPaletteIndex", reinterpret_cast<ZelValue>(scan.transparency)};
  } else if (scan.seenTransparency && h.colourType == 0) {
    pairs[n++] = {"transparencyGray", scan.transparencyValues[0]};
  } else if (scan.seenTransparency) {
    pairs[n++] = {"transparencyRed", scan.transparencyValues[0]};
    pairs[n++] = {"transparencyGreen", scan.transparencyValues[1]};
    pairs[n++] = {"transparencyBlue", scan.transparencyValues[2]};
  }
  return Zel006(ctx, object, pairs, n);
}

// The lookup table of the image: the file's palette, a grey ramp, or nothing to fill.
int fillTable(ZelContext *ctx, ZelObject *lut, ChunkReader &reader, const Scan &scan) {
  const Header &h = scan.header;
  bool ramp = !scan.seenPalette && (h.colourType == 0 || h.colourType == 4);
  if (!scan.seenPalette && !ramp) {
    lut->usedXDimension = 0;
    return 0;
  }
  int32_t entries = std::min(1 << h.bitDepth, 256);
  uint8_t palette[3 * 256] = {};
  int32_t count = entries;
  if (scan.seenPalette) {
    count = std::min(scan.paletteEntries, entries);
    uint32_t length = static_cast<uint32_t>(scan.paletteEntries) * 3;
    if (int code = reader.checkCrc(scan.paletteAt, length, palette, 3 * int64_t{count}))
      return code;
  } else {
    for (int32_t i = 0; i < entries; ++i)
      palette[3 * i] = palette[3 * i + 1] = palette[3 * i + 2] =
          static_cast<uint8_t>(i * 255 / (entries - 1));
  }
  lut->flags &= ~initedFlag;
  lut->dataType = ZelNonNegative;
  lut->dataPrecision = 8;
  lut->bitOrder = ZelMostSignificantFirst;
  lut->xDimension = entries;
  lut->yDimension = lut->zDimension = lut->tDimension = 1;
  lut->bDimension = 3;
  lut->usedXDimension = lut->usedXDimension < 1 || count == entries ? 0 : count;
  Frame table = openFrame(ctx, lut, "w", 1);
  if (!table) return Zel003b(ctx);
  for (int band = 0; band < 3; ++band) {
    int64_t offset = lineOffset(*table, 0, 0, 0, band);
    uint8_t *line = lineForUpdate(ctx, table->stream, offset);
    if (!line) return Zel003b(ctx);
    for (int32_t i = 0; i < entries; ++i)
      line[i] = palette[3 * i + band];
    if (!writeLine(ctx, table->stream, offset)) return Zel003b(ctx);
  }
  return 0;
}

// The IDAT payloads, which must follow each other, into the object's stream.
int copyIdat(ZelContext *ctx, const ByteSource &source, ZelObject *object, const Scan &scan) {
  ByteStream out(ctx, object, "w");
  if (!out.get()) return Zel003b(ctx);
  Block<uint8_t> piece = allocBytes(ctx, workBytes);
  if (!piece) return -1;
  int64_t copied = 0;
  for (int64_t at = scan.firstIdat; copied < scan.idatBytes;) {
    uint8_t head[8];
    if (int code = source.read(at, head, 8)) return code;
    uint32_t length = bigEndian(head, 4);
    if (std::memcmp(head + 4, "IDAT", 4) != 0 || length > scan.idatBytes - copied)
      return refuse(ctx, 22);
    uint32_t crc = crcOf(0, head + 4, 4);
    for (int64_t done = 0; done < length;) {
      int64_t count = std::min<int64_t>(workBytes, length - done);
      if (int code = source.read(at + 8 + done, piece.get(), count)) return code;
      crc = crcOf(crc, piece.get(), count);
      if (writeBytes(ctx, out.get(), copied, piece.get(), count) != count) return Zel003b(ctx);
      copied += count;
      done += count;
    }
    uint8_t stored[4];
    if (int code = source.read(at + 8 + length, stored, 4)) return code;
    if (bigEndian(stored, 4) != crc) return refuse(ctx, 22);
    at += 12 + int64_t{length};
  }
  object->size = static_cast<int32_t>(scan.idatBytes);
  return 0;
}

int readAttributes(ZelContext *ctx, ZelObject *object, ChunkReader &reader, const Scan &scan) {
  if (int code = setImageAttributes(ctx, object, scan)) return code;
  if (int code = setPngRecord(ctx, object, scan)) return code;
  if (object->lut && checkObject(ctx, object->lut))
    return fillTable(ctx, object->lut, reader, scan);
  return 0;
}

}  // namespace

int writePng(ZelContext *ctx, ZelObject *object, ZelObject *file) noexcept {
  PngRecord *png = pngRecordOf(file);
  if (!png) return refuse(ctx, 12);
  if (object->compression != 0 && object->compression != ZelPngDeflate) return refuse(ctx, 12);
  Header header;
  if (int code = headerOf(ctx, file, *png, header)) return code;
  // Pixels that can't be written are refused before the file is made.
  Frame image;
  if (object->compression == 0) {
    image = openFrame(ctx, object, "r", 1);
    if (!image) return Zel003b(ctx);
    if (!codec::canWriteImage(*image, layoutOf(header))) return refuse(ctx, 10);
  }
  ByteStream stream(ctx, file, "w");
  if (!stream.get()) return Zel003b(ctx);
  ChunkWriter out(ctx, stream.get());
  if (int code = out.bytes(signature, 8)) return code;
  if (int code = writeHeader(out, header)) return code;
  int32_t paletteEntries = 0;
  if (header.colourType == 3)
    if (int code = writePalette(ctx, out, file->lut, paletteEntries)) return code;
  if (png->copyright)
    if (int code = writeCopyright(ctx, out, png->copyright)) return code;
  if (png->transparency != 0)
    if (int code = writeTransparency(ctx, out, *png, header.colourType, paletteEntries))
      return code;
  int code = image ? writePixels(ctx, *image, header, out) : copyCompressed(ctx, object, out);
  return code != 0 ? code : out.chunk("IEND", nullptr, 0);
}

int readPng(ZelContext *ctx, ZelObject *file, ZelObject *object, int mode) noexcept {
  ByteStream stream(ctx, file, "r");
  if (!stream.get()) return Zel003b(ctx);
  bool memory = file->repository != ZelFile;
  int64_t size = memory ? file->size : platform::fileSize(stream.get()->fileHandle);
  if (size < 0) return refuse(ctx, -1);
  ByteSource source{ctx, stream.get(), size};
  ChunkReader reader(ctx, source);
  Scan scan;
  if (int code = reader.scan(scan)) return code;
  // Dimensions the data can't fill are refused before anything is sized by them.
  if (!codec::streamCanHold(layoutOf(scan.header), 1, scan.idatBytes)) return refuse(ctx, 22);
  if (mode == 0 || mode == ZelReadAttributes)
    if (int code = readAttributes(ctx, object, reader, scan)) return code;
  if ((mode == 0 || mode == ZelReadData) && scan.firstIdat >= 0)
    return copyIdat(ctx, source, object, scan);
  return 0;
}

}  // namespace zel::interchange
