#include "c/OpenedModel.h"

#include "inference/ImageFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/Messages.h"
#include "layers/Report.h"
#include "model/ClassLabels.h"
#include "model/LayerStack.h"

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

// A model whose passes are all made from one, with which they share the weights.
template <typename SharingPass>
class ConvertedModel final : public OpenedModel {
 public:
  // `kept` is what the pass reads from and does not keep itself; maybe null.
  ConvertedModel(const OpenedModel& source, std::unique_ptr<const SharingPass> pass,
                 std::shared_ptr<const void> kept = nullptr)
      : OpenedModel(source), kept_(std::move(kept)), pass_(std::move(pass)) {}

  std::unique_ptr<FwdPass> makePass() const override { return pass_->another(); }

 private:
  std::shared_ptr<const void> kept_;  // goes last
  std::unique_ptr<const SharingPass> pass_;
};

// Makes one of the model `source`; null where there is no pass.
template <typename SharingPass>
std::shared_ptr<OpenedModel> converted(const OpenedModel& source, std::unique_ptr<SharingPass> pass,
                                       std::shared_ptr<const void> kept = nullptr) {
  if (!pass) return nullptr;
  return std::make_shared<ConvertedModel<SharingPass>>(source, std::move(pass), std::move(kept));
}

class LoadedModel final : public OpenedModel {
 public:
  explicit LoadedModel(std::shared_ptr<const ModelFile> file)
      : OpenedModel(file->model.featureDesc, file->model.deltasNorm, widthsOf(file->model)),
        file_(std::move(file)) {
    properties_.assign(model().props.begin(), model().props.end());
    labels_ = classLabels(model());
    hasSoftmax_ = model().useSoftmax;
  }

  std::shared_ptr<const ModelFile> file() const override { return file_; }

  std::unique_ptr<FwdPass> makePass() const override {
    return std::make_unique<NNFwdPassFromFile>(model());
  }

  std::shared_ptr<OpenedModel> toCodes(int bits, CodesFor codesFor) const override {
    return converted(*this, CodedFwdPass::create(model(), bits, codesFor));
  }

  std::shared_ptr<OpenedModel> toIntegers(WideInputs wideInputs) const override {
    return converted(*this, IntegerFwdPass::create(model(), wideInputs));
  }

 private:
  const MultiLayerNNModel& model() const { return file_->model; }

  std::shared_ptr<const ModelFile> file_;
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
    auto pass = std::make_unique<ImageFwdPass>();
    openAgain(*pass);
    return pass;
  }

  std::shared_ptr<const ModelFile> file() const override {
    const CollectedMessages saidBefore;
    auto read = std::make_shared<ModelFile>();
    readModel(image_, length_, *read);
    return read;
  }

  std::size_t prepare(FwdPass& pass, std::size_t mostBytes) const override {
    return static_cast<ImageFwdPass&>(pass).prepare(mostBytes);
  }

  // The codes are made from a model, which is there only meanwhile.
  std::shared_ptr<OpenedModel> toCodes(int bits, CodesFor codesFor) const override {
    return converted(*this, CodedFwdPass::create(file()->model, bits, codesFor));
  }

  std::shared_ptr<OpenedModel> toIntegers(WideInputs wideInputs) const override {
    ImageFwdPass pass;
    openAgain(pass);
    return converted(*this, IntegerFwdPass::create(pass, wideInputs), file_);
  }

 private:
  // What is to say of the image was said when it was opened first.
  void openAgain(ImageFwdPass& pass) const {
    const CollectedMessages saidBefore;
    pass.open(image_, length_, ImageChecksum::kDeclined);
  }

  const void* image_;
  std::size_t length_;
  std::shared_ptr<const FileMapping> file_;
};

std::shared_ptr<OpenedModel> openImage(const void* image, std::size_t length,
                                       std::shared_ptr<const FileMapping> file) {
  ImageFwdPass pass;
  if (pass.open(image, length) != 0) return nullptr;
  return std::make_shared<ImageModel>(pass, image, length, std::move(file));
}

std::shared_ptr<OpenedModel> notAgain() {
  report({"ERROR: the model was converted already: convert the one that it was made from"});
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

std::shared_ptr<OpenedModel> OpenedModel::toCodes(int, CodesFor) const { return notAgain(); }

std::shared_ptr<OpenedModel> OpenedModel::toIntegers(WideInputs) const { return notAgain(); }

std::shared_ptr<OpenedModel> openedModelOf(ModelFile file) {
  return std::make_shared<LoadedModel>(std::make_shared<const ModelFile>(std::move(file)));
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
