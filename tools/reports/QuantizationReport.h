// QuantizationReport — what quantised models lose beside the model as it is, as tables and as JSON.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>

#include "analysis/QuantizationProof.h"

namespace mlnn {

// Prints every stage for one number of bits, and what comes of the decisions.
// REQUIRES: there is one loss.
void printProof(const QuantizationFindings& found, std::ostream& out);

// Prints one line for each number of bits, and then the mean difference at each stage.
// REQUIRES: there is one loss at least.
void printWidths(const QuantizationFindings& found, std::ostream& out);

nlohmann::ordered_json quantizationJson(const QuantizationFindings& found);

}  // namespace mlnn
