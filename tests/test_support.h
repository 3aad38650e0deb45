// Helpers shared by the tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "zel.h"

namespace zel::test {

// A context that is closed when the test ends.
class ContextGuard {
 public:
  explicit ContextGuard(const char *errorFile = nullptr) : ctx_(Zel004(errorFile)) {}
  ~ContextGuard() {
    if (ctx_) Zel001(ctx_);
  }
  ContextGuard(const ContextGuard &) = delete;
  ContextGuard &operator=(const ContextGuard &) = delete;
  ZelContext *get() const { return ctx_; }
  operator ZelContext *() const { return ctx_; }
  // For tests that close or abandon the context themselves.
  ZelContext *release() {
    ZelContext *ctx = ctx_;
    ctx_ = nullptr;
    return ctx;
  }

 private:
  ZelContext *ctx_;
};

// A fresh directory that is the working directory for the test's lifetime, removed after.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char pattern[] = "/tmp/zeltestXXXXXX";
    path_ = mkdtemp(pattern);
    previous_ = std::filesystem::current_path();
    std::filesystem::current_path(path_);
  }
  ~ScratchDirectory() {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(path_);
  }
  const std::filesystem::path &path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::filesystem::path previous_;
};

inline ZelValue readAttribute(ZelContext *ctx, ZelObject *object, const char *name) {
  ZelValue value = 0;
  ZelAttribute entry{name, reinterpret_cast<ZelValue>(&value)};
  EXPECT_EQ(Zel005(ctx, object, &entry, 1), 0) << name;
  return value;
}

}  // namespace zel::test
