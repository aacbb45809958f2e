// diagnoseText — the text format's part of diagnose.
#pragma once

#include <optional>
#include <string_view>

#include "tools/Diagnosis.h"

namespace mlnn {

// Returns the first place of a text model file that does not fit, as diagnose does.
std::optional<Misfit> diagnoseText(std::string_view text);

// Sets line and column of a misfit from its offset.
void placeInText(std::string_view text, Misfit& misfit);

}  // namespace mlnn
