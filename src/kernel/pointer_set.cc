#include "kernel/pointer_set.h"

#include "kernel/memory.h"

namespace zel {

PointerSet::~PointerSet() {
  releaseBlock(slots_);
}

// Open addressing with linear probing; a multiplicative hash spreads aligned addresses.
size_t PointerSet::slotOf(const void *address) const noexcept {
  auto key = reinterpret_cast<uintptr_t>(address);
  return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> 17) & (capacity_ - 1);
}

bool PointerSet::contains(const void *address) const noexcept {
  if (!address || count_ == 0) return false;
  for (size_t i = slotOf(address);; i = (i + 1) & (capacity_ - 1)) {
    if (slots_[i] == address) return true;
    if (!slots_[i]) return false;
  }
}

bool PointerSet::grow(ZelContext *ctx) noexcept {
  size_t capacity = capacity_ ? capacity_ * 2 : 64;
  auto *slots = static_cast<const void **>(allocZeroedArray(ctx, capacity, sizeof(void *)));
  if (!slots) return false;
  const void **old = slots_;
  size_t oldCapacity = capacity_;
  slots_ = slots;
  capacity_ = capacity;
  for (size_t i = 0; i < oldCapacity; ++i) {
    if (!old[i]) continue;
    size_t j = slotOf(old[i]);
    while (slots_[j])
      j = (j + 1) & (capacity_ - 1);
    slots_[j] = old[i];
  }
  releaseBlock(old);
  return true;
}

bool PointerSet::insert(ZelContext *ctx, const void *address) noexcept {
  if (contains(address)) return true;
  if ((count_ + 1) * 2 > capacity_ && !grow(ctx)) return false;
  size_t i = slotOf(address);
  while (slots_[i])
    i = (i + 1) & (capacity_ - 1);
  slots_[i] = address;
  ++count_;
  return true;
}

// Backward-shift deletion keeps every probe chain unbroken without tombstones.
void PointerSet::erase(const void *address) noexcept {
  if (!contains(address)) return;
  size_t mask = capacity_ - 1;
  size_t hole = slotOf(address);
  while (slots_[hole] != address)
    hole = (hole + 1) & mask;
  for (size_t next = (hole + 1) & mask; slots_[next]; next = (next + 1) & mask) {
    size_t home = slotOf(slots_[next]);
    bool movable = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
    if (movable) {
      slots_[hole] = slots_[next];
      hole = next;
    }
  }
  slots_[hole] = nullptr;
  --count_;
}

}  // namespace zel
