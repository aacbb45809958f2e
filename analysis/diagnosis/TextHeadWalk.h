// walkOverHead — the part of a text model file before its layers: header, notes, curves.
#pragma once

#include <cstddef>
#include <optional>

#include "analysis/diagnosis/TextFindings.h"
#include "features/DbnFeatureDescription.h"

namespace mlnn {

// What the head says of the rest of the file.
struct TextHead {
  int version = 2;
  int numLayers = 0;
  DbnFeatureDescription desc{DbnFeatureDescription::MelDeltas};
  std::optional<std::size_t> descOffset;  // where a feature description was accepted
};

// Walks to the first layer.
// Returns: nothing where the head does not fit; the findings then say why.
std::optional<TextHead> walkOverHead(TextFindings& findings);

}  // namespace mlnn
