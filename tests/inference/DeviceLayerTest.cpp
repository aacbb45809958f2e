#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "inference/DeviceLayer.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::LayerView;
using mlnn::test::batchNormLayer;
using mlnn::test::plainLayer;

// A layer's record where floats may lie.
class Record {
 public:
  explicit Record(const NNLayer& layer) {
    const mlnn::WeightsPlan plan = mlnn::planRecord(layer);
    words_.resize(static_cast<std::size_t>(mlnn::recordLength(layer, plan)) / sizeof(float));
    mlnn::writeRecord(layer, plan, reinterpret_cast<char*>(words_.data()));
    EXPECT_TRUE(mlnn::viewRecord(reinterpret_cast<const char*>(words_.data()),
                                 words_.size() * sizeof(float), view_));
  }

  LayerView layer() const { return mlnn::deviceLayer(view_); }

 private:
  std::vector<float> words_;
  mlnn::LayerRecordView view_;
};

TEST(DeviceLayer, readsWeightsAndBiasWhereTheyLie) {
  NNLayer layer = plainLayer(3, 2);
  layer.actFn = ActFn::tanh;
  const Record record(layer);
  const LayerView view = record.layer();
  EXPECT_EQ(view.rows, 2u);
  EXPECT_EQ(view.cols, 3u);
  EXPECT_EQ(view.actFn, ActFn::tanh);
  EXPECT_EQ(view.scale, nullptr);
  EXPECT_EQ(view.rowCodes, nullptr);
  EXPECT_EQ(std::memcmp(view.weights, layer.weights.data(), 6 * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(view.shift, layer.bias.data(), 2 * sizeof(float)), 0);
}

TEST(DeviceLayer, readsScaleAndShiftOfBatchNorm) {
  const NNLayer layer = batchNormLayer(3, 2);
  const Record record(layer);
  const LayerView view = record.layer();
  EXPECT_EQ(std::memcmp(view.scale, layer.gamma_inf.data(), 2 * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(view.shift, layer.beta_inf.data(), 2 * sizeof(float)), 0);
}

}  // namespace
