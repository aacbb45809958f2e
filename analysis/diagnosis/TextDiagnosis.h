// diagnoseText — the text format's part of diagnose.
#pragma once

#include <optional>
#include <string_view>

#include "analysis/diagnosis/Diagnosis.h"

namespace mlnn {

// Returns the first place of a text model file that does not fit, as diagnose does.
std::optional<Misfit> diagnoseText(std::string_view text, const Watch& watch);

}  // namespace mlnn
