#include "access/repository.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "kernel/attributes.h"
#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"
#include "platform/files.h"

namespace zel {
namespace {

constexpr int64_t unbounded = std::numeric_limits<int64_t>::max();

bool multiply(int64_t a, int64_t b, int64_t &product) {
  return !__builtin_mul_overflow(a, b, &product);
}

bool hasNegativeDimension(const ZelObject *object) {
  return std::min({object->xDimension, object->yDimension, object->zDimension, object->tDimension,
                   object->bDimension}) < 0;
}

// Pixels of the object's data, by class; false when a dimension is negative or the count
// doesn't fit in 64 bits.
bool pixelCount(const ZelObject *object, int64_t &count) {
  if (hasNegativeDimension(object)) return false;
  const int32_t dims[] = {object->xDimension, object->yDimension, object->zDimension,
                          object->tDimension, object->bDimension};
  int used = 0;
  switch (classIdOf(object->objectClass)) {
    case ObjectClassId::Histogram:
    case ObjectClassId::Tuple:
    case ObjectClassId::CompositeIDArray:
      used = 1;
      break;
    case ObjectClassId::Matrix:
    case ObjectClassId::DitherArray:
    case ObjectClassId::ImpulseResponseArray:
    case ObjectClassId::MaskArray:
      used = 2;
      break;
    case ObjectClassId::LookupTable:
      return multiply(dims[0], dims[4], count);
    case ObjectClassId::PowerSpectrumArray:
    case ObjectClassId::TransferFunctionArray:
    case ObjectClassId::WindowFunctionArray:
      count = 0;
      return true;
    default:
      used = 5;
      break;
  }
  count = 1;
  for (int i = 0; i < used; ++i)
    if (!multiply(count, dims[i], count)) return false;
  return true;
}

int32_t streamBitsPerPixel(const ZelContext *ctx, const ZelObject *object) {
  if (object->dataType == ZelNonNegative && object->dataPrecision < 8)
    return ctx->nonnegativeIntegerPrecision;
  return object->dataPrecision;
}

// Bytes of a line of n bits: a remainder of two bits or more takes one spare byte.
int64_t bytesOfLine(int64_t bits) {
  return bits % 8 == 0 ? bits / 8 : (bits + 14) / 8;
}

int64_t bytePosition(const RepositoryStream *stream, int64_t offset) {
  return stream->bitsPerPixel * offset / 8;
}

// Bytes a line at `offset` occupies: up to the byte of its last pixel for Boolean data, which
// may start inside a byte; the whole line otherwise.
int64_t lineSpan(const RepositoryStream *stream, int64_t offset) {
  if (stream->dataType != ZelBoolean) return stream->lineBytes;
  return ((stream->linePixels + offset) * stream->bitsPerPixel + 7) / 8 -
         bytePosition(stream, offset);
}

bool isMemory(const RepositoryStream *stream) {
  return stream->repository != ZelFile;
}

// The line in place in memory, or null after reporting 8 when it would leave the block.
uint8_t *memoryLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset) {
  int64_t position = bytePosition(stream, offset);
  int64_t bytes = ((stream->linePixels + offset) * stream->bitsPerPixel + 7) / 8 - position;
  if (offset < 0 || position > stream->accessBytes - bytes) {
    reportError(ctx, 8);
    return nullptr;
  }
  return stream->lineBuffer + position;
}

// Moves the line at `offset` between lineBuffer and the file with `transfer` (readAt or
// writeAt): its byte count, or -1 after reporting.
template <class Transfer>
int64_t transferFileLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset,
                         Transfer transfer) {
  if (offset < 0) {
    reportError(ctx, 8);
    return -1;
  }
  int64_t position = bytePosition(stream, offset);
  int64_t count = lineSpan(stream, offset);
  if (!transfer(stream->fileHandle, stream->lineBuffer, static_cast<size_t>(count), position)) {
    reportError(ctx, -1);
    return -1;
  }
  stream->filePosition = position + count;
  return count;
}

uint8_t *readFileLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset) {
  return transferFileLine(ctx, stream, offset, platform::readAt) < 0 ? nullptr : stream->lineBuffer;
}

// Moves every line of the ring one place towards its start; the newest place is then free.
void advanceRing(RepositoryStream *stream) {
  size_t kept = static_cast<size_t>((stream->lines - 1) * stream->lineBytes);
  std::memmove(stream->ringStart, stream->ringStart + stream->lineBytes, kept);
}

