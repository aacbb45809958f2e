#include "c/OpenedModel.h"

#include "inference/ImageFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/Messages.h"
#include "layers/Report.h"
#include "model/ClassLabels.h"
#include "model/ImageReader.h"
#include "model/LayerStack.h"
#include "model/ModelFormat.h"

namespace mlnn {
namespace {

std::vector<int> widthsOf(const MultiLayerNNModel& model) {
  if (model.layers.empty()) return {};
  std::vector<int> widths = {model.numInputs()};
  for (const NNLayer* layer : model.layers) {
    widths.push_back(static_cast<int>(layerOrEmpty(layer).weights.rows()));
  }
  return widths;
}

class LoadedModel final : public OpenedModel {
 public:
  explicit LoadedModel(MultiLayerNNModel model)
      : OpenedModel(model.featureDesc, model.deltasNorm, widthsOf(model)),
        model_(std::move(model)) {
    properties_.assign(model_.props.begin(), model_.props.end());
    labels_ = classLabels(model_);
    hasSoftmax_ = model_.useSoftmax;
  }

  std::unique_ptr<FwdPass> makePass() const override {
    return std::make_unique<NNFwdPassFromFile>(model_);
  }

 private:
  MultiLayerNNModel model_;
};

class ImageModel final : public OpenedModel {
 public:
  // `pass` has accepted the image, and is needed no more.
  ImageModel(const ImageFwdPass& pass, const void* image, std::size_t length,
             std::shared_ptr<const FileMapping> file)
      : OpenedModel(pass.featureDesc(), pass.deltasNorm(), pass.widths()),
        image_(image),
        length_(length),
        file_(std::move(file)) {
    labels_ = classLabels(pass.numOutputs());
  }

  std::unique_ptr<FwdPass> makePass() const override {
    const CollectedMessages saidBefore;
    auto pass = std::make_unique<ImageFwdPass>();
    pass->open(image_, length_, ImageChecksum::kDeclined);
    return pass;
  }

 private:
  const void* image_;
  std::size_t length_;
  std::shared_ptr<const FileMapping> file_;
};

std::shared_ptr<OpenedModel> openImage(const void* image, std::size_t length,
                                       std::shared_ptr<const FileMapping> file) {
  ImageFwdPass pass;
  if (pass.open(image, length) == 0) {
    return std::make_shared<ImageModel>(pass, image, length, std::move(file));
  }
  if (length < kMinImageLength) report({"ERROR: ImageFwdPass: ", shorterThanHead(length)});
  return nullptr;
}

}  // namespace

OpenedModel::OpenedModel(const DbnFeatureDescription& featureDesc, MelDeltasNorm deltasNorm,
                         const std::vector<int>& widths)
    : featureDesc_(featureDesc),
      deltasNorm_(std::move(deltasNorm)),
      widths_(widths.begin(), widths.end()) {
  featureDesc_.serialize(featureText_);
}

std::shared_ptr<OpenedModel> openedModelOf(MultiLayerNNModel model) {
  return std::make_shared<LoadedModel>(std::move(model));
}

std::shared_ptr<OpenedModel> openedModelOf(const void* image, std::size_t length) {
  return openImage(image, length, nullptr);
}

std::shared_ptr<OpenedModel> openedModelOf(std::shared_ptr<const FileMapping> file) {
  if (!file) return nullptr;
  const void* const image = file->data();
  const std::size_t length = file->length();
  return openImage(image, length, std::move(file));
}

}  // namespace mlnn
