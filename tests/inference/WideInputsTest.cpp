#include <gtest/gtest.h>

#include "inference/WideInputs.h"

namespace {

using mlnn::takesWords;
using mlnn::WideInputs;

TEST(WideInputs, areThoseOfNoLayerOfTheFirstOrOfAll) {
  for (const std::size_t layer : {std::size_t{0}, std::size_t{1}, std::size_t{1000}}) {
    EXPECT_FALSE(takesWords(WideInputs::kNone, layer));
    EXPECT_EQ(takesWords(WideInputs::kFirst, layer), layer == 0);
    EXPECT_TRUE(takesWords(WideInputs::kAll, layer));
  }
}

}  // namespace
