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

struct ByShifts {};

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

template <typename>
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
    const RowInts d;
    const __m256i both = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block));
    const RowWords isUpper = hn::And(hn::ShiftRight<1>(hn::Iota(d, 0)), hn::Set(d, 4u));
    return hn::Shr(RowWords{_mm512_broadcast_i64x4(both)}, isUpper);
  }
#endif
  const bool isUpper = kBits == 4 && lane >= kHalf;
  const RowWords words = wordsAt(block + kRowCodeGroup * (isUpper ? lane - kHalf : lane));
  return isUpper ? hn::ShiftRight<4>(words) : words;
}

// The bits of kBehindCodes less what is added to every code.
template <unsigned kBits>
constexpr uint32_t kCodesBase = 0x4B400000u - static_cast<uint32_t>(rowCodeBias(kBits));

// How the words of a block become codes behind kBehindCodes.
struct ByShifts {
  template <unsigned kBits>
  static HWY_INLINE RowWords wordsOf(RowWords words) {
    return words;
  }

  // Those of column k.
  template <unsigned kBits, int k>
  static HWY_INLINE RowVec codes(RowWords words) {
    const RowInts d;
    if (k > 0) words = hn::ShiftRight<8 * k>(words);
    if (kBits == 4 || k < 3) words = hn::And(words, hn::Set(d, kBits == 8 ? 255u : 15u));
    return hn::BitCast(RowTag(), hn::Add(words, hn::Set(d, kCodesBase<kBits>)));
  }
};

#if HWY_TARGET == HWY_AVX3

// By one product of four bytes, of which that of column k counts, on processors that have it.
struct ByDots {
  template <unsigned kBits>
  static HWY_INLINE RowWords wordsOf(RowWords words) {
    return kBits == 8 ? words : hn::And(words, hn::Set(RowInts(), 0x0F0F0F0Fu));
  }

  template <unsigned kBits, int k>
  static HWY_INLINE RowVec codes(RowWords words) {
    const RowInts d;
    RowWords sums = hn::Set(d, kCodesBase<kBits>);
    const RowWords ones = hn::Set(d, 1u << 8 * k);
    // Compilers have it for functions alone that take no other processors.
    asm("vpdpbusd %2, %1, %0" : "+v"(sums.raw) : "v"(words.raw), "v"(ones.raw));
    return hn::BitCast(RowTag(), sums);
  }
};

