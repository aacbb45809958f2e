#include <gtest/gtest.h>

#include "inference/kernels/RunnableKernels.h"

namespace {

TEST(RunnableKernels, areInTheOrderInWhichTheyWereFound) {
  const int first = 1;
  const int second = 2;
  mlnn::RunnableKernels<int, 3> kernels;
  EXPECT_TRUE(kernels.all().empty());
  kernels.add(first);
  EXPECT_EQ(&kernels.best(), &first);
  kernels.add(second);
  EXPECT_EQ(&kernels.best(), &first);
  EXPECT_EQ(kernels.all(), std::vector<const int*>({&first, &second}));
}

}  // namespace
