#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

#include "c/HandleTable.h"
#include "tests/support/AllocationWatch.h"

namespace {

using Numbers = mlnn::HandleTable<int, 1>;

constexpr uint64_t kNoNumbers[] = {0, 1, uint64_t{1} << 24, uint64_t{1} << 32, UINT64_MAX};

TEST(HandleTable, findsWhatWasAdded) {
  Numbers table;
  const auto object = std::make_shared<int>(5);
  const uint64_t id = table.add(object);
  EXPECT_NE(id, 0u);
  EXPECT_EQ(table.find(id), object.get());
  EXPECT_EQ(table.share(id), object);
  EXPECT_EQ(object.use_count(), 2);
}

TEST(HandleTable, hasNothingForOtherNumbers) {
  Numbers table;
  for (const uint64_t id : kNoNumbers) {
    EXPECT_EQ(table.find(id), nullptr) << id;
    EXPECT_EQ(table.share(id), nullptr) << id;
    EXPECT_EQ(table.take(id), nullptr) << id;
  }
  const uint64_t id = table.add(std::make_shared<int>(5));
  for (const uint64_t other : kNoNumbers) EXPECT_EQ(table.find(other), nullptr) << other;
  for (int bit = 0; bit < 64; ++bit) {
    EXPECT_EQ(table.find(id ^ uint64_t{1} << bit), nullptr) << bit;
    EXPECT_EQ(table.take(id ^ uint64_t{1} << bit), nullptr) << bit;
  }
  EXPECT_NE(table.find(id), nullptr);
}

TEST(HandleTable, givesAnObjectBackOnce) {
  Numbers table;
  const auto object = std::make_shared<int>(5);
  const uint64_t id = table.add(object);
  EXPECT_EQ(table.take(id), object);
  EXPECT_EQ(object.use_count(), 1);
  EXPECT_EQ(table.take(id), nullptr);
  EXPECT_EQ(table.find(id), nullptr);
  EXPECT_EQ(table.share(id), nullptr);
}

TEST(HandleTable, whatIsSharedOutlivesItsNumber) {
  Numbers table;
  const uint64_t id = table.add(std::make_shared<int>(5));
  const std::shared_ptr<int> shared = table.share(id);
  table.take(id);
  EXPECT_EQ(*shared, 5);
  EXPECT_EQ(shared.use_count(), 1);
}

TEST(HandleTable, aNumberIsNotGivenTwice) {
  Numbers table;
  std::set<uint64_t> given;
  for (int i = 0; i < 1000; ++i) {
    const uint64_t id = table.add(std::make_shared<int>(i));
    EXPECT_TRUE(given.insert(id).second) << i;
    for (const uint64_t before : given) {
      ASSERT_EQ(table.find(before) != nullptr, before == id) << i;
    }
    table.take(id);
  }
}

TEST(HandleTable, tablesOfOtherObjectsHaveOtherNumbers) {
  Numbers table;
  mlnn::HandleTable<int, 2> other;
  const uint64_t id = table.add(std::make_shared<int>(5));
  const uint64_t otherId = other.add(std::make_shared<int>(6));
  EXPECT_NE(id, otherId);
  EXPECT_EQ(table.find(otherId), nullptr);
  EXPECT_EQ(other.take(id), nullptr);
}

// More than the first blocks hold; none moves when others come.
TEST(HandleTable, holdsThousandsInTheirPlaces) {
  Numbers table;
  std::vector<uint64_t> ids;
  std::vector<const int*> places;
  for (int i = 0; i < 5000; ++i) {
    ids.push_back(table.add(std::make_shared<int>(i)));
    places.push_back(table.find(ids.back()));
  }
  for (std::size_t i = 0; i < ids.size(); i += 3) table.take(ids[i]);
  for (int i = 0; i < 2000; ++i) table.add(std::make_shared<int>(-i));
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const int* const found = table.find(ids[i]);
    ASSERT_EQ(found, i % 3 == 0 ? nullptr : places[i]) << i;
    ASSERT_TRUE(found == nullptr || *found == static_cast<int>(i)) << i;
  }
}

TEST(HandleTable, takesNoMoreMemoryForNumbersThatAreUsedAgain) {
  Numbers table;
  const auto object = std::make_shared<int>(5);
  table.take(table.add(object));
  const mlnn::test::AllocationWatch watch;
  for (int i = 0; i < 10000; ++i) table.take(table.add(object));
  EXPECT_EQ(watch.allocations(), 0u);
}

TEST(HandleTable, isAsItWasWhereMemoryRunsOut) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "allocations cannot be made to fail";
  Numbers table;
  const auto object = std::make_shared<int>(5);
  std::vector<uint64_t> ids;
  for (int i = 0; i < 64; ++i) ids.push_back(table.add(object));  // the first block is full
  {
    const mlnn::test::FailingAllocation failing(0, mlnn::test::Failing::kFromThenOn);
    EXPECT_THROW(table.add(object), std::bad_alloc);
  }
  EXPECT_EQ(object.use_count(), 65);
  for (const uint64_t id : ids) EXPECT_EQ(table.find(id), object.get());
  EXPECT_EQ(table.find(table.add(object)), object.get());
}

}  // namespace
