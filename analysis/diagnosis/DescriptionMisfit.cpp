#include "analysis/diagnosis/DescriptionMisfit.h"

#include "features/DbnFeatureDescription.h"

namespace mlnn {

std::string descriptionForm() {
  std::string form;
  DbnFeatureDescription(DbnFeatureDescription::MelDeltas).serialize(form);
  return form;
}

// The numbers of a description stand between the fixed parts of its form, so each is tried
// alone in a text that is well-formed otherwise.
std::size_t misfitOfDescription(const std::string& text) {
  const auto isNumber = [](char c) { return c == '-' || (c >= '0' && c <= '9'); };
  const std::string form = descriptionForm();
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

}  // namespace mlnn
