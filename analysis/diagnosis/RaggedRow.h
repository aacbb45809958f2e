// RaggedRow — finds the row of a layer whose values do not fill one line.
//
// Rows do in a file that was written. The reader does not mind, but it is where a value is
// missing or one too many, and where the reader stops is often far behind it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace mlnn {

// The text must outlive it.
class RaggedRow {
 public:
  explicit RaggedRow(std::string_view text) : text_(text) {}

  // Notes where a row of `numValues` values stands. Only the first ragged one is kept.
  void note(std::size_t begin, std::size_t end, int layer, int numValues);

  // A new layer begins.
  void forget() { first_.reset(); }

  // Returns "line 31 holds 64 values, and a row of layer 2 has 65"; "" where no row is ragged,
  // or the ragged one has as many values as it should.
  std::string hint() const;

 private:
  struct Row {
    std::size_t offset;
    int layer;
    int numValues;
  };

  std::string_view text_;
  std::optional<Row> first_;
};

}  // namespace mlnn
