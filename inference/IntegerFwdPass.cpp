#include "inference/IntegerFwdPass.h"

#include <utility>
#include <vector>

#include "inference/IntegerImageLayers.h"
#include "inference/IntegerLayers.h"
#include "inference/IntegerStackPass.h"
#include "inference/ModelLayers.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

constexpr char kCreate[] = "IntegerFwdPass::create";
constexpr char kEvaluate[] = "IntegerFwdPass::evaluate";

IntegerKernels bestIntegerKernels() { return {bestDots(), bestUnfusedKernels()}; }

}  // namespace

std::unique_ptr<IntegerFwdPass> IntegerFwdPass::create(const MultiLayerNNModel& model,
                                                       WideInputs wideInputs) {
  return create(model, wideInputs, Watch());
}

std::unique_ptr<IntegerFwdPass> IntegerFwdPass::create(const MultiLayerNNModel& model,
                                                       WideInputs wideInputs, const Watch& watch) {
  if (!canBeEvaluated(model, kCreate)) return nullptr;
  auto layers = std::make_shared<const IntegerLayers>(model, wideInputs, watch);
  return std::unique_ptr<IntegerFwdPass>(new IntegerFwdPass(std::move(layers)));
}

std::unique_ptr<IntegerFwdPass> IntegerFwdPass::create(const ImageFwdPass& image,
                                                       WideInputs wideInputs) {
  if (!image.canEvaluate(kCreate)) return nullptr;
  std::vector<LayerRecordView> records;
  for (std::size_t i = 0; i < image.layers_->count(); ++i) {
    records.push_back(std::as_const(*image.layers_).record(i));
  }
  auto layers = std::make_shared<const IntegerImageLayers>(std::move(records), image.endsInSoftmax_,
                                                           wideInputs, image.file_);
  return std::unique_ptr<IntegerFwdPass>(new IntegerFwdPass(std::move(layers)));
}

std::unique_ptr<IntegerFwdPass> IntegerFwdPass::another() const {
  return std::unique_ptr<IntegerFwdPass>(new IntegerFwdPass(layers_));
}

IntegerFwdPass::IntegerFwdPass(std::shared_ptr<const IntegerSource> layers)
    : layers_(std::move(layers)), memory_(std::make_unique<IntegerMemory>()) {}

IntegerFwdPass::~IntegerFwdPass() = default;

void IntegerFwdPass::setThreads(std::shared_ptr<Threads> threads) {
  memory_->threads = std::move(threads);
}

int IntegerFwdPass::numInputs() const { return static_cast<int>(layers_->layer(0).layer.cols); }

int IntegerFwdPass::numOutputs() const {
  return static_cast<int>(layers_->layer(layers_->count() - 1).layer.rows);
}

int IntegerFwdPass::evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                             Eigen::MatrixXf& outputs) {
  if (!inputsFit(inputs.rows(), numInputs(), kEvaluate)) return 1;
  evaluateIntegers(*layers_, bestIntegerKernels(), inputs, outputs, *memory_,
                   memory_->threads.get());
  return 0;
}

int IntegerFwdPass::evaluateFrames(const InputFrames& inputs, const OutputFrames& outputs) {
  if (!framesFit(inputs, outputs, numInputs(), numOutputs(), kEvaluate)) return 1;
  evaluateIntegers(*layers_, bestIntegerKernels(), inputs, outputs, *memory_,
                   memory_->threads.get());
  return 0;
}

std::size_t IntegerFwdPass::numIntegerLayers() const {
  std::size_t found = 0;
  for (std::size_t i = 0; i < layers_->count(); ++i) {
    if (layers_->layer(i).codes.codes != nullptr) ++found;
  }
  return found;
}

std::size_t IntegerFwdPass::weightBytes() const { return layers_->bytes(); }

std::size_t IntegerFwdPass::workingBytes(Eigen::Index frames) const {
  return sizeof(IntegerFwdPass) + sizeof(IntegerMemory) +
         integerMemoryBytes(*layers_, bestIntegerKernels(), frames);
}

}  // namespace mlnn
