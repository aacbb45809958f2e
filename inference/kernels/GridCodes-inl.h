// Weights out of codes, and their product with one vector, in the order of additions that
// docs/forward-pass.md fixes. Compiled once for every instruction set.
#if defined(MLNN_GRID_CODES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_GRID_CODES_INL_H
#undef MLNN_GRID_CODES_INL_H
#else
#define MLNN_GRID_CODES_INL_H
#endif

#include <algorithm>

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/GridCodes.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/VectorOps-inl.h"
#include "layers/BuiltForSize.h"
#include "os/Builtins.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// Turns codes into exactly the weights that they stand for.
class Decoder {
 public:
  explicit HWY_INLINE Decoder(const GridCodes& coded)
      : origin_(hn::Set(Tag(), coded.origin)),
        step_(hn::Set(Tag(), coded.step)),
        values_(coded.values) {}

  // A vector of codes, one in a byte.
  HWY_INLINE Vec bytes(const uint8_t* codes) const { return weights(load(codes)); }

  // Two vectors of codes out of the halves of bytes.
  HWY_INLINE void halves(const uint8_t* codes, Vec& low, Vec& high) const {
    const auto both = load(codes);
    low = halfByteWeights(hn::And(both, hn::Set(IntTag(), 15)));
    high = halfByteWeights(hn::ShiftRight<4>(both));
  }

 private:
  using ByteTag = hn::Rebind<uint8_t, Tag>;
  using Ints = hn::Vec<IntTag>;

  static HWY_INLINE Ints load(const uint8_t* codes) {
    return hn::PromoteTo(IntTag(), hn::LoadU(ByteTag(), codes));
  }

  // Where the product is not rounded apart from the sum, the weight is what the grid made of
  // it; elsewhere it is looked up.
  HWY_INLINE Vec weights(Ints codes) const {
#if MLNN_TARGET_FUSES
    return hn::MulAdd(step_, hn::ConvertTo(Tag(), codes), origin_);
#else
    return hn::GatherIndex(Tag(), values_, codes);
#endif
  }

  // A vector of 16 lanes holds all values of half a byte.
  HWY_INLINE Vec halfByteWeights(Ints codes) const {
#if HWY_TARGET == HWY_AVX3
    const Vec table = hn::LoadU(Tag(), values_);
    return hn::TableLookupLanes(table, hn::Indices512<float>{codes.raw});
#else
    return weights(codes);
#endif
  }

  Vec origin_;
  Vec step_;
  const float* values_;
};

// A strip is as many vectors of a panel's rows as have room in the registers.
constexpr int kPanelOfVectors = static_cast<int>(kCodedPanelRows / kLanes);
constexpr int kCodedVectors = std::min(kPanelOfVectors, kBuiltForSize ? 4 : 8);

// Which rows of a panel and which bytes of a column a strip takes.
template <bool kHalves>
struct Strip {
  static constexpr int kByteVectors = kHalves ? kCodedVectors / 2 : kCodedVectors;

  std::size_t first;  // byte of a column

  HWY_INLINE std::size_t rowOf(int vector) const {
    const auto place = static_cast<std::size_t>(vector % kByteVectors) * kLanes;
    return first + place + (vector < kByteVectors ? 0 : kCodedPanelRows / 2);
  }

  // Hands every vector of weights of the column that begins at `codes` to take(vector, weights).
  template <typename Take>
  HWY_INLINE void decode(const Decoder& decoder, const uint8_t* codes, Take take) const {
    HWY_UNROLL(8)
    for (int v = 0; v < kByteVectors; ++v) {
      const uint8_t* from = codes + first + static_cast<std::size_t>(v) * kLanes;
      if constexpr (kHalves) {
        Vec low;
        Vec high;
        decoder.halves(from, low, high);
        take(v, low);
        take(v + kByteVectors, high);
      } else {
        take(v, decoder.bytes(from));
      }
    }
  }
};

// Puts the last point's value into `weights` of consecutive rows, of which the first has bit 0.
HWY_INLINE void setLastPoints(uint64_t rows, std::size_t count, float value, float* weights) {
  for (std::size_t r = 0; r < count; ++r) {
    if ((rows >> r & 1) != 0) weights[r] = value;
  }
}

// One column whose codes do not say all: goes on with the chains in `acc`.
template <bool kHalves>
void addPatchedColumn(const GridCodes& coded, const Strip<kHalves>& strip, const Decoder& decoder,
                      const uint8_t* codes, uint64_t lastRows, float x, Vec (&acc)[kCodedVectors]) {
  strip.decode(decoder, codes, [&](int v, Vec weights) {
    float lanes[kLanes];
    hn::StoreU(weights, Tag(), lanes);
    setLastPoints(lastRows >> strip.rowOf(v), kLanes, coded.lastValue, lanes);
    acc[v] = hn::MulAdd(hn::LoadU(Tag(), lanes), hn::Set(Tag(), x), acc[v]);
  });
}

