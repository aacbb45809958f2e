// The binary record of a layer, described in docs/binary-format.md: a head of ten
// 32-bit words, then the layer's six arrays as raw floats.
#pragma once

#include <cstdint>

namespace mlnn {

// The head, word by word as it stands in the record.
struct LayerRecordHead {
  uint32_t form;         // kPlainFloats
  int32_t rows;          // outputs
  int32_t cols;          // inputs
  int32_t actFn;         // an ActFn::ActFn code
  uint32_t isBatchNorm;  // 0 or 1
  int32_t biasLength;    // lengths of the vectors that follow the weights
  int32_t gammaLength;
  int32_t betaLength;
  int32_t gammaInfLength;
  int32_t betaInfLength;
};
static_assert(sizeof(LayerRecordHead) == 40);

inline constexpr uint32_t kPlainFloats = 0;  // every value is stored as it is

// No record is shorter than its head.
inline constexpr int kMinLayerRecordLength = sizeof(LayerRecordHead);

}  // namespace mlnn
