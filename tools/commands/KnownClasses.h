// KnownClasses — which of a model's classes recordings are known to be.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"
#include "tools/files/RecordingLabels.h"

namespace mlnn {

class KnownClasses {
 public:
  // Reads the labels of a table (tools/files/RecordingLabels.h); "" for none.
  // Throws: Failure; also where the model's outputs are no posteriors.
  KnownClasses(const std::string& labels, const MultiLayerNNModel& model);

  bool areKnown() const { return labels_.has_value(); }

  // Returns the class of a recording, counted from 0; nothing without labels.
  // Throws: Failure when it has no label, or one that is no class of the model.
  std::optional<Eigen::Index> of(const std::string& recording) const;

 private:
  std::optional<RecordingLabels> labels_;
  std::vector<std::string> classes_;
};

}  // namespace mlnn
