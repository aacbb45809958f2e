// TextFindings — a text model file while it is walked over: the place that has been reached,
// what is odd so far, and what does not fit.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/Suspicion.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "analysis/diagnosis/PlacedStream.h"
#include "analysis/diagnosis/TextPlace.h"
#include "features/Watch.h"

namespace mlnn {

// The text and the watch must outlive it.
class TextFindings {
 public:
  TextFindings(std::string_view text, const Watch& watch)
      : source(text), text_(text), watch_(watch), remarkLines_(text) {}

  // What is read from; its place is where the walk is.
  PlacedStream source;

  std::string_view text() const { return text_; }
  const std::optional<Misfit>& misfit() const { return misfit_; }
  const std::vector<Suspicion>& remarks() const { return remarks_; }

  // Tells the watch how far the walk is, now and then; to be called often.
  void tellPlace() {
    constexpr std::size_t kBytesBetweenCalls = std::size_t{1} << 18;
    const std::size_t further = source.position() - told_;
    if (further < kBytesBetweenCalls) return;
    told_ += further;
    tell(watch_, further);
  }

  // Each keeps a misfit, the last one that is to be, and returns false. They refuse what is found
  // at an offset; the word that was read last; or that word where it should be a number:
  // `otherwise` is the hint where the word itself does not tell what is wrong.
  bool refuse(std::size_t offset, std::string field, std::string expected, std::string found,
              std::string hint = "");
  bool refuseWord(std::string field, std::string expected, std::string hint = "");
  bool refuseNumber(std::string field, std::string expected, std::string otherwise = "");

  // Makes a remark on the line of the offset. Remarks are made from the first line to the last.
  void remark(std::size_t offset, const char* kind, const std::string& text);

  // Makes a remark on text at the offset that the reader leaves out, unless there is none.
  void remarkOnIgnored(std::size_t offset, const std::string& text);

  // Returns the word there, in quotes; where the reader took the beginning of it for something
  // else, as in "0,5", with the whole word. Returns kEndOfFile behind the text.
  std::string foundAt(std::size_t offset) const;

 private:
  std::string_view text_;
  const Watch& watch_;
  std::size_t told_ = 0;  // bytes of which the watch knows
  std::optional<Misfit> misfit_;
  std::vector<Suspicion> remarks_;
  LineCounter remarkLines_;
};

}  // namespace mlnn
