#include "analysis/diagnosis/TextFindings.h"

#include <utility>

#include "analysis/diagnosis/TextWords.h"
#include "text/TextParts.h"

namespace mlnn {

bool TextFindings::refuse(std::size_t offset, std::string field, std::string expected,
                          std::string found, std::string hint) {
  misfit_ = Misfit{offset,         0, 0, std::move(field), std::move(expected), std::move(found),
                   std::move(hint)};
  placeInText(text_, *misfit_);
  return false;
}

bool TextFindings::refuseWord(std::string field, std::string expected, std::string hint) {
  const std::size_t at = source.start();
  return refuse(at, std::move(field), std::move(expected), foundAt(at), std::move(hint));
}

bool TextFindings::refuseNumber(std::string field, std::string expected, std::string otherwise) {
  const std::size_t at = source.start();
  const std::string word = wordAt(text_, at);
  std::string hint = whyNoNumber(word);
  if (hint.empty() && startsWith(word, ",") && isInsideWord(text_, at)) {
    hint = "numbers have a decimal point, and stand between blanks, tabs or line feeds";
  }
  if (hint.empty()) hint = std::move(otherwise);
  return refuseWord(std::move(field), std::move(expected), std::move(hint));
}

void TextFindings::remark(std::size_t offset, const char* kind, const std::string& text) {
  Suspicion suspicion;
  suspicion.kind = kind;
  suspicion.line = remarkLines_.lineOf(offset);
  suspicion.text = "line " + std::to_string(suspicion.line) + " " + text;
  remarks_.push_back(suspicion);
}

void TextFindings::remarkOnIgnored(std::size_t offset, const std::string& text) {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string::npos) return;
  const std::size_t last = text.find_last_not_of(kWhiteSpace);
  remark(offset + first, "text_left_out",
         "holds " + excerpt(text.substr(first, last + 1 - first)) + ", which is not read");
}

std::string TextFindings::foundAt(std::size_t offset) const {
  if (offset >= text_.size()) return kEndOfFile;
  std::string found = excerpt(wordAt(text_, offset));
  if (!isInsideWord(text_, offset)) return found;
  return found + " in " + excerpt(wordAround(text_, offset));
}

}  // namespace mlnn
