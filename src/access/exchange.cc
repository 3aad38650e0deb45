// Copies by plane index, exchange with the application's memory, and the tuple forms built on
// them. Each changes attributes for the length of one conversion and puts them back.
#include <cstdint>
#include <cstring>

#include "access/repository.h"
#include "kernel/context.h"
#include "kernel/memory.h"
#include "kernel/objects.h"

namespace zel {
namespace {

struct MatchPoint {
  int32_t x, y, z, t, b;
};

MatchPoint matchPointOf(const ZelObject *object) {
  return {object->xMatchPoint, object->yMatchPoint, object->zMatchPoint, object->tMatchPoint,
          object->bMatchPoint};
}

void setMatchPoint(ZelObject *object, const MatchPoint &point) {
  object->xMatchPoint = point.x;
  object->yMatchPoint = point.y;
  object->zMatchPoint = point.z;
  object->tMatchPoint = point.t;
  object->bMatchPoint = point.b;
}

// The copy between planes: `indexed` gets the plane indices as its z, t and b match points for
// the length of one conversion. The context and both objects are put back on every path.
int copyAtPlane(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelObject *indexed,
                const MatchPoint &plane) {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, source) || !checkObject(ctx, destination)) return 9;
  int32_t keptState = ctx->matchPointState;
  const MatchPoint keptSource = matchPointOf(source);
  const MatchPoint keptDestination = matchPointOf(destination);
  if (keptState == 0) {
    // x and y meet at the origins of both objects.
    ctx->matchPointState = 1;
    setMatchPoint(source, {0, 0, keptSource.z, keptSource.t, keptSource.b});
    setMatchPoint(destination, {0, 0, keptDestination.z, keptDestination.t, keptDestination.b});
  }
  MatchPoint indexedPoint = matchPointOf(indexed);
  setMatchPoint(indexed, {indexedPoint.x, indexedPoint.y, plane.z, plane.t, plane.b});
  int code = Zel601(ctx, source, destination);
  ctx->matchPointState = keptState;
  setMatchPoint(source, keptSource);
  setMatchPoint(destination, keptDestination);
  return code;
}

enum class Direction { Export, Import };

// One conversion between `object` and an object of its class and shape whose data is `buffer`,
// shaped further by `list`.
int exchange(ZelContext *ctx, ZelObject *object, void *buffer, const ZelAttribute *list, int count,
             Direction direction) {
  if (int code = checkContext(ctx)) return code;
  if (count < 0 || (count > 0 && !list) || !buffer) {
    reportError(ctx, 18);
    return 18;
  }
  if (!checkObject(ctx, object)) return 9;
  size_t pairs = static_cast<size_t>(count) + 2;
  Block<ZelAttribute> attributes(
      static_cast<ZelAttribute *>(allocZeroedArray(ctx, pairs, sizeof(ZelAttribute))));
  if (!attributes) return -1;
  if (count > 0) std::memcpy(attributes.get(), list, static_cast<size_t>(count) * sizeof *list);
  // Later entries win: the data lies in the application's memory whatever the list says.
  attributes.get()[count] = {"repository", ZelApplicationAddressSpace};
  attributes.get()[count + 1] = {"applicationAddressSpace", reinterpret_cast<ZelValue>(buffer)};
  ZelObject *temporary =
      Zel000(ctx, nullptr, object->objectClass, object, attributes.get(), static_cast<int>(pairs));
  if (!temporary) return Zel003b(ctx);
  int code = direction == Direction::Export ? Zel601(ctx, object, temporary)
                                            : Zel601(ctx, temporary, object);
  Zel002(ctx, temporary);
  return code;
}

// Words of a tuple: no more than `capacity` of them, or 18.
int readTupleWords(ZelContext *ctx, ZelObject *tuple, int32_t *words, int capacity) {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, tuple)) return 9;
  int64_t bytes = objectTotalBytes(ctx, tuple);
  if (bytes < 0 || bytes > int64_t{capacity} * int64_t{sizeof(int32_t)}) {
    reportError(ctx, 18);
    return 18;
  }
  return Zel605(ctx, tuple, words, nullptr, 0);
}

}  // namespace
}  // namespace zel

using namespace zel;

extern "C" ZEL_API int Zel600(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              int zIndex, int tIndex, int bIndex) noexcept {
  return copyAtPlane(ctx, source, destination, destination, {0, 0, zIndex, tIndex, bIndex});
}

extern "C" ZEL_API int Zel603(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              int zIndex, int tIndex, int bIndex) noexcept {
  return copyAtPlane(ctx, source, destination, source, {0, 0, zIndex, tIndex, bIndex});
}

extern "C" ZEL_API int Zel605(ZelContext *ctx, ZelObject *object, void *buffer,
                              const ZelAttribute *list, int count) noexcept {
  return exchange(ctx, object, buffer, list, count, Direction::Export);
}

extern "C" ZEL_API int Zel609(ZelContext *ctx, void *buffer, ZelObject *object,
                              const ZelAttribute *list, int count) noexcept {
  return exchange(ctx, object, buffer, list, count, Direction::Import);
}

extern "C" ZEL_API ZelObject *Zel000o(ZelContext *ctx, const void *array, int entries,
                                      int dataType) noexcept {
  if (checkContext(ctx)) return nullptr;
  if (entries < 0) {
    reportError(ctx, 18);
    return nullptr;
  }
  const ZelAttribute list[] = {
      {"entries", entries}, {"dataType", dataType}, {"repository", ZelWorkSpace}};
  ZelObject *tuple = Zel000n(ctx, nullptr, nullptr, list, 3);
  if (!tuple) return nullptr;
  // The import only reads the application's array.
  Zel609(ctx, const_cast<void *>(array), tuple, nullptr, 0);
  return tuple;
}

extern "C" ZEL_API ZelObject *Zel000p(ZelContext *ctx, int32_t a, int32_t b, int32_t c, int32_t d,
                                      int32_t e) noexcept {
  const int32_t words[5] = {a, b, c, d, e};
  return Zel000o(ctx, words, 5, ZelWord);
}

extern "C" ZEL_API ZelObject *Zel000p2(ZelContext *ctx, const int32_t *words, int count) noexcept {
  if (checkContext(ctx)) return nullptr;
  int32_t local[4] = {};
  if (count > 4 || (count > 0 && !words)) {
    reportError(ctx, 18);
    return nullptr;
  }
  if (count > 0) std::memcpy(local, words, static_cast<size_t>(count) * sizeof *words);
  return Zel000o(ctx, local, count, ZelWord);
}

extern "C" ZEL_API int Zel000q(ZelContext *ctx, ZelObject *tuple, int32_t *a, int32_t *b,
                               int32_t *c, int32_t *d, int32_t *e) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!a || !b || !c || !d || !e) {
    reportError(ctx, 18);
    return 18;
  }
  int32_t words[5] = {};
  if (int code = readTupleWords(ctx, tuple, words, 5)) return code;
  *a = words[0];
  *b = words[1];
  *c = words[2];
  *d = words[3];
  *e = words[4];
  return 0;
}

extern "C" ZEL_API int Zel000q2(ZelContext *ctx, ZelObject *tuple, int32_t *out,
                                int count) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (count > 4 || (count > 0 && !out)) {
    reportError(ctx, 18);
    return 18;
  }
  int32_t words[4] = {};
  if (int code = readTupleWords(ctx, tuple, words, 4)) return code;
  if (count > 0) std::memcpy(out, words, static_cast<size_t>(count) * sizeof *out);
  return 0;
}
