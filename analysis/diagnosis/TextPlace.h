// Lines and columns of offsets in a text.
#pragma once

#include <cstddef>
#include <string_view>

#include "analysis/diagnosis/Diagnosis.h"

namespace mlnn {

// Sets line and column of a misfit from its offset.
void placeInText(std::string_view text, Misfit& misfit);

// Tells line numbers of offsets that never decrease, so that each byte is looked at once.
class LineCounter {
 public:
  explicit LineCounter(std::string_view text) : text_(text) {}

  std::size_t lineOf(std::size_t offset) {
    for (; offset_ < offset; ++offset_) line_ += text_[offset_] == '\n' ? 1 : 0;
    return line_;
  }

 private:
  std::string_view text_;
  std::size_t offset_ = 0;
  std::size_t line_ = 1;
};

}  // namespace mlnn
