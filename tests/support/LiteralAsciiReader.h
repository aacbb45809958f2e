// literalDeserializeAscii — a second reader of the text format, written from its description
// alone (docs/text-format.md), which the library's reader is measured against.
//
// It extracts one token after the other from the stream, sizes every array before it reads
// into it, and does nothing to be fast or to save memory. It shares with the library only the
// types that a model consists of and what those do by themselves.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>

#include "model/MultiLayerNNModel.h"

namespace mlnn::test {

// No array, curve or stack of more entries is made: a file that asks for more is not read on.
inline constexpr std::size_t kLiteralLimit = std::size_t{1} << 20;

struct LiteralReading {
  std::optional<int> result;       // 0 or 1 as for the library; nothing beyond kLiteralLimit
  std::size_t largestRequest = 0;  // entries of the largest array, curve or stack asked for
};

// Reads a model as MultiLayerNNModel::deserializeAscii is to read it. What the library prints
// on the standard error stream goes to `messages`.
LiteralReading literalDeserializeAscii(MultiLayerNNModel& model, std::istream& in,
                                       std::ostream& messages);

}  // namespace mlnn::test
