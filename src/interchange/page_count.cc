#include "interchange/page_count.h"

#include <algorithm>
#include <cstdint>

#include "interchange/common.h"
#include "kernel/context.h"

namespace zel::interchange {
namespace {

uint32_t littleEndian(const uint8_t *bytes, int count) {
  uint32_t value = 0;
  for (int i = count - 1; i >= 0; --i)
    value = value << 8 | bytes[i];
  return value;
}

constexpr uint32_t endMarker = 0xF0000000;
constexpr uint32_t pageMarker = 0xF1108000;
constexpr uint32_t openLength = 0x8000;

// A record marker of a segmented document: 16-bit tag, 16-bit length.
struct Marker {
  uint32_t tag;
  uint32_t length;
};

int readMarker(const ByteSource &source, int64_t &position, Marker &marker) {
  uint8_t bytes[4];
  if (int code = source.read(position, bytes, 4)) return code;
  position += 4;
  marker = {bigEndian(bytes, 2), bigEndian(bytes + 2, 2)};
  return 0;
}

int expectEnd(const ByteSource &source, int64_t &position) {
  Marker marker;
  if (int code = readMarker(source, position, marker)) return code;
  return marker.tag << 16 == endMarker && marker.length == 0 ? 0 : refuse(source.ctx, 22);
}

// The drawing stream of a page: one block (F4 01), or blocks of F0 04 up to an F0 00 tag (F5 01).
int skipDrawingStream(const ByteSource &source, int64_t &position, const Marker &opening) {
  if (opening.tag == 0xF401) {
    position += opening.length & 0x7FFF;
    return 0;
  }
  for (;;) {
    Marker block;
    if (int code = readMarker(source, position, block)) return code;
    if (block.tag == 0xF000) return 0;
    if (block.tag != 0xF004 || block.length >= openLength) return refuse(source.ctx, 22);
    position += block.length;
  }
}

// One page from the word after its marker to the word after its closing end marker. Every
// step moves forward, so the walk ends on any input.
int skipPage(const ByteSource &source, int64_t &position) {
  uint8_t descriptor[24];
  if (int code = source.read(position, descriptor, sizeof descriptor)) return code;
  position += sizeof descriptor;
  if (bigEndian(descriptor, 4) != 0xF0040014 || descriptor[12] != 0xF1)
    return refuse(source.ctx, 22);
  Marker content, record;
  if (int code = readMarker(source, position, content)) return code;
  if (content.tag != 0xF110) return refuse(source.ctx, 22);
  if (int code = readMarker(source, position, record)) return code;
  if (record.tag == 0xF500 && record.length < openLength) {
    position += record.length;
    if (int code = readMarker(source, position, record)) return code;
  }
  if (record.tag != 0xF401 && record.tag != 0xF501) return refuse(source.ctx, 22);
  if (int code = skipDrawingStream(source, position, record)) return code;
  if (content.length == openLength) {
    if (int code = expectEnd(source, position)) return code;
  }
  return expectEnd(source, position);
}

}  // namespace

int ByteSource::read(int64_t offset, void *buffer, int64_t count) const noexcept {
  if (size >= 0 && (offset < 0 || offset > size - count)) return refuse(ctx, 8);
  return readBytes(ctx, stream, offset, buffer, count) == count ? 0 : Zel003b(ctx);
}

// The directories of a TIFF form a chain of offsets, in any order in the file. A chain that
// returns to a directory counts each directory once: the loop is found without memory by
// Brent's method, then its start by two walks a loop length apart.
class DirectoryChain {
 public:
  DirectoryChain(const ByteSource &source, bool little) : source_(source), little_(little) {}

  // The offset after the directory at `offset`; 0 or the code.
  int next(int64_t offset, int64_t &after) const {
    uint8_t count[2], link[4];
    if (int code = source_.read(offset, count, 2)) return code;
    int64_t entries = word(count, 2);
    if (int code = source_.read(offset + 2 + 12 * entries, link, 4)) return code;
    after = word(link, 4);
    return 0;
  }
  uint32_t word(const uint8_t *bytes, int count) const {
    return little_ ? littleEndian(bytes, count) : bigEndian(bytes, count);
  }

 private:
  const ByteSource &source_;
  bool little_;
};

int countChain(const DirectoryChain &chain, int64_t first, int64_t &pages) {
  pages = 0;
  if (first == 0) return 0;
  int64_t tortoise = first, hare = first, power = 1, loop = 0;
  pages = 1;
  for (;;) {
    if (int code = chain.next(hare, hare)) return code;
    if (hare == 0) return 0;
    ++loop;
    if (hare == tortoise) break;
    ++pages;
    if (loop == power) {
      tortoise = hare;
      power *= 2;
      loop = 0;
    }
  }
  // A loop of `loop` directories: the ones before it are found by walking two places that far
  // apart until they meet.
  int64_t behind = first, ahead = first, lead = 0;
  for (int64_t i = 0; i < loop; ++i)
    if (int code = chain.next(ahead, ahead)) return code;
  while (behind != ahead) {
    if (int code = chain.next(behind, behind)) return code;
    if (int code = chain.next(ahead, ahead)) return code;
    ++lead;
  }
  pages = lead + loop;
  return 0;
}

int countTiffPages(const ByteSource &source, int32_t &pages) noexcept {
  pages = 0;
  if (source.size >= 0 && source.size < 9) return refuse(source.ctx, 8);
  uint8_t head[8];
  if (int code = source.read(0, head, sizeof head)) return code;
  bool little = head[0] == 'I' && head[1] == 'I';
  if (!little && !(head[0] == 'M' && head[1] == 'M')) return refuse(source.ctx, 22);
  DirectoryChain chain(source, little);
  if (chain.word(head + 2, 2) != 42) return refuse(source.ctx, 22);
  int64_t count = 0;
  if (int code = countChain(chain, chain.word(head + 4, 4), count)) return code;
  pages = static_cast<int32_t>(std::min<int64_t>(count, INT32_MAX));
  return 0;
}

int countDocumentPages(const ByteSource &source, int32_t &pages) noexcept {
  pages = 0;
  if (source.size >= 0 && source.size < 4) return refuse(source.ctx, 8);
  uint8_t head[4];
  if (int code = source.read(0, head, sizeof head)) return code;
  auto digit = [](uint8_t byte) { return byte >= 0xF0 && byte <= 0xF9; };
  if (!digit(head[0]) || !digit(head[1]) || head[2] != 0x23) return refuse(source.ctx, 22);
  int64_t position = ((head[0] - 0xF0) * 10 + (head[1] - 0xF0)) * int64_t{256};
  Marker marker;
  if (int code = readMarker(source, position, marker)) return code;
  if (marker.tag != 0xF111 || marker.length != openLength) return refuse(source.ctx, 22);
  for (;;) {
    if (int code = readMarker(source, position, marker)) return code;
    uint32_t word = marker.tag << 16 | marker.length;
    if (word == endMarker) return 0;
    if (word != pageMarker) return refuse(source.ctx, 22);
    if (int code = skipPage(source, position)) return code;
    ++pages;
  }
}

}  // namespace zel::interchange
