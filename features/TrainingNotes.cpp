#include "features/TrainingNotes.h"

#include <string_view>

#include "text/DecimalConversion.h"

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

TrainingNotes::TrainingNotes() = default;
TrainingNotes::TrainingNotes(const TrainingNotes& other) = default;
TrainingNotes::TrainingNotes(TrainingNotes&& other) noexcept = default;
TrainingNotes& TrainingNotes::operator=(const TrainingNotes& other) = default;
TrainingNotes& TrainingNotes::operator=(TrainingNotes&& other) noexcept = default;

void TrainingNotes::addString(const std::string& line) {
  if (startsWith(line, mlnn::kPropertyPrefix)) return;
  const std::string_view prefix = mlnn::kNotePrefix;
  lines.push_back(startsWith(line, prefix) ? line.substr(prefix.size()) : line);
}

// Without a stream: that would take running out of memory for a write error and go on.
void TrainingNotes::addRndLayer(int layerCount, float initScale) {
  constexpr int kDigits = 6;
  char scale[mlnn::kLongestDecimal];
  char* const end = mlnn::writeGeneral(scale, double{initScale}, kDigits);
  lines.push_back("added randomly initialised layer " + std::to_string(layerCount) +
                  ", initScale " + std::string(&scale[0], end));
}