bool readIntoRing(ZelContext *ctx, RepositoryStream *stream) {
  advanceRing(stream);
  size_t count = static_cast<size_t>(stream->lineBytes);
  if (!platform::readAt(stream->fileHandle, stream->lineBuffer, count, stream->filePosition)) {
    reportError(ctx, -1);
    return false;
  }
  stream->filePosition += stream->lineBytes;
  return true;
}

// A neighbourhood of lines around the one at `offset`, centred in the ring. Lines beyond the
// data read as zero.
uint8_t *readRing(ZelContext *ctx, RepositoryStream *stream, int64_t offset) {
  if (isMemory(stream)) return memoryLine(ctx, stream, offset);
  int64_t position = bytePosition(stream, offset);
  int64_t entering = position + stream->halfWindowBytes;
  if (entering >= stream->totalBytes) {
    advanceRing(stream);
    std::memset(stream->lineBuffer, 0, static_cast<size_t>(stream->lineBytes));
    return stream->ringCentre;
  }
  if (entering != stream->filePosition) {
    stream->filePosition = std::max<int64_t>(position - stream->halfWindowBytes, 0);
    int64_t endLine = std::min(entering, stream->totalBytes) / stream->lineBytes;
    for (int64_t line = stream->filePosition / stream->lineBytes; line < endLine; ++line)
      if (!readIntoRing(ctx, stream)) return nullptr;
  }
  return readIntoRing(ctx, stream) ? stream->ringCentre : nullptr;
}

// Geometry of the stream from the object's attributes; 18 or 3 for data it can't describe.
int setGeometry(ZelContext *ctx, RepositoryStream *stream, const ZelObject *object,
                int bufferLines) {
  int64_t pixels = 0;
  int32_t bits = streamBitsPerPixel(ctx, object);
  if (bits < 1 || bits > 64 || hasNegativeDimension(object)) return 18;
  if (!pixelCount(object, pixels)) return 3;
  int64_t totalBits = 0, lineBits = 0, linePixels = object->xDimension;
  if (bufferLines < 0 && !multiply(linePixels, -static_cast<int64_t>(bufferLines), linePixels))
    return 3;
  if (!multiply(pixels, bits, totalBits) || !multiply(linePixels, bits, lineBits) ||
      totalBits > unbounded - 7)
    return 3;
  stream->bitsPerPixel = bits;
  stream->totalBytes = (totalBits + 7) / 8;
  stream->linePixels = linePixels;
  stream->lineBytes = bytesOfLine(lineBits);
  stream->sampleBytes = (bits + 7) / 8;
  return 0;
}

// The work-space block: kept while the object has data or another stream uses it, otherwise
// replaced by a fresh zeroed one.
int openWorkSpace(ZelContext *ctx, RepositoryStream *stream, ZelObject *object) {
  bool keep = (object->flags & initedFlag) || (object->openStreams > 0 && object->workSpace);
  if (!keep) {
    releaseBlock(object->ownedWorkSpace);
    object->ownedWorkSpace = nullptr;
    object->ownedWorkSpaceBytes = 0;
    object->workSpace = allocZeroed(ctx, static_cast<size_t>(stream->totalBytes));
    object->workSpaceHandle = reinterpret_cast<ZelValue>(object->workSpace);
    if (!object->workSpace) return -1;
    object->ownedWorkSpace = object->workSpace;
    object->ownedWorkSpaceBytes = stream->totalBytes;
  }
  if (!object->workSpace) return 12;
  stream->lineBuffer = static_cast<uint8_t *>(object->workSpace);
  // The library knows the size of its own blocks only; an application's block is trusted.
  bool owned = object->workSpace == object->ownedWorkSpace;
  stream->accessBytes = owned ? object->ownedWorkSpaceBytes : stream->totalBytes;
  stream->limitBytes = std::min(stream->totalBytes, stream->accessBytes);
  return 0;
}

int openApplicationMemory(RepositoryStream *stream, ZelObject *object) {
  if (!object->applicationAddressSpace) return 12;
  stream->lineBuffer = static_cast<uint8_t *>(object->applicationAddressSpace);
  stream->accessBytes = object->size > 0 ? object->size : unbounded;
  stream->limitBytes = stream->accessBytes;
  return 0;
}

