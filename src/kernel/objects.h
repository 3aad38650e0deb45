// Objects: one record layout for all fifteen classes, kept in a tree under the context.
#pragma once

#include <cstdint>

#include "kernel/context.h"
#include "zel.h"

namespace zel {

// The attribute words a class template gives, in template order; Zel000 copies them whole.
struct ObjectWords {
  void *applicationAddressSpace;
  int32_t bitOrder;
  int32_t byteOrder;
  int32_t colourSpace;
  int32_t compression;
  int32_t k;
  int32_t eolState;
  int32_t dataPrecision;
  int32_t dataType;
  int32_t fileFormat;
  char *fileName;
  int32_t jIndexAssignment;
  int32_t kIndexAssignment;
  int32_t lIndexAssignment;
  int32_t mIndexAssignment;
  int32_t nIndexAssignment;
  int32_t repository;
  ZelObject *lut;
  ZelValue reserved[2];
  ZelObject *roi;
  int32_t samplingFactor;
  int32_t scaleFactor;
  int32_t size;
  int32_t xDimension;
  int32_t yDimension;
  int32_t zDimension;
  int32_t tDimension;
  int32_t bDimension;
  int32_t xMatchPoint;
  int32_t yMatchPoint;
  int32_t zMatchPoint;
  int32_t tMatchPoint;
  int32_t bMatchPoint;
  void *workSpace;
  ZelValue applAddressSpaceHandle;
  ZelValue workSpaceHandle;
  int32_t pixelInterpretation;
  int32_t widthByteBoundary;
  int32_t compressionLevel;
  int32_t filter;
  int32_t externalCompression;
  int32_t usedXDimension;
  int32_t usedYDimension;
  int32_t usedZDimension;
  int32_t usedTDimension;
  int32_t usedBDimension;
};

inline constexpr uint32_t initedFlag = 1;  // the object's data exists
inline constexpr uint32_t tmpnamFlag = 2;  // the file name was made by the library

enum class ObjectClassId {
  ColourImage,
  GenericImage,
  MonochromeImage,
  Histogram,
  LookupTable,
  Matrix,
  DitherArray,
  ImpulseResponseArray,
  MaskArray,
  ROI,
  PowerSpectrumArray,
  TransferFunctionArray,
  WindowFunctionArray,
  Tuple,
  CompositeIDArray,
  Unknown,
};

// The class behind a descriptor address, Unknown for anything else; never reads `objectClass`.
ObjectClassId classIdOf(const ZelObjectClass *objectClass) noexcept;

// The template of a class, before the adjustments of a new object.
const ObjectWords &classTemplate(ObjectClassId id) noexcept;

// The object when it is a live record of this context's tree; otherwise null, after reporting
// 9 (nothing is reported for an unusable context).
ZelObject *checkObject(ZelContext *ctx, ZelObject *object) noexcept;

// Releases what the object owns: name, file name (deleting a temporary file the library wrote),
// work-space block and format record. 0, or -1 when a temporary file could not be deleted.
int releaseObjectStorage(ZelContext *ctx, ZelObject *object) noexcept;

// Releases `record`, everything its sibling chain leads to and all their descendants.
void releaseTree(ZelContext *ctx, ZelObject *record) noexcept;

// An object a call makes for itself, destroyed when the call ends.
class OwnedObject {
 public:
  OwnedObject(ZelContext *ctx, ZelObject *object) : ctx_(ctx), object_(object) {}
  OwnedObject(const OwnedObject &) = delete;
  OwnedObject &operator=(const OwnedObject &) = delete;
  ~OwnedObject() {
    if (object_) Zel002(ctx_, object_);
  }
  ZelObject *get() const { return object_; }

 private:
  ZelContext *ctx_;
  ZelObject *object_;
};

}  // namespace zel

struct ZelObject : zel::ObjectWords {
  ZelObject *nextSibling;
  ZelObject *firstChild;
  int32_t inUse;
  uint32_t flags;
  char *name;
  const ZelObjectClass *objectClass;
  ZelObject *parent;
  void *formatExtension;  // the record of the current fileFormat, or null
  int32_t fileUseCount;
  ZelValue sharedFileReserved;
  int32_t sharedFileHandle;

  // Bookkeeping of the library, never reached by an attribute.
  void *ownedWorkSpace;  // the block the library allocated behind workSpace, or null
  int64_t ownedWorkSpaceBytes;
  int32_t openStreams;        // streams open on the object, whatever the repository
  uint64_t sequence;          // creation order; a level's chain is in this order
  ZelObject *childTail;       // last record of the level derived from this object
  ZelObject *childFirstFree;  // first free record of that level, or null
};
