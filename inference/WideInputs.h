// WideInputs — which layers of a pass in integers take inputs of 16 bits.
#pragma once

#include <cstddef>

namespace mlnn {

// Which layers take their inputs as integers of 16 bits; the others take 8.
enum class WideInputs { kNone, kFirst, kAll };

// Whether the layer `index` does.
constexpr bool takesWords(WideInputs wideInputs, std::size_t index) {
  return wideInputs == WideInputs::kAll || (wideInputs == WideInputs::kFirst && index == 0);
}

}  // namespace mlnn
