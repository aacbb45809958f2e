#include <gtest/gtest.h>

#include "text/TextParts.h"

namespace {

TEST(TextParts, beginsAndEnds) {
  EXPECT_TRUE(mlnn::startsWith("layer 1", "layer"));
  EXPECT_TRUE(mlnn::startsWith("layer", "layer"));
  EXPECT_TRUE(mlnn::startsWith("", ""));
  EXPECT_FALSE(mlnn::startsWith("lay", "layer"));
  EXPECT_FALSE(mlnn::startsWith(" layer", "layer"));
  EXPECT_TRUE(mlnn::endsWith("model.txt", ".txt"));
  EXPECT_TRUE(mlnn::endsWith(".txt", ".txt"));
  EXPECT_TRUE(mlnn::endsWith("x", ""));
  EXPECT_FALSE(mlnn::endsWith("txt", ".txt"));
  EXPECT_FALSE(mlnn::endsWith("model.txt ", ".txt"));
}

TEST(TextParts, contains) {
  EXPECT_TRUE(mlnn::contains("num_layers 2", "layers"));
  EXPECT_TRUE(mlnn::contains("", ""));
  EXPECT_FALSE(mlnn::contains("", "a"));
  EXPECT_FALSE(mlnn::contains("num_layers", "layers "));
}

}  // namespace
