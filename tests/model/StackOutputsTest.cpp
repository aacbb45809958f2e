#include <gtest/gtest.h>

#include "model/StackOutputs.h"

namespace {

using mlnn::hasOutputs;

TEST(StackOutputs, areThoseOfTheFirstAndTheLastLayer) {
  NNLayer some(4, 3, false);
  NNLayer none(4, 0, false);
  EXPECT_TRUE(hasOutputs(std::vector<NNLayer*>{&some}));
  EXPECT_TRUE(hasOutputs(std::vector<NNLayer*>{&some, &none, &some}));
  EXPECT_FALSE(hasOutputs(std::vector<NNLayer*>{&none, &some}));
  EXPECT_FALSE(hasOutputs(std::vector<NNLayer*>{&some, &none}));
}

TEST(StackOutputs, areNotThereWithoutLayers) {
  NNLayer some(4, 3, false);
  EXPECT_FALSE(hasOutputs(std::vector<NNLayer*>{}));
  EXPECT_FALSE(hasOutputs(std::vector<NNLayer*>{nullptr}));
  EXPECT_FALSE(hasOutputs(std::vector<NNLayer*>{&some, nullptr}));
}

TEST(StackOutputs, ofWidthsAreTheSame) {
  EXPECT_TRUE(hasOutputs(std::vector<int>{4, 3}));
  EXPECT_TRUE(hasOutputs(std::vector<int>{0, 3, 0, 2}));
  EXPECT_FALSE(hasOutputs(std::vector<int>{4, 0, 2}));
  EXPECT_FALSE(hasOutputs(std::vector<int>{4, 3, 0}));
  EXPECT_FALSE(hasOutputs(std::vector<int>{4}));
  EXPECT_FALSE(hasOutputs(std::vector<int>{}));
}

}  // namespace
