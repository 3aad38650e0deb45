// Composites: objects whose pixels are handles of other objects, such as the pages of a
// document. Entries are pointer-sized; a composite owns nothing that it lists.
#include <cstring>

#include "access/frame.h"
#include "kernel/context.h"
#include "kernel/objects.h"

using namespace zel;

namespace {

// The composite's frame, or null after reporting: 18 for an index outside the entries, 10 for
// data that isn't handles.
Frame openEntries(ZelContext *ctx, ZelObject *composite, int index, const char *mode) {
  if (!checkObject(ctx, composite)) return Frame();
  if (index < 0 || index >= composite->xDimension) {
    reportError(ctx, 18);
    return Frame();
  }
  Frame frame = openFrame(ctx, composite, mode, 1);
  if (!frame) return frame;
  if (frame->dataType != ZelObjectHandle || frame->stream->bitsPerPixel != 8 * sizeof(void *)) {
    frame.reset();
    reportError(ctx, 10);
  }
  return frame;
}

}  // namespace

extern "C" {

ZEL_API ZelObject *Zel010(ZelContext *ctx, ZelObject *composite, int index) noexcept {
  if (checkContext(ctx) != 0) return nullptr;
  Frame frame = openEntries(ctx, composite, index, "r");
  if (!frame) return nullptr;
  const uint8_t *line = readLine(ctx, frame->stream, 0);
  if (!line) return nullptr;
  ZelObject *entry = nullptr;
  std::memcpy(&entry, line + static_cast<size_t>(index) * sizeof entry, sizeof entry);
  return entry;
}

ZEL_API int Zel011(ZelContext *ctx, ZelObject *entry, ZelObject *composite, int index) noexcept {
  if (int code = checkContext(ctx)) return code;
  Frame frame = openEntries(ctx, composite, index, "w");
  if (!frame) return Zel003b(ctx);
  uint8_t *line = lineForUpdate(ctx, frame->stream, 0);
  if (!line) return Zel003b(ctx);
  std::memcpy(line + static_cast<size_t>(index) * sizeof entry, &entry, sizeof entry);
  if (!writeLine(ctx, frame->stream, 0)) return Zel003b(ctx);
  return 0;
}

}  // extern "C"
