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
#include "layers/BuiltForSize.h"
#include "layers/RowCodes.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// No more lanes than a panel has rows; built for size no more than those whose half-byte codes lie
// in the same halves of bytes.
using RowTag = hn::CappedTag<float, kBuiltForSize ? kRowCodePanel / 2 : kRowCodePanel>;
using RowInts = hn::RebindToUnsigned<RowTag>;
using RowVec = hn::Vec<RowTag>;
using RowWords = hn::Vec<RowInts>;

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

// The results of a panel before its activation, from its sums.
HWY_INLINE void finishPanel(const LayerView& layer, std::size_t first, const RowVec* sums,
                            float* y) {
  const std::size_t lanes = std::min(kRowCodePanel, layer.rows - first);
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

#if MLNN_BUILT_FOR_SIZE

// One column after the other. The codes of one column for vector `v` of a panel, as floats.
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

// The results of a panel before its activation.
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
  finishPanel(layer, first, sums, y);
}

void rowCodesPanels(const LayerView& layer, const float* x, float* y) {
  const auto panels = static_cast<std::size_t>(rowCodePanels(layer.rows));
  for (std::size_t panel = 0; panel < panels; ++panel) rowCodesPanel(layer, panel, x, y);
}

#else

// Panels at once, so that a sum need not wait for its last addition.
constexpr std::size_t kRowPanels = kRowLanes < 8 ? 1 : kRowLanes / 4;

// Codes become floats behind this one, where the distance of floats is 1.
constexpr float kBehindCodes = 12582912.0f;  // 1.5 * 2^23

#if HWY_TARGET == HWY_SCALAR

HWY_INLINE RowWords wordsAt(const unsigned char* from) {
  uint32_t word;
  std::memcpy(&word, from, sizeof word);
  return hn::Set(RowInts(), word);
}

#else

HWY_INLINE RowWords wordsAt(const unsigned char* from) {
  return hn::BitCast(RowInts(), hn::LoadU(hn::Repartition<uint8_t, RowInts>(), from));
}

#endif

// The words of a block that hold the codes of vector `v`, whose code of column k is the lower bits
// of byte k.
template <unsigned kBits>
HWY_INLINE RowWords rowWords(const unsigned char* block, std::size_t v) {
  constexpr std::size_t kHalf = kRowCodePanel / 2;
  const std::size_t lane = v * kRowLanes;
#if HWY_TARGET == HWY_AVX3
  if (kBits == 4) {
    const hn::Half<RowInts> half;
    const auto low =
        hn::BitCast(half, hn::LoadU(hn::Repartition<uint8_t, decltype(half)>(), block));
    return hn::Combine(RowInts(), hn::ShiftRight<4>(low), low);
  }
#endif
  const bool isUpper = kBits == 4 && lane >= kHalf;
  const RowWords words = wordsAt(block + kRowCodeGroup * (isUpper ? lane - kHalf : lane));
  return isUpper ? hn::ShiftRight<4>(words) : words;
}

// The codes of column k behind kBehindCodes.
template <unsigned kBits, int k>
HWY_INLINE RowVec rowCodesBehind(RowWords words) {
  const RowInts d;
  constexpr uint32_t kBase = 0x4B400000u - static_cast<uint32_t>(rowCodeBias(kBits));
  if (k > 0) words = hn::ShiftRight<8 * k>(words);
  if (kBits == 4 || k < 3) words = hn::And(words, hn::Set(d, kBits == 8 ? 255u : 15u));
  return hn::BitCast(RowTag(), hn::Add(words, hn::Set(d, kBase)));
}

// The scales of a vector of rows, and what a multiplication by them leaves behind every code.
struct RowFactors {
  HWY_INLINE RowFactors() {}  // for these vectors, which an implicit one would not be compiled for
  RowVec scales;
  RowVec behind;
};

// Whether that can be taken off again exactly: where the scale has bits to spare, as those of
// quantised weights have.
HWY_INLINE bool areShort(RowVec scales) {
  const RowTag d;
  const RowVec base = hn::Set(d, kBehindCodes);
  const RowVec product = hn::Mul(scales, base);
  if (!kFuses || !hn::AllTrue(d, hn::Lt(product, hn::Set(d, 0x1p120f)))) return false;
  return hn::AllTrue(d, hn::Eq(hn::MulSub(scales, base, product), hn::Zero(d)));
}

// The weights of column k, which are products that need no rounding.
template <unsigned kBits, int k, bool kShort>
HWY_INLINE RowVec rowWeights(RowWords words, const RowFactors& factors) {
  const RowVec codes = rowCodesBehind<kBits, k>(words);
  if constexpr (kShort) {
    return hn::MulSub(codes, factors.scales, factors.behind);
  } else {
    return hn::Mul(hn::Sub(codes, hn::Set(RowTag(), kBehindCodes)), factors.scales);
  }
}

// Sums of some panels.
template <std::size_t kPanels>
using RowSums = RowVec[kPanels][kRowVectors];

// Codes of some panels.
struct PanelCodes {
  const unsigned char* first;
  std::size_t panelBytes;
};

