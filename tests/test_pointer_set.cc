#include "kernel/pointer_set.h"

#include <gtest/gtest.h>

#include <vector>

#include "kernel/memory.h"

namespace {

std::vector<const void *> addresses(size_t count) {
  static char arena[1 << 20];
  std::vector<const void *> result;
  for (size_t i = 0; i < count; ++i)
    result.push_back(&arena[(i * 24) % sizeof arena]);
  return result;
}

TEST(PointerSet, FindsWhatWasInsertedAndNothingElse) {
  zel::PointerSet set;
  auto all = addresses(1000);
  for (size_t i = 0; i < all.size(); i += 2)
    ASSERT_TRUE(set.insert(nullptr, all[i]));
  EXPECT_EQ(set.size(), 500u);
  for (size_t i = 0; i < all.size(); ++i)
    EXPECT_EQ(set.contains(all[i]), i % 2 == 0) << i;
  EXPECT_FALSE(set.contains(nullptr));
}

TEST(PointerSet, InsertingTwiceKeepsOneEntry) {
  zel::PointerSet set;
  int a = 0;
  ASSERT_TRUE(set.insert(nullptr, &a));
  ASSERT_TRUE(set.insert(nullptr, &a));
  EXPECT_EQ(set.size(), 1u);
}

TEST(PointerSet, ErasingKeepsEveryOtherEntryReachable) {
  zel::PointerSet set;
  auto all = addresses(5000);
  for (const void *address : all)
    ASSERT_TRUE(set.insert(nullptr, address));
  for (size_t i = 0; i < all.size(); i += 3)
    set.erase(all[i]);
  for (size_t i = 0; i < all.size(); ++i)
    EXPECT_EQ(set.contains(all[i]), i % 3 != 0) << i;
  for (size_t i = 0; i < all.size(); i += 3)
    ASSERT_TRUE(set.insert(nullptr, all[i]));
  for (const void *address : all)
    EXPECT_TRUE(set.contains(address));
  EXPECT_EQ(set.size(), all.size());
}

TEST(PointerSet, ErasingAnAbsentAddressChangesNothing) {
  zel::PointerSet set;
  int a = 0, b = 0;
  ASSERT_TRUE(set.insert(nullptr, &a));
  set.erase(&b);
  EXPECT_TRUE(set.contains(&a));
  EXPECT_EQ(set.size(), 1u);
}

TEST(PointerSet, FailedGrowthKeepsTheSetIntact) {
  zel::PointerSet set;
  auto all = addresses(32);
  for (const void *address : all)
    ASSERT_TRUE(set.insert(nullptr, address));
  auto more = addresses(33);
  zel::testing::failAllocationAfter(0);
  EXPECT_FALSE(set.insert(nullptr, more.back()));
  zel::testing::failAllocationAfter(-1);
  for (const void *address : all)
    EXPECT_TRUE(set.contains(address));
  EXPECT_FALSE(set.contains(more.back()));
}

}  // namespace
