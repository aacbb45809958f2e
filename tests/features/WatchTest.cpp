#include <gtest/gtest.h>

#include "features/Watch.h"

namespace {

TEST(Watch, isToldOfStepsWhereThereIsOne) {
  std::size_t all = 0;
  mlnn::tell([&all](std::size_t steps) { all += steps; }, 3);
  mlnn::tell(nullptr, 4);
  mlnn::tell({}, 5);
  EXPECT_EQ(all, 3u);
}

TEST(Watch, stopsByWhatItThrows) {
  const mlnn::Watch watch = [](std::size_t) { throw 7; };
  EXPECT_THROW(mlnn::tell(watch, 0), int);
}

}  // namespace
