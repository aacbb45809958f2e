// Weights as codes of a table (layers/TableCodes.h) times one vector, from where the codes lie, in
// the order of additions that docs/forward-pass.md fixes. Compiled once for every instruction set.
#if defined(MLNN_TABLE_CODES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_TABLE_CODES_INL_H
#undef MLNN_TABLE_CODES_INL_H
#else
#define MLNN_TABLE_CODES_INL_H
#endif

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "inference/kernels/LayerView.h"
#include "inference/kernels/VectorOps-inl.h"
#include "layers/BuiltForSize.h"
#include "layers/TableCodes.h"
#include "os/Builtins.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

#if MLNN_BUILT_FOR_SIZE

using OneTag = hn::CappedTag<float, 1>;

// The weights of one row, column by column.
class TableRow {
 public:
  HWY_INLINE TableRow(const TableCodesView& view, std::size_t row) : view_(view), row_(row) {}

  // REQUIRES: no column before that of the last call.
  HWY_INLINE float weight(std::size_t position) {
    position += row_;
    for (; rare_ < view_.rareCount && rarePosition() <= position; ++rare_) {
      if (rarePosition() == position) return view_.rareValue;
    }
    const unsigned isHalf = view_.bits == 4 ? 1 : 0;
    unsigned code = view_.codes[position >> isHalf] >> 4 * (position & isHalf);
    if (isHalf != 0) code &= 15;
    float value = 0;  // of a code that was not there when they were checked
    if (code < view_.tableLength) {
      std::memcpy(&value, view_.table + code * sizeof value, sizeof value);
    }
    return value;
  }

 private:
  HWY_INLINE std::size_t rarePosition() const {
    uint32_t position;
    std::memcpy(&position, view_.rarePositions + rare_ * sizeof position, sizeof position);
    return position;
  }

  const TableCodesView& view_;
  std::size_t row_;
  std::size_t rare_ = 0;
};

// One row after the other, and one weight.
void multiplyTableCodes(const LayerView& layer, const float* x, float* y) {
  const OneTag d;
  const std::size_t stride = layer.allRows();
  const std::size_t length = chainLength(stride);
  for (std::size_t row = 0; row < layer.rows; ++row) {
    TableRow weights(*layer.tableCodes, layer.tableCodes->first + row);
    auto sum = hn::Zero(d);
    for (std::size_t at = 0; at < layer.cols; at += length) {
      auto chain = hn::Zero(d);
      for (std::size_t col = at; col < std::min(at + length, layer.cols); ++col) {
        chain = hn::MulAdd(hn::Set(d, weights.weight(col * stride)), hn::Set(d, x[col]), chain);
      }
      sum = at == 0 ? chain : hn::Add(sum, chain);
    }
    const float factor = layer.scale == nullptr ? 1.0f : layer.scale[row];
    y[row] = hn::GetLane(hn::MulAdd(hn::Set(d, factor), sum, hn::Set(d, layer.shift[row])));
  }
}

#else

using TableInts = hn::RebindToUnsigned<Tag>;
using TableIndices = hn::Vec<TableInts>;

// The values of all codes, also of those that only bytes have that have changed since they were
// checked.
class TableValues {
 public:
  explicit HWY_INLINE TableValues(const TableCodesView& view) {
    std::memcpy(values_, view.table, view.tableLength * sizeof(float));
  }

  HWY_INLINE Vec of(TableIndices codes) const {
    return hn::GatherIndex(Tag(), values_, hn::BitCast(IntTag(), codes));
  }

  // The same where no code is more than 15, of which only the lower half of a byte counts.
  HWY_INLINE Vec ofHalfBytes(TableIndices codes) const {
#if HWY_TARGET == HWY_AVX3
    return hn::TableLookupLanes(hn::LoadU(Tag(), values_), hn::Indices512<float>{codes.raw});
#else
    return of(hn::And(codes, hn::Set(TableInts(), 15)));
#endif
  }

 private:
  float values_[256] = {};
};

// A vector of codes that are bytes.
HWY_INLINE TableIndices byteCodes(const unsigned char* from) {
  const hn::Rebind<uint8_t, Tag> bytes;
  return hn::PromoteTo(TableInts(), hn::LoadU(bytes, from));
}

