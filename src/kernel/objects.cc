#include "kernel/objects.h"

#include <cerrno>
#include <cstring>

#include "kernel/attributes.h"
#include "kernel/format_extensions.h"
#include "kernel/memory.h"
#include "platform/files.h"

using namespace zel;

namespace {

constexpr ObjectWords baseTemplate(int32_t dataType, int32_t precision, int32_t repository,
                                   int32_t x, int32_t y) {
  ObjectWords w{};
  w.bitOrder = ZelMostSignificantFirst;
  w.byteOrder = ZelMostSignificantFirst;
  w.k = 2;
  w.scaleFactor = 1;
  w.compressionLevel = 6;
  w.pixelInterpretation = ZelWhiteIsZero;
  w.dataType = dataType;
  w.dataPrecision = precision;
  w.repository = repository;
  w.xDimension = x;
  w.yDimension = y;
  w.zDimension = w.tDimension = w.bDimension = 1;
  return w;
}

constexpr ObjectWords imageTemplate = [] {
  ObjectWords w = baseTemplate(ZelNonNegative, 8, ZelFile, 1, 1);
  w.jIndexAssignment = ZelAxisX;
  w.kIndexAssignment = ZelAxisY;
  w.lIndexAssignment = ZelAxisZ;
  w.mIndexAssignment = ZelAxisT;
  w.nIndexAssignment = ZelAxisB;
  w.samplingFactor = ZelSamplingTwoOne;
  return w;
}();
constexpr ObjectWords histogramTemplate = baseTemplate(ZelWord, 32, ZelWorkSpace, 256, 1);
constexpr ObjectWords lookupTableTemplate = baseTemplate(ZelNonNegative, 8, ZelWorkSpace, 256, 1);
constexpr ObjectWords matrixTemplate = baseTemplate(ZelReal, 32, ZelWorkSpace, 3, 3);
constexpr ObjectWords signedArrayTemplate = baseTemplate(ZelSigned, 16, ZelWorkSpace, 3, 3);
constexpr ObjectWords roiTemplate = [] {
  ObjectWords w = baseTemplate(ZelNonNegative, 8, ZelFile, 1, 1);
  w.samplingFactor = ZelSamplingTwoOne;
  return w;
}();
constexpr ObjectWords complexArrayTemplate = baseTemplate(ZelComplex, 64, ZelFile, 1, 1);
constexpr ObjectWords tupleTemplate = baseTemplate(ZelReal, 32, ZelWorkSpace, 1, 1);
// Entries of a composite are object handles, as wide as a pointer.
constexpr ObjectWords compositeTemplate =
    baseTemplate(ZelObjectHandle, 8 * sizeof(ZelObject *), ZelWorkSpace, 1, 1);

struct ClassEntry {
  const ZelObjectClass *descriptor;
  const ObjectWords *words;
};

}  // namespace

extern "C" {
ZEL_API extern const ZelObjectClass ZelClassColourImage = {"ColourImage", &imageTemplate};
ZEL_API extern const ZelObjectClass ZelClassGenericImage = {"GenericImage", &imageTemplate};
ZEL_API extern const ZelObjectClass ZelClassMonochromeImage = {"MonochromeImage", &imageTemplate};
ZEL_API extern const ZelObjectClass ZelClassHistogram = {"Histogram", &histogramTemplate};
ZEL_API extern const ZelObjectClass ZelClassLookupTable = {"LookupTable", &lookupTableTemplate};
ZEL_API extern const ZelObjectClass ZelClassMatrix = {"Matrix", &matrixTemplate};
ZEL_API extern const ZelObjectClass ZelClassDitherArray = {"DitherArray", &signedArrayTemplate};
ZEL_API extern const ZelObjectClass ZelClassImpulseResponseArray = {"ImpulseResponseArray",
                                                                    &signedArrayTemplate};
ZEL_API extern const ZelObjectClass ZelClassMaskArray = {"MaskArray", &signedArrayTemplate};
ZEL_API extern const ZelObjectClass ZelClassROI = {"ROI", &roiTemplate};
ZEL_API extern const ZelObjectClass ZelClassPowerSpectrumArray = {"PowerSpectrumArray",
                                                                  &complexArrayTemplate};
ZEL_API extern const ZelObjectClass ZelClassTransferFunctionArray = {"TransferFunctionArray",
                                                                     &complexArrayTemplate};
ZEL_API extern const ZelObjectClass ZelClassWindowFunctionArray = {"WindowFunctionArray",
                                                                   &complexArrayTemplate};
ZEL_API extern const ZelObjectClass ZelClassTuple = {"Tuple", &tupleTemplate};
ZEL_API extern const ZelObjectClass ZelClassCompositeIDArray = {"CompositeIDArray",
                                                                &compositeTemplate};
}