int nameTemporaryFile(ZelContext *ctx, ZelObject *object) {
  char path[512];
  if (!platform::createTemporaryFile(path, sizeof path)) return -1;
  ZelAttribute name{"fileName", reinterpret_cast<ZelValue>(path)};
  if (int code = applyAttributes(ctx, object, &name, 1)) {
    platform::deleteFile(path);  // nothing else would know its name
    return code;
  }
  object->flags |= tmpnamFlag;
  return 0;
}

int openFileRepository(ZelContext *ctx, RepositoryStream *stream, ZelObject *object) {
  bool first = object->fileUseCount <= 0;
  if (first && !object->fileName) {
    if (int code = nameTemporaryFile(ctx, object)) return code;
  }
  int64_t ringBytes = 0;
  if (!multiply(stream->lineBytes, stream->lines, ringBytes) || ringBytes > unbounded - 127)
    return 3;
  ringBytes = (ringBytes + 127) / 128 * 128;
  stream->ringStart = static_cast<uint8_t *>(allocZeroed(ctx, static_cast<size_t>(ringBytes)));
  stream->bitBuffer = static_cast<uint8_t *>(allocZeroed(ctx, bitBufferBytes));
  if (!stream->ringStart || !stream->bitBuffer) return -1;
  stream->halfWindowBytes = stream->lines / 2 * stream->lineBytes;
  stream->ringCentre = stream->ringStart + stream->halfWindowBytes;
  stream->lineBuffer = stream->ringStart + (stream->lines - 1) * stream->lineBytes;
  stream->hasData = (object->flags & initedFlag) ? 1 : 0;
  stream->bitBufferIndex = stream->writing ? 0 : bitBufferBytes;
  if (first) {
    int file = !stream->writing  ? platform::openForReading(object->fileName)
               : stream->hasData ? platform::openForUpdate(object->fileName)
                                 : platform::createForWriting(object->fileName);
    if (file == platform::noFile) return 25;
    object->sharedFileHandle = file;
  }
  stream->fileHandle = object->sharedFileHandle;
  object->fileUseCount += 1;
  stream->accessBytes = stream->limitBytes = unbounded;
  return 0;
}

// Writes `count` zero bytes in blocks of `block` at the stream's position.
bool writeZeros(ZelContext *ctx, RepositoryStream *stream, int64_t blocks, int64_t block) {
  for (int64_t i = 0; i < blocks; ++i) {
    if (!platform::writeAt(stream->fileHandle, stream->lineBuffer, static_cast<size_t>(block),
                           stream->filePosition)) {
      reportError(ctx, -1);
      return false;
    }
    stream->filePosition += block;
  }
  return true;
}

void storeSize(ZelContext *ctx, RepositoryStream *stream) {
  ZelAttribute size{"size", stream->bitByteCount};
  applyAttributes(ctx, stream->object, &size, 1);
}

// What a file stream of mode "w" owes its file at the end: the rest of a bit stream, or zeros
// up to the full size of freshly written plain data.
bool finishFile(ZelContext *ctx, RepositoryStream *stream) {
  if (stream->compression != 0 && stream->compression != ZelJpeg) return true;
  if (stream->bitByteCount != 0) {
    if (stream->bitMask != 128) {
      stream->bitBuffer[stream->bitBufferIndex++] = stream->bitByte;
      stream->bitByteCount += 1;
    }
    if (!platform::writeAt(stream->fileHandle, stream->bitBuffer,
                           static_cast<size_t>(stream->bitBufferIndex), stream->filePosition)) {
      reportError(ctx, -1);
      return false;
    }
    storeSize(ctx, stream);
    return true;
  }
  if (stream->hasData || stream->lineBytes == 0) return true;
  std::memset(stream->lineBuffer, 0, static_cast<size_t>(stream->lineBytes));
  int64_t remaining = stream->totalBytes - stream->filePosition;
  if (remaining <= 0) return true;
  if (!writeZeros(ctx, stream, remaining % stream->lineBytes / stream->sampleBytes,
                  stream->sampleBytes))
    return false;
  remaining = stream->totalBytes - stream->filePosition;
  return remaining <= 0 ||
         writeZeros(ctx, stream, remaining / stream->lineBytes, stream->lineBytes);
}

// A memory bit stream of mode "w" stores its unfinished byte and its byte count.
void finishMemoryBits(ZelContext *ctx, RepositoryStream *stream) {
  if (stream->bitMask != 128) {
    if (stream->bitByteCount >= std::min(stream->totalBytes, stream->accessBytes)) {
      reportError(ctx, 8);
      return;
    }
    stream->lineBuffer[stream->bitByteCount++] = stream->bitByte;
  }
  storeSize(ctx, stream);
}