#endif

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
template <typename Codes, unsigned kBits, int k, bool kShort>
HWY_INLINE RowVec rowWeights(RowWords words, const RowFactors& factors) {
  const RowVec codes = Codes::template codes<kBits, k>(words);
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
template <typename Codes, unsigned kBits, std::size_t kPanels, int kCols, bool kShort>
HWY_INLINE void addBlocks(const PanelCodes& codes,
                          const RowFactors (&factors)[kPanels][kRowVectors], const float* x,
                          RowSums<kPanels>& sums) {
  const auto take = [](RowVec weights, float input, RowVec& sum)
                        HWY_ATTR { sum = hn::MulAdd(weights, hn::Set(RowTag(), input), sum); };
  HWY_UNROLL(4)
  for (std::size_t p = 0; p < kPanels; ++p) {
    HWY_UNROLL(16)
    for (std::size_t v = 0; v < kRowVectors; ++v) {
      const RowWords words =
          Codes::template wordsOf<kBits>(rowWords<kBits>(codes.first + p * codes.panelBytes, v));
      RowVec& sum = sums[p][v];
      take(rowWeights<Codes, kBits, 0, kShort>(words, factors[p][v]), x[0], sum);
      if (kCols > 1) take(rowWeights<Codes, kBits, 1, kShort>(words, factors[p][v]), x[1], sum);
      if (kCols > 2) take(rowWeights<Codes, kBits, 2, kShort>(words, factors[p][v]), x[2], sum);
      if (kCols > 3) take(rowWeights<Codes, kBits, 3, kShort>(words, factors[p][v]), x[3], sum);
    }
  }
}

// Adds chains to the sums of some panels; the first ones are put there.
template <std::size_t kPanels>
HWY_INLINE void addChains(const RowSums<kPanels>& chains, bool areFirst, RowSums<kPanels>& sums) {
  for (std::size_t p = 0; p < kPanels; ++p) {
    for (std::size_t v = 0; v < kRowVectors; ++v) {
      sums[p][v] = areFirst ? chains[p][v] : hn::Add(sums[p][v], chains[p][v]);
    }
  }
}

template <std::size_t kPanels>
HWY_INLINE void beginChains(RowSums<kPanels>& chains) {
  for (auto& panel : chains) {
    for (RowVec& chain : panel) chain = hn::Zero(RowTag());
  }
}

// Short chains at once, so that a sum need not wait for its last addition where a layer has one
// panel or two.
constexpr std::size_t kShortChains = 4;

// The first columns of a layer of few outputs, as many as are whole groups of such chains. Returns
// how many these are.
template <typename Codes, unsigned kBits, bool kShort>
HWY_INLINE std::size_t sumShortChains(const LayerView& layer, PanelCodes& codes,
                                      const RowFactors (&factors)[1][kRowVectors], const float* x,
                                      RowSums<1>& sums) {
  constexpr std::size_t kBlock = rowCodeBlockBytes(kBits);
  constexpr std::size_t kColumns = kShortChains * kShortChainLength;
  constexpr std::size_t kChainBytes = kShortChainLength / kRowCodeGroup * kBlock;
  std::size_t at = 0;
  for (; at + kColumns <= layer.cols; at += kColumns, codes.first += kShortChains * kChainBytes) {
    RowSums<1> chains[kShortChains];
    for (RowSums<1>& chain : chains) beginChains<1>(chain);
    for (std::size_t k = 0; k < kShortChainLength; k += kRowCodeGroup) {
      HWY_UNROLL(4)
      for (std::size_t c = 0; c < kShortChains; ++c) {
        const PanelCodes block{codes.first + c * kChainBytes + k / kRowCodeGroup * kBlock, 0};
        const float* const inputs = x + at + c * kShortChainLength + k;
        addBlocks<Codes, kBits, 1, 4, kShort>(block, factors, inputs, chains[c]);
      }
    }
    for (std::size_t c = 0; c < kShortChains; ++c) addChains<1>(chains[c], at + c == 0, sums);
  }
  return at;
}

// The sums of all rows of some panels, in chains.
template <typename Codes, unsigned kBits, std::size_t kPanels, bool kShort>
HWY_INLINE void sumPanels(const LayerView& layer, PanelCodes codes,
                          const RowFactors (&factors)[kPanels][kRowVectors], const float* x,
                          RowSums<kPanels>& sums) {
  constexpr std::size_t kBlock = rowCodeBlockBytes(kBits);
  const std::size_t length = chainLength(layer.allRows());  // whole blocks
  std::size_t at = 0;
  if constexpr (kPanels == 1) {
    if (length == kShortChainLength) {
      at = sumShortChains<Codes, kBits, kShort>(layer, codes, factors, x, sums);
    }
  }
  for (; at < layer.cols; at += length) {
    RowSums<kPanels> chains;
    beginChains<kPanels>(chains);
    const std::size_t end = std::min(at + length, layer.cols);
    std::size_t col = at;
    for (; col + kRowCodeGroup <= end; col += kRowCodeGroup, codes.first += kBlock) {
      addBlocks<Codes, kBits, kPanels, 4, kShort>(codes, factors, x + col, chains);
    }
    const std::size_t left = end - col;
    if (left == 3) addBlocks<Codes, kBits, kPanels, 3, kShort>(codes, factors, x + col, chains);
    if (left == 2) addBlocks<Codes, kBits, kPanels, 2, kShort>(codes, factors, x + col, chains);
    if (left == 1) addBlocks<Codes, kBits, kPanels, 1, kShort>(codes, factors, x + col, chains);
    addChains<kPanels>(chains, at == 0, sums);
  }
}

// The results of some panels before their activation, from the panel `panel` on.
template <typename Codes, unsigned kBits, std::size_t kPanels>
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
    sumPanels<Codes, kBits, kPanels, kFuses>(layer, codes, factors, x, sums);
  } else {
    sumPanels<Codes, kBits, kPanels, false>(layer, codes, factors, x, sums);
  }
  for (std::size_t p = 0; p < kPanels; ++p) {
    finishPanel(layer, (panel + p) * kRowCodePanel, sums[p], y);
  }
}

// The last panels, fewer than kPanels. Where chains are short, each has several at once by itself.
template <typename Codes, unsigned kBits, std::size_t kPanels>
void lastPanels(const LayerView& layer, std::size_t panel, std::size_t count, const float* x,
                float* y) {
  if constexpr (kPanels > 2) {
    if (count < kPanels - 1) {
      return lastPanels<Codes, kBits, kPanels - 1>(layer, panel, count, x, y);
    }
    if (layer.allRows() > kFewRows) {
      return somePanels<Codes, kBits, kPanels - 1>(layer, panel, x, y);
    }
  }
  for (std::size_t p = 0; p < count; ++p) somePanels<Codes, kBits, 1>(layer, panel + p, x, y);
}

template <typename Codes, unsigned kBits>
void rowCodesPanelsOf(const LayerView& layer, const float* x, float* y) {
  const auto panels = static_cast<std::size_t>(rowCodePanels(layer.rows));
  std::size_t panel = 0;
  for (; panel + kRowPanels <= panels; panel += kRowPanels) {
    somePanels<Codes, kBits, kRowPanels>(layer, panel, x, y);
  }
  lastPanels<Codes, kBits, kRowPanels>(layer, panel, panels - panel, x, y);
}

template <typename Codes>
void rowCodesPanels(const LayerView& layer, const float* x, float* y) {
  const auto multiply =
      layer.rowCodes->bits == 8 ? rowCodesPanelsOf<Codes, 8> : rowCodesPanelsOf<Codes, 4>;
  multiply(layer, x, y);
}

#endif

// The results of a layer for one frame. Needs no memory besides.
template <typename Codes>
void rowCodesVector(const LayerView& layer, const float* x, float* y) {
  rowCodesPanels<Codes>(layer, x, y);
  if (layer.actFn != ActFn::linear) activate(layer.actFn, y, layer.rows);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
