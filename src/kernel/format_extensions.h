// The per-format records that hang on an object while its fileFormat has one. Each layout is
// one table of field descriptors; reading, writing, releasing and copying to a derived object
// all walk that table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernel/objects.h"
#include "zel.h"

namespace zel {

// Huffman and quantisation tables shared by the TIFF and JPEG records.
struct JpegTables {
  uint8_t *chrominanceACBITS;             // 16 bytes
  uint8_t *chrominanceACHUFFVAL;          // 256 bytes
  uint8_t *chrominanceDCBITS;             // 16 bytes
  uint8_t *chrominanceDCHUFFVAL;          // 16 bytes
  uint8_t *chrominanceQuantizationTable;  // 64 bytes
  uint8_t *luminanceACBITS;
  uint8_t *luminanceACHUFFVAL;
  uint8_t *luminanceDCBITS;
  uint8_t *luminanceDCHUFFVAL;
  uint8_t *luminanceQuantizationTable;
};

struct GifRecord {
  int32_t interlacedImage, left, top, screenDepth, screenWidth, version, transparency,
      transparencyPaletteIndex, codeSize;
};

struct TiffRecord {
  int32_t photometricInterpretation, resolutionUnit, rowsPerStrip;
  int32_t *stripByteCounts;  // stripsPerImage words while stripsPerImage > 0
  int32_t stripsPerImage;
  int32_t *xResolution;  // numerator, denominator
  int32_t *yResolution;
  int32_t orientation, planarConfiguration, pageNumber, newSubfileType;
  int32_t *stripOffsets;  // stripsPerImage words while stripsPerImage > 0
  int32_t jpegInterchangeFormatOffset, jpegInterchangeFormatLenght, jpegTablesOffset,
      jpegTablesLength;
  JpegTables tables;
  int32_t restartInterval, former;
  char *imageDescription;
};

struct SegmentedDocumentRecord {
  int32_t resolutionUnit, xResolution, yResolution, xVDC1stCorner, yVDC1stCorner, xVDC2ndCorner,
      yVDC2ndCorner;
};

struct BmpRecord {
  int32_t resolutionUnit, xResolution, yResolution;
};

// JpegInterchange and JpegDirect share this record.
struct JpegRecord {
  JpegTables tables;
  int32_t restartInterval, progressive, resolutionUnit, xResolution, yResolution;
};

struct PcxRecord {
  int32_t horizontalResolution, verticalResolution, versionNumber, bytePerLine;
};

struct PngRecord {
  int32_t interlacedImage, colourType, transparency, transparencyGray, transparencyRed,
      transparencyGreen, transparencyBlue;
  int32_t transparencyEntry;          // valid bytes of the next table
  uint8_t *transparencyPaletteIndex;  // 256 bytes
  char *copyright;
  int32_t compressionDataSize;
};

struct JpegColourFaxRecord {
  int32_t resolutionUnit, xResolution, yResolution, lGamutRange, lGamutOffset, aGamutRange,
      aGamutOffset, bGamutRange, bGamutOffset;
};

enum class FieldKind : uint8_t {
  Word,               // int32_t
  ByteTable,          // uint8_t *, `elements` bytes
  WordTable,          // int32_t *, `elements` words
  StripCount,         // int32_t that sizes the strip tables
  StripTable,         // int32_t *, stripsPerImage words
  Text,               // char *
  TransparencyTable,  // uint8_t *, 256 bytes, transparencyEntry of them written
};

struct FormatField {
  const char *name;
  FieldKind kind;
  uint16_t offset;
  uint16_t elements;
  int32_t initial;
};

// Makes the record for the object's fileFormat, with its defaults (and the object's
// scaleFactor where the format sets one). 0, or -1 after reporting.
int createFormatExtension(ZelContext *ctx, ZelObject *object) noexcept;

// Releases the record and all it owns; clears formatExtension and fileFormat.
void releaseFormatExtension(ZelContext *ctx, ZelObject *object) noexcept;

// The field called `name` in the object's current record, or null.
const FormatField *findFormatField(const ZelObject *object, const char *name) noexcept;

ZelValue readFormatField(const ZelObject *object, const FormatField &field) noexcept;

// Writes one field with its side effects. True when the field asks that the attribute list be
// applied again (a new strip count).
bool writeFormatField(ZelContext *ctx, ZelObject *object, const FormatField &field,
                      ZelValue value) noexcept;

// Gives a derived object its parent's format and copies of everything the record holds.
void copyFormatState(ZelContext *ctx, ZelObject *child, ZelObject *parent) noexcept;

}  // namespace zel
