#include "tools/TextDiagnosis.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

#include "features/DbnFeatureDescription.h"
#include "features/TrainingNotes.h"
#include "features/string_split.h"
#include "layers/ActFn.h"
#include "model/ModelFormat.h"
#include "tools/Escape.h"
#include "tools/NoteRemarks.h"
#include "tools/Numbers.h"
#include "tools/PlacedStream.h"

namespace mlnn {
namespace {

constexpr char kWhiteSpace[] = " \t\n\v\f\r";
constexpr std::size_t kMaxExcerpt = 60;  // bytes of the file that a message shows

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, char c) { return !text.empty() && text.back() == c; }

std::string excerpt(std::string_view text) {
  if (text.size() <= kMaxExcerpt) return inQuotes(text);
  return inQuotes(text.substr(0, kMaxExcerpt)) + " and more";
}

std::string numberedLayer(int number) { return "layer " + std::to_string(number); }

// Where a part of a line stands: the words of a line, with their offsets in it.
struct Word {
  std::string text;
  std::size_t offset = 0;
};

// The first two words of a line; empty, at its end, where there are fewer.
std::pair<Word, Word> firstTwoWords(const std::string& line) {
  Word words[2];
  std::size_t end = 0;
  for (Word& word : words) {
    word.offset = std::min(line.find_first_not_of(kWhiteSpace, end), line.size());
    end = std::min(line.find_first_of(kWhiteSpace, word.offset), line.size());
    word.text = line.substr(word.offset, end - word.offset);
  }
  return {words[0], words[1]};
}

std::string withoutSign(const std::string& word) {
  return word.empty() || (word[0] != '-' && word[0] != '+') ? word : word.substr(1);
}

bool isNonFiniteWord(const std::string& word) {
  std::string lower = withoutSign(word);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower == "inf" || lower == "infinity" || startsWith(lower, "nan");
}

// Whether the word is a number as such, though not one that fits a 32-bit float.
bool isTooLarge(const std::string& word) {
  char* end = nullptr;
  const double value = std::strtod(word.c_str(), &end);
  return !word.empty() && *end == '\0' && std::fabs(value) > std::numeric_limits<float>::max();
}

// Where a description's text stops being one: its numbers stand between the fixed parts of the
// text form, so each is tried alone in a text that is well-formed otherwise.
std::size_t misfitOfDescription(const std::string& text) {
  const auto isNumber = [](char c) { return c == '-' || (c >= '0' && c <= '9'); };
  std::string form;
  DbnFeatureDescription(DbnFeatureDescription::MelDeltas).serialize(form);
  std::size_t at = 0;
  for (std::size_t f = 0; f < form.size(); ++f) {
    if (!isNumber(form[f])) {
      if (at == text.size() || text[at] != form[f]) return at;
      ++at;
      continue;
    }
    std::size_t end = at;
    while (end < text.size() && isNumber(text[end])) ++end;
    const std::string trial = form.substr(0, f) + text.substr(at, end - at) + form.substr(f + 1);
    if (DbnFeatureDescription(DbnFeatureDescription::MelDeltas).deserialize(trial) != 0) return at;
    at = end;
  }
  return at;
}

// A row of a layer whose values do not fill one line, as rows do in a file that was written.
// The reader does not mind, but it is where a value is missing or one too many.
struct RaggedRow {
  std::size_t offset = 0;
  int numValues = 0;
  int layer = 0;
};

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

class TextWalk {
 public:
  explicit TextWalk(std::string_view text) : text_(text), source_(text) {}

  std::optional<Misfit> run() {
    if (headerFits() && notesFit() && curvesFit() && layersFit() && endFits()) {
      descriptionFitsInputs();
    }
    return misfit_;
  }

  const std::vector<Suspicion>& remarks() const { return remarks_; }

 private:
  bool refuse(std::size_t offset, std::string field, std::string expected, std::string found,
              std::string hint = "");
  bool refuseWord(std::string field, std::string expected, std::string hint = "");
  bool refuseNumber(std::string field, const char* expected);

  void remark(std::size_t offset, const char* kind, const std::string& text);
  void remarkOnIgnored(std::size_t begin, const std::string& text);

