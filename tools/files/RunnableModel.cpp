#include "tools/files/RunnableModel.h"

#include <vector>

#include "inference/Evaluation.h"

namespace mlnn {

// That --act-fn changes nothing in an image is said by those who load it.
RunnableModel::RunnableModel(const std::string& name, const LoadOptions& options, bool needsModel) {
  if (!needsModel && options.hiddenActFn.empty()) image_ = ImageFile::open(name, options.verbose);
  if (image_) return;
  file_ = loadModel(name, options);
  loadedPass_.reset(file_.model.createFwdPass());
}

InputSide RunnableModel::inputSide() const {
  if (!image_) return InputSide::of(file_.model);
  const ImageFwdPass& pass = image_->pass();
  const std::vector<int> widths = pass.widths();
  const bool hasOutputs = !widths.empty() && widths[1] != 0 && widths.back() != 0;
  return {pass.featureDesc(), pass.deltasNorm(), pass.numInputs(), hasOutputs};
}

// An image has no properties, and its outputs go through a softmax.
OutputSide RunnableModel::outputSide() const {
  if (image_) return {classLabels(image_->pass().numOutputs()), true};
  return {classLabels(file_.model), file_.model.useSoftmax};
}

}  // namespace mlnn
