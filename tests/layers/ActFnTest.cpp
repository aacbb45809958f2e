#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "layers/ActFn.h"

namespace {

// The codes stand in files, and so do the keywords: neither may ever change.
const std::vector<std::pair<int32_t, std::string>> kCodesAndKeywords = {
    {0, "linear"},     {1, "sigmoid"}, {2, "tanh"},     {3, "relu"},
    {4, "leaky_relu"}, {5, "elu"},     {6, "softplus"}, {7, "silu"}};

TEST(ActFn, codesAndKeywordsAreFixed) {
  ASSERT_EQ(kCodesAndKeywords.size(), std::size_t{ActFn::kCount});
  for (const auto& [code, keyword] : kCodesAndKeywords) {
    EXPECT_EQ(ActFn::actFnToString(static_cast<ActFn::ActFn>(code)), keyword);
  }
}

TEST(ActFn, isStoredIn32Bits) { EXPECT_EQ(sizeof(ActFn::ActFn), 4u); }

TEST(ActFn, bothDirectionsAreInverseForEveryEnumerator) {
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    const auto fn = static_cast<ActFn::ActFn>(code);
    auto parsed = static_cast<ActFn::ActFn>(code == 0 ? 1 : 0);
    EXPECT_EQ(ActFn::stringToActFn(ActFn::actFnToString(fn), parsed), 0);
    EXPECT_EQ(parsed, fn);
  }
}

TEST(ActFn, unknownKeywordIsRefusedAndLeavesTheTarget) {
  const std::string unknown[] = {"",       "Sigmoid",  "sigmoid ", " sigmoid",
                                 "sigmoi", "sigmoids", "1",        std::string("relu\0", 5)};
  for (const std::string& keyword : unknown) {
    ActFn::ActFn fn = ActFn::softplus;
    EXPECT_NE(ActFn::stringToActFn(keyword, fn), 0) << keyword;
    EXPECT_EQ(fn, ActFn::softplus) << keyword;
  }
}

TEST(ActFn, valueThatIsNoEnumeratorHasANameThatIsNoKeyword) {
  for (const int32_t code :
       {-1, 8, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()}) {
    const std::string name = ActFn::actFnToString(static_cast<ActFn::ActFn>(code));
    EXPECT_EQ(name, "unknown");
    ActFn::ActFn fn = ActFn::linear;
    EXPECT_NE(ActFn::stringToActFn(name, fn), 0);
  }
}

}  // namespace
