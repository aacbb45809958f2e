// QuantizationReport — what quantised models lose beside the model as it is, as tables and as JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace mlnn {

// How far the values of one stage (analysis/Stage.h) are from those of the model as it is.
struct StageLoss {
  std::string stage;
  std::size_t values = 0;  // of a frame
  double largest = 0;
  double mean = 0;
};

// What decisions a pass over the quantised model makes.
struct DecisionLoss {
  std::size_t sameBestClass = 0;    // frames
  std::size_t rightRecordings = 0;  // of those whose class is known
};

// What was found with one number of bits.
struct QuantizationLoss {
  int bits = 0;
  std::vector<StageLoss> stages;  // each layer, before and after its activation, and the outputs
  DecisionLoss floats;
  DecisionLoss integers;  // by the integer pass
  std::uint64_t imageBytes = 0;
};

struct QuantizationFindings {
  std::size_t recordings = 0;
  std::size_t frames = 0;
  double keep = 0;                             // the share of decisions that is asked for
  std::optional<std::size_t> rightRecordings;  // of the model as it is, where labels are known
  std::uint64_t imageBytes = 0;                // of the model as it is
  std::vector<QuantizationLoss> losses;        // from the fewest bits on

  // Whether such a model keeps that share of the best classes and, where labels are known, of the
  // recordings that were right; by both passes.
  bool keeps(const QuantizationLoss& loss) const;

  // Returns the fewest bits that keep it.
  std::optional<int> smallestWidth() const;
};

// Prints every stage for one number of bits, and what comes of the decisions.
// REQUIRES: there is one loss.
void printProof(const QuantizationFindings& found, std::ostream& out);

// Prints one line for each number of bits, and then the mean difference at each stage.
void printWidths(const QuantizationFindings& found, std::ostream& out);

nlohmann::ordered_json quantizationJson(const QuantizationFindings& found);

}  // namespace mlnn