namespace {

// In ObjectClassId order.
constexpr const ZelObjectClass *classes[] = {
    &ZelClassColourImage,         &ZelClassGenericImage,
    &ZelClassMonochromeImage,     &ZelClassHistogram,
    &ZelClassLookupTable,         &ZelClassMatrix,
    &ZelClassDitherArray,         &ZelClassImpulseResponseArray,
    &ZelClassMaskArray,           &ZelClassROI,
    &ZelClassPowerSpectrumArray,  &ZelClassTransferFunctionArray,
    &ZelClassWindowFunctionArray, &ZelClassTuple,
    &ZelClassCompositeIDArray,
};

bool isImageClass(ObjectClassId id) {
  return id == ObjectClassId::ColourImage || id == ObjectClassId::GenericImage ||
         id == ObjectClassId::MonochromeImage;
}

// Classes other than the parent's that may derive from an image.
bool derivesFromImages(ObjectClassId id) {
  return isImageClass(id) || id == ObjectClassId::ROI || id == ObjectClassId::PowerSpectrumArray ||
         id == ObjectClassId::TransferFunctionArray || id == ObjectClassId::WindowFunctionArray;
}

bool derivationAllowed(ObjectClassId child, ObjectClassId parent) {
  return child == parent || (derivesFromImages(child) && isImageClass(parent));
}

// The level a record belongs to is that of its parent, or the top level.
struct Level {
  ZelObject **head;
  ZelObject **tail;
  ZelObject **firstFree;
};

Level levelOf(ZelContext *ctx, ZelObject *parent) {
  if (!parent) return {&ctx->rootObject, &ctx->rootTail, &ctx->rootFirstFree};
  return {&parent->firstChild, &parent->childTail, &parent->childFirstFree};
}

// The first free record of the level, or a new record appended to it.
ZelObject *takeRecord(ZelContext *ctx, Level level) {
  if (ZelObject *record = *level.firstFree) {
    ZelObject *next = record->nextSibling;
    while (next && next->inUse)
      next = next->nextSibling;
    *level.firstFree = next;
    return record;
  }
  auto *record = createRecord<ZelObject>(ctx);
  if (!record) return nullptr;
  if (!ctx->objectIndex.insert(ctx, record)) {
    destroyRecord(record);
    return nullptr;
  }
  record->sequence = ctx->nextSequence++;
  if (*level.tail)
    (*level.tail)->nextSibling = record;
  else
    *level.head = record;
  *level.tail = record;
  return record;
}

void noteFreeRecord(Level level, ZelObject *record) {
  ZelObject *first = *level.firstFree;
  if (!first || record->sequence < first->sequence) *level.firstFree = record;
}

// The type with the context's current precision for it.
void takeType(const ZelContext *ctx, ZelObject *object, int32_t dataType) {
  object->dataType = dataType;
  object->dataPrecision = *precisionOfType(ctx, dataType);
}

void adjustNewObject(ZelContext *ctx, ZelObject *object, ObjectClassId id) {
  switch (id) {
    case ObjectClassId::DitherArray:
      takeType(ctx, object, ZelNonNegative);
      object->xDimension = 4;
      object->yDimension = 4;
      object->scaleFactor = 16;
      break;
    case ObjectClassId::MaskArray:
      takeType(ctx, object, ZelNonNegative);
      break;
    case ObjectClassId::WindowFunctionArray:
      takeType(ctx, object, ZelReal);
      break;
    default:
      break;
  }
}

void adjustDerivedObject(ZelContext *ctx, ZelObject *object, ObjectClassId id) {
  switch (id) {
    case ObjectClassId::ColourImage:
      object->zDimension = object->tDimension = 1;
      break;
    case ObjectClassId::MonochromeImage:
      object->zDimension = object->tDimension = object->bDimension = 1;
      break;
    case ObjectClassId::ROI:
      takeType(ctx, object, ZelNonNegative);
      break;
    case ObjectClassId::PowerSpectrumArray:
    case ObjectClassId::TransferFunctionArray:
      takeType(ctx, object, ZelComplex);
      break;
    case ObjectClassId::WindowFunctionArray:
      takeType(ctx, object, ZelReal);
      break;
    default:
      break;
  }
}

void initialiseWords(ZelContext *ctx, ZelObject *object, ObjectClassId id, ZelObject *parent) {
  ObjectWords &words = *object;
  if (parent) {
    words = *parent;
    words.applicationAddressSpace = nullptr;
    words.fileFormat = 0;
    words.fileName = nullptr;
    words.workSpace = nullptr;
    adjustDerivedObject(ctx, object, id);
  } else {
    words = classTemplate(id);
    adjustNewObject(ctx, object, id);
  }
  object->fileUseCount = 0;
  object->sharedFileReserved = 0;
  object->sharedFileHandle = 0;
}

// Records of one search, in the library's search order: a record, then all that its sibling
// chain leads to, then its children. Written as a loop so that deep or wide trees can't exhaust
// the stack; pending child levels wait on a heap stack instead.
template <class Visit>
ZelObject *searchTree(ZelContext *ctx, ZelObject *start, Visit matches) {
  GrowableArray<ZelObject *> pendingLevels;
  for (ZelObject *record = start;;) {
    for (; record; record = record->nextSibling) {
      if (matches(record)) return record;
      if (record->firstChild && !pendingLevels.push(ctx, record->firstChild)) return nullptr;
    }
    if (pendingLevels.empty()) return nullptr;
    record = pendingLevels.pop();
  }
}

}  // namespace

