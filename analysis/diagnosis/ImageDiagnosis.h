// diagnoseImage — the binary format's part of diagnose.
#pragma once

#include <optional>
#include <string_view>

#include "analysis/diagnosis/Diagnosis.h"

namespace mlnn {

// Returns the first place of a binary image that does not fit, as diagnose does. The structure
// comes first: the checksum is looked at only where all else fits.
// REQUIRES: the image begins with the magic.
std::optional<Misfit> diagnoseImage(std::string_view image);

}  // namespace mlnn
