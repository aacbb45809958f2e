// LayerView — what the kernels need to know of a layer; it owns nothing.
#pragma once

#include <cstddef>

#include "inference/kernels/GridCodes.h"
#include "layers/ActFn.h"
#include "layers/RowCodes.h"
#include "layers/TableCodes.h"

namespace mlnn {

struct LayerView {
  const float* weights;  // rows x cols, column-major, the columns allRows() apart
  std::size_t rows;      // outputs
  std::size_t cols;      // inputs
  const float* scale;    // a factor for each output, or null for none
  const float* shift;    // an addend for each output
  ActFn::ActFn actFn;
  const GridCodes* coded = nullptr;            // in place of `weights`, unless null
  const RowCodesView* rowCodes = nullptr;      // likewise, for one frame; more need them unpacked
  const TableCodesView* tableCodes = nullptr;  // likewise (TableKernels.h)
  std::size_t ofRows = 0;  // outputs of the layer of which these are some; 0 where they are all

  std::size_t allRows() const { return ofRows == 0 ? rows : ofRows; }
};

// The order of additions (docs/forward-pass.md): the products of a row are summed in chains
// over this many consecutive inputs, by all rows of its layer. A layer of few outputs has short
// chains, of which several can be in flight where there are too few rows to keep a processor busy.
constexpr std::size_t kChainLength = 128;
constexpr std::size_t kShortChainLength = 16;
constexpr std::size_t kFewRows = 32;

// Weights of so many bytes stream through the second-level cache of common processors.
constexpr std::size_t kSecondLevelBytes = std::size_t{1} << 20;

// Weights of so many bytes come from the memory, or cost as much.
constexpr std::size_t kThirdLevelBytes = std::size_t{8} << 20;

constexpr std::size_t chainLength(std::size_t rows) {
  return rows <= kFewRows ? kShortChainLength : kChainLength;
}

}  // namespace mlnn
