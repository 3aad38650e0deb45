// Reading and writing with compression on the way: images are compressed by the format's codec
// before they are written and expanded after they are read, through an object that holds the
// compressed data in between.
#include <cstdint>
#include <cstring>
#include <span>

#include "interchange/common.h"
#include "interchange/interlace.h"
#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "platform/files.h"

namespace zel::interchange {
namespace {

// What a write may change of the compressed object, first taken from the image.
struct Working {
  int32_t compression = 0, eolState, scaleFactor, samplingFactor, colourSpace, dataPrecision,
          bitOrder, repository = ZelFile, restartInterval = 0, progressive = 0, interlacedImage = 0;
};

int32_t attributeOr(ZelContext *ctx, ZelObject *object, const char *name, int32_t fallback) {
  ZelValue value = 0;
  const ZelAttribute request[] = {{name, reinterpret_cast<ZelValue>(&value)}};
  int32_t logging = ctx->errorReportingState;
  ctx->errorReportingState = 0;  // a format without the attribute is no failure here
  int code = Zel005(ctx, object, request, 1);
  ctx->errorReportingState = logging;
  return code == 0 ? static_cast<int32_t>(value) : fallback;
}

bool isJpegFile(int format) {
  return format == ZelJpegInterchange || format == ZelJpegDirect;
}

Working workingOf(ZelContext *ctx, ZelObject *object, int format) {
  Working w;
  w.eolState = object->eolState;
  w.scaleFactor = object->scaleFactor;
  w.samplingFactor = object->samplingFactor;
  w.colourSpace = object->colourSpace;
  w.dataPrecision = object->dataPrecision;
  w.bitOrder = object->bitOrder;
  if (isJpegFile(object->fileFormat)) {
    w.restartInterval = attributeOr(ctx, object, "restartInterval", 0);
    w.progressive = attributeOr(ctx, object, "progressive", 0);
  }
  switch (format) {
    case ZelGif:
      w.compression = ZelLzw;
      w.interlacedImage = attributeOr(ctx, object, "interlacedImage", 0);
      break;
    case ZelKolShort:
    case ZelKolLong:
      w.compression = ZelKolLine;
      break;
    case ZelMacPaint:
      w.compression = ZelPackBits;
      break;
    case ZelPcx:
      w.compression = ZelPcxRunLength;
      break;
    case ZelJpegInterchange:
      w.compression = ZelJpeg;
      break;
    default:
      break;
  }
  if (isJpegFile(format) && object->bDimension >= 3) w.colourSpace = ZelYCbCr;
  return w;
}

// The caller's list read for what it says about compression; later pairs win.
void applyList(const ZelAttribute *list, int count, Working &w) {
  struct Name {
    const char *name;
    int32_t Working::*field;
  };
  static constexpr Name names[] = {{"compression", &Working::compression},
                                   {"eolState", &Working::eolState},
                                   {"predictor", &Working::eolState},
                                   {"quarityFactor", &Working::scaleFactor},
                                   {"samplingFactor", &Working::samplingFactor},
                                   {"colourSpace", &Working::colourSpace},
                                   {"dataPrecision", &Working::dataPrecision},
                                   {"bitOrder", &Working::bitOrder},
                                   {"restartInterval", &Working::restartInterval},
                                   {"progressive", &Working::progressive},
                                   {"interlacedImage", &Working::interlacedImage},
                                   {"repository", &Working::repository}};
  for (int i = 0; list && i < count; ++i) {
    if (!list[i].name) continue;
    for (const Name &n : names)
      if (std::strcmp(list[i].name, n.name) == 0) w.*n.field = static_cast<int32_t>(list[i].value);
  }
}

// The lowest and highest level in use, through a temporary histogram; 18 when none is.
int levelRange(ZelContext *ctx, ZelObject *image, int &lowest, int &highest) {
  OwnedObject histogram(ctx, Zel000d(ctx, nullptr, nullptr, nullptr, 0));
  if (!histogram.get()) return Zel003b(ctx);
  if (int code = Zel126(ctx, image, histogram.get())) return code;
  uint32_t counts[256] = {};
  if (int code = Zel605(ctx, histogram.get(), counts, nullptr, 0)) return code;
  lowest = 0;
  while (lowest < 256 && counts[lowest] == 0)
    ++lowest;
  if (lowest == 256) return refuse(ctx, 18);
  highest = 255;
  while (counts[highest] == 0)
    --highest;
  return 0;
}

// A palette that says how many of its entries are used must cover every level of the image.
int checkPaletteUse(ZelContext *ctx, ZelObject *object) {
  ZelObject *lut = object->lut;
  if (!lut || !checkObject(ctx, lut) || lut->usedXDimension == 0) return 0;
  int lowest = 0, highest = 0;
  if (int code = levelRange(ctx, object, lowest, highest)) return code;
  if (lut->usedXDimension == 1)
    lut->usedXDimension = highest + 1;
  else if (highest + 1 > lut->usedXDimension)
    return refuse(ctx, 18);
  return 0;
}

// The object that will hold the compressed image, made over `source` and compressed into.
ZelObject *compressInto(ZelContext *ctx, ZelObject *source, const Working &w, int format) {
  bool padded = ctx->byteBoundary && w.dataPrecision == 1 && format == ZelTiff;
  ZelAttribute base[4] = {{"fileFormat", format}, {"repository", w.repository}};
  int count = 2;
  if (isJpegFile(format)) {
    base[count++] = {"restartInterval", w.restartInterval};
    base[count++] = {"progressive", w.progressive};
  } else if (format == ZelGif) {
    base[count++] = {"interlacedImage", w.interlacedImage};
  }
  ZelObject *compressed = Zel000(ctx, nullptr, source->objectClass, source, base, count);
  if (!compressed) return nullptr;
  compressed->compression = w.compression;
  compressed->eolState = w.eolState;
  compressed->scaleFactor = w.scaleFactor;
  compressed->samplingFactor = w.samplingFactor;
  compressed->colourSpace = w.colourSpace;
  compressed->bitOrder = w.bitOrder;
  compressed->dataPrecision = w.dataPrecision;
  compressed->xDimension = padded ? source->widthByteBoundary : source->xDimension;
  compressed->flags &= ~initedFlag;
  if (Zel700(ctx, source, compressed) != 0) {
    Zel002(ctx, compressed);
    return nullptr;
  }
  return compressed;
}

// A plain copy of `object` in work space with its lines in interlaced order.
ZelObject *interlacedCopy(ZelContext *ctx, ZelObject *object) {
  const ZelAttribute plain[] = {{"repository", ZelWorkSpace}, {"compression", 0}};
  ZelObject *copy = Zel000(ctx, nullptr, object->objectClass, object, plain, 2);
  if (copy && interlaceLines(ctx, object, copy) != 0) {
    Zel002(ctx, copy);
    return nullptr;
  }
  return copy;
}

constexpr int32_t macPaintWidth = 576, macPaintHeight = 720;

// The image on the page size of MacPaint, at the top left.
ZelObject *macPaintPage(ZelContext *ctx, ZelObject *object) {
  const ZelAttribute page[] = {
      {"xDimension", macPaintWidth}, {"yDimension", macPaintHeight}, {"repository", ZelWorkSpace}};
  ZelObject *copy = Zel000(ctx, nullptr, object->objectClass, object, page, 3);
  if (copy && Zel601(ctx, object, copy) != 0) {
    Zel002(ctx, copy);
    return nullptr;
  }
  return copy;
}

int writeOneCompressing(ZelContext *ctx, ZelObject *object, const char *fileName, int format,
                        const ZelAttribute *list, int count) {
  if (object->compression != 0) return refuse(ctx, 12);
  Working w = workingOf(ctx, object, format);
  if (int code = checkPaletteUse(ctx, object)) return code;
  applyList(list, count, w);
  bool writerCompresses = (format == ZelPng && w.compression == ZelPngDeflate) ||
                          (format == ZelTiff && w.compression == ZelJpeg) || w.compression == 0;
  if (writerCompresses) return Zel702(ctx, object, fileName, format, list, count);
  bool interlace = format == ZelGif && w.interlacedImage;
  bool resize = format == ZelMacPaint &&
                (object->xDimension != macPaintWidth || object->yDimension != macPaintHeight);
  OwnedObject copy(ctx, interlace ? interlacedCopy(ctx, object)
                        : resize  ? macPaintPage(ctx, object)
                                  : nullptr);
  if ((interlace || resize) && !copy.get()) return Zel003b(ctx);
  OwnedObject compressed(ctx, compressInto(ctx, copy.get() ? copy.get() : object, w, format));
  if (!compressed.get()) return Zel003b(ctx);
  return Zel702(ctx, compressed.get(), fileName, format, list, count);
}

// Every page of a composite, compressed unless the writer compresses, into one TIFF.
int writePagesCompressing(ZelContext *ctx, ZelObject *object, const char *fileName,
                          const ZelAttribute *list, int count) {
  OwnedObject pages(ctx, emptyPagesOver(ctx, object));
  if (!pages.get()) return Zel003b(ctx);
  int32_t entries = pages.get()->xDimension;
  int code = 0;
  for (int32_t i = 0; i < entries && code == 0; ++i) {
    ZelObject *page = Zel010(ctx, object, i);
    if (!page) {
      code = refuse(ctx, 9);
    } else if (page->compression != 0) {
      code = refuse(ctx, 12);
    } else {
      Working w = workingOf(ctx, page, ZelTiff);
      applyList(list, count, w);
      ZelObject *stored = page;
      if (w.compression != 0 && w.compression != ZelJpeg &&
          !(stored = compressInto(ctx, page, w, ZelTiff)))
        code = Zel003b(ctx);
      else if ((code = Zel011(ctx, stored, pages.get(), i)) != 0 && stored != page)
        Zel002(ctx, stored);
    }
  }
  if (code == 0) code = Zel702(ctx, pages.get(), fileName, ZelTiff, list, count);
  for (int32_t i = 0; i < entries; ++i) {
    ZelObject *stored = Zel010(ctx, pages.get(), i);
    if (stored && stored->compression != 0) Zel002(ctx, stored);
  }
  return code;
}

// ---- Reading ---------------------------------------------------------------------------------

constexpr int64_t slurpLimit = 5242881;

// A file read into memory for the length of one call, or left in place when it is a large TIFF.
class Slurped {
 public:
  Slurped() = default;
  Slurped(const Slurped &) = delete;
  Slurped &operator=(const Slurped &) = delete;

