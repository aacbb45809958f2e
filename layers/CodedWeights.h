// CodedWeights — weights that take few different values, stored as a table of the values and a
// short code for each weight; and the choice among all forms that a record has for weights.
// docs/binary-format.md describes the bytes.
//
// The values are bit patterns: -0 and 0 are two values, and so are NaN with different payloads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "features/Watch.h"
#include "layers/ByteIo.h"
#include "layers/RowCodes.h"
#include "layers/TableCodes.h"

namespace mlnn {

// The forms of the weights in a record.
inline constexpr uint32_t kPlainFloats = 0;       // every value is stored as it is
inline constexpr uint32_t kByteCodes = 1;         // a table, and a byte a weight
inline constexpr uint32_t kHalfByteCodes = 2;     // a table, and half a byte a weight
inline constexpr uint32_t kByteRowCodes = 3;      // a scale a row, and a byte a weight
inline constexpr uint32_t kHalfByteRowCodes = 4;  // a scale a row, and half a byte a weight
inline constexpr uint32_t kNumWeightForms = 5;

constexpr bool hasTable(uint32_t form) { return form == kByteCodes || form == kHalfByteCodes; }
constexpr bool hasRowScales(uint32_t form) { return form >= kByteRowCodes; }

// REQUIRES: the form is not kPlainFloats.
constexpr unsigned codeBits(uint32_t form) {
  return form == kByteCodes || form == kByteRowCodes ? 8 : 4;
}

// REQUIRES: hasTable(form)
constexpr std::size_t maxTableLength(uint32_t form) { return std::size_t{1} << codeBits(form); }

// Weights with a table start with two words: the length of the table, and how often the rare value
// occurs.
inline constexpr std::size_t kCodedPrefixLength = 8;

// How weights are stored: what the form, and for codes the table or the scales, are.
struct WeightsPlan {
  uint32_t form = kPlainFloats;
  std::vector<uint32_t> table;  // the values that have a code, ascending
  uint32_t rareCount = 0;       // weights with the one value that has none
  uint32_t rareValue = 0;       // that value, when there is one
  RowScales rowScales{8, {}};
};

// Weights in memory: rows x cols floats, column-major, at any address.
struct WeightsRef {
  const void* values;
  std::size_t rows;
  std::size_t cols;

  uint64_t count() const { return uint64_t{rows} * cols; }
};

// Returns the form that takes the fewest bytes; of two that take as many, the first one.
// Looks at few weights when they have many different values, and are no multiples of anything.
// `watch` is called with 0 steps.
WeightsPlan planWeights(const WeightsRef& weights, const Watch& watch = {});

// Returns whether of the forms without row scales the first one, plain floats, takes the fewest
// bytes: a record of plain floats may be older than row scales.
bool arePlainWithoutRowScales(const void* weights, uint64_t count);

// Returns the bytes that the weights take.
uint64_t weightsLength(const WeightsPlan& plan, const WeightsRef& weights);

// Returns the bytes that weights with row scales take.
// REQUIRES: hasRowScales(form)
constexpr uint64_t rowScaledLength(uint32_t form, uint64_t rows, uint64_t cols) {
  return sizeof(float) * rows + rowCodesLength(rows, cols, codeBits(form));
}

// Hands the bytes of coded weights to the sink, piece by piece.
// REQUIRES: the plan was made for these weights, and is not one for plain floats.
void writeCoded(const WeightsPlan& plan, const WeightsRef& weights, ByteSink& sink);

// Looks at weights with row scales at `src`, of which at most `available` bytes are there.
// Returns: whether they are whole, and to the byte what the writer makes of the weights that they
// stand for; else the view is unspecified.
// REQUIRES: hasRowScales(form); rows and cols are less than 2^31.
bool viewRowCodes(uint32_t form, uint64_t rows, uint64_t cols, const char* src,
                  std::size_t available, RowCodesView& view);

// Returns that view without looking at the bytes, which must be there.
RowCodesView rowCodesAt(uint32_t form, uint64_t rows, uint64_t cols, const char* src);

// Returns the length of the weights with a table that start with these kCodedPrefixLength bytes; 0
// where no plan has such a start, or they take more than `available` bytes.
std::size_t codedLength(uint32_t form, uint64_t count, const char* prefix, std::size_t available);

// Weights with a table as they lie in memory.
class CodedWeights {
 public:
  // Looks at the coded weights at `src`, of which at most `available` bytes are there.
  // Returns: whether they are whole, and to the byte what the writer makes of the weights that
  // they stand for; else nothing may be asked of them.
  bool view(uint32_t form, uint64_t count, const char* src, std::size_t available);

  // Bytes that they take.
  std::size_t length() const { return length_; }

  // The codes as the kernels read them.
  const TableCodesView& codes() const { return view_; }

  // Writes `count` weights, from the weight `first` on, to an array of floats.
  void expand(std::size_t first, std::size_t count, void* floats) const {
    expandBlock(first, count, 0, 1, floats);
  }

  // Writes all weights to an array of floats of which these codes may be the last bytes, up to its
  // end; there is no view of them afterwards.
  void expandOver(void* floats) const;

  // Writes a block of `rows` weights in each of `columns` columns, which are `stride` weights
  // apart and start with the weight `first`; the block has no gaps.
  void expandBlock(std::size_t first, std::size_t rows, std::size_t stride, std::size_t columns,
                   void* floats) const;

 private:
  using Counts = std::array<uint64_t, 256>;  // of each code

  bool tableAscends() const;
  bool rarePositionsFit() const;
  bool countCodes(Counts& counts) const;
  bool paddingIsZero() const;
  bool isWhatTheWriterChooses(Counts& counts) const;
  unsigned codeAt(std::size_t position) const;
  void putRareValues(std::size_t first, std::size_t count, char* floats) const;

  uint32_t form_ = kPlainFloats;
  uint32_t rareValue_ = 0;
  std::size_t count_ = 0;
  TableCodesView view_;
  std::size_t length_ = 0;
};

}  // namespace mlnn
