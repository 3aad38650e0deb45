// Objects to and from files and application memory: the file object that stands for one call,
// dispatch on "fileFormat", page counting and format detection.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

#include "access/repository.h"
#include "interchange/common.h"
#include "interchange/page_count.h"
#include "interchange/png.h"
#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"

namespace zel::interchange {
namespace {

// Formats the library reads or writes once their files are built in; refused until then.
enum class Direction { Write, Read };

bool formatKnown(int format, Direction direction) {
  switch (format) {
    case ZelGif:
    case ZelTiff:
    case ZelKolShort:
    case ZelBmp:
    case ZelJpegInterchange:
    case ZelPcx:
    case ZelDib:
    case ZelPng:
    case ZelJpegDirect:
    case ZelWbmp:
      return true;
    case ZelSegmentedDocument:
    case ZelKolLong:
    case ZelJpegColourFax:
      return direction == Direction::Read;
    case ZelSgiRgb:
      return direction == Direction::Write;
    default:
      return false;
  }
}

int writeFormat(ZelContext *ctx, ZelObject *object, ZelObject *file, int format) {
  if (format == 0) return Zel601(ctx, object, file);
  if (format == ZelPng) return writePng(ctx, object, file);
  return refuse(ctx, formatKnown(format, Direction::Write) ? 12 : 18);
}

// The pages of a composite as file objects of one composite, all with the extended list. Raw
// pixels have no pages: a composite needs a format. Only the file objects made here are
// destroyed, whatever the writer left in the entries.
int writeComposite(ZelContext *ctx, ZelObject *object, const ZelAttribute *pairs, int count,
                   int format) {
  if (format == 0) return refuse(ctx, 12);
  OwnedObject files(ctx, emptyPagesOver(ctx, object));
  if (!files.get()) return Zel003b(ctx);
  int32_t entries = std::max(files.get()->xDimension, 0);
  Block<ZelObject *> made(static_cast<ZelObject **>(
      allocZeroedArray(ctx, static_cast<size_t>(entries), sizeof(void *))));
  if (!made) return -1;
  int code = 0;
  for (int32_t i = 0; i < entries && code == 0; ++i) {
    ZelObject *page = Zel010(ctx, object, i);
    if (!page) {
      code = refuse(ctx, 9);
      break;
    }
    made.get()[i] = Zel000(ctx, nullptr, page->objectClass, page, pairs, count);
    if (!made.get()[i] || Zel011(ctx, made.get()[i], files.get(), i) != 0) code = Zel003b(ctx);
  }
  if (code == 0) code = writeFormat(ctx, object, files.get(), format);
  for (int32_t i = 0; i < entries; ++i)
    if (made.get()[i]) Zel002(ctx, made.get()[i]);
  return code;
}

int readFormat(ZelContext *ctx, ZelObject *file, ZelObject *object, int format, int mode) {
  if (format == 0) return mode == ZelReadAttributes ? 0 : Zel601(ctx, file, object);
  if (format == ZelPng) return readPng(ctx, file, object, mode);
  return refuse(ctx, formatKnown(format, Direction::Read) ? 12 : 18);
}

// Input named by the list: application memory at an address, with its byte count.
struct Input {
  void *address = nullptr;
  int32_t size = 0;
};

Input inputOf(const ZelAttribute *list, int count) {
  Input input;
  for (int i = 0; list && i < count; ++i) {
    if (!list[i].name) continue;
    if (std::strcmp(list[i].name, "applicationAddressSpace") == 0)
      input.address = reinterpret_cast<void *>(list[i].value);
    else if (std::strcmp(list[i].name, "size") == 0)
      input.size = static_cast<int32_t>(list[i].value);
  }
  return input;
}

bool validMode(int mode) {
  return mode == 0 || mode == ZelReadData || mode == ZelReadAttributes;
}

// A file object of the generic class over a file or a block of memory, with a read stream.
class FileBytes {
 public:
  FileBytes(ZelContext *ctx, const char *fileName, const void *address, int size) : ctx_(ctx) {
    const ZelAttribute inFile[] = {{"repository", ZelFile},
                                   {"fileName", reinterpret_cast<ZelValue>(fileName)}};
    const ZelAttribute inMemory[] = {
        {"repository", ZelApplicationAddressSpace},
        {"applicationAddressSpace", reinterpret_cast<ZelValue>(address)},
        {"size", size}};
    object_ = address ? Zel000b(ctx, nullptr, nullptr, inMemory, 3)
                      : Zel000b(ctx, nullptr, nullptr, inFile, 2);
    if (object_) stream_ = openRepositoryStream(ctx, object_, "r", 1);
  }
  FileBytes(const FileBytes &) = delete;
  FileBytes &operator=(const FileBytes &) = delete;
  ~FileBytes() {
    closeRepositoryStream(ctx_, stream_);
    if (object_) Zel002(ctx_, object_);
  }
  RepositoryStream *stream() const { return stream_; }

