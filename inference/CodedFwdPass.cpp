#include "inference/CodedFwdPass.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "inference/CodedLayer.h"
#include "inference/LayerStackPass.h"
#include "inference/ModelLayers.h"
#include "layers/Report.h"
#include "model/LayerStack.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

constexpr char kEvaluate[] = "CodedFwdPass::evaluate";

}  // namespace

class CodedLayers final : public LayerSource {
 public:
  CodedLayers(const MultiLayerNNModel& model, const PrecisionGrid& grid, int bits,
              std::size_t fewest, const Watch& watch)
      : endsInSoftmax_(model.useSoftmax) {
    layers_.reserve(model.layers.size());
    for (const NNLayer* layer : model.layers)
      layers_.emplace_back(*layer, grid, bits, fewest, watch);
  }

  std::size_t count() const override { return layers_.size(); }
  LayerView layer(std::size_t index) const override { return layers_[index].view(); }
  bool endsInSoftmax() const override { return endsInSoftmax_; }

  const std::vector<CodedLayer>& all() const { return layers_; }

 private:
  std::vector<CodedLayer> layers_;
  bool endsInSoftmax_;
};

std::unique_ptr<CodedFwdPass> CodedFwdPass::create(const MultiLayerNNModel& model, int bits,
                                                   CodesFor codesFor) {
  return create(model, bits, codesFor, Watch());
}

std::unique_ptr<CodedFwdPass> CodedFwdPass::create(const MultiLayerNNModel& model, int bits,
                                                   CodesFor codesFor, const Watch& watch) {
  constexpr std::size_t kStreaming = kSecondLevelBytes / sizeof(float);
  constexpr char kCreate[] = "CodedFwdPass::create";
  if (bits < kMinBits || bits > kMaxBits) {
    report({"ERROR: ", kCreate, ": bits must be ", kMinBits, " to ", kMaxBits, ", got ", bits});
    return nullptr;
  }
  if (!canBeEvaluated(model, kCreate)) return nullptr;
  const ValueRange range = parameterRange(model.layers).value_or(ValueRange{0.0f, 0.0f});
  tell(watch, 0);
  const std::size_t fewest = codesFor == CodesFor::kSpeed ? kStreaming : 1;
  auto layers =
      std::make_shared<const CodedLayers>(model, PrecisionGrid(range, bits), bits, fewest, watch);
  return std::unique_ptr<CodedFwdPass>(new CodedFwdPass(std::move(layers)));
}

CodedFwdPass::CodedFwdPass(std::shared_ptr<const CodedLayers> layers)
    : layers_(std::move(layers)) {}

CodedFwdPass::~CodedFwdPass() = default;

std::unique_ptr<CodedFwdPass> CodedFwdPass::another() const {
  return std::unique_ptr<CodedFwdPass>(new CodedFwdPass(layers_));
}

void CodedFwdPass::setThreads(std::shared_ptr<Threads> threads) {
  memory_.threads = std::move(threads);
}

int CodedFwdPass::numInputs() const { return static_cast<int>(layers_->layer(0).cols); }

int CodedFwdPass::numOutputs() const {
  return static_cast<int>(layers_->layer(layers_->count() - 1).rows);
}

int CodedFwdPass::evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                           Eigen::MatrixXf& outputs) {
  if (!inputsFit(inputs.rows(), numInputs(), kEvaluate)) return 1;
  evaluateStack(*layers_, inputs, outputs, memory_, nullptr, memory_.threads.get());
  return 0;
}

int CodedFwdPass::evaluateFrames(const InputFrames& inputs, const OutputFrames& outputs) {
  if (!framesFit(inputs, outputs, numInputs(), numOutputs(), kEvaluate)) return 1;
  evaluateStack(*layers_, inputs, outputs, memory_, memory_.threads.get());
  return 0;
}

std::size_t CodedFwdPass::numCodedLayers() const {
  const std::vector<CodedLayer>& all = layers_->all();
  const auto isCoded = [](const CodedLayer& layer) { return layer.isCoded(); };
  return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), isCoded));
}

std::size_t CodedFwdPass::weightBytes() const {
  std::size_t bytes = 0;
  for (const CodedLayer& layer : layers_->all()) bytes += layer.bytes();
  return bytes;
}

std::size_t CodedFwdPass::workingBytes(Eigen::Index frames) const {
  return sizeof(CodedFwdPass) + passMemoryBytes(*layers_, frames);
}

}  // namespace mlnn