  // 0, or the code after reporting (25 when the file can't be opened).
  int load(ZelContext *ctx, const char *fileName, int format) {
    if (!fileName) return refuse(ctx, 18);
    int file = platform::openForReading(fileName);
    if (file == platform::noFile) return refuse(ctx, 25);
    int64_t size = platform::fileSize(file);
    int code = 0;
    if (size < 0 || size > INT32_MAX) {
      code = refuse(ctx, -1);
    } else if (size == 0) {
      code = refuse(ctx, 8);  // memory input needs at least one byte to be bounded by
    } else if (size < slurpLimit || format != ZelTiff) {
      block_ = allocBytes(ctx, size);
      if (!block_)
        code = -1;
      else if (!platform::readAt(file, block_.get(), static_cast<size_t>(size), 0))
        code = refuse(ctx, -1);
      size_ = static_cast<int32_t>(size);
    }
    platform::closeFile(file);
    return code;
  }
  bool inMemory() const { return block_ != nullptr; }
  uint8_t *data() const { return block_.get(); }
  int32_t size() const { return size_; }

 private:
  Block<uint8_t> block_;
  int32_t size_ = 0;
};

// The list for one read: the caller's, with the memory block behind it when there is one.
struct ReadList {
  Block<ZelAttribute> pairs;
  int count = 0;
};

int readListOf(ZelContext *ctx, const ZelAttribute *list, int count, const void *address,
               int32_t size, ReadList &out) {
  const ZelAttribute memory[] = {{"applicationAddressSpace", reinterpret_cast<ZelValue>(address)},
                                 {"size", size}};
  std::span<const ZelAttribute> extra =
      address ? std::span<const ZelAttribute>(memory) : std::span<const ZelAttribute>();
  out.pairs = appendAttributes(ctx, list, count, extra, out.count);
  return out.pairs ? 0 : Zel003b(ctx);
}

// Precisions that no data type has are widened for GIF: 2 and 3 to 4, 5 to 7 to 8.
int32_t targetPrecision(int32_t precision, int format) {
  if (format != ZelGif) return precision;
  if (precision == 2 || precision == 3) return 4;
  if (precision >= 5 && precision <= 7) return 8;
  return precision;
}

// Work space when compression saved space, a file otherwise.
int32_t holderRepository(ZelContext *ctx, const ZelObject *object, int format) {
  int32_t precision = targetPrecision(object->dataPrecision, format);
  int64_t bits = precision == 4 ? ctx->nonnegativeIntegerPrecision : precision;
  int64_t pixels = int64_t{object->bDimension} * object->tDimension * object->zDimension *
                   object->yDimension * object->xDimension;
  int64_t expanded =
      pixels > 0 && bits > 0 && pixels <= INT64_MAX / bits ? (pixels * bits + 7) / 8 : INT64_MAX;
  return object->size < expanded ? ZelWorkSpace : ZelFile;
}

ZelObject *makeHolder(ZelContext *ctx, ZelObject *object, int format) {
  const ZelAttribute where[] = {{"repository", holderRepository(ctx, object, format)}};
  return Zel000(ctx, nullptr, object->objectClass, object, where, 1);
}

// Takes `object` from holding compressed data to holding the expanded image.
void becomePlain(ZelContext *ctx, ZelObject *object, int format) {
  object->compression = 0;
  object->flags &= ~initedFlag;
  if (format == ZelTiff && ctx->byteBoundary && object->dataPrecision == 1)
    object->xDimension = (object->xDimension + 7) / 8 * 8;
  object->dataPrecision = targetPrecision(object->dataPrecision, format);
}

int readOneExpanding(ZelContext *ctx, const char *fileName, ZelObject *object, int format,
                     const ReadList &list) {
  if (int code =
          Zel703(ctx, fileName, object, format, ZelReadAttributes, list.pairs.get(), list.count))
    return code;
  int code = 0;
  if (object->compression == 0) {
    code = Zel703(ctx, fileName, object, format, ZelReadData, list.pairs.get(), list.count);
  } else {
    OwnedObject holder(ctx, makeHolder(ctx, object, format));
    if (!holder.get()) return Zel003b(ctx);
    if ((code = Zel703(ctx, fileName, holder.get(), format, 0, list.pairs.get(), list.count)))
      return code;
    bool interlaced = format == ZelGif && attributeOr(ctx, holder.get(), "interlacedImage", 0);
    becomePlain(ctx, object, format);
    if (interlaced) {
      const ZelAttribute plain[] = {{"repository", ZelWorkSpace},
                                    {"compression", 0},
                                    {"dataPrecision", object->dataPrecision}};
      OwnedObject lines(ctx, Zel000(ctx, nullptr, object->objectClass, object, plain, 3));
      if (!lines.get()) return Zel003b(ctx);
      if ((code = Zel701(ctx, holder.get(), lines.get()))) return code;
      code = deinterlaceLines(ctx, lines.get(), object);
    } else {
      code = Zel701(ctx, holder.get(), object);
    }
  }
  if (code == 0 && isJpegFile(format)) object->colourSpace = ZelRgb;
  return code;
}

// Every page: attributes first, then holders for the compressed ones, one read, and expansion.
int readPagesExpanding(ZelContext *ctx, const char *fileName, ZelObject *object, int format,
                       const ReadList &list) {
  if (int code =
          Zel703(ctx, fileName, object, format, ZelReadAttributes, list.pairs.get(), list.count))
    return code;
  OwnedObject pages(ctx, emptyPagesOver(ctx, object));
  if (!pages.get()) return Zel003b(ctx);
  int32_t entries = pages.get()->xDimension;
  int code = 0;
  for (int32_t i = 0; i < entries && code == 0; ++i) {
    ZelObject *page = Zel010(ctx, object, i);
    if (!page) {
      code = refuse(ctx, 9);
      break;
    }
    ZelObject *stored = page->compression != 0 ? makeHolder(ctx, page, format) : page;
    if (!stored || Zel011(ctx, stored, pages.get(), i) != 0) {
      code = Zel003b(ctx);
      if (stored && stored != page) Zel002(ctx, stored);
    }
  }
  if (code == 0) code = Zel703(ctx, fileName, pages.get(), format, 0, list.pairs.get(), list.count);
  for (int32_t i = 0; i < entries; ++i) {
    ZelObject *page = Zel010(ctx, object, i);
    ZelObject *holder = Zel010(ctx, pages.get(), i);
    if (!page || !holder || holder == page) continue;
    if (code == 0) {
      becomePlain(ctx, page, format);
      code = Zel701(ctx, holder, page);
    }
    Zel002(ctx, holder);
  }
  return code;
}

// Reads a composite page by page for the formats that hold several, its first entry otherwise.
int readExpanding(ZelContext *ctx, const char *fileName, ZelObject *object, int format,
                  const ReadList &list, bool allPagesOfDocuments) {
  if (isComposite(object)) {
    bool allPages = format == ZelTiff || (allPagesOfDocuments && format == ZelSegmentedDocument);
    if (allPages) return readPagesExpanding(ctx, fileName, object, format, list);
    ZelObject *first = Zel010(ctx, object, 0);
    if (!first) return refuse(ctx, 9);
    object = first;
  }
  return readOneExpanding(ctx, fileName, object, format, list);
}

// ---- Device-independent bitmaps in memory ---------------------------------------------------

// The last value of `name` in the list, or `fallback`.
int32_t listValue(const ZelAttribute *list, int count, const char *name, int32_t fallback) {
  for (int i = 0; list && i < count; ++i)
    if (list[i].name && std::strcmp(list[i].name, name) == 0)
      fallback = static_cast<int32_t>(list[i].value);
  return fallback;
}

int writeToMemory(ZelContext *ctx, ZelObject *image, void *address, int format,
                  const ZelAttribute *list, int count) {
  const ZelAttribute bmp[] = {{"repository", ZelApplicationAddressSpace}, {"fileFormat", ZelBmp}};
  std::span<const ZelAttribute> extra(bmp, format == ZelBmp ? 2 : 1);
  int total = 0;
  Block<ZelAttribute> pairs = appendAttributes(ctx, list, count, extra, total);
  if (!pairs) return Zel003b(ctx);
  OwnedObject file(ctx, Zel000(ctx, nullptr, image->objectClass, image, pairs.get(), total));
  if (!file.get()) return Zel003b(ctx);
  file.get()->applicationAddressSpace = address;
  if (format != ZelBmp && format != ZelDib && format != ZelDibHeaderOnly) return refuse(ctx, 18);
  // The bitmap writer joins the library with its format.
  return refuse(ctx, 12);
}

int readFromMemory(ZelContext *ctx, const void *address, ZelObject *object, int format, int mode,
                   const ZelAttribute *list, int count) {
  if (mode != 0 && mode != ZelReadData && mode != ZelReadAttributes) return refuse(ctx, 18);
  const ZelAttribute fileFormat[] = {{"fileFormat", format}};
  if (int code = Zel006(ctx, object, fileFormat, 1)) return code;
  int32_t size = listValue(list, count, "size", 0);
  const ZelAttribute memory[] = {{"repository", ZelApplicationAddressSpace}};
  int total = 0;
  Block<ZelAttribute> pairs = appendAttributes(ctx, list, count, memory, total);
  if (!pairs) return Zel003b(ctx);
  OwnedObject file(ctx, Zel000(ctx, nullptr, object->objectClass, object, pairs.get(), total));
  if (!file.get()) return Zel003b(ctx);
  file.get()->size = size;
  file.get()->applicationAddressSpace = const_cast<void *>(address);
  if (format != ZelBmp && format != ZelDib) return refuse(ctx, 18);
  // The bitmap reader joins the library with its format.
  return refuse(ctx, 12);
}

}  // namespace
}  // namespace zel::interchange