 private:
  ZelContext *ctx_;
  ZelObject *object_ = nullptr;
  RepositoryStream *stream_ = nullptr;
};

int countPages(ZelContext *ctx, const char *fileName, const void *address, int format, int size) {
  if (checkContext(ctx)) return 0;
  if (format != ZelTiff && format != ZelSegmentedDocument) {
    reportError(ctx, 12);
    return 0;
  }
  if (address && size <= 0) {
    reportError(ctx, 8);
    return 0;
  }
  if (!address && !fileName) {
    reportError(ctx, 18);
    return 0;
  }
  FileBytes bytes(ctx, fileName, address, size);
  if (!bytes.stream()) return 0;
  ByteSource source{ctx, bytes.stream(), address ? int64_t{size} : -1};
  int32_t pages = 0;
  int code = format == ZelTiff ? countTiffPages(source, pages) : countDocumentPages(source, pages);
  return code == 0 ? pages : 0;
}

// ---- Detection -------------------------------------------------------------------------------

constexpr int headBytes = 10;

// The format that the first bytes announce; 0 when none does, and `stop` when the bytes say
// no format of the library can be in the file.
int formatByMagic(const uint8_t (&b)[headBytes], bool &stop) {
  auto w = [&b](int at) {
    return uint32_t{b[at]} << 24 | uint32_t{b[at + 1]} << 16 | uint32_t{b[at + 2]} << 8 | b[at + 3];
  };
  stop = false;
  if (b[0] == 'B' && b[1] == 'M') return ZelBmp;
  if (w(0) == 0x47494638 && (b[4] == '7' || b[4] == '9') && b[5] == 'a') return ZelGif;
  if ((b[0] == 'I' && b[1] == 'I') || (b[0] == 'M' && b[1] == 'M')) return ZelTiff;
  if (w(0) == 0xFFD8FFE1 && w(4) == 0x000C4733) return ZelJpegColourFax;
  if (b[0] == 0xFF && b[1] == 0xD8) return ZelJpegDirect;
  if (b[0] == 0x0A && b[2] == 0x01) return ZelPcx;
  if (b[0] == 0xF0 && (b[1] == 0xF3 || b[1] == 0xF4) && b[2] == 0x23) return ZelSegmentedDocument;
  if (w(0) == 0x89504E47 && w(4) == 0x0D0A1A0A) return ZelPng;
  stop = w(0) == 0x38425053;
  return 0;
}

// The first format whose reader takes the attributes, with the log off meanwhile.
int formatByReading(ZelContext *ctx, const char *fileName, const void *address, int size) {
  static constexpr int tried[] = {
      ZelJpegInterchange,   ZelKolShort, ZelKolLong, ZelBmp, ZelTiff, ZelGif, ZelPcx,
      ZelSegmentedDocument, ZelPng};
  int32_t logging = ctx->errorReportingState;
  ctx->errorReportingState = 0;
  int found = 0;
  const ZelAttribute inMemory[] = {{"applicationAddressSpace", reinterpret_cast<ZelValue>(address)},
                                   {"size", size}};
  for (int format : tried) {
    const ZelAttribute inFile[] = {{"repository", ZelFile}};
    OwnedObject probe(ctx, Zel000b(ctx, nullptr, nullptr, inFile, 1));
    if (!probe.get()) break;
    int code = address ? Zel703(ctx, nullptr, probe.get(), format, ZelReadAttributes, inMemory, 2)
                       : Zel703(ctx, fileName, probe.get(), format, ZelReadAttributes, nullptr, 0);
    if (code == 0) {
      found = format;
      break;
    }
  }
  ctx->errorReportingState = logging;
  return found;
}

int detect(ZelContext *ctx, const char *fileName, const void *address, int size) {
  if (checkContext(ctx)) return 0;
  if (address && size < headBytes) {
    reportError(ctx, 8);
    return 0;
  }
  if (!address && !fileName) {
    reportError(ctx, 18);
    return 0;
  }
  uint8_t head[headBytes] = {};
  {
    FileBytes bytes(ctx, fileName, address, size);
    if (!bytes.stream()) return 0;
    ByteSource source{ctx, bytes.stream(), address ? int64_t{size} : -1};
    if (source.read(0, head, headBytes) != 0) return 0;
  }
  bool stop = false;
  if (int format = formatByMagic(head, stop)) return format;
  return stop ? 0 : formatByReading(ctx, fileName, address, size);
}

}  // namespace

ZelObject *emptyPagesOver(ZelContext *ctx, ZelObject *object) noexcept {
  ZelObject *pages = Zel000(ctx, nullptr, object->objectClass, object, nullptr, 0);
  for (int32_t i = 0; pages && i < pages->xDimension; ++i) {
    if (Zel011(ctx, nullptr, pages, i) != 0) {
      Zel002(ctx, pages);
      return nullptr;
    }
  }
  return pages;
}

Block<ZelAttribute> appendAttributes(ZelContext *ctx, const ZelAttribute *list, int listCount,
                                     std::span<const ZelAttribute> extra, int &count) noexcept {
  int64_t total = int64_t{listCount} + static_cast<int64_t>(extra.size());
  if (listCount < 0 || (listCount > 0 && !list) || total > INT32_MAX) {
    reportError(ctx, 18);
    return nullptr;
  }
  Block<ZelAttribute> pairs(static_cast<ZelAttribute *>(
      allocZeroedArray(ctx, static_cast<size_t>(total), sizeof(ZelAttribute))));
  if (!pairs) return nullptr;
  if (listCount > 0) std::memcpy(pairs.get(), list, static_cast<size_t>(listCount) * sizeof *list);
  if (!extra.empty())
    std::memcpy(pairs.get() + listCount, extra.data(), extra.size() * sizeof(ZelAttribute));
  count = static_cast<int>(total);
  return pairs;
}

}  // namespace zel::interchange

