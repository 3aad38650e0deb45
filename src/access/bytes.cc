// Byte and bit access to repository streams, with the byte stuffing of entropy-coded data:
// every 0xFF written by bits is followed by a zero byte, which the bit readers drop.
#include <algorithm>
#include <cstring>

#include "access/repository.h"
#include "kernel/context.h"
#include "platform/files.h"

namespace zel {
namespace {

bool isMemory(const RepositoryStream *stream) {
  return stream->repository != ZelFile;
}

// Memory bit streams run up to the plain size of the object, within the block.
int64_t bitLimit(const RepositoryStream *stream) {
  return std::min(stream->totalBytes, stream->accessBytes);
}

int fetchRawByte(ZelContext *ctx, RepositoryStream *stream, uint8_t &byte) {
  if (isMemory(stream)) {
    if (stream->bitByteCount >= bitLimit(stream)) {
      reportError(ctx, 8);
      return 8;
    }
    byte = stream->lineBuffer[stream->bitByteCount++];
    return 0;
  }
  if (stream->bitBufferIndex >= bitBufferBytes) {
    // A short read is not an error here: the end of a file shows in the data itself.
    int64_t count = platform::readUpTo(stream->fileHandle, stream->bitBuffer, bitBufferBytes,
                                       stream->filePosition);
    if (count < 0) {
      reportError(ctx, -1);
      return -1;
    }
    stream->filePosition += count;
    stream->bitBufferIndex = 0;
  }
  byte = stream->bitBuffer[stream->bitBufferIndex++];
  return 0;
}

// The next byte of entropy-coded data: a stuffed zero after 0xFF is dropped, anything else
// after 0xFF is a marker where data was expected.
int fetchDataByte(ZelContext *ctx, RepositoryStream *stream) {
  if (int code = fetchRawByte(ctx, stream, stream->bitByte)) return code;
  if (stream->bitByte != 0xFF) return 0;
  uint8_t stuffed = 0;
  if (int code = fetchRawByte(ctx, stream, stuffed)) return code;
  if (stuffed != 0) {
    reportError(ctx, 19);
    return 19;
  }
  return 0;
}

int storeByte(ZelContext *ctx, RepositoryStream *stream, uint8_t byte) {
  if (isMemory(stream)) {
    if (stream->bitByteCount >= bitLimit(stream)) {
      reportError(ctx, 8);
      return 8;
    }
    stream->lineBuffer[stream->bitByteCount++] = byte;
    return 0;
  }
  stream->bitBuffer[stream->bitBufferIndex++] = byte;
  stream->bitByteCount += 1;
  if (stream->bitBufferIndex < bitBufferBytes) return 0;
  if (!platform::writeAt(stream->fileHandle, stream->bitBuffer, bitBufferBytes,
                         stream->filePosition)) {
    reportError(ctx, -1);
    return -1;
  }
  stream->filePosition += bitBufferBytes;
  stream->bitBufferIndex = 0;
  return 0;
}

uint32_t topBit(int count) {
  return 1u << ((count - 1) & 31);
}

template <bool Stuffing>
int readBitLoop(ZelContext *ctx, RepositoryStream *stream, uint32_t *value, int count) {
  *value = 0;
  for (uint32_t mask = topBit(count); mask; mask >>= 1) {
    if (stream->bitMask == 128) {
      int code = Stuffing ? fetchDataByte(ctx, stream) : fetchRawByte(ctx, stream, stream->bitByte);
      if (code) return code;
    }
    if (stream->bitByte & stream->bitMask) *value |= mask;
    stream->bitMask >>= 1;
    if (stream->bitMask == 0) stream->bitMask = 128;
  }
  return 0;
}

template <bool Stuffing>
int writeBitLoop(ZelContext *ctx, RepositoryStream *stream, uint32_t value, int count) {
  for (uint32_t mask = topBit(count); mask; mask >>= 1) {
    if (value & mask) stream->bitByte |= stream->bitMask;
    stream->bitMask >>= 1;
    if (stream->bitMask != 0) continue;
    uint8_t byte = stream->bitByte;
    stream->bitByte = 0;
    stream->bitMask = 128;
    if (int code = storeByte(ctx, stream, byte)) return code;
    if (Stuffing && byte == 0xFF) {
      if (int code = storeByte(ctx, stream, 0)) return code;
    }
  }
  return 0;
}

}  // namespace

int64_t readBytes(ZelContext *ctx, RepositoryStream *stream, int64_t offset, void *buffer,
                  int64_t count) noexcept {
  if (isMemory(stream)) {
    if (offset < 0 || count < 0 || offset > stream->limitBytes - count) {
      reportError(ctx, -1);
      return -1;
    }
    std::memcpy(buffer, stream->lineBuffer + offset, static_cast<size_t>(count));
    return count;
  }
  if (offset < 0 || count < 0 ||
      !platform::readAt(stream->fileHandle, buffer, static_cast<size_t>(count), offset)) {
    reportError(ctx, -1);
    return -1;
  }
  stream->filePosition = offset + count;
  return count;
}

int64_t writeBytes(ZelContext *ctx, RepositoryStream *stream, int64_t offset, const void *buffer,
                   int64_t count) noexcept {
  if (isMemory(stream)) {
    if (offset < 0 || count < 0 || offset > stream->accessBytes - count) {
      reportError(ctx, 8);
      return -1;
    }
    std::memcpy(stream->lineBuffer + offset, buffer, static_cast<size_t>(count));
    return count;
  }
  if (offset < 0 || count < 0 ||
      !platform::writeAt(stream->fileHandle, buffer, static_cast<size_t>(count), offset)) {
    reportError(ctx, -1);
    return -1;
  }
  stream->filePosition = offset + count;
  return count;
}

int readBit(ZelContext *ctx, RepositoryStream *stream, uint32_t *bit) noexcept {
  return readBitLoop<true>(ctx, stream, bit, 1);
}

int readBits(ZelContext *ctx, RepositoryStream *stream, uint32_t *value, int count) noexcept {
  return readBitLoop<true>(ctx, stream, value, count);
}

int readBitsAligned(ZelContext *ctx, RepositoryStream *stream, uint32_t *value,
                    int count) noexcept {
  stream->bitMask = 128;
  return readBitLoop<false>(ctx, stream, value, count);
}

int writeBits(ZelContext *ctx, RepositoryStream *stream, uint32_t value, int count) noexcept {
  return writeBitLoop<true>(ctx, stream, value, count);
}

int writeBitsAligned(ZelContext *ctx, RepositoryStream *stream, uint32_t value,
                     int count) noexcept {
  if (stream->bitMask != 128) {
    uint8_t byte = stream->bitByte;
    stream->bitByte = 0;
    stream->bitMask = 128;
    if (int code = storeByte(ctx, stream, byte)) return code;
  }
  return writeBitLoop<false>(ctx, stream, value, count);
}

}  // namespace zel