// As many bits as a vector of codes takes, from the half byte `position` on. Reads no byte that has
// none of them.
HWY_INLINE uint64_t halfBytes(const unsigned char* codes, std::size_t position) {
  constexpr std::size_t kBytes = kLanes < 2 ? 1 : kLanes / 2;
  uint64_t bits = 0;
  std::memcpy(&bits, codes + position / 2, kBytes);
  if (position % 2 == 0) return bits;
  bits >>= 4;
  if (kLanes > 1) bits |= uint64_t{codes[position / 2 + kBytes]} << (8 * kBytes - 4);
  return bits;
}

// A vector of codes in whose lower bits these half bytes are, one in each lane.
HWY_INLINE TableIndices halfByteCodes(uint64_t bits) {
  const TableInts d;
  const auto low = static_cast<uint32_t>(bits);
  const TableIndices shifts = hn::And(hn::ShiftLeft<2>(hn::Iota(d, 0)), hn::Set(d, uint32_t{28}));
#if HWY_TARGET == HWY_AVX3
  const hn::Half<TableInts> half;
  const auto high = static_cast<uint32_t>(bits >> 32);
  return hn::Shr(hn::Combine(d, hn::Set(half, high), hn::Set(half, low)), shifts);
#else
  static_assert(kLanes <= 8);
  return hn::Shr(hn::Set(d, low), shifts);
#endif
}

// The weights of a vector of rows in one column, whose first code is number `position`.
template <unsigned kBits>
HWY_INLINE Vec tableWeights(const TableValues& values, const unsigned char* codes,
                            std::size_t position) {
  if constexpr (kBits == 8) return values.of(byteCodes(codes + position));
  return values.ofHalfBytes(halfByteCodes(halfBytes(codes, position)));
}

// The same of `count` rows, fewer than a vector has lanes; reads no codes behind them.
template <unsigned kBits>
HWY_INLINE Vec fewTableWeights(const TableValues& values, const unsigned char* codes,
                               std::size_t position, std::size_t count) {
  constexpr std::size_t kInByte = 8 / kBits;
  unsigned char own[kLanes + 1] = {};
  const std::size_t first = position / kInByte;
  std::memcpy(own, codes + first, (position + count - 1) / kInByte - first + 1);
  return tableWeights<kBits>(values, own, position % kInByte);
}

// Walks through the weights whose code does not say their value, column by column.
class RareWeights {
 public:
  HWY_INLINE RareWeights(const TableCodesView& view, std::size_t stride)
      : view_(view), stride_(stride) {
    find();
  }

  // The next column that has any; behind all columns where none has.
  HWY_INLINE std::size_t column() const { return column_; }

  // Puts the value into the weights of that column, of which the first is number `first`.
  HWY_INLINE void put(std::size_t first, float* lanes) const {
    for (std::size_t i = next_; i < view_.rareCount && numberOf(i) < first + kLanes; ++i) {
      const std::size_t lane = numberOf(i) - first;
      if (lane < kLanes) lanes[lane] = view_.rareValue;
    }
  }

  HWY_INLINE void passColumn() {
    const std::size_t end = (column_ + 1) * stride_;
    while (next_ < view_.rareCount && numberOf(next_) < end) ++next_;
    find();
  }

 private:
  HWY_INLINE void find() {
    column_ = next_ < view_.rareCount ? numberOf(next_) / stride_ : ~std::size_t{0};
  }
  HWY_INLINE std::size_t numberOf(std::size_t i) const {
    uint32_t number;
    std::memcpy(&number, view_.rarePositions + i * sizeof number, sizeof number);
    return number;
  }

  const TableCodesView& view_;
  std::size_t stride_;
  std::size_t next_ = 0;
  std::size_t column_ = 0;
};

// Vectors of rows that go through all columns together. Browsers load the code over a network.
#if HWY_ARCH_WASM
constexpr int kTableVectors = 1;
#else
constexpr int kTableVectors = 4;
#endif

