// Page counting (Zel704w) of the same arbitrary bytes as TIFF and as a segmented document: never
// a crash, a leak, a hang, a sanitizer report or an object left in the context; a header that
// can't be the format is refused, and the count never exceeds what the bytes can hold.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"

namespace {

using zel::fuzz::require;

// The least a segmented document spends on one page: the page marker, the 24-byte descriptor,
// the content marker, an empty drawing block and the page's end marker.
constexpr int64_t documentPageBytes = 4 + 24 + 4 + 4 + 4;

bool isEbcdicDigit(uint8_t byte) {
  return byte >= 0xF0 && byte <= 0xF9;
}

// Counts the pages as `format` and checks the answer against what the header allows. `header`
// is the fewest bytes the format's counter accepts; `headerValid` tells whether the leading
// bytes may start such a file; `pageBytes` the fewest bytes that one page takes.
void countAs(ZelContext *ctx, const uint8_t *bytes, int size, int format, int header,
             bool headerValid, int64_t pageBytes) {
  zel::fuzz::forgetLastFailure(ctx);
  int pages = Zel704w(ctx, bytes, format, size);
  require(pages >= 0, "a negative page count");
  require(pages * pageBytes <= size, "more pages than the bytes can hold");
  if (size < header) {
    require(pages == 0 && Zel003b(ctx) == 8, "a short input was not refused with 8");
  } else if (!headerValid) {
    require(pages == 0 && Zel003b(ctx) == 22, "a foreign header was not refused with 22");
  }
  zel::fuzz::requireContextIntact(ctx);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zel::fuzz::Input input;
  if (!zel::fuzz::inputOf(data, size, input)) return -1;
  auto [bytes, count, ctx] = input;

  // TIFF: "II" with 42 little-endian or "MM" with 42 big-endian; each directory offset is
  // beyond the one before and within the input, so at most one page per byte.
  bool tiff = count >= 4 && ((bytes[0] == 'I' && bytes[1] == 'I' && bytes[2] == 42 && !bytes[3]) ||
                             (bytes[0] == 'M' && bytes[1] == 'M' && !bytes[2] && bytes[3] == 42));
  countAs(ctx, bytes, count, ZelTiff, 9, tiff, 1);

  bool document =
      count >= 3 && isEbcdicDigit(bytes[0]) && isEbcdicDigit(bytes[1]) && bytes[2] == 0x23;
  countAs(ctx, bytes, count, ZelSegmentedDocument, 4, document, documentPageBytes);
  return 0;
}
