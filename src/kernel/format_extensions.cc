#include "kernel/format_extensions.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include "kernel/attributes.h"
#include "kernel/memory.h"

namespace zel {
namespace {

struct FormatLayout {
  int32_t fileFormat;
  size_t bytes;
  std::span<const FormatField> fields;
  int32_t scaleFactor;  // given to the object when the record is made; 0 leaves it alone
};

// A field named after its member: attribute names and member names are the same words.
#define ZEL_FIELD(Record, member, kind, elements, initial)                                         \
  FormatField {                                                                                    \
#member, FieldKind::kind, static_cast < uint16_t>(offsetof(Record, member)), elements, initial \
  }
#define ZEL_WORD(Record, member, initial) ZEL_FIELD(Record, member, Word, 0, initial)

template <size_t... N>
constexpr auto join(const std::array<FormatField, N> &...parts) {
  std::array<FormatField, (N + ...)> all{};
  size_t i = 0;
  ((std::copy(parts.begin(), parts.end(), all.begin() + static_cast<std::ptrdiff_t>(i)),
    i += parts.size()),
   ...);
  return all;
}

// The ten JPEG tables, for a record that holds them at `base`.
constexpr std::array<FormatField, 10> jpegTableFields(size_t base) {
#define ZEL_TABLE(member, bytes)                                                                 \
  FormatField {                                                                                  \
#member, FieldKind::ByteTable, static_cast < uint16_t>(base + offsetof(JpegTables, member)), \
        bytes, 0                                                                                 \
  }
  return {ZEL_TABLE(chrominanceACBITS, 16),
          ZEL_TABLE(chrominanceACHUFFVAL, 256),
          ZEL_TABLE(chrominanceDCBITS, 16),
          ZEL_TABLE(chrominanceDCHUFFVAL, 16),
          ZEL_TABLE(chrominanceQuantizationTable, 64),
          ZEL_TABLE(luminanceACBITS, 16),
          ZEL_TABLE(luminanceACHUFFVAL, 256),
          ZEL_TABLE(luminanceDCBITS, 16),
          ZEL_TABLE(luminanceDCHUFFVAL, 16),
          ZEL_TABLE(luminanceQuantizationTable, 64)};
#undef ZEL_TABLE
}

constexpr std::array gifFields{
    ZEL_WORD(GifRecord, interlacedImage, 0),
    ZEL_WORD(GifRecord, left, 0),
    ZEL_WORD(GifRecord, top, 0),
    ZEL_WORD(GifRecord, screenDepth, 0),
    ZEL_WORD(GifRecord, screenWidth, 0),
    ZEL_WORD(GifRecord, version, 0),
    ZEL_WORD(GifRecord, transparency, 0),
    ZEL_WORD(GifRecord, transparencyPaletteIndex, 0),
    ZEL_WORD(GifRecord, codeSize, 0),
};

constexpr auto tiffFields = join(
    std::array{
        ZEL_WORD(TiffRecord, photometricInterpretation, 0),
        ZEL_WORD(TiffRecord, resolutionUnit, 0),
        ZEL_WORD(TiffRecord, rowsPerStrip, 0),
        ZEL_FIELD(TiffRecord, stripByteCounts, StripTable, 0, 0),
        ZEL_FIELD(TiffRecord, stripsPerImage, StripCount, 0, 0),
        ZEL_FIELD(TiffRecord, xResolution, WordTable, 2, 0),
        ZEL_FIELD(TiffRecord, yResolution, WordTable, 2, 0),
        ZEL_WORD(TiffRecord, orientation, 0),
        ZEL_WORD(TiffRecord, planarConfiguration, 0),
        ZEL_WORD(TiffRecord, pageNumber, 0),
        ZEL_WORD(TiffRecord, newSubfileType, 0),
        ZEL_FIELD(TiffRecord, stripOffsets, StripTable, 0, 0),
        ZEL_WORD(TiffRecord, jpegInterchangeFormatOffset, 0),
        ZEL_WORD(TiffRecord, jpegInterchangeFormatLenght, 0),
        ZEL_WORD(TiffRecord, jpegTablesOffset, 0),
        ZEL_WORD(TiffRecord, jpegTablesLength, 0),
    },
    jpegTableFields(offsetof(TiffRecord, tables)),
    std::array{
        ZEL_WORD(TiffRecord, restartInterval, 0),
        ZEL_WORD(TiffRecord, former, 0),
        ZEL_FIELD(TiffRecord, imageDescription, Text, 0, 0),
    });

constexpr std::array segmentedDocumentFields{
    ZEL_WORD(SegmentedDocumentRecord, resolutionUnit, 0),
    ZEL_WORD(SegmentedDocumentRecord, xResolution, 0),
    ZEL_WORD(SegmentedDocumentRecord, yResolution, 0),
    ZEL_WORD(SegmentedDocumentRecord, xVDC1stCorner, 0),
    ZEL_WORD(SegmentedDocumentRecord, yVDC1stCorner, 0),
    ZEL_WORD(SegmentedDocumentRecord, xVDC2ndCorner, 0),
    ZEL_WORD(SegmentedDocumentRecord, yVDC2ndCorner, 0),
};

constexpr std::array bmpFields{
    ZEL_WORD(BmpRecord, resolutionUnit, 0),
    ZEL_WORD(BmpRecord, xResolution, 0),
    ZEL_WORD(BmpRecord, yResolution, 0),
};

constexpr auto jpegFields = join(jpegTableFields(offsetof(JpegRecord, tables)),
                                 std::array{
                                     ZEL_WORD(JpegRecord, restartInterval, 0),
                                     ZEL_WORD(JpegRecord, progressive, 0),
                                     ZEL_WORD(JpegRecord, resolutionUnit, 0),
                                     ZEL_WORD(JpegRecord, xResolution, 1),
                                     ZEL_WORD(JpegRecord, yResolution, 1),
                                 });

constexpr std::array pcxFields{
    ZEL_WORD(PcxRecord, horizontalResolution, 0),
    ZEL_WORD(PcxRecord, verticalResolution, 0),
    ZEL_WORD(PcxRecord, versionNumber, 5),
    ZEL_WORD(PcxRecord, bytePerLine, 0),
};

constexpr std::array pngFields{
    ZEL_WORD(PngRecord, interlacedImage, 0),
    ZEL_WORD(PngRecord, colourType, 0),
    ZEL_WORD(PngRecord, transparency, 0),
    ZEL_WORD(PngRecord, transparencyGray, 0),
    ZEL_WORD(PngRecord, transparencyRed, 0),
    ZEL_WORD(PngRecord, transparencyGreen, 0),
    ZEL_WORD(PngRecord, transparencyBlue, 0),
    ZEL_WORD(PngRecord, transparencyEntry, 256),
    ZEL_FIELD(PngRecord, transparencyPaletteIndex, TransparencyTable, 256, 0),
    ZEL_FIELD(PngRecord, copyright, Text, 0, 0),
    ZEL_WORD(PngRecord, compressionDataSize, 0),
};

constexpr std::array jpegColourFaxFields{
    ZEL_WORD(JpegColourFaxRecord, resolutionUnit, 0),
    ZEL_WORD(JpegColourFaxRecord, xResolution, 1),
    ZEL_WORD(JpegColourFaxRecord, yResolution, 1),
    ZEL_WORD(JpegColourFaxRecord, lGamutRange, 100),
    ZEL_WORD(JpegColourFaxRecord, lGamutOffset, 0),
    ZEL_WORD(JpegColourFaxRecord, aGamutRange, 170),
    ZEL_WORD(JpegColourFaxRecord, aGamutOffset, 128),
    ZEL_WORD(JpegColourFaxRecord, bGamutRange, 200),
    ZEL_WORD(JpegColourFaxRecord, bGamutOffset, 96),
};

#undef ZEL_WORD
#undef ZEL_FIELD

constexpr FormatLayout layouts[] = {
    {ZelGif, sizeof(GifRecord), gifFields, 0},
    {ZelTiff, sizeof(TiffRecord), tiffFields, 75},
    {ZelSegmentedDocument, sizeof(SegmentedDocumentRecord), segmentedDocumentFields, 0},
    {ZelBmp, sizeof(BmpRecord), bmpFields, 0},
    {ZelJpegInterchange, sizeof(JpegRecord), jpegFields, 1},
    {ZelJpegDirect, sizeof(JpegRecord), jpegFields, 75},
    {ZelPcx, sizeof(PcxRecord), pcxFields, 0},
    {ZelPng, sizeof(PngRecord), pngFields, 0},
    {ZelJpegColourFax, sizeof(JpegColourFaxRecord), jpegColourFaxFields, 0},
};

const FormatLayout *layoutOf(int32_t fileFormat) {
  for (const FormatLayout &layout : layouts)
    if (layout.fileFormat == fileFormat) return &layout;
  return nullptr;
}

// The field's storage in the record; T is the type that the field's kind gives.
template <class T>
T &slot(void *record, const FormatField &field) {
  return *reinterpret_cast<T *>(static_cast<char *>(record) + field.offset);
}
template <class T>
const T &slot(const void *record, const FormatField &field) {
  return *reinterpret_cast<const T *>(static_cast<const char *>(record) + field.offset);
}

bool holdsPointer(FieldKind kind) {
  return kind != FieldKind::Word && kind != FieldKind::StripCount;
}

// Calls `use` with the field's pointer slot, typed as the field's kind says.
template <class Use>
void withPointerSlot(void *record, const FormatField &field, Use use) {
  switch (field.kind) {
    case FieldKind::ByteTable:
    case FieldKind::TransparencyTable:
      use(slot<uint8_t *>(record, field));
      break;
    case FieldKind::WordTable:
    case FieldKind::StripTable:
      use(slot<int32_t *>(record, field));
      break;
    case FieldKind::Text:
      use(slot<char *>(record, field));
      break;
    case FieldKind::Word:
    case FieldKind::StripCount:
      break;
  }
}

const void *pointerValue(const void *record, const FormatField &field) {
  const void *value = nullptr;
  withPointerSlot(const_cast<void *>(record), field, [&](auto *&pointer) { value = pointer; });
  return value;
}

// A fixed-size table: allocated at the first value, then overwritten whole from the caller's.
template <class T>
void writeFixedTable(ZelContext *ctx, T *&table, size_t elements, const void *value) {
  if (!table && !(table = static_cast<T *>(allocZeroedArray(ctx, elements, sizeof(T))))) return;
  std::memcpy(table, value, elements * sizeof(T));
}

bool writeStripCount(ZelContext *ctx, TiffRecord &tiff, int32_t count) {
  if (count == tiff.stripsPerImage) return false;
  if (count < 0) {
    reportError(ctx, 18);
    return false;
  }
  releaseBlock(tiff.stripByteCounts);
  releaseBlock(tiff.stripOffsets);
  tiff.stripByteCounts = tiff.stripOffsets = nullptr;
  tiff.stripsPerImage = count;
  if (count > 0) {
    size_t words = static_cast<size_t>(count);
    tiff.stripByteCounts = static_cast<int32_t *>(allocZeroedArray(ctx, words, sizeof(int32_t)));
    tiff.stripOffsets = static_cast<int32_t *>(allocZeroedArray(ctx, words, sizeof(int32_t)));
    if (!tiff.stripByteCounts || !tiff.stripOffsets) {
      // No count without its tables: readers index them up to the count.
      releaseBlock(tiff.stripByteCounts);
      releaseBlock(tiff.stripOffsets);
      tiff.stripByteCounts = tiff.stripOffsets = nullptr;
      tiff.stripsPerImage = 0;
    }
  }
  return true;
}

void writeTransparencyTable(ZelContext *ctx, PngRecord &png, const void *value) {
  if (!png.transparencyPaletteIndex) {
    png.transparencyPaletteIndex = static_cast<uint8_t *>(allocZeroed(ctx, 256));
    if (!png.transparencyPaletteIndex) return;
    std::memset(png.transparencyPaletteIndex, 0xFF, 256);
  }
  size_t bytes = static_cast<size_t>(std::clamp(png.transparencyEntry, 0, 256));
  std::memcpy(png.transparencyPaletteIndex, value, bytes);
}

void writeText(ZelContext *ctx, char *&text, const char *value) {
  releaseBlock(text);
  text = value ? copyText(ctx, value) : nullptr;
}

}  // namespace

int createFormatExtension(ZelContext *ctx, ZelObject *object) noexcept {
  const FormatLayout *layout = layoutOf(object->fileFormat);
  if (!layout) return 0;
  void *record = allocZeroed(ctx, layout->bytes);
  if (!record) return -1;
  for (const FormatField &field : layout->fields)
    if (field.kind == FieldKind::Word) slot<int32_t>(record, field) = field.initial;
  object->formatExtension = record;
  if (layout->scaleFactor) object->scaleFactor = layout->scaleFactor;
  return 0;
}

void releaseFormatExtension(ZelContext *, ZelObject *object) noexcept {
  if (void *record = object->formatExtension) {
    if (const FormatLayout *layout = layoutOf(object->fileFormat))
      for (const FormatField &field : layout->fields)
        withPointerSlot(record, field, [](auto *&pointer) { releaseBlock(pointer); });
    releaseBlock(record);
    object->formatExtension = nullptr;
  }
  object->fileFormat = 0;
}

const FormatField *findFormatField(const ZelObject *object, const char *name) noexcept {
  const FormatLayout *layout = layoutOf(object->fileFormat);
  if (!layout || !object->formatExtension) return nullptr;
  for (const FormatField &field : layout->fields)
    if (std::strcmp(field.name, name) == 0) return &field;
  return nullptr;
}

ZelValue readFormatField(const ZelObject *object, const FormatField &field) noexcept {
  const void *record = object->formatExtension;
  if (holdsPointer(field.kind)) return reinterpret_cast<ZelValue>(pointerValue(record, field));
  return slot<int32_t>(record, field);
}

bool writeFormatField(ZelContext *ctx, ZelObject *object, const FormatField &field,
                      ZelValue value) noexcept {
  void *record = object->formatExtension;
  const void *table = reinterpret_cast<const void *>(value);
  switch (field.kind) {
    case FieldKind::Word:
      slot<int32_t>(record, field) = static_cast<int32_t>(value);
      return false;
    case FieldKind::StripCount:
      return writeStripCount(ctx, *static_cast<TiffRecord *>(record), static_cast<int32_t>(value));
    case FieldKind::ByteTable:
      if (table) writeFixedTable(ctx, slot<uint8_t *>(record, field), field.elements, table);
      return false;
    case FieldKind::WordTable:
      if (table) writeFixedTable(ctx, slot<int32_t *>(record, field), field.elements, table);
      return false;
    case FieldKind::StripTable: {
      auto &tiff = *static_cast<TiffRecord *>(record);
      int32_t *strips = slot<int32_t *>(record, field);
      if (table && strips)
        std::memcpy(strips, table, static_cast<size_t>(tiff.stripsPerImage) * sizeof(int32_t));
      return false;
    }
    case FieldKind::Text:
      writeText(ctx, slot<char *>(record, field), static_cast<const char *>(table));
      return false;
    case FieldKind::TransparencyTable:
      if (table) writeTransparencyTable(ctx, *static_cast<PngRecord *>(record), table);
      return false;
  }
  return false;
}

void copyFormatState(ZelContext *ctx, ZelObject *child, ZelObject *parent) noexcept {
  const FormatLayout *layout = layoutOf(parent->fileFormat);
  if (!layout) {
    child->fileFormat = parent->fileFormat;
    return;
  }
  ZelAttribute format{"fileFormat", parent->fileFormat};
  if (applyAttributes(ctx, child, &format, 1) != 0 || !child->formatExtension) return;
  // A parent whose record could not be made leaves the child with the defaults.
  if (!parent->formatExtension) return;
  const void *from = parent->formatExtension;
  void *to = child->formatExtension;
  // The strip count first: it makes the tables that the strip fields are copied into.
  for (const FormatField &field : layout->fields)
    if (field.kind == FieldKind::StripCount)
      writeFormatField(ctx, child, field, slot<int32_t>(from, field));
  for (const FormatField &field : layout->fields) {
    if (field.kind == FieldKind::Word) {
      slot<int32_t>(to, field) = slot<int32_t>(from, field);
    } else if (holdsPointer(field.kind)) {
      if (const void *owned = pointerValue(from, field))
        writeFormatField(ctx, child, field, reinterpret_cast<ZelValue>(owned));
    }
  }
}

}  // namespace zel
