// diagnoseText — the text format's part of diagnose.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "analysis/Suspicion.h"
#include "analysis/diagnosis/Diagnosis.h"

namespace mlnn {

// Returns the first place of a text model file that does not fit, as diagnose does.
std::optional<Misfit> diagnoseText(std::string_view text);

// Returns the lines of a text model file that the reader takes, but not as they seem to be
// meant: text that it leaves out, and note lines that do not set what they mean to.
std::vector<Suspicion> suspiciousLines(std::string_view text);

}  // namespace mlnn
