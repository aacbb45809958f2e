#include <gtest/gtest.h>

#include "model/ModelFormat.h"

namespace {

TEST(ModelFormat, isThatOfAnImageByItsFirstFourBytes) {
  for (const char* image : {"MLNN", "MLNNx", "MLNN MultiLayerNNModel"}) {
    EXPECT_TRUE(mlnn::isImage(image)) << image;
  }
  for (const char* other : {"", "M", "MLN", "mlnn", " MLNN", "MultiLayerNNModel_v2"}) {
    EXPECT_FALSE(mlnn::isImage(other)) << other;
  }
}

}  // namespace
