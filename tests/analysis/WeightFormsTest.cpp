#include <gtest/gtest.h>

#include <string>

#include "analysis/WeightForms.h"
#include "model/RowQuantization.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::quantizedText;
using mlnn::quantizeRows;
using mlnn::RowQuantization;
using mlnn::StoredWeights;
using mlnn::storedWeights;
using mlnn::weightForms;
using mlnn::test::fewValuesLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;

NNLayer quantized(const NNLayer& layer, int bits) {
  MultiLayerNNModel model = modelOf({layer});
  RowQuantization options;
  options.bits = bits;
  EXPECT_EQ(quantizeRows(model, options), 0);
  return *model.layers[0];
}

TEST(WeightForms, ofFloatsAndOfATable) {
  const StoredWeights floats = storedWeights(plainLayer(10, 3));
  EXPECT_EQ(std::string(floats.form), "floats");
  EXPECT_EQ(floats.bytes, 120u);
  EXPECT_EQ(floats.rowBits, 0);
  const StoredWeights table = storedWeights(fewValuesLayer(40, 16, 10));
  EXPECT_EQ(table.rowBits, 0);
}

// 16 rows: scales of 4 bytes each, and blocks of 4 columns.
TEST(WeightForms, ofQuantisedWeightsTellToHowManyBits) {
  const NNLayer layer = plainLayer(40, 16);
  for (int bits = 2; bits <= 8; ++bits) {
    const StoredWeights stored = storedWeights(quantized(layer, bits));
    EXPECT_EQ(stored.rowBits, bits);
    EXPECT_EQ(std::string(stored.form), bits <= 4 ? "half bytes by rows" : "bytes by rows");
    EXPECT_EQ(stored.bytes, bits <= 4 ? 64u + 320 : 64u + 640) << bits;
  }
}

TEST(WeightForms, ofRowsOfZerosNeedNoBits) {
  NNLayer layer = quantized(plainLayer(40, 16), 6);
  layer.weights.row(3).setZero();
  EXPECT_EQ(storedWeights(layer).rowBits, 6);
}

TEST(WeightForms, ofAllLayersInWords) {
  const NNLayer layer = plainLayer(16, 16);
  MultiLayerNNModel model = modelOf({layer, layer});
  EXPECT_EQ(weightForms(model), "floats in layers 1-2");
  EXPECT_EQ(quantizedText(model), "");
  EXPECT_EQ(weightForms(MultiLayerNNModel()), "none");
  EXPECT_EQ(quantizedText(MultiLayerNNModel()), "");

  model = modelOf({quantized(layer, 7), quantized(layer, 7), layer, quantized(layer, 4)});
  EXPECT_EQ(weightForms(model),
            "bytes by rows in layers 1-2, floats in layer 3, half bytes by rows in layer 4");
  EXPECT_EQ(quantizedText(model),
            "7 bits a weight in layers 1-2, 4 bits a weight in layer 4, and a scale a row: 832 "
            "bytes in place of 3072, 27.1 %");
}

}  // namespace