  bool headerFits();
  bool softmaxFits();
  void remarkOnSoftmax(const std::string& line, const Word& number);
  bool notesFit();
  bool noteFits(const std::string& line);
  bool descriptionFits(const std::string& line);
  bool curvesFit();
  bool curveFits(const char* keyword);
  bool countFits(const char* keyword);
  bool keywordFits();
  bool layersFit();
  bool layerFits(int number);
  bool sizeLineFits(int number);
  bool sizeFits(const std::string& field, int smallest, int& size);
  bool activationFits(int number);
  bool gammaBetaFits(int number);
  template <typename NameOf>
  bool rowsFit(int number, int numValues, NameOf nameOf);
  bool endFits();
  bool descriptionFitsInputs();

  bool isInsideWord(std::size_t offset) const;
  std::string wordAt(std::size_t offset) const;
  std::string foundAt(std::size_t offset) const;
  std::string numberHint(std::size_t offset) const;
  std::string raggedRowHint() const;
  void noteRow(std::size_t begin, int number, int numValues);

  std::string_view text_;
  PlacedStream source_;
  std::optional<Misfit> misfit_;
  int version_ = 2;
  DbnFeatureDescription desc_{DbnFeatureDescription::MelDeltas};
  std::optional<std::size_t> descOffset_;  // where a feature description was accepted
  std::string keyword_;                    // the keyword line read last
  int count_ = 0;
  int numLayers_ = 0;
  int numInputs_ = 0;
  bool isBatchNorm_ = false;  // of the size line read last
  int rows_ = 0;
  int columns_ = 0;
  std::optional<RaggedRow> raggedRow_;  // the first one of the layer read last
  std::vector<Suspicion> remarks_;
  LineCounter remarkLines_{text_};
};

// --- What is found, and why ---

bool TextWalk::refuse(std::size_t offset, std::string field, std::string expected,
                      std::string found, std::string hint) {
  misfit_ = Misfit{offset,         0, 0, std::move(field), std::move(expected), std::move(found),
                   std::move(hint)};
  placeInText(text_, *misfit_);
  return false;
}

// Refuses the word that was read last.
bool TextWalk::refuseWord(std::string field, std::string expected, std::string hint) {
  const std::size_t at = source_.start();
  return refuse(at, std::move(field), std::move(expected), foundAt(at), std::move(hint));
}

bool TextWalk::refuseNumber(std::string field, const char* expected) {
  return refuseWord(std::move(field), expected, numberHint(source_.start()));
}

// Whether the reader took the beginning of the word there for something of its own. That is
// then what is wrong, as in "0,5".
bool TextWalk::isInsideWord(std::size_t offset) const {
  return offset > 0 && offset < text_.size() && !isSpace(text_[offset - 1]);
}

std::string TextWalk::wordAt(std::size_t offset) const {
  return std::string(text_.substr(
      offset, std::min(text_.find_first_of(kWhiteSpace, offset), text_.size()) - offset));
}

// The word there; with the one that it is the end of, where the reader took the beginning.
std::string TextWalk::foundAt(std::size_t offset) const {
  if (offset >= text_.size()) return kEndOfFile;
  const std::string found = excerpt(wordAt(offset));
  if (!isInsideWord(offset)) return found;
  const std::size_t before = text_.find_last_of(kWhiteSpace, offset);
  return found + " in " + excerpt(wordAt(before == std::string_view::npos ? 0 : before + 1));
}

std::string TextWalk::numberHint(std::size_t offset) const {
  const std::string word = wordAt(offset);
  if (isNonFiniteWord(word)) return "the text format cannot hold values that are not finite";
  if (isTooLarge(word)) return "the number is too large for a 32-bit float";
  if (startsWith(word, ",") && isInsideWord(offset)) {
    return "numbers have a decimal point, and stand between blanks, tabs or line feeds";
  }
  return raggedRowHint();
}

std::string TextWalk::raggedRowHint() const {
  if (!raggedRow_) return "";
  const std::size_t end = std::min(text_.find('\n', raggedRow_->offset), text_.size());
  const std::string line(text_.substr(raggedRow_->offset, end - raggedRow_->offset));
  std::vector<std::string> words;
  string_split(words, line, kWhiteSpace);
  const auto expected = static_cast<std::size_t>(raggedRow_->numValues);
  if (words.size() == expected) return "";
  return "line " + std::to_string(LineCounter(text_).lineOf(raggedRow_->offset)) + " holds " +
         counted(words.size(), "value") + ", and a row of " + numberedLayer(raggedRow_->layer) +
         " has " + std::to_string(expected);
}

// Makes a remark. Remarks are made from the first line to the last.
void TextWalk::remark(std::size_t offset, const char* kind, const std::string& text) {
  Suspicion suspicion;
  suspicion.kind = kind;
  suspicion.line = remarkLines_.lineOf(offset);
  suspicion.text = "line " + std::to_string(suspicion.line) + " " + text;
  remarks_.push_back(suspicion);
}

// Makes a remark on text that the reader leaves out, unless there is none.
void TextWalk::remarkOnIgnored(std::size_t begin, const std::string& text) {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string::npos) return;
  const std::size_t last = text.find_last_not_of(kWhiteSpace);
  remark(begin + first, "text_left_out",
         "holds " + excerpt(text.substr(first, last + 1 - first)) + ", which is not read");
}