// Adds the products of a block's first kCols columns.
template <unsigned kBits, std::size_t kPanels, int kCols, bool kShort>
HWY_INLINE void addBlocks(const PanelCodes& codes,
                          const RowFactors (&factors)[kPanels][kRowVectors], const float* x,
                          RowSums<kPanels>& sums) {
  const auto take = [](RowVec weights, float input, RowVec& sum)
                        HWY_ATTR { sum = hn::MulAdd(weights, hn::Set(RowTag(), input), sum); };
  HWY_UNROLL(4)
  for (std::size_t p = 0; p < kPanels; ++p) {
    HWY_UNROLL(16)
    for (std::size_t v = 0; v < kRowVectors; ++v) {
      const RowWords words = rowWords<kBits>(codes.first + p * codes.panelBytes, v);
      RowVec& sum = sums[p][v];
      take(rowWeights<kBits, 0, kShort>(words, factors[p][v]), x[0], sum);
      if (kCols > 1) take(rowWeights<kBits, 1, kShort>(words, factors[p][v]), x[1], sum);
      if (kCols > 2) take(rowWeights<kBits, 2, kShort>(words, factors[p][v]), x[2], sum);
      if (kCols > 3) take(rowWeights<kBits, 3, kShort>(words, factors[p][v]), x[3], sum);
    }
  }
}

// The sums of all rows of some panels, in chains.
template <unsigned kBits, std::size_t kPanels, bool kShort>
HWY_INLINE void sumPanels(const LayerView& layer, PanelCodes codes,
                          const RowFactors (&factors)[kPanels][kRowVectors], const float* x,
                          RowSums<kPanels>& sums) {
  constexpr std::size_t kBlock = rowCodeBlockBytes(kBits);
  const std::size_t length = chainLength(layer.allRows());  // whole blocks
  for (std::size_t at = 0; at < layer.cols; at += length) {
    RowSums<kPanels> chains;
    for (auto& panel : chains) {
      for (RowVec& chain : panel) chain = hn::Zero(RowTag());
    }
    const std::size_t end = std::min(at + length, layer.cols);
    std::size_t col = at;
    for (; col + kRowCodeGroup <= end; col += kRowCodeGroup, codes.first += kBlock) {
      addBlocks<kBits, kPanels, 4, kShort>(codes, factors, x + col, chains);
    }
    if (end - col == 3) addBlocks<kBits, kPanels, 3, kShort>(codes, factors, x + col, chains);
    if (end - col == 2) addBlocks<kBits, kPanels, 2, kShort>(codes, factors, x + col, chains);
    if (end - col == 1) addBlocks<kBits, kPanels, 1, kShort>(codes, factors, x + col, chains);
    for (std::size_t p = 0; p < kPanels; ++p) {
      for (std::size_t v = 0; v < kRowVectors; ++v) {
        sums[p][v] = at == 0 ? chains[p][v] : hn::Add(sums[p][v], chains[p][v]);
      }
    }
  }
}

// The results of some panels before their activation, from the panel `panel` on.
template <unsigned kBits, std::size_t kPanels>
void somePanels(const LayerView& layer, std::size_t panel, const float* x, float* y) {
  const RowCodesView& view = *layer.rowCodes;
  const std::size_t panelBytes =
      static_cast<std::size_t>(rowCodeGroups(layer.cols)) * rowCodeBlockBytes(kBits);
  const PanelCodes codes{view.codes + panel * panelBytes, panelBytes};
  RowFactors factors[kPanels][kRowVectors];
  bool areAllShort = kFuses;
  for (std::size_t p = 0; p < kPanels; ++p) {
    const std::size_t first = (panel + p) * kRowCodePanel;
    const PanelValues scales(view.scales, first, std::min(kRowCodePanel, layer.rows - first));
    for (std::size_t v = 0; v < kRowVectors; ++v) {
      const RowVec values = scales.vector(v);
      factors[p][v].scales = values;
      factors[p][v].behind = hn::Mul(values, hn::Set(RowTag(), kBehindCodes));
      areAllShort = areAllShort && areShort(values);
    }
  }
  RowSums<kPanels> sums;
  for (auto& each : sums) {
    for (RowVec& sum : each) sum = hn::Zero(RowTag());
  }
  if (areAllShort) {
    sumPanels<kBits, kPanels, kFuses>(layer, codes, factors, x, sums);
  } else {
    sumPanels<kBits, kPanels, false>(layer, codes, factors, x, sums);
  }
  for (std::size_t p = 0; p < kPanels; ++p) {
    finishPanel(layer, (panel + p) * kRowCodePanel, sums[p], y);
  }
}

template <unsigned kBits>
void rowCodesPanelsOf(const LayerView& layer, const float* x, float* y) {
  const auto panels = static_cast<std::size_t>(rowCodePanels(layer.rows));
  std::size_t panel = 0;
  for (; panel + kRowPanels <= panels; panel += kRowPanels) {
    somePanels<kBits, kRowPanels>(layer, panel, x, y);
  }
  for (; panel < panels; ++panel) somePanels<kBits, 1>(layer, panel, x, y);
}

void rowCodesPanels(const LayerView& layer, const float* x, float* y) {
  const auto multiply = layer.rowCodes->bits == 8 ? rowCodesPanelsOf<8> : rowCodesPanelsOf<4>;
  multiply(layer, x, y);
}

#endif

// The results of a layer for one frame. Needs no memory besides.
void rowCodesVector(const LayerView& layer, const float* x, float* y) {
  rowCodesPanels(layer, x, y);
  if (layer.actFn != ActFn::linear) activate(layer.actFn, y, layer.rows);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
