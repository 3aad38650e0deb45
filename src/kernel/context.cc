#include "kernel/context.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "kernel/memory.h"
#include "kernel/objects.h"
#include "platform/files.h"

namespace zel {
namespace {

constexpr const char *messages[] = {
    "No error",
    "Closure failure",
    "Division by zero",
    "Exceed implementation",
    "Illegal data type conversion",
    "Incorrect data type",
    "Incorrect object class",
    "Initialization failure",
    "Insufficient size",
    "Invalid instance",
    "Mismatch data type",
    "Mismatch object class",
    "Non-permissible option",
    "Not integer multiples of the block",
    "Not a positive integer",
    "Not a positive even integer",
    "Not a positive odd integer",
    "Not a power of two",
    "Out of range",
    "Semantical error within data stream",
    "State is CLOSED when OPEN is expected",
    "State is OPEN when CLOSED is expected",
    "Syntactical error within data stream",
    "Upper bound is smaller than lower bound",
    "Invalid handle",
    "File Open Failure",
    "File Not Found",
};

// Contexts handed out and not yet closed. A handle is read only after it is found here, so a
// closed or foreign handle never reaches freed or unknown memory.
// The registry is never destroyed: a context abandoned by its application stays reachable to
// the end of the process instead of turning into a leak when static objects are torn down.
struct LiveContexts {
  std::mutex lock;
  PointerSet contexts;
};

LiveContexts &liveContexts() noexcept {
  alignas(LiveContexts) static unsigned char storage[sizeof(LiveContexts)];
  static LiveContexts *registry = new (storage) LiveContexts();
  return *registry;
}

bool isLive(const ZelContext *ctx) noexcept {
  LiveContexts &live = liveContexts();
  std::lock_guard<std::mutex> guard(live.lock);
  return live.contexts.contains(ctx);
}

bool addLive(ZelContext *ctx) noexcept {
  LiveContexts &live = liveContexts();
  std::lock_guard<std::mutex> guard(live.lock);
  return live.contexts.insert(nullptr, ctx);
}

void removeLive(const ZelContext *ctx) noexcept {
  LiveContexts &live = liveContexts();
  std::lock_guard<std::mutex> guard(live.lock);
  live.contexts.erase(ctx);
}

void releaseContext(ZelContext *ctx) noexcept {
  removeLive(ctx);
  releaseBlock(ctx->reservedBuffer);
  releaseBlock(ctx->errorFileName);
  ctx->tag = 0;
  destroyRecord(ctx);
}

}  // namespace

const char *messageText(int code) noexcept {
  constexpr int count = static_cast<int>(sizeof messages / sizeof messages[0]);
  return code >= 0 && code < count ? messages[code] : nullptr;
}

int checkContext(const ZelContext *ctx) noexcept {
  if (!ctx || !isLive(ctx)) return 24;
  return ctx->tag == contextTag && ctx->operationalState == ZelOpen ? 0 : 24;
}

void reportError(ZelContext *ctx, int code) noexcept {
  int savedErrno = errno;
  if (checkContext(ctx) != 0) return;
  ctx->lastError = code;
  if (ctx->errorReportingState == 0) return;
  writeErrorLog(code, savedErrno, ctx->errorFileName ? ctx->errorFileName : "stderr");
  errno = savedErrno;
}

void writeErrorLog(int code, int savedErrno, const char *fileName) noexcept {
  int probe = platform::openForReading(fileName);
  bool exists = probe != platform::noFile;
  platform::closeFile(probe);
  int file = exists ? platform::openForUpdate(fileName) : platform::createForWriting(fileName);
  if (file == platform::noFile) return;

  char text[256];
  const char *message =
      code == -1 ? platform::errorText(savedErrno, text, sizeof text) : messageText(code);
  char line[320];
  int length = std::snprintf(line, sizeof line, "zel: %s\n", message ? message : "");
  if (length > 0) {
    size_t bytes =
        static_cast<size_t>(length) < sizeof line ? static_cast<size_t>(length) : sizeof line - 1;
    platform::writeAt(file, line, bytes, 0);
  }
  platform::closeFile(file);
}

}  // namespace zel

using namespace zel;

extern "C" {

ZEL_API ZelContext *Zel004(const char *errorFile) noexcept {
  ZelContext *ctx = createRecord<ZelContext>(nullptr);
  if (!ctx) return nullptr;
  ctx->tag = contextTag;
  static_cast<SystemSettings &>(*ctx) = defaultSettings;
  ctx->operationalState = ZelOpen;
  if (!addLive(ctx)) {
    destroyRecord(ctx);
    return nullptr;
  }
  if (!errorFile || errorFile[0] == '\0') return ctx;
  ctx->errorFileName = copyText(nullptr, errorFile);
  if (!ctx->errorFileName) {
    ctx->lastError = -1;
    releaseContext(ctx);
    return nullptr;
  }
  ctx->errorReportingState = 1;
  return ctx;
}

ZEL_API int Zel001(ZelContext *ctx) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (ctx->operationalState == ZelClosed) {
    reportError(ctx, 20);
    return 20;
  }
  releaseTree(ctx, ctx->rootObject);
  ctx->rootObject = nullptr;
  releaseContext(ctx);
  return 0;
}

ZEL_API int Zel003b(ZelContext *ctx) noexcept {
  if (int code = checkContext(ctx)) return code;
  return ctx->lastError;
}

}  // extern "C"
