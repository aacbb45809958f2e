#include <gtest/gtest.h>

#include "tools/Failure.h"
#include "tools/commands/LayerSizes.h"

namespace {

using Sizes = std::vector<int>;
using mlnn::checkNetworkSize;
using mlnn::parseLayerSizes;

template <typename Error, typename Action>
std::string refusalOf(Action action) {
  try {
    action();
  } catch (const Error& error) {
    return error.what();
  }
  return "";
}

TEST(LayerSizes, areNumbersBetweenCommas) {
  EXPECT_EQ(parseLayerSizes("3,2"), (Sizes{3, 2}));
  EXPECT_EQ(parseLayerSizes("360,512,2147483647"), (Sizes{360, 512, 2147483647}));
}

TEST(LayerSizes, refusesAnythingElse) {
  for (const char* text :
       {"", "3", "3,", ",3", "3,,2", "3,0", "3,-1", "3;2", "3, 2", "3,2x", "3,2147483648", "x,y"}) {
    EXPECT_EQ(refusalOf<mlnn::UsageError>([text] { parseLayerSizes(text); }),
              "expected two or more sizes of 1 to 2147483647, as in 360,512,40, but found '" +
                  std::string(text) + "'");
  }
}

TEST(LayerSizes, refusesWhatAnImageCannotHold) {
  constexpr char kTooLarge[] =
      "the parameters would take more than 2147483647 bytes, which is the most that a binary image "
      "can hold";
  const auto refusal = [](const Sizes& sizes, bool batchNorm) {
    return refusalOf<mlnn::Failure>([&] { checkNetworkSize(sizes, batchNorm); });
  };
  // 536870911 floats are 2147483644 bytes.
  EXPECT_EQ(refusal({536870910, 1}, false), "");
  EXPECT_EQ(refusal({536870911, 1}, false), kTooLarge);
  EXPECT_EQ(refusal({536870906, 1}, true), "");
  EXPECT_EQ(refusal({536870907, 1}, true), kTooLarge);
  EXPECT_EQ(refusal({2147483647, 2147483647, 2147483647, 2147483647}, true), kTooLarge);
  EXPECT_EQ(refusal({1, 16384, 32767}, false), kTooLarge);
}

}  // namespace
