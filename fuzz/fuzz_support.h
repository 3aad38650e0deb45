// What the fuzz targets share: one context for the whole run, the size of an input as the
// library's `int`, and the checks made after every input.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kernel/context.h"
#include "kernel/objects.h"
#include "zel.h"

namespace zel::fuzz {

// Ends the run; libFuzzer keeps the input that led here as a crash reproducer.
[[noreturn]] inline void fail(const char *what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

inline void require(bool condition, const char *what) {
  if (!condition) fail(what);
}

// One context for the process, opened at the first input. Inputs follow each other in it as an
// application's calls would, so that state one call leaves behind meets the next input.
inline ZelContext *sharedContext() {
  static ZelContext *const ctx = Zel004(nullptr);
  require(ctx != nullptr, "Zel004 opened no context");
  return ctx;
}

// Clears the recorded failure, so that the code read after a call is the call's own.
inline void forgetLastFailure(ZelContext *ctx) {
  ctx->lastError = 0;
}

// An input as the library's calls take it: bytes that are never null (libFuzzer may hand over
// an empty input without a buffer), their count as the library's `int`, and the shared context.
struct Input {
  const uint8_t *bytes;
  int count;
  ZelContext *ctx;
};

// False for inputs beyond the range of the library's `int`.
inline bool inputOf(const uint8_t *data, size_t size, Input &input) {
  static const uint8_t none = 0;
  if (size > static_cast<size_t>(INT_MAX)) return false;
  input = {data ? data : &none, static_cast<int>(size), sharedContext()};
  return true;
}

// Objects in use anywhere in the context's tree, free records not counted.
inline int liveObjects(const ZelContext *ctx) {
  static std::vector<const ZelObject *> pending;
  int live = 0;
  pending.clear();
  if (ctx->rootObject) pending.push_back(ctx->rootObject);
  while (!pending.empty()) {
    const ZelObject *record = pending.back();
    pending.pop_back();
    if (record->inUse) ++live;
    if (record->nextSibling) pending.push_back(record->nextSibling);
    if (record->firstChild) pending.push_back(record->firstChild);
  }
  return live;
}

// After every call: the context still answers, and the call destroyed every object it made.
inline void requireContextIntact(ZelContext *ctx) {
  require(Zel003b(ctx) != 24, "the context stopped answering");
  require(liveObjects(ctx) == 0, "the call left objects behind in the context");
}

}  // namespace zel::fuzz
