// CodedLayer — a layer whose weights are held as codes of b bits, where that pays.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "features/Watch.h"
#include "inference/kernels/GridCodes.h"
#include "inference/kernels/LayerView.h"
#include "layers/NNLayer.h"
#include "model/PrecisionGrid.h"

namespace mlnn {

// Owns all of its arrays. What it computes is to the bit what the layer computes after its bias
// and weights were snapped to the grid.
class CodedLayer {
 public:
  // Codes the weights of a layer, unless they are fewer than `fewest`, or codes would take more
  // than half of the memory, or a snapped weight is not one of the grid's 2^bits + 1 points (where
  // the range is not finite, say). Then it holds the snapped weights themselves.
  // `watch` is called with 0 steps.
  // REQUIRES: bits is 1 to 8; `grid` has as many; the layer fits its arrays.
  CodedLayer(const NNLayer& layer, const PrecisionGrid& grid, int bits, std::size_t fewest,
             const Watch& watch = {});

  CodedLayer(CodedLayer&&) = default;
  CodedLayer& operator=(CodedLayer&&) = default;

  // What the kernels read; as long as the object stays where it is.
  LayerView view() const;

  bool isCoded() const { return !codes_.empty(); }

  // Returns the bytes of all arrays.
  std::size_t bytes() const;

 private:
  std::size_t panels() const;
  bool pays(std::size_t fewest) const;
  bool encode(const NNLayer& layer, const PrecisionGrid& grid, const Watch& watch);
  bool encodeColumn(const float* weights, std::size_t rows, std::size_t input, uint8_t* codes,
                    const PrecisionGrid& grid);
  void keepFloats(const NNLayer& layer, const PrecisionGrid& grid, const Watch& watch);

  std::size_t rows_;
  std::size_t cols_;
  ActFn::ActFn actFn_;
  std::vector<float> scale_;  // empty where there is none
  std::vector<float> shift_;
  std::vector<float> weights_;  // where they are not coded
  std::vector<uint8_t> codes_;
  std::vector<float> values_;
  std::vector<LastPoints> last_;
  std::vector<uint64_t> lastOf_;
  GridCodes coded_{};
};

}  // namespace mlnn
