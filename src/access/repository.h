// Repository streams: pixels of an object by lines, wherever they lie. Application memory and
// work-space blocks are reached in place; files through a ring of lines, one descriptor per
// object shared by its streams, each stream reading and writing at its own position.
#pragma once

#include <cstdint>

#include "zel.h"

namespace zel {

struct RepositoryStream {
  uint8_t *lineBuffer;  // File: newest line of the ring; memory: start of the data
  uint8_t *ringStart;   // File: owned ring of `lines` lines
  uint8_t *ringCentre;  // File: line `lines` / 2 of the ring
  int32_t compression;
  int32_t bitsPerPixel;
  int32_t dataType;
  int32_t hasData;  // File: the object had data when the stream opened
  ZelObject *object;
  int64_t lineBytes;
  int64_t linePixels;
  int32_t requestedLines;
  int32_t lines;  // lines of the ring, at least 1
  int64_t filePosition;
  int64_t halfWindowBytes;
  int32_t repository;
  uint8_t carryByte;      // last byte written of a Boolean line
  int64_t carryPosition;  // where carryByte lies in the file, or -1
  int64_t totalBytes;
  int64_t sampleBytes;
  int64_t limitBytes;   // bound of byte reads in memory
  int64_t accessBytes;  // bytes that may be touched at lineBuffer in memory
  bool writing;         // mode "w"
  uint8_t bitMask;      // next bit of bitByte; 128 means a new byte is due
  uint8_t bitByte;
  int64_t bitByteCount;
  int fileHandle;
  uint8_t *bitBuffer;  // File: 512 bytes on their way to or from the file
  int32_t bitBufferIndex;
};

inline constexpr int32_t bitBufferBytes = 512;

// `mode` is "r" or "w". A negative `bufferLines` asks for one line of |bufferLines| rows.
RepositoryStream *openRepositoryStream(ZelContext *ctx, ZelObject *object, const char *mode,
                                       int bufferLines) noexcept;
void closeRepositoryStream(ZelContext *ctx, RepositoryStream *stream) noexcept;

// Line operations take pixel offsets and return null after reporting a failure.
uint8_t *readLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset) noexcept;
uint8_t *lineForUpdate(ZelContext *ctx, RepositoryStream *stream, int64_t offset) noexcept;
uint8_t *writeLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset) noexcept;

// Bytes of whole objects: 0 for classes whose data has no size here.
int64_t objectTotalBytes(const ZelContext *ctx, const ZelObject *object) noexcept;

// Bytes and bits of the same streams, as codecs and file formats use them. The byte calls
// return `count` or -1; the bit calls 0 or a code.
int64_t readBytes(ZelContext *ctx, RepositoryStream *stream, int64_t offset, void *buffer,
                  int64_t count) noexcept;
int64_t writeBytes(ZelContext *ctx, RepositoryStream *stream, int64_t offset, const void *buffer,
                   int64_t count) noexcept;
int readBit(ZelContext *ctx, RepositoryStream *stream, uint32_t *bit) noexcept;
int readBits(ZelContext *ctx, RepositoryStream *stream, uint32_t *value, int count) noexcept;
int readBitsAligned(ZelContext *ctx, RepositoryStream *stream, uint32_t *value, int count) noexcept;
int writeBits(ZelContext *ctx, RepositoryStream *stream, uint32_t value, int count) noexcept;
int writeBitsAligned(ZelContext *ctx, RepositoryStream *stream, uint32_t value, int count) noexcept;

}  // namespace zel
