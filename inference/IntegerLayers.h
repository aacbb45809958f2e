// IntegerLayers — a model's layers as the integer pass reads them, in memory of their own.
// Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "features/Watch.h"
#include "inference/IntegerFwdPass.h"
#include "inference/IntegerStackPass.h"

class MultiLayerNNModel;
class NNLayer;

namespace mlnn {

// Scales and codes of a layer in memory of their own, from a cache line on.
class OwnRowCodes {
 public:
  // Finds the codes of column-major weights at any address. Returns whether there are any, and sums
  // of them do not overflow; else it stays as newly made. `watch` is called with 0 steps.
  bool find(const void* weights, std::size_t rows, std::size_t cols, const Watch& watch = {});

  // Those of no layer where none were found.
  const RowCodesView& view() const { return view_; }
  const float* scales() const { return scales_.data(); }

  // Returns the bytes of both arrays.
  std::size_t bytes() const;

 private:
  RowCodesView view_;
  std::vector<float> scales_;
  Eigen::Matrix<uint8_t, Eigen::Dynamic, 1> codes_;
};

// Owns all of its arrays.
class IntegerLayer {
 public:
  // `watch` is called with 0 steps.
  // REQUIRES: the layer fits its arrays.
  IntegerLayer(const NNLayer& layer, bool takesWords, const Watch& watch);

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
  std::vector<float> scale_;  // empty where there is none
  std::vector<float> shift_;
  OwnRowCodes codes_;
  std::vector<float> weights_;  // where there are no codes
};

class IntegerLayers final : public IntegerSource {
 public:
  // `watch` is called with 0 steps.
  // REQUIRES: canBeEvaluated.
  IntegerLayers(const MultiLayerNNModel& model, WideInputs wideInputs, const Watch& watch = {});

  std::size_t count() const override { return layers_.size(); }
  IntegerLayerView layer(std::size_t index) const override { return layers_[index].view(); }
  bool endsInSoftmax() const override { return endsInSoftmax_; }
  std::size_t bytes() const override;

 private:
  std::vector<IntegerLayer> layers_;
  bool endsInSoftmax_;
};

}  // namespace mlnn
