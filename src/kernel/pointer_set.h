// A set of addresses with constant-time membership, used to recognise live records without
// ever reading through a handle the library did not hand out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zel.h"

namespace zel {

class PointerSet {
 public:
  constexpr PointerSet() = default;
  PointerSet(const PointerSet &) = delete;
  PointerSet &operator=(const PointerSet &) = delete;
  ~PointerSet();

  // False after reporting -1 on `ctx` (which may be null) when no memory is left.
  bool insert(ZelContext *ctx, const void *address) noexcept;
  void erase(const void *address) noexcept;
  bool contains(const void *address) const noexcept;
  size_t size() const noexcept { return count_; }

 private:
  size_t slotOf(const void *address) const noexcept;
  bool grow(ZelContext *ctx) noexcept;

  const void **slots_ = nullptr;
  size_t capacity_ = 0;  // a power of two, or 0
  size_t count_ = 0;
};

}  // namespace zel
