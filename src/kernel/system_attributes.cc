// The settings of a context, read and written by name.
#include <cstring>

#include "kernel/context.h"

namespace zel {
namespace {

struct Setting {
  const char *name;
  int32_t SystemSettings::*word;
};

using S = SystemSettings;

constexpr Setting settings[] = {
    {"booleanPrecision", &S::booleanPrecision},
    {"nonnegativeIntegerPrecision", &S::nonnegativeIntegerPrecision},
    {"signedIntegerPrecision", &S::signedIntegerPrecision},
    {"realArithmeticPrecision", &S::realArithmeticPrecision},
    {"complexArithmeticPrecision", &S::complexArithmeticPrecision},
    {"boundaryCondition", &S::boundaryCondition},
    {"colourQuantization", &S::colourQuantization},
    {"comformanceProfile", &S::comformanceProfile},
    {"errorDiffusion", &S::errorDiffusion},
    {"errorReportingState", &S::errorReportingState},
    {"indexAssignmentState", &S::indexAssignmentState},
    {"interpolation", &S::interpolation},
    {"matchPointState", &S::matchPointState},
    {"morphologicalOperation", &S::morphologicalOperation},
    {"operationalState", &S::operationalState},
    {"realArithmeticImplementation", &S::realArithmeticImplementation},
    {"roiState", &S::roiState},
    {"synchronicityState", &S::synchronicityState},
    {"thresholdRamp", &S::thresholdRamp},
    {"byteBoundary", &S::byteBoundary},
    {"progressive", &S::progressive},
    {"interlacePass", &S::interlacePass},
    {"debugState", &S::debugState},
    {"xDimensionLimit", &S::xDimensionLimit},
    {"yDimensionLimit", &S::yDimensionLimit},
    {"zDimensionLimit", &S::zDimensionLimit},
    {"tDimensionLimit", &S::tDimensionLimit},
    {"bDimensionLimit", &S::bDimensionLimit},
};

const Setting *findSetting(const char *name) {
  if (!name) return nullptr;
  for (const Setting &setting : settings)
    if (std::strcmp(setting.name, name) == 0) return &setting;
  return nullptr;
}

// Walks the list in order; an unknown name (or a read without a place) stops the walk with 18.
template <class Apply>
int walkSettings(ZelContext *ctx, const ZelAttribute *list, int count, Apply apply) {
  if (int code = checkContext(ctx)) return code;
  if (count < 1) return 0;
  if (!list) {
    reportError(ctx, 18);
    return 18;
  }
  for (int i = 0; i < count; ++i) {
    const Setting *setting = findSetting(list[i].name);
    if (!setting || !apply(*setting, list[i].value)) {
      reportError(ctx, 18);
      return 18;
    }
  }
  return 0;
}

}  // namespace
}  // namespace zel

using namespace zel;

extern "C" {

ZEL_API int Zel007(ZelContext *ctx, const ZelAttribute *list, int count) noexcept {
  return walkSettings(ctx, list, count, [ctx](const Setting &setting, ZelValue place) {
    if (!place) return false;
    *reinterpret_cast<ZelValue *>(place) = ctx->*setting.word;
    return true;
  });
}

ZEL_API ZelValue Zel007a(ZelContext *ctx, const char *name) noexcept {
  auto result = reinterpret_cast<ZelValue>(ctx);
  if (checkContext(ctx) != 0) return result;
  ZelAttribute entry{name, reinterpret_cast<ZelValue>(&result)};
  Zel007(ctx, &entry, 1);
  return result;
}

ZEL_API int Zel008(ZelContext *ctx, const ZelAttribute *list, int count) noexcept {
  return walkSettings(ctx, list, count, [ctx](const Setting &setting, ZelValue value) {
    ctx->*setting.word = static_cast<int32_t>(value);
    return true;
  });
}

ZEL_API int Zel008a(ZelContext *ctx, const char *name, ZelValue value) noexcept {
  if (int code = checkContext(ctx)) return code;
  ZelAttribute entry{name, value};
  return Zel008(ctx, &entry, 1);
}

}  // extern "C"