namespace zel {

ObjectClassId classIdOf(const ZelObjectClass *objectClass) noexcept {
  for (size_t i = 0; i < sizeof classes / sizeof classes[0]; ++i)
    if (classes[i] == objectClass) return static_cast<ObjectClassId>(i);
  return ObjectClassId::Unknown;
}

const ObjectWords &classTemplate(ObjectClassId id) noexcept {
  return *static_cast<const ObjectWords *>(classes[static_cast<size_t>(id)]->classTemplate);
}

ZelObject *checkObject(ZelContext *ctx, ZelObject *object) noexcept {
  if (checkContext(ctx) != 0) return nullptr;
  if (!ctx->objectIndex.contains(object) || object->inUse != 1) {
    reportError(ctx, 9);
    return nullptr;
  }
  return object;
}

int releaseObjectStorage(ZelContext *ctx, ZelObject *object) noexcept {
  int result = 0;
  releaseBlock(object->name);
  object->name = nullptr;
  // A file the library named is the library's to delete, whatever became of the object's
  // repository or inited flag since; only a written one must still be there.
  if ((object->flags & tmpnamFlag) && object->fileName && !platform::deleteFile(object->fileName) &&
      ((object->flags & initedFlag) || errno != ENOENT)) {
    reportError(ctx, -1);
    result = -1;
  }
  object->flags &= ~tmpnamFlag;
  releaseBlock(object->fileName);
  object->fileName = nullptr;
  if (object->repository == ZelWorkSpace && object->workSpace) {
    object->workSpace = nullptr;
    object->workSpaceHandle = 0;
  }
  releaseBlock(object->ownedWorkSpace);
  object->ownedWorkSpace = nullptr;
  object->ownedWorkSpaceBytes = 0;
  releaseFormatExtension(ctx, object);
  object->flags &= ~initedFlag;
  return result;
}

void releaseTree(ZelContext *ctx, ZelObject *record) noexcept {
  // Each child level is spliced into the chain behind its parent, so one loop reaches all.
  while (record) {
    if (ZelObject *child = record->firstChild) {
      ZelObject *last = record->childTail ? record->childTail : child;
      last->nextSibling = record->nextSibling;
      record->nextSibling = child;
      record->firstChild = nullptr;
    }
    ZelObject *next = record->nextSibling;
    releaseObjectStorage(ctx, record);
    ctx->objectIndex.erase(record);
    destroyRecord(record);
    record = next;
  }
}

}  // namespace zel