void releaseStream(RepositoryStream *stream) {
  releaseBlock(stream->ringStart);
  releaseBlock(stream->bitBuffer);
  releaseBlock(stream);
}

}  // namespace

int64_t objectTotalBytes(const ZelContext *ctx, const ZelObject *object) noexcept {
  int64_t pixels = 0, bits = 0;
  if (!pixelCount(object, pixels) || !multiply(pixels, streamBitsPerPixel(ctx, object), bits))
    return -1;
  return (bits + 7) / 8;
}

RepositoryStream *openRepositoryStream(ZelContext *ctx, ZelObject *object, const char *mode,
                                       int bufferLines) noexcept {
  if (!checkObject(ctx, object)) return nullptr;
  auto *stream = static_cast<RepositoryStream *>(allocZeroed(ctx, sizeof(RepositoryStream)));
  if (!stream) return nullptr;
  stream->object = object;
  stream->fileHandle = platform::noFile;
  stream->carryPosition = -1;
  stream->writing = mode && mode[0] == 'w';
  stream->requestedLines = bufferLines;
  stream->lines = std::max(bufferLines, 1);
  stream->dataType = object->dataType;
  stream->repository = object->repository;
  stream->compression = object->compression;
  stream->bitMask = 128;
  int code = setGeometry(ctx, stream, object, bufferLines);
  if (code == 0) {
    switch (object->repository) {
      case ZelApplicationAddressSpace:
        code = openApplicationMemory(stream, object);
        break;
      case ZelWorkSpace:
        code = openWorkSpace(ctx, stream, object);
        break;
      case ZelFile:
        code = openFileRepository(ctx, stream, object);
        break;
      default:
        code = 12;
        break;
    }
  }
  if (code != 0) {
    // Nothing can fail once the file is open, so a failed stream holds no share of it.
    releaseStream(stream);
    reportError(ctx, code);
    return nullptr;
  }
  object->openStreams += 1;
  return stream;
}

void closeRepositoryStream(ZelContext *ctx, RepositoryStream *stream) noexcept {
  if (!stream) return;
  ZelObject *object = stream->object;
  bool complete = true;
  if (stream->repository == ZelFile) {
    if (stream->writing && stream->requestedLines != 0) complete = finishFile(ctx, stream);
    object->fileUseCount -= 1;
    if (object->fileUseCount <= 0) {
      platform::closeFile(stream->fileHandle);
      object->sharedFileHandle = 0;
    }
  } else if (stream->writing && stream->bitByteCount != 0) {
    finishMemoryBits(ctx, stream);
  }
  object->openStreams -= 1;
  if (complete) object->flags |= initedFlag;
  releaseStream(stream);
}

uint8_t *readLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset) noexcept {
  if (stream->requestedLines > 1) return readRing(ctx, stream, offset);
  if (isMemory(stream)) return memoryLine(ctx, stream, offset);
  return readFileLine(ctx, stream, offset);
}

uint8_t *lineForUpdate(ZelContext *ctx, RepositoryStream *stream, int64_t offset) noexcept {
  if (isMemory(stream)) return memoryLine(ctx, stream, offset);
  if (stream->hasData || offset < 0) return readFileLine(ctx, stream, offset);
  std::memset(stream->lineBuffer, 0, static_cast<size_t>(stream->lineBytes));
  // A Boolean line that starts inside the byte where the last line written ended keeps that
  // line's bits; after rows that were skipped the byte holds no written bits yet.
  if (stream->dataType == ZelBoolean && bytePosition(stream, offset) == stream->carryPosition)
    stream->lineBuffer[0] = stream->carryByte;
  return stream->lineBuffer;
}

uint8_t *writeLine(ZelContext *ctx, RepositoryStream *stream, int64_t offset) noexcept {
  if (isMemory(stream)) return memoryLine(ctx, stream, offset);
  int64_t count = transferFileLine(ctx, stream, offset, platform::writeAt);
  if (count < 0) return nullptr;
  if (stream->dataType == ZelBoolean && count > 0) {
    stream->carryByte = stream->lineBuffer[count - 1];
    stream->carryPosition = stream->filePosition - 1;
  }
  return stream->lineBuffer;
}

}  // namespace zel
