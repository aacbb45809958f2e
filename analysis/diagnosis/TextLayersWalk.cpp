#include "analysis/diagnosis/TextLayersWalk.h"

#include <utility>

#include "analysis/diagnosis/TextWords.h"
#include "layers/ActFn.h"
#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "text/TextParts.h"

namespace mlnn {
namespace {

std::string numberedLayer(int number) { return "layer " + std::to_string(number); }

std::string layerKeywords() {
  return inQuotes(kLayerKeyword) + " or " + inQuotes(kBatchNormLayerKeyword);
}

std::string activationKeywords() {
  std::string keywords;
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    keywords += (code == 0 ? "" : ", ") + ActFn::actFnToString(static_cast<ActFn::ActFn>(code));
  }
  return keywords;
}

}  // namespace

bool TextLayersWalk::refuseNumber(std::string field, std::string expected) {
  return findings_.refuseNumber(std::move(field), std::move(expected), raggedRow_.hint());
}

bool TextLayersWalk::layersFit() {
  for (int number = 1; number <= head_.numLayers; ++number) {
    if (source_.metEnd()) {
      return findings_.refuse(findings_.text().size(), numberedLayer(number), layerKeywords(),
                              kEndOfFile, raggedRow_.hint());
    }
    while (source_.nextIs('#')) source_.readLine();
    if (!sizeLineFits(number) || !layerFits(number)) return false;
  }
  return true;
}

bool TextLayersWalk::sizeLineFits(int number) {
  const std::string layer = numberedLayer(number);
  std::string word;
  source_.read(word);
  isBatchNorm_ = word == kBatchNormLayerKeyword;
  if (word != kLayerKeyword && !isBatchNorm_) {
    return findings_.refuseWord(layer, layerKeywords(),
                                startsWith(word, "#")
                                    ? "note lines stand before the curves and the layers"
                                    : raggedRow_.hint());
  }
  int index = 0;
  if (!source_.read(index)) return refuseNumber(layer + ", number", "a whole number");
  if (index != number) return findings_.refuseWord(layer + ", number", std::to_string(number));
  word.clear();
  source_.read(word);
  if (word != kSizeKeyword) return findings_.refuseWord(layer, inQuotes(kSizeKeyword));
  if (!sizeFits(layer + ", number of rows", 0, rows_)) return false;
  if (!sizeFits(layer + ", number of columns", isBatchNorm_ ? 0 : 1, columns_)) return false;
  if (number == 1) numInputs_ = isBatchNorm_ ? columns_ : columns_ - 1;
  raggedRow_.forget();
  return true;
}

bool TextLayersWalk::sizeFits(const std::string& field, int smallest, int& size) {
  if (!source_.read(size)) return refuseNumber(field, "a whole number");
  return size >= smallest ||
         findings_.refuseWord(field, std::to_string(smallest) + " or more",
                              size == 0 ? "the bias of a plain layer takes the first column" : "");
}

bool TextLayersWalk::layerFits(int number) {
  const auto weight = [](int i) { return "weight " + std::to_string(i); };
  if (!isBatchNorm_) {
    const auto nameOf = [weight](int i) { return i == 0 ? std::string("bias") : weight(i); };
    return (head_.version == 1 || activationFits(number)) && rowsFit(number, columns_, nameOf);
  }
  static constexpr const char* kNames[] = {"gamma", "beta", "gamma_inf", "beta_inf"};
  return rowsFit(number, columns_, [weight](int i) { return weight(i + 1); }) &&
         gammaBetaFits(number) && rowsFit(number, 4, [](int i) { return std::string(kNames[i]); });
}

// Walks over the rows of one block of values; `nameOf(i)` names value i of a row.
template <typename NameOf>
bool TextLayersWalk::rowsFit(int number, int numValues, NameOf nameOf) {
  const auto refuseValue = [&](int r, int i) {
    // The value before is not what it seems.
    if (isInsideWord(findings_.text(), source_.start()) && r + i > 0) {
      r -= i == 0 ? 1 : 0;
      i = (i == 0 ? numValues : i) - 1;
    }
    return refuseNumber(numberedLayer(number) + ", row " + std::to_string(r + 1) + ", " + nameOf(i),
                        "a number");
  };
  if (numValues == 0) return true;
  float value = 0;
  for (int r = 0; r < rows_; ++r) {
    std::size_t begin = 0;
    for (int i = 0; i < numValues; ++i) {
      if (!source_.read(value)) return refuseValue(r, i);
      findings_.tellPlace();
      if (i == 0) begin = source_.start();
    }
    raggedRow_.note(begin, source_.position(), number, numValues);
  }
  return true;
}

// The activation stands on a line of its own or at the end of the size line.
bool TextLayersWalk::activationFits(int number) {
  std::string line = source_.readLine();
  const bool onSizeLine = !line.empty();
  if (!onSizeLine) line = source_.readLine();
  const auto [word, name] = firstTwoWords(line);
  const std::size_t begin = source_.start();
  const std::string field = numberedLayer(number) + ", activation";
  if (word.text != kActFnKeyword) return refuseActivationLine(field, line, onSizeLine);
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(name.text, actFn) == 0) {
    const std::size_t end = name.offset + name.text.size();
    findings_.remarkOnIgnored(begin + end, line.substr(end));
    return true;
  }
  return findings_.refuse(begin + name.offset, field, "one of " + activationKeywords(),
                          name.text.empty() ? "the end of the line" : excerpt(name.text));
}

// Refuses the line that was read last, which does not begin as one with an activation does.
bool TextLayersWalk::refuseActivationLine(const std::string& field, const std::string& line,
                                          bool onSizeLine) {
  const Word word = firstTwoWords(line).first;
  const bool isBlank = word.text.empty();
  const std::size_t at = source_.start() + (isBlank ? 0 : word.offset);
  std::string hint;
  if (onSizeLine && isBlank) {
    hint = carriageReturnHint(line);
    if (hint.empty()) {
      hint = "the size line ends in white space; the activation is then looked for behind it";
    }
  }
  const bool showsLine = isBlank && at < findings_.text().size();
  return findings_.refuse(at, field, inQuotes(kActFnKeyword),
                          showsLine ? excerpt(line) : findings_.foundAt(at), hint);
}

bool TextLayersWalk::gammaBetaFits(int number) {
  const std::string rest = source_.readLine();
  findings_.remarkOnIgnored(source_.start(), rest);
  const std::size_t begin = source_.position();
  const std::string line = source_.readLine();
  if (line == kGammaBetaKeyword) return true;
  std::string hint = carriageReturnHint(line);
  if (hint.empty()) hint = raggedRow_.hint();
  return findings_.refuse(begin, numberedLayer(number) + ", line after the weights",
                          inQuotes(kGammaBetaKeyword),
                          begin < findings_.text().size() ? excerpt(line) : kEndOfFile, hint);
}

bool TextLayersWalk::endFits() {
  if (source_.metEnd()) {
    return findings_.refuse(findings_.text().size(), "end of the file",
                            "white space after the last value", kEndOfFile,
                            "the last line needs a line feed");
  }
  std::string word;
  source_.read(word);
  findings_.remarkOnIgnored(source_.start(), word);  // a word that itself ends the file passes
  const auto numLayers = static_cast<std::size_t>(head_.numLayers);
  return source_.metEnd() ||
         findings_.refuseWord("end of the file",
                              std::string(kEndOfFile) + " after " + counted(numLayers, "layer"),
                              raggedRow_.hint());
}

}  // namespace mlnn
