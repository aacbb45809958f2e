#include "analysis/ModelBudget.h"

#include <algorithm>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include "analysis/ModelCopy.h"
#include "analysis/WeightForms.h"
#include "inference/CodedFwdPass.h"
#include "inference/DeviceMemory.h"
#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/LayerArrays.h"
#include "layers/Messages.h"
#include "model/FormatFit.h"
#include "model/ModelImage.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

// Counts what is written to it, and tells a watch.
class CountingBuffer : public std::streambuf {
 public:
  explicit CountingBuffer(const Watch& watch) : watch_(watch) {}

  uint64_t count() const { return count_; }

 protected:
  std::streamsize xsputn(const char*, std::streamsize length) override {
    add(static_cast<uint64_t>(length));
    return length;
  }
  int_type overflow(int_type character) override {
    add(1);
    return traits_type::not_eof(character);
  }

 private:
  void add(uint64_t length) {
    constexpr uint64_t kBytesBetweenCalls = uint64_t{1} << 18;
    count_ += length;
    if (count_ - told_ < kBytesBetweenCalls) return;
    const uint64_t further = count_ - told_;
    told_ = count_;
    tell(watch_, static_cast<std::size_t>(further));
  }

  const Watch& watch_;
  uint64_t count_ = 0;
  uint64_t told_ = 0;  // of which the watch knows
};

template <typename Array>
uint64_t lengthOf(const Array& array) {
  return static_cast<uint64_t>(array.size());
}

void add(const NNLayer& layer, ModelBudget& budget) {
  const uint64_t weights = lengthOf(layer.weights);
  const auto outputs = static_cast<uint64_t>(layer.weights.rows());
  uint64_t all = 0;
  forEachArray(layer, [&all](const char*, const auto& values) { all += lengthOf(values); });
  budget.parameterBytes += all * sizeof(float);
  budget.readBytes += (weights + (layer.isBatchNorm ? 2 : 1) * outputs) * sizeof(float);
  budget.multiplyAdds += weights + (layer.isBatchNorm ? outputs : 0);
  if (layer.actFn != ActFn::linear) budget.activations += outputs;
}

uint64_t deviceBytesOf(const MultiLayerNNModel& model) {
  int widest = 0;
  for (const NNLayer* layer : model.layers) {
    widest = std::max(widest, static_cast<int>(layer->weights.rows()));
  }
  return deviceMemoryBytes(std::max(model.numInputs(), 0), widest);
}

// The model as it is written in the format; nothing where that has no way to write it.
std::optional<MultiLayerNNModel> readyFor(ModelFormat format, const MultiLayerNNModel& model,
                                          const Watch& watch) {
  MultiLayerNNModel copy = copyOf(model, watch);
  std::string whyNot;
  if (!fitToFormat(copy, format, kExactDigits, whyNot, watch)) return std::nullopt;
  return copy;
}

std::optional<uint64_t> imageSizeOf(const MultiLayerNNModel& model, const Watch& watch) {
  const auto ready = readyFor(ModelFormat::kBinary, model, watch);
  const int length = ready ? imageLength(*ready, watch) : -1;
  return length < 0 ? std::nullopt : std::optional<uint64_t>(static_cast<uint64_t>(length));
}

std::optional<uint64_t> textSizeOf(const MultiLayerNNModel& model, const Watch& watch) {
  const auto ready = readyFor(ModelFormat::kText, model, watch);
  if (!ready) return std::nullopt;
  CountingBuffer buffer(watch);
  std::ostream out(&buffer);
  out.exceptions(std::ios::badbit);  // so that what the watch throws passes through
  writeText(*ready, kExactDigits, out);
  return buffer.count();
}

}  // namespace

ModelBudget budgetOf(const MultiLayerNNModel& model, const Watch& watch) {
  const Watch between = [&watch](std::size_t) { tell(watch, 0); };
  ModelBudget budget;
  for (const NNLayer* layer : model.layers) add(*layer, budget);
  budget.workingBytes = NNFwdPassFromFile::workingBytes(model, 1);
  budget.deviceBytes = deviceBytesOf(model);
  budget.weightForms = weightForms(model, between);
  budget.quantized = quantizedText(model, between);
  if (model.useSoftmax) budget.activations += static_cast<uint64_t>(model.numOutputs());
  return budget;
}

std::optional<CodedSize> codedSizeOf(const MultiLayerNNModel& model, int bits, const Watch& watch) {
  const std::unique_ptr<CodedFwdPass> pass =
      CodedFwdPass::create(model, bits, CodesFor::kMemory, watch);
  if (pass == nullptr) return std::nullopt;
  return CodedSize{pass->weightBytes(), pass->numCodedLayers()};
}

std::optional<IntegerSize> integerSizeOf(const MultiLayerNNModel& model, const Watch& watch) {
  const std::unique_ptr<IntegerFwdPass> pass =
      IntegerFwdPass::create(model, WideInputs::kNone, watch);
  if (pass == nullptr) return std::nullopt;
  return IntegerSize{pass->weightBytes(), pass->workingBytes(1), pass->numIntegerLayers()};
}

FileSizes fileSizesOf(const MultiLayerNNModel& model, const Watch& watch) {
  const CollectedMessages silence;
  return {imageSizeOf(model, watch), textSizeOf(model, watch)};
}

}  // namespace mlnn
