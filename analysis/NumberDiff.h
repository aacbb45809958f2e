// compareNumbers — the parameters of two models, layer by layer.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "analysis/Difference.h"
#include "features/Export.h"
#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

struct ArrayDifference {
  std::string array;      // "weights", "bias", ..., "effective weights", "effective bias"
  Difference difference;  // over all of its values
};

// What differs in a layer that both models have.
struct MLNN_EXPORT LayerDifference {
  std::size_t layer = 0;                // counted from 1
  bool sameShape = true;                // otherwise there are no arrays
  bool sameKind = true;                 // both are plain, or both batch norm
  std::vector<ArrayDifference> arrays;  // those that are compared, as told below

  // Whether both layers hold the same numbers in the same arrays.
  bool isSame() const;
};

// Compares each layer that both models have.
//
// Layers of one kind are compared array by array. An array that their kind does not use is
// taken as zeros where it is empty, and left out where it is zero in both layers.
//
// A batch-norm layer and a plain one have only `weights` in common. Beside these, the affine
// maps that they compute are compared, as folding would write them down: the "effective
// weights" of a batch-norm layer are its weights, each multiplied once by its row's gamma_inf,
// its "effective bias" is beta_inf; those of a plain layer are its weights and bias.
//
// `watch` is told of layers.
// REQUIRES: no layer is missing.
MLNN_EXPORT std::vector<LayerDifference> compareNumbers(const MultiLayerNNModel& a,
                                                        const MultiLayerNNModel& b,
                                                        const Watch& watch = {});

}  // namespace mlnn
