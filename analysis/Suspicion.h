// Suspicion — something in a model that loads that can hardly be meant.
#pragma once

#include <cstddef>
#include <string>

namespace mlnn {

struct Suspicion {
  std::string kind;  // a word that stays the same, such as "values_not_finite"
  std::string text;  // a sentence without a full stop; text from the file is escaped

  // Where it is, as far as that can be told: numbers from 1, 0 or "" where there is none.
  std::size_t layer = 0;
  std::string array;
  std::size_t row = 0;
  std::size_t column = 0;
  std::size_t count = 0;  // how many there are, of which the place is the first
  std::size_t line = 0;   // of a text file
};

}  // namespace mlnn
