#include "features/TrainingNotes.h"

#include <locale>
#include <sstream>
#include <string_view>

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

void TrainingNotes::addRndLayer(int layerCount, float initScale) {
  std::ostringstream note;
  note.imbue(std::locale::classic());
  note << "added randomly initialised layer " << layerCount << ", initScale " << initScale;
  lines.push_back(note.str());
}
