#include <gtest/gtest.h>

#include "analysis/diagnosis/DescriptionMisfit.h"

namespace {

using mlnn::misfitOfDescription;

constexpr char kForm[] =
    "mel_deltas:bands=40,left=2,right=2,deltas=1,line_kernels=0,line_kernel_width=0";

TEST(DescriptionMisfit, isNoneInTheFormItself) {
  const std::string form = mlnn::descriptionForm();
  EXPECT_EQ(misfitOfDescription(form), form.size());
  EXPECT_EQ(misfitOfDescription(kForm), sizeof kForm - 1);
}

TEST(DescriptionMisfit, isTheFirstPartThatDoesNotFit) {
  const std::string form = kForm;
  EXPECT_EQ(misfitOfDescription(""), 0u);
  EXPECT_EQ(misfitOfDescription("mel_delta"), 9u);
  EXPECT_EQ(misfitOfDescription("mel-deltas:bands=40"), 3u);
  std::string text = form;
  text.replace(text.find("left"), 4, "lift");
  EXPECT_EQ(misfitOfDescription(text), form.find("left") + 1);
  text = form;
  text.replace(text.find("right=2") + 6, 1, "x");
  EXPECT_EQ(misfitOfDescription(text), form.find("right=2") + 6);
}

TEST(DescriptionMisfit, isANumberThatIsRefused) {
  std::string text = kForm;
  const std::size_t at = text.find("bands=") + 6;
  text.replace(at, 2, "99999999999");
  EXPECT_EQ(misfitOfDescription(text), at);
}

TEST(DescriptionMisfit, isTheEndWhereSomethingIsMissing) {
  const std::string cut = std::string(kForm).substr(0, 30);
  EXPECT_EQ(misfitOfDescription(cut), 30u);
}

}  // namespace
