// ActFn — the activation functions of a layer: their codes and their keywords.
#pragma once

#include <cstdint>
#include <string>

#include "features/Export.h"

namespace ActFn {

// The codes are stored in binary images; they never change.
enum ActFn : int32_t {
  linear = 0,      // x; the activation of an output layer under softmax
  sigmoid = 1,     // 1 / (1 + exp(-x))
  tanh = 2,        // tanh(x)
  relu = 3,        // max(x, 0)
  leaky_relu = 4,  // x where x >= 0, else 0.01 x
  elu = 5,         // x where x >= 0, else exp(x) - 1
  softplus = 6,    // log(1 + exp(x))
  silu = 7,        // x / (1 + exp(-x))
};

// Number of activation functions; their codes are 0 to kCount - 1.
inline constexpr int32_t kCount = 8;

// Returns the keyword that text model files use, or "unknown" for a value that is
// not an enumerator.
MLNN_EXPORT std::string actFnToString(ActFn fn);

// The inverse: finds the activation with keyword `text`.
// Returns: 0 with `out` set; 1 for an unknown keyword, `out` unchanged.
MLNN_EXPORT int stringToActFn(const std::string& text, ActFn& out);

}  // namespace ActFn
