#include "kernel/memory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

#include "test_support.h"

// The library reports exhausted memory as -1; under AddressSanitizer a failed allocation must
// come back as null for that path to be exercised.
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using zel::test::ContextGuard;

TEST(Memory, BlocksAreClearedAndAtLeastOneByte) {
  auto *block = static_cast<unsigned char *>(zel::allocZeroed(nullptr, 4096));
  ASSERT_NE(block, nullptr);
  for (int i = 0; i < 4096; ++i)
    ASSERT_EQ(block[i], 0) << i;
  zel::releaseBlock(block);
  void *empty = zel::allocZeroed(nullptr, 0);
  EXPECT_NE(empty, nullptr);
  zel::releaseBlock(empty);
}

TEST(Memory, ExhaustedHeapReportsMinusOneWithEnomem) {
  ContextGuard ctx;
  errno = 0;
  EXPECT_EQ(zel::allocZeroed(ctx, SIZE_MAX), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(Zel003b(ctx), -1);
}

TEST(Memory, OverflowingArrayProductFailsBeforeAllocating) {
  ContextGuard ctx;
  EXPECT_EQ(zel::allocZeroedArray(ctx, SIZE_MAX / 2, 4), nullptr);
  EXPECT_EQ(Zel003b(ctx), -1);
}

TEST(Memory, InjectedFailureHitsExactlyTheChosenAllocation) {
  zel::testing::failAllocationAfter(2);
  void *first = zel::allocZeroed(nullptr, 8);
  void *second = zel::allocZeroed(nullptr, 8);
  void *third = zel::allocZeroed(nullptr, 8);
  void *fourth = zel::allocZeroed(nullptr, 8);
  EXPECT_NE(first, nullptr);
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(third, nullptr);
  EXPECT_NE(fourth, nullptr);
  for (void *block : {first, second, fourth})
    zel::releaseBlock(block);
}

TEST(Memory, CopyTextMakesAPrivateCopy) {
  char text[] = "picture";
  char *copy = zel::copyText(nullptr, text);
  ASSERT_NE(copy, nullptr);
  text[0] = 'X';
  EXPECT_STREQ(copy, "picture");
  zel::releaseBlock(copy);
}

TEST(Memory, GrowableArrayKeepsOrderAcrossGrowth) {
  zel::GrowableArray<int> stack;
  for (int i = 0; i < 1000; ++i)
    ASSERT_TRUE(stack.push(nullptr, i));
  for (int i = 999; i >= 0; --i)
    ASSERT_EQ(stack.pop(), i);
  EXPECT_TRUE(stack.empty());
}

TEST(Memory, GrowableArrayReportsFailedGrowth) {
  ContextGuard ctx;
  zel::GrowableArray<int> stack;
  zel::testing::failAllocationAfter(0);
  EXPECT_FALSE(stack.push(ctx, 1));
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_TRUE(stack.empty());
}

}  // namespace