using namespace zel;
using namespace zel::interchange;

extern "C" ZEL_API int Zel702x(ZelContext *ctx, ZelObject *object, const char *fileName,
                               int fileFormat, const ZelAttribute *list, int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, object)) return 9;
  if (!isComposite(object))
    return writeOneCompressing(ctx, object, fileName, fileFormat, list, count);
  if (fileFormat == ZelTiff) return writePagesCompressing(ctx, object, fileName, list, count);
  ZelObject *first = Zel010(ctx, object, 0);
  if (!first) return refuse(ctx, 9);
  return writeOneCompressing(ctx, first, fileName, fileFormat, list, count);
}

extern "C" ZEL_API int Zel702z(ZelContext *ctx, ZelObject *object, void *address, int fileFormat,
                               const ZelAttribute *list, int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, object)) return 9;
  if (object->compression != 0) return refuse(ctx, 12);
  int32_t compression = listValue(list, count, "compression", 0);
  if (compression == 0) return writeToMemory(ctx, object, address, fileFormat, list, count);
  if (compression != ZelBmpRunLength) return refuse(ctx, 12);
  const ZelAttribute coded[] = {
      {"compression", compression},
      {"fileFormat", fileFormat},
      {"dataPrecision", listValue(list, count, "dataPrecision", object->dataPrecision)},
      {"repository", ZelFile}};
  OwnedObject compressed(ctx, Zel000(ctx, nullptr, object->objectClass, object, coded, 4));
  if (!compressed.get()) return Zel003b(ctx);
  if (int code = Zel700(ctx, object, compressed.get())) return code;
  return writeToMemory(ctx, compressed.get(), address, fileFormat, list, count);
}

