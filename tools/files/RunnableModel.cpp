#include "tools/files/RunnableModel.h"

#include "inference/Evaluation.h"
#include "model/StackOutputs.h"

namespace mlnn {

// That --act-fn changes nothing in an image is said by those who load it.
RunnableModel::RunnableModel(const std::string& name, const LoadOptions& options, bool needsModel,
                             std::optional<bool> softmax)
    : imageHasSoftmax_(softmax.value_or(true)) {
  if (!needsModel && options.hiddenActFn.empty()) image_ = ImageFile::open(name, options.verbose);
  if (image_) {
    image_->pass().setSoftmax(imageHasSoftmax_);
    return;
  }
  file_ = loadModel(name, options);
  if (softmax) file_.model.setSoftmax(*softmax);
  loadedPass_.reset(file_.model.createFwdPass());
}

InputSide RunnableModel::inputSide() const {
  if (!image_) return InputSide::of(file_.model);
  const ImageFwdPass& pass = image_->pass();
  return {pass.featureDesc(), pass.deltasNorm(), pass.numInputs(), hasOutputs(pass.widths())};
}

// An image has no properties.
OutputSide RunnableModel::outputSide() const {
  if (image_) return {classLabels(image_->pass().numOutputs()), imageHasSoftmax_};
  return {classLabels(file_.model), file_.model.useSoftmax};
}

std::unique_ptr<FwdPass> RunnableModel::anotherPass() {
  if (!image_) return std::unique_ptr<FwdPass>(file_.model.createFwdPass());
  std::unique_ptr<ImageFwdPass> pass = image_->anotherPass();
  if (pass != nullptr) pass->setSoftmax(imageHasSoftmax_);
  return pass;
}

std::unique_ptr<IntegerFwdPass> RunnableModel::integerPass(WideInputs wideInputs) const {
  if (image_) return IntegerFwdPass::create(image_->pass(), wideInputs);
  return IntegerFwdPass::create(file_.model, wideInputs);
}

}  // namespace mlnn
