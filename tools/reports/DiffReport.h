// What `mlnn diff` found out about two models, and how it is told.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "analysis/BehaviourDiff.h"
#include "analysis/NumberDiff.h"
#include "analysis/QuantizationDiff.h"
#include "analysis/StatementDiff.h"

namespace mlnn {

// What was done to one of two models to make the other one.
struct Quantization {
  bool isOfB = true;  // the second model was made of the first; else the other way round
  std::vector<LayerQuantization> layers;
};

// Returns nothing where neither was made of the other so.
std::optional<Quantization> quantizationBetween(const MultiLayerNNModel& a,
                                                const MultiLayerNNModel& b);

struct ModelDiff {
  std::string nameA;  // of the files
  std::string nameB;
  std::vector<StatementDifference> statements;
  std::vector<LayerDifference> layers;  // those that both models have
  std::optional<Quantization> quantization;
  std::optional<BehaviourDiff> behaviour;  // when there were frames to look at it
  double tolerance = 0;                    // for the behaviour

  bool sameStatements() const { return statements.empty(); }
  bool sameNumbers() const;
  bool sameBehaviour() const;  // the outputs agree within the tolerance, or were not looked at
  bool isSame() const { return sameStatements() && sameNumbers() && sameBehaviour(); }
};

// Prints one line for each level, and below it what differs.
void printDiff(const ModelDiff& diff, std::ostream& out);

// Values that are not finite are null.
nlohmann::ordered_json diffJson(const ModelDiff& diff);

}  // namespace mlnn
