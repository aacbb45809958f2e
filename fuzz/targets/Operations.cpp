// A sequence of operations on two small models, told by the input. After each of them the model
// must hold together: shapes and descriptions agree, what can be written reads back the same, and
// the forward pass refuses or computes what a plain loop does. At the end the pass over codes must
// give what the reduced model gives, and a window over frames the same in both ways.
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>

#include "features/ContextWindow.h"
#include "fuzz/ModelChecks.h"
#include "fuzz/SameValues.h"
#include "fuzz/Support.h"
#include "inference/CodedFwdPass.h"
#include "tests/support/ModelDifference.h"
#include "tests/support/ReferencePass.h"

namespace {

using mlnn::CodedFwdPass;
using mlnn::CodesFor;
using mlnn::ContextWindow;
using mlnn::fuzz::Bytes;
using mlnn::fuzz::require;
using mlnn::fuzz::requireNone;
using mlnn::fuzz::sameValues;
using mlnn::test::firstDifference;

constexpr int kMaxWidth = 5;
constexpr std::size_t kMaxLayers = 6;
constexpr int kMaxSteps = 24;

void addLayer(MultiLayerNNModel& model, Bytes& bytes) {
  if (model.layers.size() >= kMaxLayers) return;
  const int outputs = bytes.below(kMaxWidth);
  const float scale = bytes.value();
  const bool isBatchNorm = bytes.below(2) == 1;
  const std::size_t before = model.layers.size();
  const bool isFirst = bytes.below(4) == 0;
  const int result =
      isFirst ? model.createFirstLayer(bytes.below(kMaxWidth), outputs, scale, isBatchNorm)
              : model.addLayerRndInit(outputs, scale, isBatchNorm);
  require(result == (isFirst == (before == 0) ? 0 : 1), "adding a layer");
  require(model.layers.size() == before + (result == 0 ? 1 : 0), "the number of layers");
}

void deleteLayers(MultiLayerNNModel& model, Bytes& bytes) {
  const std::size_t before = model.layers.size();
  const auto count = static_cast<unsigned int>(bytes.below(4));
  const bool fits = count <= before;
  require(model.deleteLayers(count) == (fits ? 0 : 1), "deleting layers");
  require(model.layers.size() == before - (fits ? count : 0), "the number of layers");
}

// Sets a value anywhere in the model's arrays.
void setValue(MultiLayerNNModel& model, Bytes& bytes) {
  if (model.layers.empty()) return;
  NNLayer* layer = model.layers[bytes.byte() % model.layers.size()];
  if (layer == nullptr) return;
  Eigen::VectorXf* const vectors[] = {&layer->bias, &layer->gamma, &layer->beta, &layer->gamma_inf,
                                      &layer->beta_inf};
  const int which = bytes.below(6);
  const std::size_t at = bytes.byte();
  const float value = bytes.value();
  float* const data = which == 5 ? layer->weights.data() : vectors[which]->data();
  const auto size =
      static_cast<std::size_t>(which == 5 ? layer->weights.size() : vectors[which]->size());
  if (size > 0) data[at % size] = value;
}

// Breaks the stack as a load that failed may: a missing layer, an array of another length.
void damage(MultiLayerNNModel& model, Bytes& bytes) {
  if (model.layers.empty()) return;
  NNLayer*& layer = model.layers[bytes.byte() % model.layers.size()];
  if (layer == nullptr) return;
  switch (bytes.below(3)) {
    case 0:
      delete layer;
      layer = nullptr;
      break;
    case 1:
      layer->bias = Eigen::VectorXf::Zero(bytes.below(kMaxWidth));
      break;
    default:
      layer->gamma = Eigen::VectorXf::Zero(bytes.below(kMaxWidth));
      break;
  }
}

void setTexts(MultiLayerNNModel& model, Bytes& bytes) {
  const std::string key(1, static_cast<char>('a' + bytes.below(3)));
  const std::string value(static_cast<std::size_t>(bytes.below(4)), 'v');
  model.setProp(key, value);
  require(model.getProp(key) == value, "the property");
  model.notes.addString("# note " + value);
  model.loss.assign(static_cast<std::size_t>(bytes.below(3)), 0.25f);
  model.deltasNorm.allocIfNeeded();
}

void addModels(MultiLayerNNModel& model, const MultiLayerNNModel& other) {
  const std::string before = model.debug_description();
  model += other;
  require(model.debug_description() == before, "a sum changed the shape");
}

void copyModel(MultiLayerNNModel& model, const MultiLayerNNModel& other) {
  const auto props = model.props;
  model = other;
  require(model.props == props, "an assignment changed the properties");
  MultiLayerNNModel copy(other);
  copy.props = props;
  requireNone(firstDifference(model, copy), "a copy differs");
}

void scale(MultiLayerNNModel& model, Bytes& bytes) {
  const MultiLayerNNModel before(model);
  const float factor = bytes.value();
  model *= factor;
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    if (model.layers[i] == nullptr || model.layers[i]->weights.size() == 0) continue;
    const float is = model.layers[i]->weights(0, 0);
    const float wanted = before.layers[i]->weights(0, 0) * factor;
    require(is == wanted || (std::isnan(is) && std::isnan(wanted)), "a scaled weight");
  }
}