std::string carriageReturnHint(const std::string& line) {
  return endsWith(line, '\r') ? "the line ends in a carriage return; lines end in a line feed alone"
                              : "";
}

std::string headerHint(const std::string& line) {
  if (startsWith(line, "\x1f\x8b")) return "the file is compressed (gzip)";
  if (startsWith(line, "\xef\xbb\xbf")) return "the file begins with a byte order mark";
  return carriageReturnHint(line);
}

// --- The walk ---

bool TextWalk::headerFits() {
  const std::string line = source_.readLine();
  if (line == kHeaderVersion1) {
    version_ = 1;
    return true;
  }
  if (line == kHeaderVersion2) return softmaxFits();
  return refuse(0, "header", inQuotes(kHeaderVersion2) + " or " + inQuotes(kHeaderVersion1),
                excerpt(line), headerHint(line));
}

bool TextWalk::softmaxFits() {
  const std::string line = source_.readLine();
  const auto [word, number] = firstTwoWords(line);
  const std::size_t at = source_.start() + word.offset;
  if (word.text == kSoftmaxKeyword) {
    remarkOnSoftmax(line, number);
    return true;
  }
  return refuse(at, "softmax line", inQuotes(kSoftmaxKeyword), foundAt(at));
}

void TextWalk::remarkOnSoftmax(const std::string& line, const Word& number) {
  PlacedStream words(std::string_view(line).substr(number.offset));
  int flag = 0;
  if (!words.read(flag)) {
    remark(source_.start(), "softmax_without_number",
           std::string("has no number after ") + inQuotes(kSoftmaxKeyword) + ", which means off");
  }
  const std::size_t end = number.offset + words.position();
  remarkOnIgnored(source_.start() + end, line.substr(end));
}

bool TextWalk::notesFit() {
  while (source_.nextIs('#')) {
    const std::string line = source_.readLine();
    const std::string odd = remarkOnNote(line);
    if (!odd.empty()) remark(source_.start(), "note_line", odd);
    if (!noteFits(line)) return false;
  }
  return true;
}

// Of all note lines, only one with a feature description can be refused.
bool TextWalk::noteFits(const std::string& line) {
  const bool isNorm = contains(line, kMinvalsMarker) || contains(line, kNormvalsMarker);
  if (isNorm && !startsWith(line, kPropertyPrefix)) return true;
  if (descOffset_ || !contains(line, kFeatDescMarker) || !contains(line, kFeatDescToolMarker)) {
    return true;
  }
  return descriptionFits(line);
}

bool TextWalk::descriptionFits(const std::string& line) {
  const std::size_t begin = source_.start();
  const std::size_t blank = line.rfind(' ');
  if (blank == std::string::npos) {
    return refuse(begin, "feature description", "a blank and a description at the end of the line",
                  excerpt(line));
  }
  const std::string text = line.substr(blank + 1);
  if (desc_.deserialize(text) == 0) {
    descOffset_ = begin + blank + 1;
    return true;
  }
  std::string form;
  DbnFeatureDescription(DbnFeatureDescription::MelDeltas).serialize(form);
  const std::size_t misfit = misfitOfDescription(text);
  return refuse(begin + blank + 1 + misfit, "feature description",
                "a description of the form " + inQuotes(form),
                excerpt(text.substr(misfit)) + " in " + excerpt(text), carriageReturnHint(line));
}

bool TextWalk::keywordFits() {
  keyword_.clear();
  return source_.read(keyword_) ||
         refuseWord("keyword", inQuotes(kNumLayersKeyword), "the file ends before its layers");
}

