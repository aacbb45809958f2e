#include <gtest/gtest.h>

#include <vector>

#include "analysis/LayerRanges.h"

namespace {

std::string said(const std::vector<std::string>& words) {
  return mlnn::saidOfLayers(words.size(), [&words](std::size_t i) { return words[i]; });
}

TEST(LayerRanges, neighboursAreSaidTogether) {
  EXPECT_EQ(said({}), "");
  EXPECT_EQ(said({"floats"}), "floats in layer 1");
  EXPECT_EQ(said({"floats", "bytes", "bytes", "bytes"}), "floats in layer 1, bytes in layers 2-4");
  EXPECT_EQ(said({"a", "b", "a"}), "a in layer 1, b in layer 2, a in layer 3");
}

TEST(LayerRanges, nothingIsSaidOfLayersWithoutWords) {
  EXPECT_EQ(said({"", ""}), "");
  EXPECT_EQ(said({"", "a", "", "a", "a", ""}), "a in layer 2, a in layers 4-5");
}

}  // namespace
