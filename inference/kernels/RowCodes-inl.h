// Weights by rows (layers/RowCodes.h) times one vector, from where the codes lie, in the order of
// additions that docs/forward-pass.md fixes. Compiled once for every instruction set.
#if defined(MLNN_ROW_CODES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_ROW_CODES_INL_H
#undef MLNN_ROW_CODES_INL_H
#else
#define MLNN_ROW_CODES_INL_H
#endif

#include <algorithm>
#include <cstring>

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/VectorOps-inl.h"
#include "layers/RowCodes.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// At most the lanes whose half-byte codes lie in the same halves of bytes.
using RowTag = hn::CappedTag<float, 8>;
using RowVec = hn::Vec<RowTag>;

constexpr std::size_t kRowLanes = hn::MaxLanes(RowTag());
constexpr std::size_t kRowVectors = kRowCodePanel / kRowLanes;

// A value for each row of a panel; 0 for rows that the layer does not have.
struct PanelValues {
  float values[kRowCodePanel] = {};

  PanelValues(const void* from, std::size_t first, std::size_t rows) {
    std::memcpy(values, static_cast<const char*>(from) + first * sizeof(float),
                rows * sizeof(float));
  }
  HWY_INLINE RowVec vector(std::size_t v) const {
    return hn::LoadU(RowTag(), values + v * kRowLanes);
  }
};

// The codes of one column for vector `v` of a panel, as floats.
HWY_INLINE RowVec rowCodes(const RowCodesView& view, const unsigned char* block, std::size_t k,
                           std::size_t v) {
  const hn::Rebind<uint32_t, RowTag> u32;
  const hn::Rebind<int32_t, RowTag> i32;
  const bool isByte = view.bits == 8;
  constexpr std::size_t kHalf = kRowCodePanel / 2;
  const std::size_t lane = v * kRowLanes;
  const bool isUpper = !isByte && lane >= kHalf;
  uint32_t words[kRowLanes];
  std::memcpy(words, block + kRowCodeGroup * (isUpper ? lane - kHalf : lane), sizeof words);
  const auto codes = hn::And(
      hn::ShiftRightSame(hn::LoadU(u32, words), static_cast<int>(8 * k + (isUpper ? 4 : 0))),
      hn::Set(u32, isByte ? 255u : 15u));
  const auto bias = hn::Set(i32, rowCodeBias(view.bits));
  return hn::ConvertTo(RowTag(), hn::Sub(hn::BitCast(i32, codes), bias));
}

// The results of a panel before its activation, into `lanes` values of y.
HWY_INLINE void rowCodesPanel(const LayerView& layer, std::size_t panel, const float* x, float* y) {
  const RowCodesView& view = *layer.rowCodes;
  const std::size_t first = panel * kRowCodePanel;
  const std::size_t lanes = std::min(kRowCodePanel, layer.rows - first);
  const PanelValues scales(view.scales, first, lanes);
  const std::size_t length = chainLength(layer.allRows());
  const std::size_t blockBytes = rowCodeBlockBytes(view.bits);
  const unsigned char* const blocks =
      view.codes + panel * static_cast<std::size_t>(rowCodeGroups(layer.cols)) * blockBytes;
  RowVec sums[kRowVectors];
  for (std::size_t at = 0; at < layer.cols; at += length) {
    RowVec chains[kRowVectors];
    for (RowVec& chain : chains) chain = hn::Zero(RowTag());
    const std::size_t end = std::min(at + length, layer.cols);
    for (std::size_t col = at; col < end; ++col) {
      const unsigned char* const block = blocks + col / kRowCodeGroup * blockBytes;
      const RowVec xk = hn::Set(RowTag(), x[col]);
      HWY_UNROLL(2)
      for (std::size_t v = 0; v < kRowVectors; ++v) {
        const RowVec codes = rowCodes(view, block, col % kRowCodeGroup, v);
        chains[v] = hn::MulAdd(hn::Mul(codes, scales.vector(v)), xk, chains[v]);
      }
    }
    for (std::size_t v = 0; v < kRowVectors; ++v) {
      sums[v] = at == 0 ? chains[v] : hn::Add(sums[v], chains[v]);
    }
  }
  const PanelValues shifts(layer.shift, first, lanes);
  PanelValues results = shifts;
  for (std::size_t v = 0; v < kRowVectors; ++v) {
    RowVec factors = hn::Set(RowTag(), 1.0f);
    if (layer.scale != nullptr) factors = PanelValues(layer.scale, first, lanes).vector(v);
    hn::StoreU(hn::MulAdd(factors, sums[v], shifts.vector(v)), RowTag(),
               results.values + v * kRowLanes);
  }
  std::memcpy(y + first, results.values, lanes * sizeof(float));
}

// The results of a layer for one frame. Needs no memory besides.
void rowCodesVector(const LayerView& layer, const float* x, float* y) {
  const auto panels = static_cast<std::size_t>(rowCodePanels(layer.rows));
  for (std::size_t panel = 0; panel < panels; ++panel) rowCodesPanel(layer, panel, x, y);
  if (layer.actFn != ActFn::linear) activate(layer.actFn, y, layer.rows);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
