#include "kernel/attributes.h"

#include <cstring>

#include "kernel/format_extensions.h"
#include "kernel/memory.h"
#include "kernel/objects.h"

namespace zel {
namespace {

enum class WordKind : uint8_t { Integer, Address, Handle, Value, FileName, Inited, Tmpnam };
enum class Effect : uint8_t { None, ClearsInited, DataType, FileFormat };

struct GeneralAttribute {
  const char *name;
  WordKind kind;
  Effect effect;
  int32_t ObjectWords::*integer;
  void *ObjectWords::*address;
  ZelObject *ObjectWords::*handle;
  ZelValue ObjectWords::*value;
};

constexpr GeneralAttribute integer(const char *name, int32_t ObjectWords::*word,
                                   Effect effect = Effect::None) {
  return {name, WordKind::Integer, effect, word, nullptr, nullptr, nullptr};
}
constexpr GeneralAttribute address(const char *name, void *ObjectWords::*word) {
  return {name, WordKind::Address, Effect::None, nullptr, word, nullptr, nullptr};
}
constexpr GeneralAttribute handle(const char *name, ZelObject *ObjectWords::*word) {
  return {name, WordKind::Handle, Effect::None, nullptr, nullptr, word, nullptr};
}
constexpr GeneralAttribute value(const char *name, ZelValue ObjectWords::*word) {
  return {name, WordKind::Value, Effect::None, nullptr, nullptr, nullptr, word};
}
constexpr GeneralAttribute special(const char *name, WordKind kind) {
  return {name, kind, Effect::None, nullptr, nullptr, nullptr, nullptr};
}

using W = ObjectWords;
constexpr Effect clears = Effect::ClearsInited;

constexpr GeneralAttribute generalAttributes[] = {
    address("applicationAddressSpace", &W::applicationAddressSpace),
    value("applAddressSpaceHandle", &W::applAddressSpaceHandle),
    integer("bDimension", &W::bDimension, clears),
    integer("bMatchPoint", &W::bMatchPoint),
    integer("bitOrder", &W::bitOrder),
    integer("byteOrder", &W::byteOrder),
    integer("colourSpace", &W::colourSpace),
    integer("compression", &W::compression, clears),
    integer("compressionMethod", &W::compression, clears),
    integer("compressionLevel", &W::compressionLevel),
    integer("dataPrecision", &W::dataPrecision, clears),
    integer("dataType", &W::dataType, Effect::DataType),
    integer("eolState", &W::eolState),
    integer("predictor", &W::eolState),
    integer("externalCompression", &W::externalCompression),
    integer("fileFormat", &W::fileFormat, Effect::FileFormat),
    special("fileName", WordKind::FileName),
    integer("filter", &W::filter),
    special("inited", WordKind::Inited),
    integer("jIndexAssignment", &W::jIndexAssignment),
    integer("kIndexAssignment", &W::kIndexAssignment),
    integer("lIndexAssignment", &W::lIndexAssignment),
    integer("mIndexAssignment", &W::mIndexAssignment),
    integer("nIndexAssignment", &W::nIndexAssignment),
    integer("k", &W::k),
    handle("lut", &W::lut),
    integer("pixelInterpretation", &W::pixelInterpretation),
    integer("repository", &W::repository),
    handle("roi", &W::roi),
    integer("samplingFactor", &W::samplingFactor),
    integer("scaleFactor", &W::scaleFactor),
    integer("quarityFactor", &W::scaleFactor),
    integer("size", &W::size),
    integer("tDimension", &W::tDimension, clears),
    integer("tMatchPoint", &W::tMatchPoint),
    special("tmpnam", WordKind::Tmpnam),
    integer("usedBDimension", &W::usedBDimension),
    integer("usedTDimension", &W::usedTDimension),
    integer("usedXDimension", &W::usedXDimension),
    integer("usedYDimension", &W::usedYDimension),
    integer("usedZDimension", &W::usedZDimension),
    integer("xDimension", &W::xDimension, clears),
    integer("entries", &W::xDimension, clears),
    integer("xMatchPoint", &W::xMatchPoint),
    integer("yDimension", &W::yDimension, clears),
    integer("yMatchPoint", &W::yMatchPoint),
    integer("zDimension", &W::zDimension, clears),
    integer("zMatchPoint", &W::zMatchPoint),
    integer("widthByteBoundary", &W::widthByteBoundary),
    address("workSpace", &W::workSpace),
    value("workSpaceHandle", &W::workSpaceHandle),
};

// A list that writes "fileFormat" or "stripsPerImage" is applied again. A sound list needs two
// more passes at most; contradicting entries could otherwise make it go on without end, so one
// call of Zel006 gets a fixed number of passes in all.
constexpr int extraPassLimit = 8;

const GeneralAttribute *findGeneral(const char *name) {
  for (const GeneralAttribute &attribute : generalAttributes)
    if (std::strcmp(attribute.name, name) == 0) return &attribute;
  return nullptr;
}

ZelValue readGeneral(const ZelObject *object, const GeneralAttribute &attribute) {
  switch (attribute.kind) {
    case WordKind::Integer:
      return object->*attribute.integer;
    case WordKind::Address:
      return reinterpret_cast<ZelValue>(object->*attribute.address);
    case WordKind::Handle:
      return reinterpret_cast<ZelValue>(object->*attribute.handle);
    case WordKind::Value:
      return object->*attribute.value;
    case WordKind::FileName:
      return reinterpret_cast<ZelValue>(object->fileName);
    case WordKind::Inited:
      return (object->flags & initedFlag) ? 1 : 0;
    case WordKind::Tmpnam:
      return (object->flags & tmpnamFlag) ? 1 : 0;
  }
  return 0;
}

int applyList(ZelContext *ctx, ZelObject *object, const ZelAttribute *list, int count,
              int &passesLeft);

void applyAgain(ZelContext *ctx, ZelObject *object, const ZelAttribute *list, int count,
                int &passesLeft) {
  if (passesLeft <= 0) {
    reportError(ctx, 3);
    return;
  }
  --passesLeft;
  applyList(ctx, object, list, count, passesLeft);
}

// Switches the format record; `again` tells that the list must be applied once more.
int writeFileFormat(ZelContext *ctx, ZelObject *object, int32_t format, bool &again) {
  if (format == object->fileFormat) return 0;
  releaseFormatExtension(ctx, object);
  object->fileFormat = format;
  if (createFormatExtension(ctx, object) != 0) return -1;
  again = format != 0;
  return 0;
}

int writeGeneral(ZelContext *ctx, ZelObject *object, const GeneralAttribute &attribute,
                 ZelValue value, bool &again) {
  switch (attribute.kind) {
    case WordKind::Integer:
      break;
    case WordKind::Address:
      object->*attribute.address = reinterpret_cast<void *>(value);
      return 0;
    case WordKind::Handle:
      object->*attribute.handle = reinterpret_cast<ZelObject *>(value);
      return 0;
    case WordKind::Value:
      object->*attribute.value = value;
      return 0;
    case WordKind::FileName:
      if (object->fileName || !value) return 0;
      object->fileName = copyText(ctx, reinterpret_cast<const char *>(value));
      return object->fileName ? 0 : -1;
    case WordKind::Inited:
      object->flags = value ? object->flags | initedFlag : object->flags & ~initedFlag;
      return 0;
    case WordKind::Tmpnam:
      return 0;
  }
  auto word = static_cast<int32_t>(value);
  switch (attribute.effect) {
    case Effect::None:
      object->*attribute.integer = word;
      break;
    case Effect::ClearsInited:
      object->*attribute.integer = word;
      object->flags &= ~initedFlag;
      break;
    case Effect::DataType:
      object->dataType = word;
      if (const int32_t *precision = precisionOfType(ctx, word)) object->dataPrecision = *precision;
      object->flags &= ~initedFlag;
      break;
    case Effect::FileFormat:
      return writeFileFormat(ctx, object, word, again);
  }
  return 0;
}

int applyList(ZelContext *ctx, ZelObject *object, const ZelAttribute *list, int count,
              int &passesLeft) {
  for (int i = 0; i < count; ++i) {
    const char *name = list[i].name;
    if (!name) continue;
    bool again = false;
    if (const GeneralAttribute *attribute = findGeneral(name)) {
      if (int code = writeGeneral(ctx, object, *attribute, list[i].value, again)) return code;
    } else if (const FormatField *field = findFormatField(object, name)) {
      again = writeFormatField(ctx, object, *field, list[i].value);
    }
    if (again) applyAgain(ctx, object, list, count, passesLeft);
  }
  return 0;
}

}  // namespace

const int32_t *precisionOfType(const ZelContext *ctx, int32_t dataType) noexcept {
  switch (dataType) {
    case ZelBoolean:
      return &ctx->booleanPrecision;
    case ZelComplex:
      return &ctx->complexArithmeticPrecision;
    case ZelNonNegative:
      return &ctx->nonnegativeIntegerPrecision;
    case ZelReal:
      return &ctx->realArithmeticPrecision;
    case ZelSigned:
      return &ctx->signedIntegerPrecision;
    default:
      return nullptr;
  }
}

int applyAttributes(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                    int count) noexcept {
  if (count < 1) return 0;
  if (!list) {
    reportError(ctx, 18);
    return 18;
  }
  int passesLeft = extraPassLimit;
  return applyList(ctx, object, list, count, passesLeft);
}

int readAttributes(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                   int count) noexcept {
  if (count < 1) return 0;
  if (!list) {
    reportError(ctx, 18);
    return 18;
  }
  for (int i = 0; i < count; ++i) {
    const char *name = list[i].name;
    if (!name) continue;
    auto *place = reinterpret_cast<ZelValue *>(list[i].value);
    const GeneralAttribute *attribute = findGeneral(name);
    const FormatField *field = attribute ? nullptr : findFormatField(object, name);
    if (!attribute && !field) continue;
    if (!place) {
      reportError(ctx, 18);
      return 18;
    }
    *place = attribute ? readGeneral(object, *attribute) : readFormatField(object, *field);
  }
  return 0;
}

}  // namespace zel

using namespace zel;

extern "C" {

ZEL_API int Zel005(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                   int count) noexcept {
  if (!checkObject(ctx, object)) return Zel003b(ctx);
  return readAttributes(ctx, object, list, count);
}

ZEL_API ZelValue Zel005a(ZelContext *ctx, ZelObject *object, const char *name) noexcept {
  auto result = reinterpret_cast<ZelValue>(ctx);
  if (checkContext(ctx) != 0) return result;
  ZelAttribute entry{name, reinterpret_cast<ZelValue>(&result)};
  Zel005(ctx, object, &entry, 1);
  return result;
}

ZEL_API int Zel006(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                   int count) noexcept {
  if (!checkObject(ctx, object)) return Zel003b(ctx);
  return applyAttributes(ctx, object, list, count);
}

ZEL_API int Zel006a(ZelContext *ctx, ZelObject *object, const char *name, ZelValue value) noexcept {
  if (int code = checkContext(ctx)) return code;
  ZelAttribute entry{name, value};
  return Zel006(ctx, object, &entry, 1);
}

}  // extern "C"
