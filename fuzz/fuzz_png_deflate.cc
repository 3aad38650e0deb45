// PngDeflate expansion (Zel701) of arbitrary bytes under every row layout: never a crash, a
// leak, a sanitizer report or an object left behind, and a refusal is a code. The first four
// bytes choose the layout, the rest is the compressed stream.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"

namespace {

using zel::fuzz::require;

// Layouts that PngDeflate codes: depth, bands and the data type of the plain image.
struct Layout {
  int depth, bands, dataType;
};
constexpr Layout layouts[] = {{1, 1, ZelBoolean},      {2, 1, ZelNonNegative},
                              {4, 1, ZelNonNegative},  {8, 1, ZelNonNegative},
                              {8, 3, ZelNonNegative},  {8, 4, ZelNonNegative},
                              {16, 1, ZelNonNegative}, {16, 3, ZelNonNegative}};
constexpr int layoutCount = sizeof layouts / sizeof layouts[0];

ZelObject *create(ZelContext *ctx, const ZelAttribute *list, int count) {
  ZelObject *object = Zel000(ctx, nullptr, &ZelClassGenericImage, nullptr, list, count);
  require(object != nullptr, "an object could not be made");
  return object;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zel::fuzz::Input input;
  if (!zel::fuzz::inputOf(data, size, input) || input.count < 4) return -1;
  auto [bytes, count, ctx] = input;
  const Layout &layout = layouts[bytes[0] % layoutCount];
  int width = 1 + bytes[1] % 64, height = 1 + bytes[2] % 64;
  bool png = (bytes[3] & 1) != 0, interlaced = (bytes[3] & 2) != 0;
  const ZelAttribute stream[] = {{"xDimension", width},
                                 {"yDimension", height},
                                 {"bDimension", layout.bands},
                                 {"dataType", layout.dataType},
                                 {"dataPrecision", layout.depth},
                                 {"repository", ZelApplicationAddressSpace},
                                 {"applicationAddressSpace", reinterpret_cast<ZelValue>(bytes + 4)},
                                 {"compression", ZelPngDeflate},
                                 {"size", count - 4},
                                 {"fileFormat", png ? ZelPng : 0},
                                 {"interlacedImage", interlaced ? 1 : 0}};
  ZelObject *compressed = create(ctx, stream, png ? 11 : 9);
  const ZelAttribute plain[] = {{"xDimension", width},           {"yDimension", height},
                                {"bDimension", layout.bands},    {"dataType", layout.dataType},
                                {"dataPrecision", layout.depth}, {"repository", ZelWorkSpace}};
  ZelObject *image = create(ctx, plain, 6);
  zel::fuzz::forgetLastFailure(ctx);
  int code = Zel701(ctx, compressed, image);
  require(code == 0 || Zel003b(ctx) == code, "the code returned is not the one recorded");
  require(Zel002(ctx, image) == 0 && Zel002(ctx, compressed) == 0, "objects not destroyed");
  zel::fuzz::requireContextIntact(ctx);
  return 0;
}