using namespace zel;
using namespace zel::interchange;

extern "C" ZEL_API int Zel702(ZelContext *ctx, ZelObject *object, const char *fileName,
                              int fileFormat, const ZelAttribute *list, int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, object)) return 9;
  if (!fileName) return refuse(ctx, 18);  // the library would name a file nobody could find
  const ZelAttribute extra[] = {{"repository", ZelFile},
                                {"fileName", reinterpret_cast<ZelValue>(fileName)},
                                {"fileFormat", fileFormat}};
  int total = 0;
  Block<ZelAttribute> pairs = appendAttributes(ctx, list, count, extra, total);
  if (!pairs) return Zel003b(ctx);
  if (isComposite(object)) return writeComposite(ctx, object, pairs.get(), total, fileFormat);
  OwnedObject file(ctx, Zel000(ctx, nullptr, object->objectClass, object, pairs.get(), total));
  if (!file.get()) return Zel003b(ctx);
  return writeFormat(ctx, object, file.get(), fileFormat);
}

extern "C" ZEL_API int Zel703(ZelContext *ctx, const char *fileName, ZelObject *object,
                              int fileFormat, int mode, const ZelAttribute *list,
                              int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!validMode(mode)) return refuse(ctx, 18);
  if (!checkObject(ctx, object)) return 9;
  const ZelAttribute format[] = {{"fileFormat", fileFormat}};
  if (int code = Zel006(ctx, object, format, 1)) return code;
  Input input = inputOf(list, count);
  if (!input.address && !fileName) return refuse(ctx, 18);
  const ZelAttribute fromMemory[] = {{"repository", ZelApplicationAddressSpace},
                                     {"size", input.size}};
  const ZelAttribute fromFile[] = {{"repository", ZelFile},
                                   {"fileName", reinterpret_cast<ZelValue>(fileName)}};
  std::span<const ZelAttribute> extra = input.address ? fromMemory : fromFile;
  int total = 0;
  Block<ZelAttribute> pairs = appendAttributes(ctx, list, count, extra, total);
  if (!pairs) return Zel003b(ctx);
  ZelObject *made = isComposite(object)
                        ? Zel000b(ctx, nullptr, nullptr, pairs.get(), total)
                        : Zel000(ctx, nullptr, object->objectClass, object, pairs.get(), total);
  OwnedObject file(ctx, made);
  if (!file.get()) return Zel003b(ctx);
  if (isComposite(object) && Zel006(ctx, file.get(), format, 1) != 0) return Zel003b(ctx);
  if (input.address) file.get()->applicationAddressSpace = input.address;
  int code = readFormat(ctx, file.get(), object, fileFormat, mode);
  bool setsOwnPalette = fileFormat == ZelGif || fileFormat == ZelBmp || fileFormat == ZelPng;
  if (code == 0 && !setsOwnPalette && object->lut && checkObject(ctx, object->lut))
    object->lut->usedXDimension = 0;
  return code;
}

extern "C" ZEL_API int Zel704(ZelContext *ctx, const char *fileName, int fileFormat) noexcept {
  return countPages(ctx, fileName, nullptr, fileFormat, 0);
}

extern "C" ZEL_API int Zel704w(ZelContext *ctx, const void *address, int fileFormat,
                               int size) noexcept {
  if (!address) {
    if (checkContext(ctx) == 0) reportError(ctx, 18);
    return 0;
  }
  return countPages(ctx, nullptr, address, fileFormat, size);
}

extern "C" ZEL_API int Zel705(ZelContext *ctx, const char *fileName) noexcept {
  return detect(ctx, fileName, nullptr, 0);
}

extern "C" ZEL_API int Zel705w(ZelContext *ctx, const void *address, int size) noexcept {
  if (!address) {
    if (checkContext(ctx) == 0) reportError(ctx, 18);
    return 0;
  }
  return detect(ctx, nullptr, address, size);
}