bool TextWalk::countFits(const char* keyword) {
  const std::string field = std::string("count after ") + inQuotes(keyword);
  if (!source_.read(count_)) return refuseNumber(field, "a whole number");
  return count_ >= 0 || refuseWord(field, "0 or more");
}

bool TextWalk::curveFits(const char* keyword) {
  if (keyword_ != keyword) return true;
  if (!countFits(keyword)) return false;
  float value = 0;
  for (int i = 0; i < count_; ++i) {
    if (source_.read(value)) continue;
    return refuseNumber(std::string(keyword) + ", value " + std::to_string(i + 1), "a number");
  }
  return keywordFits();
}

bool TextWalk::curvesFit() {
  if (!keywordFits() || !curveFits(kLossKeyword) || !curveFits(kAccuracyKeyword)) return false;
  if (keyword_ != kNumLayersKeyword) {
    std::string hint;
    if (keyword_ == kLossKeyword || keyword_ == kAccuracyKeyword) {
      hint = "each curve stands at most once, and 'loss' before 'accuracy'";
    } else if (startsWith(keyword_, "#")) {
      hint = "note lines stand before the curves, with '#' as the first character of the line";
    }
    return refuseWord("keyword", inQuotes(kNumLayersKeyword), hint);
  }
  if (!countFits(kNumLayersKeyword)) return false;
  numLayers_ = count_;
  return true;
}

bool TextWalk::layersFit() {
  for (int number = 1; number <= numLayers_; ++number) {
    if (source_.metEnd()) {
      return refuse(text_.size(), numberedLayer(number),
                    inQuotes(kLayerKeyword) + " or " + inQuotes(kBatchNormLayerKeyword), kEndOfFile,
                    raggedRowHint());
    }
    while (source_.nextIs('#')) source_.readLine();
    if (!sizeLineFits(number) || !layerFits(number)) return false;
  }
  return true;
}

bool TextWalk::sizeLineFits(int number) {
  const std::string layer = numberedLayer(number);
  const std::string layerKeywords =
      inQuotes(kLayerKeyword) + " or " + inQuotes(kBatchNormLayerKeyword);
  std::string word;
  source_.read(word);
  isBatchNorm_ = word == kBatchNormLayerKeyword;
  if (word != kLayerKeyword && !isBatchNorm_) {
    return refuseWord(layer, layerKeywords,
                      startsWith(word, "#") ? "note lines stand before the curves and the layers"
                                            : raggedRowHint());
  }
  int index = 0;
  if (!source_.read(index)) return refuseNumber(layer + ", number", "a whole number");
  if (index != number) return refuseWord(layer + ", number", std::to_string(number));
  word.clear();
  source_.read(word);
  if (word != kSizeKeyword) return refuseWord(layer, inQuotes(kSizeKeyword));
  if (!sizeFits(layer + ", number of rows", 0, rows_)) return false;
  if (!sizeFits(layer + ", number of columns", isBatchNorm_ ? 0 : 1, columns_)) return false;
  if (number == 1) numInputs_ = isBatchNorm_ ? columns_ : columns_ - 1;
  raggedRow_.reset();
  return true;
}

bool TextWalk::sizeFits(const std::string& field, int smallest, int& size) {
  if (!source_.read(size)) return refuseNumber(field, "a whole number");
  return size >= smallest ||
         refuseWord(field, std::to_string(smallest) + " or more",
                    size == 0 ? "the bias of a plain layer takes the first column" : "");
}

bool TextWalk::layerFits(int number) {
  const auto weight = [](int i) { return "weight " + std::to_string(i); };
  if (!isBatchNorm_) {
    return (version_ == 1 || activationFits(number)) && rowsFit(number, columns_, [weight](int i) {
             return i == 0 ? std::string("bias") : weight(i);
           });
  }
  static constexpr const char* kNames[] = {"gamma", "beta", "gamma_inf", "beta_inf"};
  return rowsFit(number, columns_, [weight](int i) { return weight(i + 1); }) &&
         gammaBetaFits(number) && rowsFit(number, 4, [](int i) { return std::string(kNames[i]); });
}

