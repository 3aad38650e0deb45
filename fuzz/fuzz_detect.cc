// Format detection (Zel705w) on arbitrary bytes: never a crash, a leak, a sanitizer report or an
// object left in the context; the answer is a format the library detects, and the leading
// bytes that name a format decide the answer on their own.
#include <array>
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"

namespace {

using zel::fuzz::require;

constexpr int anyByte = -1;

// Leading bytes that name a format, in the order they are tested; the first match wins. Format 0
// is the signature after which nothing else is tried.
struct Signature {
  std::array<int, 8> bytes;
  int length;
  int format;
};

constexpr Signature signatures[] = {
    {{'B', 'M'}, 2, ZelBmp},
    {{'G', 'I', 'F', '8', '7', 'a'}, 6, ZelGif},
    {{'G', 'I', 'F', '8', '9', 'a'}, 6, ZelGif},
    {{'I', 'I'}, 2, ZelTiff},
    {{'M', 'M'}, 2, ZelTiff},
    {{0xFF, 0xD8, 0xFF, 0xE1, 0x00, 0x0C, 0x47, 0x33}, 8, ZelJpegColourFax},
    {{0xFF, 0xD8}, 2, ZelJpegDirect},
    {{0x0A, anyByte, 0x01}, 3, ZelPcx},
    {{0xF0, 0xF3, 0x23}, 3, ZelSegmentedDocument},
    {{0xF0, 0xF4, 0x23}, 3, ZelSegmentedDocument},
    {{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, 8, ZelPng},
    {{'8', 'B', 'P', 'S'}, 4, 0},
};

// Every answer detection may give: the formats above and those found by reading.
constexpr int detectable[] = {0,
                              ZelBmp,
                              ZelGif,
                              ZelTiff,
                              ZelJpegColourFax,
                              ZelJpegDirect,
                              ZelPcx,
                              ZelSegmentedDocument,
                              ZelPng,
                              ZelJpegInterchange,
                              ZelKolShort,
                              ZelKolLong};

bool matches(const Signature &signature, const uint8_t *data) {
  for (int i = 0; i < signature.length; ++i)
    if (signature.bytes[i] != anyByte && signature.bytes[i] != data[i]) return false;
  return true;
}

// The signature the first bytes carry, or null. `data` holds at least 8 bytes.
const Signature *signatureOf(const uint8_t *data) {
  for (const Signature &signature : signatures)
    if (matches(signature, data)) return &signature;
  return nullptr;
}

bool isDetectable(int format) {
  for (int known : detectable)
    if (format == known) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zel::fuzz::Input input;
  if (!zel::fuzz::inputOf(data, size, input)) return -1;
  auto [bytes, count, ctx] = input;
  zel::fuzz::forgetLastFailure(ctx);

  int format = Zel705w(ctx, bytes, count);

  require(isDetectable(format), "detection answered a format it never detects");
  if (count < 10) {
    require(format == 0, "fewer than 10 bytes gave a format");
    require(Zel003b(ctx) == 8, "fewer than 10 bytes did not report 8");
  } else if (const Signature *signature = signatureOf(bytes)) {
    require(format == signature->format, "the leading bytes did not decide the format");
  }
  zel::fuzz::requireContextIntact(ctx);
  return 0;
}
