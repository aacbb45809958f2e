// IntegerLayers — a model's layers as the integer pass reads them, in memory of their own.
// Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "inference/IntegerFwdPass.h"
#include "inference/IntegerStackPass.h"

class MultiLayerNNModel;
struct NNLayer;

namespace mlnn {

// Whether the layer `index` takes integers of 16 bits.
constexpr bool takesWords(WideInputs wideInputs, std::size_t index) {
  return wideInputs == WideInputs::kAll || (wideInputs == WideInputs::kFirst && index == 0);
}

// Owns all of its arrays.
class IntegerLayer {
 public:
  // REQUIRES: the layer fits its arrays.
  IntegerLayer(const NNLayer& layer, bool takesWords);

  IntegerLayer(IntegerLayer&&) = default;
  IntegerLayer& operator=(IntegerLayer&&) = default;

  // What the kernels read; as long as the object is not moved to.
  IntegerLayerView view() const;

  // Returns the bytes of all arrays.
  std::size_t bytes() const;

 private:
  std::size_t rows_;
  std::size_t cols_;
  ActFn::ActFn actFn_;
  bool takesWords_;
  unsigned bits_ = 0;         // of codes; 0 where there are none
  std::vector<float> scale_;  // empty where there is none
  std::vector<float> shift_;
  std::vector<float> rowScales_;
  std::vector<float> weights_;                       // where there are no codes
  Eigen::Matrix<uint8_t, Eigen::Dynamic, 1> codes_;  // from a cache line on
};

class IntegerLayers final : public IntegerSource {
 public:
  // REQUIRES: canBeEvaluated.
  IntegerLayers(const MultiLayerNNModel& model, WideInputs wideInputs);

  std::size_t count() const override { return layers_.size(); }
  IntegerLayerView layer(std::size_t index) const override { return layers_[index].view(); }
  bool endsInSoftmax() const override { return endsInSoftmax_; }
  std::size_t bytes() const override;

 private:
  std::vector<IntegerLayer> layers_;
  bool endsInSoftmax_;
};

}  // namespace mlnn
