// Compression and expansion between a plain image and an object holding a compressed stream,
// dispatched on the compressed object's "compression".
#include "codecs/kit.h"
#include "codecs/png_rows.h"
#include "kernel/context.h"
#include "kernel/objects.h"

namespace zel::codec {
namespace {

enum class Direction { Compress, Expand };

// Both directions check the same: a plain image and a compressed object of a known family.
int dispatch(ZelContext *ctx, ZelObject *image, ZelObject *compressed, Direction direction) {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, image) || !checkObject(ctx, compressed)) return 9;
  Family family;
  if (image->compression != 0 || !familyOf(compressed->compression, family)) return refuse(ctx, 12);
  if (family == Family::PngDeflate)
    return direction == Direction::Compress ? compressPngDeflate(ctx, image, compressed)
                                            : expandPngDeflate(ctx, compressed, image);
  // Codec families join the library one by one; a family without its codec is an option this
  // build doesn't have.
  return refuse(ctx, 12);
}

}  // namespace
}  // namespace zel::codec

using namespace zel::codec;

extern "C" ZEL_API int Zel700(ZelContext *ctx, ZelObject *image, ZelObject *compressed) noexcept {
  return dispatch(ctx, image, compressed, Direction::Compress);
}

extern "C" ZEL_API int Zel701(ZelContext *ctx, ZelObject *compressed, ZelObject *image) noexcept {
  return dispatch(ctx, image, compressed, Direction::Expand);
}
