// RowCodes — weights as short whole numbers and one scale for each row (output): the weight in row
// r and column c is code(r, c) * scale(r), without any rounding. This is the form of weights that
// were quantised by rows; docs/binary-format.md describes the bytes.
//
// A row has one canonical scale: the largest number of which all its weights are whole multiples.
// So weights have one such form or none. They have none when a row's largest weight is more than
// 127 times that scale, or when a weight is -0, infinite or not a number. A row of zeros has the
// scale 0.
//
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "features/Watch.h"
#include "layers/ByteIo.h"

namespace mlnn {

// Codes stand in blocks, for kernels that read them where they are. A block holds the codes of 16
// rows for 4 columns, the four codes of a row side by side: code lane * 4 + k is that of row 16
// panel + lane and column 4 group + k. All blocks of a panel follow each other, then those of the
// next panel. Rows and columns that the layer does not have are filled up with the code 0.
//
// 8 bits: a block is 64 bytes, each a code plus 128.
// 4 bits: a block is 32 bytes; byte j holds code j plus 8 in its lower half, and code j + 32 plus 8
// in its upper half.
inline constexpr std::size_t kRowCodePanel = 16;  // rows
inline constexpr std::size_t kRowCodeGroup = 4;   // columns
inline constexpr std::size_t kRowCodeBlock = kRowCodePanel * kRowCodeGroup;

// REQUIRES, here and below: bits is 8 or 4.
constexpr int largestRowCode(unsigned bits) { return bits == 8 ? 127 : 7; }
constexpr int rowCodeBias(unsigned bits) { return bits == 8 ? 128 : 8; }
constexpr std::size_t rowCodeBlockBytes(unsigned bits) { return kRowCodeBlock * bits / 8; }
constexpr uint64_t rowCodePanels(uint64_t rows) {
  return (rows + kRowCodePanel - 1) / kRowCodePanel;
}
constexpr uint64_t rowCodeGroups(uint64_t cols) {
  return (cols + kRowCodeGroup - 1) / kRowCodeGroup;
}

// Returns the bytes of the codes, without the scales.
// REQUIRES: rows and cols are less than 2^31.
constexpr uint64_t rowCodesLength(uint64_t rows, uint64_t cols, unsigned bits) {
  return rowCodePanels(rows) * rowCodeGroups(cols) * rowCodeBlockBytes(bits);
}

// The canonical scales of weights, and the fewest bits that their codes take.
struct RowScales {
  unsigned bits;              // 8 or 4; 4 where no code is beyond -7..7
  std::vector<float> values;  // one for each row
};

// Returns the scales of `rows` x `cols` floats, column-major, at any address; nothing where the
// weights have no such form or there are none. Looks at few weights, and allocates nothing, where
// they are no multiples of anything. `watch` is called with 0 steps.
std::optional<RowScales> findRowScales(const void* weights, std::size_t rows, std::size_t cols,
                                       const Watch& watch = {});

// Returns the canonical scale of one row, without the heap; a negative one where it has none.
float rowScale(const void* weights, std::size_t rows, std::size_t cols, std::size_t row);

// Hands the bytes of the codes to the sink, piece by piece. `watch` is called with 0 steps.
// REQUIRES: the scales were found for these weights.
void writeRowCodes(const RowScales& scales, const void* weights, std::size_t rows, std::size_t cols,
                   ByteSink& sink, const Watch& watch = {});

// Codes as they lie in memory; it owns nothing.
struct RowCodesView {
  std::size_t rows = 0;
  std::size_t cols = 0;
  unsigned bits = 8;
  const char* scales = nullptr;  // `rows` floats, at any address
  const unsigned char* codes = nullptr;

  float scale(std::size_t row) const;

  // Returns the code of one weight.
  int code(std::size_t row, std::size_t col) const;

  // Writes a block of weights, `rowCount` rows from the row `row` on for `colCount` columns from
  // the column `col` on: column-major, without gaps.
  void unpack(std::size_t row, std::size_t rowCount, std::size_t col, std::size_t colCount,
              float* weights) const;

  // Writes all weights to an array of which these scales and codes are the last bytes, up to its
  // end; there is no view of them afterwards.
  // REQUIRES: they take no more than half of the array.
  void unpackOver(float* weights) const;

  // Returns whether these are, to the byte, the scales and codes that are found for the weights
  // that they stand for.
  // REQUIRES: rowCodesLength() bytes are there.
  bool isCanonical() const;
};

// Scales and codes in memory of their own. A value type.
struct RowCodes {
  std::size_t rows = 0;
  std::size_t cols = 0;
  unsigned bits = 8;
  std::vector<float> scales;
  std::vector<unsigned char> codes;

  // Returns the codes of column-major weights; nothing where they have no such form. `watch` is
  // called with 0 steps.
  static std::optional<RowCodes> find(const float* weights, std::size_t rows, std::size_t cols,
                                      const Watch& watch = {});

  // What lies in this object, as long as it stays where it is.
  RowCodesView view() const;
};

}  // namespace mlnn