// Walks over the rows of one block of values; `nameOf(i)` names value i of a row.
template <typename NameOf>
bool TextWalk::rowsFit(int number, int numValues, NameOf nameOf) {
  const auto refuseValue = [&](int r, int i) {
    if (isInsideWord(source_.start()) && r + i > 0) {  // the value before is not what it seems
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
      if (i == 0) begin = source_.start();
    }
    noteRow(begin, number, numValues);
  }
  return true;
}

// Remembers the first row of a layer that does not begin and end with a line.
void TextWalk::noteRow(std::size_t begin, int number, int numValues) {
  if (raggedRow_) return;
  const std::size_t end = source_.position();
  const std::size_t next = text_.find_first_not_of(" \t\r", end);
  const bool endsLine = next == std::string_view::npos || text_[next] == '\n';
  if (endsLine && !contains(text_.substr(begin, end - begin), "\n")) return;
  raggedRow_ = RaggedRow{begin, numValues, number};
}

// The activation stands on a line of its own or at the end of the size line.
bool TextWalk::activationFits(int number) {
  std::string line = source_.readLine();
  const bool onSizeLine = !line.empty();
  if (!onSizeLine) line = source_.readLine();
  const auto [word, name] = firstTwoWords(line);
  const std::size_t begin = source_.start();
  const std::string field = numberedLayer(number) + ", activation";
  if (word.text != kActFnKeyword) {
    std::string hint;
    if (onSizeLine && word.text.empty()) {
      hint = endsWith(line, '\r') ? carriageReturnHint(line)
                                  : "the size line ends in white space; the activation is then "
                                    "looked for behind it";
    }
    const std::size_t at = begin + (word.text.empty() ? 0 : word.offset);
    return refuse(at, field, inQuotes(kActFnKeyword),
                  word.text.empty() && at < text_.size() ? excerpt(line) : foundAt(at), hint);
  }
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(name.text, actFn) == 0) {
    const std::size_t end = name.offset + name.text.size();
    remarkOnIgnored(begin + end, line.substr(end));
    return true;
  }
  std::string expected = "one of";
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    expected += (code == 0 ? " " : ", ") + ActFn::actFnToString(static_cast<ActFn::ActFn>(code));
  }
  return refuse(begin + name.offset, field, expected,
                name.text.empty() ? "the end of the line" : excerpt(name.text));
}

bool TextWalk::gammaBetaFits(int number) {
  const std::string rest = source_.readLine();
  remarkOnIgnored(source_.start(), rest);
  const std::size_t begin = source_.position();
  const std::string line = source_.readLine();
  if (line == kGammaBetaKeyword) return true;
  std::string hint = carriageReturnHint(line);
  if (hint.empty()) hint = raggedRowHint();
  return refuse(begin, numberedLayer(number) + ", line after the weights",
                inQuotes(kGammaBetaKeyword), begin < text_.size() ? excerpt(line) : kEndOfFile,
                hint);
}

bool TextWalk::endFits() {
  if (source_.metEnd()) {
    return refuse(text_.size(), "end of the file", "white space after the last value", kEndOfFile,
                  "the last line needs a line feed");
  }
  std::string word;
  source_.read(word);
  remarkOnIgnored(source_.start(), word);  // a word that itself ends the file passes
  return source_.metEnd() || refuseWord("end of the file",
                                        std::string(kEndOfFile) + " after " +
                                            counted(static_cast<std::size_t>(numLayers_), "layer"),
                                        raggedRowHint());
}

bool TextWalk::descriptionFitsInputs() {
  const int length = desc_.featLen();
  if (length == 0 || length == numInputs_) return true;
  return refuse(*descOffset_, "feature description",
                "one of " + counted(static_cast<std::size_t>(numInputs_), "value") +
                    ", the inputs of layer 1",
                excerpt(wordAt(*descOffset_)) + ", which has " + std::to_string(length));
}

}  // namespace

std::optional<Misfit> diagnoseText(std::string_view text) { return TextWalk(text).run(); }

std::vector<Suspicion> suspiciousLines(std::string_view text) {
  TextWalk walk(text);
  walk.run();
  return walk.remarks();
}

void placeInText(std::string_view text, Misfit& misfit) {
  const std::string_view before = text.substr(0, misfit.offset);
  misfit.line = 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  const std::size_t lineBreak = before.rfind('\n');
  misfit.column =
      lineBreak == std::string_view::npos ? before.size() + 1 : before.size() - lineBreak;
}

}  // namespace mlnn