void fold(MultiLayerNNModel& model) {
  const int result = model.convBatchNorm();
  require(result == 0 || result == 1, "the result of folding");
  if (result != 0) return;
  for (const NNLayer* layer : model.layers) {
    require(layer == nullptr || !layer->isBatchNorm, "a batch-norm layer after folding");
  }
}

void reduce(MultiLayerNNModel& model, Bytes& bytes) {
  const std::string before = model.debug_description();
  model.retainPrecisionBits(bytes.below(36) - 2);
  require(model.debug_description() == before, "reducing precision changed the shape");
}

// The same as the library's rule, in other words.
bool fits(const MultiLayerNNModel& model) {
  Eigen::Index inputs = model.numInputs();
  for (const NNLayer* layer : model.layers) {
    if (layer == nullptr || layer->weights.cols() != inputs) return false;
    const Eigen::Index rows = layer->weights.rows();
    const auto emptyOr = [rows](const Eigen::VectorXf& v, bool isUsed) {
      return v.size() == rows || (v.size() == 0 && !isUsed);
    };
    const bool bn = layer->isBatchNorm;
    if (!emptyOr(layer->bias, !bn) || !emptyOr(layer->gamma, bn) || !emptyOr(layer->beta, bn) ||
        !emptyOr(layer->gamma_inf, bn) || !emptyOr(layer->beta_inf, bn)) {
      return false;
    }
    inputs = rows;
  }
  return !model.layers.empty();
}

// The largest magnitude of any parameter; NaN counts as infinite.
float magnitude(const MultiLayerNNModel& model) {
  float largest = 0;
  const auto take = [&largest](const auto& values) {
    for (Eigen::Index i = 0; i < values.size(); ++i) {
      const float value = std::fabs(values.data()[i]);
      largest = value <= std::numeric_limits<float>::max() ? std::max(largest, value)
                                                           : std::numeric_limits<float>::infinity();
    }
  };
  for (const NNLayer* layer : model.layers) {
    take(layer->weights);
    take(layer->bias);
    take(layer->gamma_inf);
    take(layer->beta_inf);
  }
  return largest;
}

void evaluate(MultiLayerNNModel& model, Bytes& bytes) {
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  Eigen::MatrixXf inputs(model.numInputs(), 1 + bytes.below(3));
  for (Eigen::Index i = 0; i < inputs.size(); ++i) {
    inputs.data()[i] = static_cast<float>(bytes.below(65) - 32) / 16;
  }
  Eigen::MatrixXf outputs;
  const int result = pass->evaluate(inputs, outputs);
  require((result == 0) == fits(model), "the forward pass decides otherwise");
  if (result != 0) return;
  require(outputs.rows() == model.numOutputs() && outputs.cols() == inputs.cols(), "outputs");
  constexpr float kTame = 8;  // beyond it errors of rounding grow without a simple bound
  if (outputs.size() == 0 || !(magnitude(model) <= kTame)) return;
  const Eigen::MatrixXd reference = mlnn::test::referencePass(model, inputs);
  for (Eigen::Index i = 0; i < outputs.size(); ++i) {
    const double is = outputs.data()[i];
    const double wanted = reference.data()[i];
    // Each of up to six layers of up to five inputs multiplies an error by at most 40.
    require(std::fabs(is - wanted) <= 1e-2 * (1 + std::fabs(wanted)) || model.layers.size() > 3,
            "the forward pass computes otherwise");
  }
}

bool isWhole(const MultiLayerNNModel& model) {
  MultiLayerNNModel copy(model);
  return model.layers.empty() || fits(copy);
}

void requireWhole(MultiLayerNNModel& model) {
  std::string widths;
  for (const NNLayer* layer : model.layers) {
    widths += std::to_string(layer == nullptr ? 0 : layer->weights.cols()) + ",";
  }
  if (!model.layers.empty()) widths += std::to_string(model.numOutputs());
  require(model.description() == widths, "the description");
  if (!isWhole(model)) {
    mlnn::fuzz::textOf(model);  // must cope with it
    model.checksum();
    return;
  }
  model.deltasNorm.allocIfNeeded();
  const std::string image = mlnn::fuzz::imageOf(model);
  MultiLayerNNModel again;
  require(again.deserializeBinary(image.data(), static_cast<unsigned int>(image.size())) ==
              static_cast<int>(image.size()),
          "the image cannot be read");
  require(mlnn::fuzz::imageOf(again) == image, "the image reads back otherwise");
}

