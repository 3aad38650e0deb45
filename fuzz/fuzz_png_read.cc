// The PNG reader on arbitrary bytes, from memory and from a file, each time read and expanded
// into a plain image: never a crash, a leak, a sanitizer report or an object left behind; a
// refusal is a code, and an accepted file gives an image of the shape its header announced.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

namespace {

using zel::fuzz::require;

// A file of the input's bytes, in the working folder of the run, made again for every input.
const char *writeInput(const uint8_t *bytes, size_t size) {
  static const std::string name = "fuzz_png_read." + std::to_string(getpid()) + ".png";
  static const int removal = std::atexit([] { std::remove(name.c_str()); });
  (void)removal;
  FILE *file = std::fopen(name.c_str(), "wb");
  require(file != nullptr, "the input file could not be made");
  require(std::fwrite(bytes, 1, size, file) == size, "the input file could not be written");
  std::fclose(file);
  return name.c_str();
}

ZelValue attribute(ZelContext *ctx, ZelObject *object, const char *name) {
  ZelValue value = 0;
  const ZelAttribute request[] = {{name, reinterpret_cast<ZelValue>(&value)}};
  require(Zel005(ctx, object, request, 1) == 0, "an attribute of the image could not be read");
  return value;
}

// The image after a read: plain, of the announced size, as the first bytes of IHDR say.
void requireShape(ZelContext *ctx, ZelObject *image, const uint8_t *bytes, int count) {
  require(count >= 24, "a file shorter than its header was accepted");
  auto word = [bytes](int at) {
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 |
           uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
  };
  require(attribute(ctx, image, "compression") == 0, "the image was left compressed");
  require(attribute(ctx, image, "xDimension") == word(16), "width differs from the header");
  require(attribute(ctx, image, "yDimension") == word(20), "height differs from the header");
}

void readOnce(ZelContext *ctx, const uint8_t *bytes, int count, bool fromMemory) {
  const ZelAttribute shape[] = {{"repository", ZelWorkSpace}};
  ZelObject *image = Zel000(ctx, nullptr, &ZelClassGenericImage, nullptr, shape, 1);
  require(image != nullptr, "no image object");
  zel::fuzz::forgetLastFailure(ctx);
  int code = fromMemory ? Zel703w(ctx, bytes, image, ZelPng, count, nullptr, 0)
                        : Zel703x(ctx, writeInput(bytes, static_cast<size_t>(count)), image, ZelPng,
                                  nullptr, 0);
  require(code == 0 || Zel003b(ctx) == code, "the code returned is not the one recorded");
  if (code == 0) requireShape(ctx, image, bytes, count);
  require(Zel002(ctx, image) == 0, "the image could not be destroyed");
  zel::fuzz::requireContextIntact(ctx);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zel::fuzz::Input input;
  if (!zel::fuzz::inputOf(data, size, input)) return -1;
  auto [bytes, count, ctx] = input;
  readOnce(ctx, bytes, count, true);
  readOnce(ctx, bytes, count, false);
  return 0;
}
