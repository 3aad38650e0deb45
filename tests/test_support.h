// Helpers shared by the tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "access/repository.h"
#include "kernel/context.h"
#include "kernel/objects.h"
#include "zel.h"

namespace zel::test {

// Names of pixel types and repositories, for test parameters and traces.
inline std::string typeName(int type) {
  switch (type) {
    case ZelBoolean:
      return "Boolean";
    case ZelNonNegative:
      return "NonNegative";
    case ZelSigned:
      return "Signed";
    case ZelReal:
      return "Real";
    case ZelWord:
      return "Word";
    default:
      return "Type" + std::to_string(type);
  }
}

inline std::string repositoryName(int repository) {
  switch (repository) {
    case ZelWorkSpace:
      return "WorkSpace";
    case ZelApplicationAddressSpace:
      return "ApplicationMemory";
    case ZelFile:
      return "File";
    default:
      return "Repository" + std::to_string(repository);
  }
}

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

namespace fs = std::filesystem;

inline ZelValue word(const void *pointer) {
  return reinterpret_cast<ZelValue>(pointer);
}

inline ZelObject *makeImage(ZelContext *ctx, std::vector<ZelAttribute> list) {
  return Zel000b(ctx, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
}

// Forgets the last error, so that a test sees only what the next call records.
inline void clearLastError(ZelContext *ctx) {
  ctx->lastError = 0;
}

inline bool inited(const ZelObject *object) {
  return (object->flags & zel::initedFlag) != 0;
}

inline int openDescriptors() {
  int count = 0;
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

inline std::vector<uint8_t> fileBytes(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const fs::path &path, const std::vector<uint8_t> &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// A fresh directory that is TMPDIR for the object's lifetime, removed with what it holds.
class PrivateTemporaryDirectory {
 public:
  PrivateTemporaryDirectory() {
    char pattern[] = "/tmp/zelprivateXXXXXX";
    path_ = mkdtemp(pattern);
    if (const char *previous = std::getenv("TMPDIR")) previous_ = previous;
    setenv("TMPDIR", path_.c_str(), 1);
  }
  ~PrivateTemporaryDirectory() {
    if (previous_)
      setenv("TMPDIR", previous_->c_str(), 1);
    else
      unsetenv("TMPDIR");
    fs::remove_all(path_);
  }
  PrivateTemporaryDirectory(const PrivateTemporaryDirectory &) = delete;
  PrivateTemporaryDirectory &operator=(const PrivateTemporaryDirectory &) = delete;

  const fs::path &path() const { return path_; }
  std::vector<fs::path> files() const {
    std::vector<fs::path> found;
    for (const auto &entry : fs::directory_iterator(path_))
      found.push_back(entry.path());
    return found;
  }
  size_t fileCount() const { return files().size(); }
  void clear() const {
    for (const fs::path &file : files())
      fs::remove(file);
  }

 private:
  fs::path path_;
  std::optional<std::string> previous_;
};

// A repository stream that is closed when it goes out of scope.
struct StreamCloser {
  ZelContext *ctx;
  void operator()(zel::RepositoryStream *stream) const { zel::closeRepositoryStream(ctx, stream); }
};
using Stream = std::unique_ptr<zel::RepositoryStream, StreamCloser>;

inline Stream openStream(ZelContext *ctx, ZelObject *object, const char *mode, int lines = 1) {
  return Stream(zel::openRepositoryStream(ctx, object, mode, lines), StreamCloser{ctx});
}

}  // namespace zel::test
