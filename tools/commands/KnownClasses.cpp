#include "tools/commands/KnownClasses.h"

#include <algorithm>

#include "inference/Evaluation.h"
#include "text/Escape.h"
#include "tools/Failure.h"

namespace mlnn {

KnownClasses::KnownClasses(const std::string& labels, const MultiLayerNNModel& model) {
  if (labels.empty()) return;
  if (!model.useSoftmax) {
    throw Failure("--labels needs a model with a softmax, whose outputs are posteriors");
  }
  labels_ = RecordingLabels::read(labels);
  classes_ = classLabels(model);
}

std::optional<Eigen::Index> KnownClasses::of(const std::string& recording) const {
  if (!labels_) return std::nullopt;
  const std::string& label = labels_->of(recording);
  const auto found = std::find(classes_.begin(), classes_.end(), label);
  if (found == classes_.end()) {
    throw Failure("the label " + inQuotes(label) + " of " + inQuotes(recording) +
                  " is no class of the model");
  }
  return found - classes_.begin();
}

}  // namespace mlnn