extern "C" {

ZEL_API ZelObject *Zel000(ZelContext *ctx, const char *name, const ZelObjectClass *objectClass,
                          ZelObject *parent, const ZelAttribute *list, int count) noexcept {
  if (checkContext(ctx) != 0) return nullptr;
  ObjectClassId id = classIdOf(objectClass);
  if (id == ObjectClassId::Unknown) {
    reportError(ctx, 6);
    return nullptr;
  }
  if (parent) {
    if (!checkObject(ctx, parent)) return nullptr;
    if (!derivationAllowed(id, classIdOf(parent->objectClass))) {
      reportError(ctx, 11);
      return nullptr;
    }
  }
  ZelObject *object = takeRecord(ctx, levelOf(ctx, parent));
  if (!object) return nullptr;
  object->inUse = 1;
  object->flags = 0;
  object->objectClass = objectClass;
  object->parent = parent;
  initialiseWords(ctx, object, id, parent);
  if (name && name[0] != '\0' && !(object->name = copyText(ctx, name))) return object;
  if (parent) copyFormatState(ctx, object, parent);
  applyAttributes(ctx, object, list, count);
  return object;
}

ZEL_API ZelObject *Zel000a(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassColourImage, parent, list, count);
}
ZEL_API ZelObject *Zel000b(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassGenericImage, parent, list, count);
}
ZEL_API ZelObject *Zel000c(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassMonochromeImage, parent, list, count);
}
ZEL_API ZelObject *Zel000d(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassHistogram, parent, list, count);
}
ZEL_API ZelObject *Zel000e(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassLookupTable, parent, list, count);
}
ZEL_API ZelObject *Zel000f(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassMatrix, parent, list, count);
}
ZEL_API ZelObject *Zel000g(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassDitherArray, parent, list, count);
}
ZEL_API ZelObject *Zel000h(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassImpulseResponseArray, parent, list, count);
}
ZEL_API ZelObject *Zel000i(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassMaskArray, parent, list, count);
}
ZEL_API ZelObject *Zel000j(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassROI, parent, list, count);
}
ZEL_API ZelObject *Zel000k(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassPowerSpectrumArray, parent, list, count);
}
ZEL_API ZelObject *Zel000l(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassTransferFunctionArray, parent, list, count);
}
ZEL_API ZelObject *Zel000m(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassWindowFunctionArray, parent, list, count);
}
ZEL_API ZelObject *Zel000n(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassTuple, parent, list, count);
}
ZEL_API ZelObject *Zel000z(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) noexcept {
  return Zel000(ctx, name, &ZelClassCompositeIDArray, parent, list, count);
}

ZEL_API int Zel002(ZelContext *ctx, ZelObject *object) noexcept {
  if (!checkObject(ctx, object)) return Zel003b(ctx);
  object->inUse = 0;
  int result = releaseObjectStorage(ctx, object);
  if (object->firstChild) {
    releaseTree(ctx, object->firstChild);
    object->firstChild = nullptr;
    object->childTail = nullptr;
    object->childFirstFree = nullptr;
  }
  noteFreeRecord(levelOf(ctx, object->parent), object);
  return result;
}

ZEL_API const ZelObjectClass *Zel097(ZelContext *ctx, ZelObject *object) noexcept {
  return checkObject(ctx, object) ? object->objectClass : nullptr;
}

ZEL_API ZelObject *Zel098(ZelContext *ctx, ZelObject *object) noexcept {
  return checkObject(ctx, object) ? object->parent : nullptr;
}

ZEL_API ZelObject *Zel099(ZelContext *ctx, ZelObject *object, const char *name) noexcept {
  if (checkContext(ctx) != 0) return nullptr;
  if (object && !checkObject(ctx, object)) return nullptr;
  ZelObject *found = nullptr;
  if (name) {
    found = searchTree(ctx, object ? object : ctx->rootObject, [name](const ZelObject *record) {
      return record->inUse == 1 && record->name && std::strcmp(record->name, name) == 0;
    });
  }
  if (!found) reportError(ctx, 9);
  return found;
}

}  // extern "C"
