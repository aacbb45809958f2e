// TableCodes — weights as a table of values and a short code for each, as the kernels read them
// where they lie; docs/binary-format.md describes the bytes.
//
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mlnn {

// Codes as they lie in memory; it owns nothing. The code of row r and column c is number
// first + c * rows + r, where `rows` are those of the whole layer.
struct TableCodesView {
  unsigned bits = 8;            // 8, or 4: the lower half of a byte first
  const char* table = nullptr;  // floats, at any address
  std::size_t tableLength = 0;  // more than any code; 2^bits at most
  const unsigned char* codes = nullptr;
  std::size_t first = 0;
  const char* rarePositions = nullptr;  // ascending numbers of codes, 32 bits each, at any address
  std::size_t rareCount = 0;
  float rareValue = 0;  // of these, whatever their code says
};

}  // namespace mlnn
