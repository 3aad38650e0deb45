#include "kernel/memory.h"

#include <cerrno>
#include <cstring>

#include "kernel/context.h"

namespace zel {
namespace {
thread_local long allocationsBeforeFailure = -1;

bool injectedFailure() noexcept {
  if (allocationsBeforeFailure < 0) return false;
  return allocationsBeforeFailure-- == 0;
}
}  // namespace

void *allocZeroed(ZelContext *ctx, size_t bytes) noexcept {
  void *block = injectedFailure() ? nullptr : std::calloc(bytes ? bytes : 1, 1);
  if (!block) {
    errno = ENOMEM;
    reportError(ctx, -1);
  }
  return block;
}

void *allocZeroedArray(ZelContext *ctx, size_t count, size_t size) noexcept {
  if (size && count > static_cast<size_t>(-1) / size) {
    errno = ENOMEM;
    reportError(ctx, -1);
    return nullptr;
  }
  return allocZeroed(ctx, count * size);
}

char *copyText(ZelContext *ctx, const char *text) noexcept {
  size_t length = std::strlen(text);
  auto *copy = static_cast<char *>(allocZeroed(ctx, length + 1));
  if (copy) std::memcpy(copy, text, length);
  return copy;
}

namespace testing {
void failAllocationAfter(long successes) noexcept {
  allocationsBeforeFailure = successes;
}
}  // namespace testing

}  // namespace zel