// The values of a vector for each row, from `row` on; with kIsFew of the layer's only rows, fewer
// than a vector has lanes.
template <bool kIsFew>
HWY_INLINE Vec loadRows(const LayerView& layer, const float* values, std::size_t row) {
  if constexpr (kIsFew) return FirstLanes(layer.rows).load(values);
  return hn::LoadU(Tag(), values + row);
}

// The results of a vector of rows, from its sums.
template <bool kIsFew>
HWY_INLINE void finishRows(const LayerView& layer, std::size_t row, Vec sums, float* y) {
  const bool isScaled = layer.scale != nullptr;
  const Vec factors = isScaled ? loadRows<kIsFew>(layer, layer.scale, row) : hn::Set(Tag(), 1.0f);
  const Vec results = hn::MulAdd(factors, sums, loadRows<kIsFew>(layer, layer.shift, row));
  if constexpr (kIsFew) return FirstLanes(layer.rows).store(results, y);
  hn::StoreU(results, Tag(), y + row);
}

// The results of R vectors of rows from `row` on.
template <unsigned kBits, int R, bool kIsFew>
void tableRows(const LayerView& layer, const TableValues& values, std::size_t row, const float* x,
               float* y) {
  constexpr std::size_t kAhead = 16;  // columns
  constexpr std::size_t kInByte = 8 / kBits;
  const Tag d;
  const TableCodesView& view = *layer.tableCodes;
  const std::size_t stride = layer.allRows();
  const std::size_t length = chainLength(stride);
  const auto weights = [&](std::size_t position) HWY_ATTR {
    if constexpr (kIsFew) return fewTableWeights<kBits>(values, view.codes, position, layer.rows);
    return tableWeights<kBits>(values, view.codes, position);
  };
  RareWeights rare(view, stride);
  Vec sums[R];
  for (Vec& sum : sums) sum = hn::Zero(d);
  for (std::size_t at = 0; at < layer.cols; at += length) {
    Vec chains[R];
    for (Vec& chain : chains) chain = hn::Zero(d);
    const std::size_t end = std::min(at + length, layer.cols);
    for (std::size_t col = at; col < end; ++col) {
      const std::size_t first = view.first + col * stride + row;
      const Vec xk = hn::Set(d, x[col]);
      const bool isPatched = col == rare.column();
      prefetch(view.codes + (first + kAhead * stride) / kInByte);
      HWY_UNROLL(4)
      for (int r = 0; r < R; ++r) {
        const std::size_t position = first + static_cast<std::size_t>(r) * kLanes;
        Vec w = weights(position);
        if (isPatched) {
          float lanes[kLanes];
          hn::StoreU(w, d, lanes);
          rare.put(position, lanes);
          w = hn::LoadU(d, lanes);
        }
        chains[r] = hn::MulAdd(w, xk, chains[r]);
      }
      if (isPatched) rare.passColumn();
    }
    for (int r = 0; r < R; ++r) sums[r] = at == 0 ? chains[r] : hn::Add(sums[r], chains[r]);
  }
  for (int r = 0; r < R; ++r) {
    finishRows<kIsFew>(layer, row + static_cast<std::size_t>(r) * kLanes, sums[r], y);
  }
}

// The results of all rows. Where they are no whole vectors, the last one begins in the one before
// it.
template <unsigned kBits>
void multiplyTable(const LayerView& layer, const float* x, float* y) {
  constexpr std::size_t kRows = kTableVectors * kLanes;
  const TableValues values(*layer.tableCodes);
  if constexpr (kLanes > 1) {
    if (layer.rows < kLanes) return tableRows<kBits, 1, true>(layer, values, 0, x, y);
  }
  std::size_t row = 0;
  for (; row + kRows <= layer.rows; row += kRows) {
    tableRows<kBits, kTableVectors, false>(layer, values, row, x, y);
  }
  for (; row < layer.rows; row += kLanes) {
    tableRows<kBits, 1, false>(layer, values, std::min(row, layer.rows - kLanes), x, y);
  }
}

void multiplyTableCodes(const LayerView& layer, const float* x, float* y) {
  const auto multiply = layer.tableCodes->bits == 8 ? multiplyTable<8> : multiplyTable<4>;
  multiply(layer, x, y);
}

#endif

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
