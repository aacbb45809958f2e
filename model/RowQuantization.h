// RowQuantization — weights rounded to a few whole numbers times a scale for each output, so that
// they take 8 or 4 bits in an image and integer arithmetic can multiply them.
// docs/numerics.md gives the arithmetic, which is the same to the bit everywhere.
#pragma once

#include <limits>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"

class MultiLayerNNModel;

namespace mlnn {

// How the scale of an output is found.
enum class RowScale {
  kLargest,       // the largest absolute weight takes the largest code: nothing is clipped
  kLeastSquares,  // of that scale and 31 smaller ones, the one with the least squared error
};

struct RowQuantization {
  static constexpr int kMinBits = 2;  // of a code
  static constexpr int kMaxBits = 8;  // of a code

  int bits = kMaxBits;                  // of a code
  RowScale scale = RowScale::kLargest;  // how a row's scale is found

  // A layer stays as it is where its relative error would be larger.
  double largestError = std::numeric_limits<double>::infinity();
};

// What became of a layer.
struct QuantizedLayer {
  double relativeError = 0;  // the root of: squared errors of the weights by squared weights
  bool isQuantized = false;  // or stays as it was
  bool isFolded = false;     // its batch norm became part of the scales
};

// Replaces each weight by the nearest of 2^bits - 1 whole multiples of its row's scale, ties to
// the even one: ordinary floats of an ordinary model. Biases and the vectors of batch-norm layers
// stay. A batch-norm layer becomes plain where each gamma_inf is a power of two or the negative of
// one: its results are the same to the bit then. Missing layers stay missing.
// Returns: 0 done; 1 refused: `bits` is out of range, or a weight is not finite.
// On failure: the model and `layers` are unchanged. On std::bad_alloc: some layers are done.
// Prints: an error line on failure.
MLNN_EXPORT int quantizeRows(MultiLayerNNModel& model, const RowQuantization& options,
                             std::vector<QuantizedLayer>* layers = nullptr);

// The same, which a watch can stop: it is called with 0 steps. Where it throws, some layers are
// done.
MLNN_EXPORT int quantizeRows(MultiLayerNNModel& model, const RowQuantization& options,
                             std::vector<QuantizedLayer>* layers, const Watch& watch);

}  // namespace mlnn