// All inputs for a strip of a panel; puts the sums of the panel's rows there.
template <bool kHalves>
void multiplyStrip(const LayerView& layer, std::size_t panel, const Strip<kHalves>& strip,
                   const float* x, float* sums) {
  constexpr std::size_t kColumnBytes = kHalves ? kCodedPanelRows / 2 : kCodedPanelRows;
  constexpr std::size_t kAhead = 4096;  // bytes; codes stream through from one end to the other
  const Tag d;
  const GridCodes& coded = *layer.coded;
  const Decoder decoder(coded);
  const uint8_t* codes = coded.codes + panel * layer.cols * kColumnBytes;
  const LastPoints* last = coded.last + coded.lastOf[panel];
  const LastPoints* const lastEnd = coded.last + coded.lastOf[panel + 1];
  const std::size_t length = chainLength(layer.allRows());
  for (std::size_t at = 0; at < layer.cols; at += length) {
    const std::size_t end = std::min(at + length, layer.cols);
    Vec acc[kCodedVectors];
    HWY_UNROLL(8)
    for (Vec& sum : acc) sum = hn::Zero(d);
    for (std::size_t k = at; k < end; ++k, codes += kColumnBytes) {
      const bool isPatched = last != lastEnd && last->input < end;
      const std::size_t stop = isPatched ? static_cast<std::size_t>(last->input) : end;
      for (; k < stop; ++k, codes += kColumnBytes) {
        prefetchOuter(codes + kAhead);
        const Vec xk = hn::Set(d, x[k]);
        strip.decode(decoder, codes,
                     [&](int v, Vec weights) { acc[v] = hn::MulAdd(weights, xk, acc[v]); });
      }
      if (!isPatched) break;
      addPatchedColumn(coded, strip, decoder, codes, last->rows, x[k], acc);
      ++last;
    }
    HWY_UNROLL(8)
    for (int v = 0; v < kCodedVectors; ++v) {
      float* sum = sums + strip.rowOf(v);
      hn::StoreU(at == 0 ? acc[v] : hn::Add(hn::LoadU(d, sum), acc[v]), d, sum);
    }
  }
}

template <bool kHalves>
void multiplyCodedPanel(const LayerView& layer, std::size_t panel, const float* x, float* sums) {
  constexpr std::size_t kStripBytes = Strip<kHalves>::kByteVectors * kLanes;
  constexpr std::size_t kColumnBytes = kHalves ? kCodedPanelRows / 2 : kCodedPanelRows;
  for (std::size_t first = 0; first < kColumnBytes; first += kStripBytes) {
    multiplyStrip<kHalves>(layer, panel, Strip<kHalves>{first}, x, sums);
  }
}

// The results of a layer of codes for one frame. REQUIRES: the layer has inputs.
void codesVector(const LayerView& layer, const float* x, float* y) {
  const auto multiply =
      layer.coded->areHalfBytes ? multiplyCodedPanel<true> : multiplyCodedPanel<false>;
  for (std::size_t row = 0; row < layer.rows; row += kCodedPanelRows) {
    float sums[kCodedPanelRows];
    multiply(layer, row / kCodedPanelRows, x, sums);
    const std::size_t count = std::min(kCodedPanelRows, layer.rows - row);
    std::memcpy(y + row, sums, count * sizeof(float));
    finishLayer(layer, row, count, y + row, 0, 1);
  }
}

// Decodes some inputs of some rows, one input behind the other.
// REQUIRES: the rows are whole vectors, and all in one panel.
template <bool kHalves>
void decodeRows(const LayerView& layer, std::size_t row, std::size_t rows, std::size_t input,
                std::size_t inputs, float* to) {
  constexpr std::size_t kColumnBytes = kHalves ? kCodedPanelRows / 2 : kCodedPanelRows;
  const GridCodes& coded = *layer.coded;
  const Decoder decoder(coded);
  const std::size_t panel = row / kCodedPanelRows;
  const std::size_t first = row % kCodedPanelRows;
  const uint8_t* codes = coded.codes + (panel * layer.cols + input) * kColumnBytes;
  float* column = to;
  for (std::size_t k = 0; k < inputs; ++k, codes += kColumnBytes, column += rows) {
    for (std::size_t r = 0; r < rows; r += kLanes) {
      Vec weights;
      if constexpr (kHalves) {
        Vec other;
        const std::size_t half = (first + r) % kColumnBytes;
        if (first + r < kColumnBytes) {
          decoder.halves(codes + half, weights, other);
        } else {
          decoder.halves(codes + half, other, weights);
        }
      } else {
        weights = decoder.bytes(codes + first + r);
      }
      hn::StoreU(weights, Tag(), column + r);
    }
  }
  const LastPoints* last = coded.last + coded.lastOf[panel];
  const LastPoints* const lastEnd = coded.last + coded.lastOf[panel + 1];
  last = std::lower_bound(last, lastEnd, input, [](const LastPoints& points, std::size_t value) {
    return points.input < value;
  });
  for (; last != lastEnd && last->input < input + inputs; ++last) {
    setLastPoints(last->rows >> first, rows, coded.lastValue,
                  to + (static_cast<std::size_t>(last->input) - input) * rows);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