extern "C" ZEL_API int Zel703x(ZelContext *ctx, const char *fileName, ZelObject *object,
                               int fileFormat, const ZelAttribute *list, int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, object)) return 9;
  Slurped file;
  if (int code = file.load(ctx, fileName, fileFormat)) return code;
  ReadList pairs;
  if (int code = readListOf(ctx, list, count, file.data(), file.size(), pairs)) return code;
  return readExpanding(ctx, fileName, object, fileFormat, pairs, true);
}

extern "C" ZEL_API int Zel703w(ZelContext *ctx, const void *address, ZelObject *object,
                               int fileFormat, int size, const ZelAttribute *list,
                               int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, object)) return 9;
  if (!address || size <= 0) return refuse(ctx, !address ? 18 : 8);
  ReadList pairs;
  if (int code = readListOf(ctx, list, count, address, size, pairs)) return code;
  return readExpanding(ctx, nullptr, object, fileFormat, pairs, false);
}

extern "C" ZEL_API int Zel703z(ZelContext *ctx, const void *address, ZelObject *object,
                               int fileFormat, const ZelAttribute *list, int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, object)) return 9;
  if (int code = readFromMemory(ctx, address, object, fileFormat, ZelReadAttributes, list, count))
    return code;
  if (object->compression == 0)
    return readFromMemory(ctx, address, object, fileFormat, ZelReadData, list, count);
  if (object->compression != ZelBmpRunLength) return refuse(ctx, 12);
  const ZelAttribute inFile[] = {{"repository", ZelFile}};
  OwnedObject holder(ctx, Zel000(ctx, nullptr, object->objectClass, object, inFile, 1));
  if (!holder.get()) return Zel003b(ctx);
  if (int code = readFromMemory(ctx, address, holder.get(), fileFormat, 0, list, count))
    return code;
  object->compression = 0;
  object->flags &= ~initedFlag;
  return Zel701(ctx, holder.get(), object);
}
