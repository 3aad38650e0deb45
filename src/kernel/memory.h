// Memory of the library: every block sized by a caller or by input comes from here, so that
// running out of memory is reported as -1 instead of throwing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "zel.h"

namespace zel {

// A cleared block of at least one byte, or null after reporting -1 on `ctx` (which may be null).
void *allocZeroed(ZelContext *ctx, size_t bytes) noexcept;

// `count` elements of `size` bytes each; an overflowing product fails like an exhausted heap.
void *allocZeroedArray(ZelContext *ctx, size_t count, size_t size) noexcept;

inline void releaseBlock(void *block) noexcept {
  std::free(block);
}

// A private copy of `text`, or null after reporting -1.
char *copyText(ZelContext *ctx, const char *text) noexcept;

struct BlockDeleter {
  void operator()(void *block) const noexcept { releaseBlock(block); }
};
template <class T>
using Block = std::unique_ptr<T, BlockDeleter>;

// `bytes` cleared bytes in a block, or null after reporting -1.
inline Block<uint8_t> allocBytes(ZelContext *ctx, int64_t bytes) noexcept {
  return Block<uint8_t>(static_cast<uint8_t *>(allocZeroed(ctx, static_cast<size_t>(bytes))));
}

// Records with constructors live in blocks from allocZeroed as well.
template <class T>
T *createRecord(ZelContext *ctx) noexcept {
  void *block = allocZeroed(ctx, sizeof(T));
  return block ? new (block) T{} : nullptr;
}
template <class T>
void destroyRecord(T *record) noexcept {
  if (!record) return;
  record->~T();
  releaseBlock(record);
}

// A stack of trivially copyable values that grows without throwing.
template <class T>
class GrowableArray {
 public:
  GrowableArray() = default;
  GrowableArray(const GrowableArray &) = delete;
  GrowableArray &operator=(const GrowableArray &) = delete;
  ~GrowableArray() { releaseBlock(items_); }

  // False after reporting -1 when no memory is left.
  bool push(ZelContext *ctx, T value) noexcept {
    if (count_ == capacity_ && !grow(ctx)) return false;
    items_[count_++] = value;
    return true;
  }
  bool empty() const noexcept { return count_ == 0; }
  T pop() noexcept { return items_[--count_]; }

 private:
  bool grow(ZelContext *ctx) noexcept {
    size_t capacity = capacity_ ? capacity_ * 2 : 64;
    T *items = static_cast<T *>(allocZeroedArray(ctx, capacity, sizeof(T)));
    if (!items) return false;
    for (size_t i = 0; i < count_; ++i)
      items[i] = items_[i];
    releaseBlock(items_);
    items_ = items;
    capacity_ = capacity;
    return true;
  }

  T *items_ = nullptr;
  size_t count_ = 0;
  size_t capacity_ = 0;
};

namespace testing {
// Makes the allocation after `successes` more successful ones fail (once), on this thread;
// a negative value turns the injection off.
void failAllocationAfter(long successes) noexcept;
}  // namespace testing

}  // namespace zel
