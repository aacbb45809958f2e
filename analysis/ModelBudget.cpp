#include "analysis/ModelBudget.h"

#include <memory>
#include <ostream>
#include <streambuf>

#include "analysis/WeightForms.h"
#include "inference/CodedFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "tools/CapturedDiagnostics.h"
#include "tools/Failure.h"
#include "tools/ModelFit.h"
#include "tools/files/ModelSaving.h"

namespace mlnn {
namespace {

// Counts what is written to it.
class CountingBuffer : public std::streambuf {
 public:
  uint64_t count() const { return count_; }

 protected:
  std::streamsize xsputn(const char*, std::streamsize length) override {
    count_ += static_cast<uint64_t>(length);
    return length;
  }
  int_type overflow(int_type character) override {
    ++count_;
    return traits_type::not_eof(character);
  }

 private:
  uint64_t count_ = 0;
};

template <typename Array>
uint64_t lengthOf(const Array& array) {
  return static_cast<uint64_t>(array.size());
}

void add(const NNLayer& layer, ModelBudget& budget) {
  const uint64_t weights = lengthOf(layer.weights);
  const auto outputs = static_cast<uint64_t>(layer.weights.rows());
  const uint64_t all = weights + lengthOf(layer.bias) + lengthOf(layer.gamma) +
                       lengthOf(layer.beta) + lengthOf(layer.gamma_inf) + lengthOf(layer.beta_inf);
  budget.parameterBytes += all * sizeof(float);
  budget.readBytes += (weights + (layer.isBatchNorm ? 2 : 1) * outputs) * sizeof(float);
  budget.multiplyAdds += weights + (layer.isBatchNorm ? outputs : 0);
  if (layer.actFn != ActFn::linear) budget.activations += outputs;
}

// A copy with everything, the properties included.
MultiLayerNNModel wholeCopy(const MultiLayerNNModel& model) {
  MultiLayerNNModel copy(model);
  copy.props = model.props;
  return copy;
}

std::optional<uint64_t> imageSizeOf(MultiLayerNNModel model) {
  const CapturedDiagnostics silence;
  fitToFormat(model, ModelFormat::kBinary, kExactDigits);
  const int length = model.binarySerializedLength();
  return length < 0 ? std::nullopt : std::optional<uint64_t>(static_cast<uint64_t>(length));
}

std::optional<uint64_t> textSizeOf(MultiLayerNNModel model) {
  const CapturedDiagnostics silence;
  fitToFormat(model, ModelFormat::kText, kExactDigits);
  CountingBuffer buffer;
  std::ostream out(&buffer);
  writeModel(model, ModelFormat::kText, kExactDigits, out);
  return buffer.count();
}

template <typename Size>
std::optional<uint64_t> ifPossible(Size size, const MultiLayerNNModel& model) {
  try {
    return size(wholeCopy(model));
  } catch (const Failure&) {
    return std::nullopt;
  }
}

}  // namespace

ModelBudget budgetOf(const MultiLayerNNModel& model) {
  ModelBudget budget;
  for (const NNLayer* layer : model.layers) add(*layer, budget);
  budget.workingBytes = NNFwdPassFromFile::workingBytes(model, 1);
  budget.weightForms = weightForms(model);
  if (model.useSoftmax) budget.activations += static_cast<uint64_t>(model.numOutputs());
  return budget;
}

CodedSize codedSizeOf(const MultiLayerNNModel& model, int bits) {
  const std::unique_ptr<CodedFwdPass> pass = CodedFwdPass::create(model, bits, CodesFor::kMemory);
  if (pass == nullptr) throw Failure("the model cannot be run");
  return {pass->weightBytes(), pass->numCodedLayers()};
}

FileSizes fileSizesOf(const MultiLayerNNModel& model) {
  return {ifPossible(imageSizeOf, model), ifPossible(textSizeOf, model)};
}

}  // namespace mlnn
