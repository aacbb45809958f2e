#include "analysis/diagnosis/TextHeadWalk.h"

#include <string>

#include "analysis/diagnosis/DescriptionMisfit.h"
#include "analysis/diagnosis/NoteRemarks.h"
#include "analysis/diagnosis/TextWords.h"
#include "features/TrainingNotes.h"
#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "text/TextParts.h"

namespace mlnn {
namespace {

std::string headerHint(const std::string& line) {
  if (startsWith(line, "\x1f\x8b")) return "the file is compressed (gzip)";
  if (startsWith(line, "\xef\xbb\xbf")) return "the file begins with a byte order mark";
  return carriageReturnHint(line);
}

// Why a keyword stands where the number of layers should.
std::string keywordHint(const std::string& keyword) {
  if (keyword == kLossKeyword || keyword == kAccuracyKeyword) {
    return "each curve stands at most once, and 'loss' before 'accuracy'";
  }
  if (startsWith(keyword, "#")) {
    return "note lines stand before the curves, with '#' as the first character of the line";
  }
  return "";
}

class HeadWalk {
 public:
  explicit HeadWalk(TextFindings& findings) : findings_(findings), source_(findings.source) {}

  std::optional<TextHead> run() {
    if (headerFits() && notesFit() && curvesFit()) return head_;
    return std::nullopt;
  }

 private:
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

  TextFindings& findings_;
  PlacedStream& source_;
  TextHead head_;
  std::string keyword_;  // the keyword line read last
  int count_ = 0;        // what followed it
};

bool HeadWalk::headerFits() {
  const std::string line = source_.readLine();
  if (line == kHeaderVersion1) {
    head_.version = 1;
    return true;
  }
  if (line == kHeaderVersion2) return softmaxFits();
  return findings_.refuse(0, "header",
                          inQuotes(kHeaderVersion2) + " or " + inQuotes(kHeaderVersion1),
                          excerpt(line), headerHint(line));
}

bool HeadWalk::softmaxFits() {
  const std::string line = source_.readLine();
  const auto [word, number] = firstTwoWords(line);
  const std::size_t at = source_.start() + word.offset;
  if (word.text == kSoftmaxKeyword) {
    remarkOnSoftmax(line, number);
    return true;
  }
  return findings_.refuse(at, "softmax line", inQuotes(kSoftmaxKeyword), findings_.foundAt(at));
}

void HeadWalk::remarkOnSoftmax(const std::string& line, const Word& number) {
  PlacedStream words(std::string_view(line).substr(number.offset));
  int flag = 0;
  if (!words.read(flag)) {
    findings_.remark(
        source_.start(), "softmax_without_number",
        std::string("has no number after ") + inQuotes(kSoftmaxKeyword) + ", which means off");
  }
  const std::size_t end = number.offset + words.position();
  findings_.remarkOnIgnored(source_.start() + end, line.substr(end));
}

bool HeadWalk::notesFit() {
  while (source_.nextIs('#')) {
    const std::string line = source_.readLine();
    const std::string odd = remarkOnNote(line);
    if (!odd.empty()) findings_.remark(source_.start(), "note_line", odd);
    if (!noteFits(line)) return false;
  }
  return true;
}

// Of all note lines, only one with a feature description can be refused.
bool HeadWalk::noteFits(const std::string& line) {
  const bool isNorm = contains(line, kMinvalsMarker) || contains(line, kNormvalsMarker);
  if (isNorm && !startsWith(line, kPropertyPrefix)) return true;
  if (head_.descOffset || !contains(line, kFeatDescMarker) ||
      !contains(line, kFeatDescToolMarker)) {
    return true;
  }
  return descriptionFits(line);
}

bool HeadWalk::descriptionFits(const std::string& line) {
  const std::size_t begin = source_.start();
  const std::size_t blank = line.rfind(' ');
  if (blank == std::string::npos) {
    return findings_.refuse(begin, "feature description",
                            "a blank and a description at the end of the line", excerpt(line));
  }
  const std::string text = line.substr(blank + 1);
  if (head_.desc.deserialize(text) == 0) {
    head_.descOffset = begin + blank + 1;
    return true;
  }
  const std::size_t misfit = misfitOfDescription(text);
  return findings_.refuse(begin + blank + 1 + misfit, "feature description",
                          "a description of the form " + inQuotes(descriptionForm()),
                          excerpt(text.substr(misfit)) + " in " + excerpt(text),
                          carriageReturnHint(line));
}

bool HeadWalk::keywordFits() {
  keyword_.clear();
  return source_.read(keyword_) || findings_.refuseWord("keyword", inQuotes(kNumLayersKeyword),
                                                        "the file ends before its layers");
}

bool HeadWalk::countFits(const char* keyword) {
  const std::string field = std::string("count after ") + inQuotes(keyword);
  if (!source_.read(count_)) return findings_.refuseNumber(field, "a whole number");
  return count_ >= 0 || findings_.refuseWord(field, "0 or more");
}

bool HeadWalk::curveFits(const char* keyword) {
  if (keyword_ != keyword) return true;
  if (!countFits(keyword)) return false;
  float value = 0;
  for (int i = 0; i < count_; ++i) {
    findings_.tellPlace();
    if (source_.read(value)) continue;
    return findings_.refuseNumber(std::string(keyword) + ", value " + std::to_string(i + 1),
                                  "a number");
  }
  return keywordFits();
}

bool HeadWalk::curvesFit() {
  if (!keywordFits() || !curveFits(kLossKeyword) || !curveFits(kAccuracyKeyword)) return false;
  if (keyword_ != kNumLayersKeyword) {
    return findings_.refuseWord("keyword", inQuotes(kNumLayersKeyword), keywordHint(keyword_));
  }
  if (!countFits(kNumLayersKeyword)) return false;
  head_.numLayers = count_;
  return true;
}

}  // namespace

std::optional<TextHead> walkOverHead(TextFindings& findings) { return HeadWalk(findings).run(); }

}  // namespace mlnn
