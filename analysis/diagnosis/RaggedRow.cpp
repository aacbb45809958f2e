#include "analysis/diagnosis/RaggedRow.h"

#include <algorithm>
#include <vector>

#include "analysis/diagnosis/TextPlace.h"
#include "analysis/diagnosis/TextWords.h"
#include "features/string_split.h"
#include "text/Numbers.h"
#include "text/TextParts.h"

namespace mlnn {

void RaggedRow::note(std::size_t begin, std::size_t end, int layer, int numValues) {
  if (first_) return;
  const std::size_t next = text_.find_first_not_of(" \t\r", end);
  const bool endsLine = next == std::string_view::npos || text_[next] == '\n';
  if (endsLine && !contains(text_.substr(begin, end - begin), "\n")) return;
  first_ = Row{begin, layer, numValues};
}

std::string RaggedRow::hint() const {
  if (!first_) return "";
  const std::size_t end = std::min(text_.find('\n', first_->offset), text_.size());
  const std::string line(text_.substr(first_->offset, end - first_->offset));
  std::vector<std::string> words;
  string_split(words, line, kWhiteSpace);
  const auto expected = static_cast<std::size_t>(first_->numValues);
  if (words.size() == expected) return "";
  return "line " + std::to_string(LineCounter(text_).lineOf(first_->offset)) + " holds " +
         counted(words.size(), "value") + ", and a row of layer " + std::to_string(first_->layer) +
         " has " + std::to_string(expected);
}

}  // namespace mlnn
