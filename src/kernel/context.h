// The context: root of all state the library keeps for one application, its settings, the last
// error and the log.
#pragma once

#include <cstdint>

#include "kernel/pointer_set.h"
#include "zel.h"

namespace zel {

// The settings of a context, read and written by name (system attributes). Zel004 copies
// defaultSettings over them.
struct SystemSettings {
  int32_t booleanPrecision;
  int32_t nonnegativeIntegerPrecision;
  int32_t signedIntegerPrecision;
  int32_t realArithmeticPrecision;
  int32_t complexArithmeticPrecision;
  int32_t boundaryCondition;
  int32_t colourQuantization;
  int32_t comformanceProfile;
  int32_t errorDiffusion;
  int32_t errorReportingState;
  int32_t indexAssignmentState;
  int32_t interpolation;
  int32_t matchPointState;
  int32_t morphologicalOperation;
  int32_t operationalState;
  int32_t realArithmeticImplementation;
  int32_t roiState;
  int32_t synchronicityState;
  int32_t thresholdRamp;
  int32_t byteBoundary;
  int32_t progressive;
  int32_t interlacePass;
  int32_t debugState;
  int32_t xDimensionLimit;
  int32_t yDimensionLimit;
  int32_t zDimensionLimit;
  int32_t tDimensionLimit;
  int32_t bDimensionLimit;
};

inline constexpr uint32_t contextTag = 0x5A454C00;

// The defaults of the settings; operationalState reads Closed here and Zel004 opens it.
inline constexpr SystemSettings defaultSettings{
    .booleanPrecision = 1,
    .nonnegativeIntegerPrecision = 8,
    .signedIntegerPrecision = 16,
    .realArithmeticPrecision = 32,
    .complexArithmeticPrecision = 64,
    .boundaryCondition = ZelZero,
    .colourQuantization = ZelUniform,
    .comformanceProfile = 86,
    .errorDiffusion = ZelFloydSteinberg,
    .errorReportingState = 0,
    .indexAssignmentState = 0,
    .interpolation = ZelNearestNeighbour,
    .matchPointState = 0,
    .morphologicalOperation = 0,
    .operationalState = ZelClosed,
    .realArithmeticImplementation = ZelReal,
    .roiState = 0,
    .synchronicityState = 1,
    .thresholdRamp = ZelCubic,
    .byteBoundary = 0,
    .progressive = 0,
    .interlacePass = 1,
    .debugState = 0,
    .xDimensionLimit = 0x7FFFFFFF,
    .yDimensionLimit = 0x7FFFFFFF,
    .zDimensionLimit = 0x7FFFFFFF,
    .tDimensionLimit = 0x7FFFFFFF,
    .bDimensionLimit = 0x7FFFFFFF,
};

// The text of a message-table code, or null outside the table.
const char *messageText(int code) noexcept;

// 0 for a live, open context of this process, 24 otherwise. Never reads through a handle that
// Zel004 did not return.
int checkContext(const ZelContext *ctx) noexcept;

// Records `code` in lastError and, when logging is on, writes it to the log. No effect on an
// unusable context. errno is read before anything else can change it.
void reportError(ZelContext *ctx, int code) noexcept;

// Reports `code` and returns it, for the many places that refuse an input with a code.
inline int refuse(ZelContext *ctx, int code) noexcept {
  reportError(ctx, code);
  return code;
}

// Writes "zel: <text>\n" at the start of `fileName`; gives up silently when it can't.
void writeErrorLog(int code, int savedErrno, const char *fileName) noexcept;

}  // namespace zel

struct ZelContext : zel::SystemSettings {
  uint32_t tag;
  uint32_t reserved[2];
  void *reservedBuffer;  // never set by the library; released with the context
  int32_t lastError;
  char *errorFileName;
  ZelObject *rootObject;
  zel::PointerSet objectIndex;  // every record of the object tree, for checkObject
  ZelObject *rootTail;          // last record of the top level
  ZelObject *rootFirstFree;     // first free record of the top level, or null
  uint64_t nextSequence;        // creation order of records
};
