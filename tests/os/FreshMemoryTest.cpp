#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

#include "os/FreshMemory.h"

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kMebibyte = std::size_t{1} << 20;

// Memory that nobody has touched.
class Untouched {
 public:
  explicit Untouched(std::size_t bytes) : bytes_(bytes) {
    data_ = static_cast<unsigned char*>(
        mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    madvise(data_, bytes_, MADV_NOHUGEPAGE);  // so that pages come one by one
  }
  ~Untouched() { munmap(data_, bytes_); }
  Untouched(const Untouched&) = delete;
  Untouched& operator=(const Untouched&) = delete;

  unsigned char* data() const { return data_; }
  std::size_t pages() const { return bytes_ / kPage; }

  std::size_t pagesThere() const {
    std::vector<unsigned char> there(pages());
    EXPECT_EQ(mincore(data_, bytes_, there.data()), 0);
    return static_cast<std::size_t>(
        std::count_if(there.begin(), there.end(), [](unsigned char page) { return page & 1; }));
  }

 private:
  unsigned char* data_;
  std::size_t bytes_;
};

TEST(FreshMemoryTest, changesNoByteInTheArrayOrBesideIt) {
  for (const std::size_t bytes :
       {std::size_t{0}, std::size_t{1}, kPage, 16 * kPage, 5 * kMebibyte}) {
    for (const std::size_t first : {std::size_t{0}, std::size_t{1}, kPage - 1}) {
      std::vector<unsigned char> values(bytes + 2 * kPage, 0xA5);
      mlnn::adviseHugePages(values.data() + first, bytes);
      mlnn::supplyPages(values.data() + first, bytes);
      EXPECT_EQ(std::count(values.begin(), values.end(), 0xA5), values.size());
    }
  }
}

TEST(FreshMemoryTest, suppliesThePagesOfTheArrayAlone) {
  const Untouched memory(kMebibyte);
  mlnn::supplyPages(memory.data() + kPage + 1, kMebibyte / 2);
  const std::size_t there = memory.pagesThere();
  if (there == 0) GTEST_SKIP() << "the system does not supply pages";
  EXPECT_EQ(there, kMebibyte / 2 / kPage - 1);  // those that the array has to itself
  EXPECT_EQ(memory.data()[kMebibyte / 4], 0);
}

TEST(FreshMemoryTest, leavesSmallArraysAndTouchedOnesAlone) {
  const Untouched memory(kMebibyte);
  mlnn::supplyPages(memory.data(), 8 * kPage);
  EXPECT_EQ(memory.pagesThere(), 0u);
  memory.data()[kMebibyte / 2] = 1;
  mlnn::supplyPages(memory.data(), kMebibyte);
  EXPECT_EQ(memory.pagesThere(), 1u);
}

TEST(FreshMemoryTest, suppliesNothingWhereThereIsNoMemory) {
  const Untouched memory(3 * kMebibyte);
  unsigned char* const gap = memory.data() + kMebibyte;
  ASSERT_EQ(munmap(gap, kMebibyte), 0);
  mlnn::supplyPages(gap, kMebibyte);
  unsigned char there;
  EXPECT_EQ(mincore(gap, kPage, &there), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(FreshMemoryTest, advisingTakesNoMemory) {
  const Untouched memory(8 * kMebibyte);
  mlnn::adviseHugePages(memory.data(), 8 * kMebibyte);
  EXPECT_EQ(memory.pagesThere(), 0u);
}

}  // namespace