Eigen::MatrixXf someFrames(Eigen::Index length, int count, Bytes& bytes) {
  Eigen::MatrixXf frames(length, count);
  for (Eigen::Index i = 0; i < frames.size(); ++i) frames.data()[i] = bytes.value();
  return frames;
}

// A forward pass over codes gives what the model with as few bits gives.
void requireCodedPass(const MultiLayerNNModel& model, Bytes bytes) {
  const Eigen::MatrixXf inputs = someFrames(model.numInputs(), 1 + bytes.below(3), bytes);
  for (int bits = CodedFwdPass::kMinBits - 1; bits <= CodedFwdPass::kMaxBits + 1; ++bits) {
    const std::unique_ptr<FwdPass> coded = CodedFwdPass::create(model, bits, CodesFor::kMemory);
    const bool isCode = bits >= CodedFwdPass::kMinBits && bits <= CodedFwdPass::kMaxBits;
    require((coded != nullptr) == (isCode && fits(model)), "coding decides otherwise");
    if (coded == nullptr) continue;
    MultiLayerNNModel reduced(model);
    reduced.retainPrecisionBits(bits);
    NNFwdPassFromFile plain(reduced);
    Eigen::MatrixXf outputs;
    Eigen::MatrixXf wanted;
    require(coded->evaluate(inputs, outputs) == 0 && plain.evaluate(inputs, wanted) == 0,
            "a pass that fits refuses");
    require(sameValues(outputs, wanted), "codes give other bits than the reduced model");
  }
}

// Frames that arrive one by one make the same input vectors as a whole recording.
void requireWindow(Bytes bytes) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.winSizeLeft = bytes.below(4);
  desc.winSizeRight = bytes.below(4);
  const int frameLen = 1 + bytes.below(kMaxWidth);
  MelDeltasNorm norm;
  if (bytes.below(2) == 1) {
    norm.allocIfNeeded();
    for (int i = 0; i < frameLen; ++i) norm.minvals[i] = bytes.value();
    for (int i = 0; i < frameLen; ++i) norm.normvals[i] = bytes.value();
  }
  std::string whyNot;
  std::optional<ContextWindow> window = ContextWindow::create(desc, norm, frameLen, whyNot);
  require(window.has_value(), "no window");
  const Eigen::MatrixXf frames = someFrames(frameLen, bytes.below(9), bytes);
  Eigen::MatrixXf wanted;
  window->stack(frames, wanted);

  Eigen::MatrixXf inputs(window->inputLen(), frames.cols() + 1);  // and room for one too many
  Eigen::Index made = 0;
  for (Eigen::Index i = 0; i < frames.cols(); ++i) {
    made += window->push(frames.col(i).data(), inputs.col(made).data()) ? 1 : 0;
  }
  while (made < inputs.cols() && window->finish(inputs.col(made).data())) ++made;
  require(made == frames.cols(), "the number of input vectors");
  require(sameValues(inputs.leftCols(made), wanted), "input vectors differ from the recording's");
}

void step(MultiLayerNNModel& model, MultiLayerNNModel& other, Bytes& bytes) {
  switch (bytes.below(16)) {
    case 0:
    case 1:
    case 2:
      addLayer(model, bytes);
      break;
    case 3:
      deleteLayers(model, bytes);
      break;
    case 4:
    case 5:
      setValue(model, bytes);
      break;
    case 6:
      setTexts(model, bytes);
      break;
    case 7:
      addModels(model, other);
      break;
    case 8:
      copyModel(model, other);
      break;
    case 9:
      scale(model, bytes);
      break;
    case 10:
      fold(model);
      break;
    case 11:
      reduce(model, bytes);
      break;
    case 12:
      model.setActFn(static_cast<ActFn::ActFn>(bytes.below(ActFn::kCount)));
      break;
    case 13:
      model.setSoftmax(bytes.below(2) == 1);
      break;
    case 14:
      damage(model, bytes);
      break;
    default:
      std::swap(model, other);
      break;
  }
  evaluate(model, bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  mlnn::fuzz::Diagnostics diagnostics;
  // All that the operations and the checks hold, of models that are small however long the input.
  const mlnn::fuzz::Limits limits(size, 64, std::size_t{1} << 19);
  NNLayer::seedRandom(1);
  Bytes bytes(data, size);
  MultiLayerNNModel model;
  MultiLayerNNModel other;
  for (int i = 0; i < kMaxSteps && !bytes.empty(); ++i) step(model, other, bytes);
  requireWhole(model);
  requireWhole(other);
  const Bytes secondHalf(data + size / 2, size - size / 2);
  requireCodedPass(model, secondHalf);
  requireCodedPass(other, secondHalf);
  requireWindow(secondHalf);
  limits.check();
  return 0;
}
